/*
 * The call-home MIB module: entry points, handlers and the functions shared between the
 * module's sources. Names marked CALLHOME_EXPORT are the library's interface; the others
 * are internal (hidden in the shared library, reachable by the unit tests).
 */
#ifndef CALLHOME_MIB_H
#define CALLHOME_MIB_H

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "callhome_wire.h"
#include "cmi.h"
#include "indxobj.h"

#define CALLHOME_EXPORT __attribute__((visibility("default")))

extern "C" {

/* ---- Module frame ---------------------------------------------------------------------- */

#define CALLHOME_MIB_ROOT_LEN 9
#define CALLHOME_MIB_VARIABLE_COUNT 36

CALLHOME_EXPORT extern oid callhome_mib_variables_oid[CALLHOME_MIB_ROOT_LEN];
CALLHOME_EXPORT extern struct variable7 callhome_mib_variables[CALLHOME_MIB_VARIABLE_COUNT];

CALLHOME_EXPORT void init_callhome_mib(void);
CALLHOME_EXPORT void deinit_callhome_mib(void);

/* Object magics. */
enum : u_char {
    CALLHOMEENABLE = 1,
    SYSCONTACTPHONENUMBER = 2,
    SYSCONTACTEMAILADDRESS = 3,
    SYSSTREETADDRESS = 4,
    CALLHOMECUSTOMERID = 5,
    CALLHOMECONTRACTID = 6,
    CALLHOMESITEID = 7,
    CALLHOMEDEVICESERVICEPRIORITY = 8,
    CALLHOMEALERTTEST = 9,
    CALLHOMEMESSAGESTATUS = 10,
    CALLHOMEERRORMESSAGE = 11,
    CALLHOMEDESTPROFILEMSGFORMAT = 13,
    CALLHOMEDESTPROFILEMAXMSGSIZE = 14,
    CALLHOMEDESTPROFILETRNSPRTMTHD = 15,
    CALLHOMEDESTPROFILESTATUS = 16,
    CALLHOMEDESTPROFILEMSGLEVEL = 17,
    CALLHOMEALERTGROUPS = 18,
    CALLHOMEDESTPROFILEMAXCOUNT = 19,
    CALLHOMEDESTEMAILADDRESS = 20,
    CALLHOMEDESTEMAILADDRESSSTATUS = 21,
    CALLHOMEEMAILFROM = 22,
    CALLHOMEEMAILREPLYTO = 23,
    CALLHOMEEMAILMSGDISPNOTIFICATION = 24,
    CALLHOMESMTPSERVERADDRTYPE = 25,
    CALLHOMESMTPSERVERADDR = 26,
    CALLHOMESMTPSERVERPORT = 27,
    CALLHOMEALERTGROUPTYPENAME = 28,
    PERIODICSWINVENTORYMSGENABLE = 31,
    PERIODICSWINVENTORYTIMEFRAME = 32,
    MSGTHROTTLINGENABLE = 33,
    CALLHOMEUSERDEFCLICMDMAXCOUNT = 34,
    CALLHOMEUSERDEFCLICMD = 35,
    CALLHOMEUSERDEFCLICMDSTATUS = 36,
    CALLHOMELASTALERTSENTTIME = 37,
    CALLHOMEALERTSSENTCOUNT = 38,
    PERIODICSWINVENTORYTIMEOFDAY = 39,
};

/* Index containers of SET transactions in progress (created by init_callhome_mib). */
extern indxobj_t *callHomeDestEmailAddressEntry_undo_list;
extern indxobj_t *callHomeDestEmailAddressEntry_list;
extern indxobj_t *callHomeDestProfileEntry_list;
extern indxobj_t *callHomeDestProfileEntry_undo_list;
extern indxobj_t *callHomeUserDefCliCmd_list;
extern indxobj_t *callHomeUserDefCliCmd_undo_list;

/* ---- Scalar reads ---------------------------------------------------------------------- */

CALLHOME_EXPORT u_char *get_callhome_mib(struct variable *vp, oid *name, size_t *length, int exact,
                                         size_t *var_len, WriteMethod **write_method);
CALLHOME_EXPORT char *to_HHMM_string(long minutes);
CALLHOME_EXPORT extern char *HHMM_buf;

/* ---- Common helpers -------------------------------------------------------------------- */

CALLHOME_EXPORT void oid_to_string(const oid *name, char *out, int start, int count);
CALLHOME_EXPORT void string_to_oid(const char *text, oid *name, int start, int count);
CALLHOME_EXPORT void set_table_set_methods(int magic, WriteMethod **write_method);

/* Trace levels. */
enum { CALLHOME_TRACE_ERROR = 100, CALLHOME_TRACE_INFO = 101 };
/* The module's debug trace: event history and, when debugging is on, debug output. */
void callhome_trace(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));
/* Text of a service status for failure traces: syserr_format, or strerror(-1) for -1. */
const char *callhome_status_text(int status);

