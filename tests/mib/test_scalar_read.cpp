// Scalar reads: what each GET sends to the service, the value and length it hands to the agent,
// and the defaults that replace failed reads.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/time.h>

#include <cstring>
#include <string>
#include <vector>

#include "callhome_mib.h"
#include "fake_channel.hpp"

namespace {

using callhome_test::be32;
using callhome_test::FakeChannel;

// A scalar of the object table as the agent hands it to its read handler.
struct Scalar {
    struct variable vp {};
    oid name[MAX_OID_LEN] = {};
    size_t length = 0;
    size_t var_len = 0;
    WriteMethod *write_method = nullptr;

    explicit Scalar(u_char magic) {
        for (const auto &entry : callhome_mib_variables) {
            if (entry.magic != magic) {
                continue;
            }
            vp.magic = entry.magic;
            vp.type = entry.type;
            vp.acl = entry.acl;
            vp.findVar = entry.findVar;
            memcpy(vp.name, callhome_mib_variables_oid, sizeof callhome_mib_variables_oid);
            memcpy(vp.name + CALLHOME_MIB_ROOT_LEN, entry.name, entry.namelen * sizeof(oid));
            vp.namelen = static_cast<u_char>(CALLHOME_MIB_ROOT_LEN + entry.namelen);
            return;
        }
        vp.magic = magic; // not in the table: a bare entry under the root
        memcpy(vp.name, callhome_mib_variables_oid, sizeof callhome_mib_variables_oid);
        vp.name[CALLHOME_MIB_ROOT_LEN] = 1;
        vp.namelen = CALLHOME_MIB_ROOT_LEN + 1;
        vp.findVar = get_callhome_mib;
    }

    // GET of the object's instance with `extra` arcs after the name (normally .0).
    u_char *get(std::vector<oid> extra = {0}) {
        memcpy(name, vp.name, vp.namelen * sizeof(oid));
        length = vp.namelen;
        for (oid arc : extra) {
            name[length++] = arc;
        }
        return get_callhome_mib(&vp, name, &length, 1, &var_len, &write_method);
    }

    long as_long(const u_char *value) const {
        long v;
        memcpy(&v, value, sizeof v);
        return v;
    }
    int32_t as_int32(const u_char *value) const {
        int32_t v;
        memcpy(&v, value, sizeof v);
        return v;
    }
    std::string as_text(const u_char *value) const {
        return std::string(reinterpret_cast<const char *>(value), var_len);
    }
};

// Resets the platform before the channel installs itself.
struct PlatformReset {
    PlatformReset() { platform::reset_for_tests(); }
};

class ScalarRead : public ::testing::Test {
  protected:
    void TearDown() override { platform::reset_for_tests(); }

