// The request channel to the call-home service: the one read and the one write through which
// every request of the module goes, scalar reads, the status mapping and the wire records'
// defaults, orderings and byte-order conversions.
#include "callhome_mib.h"

#include <arpa/inet.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "ip_addr.h"
#include "snmp_ctx.h"
#include "syserr.h"
#include "sysmgr.h"
#include "veld.h"

namespace {

// Records are packed, so their 32-bit fields may be unaligned: swap through memcpy. htonl and
// ntohl are the same swap, so one function serves both directions.
void swap32_at(void *record, std::initializer_list<size_t> offsets) {
    for (size_t offset : offsets) {
        unsigned char *p = static_cast<unsigned char *>(record) + offset;
        uint32_t v;
        memcpy(&v, p, sizeof v);
        v = htonl(v);
        memcpy(p, &v, sizeof v);
    }
}

// Ordering of two signed keys as the containers expect it: b's greater gives 1.
int order_of(int32_t a, int32_t b) {
    if (a == b) {
        return 0;
    }
    return b > a ? 1 : -1;
}

constexpr const char *kFeature = "callhome";
constexpr int kScalarReadWait = 2;
constexpr size_t kValueLen = 4; // INTEGER, Gauge32, TimeTicks and Counter32 values

// Values handed to the agent by scalar reads; each stays valid until the next read.
char text_value[2048];
long long_value;
ip_addr_t address_value;
char error_text_value[256];

// Asks the service for a scalar record; 0 only when an answer record came back.
int request_scalar(int opcode, int msg_type, const void *request, uint32_t length,
                   CmiAnswer *answer) {
    const int status = callhome_read(opcode, msg_type, request, length, CALLHOME_CLIENT_SCALAR,
                                     kScalarReadWait, answer);
    if (status == CALLHOME_SUCCESS && answer->record == nullptr) {
        return -1; // a success without a record is no answer
    }
    return status;
}

// Distribution reads go out as VELD_GET_REQ only while the show-run mode is 0.
int read_msg_type(const char *caller) {
    if (is_veld_enabled(kFeature) && get_veld_show_run_mode(kFeature) == 0) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s msg_type = VELD_GET_REQ \n", caller);
        return VELD_GET_REQ;
    }
    return GET_REQ;
}

u_char *text_result(const char *text, size_t *var_len) {
    const size_t len = strnlen(text, sizeof text_value - 1);
    memmove(text_value, text, len);
    text_value[len] = '\0';
    *var_len = len;
    return reinterpret_cast<u_char *>(text_value);
}

u_char *empty_result(size_t *var_len) {
    return text_result("", var_len);
}

u_char *long_result(long value, size_t *var_len, bool four_bytes) {
    long_value = value;
    if (four_bytes) {
        *var_len = kValueLen;
    }
    return reinterpret_cast<u_char *>(&long_value);
}

