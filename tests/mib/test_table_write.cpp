// Row writes outside whole SET requests (what whole requests send, refuse and put back: the
// golden session).
#include <gtest/gtest.h>

#include "mib_support.hpp"

namespace callhome_test {
namespace {

class TableWrite : public ::testing::Test {
  protected:
    void SetUp() override { platform::set_snmp_context("admin", 77); }
    PlatformReset reset_;
    FakeChannel channel; // every request: unknown entry
};

// One group's update clears the request flag and maps the service's status.
TEST_F(TableWrite, UpdateOfOneGroupClearsTheFlagAndMapsTheStatus) {
    callHomeAlertGroupEntry_t e = group_rec("old", "Diagnostic", 0);
    e.request_flag = 7;
    EXPECT_EQ(update_cmi_alertGroups(DELETE_REQ, &e), SNMP_ERR_NOSUCHNAME);
    ASSERT_EQ(channel.count(), 1u);
    const auto sent = FakeChannel::as<callHomeAlertGroupEntry_t>(channel.last());
    EXPECT_EQ(
        std::make_tuple(channel.last().msg_type, sent.request_flag, std::string(sent.alert_group)),
        std::make_tuple(int{DELETE_REQ}, uint8_t{0}, std::string("Diagnostic")));
    EXPECT_EQ(update_cmi_alertGroups(SET_REQ, nullptr), SNMP_ERR_GENERR);
}

// Phase numbers a SET never uses, and no current value, change nothing and send nothing.
TEST_F(TableWrite, PhasesOutsideTheSetAndAbsentCurrentValuesAreHarmless) {
    Varbind vb = int_vb(profile_oid(kProfileStatus, "p1"), 4);
    for (WriteMethod *m : {set_callHomeDestProfileStatus, set_callHomeDestProfileMsgFormat,
                           set_callHomeDestProfileMaxMsgSize, set_callHomeDestProfileTrnsprtMthd,
                           set_callHomeDestProfileMsgLevel, set_callHomeDestEmailAddress,
                           set_callHomeDestEmailAddressStatus, set_callHomeUserDefCliCmd,
                           set_callHomeUserDefCliCmdStatus, set_callhome_alertgroups,
                           set_callHomeEnable, set_callHomeSiteId, set_callHomeSmtpServerAddr}) {
        for (int action : {6, 9}) {
            EXPECT_EQ(m(action, vb.value.data(), vb.type, vb.value.size(), nullptr, vb.name.data(),
                        vb.name.size()),
                      0);
        }
    }
    EXPECT_EQ(channel.count(), 0u);
}

} // namespace
} // namespace callhome_test