/* The module-wide SNMP error record; callhome_report_error fills and logs it. */
extern callhome_snmp_error_t callhome_snmp_error;
void callhome_report_error(int status);
/* Records a failed SET or DELETE to the service with log_set_error. */
void callhome_log_set_error(int status);

/* How long a write waits for the service, in seconds. */
enum { CALLHOME_WRITE_WAIT = 10 };

/* Values of a write: the agent hands INTEGER and Gauge32 values over as a C long, and a 32-bit
 * value is accepted as well; a missing value reads as 0. */
int callhome_integer_length_ok(size_t len);
long callhome_integer_value(const u_char *var_val, size_t len);

/* Text into fixed fields, always terminated and cut to fit. copy_text stops at the source's
 * NUL (or after src_max bytes) and clears the rest of the field; copy_value takes the value's
 * bytes as they are. Both return the number of bytes copied. */
size_t callhome_copy_text(char *dst, size_t size, const char *src, size_t src_max);
size_t callhome_copy_value(char *dst, size_t size, const u_char *var_val, size_t len);
/* The service is another process: its text fields are never trusted to be terminated. */
void callhome_terminate(char *field, size_t size);

/* A private copy of a variable's OID: the header functions rewrite the OID they are given, and
 * the agent's copy must stay as it is. */
struct callhome_oid_copy {
    oid arcs[MAX_OID_LEN];
    size_t len;
};
void callhome_copy_oid(const oid *name, size_t name_len, struct callhome_oid_copy *copy);

/* ---- Backend channel ------------------------------------------------------------------- */

CALLHOME_EXPORT u_char *get_using_cmi(int opcode, void *request, uint32_t length, size_t *var_len,
                                      int magic);
CALLHOME_EXPORT long get_periodic_inventory_info(callhome_periodic_inventory_t *record, int magic,
                                                 int get_for_set);
CALLHOME_EXPORT int to_snmp_error_code(int status);

/* The persistent e-mail configuration: request and answer of CALLHOME_EMAIL_CONF_OPC. */
extern cmi_email_conf_t callhome_email_conf;

/* ---- Table records --------------------------------------------------------------------- */

CALLHOME_EXPORT void callHomeDestProfileEntry_hton(callHomeDestProfileEntry_t *entry);
CALLHOME_EXPORT void callHomeDestProfileEntry_ntoh(callHomeDestProfileEntry_t *entry);
CALLHOME_EXPORT void callHomeDestEmailAddressEntry_hton(callHomeDestEmailAddressEntry_t *entry);
CALLHOME_EXPORT void callHomeDestEmailAddressEntry_ntoh(callHomeDestEmailAddressEntry_t *entry);
CALLHOME_EXPORT void callHomeAlertGroupEntry_hton(callHomeAlertGroupEntry_t *entry);
CALLHOME_EXPORT void callHomeAlertGroupEntry_ntoh(callHomeAlertGroupEntry_t *entry);
CALLHOME_EXPORT void callHomeEmailConf_hton(cmi_email_conf_t *conf);
CALLHOME_EXPORT void callHomeEmailConf_ntoh(cmi_email_conf_t *conf);

/* The channel is big-endian for every record, so the records without named conversion
 * functions get these. */
void callhome_alertgroup_type_hton(callhome_alertgroup_type_t *record);
void callhome_alertgroup_type_ntoh(callhome_alertgroup_type_t *record);
void cmi_userdef_cli_cmd_hton(cmi_userdef_cli_cmd_t *record);
void cmi_userdef_cli_cmd_ntoh(cmi_userdef_cli_cmd_t *record);

CALLHOME_EXPORT void callHomeDestProfileEntry_defaults(callHomeDestProfileEntry_t *entry);
CALLHOME_EXPORT void callHomeDestEmailAddressEntry_defaults(callHomeDestEmailAddressEntry_t *entry);

CALLHOME_EXPORT int callHomeDestProfileEntry_comp(const void *a, const void *b);
CALLHOME_EXPORT int callHomeDestEmailAddressEntry_comp(const void *a, const void *b);
CALLHOME_EXPORT int callHomeUserDefCliCmdEntry_comp(const void *a, const void *b);

/* ---- Scalar writes --------------------------------------------------------------------- */

CALLHOME_EXPORT int set_Scalar(int opcode, uint32_t length, void *data, int wait);
CALLHOME_EXPORT int setTableObjects(int opcode, void *data, uint32_t length);

