// Table reads against a scripted channel: index decoding, what each read sends to the
// service, and how answers and failures come back to the agent.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "callhome_mib.h"
#include "fake_channel.hpp"
#include "platform/testing.hpp"

namespace {

using callhome_test::be32;
using callhome_test::FakeChannel;
using Arcs = std::vector<oid>;
using Reply = platform::CmiReply;

constexpr uint32_t kTypeListEnd = 0xFFFFFFFFu;

// The variable entry the agent hands to a read handler: the object's full OID.
struct variable column(u_char magic) {
    struct variable vp {};
    for (const auto &v : callhome_mib_variables) {
        if (v.magic == magic) {
            vp.magic = v.magic;
            vp.type = static_cast<char>(v.type);
            vp.acl = v.acl;
            vp.findVar = v.findVar;
            std::copy(callhome_mib_variables_oid, callhome_mib_variables_oid + 9, vp.name);
            std::copy(v.name, v.name + v.namelen, vp.name + 9);
            vp.namelen = static_cast<u_char>(9 + v.namelen);
            return vp;
        }
    }
    ADD_FAILURE() << "no object with magic " << int(magic);
    return vp;
}

Arcs column_arcs(const struct variable &vp) {
    return Arcs(vp.name, vp.name + vp.namelen);
}

Arcs operator+(Arcs a, const Arcs &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A text index: its length, then one arc per character.
Arcs text(const std::string &s) {
    Arcs a{s.size()};
    for (unsigned char c : s) {
        a.push_back(c);
    }
    return a;
}

// The request OID as the agent holds it (room for MAX_OID_LEN arcs).
struct Name {
    oid arcs[MAX_OID_LEN] = {};
    size_t length = 0;
    explicit Name(const Arcs &a) : length(a.size()) { std::copy(a.begin(), a.end(), arcs); }
    Arcs get() const { return Arcs(arcs, arcs + length); }
};

struct Read {
    u_char *value = nullptr;
    size_t var_len = 0;
    WriteMethod *write = nullptr;
};

Read read(struct variable vp, Name &name, int exact) {
    Read r;
    r.value = vp.findVar(&vp, name.arcs, &name.length, exact, &r.var_len, &r.write);
    return r;
}

int32_t int_value(const Read &r) {
    EXPECT_EQ(r.var_len, 4u);
    int32_t v = 0;
    std::memcpy(&v, r.value, sizeof v);
    return v;
}

std::string str_value(const Read &r) {
    return std::string(reinterpret_cast<const char *>(r.value), r.var_len);
}

bool traced(int level, const std::string &text) {
    for (const auto &[l, t] : platform::trace_history()) {
        if (l == level && t == text) {
            return true;
        }
    }
    return false;
}

// ---- wire records as the service sends them (big-endian) ----

callHomeDestProfileEntry_t profile_rec(const std::string &id, int32_t format = 1,
                                       uint32_t max_size = 500000, int32_t status = 1,
                                       int8_t level = 0) {
    callHomeDestProfileEntry_t r{};
    std::strncpy(r.destination_profile_id, id.c_str(), sizeof r.destination_profile_id - 1);
    r.transport_method = int32_t(be32(1));
    r.format_method = int32_t(be32(uint32_t(format)));
    r.maximum_message_size = be32(max_size);
    r.row_status = int32_t(be32(uint32_t(status)));
    r.msg_level = level;
    return r;
}

callHomeDestEmailAddressEntry_t email_rec(const std::string &id, const std::string &addr,
                                          int32_t index) {
    callHomeDestEmailAddressEntry_t r{};
    std::strncpy(r.destination_profile_id, id.c_str(), sizeof r.destination_profile_id - 1);
    std::strncpy(r.email_addr, addr.c_str(), sizeof r.email_addr - 1);
    r.index = int32_t(be32(uint32_t(index)));
    r.row_status = int32_t(be32(1));
    return r;
}

callHomeAlertGroupEntry_t group_rec(const std::string &id, const std::string &group) {
    callHomeAlertGroupEntry_t r{};
    std::strncpy(r.destination_profile_id, id.c_str(), sizeof r.destination_profile_id - 1);
    std::strncpy(r.alert_group, group.c_str(), sizeof r.alert_group - 1);
    r.row_status = int32_t(be32(1));
    return r;
}

callhome_alertgroup_type_t type_rec(uint32_t index, const std::string &name) {
    callhome_alertgroup_type_t r{};
    r.index = be32(index);
    std::strncpy(r.grp_name, name.c_str(), sizeof r.grp_name - 1);
    return r;
}

cmi_userdef_cli_cmd_t cmd_rec(int32_t index, const std::string &type, const std::string &cmd) {
    cmi_userdef_cli_cmd_t r{};
    r.index = int32_t(be32(uint32_t(index)));
    std::strncpy(r.alertgroup_type, type.c_str(), sizeof r.alertgroup_type - 1);
    r.row_status = int32_t(be32(1));
    std::strncpy(r.cli_cmd, cmd.c_str(), sizeof r.cli_cmd - 1);
    return r;
}

template <class Record> Reply record_reply(const Record &r) {
    const auto *p = reinterpret_cast<const uint8_t *>(&r);
    return Reply{0, true, std::vector<uint8_t>(p, p + sizeof r), 0};
}

Reply status_reply(int status) {
    return Reply{status, false, {}, 0};
}

// A scripted service: the alert-group type table answers GET and GETNEXT from a list; the
// other opcodes answer from their queues (end of table when a queue runs dry).
struct Backend {
    std::vector<std::pair<uint32_t, std::string>> types; // increasing indexes
    std::deque<Reply> profiles, groups, emails, commands;

    Reply serve(const platform::CmiRequest &r) {
        switch (r.opcode) {
        case CALLHOME_ALERTGROUP_TYPE_OPC: {
            const uint32_t asked = be32(FakeChannel::as<callhome_alertgroup_type_t>(r).index);
            for (const auto &[index, name] : types) {
                if ((r.msg_type == GET_REQ && index == asked) ||
                    (r.msg_type != GET_REQ && index > asked)) {
                    return record_reply(type_rec(index, name));
                }
            }
            return status_reply(r.msg_type == GET_REQ ? CALLHOME_UNKNOWN_ENTRY
                                                      : CALLHOME_END_OF_TABLE);
        }
        case CALLHOME_DEST_PROFILE_OPC:
            return next(profiles);
        case CALLHOME_PROFILE_ALERTGROUP_OPC:
            return next(groups);
        case CALLHOME_DEST_EMAIL_OPC:
            return next(emails);
        default:
            return next(commands);
        }
    }

    static Reply next(std::deque<Reply> &q) {
        if (q.empty()) {
            return status_reply(CALLHOME_END_OF_TABLE);
        }
        Reply r = q.front();
        q.pop_front();
        return r;
    }
};

class TableReadTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::reset_for_tests();
        platform::set_snmp_context("ops", 4242);
        channel.emplace();
        alertgroup_types[0].index = kTypeListEnd;
        alertgroup_type_count = 0;
    }
    void TearDown() override { channel.reset(); }

