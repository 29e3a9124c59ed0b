/*
 * Table writes: the RowStatus row-write machine of the destination profile, destination
 * e-mail address and user-defined command tables, the column write handlers of those tables,
 * and the writes of a profile's alert groups.
 *
 * One row travels through a SET request like this. RESERVE1 of the RowStatus column puts a
 * row being created (createAndGo) into the table's row list, or a copy of an existing row
 * into the table's undo list; RESERVE2 of the other columns fills in the listed row; ACTION
 * of the RowStatus column sends the whole row; COMMIT, FREE or UNDO of the same variable empty
 * both lists again. The lists hold heap records; whoever takes one out frees it.
 */
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "callhome_mib.h"

#include <net-snmp/library/snmp-tc.h>

#include "bitset.h"
#include "snmp_ctx.h"
#include "syserr.h"

namespace {

/* Arcs up to and including the column number: the nine-arc root, then 1.1.12.1.c, 1.1.14.1.c
 * or 1.1.30.6.1.c. */
constexpr size_t kProfilePrefixLen = 14;
constexpr size_t kEmailPrefixLen = 14;
constexpr size_t kUserCmdPrefixLen = 15;

constexpr uint32_t kMaxMessageSizeLimit = 1000000;
constexpr uint32_t kDefaultFullMessageSize = 500000; /* formats 1 and 2 */
constexpr uint32_t kDefaultShortMessageSize = 4000;  /* format 3 */

bool has_edge_space(const char *text, size_t len) {
    return len > 0 && (text[0] == ' ' || text[len - 1] == ' ');
}

bool is_builtin_profile(const char *name) {
    return std::strcmp(name, "xml") == 0 || std::strcmp(name, "full_txt") == 0 ||
           std::strcmp(name, "short_txt") == 0;
}

const char *msg_type_text(int msg_type) {
    return msg_type == SET_REQ ? "SET" : "DELETE";
}

/* ---- Index containers ---------------------------------------------------------------- */

template <class Row> Row *find_row(indxobj_t *list, const Row &key) {
    return list == nullptr ? nullptr : static_cast<Row *>(indxobj_find(list, &key));
}

template <class Row> Row *take_row(indxobj_t *list, const Row &key) {
    return list == nullptr ? nullptr : static_cast<Row *>(indxobj_remove(list, &key));
}

template <class Row> void drop_row(indxobj_t *list, const Row &key) {
    free(take_row(list, key));
}

/* The row is keyed by itself; on success the container owns it. */
template <class Row> bool add_row(indxobj_t *list, Row *row) {
    return list != nullptr && indxobj_add(list, row, row) == 0;
}

/* ---- What the RowStatus machine traces ------------------------------------------------- */

/* One trace line: its text (null: nothing is traced at that step) and its level. */
struct Trace {
    const char *text = nullptr;
    int level = CALLHOME_TRACE_INFO;
};

/* Every line the RowStatus machine of one table traces. The texts, spelling included, are
 * what operators and their tools know from this module: keep them as they are. Lines about a
 * row get the handler's name and the table's row fields (Table::trace_row); the others the
 * handler's name alone. A line with a text here is the one most tables trace; {} traces none. */
struct RowStatusTexts {
    Trace phase[UNDO + 1]; /* first line of each phase */
    Trace wrong_type;
    Trace wrong_length;
    Trace bad_value = {"%s : RESERVE1 - inconsistent value \n"};
    Trace row_exists = {"%s : RESERVE1 -- inconsistent value \n"};
    Trace undo_malloc_failed;
    Trace undo_added;      /* row */
    Trace undo_add_failed; /* row */
    Trace malloc_failed = {"%s : Malloc for entry failed\n", CALLHOME_TRACE_ERROR};
    Trace added;      /* row */
    Trace add_failed; /* row */
    Trace reserve1_done = {"%s : RESERVE1 -- done \n"};
    Trace reserve2_done = {"%s : RESERVE2 -- done \n"};
    Trace action_unknown = {"%s : ACTION -- get REQ ret code is UNKNOWN ENTRY \n"};
    Trace action_new_row;
    Trace retrieved; /* row */
    Trace before_undo_remove;
    Trace before_list_remove;
};

constexpr int kError = CALLHOME_TRACE_ERROR;

void trace(const Trace &t, const char *fn) {
    if (t.text != nullptr) {
        callhome_trace(t.level, t.text, fn);
    }
}

/* ACTION's re-read of the row failed otherwise than with "unknown entry": the service's
 * text goes to the manager. */
int report_read_failure(const char *fn, int status) {
    callhome_trace(CALLHOME_TRACE_INFO,
                   "%s : ACTION -- get REQ retcode is not CALLHOME_UNKNOWN ENTRY \n", fn);
    callhome_report_error(status);
    return to_snmp_error_code(status);
}

/* ---- Destination profile table ------------------------------------------------------- */

using ProfileRow = callHomeDestProfileEntry_t;

int parse_profile(const oid *name, size_t name_len, ProfileRow *row) {
    callhome_oid_copy o;
    callhome_copy_oid(name, name_len, &o);
    return get_callHomeDestProfileEntry_instance(o.arcs, kProfilePrefixLen, o.arcs, &o.len, 1, row);
}

/* The header leaves the name terminated, whether it found the row or not. */
int read_profile(const oid *name, size_t name_len, ProfileRow *row) {
    callhome_oid_copy o;
    callhome_copy_oid(name, name_len, &o);
    return header_callHomeDestProfileEntry(o.arcs, kProfilePrefixLen, o.arcs, &o.len, 1, row, 1);
}

/* Number of name characters the OID's index announces, as far as the key field holds them. */
size_t profile_index_len(const oid *name, size_t name_len, size_t field_len) {
    if (name_len <= kProfilePrefixLen) {
        return 0;
    }
    return std::min<size_t>(name[kProfilePrefixLen], field_len);
}

/* A table's part in the RowStatus machine: its containers and row functions, the texts it
 * traces, and the hooks where the tables really differ (see row_status_write). */
struct ProfileTable {
    using Row = ProfileRow;
    static indxobj_t *list() { return callHomeDestProfileEntry_list; }
    static indxobj_t *undo_list() { return callHomeDestProfileEntry_undo_list; }
    static int parse(const oid *name, size_t name_len, Row *row) {
        return parse_profile(name, name_len, row);
    }
    static int read_for_set(const oid *name, size_t name_len, Row *row) {
        return read_profile(name, name_len, row);
    }
    /* The row as the read handler found it. */
    static void undo_copy(Row &copy, const oid *, size_t) { copy = callHomeDestProfileEntry; }
    static void trace_row(const Trace &t, const char *fn, const Row &row) {
        callhome_trace(t.level, t.text, fn, row.destination_profile_id);
    }

