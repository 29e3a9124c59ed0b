// Table reads through a real snmpd over a populated service, and notifications after a
// service restart. (Exact reads and misses: tests/mib/test_table_read.cpp; notifications in
// both deployments: test_agentx.cpp.)
#include "agent_env.hpp"

#include <set>

namespace agent_test {
namespace {

const std::string R = kRoot;

class AgentTableRead : public AgentEnv {
  protected:
    void SetUp() override {
        AgentEnv::SetUp();
        add_profile("ops", 3, 4000, 4);
        add_profile("ab", 2, 123456, 9);
        add_address("ops", 1, "oncall@example.com");
        add_address("ops", 2, "lead@example.com");
        add_address("ab", 7, "ab@example.com");
        add_group("ops", "Test");
        add_group("ops", "Syslog");
        add_group("ab", "all");
        add_command("Syslog", 1, "show logging");
        add_command("Syslog", 5, "show logging last 100");
        add_command("Configuration", 2, "show running-config");
        start_agent();
    }

    // Walks `oid` with `tool` and checks the result: exit 0, OIDs strictly increasing, no
    // duplicates, all inside the subtree.
    std::vector<std::pair<std::string, std::string>> walk(const std::string &tool,
                                                          const std::string &oid) {
        const auto r = snmp(tool, oid);
        EXPECT_EQ(r.status, 0) << r.out;
        auto vbs = varbinds(r.out);
        std::set<std::string> seen;
        for (size_t i = 0; i < vbs.size(); ++i) {
            EXPECT_EQ(vbs[i].first.rfind(oid + ".", 0), 0u) << vbs[i].first;
            EXPECT_TRUE(seen.insert(vbs[i].first).second) << "twice: " << vbs[i].first;
            if (i > 0) {
                EXPECT_TRUE(oid_less(vbs[i - 1].first, vbs[i].first)) << vbs[i].first;
            }
        }
        return vbs;
    }
    static std::map<std::string, std::string>
    as_map(const std::vector<std::pair<std::string, std::string>> &v) {
        return {v.begin(), v.end()};
    }
};

TEST_F(AgentTableRead, ProfileTableInBothWalks) {
    const std::string T = R + ".1.1.12";
    for (const char *tool : {"snmpwalk", "snmpbulkwalk"}) {
        const auto rows = as_map(walk(tool, T));
        // 5 profiles (3 built in), 6 columns.
        EXPECT_EQ(rows.size(), 30u) << tool;
        const std::string ops = text_index("ops"), ab = text_index("ab");
        EXPECT_EQ(rows.at(T + ".1.2" + ops), "INTEGER: 3");
        EXPECT_EQ(rows.at(T + ".1.3" + ops), "Gauge32: 4000");
        EXPECT_EQ(rows.at(T + ".1.4" + ops), "INTEGER: 1");
        EXPECT_EQ(rows.at(T + ".1.5" + ops), "INTEGER: 1");
        EXPECT_EQ(rows.at(T + ".1.6" + ops), "INTEGER: 5"); // stored one lower
        EXPECT_EQ(rows.at(T + ".1.6" + ab), "INTEGER: 10");
        // Syslog (5) and Test (7): bits 5 and 7 of the first octet.
        EXPECT_EQ(rows.at(T + ".1.7" + ops), "Hex-STRING: 05 00 00 00 00 00 00 00 ");
        // "all": every known type, indexes 1..7.
        EXPECT_EQ(rows.at(T + ".1.7" + ab), "Hex-STRING: 7F 00 00 00 00 00 00 00 ");
        EXPECT_EQ(rows.at(T + ".1.7" + text_index("xml")), "Hex-STRING: 00 00 00 00 00 00 00 00 ");
    }
}

TEST_F(AgentTableRead, EmailAddressTableInBothWalks) {
    const std::string T = R + ".1.1.14";
    for (const char *tool : {"snmpwalk", "snmpbulkwalk"}) {
        const auto vbs = walk(tool, T);
        ASSERT_EQ(vbs.size(), 6u) << tool;
        // Ordered by profile name (length first, as OIDs order), then index.
        EXPECT_EQ(vbs[0].first, T + ".1.2" + text_index("ab") + ".7");
        EXPECT_EQ(vbs[0].second, "STRING: \"ab@example.com\"");
        EXPECT_EQ(vbs[1].first, T + ".1.2" + text_index("ops") + ".1");
        EXPECT_EQ(vbs[2].first, T + ".1.2" + text_index("ops") + ".2");
        EXPECT_EQ(vbs[2].second, "STRING: \"lead@example.com\"");
        EXPECT_EQ(vbs[5].first, T + ".1.3" + text_index("ops") + ".2");
        EXPECT_EQ(vbs[5].second, "INTEGER: 1");
    }
}

TEST_F(AgentTableRead, AlertGroupTypeTableInBothWalks) {
    const std::string T = R + ".1.1.25";
    for (const char *tool : {"snmpwalk", "snmpbulkwalk"}) {
        const auto vbs = walk(tool, T);
        ASSERT_EQ(vbs.size(), 7u) << tool;
        EXPECT_EQ(vbs[0].first, T + ".1.2.1");
        EXPECT_EQ(vbs[0].second, "STRING: \"Configuration\"");
        EXPECT_EQ(vbs[6].first, T + ".1.2.7");
        EXPECT_EQ(vbs[6].second, "STRING: \"Test\"");
    }
}

TEST_F(AgentTableRead, UserCommandTableWalksAcrossTypes) {
    const std::string T = R + ".1.1.30";
    for (const char *tool : {"snmpwalk", "snmpbulkwalk"}) {
        const auto rows = walk(tool, T);
        // The max-count scalar, then 3 commands in 2 columns.
        ASSERT_EQ(rows.size(), 7u) << tool;
        EXPECT_EQ(rows[0].first, T + ".5.0");
        EXPECT_EQ(rows[1].first, T + ".6.1.2.1.2");
        EXPECT_EQ(rows[1].second, "STRING: \"show running-config\"");
        EXPECT_EQ(rows[2].first, T + ".6.1.2.5.1");
        EXPECT_EQ(rows[3].first, T + ".6.1.2.5.5");
        EXPECT_EQ(rows[3].second, "STRING: \"show logging last 100\"");
        EXPECT_EQ(rows[6].first, T + ".6.1.3.5.5");
    }
}

// Names of 1 and 31 characters beside the others: OIDs order by length first. The walk is
// the same when reads go through the distribution service.
TEST_F(AgentTableRead, WholeSubtreeWalkSeesEveryRowOnce) {
    add_profile("a");
    add_profile(std::string(31, 'm').c_str());
    add_address("a", 1, "a@example.com");
    const auto plain = walk("snmpwalk", R);
    EXPECT_EQ(plain, walk("snmpbulkwalk", R));
    ASSERT_EQ(ctl({"distribution", "on", "mode", "0"}).status, 0);
    EXPECT_EQ(plain, walk("snmpwalk", R));
}

TEST_F(AgentTableRead, NotificationsResumeAfterAServiceRestart) {
    start_trapd();
    stop_service();
    start_service();
    // The agent's listener reconnects on its own; until it has, a change goes unannounced,
    // so keep changing the type list until one is announced.
    ASSERT_TRUE(eventually(
        [&] {
            ctl({"group", "add", "Security"});
            ctl({"group", "del", "Security"});
            return traps().find(R + ".0.") != std::string::npos;
        },
        20))
        << traps();
}

} // namespace
} // namespace agent_test
