// Addresses, status texts, error logging, traces, index containers and bit sets.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "bitset.h"
#include "indxobj.h"
#include "ip_addr.h"
#include "platform/testing.hpp"
#include "sdwrap.h"
#include "syserr.h"
#include "sysmgr.h"
#include "veld.h"

namespace {

class PlatformTest : public ::testing::Test {
  protected:
    void SetUp() override { platform::reset_for_tests(); }
    void TearDown() override {
        indxobj_destroy(obj);
        EXPECT_EQ(platform::live_indxobj_count(), 0u);
        platform::reset_for_tests();
    }
    indxobj_t *obj = nullptr;
};

TEST(IpAddr, ConvertsBothWaysAndRefuses) {
    const std::tuple<const char *, uint32_t, std::vector<uint8_t>, const char *> cases[] = {
        {"192.0.2.1", IP_ADDR_FAMILY_IPV4, {192, 0, 2, 1}, "192.0.2.1"},
        {"0.0.0.0", IP_ADDR_FAMILY_IPV4, {0, 0, 0, 0}, "0.0.0.0"},
        {"255.255.255.255", IP_ADDR_FAMILY_IPV4, {255, 255, 255, 255}, "255.255.255.255"},
        {"2001:DB8:0:0:0:0:0:A",
         IP_ADDR_FAMILY_IPV6,
         {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0a},
         "2001:db8::a"},
        {"::ffff:192.0.2.7",
         IP_ADDR_FAMILY_IPV6,
         {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 192, 0, 2, 7},
         "::ffff:192.0.2.7"},
    };
    for (const auto &[text, family, bytes, canonical] : cases) {
        ip_addr_t addr;
        std::memset(&addr, 0xEE, sizeof addr);
        ASSERT_EQ(ip_addr_from_str(&addr, text), 0) << text;
        EXPECT_EQ(addr.family, family) << text;
        EXPECT_EQ(0, std::memcmp(addr.addr, bytes.data(), bytes.size())) << text;
        EXPECT_TRUE(family == IP_ADDR_FAMILY_IPV6 || addr.addr[4] == 0) << "unused bytes cleared";
        char out[64];
        ASSERT_EQ(ip_addr_to_str(&addr, out, sizeof out), 0) << text;
        EXPECT_STREQ(out, canonical);
    }
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
    EXPECT_NE(ip_addr_to_str(&addr, exact, sizeof exact - 1), 0);
    EXPECT_NE(ip_addr_to_str(&addr, exact, 0), 0);
    EXPECT_NE(ip_addr_to_str(&addr, nullptr, 16), 0);
    for (uint32_t family : {16u, 0u}) { // a DNS name has no address form
        addr.family = family;
        EXPECT_NE(ip_addr_to_str(&addr, exact, sizeof exact), 0) << family;
    }
}

TEST(Syserr, StatusTextsAtTheEdgesOfTheRange) {
    for (auto [code, text] : {std::pair<uint32_t, const char *>{0x403B000B, "unknown entry"},
                              {0x403B0041, "message delivery failed"}}) {
        EXPECT_STREQ(syserr2str(code), text);
        EXPECT_STREQ(syserr_format(code), text);
    }
    for (uint32_t unknown : {0u, 1u, 0x403B0000u, 0x403B000Au, 0x403B0042u, 0xFFFFFFFFu}) {
        EXPECT_EQ(syserr2str(unknown), nullptr) << unknown;
    }
    for (int err : {1, ENOENT, ETIME, 4095}) {
        const std::string expected = std::strerror(err); // copied: the buffer may be reused
        EXPECT_EQ(syserr_format(uint32_t(err)), expected);
    }
    EXPECT_STREQ(syserr_format(4096), "unknown error 0x00001000");
    EXPECT_STREQ(syserr_format(0), "unknown error 0x00000000");
    EXPECT_STREQ(syserr_format(0x403B0099), "unknown error 0x403b0099");
}

TEST_F(PlatformTest, ErrorsHeartbeatsAndDistributionState) {
    ::testing::internal::CaptureStderr();
    log_set_error(0x403B0019, 472);
    log_set_error(-1, 472);
    EXPECT_EQ(platform::last_set_error(), std::make_pair(int32_t(-1), 472));
    // A successful write is recorded but not logged as a failure.
    log_set_error(0, 472);
    EXPECT_EQ(platform::last_set_error(), std::make_pair(int32_t(0), 472));
    const std::string logged = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(logged.find("failed (record 472): invalid input"), std::string::npos) << logged;
    EXPECT_EQ(logged.find("unknown error 0x00000000"), std::string::npos) << logged;
    // The record's text field is read up to its 208 bytes, terminated or not; the block is
    // exactly as long as the record, so ASan sees any read beyond.
    auto *record = static_cast<char *>(std::calloc(1, 264 + 208));
    const int32_t status = 0x403B002B;
    std::memcpy(record + 260, &status, sizeof status);
    std::strcpy(record + 264, "bad profile name");
    log_snmp_error(record);
    EXPECT_EQ(platform::last_snmp_error(), std::make_pair(status, std::string("bad profile name")));
    std::memset(record + 264, 'x', 208);
    log_snmp_error(record);
    EXPECT_EQ(platform::last_snmp_error().second, std::string(208, 'x'));
    std::free(record);

    for (int beat : {0, 1, 7, 0, 7}) { // repeats change nothing; any non-zero is busy
        sysmgr_heartbeat(beat);
    }
    EXPECT_EQ(platform::heartbeat_state(), (platform::HeartbeatState{true, 3}));

    EXPECT_EQ(is_veld_enabled("callhome"), 0);
    platform::set_distribution(true, 3);
    EXPECT_NE(is_veld_enabled("callhome"), 0);
    EXPECT_EQ(get_veld_show_run_mode("callhome"), 3);
    EXPECT_EQ(is_veld_enabled("other") + is_veld_enabled(nullptr), 0);
    EXPECT_EQ(get_veld_show_run_mode("other"), 0);
}

// A trace record as the module builds it: a level word, then the text and its NUL.
std::vector<char> trace(uint32_t level, const std::string &text) {
    std::vector<char> r(sizeof level + text.size() + 1, '\0');
    std::memcpy(r.data(), &level, sizeof level);
    std::memcpy(r.data() + sizeof level, text.data(), text.size());
    return r;
}

TEST_F(PlatformTest, TraceHistoryKeepsLevelAndTextAndWrapsAt1024) {
    // Off unless something reads it (tests do, so reset_for_tests switches it on).
    platform::set_trace_history(false);
    EXPECT_NE(sdwrap_hist_event_subtype_check(0x730000, 101), 0);
    platform::set_trace_history(true);
    EXPECT_EQ(sdwrap_hist_event_subtype_check(0x730000, 101), 0);
    auto r = trace(101, "get_callhome_mib : done \n");
    sdwrap_hist_event(0x730000, uint32_t(r.size()), r.data());
    sdwrap_hist_event(0x730000, 4 + 3, trace(100, "abcdef").data()); // only `length` counts
    // An unterminated text in a block of exactly `length` bytes (ASan watches the end).
    auto *raw = static_cast<char *>(std::malloc(4 + 5));
    std::memcpy(raw, trace(100, "12345").data(), 9);
    sdwrap_hist_event(0x730000, 9, raw);
    std::free(raw);
    sdwrap_hist_event(0x730000, 3, r.data()); // too short for a level, or null: not recorded
    sdwrap_hist_event(0x730000, 10, nullptr);
    const std::vector<std::pair<int, std::string>> expected = {
        {101, "get_callhome_mib : done \n"}, {100, "abc"}, {100, "12345"}};
    EXPECT_EQ(platform::trace_history(), expected);
    for (int i = 3; i < 1030; ++i) {
        r = trace(101, "event " + std::to_string(i));
        sdwrap_hist_event(0x730000, uint32_t(r.size()), r.data());
    }
    const auto history = platform::trace_history();
    ASSERT_EQ(history.size(), 1024u);
    EXPECT_EQ(history.front().second, "event 6");
    EXPECT_EQ(history.back().second, "event 1029");
}

TEST_F(PlatformTest, DebugOutputSwitches) {
    const char *saved = std::getenv("CALLHOME_DEBUG");
    const std::string saved_value = saved != nullptr ? saved : "";
    auto on = [] { return sdwrap_chk_int(101, 0, 0, 1) != 0; };
    ::unsetenv("CALLHOME_DEBUG");
    EXPECT_FALSE(on());
    platform::set_debug_output(true);
    EXPECT_TRUE(on());
    platform::set_debug_output(false);
    // The environment is read at start (and again by reset_for_tests), not per trace.
    for (const std::string value : {"", "1"}) {
        ::setenv("CALLHOME_DEBUG", value.c_str(), 1);
        EXPECT_FALSE(on()) << value;
        platform::reset_for_tests();
        EXPECT_EQ(on(), value == "1");
    }
    ::unsetenv("CALLHOME_DEBUG");
    platform::reset_for_tests();
    // net-snmp debugging counts only with the module's token.
    snmp_set_do_debugging(1);
    debug_register_tokens("someother");
    EXPECT_FALSE(on());
    debug_register_tokens("callhome");
    EXPECT_TRUE(on());
    snmp_set_do_debugging(0);
    EXPECT_FALSE(on());
    buginf(1, sdwrap_dbg_modname, 0, "%s : %d\n", "formatted", 42); // must not crash
    if (saved != nullptr) {
        ::setenv("CALLHOME_DEBUG", saved_value.c_str(), 1);
    }
}

// Orders names backwards, as some of the module's comparators do; nulls answer -1.
int reversed(const void *a, const void *b) {
    return a == nullptr || b == nullptr ? -1 : std::strcmp((const char *)b, (const char *)a);
}

TEST_F(PlatformTest, IndexContainerKeepsComparatorOrderAndOwnsItsRows) {
    ASSERT_EQ(indxobj_create(&obj, 0, 1, reversed, 1), INDXOBJ_CREATED);
    for (int i = 0; i < 200; ++i) {
        char *row = strdup(("row" + std::to_string((i * 37) % 200)).c_str());
        ASSERT_EQ(indxobj_add(obj, row, row), 0);
    }
    char *again = strdup("row7");
    EXPECT_EQ(indxobj_add(obj, again, again), -1); // duplicate
    std::free(again);
    // Binary search only finds every row when the rows sit in the comparator's order.
    for (int i = 0; i < 200; ++i) {
        const std::string key = "row" + std::to_string(i);
        const char *row = static_cast<char *>(indxobj_find(obj, key.c_str()));
        EXPECT_EQ(key, row != nullptr ? row : "") << key;
    }
    EXPECT_EQ(indxobj_find(obj, "row200"), nullptr);
    EXPECT_EQ(indxobj_find(obj, nullptr), nullptr);
    EXPECT_EQ(indxobj_add(obj, nullptr, nullptr), -1);
    char *removed = static_cast<char *>(indxobj_remove(obj, "row5"));
    ASSERT_NE(removed, nullptr);
    EXPECT_STREQ(removed, "row5");
    std::free(removed); // the caller owns what it removes
    EXPECT_EQ(indxobj_remove(obj, "row5"), nullptr);
    EXPECT_STREQ(static_cast<char *>(indxobj_find(obj, "row4")), "row4");
    // Destroy (TearDown) frees every row left; ASan reports any leak.
}

TEST_F(PlatformTest, IndexContainerThatDoesNotOwnItsRowsLeavesThem) {
    ASSERT_EQ(indxobj_create(&obj, 0, 1, reversed, 0), INDXOBJ_CREATED);
    char row[] = "kept";
    ASSERT_EQ(indxobj_add(obj, row, row), 0); // TearDown must not free() the stack array
    indxobj_destroy(nullptr);
}

TEST(Bitset, SnmpBitNumberingAtTheEdges) {
    // Header 32 and 32 bytes of storage, as the module uses, plus a guard byte.
    struct {
        uint32_t size = 32;
        uint8_t bits[32];
        uint8_t guard = 0x5A;
    } set;
    std::memset(set.bits, 0xFF, sizeof set.bits);
    bitset_clear(&set);
    EXPECT_EQ(std::vector<uint8_t>(set.bits, set.bits + 32), std::vector<uint8_t>(32, 0));
    const std::pair<uint32_t, std::pair<size_t, uint8_t>> cases[] = {
        {0, {0, 0x80}}, {7, {0, 0x01}}, {8, {1, 0x80}}, {255, {31, 0x01}}, {100, {12, 0x08}}};
    for (const auto &[bit, where] : cases) {
        EXPECT_EQ(bitset_is_bit_set(&set, bit), 0) << bit;
        bitset_set_bit(&set, bit);
        EXPECT_EQ(bitset_is_bit_set(&set, bit), 1) << bit;
        EXPECT_NE(set.bits[where.first] & where.second, 0) << bit;
    }
    EXPECT_EQ(set.bits[0], 0x81);
    EXPECT_EQ(bitset_is_bit_set(&set, 1) + bitset_is_bit_set(&set, 254), 0);
    // Beyond the storage: ignored, and reads answer 0.
    for (uint32_t bit : {256u, 263u, 0xFFFFFFFFu}) {
        bitset_set_bit(&set, bit);
        EXPECT_EQ(bitset_is_bit_set(&set, bit), 0) << bit;
    }
    EXPECT_EQ(set.guard, 0x5A);
    bitset_clear(&set);
    EXPECT_EQ(bitset_is_bit_set(&set, 0) + bitset_is_bit_set(&set, 255), 0);
    EXPECT_EQ(set.guard, 0x5A);
    // A heap block of exactly header + 2 bytes: ASan catches any access beyond it.
    auto *raw = static_cast<uint8_t *>(std::malloc(BITSET_HEADER_SIZE + 2));
    const uint32_t size = 2;
    std::memcpy(raw, &size, sizeof size);
    bitset_clear(raw);
    bitset_set_bit(raw, 15);
    bitset_set_bit(raw, 16);
    EXPECT_EQ(bitset_is_bit_set(raw, 15) * 2 + bitset_is_bit_set(raw, 16), 2);
    EXPECT_EQ(raw[BITSET_HEADER_SIZE + 1], 0x01);
    std::free(raw);
}

} // namespace
