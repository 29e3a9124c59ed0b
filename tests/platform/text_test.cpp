// Addresses, status texts, error logging, the trace facility and the request context.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "ip_addr.h"
#include "platform/testing.hpp"
#include "sdwrap.h"
#include "snmp_ctx.h"
#include "syserr.h"
#include "sysmgr.h"
#include "veld.h"

namespace {

class PlatformTest : public ::testing::Test {
  protected:
    void SetUp() override { platform::reset_for_tests(); }
    void TearDown() override { platform::reset_for_tests(); }
};

struct AddressCase {
    const char *text;
    uint32_t family;
    std::vector<uint8_t> bytes;
    const char *canonical;
};

TEST(IpAddr, ConvertsBothWays) {
    const AddressCase cases[] = {
        {"192.0.2.1", IP_ADDR_FAMILY_IPV4, {192, 0, 2, 1}, "192.0.2.1"},
        {"0.0.0.0", IP_ADDR_FAMILY_IPV4, {0, 0, 0, 0}, "0.0.0.0"},
        {"255.255.255.255", IP_ADDR_FAMILY_IPV4, {255, 255, 255, 255}, "255.255.255.255"},
        {"2001:db8::1",
         IP_ADDR_FAMILY_IPV6,
         {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
         "2001:db8::1"},
        {"2001:DB8:0:0:0:0:0:A",
         IP_ADDR_FAMILY_IPV6,
         {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0a},
         "2001:db8::a"},
        {"::ffff:192.0.2.7",
         IP_ADDR_FAMILY_IPV6,
         {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 192, 0, 2, 7},
         "::ffff:192.0.2.7"},
    };
    for (const auto &c : cases) {
        ip_addr_t addr;
        std::memset(&addr, 0xEE, sizeof addr);
        ASSERT_EQ(ip_addr_from_str(&addr, c.text), 0) << c.text;
        EXPECT_EQ(addr.family, c.family) << c.text;
        EXPECT_EQ(0, std::memcmp(addr.addr, c.bytes.data(), c.bytes.size())) << c.text;
        if (c.family == IP_ADDR_FAMILY_IPV4) {
            EXPECT_EQ(addr.addr[4], 0) << "unused bytes are cleared";
        }
        char text[64];
        ASSERT_EQ(ip_addr_to_str(&addr, text, sizeof text), 0) << c.text;
        EXPECT_STREQ(text, c.canonical);
    }
}

TEST(IpAddr, Refusals) {
    ip_addr_t addr{};
    for (const char *bad : {"", "300.1.1.1", "1.2.3", "1.2.3.4.5", "mail.example.com",
                            "2001:db8:::1", " 192.0.2.1", "192.0.2.1 "}) {
        EXPECT_NE(ip_addr_from_str(&addr, bad), 0) << '"' << bad << '"';
    }
    EXPECT_NE(ip_addr_from_str(&addr, nullptr), 0);
    EXPECT_NE(ip_addr_from_str(nullptr, "192.0.2.1"), 0);

    ASSERT_EQ(ip_addr_from_str(&addr, "192.0.2.100"), 0);
    char exact[12]; // "192.0.2.100" and its NUL
    EXPECT_EQ(ip_addr_to_str(&addr, exact, sizeof exact), 0);
    EXPECT_STREQ(exact, "192.0.2.100");
    char small[11];
    EXPECT_NE(ip_addr_to_str(&addr, small, sizeof small), 0);
    EXPECT_NE(ip_addr_to_str(&addr, exact, 0), 0);
    EXPECT_NE(ip_addr_to_str(&addr, nullptr, 16), 0);

    addr.family = 16; // a DNS name has no address form
    EXPECT_NE(ip_addr_to_str(&addr, exact, sizeof exact), 0);
    addr.family = 0;
    EXPECT_NE(ip_addr_to_str(&addr, exact, sizeof exact), 0);
}

TEST(Syserr, StatusTexts) {
    const std::pair<uint32_t, const char *> known[] = {
        {0x403B000B, "unknown entry"},
        {0x403B000C, "end of table"},
        {0x403B000D, "built-in profile may not be deleted"},
        {0x403B0019, "invalid input"},
        {0x403B002A, "out of memory"},
        {0x403B002B, "bad profile name"},
        {0x403B002C, "index add failed"},
        {0x403B0034, "distribution re-send"},
        {0x403B0040, "no destination profile with e-mail addresses"},
        {0x403B0041, "message delivery failed"},
    };
    for (const auto &[code, text] : known) {
        EXPECT_STREQ(syserr2str(code), text);
        EXPECT_STREQ(syserr_format(code), text);
    }
    for (uint32_t unknown : {0u, 1u, 0x403B0000u, 0x403B000Au, 0x403B0042u, 0xFFFFFFFFu}) {
        EXPECT_EQ(syserr2str(unknown), nullptr) << unknown;
    }
    // strerror's own buffer may be reused by the next call, so its text is copied first.
    for (int err : {1, ENOENT, ETIME, 4095}) {
        const std::string expected = std::strerror(err);
        EXPECT_EQ(syserr_format(uint32_t(err)), expected);
    }
    EXPECT_STREQ(syserr_format(4096), "unknown error 0x00001000");
    EXPECT_STREQ(syserr_format(0), "unknown error 0x00000000");
    EXPECT_STREQ(syserr_format(0xFFFFFFFF), "unknown error 0xffffffff");
    EXPECT_STREQ(syserr_format(0x403B0099), "unknown error 0x403b0099");
}

TEST_F(PlatformTest, ErrorLoggingRemembersTheLastOfEach) {
    EXPECT_EQ(platform::last_set_error(), std::make_pair(int32_t(0), 0));
    log_set_error(0x403B0019, 472);
    log_set_error(-1, 472);
    EXPECT_EQ(platform::last_set_error(), std::make_pair(int32_t(-1), 472));

    // The record's text field is read up to its 208 bytes, terminated or not; the block is
    // exactly as long as the record, so ASan sees any read beyond.
    constexpr size_t kRecord = 264 + 208;
    auto *record = static_cast<char *>(std::calloc(1, kRecord));
    const int32_t status = 0x403B002B;
    std::memcpy(record + 260, &status, sizeof status);
    std::strcpy(record + 264, "bad profile name");
    log_snmp_error(record);
    EXPECT_EQ(platform::last_snmp_error(), std::make_pair(status, std::string("bad profile name")));
    std::memset(record + 264, 'x', 208);
    log_snmp_error(record);
    EXPECT_EQ(platform::last_snmp_error().second, std::string(208, 'x'));
    std::free(record);

    platform::clear_errors();
    EXPECT_EQ(platform::last_snmp_error().first, 0);
    EXPECT_TRUE(platform::last_snmp_error().second.empty());
}

TEST_F(PlatformTest, HeartbeatsInOrder) {
    sysmgr_heartbeat(1);
    sysmgr_heartbeat(0);
    sysmgr_heartbeat(7);
    EXPECT_EQ(platform::heartbeat_log(), (std::vector<int>{1, 0, 1}));
    platform::clear_heartbeat_log();
    EXPECT_TRUE(platform::heartbeat_log().empty());
}

// Builds a trace record as the module does: a level word, then the text and its NUL.
std::vector<char> trace_record(uint32_t level, const std::string &text) {
    std::vector<char> r(sizeof level + text.size() + 1, '\0');
    std::memcpy(r.data(), &level, sizeof level);
    std::memcpy(r.data() + sizeof level, text.data(), text.size());
    return r;
}

TEST_F(PlatformTest, TraceHistoryKeepsLevelAndText) {
    EXPECT_EQ(sdwrap_hist_event_subtype_check(0x730000, 101), 0);
    auto r = trace_record(101, "get_callhome_mib : done \n");
    sdwrap_hist_event(0x730000, uint32_t(r.size()), r.data());
    // Only `length` bytes count, NUL or not: the length here cuts the text short.
    auto cut = trace_record(100, "abcdef");
    sdwrap_hist_event(0x730000, 4 + 3, cut.data());
    // An unterminated text in a block of exactly `length` bytes (ASan watches the end).
    auto *raw = static_cast<char *>(std::malloc(4 + 5));
    const uint32_t level = 100;
    std::memcpy(raw, &level, 4);
    std::memcpy(raw + 4, "12345", 5);
    sdwrap_hist_event(0x730000, 9, raw);
    std::free(raw);
    // Too short for a level, or null: nothing recorded.
    sdwrap_hist_event(0x730000, 3, r.data());
    sdwrap_hist_event(0x730000, 10, nullptr);

    const auto history = platform::trace_history();
    ASSERT_EQ(history.size(), 3u);
    EXPECT_EQ(history[0], std::make_pair(101, std::string("get_callhome_mib : done \n")));
    EXPECT_EQ(history[1], std::make_pair(100, std::string("abc")));
    EXPECT_EQ(history[2], std::make_pair(100, std::string("12345")));
}

TEST_F(PlatformTest, TraceHistoryWrapsAt1024) {
    for (int i = 0; i < 1030; ++i) {
        auto r = trace_record(101, "event " + std::to_string(i));
        sdwrap_hist_event(0x730000, uint32_t(r.size()), r.data());
    }
    const auto history = platform::trace_history();
    ASSERT_EQ(history.size(), 1024u);
    EXPECT_EQ(history.front().second, "event 6");
    EXPECT_EQ(history.back().second, "event 1029");
    platform::clear_trace_history();
    EXPECT_TRUE(platform::trace_history().empty());
}

TEST_F(PlatformTest, DebugOutputSwitches) {
    const char *saved = std::getenv("CALLHOME_DEBUG");
    const std::string saved_value = saved != nullptr ? saved : "";
    ::unsetenv("CALLHOME_DEBUG");
    EXPECT_STREQ(sdwrap_dbg_modname, "callhome");
    EXPECT_EQ(sdwrap_chk_int(101, 0, 0, 1), 0);

    platform::set_debug_output(true);
    EXPECT_NE(sdwrap_chk_int(101, 0, 0, 1), 0);
    platform::set_debug_output(false);

    ::setenv("CALLHOME_DEBUG", "", 1);
    EXPECT_EQ(sdwrap_chk_int(101, 0, 0, 1), 0);
    ::setenv("CALLHOME_DEBUG", "1", 1);
    EXPECT_NE(sdwrap_chk_int(101, 0, 0, 1), 0);
    ::unsetenv("CALLHOME_DEBUG");

    // net-snmp debugging counts only with the module's token.
    snmp_set_do_debugging(1);
    debug_register_tokens("someother");
    EXPECT_EQ(sdwrap_chk_int(101, 0, 0, 1), 0);
    debug_register_tokens("callhome");
    EXPECT_NE(sdwrap_chk_int(101, 0, 0, 1), 0);
    snmp_set_do_debugging(0);
    EXPECT_EQ(sdwrap_chk_int(101, 0, 0, 1), 0);
    buginf(1, sdwrap_dbg_modname, 0, "%s : %d\n", "formatted", 42); // must not crash

    if (saved != nullptr) {
        ::setenv("CALLHOME_DEBUG", saved_value.c_str(), 1);
    }
}

TEST_F(PlatformTest, RequestContextOutsideAnAgent) {
    EXPECT_STREQ(get_snmp_username(0), "");
    EXPECT_EQ(get_snmp_sessionid(0), 0u);
    platform::set_snmp_context("operator", 4242);
    EXPECT_STREQ(get_snmp_username(0), "operator");
    EXPECT_EQ(get_snmp_sessionid(0), 4242u);
    platform::clear_snmp_context();
    EXPECT_STREQ(get_snmp_username(0), "");
    EXPECT_EQ(get_snmp_sessionid(0), 0u);
}

TEST_F(PlatformTest, DistributionStateDefaultsAndFeatureName) {
    EXPECT_EQ(is_veld_enabled("callhome"), 0);
    EXPECT_EQ(get_veld_show_run_mode("callhome"), 0);
    platform::set_distribution(true, 3);
    EXPECT_NE(is_veld_enabled("callhome"), 0);
    EXPECT_EQ(get_veld_show_run_mode("callhome"), 3);
    EXPECT_EQ(is_veld_enabled("other"), 0);
    EXPECT_EQ(is_veld_enabled(nullptr), 0);
    EXPECT_EQ(get_veld_show_run_mode("other"), 0);
    platform::reset_for_tests();
    EXPECT_EQ(is_veld_enabled("callhome"), 0);
}

} // namespace
