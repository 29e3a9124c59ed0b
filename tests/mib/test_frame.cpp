// The module frame: loading and unloading with the index containers and notification
// registrations. (The object table's names, OIDs, types and access are checked against the MIB
// in tests/mib_def, and its walk order through snmpd in tests/agent/test_agent_read.cpp.)
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "callhome_mib.h"
#include "fake_channel.hpp"
#include "platform/testing.hpp"

namespace {

class ModuleLifecycle : public ::testing::Test {
  protected:
    void SetUp() override { platform::reset_for_tests(); }
    void TearDown() override {
        deinit_callhome_mib();
        platform::reset_for_tests();
    }

    // Loaded: six containers and both notifications; otherwise nothing at all.
    static void expect_loaded(bool loaded) {
        EXPECT_EQ(platform::live_indxobj_count(), loaded ? 6u : 0u);
        for (indxobj_t *c :
             {callHomeDestEmailAddressEntry_undo_list, callHomeDestEmailAddressEntry_list,
              callHomeDestProfileEntry_list, callHomeDestProfileEntry_undo_list,
              callHomeUserDefCliCmd_list, callHomeUserDefCliCmd_undo_list}) {
            EXPECT_EQ(c != nullptr, loaded);
        }
        EXPECT_EQ(platform::registered_notification_count(), loaded ? 2u : 0u);
    }
};

TEST_F(ModuleLifecycle, LoadAndUnloadTwiceLeaveNothingBehind) {
    for (int round = 0; round < 2; ++round) {
        init_callhome_mib();
        expect_loaded(true);
        deinit_callhome_mib();
        expect_loaded(false);
    }
}

TEST_F(ModuleLifecycle, ContainerFailureUndoesEverything) {
    for (int successes = 0; successes < 6; ++successes) {
        SCOPED_TRACE("creations before the failure: " + std::to_string(successes));
        platform::fail_indxobj_create_after(successes);
        init_callhome_mib();
        expect_loaded(false);
        platform::fail_indxobj_create_after(-1);
    }
    init_callhome_mib(); // a later load succeeds
    expect_loaded(true);
}

TEST_F(ModuleLifecycle, ContainersAreUniqueAndOwning) {
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

TEST_F(ModuleLifecycle, NotificationsReachTheModulesHandlersUntilUnload) {
    callhome_test::FakeChannel channel; // the handlers refresh their list from the service
    init_callhome_mib();
    callhome_alertgroup_type_t payload{};
    strcpy(payload.grp_name, "environment");
    for (int id : {CALLHOME_ALERTGROUP_ADDED_NOTIF, CALLHOME_ALERTGROUP_DELETED_NOTIF}) {
        EXPECT_EQ(platform::deliver_notification(id, &payload, sizeof payload), 1) << id;
    }
    deinit_callhome_mib();
    EXPECT_EQ(
        platform::deliver_notification(CALLHOME_ALERTGROUP_ADDED_NOTIF, &payload, sizeof payload),
        0);
}

} // namespace
