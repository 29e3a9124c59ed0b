// Helpers shared by every handler of the module: the debug trace, status texts, the error
// record, and the text-index encoding of table OIDs.
#include "callhome_mib.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "sdwrap.h"
#include "syserr.h"

namespace {

// Event-history subtype of the call-home module.
constexpr uint32_t kTraceSubtype = 0x730000;

// The event-history record: the level word, then the text.
struct TraceRecord {
    uint32_t level;
    char text[512];
};

} // namespace

extern "C" {

callhome_snmp_error_t callhome_snmp_error;

void callhome_trace(int level, const char *format, ...) {
    const bool to_history = sdwrap_hist_event_subtype_check(kTraceSubtype, level) == 0;
    const bool to_debug = sdwrap_chk_int(level, 0, 0, 1) != 0;
    if (!to_history && !to_debug) {
        return;
    }
    TraceRecord record{};
    record.level = static_cast<uint32_t>(level);
    va_list args;
    va_start(args, format);
    vsnprintf(record.text, sizeof record.text, format, args);
    va_end(args);
    if (to_history) {
        sdwrap_hist_event(kTraceSubtype, static_cast<uint32_t>(strlen(record.text) + 5), &record);
    }
    if (to_debug) {
        buginf(1, sdwrap_dbg_modname, 0, "%s", record.text);
    }
}

const char *callhome_status_text(int status) {
    // -1 carries no service status: the cause is in errno, so the system's text is shown.
    return status == -1 ? strerror(-1) : syserr_format(static_cast<uint32_t>(status));
}

void callhome_report_error(int status) {
    callhome_snmp_error.status = status;
    memset(callhome_snmp_error.text, 0, sizeof callhome_snmp_error.text);
    const char *text = syserr_format(static_cast<uint32_t>(status));
    if (text != nullptr) {
        strncpy(callhome_snmp_error.text, text, sizeof callhome_snmp_error.text - 1);
    }
    log_snmp_error(&callhome_snmp_error);
}

void callhome_log_set_error(int status) {
    log_set_error(status, 472); /* the platform's code for a failed write to a service */
}

int callhome_integer_length_ok(size_t len) {
    return len <= sizeof(int32_t) || len == sizeof(long);
}

long callhome_integer_value(const u_char *var_val, size_t len) {
    if (var_val == nullptr) {
        return 0;
    }
    if (len == sizeof(long)) {
        long v;
        memcpy(&v, var_val, sizeof v);
        return v;
    }
    int32_t v = 0;
    memcpy(&v, var_val, len < sizeof v ? len : sizeof v);
    return v;
}

size_t callhome_copy_text(char *dst, size_t size, const char *src, size_t src_max) {
    const size_t n = src == nullptr ? 0 : strnlen(src, src_max < size - 1 ? src_max : size - 1);
    if (n > 0) {
        memcpy(dst, src, n);
    }
    memset(dst + n, 0, size - n);
    return n;
}

size_t callhome_copy_value(char *dst, size_t size, const u_char *var_val, size_t len) {
    const size_t n = var_val == nullptr ? 0 : (len < size - 1 ? len : size - 1);
    if (n > 0) {
        memcpy(dst, var_val, n);
    }
    dst[n] = '\0';
    return n;
}

void callhome_terminate(char *field, size_t size) {
    field[size - 1] = '\0';
}

void callhome_copy_oid(const oid *name, size_t name_len, struct callhome_oid_copy *copy) {
    memset(copy, 0, sizeof *copy);
    if (name != nullptr) {
        copy->len = name_len < MAX_OID_LEN ? name_len : MAX_OID_LEN;
        memcpy(copy->arcs, name, copy->len * sizeof(oid));
    }
}

void oid_to_string(const oid *name, char *out, int start, int count) {
    int i = 0;
    for (; i < count; ++i) {
        out[i] = static_cast<char>(name[start + i] & 0xFF);
    }
    out[i] = '\0';
}

void string_to_oid(const char *text, oid *name, int start, int count) {
    for (int i = 0; i < count; ++i) {
        name[start + i] = static_cast<unsigned char>(text[i]);
    }
}

} // extern "C"
