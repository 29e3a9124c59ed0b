/*
 * Table reads: GET and GETNEXT on the destination profile, destination e-mail address,
 * alert-group type and user-defined command tables, and the gathering of a profile's alert
 * groups into its bit set.
 *
 * The module keeps no copy of any table. Each read decodes the row index from the request's
 * OID (instance function), asks the call-home service for that row or the next one (header
 * function), writes the OID of the row found back into the request and returns a pointer
 * into a module-wide record that stays valid until the next read of the same table.
 */
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "bitset.h"
#include "callhome_mib.h"
#include "snmp_ctx.h"
#include "veld.h"

extern "C" {

/* Static read copies. Aligned so that the 32-bit columns handed to the agent are aligned. */
alignas(4) callHomeDestProfileEntry_t callHomeDestProfileEntry;
alignas(4) callHomeDestEmailAddressEntry_t callHomeDestEmailAddressEntry;
alignas(4) callHomeAlertGroupEntry_t callHomeAlertGroupEntry;
alignas(4) mibAlertGroup_t mibAlertGroup;
alignas(4) callhome_alertgroup_type_t alertgroup_type;
alignas(4) callHomeUserDefCliCmdEntry_t callHomeUserDefCliCmdEntry;

} /* extern "C" */

namespace {

constexpr int kReadWait = 4;
constexpr size_t kMaxNameChars = CALLHOME_PROFILE_ID_LEN - 1; /* 31 */
constexpr oid kMaxUserCmdIndex = CALLHOME_MAX_USER_CMDS;      /* 5 */

/* Values that are not fields of a record. */
int32_t profile_msg_level;
u_char profile_alertgroups[8];

/* ---- Request channel ------------------------------------------------------------------ */

int table_request(int opcode, int msg_type, const void *request, uint32_t length,
                  CmiAnswer &answer) {
    return callhome_read(opcode, msg_type, request, length, CALLHOME_CLIENT_TABLE, kReadWait,
                         &answer);
}

/* Copies the answer over `size` bytes of dst and frees it. */
void take_answer(void *dst, size_t size, CmiAnswer &answer) {
    answer.copy_to(dst, size);
    answer.release();
}

const char *type_text(int msg_type) {
    return msg_type == GET_REQ ? "GET" : "GETNEXT";
}

/* ---- Distribution and message types --------------------------------------------------- */

struct Distribution {
    int enabled = 0;
    int show_run_mode = 0;
};

Distribution distribution_state() {
    Distribution d;
    d.enabled = is_veld_enabled("callhome");
    d.show_run_mode = get_veld_show_run_mode("callhome");
    return d;
}

/* Row reads of the profile, e-mail and command tables. A read for a SET fetches the current
 * row and so is always a distribution GET; other reads use the distribution variants only in
 * show-run mode 0. */
int row_read_type(const char *fn, int exact, int get_for_set, Distribution d) {
    const int plain = exact ? GET_REQ : GETNEXT_REQ;
    if (!d.enabled) {
        return plain;
    }
    if (get_for_set) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s get_for_set msg_type = VELD_GET_REQ \n", fn);
        return VELD_GET_REQ;
    }
    if (d.show_run_mode != 0) {
        return plain;
    }
    if (exact) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s msg_type = VELD_GET_REQ \n", fn);
        return VELD_GET_REQ;
    }
    callhome_trace(CALLHOME_TRACE_INFO, "%s msg_type = VELD_GETNEXT_REQ \n", fn);
    return VELD_GETNEXT_REQ;
}

/* Alert-group reads keep their direction for a SET too: the membership is walked with
 * GETNEXT whoever asks. */
int membership_read_type(const char *fn, int exact, int get_for_set, Distribution d) {
    if (!d.enabled || (!get_for_set && d.show_run_mode != 0)) {
        return exact ? GET_REQ : GETNEXT_REQ;
    }
    if (exact) {
        callhome_trace(CALLHOME_TRACE_INFO,
                       get_for_set ? "%s get_for_set msg_type = VELD_GET_REQ \n"
                                   : "%s msg_type = VELD_GET_REQ \n",
                       fn);
        return VELD_GET_REQ;
    }
    callhome_trace(CALLHOME_TRACE_INFO,
                   get_for_set ? "%s get_for_set msg_type = VELD_GETNEXT_REQ \n"
                               : "%s msg_type = VELD_GETNEXT_REQ \n",
                   fn);
    return VELD_GETNEXT_REQ;
}

/* Sends a row read; a distribution GET issued for a SET that the service asks to repeat is
 * sent once more as a plain GET. msg_type is left as last sent. */