#define CALLHOME_WRITE_HANDLER(name)                                                               \
    CALLHOME_EXPORT int name(int action, u_char *var_val, u_char var_val_type, size_t var_val_len, \
                             u_char *statP, oid *name_oid, size_t name_len)

/* Defines an exported write handler in one line: it hands its call, with its own name for the
 * traces, to the mechanism that serves it, after the mechanism's row when one is given. */
#define CALLHOME_DEFINE_WRITER(handler, mechanism, ...)                                            \
    CALLHOME_WRITE_HANDLER(handler) {                                                              \
        return mechanism(__VA_ARGS__ __VA_OPT__(, ) #handler, action, var_val, var_val_type,       \
                         var_val_len, statP, name_oid, name_len);                                  \
    }

CALLHOME_WRITE_HANDLER(set_sysContactPhoneNumber);
CALLHOME_WRITE_HANDLER(set_sysContactEmailAddress);
CALLHOME_WRITE_HANDLER(set_sysStreetAddress);
CALLHOME_WRITE_HANDLER(set_callHomeCustomerId);
CALLHOME_WRITE_HANDLER(set_callHomeContractId);
CALLHOME_WRITE_HANDLER(set_callHomeSiteId);
CALLHOME_WRITE_HANDLER(set_callHomeEmailFrom);
CALLHOME_WRITE_HANDLER(set_callHomeEmailReplyTo);
CALLHOME_WRITE_HANDLER(set_callHomeEmailMsgDispNotification);
CALLHOME_WRITE_HANDLER(set_callHomeEnable);
CALLHOME_WRITE_HANDLER(set_callHomeDeviceServicePriority);
CALLHOME_WRITE_HANDLER(set_callHomeAlertAction);
CALLHOME_WRITE_HANDLER(set_MsgThrottlingEnable);
CALLHOME_WRITE_HANDLER(set_callHomeSmtpServerAddrType);
CALLHOME_WRITE_HANDLER(set_callHomeSmtpServerAddr);
CALLHOME_WRITE_HANDLER(set_callHomeSmtpServerPort);
CALLHOME_WRITE_HANDLER(set_PeriodicSwInventoryMsgEnable);
CALLHOME_WRITE_HANDLER(set_PeriodicSwInventoryTimeFrame);
CALLHOME_WRITE_HANDLER(set_PeriodicSwInventoryTimeOfDay);

/* ---- Table reads ----------------------------------------------------------------------- */

/* Static read copies: the key of each request and the row of its answer. */
CALLHOME_EXPORT extern callHomeDestProfileEntry_t callHomeDestProfileEntry;
CALLHOME_EXPORT extern callHomeDestEmailAddressEntry_t callHomeDestEmailAddressEntry;
CALLHOME_EXPORT extern callHomeAlertGroupEntry_t callHomeAlertGroupEntry;
CALLHOME_EXPORT extern mibAlertGroup_t mibAlertGroup;
CALLHOME_EXPORT extern callhome_alertgroup_type_t alertgroup_type;
CALLHOME_EXPORT extern callHomeUserDefCliCmdEntry_t callHomeUserDefCliCmdEntry;

CALLHOME_EXPORT u_char *get_callHomeDestProfileTable(struct variable *vp, oid *name, size_t *length,
                                                     int exact, size_t *var_len,
                                                     WriteMethod **write_method);
CALLHOME_EXPORT u_char *get_callHomeDestEmailAddressTable(struct variable *vp, oid *name,
                                                          size_t *length, int exact,
                                                          size_t *var_len,
                                                          WriteMethod **write_method);
CALLHOME_EXPORT u_char *get_callHomeAlertGroupTypeTable(struct variable *vp, oid *name,
                                                        size_t *length, int exact, size_t *var_len,
                                                        WriteMethod **write_method);
CALLHOME_EXPORT u_char *get_callHomeUserDefCmdTable(struct variable *vp, oid *name, size_t *length,
                                                    int exact, size_t *var_len,
                                                    WriteMethod **write_method);

int header_callHomeDestProfileEntry(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                    int exact, callHomeDestProfileEntry_t *entry, int get_for_set);
int get_callHomeDestProfileEntry_instance(oid *vp_name, size_t vp_namelen, oid *name,
                                          size_t *length, int exact,
                                          callHomeDestProfileEntry_t *entry);

int header_callHomeDestEmailAddressEntry(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                         int exact, callHomeDestEmailAddressEntry_t *entry,
                                         int get_for_set);
int get_callHomeDestEmailAddressEntry_instance(oid *vp_name, size_t vp_namelen, oid *name,
                                               size_t *length, int exact,
                                               callHomeDestEmailAddressEntry_t *entry);

