// Scalar writes: each handler checks its value in RESERVE1 and sends the finished record to
// the call-home service in ACTION through set_Scalar. Nothing is kept between phases and
// nothing is undone: the service has the value from ACTION on.
#include "callhome_mib.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ip_addr.h"
#include "snmp_ctx.h"
#include "syserr.h"

namespace {

constexpr int kAlertActionWait = 2; // the action runs on; the module does not wait for it
constexpr u_char kAsnGauge = ASN_GAUGE;

// Where a handler's complaints about type and length go.
enum class Sink {
    Stderr,     // the process's standard error stream
    Trace,      // the debug trace, as the text stands
    NamedTrace, // the debug trace, with the handler's name for the text's %s
};

void complain(Sink sink, const char *message, const char *handler) {
    switch (sink) {
    case Sink::Stderr:
        fputs(message, stderr);
        break;
    case Sink::Trace:
        callhome_trace(CALLHOME_TRACE_INFO, "%s", message);
        break;
    case Sink::NamedTrace:
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        callhome_trace(CALLHOME_TRACE_INFO, message, handler);
#pragma GCC diagnostic pop
        break;
    }
}

// Type and length checks of an INTEGER-like write; the value checks are the caller's.
struct IntegerChecks {
    const char *handler;
    u_char asn_type;
    Sink sink;
    const char *type_message;
    const char *length_message;
};

int check_integer(const IntegerChecks &checks, u_char var_val_type, size_t var_val_len) {
    if (var_val_type != checks.asn_type) {
        complain(checks.sink, checks.type_message, checks.handler);
        return SNMP_ERR_WRONGTYPE;
    }
    if (!callhome_integer_length_ok(var_val_len)) {
        complain(checks.sink, checks.length_message, checks.handler);
        return SNMP_ERR_WRONGLENGTH;
    }
    return SNMP_ERR_NOERROR;
}

/* ---- The text scalars ------------------------------------------------------------------ */

enum class TextRecord { Info, Email };

struct TextScalar {
    const char *handler;
    TextRecord record;
    const char *info_name = nullptr;                      // TextRecord::Info
    char (cmi_email_conf_t::*email_field)[256] = nullptr; // TextRecord::Email
    size_t max_length;
    bool phone_number; // the phone rule instead of the SnmpAdminString rule
    Sink sink;
    const char *type_message;
    const char *length_message;
    const char *being_set; // trace of the new value: handler, value
};

const TextScalar kPhoneNumber = {
    .handler = "set_sysContactPhoneNumber",
    .record = TextRecord::Info,
    .info_name = "sysContactPhoneNumber",
    .max_length = 17,
    .phone_number = true,
    .sink = Sink::Trace,
    .type_message = "write to sysContactPhoneNumber not ASN_OCTET_STR\n",
    .length_message = "write to sysContactPhoneNumber: bad length\n",
    .being_set = "%s : contactPhone  being set to %s\n",
};
const TextScalar kContactEmail = {
    .handler = "set_sysContactEmailAddress",
    .record = TextRecord::Info,
    .info_name = "sysContactEmail",
    .max_length = 255,
    .phone_number = false,
    .sink = Sink::Trace,
    .type_message = "write to sysContactEmailAddress not ASN_OCTET_STR\n",
    .length_message = "write to sysContactEmailAddress: bad length\n",
    .being_set = "%s : contactEmail  being set to %s\n",
};
const TextScalar kStreetAddress = {
    .handler = "set_sysStreetAddress",
    .record = TextRecord::Info,
    .info_name = "sysStreetAddress",
    .max_length = 255,
    .phone_number = false,
    .sink = Sink::Stderr,
    .type_message = "write to sysStreetAddress not ASN_OCTET_STR\n",
    .length_message = "write to sysStreetAddress: bad length\n",
    .being_set = "%s : contactStreetAddr  being set to %s\n",
};
const TextScalar kCustomerId = {
    .handler = "set_callHomeCustomerId",
    .record = TextRecord::Info,
    .info_name = "custId",
    .max_length = 255,
    .phone_number = false,
    .sink = Sink::Stderr,
    .type_message = "write to callHomeCustomerId not ASN_OCTET_STR\n",
    .length_message = "write to callHomeCustomerId: bad length\n",
    .being_set = "%s : custId  being set to %s\n",
};
const TextScalar kContractId = {
    .handler = "set_callHomeContractId",
    .record = TextRecord::Info,
    .info_name = "contractId",
    .max_length = 255,
    .phone_number = false,
    .sink = Sink::Stderr,
    .type_message = "write to callHomeContractId not ASN_OCTET_STR\n",
    .length_message = "write to callHomeContractId: bad length\n",
    .being_set = "%s : contractId  being set to %s\n",
};
const TextScalar kSiteId = {
    .handler = "set_callHomeSiteId",
    .record = TextRecord::Info,
    .info_name = "siteId",
    .max_length = 255,
    .phone_number = false,
    .sink = Sink::Stderr,
    .type_message = "write to callHomeSiteId not ASN_OCTET_STR\n",
    .length_message = "write to callHomeSiteId: bad length\n",
    .being_set = "%s : siteId  being set to %s\n",
};
const TextScalar kEmailFrom = {
    .handler = "set_callHomeEmailFrom",
    .record = TextRecord::Email,
    .email_field = &cmi_email_conf_t::from_email_addr,
    .max_length = 255,
    .phone_number = false,
    .sink = Sink::Stderr,
    .type_message = "write to callHomeEmailFrom not ASN_OCTET_STR\n",
    .length_message = "write to callHomeEmailFrom: bad length\n",
    .being_set = "%s : fromEmail  being set to %s\n",
};
const TextScalar kEmailReplyTo = {
    .handler = "set_callHomeEmailReplyTo",
    .record = TextRecord::Email,
    .email_field = &cmi_email_conf_t::reply_to,
    .max_length = 255,
    .phone_number = false,
    .sink = Sink::Stderr,
    .type_message = "write to callHomeEmailReplyTo not ASN_OCTET_STR\n",
    .length_message = "write to callHomeEmailReplyTo: bad length\n",
    .being_set = "%s : reply-To  being set to %s\n",
};
const TextScalar kEmailReturnReceipt = {
    .handler = "set_callHomeEmailMsgDispNotification",
    .record = TextRecord::Email,
    .email_field = &cmi_email_conf_t::return_receipt_addr,
    .max_length = 255,
    .phone_number = false,
    .sink = Sink::Stderr,
    .type_message = "write to callHomeEmailMsgDispNotification not ASN_OCTET_STR\n",
    .length_message = "write to callHomeEmailMsgDispNotification: bad length\n",
    .being_set = "%s : ReturnReceipt  being set to %s\n",
};

// '+' then digits, spaces and dashes; the plus sign alone is a valid number.
bool valid_phone_number(const u_char *value, size_t len) {
    if (value[0] != '+') {
        return false;
    }
    return std::all_of(value + 1, value + len,
                       [](u_char c) { return (c >= '0' && c <= '9') || c == ' ' || c == '-'; });
}

int check_text(const TextScalar &scalar, u_char var_val_type, const u_char *var_val,
               size_t var_val_len) {
    if (var_val_type != ASN_OCTET_STR) {
        complain(scalar.sink, scalar.type_message, scalar.handler);
        return SNMP_ERR_WRONGTYPE;
    }
    if (var_val_len == 0 || var_val_len > scalar.max_length) {
        complain(scalar.sink, scalar.length_message, scalar.handler);
        return SNMP_ERR_WRONGLENGTH;
    }
    if (scalar.phone_number) {
        if (!valid_phone_number(var_val, var_val_len)) {
            callhome_report_error(CALLHOME_ERR_INVALID_INPUT);
            return SNMP_ERR_GENERR;
        }
        return SNMP_ERR_NOERROR;
    }
    if (var_val[0] == ' ' || var_val[var_val_len - 1] == ' ') {
        callhome_trace(CALLHOME_TRACE_INFO,
                       "%s : leading/trailing space is not allowed in SnmpAdminString type\n",
                       scalar.handler);
        return SNMP_ERR_WRONGVALUE;
    }
    return SNMP_ERR_NOERROR;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void trace_being_set(const TextScalar &scalar, const char *value) {
    callhome_trace(CALLHOME_TRACE_INFO, scalar.being_set, scalar.handler, value);
}
#pragma GCC diagnostic pop

int send_info(const char *info_name, const char *value) {
    cmi_callhome_info_t record{};
    snprintf(record.info_name, sizeof record.info_name, "%s", info_name);
    snprintf(record.info_value, sizeof record.info_value, "%s", value);
    return set_Scalar(CALLHOME_INFO_OPC, sizeof record, &record, CALLHOME_WRITE_WAIT);
}

// The whole persistent e-mail record goes out: fields not written carry the last read.
int send_email_conf() {
    cmi_email_conf_t copy = callhome_email_conf;
    callHomeEmailConf_hton(&copy);
    return set_Scalar(CALLHOME_EMAIL_CONF_OPC, sizeof copy, &copy, CALLHOME_WRITE_WAIT);
}

int write_text(const TextScalar &scalar, int action, const u_char *var_val, u_char var_val_type,
               size_t var_val_len) {
    switch (action) {
    case RESERVE1:
        return check_text(scalar, var_val_type, var_val, var_val_len);
    case ACTION:
        break;
    default:
        return SNMP_ERR_NOERROR;
    }
    if (scalar.record == TextRecord::Info) {
        char value[sizeof(cmi_callhome_info_t::info_value)];
        callhome_copy_text(value, sizeof value, reinterpret_cast<const char *>(var_val),
                           var_val_len);
        trace_being_set(scalar, value);
        return send_info(scalar.info_name, value);
    }
    // The persistent record keeps the new text even when the SET fails.
    char(&field)[256] = callhome_email_conf.*scalar.email_field;
    callhome_copy_value(field, sizeof field, var_val, var_val_len);
    trace_being_set(scalar, field);
    return send_email_conf();
}

/* ---- Switches ---------------------------------------------------------------------------- */

bool is_truth_value(long value) {
    return value == 1 || value == 2;
}

int send_switch(int opcode, uint32_t on) {
    callhome_switch_t record{};
    record.value = htonl(on);
    record.reserved = 0;
    return set_Scalar(opcode, sizeof record, &record, CALLHOME_WRITE_WAIT);
}

/* ---- Periodic inventory: the record is sent whole, so the kept fields are read first. -- */

struct PeriodicFields {
    uint32_t enable;
    uint32_t time_frame;
    uint32_t time_of_day;
};

// Reads one kept field's current value into `fields`.
void read_kept_field(PeriodicFields *fields, int magic) {
    callhome_periodic_inventory_t request{};
    const long value = get_periodic_inventory_info(&request, magic, 1);
    switch (magic) {
    case PERIODICSWINVENTORYMSGENABLE:
        fields->enable = value == 1 ? 1 : 0;
        break;
    case PERIODICSWINVENTORYTIMEFRAME:
        fields->time_frame = static_cast<uint32_t>(value);
        break;
    default:
        fields->time_of_day = static_cast<uint32_t>(value);
        break;
    }
}

int send_periodic_inventory(const PeriodicFields &fields) {
    callhome_periodic_inventory_t record{};
    record.enable = htonl(fields.enable);
    record.time_frame = htonl(fields.time_frame);
    record.reserved = 0;
    record.time_of_day = htonl(fields.time_of_day);
    return set_Scalar(CALLHOME_PERIODIC_INVENTORY_OPC, sizeof record, &record, CALLHOME_WRITE_WAIT);
}

// "HH:MM" into minutes after midnight; false (traced) for a bad format or range.
bool parse_time_of_day(const char *handler, char *text, uint32_t *minutes) {
    if (text[2] != ':') {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : bad format (should be in HH:MM) \n", handler);
        return false;
    }
    char *save = nullptr;
    const char *hour_text = strtok_r(text, ":", &save);
    const char *minute_text = strtok_r(nullptr, ":", &save);
    int hour = 0;
    int minute = 0;
    if (hour_text == nullptr || minute_text == nullptr || sscanf(hour_text, "%d", &hour) != 1 ||
        sscanf(minute_text, "%d", &minute) != 1) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : bad format (should be in HH:MM) \n", handler);
        return false;
    }
    // Compared unsigned, so negative numbers are out of range too.
    if (static_cast<unsigned>(hour) > 23 || static_cast<unsigned>(minute) > 59) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : out of range error \n", handler);
        return false;
    }
    *minutes = static_cast<uint32_t>(hour * 60 + minute);
    return true;
}

} // namespace

