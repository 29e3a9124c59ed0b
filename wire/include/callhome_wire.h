/*
 * Wire records and opcodes of the call-home service's request channel: the contract between
 * the MIB module, the platform and the service, depending on none of them.
 *
 * Every record is packed and travels big-endian (network order); text fields are
 * NUL-terminated and zero-filled beyond the text. The module and the service both build on
 * these layouts, so every size and offset is checked at compile time.
 */
#ifndef CALLHOME_WIRE_H
#define CALLHOME_WIRE_H

#include <cstddef>
#include <cstdint>

/* Opcodes (first argument of cmi_req_resp): the one list of names and numbers, which the
 * platform's trace names and callhomectl's opcode parser expand as well. */
#define CALLHOME_OPCODES(X)                                                                        \
    X(CALLHOME_EMAIL_CONF_OPC, 2152)                                                               \
    X(CALLHOME_DEST_EMAIL_OPC, 2153)                                                               \
    X(CALLHOME_DEST_PROFILE_OPC, 2154)                                                             \
    X(CALLHOME_INFO_OPC, 2155)                                                                     \
    X(CALLHOME_ENABLE_OPC, 2156)                                                                   \
    X(CALLHOME_ALERT_ACTION_OPC, 2157)                                                             \
    X(CALLHOME_STATUS_OPC, 2159)                                                                   \
    X(CALLHOME_PROFILE_ALERTGROUP_OPC, 2162)                                                       \
    X(CALLHOME_ALERTGROUP_TYPE_OPC, 2163)                                                          \
    X(CALLHOME_MSG_THROTTLING_OPC, 2173)                                                           \
    X(CALLHOME_PERIODIC_INVENTORY_OPC, 2175)                                                       \
    X(CALLHOME_USER_DEF_CMD_OPC, 2185)

/* Platform notifications of the service. */
#define CALLHOME_NOTIFICATIONS(X)                                                                  \
    X(CALLHOME_ALERTGROUP_ADDED_NOTIF, 2166)                                                       \
    X(CALLHOME_ALERTGROUP_DELETED_NOTIF, 2167)

#define CALLHOME_ENUMERATOR(name, code) name = code,
enum : int { CALLHOME_OPCODES(CALLHOME_ENUMERATOR) CALLHOME_NOTIFICATIONS(CALLHOME_ENUMERATOR) };
#undef CALLHOME_ENUMERATOR

/* Message types (second argument of cmi_req_resp). */
enum : int {
    GET_REQ = 1,
    GETNEXT_REQ = 2,
    SET_REQ = 3,
    DELETE_REQ = 4,
    VELD_GET_REQ = 5,     /* GET while the distribution service is enabled */
    VELD_GETNEXT_REQ = 6, /* GETNEXT while the distribution service is enabled */
};

/* Service statuses. */
enum : int {
    CALLHOME_SUCCESS = 0,
    CALLHOME_UNKNOWN_ENTRY = 0x403B000B,        /* no such object or row */
    CALLHOME_END_OF_TABLE = 0x403B000C,         /* GETNEXT past the last row */
    CALLHOME_ERR_BUILTIN_PROFILE = 0x403B000D,  /* built-in profile may not be deleted */
    CALLHOME_ERR_INVALID_INPUT = 0x403B0019,    /* the service refuses the value */
    CALLHOME_ERR_NO_MEMORY = 0x403B002A,        /* out of memory */
    CALLHOME_ERR_BAD_PROFILE_NAME = 0x403B002B, /* reserved name, leading/trailing space */
    CALLHOME_ERR_INDEX_ADD = 0x403B002C,        /* index container refused the row */
    CALLHOME_ERR_VELD_RESEND = 0x403B0034,      /* repeat the distribution read as plain */
};

/* Client values passed to cmi_req_resp. */
enum : int {
    CALLHOME_CLIENT_SCALAR = 0,
    CALLHOME_CLIENT_TABLE = 66,
};

/* SMTP server address types (InetAddressType). */
enum : uint32_t {
    CALLHOME_ADDR_IPV4 = 1,
    CALLHOME_ADDR_IPV6 = 2,
    CALLHOME_ADDR_DNS = 16,
};

/* Limits shared by the module and the service. */
enum : int {
    CALLHOME_PROFILE_ID_LEN = 32, /* 31 characters and a NUL */
    CALLHOME_MAX_PROFILES = 50,
    CALLHOME_MAX_USER_CMDS = 5, /* per alert-group type */
    CALLHOME_MAX_ALERTGROUP_TYPES = 256,
};

#pragma pack(push, 1)

/* CALLHOME_INFO_OPC: one named scalar of the contact details. */
typedef struct cmi_callhome_info_t {
    char info_name[256];
    char info_value[2049];
} cmi_callhome_info_t;

/* CALLHOME_EMAIL_CONF_OPC: e-mail headers and the SMTP server. */
typedef struct cmi_email_conf_t {
    char from_email_addr[256];
    char reply_to[256];
    char return_receipt_addr[256];
    char smtp_server[256]; /* dotted/colon text of the address, or the host name */
    uint32_t address_type; /* CALLHOME_ADDR_* */
    uint32_t smtp_server_port;
    uint8_t reserved;
} cmi_email_conf_t;

