// Table reads against the real service in-process: a GETNEXT walk of each column meets every
// row once, in OID order, also with distribution on and with names of 1 to 31 characters.
// (Values, bits and notifications through a real agent: tests/agent/test_agent_table_read.cpp)
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "service_channel.hpp"
#include "table_read_support.hpp"

namespace {

using namespace callhome_read_test;
bool oid_less(const Arcs &a, const Arcs &b) {
    return snmp_oid_compare(a.data(), a.size(), b.data(), b.size()) < 0;
}

// GETNEXT from the bare column, each time from the OID returned, until the handler has no
// more; every OID must lie below the column and after the one before. The rows' indexes.
std::vector<Arcs> walk(u_char magic) {
    const Arcs col = arcs_of(magic);
    std::vector<Arcs> rows;
    for (Read r = fetch_at(magic, col, 0); r.value; r = fetch_at(magic, r.oid_now(), 0)) {
        const Arcs got = r.oid_now(),
                   index(got.begin() + long(std::min(col.size(), got.size())), got.end());
        if (got.size() <= col.size() || !std::equal(col.begin(), col.end(), got.begin()) ||
            (!rows.empty() && !oid_less(rows.back(), index)) || rows.size() > 100) {
            ADD_FAILURE() << "walk of " << int(magic) << " out of order after " << rows.size();
            break;
        }
        rows.push_back(index);
    }
    return rows;
}

class SvcTableReadTest : public ::testing::Test {
  protected:
    // Profiles of several name lengths next to the built-in ones (full_txt, xml, short_txt),
    // so that the service's order and the OIDs' order (length first) can disagree.
    void SetUp() override {
        platform::reset_for_tests();
        platform::set_snmp_context("ops", 11);
        svc.emplace();
        alertgroup_types[0].index = 0xFFFFFFFFu;
        for (const char *id : {"a", "p1", "zz", "mmmmmmmmmmmmmmmmmmmmmmmmmmmmmmm"}) {
            set(CALLHOME_DEST_PROFILE_OPC, profile_rec(id, id[0] == 'z' ? 3 : 1, 100000, 2));
        }
        set(CALLHOME_DEST_EMAIL_OPC, email_rec("full_txt", 1, "noc@example.com"));
        set(CALLHOME_DEST_EMAIL_OPC, email_rec("p1", 4, "oncall@example.com"));
        set(CALLHOME_DEST_EMAIL_OPC, email_rec("a", 1, "a@example.com"));
        set(CALLHOME_PROFILE_ALERTGROUP_OPC, group_rec("p1", "Syslog"));
        set(CALLHOME_USER_DEF_CMD_OPC, cmd_rec(1, "Syslog", "show logging"));
        set(CALLHOME_USER_DEF_CMD_OPC, cmd_rec(5, "Syslog", "show clock"));
        set(CALLHOME_USER_DEF_CMD_OPC, cmd_rec(2, "Configuration", "show running-config"));
        set(CALLHOME_USER_DEF_CMD_OPC, cmd_rec(3, "Test", "show version"));
    }
    // Writes a row straight to the service, as the row writes of the module send it.
    template <class Record> void set(int opcode, const Record &rec) {
        uint32_t len = sizeof rec;
        ASSERT_EQ(cmi_req_resp(opcode, SET_REQ, &rec, nullptr, &len, "ops", 1,
                               CALLHOME_CLIENT_TABLE, mts_response_q, 10),
                  0);
    }
    std::optional<callhome_test::ServiceChannel> svc;
};

TEST_F(SvcTableReadTest, EveryColumnWalksEveryRowOnceInOidOrder) {
    std::vector<Arcs> profiles = {
        text("full_txt"), text("xml"), text("short_txt"),         text("a"),
        text("p1"),       text("zz"),  text(std::string(31, 'm'))};
    std::vector<Arcs> emails = {text("full_txt") + Arcs{1}, text("p1") + Arcs{4},
                                text("a") + Arcs{1}};
    std::sort(profiles.begin(), profiles.end(), oid_less);
    std::sort(emails.begin(), emails.end(), oid_less);
    // Types 1..7 by default: Configuration 1, Syslog 5, Test 7; index 5 is the last of a type.
    const std::vector<Arcs> commands = {{1, 2}, {5, 1}, {5, 5}, {7, 3}};
    const std::pair<u_char, const std::vector<Arcs> *> columns[] = {
        {CALLHOMEDESTPROFILEMSGFORMAT, &profiles},   {CALLHOMEDESTPROFILEMAXMSGSIZE, &profiles},
        {CALLHOMEDESTPROFILETRNSPRTMTHD, &profiles}, {CALLHOMEDESTPROFILESTATUS, &profiles},
        {CALLHOMEDESTPROFILEMSGLEVEL, &profiles},    {CALLHOMEALERTGROUPS, &profiles},
        {CALLHOMEDESTEMAILADDRESS, &emails},         {CALLHOMEDESTEMAILADDRESSSTATUS, &emails},
        {CALLHOMEUSERDEFCLICMD, &commands},          {CALLHOMEUSERDEFCLICMDSTATUS, &commands},
    };
    for (bool distribution : {false, true}) {
        if (distribution) {
            ASSERT_EQ(svc->admin({"distribution", "on", "mode", "0"}).first, 0);
        }
        for (const auto &[magic, expected] : columns) {
            EXPECT_EQ(walk(magic), *expected) << "magic " << int(magic) << " dist " << distribution;
        }
        EXPECT_EQ(walk(CALLHOMEALERTGROUPTYPENAME),
                  (std::vector<Arcs>{{1}, {2}, {3}, {4}, {5}, {6}, {7}}));
    }
}

} // namespace