    static constexpr RowStatusTexts kTexts = {
        .phase = {{}, {}, {}, {}, {"%s : In FREE:\n"}, {}},
        .wrong_type = {"%s : RESERVE1 - callHomeDestProfileStatus not ASN_INTEGER \n"},
        .wrong_length = {"%s : RESERVE1 - callHomeDestProfileStatus: bad length \n"},
        .undo_malloc_failed = {},
        .undo_added = {"%s : RESERVE1 -- index object undo list added \n"},
        .undo_add_failed = {"%s : RESERVE1 -- index object undo list add failed \n"},
        .added = {"%s : Added entry (profile = %s ) to callHomeDestProfileEntry_list\n"},
        .add_failed = {"%s : Adding to entry (profile = %s )to callHomeDestProfileEntry_list "
                       "failed\n",
                       kError},
        .action_new_row = {"%s : ACTION -- setting default value \n"},
        .retrieved = {"%s : Retrieve  entry (profile = %s ),from callHomeDestProfileEntry_list\n"},
        .before_undo_remove = {},
        .before_list_remove = {},
    };

    /* Defaults, index and the name rules of a row about to be created. */
    static int prepare_new_row(const char *fn, Row *row, const oid *name, size_t name_len) {
        callHomeDestProfileEntry_defaults(row);
        if (parse(name, name_len, row) != 0) {
            callhome_trace(CALLHOME_TRACE_INFO,
                           "%s : RESERVE1 - dest profile_id not set properly \n", fn);
            return SNMP_ERR_INCONSISTENTVALUE;
        }
        callHomeDestProfileEntry_defaults(row);
        size_t len = profile_index_len(name, name_len, sizeof row->destination_profile_id - 1);
        if (has_edge_space(row->destination_profile_id, len)) {
            callhome_trace(CALLHOME_TRACE_INFO,
                           "%s : leading/trailing space is not allowed in SnmpAdminString type\n",
                           fn);
            callhome_report_error(CALLHOME_ERR_BAD_PROFILE_NAME);
            return SNMP_ERR_GENERR;
        }
        if (is_builtin_profile(row->destination_profile_id)) {
            callhome_trace(CALLHOME_TRACE_INFO,
                           "%s : RESERVE1 -- Can't create entry for xml/full-txt/short-txt \n", fn);
            callhome_report_error(CALLHOME_ERR_BAD_PROFILE_NAME);
            return SNMP_ERR_GENERR;
        }
        return SNMP_ERR_NOERROR;
    }

    /* The built-in profiles can't be destroyed. */
    static int check_destroy(const char *fn, const oid *name, size_t name_len) {
        Row key{};
        if (parse(name, name_len, &key) != 0) {
            callhome_trace(CALLHOME_TRACE_INFO,
                           "%s : RESERVE1 -- destination profile_id not set \n", fn);
            return SNMP_ERR_INCONSISTENTVALUE;
        }
        if (is_builtin_profile(key.destination_profile_id)) {
            callhome_trace(CALLHOME_TRACE_INFO,
                           "%s : RESERVE1 -- Can't delete entry for xml/full-txt/short-txt \n", fn);
            callhome_report_error(CALLHOME_ERR_BUILTIN_PROFILE);
            return SNMP_ERR_GENERR;
        }
        return SNMP_ERR_NOERROR;
    }

    static constexpr auto read_failed = report_read_failure;
    /* A row created without a size gets the default size of its format. */
    static int complete_new_row(const char *fn, Row &row, bool) {
        if (row.maximum_message_size == 0) {
            callhome_trace(CALLHOME_TRACE_INFO,
                           "%s : max msg size not set for entry (profile = %s) set the default "
                           "value \n",
                           fn, row.destination_profile_id);
            if (row.format_method == 1 || row.format_method == 2) {
                row.maximum_message_size = kDefaultFullMessageSize;
            } else if (row.format_method == 3) {
                row.maximum_message_size = kDefaultShortMessageSize;
            }
        }
        return SNMP_ERR_NOERROR;
    }

    static int send(int msg_type, Row row) {
        row.request_flag = 0;
        callHomeDestProfileEntry_hton(&row);
        return callhome_write(CALLHOME_DEST_PROFILE_OPC, msg_type, &row, sizeof row,
                              CALLHOME_CLIENT_TABLE, CALLHOME_WRITE_WAIT);
    }
    static int send_action(const char *fn, int msg_type, const Row &row) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : ACTION -- sending SET REQ \n", fn);
        int status = send(msg_type, row);
        if (status == 0) {
            return SNMP_ERR_NOERROR;
        }
        callhome_trace(CALLHOME_TRACE_INFO, "%s : ACTION -- SET REQ failed \n", fn);
        callhome_log_set_error(status);
        return to_snmp_error_code(status);
    }
    /* The service's answer is of no use here: UNDO can't fail. */
    static void send_undo(const char *fn, int msg_type, const Row &row) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : UNDO -- sending SET REQ \n", fn);
        send(msg_type, row);
    }
};

/* ---- Destination e-mail address table ------------------------------------------------ */

using EmailRow = callHomeDestEmailAddressEntry_t;

/* The e-mail index may announce a name longer than its field; the key then runs on into the
 * address field, so the whole text area is the bound. */
constexpr size_t kEmailKeyArea =
    sizeof(EmailRow::destination_profile_id) + sizeof(EmailRow::email_addr);