    // Answers through the scripted backend.
    void use_backend() {
        channel->serve_with([this](const platform::CmiRequest &r) { return backend.serve(r); });
    }

    std::vector<platform::CmiRequest> requests(int opcode) const {
        std::vector<platform::CmiRequest> out;
        for (const auto &r : channel->requests()) {
            if (r.opcode == opcode) {
                out.push_back(r);
            }
        }
        return out;
    }

    // Checks what every table read passes besides the record.
    static void expect_table_read_call(const platform::CmiRequest &r, size_t record_size) {
        EXPECT_EQ(r.record.size(), record_size);
        EXPECT_TRUE(r.wants_record);
        EXPECT_EQ(r.client, 66);
        EXPECT_EQ(r.wait, 4);
        EXPECT_EQ(r.user, "ops");
        EXPECT_EQ(r.session, 4242u);
        EXPECT_EQ(r.queue, mts_response_q);
    }

    std::optional<FakeChannel> channel;
    Backend backend;
};

// ---- index decoding -------------------------------------------------------------------

struct TextIndexCase {
    const char *what;
    int exact;
    Arcs index;
    int rc;
    std::string key;
    const char *trace; // expected trace (function name prefix added), or null
};

TEST_F(TableReadTest, ProfileInstanceDecodesTextIndexes) {
    const struct variable vp = column(CALLHOMEDESTPROFILEMSGFORMAT);
    const std::string forty(40, 'x');
    const std::string ff(1, '\xFF');
    const TextIndexCase cases[] = {
        {"GET without index", 1, {}, -1, "", " : return match -failed \n"},
        {"GET of the empty name", 1, {0}, -1, "", " : id not set - return match failed \n"},
        {"GET with a prefix longer than the characters",
         1,
         {3, 97, 98},
         -1,
         "",
         " : else return match -failed \n"},
        {"GET with a prefix shorter than the characters",
         1,
         {1, 97, 98},
         -1,
         "",
         " : else return match -failed \n"},
        {"GET of a name", 1, text("ab"), 0, "ab", " : len of id : 2 \n"},
        {"GET takes the low 8 bits of each arc", 1, {1, 353}, 0, "a", nullptr},
        {"GET cuts a long name to 31 characters", 1, text(forty), 0, forty.substr(0, 31),
         " : len of id : 31 \n"},
        {"GETNEXT on the bare column", 0, {}, 0, "", nullptr},
        {"GETNEXT on a row", 0, text("ab"), 0, "ab", nullptr},
        {"GETNEXT on a truncated name fills with 0xFF",
         0,
         {5, 97, 98},
         0,
         "ab" + ff + ff + ff,
         nullptr},
        {"GETNEXT on a bare length arc", 0, {3}, 0, ff + ff + ff, nullptr},
        {"GETNEXT cuts a long name to 31 characters", 0, text(forty), 0, forty.substr(0, 31),
         nullptr},
        {"GETNEXT fills a long truncated name to 31",
         0,
         {40, 97},
         0,
         "a" + std::string(30, '\xFF'),
         nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        platform::clear_trace_history();
        Name name(column_arcs(vp) + c.index);
        callHomeDestProfileEntry_t entry;
        std::memset(&entry, 0x5A, sizeof entry);
        EXPECT_EQ(get_callHomeDestProfileEntry_instance(const_cast<oid *>(vp.name), vp.namelen,
                                                        name.arcs, &name.length, c.exact, &entry),
                  c.rc);
        EXPECT_EQ(std::string(entry.destination_profile_id), c.key);
        // The rest of the key record is cleared.
        EXPECT_EQ(entry.row_status, 0);
        EXPECT_EQ(entry.request_flag, 0);
        if (c.trace != nullptr) {
            EXPECT_TRUE(traced(CALLHOME_TRACE_INFO,
                               std::string("get_callHomeDestProfileEntry_instance") + c.trace));
        }
    }
}

TEST_F(TableReadTest, GetNextWithAnotherPrefixStartsAtTheFirstRow) {
    const struct variable vp = column(CALLHOMEDESTPROFILEMSGFORMAT);
    const Arcs other_column = column_arcs(column(CALLHOMEDESTPROFILEMAXMSGSIZE));
    const Arcs before_table = {1, 3, 6, 1, 4, 1, 32473, 9, 300, 1, 1, 11};
    for (const Arcs &arcs : {other_column + text("ab"), before_table}) {
        Name name(arcs);
        callHomeDestProfileEntry_t profile;
        EXPECT_EQ(get_callHomeDestProfileEntry_instance(const_cast<oid *>(vp.name), vp.namelen,
                                                        name.arcs, &name.length, 0, &profile),
                  0);
        EXPECT_STREQ(profile.destination_profile_id, "");

        callHomeDestEmailAddressEntry_t email;
        const struct variable evp = column(CALLHOMEDESTEMAILADDRESS);
        EXPECT_EQ(get_callHomeDestEmailAddressEntry_instance(
                      const_cast<oid *>(evp.name), evp.namelen, name.arcs, &name.length, 0, &email),
                  0);
        EXPECT_STREQ(email.destination_profile_id, "");
        EXPECT_EQ(email.index, 0);
    }
}

struct EmailIndexCase {
    const char *what;
    int exact;
    Arcs index;
    int rc;
    std::string key;
    int32_t row_index;
    const char *trace;
};

TEST_F(TableReadTest, EmailInstanceDecodesNameAndIndex) {
    const struct variable vp = column(CALLHOMEDESTEMAILADDRESS);
    const std::string ff(1, '\xFF');
    const EmailIndexCase cases[] = {
        {"GET without index", 1, {}, -1, "", 0, " : return match -failed \n"},
        {"GET of a name without index", 1, text("ab"), -1, "", 0, " : else return match-failed \n"},
        {"GET of index 0", 1, text("ab") + Arcs{0}, -1, "ab", 0, " : return match -failed \n"},
        {"GET of the empty name", 1, {0, 1}, -1, "", 1, " : return match -failed \n"},
        {"GET of a row", 1, text("ab") + Arcs{1}, 0, "ab", 1, nullptr},
        {"GETNEXT on the bare column", 0, {}, 0, "", 0, nullptr},
        {"GETNEXT on a row", 0, text("ab") + Arcs{1}, 0, "ab", 1, nullptr},
        // The last character given is dropped too: the walk goes on after "a".
        {"GETNEXT on a name without index", 0, text("ab"), 0, "a", 0, nullptr},
        {"GETNEXT on a truncated name", 0, {5, 97, 98}, 0, "a" + ff + ff + ff, 0, nullptr},
        {"GETNEXT on a bare length arc", 0, {3}, 0, ff + ff, 0, nullptr},
        {"GETNEXT on a zero length arc", 0, {0}, 0, "", 0, nullptr},
        {"GETNEXT with more arcs than the name calls for", 0, text("ab") + Arcs{1, 9}, 0, "", 0,
         nullptr},
        {"GETNEXT cuts a long name to 31", 0, {40, 97}, 0, std::string(30, '\xFF'), 0, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        platform::clear_trace_history();
        Name name(column_arcs(vp) + c.index);
        callHomeDestEmailAddressEntry_t entry;
        std::memset(&entry, 0x5A, sizeof entry);
        EXPECT_EQ(get_callHomeDestEmailAddressEntry_instance(const_cast<oid *>(vp.name), vp.namelen,
                                                             name.arcs, &name.length, c.exact,
                                                             &entry),
                  c.rc);
        EXPECT_EQ(std::string(entry.destination_profile_id), c.key);
        EXPECT_EQ(entry.index, c.row_index);
        EXPECT_EQ(entry.commit_flag, 0);
        if (c.trace != nullptr) {
            EXPECT_TRUE(
                traced(CALLHOME_TRACE_INFO,
                       std::string("get_callHomeDestEmailAddressEntry_instance") + c.trace));
        }
    }
}

TEST_F(TableReadTest, EmailGetOfALongNameRunsIntoTheRecordButNotPastIt) {
    const struct variable vp = column(CALLHOMEDESTEMAILADDRESS);
    // 40 characters: the key runs on into the address field.
    {
        Name name(column_arcs(vp) + text(std::string(40, 'y')) + Arcs{7});
        callHomeDestEmailAddressEntry_t entry;
        ASSERT_EQ(get_callHomeDestEmailAddressEntry_instance(const_cast<oid *>(vp.name), vp.namelen,
                                                             name.arcs, &name.length, 1, &entry),
                  0);
        const auto *bytes = reinterpret_cast<const char *>(&entry);
        EXPECT_EQ(std::string(bytes, 40), std::string(40, 'y'));
        EXPECT_EQ(bytes[40], '\0');
        EXPECT_EQ(entry.index, 7);
    }
    // 300 characters (more than any OID the agent passes): the copy stops inside the record.
    {
        Arcs arcs = column_arcs(vp) + text(std::string(300, 'z')) + Arcs{9};
        size_t length = arcs.size();
        std::vector<uint8_t> buffer(sizeof(callHomeDestEmailAddressEntry_t) + 64, 0xA5);
        auto *entry = reinterpret_cast<callHomeDestEmailAddressEntry_t *>(buffer.data());
        ASSERT_EQ(get_callHomeDestEmailAddressEntry_instance(const_cast<oid *>(vp.name), vp.namelen,
                                                             arcs.data(), &length, 1, entry),
                  0);
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(buffer.data()), 288),
                  std::string(288, 'z'));
        EXPECT_EQ(entry->index, 9);
        EXPECT_EQ(buffer[sizeof *entry - 1], 0); // the terminator, inside the record
        for (size_t i = sizeof *entry; i < buffer.size(); ++i) {
            ASSERT_EQ(buffer[i], 0xA5) << "byte " << i << " past the record was written";
        }
    }
}