u_char *email_conf_value(const CmiAnswer &answer, size_t *var_len, int magic) {
    cmi_email_conf_t &conf = callhome_email_conf;
    answer.copy_to(&conf);
    callHomeEmailConf_ntoh(&conf);
    callhome_terminate(conf.from_email_addr);
    callhome_terminate(conf.reply_to);
    callhome_terminate(conf.return_receipt_addr);
    callhome_terminate(conf.smtp_server);
    callhome_trace(CALLHOME_TRACE_INFO,
                   "%s : Revc resp (cmi_email_conf_t): from_email_addr = %s, reply_to = %s, "
                   "return_receipt_addr = %s, smtp_server = %s, address_type = %d, "
                   "smtp_server_port = %d\n",
                   "get_using_cmi", conf.from_email_addr, conf.reply_to, conf.return_receipt_addr,
                   conf.smtp_server, static_cast<int>(conf.address_type),
                   static_cast<int>(conf.smtp_server_port));
    switch (magic) {
    case CALLHOMEEMAILFROM:
        return text_result(conf.from_email_addr, var_len);
    case CALLHOMEEMAILREPLYTO:
        return text_result(conf.reply_to, var_len);
    case CALLHOMEEMAILMSGDISPNOTIFICATION:
        return text_result(conf.return_receipt_addr, var_len);
    case CALLHOMESMTPSERVERADDRTYPE:
        return long_result(conf.address_type, var_len, false);
    case CALLHOMESMTPSERVERPORT:
        return long_result(conf.smtp_server_port, var_len, false);
    case CALLHOMESMTPSERVERADDR:
        break;
    default:
        return nullptr;
    }
    switch (conf.address_type) {
    case CALLHOME_ADDR_IPV4:
        memset(&address_value, 0, sizeof address_value);
        if (ip_addr_from_str(&address_value, conf.smtp_server) != 0) {
            callhome_trace(CALLHOME_TRACE_ERROR,
                           "IPV4 - failed to convert from ip_addr_from_str()\n");
            return empty_result(var_len);
        }
        *var_len = 4;
        return address_value.addr;
    case CALLHOME_ADDR_IPV6:
        memset(&address_value, 0, sizeof address_value);
        ip_addr_from_str(&address_value, conf.smtp_server);
        *var_len = 16;
        return address_value.addr;
    case CALLHOME_ADDR_DNS:
        memset(text_value, 0, sizeof text_value);
        return text_result(conf.smtp_server, var_len);
    default:
        return empty_result(var_len);
    }
}

u_char *info_value(const CmiAnswer &answer, size_t *var_len, int magic) {
    cmi_callhome_info_t info;
    answer.copy_to(&info);
    callhome_terminate(info.info_name);
    callhome_terminate(info.info_value);
    callhome_trace(CALLHOME_TRACE_INFO,
                   "%s : Revc resp (cmi_callhome_info_t): info_name = %s, info_value = %s\n",
                   "get_using_cmi", info.info_name, info.info_value);
    if (magic == CALLHOMEDEVICESERVICEPRIORITY) {
        // The service counts priorities from 0, the MIB from 1.
        return long_result(strtol(info.info_value, nullptr, 10) + 1, var_len, true);
    }
    return text_result(info.info_value, var_len);
}

// The last message's error: the code's text, then the service's message. The length leaves
// out the four separator characters, so the value's tail is four characters short.
u_char *error_message_value(const callhome_status_t &status, size_t *var_len) {
    const uint32_t message_status = ntohl(status.callhome_message_status);
    if (message_status == 1 || message_status == 2) {
        return empty_result(var_len);
    }
    const char *code_text = syserr2str(ntohl(status.callhome_error_code));
    if (code_text == nullptr) {
        return empty_result(var_len);
    }
    constexpr size_t kMaxLen = sizeof error_text_value - 1;
    size_t len = strlen(code_text);
    if (status.callhome_error_message[0] != '\0') {
        // Long texts are cut at the buffer's end.
        if (snprintf(error_text_value, sizeof error_text_value, "%s -  %s", code_text,
                     status.callhome_error_message) < 0) {
            return empty_result(var_len);
        }
        len += strlen(status.callhome_error_message);
    } else {
        snprintf(error_text_value, sizeof error_text_value, "%s", code_text);
    }
    *var_len = std::min(len, kMaxLen);
    return reinterpret_cast<u_char *>(error_text_value);
}