int send_row_read(const char *fn, int opcode, int &msg_type, int get_for_set, const void *request,
                  uint32_t length, CmiAnswer &answer) {
    int status = table_request(opcode, msg_type, request, length, answer);
    if (msg_type == VELD_GET_REQ && get_for_set && status == CALLHOME_ERR_VELD_RESEND) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s Re-sending with GET_REQ \n", fn);
        msg_type = GET_REQ;
        status = table_request(opcode, msg_type, request, length, answer);
    }
    return status;
}

/* Sends the row read of `row` (host order) and, when the service answers with a row, puts
 * that row in its place; `row` is in host order again after, whatever the answer. */
template <class Row>
bool read_row(const char *fn, int opcode, int &msg_type, int get_for_set, Row *row,
              void (*swap)(Row *), int *status) {
    swap(row);
    CmiAnswer answer;
    *status = send_row_read(fn, opcode, msg_type, get_for_set, row, sizeof *row, answer);
    const bool found = *status == 0 && answer.record != nullptr;
    if (found) {
        answer.copy_to(row, sizeof *row);
    }
    answer.release();
    swap(row); /* the swap is its own inverse */
    return found;
}

/* A column's value as the agent takes it: `size` bytes at `field`, or a text up to its NUL. */
u_char *column_value(void *field, size_t size, size_t *var_len) {
    *var_len = size;
    return static_cast<u_char *>(field);
}
template <size_t N> u_char *text_column(char (&field)[N], size_t *var_len) {
    return column_value(field, strnlen(field, N), var_len);
}

/* The value of a column of the address or command table, which have one text column and the
 * RowStatus; `rc` is the header function's answer. */
template <class Entry, size_t N>
u_char *text_or_status(const struct variable *vp, int rc, WriteMethod **write_method,
                       size_t *var_len, Entry &entry, u_char text_magic, char (Entry::*text)[N],
                       u_char status_magic) {
    set_table_set_methods(vp->magic, write_method);
    if (rc != 0) {
        return nullptr;
    }
    if (vp->magic == text_magic) {
        return text_column(entry.*text, var_len);
    }
    if (vp->magic == status_magic) {
        return column_value(&entry.row_status, sizeof entry.row_status, var_len);
    }
    snmp_set_detail("");
    return nullptr;
}

/* ---- OIDs ------------------------------------------------------------------------------ */

/* Arcs a row index may add after its column: a text index is a length arc and up to 31
 * characters; the e-mail table adds its integer index. */
constexpr size_t kTextIndexArcs = 1 + kMaxNameChars;

bool column_fits(size_t vp_namelen, size_t index_arcs) {
    return vp_namelen <= MAX_OID_LEN - index_arcs;
}

bool prefix_matches(const oid *vp_name, size_t vp_namelen, const oid *name, size_t length) {
    return length >= vp_namelen && snmp_oid_compare(name, vp_namelen, vp_name, vp_namelen) == 0;
}

/* A row OID under construction: the column, then index arcs. HeaderStart checks that the
 * largest index of the table fits before building one. */
struct RowOid {
    oid arcs[MAX_OID_LEN];
    size_t len = 0;

    RowOid(const oid *column, size_t column_len) : len(column_len) {
        std::memcpy(arcs, column, column_len * sizeof(oid));
    }
    void add(oid arc) { arcs[len++] = arc; }
    /* A text index: its length, then one arc per character. */
    void add_text(const char *text) {
        const size_t n = strnlen(text, kMaxNameChars);
        add(n);
        string_to_oid(text, arcs, static_cast<int>(len), static_cast<int>(n));
        len += n;
    }
    void store(oid *name, size_t *length) const {
        std::memcpy(name, arcs, len * sizeof(oid));
        *length = len;
    }
};

/* How every header function starts. The distribution state is read first, before anything
 * can fail: the platform sees that call at the start of every table read. Then the column
 * the row OIDs are built on; `fits` is false when the table's largest index (`index_arcs`)
 * would not fit after it, and the header answers -1 (the column is then left empty). */
struct HeaderStart {
    Distribution dist = distribution_state();
    bool fits;
    RowOid column;

    HeaderStart(const oid *vp_name, size_t vp_namelen, size_t index_arcs)
        : fits(column_fits(vp_namelen, index_arcs)), column(vp_name, fits ? vp_namelen : 0) {}
};

/* ---- Index decoding -------------------------------------------------------------------- */

/* GETNEXT key of a text index after the length arc at name[vp_namelen]: at most 31
 * characters. Characters the request leaves out become 0xFF, so that the service answers
 * the first row after every name that starts with the characters given. key holds 32 bytes. */
