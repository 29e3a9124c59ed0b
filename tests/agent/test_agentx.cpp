// The same module behind both deployments: loaded into snmpd (dlmod) and as the
// callhome-agentx subagent of an snmpd AgentX master. Reads, a SET that must be undone, and
// the notifications go through snmpd's UDP port in both; the AgentX-only cases cover the
// subagent's life next to its master.
#include "agent_env.hpp"

#include <algorithm>

namespace agent_test {

// gtest prints the parameter with this (found next to AgentMode) instead of its bytes.
void PrintTo(AgentMode mode, std::ostream *os);
void PrintTo(AgentMode mode, std::ostream *os) {
    *os << mode_name(mode);
}

namespace {

const std::string R = kRoot;

class BothModes : public AgentEnv, public ::testing::WithParamInterface<AgentMode> {
  protected:
    void SetUp() override {
        agent_mode_ = GetParam();
        AgentEnv::SetUp();
    }
};

INSTANTIATE_TEST_SUITE_P(Deployments, BothModes,
                         ::testing::Values(AgentMode::Dlmod, AgentMode::AgentX),
                         [](const auto &info) { return mode_name(info.param); });

TEST_P(BothModes, WalkServesScalarsTablesAndStatus) {
    start_agent();
    const auto r = snmp("snmpwalk", R);
    ASSERT_EQ(r.status, 0) << r.out;
    const auto vbs = varbinds(r.out);
    std::map<std::string, std::string> by_oid(vbs.begin(), vbs.end());
    EXPECT_EQ(by_oid.size(), vbs.size()) << "an object came twice";
    for (size_t i = 1; i < vbs.size(); ++i) {
        EXPECT_TRUE(oid_less(vbs[i - 1].first, vbs[i].first))
            << vbs[i - 1].first << " then " << vbs[i].first;
    }
    // First-start values, from the service or the module's defaults.
    const std::map<std::string, std::string> expected = {
        {".1.1.1.0", "INTEGER: 2"},    // service off at first start
        {".1.1.2.0", "\"\""},          // never set
        {".1.1.8.0", "INTEGER: 8"},    // unset priority
        {".1.1.18.0", "INTEGER: 16"},  // DNS name
        {".1.1.29.0", "INTEGER: 1"},   // throttling on
        {".1.1.9.0", "INTEGER: 1"},    // the trigger reads noAction
        {".1.1.13.0", "Gauge32: 50"},  // profile maximum
        {".1.1.20.0", "Gauge32: 25"},  // SMTP port default
        {".1.1.30.5.0", "Gauge32: 5"}, // commands per alert-group type
        {".1.1.33.1.0", "STRING: \"08:00\""},
        {".1.2.2.0", "Counter32: 0"},
        // A built-in profile with its format and the short message size.
        {".1.1.12.1.2" + text_index("short_txt"), "INTEGER: 3"},
        {".1.1.12.1.3" + text_index("short_txt"), "Gauge32: 4000"},
        {".1.1.12.1.5" + text_index("short_txt"), "INTEGER: 1"},
    };
    for (const auto &[oid, value] : expected) {
        const auto it = by_oid.find(R + oid);
        ASSERT_NE(it, by_oid.end()) << oid << " missing from the walk";
        EXPECT_EQ(it->second, value) << oid;
    }
    // The alert-group type table lists the service's types; the three built-in profiles
    // appear in every column; the time of day sits between the command table and the status
    // group.
    EXPECT_EQ(by_oid[R + ".1.1.25.1.2.7"], "STRING: \"Test\"");
    for (int column = 2; column <= 7; ++column) {
        for (const char *name : {"xml", "full_txt", "short_txt"}) {
            EXPECT_TRUE(by_oid.count(R + ".1.1.12.1." + std::to_string(column) + text_index(name)))
                << column << " " << name;
        }
    }
    auto position = [&](const std::string &oid) {
        return std::find_if(vbs.begin(), vbs.end(), [&](auto &v) { return v.first == R + oid; }) -
               vbs.begin();
    };
    EXPECT_LT(position(".1.1.30.5.0"), position(".1.1.33.1.0"));
    EXPECT_LT(position(".1.1.33.1.0"), position(".1.2.1.0"));
}

// A SET whose later variable fails leaves no trace of the profile its first variable
// created: whether the failure comes before anything reached the service (a column value
// out of range) or after the profile was created (a time of day that is refused only in the
// action phase, which makes the agent undo the creation).
TEST_P(BothModes, FailedMultiVariableSetLeavesNoProfile) {
    start_agent();
    const std::string status = R + ".1.1.12.1.5" + text_index("undo1");
    const std::string level = R + ".1.1.12.1.6" + text_index("undo1");
    const std::string time_of_day = R + ".1.1.33.1.0";
    struct Case {
        std::string what, second_varbind, error;
    };
    for (const Case &c : {Case{"level out of range", level + " i 11", "wrongValue"},
                          Case{"bad time of day", time_of_day + " s 25:00", "wrongValue"}}) {
        SCOPED_TRACE(c.what);
        const auto r = snmpset(status + " i 4 " + c.second_varbind);
        EXPECT_NE(r.status, 0) << r.out;
        EXPECT_NE(r.out.find(c.error), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("Failed object: "), std::string::npos) << r.out;
        EXPECT_NE(get(status).find("No Such Instance"), std::string::npos) << get(status);
        EXPECT_EQ(dump().find("\"undo1\""), std::string::npos) << dump();
    }
    // The time of day was not changed either.
    EXPECT_NE(get(time_of_day).find("\"08:00\""), std::string::npos);

    // The same request with valid values creates the profile (so the failures above were
    // the later variable's, not the creation's).
    const auto ok = snmpset(status + " i 4 " + level + " i 3");
    ASSERT_EQ(ok.status, 0) << ok.out;
    EXPECT_NE(get(status).find("INTEGER: 1"), std::string::npos);
    EXPECT_NE(get(level).find("INTEGER: 3"), std::string::npos);
}

// Alert-group types added and removed at the service reach the trap receiver through the
// agent (through the master in AgentX mode) with the type's name bound to its index.
TEST_P(BothModes, AlertGroupTypeChangesBecomeNotifications) {
    start_trapd();
    start_agent();
    const auto added = ctl({"group", "add", "Security"});
    ASSERT_EQ(added.status, 0) << added.out;
    // "added alert-group type INDEX NAME"
    const auto at = added.out.find("type ");
    ASSERT_NE(at, std::string::npos) << added.out;
    const std::string index = std::to_string(std::stoul(added.out.substr(at + 5)));
    const std::string binding = R + ".1.1.25.1.2." + index + " = STRING: \"Security\"";

    const auto has = [&](const std::string &notification) {
        const std::string log = traps();
        const auto at = log.find("OID: " + R + notification);
        return at != std::string::npos && log.find(binding, at) != std::string::npos;
    };
    EXPECT_TRUE(eventually([&] { return has(".0.2"); })) << traps();
    // The agent serves the new type as well.
    EXPECT_NE(get(R + ".1.1.25.1.2." + index).find("\"Security\""), std::string::npos);

    const auto deleted = ctl({"group", "del", "Security"});
    ASSERT_EQ(deleted.status, 0) << deleted.out;
    EXPECT_TRUE(eventually([&] { return has(".0.3"); })) << traps();
}

class AgentXOnly : public AgentEnv {
  protected:
    void SetUp() override {
        agent_mode_ = AgentMode::AgentX;
        AgentEnv::SetUp();
    }
    bool serving() const {
        return snmp("snmpget", R + ".1.1.13.0").out.find("Gauge32: 50") != std::string::npos;
    }
};

TEST_F(AgentXOnly, SubagentComesBackAfterTheMasterRestarts) {
    start_agent();
    stop_snmpd();
    start_snmpd();
    EXPECT_TRUE(eventually([&] { return serving(); }, 30)) << "subagent did not reconnect";
    // Writes go through the new session too.
    const auto r = snmpset(R + ".1.1.7.0 s lab-3");
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_NE(get(R + ".1.1.7.0").find("\"lab-3\""), std::string::npos);
}

TEST_F(AgentXOnly, SigtermStopsTheSubagentCleanly) {
    start_agent();
    subagent_.stop(); // SIGTERM, then waits for the process
    std::ifstream log(dir_ + "/callhome-agentx.log");
    std::stringstream s;
    s << log.rdbuf();
    EXPECT_NE(s.str().find("callhome-agentx: stopping"), std::string::npos) << s.str();
    // The master no longer has anyone for the subtree.
    EXPECT_TRUE(eventually([&] { return !serving(); }));
    EXPECT_NE(get(R + ".1.1.13.0").find("No Such Object"), std::string::npos);
}

} // namespace
} // namespace agent_test