u_char *status_value(const CmiAnswer &answer, size_t *var_len, int magic) {
    callhome_status_t status;
    answer.copy_to(&status);
    callhome_terminate(status.callhome_error_message);
    const uint32_t sec = ntohl(status.last_alert_sent.tv_sec);
    const uint32_t usec = ntohl(status.last_alert_sent.tv_usec);
    const uint32_t sent = ntohl(status.num_alerts_sent);
    *var_len = kValueLen;
    callhome_trace(CALLHOME_TRACE_INFO,
                   "%s: Recv rsp with last_alert_sent  = (%d, %d), num_alerts_sent= %u, "
                   "callhome_message_status = %d, callhome_error_code = %d, "
                   "callhome_error_message= %s\n",
                   "get_using_cmi", static_cast<int>(sec), static_cast<int>(usec), sent,
                   static_cast<int>(ntohl(status.callhome_message_status)),
                   static_cast<int>(ntohl(status.callhome_error_code)),
                   status.callhome_error_message);
    switch (magic) {
    case CALLHOMELASTALERTSENTTIME: {
        if (sec == 0 && usec == 0) {
            return long_result(0, var_len, true);
        }
        struct timeval sent_at {};
        sent_at.tv_sec = static_cast<time_t>(sec);
        sent_at.tv_usec = static_cast<suseconds_t>(usec);
        const long ticks = static_cast<long>(netsnmp_timeval_uptime(&sent_at));
        return long_result(ticks < 0 ? 0 : ticks, var_len, true);
    }
    case CALLHOMEALERTSSENTCOUNT:
        return long_result(sent, var_len, true);
    case CALLHOMEMESSAGESTATUS:
        return long_result(ntohl(status.callhome_message_status), var_len, true);
    case CALLHOMEERRORMESSAGE:
        return error_message_value(status, var_len);
    default:
        return nullptr;
    }
}

uint32_t switch_value(const CmiAnswer &answer) {
    callhome_switch_t record;
    answer.copy_to(&record);
    return ntohl(record.value);
}

// What a failed read shows instead of no value.
u_char *failed_read_value(int opcode, int msg_type, int status, size_t *var_len, int magic) {
    if (opcode == CALLHOME_EMAIL_CONF_OPC && status == CALLHOME_UNKNOWN_ENTRY) {
        if (magic == CALLHOMESMTPSERVERADDRTYPE || magic == CALLHOMESMTPSERVERPORT) {
            return long_result(0, var_len, false);
        }
        return empty_result(var_len);
    }
    if (opcode == CALLHOME_INFO_OPC && status == CALLHOME_UNKNOWN_ENTRY) {
        if (magic == CALLHOMEDEVICESERVICEPRIORITY) {
            return long_result(8, var_len, true);
        }
        return empty_result(var_len);
    }
    if (opcode == CALLHOME_MSG_THROTTLING_OPC && msg_type == GET_REQ) {
        return long_result(1, var_len, true); // throttling is on unless configured
    }
    return nullptr;
}

} // namespace

int callhome_read(int opcode, int msg_type, const void *request, uint32_t length, int client,
                  int wait, CmiAnswer *answer) {
    const bool anonymous = client == CALLHOME_CLIENT_SCALAR;
    answer->release();
    answer->length = length;
    return cmi_req_resp(opcode, msg_type, request, &answer->record, &answer->length,
                        anonymous ? nullptr : get_snmp_username(0),
                        anonymous ? 0 : get_snmp_sessionid(0), client, mts_response_q, wait);
}

int callhome_write(int opcode, int msg_type, const void *record, uint32_t length, int client,
                   int wait) {
    sysmgr_heartbeat(1);
    const int status =
        cmi_req_resp(opcode, msg_type, record, nullptr, &length, get_snmp_username(0),
                     get_snmp_sessionid(0), client, mts_response_q, wait);
    const int saved_errno = errno; // the alert action tells a time-out by errno
    sysmgr_heartbeat(0);
    errno = saved_errno;
    return status;
}

