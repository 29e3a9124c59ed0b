// The module's frame: registration of the call-home subtree and its object table, the index
// containers of SET transactions, and the read handler of every scalar object.
#include "callhome_mib.h"

#include <algorithm>

#include <net-snmp/agent/util_funcs/header_generic.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "notif.h"

namespace {

constexpr u_char RW = NETSNMP_OLDAPI_RWRITE;
constexpr u_char RO = NETSNMP_OLDAPI_RONLY;

// How a scalar's value is had.
enum class Source {
    Service,           // get_using_cmi with the scalar's own request
    PeriodicInventory, // get_periodic_inventory_info
    Constant,          // a fixed value; nothing is asked
};

struct ScalarObject {
    u_char magic;
    Source source;
    int opcode;            // Source::Service
    uint32_t length;       // Source::Service: request length
    const char *info_name; // CALLHOME_INFO_OPC: the service's name of the scalar
    long constant;         // Source::Constant
};

constexpr uint32_t kInfoLen = sizeof(cmi_callhome_info_t);
constexpr uint32_t kEmailLen = sizeof(cmi_email_conf_t);
constexpr uint32_t kStatusLen = sizeof(callhome_status_t);
constexpr uint32_t kSwitchLen = sizeof(callhome_switch_t);

const ScalarObject kScalars[] = {
    {CALLHOMEENABLE, Source::Service, CALLHOME_ENABLE_OPC, kSwitchLen, nullptr, 0},
    {SYSCONTACTPHONENUMBER, Source::Service, CALLHOME_INFO_OPC, kInfoLen, "sysContactPhoneNumber",
     0},
    {SYSCONTACTEMAILADDRESS, Source::Service, CALLHOME_INFO_OPC, kInfoLen, "sysContactEmail", 0},
    {SYSSTREETADDRESS, Source::Service, CALLHOME_INFO_OPC, kInfoLen, "sysStreetAddress", 0},
    {CALLHOMECUSTOMERID, Source::Service, CALLHOME_INFO_OPC, kInfoLen, "custId", 0},
    {CALLHOMECONTRACTID, Source::Service, CALLHOME_INFO_OPC, kInfoLen, "contractId", 0},
    {CALLHOMESITEID, Source::Service, CALLHOME_INFO_OPC, kInfoLen, "siteId", 0},
    {CALLHOMEDEVICESERVICEPRIORITY, Source::Service, CALLHOME_INFO_OPC, kInfoLen, "priority", 0},
    // A trigger: it always reads as "no action".
    {CALLHOMEALERTTEST, Source::Constant, 0, 0, nullptr, 1},
    {CALLHOMEMESSAGESTATUS, Source::Service, CALLHOME_STATUS_OPC, kStatusLen, nullptr, 0},
    {CALLHOMEERRORMESSAGE, Source::Service, CALLHOME_STATUS_OPC, kStatusLen, nullptr, 0},
    {CALLHOMEDESTPROFILEMAXCOUNT, Source::Constant, 0, 0, nullptr, CALLHOME_MAX_PROFILES},
    {CALLHOMEEMAILFROM, Source::Service, CALLHOME_EMAIL_CONF_OPC, kEmailLen, nullptr, 0},
    {CALLHOMEEMAILREPLYTO, Source::Service, CALLHOME_EMAIL_CONF_OPC, kEmailLen, nullptr, 0},
    {CALLHOMEEMAILMSGDISPNOTIFICATION, Source::Service, CALLHOME_EMAIL_CONF_OPC, kEmailLen, nullptr,
     0},
    {CALLHOMESMTPSERVERADDRTYPE, Source::Service, CALLHOME_EMAIL_CONF_OPC, kEmailLen, nullptr, 0},
    {CALLHOMESMTPSERVERADDR, Source::Service, CALLHOME_EMAIL_CONF_OPC, kEmailLen, nullptr, 0},
    {CALLHOMESMTPSERVERPORT, Source::Service, CALLHOME_EMAIL_CONF_OPC, kEmailLen, nullptr, 0},
    {PERIODICSWINVENTORYMSGENABLE, Source::PeriodicInventory, 0, 0, nullptr, 0},
    {PERIODICSWINVENTORYTIMEFRAME, Source::PeriodicInventory, 0, 0, nullptr, 0},
    {MSGTHROTTLINGENABLE, Source::Service, CALLHOME_MSG_THROTTLING_OPC, kSwitchLen, nullptr, 0},
    {CALLHOMEUSERDEFCLICMDMAXCOUNT, Source::Constant, 0, 0, nullptr, CALLHOME_MAX_USER_CMDS},
    {CALLHOMELASTALERTSENTTIME, Source::Service, CALLHOME_STATUS_OPC, kStatusLen, nullptr, 0},
    {CALLHOMEALERTSSENTCOUNT, Source::Service, CALLHOME_STATUS_OPC, kStatusLen, nullptr, 0},
    {PERIODICSWINVENTORYTIMEOFDAY, Source::PeriodicInventory, 0, 0, nullptr, 0},
};

const ScalarObject *find_scalar(u_char magic) {
    for (const auto &object : kScalars) {
        if (object.magic == magic) {
            return &object;
        }
    }
    return nullptr;
}

// Values of the objects that are not fetched as they stand (valid until the next read).
long constant_value;
long periodic_inventory_value;
char hhmm_text[32];

// One row list and one undo list per writable table, in creation order.
struct ContainerSlot {
    indxobj_t **container;
    indxobj_cmp_t comparator;
};

const ContainerSlot kContainers[] = {
    {&callHomeDestEmailAddressEntry_undo_list, callHomeDestEmailAddressEntry_comp},
    {&callHomeDestEmailAddressEntry_list, callHomeDestEmailAddressEntry_comp},
    {&callHomeDestProfileEntry_list, callHomeDestProfileEntry_comp},
    {&callHomeDestProfileEntry_undo_list, callHomeDestProfileEntry_comp},
    {&callHomeUserDefCliCmd_list, callHomeUserDefCliCmdEntry_comp},
    {&callHomeUserDefCliCmd_undo_list, callHomeUserDefCliCmdEntry_comp},
};

u_char *read_from_service(const ScalarObject &object, size_t *var_len) {
    switch (object.opcode) {
    case CALLHOME_INFO_OPC: {
        cmi_callhome_info_t info{};
        snprintf(info.info_name, sizeof info.info_name, "%s", object.info_name);
        return get_using_cmi(object.opcode, &info, object.length, var_len, object.magic);
    }
    case CALLHOME_EMAIL_CONF_OPC:
        return get_using_cmi(object.opcode, &callhome_email_conf, object.length, var_len,
                             object.magic);
    case CALLHOME_STATUS_OPC: {
        callhome_status_t status{};
        return get_using_cmi(object.opcode, &status, object.length, var_len, object.magic);
    }
    default: {
        // The enable and throttling switches: the service reads nothing from the request.
        callhome_switch_t request{};
        return get_using_cmi(object.opcode, &request, object.length, var_len, object.magic);
    }
    }
}

u_char *read_periodic_inventory(const ScalarObject &object, size_t *var_len) {
    callhome_periodic_inventory_t record{};
    periodic_inventory_value = get_periodic_inventory_info(&record, object.magic, 0);
    if (periodic_inventory_value == -1) {
        return nullptr;
    }
    if (object.magic == PERIODICSWINVENTORYTIMEOFDAY) {
        *var_len = 5;
        return reinterpret_cast<u_char *>(to_HHMM_string(periodic_inventory_value));
    }
    *var_len = 4;
    return reinterpret_cast<u_char *>(&periodic_inventory_value);
}

} // namespace

