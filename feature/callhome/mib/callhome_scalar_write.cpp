// Scalar writes: each handler checks its value in RESERVE1 and sends the finished record to
// the call-home service in ACTION through set_Scalar. Nothing is kept between phases and
// nothing is undone: the service has the value from ACTION on.
#include "callhome_mib.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "ip_addr.h"
#include "snmp_ctx.h"
#include "syserr.h"

namespace {

constexpr int kAlertActionWait = 2; // the action runs on; the module does not wait for it

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
        callhome_trace(CALLHOME_TRACE_INFO, message, handler);
        break;
    }
}

// Where the type and length complaints of one handler go, and their texts.
struct Complaints {
    Sink sink;
    const char *type_message;
    const char *length_message;
};

constexpr Complaints kNamedIntegerComplaints = {.sink = Sink::NamedTrace,
                                                .type_message = "%s : type not ASN_INTEGER \n",
                                                .length_message = "%s : bad length \n"};

// Type and length checks of an INTEGER-like write; the value checks are the caller's.
int check_integer(const char *handler, u_char asn_type, const Complaints &complaints,
                  u_char var_val_type, size_t var_val_len) {
    if (var_val_type != asn_type) {
        complain(complaints.sink, complaints.type_message, handler);
        return SNMP_ERR_WRONGTYPE;
    }
    if (!callhome_integer_length_ok(var_val_len)) {
        complain(complaints.sink, complaints.length_message, handler);
        return SNMP_ERR_WRONGLENGTH;
    }
    return SNMP_ERR_NOERROR;
}

/* ---- The text scalars ------------------------------------------------------------------ */

enum class TextRecord { Info, Email };

struct TextScalar {
    TextRecord record;
    const char *info_name = nullptr;                      // TextRecord::Info
    char (cmi_email_conf_t::*email_field)[256] = nullptr; // TextRecord::Email
    size_t max_length = 255;
    bool phone_number = false; // the phone rule instead of the SnmpAdminString rule
    Complaints complaints;
    const char *being_set; // trace of the new value: handler, value
};

// clang-format off
const TextScalar kPhoneNumber =        {.record = TextRecord::Info,  .info_name = "sysContactPhoneNumber",                 .max_length = 17, .phone_number = true, .complaints = {Sink::Trace,  "write to sysContactPhoneNumber not ASN_OCTET_STR\n",            "write to sysContactPhoneNumber: bad length\n"},            .being_set = "%s : contactPhone  being set to %s\n"};
const TextScalar kContactEmail =       {.record = TextRecord::Info,  .info_name = "sysContactEmail",                                                           .complaints = {Sink::Trace,  "write to sysContactEmailAddress not ASN_OCTET_STR\n",           "write to sysContactEmailAddress: bad length\n"},           .being_set = "%s : contactEmail  being set to %s\n"};
const TextScalar kStreetAddress =      {.record = TextRecord::Info,  .info_name = "sysStreetAddress",                                                          .complaints = {Sink::Stderr, "write to sysStreetAddress not ASN_OCTET_STR\n",                 "write to sysStreetAddress: bad length\n"},                 .being_set = "%s : contactStreetAddr  being set to %s\n"};
const TextScalar kCustomerId =         {.record = TextRecord::Info,  .info_name = "custId",                                                                    .complaints = {Sink::Stderr, "write to callHomeCustomerId not ASN_OCTET_STR\n",               "write to callHomeCustomerId: bad length\n"},               .being_set = "%s : custId  being set to %s\n"};
const TextScalar kContractId =         {.record = TextRecord::Info,  .info_name = "contractId",                                                                .complaints = {Sink::Stderr, "write to callHomeContractId not ASN_OCTET_STR\n",               "write to callHomeContractId: bad length\n"},               .being_set = "%s : contractId  being set to %s\n"};
const TextScalar kSiteId =             {.record = TextRecord::Info,  .info_name = "siteId",                                                                    .complaints = {Sink::Stderr, "write to callHomeSiteId not ASN_OCTET_STR\n",                   "write to callHomeSiteId: bad length\n"},                   .being_set = "%s : siteId  being set to %s\n"};
const TextScalar kEmailFrom =          {.record = TextRecord::Email, .email_field = &cmi_email_conf_t::from_email_addr,                                        .complaints = {Sink::Stderr, "write to callHomeEmailFrom not ASN_OCTET_STR\n",                "write to callHomeEmailFrom: bad length\n"},                .being_set = "%s : fromEmail  being set to %s\n"};
const TextScalar kEmailReplyTo =       {.record = TextRecord::Email, .email_field = &cmi_email_conf_t::reply_to,                                               .complaints = {Sink::Stderr, "write to callHomeEmailReplyTo not ASN_OCTET_STR\n",             "write to callHomeEmailReplyTo: bad length\n"},             .being_set = "%s : reply-To  being set to %s\n"};
const TextScalar kEmailReturnReceipt = {.record = TextRecord::Email, .email_field = &cmi_email_conf_t::return_receipt_addr,                                    .complaints = {Sink::Stderr, "write to callHomeEmailMsgDispNotification not ASN_OCTET_STR\n", "write to callHomeEmailMsgDispNotification: bad length\n"}, .being_set = "%s : ReturnReceipt  being set to %s\n"};
// clang-format on

