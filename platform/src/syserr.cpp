#include "syserr.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "internal.hpp"
#include "platform/testing.hpp"
#include "sysmgr.h"

namespace {

struct KnownStatus {
    uint32_t code;
    const char *text;
};

constexpr KnownStatus kKnown[] = {
    {0x403B000B, "unknown entry"},
    {0x403B000C, "end of table"},
    {0x403B000D, "built-in profile may not be deleted"},
    {0x403B0019, "invalid input"},
    {0x403B002A, "out of memory"},
    {0x403B002B, "bad profile name"},
    {0x403B002C, "index add failed"},
    {0x403B0034, "distribution re-send"},
    {0x403B0040, "no destination profile with e-mail addresses"},
    {0x403B0041, "message delivery failed"},
};

// Layout of the SNMP error record handed to log_snmp_error.
constexpr size_t kErrStatusOffset = 260;
constexpr size_t kErrTextOffset = 264;
constexpr size_t kErrTextMax = 208;

struct ErrorLog {
    std::mutex mutex;
    int32_t set_status = 0;
    int set_code = 0;
    int32_t snmp_status = 0;
    std::string snmp_text;
    // A state, not a history: the agent beats twice per write for as long as it runs.
    platform::HeartbeatState heartbeat;
};

ErrorLog &errors() {
    static ErrorLog log;
    return log;
}

} // namespace

extern "C" const char *syserr2str(uint32_t code) {
    for (const auto &k : kKnown) {
        if (k.code == code) {
            return k.text;
        }
    }
    return nullptr;
}

extern "C" const char *syserr_format(uint32_t status) {
    // One buffer per thread keeps concurrent callers (the service's workers) apart.
    thread_local char buffer[128];
    if (const char *known = syserr2str(status)) {
        return known;
    }
    if (status >= 1 && status <= 4095) {
        std::snprintf(buffer, sizeof buffer, "%s", std::strerror(int(status)));
    } else {
        std::snprintf(buffer, sizeof buffer, "unknown error 0x%08x", status);
    }
    return buffer;
}

extern "C" void log_set_error(int32_t status, int code) {
    // Callers also report successful writes (status 0): recorded, but not logged as failures.
    if (status == -1) {
        const std::string why = platform::detail::channel_failure();
        snmp_log(LOG_ERR, "callhome: write to the service failed (record %d): no status%s%s\n",
                 code, why.empty() ? "" : ": ", why.c_str());
    } else if (status != 0) {
        snmp_log(LOG_ERR, "callhome: write to the service failed (record %d): %s\n", code,
                 syserr_format(uint32_t(status)));
    }
    std::lock_guard<std::mutex> lock(errors().mutex);
    errors().set_status = status;
    errors().set_code = code;
}

extern "C" void log_snmp_error(const void *record) {
    if (record == nullptr) {
        return;
    }
    const auto *bytes = static_cast<const char *>(record);
    int32_t status = 0;
    std::memcpy(&status, bytes + kErrStatusOffset, sizeof status);
    // The text need not be terminated within its field; never look past it.
    const std::string text(bytes + kErrTextOffset, strnlen(bytes + kErrTextOffset, kErrTextMax));
    snmp_log(LOG_ERR, "callhome: SNMP error 0x%08x: %s\n", uint32_t(status), text.c_str());
    std::lock_guard<std::mutex> lock(errors().mutex);
    errors().snmp_status = status;
    errors().snmp_text = text;
}

extern "C" void sysmgr_heartbeat(int busy) {
    std::lock_guard<std::mutex> lock(errors().mutex);
    auto &h = errors().heartbeat;
    if (h.busy != (busy != 0)) {
        h.busy = busy != 0;
        ++h.changes;
    }
}

namespace platform {

std::pair<int32_t, int> last_set_error() {
    std::lock_guard<std::mutex> lock(errors().mutex);
    return {errors().set_status, errors().set_code};
}

std::pair<int32_t, std::string> last_snmp_error() {
    std::lock_guard<std::mutex> lock(errors().mutex);
    return {errors().snmp_status, errors().snmp_text};
}

void clear_errors() {
    std::lock_guard<std::mutex> lock(errors().mutex);
    errors().set_status = 0;
    errors().set_code = 0;
    errors().snmp_status = 0;
    errors().snmp_text.clear();
}

HeartbeatState heartbeat_state() {
    std::lock_guard<std::mutex> lock(errors().mutex);
    return errors().heartbeat;
}

void clear_heartbeat_state() {
    std::lock_guard<std::mutex> lock(errors().mutex);
    errors().heartbeat = {};
}

namespace detail {
void reset_syserr() {
    clear_errors();
    clear_heartbeat_state();
}
} // namespace detail

} // namespace platform
