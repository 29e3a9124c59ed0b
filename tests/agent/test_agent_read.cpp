// Reads through a real snmpd: every scalar, service outages, module reload. (The walk of the
// whole subtree in both deployments: test_agentx.cpp.)
#include "agent_env.hpp"

namespace agent_test {
namespace {

const std::string R = kRoot;

using AgentRead = AgentEnv;

TEST_F(AgentRead, EveryScalarReadsTheServiceValue) {
    set_info("sysContactPhoneNumber", "+1 555 0100");
    set_info("sysContactEmail", "ops@example.com");
    set_info("sysStreetAddress", "1 Main Street");
    set_info("custId", "C-17");
    set_info("contractId", "K-9");
    set_info("siteId", "lab 3");
    set_info("priority", "3");
    cmi_email_conf_t email{};
    std::strcpy(email.from_email_addr, "device@example.com");
    std::strcpy(email.reply_to, "noc@example.com");
    std::strcpy(email.return_receipt_addr, "receipts@example.com");
    std::strcpy(email.smtp_server, "192.0.2.25");
    email.address_type = htonl(CALLHOME_ADDR_IPV4);
    email.smtp_server_port = htonl(2525);
    service_set(CALLHOME_EMAIL_CONF_OPC, email);
    service_set(CALLHOME_ENABLE_OPC, callhome_switch_t{htonl(1), 0});
    service_set(CALLHOME_MSG_THROTTLING_OPC, callhome_switch_t{htonl(0), 0});
    service_set(CALLHOME_PERIODIC_INVENTORY_OPC,
                callhome_periodic_inventory_t{htonl(0), htonl(14), 0, htonl(605)});
    start_agent();

    const std::vector<std::pair<std::string, std::string>> expected = {
        {".1.1.1.0", "INTEGER: 1"},
        {".1.1.2.0", "STRING: \"+1 555 0100\""},
        {".1.1.3.0", "STRING: \"ops@example.com\""},
        {".1.1.4.0", "STRING: \"1 Main Street\""},
        {".1.1.5.0", "STRING: \"C-17\""},
        {".1.1.6.0", "STRING: \"K-9\""},
        {".1.1.7.0", "STRING: \"lab 3\""},
        {".1.1.8.0", "INTEGER: 4"}, // the service keeps 0..7, the MIB shows 1..8
        {".1.1.9.0", "INTEGER: 1"},
        {".1.1.10.0", "INTEGER: 2"},
        {".1.1.13.0", "Gauge32: 50"},
        {".1.1.15.0", "STRING: \"device@example.com\""},
        {".1.1.16.0", "STRING: \"noc@example.com\""},
        {".1.1.17.0", "STRING: \"receipts@example.com\""},
        {".1.1.18.0", "INTEGER: 1"},
        {".1.1.19.0", "Hex-STRING: C0 00 02 19 "},
        {".1.1.20.0", "Gauge32: 2525"},
        {".1.1.27.0", "INTEGER: 2"},
        {".1.1.28.0", "Gauge32: 14"},
        {".1.1.29.0", "INTEGER: 2"},
        {".1.1.30.5.0", "Gauge32: 5"},
        {".1.1.33.1.0", "STRING: \"10:05\""},
        {".1.2.1.0", "Timeticks: (0) 0:00:00.00"},
        {".1.2.2.0", "Counter32: 0"},
    };
    std::string oids;
    for (const auto &e : expected) {
        oids += " " + R + e.first;
    }
    const auto got = varbinds(snmp("snmpget", oids).out);
    ASSERT_EQ(got.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(got[i].first, R + expected[i].first);
        EXPECT_EQ(got[i].second, expected[i].second) << expected[i].first;
    }
}

TEST_F(AgentRead, InstanceMustBeExactlyDotZero) {
    start_agent();
    EXPECT_NE(get(R + ".1.1.13").find("No Such"), std::string::npos);
    EXPECT_NE(get(R + ".1.1.13.0.1").find("No Such"), std::string::npos);
    EXPECT_NE(get(R + ".1.1.13.1").find("No Such"), std::string::npos);
}

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

TEST_F(AgentRead, UnansweredRequestTimesOutAndTheNextReadGetsItsOwnAnswer) {
    set_info("custId", "C-17");
    set_info("siteId", "lab 3");
    start_agent();
    ASSERT_EQ(ctl({"fault", "delay", "CALLHOME_INFO_OPC", "3000"}).status, 0);
    // The module waits two seconds, then gives up on this read.
    const auto first = snmp("snmpget", R + ".1.1.5.0");
    EXPECT_NE(first.out.find("No Such"), std::string::npos) << first.out;
    // The late answer to the first read must not be taken as the answer to this one.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
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
