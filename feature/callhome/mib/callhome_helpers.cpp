// Helpers shared by every handler of the module: the debug trace, status texts, the error
// record, the text-index encoding of table OIDs and the table columns' write handlers.
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

struct ColumnWriter {
    int magic;
    WriteMethod *handler;
};

// Write handlers of the writable table columns; other magics have none.
const ColumnWriter kColumnWriters[] = {
    {CALLHOMEDESTPROFILEMSGFORMAT, set_callHomeDestProfileMsgFormat},
    {CALLHOMEDESTPROFILEMAXMSGSIZE, set_callHomeDestProfileMaxMsgSize},
    {CALLHOMEDESTPROFILETRNSPRTMTHD, set_callHomeDestProfileTrnsprtMthd},
    {CALLHOMEDESTPROFILESTATUS, set_callHomeDestProfileStatus},
    {CALLHOMEDESTPROFILEMSGLEVEL, set_callHomeDestProfileMsgLevel},
    {CALLHOMEALERTGROUPS, set_callhome_alertgroups},
    {CALLHOMEDESTEMAILADDRESS, set_callHomeDestEmailAddress},
    {CALLHOMEDESTEMAILADDRESSSTATUS, set_callHomeDestEmailAddressStatus},
    {CALLHOMEUSERDEFCLICMD, set_callHomeUserDefCliCmd},
    {CALLHOMEUSERDEFCLICMDSTATUS, set_callHomeUserDefCliCmdStatus},
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

void set_table_set_methods(int magic, WriteMethod **write_method) {
    for (const auto &writer : kColumnWriters) {
        if (writer.magic == magic) {
            *write_method = writer.handler;
            return;
        }
    }
}

} // extern "C"