/* CALLHOME_STATUS_OPC: state of the last message. */
typedef struct callhome_status_t {
    struct {
        uint32_t tv_sec;
        uint32_t tv_usec;
    } last_alert_sent;
    uint32_t num_alerts_sent;
    uint32_t callhome_message_status;
    uint32_t callhome_error_code;
    char callhome_error_message[2048];
} callhome_status_t;

/* CALLHOME_ENABLE_OPC and CALLHOME_MSG_THROTTLING_OPC: a switch (non-zero is on). */
typedef struct callhome_switch_t {
    uint32_t value;
    uint8_t reserved;
} callhome_switch_t;

/* CALLHOME_PERIODIC_INVENTORY_OPC. */
typedef struct callhome_periodic_inventory_t {
    uint32_t enable;
    uint32_t time_frame; /* days */
    uint8_t reserved;
    uint32_t time_of_day; /* minutes after midnight */
} callhome_periodic_inventory_t;

/* CALLHOME_ALERT_ACTION_OPC: the action name ("Test Call Home", "Inventory"). */
typedef struct callhome_alert_action_t {
    char action[2116];
} callhome_alert_action_t;

/* CALLHOME_DEST_PROFILE_OPC: a destination profile row. */
struct callHomeDestProfileEntry {
    char destination_profile_id[CALLHOME_PROFILE_ID_LEN];
    int32_t transport_method;
    int32_t format_method;
    uint32_t maximum_message_size;
    int32_t row_status;
    int8_t msg_level; /* one lower than the MIB shows */
    uint8_t reserved;
    uint8_t request_flag;
};
typedef struct callHomeDestProfileEntry callHomeDestProfileEntry_t;

/* CALLHOME_DEST_EMAIL_OPC: an e-mail address of a profile. */
struct callHomeDestEmailAddressEntry {
    char destination_profile_id[CALLHOME_PROFILE_ID_LEN];
    char email_addr[256];
    int32_t index;
    int32_t row_status;
    uint8_t commit_flag;
};
typedef struct callHomeDestEmailAddressEntry callHomeDestEmailAddressEntry_t;

/* CALLHOME_PROFILE_ALERTGROUP_OPC: one alert group of one profile. */
struct callHomeAlertGroupEntry {
    char destination_profile_id[CALLHOME_PROFILE_ID_LEN];
    uint32_t word; /* 0 from the module */
    int32_t row_status;
    char alert_group[260];
    uint8_t request_flag;
};
typedef struct callHomeAlertGroupEntry callHomeAlertGroupEntry_t;

/* CALLHOME_ALERTGROUP_TYPE_OPC: an alert-group type. */
typedef struct callhome_alertgroup_type_t {
    uint32_t index;
    char grp_name[256];
} callhome_alertgroup_type_t;

/* The module's row of the user-defined command table (not sent as it stands). */
struct callHomeUserDefCliCmdEntry {
    int32_t alertgroup_type; /* the type's index */
    int32_t index;
    char alertgroup_name[256];
    char cli_cmd[600];
    int32_t row_status;
};
typedef struct callHomeUserDefCliCmdEntry callHomeUserDefCliCmdEntry_t;

/* CALLHOME_USER_DEF_CMD_OPC: a user-defined command, indexed by type name. */
typedef struct cmi_userdef_cli_cmd_t {
    int32_t index;
    char alertgroup_type[256]; /* the type's name */
    int32_t row_status;
    char cli_cmd[600];
    uint8_t request_flag;
} cmi_userdef_cli_cmd_t;

/* The module's summary of one profile's alert groups: the name, then a bit set. */
typedef struct mibAlertGroup_t {
    char destination_profile_id[CALLHOME_PROFILE_ID_LEN];
    uint32_t bitset_size; /* bit-set header: storage size (32) */
    uint8_t bitset[32];
} mibAlertGroup_t;

/* The SNMP error record handed to log_snmp_error. */
typedef struct callhome_snmp_error_t {
    uint8_t reserved[260];
    int32_t status; /* host order */
    char text[208];
} callhome_snmp_error_t;

#pragma pack(pop)