extern "C" {

int set_Scalar(int opcode, uint32_t length, void *data, int wait) {
    char preview[256];
    const size_t shown = std::min<size_t>(length, sizeof preview - 1);
    memcpy(preview, data, shown);
    preview[shown] = '\0';
    callhome_trace(CALLHOME_TRACE_INFO, "%s : Setting opcode = %d, data = %s\n", "set_Scalar",
                   opcode, preview);

    const int status = callhome_write(opcode, SET_REQ, data, length, CALLHOME_CLIENT_SCALAR, wait);

    if (status == CALLHOME_SUCCESS) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : SET succeeded\n", "set_Scalar");
        return SNMP_ERR_NOERROR;
    }
    if (opcode == CALLHOME_ALERT_ACTION_OPC) {
        return status; // mapped by the alert action's handler, which reads errno too
    }
    if (status == CALLHOME_ERR_INVALID_INPUT) {
        // The service's own text tells the manager what it refused.
        callhome_report_error(status);
        return SNMP_ERR_GENERR;
    }
    callhome_trace(CALLHOME_TRACE_ERROR, "%s : SET failed : %s\n", "set_Scalar",
                   callhome_status_text(status));
    callhome_log_set_error(status);
    return to_snmp_error_code(status);
}

int setTableObjects(int opcode, void *data, uint32_t length) {
    const int status =
        callhome_write(opcode, SET_REQ, data, length, CALLHOME_CLIENT_TABLE, CALLHOME_WRITE_WAIT);

    if (status == CALLHOME_SUCCESS) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : SET succeeded\n", "setTableObjects");
        return SNMP_ERR_NOERROR;
    }
    callhome_trace(CALLHOME_TRACE_ERROR, "%s : SET failed : %s\n", "setTableObjects",
                   callhome_status_text(status));
    callhome_log_set_error(status);
    return to_snmp_error_code(status);
}

