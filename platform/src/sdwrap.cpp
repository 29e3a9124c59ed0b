#include "sdwrap.h"

#include <atomic>
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

// The module traces after nearly every step. Formatting a trace costs more than the request
// it describes, so both switches answer "off" from one atomic load unless something reads
// the output: the history when CALLHOME_TRACE_HISTORY is set in the environment (or a test
// records it), debug output with net-snmp's -Dcallhome, CALLHOME_DEBUG or a test's switch.
struct History {
    std::mutex mutex;
    std::deque<std::pair<int, std::string>> records;
};

History &history() {
    static History h;
    return h;
}

bool env_set(const char *name) {
    const char *v = std::getenv(name);
    return v != nullptr && *v != '\0';
}

struct Switches {
    std::atomic<bool> history{env_set("CALLHOME_TRACE_HISTORY")};
    std::atomic<bool> debug_forced{false};
    std::atomic<bool> debug_env{env_set("CALLHOME_DEBUG")};
};

Switches &switches() {
    static Switches s;
    return s;
}

} // namespace

extern "C" int sdwrap_hist_event_subtype_check(uint32_t, int) {
    return switches().history.load(std::memory_order_relaxed) ? 0 : 1;
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
    const Switches &s = switches();
    if (s.debug_forced.load(std::memory_order_relaxed) ||
        s.debug_env.load(std::memory_order_relaxed)) {
        return 1;
    }
    // snmp_get_do_debugging is a plain read; the token list is searched only with -D on.
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
    switches().debug_forced = on;
}

void set_trace_history(bool on) {
    switches().history = on;
}

namespace detail {
void reset_trace() {
    clear_trace_history();
    set_debug_output(false);
    // Tests read the history; the environment is read again for tests of it.
    set_trace_history(true);
    switches().debug_env = env_set("CALLHOME_DEBUG");
}
} // namespace detail

} // namespace platform
