// Writes of a profile's alert groups: the bit string written is turned into one SET or DELETE
// per group that changes, with "all" standing for every known type.
#include <gtest/gtest.h>

#include "table_write_driver.hpp"

namespace callhome_test {
namespace {

struct PlatformReset {
    PlatformReset() { platform::reset_for_tests(); }
};

// Type indexes 1, 2 and 3; bit i is the i-th bit of the string, most significant first.
constexpr uint8_t kConfiguration = 0x40;
constexpr uint8_t kDiagnostic = 0x20;
constexpr uint8_t kInventory = 0x10;
constexpr uint8_t kAllTypes = kConfiguration | kDiagnostic | kInventory;

class AlertGroupWrite : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::set_snmp_context("ops", 9);
        init_callhome_mib();
        model.types = {{1, "Configuration"}, {2, "Diagnostic"}, {3, "Inventory"}};
        model.add_profile("p1");
    }
    void TearDown() override {
        expect_containers_empty();
        deinit_callhome_mib();
    }

    // (message type, group) of every write, checked for the record and channel arguments.
    std::vector<std::pair<int, std::string>> changes() const {
        std::vector<std::pair<int, std::string>> out;
        const auto w = writes(channel);
        for (const auto &r : w) {
            EXPECT_EQ(r.opcode, CALLHOME_PROFILE_ALERTGROUP_OPC);
            EXPECT_EQ(r.client, 66);
            EXPECT_EQ(r.wait, 10);
            EXPECT_EQ(r.user, "ops");
            EXPECT_EQ(r.session, 9u);
            EXPECT_FALSE(r.wants_record);
            EXPECT_EQ(r.record.size(), sizeof(callHomeAlertGroupEntry_t));
            const auto e = FakeChannel::as<callHomeAlertGroupEntry_t>(r);
            EXPECT_STREQ(e.destination_profile_id, "p1");
            EXPECT_EQ(uint32_t(e.word), 0u);
            EXPECT_EQ(e.request_flag, 0);
            out.emplace_back(r.msg_type, e.alert_group);
        }
        std::vector<int> beats;
        for (size_t i = 0; i < w.size(); ++i) {
            beats.insert(beats.end(), {1, 0});
        }
        EXPECT_EQ(platform::heartbeat_log(), beats);
        return out;
    }

    static Varbind groups(std::vector<u_char> octets, const std::string &profile = "p1") {
        return Varbind{profile_oid(kGroups, profile), ASN_OCTET_STR, std::move(octets)};
    }

    PlatformReset reset_;
    FakeChannel channel;
    TableModel model{channel};
};

using Changes = std::vector<std::pair<int, std::string>>;