struct EmailTable {
    using Row = EmailRow;
    static indxobj_t *list() { return callHomeDestEmailAddressEntry_list; }
    static indxobj_t *undo_list() { return callHomeDestEmailAddressEntry_undo_list; }
    static int parse(const oid *name, size_t name_len, Row *row) {
        callhome_oid_copy o;
        callhome_copy_oid(name, name_len, &o);
        return get_callHomeDestEmailAddressEntry_instance(o.arcs, kEmailPrefixLen, o.arcs, &o.len,
                                                          1, row);
    }
    /* A key longer than the name field runs on into the address; a failed read leaves it
     * there, so the address is terminated here. */
    static int read_for_set(const oid *name, size_t name_len, Row *row) {
        callhome_oid_copy o;
        callhome_copy_oid(name, name_len, &o);
        int status = header_callHomeDestEmailAddressEntry(o.arcs, kEmailPrefixLen, o.arcs, &o.len,
                                                          1, row, 1);
        callhome_terminate(row->email_addr);
        return status;
    }
    static void undo_copy(Row &copy, const oid *, size_t) {
        copy = callHomeDestEmailAddressEntry;
        callhome_terminate(copy.email_addr);
    }
    static void trace_row(const Trace &t, const char *fn, const Row &row) {
        callhome_trace(t.level, t.text, fn, row.destination_profile_id, row.index);
    }

    /* No "done" lines and no destroy check in this table. */
    static constexpr RowStatusTexts kTexts = {
        .phase = {{"%s : In RESERVE1:\n"},
                  {"%s : In RESERVE2:\n"},
                  {"%s : In ACTION\n"},
                  {"%s : In COMMIT\n"},
                  {"%s : In FREE:\n"},
                  {"%s : In UNDO\n"}},
        .wrong_type = {"%s : callHomeDestEmailAddressStatus not ASN_INTEGER\n", kError},
        .wrong_length = {"%s : callHomeDestEmailAddressStatus - bad length \n", kError},
        .bad_value = {},
        .row_exists = {"%s : Create failed : entry exists\n", kError},
        .undo_malloc_failed = {"%s : Malloc for entry failed\n", kError},
        .undo_added = {"%s : Added entry (profile = %s,  index= %d) to "
                       "callHomeDestEmailAddressEntry_undo_list\n"},
        .undo_add_failed = {"%s : Adding to entry (profile = %s,  index= %d)to "
                            "callHomeDestEmailAddressEntry_undo_list failed\n",
                            kError},
        .added = {"%s : Added entry (profile = %s,  index= %d) to "
                  "callHomeDestEmailAddressEntry_list\n"},
        .add_failed = {"%s : Adding to entry (profile = %s,  index= %d)to "
                       "callHomeDestEmailAddressEntry_list failed\n",
                       kError},
        .reserve1_done = {},
        .reserve2_done = {},
        .action_unknown = {},
        .action_new_row = {},
        .retrieved = {"%s : Retrieve  entry (profile = %s,\tindex= %d) from "
                      "callHomeDestEmailAddressEntry_list\n"},
        .before_undo_remove = {},
        .before_list_remove = {},
    };

    static int prepare_new_row(const char *fn, Row *row, const oid *name, size_t name_len) {
        callHomeDestEmailAddressEntry_defaults(row);
        if (parse(name, name_len, row) != 0) {
            return SNMP_ERR_INCONSISTENTVALUE;
        }
        size_t len = profile_index_len(name, name_len, kEmailKeyArea - 1);
        if (has_edge_space(row->destination_profile_id, len)) {
            callhome_trace(CALLHOME_TRACE_INFO,
                           "%s : leading/trailing space is not allowed in SnmpAdminString type\n",
                           fn);
            callhome_report_error(CALLHOME_ERR_BAD_PROFILE_NAME);
            return SNMP_ERR_GENERR;
        }
        row->commit_flag = 0;
        row->email_addr[0] = '\0';
        return SNMP_ERR_NOERROR;
    }
    /* Anything but createAndGo is settled in RESERVE1 by the undo copy alone. */
    static int check_destroy(const char *, const oid *, size_t) { return SNMP_ERR_NOERROR; }

    static int read_failed(const char *, int status) {
        callhome_log_set_error(status);
        return to_snmp_error_code(status);
    }
    /* An address row means nothing without its address. */
    static int complete_new_row(const char *fn, Row &row, bool) {
        if (row.email_addr[0] == '\0') {
            callhome_trace(CALLHOME_TRACE_INFO,
                           "%s : Email Address not set for entry (profile = %s,index= %d) "
                           "Returning SNMP_ERR_INCONSISTENTVALUE\n",
                           fn, row.destination_profile_id, row.index);
            return SNMP_ERR_INCONSISTENTVALUE;
        }
        return SNMP_ERR_NOERROR;
    }

    static int send(int msg_type, Row row) {
        row.commit_flag = 0;
        callHomeDestEmailAddressEntry_hton(&row);
        return callhome_write(CALLHOME_DEST_EMAIL_OPC, msg_type, &row, sizeof row,
                              CALLHOME_CLIENT_TABLE, CALLHOME_WRITE_WAIT);
    }
    static int send_action(const char *fn, int msg_type, const Row &row) {
        const char *what = msg_type_text(msg_type);
        callhome_trace(CALLHOME_TRACE_INFO,
                       "%s : Sending  req %s with : destination_profile_id = %s, index = %d "
                       "email_addr = %s, row_status = %d commit_flag = %d \n",
                       fn, what, row.destination_profile_id, row.index, row.email_addr,
                       row.row_status, row.commit_flag);
        int status = send(msg_type, row);
        if (status == 0) {
            callhome_trace(CALLHOME_TRACE_INFO,
                           "%s :  req %s with : destination_profile_id = %s, index = %d "
                           "SUCCEEDED \n",
                           fn, what, row.destination_profile_id, row.index);
            return SNMP_ERR_NOERROR;
        }
        callhome_trace(CALLHOME_TRACE_INFO,
                       "%s :  req %s with : destination_profile_id = %s, index = %d failed : %s \n",
                       fn, what, row.destination_profile_id, row.index,
                       callhome_status_text(status));
        callhome_log_set_error(status);
        return to_snmp_error_code(status);
    }
    static void send_undo(const char *fn, int msg_type, const Row &row) {
        const char *what = msg_type_text(msg_type);
        callhome_trace(CALLHOME_TRACE_INFO,
                       "%s : Sending  req %s for UNDO : destination_profile_id = %s, index = %d "
                       "email_addr = %s, row_status = %d\n",
                       fn, what, row.destination_profile_id, row.index, row.email_addr,
                       row.row_status);
        int status = send(msg_type, row);
        if (status != 0) {
            callhome_trace(CALLHOME_TRACE_INFO,
                           "%s :  req %s for UNDO : destination_profile_id = %s, index = %d "
                           "failed : %s \n",
                           fn, what, row.destination_profile_id, row.index,
                           callhome_status_text(status));
        }
    }
};

