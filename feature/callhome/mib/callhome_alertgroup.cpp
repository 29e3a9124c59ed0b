/*
 * The alert-group type registry: the module's copy of the service's list of alert-group
 * types, the mapping of type names to bits of a profile's alert-group set, the writes of a
 * profile's alert groups that use them, and the notifications that announce added and
 * removed types.
 */
#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "bitset.h"
#include "callhome_mib.h"
#include "notif.h"
#include "snmp_ctx.h"
#include "veld.h"

namespace {

/* Index of the entry after the last valid one. */
constexpr uint32_t kTypeListEnd = 0xFFFFFFFFu;
constexpr size_t kTypeSlots = CALLHOME_MAX_ALERTGROUP_TYPES;
constexpr int kLookupWait = 4;

} // namespace

extern "C" {

/* Starts out as the empty list. */
callhome_alertgroup_type_t alertgroup_types[CALLHOME_MAX_ALERTGROUP_TYPES] = {{kTypeListEnd, {}}};
uint32_t alertgroup_type_count;

} /* extern "C" */

namespace {

/* One GETNEXT on the type table from request->index. On success the answer replaces the
 * request (in host order), so that the next call continues after it. */
int next_type(callhome_alertgroup_type_t *request, bool *answered) {
    callhome_alertgroup_type_t wire = *request;
    callhome_alertgroup_type_hton(&wire);
    CmiAnswer answer;
    const int status = callhome_read(CALLHOME_ALERTGROUP_TYPE_OPC, GETNEXT_REQ, &wire, sizeof wire,
                                     CALLHOME_CLIENT_TABLE, kLookupWait, &answer);
    *answered = answer.record != nullptr;
    if (status == 0 && answer.record != nullptr) {
        answer.copy_to(request);
        callhome_alertgroup_type_ntoh(request);
        callhome_terminate(request->grp_name);
    }
    return status;
}

/* Entries up to the terminator, never more than the array holds. */
size_t listed_types() {
    size_t n = 0;
    while (n < kTypeSlots && alertgroup_types[n].index != kTypeListEnd) {
        ++n;
    }
    return n;
}

bool name_is(const callhome_alertgroup_type_t &type, const char *name) {
    const size_t len = std::strlen(name);
    return strnlen(type.grp_name, sizeof type.grp_name) == len &&
           std::memcmp(type.grp_name, name, len) == 0;
}

int count_types_with_bit(const void *set, int bit_value) {
    const size_t listed = listed_types();
    uint32_t matching = 0;
    for (size_t i = 0; i < listed; ++i) {
        if (bitset_is_bit_set(set, alertgroup_types[i].index) == bit_value) {
            ++matching;
        }
    }
    if (alertgroup_type_count == 0) {
        return 0;
    }
    return matching == alertgroup_type_count ? 1 : 0;
}

} // namespace

extern "C" {

void get_all_alertgroup_types(void) {
    is_veld_enabled("callhome");
    get_veld_show_run_mode("callhome");

    callhome_alertgroup_type_t request;
    std::memset(&request, 0, sizeof request);
    size_t slot = 0;
    for (;;) {
        /* The last slot is kept for the terminator, whatever the service's list holds. */
        if (slot == kTypeSlots - 1) {
            alertgroup_types[slot].index = kTypeListEnd;
            return;
        }
        bool answered = false;
        const int status = next_type(&request, &answered);
        if (status == CALLHOME_END_OF_TABLE) {
            alertgroup_types[slot].index = kTypeListEnd;
            return;
        }
        if (status == -1) {
            callhome_trace(CALLHOME_TRACE_ERROR, "%s : GETNEXT REQ FAILED \n", __func__);
            alertgroup_types[slot].index = static_cast<uint32_t>(~0);
            return;
        }
        if (status != 0 || !answered) {
            callhome_trace(CALLHOME_TRACE_ERROR, "%s : GETNEXT REQ FAILED  - errcode : %s \n",
                           __func__, callhome_status_text(status));
            alertgroup_types[slot].index = kTypeListEnd;
            return;
        }
        callhome_trace(CALLHOME_TRACE_INFO,
                       "%s : Alert Group Type index %d , alertgroup name : %s \n", __func__,
                       static_cast<int>(request.index), request.grp_name);
        alertgroup_types[slot] = request;
        ++slot;
        /* Only a refresh that stores an entry changes the count. */
        alertgroup_type_count = static_cast<uint32_t>(slot);
    }
}

void set_mib_var_alertgroup(void *set, const char *name) {
    if (set == nullptr || name == nullptr) {
        return;
    }
    const size_t listed = listed_types();
    const bool all = std::strcmp(name, "all") == 0;
    for (size_t i = 0; i < listed; ++i) {
        /* Every entry of that name: the list may hold a name twice. */
        if (all || name_is(alertgroup_types[i], name)) {
            bitset_set_bit(set, alertgroup_types[i].index);
            callhome_trace(CALLHOME_TRACE_INFO, "%s : alert group  bit : %d  set \n", __func__,
                           static_cast<int>(alertgroup_types[i].index));
        }
    }
    if (all) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : alert group all bits set \n", __func__);
    }
}