void next_text_key(const oid *name, size_t length, size_t vp_namelen, char *key) {
    const size_t n = std::min<oid>(name[vp_namelen], kMaxNameChars);
    const size_t given = std::min(n, length - vp_namelen - 1);
    oid_to_string(name, key, static_cast<int>(vp_namelen + 1), static_cast<int>(given));
    std::memset(key + given, 0xFF, n - given);
    key[n] = '\0';
}

} // namespace

extern "C" {

/* ---- Destination profile table --------------------------------------------------------- */

int get_callHomeDestProfileEntry_instance(oid *vp_name, size_t vp_namelen, oid *name,
                                          size_t *length, int exact,
                                          callHomeDestProfileEntry_t *entry) {
    std::memset(entry, 0, sizeof *entry);
    callhome_trace(CALLHOME_TRACE_INFO, "%s : exact : %d , *len = %d , vp_nlen = %d \n", __func__,
                   exact, static_cast<int>(*length), static_cast<int>(vp_namelen));
    char *key = entry->destination_profile_id;

    if (!exact) {
        if (*length > vp_namelen && prefix_matches(vp_name, vp_namelen, name, *length)) {
            next_text_key(name, *length, vp_namelen, key);
        }
        return 0;
    }

    if (*length <= vp_namelen) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : return match -failed \n", __func__);
        return -1;
    }
    const oid n = name[vp_namelen];
    if (n != *length - vp_namelen - 1) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : else return match -failed \n", __func__);
        return -1;
    }
    const size_t count = std::min<oid>(n, kMaxNameChars);
    oid_to_string(name, key, static_cast<int>(vp_namelen + 1), static_cast<int>(count));
    callhome_trace(CALLHOME_TRACE_INFO, "%s : len of id : %d \n", __func__,
                   static_cast<int>(count));
    if (key[0] == '\0') {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : id not set - return match failed \n", __func__);
        return -1;
    }
    return 0;
}

int header_callHomeDestProfileEntry(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                    int exact, callHomeDestProfileEntry_t *entry, int get_for_set) {
    const HeaderStart start(vp_name, vp_namelen, kTextIndexArcs);
    if (!start.fits) {
        return -1;
    }

    int rc = get_callHomeDestProfileEntry_instance(vp_name, vp_namelen, name, length, exact, entry);
    if (rc != 0) {
        return rc;
    }

    int msg_type = row_read_type(__func__, exact, get_for_set, start.dist);
    callhome_trace(CALLHOME_TRACE_INFO, "%s : Sending %s req for destination_profile_id = %s\n",
                   __func__, type_text(msg_type), entry->destination_profile_id);

    entry->request_flag = 0;
    int status = 0;
    if (read_row(__func__, CALLHOME_DEST_PROFILE_OPC, msg_type, get_for_set, entry,
                 callHomeDestProfileEntry_hton, &status)) {
        callhome_terminate(entry->destination_profile_id);
        callhome_trace(CALLHOME_TRACE_INFO,
                       "%s : Revd rsp for %s req : destination_profile_id = %s, transport_method "
                       "= %d, format_method = %d, maximum_message_size = %d row_status = %d\n",
                       __func__, type_text(msg_type), entry->destination_profile_id,
                       entry->transport_method, entry->format_method,
                       static_cast<int>(entry->maximum_message_size), entry->row_status);
        RowOid row = start.column;
        row.add_text(entry->destination_profile_id);
        row.store(name, length);
        return 0;
    }

    /* Also for a success without a record: the trace is written and 0 returned, with the
     * key left in the record and the request's OID untouched. */
    callhome_trace(
        CALLHOME_TRACE_ERROR, "%s : Req  %s failed for for destination_profile_id = %s: %s\n",
        __func__, type_text(msg_type), entry->destination_profile_id, callhome_status_text(status));
    return status;
}

} /* extern "C" */

namespace {

/* The profile columns that are 32-bit fields of the record, as the agent reads them (the
 * level and the alert groups are computed). */
struct ProfileField {
    u_char magic;
    size_t offset;
};
constexpr ProfileField kProfileFields[] = {
    {CALLHOMEDESTPROFILEMSGFORMAT, offsetof(callHomeDestProfileEntry_t, format_method)},
    {CALLHOMEDESTPROFILEMAXMSGSIZE, offsetof(callHomeDestProfileEntry_t, maximum_message_size)},
    {CALLHOMEDESTPROFILETRNSPRTMTHD, offsetof(callHomeDestProfileEntry_t, transport_method)},
    {CALLHOMEDESTPROFILESTATUS, offsetof(callHomeDestProfileEntry_t, row_status)},
};

} // namespace