/* ---- User-defined command table ------------------------------------------------------ */

using UserCmdRow = callHomeUserDefCliCmdEntry_t;

/* Whatever row the service answered with, a write goes to the row the OID names. */
void own_user_cmd_key(UserCmdRow &row, const oid *name, size_t name_len) {
    if (name_len == kUserCmdPrefixLen + 2) {
        row.alertgroup_type = static_cast<int32_t>(name[kUserCmdPrefixLen]);
        row.index = static_cast<int32_t>(name[kUserCmdPrefixLen + 1]);
    }
}

struct UserCmdTable {
    using Row = UserCmdRow;
    static indxobj_t *list() { return callHomeUserDefCliCmd_list; }
    static indxobj_t *undo_list() { return callHomeUserDefCliCmd_undo_list; }
    static int parse(const oid *name, size_t name_len, Row *row) {
        callhome_oid_copy o;
        callhome_copy_oid(name, name_len, &o);
        return get_callHomeUserDefCliCmd_instance(o.arcs, kUserCmdPrefixLen, o.arcs, &o.len, 1,
                                                  row);
    }
    /* The header leaves both text fields terminated, whether it found the row or not. */
    static int read_for_set(const oid *name, size_t name_len, Row *row) {
        callhome_oid_copy o;
        callhome_copy_oid(name, name_len, &o);
        int status =
            header_callHomeUserDefCliCmdEntry(o.arcs, kUserCmdPrefixLen, o.arcs, &o.len, 1, row, 1);
        own_user_cmd_key(*row, name, name_len);
        return status;
    }
    static void undo_copy(Row &copy, const oid *name, size_t name_len) {
        copy = callHomeUserDefCliCmdEntry;
        own_user_cmd_key(copy, name, name_len);
    }
    static void trace_row(const Trace &t, const char *fn, const Row &row) {
        callhome_trace(t.level, t.text, fn, row.alertgroup_type, row.index);
    }

    /* The list's name is spelt three ways in these lines. */
    static constexpr RowStatusTexts kTexts = {
        .phase =
            {{}, {}, {}, {"%s : From Commit \n"}, {"%s : In FREE:\n"}, {"%s : from UNDO -- \n"}},
        .wrong_type = {"%s : RESERVE1 - callHomeUsrDefCmdStatus not ASN_INTEGER\n"},
        .wrong_length = {"%s : RESERVE1 - callHomeUsrDefCmdStatus: bad length\n"},
        .undo_malloc_failed = {},
        .undo_added = {"%s : RESERVE1 -- index object undo list added\n"},
        .undo_add_failed = {"%s : RESERVE1 -- index object undo list add failed\n"},
        .added = {"%s : Added entry (index = %d, %d ) to callHomeUserDefCliCmd_list\n"},
        .add_failed = {"%s : Adding to entry (index = %d, %d )to callHomeUsrDefCliCmd_list "
                       "failed\n",
                       kError},
        .action_new_row = {},
        .retrieved = {"%s : Retrieve  entry (id = %d,%d ),from callHomeUsrDefCmd_list\n"},
        .before_undo_remove = {"%s : before indx_obj undo_list remove \n"},
        .before_list_remove = {"%s : before indx_obj list remove \n"},
    };

    /* No defaults, no name rules and no reserved rows here: only the index. */
    static int prepare_new_row(const char *fn, Row *row, const oid *name, size_t name_len) {
        if (parse(name, name_len, row) != 0) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s : RESERVE1 - indices not set properly\n", fn);
            return SNMP_ERR_INCONSISTENTVALUE;
        }
        return SNMP_ERR_NOERROR;
    }
    static int check_destroy(const char *fn, const oid *name, size_t name_len) {
        Row key{};
        if (parse(name, name_len, &key) != 0) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s : RESERVE1 -- indices not set properly\n", fn);
            return SNMP_ERR_INCONSISTENTVALUE;
        }
        return SNMP_ERR_NOERROR;
    }

    static constexpr auto read_failed = report_read_failure;
    /* A command row is created only together with its command. */
    static int complete_new_row(const char *fn, Row &row, bool listed) {
        if (!listed || row.cli_cmd[0] == '\0') {
            callhome_trace(CALLHOME_TRACE_INFO, "%s : user_def_cmd NOT set \n", fn);
            return SNMP_ERR_INCONSISTENTVALUE;
        }
        return SNMP_ERR_NOERROR;
    }

    /* The service indexes commands by the type's name, so every request is rebuilt in its
     * own layout. */
    static int send(int msg_type, const Row &row) {
        cmi_userdef_cli_cmd_t request;
        std::memset(&request, 0, sizeof request);
        request.index = row.index;
        callhome_copy_text(request.alertgroup_type, row.alertgroup_name);
        request.row_status = row.row_status;
        callhome_copy_text(request.cli_cmd, row.cli_cmd);
        request.request_flag = 0;
        cmi_userdef_cli_cmd_hton(&request);
        return callhome_write(CALLHOME_USER_DEF_CMD_OPC, msg_type, &request, sizeof request,
                              CALLHOME_CLIENT_TABLE, CALLHOME_WRITE_WAIT);
    }
    static int send_action(const char *fn, int msg_type, Row row) {
        callhome_trace(CALLHOME_TRACE_INFO, "%s : ACTION - sending SET/delete REQ \n", fn);
        int status = send(msg_type, row);
        if (status == 0) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s : ACTION -- SET/DELETE REQ succeded\n", fn);
            return SNMP_ERR_NOERROR;
        }
        callhome_trace(CALLHOME_TRACE_INFO, "%s : ACTION -- SET/Delete REQ failed \n", fn);
        callhome_log_set_error(status);
        return to_snmp_error_code(status);
    }
    static void send_undo(const char *fn, int msg_type, Row row) {
        if (msg_type == SET_REQ) {
            callhome_trace(CALLHOME_TRACE_INFO, "%s : UNDO -- sending SET REQ \n", fn);
        }
        send(msg_type, row);
    }
};