/* ---- Text scalars ------------------------------------------------------------------------ */

int set_sysContactPhoneNumber(int action, u_char *var_val, u_char var_val_type, size_t var_val_len,
                              u_char *, oid *, size_t) {
    return write_text(kPhoneNumber, action, var_val, var_val_type, var_val_len);
}

int set_sysContactEmailAddress(int action, u_char *var_val, u_char var_val_type, size_t var_val_len,
                               u_char *, oid *, size_t) {
    return write_text(kContactEmail, action, var_val, var_val_type, var_val_len);
}

int set_sysStreetAddress(int action, u_char *var_val, u_char var_val_type, size_t var_val_len,
                         u_char *, oid *, size_t) {
    return write_text(kStreetAddress, action, var_val, var_val_type, var_val_len);
}

int set_callHomeCustomerId(int action, u_char *var_val, u_char var_val_type, size_t var_val_len,
                           u_char *, oid *, size_t) {
    return write_text(kCustomerId, action, var_val, var_val_type, var_val_len);
}

int set_callHomeContractId(int action, u_char *var_val, u_char var_val_type, size_t var_val_len,
                           u_char *, oid *, size_t) {
    return write_text(kContractId, action, var_val, var_val_type, var_val_len);
}

int set_callHomeSiteId(int action, u_char *var_val, u_char var_val_type, size_t var_val_len,
                       u_char *, oid *, size_t) {
    return write_text(kSiteId, action, var_val, var_val_type, var_val_len);
}

