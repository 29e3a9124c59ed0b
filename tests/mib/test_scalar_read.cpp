// Scalar reads: what each GET sends to the service, the value and length it hands to the agent,
// and the defaults that replace failed reads. (Instances other than .0, GETNEXT and the
// constants are also read through snmpd in tests/agent/test_agent_read.cpp.)
#include <gtest/gtest.h>

#include <sys/time.h>

#include <cstring>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "callhome_mib.h"
#include "fake_channel.hpp"

namespace {

using callhome_test::be32;
using callhome_test::FakeChannel;
using Reply = FakeChannel::Reply;

// The value bytes of an integer handed over in `n` bytes (4, or a whole long).
std::string le(long v, size_t n = 4) {
    return std::string(reinterpret_cast<const char *>(&v), n);
}

class ScalarRead : public ::testing::Test {
  protected:
    void TearDown() override { platform::reset_for_tests(); }

    // A GET of the object `magic` under the root, with `extra` arcs after its name: the
    // value as the agent takes it (var_len bytes), or "<none>".
    std::string get(u_char magic, std::vector<oid> extra = {0}) {
        struct variable vp {};
        vp.magic = magic;
        memcpy(vp.name, callhome_mib_variables_oid, sizeof callhome_mib_variables_oid);
        vp.name[CALLHOME_MIB_ROOT_LEN] = magic;
        vp.namelen = CALLHOME_MIB_ROOT_LEN + 1;
        oid name[MAX_OID_LEN];
        memcpy(name, vp.name, sizeof vp.name);
        size_t length = vp.namelen;
        for (oid arc : extra) {
            name[length++] = arc;
        }
        write_method = set_callHomeSiteId; // header_generic clears it first
        const u_char *v = get_callhome_mib(&vp, name, &length, 1, &var_len, &write_method);
        return v == nullptr ? "<none>" : std::string(reinterpret_cast<const char *>(v), var_len);
    }

    // Answers of the service.
    template <class R> static Reply record(const R &r) {
        const auto *p = reinterpret_cast<const uint8_t *>(&r);
        return Reply{0, true, std::vector<uint8_t>(p, p + sizeof r), 0};
    }
    static Reply status(int s) { return Reply{s, false, {}, 0}; }
    static Reply failed_errno(int err) { return Reply{-1, false, {}, err}; }
    static Reply switch_to(uint32_t value) { return record(callhome_switch_t{be32(value), 0}); }
    static Reply periodic(uint32_t enable, uint32_t days, uint32_t at) {
        return record(callhome_periodic_inventory_t{be32(enable), be32(days), 0, be32(at)});
    }
    static Reply info(const char *value) {
        cmi_callhome_info_t r{};
        strcpy(r.info_value, value);
        return record(r);
    }
    static Reply email(uint32_t type, const char *server, uint32_t port = 25) {
        cmi_email_conf_t r{"from@example.com", "reply@example.com", "", "",
                           be32(type),         be32(port),          0};
        strcpy(r.return_receipt_addr, "receipt@example.com");
        strcpy(r.smtp_server, server);
        return record(r);
    }
    static callhome_status_t status_record(uint32_t message_status, uint32_t code,
                                           const char *text) {
        callhome_status_t r{{0, 0}, be32(42), be32(message_status), be32(code), ""};
        strcpy(r.callhome_error_message, text);
        return r;
    }

