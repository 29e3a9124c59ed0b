// Shared helpers: text indexes in OIDs, column write handlers, the time-of-day text, the debug
// trace, status texts and the error record.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "callhome_mib.h"
#include "platform/testing.hpp"

namespace {

class Helpers : public ::testing::Test {
  protected:
    void SetUp() override { platform::reset_for_tests(); }
    void TearDown() override { platform::reset_for_tests(); }
};

TEST_F(Helpers, OidToStringTakesLowByteOfEachArc) {
    const oid name[] = {9, 9, 97, 98, 99, 353, 9};
    char out[8];
    memset(out, 'x', sizeof out);
    oid_to_string(name, out, 2, 3);
    EXPECT_STREQ(out, "abc");
    oid_to_string(name, out, 5, 1);
    EXPECT_STREQ(out, "a"); // 353 & 0xFF == 97
    for (int count : {0, -3}) {
        memset(out, 'x', sizeof out);
        oid_to_string(name, out, 2, count);
        EXPECT_STREQ(out, "") << count;
    }
}

TEST_F(Helpers, StringToOidWritesOneArcPerByteAndNothingElse) {
    oid name[6] = {1, 1, 1, 1, 1, 1};
    string_to_oid("a\xE9z", name, 2, 3);
    const oid expected[] = {1, 1, 97, 0xE9, 122, 1}; // unsigned bytes, no terminator arc
    EXPECT_EQ(0, memcmp(name, expected, sizeof name));
    for (int count : {0, -1}) {
        string_to_oid("zz", name, 0, count);
        EXPECT_EQ(0, memcmp(name, expected, sizeof name)) << count;
    }
}

TEST_F(Helpers, TextIndexRoundTrip) {
    const char *text = "profile-1";
    oid name[32] = {};
    const int n = static_cast<int>(strlen(text));
    string_to_oid(text, name, 4, n);
    char out[32];
    oid_to_string(name, out, 4, n);
    EXPECT_STREQ(out, text);
}

TEST_F(Helpers, ColumnWriteHandlers) {
    struct Case {
        int magic;
        WriteMethod *handler;
    };
    const Case cases[] = {
        {13, set_callHomeDestProfileMsgFormat},   {14, set_callHomeDestProfileMaxMsgSize},
        {15, set_callHomeDestProfileTrnsprtMthd}, {16, set_callHomeDestProfileStatus},
        {17, set_callHomeDestProfileMsgLevel},    {18, set_callhome_alertgroups},
        {20, set_callHomeDestEmailAddress},       {21, set_callHomeDestEmailAddressStatus},
        {35, set_callHomeUserDefCliCmd},          {36, set_callHomeUserDefCliCmdStatus},
    };
    for (const auto &c : cases) {
        WriteMethod *method = nullptr;
        set_table_set_methods(c.magic, &method);
        EXPECT_EQ(method, c.handler) << "magic " << c.magic;
    }
    // Anything else, scalars included, leaves the caller's value alone.
    for (int magic : {0, 1, 12, 19, 22, 28, 34, 37, 39, 40, 255}) {
        WriteMethod *method = set_callHomeEnable;
        set_table_set_methods(magic, &method);
        EXPECT_EQ(method, set_callHomeEnable) << "magic " << magic;
    }
}

TEST_F(Helpers, TimeOfDayText) {
    struct Case {
        long minutes;
        const char *text;
    };
    const Case cases[] = {
        {480, "08:00"}, {0, "00:00"},   {605, "10:05"},   {1439, "23:59"},   {59, "00:59"},
        {60, "01:00"},  {600, "10:00"}, {-30, "00:0-30"}, {-90, "0-1:0-30"}, {6000, "100:00"},
    };
    for (const auto &c : cases) {
        char *text = to_HHMM_string(c.minutes);
        EXPECT_STREQ(text, c.text) << c.minutes;
        EXPECT_EQ(text, HHMM_buf); // the module-wide buffer outlives the call
    }
}

TEST_F(Helpers, TraceRecordsLevelAndText) {
    platform::clear_trace_history();
    callhome_trace(CALLHOME_TRACE_INFO, "%s : RESERVE1 -- done \n", "set_x");
    callhome_trace(CALLHOME_TRACE_ERROR, "%s : Req failed : %s\n", "get_x", "boom");
    const auto history = platform::trace_history();
    ASSERT_EQ(history.size(), 2u);
    EXPECT_EQ(history[0].first, 101);
    EXPECT_EQ(history[0].second, "set_x : RESERVE1 -- done \n");
    EXPECT_EQ(history[1].first, 100);
    EXPECT_EQ(history[1].second, "get_x : Req failed : boom\n");
}

TEST_F(Helpers, TraceCutsLongTextsToItsBuffer) {
    platform::clear_trace_history();
    const std::string long_text(2000, 'q');
    callhome_trace(CALLHOME_TRACE_INFO, "%s", long_text.c_str());
    platform::set_debug_output(true); // the debug copy must not change the history
    callhome_trace(CALLHOME_TRACE_INFO, "short\n");
    const auto history = platform::trace_history();
    ASSERT_EQ(history.size(), 2u);
    EXPECT_EQ(history[0].second, std::string(511, 'q'));
    EXPECT_EQ(history[1].second, "short\n");
}

TEST_F(Helpers, StatusTexts) {
    // strerror's text for an unknown number lives only until its next call: copy it.
    const std::string no_status = callhome_status_text(-1);
    EXPECT_EQ(no_status, std::string(strerror(-1)));
    EXPECT_STREQ(callhome_status_text(CALLHOME_UNKNOWN_ENTRY), "unknown entry");
    EXPECT_STREQ(callhome_status_text(CALLHOME_ERR_INVALID_INPUT), "invalid input");
}

TEST_F(Helpers, ErrorRecordCarriesStatusAndText) {
    callhome_report_error(CALLHOME_ERR_INVALID_INPUT);
    EXPECT_EQ(platform::last_snmp_error(),
              std::make_pair(int32_t{CALLHOME_ERR_INVALID_INPUT}, std::string("invalid input")));
    EXPECT_EQ(callhome_snmp_error.status, CALLHOME_ERR_INVALID_INPUT);
    // A later, shorter text leaves nothing of the earlier one behind.
    callhome_report_error(CALLHOME_UNKNOWN_ENTRY);
    callhome_report_error(5);
    EXPECT_EQ(platform::last_snmp_error().second, strerror(5));
    EXPECT_EQ(strlen(callhome_snmp_error.text), strlen(strerror(5)));
    for (uint8_t b : callhome_snmp_error.reserved) {
        ASSERT_EQ(b, 0); // the leading part is never written
    }
}

} // namespace
