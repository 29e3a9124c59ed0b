// Faults through a real snmpd and callhomed: a hung service, a write that arrives too late.
#include "agent_env.hpp"

namespace agent_test {
namespace {

const std::string R = kRoot;

class AgentFaults : public AgentEnv {
  protected:
    // A net-snmp tool with a long timeout (writes over SNMPv3); returns the seconds it took.
    double timed(const std::string &tool, const std::string &args,
                 CommandResult *out = nullptr) const {
        const auto t0 = std::chrono::steady_clock::now();
        const std::string security = tool == "snmpset" ? v3_options() : "-v2c -c public";
        auto r = run("MIBS= " + tool + " " + security +
                     " -On -r 0 -t 20 127.0.0.1:" + std::to_string(port_) + " " + args);
        if (out != nullptr) {
            *out = r;
        }
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    }
    std::string log() const {
        std::ifstream f(dir_ + "/callhomed.log");
        std::stringstream s;
        s << f.rdbuf();
        return s.str();
    }
};

TEST_F(AgentFaults, StoppedServiceCostsOneWaitThenAnswersFastAndRecovers) {
    set_info("siteId", "lab 3");
    add_profile("ops");
    start_agent();
    const auto before = varbinds(snmp("snmpwalk", R).out);
    ASSERT_GT(before.size(), 20u);

    service_.signal(SIGSTOP);
    // The walk's first request waits out one table read (4 s) ...
    EXPECT_LT(timed("snmpgetnext", R + ".1.1.12.1.2"), 4 + 1);
    // ... and everything after it answers at once while the service hangs.
    const std::pair<const char *, std::string> later[] = {
        {"snmpgetnext", R + ".1.1.12.1.3"}, {"snmpget", R + ".1.1.7.0"},
        {"snmpbulkget", "-Cr10 " + R},      {"snmpgetnext", R + ".1.1.30"},
        {"snmpget", R + ".1.1.13.0"},       {"snmpset", R + ".1.1.7.0 s x"},
        {"snmpgetnext", R + ".1.1.12.1.2"},
    };
    for (const auto &[tool, args] : later) {
        EXPECT_LT(timed(tool, args), 1.0) << tool << " " << args;
    }
    service_.signal(SIGCONT);
    EXPECT_TRUE(
        eventually([&] { return get(R + ".1.1.7.0").find("\"lab 3\"") != std::string::npos; }));
    EXPECT_EQ(varbinds(snmp("snmpwalk", R).out), before);
}

TEST_F(AgentFaults, SetAnsweredGenErrAfterItsWaitIsNeverApplied) {
    set_info("siteId", "lab 3");
    start_agent();
    ASSERT_EQ(ctl({"fault", "delay", "CALLHOME_INFO_OPC", "11000", "--type", "3"}).status, 0);
    CommandResult set;
    timed("snmpset", R + ".1.1.7.0 s late", &set);
    EXPECT_EQ(error_status(set), "genErr") << set.out;
    // The service gets to the request after the module gave up, and refuses it.
    EXPECT_TRUE(eventually(
        [&] { return log().find("refused CALLHOME_INFO_OPC SET") != std::string::npos; }, 5))
        << log();
    EXPECT_NE(get(R + ".1.1.7.0").find("\"lab 3\""), std::string::npos);
}

TEST_F(AgentFaults, DestroyUndoneByALaterFailureGivesBackAddressesAndGroups) {
    add_profile("ops");
    add_address("ops", 1, "oncall@example.com");
    add_group("ops", "Test");
    start_agent();
    const std::string before = dump();
    CommandResult set;
    timed("snmpset",
          R + ".1.1.12.1.5" + text_index("ops") + " i 6 " + R + ".1.1.12.1.2" +
              text_index("ghost") + " i 2",
          &set);
    EXPECT_NE(error_status(set), "noError") << set.out;
    EXPECT_EQ(dump(), before);
}

// Another process holds the database's write lock: the SET fails as genErr, the service says why,
// and the next SET after the lock is gone works.
TEST_F(AgentFaults, LockedDatabaseFailsTheSetWithItsReasonInTheLog) {
    start_agent();
    Process holder({"/usr/bin/python3", "-c",
                    "import sqlite3, sys, time\n"
                    "c = sqlite3.connect(sys.argv[1], isolation_level=None)\n"
                    "c.execute('BEGIN IMMEDIATE')\n"
                    "print('locked', flush=True)\n"
                    "time.sleep(60)\n",
                    db_},
                   {}, dir_ + "/holder.out");
    ASSERT_TRUE(eventually([&] {
        std::ifstream f(dir_ + "/holder.out");
        std::string line;
        return std::getline(f, line) && line == "locked";
    }));
    CommandResult set;
    timed("snmpset", R + ".1.1.7.0 s locked", &set);
    EXPECT_EQ(error_status(set), "genErr") << set.out;
    EXPECT_NE(log().find("database is locked"), std::string::npos) << log();
    holder.stop();
    timed("snmpset", R + ".1.1.7.0 s free", &set);
    EXPECT_EQ(error_status(set), "noError") << set.out;
    EXPECT_NE(get(R + ".1.1.7.0").find("\"free\""), std::string::npos);
}

} // namespace
} // namespace agent_test
