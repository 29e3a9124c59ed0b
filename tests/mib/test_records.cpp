// Wire records: byte order on the channel, defaults of new rows, container orderings and the
// status mapping.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "callhome_mib.h"

namespace {

// Fills the record with a pattern in which no 4-byte word reads the same backwards, puts
// 0x01020304 at each word offset, converts to the wire: exactly those words are swapped and
// every other byte (texts, flags) is kept; converting back restores the record.
template <class R>
void check_byte_order(void (*hton)(R *), void (*ntoh)(R *), std::vector<size_t> words) {
    R r;
    auto *bytes = reinterpret_cast<uint8_t *>(&r);
    for (size_t i = 0; i < sizeof r; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7 + 1);
    }
    const uint32_t host = 0x01020304;
    const uint8_t big_endian[4] = {1, 2, 3, 4};
    std::vector<uint8_t> original(sizeof r), expected;
    for (size_t off : words) {
        memcpy(bytes + off, &host, 4);
    }
    memcpy(original.data(), bytes, sizeof r);
    expected = original;
    for (size_t off : words) {
        memcpy(expected.data() + off, big_endian, 4);
    }
    hton(&r);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + sizeof r), expected);
    ntoh(&r);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + sizeof r), original);
}

TEST(RecordByteOrder, EveryWordAndNothingElse) {
    check_byte_order(callHomeDestProfileEntry_hton, callHomeDestProfileEntry_ntoh,
                     {32, 36, 40, 44});
    check_byte_order(callHomeDestEmailAddressEntry_hton, callHomeDestEmailAddressEntry_ntoh,
                     {288, 292});
    check_byte_order(callHomeAlertGroupEntry_hton, callHomeAlertGroupEntry_ntoh, {32, 36});
    check_byte_order(callHomeEmailConf_hton, callHomeEmailConf_ntoh, {1024, 1028});
    check_byte_order(callhome_alertgroup_type_hton, callhome_alertgroup_type_ntoh, {0});
    check_byte_order(cmi_userdef_cli_cmd_hton, cmi_userdef_cli_cmd_ntoh, {0, 260});
}

TEST(RecordDefaults, KeepTheKeyAndRowStatus) {
    callHomeDestProfileEntry_t p;
    memset(&p, 0x5A, sizeof p);
    strcpy(p.destination_profile_id, "p1");
    p.row_status = 4;
    callHomeDestProfileEntry_defaults(&p);
    EXPECT_STREQ(p.destination_profile_id, "p1");
    EXPECT_EQ(std::make_tuple(p.row_status, p.transport_method, p.format_method),
              std::make_tuple(4, 1, 1));
    EXPECT_EQ(std::make_tuple(p.maximum_message_size, p.msg_level, p.request_flag),
              std::make_tuple(0u, int8_t{0}, uint8_t{0}));
    EXPECT_EQ(p.reserved, 0x5A); // not the defaults' business

    callHomeDestEmailAddressEntry_t e;
    memset(&e, 0x5A, sizeof e);
    e.index = 3;
    e.row_status = 5;
    callHomeDestEmailAddressEntry_defaults(&e);
    EXPECT_EQ(std::make_tuple(e.destination_profile_id[0], e.email_addr[0], e.commit_flag),
              std::make_tuple('\0', '\0', uint8_t{0}));
    EXPECT_EQ(std::make_pair(e.index, e.row_status), std::make_pair(3, 5));
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
    EXPECT_EQ(callHomeDestProfileEntry_comp(nullptr, &p), -1);
    EXPECT_EQ(callHomeDestProfileEntry_comp(&p, nullptr), -1);
    EXPECT_EQ(callHomeDestProfileEntry_comp(nullptr, nullptr), -1);
    EXPECT_EQ(callHomeDestEmailAddressEntry_comp(nullptr, &e), -1);
    EXPECT_EQ(callHomeDestEmailAddressEntry_comp(&e, nullptr), -1);
    EXPECT_EQ(callHomeUserDefCliCmdEntry_comp(nullptr, &u), -1);
    EXPECT_EQ(callHomeUserDefCliCmdEntry_comp(&u, nullptr), -1);

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
        EXPECT_EQ(sign(callHomeDestEmailAddressEntry_comp(&ea, &eb)), expected)
            << a_key << "/" << a_index << " vs " << b_key << "/" << b_index;
        callHomeUserDefCliCmdEntry_t ua{}, ub{};
        ua.alertgroup_type = a_key;
        ub.alertgroup_type = b_key;
        ua.index = a_index;
        ub.index = b_index;
        strcpy(ua.alertgroup_name, "x");
        strcpy(ub.alertgroup_name, "y");
        EXPECT_EQ(callHomeUserDefCliCmdEntry_comp(&ua, &ub), expected)
            << a_key << "." << a_index << " vs " << b_key << "." << b_index;
    }
}

TEST(StatusMapping, ServiceStatusToSnmpError) {
    EXPECT_EQ(to_snmp_error_code(0), SNMP_ERR_NOERROR);
    EXPECT_EQ(to_snmp_error_code(CALLHOME_UNKNOWN_ENTRY), SNMP_ERR_NOSUCHNAME);
    for (int status : {-1, 1, int{CALLHOME_END_OF_TABLE}, int{CALLHOME_ERR_INVALID_INPUT},
                       int{CALLHOME_ERR_BUILTIN_PROFILE}, int{CALLHOME_ERR_VELD_RESEND}}) {
        EXPECT_EQ(to_snmp_error_code(status), SNMP_ERR_GENERR) << status;
    }
}

} // namespace