int set_callHomeEmailFrom(int action, u_char *var_val, u_char var_val_type, size_t var_val_len,
                          u_char *, oid *, size_t) {
    return write_text(kEmailFrom, action, var_val, var_val_type, var_val_len);
}

int set_callHomeEmailReplyTo(int action, u_char *var_val, u_char var_val_type, size_t var_val_len,
                             u_char *, oid *, size_t) {
    return write_text(kEmailReplyTo, action, var_val, var_val_type, var_val_len);
}

int set_callHomeEmailMsgDispNotification(int action, u_char *var_val, u_char var_val_type,
                                         size_t var_val_len, u_char *, oid *, size_t) {
    return write_text(kEmailReturnReceipt, action, var_val, var_val_type, var_val_len);
}

/* ---- Service switches and actions -------------------------------------------------------- */

int set_callHomeEnable(int action, u_char *var_val, u_char var_val_type, size_t var_val_len,
                       u_char *, oid *, size_t) {
    static constexpr IntegerChecks kChecks = {
        .handler = "set_callHomeEnable",
        .asn_type = ASN_INTEGER,
        .sink = Sink::Trace,
        .type_message = "write to callHomeEnable not ASN_INTEGER\n",
        .length_message = "write to callHomeEnable: bad length\n"};
    if (action == RESERVE1) {
        const int status = check_integer(kChecks, var_val_type, var_val_len);
        if (status != SNMP_ERR_NOERROR) {
            return status;
        }
        return is_truth_value(callhome_integer_value(var_val, var_val_len)) ? SNMP_ERR_NOERROR
                                                                            : SNMP_ERR_WRONGVALUE;
    }
    if (action != ACTION) {
        return SNMP_ERR_NOERROR;
    }
    const uint32_t on = callhome_integer_value(var_val, var_val_len) == 1 ? 1 : 0;
    callhome_trace(CALLHOME_TRACE_INFO, "%s : CallhomeEnable being set to %d\n", kChecks.handler,
                   static_cast<int>(on));
    return send_switch(CALLHOME_ENABLE_OPC, on);
}

