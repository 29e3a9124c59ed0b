// The module frame: the object table as the agent receives it, and loading and unloading with
// the index containers and notification registrations.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "callhome_mib.h"
#include "fake_channel.hpp"
#include "platform/testing.hpp"

namespace {

TEST(ObjectTable, RootIsTheDocumentationEnterpriseArc) {
    const oid root[] = {1, 3, 6, 1, 4, 1, 32473, 9, 300};
    ASSERT_EQ(sizeof root / sizeof root[0], size_t{CALLHOME_MIB_ROOT_LEN});
    for (size_t i = 0; i < CALLHOME_MIB_ROOT_LEN; ++i) {
        EXPECT_EQ(callhome_mib_variables_oid[i], root[i]) << i;
    }
}

TEST(ObjectTable, RegisteredOrderIsTheWalkOrder) {
    // Magics in table order: 12, 29 and 30 are gaps, and the time of day (39) comes last
    // although its OID sorts before the alert counters.
    std::vector<int> magics;
    for (const auto &v : callhome_mib_variables) {
        magics.push_back(v.magic);
    }
    std::vector<int> expected;
    for (int m = 1; m <= 39; ++m) {
        if (m != 12 && m != 29 && m != 30) {
            expected.push_back(m);
        }
    }
    EXPECT_EQ(magics, expected);

    auto suffix = [](int index) {
        const auto &v = callhome_mib_variables[index];
        return std::vector<oid>(v.name, v.name + v.namelen);
    };
    EXPECT_EQ(suffix(10), (std::vector<oid>{1, 1, 11}));          // the last scalar before
    EXPECT_EQ(suffix(11), (std::vector<oid>{1, 1, 12, 1, 2}));    // the profile table
    EXPECT_EQ(suffix(31), (std::vector<oid>{1, 1, 30, 6, 1, 2})); // user command column
    EXPECT_EQ(suffix(34), (std::vector<oid>{1, 2, 2}));
    EXPECT_EQ(suffix(35), (std::vector<oid>{1, 1, 33, 1}));

    // Types the agent encodes, and who may write.
    const auto &priority = callhome_mib_variables[7];
    EXPECT_EQ(priority.type, ASN_INTEGER);
    EXPECT_EQ(priority.acl, NETSNMP_OLDAPI_RWRITE);
    EXPECT_EQ(callhome_mib_variables[12].type, ASN_GAUGE); // maximum message size
    EXPECT_EQ(callhome_mib_variables[33].type, ASN_TIMETICKS);
    EXPECT_EQ(callhome_mib_variables[34].type, ASN_COUNTER);
    EXPECT_EQ(callhome_mib_variables[34].acl, NETSNMP_OLDAPI_RONLY);
    EXPECT_EQ(callhome_mib_variables[26].findVar, get_callHomeAlertGroupTypeTable);
    EXPECT_EQ(callhome_mib_variables[35].findVar, get_callhome_mib);
}

class ModuleLifecycle : public ::testing::Test {
  protected:
    void SetUp() override { platform::reset_for_tests(); }
    void TearDown() override {
        deinit_callhome_mib();
        platform::reset_for_tests();
    }

    static std::vector<indxobj_t *> containers() {
        return {callHomeDestEmailAddressEntry_undo_list,
                callHomeDestEmailAddressEntry_list,
                callHomeDestProfileEntry_list,
                callHomeDestProfileEntry_undo_list,
                callHomeUserDefCliCmd_list,
                callHomeUserDefCliCmd_undo_list};
    }
};

TEST_F(ModuleLifecycle, LoadAndUnloadTwiceLeaveNothingBehind) {
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        init_callhome_mib();
        EXPECT_EQ(platform::live_indxobj_count(), 6u);
        for (indxobj_t *c : containers()) {
            EXPECT_NE(c, nullptr);
        }
        EXPECT_EQ(platform::registered_notification_count(), 2u);

        deinit_callhome_mib();
        EXPECT_EQ(platform::live_indxobj_count(), 0u);
        for (indxobj_t *c : containers()) {
            EXPECT_EQ(c, nullptr);
        }
        EXPECT_EQ(platform::registered_notification_count(), 0u);
    }
}

TEST_F(ModuleLifecycle, ContainersAreSortedUniqueAndOwning) {
    init_callhome_mib();
    // Rows with the same profile name are one row; a second add is refused.
    auto *first =
        static_cast<callHomeDestProfileEntry_t *>(calloc(1, sizeof(callHomeDestProfileEntry_t)));
    auto *second =
        static_cast<callHomeDestProfileEntry_t *>(calloc(1, sizeof(callHomeDestProfileEntry_t)));
    strcpy(first->destination_profile_id, "p1");
    strcpy(second->destination_profile_id, "p1");
    ASSERT_EQ(indxobj_add(callHomeDestProfileEntry_list, first, first), 0);
    EXPECT_NE(indxobj_add(callHomeDestProfileEntry_list, second, second), 0);
    free(second);
    EXPECT_EQ(indxobj_find(callHomeDestProfileEntry_list, first), first);
    // The container owns what it holds: unloading frees it (checked by the leak checker).
}

TEST_F(ModuleLifecycle, ContainerFailureUndoesEverything) {
    for (int successes = 0; successes < 6; ++successes) {
        SCOPED_TRACE("creations before the failure: " + std::to_string(successes));
        platform::fail_indxobj_create_after(successes);
        init_callhome_mib();
        EXPECT_EQ(platform::live_indxobj_count(), 0u);
        for (indxobj_t *c : containers()) {
            EXPECT_EQ(c, nullptr);
        }
        EXPECT_EQ(platform::registered_notification_count(), 0u);
        platform::fail_indxobj_create_after(-1);
    }
    // A later load succeeds.
    init_callhome_mib();
    EXPECT_EQ(platform::live_indxobj_count(), 6u);
    EXPECT_EQ(platform::registered_notification_count(), 2u);
}

TEST_F(ModuleLifecycle, NotificationsReachTheModulesHandlers) {
    callhome_test::FakeChannel channel; // the handlers refresh their list from the service
    int traps = 0;
    platform::set_trap_sink([&traps](const oid *, size_t, netsnmp_variable_list *) { ++traps; });
    init_callhome_mib();
    callhome_alertgroup_type_t payload{};
    strcpy(payload.grp_name, "environment");
    EXPECT_EQ(
        platform::deliver_notification(CALLHOME_ALERTGROUP_ADDED_NOTIF, &payload, sizeof payload),
        1);
    EXPECT_EQ(
        platform::deliver_notification(CALLHOME_ALERTGROUP_DELETED_NOTIF, &payload, sizeof payload),
        1);
    deinit_callhome_mib();
    EXPECT_EQ(
        platform::deliver_notification(CALLHOME_ALERTGROUP_ADDED_NOTIF, &payload, sizeof payload),
        0);
}

} // namespace