TEST_F(TableReadTest, AlertGroupTypeInstanceTakesOneIndexArc) {
    const struct variable vp = column(CALLHOMEALERTGROUPTYPENAME);
    const Arcs other = column_arcs(column(CALLHOMEUSERDEFCLICMD));
    struct Case {
        const char *what;
        int exact;
        Arcs arcs;
        int rc;
        uint32_t index;
    } cases[] = {
        {"GET without index", 1, column_arcs(vp), -1, 0},
        {"GET of index 0", 1, column_arcs(vp) + Arcs{0}, 0, 0},
        {"GET with two arcs", 1, column_arcs(vp) + Arcs{3, 4}, -1, 0},
        {"GETNEXT on the bare column", 0, column_arcs(vp), 0, 0},
        {"GETNEXT on an index", 0, column_arcs(vp) + Arcs{7}, 0, 7},
        {"GETNEXT with two arcs", 0, column_arcs(vp) + Arcs{7, 1}, 0, 7},
        {"GETNEXT from another column", 0, other + Arcs{7}, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Name name(c.arcs);
        callhome_alertgroup_type_t record;
        std::memset(&record, 0x5A, sizeof record);
        EXPECT_EQ(get_callHomeAlertGroupType_instance(const_cast<oid *>(vp.name), vp.namelen,
                                                      name.arcs, &name.length, c.exact, &record),
                  c.rc);
        EXPECT_EQ(record.index, c.index);
        EXPECT_STREQ(record.grp_name, "");
    }
    EXPECT_EQ(channel->count(), 0u);
}

// ---- message types ------------------------------------------------------------------------

// The three tables that read rows by the common pattern.
struct RowTable {
    const char *name;
    u_char magic;
    Arcs index;
    int opcode;
    size_t record_size;
    int (*header)(const struct variable &, Name &, int exact, int get_for_set);
};

int profile_header(const struct variable &vp, Name &name, int exact, int get_for_set) {
    return header_callHomeDestProfileEntry(const_cast<oid *>(vp.name), vp.namelen, name.arcs,
                                           &name.length, exact, &callHomeDestProfileEntry,
                                           get_for_set);
}
int email_header(const struct variable &vp, Name &name, int exact, int get_for_set) {
    return header_callHomeDestEmailAddressEntry(const_cast<oid *>(vp.name), vp.namelen, name.arcs,
                                                &name.length, exact, &callHomeDestEmailAddressEntry,
                                                get_for_set);
}
int command_header(const struct variable &vp, Name &name, int exact, int get_for_set) {
    return header_callHomeUserDefCliCmdEntry(const_cast<oid *>(vp.name), vp.namelen, name.arcs,
                                             &name.length, exact, &callHomeUserDefCliCmdEntry,
                                             get_for_set);
}

const RowTable kRowTables[] = {
    {"profiles", CALLHOMEDESTPROFILEMSGFORMAT, text("p1"), CALLHOME_DEST_PROFILE_OPC, 51,
     profile_header},
    {"e-mail addresses", CALLHOMEDESTEMAILADDRESS, text("p1") + Arcs{1}, CALLHOME_DEST_EMAIL_OPC,
     297, email_header},
    {"user commands",
     CALLHOMEUSERDEFCLICMD,
     {1, 2},
     CALLHOME_USER_DEF_CMD_OPC,
     865,
     command_header},
};

TEST_F(TableReadTest, RowReadsChooseTheirMessageTypeFromTheDistributionState) {
    struct Case {
        bool enabled;
        int mode;
        int exact;
        int get_for_set;
        int type;
    } cases[] = {
        {false, 0, 1, 0, GET_REQ},         {false, 0, 0, 0, GETNEXT_REQ},
        {false, 0, 1, 1, GET_REQ},         {true, 0, 1, 0, VELD_GET_REQ},
        {true, 0, 0, 0, VELD_GETNEXT_REQ}, {true, 3, 1, 0, GET_REQ},
        {true, 3, 0, 0, GETNEXT_REQ},      {true, 3, 1, 1, VELD_GET_REQ},
        {true, 0, 1, 1, VELD_GET_REQ},
    };
    backend.types = {{1, "Syslog"}};
    use_backend();
    for (const auto &table : kRowTables) {
        for (const auto &c : cases) {
            SCOPED_TRACE(std::string(table.name) + " enabled " + std::to_string(c.enabled) +
                         " mode " + std::to_string(c.mode) + " exact " + std::to_string(c.exact) +
                         " get_for_set " + std::to_string(c.get_for_set));
            platform::set_distribution(c.enabled, c.mode);
            channel->clear();
            const struct variable vp = column(table.magic);
            Name name(column_arcs(vp) + table.index);
            table.header(vp, name, c.exact, c.get_for_set);
            const auto sent = requests(table.opcode);
            ASSERT_EQ(sent.size(), 1u);
            EXPECT_EQ(sent[0].msg_type, c.type);
            expect_table_read_call(sent[0], table.record_size);
        }
    }
}

TEST_F(TableReadTest, ADistributionReadForASetIsRepeatedOnceAsAPlainGet) {
    backend.types = {{1, "Syslog"}};
    use_backend();
    platform::set_distribution(true, 0);
    for (const auto &table : kRowTables) {
        SCOPED_TRACE(table.name);
        const struct variable vp = column(table.magic);
        for (int get_for_set : {1, 0}) {
            channel->clear();
            Reply row = table.opcode == CALLHOME_DEST_PROFILE_OPC ? record_reply(profile_rec("p1"))
                        : table.opcode == CALLHOME_DEST_EMAIL_OPC
                            ? record_reply(email_rec("p1", "a@example.com", 1))
                            : record_reply(cmd_rec(2, "Syslog", "show clock"));
            auto &queue = table.opcode == CALLHOME_DEST_PROFILE_OPC ? backend.profiles
                          : table.opcode == CALLHOME_DEST_EMAIL_OPC ? backend.emails
                                                                    : backend.commands;
            queue = {status_reply(CALLHOME_ERR_VELD_RESEND), row};
            Name name(column_arcs(vp) + table.index);
            const int rc = table.header(vp, name, 1, get_for_set);
            const auto sent = requests(table.opcode);
            if (get_for_set) {
                EXPECT_EQ(rc, 0);
                ASSERT_EQ(sent.size(), 2u);
                EXPECT_EQ(sent[0].msg_type, VELD_GET_REQ);
                EXPECT_EQ(sent[1].msg_type, GET_REQ);
                EXPECT_EQ(sent[0].record, sent[1].record);
            } else {
                // Only a read for a SET is repeated.
                EXPECT_EQ(rc, CALLHOME_ERR_VELD_RESEND);
                ASSERT_EQ(sent.size(), 1u);
            }
        }
    }
}

// ---- destination profiles ------------------------------------------------------------------

TEST_F(TableReadTest, ProfileColumnsReadTheServicesRow) {
    struct Case {
        u_char magic;
        int32_t value;
        WriteMethod *write;
    } cases[] = {
        {CALLHOMEDESTPROFILEMSGFORMAT, 2, set_callHomeDestProfileMsgFormat},
        {CALLHOMEDESTPROFILEMAXMSGSIZE, 500000, set_callHomeDestProfileMaxMsgSize},
        {CALLHOMEDESTPROFILETRNSPRTMTHD, 1, set_callHomeDestProfileTrnsprtMthd},
        {CALLHOMEDESTPROFILESTATUS, 1, set_callHomeDestProfileStatus},
        {CALLHOMEDESTPROFILEMSGLEVEL, 1, set_callHomeDestProfileMsgLevel}, // stored 0
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(int(c.magic));
        channel->clear();
        channel->answer(profile_rec("p1", 2, 500000, 1, 0));
        const struct variable vp = column(c.magic);
        Name name(column_arcs(vp) + text("p1"));
        const Read r = read(vp, name, 1);
        ASSERT_NE(r.value, nullptr);
        EXPECT_EQ(int_value(r), c.value);
        EXPECT_EQ(r.write, c.write);
        EXPECT_EQ(name.get(), column_arcs(vp) + text("p1"));

        ASSERT_EQ(channel->count(), 1u);
        const auto &sent = channel->last();
        EXPECT_EQ(sent.opcode, CALLHOME_DEST_PROFILE_OPC);
        EXPECT_EQ(sent.msg_type, GET_REQ);
        expect_table_read_call(sent, 51);
        const auto key = FakeChannel::as<callHomeDestProfileEntry_t>(sent);
        EXPECT_STREQ(key.destination_profile_id, "p1");
        EXPECT_EQ(key.request_flag, 0);
        EXPECT_EQ(key.format_method, 0);
    }
    // The message level is shown one higher than stored.
    channel->answer(profile_rec("p1", 1, 0, 1, 4));
    const struct variable level = column(CALLHOMEDESTPROFILEMSGLEVEL);
    Name name(column_arcs(level) + text("p1"));
    EXPECT_EQ(int_value(read(level, name, 1)), 5);
}

TEST_F(TableReadTest, ProfileGetNextWritesTheFoundRowBack) {
    const struct variable vp = column(CALLHOMEDESTPROFILESTATUS);
    channel->answer(profile_rec("full_txt"));
    Name name(column_arcs(vp));
    const Read r = read(vp, name, 0);
    ASSERT_NE(r.value, nullptr);
    EXPECT_EQ(name.get(), column_arcs(vp) + text("full_txt"));
    EXPECT_EQ(channel->last().msg_type, GETNEXT_REQ);
    EXPECT_STREQ(
        FakeChannel::as<callHomeDestProfileEntry_t>(channel->last()).destination_profile_id, "");
    // The RowStatus value lives in the module's record, where a write handler may change it.
    EXPECT_EQ(r.value, reinterpret_cast<u_char *>(&callHomeDestProfileEntry.row_status));
}

TEST_F(TableReadTest, ProfileReadFailuresReturnNothing) {
    const struct variable vp = column(CALLHOMEDESTPROFILEMSGFORMAT);
    struct Case {
        const char *what;
        int exact;
        Arcs index;
        std::optional<Reply> reply;
    } cases[] = {
        {"end of table", 0, text("xml"), status_reply(CALLHOME_END_OF_TABLE)},
        {"unknown row", 1, text("nope"), status_reply(CALLHOME_UNKNOWN_ENTRY)},
        {"no answer", 1, text("p1"), Reply{-1, false, {}, ETIME}},
        {"bad index", 1, {3, 97}, std::nullopt},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        channel->clear();
        platform::clear_trace_history();
        if (c.reply) {
            channel->serve_with([&](const platform::CmiRequest &) { return *c.reply; });
        }
        Name name(column_arcs(vp) + c.index);
        const Arcs before = name.get();
        const Read r = read(vp, name, c.exact);
        EXPECT_EQ(r.value, nullptr);
        EXPECT_EQ(name.get(), before);
        // The write handler is handed back even when the row is not there (row creation).
        EXPECT_EQ(r.write, set_callHomeDestProfileMsgFormat);
        EXPECT_EQ(channel->count(), c.reply ? 1u : 0u);
        if (c.reply) {
            bool failure_traced = false;
            for (const auto &[level, t] : platform::trace_history()) {
                failure_traced |= level == CALLHOME_TRACE_ERROR &&
                                  t.find("header_callHomeDestProfileEntry : Req  ") == 0;
            }
            EXPECT_TRUE(failure_traced);
        }
    }
}

TEST_F(TableReadTest, ProfileAnswersAreTakenWithinTheirLength) {
    const struct variable vp = column(CALLHOMEDESTPROFILEMAXMSGSIZE);
    // A short answer: only the name arrives; the rest reads as zero.
    const auto full = profile_rec("p1", 2, 4000);
    channel->answer_bytes(&full, 20);
    Name name(column_arcs(vp) + text("p1"));
    const Read r = read(vp, name, 1);
    ASSERT_NE(r.value, nullptr);
    EXPECT_EQ(int_value(r), 0);
    // An unterminated name is cut to the field.
    callHomeDestProfileEntry_t wide = profile_rec("");
    std::memset(wide.destination_profile_id, 'q', sizeof wide.destination_profile_id);
    channel->answer(wide);
    Name next(column_arcs(vp));
    ASSERT_NE(read(vp, next, 0).value, nullptr);
    EXPECT_EQ(next.get(), column_arcs(vp) + text(std::string(31, 'q')));
}

TEST_F(TableReadTest, AProfileReadAnsweredWithoutARecordKeepsTheRequestOid) {
    // The service's success without a record: the read answers from the key, as it stands.
    const struct variable vp = column(CALLHOMEDESTPROFILEMSGFORMAT);
    channel->answer_status(0);
    Name name(column_arcs(vp));
    const Read r = read(vp, name, 0);
    EXPECT_NE(r.value, nullptr);
    EXPECT_EQ(name.get(), column_arcs(vp));
}

TEST_F(TableReadTest, UnknownColumnsOfATableGiveNothing) {
    channel->answer(profile_rec("p1"));
    struct variable vp = column(CALLHOMEDESTPROFILEMSGFORMAT);
    vp.magic = 99;
    Name name(column_arcs(vp) + text("p1"));
    EXPECT_EQ(read(vp, name, 1).value, nullptr);

    channel->answer(email_rec("p1", "a@example.com", 1));
    struct variable evp = column(CALLHOMEDESTEMAILADDRESS);
    evp.magic = 99;
    Name ename(column_arcs(evp) + text("p1") + Arcs{1});
    EXPECT_EQ(read(evp, ename, 1).value, nullptr);
}

// ---- destination e-mail addresses -----------------------------------------------------------

TEST_F(TableReadTest, EmailReadSendsTheKeyBigEndianAndReturnsTheAddress) {
    const struct variable vp = column(CALLHOMEDESTEMAILADDRESS);
    channel->answer(email_rec("ab", "noc@example.com", 1));
    Name name(column_arcs(vp) + text("ab") + Arcs{1});
    const Read r = read(vp, name, 1);
    ASSERT_NE(r.value, nullptr);
    EXPECT_EQ(str_value(r), "noc@example.com");
    EXPECT_EQ(r.write, set_callHomeDestEmailAddress);
    EXPECT_EQ(name.get(), column_arcs(vp) + text("ab") + Arcs{1});

    const auto &sent = channel->last();
    EXPECT_EQ(sent.opcode, CALLHOME_DEST_EMAIL_OPC);
    EXPECT_EQ(sent.msg_type, GET_REQ);
    expect_table_read_call(sent, 297);
    const auto key = FakeChannel::as<callHomeDestEmailAddressEntry_t>(sent);
    EXPECT_STREQ(key.destination_profile_id, "ab");
    EXPECT_EQ(uint32_t(key.index), be32(1));
    EXPECT_EQ(key.commit_flag, 0);

    // The status column, and a GETNEXT that moves to another profile's row.
    const struct variable status = column(CALLHOMEDESTEMAILADDRESSSTATUS);
    channel->answer(email_rec("cd", "ops@example.com", 3));
    Name next(column_arcs(status) + text("ab") + Arcs{1});
    const Read s = read(status, next, 0);
    ASSERT_NE(s.value, nullptr);
    EXPECT_EQ(int_value(s), 1);
    EXPECT_EQ(s.write, set_callHomeDestEmailAddressStatus);
    EXPECT_EQ(next.get(), column_arcs(status) + text("cd") + Arcs{3});
    EXPECT_EQ(channel->last().msg_type, GETNEXT_REQ);
}

TEST_F(TableReadTest, EmailGetOfAFortyCharacterNameSendsAllOfIt) {
    const struct variable vp = column(CALLHOMEDESTEMAILADDRESS);
    Name name(column_arcs(vp) + text(std::string(40, 'n')) + Arcs{2});
    EXPECT_EQ(read(vp, name, 1).value, nullptr); // the default answer: unknown entry
    ASSERT_EQ(channel->count(), 1u);
    const auto &bytes = channel->last().record;
    ASSERT_EQ(bytes.size(), 297u);
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 40), std::string(40, 'n'));
    EXPECT_EQ(bytes[40], 0);
}