    PlatformReset reset_;
    FakeChannel channel;
};

cmi_callhome_info_t info_answer(const char *name, const char *value) {
    cmi_callhome_info_t r{};
    strcpy(r.info_name, name);
    strcpy(r.info_value, value);
    return r;
}

cmi_email_conf_t email_answer(uint32_t type, const char *server, uint32_t port = 25) {
    cmi_email_conf_t r{};
    strcpy(r.from_email_addr, "from@example.com");
    strcpy(r.reply_to, "reply@example.com");
    strcpy(r.return_receipt_addr, "receipt@example.com");
    strcpy(r.smtp_server, server);
    r.address_type = be32(type);
    r.smtp_server_port = be32(port);
    return r;
}

callhome_status_t status_answer(uint32_t message_status, uint32_t code, const char *message) {
    callhome_status_t r{};
    r.num_alerts_sent = be32(42);
    r.callhome_message_status = be32(message_status);
    r.callhome_error_code = be32(code);
    strcpy(r.callhome_error_message, message);
    return r;
}

callhome_switch_t switch_answer(uint32_t value) {
    callhome_switch_t r{};
    r.value = be32(value);
    return r;
}

callhome_periodic_inventory_t periodic_answer(uint32_t enable, uint32_t days, uint32_t minutes) {
    callhome_periodic_inventory_t r{};
    r.enable = be32(enable);
    r.time_frame = be32(days);
    r.time_of_day = be32(minutes);
    return r;
}

TEST_F(ScalarRead, EachServiceScalarSendsItsRequest) {
    struct Case {
        u_char magic;
        int opcode;
        size_t length;
        const char *info_name;
    };
    const Case cases[] = {
        {CALLHOMEENABLE, CALLHOME_ENABLE_OPC, 5, nullptr},
        {SYSCONTACTPHONENUMBER, CALLHOME_INFO_OPC, 2305, "sysContactPhoneNumber"},
        {SYSCONTACTEMAILADDRESS, CALLHOME_INFO_OPC, 2305, "sysContactEmail"},
        {SYSSTREETADDRESS, CALLHOME_INFO_OPC, 2305, "sysStreetAddress"},
        {CALLHOMECUSTOMERID, CALLHOME_INFO_OPC, 2305, "custId"},
        {CALLHOMECONTRACTID, CALLHOME_INFO_OPC, 2305, "contractId"},
        {CALLHOMESITEID, CALLHOME_INFO_OPC, 2305, "siteId"},
        {CALLHOMEDEVICESERVICEPRIORITY, CALLHOME_INFO_OPC, 2305, "priority"},
        {CALLHOMEMESSAGESTATUS, CALLHOME_STATUS_OPC, 2068, nullptr},
        {CALLHOMEERRORMESSAGE, CALLHOME_STATUS_OPC, 2068, nullptr},
        {CALLHOMEEMAILFROM, CALLHOME_EMAIL_CONF_OPC, 1033, nullptr},
        {CALLHOMEEMAILREPLYTO, CALLHOME_EMAIL_CONF_OPC, 1033, nullptr},
        {CALLHOMEEMAILMSGDISPNOTIFICATION, CALLHOME_EMAIL_CONF_OPC, 1033, nullptr},
        {CALLHOMESMTPSERVERADDRTYPE, CALLHOME_EMAIL_CONF_OPC, 1033, nullptr},
        {CALLHOMESMTPSERVERADDR, CALLHOME_EMAIL_CONF_OPC, 1033, nullptr},
        {CALLHOMESMTPSERVERPORT, CALLHOME_EMAIL_CONF_OPC, 1033, nullptr},
        {PERIODICSWINVENTORYMSGENABLE, CALLHOME_PERIODIC_INVENTORY_OPC, 13, nullptr},
        {PERIODICSWINVENTORYTIMEFRAME, CALLHOME_PERIODIC_INVENTORY_OPC, 13, nullptr},
        {MSGTHROTTLINGENABLE, CALLHOME_MSG_THROTTLING_OPC, 5, nullptr},
        {CALLHOMELASTALERTSENTTIME, CALLHOME_STATUS_OPC, 2068, nullptr},
        {CALLHOMEALERTSSENTCOUNT, CALLHOME_STATUS_OPC, 2068, nullptr},
        {PERIODICSWINVENTORYTIMEOFDAY, CALLHOME_PERIODIC_INVENTORY_OPC, 13, nullptr},
    };
    platform::set_snmp_context("operator", 77); // scalar reads pass neither
    for (const auto &c : cases) {
        channel.clear();
        Scalar s(c.magic);
        s.get();
        ASSERT_EQ(channel.count(), 1u) << int(c.magic);
        const auto &r = channel.last();
        EXPECT_EQ(r.opcode, c.opcode) << int(c.magic);
        EXPECT_EQ(r.msg_type, GET_REQ) << int(c.magic);
        EXPECT_EQ(r.record.size(), c.length) << int(c.magic);
        EXPECT_TRUE(r.wants_record);
        EXPECT_TRUE(r.user_null) << int(c.magic);
        EXPECT_EQ(r.session, 0u);
        EXPECT_EQ(r.client, 0);
        EXPECT_EQ(r.wait, 2);
        if (c.info_name != nullptr) {
            const auto info = FakeChannel::as<cmi_callhome_info_t>(r);
            EXPECT_STREQ(info.info_name, c.info_name);
            EXPECT_STREQ(info.info_value, "");
        } else if (c.opcode != CALLHOME_EMAIL_CONF_OPC) {
            // Fresh, zeroed requests (the e-mail record is the persistent one).
            EXPECT_EQ(r.record, std::vector<uint8_t>(c.length, 0)) << int(c.magic);
        }
    }
}

TEST_F(ScalarRead, DistributionTurnsReadsIntoDistributionReads) {
    struct Case {
        bool enabled;
        int show_run_mode;
        u_char magic;
        int expected;
    };
    const Case cases[] = {
        {true, 0, SYSCONTACTPHONENUMBER, VELD_GET_REQ},
        {true, 0, CALLHOMEEMAILFROM, VELD_GET_REQ},
        {true, 0, CALLHOMEENABLE, VELD_GET_REQ},
        {true, 0, MSGTHROTTLINGENABLE, VELD_GET_REQ},
        {true, 0, PERIODICSWINVENTORYTIMEFRAME, VELD_GET_REQ},
        {true, 0, CALLHOMEALERTSSENTCOUNT, GET_REQ}, // the status is never distributed
        {true, 1, SYSCONTACTPHONENUMBER, GET_REQ},
        {true, 1, PERIODICSWINVENTORYTIMEFRAME, GET_REQ},
        {false, 0, SYSCONTACTPHONENUMBER, GET_REQ},
    };
    for (const auto &c : cases) {
        channel.clear();
        platform::set_distribution(c.enabled, c.show_run_mode);
        Scalar(c.magic).get();
        ASSERT_EQ(channel.count(), 1u);
        EXPECT_EQ(channel.last().msg_type, c.expected)
            << int(c.magic) << " enabled " << c.enabled << " mode " << c.show_run_mode;
    }
}

TEST_F(ScalarRead, ConstantObjectsAskNothing) {
    struct Case {
        u_char magic;
        long value;
        WriteMethod *writer;
    };
    const Case cases[] = {
        {CALLHOMEALERTTEST, 1, set_callHomeAlertAction},
        {CALLHOMEDESTPROFILEMAXCOUNT, 50, nullptr},
        {CALLHOMEUSERDEFCLICMDMAXCOUNT, 5, nullptr},
    };
    for (const auto &c : cases) {
        Scalar s(c.magic);
        const u_char *value = s.get();
        ASSERT_NE(value, nullptr);
        EXPECT_EQ(s.as_long(value), c.value);
        EXPECT_EQ(s.write_method, c.writer);
    }
    Scalar test(CALLHOMEALERTTEST);
    test.get();
    EXPECT_EQ(test.var_len, 4u);
    EXPECT_EQ(channel.count(), 0u);
}

TEST_F(ScalarRead, InstanceMustBeExactlyDotZero) {
    const std::vector<std::vector<oid>> bad = {{}, {1}, {0, 0}, {0, 1}};
    for (u_char magic : {SYSCONTACTPHONENUMBER, CALLHOMEDESTPROFILEMAXCOUNT}) {
        for (const auto &extra : bad) {
            Scalar s(magic);
            EXPECT_EQ(s.get(extra), nullptr) << int(magic) << " arcs " << extra.size();
        }
    }
    EXPECT_EQ(channel.count(), 0u);
}

TEST_F(ScalarRead, GetNextMovesToTheInstance) {
    channel.answer(info_answer("siteId", "site-9"));
    Scalar s(CALLHOMESITEID);
    memcpy(s.name, s.vp.name, s.vp.namelen * sizeof(oid));
    s.length = s.vp.namelen;
    const u_char *value =
        get_callhome_mib(&s.vp, s.name, &s.length, 0, &s.var_len, &s.write_method);
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(s.length, s.vp.namelen + 1u);
    EXPECT_EQ(s.name[s.vp.namelen], 0u);
    EXPECT_EQ(s.as_text(value), "site-9");
}

TEST_F(ScalarRead, UnknownMagicsGiveNothing) {
    for (u_char magic : {12, 29, 30, 40, 200}) {
        Scalar s(magic);
        EXPECT_EQ(s.get(), nullptr) << int(magic);
    }
    EXPECT_EQ(channel.count(), 0u);
}

TEST_F(ScalarRead, WriteHandlerIsHandedBackEvenWhenTheReadFails) {
    struct Case {
        u_char magic;
        WriteMethod *writer;
    };
    // One object of each kind of read, and read-only objects.
    const Case cases[] = {
        {CALLHOMEENABLE, set_callHomeEnable},
        {CALLHOMEDEVICESERVICEPRIORITY, set_callHomeDeviceServicePriority},
        {CALLHOMEEMAILREPLYTO, set_callHomeEmailReplyTo},
        {CALLHOMESMTPSERVERADDR, set_callHomeSmtpServerAddr},
        {MSGTHROTTLINGENABLE, set_MsgThrottlingEnable},
        {PERIODICSWINVENTORYTIMEOFDAY, set_PeriodicSwInventoryTimeOfDay},
        {CALLHOMEERRORMESSAGE, nullptr},
        {CALLHOMEALERTSSENTCOUNT, nullptr},
    };
    platform::set_distribution(true, 0); // no defaults: every read fails
    channel.set_default({-1, false, {}, EIO});
    for (const auto &c : cases) {
        Scalar s(c.magic);
        s.write_method = set_callHomeSiteId; // header_generic clears it first
        s.get();
        EXPECT_EQ(s.write_method, c.writer) << int(c.magic);
    }
}

TEST_F(ScalarRead, InfoTexts) {
    channel.answer(info_answer("custId", "customer 7"));
    Scalar s(CALLHOMECUSTOMERID);
    const u_char *value = s.get();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(s.as_text(value), "customer 7");
    EXPECT_EQ(s.var_len, 10u);
}

TEST_F(ScalarRead, PriorityIsOneAboveTheService) {
    struct Case {
        const char *service_value;
        long expected;
    };
    for (const Case &c : {Case{"7", 8}, Case{"0", 1}, Case{"3", 4}}) {
        channel.answer(info_answer("priority", c.service_value));
        Scalar s(CALLHOMEDEVICESERVICEPRIORITY);
        const u_char *value = s.get();
        ASSERT_NE(value, nullptr);
        EXPECT_EQ(s.as_int32(value), c.expected) << c.service_value;
        EXPECT_EQ(s.var_len, 4u);
    }
}

TEST_F(ScalarRead, InfoFailures) {
    // Unknown to the service: the priority defaults to 8, texts are empty.
    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    Scalar priority(CALLHOMEDEVICESERVICEPRIORITY);
    const u_char *value = priority.get();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(priority.as_int32(value), 8);

    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    Scalar site(CALLHOMESITEID);
    value = site.get();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(site.var_len, 0u);

    // Any other failure gives no value.
    channel.answer_status(CALLHOME_ERR_NO_MEMORY);
    EXPECT_EQ(Scalar(CALLHOMEDEVICESERVICEPRIORITY).get(), nullptr);
    channel.answer_errno(ETIME);
    EXPECT_EQ(Scalar(CALLHOMESITEID).get(), nullptr);
    // A success that carries no record is no answer either.
    channel.answer_status(0);
    EXPECT_EQ(Scalar(CALLHOMESITEID).get(), nullptr);

    const auto history = platform::trace_history();
    ASSERT_FALSE(history.empty());
    EXPECT_EQ(history.back().first, 100);
    EXPECT_EQ(history.back().second.rfind("get_using_cmi : Req failed : ", 0), 0u);
}

TEST_F(ScalarRead, FailedReadTraceNamesTheStatus) {
    platform::clear_trace_history();
    channel.answer_errno(ETIME);
    Scalar(CALLHOMESITEID).get();
    bool found = false;
    for (const auto &[level, text] : platform::trace_history()) {
        if (text == std::string("get_using_cmi : Req failed : ") + strerror(-1) + "\n") {
            found = level == 100;
        }
    }
    EXPECT_TRUE(found);
}

TEST_F(ScalarRead, EnableSwitch) {
    for (auto [service, expected] : {std::pair{1u, 1}, {0u, 2}, {7u, 1}}) {
        channel.answer(switch_answer(service));
        Scalar s(CALLHOMEENABLE);
        const u_char *value = s.get();
        ASSERT_NE(value, nullptr);
        EXPECT_EQ(s.as_int32(value), expected) << service;
        EXPECT_EQ(s.var_len, 4u);
    }
    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    EXPECT_EQ(Scalar(CALLHOMEENABLE).get(), nullptr);
}

TEST_F(ScalarRead, ThrottlingSwitchAndItsDefault) {
    for (auto [service, expected] : {std::pair{1u, 1}, {0u, 2}, {0xFFFFFFFFu, 2}}) {
        channel.answer(switch_answer(service));
        Scalar s(MSGTHROTTLINGENABLE);
        const u_char *value = s.get();
        ASSERT_NE(value, nullptr);
        EXPECT_EQ(s.as_int32(value), expected) << service;
        EXPECT_EQ(s.var_len, 4u);
    }
    // Any failure of a plain read: on.
    channel.answer_errno(ECONNREFUSED);
    Scalar s(MSGTHROTTLINGENABLE);
    const u_char *value = s.get();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(s.as_int32(value), 1);
    // A failed distribution read gives no value.
    platform::set_distribution(true, 0);
    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    EXPECT_EQ(Scalar(MSGTHROTTLINGENABLE).get(), nullptr);
}

TEST_F(ScalarRead, EmailTextsAndNumbers) {
    const auto answer = email_answer(CALLHOME_ADDR_DNS, "mail.example.com", 587);
    struct Case {
        u_char magic;
        const char *text;
    };
    for (const Case &c : {Case{CALLHOMEEMAILFROM, "from@example.com"},
                          Case{CALLHOMEEMAILREPLYTO, "reply@example.com"},
                          Case{CALLHOMEEMAILMSGDISPNOTIFICATION, "receipt@example.com"}}) {
        channel.answer(answer);
        Scalar s(c.magic);
        const u_char *value = s.get();
        ASSERT_NE(value, nullptr);
        EXPECT_EQ(s.as_text(value), c.text);
    }
    channel.answer(answer);
    Scalar type(CALLHOMESMTPSERVERADDRTYPE);
    const u_char *value = type.get();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(type.as_long(value), 16);
    channel.answer(answer);
    Scalar port(CALLHOMESMTPSERVERPORT);
    value = port.get();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(port.as_long(value), 587);
    // The answer is kept in host order as the persistent record.
    EXPECT_EQ(callhome_email_conf.smtp_server_port, 587u);
    EXPECT_EQ(callhome_email_conf.address_type, 16u);
    EXPECT_STREQ(callhome_email_conf.reply_to, "reply@example.com");
}

TEST_F(ScalarRead, SmtpAddressBytesFollowTheType) {
    struct Case {
        uint32_t type;
        const char *server;
        std::string expected;
    };
    const Case cases[] = {
        {CALLHOME_ADDR_IPV4, "192.0.2.10", std::string("\xC0\x00\x02\x0A", 4)},
        {CALLHOME_ADDR_IPV4, "not-an-address", ""},
        {CALLHOME_ADDR_IPV6, "2001:db8::1",
         std::string("\x20\x01\x0D\xB8\0\0\0\0\0\0\0\0\0\0\0\x01", 16)},
        {CALLHOME_ADDR_DNS, "mail.example.com", "mail.example.com"},
        {3, "192.0.2.10", ""},
        {0, "mail.example.com", ""},
    };
    for (const auto &c : cases) {
        channel.answer(email_answer(c.type, c.server));
        Scalar s(CALLHOMESMTPSERVERADDR);
        const u_char *value = s.get();
        ASSERT_NE(value, nullptr) << c.server;
        EXPECT_EQ(s.as_text(value), c.expected) << c.type << " " << c.server;
    }
}

TEST_F(ScalarRead, EmailFailures) {
    for (u_char magic : {CALLHOMESMTPSERVERADDRTYPE, CALLHOMESMTPSERVERPORT}) {
        channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
        Scalar s(magic);
        const u_char *value = s.get();
        ASSERT_NE(value, nullptr);
        EXPECT_EQ(s.as_long(value), 0);
    }
    for (u_char magic : {CALLHOMEEMAILFROM, CALLHOMESMTPSERVERADDR}) {
        channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
        Scalar s(magic);
        ASSERT_NE(s.get(), nullptr);
        EXPECT_EQ(s.var_len, 0u);
    }
    channel.answer_status(CALLHOME_ERR_NO_MEMORY);
    EXPECT_EQ(Scalar(CALLHOMESMTPSERVERPORT).get(), nullptr);
}

TEST_F(ScalarRead, StatusCounters) {
    auto answer = status_answer(3, 0, "");
    channel.answer(answer);
    Scalar status(CALLHOMEMESSAGESTATUS);
    const u_char *value = status.get();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(status.as_int32(value), 3);
    EXPECT_EQ(status.var_len, 4u);

    channel.answer(answer);
    Scalar count(CALLHOMEALERTSSENTCOUNT);
    value = count.get();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(count.as_int32(value), 42);
    EXPECT_EQ(count.var_len, 4u);

    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    EXPECT_EQ(Scalar(CALLHOMEALERTSSENTCOUNT).get(), nullptr);
}

TEST_F(ScalarRead, LastAlertTime) {
    auto answer = status_answer(1, 0, "");
    channel.answer(answer);
    Scalar never(CALLHOMELASTALERTSENTTIME);
    const u_char *value = never.get();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(never.as_long(value), 0);
    EXPECT_EQ(never.var_len, 4u);

    // The time is shown as the agent's uptime at that moment.
    struct timeval sent_at {};
    gettimeofday(&sent_at, nullptr);
    sent_at.tv_usec = 500000;
    answer.last_alert_sent.tv_sec = be32(static_cast<uint32_t>(sent_at.tv_sec));
    answer.last_alert_sent.tv_usec = be32(500000);
    channel.answer(answer);
    Scalar sent(CALLHOMELASTALERTSENTTIME);
    value = sent.get();
    ASSERT_NE(value, nullptr);
    long expected = static_cast<long>(netsnmp_timeval_uptime(&sent_at));
    EXPECT_EQ(sent.as_long(value), expected < 0 ? 0 : expected);
}

TEST_F(ScalarRead, ErrorMessage) {
    struct Case {
        uint32_t message_status;
        uint32_t code;
        std::string message;
        std::string expected; // the value as the agent reads it (var_len bytes)
    };
    const std::string long_message(400, 'm');
    const std::string code_text = "message delivery failed";
    const Case cases[] = {
        {1, 0x403B0041, "smtp refused", ""}, // a success status shows no error
        {2, 0x403B0041, "smtp refused", ""},
        {3, 0x12345678, "smtp refused", ""}, // unknown code
        {3, 0x403B0041, "", code_text},
        // The separator is not counted, so four characters of the tail are lost.
        {3, 0x403B0041, "smtp refused", code_text + " -  smtp ref"},
        {3, 0x403B0041, long_message, (code_text + " -  " + long_message).substr(0, 255)},
    };
    for (const auto &c : cases) {
        channel.answer(status_answer(c.message_status, c.code, c.message.c_str()));
        Scalar s(CALLHOMEERRORMESSAGE);
        const u_char *value = s.get();
        ASSERT_NE(value, nullptr);
        EXPECT_EQ(s.as_text(value), c.expected) << c.message_status << " " << c.message;
    }
    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    EXPECT_EQ(Scalar(CALLHOMEERRORMESSAGE).get(), nullptr);
}

TEST_F(ScalarRead, PeriodicInventoryValues) {
    const auto answer = periodic_answer(0, 14, 605);
    channel.answer(answer);
    Scalar enable(PERIODICSWINVENTORYMSGENABLE);
    const u_char *value = enable.get();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(enable.as_int32(value), 2);
    EXPECT_EQ(enable.var_len, 4u);

    channel.answer(answer);
    Scalar days(PERIODICSWINVENTORYTIMEFRAME);
    value = days.get();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(days.as_int32(value), 14);

    channel.answer(answer);
    Scalar time(PERIODICSWINVENTORYTIMEOFDAY);
    value = time.get();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(time.as_text(value), "10:05");
}

TEST_F(ScalarRead, PeriodicInventoryDefaultsOnlyForPlainReads) {
    struct Case {
        u_char magic;
        std::string expected;
    };
    for (const Case &c : {Case{PERIODICSWINVENTORYMSGENABLE, std::string("\1\0\0\0", 4)},
                          Case{PERIODICSWINVENTORYTIMEFRAME, std::string("\7\0\0\0", 4)},
                          Case{PERIODICSWINVENTORYTIMEOFDAY, "08:00"}}) {
        channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
        Scalar s(c.magic);
        const u_char *value = s.get();
        ASSERT_NE(value, nullptr);
        EXPECT_EQ(s.as_text(value), c.expected) << int(c.magic);
    }
    platform::set_distribution(true, 0);
    for (u_char magic : {PERIODICSWINVENTORYMSGENABLE, PERIODICSWINVENTORYTIMEOFDAY}) {
        channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
        EXPECT_EQ(Scalar(magic).get(), nullptr) << int(magic);
    }
}

TEST_F(ScalarRead, PeriodicInventoryReadForAWrite) {
    callhome_periodic_inventory_t request{};
    // With distribution on, a write reads the distributed value whatever the show-run mode,
    // and repeats the read once as a plain read when the service asks for it.
    platform::set_distribution(true, 1);
    channel.answer_status(CALLHOME_ERR_VELD_RESEND);
    channel.answer(periodic_answer(1, 21, 90));
    EXPECT_EQ(get_periodic_inventory_info(&request, PERIODICSWINVENTORYTIMEFRAME, 1), 21);
    ASSERT_EQ(channel.count(), 2u);
    EXPECT_EQ(channel.at(0).msg_type, VELD_GET_REQ);
    EXPECT_EQ(channel.at(1).msg_type, GET_REQ);
    EXPECT_EQ(channel.at(1).record.size(), 13u);

    // The repeated read failing again falls back to the defaults.
    channel.clear();
    channel.answer_status(CALLHOME_ERR_VELD_RESEND);
    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    EXPECT_EQ(get_periodic_inventory_info(&request, PERIODICSWINVENTORYTIMEOFDAY, 1), 480);

    // Any other failure of a distribution read is -1.
    channel.clear();
    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    EXPECT_EQ(get_periodic_inventory_info(&request, PERIODICSWINVENTORYMSGENABLE, 1), -1);
    EXPECT_EQ(channel.count(), 1u);

    // A plain GET is not repeated.
    channel.clear();
    platform::set_distribution(true, 0);
    channel.answer_status(CALLHOME_ERR_VELD_RESEND);
    EXPECT_EQ(get_periodic_inventory_info(&request, PERIODICSWINVENTORYMSGENABLE, 0), -1);
    EXPECT_EQ(channel.count(), 1u);

    // Magics that are no field of the record read 0.
    channel.clear();
    platform::set_distribution(false, 0);
    channel.answer(periodic_answer(1, 21, 90));
    EXPECT_EQ(get_periodic_inventory_info(&request, CALLHOMEENABLE, 0), 0);
    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    EXPECT_EQ(get_periodic_inventory_info(&request, CALLHOMEENABLE, 0), 0);
}

TEST_F(ScalarRead, ShortAnswersAreReadAsZeroFilled) {
    // A truncated answer must not be read beyond its end.
    const uint8_t two_bytes[2] = {0, 0};
    channel.answer_bytes(two_bytes, sizeof two_bytes);
    Scalar s(CALLHOMEALERTSSENTCOUNT);
    const u_char *value = s.get();
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(s.as_int32(value), 0);
    channel.answer_bytes(two_bytes, sizeof two_bytes);
    Scalar from(CALLHOMEEMAILFROM);
    ASSERT_NE(from.get(), nullptr);
    EXPECT_EQ(from.var_len, 0u);
}

} // namespace
