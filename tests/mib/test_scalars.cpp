// Scalars against the scripted channel: the value and length each GET hands to the agent for
// answers the real service never gives, the defaults that replace failed reads, and the range
// checks of RESERVE1. What each read and write sends, the refusals and their traces: the
// golden session (svc_golden_trace.cpp).
#include <gtest/gtest.h>

#include <sys/time.h>

#include <cstring>
#include <string>
#include <vector>

#include "mib_support.hpp"

namespace {

using namespace callhome_test;

template <class R> Bytes wire(const R &r) {
    const auto *p = reinterpret_cast<const uint8_t *>(&r);
    return Bytes(p, p + sizeof r);
}
Bytes info_record(const char *name, const std::string &value) {
    cmi_callhome_info_t r{};
    strcpy(r.info_name, name);
    value.copy(r.info_value, value.size());
    return wire(r);
}
// The value bytes of an integer handed over in `n` bytes (4, or a whole long).
std::string le(long v, size_t n = 4) {
    return std::string(reinterpret_cast<const char *>(&v), n);
}

class Scalars : public ::testing::Test {
  protected:
    void SetUp() override { platform::set_snmp_context("operator", 77); }
    void TearDown() override { platform::reset_for_tests(); }

    // A GET of the object `magic`: the value as the agent takes it (var_len bytes), or "<none>".
    std::string get(u_char magic) {
        const Read r = fetch(magic, {0}, 1);
        return r.value == nullptr ? "<none>" : r.str();
    }

    // Answers of the service.
    static Reply ok(Bytes record) { return Reply{0, true, std::move(record), 0}; }
    static Reply status(int s) { return Reply{s, false, {}, 0}; }
    static Reply email(uint32_t type, const char *server) {
        cmi_email_conf_t c{};
        c.address_type = be32(type);
        strcpy(c.smtp_server, server);
        return ok(wire(c));
    }
    static callhome_status_t status_record(uint32_t message_status, uint32_t code,
                                           const char *text) {
        callhome_status_t r{{0, 0}, be32(42), be32(message_status), be32(code), ""};
        strcpy(r.callhome_error_message, text);
        return r;
    }