extern "C" {

u_char *get_callHomeDestProfileTable(struct variable *vp, oid *name, size_t *length, int exact,
                                     size_t *var_len, WriteMethod **write_method) {
    if (vp->magic == CALLHOMEALERTGROUPS) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : GET req for DestProfile AlertGroups \n",
                       __func__);
        const int rc = header_callhome_alertgroups(vp->name, vp->namelen, name, length, exact,
                                                   &mibAlertGroup, 0);
        set_table_set_methods(vp->magic, write_method);
        if (rc != 0) {
            return nullptr;
        }
        std::memcpy(profile_alertgroups, mibAlertGroup.bitset, sizeof profile_alertgroups);
        return column_value(profile_alertgroups, sizeof profile_alertgroups, var_len);
    }

    const int rc = header_callHomeDestProfileEntry(vp->name, vp->namelen, name, length, exact,
                                                   &callHomeDestProfileEntry, 0);
    set_table_set_methods(vp->magic, write_method);
    if (rc != 0) {
        return nullptr;
    }

    auto *record = reinterpret_cast<u_char *>(&callHomeDestProfileEntry);
    for (const ProfileField &field : kProfileFields) {
        if (field.magic == vp->magic) {
            return column_value(record + field.offset, sizeof(int32_t), var_len);
        }
    }
    if (vp->magic == CALLHOMEDESTPROFILEMSGLEVEL) {
        /* The service stores the level one lower than the MIB shows it. */
        profile_msg_level = callHomeDestProfileEntry.msg_level + 1;
        return column_value(&profile_msg_level, sizeof profile_msg_level, var_len);
    }
    snmp_set_detail("");
    return nullptr;
}

/* ---- Destination e-mail address table -------------------------------------------------- */

int get_callHomeDestEmailAddressEntry_instance(oid *vp_name, size_t vp_namelen, oid *name,
                                               size_t *length, int exact,
                                               callHomeDestEmailAddressEntry_t *entry) {
    std::memset(entry, 0, sizeof *entry);

    if (!exact) {
        if (*length <= vp_namelen || !prefix_matches(vp_name, vp_namelen, name, *length)) {
            return 0;
        }
        char *key = entry->destination_profile_id;
        const size_t n = std::min<oid>(name[vp_namelen], kMaxNameChars);
        const size_t after_column = *length - vp_namelen; /* the length arc included */
        if (after_column == n + 2) {
            oid_to_string(name, key, static_cast<int>(vp_namelen + 1), static_cast<int>(n));
            entry->index = static_cast<int32_t>(name[vp_namelen + 1 + n]);
        } else if (after_column <= n + 1) {
            /* Unlike the profile table, the last character given is dropped as well: the walk
             * goes on from the row after the shorter name. */
            const size_t given = after_column - 1;
            oid_to_string(name, key, static_cast<int>(vp_namelen + 1), static_cast<int>(given));
            if (n > 0) {
                const size_t from = given > 0 ? given - 1 : 0;
                std::memset(key + from, 0xFF, n - from);
                key[n - 1] = '\0';
            }
        }
        /* More arcs than the name calls for: the key stays empty and the walk restarts. */
        return 0;
    }

    if (*length <= vp_namelen) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : return match -failed \n", __func__);
        return -1;
    }
    const oid n = name[vp_namelen];
    const size_t after_column = *length - vp_namelen;
    if (after_column < 2 || n != after_column - 2) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : else return match-failed \n", __func__);
        return -1;
    }
    /* A GET copies the whole name, starting at the profile-id field and running on into the
     * following fields, and the service receives the record as it stands. The copy stops
     * one byte short of the record's end so that the terminator stays inside the record. */
    auto *key = reinterpret_cast<char *>(entry);
    const size_t count = std::min<oid>(n, sizeof *entry - 1);
    oid_to_string(name, key, static_cast<int>(vp_namelen + 1), static_cast<int>(count));
    entry->index = static_cast<int32_t>(name[vp_namelen + 1 + n]);
    if (key[0] == '\0' || entry->index == 0) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : return match -failed \n", __func__);
        return -1;
    }
    return 0;
}

