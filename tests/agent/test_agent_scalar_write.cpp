// Scalar writes through a real snmpd with snmpset, read back with snmpget and callhomectl.
#include "agent_env.hpp"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace agent_test {
namespace {

const std::string R = kRoot;

class AgentScalarWrite : public AgentEnv {
  protected:
    void SetUp() override {
        AgentEnv::SetUp();
        start_agent();
    }
    CommandResult set(const std::string &args) const { return snmpset(args); }
};

TEST_F(AgentScalarWrite, SeveralVariablesInOneRequestAllReachTheService) {
    const auto r = set(R + ".1.1.5.0 s C-17 " + R + ".1.1.6.0 s K-9 " + R + ".1.1.7.0 s 'lab 3' " +
                       R + ".1.1.8.0 i 6");
    ASSERT_EQ(error_status(r), "noError") << r.out;
    const auto vbs = varbinds(
        snmp("snmpget", R + ".1.1.5.0 " + R + ".1.1.6.0 " + R + ".1.1.7.0 " + R + ".1.1.8.0").out);
    ASSERT_EQ(vbs.size(), 4u);
    EXPECT_EQ(vbs[0].second, "STRING: \"C-17\"");
    EXPECT_EQ(vbs[1].second, "STRING: \"K-9\"");
    EXPECT_EQ(vbs[2].second, "STRING: \"lab 3\"");
    EXPECT_EQ(vbs[3].second, "INTEGER: 6");
    EXPECT_NE(dump().find("\"5\""), std::string::npos) << "priority travels one lower";
}

TEST_F(AgentScalarWrite, RefusalsCarryTheirStatusAndChangeNothing) {
    ASSERT_EQ(error_status(set(R + ".1.1.7.0 s site-1")), "noError");
    const std::string before = dump();
    struct Case {
        std::string args, status;
    };
    // One per status as the manager sees it; each handler's boundaries are in the unit tables
    // (tests/mib/test_scalars.cpp).
    const std::vector<Case> cases = {
        {".1.1.7.0 s ' lab'", "wrongValue"}, // leading space
        {".1.1.7.0 i 3", "wrongType"},
        {".1.1.7.0 s ''", "wrongLength"},
        {".1.1.2.0 s 1800", "genErr"}, // phone number without '+'
        {".1.1.18.0 i 3", "badValue"},
        {".1.1.33.1.0 s 24:00", "wrongValue"}, // refused in ACTION
    };
    for (const auto &c : cases) {
        EXPECT_EQ(error_status(set(R + c.args)), c.status) << c.args;
    }
    EXPECT_EQ(dump(), before);
}

TEST_F(AgentScalarWrite, SmtpTypeAndAddressTogetherInEitherOrder) {
    // IPv4: type first, then the four address bytes.
    ASSERT_EQ(error_status(set(R + ".1.1.18.0 i 1 " + R + ".1.1.19.0 x C0000219")), "noError");
    EXPECT_NE(dump().find("\"192.0.2.25\""), std::string::npos);
    EXPECT_NE(get(R + ".1.1.19.0").find("Hex-STRING: C0 00 02 19"), std::string::npos);

    // IPv6: the address first, then the type.
    ASSERT_EQ(error_status(
                  set(R + ".1.1.19.0 x 20010DB8000000000000000000000019 " + R + ".1.1.18.0 i 2")),
              "noError");
    EXPECT_NE(dump().find("\"2001:db8::19\""), std::string::npos);
    EXPECT_NE(get(R + ".1.1.18.0").find("INTEGER: 2"), std::string::npos);

    // Four bytes do not make an IPv6 address.
    EXPECT_EQ(error_status(set(R + ".1.1.18.0 i 2 " + R + ".1.1.19.0 x C0000219")), "wrongValue");

    // A name needs the DNS type.
    ASSERT_EQ(error_status(set(R + ".1.1.18.0 i 16 " + R + ".1.1.19.0 s mail.example.com")),
              "noError");
    EXPECT_NE(get(R + ".1.1.19.0").find("\"mail.example.com\""), std::string::npos);
    ASSERT_EQ(error_status(set(R + ".1.1.20.0 u 587")), "noError");
    EXPECT_NE(get(R + ".1.1.20.0").find("Gauge32: 587"), std::string::npos);
}

TEST_F(AgentScalarWrite, EmailHeadersAndThrottling) {
    ASSERT_EQ(error_status(set(R + ".1.1.15.0 s dev@example.com " + R +
                               ".1.1.16.0 s noc@example.com " + R + ".1.1.17.0 s rr@example.com")),
              "noError");
    EXPECT_NE(get(R + ".1.1.16.0").find("\"noc@example.com\""), std::string::npos);
    // The service refuses what is not an address; the manager sees genErr.
    EXPECT_EQ(error_status(set(R + ".1.1.15.0 s not-an-address")), "genErr");
    EXPECT_NE(get(R + ".1.1.15.0").find("\"dev@example.com\""), std::string::npos);

    ASSERT_EQ(error_status(set(R + ".1.1.29.0 i 2")), "noError");
    EXPECT_NE(get(R + ".1.1.29.0").find("INTEGER: 2"), std::string::npos);
}

// Queuing changes no status object; the delivery attempt's outcome does, and its reason is
// shown whole although the module cuts four characters off what it shows. A server that
// never greets holds the sender, never the agent.
TEST_F(AgentScalarWrite, TestMessageOutcomeReachesTheStatusObjects) {
    ASSERT_EQ(error_status(set(R + ".1.1.2.0 s '+1 555 0100' " + R + ".1.1.3.0 s ops@example.com " +
                               R + ".1.1.4.0 s '1 Main Street' " + R + ".1.1.1.0 i 1")),
              "noError");
    add_profile("ops");
    add_address("ops", 1, "oncall@example.com");
    add_group("ops", "Test");

    ASSERT_EQ(error_status(set(R + ".1.1.9.0 i 2")), "noError");
    EXPECT_NE(get(R + ".1.1.9.0").find("INTEGER: 1"), std::string::npos) << "a trigger reads 1";
    const auto outbox = ctl({"outbox"}).out;
    EXPECT_NE(outbox.find("oncall@example.com"), std::string::npos) << outbox;
    // No SMTP server is configured: the attempt fails at once, and nothing was sent.
    ASSERT_TRUE(
        eventually([&] { return get(R + ".1.1.10.0").find("INTEGER: 3") != std::string::npos; }));
    EXPECT_NE(get(R + ".1.1.11.0")
                  .find("message delivery failed -  no SMTP server configured "
                        "(callHomeSmtpServerAddr)\""),
              std::string::npos)
        << get(R + ".1.1.11.0");
    EXPECT_NE(get(R + ".1.2.2.0").find("Counter32: 0"), std::string::npos);

    // Writing 1 asks for no action at all.
    ASSERT_EQ(error_status(set(R + ".1.1.9.0 i 1")), "noError");
    EXPECT_EQ(outbox.size(), ctl({"outbox"}).out.size());

    // A listening socket nobody accepts from: the connection is made, no greeting comes.
    const int silent = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ASSERT_EQ(0, bind(silent, reinterpret_cast<sockaddr *>(&a), len));
    ASSERT_EQ(0, listen(silent, 8));
    getsockname(silent, reinterpret_cast<sockaddr *>(&a), &len);
    ASSERT_EQ(error_status(set(R + ".1.1.18.0 i 1 " + R + ".1.1.19.0 x 7F000001 " + R +
                               ".1.1.20.0 u " + std::to_string(ntohs(a.sin_port)))),
              "noError");
    ASSERT_EQ(error_status(set(R + ".1.1.9.0 i 2")), "noError");
    ASSERT_TRUE(
        eventually([&] { return ctl({"outbox"}).out.find("\"sending\"") != std::string::npos; }));
    for (int i = 0; i < 3; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_NE(get(R + ".1.1.10.0").find("INTEGER: 3"), std::string::npos);
        EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
    }
    close(silent);
}

} // namespace
} // namespace agent_test