/* ---- The RowStatus row-write machine --------------------------------------------------- */

/* Keeps a copy of the row as the read handler found it, for UNDO. */
template <class T> int keep_undo_copy(const char *fn, const oid *name, size_t name_len) {
    using Row = typename T::Row;
    auto *copy = static_cast<Row *>(malloc(sizeof(Row)));
    if (copy == nullptr) {
        trace(T::kTexts.undo_malloc_failed, fn);
        callhome_report_error(CALLHOME_ERR_NO_MEMORY);
        return SNMP_ERR_GENERR;
    }
    T::undo_copy(*copy, name, name_len);
    if (!add_row(T::undo_list(), copy)) {
        T::trace_row(T::kTexts.undo_add_failed, fn, *copy);
        free(copy);
        callhome_report_error(CALLHOME_ERR_INDEX_ADD);
        return SNMP_ERR_GENERR;
    }
    T::trace_row(T::kTexts.undo_added, fn, *copy);
    return SNMP_ERR_NOERROR;
}

/* Puts the row that a createAndGo brings into being into the row list. */
template <class T> int list_new_row(const char *fn, const oid *name, size_t name_len) {
    using Row = typename T::Row;
    auto *row = static_cast<Row *>(calloc(1, sizeof(Row)));
    if (row == nullptr) {
        trace(T::kTexts.malloc_failed, fn);
        callhome_report_error(CALLHOME_ERR_NO_MEMORY);
        return SNMP_ERR_GENERR;
    }
    int rc = T::prepare_new_row(fn, row, name, name_len);
    if (rc != SNMP_ERR_NOERROR) {
        free(row);
        return rc;
    }
    if (!add_row(T::list(), row)) {
        T::trace_row(T::kTexts.add_failed, fn, *row);
        free(row);
        callhome_report_error(CALLHOME_ERR_INDEX_ADD);
        return SNMP_ERR_GENERR;
    }
    T::trace_row(T::kTexts.added, fn, *row);
    return SNMP_ERR_NOERROR;
}

template <class T>
int row_status_reserve1(const char *fn, const u_char *var_val, u_char var_val_type,
                        size_t var_val_len, const u_char *statP, const oid *name, size_t name_len) {
    if (var_val_type != ASN_INTEGER) {
        trace(T::kTexts.wrong_type, fn);
        return SNMP_ERR_WRONGTYPE;
    }
    if (!callhome_integer_length_ok(var_val_len)) {
        trace(T::kTexts.wrong_length, fn);
        return SNMP_ERR_WRONGLENGTH;
    }
    /* Rows are only ever created whole: createAndWait and the states it leads to are
     * refused, so later phases see active, createAndGo and destroy only. */
    long value = callhome_integer_value(var_val, var_val_len);
    if (value != RS_ACTIVE && value != RS_CREATEANDGO && value != RS_DESTROY) {
        trace(T::kTexts.bad_value, fn);
        return SNMP_ERR_INCONSISTENTVALUE;
    }
    /* So a createAndGo never has an undo copy of its own. */
    bool exists = statP != nullptr;
    if (value == RS_CREATEANDGO && exists) {
        trace(T::kTexts.row_exists, fn);
        return SNMP_ERR_INCONSISTENTVALUE;
    }
    if (exists) {
        int rc = keep_undo_copy<T>(fn, name, name_len);
        if (rc != SNMP_ERR_NOERROR) {
            return rc;
        }
    }
    if (value == RS_CREATEANDGO) {
        int rc = list_new_row<T>(fn, name, name_len);
        if (rc != SNMP_ERR_NOERROR) {
            return rc;
        }
    } else if (value == RS_DESTROY) {
        int rc = T::check_destroy(fn, name, name_len);
        if (rc != SNMP_ERR_NOERROR) {
            return rc;
        }
    }
    trace(T::kTexts.reserve1_done, fn);
    return SNMP_ERR_NOERROR;
}

/* Reads the row from the service and sends what the requested state makes of it. */
template <class T>
int row_status_action(const char *fn, long value, const oid *name, size_t name_len) {
    using Row = typename T::Row;
    Row row;
    std::memset(&row, 0, sizeof row);
    int status = T::read_for_set(name, name_len, &row);
    int msg_type;
    if (status == CALLHOME_UNKNOWN_ENTRY) {
        trace(T::kTexts.action_unknown, fn);
        if (value == RS_ACTIVE) {
            return SNMP_ERR_INCONSISTENTVALUE;
        }
        if (value == RS_DESTROY) {
            return SNMP_ERR_NOERROR; /* nothing to destroy */
        }
        trace(T::kTexts.action_new_row, fn);
        const Row *listed = find_row(T::list(), row);
        if (listed != nullptr) {
            T::trace_row(T::kTexts.retrieved, fn, *listed);
            std::memcpy(&row, listed, sizeof row);
        }
        int rc = T::complete_new_row(fn, row, listed != nullptr);
        if (rc != SNMP_ERR_NOERROR) {
            return rc;
        }
        if (value == RS_CREATEANDGO) {
            row.row_status = RS_ACTIVE;
        }
        msg_type = SET_REQ;
    } else if (status != 0) {
        return T::read_failed(fn, status);
    } else {
        if (value == RS_CREATEANDGO) {
            return SNMP_ERR_INCONSISTENTVALUE; /* the row came into being meanwhile */
        }
        msg_type = value == RS_DESTROY ? DELETE_REQ : SET_REQ;
    }
    return T::send_action(fn, msg_type, row);
}