int set_MsgThrottlingEnable(int action, u_char *var_val, u_char var_val_type, size_t var_val_len,
                            u_char *, oid *, size_t) {
    static constexpr IntegerChecks kChecks = {.handler = "set_MsgThrottlingEnable",
                                              .asn_type = ASN_INTEGER,
                                              .sink = Sink::NamedTrace,
                                              .type_message = "%s : type not ASN_INTEGER \n",
                                              .length_message = "%s : bad length \n"};
    if (action == RESERVE1) {
        const int status = check_integer(kChecks, var_val_type, var_val_len);
        if (status != SNMP_ERR_NOERROR) {
            return status;
        }
        if (!is_truth_value(callhome_integer_value(var_val, var_val_len))) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s : Wrong value ( shd be true/false) \n",
                           kChecks.handler);
            return SNMP_ERR_WRONGVALUE;
        }
        return SNMP_ERR_NOERROR;
    }
    if (action != ACTION) {
        return SNMP_ERR_NOERROR;
    }
    const uint32_t on = callhome_integer_value(var_val, var_val_len) == 1 ? 1 : 0;
    callhome_trace(CALLHOME_TRACE_INFO, "%s : MsgThrottlingEnable being set to %d\n",
                   kChecks.handler, static_cast<int>(on));
    return send_switch(CALLHOME_MSG_THROTTLING_OPC, on);
}

int set_callHomeDeviceServicePriority(int action, u_char *var_val, u_char var_val_type,
                                      size_t var_val_len, u_char *, oid *, size_t) {
    static constexpr IntegerChecks kChecks = {
        .handler = "set_callHomeDeviceServicePriority",
        .asn_type = ASN_INTEGER,
        .sink = Sink::Stderr,
        .type_message = "write to callHomeDeviceServicePriority not ASN_INTEGER\n",
        .length_message = "write to callHomeDeviceServicePriority: bad length\n"};
    if (action == RESERVE1) {
        const int status = check_integer(kChecks, var_val_type, var_val_len);
        if (status != SNMP_ERR_NOERROR) {
            return status;
        }
        const long value = callhome_integer_value(var_val, var_val_len);
        return value >= 1 && value <= 8 ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGVALUE;
    }
    if (action != ACTION) {
        return SNMP_ERR_NOERROR;
    }
    // The service counts priorities from 0.
    char text[16];
    snprintf(text, sizeof text, "%d",
             static_cast<int>(callhome_integer_value(var_val, var_val_len) - 1));
    callhome_trace(CALLHOME_TRACE_INFO, "%s : switchPriority  being set to %s\n", kChecks.handler,
                   text);
    return send_info("priority", text);
}

