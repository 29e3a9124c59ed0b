// The module loaded into a real snmpd: what each SNMP status looks like to a manager, whole
// requests of several variables, the module's reload, and the service hung or locked. (Each
// handler's boundaries, values and traces: tests/mib; both deployments: test_agentx.cpp.)
#include "agent_env.hpp"

namespace agent_test {
namespace {

class Agent : public AgentEnv {
  protected:
    void SetUp() override {
        AgentEnv::SetUp();
        start_agent();
    }
};

// One case per status as the manager sees it, the built-in rows among them; nothing changes.
TEST_F(Agent, RefusalsCarryTheirStatusAndChangeNothing) {
    given(R + ".1.1.7.0 s site-1 " + profile_col(5, "ops") + " i 4");
    const std::string before = dump();
    struct Case {
        std::string args, status;
    } const cases[] = {
        {R + ".1.1.7.0 s ' lab'", "wrongValue"}, // leading space
        {R + ".1.1.7.0 i 3", "wrongType"},
        {R + ".1.1.7.0 s ''", "wrongLength"},
        {R + ".1.1.2.0 s 1800", "genError"}, // phone number without '+'
        {R + ".1.1.18.0 i 3", "badValue"},
        {profile_col(5, "xml") + " i 4", "inconsistentValue"}, // it exists
        {profile_col(5, "full_txt") + " i 6", "genError"},
        {profile_col(2, "short_txt") + " i 2", "notWritable"},
    };
    for (const auto &c : cases) {
        const auto r = snmp("snmpset", c.args);
        EXPECT_TRUE(refused_as(r, c.status)) << c.args << "\n" << r.out;
    }
    EXPECT_EQ(dump(), before);
}

// Variables of one request reach the service together in whatever order they come: the SMTP
// address before its type, a row's values beside its creation.
TEST_F(Agent, OneRequestWritesScalarsAndRows) {
    given(R + ".1.1.7.0 s 'lab 3' " + R + ".1.1.8.0 i 6 " + R +
          ".1.1.19.0 x 20010DB8000000000000000000000019 " + R + ".1.1.18.0 i 2");
    given(profile_col(5, "ops") + " i 4 " + profile_col(3, "ops") + " u 1234 " +
          email_col(3, "ops", 1) + " i 4 " + email_col(2, "ops", 1) + " s oncall@example.com " +
          command_col(3, 7, 1) + " i 4 " + command_col(2, 7, 1) + " s 'show version'");
    const std::string read[][2] = {
        {R + ".1.1.7.0", "STRING: \"lab 3\""},
        {R + ".1.1.8.0", "INTEGER: 6"},
        {R + ".1.1.18.0", "INTEGER: 2"},
        {profile_col(3, "ops"), "Gauge32: 1234"},
        {email_col(2, "ops", 1), "STRING: \"oncall@example.com\""},
        {command_col(2, 7, 1), "STRING: \"show version\""},
    };
    for (const auto &[oid, value] : read) {
        EXPECT_EQ(varbinds(get(oid)), (Varbinds{{oid, value}}));
    }
    EXPECT_NE(dump().find("\"2001:db8::19\""), std::string::npos) << dump();
    // Destroying a row, and destroying what is not there, both succeed.
    for (const auto &row : {command_col(3, 7, 1), email_col(3, "ops", 1), profile_col(5, "ops"),
                            profile_col(5, "ops")}) {
        given(row + " i 6");
    }
    for (const auto &oid : {command_col(2, 7, 1), email_col(2, "ops", 1), profile_col(3, "ops")}) {
        EXPECT_NE(get(oid).find("No Such Instance"), std::string::npos) << oid;
    }
}

// The trigger reads noAction at once; the attempt's failure, with the service's reason, reaches
// the status objects (the reason whole, although the module cuts four characters off it).
TEST_F(Agent, TestMessageOutcomeReachesTheStatusObjects) {
    given(R + ".1.1.2.0 s '+1 555 0100' " + R + ".1.1.3.0 s ops@example.com " + R +
          ".1.1.4.0 s '1 Main Street' " + R + ".1.1.1.0 i 1 " + profile_col(5, "ops") + " i 4 " +
          profile_col(7, "ops") + " x 0100000000000000");
    given(email_col(3, "ops", 1) + " i 4 " + email_col(2, "ops", 1) + " s oncall@example.com");
    given(R + ".1.1.9.0 i 2");
    EXPECT_NE(get(R + ".1.1.9.0").find("INTEGER: 1"), std::string::npos);
    EXPECT_NE(ctl("outbox").out.find("oncall@example.com"), std::string::npos);
    ASSERT_TRUE(
        eventually([&] { return get(R + ".1.1.10.0").find("INTEGER: 3") != std::string::npos; }));
    EXPECT_NE(get(R + ".1.1.11.0")
                  .find("message delivery failed -  no SMTP server configured "
                        "(callHomeSmtpServerAddr)\""),
              std::string::npos)
        << get(R + ".1.1.11.0");
}

TEST_F(Agent, UnloadAndReloadLeaveOneCopyOfEverything) {
    const std::string dlmod_status = ".1.3.6.1.4.1.2021.13.14.2.1.5.1";
    const auto before = varbinds(snmp("snmpwalk", R).out);
    ASSERT_FALSE(before.empty());
    given(dlmod_status + " i 5"); // unload
    EXPECT_NE(get(R + ".1.1.13.0").find("No Such Object"), std::string::npos);
    given(dlmod_status + " i 4"); // load
    EXPECT_EQ(varbinds(snmp("snmpwalk", R).out), before);
}

// The first request waits out one table read (4 s); everything after it answers at once while
// the service hangs, and all comes back once it resumes.
TEST_F(Agent, HungServiceCostsOneWaitThenAnswersFastAndRecovers) {
    given(R + ".1.1.7.0 s 'lab 3' " + profile_col(5, "ops") + " i 4");
    const auto before = varbinds(snmp("snmpwalk", R).out);
    service_.signal(SIGSTOP);
    const auto seconds = [&](const std::string &tool, const std::string &args) {
        const auto t0 = std::chrono::steady_clock::now();
        snmp(tool, args, 20);
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    };
    EXPECT_LT(seconds("snmpgetnext", R + ".1.1.12.1.2"), 4 + 1);
    const std::pair<const char *, std::string> later[] = {
        {"snmpgetnext", R + ".1.1.12.1.3"}, {"snmpget", R + ".1.1.7.0"},
        {"snmpbulkget", "-Cr10 " + R},      {"snmpgetnext", R + ".1.1.30"},
        {"snmpget", R + ".1.1.13.0"},       {"snmpset", R + ".1.1.7.0 s x"},
    };
    for (const auto &[tool, args] : later) {
        EXPECT_LT(seconds(tool, args), 1.0) << tool << " " << args;
    }
    service_.signal(SIGCONT);
    EXPECT_TRUE(
        eventually([&] { return get(R + ".1.1.7.0").find("\"lab 3\"") != std::string::npos; }));
    EXPECT_EQ(varbinds(snmp("snmpwalk", R).out), before);
}

// Another process holds the database's write lock: the SET fails as genErr, the service says
// why, and the next SET after the lock is gone works.
TEST_F(Agent, LockedDatabaseFailsTheSetWithItsReasonInTheLog) {
    Child holder({"/usr/bin/python3", "-c",
                  "import sqlite3, sys, time\n"
                  "c = sqlite3.connect(sys.argv[1], isolation_level=None)\n"
                  "c.execute('BEGIN IMMEDIATE')\n"
                  "print('locked', flush=True)\n"
                  "time.sleep(60)\n",
                  db_},
                 with_env(dir_ + "/holder.out"));
    ASSERT_TRUE(eventually([&] { return slurp(dir_ + "/holder.out") == "locked\n"; }));
    EXPECT_TRUE(refused_as(snmp("snmpset", R + ".1.1.7.0 s locked", 20), "genError"));
    EXPECT_NE(slurp(dir_ + "/callhomed.log").find("database is locked"), std::string::npos);
    holder.stop();
    given(R + ".1.1.7.0 s free");
    EXPECT_NE(get(R + ".1.1.7.0").find("\"free\""), std::string::npos);
}

} // namespace
} // namespace agent_test
