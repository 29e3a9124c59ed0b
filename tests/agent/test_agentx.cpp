// The same module behind both deployments: loaded into snmpd (dlmod) and as the
// callhome-agentx subagent of an snmpd AgentX master. Walks, a SET that must be undone, and
// the notifications go through snmpd's UDP port in both; the AgentX-only cases cover the
// subagent's life next to its master.
#include "agent_env.hpp"

#include <algorithm>

namespace agent_test {

namespace {

class BothModes : public AgentEnv, public ::testing::WithParamInterface<AgentMode> {
  protected:
    void SetUp() override {
        agent_mode_ = GetParam();
        AgentEnv::SetUp();
        start_agent();
    }
};

INSTANTIATE_TEST_SUITE_P(Deployments, BothModes,
                         ::testing::Values(AgentMode::Dlmod, AgentMode::AgentX),
                         [](const auto &info) { return mode_name(info.param); });

// Names of 1 and 31 characters beside the others: OIDs order by length first. Both walks and
// the walk through the distribution service see every row once, in OID order.
TEST_P(BothModes, WalksServeEveryRowOnceInOidOrder) {
    given(profile_col(5, "ops") + " i 4 " + profile_col(5, "ab") + " i 4 " + profile_col(5, "a") +
          " i 4 " + profile_col(5, std::string(31, 'm')) + " i 4");
    given(profile_col(6, "ab") + " i 10 " + profile_col(7, "ops") + " x 0500000000000000 " +
          profile_col(7, "ab") + " x 7F00000000000000");
    given(email_col(3, "ops", 2) + " i 4 " + email_col(2, "ops", 2) + " s lead@example.com " +
          email_col(3, "ops", 1) + " i 4 " + email_col(2, "ops", 1) + " s oncall@example.com " +
          email_col(3, "ab", 7) + " i 4 " + email_col(2, "ab", 7) + " s ab@example.com " +
          email_col(3, "a", 1) + " i 4 " + email_col(2, "a", 1) + " s a@example.com");
    given(command_col(3, 5, 1) + " i 4 " + command_col(2, 5, 1) + " s 'show logging' " +
          command_col(3, 5, 5) + " i 4 " + command_col(2, 5, 5) + " s 'show logging last 100' " +
          command_col(3, 1, 2) + " i 4 " + command_col(2, 1, 2) + " s 'show running-config'");
    const auto walk = snmp("snmpwalk", R);
    ASSERT_EQ(walk.status, 0) << walk.out;
    const auto vbs = varbinds(walk.out);
    for (size_t i = 0; i < vbs.size(); ++i) {
        EXPECT_EQ(vbs[i].first.rfind(R + ".", 0), 0u) << vbs[i].first;
        EXPECT_TRUE(i == 0 || oid_less(vbs[i - 1].first, vbs[i].first))
            << vbs[i - 1].first << " then " << vbs[i].first;
    }
    EXPECT_EQ(varbinds(snmp("snmpbulkwalk", R).out), vbs);
    ASSERT_EQ(ctl("distribution on mode 0").status, 0);
    EXPECT_EQ(varbinds(snmp("snmpwalk", R).out), vbs);

    // Rows per table: 7 profiles (3 built in) in 6 columns, 4 addresses and 3 commands in 2,
    // the service's 7 alert-group types.
    const std::pair<std::string, size_t> rows[] = {
        {".1.1.12.", 42}, {".1.1.14.", 8}, {".1.1.30.6.", 6}, {".1.1.25.", 7}};
    for (const auto &[table, n] : rows) {
        EXPECT_EQ(size_t(std::count_if(vbs.begin(), vbs.end(),
                                       [&](auto &v) { return v.first.rfind(R + table, 0) == 0; })),
                  n)
            << table;
    }
    const std::map<std::string, std::string> by_oid(vbs.begin(), vbs.end());
    const std::string expected[][2] = {
        // A built-in profile with its format and the short message size.
        {profile_col(2, "short_txt"), "INTEGER: 3"},
        {profile_col(3, "short_txt"), "Gauge32: 4000"},
        {profile_col(5, "short_txt"), "INTEGER: 1"},
        {profile_col(7, "xml"), "Hex-STRING: 00 00 00 00 00 00 00 00 "},
        {profile_col(6, "ab"), "INTEGER: 10"},
        {profile_col(7, "ops"), "Hex-STRING: 05 00 00 00 00 00 00 00 "},
        {profile_col(7, "ab"), "Hex-STRING: 7F 00 00 00 00 00 00 00 "},
        {email_col(2, "ab", 7), "STRING: \"ab@example.com\""},
        {email_col(2, "ops", 2), "STRING: \"lead@example.com\""},
        {command_col(2, 5, 5), "STRING: \"show logging last 100\""},
        {R + ".1.1.25.1.2.7", "STRING: \"Test\""},
        {R + ".1.1.33.1.0", "STRING: \"08:00\""},
    };
    for (const auto &[oid, value] : expected) {
        EXPECT_EQ(by_oid.count(oid) ? by_oid.at(oid) : "missing", value) << oid;
    }
}

// A SET whose later variable fails leaves no trace: whether the failure comes before anything
// reached the service (a column value out of range) or in the action phase, after the new
// profile was created and another destroyed (a time of day refused only there), which makes
// the agent put back the destroyed profile with its addresses and alert groups.
TEST_P(BothModes, FailedMultiVariableSetIsUndone) {
    given(profile_col(5, "keep") + " i 4 " + profile_col(3, "keep") + " u 1234 " +
          profile_col(6, "keep") + " i 4");
    given(profile_col(7, "keep") + " x 0100000000000000 " + email_col(3, "keep", 1) + " i 4 " +
          email_col(2, "keep", 1) + " s k@example.com");
    const std::string before = dump();
    const std::string create = profile_col(5, "new") + " i 4 ";
    for (const auto &late : {profile_col(6, "new") + " i 11",
                             profile_col(5, "keep") + " i 6 " + R + ".1.1.33.1.0 s 25:00"}) {
        SCOPED_TRACE(late);
        const auto r = snmp("snmpset", create + late);
        EXPECT_TRUE(refused_as(r, "wrongValue")) << r.out;
        EXPECT_EQ(dump(), before);
        EXPECT_NE(get(profile_col(3, "keep")).find("Gauge32: 1234"), std::string::npos);
        EXPECT_NE(get(profile_col(2, "new")).find("No Such Instance"), std::string::npos);
    }
    // The same request with valid values creates the profile (so the failures above were the
    // later variable's, not the creation's).
    given(create + profile_col(6, "new") + " i 3");
    EXPECT_NE(get(profile_col(6, "new")).find("INTEGER: 3"), std::string::npos);
}

// Alert-group types added and removed at the service reach the trap receiver through the
// agent (through the master in AgentX mode) with the type's name bound to its index, also
// after the service restarted.
TEST_P(BothModes, AlertGroupTypeChangesBecomeNotifications) {
    start_trapd();
    const auto added = ctl("group add Security");
    ASSERT_EQ(added.status, 0) << added.out;
    // "added alert-group type INDEX NAME"
    const auto at = added.out.find("type ");
    ASSERT_NE(at, std::string::npos) << added.out;
    const std::string index = std::to_string(std::stoul(added.out.substr(at + 5)));
    const std::string binding = R + ".1.1.25.1.2." + index + " = STRING: \"Security\"";
    const auto has = [&](const std::string &notification, size_t from = 0) {
        const std::string log = traps();
        const auto at = log.find("OID: " + R + notification, from);
        return at != std::string::npos && log.find(binding, at) != std::string::npos;
    };
    EXPECT_TRUE(eventually([&] { return has(".0.2"); })) << traps();
    // The agent serves the new type as well.
    EXPECT_NE(get(R + ".1.1.25.1.2." + index).find("\"Security\""), std::string::npos);
    ASSERT_EQ(ctl("group del Security").status, 0);
    EXPECT_TRUE(eventually([&] { return has(".0.3"); })) << traps();

    // After a restart of the service reads answer again at once; the listener reconnects on
    // its own, and until it has a change goes unannounced, so keep changing the type list
    // until one is announced.
    const size_t seen = traps().size();
    service_.stop();
    start_service();
    EXPECT_NE(get(R + ".1.1.25.1.2.7").find("\"Test\""), std::string::npos);
    EXPECT_TRUE(eventually(
        [&] {
            ctl("group add Security");
            ctl("group del Security");
            return has(".0.", seen);
        },
        20))
        << traps();
}

class AgentXOnly : public AgentEnv {
  protected:
    void SetUp() override {
        agent_mode_ = AgentMode::AgentX;
        AgentEnv::SetUp();
        start_agent();
    }
};

TEST_F(AgentXOnly, SubagentComesBackAfterTheMasterRestartsAndWritesThroughIt) {
    agent_.stop();
    start_snmpd();
    EXPECT_TRUE(eventually([&] { return serving(); }, 30)) << "subagent did not reconnect";
    given(R + ".1.1.7.0 s lab-3");
    EXPECT_NE(get(R + ".1.1.7.0").find("\"lab-3\""), std::string::npos);
}

TEST_F(AgentXOnly, SigtermStopsTheSubagentCleanly) {
    subagent_.stop(); // SIGTERM, then waits for the process
    const std::string log = slurp(dir_ + "/callhome-agentx.log");
    EXPECT_NE(log.find("callhome-agentx: stopping"), std::string::npos) << log;
    // The master no longer has anyone for the subtree.
    EXPECT_TRUE(eventually([&] { return !serving(); }));
    EXPECT_NE(get(R + ".1.1.13.0").find("No Such Object"), std::string::npos);
}

} // namespace
} // namespace agent_test