    PlatformReset reset_; // before the channel installs itself
    FakeChannel channel;
};

// One answer of the service, one GET: the bytes handed to the agent ("<none>": no value).
TEST_F(Scalars, ReadValuesAndDefaults) {
    struct Case {
        const char *what;
        u_char magic;
        Reply answer;
        std::string expected;
        bool distribution = false;
    };
    const std::string code_text = "message delivery failed";
    const std::string v6("\x20\x01\x0D\xB8\0\0\0\0\0\0\0\0\0\0\0\x01", 16), long_text(400, 'm');
    const auto error = [](uint32_t message_status, uint32_t code, const char *text) {
        return ok(wire(status_record(message_status, code, text)));
    };
    const Reply unknown = status(CALLHOME_UNKNOWN_ENTRY), short_answer{0, true, {0, 0}, 0};
    const size_t L = sizeof(long);
    const Case cases[] = {
        {"priority 0 shows 1", CALLHOMEDEVICESERVICEPRIORITY, ok(info_record("", "0")), le(1)},
        {"info out of memory", CALLHOMEDEVICESERVICEPRIORITY, status(CALLHOME_ERR_NO_MEMORY),
         "<none>"},
        {"success without record", CALLHOMESITEID, status(0), "<none>"},
        {"enable off", CALLHOMEENABLE, ok(wire(callhome_switch_t{be32(0), 0})), le(2)},
        {"enable other", CALLHOMEENABLE, ok(wire(callhome_switch_t{be32(7), 0})), le(1)},
        {"enable unknown", CALLHOMEENABLE, unknown, "<none>"},
        {"throttling other", MSGTHROTTLINGENABLE, ok(wire(callhome_switch_t{be32(0xFFFFFFFF), 0})),
         le(2)},
        {"throttling distributed", MSGTHROTTLINGENABLE, unknown, "<none>", true},
        {"address type", CALLHOMESMTPSERVERADDRTYPE, email(16, "m"), le(16, L)},
        {"IPv6", CALLHOMESMTPSERVERADDR, email(2, "2001:db8::1"), v6},
        {"DNS", CALLHOMESMTPSERVERADDR, email(16, "mail.example.com"), "mail.example.com"},
        {"type 3", CALLHOMESMTPSERVERADDR, email(3, "192.0.2.10"), ""},
        {"unknown type", CALLHOMESMTPSERVERADDRTYPE, unknown, le(0, L)},
        {"unknown address", CALLHOMESMTPSERVERADDR, unknown, ""},
        {"message status", CALLHOMEMESSAGESTATUS, error(3, 0, ""), le(3)},
        {"alerts sent", CALLHOMEALERTSSENTCOUNT, error(3, 0, ""), le(42)},
        {"never sent", CALLHOMELASTALERTSENTTIME, error(1, 0, ""), le(0)},
        {"status unknown", CALLHOMEALERTSSENTCOUNT, unknown, "<none>"},
        {"success: no error", CALLHOMEERRORMESSAGE, error(1, 0x403B0041, "x"), ""},
        {"unknown code", CALLHOMEERRORMESSAGE, error(3, 0x12345678, "x"), ""},
        {"code only", CALLHOMEERRORMESSAGE, error(3, 0x403B0041, ""), code_text},
        // The separator is not counted, so four characters of the tail are lost.
        {"code and text", CALLHOMEERRORMESSAGE, error(3, 0x403B0041, "smtp refused"),
         code_text + " -  smtp ref"},
        {"cut to 255", CALLHOMEERRORMESSAGE, error(3, 0x403B0041, long_text.c_str()),
         (code_text + " -  " + long_text).substr(0, 255)},
        {"error unknown", CALLHOMEERRORMESSAGE, unknown, "<none>"},
        {"inventory off", PERIODICSWINVENTORYMSGENABLE,
         ok(wire(callhome_periodic_inventory_t{0, be32(14), 0, be32(605)})), le(2)},
        {"default on", PERIODICSWINVENTORYMSGENABLE, unknown, le(1)},
        {"no default distributed", PERIODICSWINVENTORYMSGENABLE, unknown, "<none>", true},
        // A truncated answer must not be read beyond its end.
        {"short status", CALLHOMEALERTSSENTCOUNT, short_answer, le(0)},
        {"short e-mail", CALLHOMEEMAILFROM, short_answer, ""}};
    for (const auto &c : cases) {
        platform::set_distribution(c.distribution, 0);
        channel.set_default(c.answer);
        EXPECT_EQ(get(c.magic), c.expected) << c.what;
    }
}

TEST_F(Scalars, ReadLastAlertTimeIsTheAgentsUptimeThen) {
    struct timeval sent_at {};
    gettimeofday(&sent_at, nullptr);
    sent_at.tv_usec = 500000;
    auto answer = status_record(1, 0, "");
    answer.last_alert_sent.tv_sec = be32(static_cast<uint32_t>(sent_at.tv_sec));
    answer.last_alert_sent.tv_usec = be32(500000);
    channel.answer(answer);
    const long expected = static_cast<long>(netsnmp_timeval_uptime(&sent_at));
    EXPECT_EQ(get(CALLHOMELASTALERTSENTTIME), le(expected < 0 ? 0 : expected));
}

// A write's read of the periodic inventory: a resend asked for twice falls back to the default;
// fields are signed, so the service's -1 is a failed read, not 4294967295.
TEST_F(Scalars, ReadPeriodicInventoryForAWrite) {
    callhome_periodic_inventory_t request{};
    platform::set_distribution(true, 0);
    channel.answer_status(CALLHOME_ERR_VELD_RESEND);
    channel.answer_status(CALLHOME_ERR_VELD_RESEND);
    EXPECT_EQ(get_periodic_inventory_info(&request, PERIODICSWINVENTORYTIMEOFDAY, 1), 480);
    channel.answer(callhome_periodic_inventory_t{be32(1), be32(0xFFFFFFFFu), 0, be32(90)});
    EXPECT_EQ(get_periodic_inventory_info(&request, PERIODICSWINVENTORYTIMEFRAME, 0), -1);
}

// RESERVE1's range of each integer scalar, at both ends (an integer may come in 4 bytes).
TEST_F(Scalars, WriteReserve1Ranges) {
    struct Case {
        WriteMethod *handler;
        std::vector<long> refused, accepted;
    };
    const Case cases[] = {{set_callHomeEnable, {0, 3, -1}, {1, 2}},
                          {set_MsgThrottlingEnable, {0, 3, -1}, {1, 2}},
                          {set_PeriodicSwInventoryMsgEnable, {0, 3}, {1, 2}},
                          {set_PeriodicSwInventoryTimeFrame, {0, 31}, {1, 30}},
                          {set_callHomeDeviceServicePriority, {0, 9}, {1, 8}},
                          {set_callHomeAlertAction, {0, 4}, {1, 3}},
                          {set_callHomeSmtpServerAddrType, {0, 3, 4, 15}, {1, 2, 16}},
                          {set_callHomeSmtpServerPort, {0, 65536}, {1, 65535}}};
    for (const auto &c : cases) {
        const bool gauge = c.handler == set_callHomeSmtpServerPort ||
                           c.handler == set_PeriodicSwInventoryTimeFrame;
        const int refused =
            c.handler == set_callHomeSmtpServerAddrType ? SNMP_ERR_BADVALUE : SNMP_ERR_WRONGVALUE;
        for (const auto &[values, expected] : {std::pair{c.refused, refused}, {c.accepted, 0}}) {
            for (long v : values) {
                for (size_t len : {sizeof v, size_t{4}}) {
                    EXPECT_EQ(c.handler(RESERVE1, reinterpret_cast<u_char *>(&v),
                                        gauge ? ASN_GAUGE : ASN_INTEGER, len, nullptr, nullptr, 0),
                              expected)
                        << v;
                }
            }
        }
    }
    EXPECT_EQ(channel.count(), 0u);
}

// Phase numbers a SET never uses, in table and scalar handlers alike, change nothing and send
// nothing (the phases of whole SETs: the golden session).
TEST_F(Scalars, WritePhasesOutsideTheSetAreHarmless) {
    Varbind vb = int_vb(profile_oid(kProfileStatus, "p1"), 4);
    for (WriteMethod *m : {set_callHomeDestProfileStatus, set_callHomeDestProfileMsgFormat,
                           set_callHomeDestProfileMaxMsgSize, set_callHomeDestProfileTrnsprtMthd,
                           set_callHomeDestProfileMsgLevel, set_callHomeDestEmailAddress,
                           set_callHomeDestEmailAddressStatus, set_callHomeUserDefCliCmd,
                           set_callHomeUserDefCliCmdStatus, set_callhome_alertgroups,
                           set_callHomeEnable, set_callHomeSiteId, set_callHomeSmtpServerAddr}) {
        for (int action : {6, 9}) {
            EXPECT_EQ(m(action, vb.value.data(), vb.type, vb.value.size(), nullptr, vb.name.data(),
                        vb.name.size()),
                      0);
        }
    }
    EXPECT_EQ(channel.count(), 0u);
}

} // namespace