int set_callHomeAlertAction(int action, u_char *var_val, u_char var_val_type, size_t var_val_len,
                            u_char *, oid *, size_t) {
    static constexpr IntegerChecks kChecks = {
        .handler = "set_callHomeAlertAction",
        .asn_type = ASN_INTEGER,
        .sink = Sink::Stderr,
        .type_message = "write to callHomeAlertTest not ASN_INTEGER\n",
        .length_message = "write to callHomeAlertTest: bad length\n"};
    // Indexed by the MIB value minus one; 1 is "no action".
    static constexpr const char *kActionNames[] = {"", "Test Call Home", "Inventory"};
    if (action == RESERVE1) {
        const int status = check_integer(kChecks, var_val_type, var_val_len);
        if (status != SNMP_ERR_NOERROR) {
            return status;
        }
        const long value = callhome_integer_value(var_val, var_val_len);
        return value >= 1 && value <= 3 ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGVALUE;
    }
    if (action != ACTION) {
        return SNMP_ERR_NOERROR;
    }
    const long value = callhome_integer_value(var_val, var_val_len);
    if (value < 2 || value > 3) {
        return SNMP_ERR_NOERROR;
    }
    callhome_alert_action_t record;
    memset(&record, 0, sizeof record);
    snprintf(record.action, sizeof record.action, "%s", kActionNames[value - 1]);
    callhome_trace(CALLHOME_TRACE_INFO, "%s : callHomeTest  being set to %s\n", kChecks.handler,
                   record.action);
    const int result =
        set_Scalar(CALLHOME_ALERT_ACTION_OPC, sizeof record, &record, kAlertActionWait);
    if (result == -1 && errno == ETIME) {
        return SNMP_ERR_NOERROR; // the wait ran out; the service carries on with the action
    }
    callhome_log_set_error(result);
    return to_snmp_error_code(result);
}

/* ---- SMTP server ------------------------------------------------------------------------- */

int set_callHomeSmtpServerAddrType(int action, u_char *var_val, u_char var_val_type,
                                   size_t var_val_len, u_char *, oid *, size_t) {
    static constexpr IntegerChecks kChecks = {
        .handler = "set_callHomeSmtpServerAddrType",
        .asn_type = ASN_INTEGER,
        .sink = Sink::Stderr,
        .type_message = "write to callHomeSmtpServerAddrType not ASN_INTEGER\n",
        .length_message = "write to callHomeSmtpServerAddrType: bad length\n"};
    if (action > UNDO) {
        return SNMP_ERR_NOERROR;
    }
    // The type is stored in RESERVE1, RESERVE2 and ACTION: the read before each variable of
    // the request refreshes the persistent record, and the address is checked against the
    // type in RESERVE2 whichever order the two variables come in.
    const auto type = static_cast<uint32_t>(callhome_integer_value(var_val, var_val_len));
    switch (action) {
    case RESERVE1: {
        const int status = check_integer(kChecks, var_val_type, var_val_len);
        if (status != SNMP_ERR_NOERROR) {
            return status;
        }
        if (type != CALLHOME_ADDR_IPV4 && type != CALLHOME_ADDR_IPV6 && type != CALLHOME_ADDR_DNS) {
            return SNMP_ERR_BADVALUE;
        }
        callhome_email_conf.address_type = type;
        return SNMP_ERR_NOERROR;
    }
    case RESERVE2:
        callhome_email_conf.address_type = type;
        callhome_trace(CALLHOME_TRACE_INFO, "R2 - %s : Address Type %d\n", kChecks.handler,
                       static_cast<int>(type));
        return SNMP_ERR_NOERROR;
    case ACTION:
        callhome_email_conf.address_type = type;
        callhome_trace(CALLHOME_TRACE_INFO, "%s : Address Type  being set to %d\n", kChecks.handler,
                       static_cast<int>(type));
        return send_email_conf();
    default:
        return SNMP_ERR_NOERROR;
    }
}