TEST_F(TableReadTest, EmailGetOfIndexZeroSendsNothing) {
    const struct variable vp = column(CALLHOMEDESTEMAILADDRESS);
    Name name(column_arcs(vp) + text("ab") + Arcs{0});
    EXPECT_EQ(read(vp, name, 1).value, nullptr);
    EXPECT_EQ(channel->count(), 0u);
}

// ---- a profile's alert groups ----------------------------------------------------------------

class TableReadGroupsTest : public TableReadTest {
  protected:
    void SetUp() override {
        TableReadTest::SetUp();
        backend.types = {{1, "Syslog"}, {2, "Environmental"}, {3, "Inventory"}};
        use_backend();
    }

    Read read_groups(const Arcs &index, int exact) {
        const struct variable vp = column(CALLHOMEALERTGROUPS);
        name.emplace(column_arcs(vp) + index);
        return read(vp, *name, exact);
    }

    Arcs groups_column() const { return column_arcs(column(CALLHOMEALERTGROUPS)); }

    static std::vector<uint8_t> octets(const Read &r) {
        EXPECT_EQ(r.var_len, 8u);
        return std::vector<uint8_t>(r.value, r.value + r.var_len);
    }

    std::optional<Name> name;
};

TEST_F(TableReadGroupsTest, GathersAProfilesGroupsUntilAnotherProfilesRow) {
    backend.profiles = {record_reply(profile_rec("p1"))};
    backend.groups = {record_reply(group_rec("p1", "Syslog")),
                      record_reply(group_rec("p1", "Inventory")),
                      record_reply(group_rec("p2", "Environmental"))};
    const Read r = read_groups(text("p1"), 1);
    ASSERT_NE(r.value, nullptr);
    // Bits 1 and 3, numbered from the most significant bit of the first octet.
    EXPECT_EQ(octets(r), (std::vector<uint8_t>{0x50, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(r.write, set_callhome_alertgroups);
    EXPECT_EQ(name->get(), groups_column() + text("p1"));

    const auto profile = requests(CALLHOME_DEST_PROFILE_OPC);
    ASSERT_EQ(profile.size(), 1u);
    EXPECT_EQ(profile[0].msg_type, GET_REQ);
    expect_table_read_call(profile[0], 51);
    EXPECT_STREQ(FakeChannel::as<callHomeDestProfileEntry_t>(profile[0]).destination_profile_id,
                 "p1");

    // Each GETNEXT continues after the group just received.
    const auto sent = requests(CALLHOME_PROFILE_ALERTGROUP_OPC);
    ASSERT_EQ(sent.size(), 3u);
    const char *after[] = {"", "Syslog", "Inventory"};
    for (size_t i = 0; i < sent.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(sent[i].msg_type, GETNEXT_REQ);
        expect_table_read_call(sent[i], 301);
        const auto rec = FakeChannel::as<callHomeAlertGroupEntry_t>(sent[i]);
        EXPECT_STREQ(rec.destination_profile_id, "p1");
        EXPECT_STREQ(rec.alert_group, after[i]);
        EXPECT_EQ(rec.word, 0u);
        EXPECT_EQ(rec.request_flag, 0);
    }
    // The registry was refreshed for the bit numbers.
    EXPECT_EQ(alertgroup_type_count, 3u);
}

TEST_F(TableReadGroupsTest, EndsAtTheEndOfTheTableOrOnFailure) {
    struct Case {
        const char *what;
        std::deque<Reply> groups;
        bool found;
        uint8_t first_octet;
    } cases[] = {
        {"all", {record_reply(group_rec("p1", "all"))}, true, 0x70},
        {"one group, then the end", {record_reply(group_rec("p1", "Environmental"))}, true, 0x20},
        {"no group at all", {}, true, 0},
        {"the next profile's groups only", {record_reply(group_rec("p2", "Syslog"))}, true, 0},
        {"a failure",
         {record_reply(group_rec("p1", "Syslog")), status_reply(CALLHOME_UNKNOWN_ENTRY)},
         false,
         0},
        {"a success without record", {status_reply(0)}, false, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        channel->clear();
        backend.profiles = {record_reply(profile_rec("p1"))};
        backend.groups = c.groups;
        const Read r = read_groups(text("p1"), 1);
        if (!c.found) {
            EXPECT_EQ(r.value, nullptr);
            continue;
        }
        ASSERT_NE(r.value, nullptr);
        EXPECT_EQ(octets(r)[0], c.first_octet);
        EXPECT_EQ(name->get(), groups_column() + text("p1"));
    }
}

TEST_F(TableReadGroupsTest, GetNextMovesToTheNextProfile) {
    backend.profiles = {record_reply(profile_rec("xml"))};
    backend.groups = {record_reply(group_rec("xml", "Inventory"))};
    const Read r = read_groups(text("p1"), 0);
    ASSERT_NE(r.value, nullptr);
    EXPECT_EQ(octets(r)[0], 0x10);
    EXPECT_EQ(name->get(), groups_column() + text("xml"));
    const auto profile = requests(CALLHOME_DEST_PROFILE_OPC);
    ASSERT_EQ(profile.size(), 1u);
    EXPECT_EQ(profile[0].msg_type, GETNEXT_REQ);
    EXPECT_STREQ(FakeChannel::as<callHomeDestProfileEntry_t>(profile[0]).destination_profile_id,
                 "p1");
}

TEST_F(TableReadGroupsTest, GetOfNoProfileAsksNothing) {
    for (const Arcs &index : {Arcs{0}, Arcs{}, Arcs{3, 97}}) {
        channel->clear();
        EXPECT_EQ(read_groups(index, 1).value, nullptr);
        EXPECT_EQ(channel->count(), 0u);
    }
    EXPECT_TRUE(traced(CALLHOME_TRACE_ERROR,
                       "get_callhome_alertgroups_instance : destination_profile_id  not set \n"));

    // An unknown profile: the profile read fails and no group is asked for.
    backend.profiles = {status_reply(CALLHOME_UNKNOWN_ENTRY)};
    EXPECT_EQ(read_groups(text("zz"), 1).value, nullptr);
    EXPECT_TRUE(requests(CALLHOME_PROFILE_ALERTGROUP_OPC).empty());
}

TEST_F(TableReadGroupsTest, DistributionVariantsAndTheirResends) {
    platform::set_distribution(true, 0);
    backend.profiles = {record_reply(profile_rec("p1"))};
    backend.groups = {record_reply(group_rec("p1", "Syslog"))};
    ASSERT_NE(read_groups(text("p1"), 1).value, nullptr);
    EXPECT_EQ(requests(CALLHOME_DEST_PROFILE_OPC).at(0).msg_type, VELD_GET_REQ);
    for (const auto &r : requests(CALLHOME_PROFILE_ALERTGROUP_OPC)) {
        EXPECT_EQ(r.msg_type, VELD_GETNEXT_REQ);
    }

    // A read for a SET: both requests are repeated without distribution when asked to.
    for (int exact : {1, 0}) {
        SCOPED_TRACE(exact);
        channel->clear();
        backend.profiles = {status_reply(CALLHOME_ERR_VELD_RESEND),
                            record_reply(profile_rec("p1"))};
        backend.groups = {status_reply(CALLHOME_ERR_VELD_RESEND),
                          record_reply(group_rec("p1", "Syslog"))};
        const struct variable vp = column(CALLHOMEALERTGROUPS);
        Name n(column_arcs(vp) + text("p1"));
        mibAlertGroup_t summary{};
        ASSERT_EQ(header_callhome_alertgroups(const_cast<oid *>(vp.name), vp.namelen, n.arcs,
                                              &n.length, exact, &summary, 1),
                  0);
        const auto profile = requests(CALLHOME_DEST_PROFILE_OPC);
        ASSERT_EQ(profile.size(), 2u);
        EXPECT_EQ(profile[0].msg_type, exact ? VELD_GET_REQ : VELD_GETNEXT_REQ);
        EXPECT_EQ(profile[1].msg_type, exact ? GET_REQ : GETNEXT_REQ);
        const auto groups = requests(CALLHOME_PROFILE_ALERTGROUP_OPC);
        ASSERT_EQ(groups.size(), 3u); // re-sent, then continued plainly to the end
        EXPECT_EQ(groups[0].msg_type, VELD_GETNEXT_REQ);
        EXPECT_EQ(groups[1].msg_type, GETNEXT_REQ);
        EXPECT_EQ(groups[2].msg_type, GETNEXT_REQ);
        EXPECT_STREQ(summary.destination_profile_id, "p1");
        EXPECT_EQ(summary.bitset_size, 32u);
        EXPECT_EQ(summary.bitset[0], 0x40);
    }
}

// ---- alert-group types ------------------------------------------------------------------------

TEST_F(TableReadTest, AlertGroupTypeReadsNameByIndex) {
    const struct variable vp = column(CALLHOMEALERTGROUPTYPENAME);
    channel->answer(type_rec(4, "Syslog"));
    Name name(column_arcs(vp) + Arcs{0});
    const Read r = read(vp, name, 1);
    ASSERT_NE(r.value, nullptr);
    EXPECT_EQ(str_value(r), "Syslog");
    EXPECT_EQ(r.write, nullptr); // read-only
    EXPECT_EQ(name.get(), column_arcs(vp) + Arcs{4});
    const auto &sent = channel->last();
    EXPECT_EQ(sent.opcode, CALLHOME_ALERTGROUP_TYPE_OPC);
    EXPECT_EQ(sent.msg_type, GET_REQ);
    expect_table_read_call(sent, 260);
    EXPECT_EQ(FakeChannel::as<callhome_alertgroup_type_t>(sent).index, be32(0));

    // GETNEXT, also with distribution on: there are no distribution variants here.
    platform::set_distribution(true, 0);
    channel->answer(type_rec(5, "System"));
    Name next(column_arcs(vp) + Arcs{4});
    ASSERT_NE(read(vp, next, 0).value, nullptr);
    EXPECT_EQ(channel->last().msg_type, GETNEXT_REQ);
    EXPECT_EQ(FakeChannel::as<callhome_alertgroup_type_t>(channel->last()).index, be32(4));
    EXPECT_EQ(next.get(), column_arcs(vp) + Arcs{5});

    channel->clear();
    Name end(column_arcs(vp) + Arcs{5});
    EXPECT_EQ(read(vp, end, 0).value, nullptr); // default answer: unknown entry
    Name two(column_arcs(vp) + Arcs{3, 4});
    EXPECT_EQ(read(vp, two, 1).value, nullptr);
    EXPECT_EQ(channel->count(), 1u);
}

// ---- user-defined commands --------------------------------------------------------------------

class TableReadCommandsTest : public TableReadTest {
  protected:
    void SetUp() override {
        TableReadTest::SetUp();
        backend.types = {{1, "Syslog"}, {2, "Inventory"}, {4, "Test"}};
        use_backend();
    }
};

TEST_F(TableReadCommandsTest, WalkResolvesTypesAndWritesTheRowBack) {
    struct Case {
        const char *what;
        Arcs from;
        int type_lookup;      // message type of the first type request
        uint32_t type_asked;  // its index
        std::string cmd_type; // type name of the command request
        int32_t cmd_index;    // its index
        cmi_userdef_cli_cmd_t answer;
        Arcs row; // OID written back, below the column
        std::string value;
    } cases[] = {
        {"bare column",
         {},
         GETNEXT_REQ,
         0,
         "Syslog",
         0,
         cmd_rec(1, "Syslog", "show version"),
         {1, 1},
         "show version"},
        {"one index arc",
         {2},
         GET_REQ,
         2,
         "Inventory",
         0,
         cmd_rec(3, "Inventory", "show inv"),
         {2, 3},
         "show inv"},
        {"within a type",
         {1, 2},
         GET_REQ,
         1,
         "Syslog",
         2,
         cmd_rec(4, "Syslog", "show log"),
         {1, 4},
         "show log"},
        {"from the last index",
         {1, 5},
         GETNEXT_REQ,
         1,
         "Inventory",
         0,
         cmd_rec(1, "Inventory", "show hw"),
         {2, 1},
         "show hw"},
        {"into the next type",
         {1, 2},
         GET_REQ,
         1,
         "Syslog",
         2,
         cmd_rec(2, "Test", "show env"),
         {4, 2},
         "show env"},
        {"into a type the registry lacks",
         {1, 2},
         GET_REQ,
         1,
         "Syslog",
         2,
         cmd_rec(1, "Gone", "show x"),
         {1, 1},
         "show x"},
    };
    const struct variable vp = column(CALLHOMEUSERDEFCLICMD);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        channel->clear();
        backend.commands = {record_reply(c.answer)};
        Name name(column_arcs(vp) + c.from);
        const Read r = read(vp, name, 0);
        ASSERT_NE(r.value, nullptr);
        EXPECT_EQ(str_value(r), c.value);
        EXPECT_EQ(r.write, set_callHomeUserDefCliCmd);
        EXPECT_EQ(name.get(), column_arcs(vp) + c.row);

        const auto types = requests(CALLHOME_ALERTGROUP_TYPE_OPC);
        ASSERT_FALSE(types.empty());
        EXPECT_EQ(types[0].msg_type, c.type_lookup);
        expect_table_read_call(types[0], 260);
        EXPECT_EQ(FakeChannel::as<callhome_alertgroup_type_t>(types[0]).index, be32(c.type_asked));

        const auto cmds = requests(CALLHOME_USER_DEF_CMD_OPC);
        ASSERT_EQ(cmds.size(), 1u);
        EXPECT_EQ(cmds[0].msg_type, GETNEXT_REQ);
        expect_table_read_call(cmds[0], 865);
        const auto sent = FakeChannel::as<cmi_userdef_cli_cmd_t>(cmds[0]);
        EXPECT_STREQ(sent.alertgroup_type, c.cmd_type.c_str());
        EXPECT_EQ(uint32_t(sent.index), be32(uint32_t(c.cmd_index)));
        EXPECT_EQ(sent.request_flag, 0);
    }
}

TEST_F(TableReadCommandsTest, GetReadsOneRowAndRefusesIndexesAboveFive) {
    const struct variable status = column(CALLHOMEUSERDEFCLICMDSTATUS);
    backend.commands = {record_reply(cmd_rec(3, "Inventory", "show inv"))};
    Name name(column_arcs(status) + Arcs{2, 3});
    const Read r = read(status, name, 1);
    ASSERT_NE(r.value, nullptr);
    EXPECT_EQ(int_value(r), 1);
    EXPECT_EQ(r.write, set_callHomeUserDefCliCmdStatus);
    const auto cmds = requests(CALLHOME_USER_DEF_CMD_OPC);
    ASSERT_EQ(cmds.size(), 1u);
    EXPECT_EQ(cmds[0].msg_type, GET_REQ);
    EXPECT_STREQ(FakeChannel::as<cmi_userdef_cli_cmd_t>(cmds[0]).alertgroup_type, "Inventory");

    for (const Arcs &index : {Arcs{2, 6}, Arcs{2}, Arcs{}, Arcs{2, 3, 1}}) {
        channel->clear();
        Name bad(column_arcs(status) + index);
        EXPECT_EQ(read(status, bad, 1).value, nullptr);
        EXPECT_EQ(channel->count(), 0u);
    }
}

TEST_F(TableReadCommandsTest, FailuresStillNameTheIndexesTried) {
    const struct variable vp = column(CALLHOMEUSERDEFCLICMD);
    // The command request fails: the OID names the row asked for.
    backend.commands = {status_reply(CALLHOME_END_OF_TABLE)};
    Name name(column_arcs(vp) + Arcs{1, 5});
    EXPECT_EQ(read(vp, name, 0).value, nullptr);
    EXPECT_EQ(name.get(), (column_arcs(vp) + Arcs{2, 0}));

    // The type lookup fails: nothing is sent for the command and the OID stays.
    channel->clear();
    Name unknown(column_arcs(vp) + Arcs{9, 1});
    EXPECT_EQ(read(vp, unknown, 0).value, nullptr);
    EXPECT_EQ(unknown.get(), (column_arcs(vp) + Arcs{9, 1}));
    EXPECT_TRUE(requests(CALLHOME_USER_DEF_CMD_OPC).empty());
}

} // namespace