// '+' then digits, spaces and dashes; the plus sign alone is a valid number.
bool valid_phone_number(const u_char *value, size_t len) {
    if (value[0] != '+') {
        return false;
    }
    return std::all_of(value + 1, value + len,
                       [](u_char c) { return (c >= '0' && c <= '9') || c == ' ' || c == '-'; });
}

int check_text(const TextScalar &scalar, const char *handler, u_char var_val_type,
               const u_char *var_val, size_t var_val_len) {
    const Complaints &complaints = scalar.complaints;
    if (var_val_type != ASN_OCTET_STR) {
        complain(complaints.sink, complaints.type_message, handler);
        return SNMP_ERR_WRONGTYPE;
    }
    if (var_val_len == 0 || var_val_len > scalar.max_length) {
        complain(complaints.sink, complaints.length_message, handler);
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
                       handler);
        return SNMP_ERR_WRONGVALUE;
    }
    return SNMP_ERR_NOERROR;
}

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

int write_text(const TextScalar &scalar, const char *handler, int action, const u_char *var_val,
               u_char var_val_type, size_t var_val_len, u_char *, oid *, size_t) {
    switch (action) {
    case RESERVE1:
        return check_text(scalar, handler, var_val_type, var_val, var_val_len);
    case ACTION:
        break;
    default:
        return SNMP_ERR_NOERROR;
    }
    if (scalar.record == TextRecord::Info) {
        char value[sizeof(cmi_callhome_info_t::info_value)];
        callhome_copy_text(value, sizeof value, reinterpret_cast<const char *>(var_val),
                           var_val_len);
        callhome_trace(CALLHOME_TRACE_INFO, scalar.being_set, handler, value);
        return send_info(scalar.info_name, value);
    }
    // The persistent record keeps the new text even when the SET fails.
    char(&field)[256] = callhome_email_conf.*scalar.email_field;
    callhome_copy_value(field, sizeof field, var_val, var_val_len);
    callhome_trace(CALLHOME_TRACE_INFO, scalar.being_set, handler, field);
    return send_email_conf();
}

/* ---- Periodic inventory: the record is sent whole, so the kept fields are read first. -- */

// The record's fields in its order, each by the magic of the object that holds it.
constexpr int kPeriodicFields[] = {PERIODICSWINVENTORYMSGENABLE, PERIODICSWINVENTORYTIMEFRAME,
                                   PERIODICSWINVENTORYTIMEOFDAY};

// A field as the record carries it: the switch as 1 (on) or 0.
uint32_t periodic_field(int magic, long value) {
    if (magic == PERIODICSWINVENTORYMSGENABLE) {
        return value == 1 ? 1 : 0;
    }
    return static_cast<uint32_t>(value);
}

// Sends one field's new value with the current values of the other two.
int send_periodic_inventory(int magic, uint32_t value, const char *being_set, const char *handler) {
    callhome_trace(CALLHOME_TRACE_INFO, being_set, handler, static_cast<int>(value));
    uint32_t fields[std::size(kPeriodicFields)];
    for (size_t i = 0; i < std::size(kPeriodicFields); ++i) {
        callhome_periodic_inventory_t request{};
        fields[i] =
            kPeriodicFields[i] == magic
                ? value
                : periodic_field(kPeriodicFields[i],
                                 get_periodic_inventory_info(&request, kPeriodicFields[i], 1));
    }
    callhome_periodic_inventory_t record{};
    record.enable = htonl(fields[0]);
    record.time_frame = htonl(fields[1]);
    record.reserved = 0;
    record.time_of_day = htonl(fields[2]);
    return set_Scalar(CALLHOME_PERIODIC_INVENTORY_OPC, sizeof record, &record, CALLHOME_WRITE_WAIT);
}

/* ---- The INTEGER-like scalars: one range in RESERVE1, one sender in ACTION -------------- */

struct IntegerScalar {
    u_char asn_type;
    Complaints complaints;
    long min;
    long max;
    const char *wrong_value; // traced with the handler's name for a value out of range, or none
    const char *being_set;   // ACTION's trace: the handler's name, then the value as sent
    int (*send)(const IntegerScalar &scalar, const char *handler, long value);
};