int is_all_alertgroup_types_set(const void *set) {
    return count_types_with_bit(set, 1);
}

int is_all_alertgroup_types_reset(const void *set) {
    return count_types_with_bit(set, 0);
}

int get_alertgroup_type_index(int start, const char *name) {
    callhome_alertgroup_type_t request;
    std::memset(&request, 0, sizeof request);
    request.index = static_cast<uint32_t>(start);
    int status = 0;
    for (;;) {
        bool answered = false;
        status = next_type(&request, &answered);
        if (status != 0 || !answered) {
            break;
        }
        callhome_trace(CALLHOME_TRACE_INFO,
                       "Revd resp for alertgroup type GET Req: index = %d, grp_name = %s \n",
                       static_cast<int>(request.index), request.grp_name);
        if (name != nullptr && name_is(request, name)) {
            return static_cast<int>(request.index);
        }
    }
    callhome_trace(CALLHOME_TRACE_ERROR,
                   "GET/GETNEXT req failed for alertgroup type_index = %d, : %s\n",
                   static_cast<int>(request.index), callhome_status_text(status));
    return -1;
}

} /* extern "C" */

/* ---- Writes of a profile's alert groups ------------------------------------------------- */

namespace {

constexpr size_t kAlertGroupPrefixLen = 14;
constexpr size_t kAlertGroupValueMax = 8; /* type indexes 0 to 63 */

/* A bit set in the platform's layout: the header word, then the storage. */
struct AlertGroupSet {
    uint32_t size;
    uint8_t bits[sizeof(mibAlertGroup_t::bitset)];
};

/* The known types: the registry's count, but never past its terminator (a refresh that finds
 * no type leaves the old count behind). */
uint32_t known_type_count() {
    return std::min<uint32_t>(alertgroup_type_count, static_cast<uint32_t>(listed_types()));
}

void send_alertgroup(int msg_type, const char *profile, const char *group) {
    callHomeAlertGroupEntry_t entry;
    std::memset(&entry, 0, sizeof entry);
    callhome_copy_text(entry.destination_profile_id, sizeof entry.destination_profile_id, profile,
                       SIZE_MAX);
    callhome_copy_text(entry.alert_group, sizeof entry.alert_group, group, SIZE_MAX);
    entry.word = 0;
    /* A failure is traced and logged by the sender; the manager isn't told. */
    update_cmi_alertGroups(msg_type, &entry);
}

} // namespace