extern "C" {

oid callhome_mib_variables_oid[CALLHOME_MIB_ROOT_LEN] = {1, 3, 6, 1, 4, 1, 32473, 9, 300};

/* The object table, one row per object: magic, ASN type, access, read handler, write handler
 * (none for read-only objects), OID below the root. It makes both the table registered with
 * the agent and the write handlers that the read handlers hand back. The agent walks the rows
 * in this order: the time of day, added last, stays last. */
// clang-format off
#define CALLHOME_OBJECTS(X) \
    X(CALLHOMEENABLE,                   ASN_INTEGER,   RW, get_callhome_mib,                  set_callHomeEnable,                   3, {1, 1, 1})           \
    X(SYSCONTACTPHONENUMBER,            ASN_OCTET_STR, RW, get_callhome_mib,                  set_sysContactPhoneNumber,            3, {1, 1, 2})           \
    X(SYSCONTACTEMAILADDRESS,           ASN_OCTET_STR, RW, get_callhome_mib,                  set_sysContactEmailAddress,           3, {1, 1, 3})           \
    X(SYSSTREETADDRESS,                 ASN_OCTET_STR, RW, get_callhome_mib,                  set_sysStreetAddress,                 3, {1, 1, 4})           \
    X(CALLHOMECUSTOMERID,               ASN_OCTET_STR, RW, get_callhome_mib,                  set_callHomeCustomerId,               3, {1, 1, 5})           \
    X(CALLHOMECONTRACTID,               ASN_OCTET_STR, RW, get_callhome_mib,                  set_callHomeContractId,               3, {1, 1, 6})           \
    X(CALLHOMESITEID,                   ASN_OCTET_STR, RW, get_callhome_mib,                  set_callHomeSiteId,                   3, {1, 1, 7})           \
    X(CALLHOMEDEVICESERVICEPRIORITY,    ASN_INTEGER,   RW, get_callhome_mib,                  set_callHomeDeviceServicePriority,    3, {1, 1, 8})           \
    X(CALLHOMEALERTTEST,                ASN_INTEGER,   RW, get_callhome_mib,                  set_callHomeAlertAction,              3, {1, 1, 9})           \
    X(CALLHOMEMESSAGESTATUS,            ASN_INTEGER,   RO, get_callhome_mib,                  nullptr,                              3, {1, 1, 10})          \
    X(CALLHOMEERRORMESSAGE,             ASN_OCTET_STR, RO, get_callhome_mib,                  nullptr,                              3, {1, 1, 11})          \
    X(CALLHOMEDESTPROFILEMSGFORMAT,     ASN_INTEGER,   RW, get_callHomeDestProfileTable,      set_callHomeDestProfileMsgFormat,     5, {1, 1, 12, 1, 2})    \
    X(CALLHOMEDESTPROFILEMAXMSGSIZE,    ASN_GAUGE,     RW, get_callHomeDestProfileTable,      set_callHomeDestProfileMaxMsgSize,    5, {1, 1, 12, 1, 3})    \
    X(CALLHOMEDESTPROFILETRNSPRTMTHD,   ASN_INTEGER,   RW, get_callHomeDestProfileTable,      set_callHomeDestProfileTrnsprtMthd,   5, {1, 1, 12, 1, 4})    \
    X(CALLHOMEDESTPROFILESTATUS,        ASN_INTEGER,   RW, get_callHomeDestProfileTable,      set_callHomeDestProfileStatus,        5, {1, 1, 12, 1, 5})    \
    X(CALLHOMEDESTPROFILEMSGLEVEL,      ASN_INTEGER,   RW, get_callHomeDestProfileTable,      set_callHomeDestProfileMsgLevel,      5, {1, 1, 12, 1, 6})    \
    X(CALLHOMEALERTGROUPS,              ASN_OCTET_STR, RW, get_callHomeDestProfileTable,      set_callhome_alertgroups,             5, {1, 1, 12, 1, 7})    \
    X(CALLHOMEDESTPROFILEMAXCOUNT,      ASN_GAUGE,     RO, get_callhome_mib,                  nullptr,                              3, {1, 1, 13})          \
    X(CALLHOMEDESTEMAILADDRESS,         ASN_OCTET_STR, RW, get_callHomeDestEmailAddressTable, set_callHomeDestEmailAddress,         5, {1, 1, 14, 1, 2})    \
    X(CALLHOMEDESTEMAILADDRESSSTATUS,   ASN_INTEGER,   RW, get_callHomeDestEmailAddressTable, set_callHomeDestEmailAddressStatus,   5, {1, 1, 14, 1, 3})    \
    X(CALLHOMEEMAILFROM,                ASN_OCTET_STR, RW, get_callhome_mib,                  set_callHomeEmailFrom,                3, {1, 1, 15})          \
    X(CALLHOMEEMAILREPLYTO,             ASN_OCTET_STR, RW, get_callhome_mib,                  set_callHomeEmailReplyTo,             3, {1, 1, 16})          \
    X(CALLHOMEEMAILMSGDISPNOTIFICATION, ASN_OCTET_STR, RW, get_callhome_mib,                  set_callHomeEmailMsgDispNotification, 3, {1, 1, 17})          \
    X(CALLHOMESMTPSERVERADDRTYPE,       ASN_INTEGER,   RW, get_callhome_mib,                  set_callHomeSmtpServerAddrType,       3, {1, 1, 18})          \
    X(CALLHOMESMTPSERVERADDR,           ASN_OCTET_STR, RW, get_callhome_mib,                  set_callHomeSmtpServerAddr,           3, {1, 1, 19})          \
    X(CALLHOMESMTPSERVERPORT,           ASN_GAUGE,     RW, get_callhome_mib,                  set_callHomeSmtpServerPort,           3, {1, 1, 20})          \
    X(CALLHOMEALERTGROUPTYPENAME,       ASN_OCTET_STR, RO, get_callHomeAlertGroupTypeTable,   nullptr,                              5, {1, 1, 25, 1, 2})    \
    X(PERIODICSWINVENTORYMSGENABLE,     ASN_INTEGER,   RW, get_callhome_mib,                  set_PeriodicSwInventoryMsgEnable,     3, {1, 1, 27})          \
    X(PERIODICSWINVENTORYTIMEFRAME,     ASN_GAUGE,     RW, get_callhome_mib,                  set_PeriodicSwInventoryTimeFrame,     3, {1, 1, 28})          \
    X(MSGTHROTTLINGENABLE,              ASN_INTEGER,   RW, get_callhome_mib,                  set_MsgThrottlingEnable,              3, {1, 1, 29})          \
    X(CALLHOMEUSERDEFCLICMDMAXCOUNT,    ASN_GAUGE,     RO, get_callhome_mib,                  nullptr,                              4, {1, 1, 30, 5})       \
    X(CALLHOMEUSERDEFCLICMD,            ASN_OCTET_STR, RW, get_callHomeUserDefCmdTable,       set_callHomeUserDefCliCmd,            6, {1, 1, 30, 6, 1, 2}) \
    X(CALLHOMEUSERDEFCLICMDSTATUS,      ASN_INTEGER,   RW, get_callHomeUserDefCmdTable,       set_callHomeUserDefCliCmdStatus,      6, {1, 1, 30, 6, 1, 3}) \
    X(CALLHOMELASTALERTSENTTIME,        ASN_TIMETICKS, RO, get_callhome_mib,                  nullptr,                              3, {1, 2, 1})           \
    X(CALLHOMEALERTSSENTCOUNT,          ASN_COUNTER,   RO, get_callhome_mib,                  nullptr,                              3, {1, 2, 2})           \
    X(PERIODICSWINVENTORYTIMEOFDAY,     ASN_OCTET_STR, RW, get_callhome_mib,                  set_PeriodicSwInventoryTimeOfDay,     4, {1, 1, 33, 1})

#define CALLHOME_VARIABLE(magic, type, access, read, write, len, ...) {magic, type, access, read, len, __VA_ARGS__},
struct variable7 callhome_mib_variables[CALLHOME_MIB_VARIABLE_COUNT] = {CALLHOME_OBJECTS(CALLHOME_VARIABLE)};
#undef CALLHOME_VARIABLE
// clang-format on

char *HHMM_buf;

indxobj_t *callHomeDestEmailAddressEntry_undo_list;
indxobj_t *callHomeDestEmailAddressEntry_list;
indxobj_t *callHomeDestProfileEntry_list;
indxobj_t *callHomeDestProfileEntry_undo_list;
indxobj_t *callHomeUserDefCliCmd_list;
indxobj_t *callHomeUserDefCliCmd_undo_list;

namespace {

struct ObjectWriter {
    u_char magic;
    u_char access;
    FindVarMethod *read;
    WriteMethod *write;
};

#define CALLHOME_WRITER(magic, type, access, read, write, len, ...) {magic, access, read, write},
constexpr ObjectWriter kObjectWriters[] = {CALLHOME_OBJECTS(CALLHOME_WRITER)};
#undef CALLHOME_WRITER

// Checked on the table's spelling rather than on the addresses: a function's address is no
// constant expression where the sanitizers instrument the build.
// clang-format off
#define CALLHOME_HAS_WRITER(magic, type, access, read, write, len, ...) \
    ((access == RW) == (std::string_view(#write) != "nullptr")) &&
static_assert(CALLHOME_OBJECTS(CALLHOME_HAS_WRITER) true, "every read-write object has a write handler");
#undef CALLHOME_HAS_WRITER
// clang-format on

const ObjectWriter *find_object(int magic) {
    for (const ObjectWriter &w : kObjectWriters) {
        if (w.magic == magic) {
            return &w;
        }
    }
    return nullptr;
}

// net-snmp registers each entry of an object table as a subtree of its own (root + suffix),
// so unregistering the root alone would leave every entry's handler behind, pointing into an
// unloaded library.
void unregister_callhome_subtree() {
    unregister_mib(callhome_mib_variables_oid, CALLHOME_MIB_ROOT_LEN);
    for (const struct variable7 &entry : callhome_mib_variables) {
        oid name[CALLHOME_MIB_ROOT_LEN + 7];
        std::copy_n(callhome_mib_variables_oid, CALLHOME_MIB_ROOT_LEN, name);
        std::copy_n(entry.name, entry.namelen, name + CALLHOME_MIB_ROOT_LEN);
        unregister_mib(name, CALLHOME_MIB_ROOT_LEN + entry.namelen);
    }
}

} // namespace

void init_callhome_mib(void) {
    if (register_mib("callhome_mib", reinterpret_cast<struct variable *>(callhome_mib_variables),
                     sizeof(struct variable7), CALLHOME_MIB_VARIABLE_COUNT,
                     callhome_mib_variables_oid, CALLHOME_MIB_ROOT_LEN) != MIB_REGISTERED_OK) {
        // Initialisation goes on: the containers and notifications do not need the subtree.
        if (snmp_get_do_debugging()) {
            debugmsgtoken("trace", "%s(): %s, %d:\n", __func__, __FILE__, __LINE__);
            debugmsg("trace", "%s(): %s, %d:\n", __func__, __FILE__, __LINE__);
            debugmsgtoken("register_mib", "%s registration failed\n", "callhome_mib");
            debugmsg("register_mib", "%s registration failed\n", "callhome_mib");
        }
    }

    for (size_t i = 0; i < sizeof kContainers / sizeof kContainers[0]; ++i) {
        const ContainerSlot &slot = kContainers[i];
        if (indxobj_create(slot.container, 0, 1, slot.comparator, 1) != INDXOBJ_CREATED) {
            // Without every container no SET can be processed: leave nothing behind.
            for (size_t j = 0; j < i; ++j) {
                indxobj_destroy(*kContainers[j].container);
                *kContainers[j].container = nullptr;
            }
            *slot.container = nullptr;
            unregister_callhome_subtree();
            return;
        }
    }

    register_for_notification(CALLHOME_ALERTGROUP_ADDED_NOTIF, handle_alertgroup_added_notif);
    register_for_notification(CALLHOME_ALERTGROUP_DELETED_NOTIF, handle_alertgroup_deleted_notif);
}

void deinit_callhome_mib(void) {
    unregister_callhome_subtree();
    for (const ContainerSlot &slot : kContainers) {
        indxobj_destroy(*slot.container);
        *slot.container = nullptr;
    }
    unregister_for_notification(CALLHOME_ALERTGROUP_ADDED_NOTIF);
    unregister_for_notification(CALLHOME_ALERTGROUP_DELETED_NOTIF);
}

u_char *get_callhome_mib(struct variable *vp, oid *name, size_t *length, int exact, size_t *var_len,
                         WriteMethod **write_method) {
    if (header_generic(vp, name, length, exact, var_len, write_method) == MATCH_FAILED) {
        return nullptr;
    }
    const ScalarObject *object = find_scalar(vp->magic);
    if (object == nullptr) {
        snmp_set_detail("");
        return nullptr;
    }
    // Handed back before the read, so that a SET finds its handler even when the read fails.
    const ObjectWriter *row = find_object(vp->magic);
    if (row != nullptr && row->write != nullptr) {
        *write_method = row->write;
    }
    switch (object->source) {
    case Source::Service:
        return read_from_service(*object, var_len);
    case Source::PeriodicInventory:
        return read_periodic_inventory(*object, var_len);
    case Source::Constant:
        constant_value = object->constant;
        if (object->magic == CALLHOMEALERTTEST) {
            *var_len = 4;
        }
        return reinterpret_cast<u_char *>(&constant_value);
    }
    return nullptr;
}

// Table columns only: a scalar's magic leaves the write method as the caller set it.
void set_table_set_methods(int magic, WriteMethod **write_method) {
    const ObjectWriter *row = find_object(magic);
    if (row != nullptr && row->read != get_callhome_mib && row->write != nullptr) {
        *write_method = row->write;
    }
}

char *to_HHMM_string(long minutes) {
    const long hours = minutes / 60;
    const long mins = minutes % 60;
    // Parts of one digit get a leading zero; negative parts keep their sign after it.
    const char *format =
        hours <= 9 ? (mins <= 9 ? "0%ld:0%ld" : "0%ld:%ld") : (mins <= 9 ? "%ld:0%ld" : "%ld:%ld");
    snprintf(hhmm_text, sizeof hhmm_text, format, hours, mins);
    HHMM_buf = hhmm_text;
    return HHMM_buf;
}

} // extern "C"
