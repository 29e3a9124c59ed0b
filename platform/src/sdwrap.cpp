#include "sdwrap.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>

#include "internal.hpp"
#include "platform/testing.hpp"

const char *sdwrap_dbg_modname = "callhome"; // C linkage from sdwrap.h

namespace {

constexpr size_t kHistoryDepth = 1024;
constexpr const char *kDebugToken = "callhome";

struct History {
    std::mutex mutex;
    std::deque<std::pair<int, std::string>> records;
    bool debug_forced = false;
};

History &history() {
    static History h;
    return h;
}

} // namespace

extern "C" int sdwrap_hist_event_subtype_check(uint32_t, int) {
    return 0;
}

extern "C" void sdwrap_hist_event(uint32_t, uint32_t length, const void *record) {
    if (record == nullptr || length < sizeof(uint32_t)) {
        return;
    }
    const auto *bytes = static_cast<const char *>(record);
    uint32_t level = 0;
    std::memcpy(&level, bytes, sizeof level);
    // The text ends at its NUL or at `length`, whichever comes first.
    const char *text = bytes + sizeof level;
    std::string entry(text, strnlen(text, length - sizeof level));
    std::lock_guard<std::mutex> lock(history().mutex);
    auto &records = history().records;
    if (records.size() == kHistoryDepth) {
        records.pop_front();
    }
    records.emplace_back(int(level), std::move(entry));
}

extern "C" int sdwrap_chk_int(int, int, int, int) {
    {
        std::lock_guard<std::mutex> lock(history().mutex);
        if (history().debug_forced) {
            return 1;
        }
    }
    const char *env = std::getenv("CALLHOME_DEBUG");
    if (env != nullptr && *env != '\0') {
        return 1;
    }
    return snmp_get_do_debugging() && debug_is_token_registered(kDebugToken) == SNMPERR_SUCCESS ? 1
                                                                                                : 0;
}

extern "C" void buginf(int, const char *modname, int, const char *format, ...) {
    if (format == nullptr) {
        return;
    }
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    snmp_log(LOG_DEBUG, "%s: %s", modname != nullptr ? modname : sdwrap_dbg_modname, text);
}

namespace platform {

std::vector<std::pair<int, std::string>> trace_history() {
    std::lock_guard<std::mutex> lock(history().mutex);
    return {history().records.begin(), history().records.end()};
}

void clear_trace_history() {
    std::lock_guard<std::mutex> lock(history().mutex);
    history().records.clear();
}

void set_debug_output(bool on) {
    std::lock_guard<std::mutex> lock(history().mutex);
    history().debug_forced = on;
}

namespace detail {
void reset_trace() {
    clear_trace_history();
    set_debug_output(false);
}
} // namespace detail

} // namespace platform
