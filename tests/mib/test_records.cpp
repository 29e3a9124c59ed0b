// Wire records: byte order on the channel, defaults of new rows, container orderings and the
// status mapping.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "callhome_mib.h"

namespace {

// The 4 bytes at `offset` of a record, as they would travel.
template <class Record> std::vector<uint8_t> bytes_at(const Record &r, size_t offset) {
    const auto *p = reinterpret_cast<const uint8_t *>(&r) + offset;
    return {p, p + 4};
}

const std::vector<uint8_t> kBigEndian1234 = {0x01, 0x02, 0x03, 0x04};

TEST(RecordByteOrder, ProfileEntrySwapsEveryWordAndKeepsText) {
    callHomeDestProfileEntry_t e{};
    strcpy(e.destination_profile_id, "p1");
    e.transport_method = 0x01020304;
    e.format_method = 0x01020304;
    e.maximum_message_size = 0x01020304;
    e.row_status = 0x01020304;
    e.msg_level = 3;
    e.request_flag = 1;
    callHomeDestProfileEntry_hton(&e);
    for (size_t off : {32u, 36u, 40u, 44u}) {
        EXPECT_EQ(bytes_at(e, off), kBigEndian1234) << "offset " << off;
    }
    EXPECT_STREQ(e.destination_profile_id, "p1");
    EXPECT_EQ(e.msg_level, 3);
    EXPECT_EQ(e.request_flag, 1);
    callHomeDestProfileEntry_ntoh(&e);
    EXPECT_EQ(e.transport_method, 0x01020304);
    EXPECT_EQ(e.maximum_message_size, 0x01020304u);
}

TEST(RecordByteOrder, EmailAddressEntry) {
    callHomeDestEmailAddressEntry_t e{};
    strcpy(e.email_addr, "ops@example.com");
    e.index = 0x01020304;
    e.row_status = 0x01020304;
    e.commit_flag = 1;
    callHomeDestEmailAddressEntry_hton(&e);
    EXPECT_EQ(bytes_at(e, 288), kBigEndian1234);
    EXPECT_EQ(bytes_at(e, 292), kBigEndian1234);
    EXPECT_STREQ(e.email_addr, "ops@example.com");
    EXPECT_EQ(e.commit_flag, 1);
    callHomeDestEmailAddressEntry_ntoh(&e);
    EXPECT_EQ(e.index, 0x01020304);
}

TEST(RecordByteOrder, AlertGroupEntry) {
    callHomeAlertGroupEntry_t e{};
    e.word = 0x01020304;
    e.row_status = 0x01020304;
    callHomeAlertGroupEntry_hton(&e);
    EXPECT_EQ(bytes_at(e, 32), kBigEndian1234);
    EXPECT_EQ(bytes_at(e, 36), kBigEndian1234);
    callHomeAlertGroupEntry_ntoh(&e);
    EXPECT_EQ(e.row_status, 0x01020304);
}

TEST(RecordByteOrder, EmailConf) {
    cmi_email_conf_t c{};
    strcpy(c.smtp_server, "mail.example.com");
    c.address_type = 0x01020304;
    c.smtp_server_port = 0x01020304;
    c.reserved = 9;
    callHomeEmailConf_hton(&c);
    EXPECT_EQ(bytes_at(c, 1024), kBigEndian1234);
    EXPECT_EQ(bytes_at(c, 1028), kBigEndian1234);
    EXPECT_EQ(c.reserved, 9);
    EXPECT_STREQ(c.smtp_server, "mail.example.com");
    callHomeEmailConf_ntoh(&c);
    EXPECT_EQ(c.smtp_server_port, 0x01020304u);
}

TEST(RecordByteOrder, AlertGroupTypeAndUserCommand) {
    callhome_alertgroup_type_t t{};
    t.index = 0x01020304;
    strcpy(t.grp_name, "syslog");
    callhome_alertgroup_type_hton(&t);
    EXPECT_EQ(bytes_at(t, 0), kBigEndian1234);
    EXPECT_STREQ(t.grp_name, "syslog");
    callhome_alertgroup_type_ntoh(&t);
    EXPECT_EQ(t.index, 0x01020304u);

    cmi_userdef_cli_cmd_t c{};
    c.index = 0x01020304;
    c.row_status = 0x01020304;
    strcpy(c.cli_cmd, "show version");
    c.request_flag = 1;
    cmi_userdef_cli_cmd_hton(&c);
    EXPECT_EQ(bytes_at(c, 0), kBigEndian1234);
    EXPECT_EQ(bytes_at(c, 260), kBigEndian1234);
    EXPECT_STREQ(c.cli_cmd, "show version");
    EXPECT_EQ(c.request_flag, 1);
    cmi_userdef_cli_cmd_ntoh(&c);
    EXPECT_EQ(c.row_status, 0x01020304);
}

TEST(RecordDefaults, ProfileKeepsNameAndRowStatus) {
    callHomeDestProfileEntry_t e;
    memset(&e, 0x5A, sizeof e);
    strcpy(e.destination_profile_id, "p1");
    e.row_status = 4;
    callHomeDestProfileEntry_defaults(&e);
    EXPECT_STREQ(e.destination_profile_id, "p1");
    EXPECT_EQ(e.row_status, 4);
    EXPECT_EQ(e.transport_method, 1);
    EXPECT_EQ(e.format_method, 1);
    EXPECT_EQ(e.maximum_message_size, 0u);
    EXPECT_EQ(e.msg_level, 0);
    EXPECT_EQ(e.request_flag, 0);
    EXPECT_EQ(e.reserved, 0x5A); // not the defaults' business
}

TEST(RecordDefaults, EmailAddressKeepsIndexAndRowStatus) {
    callHomeDestEmailAddressEntry_t e;
    memset(&e, 0x5A, sizeof e);
    e.index = 3;
    e.row_status = 5;
    callHomeDestEmailAddressEntry_defaults(&e);
    EXPECT_EQ(e.destination_profile_id[0], '\0');
    EXPECT_EQ(e.email_addr[0], '\0');
    EXPECT_EQ(e.commit_flag, 0);
    EXPECT_EQ(e.index, 3);
    EXPECT_EQ(e.row_status, 5);
}

TEST(RecordOrdering, NullArgumentsGiveMinusOne) {
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
}

int sign(int v) {
    return (v > 0) - (v < 0);
}

TEST(RecordOrdering, ProfilesCompareReversed) {
    callHomeDestProfileEntry_t a{}, b{};
    strcpy(a.destination_profile_id, "alpha");
    strcpy(b.destination_profile_id, "beta");
    // strcmp(b, a): "beta" > "alpha", so comp(a, b) is positive.
    EXPECT_GT(callHomeDestProfileEntry_comp(&a, &b), 0);
    EXPECT_LT(callHomeDestProfileEntry_comp(&b, &a), 0);
    b = a;
    b.format_method = 3; // only the name counts
    EXPECT_EQ(callHomeDestProfileEntry_comp(&a, &b), 0);
}

TEST(RecordOrdering, ProfileNamesCompareAsStored) {
    // Names are cut to 31 characters before they are stored, so names that differ only
    // beyond that are the same row.
    const std::string a_name = std::string(31, 'n') + "X";
    const std::string b_name = std::string(31, 'n') + "Y";
    callHomeDestProfileEntry_t a{}, b{};
    memcpy(a.destination_profile_id, a_name.data(), sizeof a.destination_profile_id - 1);
    memcpy(b.destination_profile_id, b_name.data(), sizeof b.destination_profile_id - 1);
    EXPECT_EQ(callHomeDestProfileEntry_comp(&a, &b), 0);
    b.destination_profile_id[30] = 'm';
    EXPECT_LT(callHomeDestProfileEntry_comp(&a, &b), 0);
}

TEST(RecordOrdering, EmailAddressesByProfileThenIndex) {
    struct Case {
        const char *a_profile;
        int a_index;
        const char *b_profile;
        int b_index;
        int expected_sign;
    };
    const Case cases[] = {
        {"p1", 1, "p1", 1, 0}, {"p1", 1, "p1", 2, 1},  {"p1", 2, "p1", 1, -1},
        {"p1", 9, "p2", 1, 1}, {"p2", 1, "p1", 9, -1}, {"p1", -1, "p1", 1, 1},
    };
    for (const auto &c : cases) {
        callHomeDestEmailAddressEntry_t a{}, b{};
        strcpy(a.destination_profile_id, c.a_profile);
        strcpy(b.destination_profile_id, c.b_profile);
        a.index = c.a_index;
        b.index = c.b_index;
        strcpy(a.email_addr, "one@example.com"); // addresses take no part
        strcpy(b.email_addr, "two@example.com");
        EXPECT_EQ(sign(callHomeDestEmailAddressEntry_comp(&a, &b)), c.expected_sign)
            << c.a_profile << "/" << c.a_index << " vs " << c.b_profile << "/" << c.b_index;
    }
}

TEST(RecordOrdering, UserCommandsByTypeThenIndex) {
    struct Case {
        int a_type, a_index, b_type, b_index, expected;
    };
    const Case cases[] = {
        {1, 1, 1, 1, 0}, {1, 1, 2, 0, 1},  {2, 0, 1, 9, -1},
        {1, 1, 1, 2, 1}, {1, 2, 1, 1, -1}, {-5, 1, 1, 1, 1},
    };
    for (const auto &c : cases) {
        callHomeUserDefCliCmdEntry_t a{}, b{};
        a.alertgroup_type = c.a_type;
        a.index = c.a_index;
        b.alertgroup_type = c.b_type;
        b.index = c.b_index;
        strcpy(a.alertgroup_name, "x"); // names take no part
        strcpy(b.alertgroup_name, "y");
        EXPECT_EQ(callHomeUserDefCliCmdEntry_comp(&a, &b), c.expected)
            << c.a_type << "." << c.a_index << " vs " << c.b_type << "." << c.b_index;
    }
}

TEST(StatusMapping, ServiceStatusToSnmpError) {
    EXPECT_EQ(to_snmp_error_code(0), SNMP_ERR_NOERROR);
    EXPECT_EQ(to_snmp_error_code(CALLHOME_UNKNOWN_ENTRY), SNMP_ERR_NOSUCHNAME);
    const int failures[] = {-1,
                            1,
                            CALLHOME_END_OF_TABLE,
                            CALLHOME_ERR_INVALID_INPUT,
                            CALLHOME_ERR_BUILTIN_PROFILE,
                            CALLHOME_ERR_VELD_RESEND};
    for (int status : failures) {
        EXPECT_EQ(to_snmp_error_code(status), SNMP_ERR_GENERR) << status;
    }
}

} // namespace