int write_integer(const IntegerScalar &scalar, const char *handler, int action,
                  const u_char *var_val, u_char var_val_type, size_t var_val_len, u_char *, oid *,
                  size_t) {
    switch (action) {
    case RESERVE1: {
        const int status =
            check_integer(handler, scalar.asn_type, scalar.complaints, var_val_type, var_val_len);
        if (status != SNMP_ERR_NOERROR) {
            return status;
        }
        const long value = callhome_integer_value(var_val, var_val_len);
        if (value >= scalar.min && value <= scalar.max) {
            return SNMP_ERR_NOERROR;
        }
        if (scalar.wrong_value != nullptr) {
            callhome_trace(CALLHOME_TRACE_INFO, scalar.wrong_value, handler);
        }
        return SNMP_ERR_WRONGVALUE;
    }
    case ACTION:
        return scalar.send(scalar, handler, callhome_integer_value(var_val, var_val_len));
    default:
        return SNMP_ERR_NOERROR;
    }
}

// The service's switches (a TruthValue: 1 is on, 2 off).
template <int Opcode>
int send_switch(const IntegerScalar &scalar, const char *handler, long value) {
    const uint32_t on = value == 1 ? 1 : 0;
    callhome_trace(CALLHOME_TRACE_INFO, scalar.being_set, handler, static_cast<int>(on));
    callhome_switch_t record{};
    record.value = htonl(on);
    record.reserved = 0;
    return set_Scalar(Opcode, sizeof record, &record, CALLHOME_WRITE_WAIT);
}

template <int Magic>
int send_periodic(const IntegerScalar &scalar, const char *handler, long value) {
    return send_periodic_inventory(Magic, periodic_field(Magic, value), scalar.being_set, handler);
}

// The service counts priorities from 0.
int send_priority(const IntegerScalar &scalar, const char *handler, long value) {
    char text[16];
    snprintf(text, sizeof text, "%d", static_cast<int>(value - 1));
    callhome_trace(CALLHOME_TRACE_INFO, scalar.being_set, handler, text);
    return send_info("priority", text);
}

int send_smtp_port(const IntegerScalar &scalar, const char *handler, long value) {
    callhome_email_conf.smtp_server_port = static_cast<uint32_t>(value);
    callhome_trace(CALLHOME_TRACE_INFO, scalar.being_set, handler,
                   static_cast<int>(callhome_email_conf.smtp_server_port));
    return send_email_conf();
}

// 1 is "no action"; the others name the message to send now.
int send_alert_action(const IntegerScalar &scalar, const char *handler, long value) {
    static constexpr const char *kActionNames[] = {"", "Test Call Home", "Inventory"};
    if (value < 2 || value > 3) {
        return SNMP_ERR_NOERROR;
    }
    callhome_alert_action_t record;
    memset(&record, 0, sizeof record);
    snprintf(record.action, sizeof record.action, "%s", kActionNames[value - 1]);
    callhome_trace(CALLHOME_TRACE_INFO, scalar.being_set, handler, record.action);
    const int result =
        set_Scalar(CALLHOME_ALERT_ACTION_OPC, sizeof record, &record, kAlertActionWait);
    if (result == -1 && errno == ETIME) {
        return SNMP_ERR_NOERROR; // the wait ran out; the service carries on with the action
    }
    callhome_log_set_error(result);
    return to_snmp_error_code(result);
}

constexpr const char *kNotTruthValue = "%s : Wrong value ( shd be true/false) \n";