#define CALLHOME_CHECK_LAYOUT(type, size) static_assert(sizeof(type) == (size), #type " size")
#define CALLHOME_CHECK_OFFSET(type, field, off)                                                    \
    static_assert(offsetof(type, field) == (off), #type "." #field " offset")

CALLHOME_CHECK_LAYOUT(cmi_callhome_info_t, 2305);
CALLHOME_CHECK_OFFSET(cmi_callhome_info_t, info_value, 256);

CALLHOME_CHECK_LAYOUT(cmi_email_conf_t, 1033);
CALLHOME_CHECK_OFFSET(cmi_email_conf_t, reply_to, 256);
CALLHOME_CHECK_OFFSET(cmi_email_conf_t, return_receipt_addr, 512);
CALLHOME_CHECK_OFFSET(cmi_email_conf_t, smtp_server, 768);
CALLHOME_CHECK_OFFSET(cmi_email_conf_t, address_type, 1024);
CALLHOME_CHECK_OFFSET(cmi_email_conf_t, smtp_server_port, 1028);
CALLHOME_CHECK_OFFSET(cmi_email_conf_t, reserved, 1032);

CALLHOME_CHECK_LAYOUT(callhome_status_t, 2068);
CALLHOME_CHECK_OFFSET(callhome_status_t, num_alerts_sent, 8);
CALLHOME_CHECK_OFFSET(callhome_status_t, callhome_message_status, 12);
CALLHOME_CHECK_OFFSET(callhome_status_t, callhome_error_code, 16);
CALLHOME_CHECK_OFFSET(callhome_status_t, callhome_error_message, 20);

CALLHOME_CHECK_LAYOUT(callhome_switch_t, 5);
CALLHOME_CHECK_LAYOUT(callhome_periodic_inventory_t, 13);
CALLHOME_CHECK_OFFSET(callhome_periodic_inventory_t, time_frame, 4);
CALLHOME_CHECK_OFFSET(callhome_periodic_inventory_t, reserved, 8);
CALLHOME_CHECK_OFFSET(callhome_periodic_inventory_t, time_of_day, 9);
CALLHOME_CHECK_LAYOUT(callhome_alert_action_t, 2116);

CALLHOME_CHECK_LAYOUT(callHomeDestProfileEntry_t, 51);
CALLHOME_CHECK_OFFSET(callHomeDestProfileEntry_t, transport_method, 32);
CALLHOME_CHECK_OFFSET(callHomeDestProfileEntry_t, format_method, 36);
CALLHOME_CHECK_OFFSET(callHomeDestProfileEntry_t, maximum_message_size, 40);
CALLHOME_CHECK_OFFSET(callHomeDestProfileEntry_t, row_status, 44);
CALLHOME_CHECK_OFFSET(callHomeDestProfileEntry_t, msg_level, 48);
CALLHOME_CHECK_OFFSET(callHomeDestProfileEntry_t, reserved, 49);
CALLHOME_CHECK_OFFSET(callHomeDestProfileEntry_t, request_flag, 50);

CALLHOME_CHECK_LAYOUT(callHomeDestEmailAddressEntry_t, 297);
CALLHOME_CHECK_OFFSET(callHomeDestEmailAddressEntry_t, email_addr, 32);
CALLHOME_CHECK_OFFSET(callHomeDestEmailAddressEntry_t, index, 288);
CALLHOME_CHECK_OFFSET(callHomeDestEmailAddressEntry_t, row_status, 292);
CALLHOME_CHECK_OFFSET(callHomeDestEmailAddressEntry_t, commit_flag, 296);

CALLHOME_CHECK_LAYOUT(callHomeAlertGroupEntry_t, 301);
CALLHOME_CHECK_OFFSET(callHomeAlertGroupEntry_t, word, 32);
CALLHOME_CHECK_OFFSET(callHomeAlertGroupEntry_t, row_status, 36);
CALLHOME_CHECK_OFFSET(callHomeAlertGroupEntry_t, alert_group, 40);
CALLHOME_CHECK_OFFSET(callHomeAlertGroupEntry_t, request_flag, 300);

CALLHOME_CHECK_LAYOUT(callhome_alertgroup_type_t, 260);
CALLHOME_CHECK_OFFSET(callhome_alertgroup_type_t, grp_name, 4);

CALLHOME_CHECK_LAYOUT(callHomeUserDefCliCmdEntry_t, 868);
CALLHOME_CHECK_OFFSET(callHomeUserDefCliCmdEntry_t, index, 4);
CALLHOME_CHECK_OFFSET(callHomeUserDefCliCmdEntry_t, alertgroup_name, 8);
CALLHOME_CHECK_OFFSET(callHomeUserDefCliCmdEntry_t, cli_cmd, 264);
CALLHOME_CHECK_OFFSET(callHomeUserDefCliCmdEntry_t, row_status, 864);

CALLHOME_CHECK_LAYOUT(cmi_userdef_cli_cmd_t, 865);
CALLHOME_CHECK_OFFSET(cmi_userdef_cli_cmd_t, alertgroup_type, 4);
CALLHOME_CHECK_OFFSET(cmi_userdef_cli_cmd_t, row_status, 260);
CALLHOME_CHECK_OFFSET(cmi_userdef_cli_cmd_t, cli_cmd, 264);
CALLHOME_CHECK_OFFSET(cmi_userdef_cli_cmd_t, request_flag, 864);

CALLHOME_CHECK_LAYOUT(mibAlertGroup_t, 68);
CALLHOME_CHECK_OFFSET(mibAlertGroup_t, bitset_size, 32);
CALLHOME_CHECK_OFFSET(mibAlertGroup_t, bitset, 36);

CALLHOME_CHECK_LAYOUT(callhome_snmp_error_t, 472);
CALLHOME_CHECK_OFFSET(callhome_snmp_error_t, status, 260);
CALLHOME_CHECK_OFFSET(callhome_snmp_error_t, text, 264);

#endif