extern "C" {

cmi_email_conf_t callhome_email_conf;

u_char *get_using_cmi(int opcode, void *request, uint32_t length, size_t *var_len, int magic) {
    const int msg_type = opcode == CALLHOME_STATUS_OPC ? GET_REQ : read_msg_type(__func__);
    callhome_trace(CALLHOME_TRACE_INFO, "%s : Sending req: opcode = %s, obj = %d\n", __func__,
                   mts_opc_name_get(opcode), magic);
    // The e-mail record goes out as it came in, in the channel's byte order, and is left in
    // host order whatever the answer.
    auto *email_request =
        opcode == CALLHOME_EMAIL_CONF_OPC ? static_cast<cmi_email_conf_t *>(request) : nullptr;
    if (email_request != nullptr) {
        callHomeEmailConf_hton(email_request);
    }
    CmiAnswer answer;
    const int status = request_scalar(opcode, msg_type, request, length, &answer);
    if (email_request != nullptr) {
        callHomeEmailConf_ntoh(email_request);
    }
    if (status != CALLHOME_SUCCESS) {
        callhome_trace(CALLHOME_TRACE_ERROR, "%s : Req failed : %s\n", __func__,
                       callhome_status_text(status));
        answer.release();
        return failed_read_value(opcode, msg_type, status, var_len, magic);
    }
    switch (opcode) {
    case CALLHOME_EMAIL_CONF_OPC:
        return email_conf_value(answer, var_len, magic);
    case CALLHOME_INFO_OPC:
        return info_value(answer, var_len, magic);
    case CALLHOME_ENABLE_OPC:
        return long_result(switch_value(answer) != 0 ? 1 : 2, var_len, true);
    case CALLHOME_STATUS_OPC:
        return status_value(answer, var_len, magic);
    case CALLHOME_MSG_THROTTLING_OPC: {
        const auto value = static_cast<int32_t>(switch_value(answer));
        callhome_trace(CALLHOME_TRACE_INFO, "Recv rsp for msg_throttling : %d \n ", value);
        return long_result(value > 0 ? 1 : 2, var_len, true);
    }
    default:
        return nullptr;
    }
}

long get_periodic_inventory_info(callhome_periodic_inventory_t *record, int magic,
                                 int get_for_set) {
    int msg_type = GET_REQ;
    if (get_for_set) {
        // A write reads the fields it keeps from the distributed configuration.
        if (is_veld_enabled(kFeature)) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s msg_type = VELD_GET_REQ -- get_for_set \n",
                           __func__);
            msg_type = VELD_GET_REQ;
        }
    } else {
        msg_type = read_msg_type(__func__);
    }
    callhome_trace(CALLHOME_TRACE_INFO, "%s : Sending req: PERIODIC_INVENTORY obj = %d\n", __func__,
                   magic);
    CmiAnswer answer;
    int status =
        request_scalar(CALLHOME_PERIODIC_INVENTORY_OPC, msg_type, record, sizeof *record, &answer);
    if (msg_type == VELD_GET_REQ && get_for_set && status == CALLHOME_ERR_VELD_RESEND) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s Re-sending with GET_REQ \n", __func__);
        msg_type = GET_REQ;
        status = request_scalar(CALLHOME_PERIODIC_INVENTORY_OPC, msg_type, record, sizeof *record,
                                &answer);
    }
    if (status != CALLHOME_SUCCESS) {
        callhome_trace(CALLHOME_TRACE_ERROR, "%s : Req failed : %s\n", __func__,
                       callhome_status_text(status));
        answer.release();
        if (msg_type == VELD_GET_REQ) {
            return -1;
        }
        // The service's own defaults: on, weekly, at 08:00.
        switch (magic) {
        case PERIODICSWINVENTORYMSGENABLE:
            return 1;
        case PERIODICSWINVENTORYTIMEFRAME:
            return 7;
        case PERIODICSWINVENTORYTIMEOFDAY:
            return 480;
        default:
            return 0;
        }
    }
    callhome_periodic_inventory_t answered;
    answer.copy_to(&answered);
    switch (magic) {
    case PERIODICSWINVENTORYMSGENABLE:
        return ntohl(answered.enable) != 0 ? 1 : 2;
    // The fields are signed on the wire: a value the service sends as -1 reads as a failure.
    case PERIODICSWINVENTORYTIMEFRAME:
        return static_cast<int32_t>(ntohl(answered.time_frame));
    case PERIODICSWINVENTORYTIMEOFDAY:
        return static_cast<int32_t>(ntohl(answered.time_of_day));
    default:
        return 0;
    }
}