int header_callHomeDestEmailAddressEntry(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                         int exact, callHomeDestEmailAddressEntry_t *entry,
                                         int get_for_set) {
    const HeaderStart start(vp_name, vp_namelen, kTextIndexArcs + 1);
    if (!start.fits) {
        return -1;
    }

    int rc =
        get_callHomeDestEmailAddressEntry_instance(vp_name, vp_namelen, name, length, exact, entry);
    if (rc != 0) {
        return rc;
    }

    int msg_type = row_read_type(__func__, exact, get_for_set, start.dist);
    callhome_trace(CALLHOME_TRACE_INFO,
                   "%s : Sending %s req for destination_profile_id = %s, index = %d\n", __func__,
                   type_text(msg_type), entry->destination_profile_id, entry->index);

    entry->commit_flag = 0;
    int status = 0;
    if (read_row(__func__, CALLHOME_DEST_EMAIL_OPC, msg_type, get_for_set, entry,
                 callHomeDestEmailAddressEntry_hton, &status)) {
        callhome_terminate(entry->destination_profile_id);
        callhome_terminate(entry->email_addr);
        callhome_trace(CALLHOME_TRACE_INFO,
                       "%s : Revd  resp for %s req : destination_profile_id = %s, index = %d "
                       "email_addr = %s, row_status = %d\n",
                       __func__, type_text(msg_type), entry->destination_profile_id, entry->index,
                       entry->email_addr, entry->row_status);
        RowOid row = start.column;
        row.add_text(entry->destination_profile_id);
        row.add(static_cast<oid>(static_cast<uint32_t>(entry->index)));
        row.store(name, length);
        return 0;
    }

    callhome_trace(CALLHOME_TRACE_ERROR,
                   "%s : Req  %s failed for destination_profile_id = %s, index = %d: %s\n",
                   __func__, type_text(msg_type), entry->destination_profile_id, entry->index,
                   callhome_status_text(status));
    return status;
}

u_char *get_callHomeDestEmailAddressTable(struct variable *vp, oid *name, size_t *length, int exact,
                                          size_t *var_len, WriteMethod **write_method) {
    const int rc = header_callHomeDestEmailAddressEntry(vp->name, vp->namelen, name, length, exact,
                                                        &callHomeDestEmailAddressEntry, 0);
    return text_or_status(vp, rc, write_method, var_len, callHomeDestEmailAddressEntry,
                          CALLHOMEDESTEMAILADDRESS, &callHomeDestEmailAddressEntry_t::email_addr,
                          CALLHOMEDESTEMAILADDRESSSTATUS);
}

/* ---- A profile's alert groups ---------------------------------------------------------- */

int get_callhome_alertgroups_instance(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                      int exact, callHomeAlertGroupEntry_t *record,
                                      int get_for_set) {
    const Distribution dist = distribution_state();
    std::memset(record, 0, sizeof *record);
    callHomeDestProfileEntry_t profile{};
    const char *user = get_snmp_username(0);
    callhome_trace(CALLHOME_TRACE_INFO, "%s : *length = %d , vp_namelen  = %d , logname_len = %d\n",
                   __func__, static_cast<int>(*length), static_cast<int>(vp_namelen),
                   static_cast<int>(user != nullptr ? std::strlen(user) : 0));

    char *key = profile.destination_profile_id;
    if (*length > vp_namelen) {
        if (!exact) {
            if (prefix_matches(vp_name, vp_namelen, name, *length)) {
                next_text_key(name, *length, vp_namelen, key);
            }
        } else {
            const oid n = name[vp_namelen];
            if (n == *length - vp_namelen - 1) {
                /* A longer name cannot be a profile; it is cut to the field as the profile
                 * table's GET cuts it. */
                const size_t count = std::min<oid>(n, kMaxNameChars);
                oid_to_string(name, key, static_cast<int>(vp_namelen + 1), static_cast<int>(count));
            }
        }
    }

    if (exact && key[0] == '\0') {
        callhome_trace(CALLHOME_TRACE_ERROR, "%s : destination_profile_id  not set \n", __func__);
        return SNMP_ERR_INCONSISTENTVALUE;
    }
    int msg_type = membership_read_type(__func__, exact, get_for_set, dist);

    profile.request_flag = 0;
    callHomeDestProfileEntry_hton(&profile);
    CmiAnswer answer;
    int status =
        table_request(CALLHOME_DEST_PROFILE_OPC, msg_type, &profile, sizeof profile, answer);
    if (get_for_set && status == CALLHOME_ERR_VELD_RESEND) {
        if (msg_type == VELD_GET_REQ) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s Re-sending with GET_REQ \n", __func__);
            msg_type = GET_REQ;
            status = table_request(CALLHOME_DEST_PROFILE_OPC, msg_type, &profile, sizeof profile,
                                   answer);
        } else if (msg_type == VELD_GETNEXT_REQ) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s Re-sending with GETNEXT_REQ \n", __func__);
            msg_type = GETNEXT_REQ;
            status = table_request(CALLHOME_DEST_PROFILE_OPC, msg_type, &profile, sizeof profile,
                                   answer);
        }
    }

    if (status == 0 && answer.record != nullptr) {
        take_answer(&profile, sizeof profile, answer);
        callHomeDestProfileEntry_ntoh(&profile);
        callhome_terminate(profile.destination_profile_id);
        callhome_trace(CALLHOME_TRACE_INFO,
                       "%s : Revd GET/GETNEXT  rsp form DestProfileTable : destination_profile_id "
                       "= %s\n",
                       __func__, profile.destination_profile_id);
        callhome_copy_text(record->destination_profile_id, profile.destination_profile_id);
        return 0;
    }

    answer.release();
    callHomeDestProfileEntry_ntoh(&profile);
    callhome_trace(CALLHOME_TRACE_ERROR,
                   "%s : Req  %s failed for for destination_profile_id = %s: %s\n", __func__,
                   "GETNEXT", profile.destination_profile_id, callhome_status_text(status));
    /* A success without a record found no profile either. */
    return status != 0 ? status : -1;
}

