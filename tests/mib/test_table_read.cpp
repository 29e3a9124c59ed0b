// Table reads against a scripted channel: answers the real service never gives and how they
// come back to the agent. Index decoding and what each read sends: the golden session.
#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <optional>
#include <tuple>

#include "mib_support.hpp"

namespace {

using namespace callhome_test;
using Cmd = cmi_userdef_cli_cmd_t;

// A column of each table (profiles, e-mail addresses, a profile's groups, types, commands)
// and the opcodes of the tables.
constexpr u_char P = CALLHOMEDESTPROFILEMSGFORMAT, E = CALLHOMEDESTEMAILADDRESS,
                 G = CALLHOMEALERTGROUPS, T = CALLHOMEALERTGROUPTYPENAME, C = CALLHOMEUSERDEFCLICMD;
constexpr int PO = CALLHOME_DEST_PROFILE_OPC, EO = CALLHOME_DEST_EMAIL_OPC,
              GO = CALLHOME_PROFILE_ALERTGROUP_OPC, TO = CALLHOME_ALERTGROUP_TYPE_OPC,
              CO = CALLHOME_USER_DEF_CMD_OPC;

class TableReadTest : public ::testing::Test {
  protected:
    // The type table answers from `types`; the other tables from their queues, with the end
    // of the table once a queue runs dry.
    void SetUp() override {
        platform::reset_for_tests();
        platform::set_snmp_context("ops", 4242);
        alertgroup_types[0].index = 0xFFFFFFFFu;
        alertgroup_type_count = 0;
        channel.emplace();
        channel->serve_with([this](const Request &r) {
            auto &q = queues[r.opcode];
            if (r.opcode == TO || q.empty()) {
                return r.opcode == TO ? serve_types(types, r) : status_reply(CALLHOME_END_OF_TABLE);
            }
            const Reply reply = q.front();
            q.pop_front();
            return reply;
        });
    }
    std::vector<Request> sent(int opcode) const {
        std::vector<Request> out;
        std::copy_if(channel->requests().begin(), channel->requests().end(),
                     std::back_inserter(out), [&](const Request &r) { return r.opcode == opcode; });
        return out;
    }
    void restart() {
        channel->clear();
        queues.clear();
    }
    std::optional<FakeChannel> channel;
    Types types = {{1, "Syslog"}, {2, "Inventory"}, {3, "Environmental"}, {4, "Test"}};
    std::map<int, std::deque<Reply>> queues;
};

// The key a read sent: profile name, e-mail name/index, group profile/name or command
// type/index (the whole records as they travel: the golden session).
std::string sent_key(const Request &r) {
    const auto *text = reinterpret_cast<const char *>(r.record.data());
    switch (r.opcode) {
    case PO:
        return text;
    case EO:
        return std::string(text) + "/" +
               std::to_string(be(FakeChannel::as<callHomeDestEmailAddressEntry_t>(r).index));
    case GO:
        return std::string(text) + "/" + FakeChannel::as<callHomeAlertGroupEntry_t>(r).alert_group;
    default:
        return std::string(text + 4) + "/" + std::to_string(be(FakeChannel::as<Cmd>(r).index));
    }
}

TEST_F(TableReadTest, ReadsAnswerTheServicesRowAndWriteItsOidBack) {
    const auto R = [](const auto &record) { return record_reply(record); };
    const Reply none = status_reply(0), unknown = status_reply(CALLHOME_UNKNOWN_ENTRY),
                p1 = R(profile_rec("p1"));
    Reply shortened = R(profile_rec("p1", 2, 4000)); // only the name arrives
    shortened.record.resize(20);
    callHomeDestProfileEntry_t wide = profile_rec(""); // an unterminated name is cut to the field
    std::memset(wide.destination_profile_id, 'q', sizeof wide.destination_profile_id);
    const std::string q31(31, 'q');
    const auto eight = [](char first) { return std::string(1, first) + std::string(7, '\0'); };
    // Column, index, exact, the service's answers, the value read ("none": no value), the OID
    // after the read (below the column), and the first request of one opcode with its key.
    struct Scenario {
        u_char magic;
        Arcs index;
        int exact;
        std::map<int, std::deque<Reply>> answers;
        std::string value;
        Arcs row;
        int opcode, msg_type;
        std::string key; // "-": no request of that opcode
    };
    // clang-format off
    const Scenario cases[] = {
        // Profiles: the level shows one higher than stored, answers shorter than the record, a
        // success without record (answered from the key, the OID as it stands), an unknown row.
        {CALLHOMEDESTPROFILEMSGLEVEL, text("p1"), 1, {{PO, {R(profile_rec("p1", 2, 4000, 4))}}}, "5", text("p1"), PO, GET_REQ, "p1"},
        {CALLHOMEDESTPROFILEMAXMSGSIZE, text("p1"), 1, {{PO, {shortened}}}, "0", text("p1"), PO, GET_REQ, "p1"},
        {P, {}, 0, {{PO, {R(wide)}}}, "1", text(q31), PO, GETNEXT_REQ, ""},
        {P, {}, 0, {{PO, {none}}}, "0", {}, PO, GETNEXT_REQ, ""},
        {P, text("nope"), 1, {{PO, {unknown}}}, "none", text("nope"), PO, GET_REQ, "nope"},
        // A GETNEXT of the e-mail status column moves into another profile's row.
        {CALLHOMEDESTEMAILADDRESSSTATUS, text("ab") + Arcs{1}, 0, {{EO, {R(email_rec("cd", 3, "x"))}}}, "1", text("cd") + Arcs{3}, EO, GETNEXT_REQ, "ab/1"},
        // A profile's groups as bits from the most significant of the first octet (Syslog 1,
        // Inventory 2, Environmental 3, Test 4), gathered until another profile's row or the
        // end; a failure or a success without record gives nothing; a GETNEXT moves on to the
        // next profile; an unknown profile asks for no group.
        {G, text("p1"), 1, {{PO, {p1}}, {GO, {R(group_rec("p1", "Syslog")), R(group_rec("p1", "Inventory")), R(group_rec("p2", "Test"))}}}, eight(0x60), text("p1"), PO, GET_REQ, "p1"},
        {G, text("p1"), 1, {{PO, {p1}}, {GO, {R(group_rec("p1", "all"))}}}, eight(0x78), text("p1"), GO, GETNEXT_REQ, "p1/"},
        {G, text("p1"), 1, {{PO, {p1}}, {GO, {R(group_rec("p1", "Environmental"))}}}, eight(0x10), text("p1"), GO, GETNEXT_REQ, "p1/"},
        {G, text("p1"), 1, {{PO, {p1}}}, eight(0), text("p1"), GO, GETNEXT_REQ, "p1/"},
        {G, text("p1"), 1, {{PO, {p1}}, {GO, {R(group_rec("p2", "Syslog"))}}}, eight(0), text("p1"), GO, GETNEXT_REQ, "p1/"},
        {G, text("p1"), 1, {{PO, {p1}}, {GO, {R(group_rec("p1", "Syslog")), unknown}}}, "none", text("p1"), GO, GETNEXT_REQ, "p1/"},
        {G, text("p1"), 1, {{PO, {p1}}, {GO, {none}}}, "none", text("p1"), GO, GETNEXT_REQ, "p1/"},
        {G, text("p1"), 0, {{PO, {R(profile_rec("xml"))}}, {GO, {R(group_rec("xml", "Inventory"))}}}, eight(0x20), text("xml"), PO, GETNEXT_REQ, "p1"},
        {G, text("zz"), 1, {{PO, {unknown}}}, "none", text("zz"), GO, 0, "-"},
        // Commands: a walk resolves the type names (a GETNEXT of the types at the start and
        // after index 5) and writes the row back, also when the service went on to the next
        // type or to one the registry does not know; a GET; failures still name the indexes
        // tried, and a failed type lookup sends nothing for the command.
        {C, {}, 0, {{CO, {R(cmd_rec("Syslog", 1, "a"))}}}, "a", {1, 1}, CO, GETNEXT_REQ, "Syslog/0"},
        {C, {2}, 0, {{CO, {R(cmd_rec("Inventory", 3, "b"))}}}, "b", {2, 3}, CO, GETNEXT_REQ, "Inventory/0"},
        {C, {1, 2}, 0, {{CO, {R(cmd_rec("Syslog", 4, "c"))}}}, "c", {1, 4}, CO, GETNEXT_REQ, "Syslog/2"},
        {C, {1, 5}, 0, {{CO, {R(cmd_rec("Inventory", 1, "d"))}}}, "d", {2, 1}, CO, GETNEXT_REQ, "Inventory/0"},
        {C, {0, 5}, 0, {{CO, {R(cmd_rec("Syslog", 1, "z"))}}}, "z", {1, 1}, CO, GETNEXT_REQ, "Syslog/0"},
        {C, {1, 2}, 0, {{CO, {R(cmd_rec("Test", 2, "e"))}}}, "e", {4, 2}, CO, GETNEXT_REQ, "Syslog/2"},
        {C, {1, 2}, 0, {{CO, {R(cmd_rec("Gone", 1, "f"))}}}, "f", {1, 1}, CO, GETNEXT_REQ, "Syslog/2"},
        {CALLHOMEUSERDEFCLICMDSTATUS, {2, 3}, 1, {{CO, {R(cmd_rec("Inventory", 3, "g"))}}}, "1", {2, 3}, CO, GET_REQ, "Inventory/3"},
        {C, {1, 5}, 0, {}, "none", {2, 0}, CO, GETNEXT_REQ, "Inventory/0"},
        {C, {9, 1}, 0, {}, "none", {9, 1}, CO, 0, "-"}};
    // clang-format on
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Scenario &c = cases[i];
        SCOPED_TRACE(::testing::Message() << "case " << i);
        restart();
        queues = c.answers;
        const Read r = fetch(c.magic, c.index, c.exact);
        const bool text_value = column(c.magic).type == ASN_OCTET_STR;
        EXPECT_EQ(!r.value ? "none" : text_value ? r.str() : std::to_string(r.num()), c.value);
        EXPECT_EQ(r.oid_now(), arcs_of(c.magic) + c.row);
        const auto s = sent(c.opcode);
        ASSERT_EQ(s.empty(), c.key == "-");
        if (!s.empty()) {
            EXPECT_EQ(s[0].msg_type, c.msg_type);
            EXPECT_EQ(sent_key(s[0]), c.key);
        }
    }
}

// RowStatus lives in the module's record, where a write handler may change it.
TEST_F(TableReadTest, RowStatusIsReadFromTheModulesRecord) {
    queues[PO] = {record_reply(profile_rec("p1"))};
    EXPECT_EQ(fetch(CALLHOMEDESTPROFILESTATUS, text("p1"), 1).value,
              reinterpret_cast<u_char *>(&callHomeDestProfileEntry.row_status));
}

} // namespace