extern "C" {

int update_cmi_alertGroups(int msg_type, callHomeAlertGroupEntry_t *entry) {
    if (entry == nullptr) {
        return SNMP_ERR_GENERR;
    }
    callhome_trace(CALLHOME_TRACE_INFO,
                   "%s : Sending %s REQ to alertGroupTable for destination_profile_id = %s "
                   "AlertGroup = %s\n",
                   __func__, msg_type == SET_REQ ? "SET" : "DELETE", entry->destination_profile_id,
                   entry->alert_group);
    entry->request_flag = 0;
    callHomeAlertGroupEntry_hton(entry);
    int status = callhome_write(CALLHOME_PROFILE_ALERTGROUP_OPC, msg_type, entry, sizeof *entry,
                                CALLHOME_CLIENT_TABLE, CALLHOME_WRITE_WAIT);
    if (status != 0) {
        callhome_trace(CALLHOME_TRACE_ERROR, "%s : SET failed : %s\n", __func__,
                       callhome_status_text(status));
        callhome_log_set_error(status);
        return to_snmp_error_code(status);
    }
    callhome_trace(CALLHOME_TRACE_INFO, "%s : update succeeded\n", __func__);
    return SNMP_ERR_NOERROR;
}

/* The service keeps a profile's groups one by one, and a profile with every known type as
 * the single group "all"; the written bit string is turned into the changes between the two. */
int set_callhome_alertgroups(int action, u_char *var_val, u_char var_val_type, size_t var_val_len,
                             u_char *, oid *name, size_t name_len) {
    if (action == RESERVE1) {
        if (var_val_type != ASN_OCTET_STR) {
            callhome_trace(CALLHOME_TRACE_INFO,
                           "%s :write to callHomeAlertGroups not ASN_OCTET_STR \n", __func__);
            return SNMP_ERR_WRONGTYPE;
        }
        if (var_val_len > kAlertGroupValueMax) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s :write to callHomeAlertGroups bad length\n",
                           __func__);
            return SNMP_ERR_WRONGLENGTH;
        }
        return SNMP_ERR_NOERROR;
    }
    if (action != ACTION) {
        return SNMP_ERR_NOERROR; /* the change is made in ACTION and is not undone */
    }

    callhome_oid_copy o;
    callhome_copy_oid(name, name_len, &o);
    int status = header_callhome_alertgroups(o.arcs, kAlertGroupPrefixLen, o.arcs, &o.len, 1,
                                             &mibAlertGroup, 1);
    if (status != 0) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : read from alertGroup Table failed :%s  \n",
                       __func__, callhome_status_text(status));
        /* Kept as managers know it: any other status is returned raw, not as an SNMP status. */
        return status == CALLHOME_UNKNOWN_ENTRY ? SNMP_ERR_NOSUCHNAME : status;
    }
    callhome_trace(CALLHOME_TRACE_INFO, "%s : read from alertGroup Table succeed \n", __func__);

    AlertGroupSet wanted;
    wanted.size = sizeof wanted.bits;
    bitset_clear(&wanted);
    if (var_val != nullptr) {
        std::memcpy(wanted.bits, var_val, std::min(var_val_len, kAlertGroupValueMax));
    }
    const void *old_set = &mibAlertGroup.bitset_size;
    char profile[sizeof mibAlertGroup.destination_profile_id];
    callhome_copy_text(profile, mibAlertGroup.destination_profile_id);
    const uint32_t count = known_type_count();

    if (is_all_alertgroup_types_set(&wanted)) {
        if (is_all_alertgroup_types_set(old_set)) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s : I/P is ALL, old value is ALL -- NO CHANGE \n",
                           __func__);
            return SNMP_ERR_NOERROR;
        }
        callhome_trace(CALLHOME_TRACE_INFO, "%s : I/P is ALL, old value is not ALL \n", __func__);
        for (uint32_t i = 0; i < count; ++i) {
            if (bitset_is_bit_set(old_set, alertgroup_types[i].index)) {
                send_alertgroup(DELETE_REQ, profile, alertgroup_types[i].grp_name);
            }
        }
        send_alertgroup(SET_REQ, profile, "all");
    } else if (is_all_alertgroup_types_set(old_set)) {
        if (!is_all_alertgroup_types_reset(&wanted)) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s :OLD value is ALL -- return Badvalue \n",
                           __func__);
            return SNMP_ERR_WRONGVALUE;
        }
        send_alertgroup(DELETE_REQ, profile, "all");
    } else {
        for (uint32_t i = 0; i < count; ++i) {
            uint32_t bit = alertgroup_types[i].index;
            bool was = bitset_is_bit_set(old_set, bit) != 0;
            bool now = bitset_is_bit_set(&wanted, bit) != 0;
            if (was && !now) {
                send_alertgroup(DELETE_REQ, profile, alertgroup_types[i].grp_name);
            } else if (!was && now) {
                send_alertgroup(SET_REQ, profile, alertgroup_types[i].grp_name);
            }
        }
    }
    return SNMP_ERR_NOERROR;
}

} /* extern "C" */

/* ---- Notifications of added and removed types ------------------------------------------- */