TEST_F(AlertGroupWrite, TransitionsSendOneRequestPerChangedGroup) {
    struct Case {
        const char *what;
        std::vector<std::string> old_groups;
        std::vector<u_char> value;
        Changes expected;
    };
    const Case cases[] = {
        {"none to one", {}, {kConfiguration}, {{SET_REQ, "Configuration"}}},
        {"swap",
         {"Configuration", "Diagnostic"},
         {kDiagnostic | kInventory},
         {{DELETE_REQ, "Configuration"}, {SET_REQ, "Inventory"}}},
        {"some to all",
         {"Configuration", "Inventory"},
         {kAllTypes},
         {{DELETE_REQ, "Configuration"}, {DELETE_REQ, "Inventory"}, {SET_REQ, "all"}}},
        {"none to all", {}, {kAllTypes, 0, 0, 0, 0, 0, 0, 0}, {{SET_REQ, "all"}}},
        {"all to all", {"all"}, {kAllTypes}, {}},
        {"all to none", {"all"}, {}, {{DELETE_REQ, "all"}}},
        {"all to zero octets", {"all"}, {0, 0}, {{DELETE_REQ, "all"}}},
        {"one to none", {"Diagnostic"}, {0}, {{DELETE_REQ, "Diagnostic"}}},
        {"unchanged", {"Diagnostic"}, {kDiagnostic}, {}},
        {"bits of unknown types are ignored", {}, {0x80, 0xFF}, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        model.groups.clear();
        for (const auto &g : c.old_groups) {
            model.add_group("p1", g);
        }
        channel.clear();
        platform::clear_heartbeat_log();
        const SetResult r = run_set({groups(c.value)});
        EXPECT_EQ(r.status, SNMP_ERR_NOERROR) << r;
        EXPECT_EQ(changes(), c.expected);
    }
}

TEST_F(AlertGroupWrite, AllIsReplacedOnlyByNone) {
    model.add_group("p1", "all");
    const SetResult r = run_set({groups({kConfiguration})});
    EXPECT_EQ(r.status, SNMP_ERR_WRONGVALUE);
    EXPECT_EQ(r.phase, ACTION);
    EXPECT_TRUE(changes().empty());
    EXPECT_EQ(model.groups.size(), 1u);
}

TEST_F(AlertGroupWrite, WithoutKnownTypesNothingIsSent) {
    model.types.clear();
    model.add_group("p1", "all");
    for (auto value : {std::vector<u_char>{}, std::vector<u_char>{0xFF}}) {
        channel.clear();
        EXPECT_EQ(run_set({groups(value)}).status, SNMP_ERR_NOERROR);
        EXPECT_TRUE(changes().empty());
    }
}

TEST_F(AlertGroupWrite, RefusalsInReserve1AndOfUnknownProfiles) {
    SetResult r = run_set({groups(std::vector<u_char>(9, 0))});
    EXPECT_EQ(r.status, SNMP_ERR_WRONGLENGTH);
    EXPECT_EQ(r.phase, RESERVE1);
    r = run_set({Varbind::integer(profile_oid(kGroups, "p1"), 1)});
    EXPECT_EQ(r.status, SNMP_ERR_WRONGTYPE);
    EXPECT_EQ(r.phase, RESERVE1);
    // Eight octets is the longest value.
    EXPECT_EQ(run_set({groups(std::vector<u_char>(8, 0))}).status, SNMP_ERR_NOERROR);
    // The profile must exist.
    r = run_set({groups({kConfiguration}, "nobody")});
    EXPECT_EQ(r.status, SNMP_ERR_NOSUCHNAME);
    EXPECT_EQ(r.phase, ACTION);
    EXPECT_TRUE(changes().empty());
}

TEST_F(AlertGroupWrite, ServiceFailuresOfSingleGroupsAreOnlyLogged) {
    model.fail(CALLHOME_PROFILE_ALERTGROUP_OPC, SET_REQ, CALLHOME_ERR_INVALID_INPUT);
    const SetResult r = run_set({groups({kConfiguration | kDiagnostic})});
    EXPECT_EQ(r.status, SNMP_ERR_NOERROR);
    EXPECT_EQ(changes(), (Changes{{SET_REQ, "Configuration"}, {SET_REQ, "Diagnostic"}}));
    EXPECT_EQ(platform::last_set_error(), std::make_pair(int32_t(CALLHOME_ERR_INVALID_INPUT), 472));
    EXPECT_EQ(model.groups.size(), 1u); // the second SET went through
}

TEST_F(AlertGroupWrite, UpdateSendsOneRecordAndMapsTheStatus) {
    callHomeAlertGroupEntry_t e{};
    std::strcpy(e.destination_profile_id, "p1");
    std::strcpy(e.alert_group, "Diagnostic");
    e.request_flag = 7;
    EXPECT_EQ(update_cmi_alertGroups(SET_REQ, &e), SNMP_ERR_NOERROR);
    EXPECT_EQ(changes(), (Changes{{SET_REQ, "Diagnostic"}}));

    channel.clear();
    platform::clear_heartbeat_log();
    e = callHomeAlertGroupEntry_t{};
    std::strcpy(e.destination_profile_id, "p1");
    std::strcpy(e.alert_group, "Inventory");
    EXPECT_EQ(update_cmi_alertGroups(DELETE_REQ, &e), SNMP_ERR_NOSUCHNAME);
    EXPECT_EQ(changes(), (Changes{{DELETE_REQ, "Inventory"}}));
    EXPECT_EQ(platform::last_set_error().first, CALLHOME_UNKNOWN_ENTRY);
}

} // namespace
} // namespace callhome_test
