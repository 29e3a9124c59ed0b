// Row writes through a real snmpd with snmpset: create, modify and destroy rows, refusals,
// and requests that the agent undoes.
#include "agent_env.hpp"

namespace agent_test {
namespace {

const std::string R = kRoot;

std::string profile_col(int column, const std::string &name) {
    return R + ".1.1.12.1." + std::to_string(column) + text_index(name);
}
std::string email_col(int column, const std::string &name, int index) {
    return R + ".1.1.14.1." + std::to_string(column) + text_index(name) + "." +
           std::to_string(index);
}
std::string command_col(int column, int type, int index) {
    return R + ".1.1.30.6.1." + std::to_string(column) + "." + std::to_string(type) + "." +
           std::to_string(index);
}

class AgentTableWrite : public AgentEnv {
  protected:
    void SetUp() override {
        AgentEnv::SetUp();
        start_agent();
    }
    CommandResult set(const std::string &args) const { return snmpset(args); }
    std::string value(const std::string &oid) const {
        const auto vbs = varbinds(get(oid));
        return vbs.size() == 1 ? vbs[0].second : get(oid);
    }
};

TEST_F(AgentTableWrite, AddressesGroupsAndCommandsOfAProfile) {
    ASSERT_EQ(error_status(set(profile_col(5, "ops") + " i 4")), "noError");
    ASSERT_EQ(error_status(set(email_col(3, "ops", 1) + " i 4 " + email_col(2, "ops", 1) +
                               " s oncall@example.com")),
              "noError");
    EXPECT_EQ(value(email_col(2, "ops", 1)), "STRING: \"oncall@example.com\"");
    EXPECT_EQ(value(email_col(3, "ops", 1)), "INTEGER: 1");

    // Test (7) and Syslog (5).
    ASSERT_EQ(error_status(set(profile_col(7, "ops") + " x 0500000000000000")), "noError");
    EXPECT_EQ(value(profile_col(7, "ops")), "Hex-STRING: 05 00 00 00 00 00 00 00 ");
    // Every known type becomes "all" at the service.
    ASSERT_EQ(error_status(set(profile_col(7, "ops") + " x 7F00000000000000")), "noError");
    EXPECT_EQ(value(profile_col(7, "ops")), "Hex-STRING: 7F 00 00 00 00 00 00 00 ");
    EXPECT_NE(dump().find("\"all\""), std::string::npos);
    // While subscribed to all, only clearing everything is accepted.
    EXPECT_EQ(error_status(set(profile_col(7, "ops") + " x 0100000000000000")), "wrongValue");
    ASSERT_EQ(error_status(set(profile_col(7, "ops") + " x 0000000000000000")), "noError");
    EXPECT_EQ(value(profile_col(7, "ops")), "Hex-STRING: 00 00 00 00 00 00 00 00 ");
    EXPECT_EQ(error_status(set(profile_col(7, "ops") + " x 000000000000000000")), "wrongLength");

    ASSERT_EQ(error_status(
                  set(command_col(3, 7, 1) + " i 4 " + command_col(2, 7, 1) + " s 'show version'")),
              "noError");
    EXPECT_EQ(value(command_col(2, 7, 1)), "STRING: \"show version\"");

    // Destroying rows.
    ASSERT_EQ(error_status(set(command_col(3, 7, 1) + " i 6")), "noError");
    EXPECT_NE(get(command_col(2, 7, 1)).find("No Such Instance"), std::string::npos);
    ASSERT_EQ(error_status(set(email_col(3, "ops", 1) + " i 6")), "noError");
    EXPECT_NE(get(email_col(2, "ops", 1)).find("No Such Instance"), std::string::npos);
    ASSERT_EQ(error_status(set(profile_col(5, "ops") + " i 6")), "noError");
    EXPECT_NE(get(profile_col(2, "ops")).find("No Such Instance"), std::string::npos);
    // Destroying what isn't there is not an error.
    EXPECT_EQ(error_status(set(profile_col(5, "ops") + " i 6")), "noError");
}

TEST_F(AgentTableWrite, RefusalsCarryTheirStatusAndChangeNothing) {
    add_profile("ops");
    add_address("ops", 1, "oncall@example.com");
    add_command("Test", 1, "show version");
    const std::string before = dump();
    struct Case {
        std::string args, status;
    };
    // The built-in rows, and one case per status as the manager sees it; the module's checks
    // are in the unit tables (tests/mib/test_table_write.cpp).
    const std::vector<Case> cases = {
        // The built-in rows exist, so creating one is refused as for any existing row.
        {profile_col(5, "xml") + " i 4", "inconsistentValue"},
        {profile_col(5, "full_txt") + " i 6", "genErr"},
        {profile_col(2, "short_txt") + " i 2", "notWritable"},
        {profile_col(5, "p1") + " i 4 " + profile_col(6, "p1") + " i 11", "wrongValue"},
        {email_col(3, "ops", 2) + " i 4", "inconsistentValue"}, // no address given
        {command_col(3, 7, 2) + " i 4 " + command_col(2, 7, 2) + " s " + std::string(600, 'x'),
         "wrongLength"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(error_status(set(c.args)), c.status) << c.args;
    }
    EXPECT_EQ(dump(), before);
}

// The destroyed profile comes back with its addresses and alert groups.
TEST_F(AgentTableWrite, AFailureLaterInTheRequestUndoesEarlierRows) {
    add_profile("keep", 2, 1234, 3);
    add_address("keep", 1, "k@example.com");
    add_group("keep", "Test");
    // The time of day is refused in ACTION, after the profile rows were sent.
    const auto r = set(profile_col(5, "new") + " i 4 " + profile_col(5, "keep") + " i 6 " + R +
                       ".1.1.33.1.0 s 25:00");
    EXPECT_EQ(error_status(r), "wrongValue");
    EXPECT_NE(get(profile_col(2, "new")).find("No Such Instance"), std::string::npos);
    EXPECT_EQ(value(profile_col(2, "keep")), "INTEGER: 2");
    EXPECT_EQ(value(profile_col(3, "keep")), "Gauge32: 1234");
    EXPECT_EQ(value(profile_col(6, "keep")), "INTEGER: 4");
    EXPECT_EQ(value(email_col(2, "keep", 1)), "STRING: \"k@example.com\"");
    EXPECT_EQ(value(profile_col(7, "keep")), "Hex-STRING: 01 00 00 00 00 00 00 00 ");
}

} // namespace
} // namespace agent_test