namespace {

/* root.1.1.25.1.2: the alert-group type name column, the one binding of both notifications. */
constexpr oid kTypeNameColumn[] = {1, 1, 25, 1, 2};
constexpr oid kTypeAddedNotif[] = {0, 2};
constexpr oid kTypeDeletedNotif[] = {0, 3};
constexpr size_t kNotifOidLen = CALLHOME_MIB_ROOT_LEN + 2;
constexpr size_t kBindingOidLen = CALLHOME_MIB_ROOT_LEN + 5 + 1;
static_assert(kNotifOidLen == 11 && kBindingOidLen == 15, "notification OID lengths");

struct NotifKind {
    const oid *suffix;
    const char *received;
    const char *sending;
};

constexpr NotifKind kAdded = {kTypeAddedNotif, "%s : Revd alertgroup type added notification \n",
                              "%s : Sending alertgroup_type added Notification \n"};
constexpr NotifKind kDeleted = {kTypeDeletedNotif,
                                "%s : Revd alertgroup type deleted notification \n",
                                "%s : Sending alertgroup_type deleted Notification \n"};

/* Both notifications carry the type's index and name and become one binding: the name under
 * the type-name column. The type list itself is refreshed on the next profile read. */
netsnmp_variable_list *alertgroup_notification(const char *fn, const NotifKind &kind,
                                               mts_msg_t *msg, oid *notif_oid,
                                               size_t *notif_oid_len, int *send) {
    int ignored = 0;
    if (send == nullptr) {
        send = &ignored;
    }
    *send = 0;
    callhome_trace(CALLHOME_TRACE_INFO, kind.received, fn);
    if (msg == nullptr) {
        callhome_trace(CALLHOME_TRACE_ERROR, "%s : Revd notification Msg is null \n", fn);
        return nullptr;
    }
    const auto *payload = static_cast<const unsigned char *>(mts_payload_get(msg));
    if (payload == nullptr) {
        callhome_trace(CALLHOME_TRACE_ERROR, "%s : Revd notification data is null \n", fn);
        return nullptr;
    }
    if (notif_oid == nullptr || notif_oid_len == nullptr) {
        return nullptr;
    }

    /* A big-endian index, then the NUL-terminated name; the platform guarantees at least 8
     * readable bytes and a terminating NUL. */
    uint32_t index_be = 0;
    std::memcpy(&index_be, payload, sizeof index_be);
    const uint32_t index = ntohl(index_be);
    const char *name = reinterpret_cast<const char *>(payload + sizeof index_be);
    callhome_trace(CALLHOME_TRACE_INFO, "%s : alertgroup index : %d , name : %s ", fn,
                   static_cast<int>(index), name);

    oid binding[kBindingOidLen];
    std::copy(callhome_mib_variables_oid, callhome_mib_variables_oid + CALLHOME_MIB_ROOT_LEN,
              binding);
    std::copy(std::begin(kTypeNameColumn), std::end(kTypeNameColumn),
              binding + CALLHOME_MIB_ROOT_LEN);
    binding[kBindingOidLen - 1] = index;

    /* net-snmp 5.9 has no build_varbind; this is its equivalent. */
    netsnmp_variable_list *vars = nullptr;
    if (snmp_varlist_add_variable(&vars, binding, kBindingOidLen, ASN_OCTET_STR, name,
                                  std::strlen(name)) == nullptr) {
        snmp_free_varbind(vars);
        return nullptr;
    }

    std::copy(callhome_mib_variables_oid, callhome_mib_variables_oid + CALLHOME_MIB_ROOT_LEN,
              notif_oid);
    notif_oid[CALLHOME_MIB_ROOT_LEN] = kind.suffix[0];
    notif_oid[CALLHOME_MIB_ROOT_LEN + 1] = kind.suffix[1];
    *notif_oid_len = kNotifOidLen;
    *send = 1;
    callhome_trace(CALLHOME_TRACE_INFO, kind.sending, fn);
    return vars;
}

} // namespace

extern "C" {

netsnmp_variable_list *handle_alertgroup_added_notif(mts_msg_t *msg, oid *notif_oid,
                                                     size_t *notif_oid_len, int *send) {
    return alertgroup_notification(__func__, kAdded, msg, notif_oid, notif_oid_len, send);
}

netsnmp_variable_list *handle_alertgroup_deleted_notif(mts_msg_t *msg, oid *notif_oid,
                                                       size_t *notif_oid_len, int *send) {
    return alertgroup_notification(__func__, kDeleted, msg, notif_oid, notif_oid_len, send);
}

} /* extern "C" */