/* COMMIT and FREE: the request is over, drop what RESERVE1 listed. */
template <class T>
void row_status_release(int action, const char *fn, long value, const oid *name, size_t name_len) {
    using Row = typename T::Row;
    Row key;
    std::memset(&key, 0, sizeof key);
    T::parse(name, name_len, &key);
    if (action == COMMIT) {
        trace(T::kTexts.before_undo_remove, fn);
    }
    drop_row(T::undo_list(), key);
    if (value == RS_CREATEANDGO) {
        if (action == COMMIT) {
            trace(T::kTexts.before_list_remove, fn);
        }
        drop_row(T::list(), key);
    }
}

/* Puts the service back as it was before ACTION: a created row is deleted again, a changed
 * or destroyed row is sent back as it was copied in RESERVE1. */
template <class T>
void row_status_undo(const char *fn, long value, const oid *name, size_t name_len) {
    using Row = typename T::Row;
    Row key;
    std::memset(&key, 0, sizeof key);
    T::parse(name, name_len, &key);
    if (value == RS_CREATEANDGO) {
        T::send_undo(fn, DELETE_REQ, key);
        drop_row(T::list(), key);
        return;
    }
    Row *copy = take_row(T::undo_list(), key);
    if (copy == nullptr) {
        return;
    }
    T::send_undo(fn, SET_REQ, *copy);
    free(copy);
}

/* The RowStatus column of a table, one phase per call. The table's hooks, by phase:
 *   RESERVE1  undo_copy (row exists), prepare_new_row (createAndGo), check_destroy (destroy)
 *   RESERVE2  none: the column handlers fill in a row being created
 *   ACTION    read_for_set, then read_failed, or complete_new_row (createAndGo) and
 *             send_action
 *   COMMIT, FREE  parse, to drop the listed row and the undo copy
 *   UNDO      parse, send_undo (DELETE of a created row, SET of the undo copy)
 * and every phase traces through kTexts and trace_row. */
template <class T>
int row_status_write(const char *fn, int action, u_char *var_val, u_char var_val_type,
                     size_t var_val_len, u_char *statP, const oid *name, size_t name_len) {
    if (action < RESERVE1 || action > UNDO) {
        return SNMP_ERR_NOERROR;
    }
    trace(T::kTexts.phase[action], fn);
    long value = callhome_integer_value(var_val, var_val_len);
    switch (action) {
    case RESERVE1:
        return row_status_reserve1<T>(fn, var_val, var_val_type, var_val_len, statP, name,
                                      name_len);
    case RESERVE2:
        /* Marks the current value as being written; a row being created has none. */
        if (statP != nullptr) {
            *statP = 1;
        }
        trace(T::kTexts.reserve2_done, fn);
        return SNMP_ERR_NOERROR;
    case ACTION:
        return row_status_action<T>(fn, value, name, name_len);
    case COMMIT:
    case FREE:
        row_status_release<T>(action, fn, value, name, name_len);
        return SNMP_ERR_NOERROR;
    default:
        row_status_undo<T>(fn, value, name, name_len);
        return SNMP_ERR_NOERROR;
    }
}

/* ---- Destination profile columns ----------------------------------------------------- */

/* The lines one profile column traces, in the order of its phases. */
struct ProfileColumnTexts {
    const char *wrong_type;
    const char *bad_length;
    const char *wrong_value = "%s : RESERVE1 -- wrong value \n";
    const char *reserve1_done = "%s : RESERVE1 -- done \n";
    const char *reserve2_not_set;
    const char *reserve2_setting;
    const char *reserve2_done = "%s : RESERVE2 -- done \n";
    const char *action_found = nullptr; /* ACTION found the row and modifies it */
    /* Takes the handler's name, then the row's name, transport method, format, size, row
     * status and message level; a text shows the ones it names. */
    const char *sending = nullptr;
};

/* What sets one writable column of the profile table apart from the others. */
struct ProfileColumn {
    u_char asn_type;
    long min;
    long max;
    bool protect_builtin = false; /* the built-in profiles keep this column */
    bool create_only = false;     /* given only with the row's creation: ACTION sends nothing */
    void (*store)(ProfileRow &row, long value);
    ProfileColumnTexts texts;
};

void note(const char *text, const char *fn) {
    callhome_trace(CALLHOME_TRACE_INFO, text, fn);
}

int profile_column_reserve1(const ProfileColumn &c, const char *fn, const u_char *var_val,
                            u_char var_val_type, size_t var_val_len, const oid *name,
                            size_t name_len) {
    if (var_val_type != c.asn_type) {
        note(c.texts.wrong_type, fn);
        return SNMP_ERR_WRONGTYPE;
    }
    if (!callhome_integer_length_ok(var_val_len)) {
        note(c.texts.bad_length, fn);
        return SNMP_ERR_WRONGLENGTH;
    }
    long value = callhome_integer_value(var_val, var_val_len);
    if (c.asn_type == ASN_UNSIGNED) {
        value = static_cast<long>(static_cast<u_long>(value) & 0xFFFFFFFFUL);
    }
    if (value < c.min || value > c.max) {
        note(c.texts.wrong_value, fn);
        return SNMP_ERR_WRONGVALUE;
    }
    if (c.protect_builtin) {
        ProfileRow key{};
        if (parse_profile(name, name_len, &key) != 0) {
            note("%s : RESERVE1 -- destination profile_id not set correctly \n", fn);
            return SNMP_ERR_INCONSISTENTVALUE;
        }
        if (is_builtin_profile(key.destination_profile_id)) {
            note("%s : RESERVE1 - Can't Modify MsgFormat for id xml/full-txt/short-txt \n", fn);
            return SNMP_ERR_NOTWRITABLE;
        }
    }
    note(c.texts.reserve1_done, fn);
    return SNMP_ERR_NOERROR;
}