int header_callhome_alertgroups(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                int exact, mibAlertGroup_t *summary, int get_for_set) {
    const HeaderStart start(vp_name, vp_namelen, kTextIndexArcs);
    if (!start.fits) {
        return -1;
    }
    callHomeAlertGroupEntry_t &record = callHomeAlertGroupEntry;

    const int rc = get_callhome_alertgroups_instance(vp_name, vp_namelen, name, length, exact,
                                                     &record, get_for_set);
    if (rc != 0) {
        return rc;
    }

    /* The service keeps one row per (profile, group): walk them one by one. */
    int msg_type = membership_read_type(__func__, 0, get_for_set, start.dist);

    callhome_copy_text(summary->destination_profile_id, record.destination_profile_id);
    summary->bitset_size = sizeof summary->bitset;
    bitset_clear(&summary->bitset_size);
    record.word = 0;
    get_all_alertgroup_types();

    const auto store_row = [&] {
        RowOid row = start.column;
        row.add_text(record.destination_profile_id);
        row.store(name, length);
    };

    CmiAnswer answer;
    int status = 0;
    for (;;) {
        callhome_trace(CALLHOME_TRACE_INFO,
                       "%s : Sending GETNEXT_REQ for destination_profile_id = %s ", __func__,
                       record.destination_profile_id);
        record.request_flag = 0;
        callHomeAlertGroupEntry_t wire = record;
        callHomeAlertGroupEntry_hton(&wire);
        status =
            table_request(CALLHOME_PROFILE_ALERTGROUP_OPC, msg_type, &wire, sizeof wire, answer);
        if (get_for_set && msg_type == VELD_GETNEXT_REQ && status == CALLHOME_ERR_VELD_RESEND) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s Re-sending with GETNext_REQ \n", __func__);
            msg_type = GETNEXT_REQ;
            status = table_request(CALLHOME_PROFILE_ALERTGROUP_OPC, msg_type, &wire, sizeof wire,
                                   answer);
        }
        if (status == CALLHOME_END_OF_TABLE) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s : Reached END_OF_TABLE \n", __func__);
            store_row();
            return 0;
        }
        if (status != 0 || answer.record == nullptr) {
            break;
        }

        callHomeAlertGroupEntry_t next;
        take_answer(&next, sizeof next, answer);
        callHomeAlertGroupEntry_ntoh(&next);
        callhome_terminate(next.destination_profile_id);
        callhome_terminate(next.alert_group);
        if (record.destination_profile_id[0] != '\0' &&
            std::strcmp(next.destination_profile_id, record.destination_profile_id) != 0) {
            /* Another profile's row: this profile's groups are all gathered. */
            store_row();
            return 0;
        }

        record = next;
        callhome_trace(CALLHOME_TRACE_INFO,
                       "%s : Revd  resp for %s req : destination_profile_id = %s, alert_group = "
                       "%s, row_status = %d\n",
                       __func__, type_text(msg_type), record.destination_profile_id,
                       record.alert_group, record.row_status);
        callhome_trace(CALLHOME_TRACE_INFO, "%s : Setting the alertgroups to : %s ", __func__,
                       record.alert_group);
        set_mib_var_alertgroup(&summary->bitset_size, record.alert_group);
        store_row();
    }

    answer.release();
    callhome_trace(CALLHOME_TRACE_ERROR,
                   "%s : Req  %s failed for destination_profile_id = %s, : %s\n", __func__,
                   "GETNEXT", record.destination_profile_id, callhome_status_text(status));
    /* A success without a record is a failure of the walk, not a row. */
    return status != 0 ? status : -1;
}

/* ---- Alert-group type table ------------------------------------------------------------ */