    bool reset_ = (platform::reset_for_tests(), true); // before the channel installs itself
    FakeChannel channel;
    size_t var_len = 0;
    WriteMethod *write_method = nullptr;
};

// Every object read from the service: one request of its kind, a fresh zeroed record (the
// e-mail record is the persistent one) with the info name, and no user or session. A
// distribution read unless the show-run mode is set, except for the status. The write handler
// is handed back even when the read fails (as every read here does), to writable objects only.
TEST_F(ScalarRead, EachServiceScalarSendsItsRequest) {
    const int info = CALLHOME_INFO_OPC, stat = CALLHOME_STATUS_OPC, mail = CALLHOME_EMAIL_CONF_OPC,
              inventory = CALLHOME_PERIODIC_INVENTORY_OPC;
    const std::map<int, size_t> length = {{info, 2305},
                                          {stat, 2068},
                                          {mail, 1033},
                                          {inventory, 13},
                                          {CALLHOME_ENABLE_OPC, 5},
                                          {CALLHOME_MSG_THROTTLING_OPC, 5}};
    const std::tuple<u_char, int, const char *> cases[] = {
        {SYSCONTACTPHONENUMBER, info, "sysContactPhoneNumber"},
        {SYSCONTACTEMAILADDRESS, info, "sysContactEmail"},
        {SYSSTREETADDRESS, info, "sysStreetAddress"},
        {CALLHOMECUSTOMERID, info, "custId"},
        {CALLHOMECONTRACTID, info, "contractId"},
        {CALLHOMESITEID, info, "siteId"},
        {CALLHOMEDEVICESERVICEPRIORITY, info, "priority"},
        {CALLHOMEENABLE, CALLHOME_ENABLE_OPC, ""},
        {CALLHOMEMESSAGESTATUS, stat, ""},
        {CALLHOMEERRORMESSAGE, stat, ""},
        {CALLHOMELASTALERTSENTTIME, stat, ""},
        {CALLHOMEALERTSSENTCOUNT, stat, ""},
        {CALLHOMEEMAILFROM, mail, ""},
        {CALLHOMEEMAILREPLYTO, mail, ""},
        {CALLHOMEEMAILMSGDISPNOTIFICATION, mail, ""},
        {CALLHOMESMTPSERVERADDRTYPE, mail, ""},
        {CALLHOMESMTPSERVERADDR, mail, ""},
        {CALLHOMESMTPSERVERPORT, mail, ""},
        {PERIODICSWINVENTORYMSGENABLE, inventory, ""},
        {PERIODICSWINVENTORYTIMEFRAME, inventory, ""},
        {PERIODICSWINVENTORYTIMEOFDAY, inventory, ""},
        {MSGTHROTTLINGENABLE, CALLHOME_MSG_THROTTLING_OPC, ""}};
    platform::set_snmp_context("operator", 77); // scalar reads pass neither
    channel.set_default(failed_errno(EIO));
    for (const auto &[magic, opcode, info_name] : cases) {
        SCOPED_TRACE(int(magic));
        bool writable = false;
        for (const auto &v : callhome_mib_variables) {
            writable |= v.magic == magic && v.acl == NETSNMP_OLDAPI_RWRITE;
        }
        for (const auto &[enabled, mode] : {std::pair{false, 0}, {true, 1}, {true, 0}}) {
            channel.clear();
            platform::set_distribution(enabled, mode);
            get(magic);
            ASSERT_EQ(channel.count(), 1u);
            const auto &r = channel.last();
            const bool distributed = enabled && mode == 0 && opcode != stat;
            EXPECT_EQ(std::make_tuple(r.opcode, r.msg_type, r.wants_record, r.user_null),
                      std::make_tuple(opcode, distributed ? int{VELD_GET_REQ} : int{GET_REQ}, true,
                                      true));
            EXPECT_EQ(std::make_tuple(r.session, r.client, r.wait), std::make_tuple(0u, 0, 2));
            std::vector<uint8_t> expected(length.at(opcode), 0);
            memcpy(expected.data(), info_name, strlen(info_name));
            EXPECT_EQ(opcode == mail ? std::vector<uint8_t>(r.record.size()) : r.record, expected);
            EXPECT_EQ(write_method != nullptr, writable);
        }
    }
}

// What needs no request: constants, instances other than .0, magics that are no scalar.
TEST_F(ScalarRead, ConstantsAndRefusedNamesAskNothing) {
    EXPECT_EQ(get(CALLHOMEALERTTEST), le(1));
    EXPECT_EQ(write_method, set_callHomeAlertAction);
    EXPECT_EQ(get(CALLHOMEDESTPROFILEMAXCOUNT), le(50, sizeof(long)));
    EXPECT_EQ(write_method, nullptr);
    EXPECT_EQ(get(CALLHOMEUSERDEFCLICMDMAXCOUNT), le(5, sizeof(long)));
    for (const std::vector<oid> &extra : {std::vector<oid>{}, {1}, {0, 0}, {0, 1}}) {
        EXPECT_EQ(get(SYSCONTACTPHONENUMBER, extra), "<none>") << extra.size();
        EXPECT_EQ(get(CALLHOMEDESTPROFILEMAXCOUNT, extra), "<none>") << extra.size();
    }
    for (u_char magic : {12, 29, 30, 40, 200}) {
        EXPECT_EQ(get(magic), "<none>") << int(magic);
    }
    EXPECT_EQ(channel.count(), 0u);
}

// One answer of the service, one GET: the bytes handed to the agent ("<none>": no value).
TEST_F(ScalarRead, ValuesAndDefaults) {
    struct Case {
        const char *what;
        u_char magic;
        Reply answer;
        std::string expected;
        bool distribution = false;
    };
    const std::string v4("\xC0\x00\x02\x0A", 4), code_text = "message delivery failed";
    const std::string v6("\x20\x01\x0D\xB8\0\0\0\0\0\0\0\0\0\0\0\x01", 16), long_text(400, 'm');
    const auto error = [](uint32_t message_status, uint32_t code, const char *text) {
        return record(status_record(message_status, code, text));
    };
    const Reply unknown = status(CALLHOME_UNKNOWN_ENTRY), short_answer{0, true, {0, 0}, 0};
    const size_t L = sizeof(long);
    const Case cases[] = {
        {"priority 0 shows 1", CALLHOMEDEVICESERVICEPRIORITY, info("0"), le(1)},
        {"unknown priority", CALLHOMEDEVICESERVICEPRIORITY, unknown, le(8)},
        {"info out of memory", CALLHOMEDEVICESERVICEPRIORITY, status(CALLHOME_ERR_NO_MEMORY),
         "<none>"},
        {"info timeout", CALLHOMESITEID, failed_errno(ETIME), "<none>"},
        {"success without record", CALLHOMESITEID, status(0), "<none>"},
        {"enable off", CALLHOMEENABLE, switch_to(0), le(2)},
        {"enable other", CALLHOMEENABLE, switch_to(7), le(1)},
        {"enable unknown", CALLHOMEENABLE, unknown, "<none>"},
        {"throttling other", MSGTHROTTLINGENABLE, switch_to(0xFFFFFFFF), le(2)},
        {"throttling distributed", MSGTHROTTLINGENABLE, unknown, "<none>", true},
        {"address type", CALLHOMESMTPSERVERADDRTYPE, email(16, "m"), le(16, L)},
        {"IPv4 bad text", CALLHOMESMTPSERVERADDR, email(1, "not-an-address"), ""},
        {"IPv6", CALLHOMESMTPSERVERADDR, email(2, "2001:db8::1"), v6},
        {"DNS", CALLHOMESMTPSERVERADDR, email(16, "mail.example.com"), "mail.example.com"},
        {"type 3", CALLHOMESMTPSERVERADDR, email(3, "192.0.2.10"), ""},
        {"type 0", CALLHOMESMTPSERVERADDR, email(0, "mail.example.com"), ""},
        {"unknown type", CALLHOMESMTPSERVERADDRTYPE, unknown, le(0, L)},
        {"unknown from", CALLHOMEEMAILFROM, unknown, ""},
        {"unknown address", CALLHOMESMTPSERVERADDR, unknown, ""},
        {"e-mail out of memory", CALLHOMESMTPSERVERPORT, status(CALLHOME_ERR_NO_MEMORY), "<none>"},
        {"message status", CALLHOMEMESSAGESTATUS, error(3, 0, ""), le(3)},
        {"alerts sent", CALLHOMEALERTSSENTCOUNT, error(3, 0, ""), le(42)},
        {"never sent", CALLHOMELASTALERTSENTTIME, error(1, 0, ""), le(0)},
        {"status unknown", CALLHOMEALERTSSENTCOUNT, unknown, "<none>"},
        {"success: no error", CALLHOMEERRORMESSAGE, error(1, 0x403B0041, "x"), ""},
        {"status 2: no error", CALLHOMEERRORMESSAGE, error(2, 0x403B0041, "x"), ""},
        {"unknown code", CALLHOMEERRORMESSAGE, error(3, 0x12345678, "x"), ""},
        {"code only", CALLHOMEERRORMESSAGE, error(3, 0x403B0041, ""), code_text},
        // The separator is not counted, so four characters of the tail are lost.
        {"code and text", CALLHOMEERRORMESSAGE, error(3, 0x403B0041, "smtp refused"),
         code_text + " -  smtp ref"},
        {"cut to 255", CALLHOMEERRORMESSAGE, error(3, 0x403B0041, long_text.c_str()),
         (code_text + " -  " + long_text).substr(0, 255)},
        {"error unknown", CALLHOMEERRORMESSAGE, unknown, "<none>"},
        {"inventory off", PERIODICSWINVENTORYMSGENABLE, periodic(0, 14, 605), le(2)},
        {"default on", PERIODICSWINVENTORYMSGENABLE, unknown, le(1)},
        {"no default distributed", PERIODICSWINVENTORYMSGENABLE, unknown, "<none>", true},
        {"no default time distributed", PERIODICSWINVENTORYTIMEOFDAY, unknown, "<none>", true},
        // A truncated answer must not be read beyond its end.
        {"short status", CALLHOMEALERTSSENTCOUNT, short_answer, le(0)},
        {"short e-mail", CALLHOMEEMAILFROM, short_answer, ""}};
    for (const auto &c : cases) {
        platform::set_distribution(c.distribution, 0);
        channel.set_default(c.answer);
        EXPECT_EQ(get(c.magic), c.expected) << c.what;
    }
}

TEST_F(ScalarRead, EmailAnswerIsKeptInHostOrderAndFailuresAreTraced) {
    channel.set_default(email(CALLHOME_ADDR_DNS, "mail.example.com", 587));
    get(CALLHOMEEMAILFROM);
    EXPECT_EQ(
        std::make_pair(callhome_email_conf.smtp_server_port, callhome_email_conf.address_type),
        std::make_pair(587u, 16u));
    EXPECT_STREQ(callhome_email_conf.reply_to, "reply@example.com");

    platform::clear_trace_history();
    channel.answer_errno(ETIME);
    get(CALLHOMESITEID);
    const auto history = platform::trace_history();
    ASSERT_FALSE(history.empty());
    EXPECT_EQ(history.back(), std::make_pair(100, std::string("get_using_cmi : Req failed : ") +
                                                      strerror(-1) + "\n"));
}

TEST_F(ScalarRead, LastAlertTimeIsTheAgentsUptimeThen) {
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

// A write's read of the periodic inventory (failed reads as the write sends them are checked
// in test_scalar_write.cpp): with distribution on it reads the distributed value whatever the
// show-run mode, and repeats the read once as a plain read when the service asks for it.
TEST_F(ScalarRead, PeriodicInventoryReadForAWrite) {
    callhome_periodic_inventory_t request{};
    platform::set_distribution(true, 1);
    channel.answer_status(CALLHOME_ERR_VELD_RESEND);
    channel.answer(callhome_periodic_inventory_t{be32(1), be32(21), 0, be32(90)});
    EXPECT_EQ(get_periodic_inventory_info(&request, PERIODICSWINVENTORYTIMEFRAME, 1), 21);
    ASSERT_EQ(channel.count(), 2u);
    EXPECT_EQ(std::make_pair(channel.at(0).msg_type, channel.at(1).msg_type),
              std::make_pair(int{VELD_GET_REQ}, int{GET_REQ}));
    EXPECT_EQ(channel.at(1).record, std::vector<uint8_t>(13, 0));
    // The repeated read failing again falls back to the defaults; a GET is not repeated.
    channel.answer_status(CALLHOME_ERR_VELD_RESEND);
    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    EXPECT_EQ(get_periodic_inventory_info(&request, PERIODICSWINVENTORYTIMEOFDAY, 1), 480);
    platform::set_distribution(true, 0);
    channel.answer_status(CALLHOME_ERR_VELD_RESEND);
    EXPECT_EQ(get_periodic_inventory_info(&request, PERIODICSWINVENTORYMSGENABLE, 0), -1);
    EXPECT_EQ(channel.count(), 5u);
    // Magics that are no field of the record read 0.
    platform::set_distribution(false, 0);
    channel.answer(callhome_periodic_inventory_t{be32(1), be32(21), 0, be32(90)});
    EXPECT_EQ(get_periodic_inventory_info(&request, CALLHOMEENABLE, 0), 0);
}

} // namespace
