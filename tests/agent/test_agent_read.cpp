// Reads through a real snmpd: service outages and module reload. (The walk of the whole
// subtree in both deployments: test_agentx.cpp; the values of each scalar: the unit tables in
// tests/mib and the channel tests in tests/service.)
#include "agent_env.hpp"

namespace agent_test {
namespace {

const std::string R = kRoot;

using AgentRead = AgentEnv;

TEST_F(AgentRead, StoppedServiceGivesDefaultsOrNoValueAndRecoversWithoutAgentRestart) {
    set_info("siteId", "lab 3");
    start_agent();
    stop_service();

    // Constants need no request at all.
    EXPECT_NE(get(R + ".1.1.13.0").find("Gauge32: 50"), std::string::npos);
    EXPECT_NE(get(R + ".1.1.30.5.0").find("Gauge32: 5"), std::string::npos);
    EXPECT_NE(get(R + ".1.1.9.0").find("INTEGER: 1"), std::string::npos);
    // Objects with fixed defaults keep answering.
    EXPECT_NE(get(R + ".1.1.29.0").find("INTEGER: 1"), std::string::npos);
    EXPECT_NE(get(R + ".1.1.28.0").find("Gauge32: 7"), std::string::npos);
    EXPECT_NE(get(R + ".1.1.33.1.0").find("\"08:00\""), std::string::npos);
    // The others have no value while the service is away; the agent still answers.
    const auto site = snmp("snmpget", R + ".1.1.7.0");
    EXPECT_EQ(site.status, 0) << site.out;
    EXPECT_NE(site.out.find("No Such"), std::string::npos) << site.out;

    start_service();
    EXPECT_NE(get(R + ".1.1.7.0").find("\"lab 3\""), std::string::npos);
}

TEST_F(AgentRead, UnloadAndReloadLeaveOneCopyOfEverything) {
    start_agent();
    const std::string dlmod_status = ".1.3.6.1.4.1.2021.13.14.2.1.5.1";
    const auto before = varbinds(snmp("snmpwalk", R).out);
    ASSERT_FALSE(before.empty());

    ASSERT_EQ(snmpset(dlmod_status + " i 5").status, 0); // unload
    EXPECT_NE(get(R + ".1.1.13.0").find("No Such Object"), std::string::npos);

    ASSERT_EQ(snmpset(dlmod_status + " i 4").status, 0); // load
    const auto after = varbinds(snmp("snmpwalk", R).out);
    EXPECT_EQ(after, before);
}

} // namespace
} // namespace agent_test