int header_callhome_alertgroups(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                int exact, mibAlertGroup_t *summary, int get_for_set);
int get_callhome_alertgroups_instance(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                      int exact, callHomeAlertGroupEntry_t *record,
                                      int get_for_set);

int header_callHomeAlertGroupType(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                  int exact, callhome_alertgroup_type_t *record);
int get_callHomeAlertGroupType_instance(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                        int exact, callhome_alertgroup_type_t *record);

int header_callHomeUserDefCliCmdEntry(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                      int exact, callHomeUserDefCliCmdEntry_t *row,
                                      int get_for_set);
int get_callHomeUserDefCliCmd_instance(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                       int exact, callHomeUserDefCliCmdEntry_t *row);

/* ---- Table writes ---------------------------------------------------------------------- */

CALLHOME_WRITE_HANDLER(set_callHomeDestProfileMsgFormat);
CALLHOME_WRITE_HANDLER(set_callHomeDestProfileMaxMsgSize);
CALLHOME_WRITE_HANDLER(set_callHomeDestProfileTrnsprtMthd);
CALLHOME_WRITE_HANDLER(set_callHomeDestProfileStatus);
CALLHOME_WRITE_HANDLER(set_callHomeDestProfileMsgLevel);
CALLHOME_WRITE_HANDLER(set_callHomeDestEmailAddress);
CALLHOME_WRITE_HANDLER(set_callHomeDestEmailAddressStatus);
CALLHOME_WRITE_HANDLER(set_callHomeUserDefCliCmd);
CALLHOME_WRITE_HANDLER(set_callHomeUserDefCliCmdStatus);

/* ---- Alert-group types ----------------------------------------------------------------- */

CALLHOME_EXPORT extern callhome_alertgroup_type_t alertgroup_types[CALLHOME_MAX_ALERTGROUP_TYPES];
CALLHOME_EXPORT extern uint32_t alertgroup_type_count;

CALLHOME_EXPORT void get_all_alertgroup_types(void);
CALLHOME_EXPORT void set_mib_var_alertgroup(void *set, const char *name);
CALLHOME_EXPORT int is_all_alertgroup_types_set(const void *set);
CALLHOME_EXPORT int is_all_alertgroup_types_reset(const void *set);
CALLHOME_EXPORT int get_alertgroup_type_index(int start, const char *name);

CALLHOME_EXPORT netsnmp_variable_list *
handle_alertgroup_added_notif(mts_msg_t *msg, oid *notif_oid, size_t *notif_oid_len, int *send);
CALLHOME_EXPORT netsnmp_variable_list *
handle_alertgroup_deleted_notif(mts_msg_t *msg, oid *notif_oid, size_t *notif_oid_len, int *send);

CALLHOME_WRITE_HANDLER(set_callhome_alertgroups);
CALLHOME_EXPORT int update_cmi_alertGroups(int msg_type, callHomeAlertGroupEntry_t *entry);

} /* extern "C" */

/* The helpers above for fixed fields, sized by their type. */
template <size_t N, size_t M> size_t callhome_copy_text(char (&dst)[N], const char (&src)[M]) {
    return callhome_copy_text(dst, N, src, M);
}
template <size_t N> void callhome_terminate(char (&field)[N]) {
    callhome_terminate(field, N);
}

/* The answer record of one cmi_req_resp call, freed whichever way the caller leaves. */
struct CmiAnswer {
    void *record = nullptr;
    uint32_t length = 0;

    CmiAnswer() = default;
    CmiAnswer(const CmiAnswer &) = delete;
    CmiAnswer &operator=(const CmiAnswer &) = delete;
    ~CmiAnswer() { release(); }

    void release() {
        std::free(record);
        record = nullptr;
        length = 0;
    }
    /* Copies the answer over `size` bytes of dst. A short answer leaves the rest zero rather
     * than reading past the end of what the service sent. */
    void copy_to(void *dst, size_t size) const {
        std::memset(dst, 0, size);
        if (record != nullptr) {
            std::memcpy(dst, record, std::min<size_t>(size, length));
        }
    }
    template <class Record> void copy_to(Record *out) const { copy_to(out, sizeof *out); }
};

/* The one channel to the service (callhome_backend.cpp). A read (GET, GETNEXT and their
 * distribution variants) leaves the answer record in `answer`; scalar reads go out without
 * the SNMP request's user and session. A write (SET, DELETE) asks for no answer record and is
 * bracketed by heartbeats for the process monitor; errno is left as the call set it. */
int callhome_read(int opcode, int msg_type, const void *request, uint32_t length, int client,
                  int wait, CmiAnswer *answer);
int callhome_write(int opcode, int msg_type, const void *record, uint32_t length, int client,
                   int wait);

#endif