int set_callHomeSmtpServerAddr(int action, u_char *var_val, u_char var_val_type, size_t var_val_len,
                               u_char *, oid *, size_t) {
    static const char *const kHandler = "set_callHomeSmtpServerAddr";
    switch (action) {
    case RESERVE1:
        if (var_val_type != ASN_OCTET_STR) {
            fputs("write to callHomeSmtpServerAddr not ASN_OCTET_STR\n", stderr);
            return SNMP_ERR_WRONGTYPE;
        }
        if (var_val_len == 0 || var_val_len > 255) {
            fputs("write to callHomeSmtpServerAddr: bad length\n", stderr);
            return SNMP_ERR_WRONGLENGTH;
        }
        return SNMP_ERR_NOERROR;
    case RESERVE2:
        break;
    case ACTION:
        return send_email_conf(); // the address was stored in RESERVE2
    default:
        return SNMP_ERR_NOERROR;
    }

    // RESERVE2: the address must fit the type now in force.
    const uint32_t type = callhome_email_conf.address_type;
    callhome_trace(CALLHOME_TRACE_INFO, "R2 %s : SMTP server address type %d\n", kHandler,
                   static_cast<int>(type));
    char(&server)[256] = callhome_email_conf.smtp_server;
    switch (type) {
    case CALLHOME_ADDR_IPV4:
    case CALLHOME_ADDR_IPV6: {
        const size_t expected = type == CALLHOME_ADDR_IPV4 ? 4 : 16;
        if (var_val_len != expected) {
            return SNMP_ERR_WRONGVALUE;
        }
        ip_addr_t address{};
        address.family = type;
        memcpy(address.addr, var_val, var_val_len);
        char text[256] = {};
        if (ip_addr_to_str(&address, text, sizeof text) != 0) {
            return SNMP_ERR_WRONGVALUE;
        }
        callhome_copy_text(server, text);
        break;
    }
    case CALLHOME_ADDR_DNS: {
        if (var_val_len > 256) {
            return SNMP_ERR_WRONGVALUE;
        }
        callhome_copy_value(server, sizeof server, var_val, var_val_len);
        break;
    }
    default:
        return SNMP_ERR_WRONGVALUE;
    }
    callhome_trace(CALLHOME_TRACE_INFO, "%s : SMTP server address being set to %s\n", kHandler,
                   server);
    return SNMP_ERR_NOERROR;
}

int set_callHomeSmtpServerPort(int action, u_char *var_val, u_char var_val_type, size_t var_val_len,
                               u_char *, oid *, size_t) {
    static constexpr IntegerChecks kChecks = {
        .handler = "set_callHomeSmtpServerPort",
        .asn_type = kAsnGauge,
        .sink = Sink::Stderr,
        .type_message = "write to callHomeSmtpServerPort not ASN_INTEGER\n",
        .length_message = "write to callHomeSmtpServerPort: bad length\n"};
    if (action == RESERVE1) {
        const int status = check_integer(kChecks, var_val_type, var_val_len);
        if (status != SNMP_ERR_NOERROR) {
            return status;
        }
        const long port = callhome_integer_value(var_val, var_val_len);
        return port >= 1 && port <= 65535 ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGVALUE;
    }
    if (action != ACTION) {
        return SNMP_ERR_NOERROR;
    }
    callhome_email_conf.smtp_server_port =
        static_cast<uint32_t>(callhome_integer_value(var_val, var_val_len));
    callhome_trace(CALLHOME_TRACE_INFO, "%s : SMTP port  being set to %d\n", kChecks.handler,
                   static_cast<int>(callhome_email_conf.smtp_server_port));
    return send_email_conf();
}

/* ---- Periodic inventory ------------------------------------------------------------------ */

int set_PeriodicSwInventoryMsgEnable(int action, u_char *var_val, u_char var_val_type,
                                     size_t var_val_len, u_char *, oid *, size_t) {
    static constexpr IntegerChecks kChecks = {.handler = "set_PeriodicSwInventoryMsgEnable",
                                              .asn_type = ASN_INTEGER,
                                              .sink = Sink::NamedTrace,
                                              .type_message = "%s : type not ASN_INTEGER \n",
                                              .length_message = "%s : bad length \n"};
    if (action == RESERVE1) {
        const int status = check_integer(kChecks, var_val_type, var_val_len);
        if (status != SNMP_ERR_NOERROR) {
            return status;
        }
        if (!is_truth_value(callhome_integer_value(var_val, var_val_len))) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s : Wrong value ( shd be true/false) \n",
                           kChecks.handler);
            return SNMP_ERR_WRONGVALUE;
        }
        return SNMP_ERR_NOERROR;
    }
    if (action != ACTION) {
        return SNMP_ERR_NOERROR;
    }
    PeriodicFields fields{};
    fields.enable = callhome_integer_value(var_val, var_val_len) == 1 ? 1 : 0;
    callhome_trace(CALLHOME_TRACE_INFO, "%s : PeriodicSwInventoryMsgEnable being set to %d\n",
                   kChecks.handler, static_cast<int>(fields.enable));
    read_kept_field(&fields, PERIODICSWINVENTORYTIMEFRAME);
    read_kept_field(&fields, PERIODICSWINVENTORYTIMEOFDAY);
    return send_periodic_inventory(fields);
}