/* A row being created in this request takes the value now; its creation request carries it. */
int profile_column_reserve2(const ProfileColumn &c, const char *fn, long value, const oid *name,
                            size_t name_len) {
    ProfileRow key{};
    if (parse_profile(name, name_len, &key) != 0) {
        note(c.texts.reserve2_not_set, fn);
        return SNMP_ERR_INCONSISTENTVALUE;
    }
    ProfileRow *listed = find_row(callHomeDestProfileEntry_list, key);
    if (listed == nullptr && c.create_only) {
        note("%s : RESERVE2 -- not writable \n", fn);
        return SNMP_ERR_NOTWRITABLE;
    }
    if (listed != nullptr) {
        note(c.texts.reserve2_setting, fn);
        c.store(*listed, value);
    }
    note(c.texts.reserve2_done, fn);
    return SNMP_ERR_NOERROR;
}

/* An existing row is modified by sending it back whole with the one field changed. A row
 * created in this request is sent once, complete, by the RowStatus column's ACTION (whichever
 * varbind comes first), so it is not sent again here. */
int profile_column_action(const ProfileColumn &c, const char *fn, long value, const oid *name,
                          size_t name_len) {
    ProfileRow row{};
    int status = read_profile(name, name_len, &row);
    if (find_row(callHomeDestProfileEntry_list, row) != nullptr) {
        return SNMP_ERR_NOERROR;
    }
    if (status == CALLHOME_UNKNOWN_ENTRY) {
        return SNMP_ERR_NOSUCHNAME;
    }
    if (status != 0 || c.create_only) {
        return SNMP_ERR_NOERROR;
    }
    note(c.texts.action_found, fn);
    c.store(row, value);
    callhome_trace(CALLHOME_TRACE_INFO, c.texts.sending, fn, row.destination_profile_id,
                   row.transport_method, row.format_method,
                   static_cast<int>(row.maximum_message_size), row.row_status, row.msg_level);
    callHomeDestProfileEntry_hton(&row);
    return setTableObjects(CALLHOME_DEST_PROFILE_OPC, &row, sizeof row);
}

int profile_column_write(const ProfileColumn &c, const char *fn, int action, u_char *var_val,
                         u_char var_val_type, size_t var_val_len, u_char *, const oid *name,
                         size_t name_len) {
    switch (action) {
    case RESERVE1:
        return profile_column_reserve1(c, fn, var_val, var_val_type, var_val_len, name, name_len);
    case RESERVE2:
        return profile_column_reserve2(c, fn, callhome_integer_value(var_val, var_val_len), name,
                                       name_len);
    case ACTION:
        return profile_column_action(c, fn, callhome_integer_value(var_val, var_val_len), name,
                                     name_len);
    default:
        return SNMP_ERR_NOERROR;
    }
}

/* The texts, spelling and odd spacing included, are kept as operators know them. */
const ProfileColumn kMsgFormatColumn = {
    .asn_type = ASN_INTEGER,
    .min = 1,
    .max = 3,
    .protect_builtin = true,
    .store = [](ProfileRow &row, long v) { row.format_method = static_cast<int32_t>(v); },
    .texts = {
        .wrong_type = "%s : RESERVE1 -- type not ASN_INTEGER\n",
        .bad_length = "%s : RESERVE1 -- bad length\n",
        .reserve2_not_set = "%s : RESERVE2 -- dest profile_id not set \n",
        .reserve2_setting = "%s : RESERVE2 -- setting format method \n",
        /* The line of a failed read, written here when the row was found. */
        .action_found = "%s : ACTION -- get REQ retcode is not CALLHOME_UNKNOWN ENTRY \n",
        .sending = "%s : Sending SET req with destination_profile_id = %s,transport_method = "
                   "%d, format_method = %d, maximum_message_size = %d, row_status = %d\n",
    }};

const ProfileColumn kMaxMsgSizeColumn = {
    .asn_type = ASN_UNSIGNED,
    .min = 0,
    .max = kMaxMessageSizeLimit,
    .store = [](ProfileRow &row, long v) { row.maximum_message_size = static_cast<uint32_t>(v); },
    .texts = {
        .wrong_type = "%s : RESERVE1 --write to callHomeDestProfileMaxMsgSize not ASN_UNSIGNED \n",
        .bad_length = "%s : RESERVE1 -- write to callHomeDestProfileMaxMsgSize bad length \n",
        .reserve2_not_set = "%s : RESERVE2 -- destination profile_id not set \n",
        .reserve2_setting = "%s : RESERVE2 -- setting max msg size \n",
        .action_found = "%s : ACTION -- modifying existing ENTRY \n",
        .sending = "%s : Sending SET req with destination_profile_id= %s,transport_method = %d, "
                   "format_method = %d, maximum_message_size = %d, row_status = %d\n",
    }};

/* The service knows one transport method; it is fixed when the row is created. */
const ProfileColumn kTrnsprtMthdColumn = {
    .asn_type = ASN_INTEGER,
    .min = 1,
    .max = 1,
    .create_only = true,
    .store = [](ProfileRow &row, long v) { row.transport_method = static_cast<int32_t>(v); },
    .texts = {
        .wrong_type = "%s : RESERVE1 -- write to callHomeDestProfileTrnsprtMthd not ASN_INTEGER \n",
        .bad_length = "%s : RESERVE1 -- write to callHomeDestProfileTrnsprtMthd: bad length \n",
        .reserve1_done = "%s : RESERVE2 -- done \n", /* RESERVE1's line says RESERVE2 */
        .reserve2_not_set = "%s : RESERVE2 -- destination profile_id not set \n",
        .reserve2_setting = "%s : RESERVE2 -- setting trp method \n",
        .reserve2_done = "%s : RESERVE2 -- done\n",
    }};