int get_callHomeAlertGroupType_instance(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                        int exact, callhome_alertgroup_type_t *record) {
    std::memset(record, 0, sizeof *record);
    callhome_trace(CALLHOME_TRACE_INFO, "%s : *length = %d , vp_namelen  = %d\n", __func__,
                   static_cast<int>(*length), static_cast<int>(vp_namelen));
    if (exact) {
        if (*length != vp_namelen + 1) {
            return -1;
        }
    } else if (*length <= vp_namelen || !prefix_matches(vp_name, vp_namelen, name, *length)) {
        return 0;
    }
    /* Index 0 is a valid key for a GET. */
    record->index = static_cast<uint32_t>(name[vp_namelen]);
    return 0;
}

int header_callHomeAlertGroupType(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                  int exact, callhome_alertgroup_type_t *record) {
    /* The distribution state is read here too, though this table has no distribution variants. */
    const HeaderStart start(vp_name, vp_namelen, 1);
    if (!start.fits) {
        return -1;
    }

    const int rc =
        get_callHomeAlertGroupType_instance(vp_name, vp_namelen, name, length, exact, record);
    if (rc != 0) {
        return rc;
    }

    callhome_trace(CALLHOME_TRACE_INFO, "%s : Sending GETNEXT_REQ for type_index = %d ", __func__,
                   static_cast<int>(record->index));
    int msg_type = exact ? GET_REQ : GETNEXT_REQ;
    int status = 0;
    if (read_row(__func__, CALLHOME_ALERTGROUP_TYPE_OPC, msg_type, 0, record,
                 callhome_alertgroup_type_hton, &status)) {
        callhome_terminate(record->grp_name);
        callhome_trace(CALLHOME_TRACE_INFO,
                       "%s : Revd  resp for %s req : index = %d, grp_name = %s \n", __func__,
                       "GETNEXT", static_cast<int>(record->index), record->grp_name);
        RowOid row = start.column;
        row.add(record->index);
        row.store(name, length);
        return 0;
    }

    callhome_trace(CALLHOME_TRACE_ERROR, "%s : Req  GET/GETNEXT failed for type_index = %d, : %s\n",
                   __func__, static_cast<int>(record->index), callhome_status_text(status));
    return status != 0 ? status : -1;
}

u_char *get_callHomeAlertGroupTypeTable(struct variable *vp, oid *name, size_t *length, int exact,
                                        size_t *var_len, WriteMethod ** /*read-only*/) {
    if (header_callHomeAlertGroupType(vp->name, vp->namelen, name, length, exact,
                                      &alertgroup_type) != 0) {
        return nullptr;
    }
    if (vp->magic != CALLHOMEALERTGROUPTYPENAME) {
        snmp_set_detail("");
        return nullptr;
    }
    return text_column(alertgroup_type.grp_name, var_len);
}

/* ---- User-defined command table -------------------------------------------------------- */

int get_callHomeUserDefCliCmd_instance(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                       int exact, callHomeUserDefCliCmdEntry_t *row) {
    std::memset(row, 0, sizeof *row);
    callhome_alertgroup_type_t type{};
    int msg_type = GET_REQ;
    callhome_trace(CALLHOME_TRACE_INFO, "%s : exact : %d , *len = %d , vp_nlen = %d \n", __func__,
                   exact, static_cast<int>(*length), static_cast<int>(vp_namelen));

    oid type_index = 0;
    oid cmd_index = 0;
    if (exact) {
        if (*length <= vp_namelen) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s : return match -failed \n", __func__);
            return -1;
        }
        if (*length != vp_namelen + 2) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s : else return match -failed \n", __func__);
            return -1;
        }
        type_index = name[vp_namelen];
        cmd_index = name[vp_namelen + 1];
        if (cmd_index > kMaxUserCmdIndex) {
            return -1;
        }
    } else {
        if (*length > vp_namelen && prefix_matches(vp_name, vp_namelen, name, *length)) {
            type_index = name[vp_namelen];
            cmd_index = *length > vp_namelen + 1 ? name[vp_namelen + 1] : 0;
        }
        /* Two separate rules: type 0 asks for the first type, and index 5 has no command
         * after it, so the walk goes on at the next type from its start (also from (0, 5)). */
        if (type_index == 0) {
            msg_type = GETNEXT_REQ;
        }
        if (cmd_index == kMaxUserCmdIndex) {
            cmd_index = 0;
            msg_type = GETNEXT_REQ;
        }
    }
    row->alertgroup_type = static_cast<int32_t>(type_index);
    row->index = static_cast<int32_t>(cmd_index);
    type.index = static_cast<uint32_t>(type_index);

    callhome_alertgroup_type_t wire = type;
    callhome_alertgroup_type_hton(&wire);
    CmiAnswer answer;
    const int status =
        table_request(CALLHOME_ALERTGROUP_TYPE_OPC, msg_type, &wire, sizeof wire, answer);

    if (status == 0 && answer.record != nullptr) {
        take_answer(&type, sizeof type, answer);
        callhome_alertgroup_type_ntoh(&type);
        callhome_terminate(type.grp_name);
        row->alertgroup_type = static_cast<int32_t>(type.index);
        callhome_trace(CALLHOME_TRACE_INFO,
                       "Revd resp for alertgroup type GET Req: index = %d, grp_name = %s \n",
                       static_cast<int>(type.index), type.grp_name);
        callhome_copy_text(row->alertgroup_name, type.grp_name);
        return 0;
    }

    answer.release();
    callhome_trace(CALLHOME_TRACE_ERROR,
                   "GET/GETNEXT req failed for alertgroup type_index = %d, : %s\n",
                   static_cast<int>(type.index), callhome_status_text(status));
    return status != 0 ? status : -1;
}