int to_snmp_error_code(int status) {
    if (status == CALLHOME_SUCCESS) {
        return SNMP_ERR_NOERROR;
    }
    if (status == CALLHOME_UNKNOWN_ENTRY) {
        return SNMP_ERR_NOSUCHNAME;
    }
    return SNMP_ERR_GENERR;
}

/* ---- Byte order: every 32-bit field of a record travels big-endian. ---------------- */

// One row a record: its functions' prefix, its type, and its 32-bit fields (AT(field)).
#define CALLHOME_BYTE_ORDER(prefix, type, ...)                                                     \
    void prefix##_hton(type *record) {                                                             \
        using Record = type;                                                                       \
        swap32_at(record, {__VA_ARGS__});                                                          \
    }                                                                                              \
    void prefix##_ntoh(type *record) {                                                             \
        prefix##_hton(record);                                                                     \
    }
#define AT(field) offsetof(Record, field)

// clang-format off
CALLHOME_BYTE_ORDER(callHomeDestProfileEntry,      callHomeDestProfileEntry_t,      AT(transport_method), AT(format_method), AT(maximum_message_size), AT(row_status))
CALLHOME_BYTE_ORDER(callHomeDestEmailAddressEntry, callHomeDestEmailAddressEntry_t, AT(index), AT(row_status))
CALLHOME_BYTE_ORDER(callHomeAlertGroupEntry,       callHomeAlertGroupEntry_t,       AT(word), AT(row_status))
CALLHOME_BYTE_ORDER(callHomeEmailConf,             cmi_email_conf_t,                AT(address_type), AT(smtp_server_port))
CALLHOME_BYTE_ORDER(callhome_alertgroup_type,      callhome_alertgroup_type_t,      AT(index))
CALLHOME_BYTE_ORDER(cmi_userdef_cli_cmd,           cmi_userdef_cli_cmd_t,           AT(index), AT(row_status))
// clang-format on

#undef AT
#undef CALLHOME_BYTE_ORDER

/* ---- Defaults of new rows ----------------------------------------------------------- */

void callHomeDestProfileEntry_defaults(callHomeDestProfileEntry_t *entry) {
    entry->transport_method = 1;
    entry->format_method = 1;
    entry->maximum_message_size = 0;
    entry->msg_level = 0;
    entry->request_flag = 0;
}

void callHomeDestEmailAddressEntry_defaults(callHomeDestEmailAddressEntry_t *entry) {
    entry->destination_profile_id[0] = '\0';
    entry->email_addr[0] = '\0';
    entry->commit_flag = 0;
}

/* ---- Container orderings. The containers rely on the reversed order (b against a). ---- */

int callHomeDestProfileEntry_comp(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    const auto *ra = static_cast<const callHomeDestProfileEntry_t *>(a);
    const auto *rb = static_cast<const callHomeDestProfileEntry_t *>(b);
    return strncmp(rb->destination_profile_id, ra->destination_profile_id,
                   sizeof ra->destination_profile_id);
}

int callHomeDestEmailAddressEntry_comp(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    const auto *ra = static_cast<const callHomeDestEmailAddressEntry_t *>(a);
    const auto *rb = static_cast<const callHomeDestEmailAddressEntry_t *>(b);
    const int by_name = strncmp(rb->destination_profile_id, ra->destination_profile_id,
                                sizeof ra->destination_profile_id);
    if (by_name != 0) {
        return by_name;
    }
    return order_of(ra->index, rb->index);
}

int callHomeUserDefCliCmdEntry_comp(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    const auto *ra = static_cast<const callHomeUserDefCliCmdEntry_t *>(a);
    const auto *rb = static_cast<const callHomeUserDefCliCmdEntry_t *>(b);
    const int by_type = order_of(ra->alertgroup_type, rb->alertgroup_type);
    return by_type != 0 ? by_type : order_of(ra->index, rb->index);
}

} // extern "C"