/* The service counts message levels from 0; the MIB from 1. */
const ProfileColumn kMsgLevelColumn = {
    .asn_type = ASN_INTEGER,
    .min = 1,
    .max = 10,
    .store = [](ProfileRow &row, long v) { row.msg_level = static_cast<int8_t>(v - 1); },
    .texts = {
        .wrong_type = "%s : RESERVE1 -- not ASN_INTEGER \n",
        .bad_length = "%s : RESERVE1 -- bad length \n",
        .reserve2_not_set = "%s : RESERVE2 -- dest profile_id not set \n",
        .reserve2_setting = "%s : RESERVE2 -- setting msg level \n",
        .action_found = "%s : ACTION -- modifying existing entry \n",
        .sending = "%s : Sending SET req with destination_profile_id= %s,transport_method = %d, "
                   "format_method = %d, maximum_message_size = %d, row_status = %d , msg_level "
                   "= %d\n",
    }};

} // namespace

extern "C" {

/* ---- RowStatus and destination profile columns ----------------------------------------- */

// clang-format off
CALLHOME_DEFINE_WRITER(set_callHomeDestProfileStatus,      row_status_write<ProfileTable>)
CALLHOME_DEFINE_WRITER(set_callHomeDestEmailAddressStatus, row_status_write<EmailTable>)
CALLHOME_DEFINE_WRITER(set_callHomeUserDefCliCmdStatus,    row_status_write<UserCmdTable>)
CALLHOME_DEFINE_WRITER(set_callHomeDestProfileMsgFormat,   profile_column_write, kMsgFormatColumn)
CALLHOME_DEFINE_WRITER(set_callHomeDestProfileMaxMsgSize,  profile_column_write, kMaxMsgSizeColumn)
CALLHOME_DEFINE_WRITER(set_callHomeDestProfileTrnsprtMthd, profile_column_write, kTrnsprtMthdColumn)
CALLHOME_DEFINE_WRITER(set_callHomeDestProfileMsgLevel,    profile_column_write, kMsgLevelColumn)
// clang-format on

/* ---- Destination e-mail address column --------------------------------------------------- */

/* The address is given only in the request that creates its row. */
int set_callHomeDestEmailAddress(int action, u_char *var_val, u_char var_val_type,
                                 size_t var_val_len, u_char *, oid *name, size_t name_len) {
    switch (action) {
    case RESERVE1:
        if (var_val_type != ASN_OCTET_STR) {
            fprintf(stderr, "write to callHomeDestEmailAddress not ASN_OCTET_STR\n");
            return SNMP_ERR_WRONGTYPE;
        }
        if (var_val_len < 1 || var_val_len > sizeof(EmailRow::email_addr) - 1) {
            fprintf(stderr, "write to callHomeDestEmailAddress: bad length\n");
            return SNMP_ERR_WRONGLENGTH;
        }
        if (var_val == nullptr ||
            has_edge_space(reinterpret_cast<const char *>(var_val), var_val_len)) {
            note("%s : leading/trailing space is not allowed in SnmpAdminString type\n", __func__);
            return SNMP_ERR_WRONGVALUE;
        }
        return SNMP_ERR_NOERROR;
    case RESERVE2: {
        EmailRow key{};
        if (EmailTable::parse(name, name_len, &key) != 0) {
            return SNMP_ERR_INCONSISTENTVALUE;
        }
        EmailRow *listed = find_row(callHomeDestEmailAddressEntry_list, key);
        if (listed == nullptr) {
            return SNMP_ERR_INCONSISTENTVALUE;
        }
        callhome_copy_value(listed->email_addr, sizeof listed->email_addr, var_val, var_val_len);
        return SNMP_ERR_NOERROR;
    }
    default:
        return SNMP_ERR_NOERROR;
    }
}

/* ---- User-defined command column --------------------------------------------------------- */

/* The command is given only in the request that creates its row; a new command needs a new
 * row. */
int set_callHomeUserDefCliCmd(int action, u_char *var_val, u_char var_val_type, size_t var_val_len,
                              u_char *, oid *name, size_t name_len) {
    switch (action) {
    case RESERVE1:
        if (var_val_type != ASN_OCTET_STR) {
            note("%s : RESERVE1 -- not ASN_INTEGER \n", __func__);
            return SNMP_ERR_WRONGTYPE;
        }
        if (var_val_len > sizeof(UserCmdRow::cli_cmd) - 1) {
            note("%s : RESERVE1 -- bad length \n", __func__);
            return SNMP_ERR_WRONGLENGTH;
        }
        if (var_val == nullptr) {
            return SNMP_ERR_WRONGVALUE;
        }
        note("%s : RESERVE1 -- done \n", __func__);
        return SNMP_ERR_NOERROR;
    case RESERVE2: {
        UserCmdRow key;
        std::memset(&key, 0, sizeof key);
        if (UserCmdTable::parse(name, name_len, &key) != 0) {
            note("%s : RESERVE2 -- indices not set properly \n", __func__);
            return SNMP_ERR_INCONSISTENTVALUE;
        }
        UserCmdRow *listed = find_row(callHomeUserDefCliCmd_list, key);
        if (listed != nullptr) {
            std::memset(listed->cli_cmd, 0, sizeof listed->cli_cmd);
            callhome_copy_value(listed->cli_cmd, sizeof listed->cli_cmd, var_val, var_val_len);
            note("%s : RESERVE2 -- setting cli_cmd \n", __func__);
        }
        note("%s : RESERVE2 -- done \n", __func__);
        return SNMP_ERR_NOERROR;
    }
    case ACTION: {
        UserCmdRow row;
        std::memset(&row, 0, sizeof row);
        int status = UserCmdTable::read_for_set(name, name_len, &row);
        if (find_row(callHomeUserDefCliCmd_list, row) != nullptr) {
            return SNMP_ERR_NOERROR; /* sent by the RowStatus column's ACTION */
        }
        if (status == CALLHOME_UNKNOWN_ENTRY) {
            return SNMP_ERR_NOSUCHNAME;
        }
        note("%s : Can't modify - done \n", __func__);
        return SNMP_ERR_INCONSISTENTVALUE;
    }
    default:
        return SNMP_ERR_NOERROR;
    }
}

} // extern "C"