// clang-format off
const IntegerScalar kEnable =        {.asn_type = ASN_INTEGER, .complaints = {Sink::Trace,  "write to callHomeEnable not ASN_INTEGER\n",                "write to callHomeEnable: bad length\n"},                .min = 1, .max = 2,     .wrong_value = nullptr,                                  .being_set = "%s : CallhomeEnable being set to %d\n",                .send = send_switch<CALLHOME_ENABLE_OPC>};
const IntegerScalar kThrottling =    {.asn_type = ASN_INTEGER, .complaints = kNamedIntegerComplaints,                                                                                                                       .min = 1, .max = 2,     .wrong_value = kNotTruthValue,                           .being_set = "%s : MsgThrottlingEnable being set to %d\n",           .send = send_switch<CALLHOME_MSG_THROTTLING_OPC>};
const IntegerScalar kPeriodicOn =    {.asn_type = ASN_INTEGER, .complaints = kNamedIntegerComplaints,                                                                                                                       .min = 1, .max = 2,     .wrong_value = kNotTruthValue,                           .being_set = "%s : PeriodicSwInventoryMsgEnable being set to %d\n",  .send = send_periodic<PERIODICSWINVENTORYMSGENABLE>};
const IntegerScalar kPeriodicDays =  {.asn_type = ASN_GAUGE,   .complaints = kNamedIntegerComplaints,                                                                                                                       .min = 1, .max = 30,    .wrong_value = "%s : Wrong value ( shd be 1 ...30) \n", .being_set = "%s : PeriodicSwInventoryTimeFrame being set to %d\n",  .send = send_periodic<PERIODICSWINVENTORYTIMEFRAME>};
const IntegerScalar kPriority =      {.asn_type = ASN_INTEGER, .complaints = {Sink::Stderr, "write to callHomeDeviceServicePriority not ASN_INTEGER\n", "write to callHomeDeviceServicePriority: bad length\n"}, .min = 1, .max = 8,     .wrong_value = nullptr,                                  .being_set = "%s : switchPriority  being set to %s\n",               .send = send_priority};
const IntegerScalar kAlertAction =   {.asn_type = ASN_INTEGER, .complaints = {Sink::Stderr, "write to callHomeAlertTest not ASN_INTEGER\n",             "write to callHomeAlertTest: bad length\n"},             .min = 1, .max = 3,     .wrong_value = nullptr,                                  .being_set = "%s : callHomeTest  being set to %s\n",                 .send = send_alert_action};
const IntegerScalar kSmtpPort =      {.asn_type = ASN_GAUGE,   .complaints = {Sink::Stderr, "write to callHomeSmtpServerPort not ASN_INTEGER\n",        "write to callHomeSmtpServerPort: bad length\n"},        .min = 1, .max = 65535, .wrong_value = nullptr,                                  .being_set = "%s : SMTP port  being set to %d\n",                    .send = send_smtp_port};
// clang-format on

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

/* ---- The handlers served by a row ------------------------------------------------------- */

// clang-format off
CALLHOME_DEFINE_WRITER(set_sysContactPhoneNumber,            write_text,    kPhoneNumber)
CALLHOME_DEFINE_WRITER(set_sysContactEmailAddress,           write_text,    kContactEmail)
CALLHOME_DEFINE_WRITER(set_sysStreetAddress,                 write_text,    kStreetAddress)
CALLHOME_DEFINE_WRITER(set_callHomeCustomerId,               write_text,    kCustomerId)
CALLHOME_DEFINE_WRITER(set_callHomeContractId,               write_text,    kContractId)
CALLHOME_DEFINE_WRITER(set_callHomeSiteId,                   write_text,    kSiteId)
CALLHOME_DEFINE_WRITER(set_callHomeEmailFrom,                write_text,    kEmailFrom)
CALLHOME_DEFINE_WRITER(set_callHomeEmailReplyTo,             write_text,    kEmailReplyTo)
CALLHOME_DEFINE_WRITER(set_callHomeEmailMsgDispNotification, write_text,    kEmailReturnReceipt)
CALLHOME_DEFINE_WRITER(set_callHomeEnable,                   write_integer, kEnable)
CALLHOME_DEFINE_WRITER(set_MsgThrottlingEnable,              write_integer, kThrottling)
CALLHOME_DEFINE_WRITER(set_PeriodicSwInventoryMsgEnable,     write_integer, kPeriodicOn)
CALLHOME_DEFINE_WRITER(set_PeriodicSwInventoryTimeFrame,     write_integer, kPeriodicDays)
CALLHOME_DEFINE_WRITER(set_callHomeDeviceServicePriority,    write_integer, kPriority)
CALLHOME_DEFINE_WRITER(set_callHomeAlertAction,              write_integer, kAlertAction)
CALLHOME_DEFINE_WRITER(set_callHomeSmtpServerPort,           write_integer, kSmtpPort)
// clang-format on

/* ---- SMTP server ------------------------------------------------------------------------- */

int set_callHomeSmtpServerAddrType(int action, u_char *var_val, u_char var_val_type,
                                   size_t var_val_len, u_char *, oid *, size_t) {
    static const char *const kHandler = "set_callHomeSmtpServerAddrType";
    static constexpr Complaints kComplaints = {
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
        const int status =
            check_integer(kHandler, ASN_INTEGER, kComplaints, var_val_type, var_val_len);
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
        callhome_trace(CALLHOME_TRACE_INFO, "R2 - %s : Address Type %d\n", kHandler,
                       static_cast<int>(type));
        return SNMP_ERR_NOERROR;
    case ACTION:
        callhome_email_conf.address_type = type;
        callhome_trace(CALLHOME_TRACE_INFO, "%s : Address Type  being set to %d\n", kHandler,
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

/* ---- Periodic inventory ------------------------------------------------------------------ */

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
    uint32_t minutes = 0;
    if (!parse_time_of_day(kHandler, text, &minutes)) {
        return SNMP_ERR_WRONGVALUE;
    }
    return send_periodic_inventory(PERIODICSWINVENTORYTIMEOFDAY, minutes,
                                   "%s : PeriodicSwInventoryTimeFrame being set to %d\n", kHandler);
}

} // extern "C"