int header_callHomeUserDefCliCmdEntry(oid *vp_name, size_t vp_namelen, oid *name, size_t *length,
                                      int exact, callHomeUserDefCliCmdEntry_t *row,
                                      int get_for_set) {
    const HeaderStart start(vp_name, vp_namelen, 2);
    if (!start.fits) {
        return -1;
    }
    cmi_userdef_cli_cmd_t request;
    std::memset(&request, 0, sizeof request);

    const int rc =
        get_callHomeUserDefCliCmd_instance(vp_name, vp_namelen, name, length, exact, row);
    if (rc != 0) {
        return rc;
    }

    int msg_type = row_read_type(__func__, exact, get_for_set, start.dist);
    callhome_trace(CALLHOME_TRACE_INFO, "%s : Sending %s req for alertgroup = %s, index = %d \n",
                   __func__, type_text(msg_type), row->alertgroup_name, row->index);

    request.index = row->index;
    callhome_copy_text(request.alertgroup_type, row->alertgroup_name);
    request.request_flag = 0;
    int status = 0;
    const bool found = read_row(__func__, CALLHOME_USER_DEF_CMD_OPC, msg_type, get_for_set,
                                &request, cmi_userdef_cli_cmd_hton, &status);
    if (found) {
        callhome_terminate(request.alertgroup_type);
        callhome_terminate(request.cli_cmd);
        callhome_trace(
            CALLHOME_TRACE_INFO,
            "%s : Revd rsp for %s req alertgroup_type = %s, cli_cmd = %s, row_status = %d",
            __func__, type_text(msg_type), request.alertgroup_type, request.cli_cmd,
            request.row_status);
        callhome_copy_text(row->cli_cmd, request.cli_cmd);
        row->row_status = request.row_status;
        row->index = request.index;
        if (!exact && std::strcmp(request.alertgroup_type, row->alertgroup_name) != 0) {
            /* The service went on to another type: the MIB indexes by the type's number.
             * A type the registry does not know keeps the old number. */
            const int type_index = get_alertgroup_type_index(0, request.alertgroup_type);
            if (type_index != -1) {
                row->alertgroup_type = type_index;
                callhome_copy_text(row->alertgroup_name, request.alertgroup_type);
            }
        }
    }

    /* The OID names the indexes tried even when the request failed. */
    RowOid row_oid = start.column;
    row_oid.add(static_cast<uint32_t>(row->alertgroup_type));
    row_oid.add(static_cast<uint32_t>(row->index));
    row_oid.store(name, length);

    if (found) {
        return 0;
    }
    callhome_trace(CALLHOME_TRACE_ERROR, "%s : Req  %s failed for for indices = %s , %d : %s\n",
                   __func__, type_text(msg_type), row->alertgroup_name, row->index,
                   callhome_status_text(status));
    return status != 0 ? status : -1;
}

u_char *get_callHomeUserDefCmdTable(struct variable *vp, oid *name, size_t *length, int exact,
                                    size_t *var_len, WriteMethod **write_method) {
    std::memset(&callHomeUserDefCliCmdEntry, 0, sizeof callHomeUserDefCliCmdEntry);
    callhome_trace(CALLHOME_TRACE_INFO, "%s : GET req for %d \n", __func__, vp->magic);
    const int rc = header_callHomeUserDefCliCmdEntry(vp->name, vp->namelen, name, length, exact,
                                                     &callHomeUserDefCliCmdEntry, 0);
    return text_or_status(vp, rc, write_method, var_len, callHomeUserDefCliCmdEntry,
                          CALLHOMEUSERDEFCLICMD, &callHomeUserDefCliCmdEntry_t::cli_cmd,
                          CALLHOMEUSERDEFCLICMDSTATUS);
}

} /* extern "C" */
