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

struct Entry {
    u_char magic;
    u_char type;
    bool writable;
    FindVarMethod *read;
    std::vector<oid> suffix;
};

// The table in its registered order; the time of day comes last although it sorts earlier.
const std::vector<Entry> &expected_table() {
    static const std::vector<Entry> table = {
        {1, ASN_INTEGER, true, get_callhome_mib, {1, 1, 1}},
        {2, ASN_OCTET_STR, true, get_callhome_mib, {1, 1, 2}},
        {3, ASN_OCTET_STR, true, get_callhome_mib, {1, 1, 3}},
        {4, ASN_OCTET_STR, true, get_callhome_mib, {1, 1, 4}},
        {5, ASN_OCTET_STR, true, get_callhome_mib, {1, 1, 5}},
        {6, ASN_OCTET_STR, true, get_callhome_mib, {1, 1, 6}},
        {7, ASN_OCTET_STR, true, get_callhome_mib, {1, 1, 7}},
        {8, ASN_INTEGER, true, get_callhome_mib, {1, 1, 8}},
        {9, ASN_INTEGER, true, get_callhome_mib, {1, 1, 9}},
        {10, ASN_INTEGER, false, get_callhome_mib, {1, 1, 10}},
        {11, ASN_OCTET_STR, false, get_callhome_mib, {1, 1, 11}},
        {13, ASN_INTEGER, true, get_callHomeDestProfileTable, {1, 1, 12, 1, 2}},
        {14, ASN_GAUGE, true, get_callHomeDestProfileTable, {1, 1, 12, 1, 3}},
        {15, ASN_INTEGER, true, get_callHomeDestProfileTable, {1, 1, 12, 1, 4}},
        {16, ASN_INTEGER, true, get_callHomeDestProfileTable, {1, 1, 12, 1, 5}},
        {17, ASN_INTEGER, true, get_callHomeDestProfileTable, {1, 1, 12, 1, 6}},
        {18, ASN_OCTET_STR, true, get_callHomeDestProfileTable, {1, 1, 12, 1, 7}},
        {19, ASN_GAUGE, false, get_callhome_mib, {1, 1, 13}},
        {20, ASN_OCTET_STR, true, get_callHomeDestEmailAddressTable, {1, 1, 14, 1, 2}},
        {21, ASN_INTEGER, true, get_callHomeDestEmailAddressTable, {1, 1, 14, 1, 3}},
        {22, ASN_OCTET_STR, true, get_callhome_mib, {1, 1, 15}},
        {23, ASN_OCTET_STR, true, get_callhome_mib, {1, 1, 16}},
        {24, ASN_OCTET_STR, true, get_callhome_mib, {1, 1, 17}},
        {25, ASN_INTEGER, true, get_callhome_mib, {1, 1, 18}},
        {26, ASN_OCTET_STR, true, get_callhome_mib, {1, 1, 19}},
        {27, ASN_GAUGE, true, get_callhome_mib, {1, 1, 20}},
        {28, ASN_OCTET_STR, false, get_callHomeAlertGroupTypeTable, {1, 1, 25, 1, 2}},
        {31, ASN_INTEGER, true, get_callhome_mib, {1, 1, 27}},
        {32, ASN_GAUGE, true, get_callhome_mib, {1, 1, 28}},
        {33, ASN_INTEGER, true, get_callhome_mib, {1, 1, 29}},
        {34, ASN_GAUGE, false, get_callhome_mib, {1, 1, 30, 5}},
        {35, ASN_OCTET_STR, true, get_callHomeUserDefCmdTable, {1, 1, 30, 6, 1, 2}},
        {36, ASN_INTEGER, true, get_callHomeUserDefCmdTable, {1, 1, 30, 6, 1, 3}},
        {37, ASN_TIMETICKS, false, get_callhome_mib, {1, 2, 1}},
        {38, ASN_COUNTER, false, get_callhome_mib, {1, 2, 2}},
        {39, ASN_OCTET_STR, true, get_callhome_mib, {1, 1, 33, 1}},
    };
    return table;
}

TEST(ObjectTable, RootIsTheDocumentationEnterpriseArc) {
    const oid root[] = {1, 3, 6, 1, 4, 1, 32473, 9, 300};
    ASSERT_EQ(sizeof root / sizeof root[0], size_t{CALLHOME_MIB_ROOT_LEN});
    for (size_t i = 0; i < CALLHOME_MIB_ROOT_LEN; ++i) {
        EXPECT_EQ(callhome_mib_variables_oid[i], root[i]) << i;
    }
}

TEST(ObjectTable, EntriesInRegisteredOrder) {
    const auto &expected = expected_table();
    ASSERT_EQ(expected.size(), size_t{CALLHOME_MIB_VARIABLE_COUNT});
    for (size_t i = 0; i < expected.size(); ++i) {
        const struct variable7 &v = callhome_mib_variables[i];
        const Entry &e = expected[i];
        SCOPED_TRACE("entry " + std::to_string(i + 1));
        EXPECT_EQ(v.magic, e.magic);
        EXPECT_EQ(v.type, e.type);
        EXPECT_EQ(v.acl, e.writable ? NETSNMP_OLDAPI_RWRITE : NETSNMP_OLDAPI_RONLY);
        EXPECT_EQ(v.findVar, e.read);
        ASSERT_EQ(v.namelen, e.suffix.size());
        EXPECT_EQ(std::vector<oid>(v.name, v.name + v.namelen), e.suffix);
    }
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