int set_PeriodicSwInventoryTimeFrame(int action, u_char *var_val, u_char var_val_type,
                                     size_t var_val_len, u_char *, oid *, size_t) {
    static constexpr IntegerChecks kChecks = {.handler = "set_PeriodicSwInventoryTimeFrame",
                                              .asn_type = kAsnGauge,
                                              .sink = Sink::NamedTrace,
                                              .type_message = "%s : type not ASN_INTEGER \n",
                                              .length_message = "%s : bad length \n"};
    if (action == RESERVE1) {
        const int status = check_integer(kChecks, var_val_type, var_val_len);
        if (status != SNMP_ERR_NOERROR) {
            return status;
        }
        const long days = callhome_integer_value(var_val, var_val_len);
        if (days < 1 || days > 30) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s : Wrong value ( shd be 1 ...30) \n",
                           kChecks.handler);
            return SNMP_ERR_WRONGVALUE;
        }
        return SNMP_ERR_NOERROR;
    }
    if (action != ACTION) {
        return SNMP_ERR_NOERROR;
    }
    PeriodicFields fields{};
    fields.time_frame = static_cast<uint32_t>(callhome_integer_value(var_val, var_val_len));
    callhome_trace(CALLHOME_TRACE_INFO, "%s : PeriodicSwInventoryTimeFrame being set to %d\n",
                   kChecks.handler, static_cast<int>(fields.time_frame));
    read_kept_field(&fields, PERIODICSWINVENTORYMSGENABLE);
    read_kept_field(&fields, PERIODICSWINVENTORYTIMEOFDAY);
    return send_periodic_inventory(fields);
}

int set_PeriodicSwInventoryTimeOfDay(int action, u_char *var_val, u_char var_val_type,
                                     size_t var_val_len, u_char *, oid *, size_t) {
    static const char *const kHandler = "set_PeriodicSwInventoryTimeOfDay";
    char shown[256];
    callhome_copy_text(shown, sizeof shown, reinterpret_cast<const char *>(var_val), var_val_len);
    callhome_trace(CALLHOME_TRACE_INFO,
                   "%s : in set_PeriodicSwInventoryTimeOfDay function and the string is: %s \n",
                   kHandler, shown);
    switch (action) {
    case RESERVE1:
        callhome_trace(CALLHOME_TRACE_INFO, "%s : in RESERVE1 \n", kHandler);
        if (var_val_type != ASN_OCTET_STR) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s : type not ASN_INTEGER \n", kHandler);
            return SNMP_ERR_WRONGTYPE;
        }
        if (var_val_len > 5) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s : bad length \n", kHandler);
            return SNMP_ERR_WRONGLENGTH;
        }
        return SNMP_ERR_NOERROR;
    case ACTION:
        break;
    default:
        return SNMP_ERR_NOERROR;
    }

    // Format and range are checked here, not in RESERVE1.
    callhome_trace(CALLHOME_TRACE_INFO, "%s : IN ACTION SWITCH CASE \n", kHandler);
    char text[16] = {};
    callhome_copy_text(text, sizeof text, reinterpret_cast<const char *>(var_val), var_val_len);
    PeriodicFields fields{};
    if (!parse_time_of_day(kHandler, text, &fields.time_of_day)) {
        return SNMP_ERR_WRONGVALUE;
    }
    callhome_trace(CALLHOME_TRACE_INFO, "%s : PeriodicSwInventoryTimeFrame being set to %d\n",
                   kHandler, static_cast<int>(fields.time_of_day));
    read_kept_field(&fields, PERIODICSWINVENTORYMSGENABLE);
    read_kept_field(&fields, PERIODICSWINVENTORYTIMEFRAME);
    return send_periodic_inventory(fields);
}

} // extern "C"
