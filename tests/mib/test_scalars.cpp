// Scalars against the scripted channel. Reads: what each GET sends to the service, the value
// and length it hands to the agent, the defaults that replace failed reads. Writes, phase by
// phase: the checks of RESERVE1, what ACTION sends, how service failures come back and where
// the complaints go. (Through snmpd with the real service: tests/agent/test_agent_read.cpp
// and test_agent_scalar_write.cpp.)
#include <gtest/gtest.h>

#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "callhome_mib.h"
#include "mib_support.hpp"

namespace {

using callhome_test::be32;
using callhome_test::FakeChannel;
using Bytes = std::vector<uint8_t>;
using callhome_test::Reply;

// A value as the agent hands it over: integers as a long of sizeof(long) bytes, texts followed
// by a byte that must never be read as part of them.
struct Value {
    u_char type;
    std::vector<u_char> bytes;
    size_t len;
};
Value num(long v, u_char type = ASN_INTEGER, size_t len = sizeof(long)) {
    std::vector<u_char> bytes(16, 0);
    memcpy(bytes.data(), &v, sizeof v);
    return {type, bytes, len};
}
Value text(const std::string &s, u_char type = ASN_OCTET_STR) {
    std::vector<u_char> bytes(s.begin(), s.end());
    bytes.push_back(0xEE);
    return {type, bytes, s.size()};
}
int run(WriteMethod *handler, int action, Value v) {
    return handler(action, v.bytes.data(), v.type, v.len, nullptr, nullptr, 0);
}

// Records as they travel.
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
Bytes periodic_record(uint32_t enable, uint32_t days, uint32_t minutes) {
    return wire(callhome_periodic_inventory_t{be32(enable), be32(days), 0, be32(minutes)});
}
// The persistent e-mail record as the last read left it (host order), and as it travels.
cmi_email_conf_t stored_email(uint32_t type = 1, uint32_t port = 25,
                              const char *server = "192.0.2.1") {
    cmi_email_conf_t c{"old-from@example.com", "old-reply@example.com", "", "", type, port, 0};
    strcpy(c.return_receipt_addr, "old-receipt@example.com");
    strcpy(c.smtp_server, server);
    return c;
}
Bytes email_record(cmi_email_conf_t c) {
    c.address_type = be32(c.address_type);
    c.smtp_server_port = be32(c.smtp_server_port);
    return wire(c);
}

// The text scalars: longest value and the record that carries the value.
struct TextScalar {
    const char *object;
    WriteMethod *handler;
    size_t max;
    const char *info_name;                      // info record, or
    char (cmi_email_conf_t::*email_field)[256]; // e-mail record
};
const TextScalar kTexts[] = {
    {"sysContactPhoneNumber", set_sysContactPhoneNumber, 17, "sysContactPhoneNumber", nullptr},
    {"sysContactEmailAddress", set_sysContactEmailAddress, 255, "sysContactEmail", nullptr},
    {"sysStreetAddress", set_sysStreetAddress, 255, "sysStreetAddress", nullptr},
    {"callHomeCustomerId", set_callHomeCustomerId, 255, "custId", nullptr},
    {"callHomeContractId", set_callHomeContractId, 255, "contractId", nullptr},
    {"callHomeSiteId", set_callHomeSiteId, 255, "siteId", nullptr},
    {"callHomeEmailFrom", set_callHomeEmailFrom, 255, nullptr, &cmi_email_conf_t::from_email_addr},
    {"callHomeEmailReplyTo", set_callHomeEmailReplyTo, 255, nullptr, &cmi_email_conf_t::reply_to},
    {"callHomeEmailMsgDispNotification", set_callHomeEmailMsgDispNotification, 255, nullptr,
     &cmi_email_conf_t::return_receipt_addr}};

// The value bytes of an integer handed over in `n` bytes (4, or a whole long).
std::string le(long v, size_t n = 4) {
    return std::string(reinterpret_cast<const char *>(&v), n);
}

class Scalars : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::set_snmp_context("operator", 77);
        channel.set_default({}); // writes succeed unless a test says otherwise
        callhome_email_conf = stored_email();
    }
    void TearDown() override { platform::reset_for_tests(); }

    void answer(int status, int err) {
        status == -1 ? channel.answer_errno(err) : channel.answer_status(status);
    }

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
    static Reply ok(Bytes record) { return Reply{0, true, std::move(record), 0}; }
    static Reply status(int s) { return Reply{s, false, {}, 0}; }
    static Reply failed_errno(int err) { return Reply{-1, false, {}, err}; }
    static Reply email(uint32_t type, const char *server, uint32_t port = 25) {
        return ok(email_record(stored_email(type, port, server)));
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

/* ---- Reads --------------------------------------------------------------------------- */

// Every object read from the service (which request, with which info name, the golden session
// pins): one request that wants a record, a fresh zeroed record (the e-mail record is the
// persistent one), and no user or session. A distribution read unless the show-run mode is set,
// except for the status. The write handler is handed back even when the read fails (as every
// read here does), to writable objects only.
TEST_F(Scalars, ReadEachServiceScalarSendsItsRequest) {
    channel.set_default(failed_errno(EIO));
    for (const auto &v : callhome_mib_variables) {
        if (v.findVar != get_callhome_mib) {
            continue;
        }
        SCOPED_TRACE(int(v.magic));
        for (const auto &[enabled, mode] : {std::pair{false, 0}, {true, 1}, {true, 0}}) {
            channel.clear();
            platform::set_distribution(enabled, mode);
            get(v.magic);
            if (channel.count() == 0) { // answered by the module itself
                continue;
            }
            ASSERT_EQ(channel.count(), 1u);
            const auto &r = channel.last();
            const bool distributed = enabled && mode == 0 && r.opcode != CALLHOME_STATUS_OPC;
            EXPECT_EQ(std::make_tuple(r.msg_type, r.wants_record, r.user_null, r.session, r.client,
                                      r.wait),
                      std::make_tuple(distributed ? int{VELD_GET_REQ} : int{GET_REQ}, true, true,
                                      0u, 0, 2));
            const size_t name = r.opcode == CALLHOME_INFO_OPC
                                    ? strnlen(reinterpret_cast<const char *>(r.record.data()), 64)
                                : r.opcode == CALLHOME_EMAIL_CONF_OPC ? r.record.size()
                                                                      : 0;
            EXPECT_EQ(std::count(r.record.begin() + name, r.record.end(), 0),
                      long(r.record.size() - name));
            EXPECT_EQ(write_method != nullptr, v.acl == NETSNMP_OLDAPI_RWRITE);
        }
    }
}

// One answer of the service, one GET: the bytes handed to the agent ("<none>": no value).
TEST_F(Scalars, ReadValuesAndDefaults) {
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
        return ok(wire(status_record(message_status, code, text)));
    };
    const Reply unknown = status(CALLHOME_UNKNOWN_ENTRY), short_answer{0, true, {0, 0}, 0};
    const size_t L = sizeof(long);
    const Case cases[] = {
        {"priority 0 shows 1", CALLHOMEDEVICESERVICEPRIORITY, ok(info_record("", "0")), le(1)},
        {"unknown priority", CALLHOMEDEVICESERVICEPRIORITY, unknown, le(8)},
        {"info out of memory", CALLHOMEDEVICESERVICEPRIORITY, status(CALLHOME_ERR_NO_MEMORY),
         "<none>"},
        {"info timeout", CALLHOMESITEID, failed_errno(ETIME), "<none>"},
        {"success without record", CALLHOMESITEID, status(0), "<none>"},
        {"enable off", CALLHOMEENABLE, ok(wire(callhome_switch_t{be32(0), 0})), le(2)},
        {"enable other", CALLHOMEENABLE, ok(wire(callhome_switch_t{be32(7), 0})), le(1)},
        {"enable unknown", CALLHOMEENABLE, unknown, "<none>"},
        {"throttling other", MSGTHROTTLINGENABLE, ok(wire(callhome_switch_t{be32(0xFFFFFFFF), 0})),
         le(2)},
        {"throttling distributed", MSGTHROTTLINGENABLE, unknown, "<none>", true},
        {"address type", CALLHOMESMTPSERVERADDRTYPE, email(16, "m"), le(16, L)},
        {"IPv4 bad text", CALLHOMESMTPSERVERADDR, email(1, "not-an-address"), ""},
        {"IPv6", CALLHOMESMTPSERVERADDR, email(2, "2001:db8::1"), v6},
        {"DNS", CALLHOMESMTPSERVERADDR, email(16, "mail.example.com"), "mail.example.com"},
        {"type 3", CALLHOMESMTPSERVERADDR, email(3, "192.0.2.10"), ""},
        {"unknown type", CALLHOMESMTPSERVERADDRTYPE, unknown, le(0, L)},
        {"unknown address", CALLHOMESMTPSERVERADDR, unknown, ""},
        {"e-mail out of memory", CALLHOMESMTPSERVERPORT, status(CALLHOME_ERR_NO_MEMORY), "<none>"},
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
        {"inventory off", PERIODICSWINVENTORYMSGENABLE, ok(periodic_record(0, 14, 605)), le(2)},
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

TEST_F(Scalars, ReadEmailAnswerIsKeptInHostOrder) {
    callhome_email_conf = {};
    channel.set_default(email(CALLHOME_ADDR_DNS, "mail.example.com", 587));
    get(CALLHOMEEMAILFROM);
    EXPECT_EQ(
        std::make_pair(callhome_email_conf.smtp_server_port, callhome_email_conf.address_type),
        std::make_pair(587u, 16u));
    EXPECT_STREQ(callhome_email_conf.reply_to, "old-reply@example.com");

    // The record goes out as the request in the channel's order and stays in host order
    // when the read fails.
    channel.answer_errno(ETIME);
    get(CALLHOMESMTPSERVERPORT);
    const auto sent = channel.as<cmi_email_conf_t>(channel.last());
    EXPECT_EQ(std::make_pair(sent.smtp_server_port, sent.address_type),
              std::make_pair(be32(587), be32(16)));
    EXPECT_EQ(callhome_email_conf.smtp_server_port, 587u);
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

// A write's read of the periodic inventory (failed reads as the write sends them are checked
// below, with the periodic writes): with distribution on it reads the distributed value whatever
// the show-run mode, and repeats the read once as a plain read when the service asks for it.
TEST_F(Scalars, ReadPeriodicInventoryReadForAWrite) {
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
    // Fields are signed: the service's -1 is a failed read, not 4294967295.
    channel.answer(callhome_periodic_inventory_t{be32(1), be32(0xFFFFFFFFu), 0, be32(90)});
    EXPECT_EQ(get_periodic_inventory_info(&request, PERIODICSWINVENTORYTIMEFRAME, 0), -1);
}

/* ---- Writes -------------------------------------------------------------------------- */

// set_Scalar sends a SET that wants no answer record, with the user and session of the
// request, between two heartbeat calls; failures are logged (refused input and a failed
// channel: the golden session).
TEST_F(Scalars, WriteSetScalarOutcomes) {
    const std::pair<int, int> cases[] = {{0, SNMP_ERR_NOERROR},
                                         {CALLHOME_UNKNOWN_ENTRY, SNMP_ERR_NOSUCHNAME},
                                         {CALLHOME_ERR_NO_MEMORY, SNMP_ERR_GENERR}};
    for (const auto &[status, expected] : cases) {
        SCOPED_TRACE(status);
        platform::clear_errors();
        platform::clear_heartbeat_state();
        channel.answer_status(status);
        char record[] = "abc";
        EXPECT_EQ(set_Scalar(CALLHOME_INFO_OPC, 4, record, 10), expected);
        const auto &r = channel.last();
        EXPECT_EQ(
            std::make_tuple(r.opcode, r.msg_type, r.record, r.wants_record),
            std::make_tuple(int{CALLHOME_INFO_OPC}, int{SET_REQ}, Bytes{'a', 'b', 'c', 0}, false));
        EXPECT_EQ(std::make_tuple(r.user, r.session, r.client, r.wait),
                  std::make_tuple(std::string("operator"), 77u, 0, 10));
        EXPECT_EQ(platform::heartbeat_state(), (platform::HeartbeatState{false, 2}));
        EXPECT_EQ(platform::last_set_error(),
                  status != 0 ? std::make_pair(status, 472) : std::make_pair(0, 0));
        EXPECT_EQ(platform::last_snmp_error().first, 0);
    }
}

/* ---- RESERVE1 ----------------------------------------------------------------------------- */

// RESERVE1 takes integers in 32 bits too and texts of their longest length (wrong types,
// lengths and what each handler says about them are pinned by the golden session).
TEST_F(Scalars, WriteReserve1TypeAndLength) {
    const u_char I = ASN_INTEGER, G = ASN_GAUGE, S = ASN_OCTET_STR;
    std::vector<std::tuple<WriteMethod *, u_char, size_t>> cases = {
        {set_callHomeEnable, I, 0},
        {set_MsgThrottlingEnable, I, 0},
        {set_PeriodicSwInventoryMsgEnable, I, 0},
        {set_PeriodicSwInventoryTimeFrame, G, 0},
        {set_PeriodicSwInventoryTimeOfDay, S, 5},
        {set_callHomeDeviceServicePriority, I, 0},
        {set_callHomeAlertAction, I, 0},
        {set_callHomeSmtpServerAddrType, I, 0},
        {set_callHomeSmtpServerPort, G, 0},
        {set_callHomeSmtpServerAddr, S, 255}};
    for (const auto &t : kTexts) {
        cases.emplace_back(t.handler, S, t.max);
    }
    for (const auto &[handler, type, max] : cases) {
        SCOPED_TRACE(max);
        EXPECT_EQ(run(handler, RESERVE1,
                      type == S ? text("+" + std::string(max - 1, '7')) : num(1, type, 4)),
                  0);
        // The other phases check nothing and send nothing (the SMTP server's RESERVE2 aside),
        // and a phase number above UNDO is accepted at once.
        const bool smtp =
            handler == set_callHomeSmtpServerAddr || handler == set_callHomeSmtpServerAddrType;
        for (int action : {RESERVE2, COMMIT, FREE, UNDO, UNDO + 1}) {
            if (!smtp || action == UNDO + 1) {
                EXPECT_EQ(run(handler, action, type == S ? text(" bad ", I) : num(99, S)), 0)
                    << action;
            }
        }
    }
    EXPECT_EQ(channel.count(), 0u);
}

// Values refused and accepted at the boundaries, and the content rules of the texts.
TEST_F(Scalars, WriteReserve1Values) {
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
        for (long v : c.refused) {
            EXPECT_EQ(run(c.handler, RESERVE1, num(v, gauge ? ASN_GAUGE : ASN_INTEGER)), refused)
                << v;
        }
        for (long v : c.accepted) {
            EXPECT_EQ(run(c.handler, RESERVE1, num(v, gauge ? ASN_GAUGE : ASN_INTEGER)), 0) << v;
        }
    }

    // Spaces inside a text and a phone number are taken (the refused texts and phone numbers:
    // the golden session).
    for (const auto &c : kTexts) {
        EXPECT_EQ(run(c.handler, RESERVE1, text(c.max == 17 ? "+1 2" : "in\tside")), 0);
    }
    EXPECT_EQ(run(set_callHomeSmtpServerAddr, RESERVE1, text(" any ")), 0); // type not known yet
    EXPECT_EQ(run(set_PeriodicSwInventoryTimeOfDay, RESERVE1, text("24:00")), 0); // see ACTION
    EXPECT_EQ(channel.count(), 0u);
}

/* ---- ACTION ------------------------------------------------------------------------------- */

// What each scalar's ACTION sends. The e-mail record goes out whole, with the fields that this
// write leaves alone as the last read left them, and keeps the new value in host order.
TEST_F(Scalars, WriteActionSendsTheRecord) {
    struct Case {
        WriteMethod *handler;
        Value value;
        int opcode;
        Bytes record;
    };
    const int info = CALLHOME_INFO_OPC, mail = CALLHOME_EMAIL_CONF_OPC,
              alert = CALLHOME_ALERT_ACTION_OPC;
    std::vector<Case> cases;
    for (const auto &t : kTexts) {
        const std::string value = t.max == 17 ? "+1 800-555" : "ops team@example.com";
        cmi_email_conf_t email = stored_email();
        if (t.email_field != nullptr) {
            strcpy(email.*t.email_field, value.c_str());
        }
        cases.push_back({t.handler, text(value), t.info_name ? info : mail,
                         t.info_name ? info_record(t.info_name, value) : email_record(email)});
    }
    const callhome_alert_action_t test{"Test Call Home"}, inventory{"Inventory"};
    cases.insert(cases.end(),
                 {{set_callHomeEnable, num(1), CALLHOME_ENABLE_OPC, {0, 0, 0, 1, 0}},
                  {set_callHomeEnable, num(2), CALLHOME_ENABLE_OPC, {0, 0, 0, 0, 0}},
                  {set_MsgThrottlingEnable, num(1), CALLHOME_MSG_THROTTLING_OPC, {0, 0, 0, 1, 0}},
                  {set_MsgThrottlingEnable, num(2), CALLHOME_MSG_THROTTLING_OPC, {0, 0, 0, 0, 0}},
                  // The priority travels one lower; the alert action does not wait for its outcome.
                  {set_callHomeDeviceServicePriority, num(8), info, info_record("priority", "7")},
                  {set_callHomeDeviceServicePriority, num(1), info, info_record("priority", "0")},
                  {set_callHomeAlertAction, num(2), alert, wire(test)},
                  {set_callHomeAlertAction, num(3), alert, wire(inventory)},
                  {set_callHomeSmtpServerAddrType, num(16), mail, email_record(stored_email(16))},
                  {set_callHomeSmtpServerPort, num(587, ASN_GAUGE), mail,
                   email_record(stored_email(1, 587))}});
    for (size_t i = 0; i < cases.size(); ++i) {
        const Case &c = cases[i];
        SCOPED_TRACE("case " + std::to_string(i));
        channel.clear();
        callhome_email_conf = stored_email();
        EXPECT_EQ(run(c.handler, ACTION, c.value), SNMP_ERR_NOERROR);
        ASSERT_EQ(channel.count(), 1u);
        const auto &r = channel.last();
        EXPECT_EQ(
            std::make_tuple(r.opcode, r.msg_type, r.wait, r.wants_record, r.record),
            std::make_tuple(c.opcode, int{SET_REQ}, c.opcode == alert ? 2 : 10, false, c.record));
        if (c.opcode == mail) {
            EXPECT_EQ(email_record(callhome_email_conf), c.record);
        }
    }
    // A text stops at its length or its first NUL.
    u_char bytes[] = {'a', 'b', 0, 'c', 'd', 'e'};
    EXPECT_EQ(set_callHomeSiteId(ACTION, bytes, ASN_OCTET_STR, 5, nullptr, nullptr, 0), 0);
    EXPECT_EQ(channel.last().record, info_record("siteId", "ab"));
    EXPECT_EQ(set_callHomeSiteId(ACTION, bytes + 3, ASN_OCTET_STR, 2, nullptr, nullptr, 0), 0);
    EXPECT_EQ(channel.last().record, info_record("siteId", "cd"));
}

TEST_F(Scalars, WriteActionFailuresOfTheService) {
    // A failed e-mail write keeps the new text in the persistent record.
    channel.answer_status(CALLHOME_ERR_NO_MEMORY);
    EXPECT_EQ(run(set_callHomeEmailReplyTo, ACTION, text("new@example.com")), SNMP_ERR_GENERR);
    EXPECT_STREQ(callhome_email_conf.reply_to, "new@example.com");
    EXPECT_EQ(platform::last_set_error(), std::make_pair(int{CALLHOME_ERR_NO_MEMORY}, 472));
    // The alert action: "no action" is never sent; a wait that runs out is no failure.
    EXPECT_EQ(run(set_callHomeAlertAction, ACTION, num(1)), 0);
    struct Case {
        int status, err, expected;
        bool logged;
    };
    const Case cases[] = {{0, 0, SNMP_ERR_NOERROR, true}, // logged on success too
                          {-1, ETIME, SNMP_ERR_NOERROR, false},
                          {-1, ECONNREFUSED, SNMP_ERR_GENERR, true},
                          {CALLHOME_UNKNOWN_ENTRY, 0, SNMP_ERR_NOSUCHNAME, true},
                          {0x403B0040, 0, SNMP_ERR_GENERR, true},
                          {CALLHOME_ERR_INVALID_INPUT, 0, SNMP_ERR_GENERR, true}};
    for (const auto &c : cases) {
        platform::clear_errors();
        platform::clear_heartbeat_state();
        answer(c.status, c.err);
        EXPECT_EQ(run(set_callHomeAlertAction, ACTION, num(2)), c.expected) << c.status;
        EXPECT_EQ(platform::last_set_error(),
                  c.logged ? std::make_pair(c.status, 472) : std::make_pair(0, 0));
        EXPECT_EQ(platform::last_snmp_error().first, 0); // no error record for the action
        EXPECT_EQ(platform::heartbeat_state(), (platform::HeartbeatState{false, 2}));
    }
    EXPECT_EQ(channel.count(), 1u + 6u);
}

/* ---- SMTP server: the type is stored in every phase, the address checked in RESERVE2 ----- */

TEST_F(Scalars, WriteSmtpAddressMustFitTheType) {
    callhome_email_conf.address_type = 0;
    EXPECT_EQ(run(set_callHomeSmtpServerAddrType, RESERVE1, num(4)), SNMP_ERR_BADVALUE);
    EXPECT_EQ(callhome_email_conf.address_type, 0u) << "a refused type is not stored";
    EXPECT_EQ(run(set_callHomeSmtpServerAddrType, RESERVE1, num(16)), 0);
    EXPECT_EQ(callhome_email_conf.address_type, 16u);
    callhome_email_conf.address_type = 1; // a read in between
    EXPECT_EQ(run(set_callHomeSmtpServerAddrType, RESERVE2, num(2)), 0);
    EXPECT_EQ(callhome_email_conf.address_type, 2u);

    // {type, address, text stored by RESERVE2; null: refused}; the other types and lengths
    // are in the golden session.
    const std::string v4("\xC0\x00\x02\x0A", 4);
    const std::tuple<uint32_t, std::string, const char *> cases[] = {
        {1, v4, "192.0.2.10"}, {0, "mail.example.com", nullptr}, {3, v4, nullptr}};
    for (const auto &[type, value, stored] : cases) {
        SCOPED_TRACE(std::to_string(type) + " / " + std::to_string(value.size()));
        strcpy(callhome_email_conf.smtp_server, "unchanged");
        callhome_email_conf.address_type = type;
        EXPECT_EQ(run(set_callHomeSmtpServerAddr, RESERVE2, text(value)),
                  stored ? 0 : SNMP_ERR_WRONGVALUE);
        EXPECT_STREQ(callhome_email_conf.smtp_server, stored ? stored : "unchanged");
    }
    EXPECT_EQ(channel.count(), 0u);
    // ACTION sends what RESERVE2 stored.
    callhome_email_conf = stored_email(1, 2525);
    EXPECT_EQ(run(set_callHomeSmtpServerAddr, RESERVE2, text(v4)), 0);
    EXPECT_EQ(run(set_callHomeSmtpServerAddr, ACTION, text(v4)), 0);
    cmi_email_conf_t expected = stored_email(1, 2525);
    strcpy(expected.smtp_server, "192.0.2.10");
    ASSERT_EQ(channel.count(), 1u);
    EXPECT_EQ(channel.last().record, email_record(expected));
}

/* ---- Periodic inventory: the record is sent whole, so the kept fields are read first ---- */

TEST_F(Scalars, WritePeriodicWritesKeepTheOtherFields) {
    struct Case {
        bool distribution;
        Bytes service; // what the reads get; empty: unknown entry
        WriteMethod *handler;
        Value value;
        Bytes sent;
    };
    WriteMethod *const days = set_PeriodicSwInventoryTimeFrame,
                       *const on = set_PeriodicSwInventoryMsgEnable,
                       *const at = set_PeriodicSwInventoryTimeOfDay;
    const Bytes usual = periodic_record(1, 14, 605), off = periodic_record(0, 7, 480);
    const Case cases[] = {
        {false, usual, days, num(30, ASN_GAUGE), periodic_record(1, 30, 605)},
        {false, usual, on, num(2), periodic_record(0, 14, 605)},
        {false, usual, at, text("23:59"), periodic_record(1, 14, 1439)},
        {false, off, days, num(3, ASN_GAUGE), periodic_record(0, 3, 480)},
        {false, off, at, text("09:5"), periodic_record(0, 7, 545)},
        // Failed plain reads give the defaults; failed distribution reads -1, sent unchecked.
        {false, {}, at, text("00:00"), periodic_record(1, 7, 0)},
        {true, {}, on, num(1), periodic_record(1, 0xFFFFFFFF, 0xFFFFFFFF)}};
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        const Case &c = cases[i];
        SCOPED_TRACE("case " + std::to_string(i));
        channel.clear();
        platform::set_distribution(c.distribution, 1);
        channel.serve_with([&c](const callhome_test::Request &r) {
            const bool read = r.msg_type != SET_REQ, known = read && !c.service.empty();
            return Reply{read && !known ? CALLHOME_UNKNOWN_ENTRY : 0, known,
                         known ? c.service : Bytes{}, 0};
        });
        EXPECT_EQ(run(c.handler, ACTION, c.value), 0);
        ASSERT_EQ(channel.count(), 3u); // two reads, then the write
        for (size_t read : {0u, 1u}) {
            const auto &r = channel.at(read);
            EXPECT_EQ(std::make_tuple(r.opcode, r.msg_type, r.record),
                      std::make_tuple(int{CALLHOME_PERIODIC_INVENTORY_OPC},
                                      c.distribution ? int{VELD_GET_REQ} : int{GET_REQ},
                                      Bytes(13, 0)));
        }
        const auto &set = channel.at(2);
        EXPECT_EQ(
            std::make_tuple(set.opcode, set.msg_type, set.wait, set.wants_record, set.record),
            std::make_tuple(int{CALLHOME_PERIODIC_INVENTORY_OPC}, int{SET_REQ}, 10, false, c.sent));
    }
}

} // namespace
