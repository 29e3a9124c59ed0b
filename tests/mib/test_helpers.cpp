// Shared helpers: text indexes in OIDs, the time-of-day text, the debug trace, status texts and
// the error record. (Which column gets which write handler is exercised by every column write
// through snmpd in tests/agent/test_agent_table_write.cpp.)
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

TEST_F(Helpers, TextIndexesInOids) {
    const oid name[] = {9, 9, 97, 98, 99, 353, 9};
    char out[8];
    oid_to_string(name, out, 2, 3);
    EXPECT_STREQ(out, "abc");
    oid_to_string(name, out, 5, 1);
    EXPECT_STREQ(out, "a"); // the low byte of each arc: 353 & 0xFF == 97
    for (int count : {0, -3}) {
        memset(out, 'x', sizeof out);
        oid_to_string(name, out, 2, count);
        EXPECT_STREQ(out, "") << count;
    }
    oid arcs[6] = {1, 1, 1, 1, 1, 1};
    const oid expected[] = {1, 1, 97, 0xE9, 122, 1}; // unsigned bytes, no terminator arc
    string_to_oid("a\xE9z", arcs, 2, 3);
    EXPECT_EQ(0, memcmp(arcs, expected, sizeof arcs));
    for (int count : {0, -1}) {
        string_to_oid("zz", arcs, 0, count);
        EXPECT_EQ(0, memcmp(arcs, expected, sizeof arcs)) << count;
    }
}

TEST_F(Helpers, TimeOfDayText) {
    const std::pair<long, const char *> cases[] = {{0, "00:00"},      {59, "00:59"},
                                                   {605, "10:05"},    {1439, "23:59"},
                                                   {-90, "0-1:0-30"}, {6000, "100:00"}};
    for (const auto &[minutes, text] : cases) {
        char *result = to_HHMM_string(minutes);
        EXPECT_STREQ(result, text) << minutes;
        EXPECT_EQ(result, HHMM_buf); // the module-wide buffer outlives the call
    }
}

TEST_F(Helpers, TraceRecordsLevelAndTextCutToItsBuffer) {
    platform::clear_trace_history();
    callhome_trace(CALLHOME_TRACE_INFO, "%s : RESERVE1 -- done \n", "set_x");
    callhome_trace(CALLHOME_TRACE_ERROR, "%s : Req failed : %s\n", "get_x", "boom");
    callhome_trace(CALLHOME_TRACE_INFO, "%s", std::string(2000, 'q').c_str());
    platform::set_debug_output(true); // the debug copy must not change the history
    callhome_trace(CALLHOME_TRACE_INFO, "short\n");
    const auto history = platform::trace_history();
    ASSERT_EQ(history.size(), 4u);
    EXPECT_EQ(history[0], std::make_pair(101, std::string("set_x : RESERVE1 -- done \n")));
    EXPECT_EQ(history[1], std::make_pair(100, std::string("get_x : Req failed : boom\n")));
    EXPECT_EQ(history[2].second, std::string(511, 'q'));
    EXPECT_EQ(history[3].second, "short\n");
}

TEST_F(Helpers, StatusTextsAndErrorRecord) {
    // strerror's text for an unknown number lives only until its next call: copy it.
    const std::string no_status = strerror(-1);
    EXPECT_EQ(std::string(callhome_status_text(-1)), no_status);
    EXPECT_STREQ(callhome_status_text(CALLHOME_UNKNOWN_ENTRY), "unknown entry");

    callhome_report_error(CALLHOME_ERR_INVALID_INPUT);
    EXPECT_EQ(platform::last_snmp_error(),
              std::make_pair(int32_t{CALLHOME_ERR_INVALID_INPUT}, std::string("invalid input")));
    EXPECT_EQ(callhome_snmp_error.status, CALLHOME_ERR_INVALID_INPUT);
    // A later, shorter text leaves nothing of the earlier one behind.
    callhome_report_error(CALLHOME_UNKNOWN_ENTRY);
    callhome_report_error(5);
    const std::string eio = strerror(5);
    EXPECT_EQ(platform::last_snmp_error().second, eio);
    EXPECT_EQ(strlen(callhome_snmp_error.text), eio.size());
    for (uint8_t b : callhome_snmp_error.reserved) {
        ASSERT_EQ(b, 0); // the leading part is never written
    }
}

} // namespace
