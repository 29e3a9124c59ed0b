// The module frame (loading and unloading with the index containers and notification
// registrations), the shared helpers (text indexes in OIDs, the time-of-day text, the debug
// trace, status texts and the error record) and the container orderings. The records as they
// travel (byte order, defaults of new rows) show in the golden session; the object table is
// checked against the MIB in tests/mib_def, its walk order through snmpd in tests/agent.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "callhome_mib.h"
#include "platform/testing.hpp"

namespace {

class Module : public ::testing::Test {
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

// A container that cannot be created undoes everything; loading and unloading twice leave
// nothing behind (containers own their rows: the leak checker sees what unloading misses).
TEST_F(Module, LoadAndUnload) {
    for (int successes = 0; successes < 6; ++successes) {
        SCOPED_TRACE("creations before the failure: " + std::to_string(successes));
        platform::fail_indxobj_create_after(successes);
        init_callhome_mib();
        expect_loaded(false);
        platform::fail_indxobj_create_after(-1);
    }
    for (int round = 0; round < 2; ++round) {
        init_callhome_mib();
        expect_loaded(true);
        // Rows with the same profile name are one row; a second add is refused.
        auto *first = static_cast<callHomeDestProfileEntry_t *>(
            calloc(1, sizeof(callHomeDestProfileEntry_t)));
        callHomeDestProfileEntry_t second{};
        strcpy(first->destination_profile_id, "p1");
        strcpy(second.destination_profile_id, "p1");
        ASSERT_EQ(indxobj_add(callHomeDestProfileEntry_list, first, first), 0);
        EXPECT_NE(indxobj_add(callHomeDestProfileEntry_list, &second, &second), 0);
        EXPECT_EQ(indxobj_find(callHomeDestProfileEntry_list, &second), first);
        deinit_callhome_mib();
        expect_loaded(false);
    }
}

// Characters above 127 become arcs of their unsigned byte (the rest of the index coding: the
// golden session).
TEST_F(Module, TextIndexArcsAreUnsignedBytes) {
    oid arcs[5] = {1, 1, 1, 1, 1};
    const oid expected[] = {1, 97, 0xE9, 122, 1}; // no terminator arc
    string_to_oid("a\xE9z", arcs, 1, 3);
    EXPECT_EQ(0, memcmp(arcs, expected, sizeof arcs));
}

// Both parts get a leading zero when 9 or less, even a negative one; nothing is range-checked.
TEST(TimeOfDayText, MinutesAsHHMM) {
    const std::pair<long, const char *> cases[] = {
        {0, "00:00"},    {59, "00:59"},    {60, "01:00"},    {605, "10:05"},   {1439, "23:59"},
        {1440, "24:00"}, {6000, "100:00"}, {-30, "00:0-30"}, {-61, "0-1:0-1"}, {-600, "0-10:00"}};
    for (const auto &[minutes, text] : cases) {
        EXPECT_STREQ(to_HHMM_string(minutes), text) << minutes;
        EXPECT_EQ(HHMM_buf, to_HHMM_string(minutes)); // the module-wide buffer outlives the call
    }
}

TEST_F(Module, TraceRecordsLevelAndTextCutToItsBuffer) {
    platform::clear_trace_history();
    callhome_trace(CALLHOME_TRACE_INFO, "%s : RESERVE1 -- done \n", "set_x");
    callhome_trace(CALLHOME_TRACE_ERROR, "%s : Req failed : %s\n", "get_x", "boom");
    callhome_trace(CALLHOME_TRACE_INFO, "%s", std::string(2000, 'q').c_str());
    platform::set_debug_output(true); // the debug copy must not change the history
    callhome_trace(CALLHOME_TRACE_INFO, "short\n");
    EXPECT_EQ(platform::trace_history(),
              (std::vector<std::pair<int, std::string>>{{101, "set_x : RESERVE1 -- done \n"},
                                                        {100, "get_x : Req failed : boom\n"},
                                                        {101, std::string(511, 'q')},
                                                        {101, "short\n"}}));
}

// (The texts of the module's own statuses in traces and the error record: the golden session.)
TEST_F(Module, StatusTextsAndErrorRecord) {
    // strerror's text for an unknown number lives only until its next call: copy it.
    const std::string no_status = strerror(-1);
    EXPECT_EQ(std::string(callhome_status_text(-1)), no_status);
    // A later, shorter text leaves nothing of the earlier one behind.
    callhome_report_error(CALLHOME_ERR_INVALID_INPUT);
    callhome_report_error(5);
    const std::string eio = strerror(5);
    EXPECT_EQ(platform::last_snmp_error(), std::make_pair(int32_t{5}, eio));
    EXPECT_EQ(callhome_snmp_error.status, 5);
    EXPECT_EQ(strlen(callhome_snmp_error.text), eio.size());
    for (uint8_t b : callhome_snmp_error.reserved) {
        ASSERT_EQ(b, 0); // the leading part is never written
    }
}

int sign(int v) {
    return (v > 0) - (v < 0);
}

// Profiles by stored name, reversed; e-mail addresses by profile, then index; commands by
// type, then index (exactly -1, 0 or 1). Other fields take no part; null arguments give -1.
TEST(RecordOrdering, ComparatorsOfTheContainers) {
    callHomeDestProfileEntry_t p{};
    callHomeDestEmailAddressEntry_t e{};
    callHomeUserDefCliCmdEntry_t u{};
    EXPECT_TRUE(callHomeDestProfileEntry_comp(nullptr, &p) == -1 &&
                callHomeDestProfileEntry_comp(&p, nullptr) == -1 &&
                callHomeDestProfileEntry_comp(nullptr, nullptr) == -1);
    EXPECT_TRUE(callHomeDestEmailAddressEntry_comp(nullptr, &e) == -1 &&
                callHomeDestEmailAddressEntry_comp(&e, nullptr) == -1);
    EXPECT_TRUE(callHomeUserDefCliCmdEntry_comp(nullptr, &u) == -1 &&
                callHomeUserDefCliCmdEntry_comp(&u, nullptr) == -1);

    // Names are stored cut to 31 characters: what differs beyond is the same row.
    const std::string n31(31, 'n');
    const std::tuple<std::string, std::string, int> profiles[] = {
        {"alpha", "beta", 1},
        {"beta", "alpha", -1},
        {"alpha", "alpha", 0},
        {n31 + "X", n31 + "Y", 0},
        {n31, std::string(30, 'n') + "m", -1}};
    for (const auto &[a_name, b_name, expected] : profiles) {
        callHomeDestProfileEntry_t a{}, b{};
        a_name.copy(a.destination_profile_id, sizeof a.destination_profile_id - 1);
        b_name.copy(b.destination_profile_id, sizeof b.destination_profile_id - 1);
        b.format_method = 3;
        EXPECT_EQ(sign(callHomeDestProfileEntry_comp(&a, &b)), expected) << a_name << " " << b_name;
    }
    // {a key, a index, b key, b index, expected}
    const std::tuple<int, int, int, int, int> keyed[] = {
        {1, 1, 1, 1, 0},  {1, 1, 1, 2, 1},  {1, 2, 1, 1, -1}, {1, 9, 2, 1, 1},
        {2, 1, 1, 9, -1}, {1, -1, 1, 1, 1}, {-5, 1, 1, 1, 1}};
    for (const auto &[a_key, a_index, b_key, b_index, expected] : keyed) {
        callHomeDestEmailAddressEntry_t ea{}, eb{};
        ea.destination_profile_id[0] = static_cast<char>('p' + a_key); // "q", "r" or "k"
        eb.destination_profile_id[0] = static_cast<char>('p' + b_key);
        ea.index = a_index;
        eb.index = b_index;
        strcpy(ea.email_addr, "one@example.com");
        strcpy(eb.email_addr, "two@example.com");
        EXPECT_EQ(sign(callHomeDestEmailAddressEntry_comp(&ea, &eb)), expected) << a_key << a_index;
        callHomeUserDefCliCmdEntry_t ua{}, ub{};
        ua.alertgroup_type = a_key;
        ub.alertgroup_type = b_key;
        ua.index = a_index;
        ub.index = b_index;
        strcpy(ua.alertgroup_name, "x");
        strcpy(ub.alertgroup_name, "y");
        EXPECT_EQ(callHomeUserDefCliCmdEntry_comp(&ua, &ub), expected) << a_key << a_index;
    }
}

} // namespace
