// Scalar writes, phase by phase, against the scripted channel: the checks of RESERVE1, what
// ACTION sends, how service failures come back, and where the complaints go.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "callhome_mib.h"
#include "fake_channel.hpp"

namespace {

using callhome_test::be32;
using callhome_test::FakeChannel;
using Bytes = std::vector<uint8_t>;

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

bool has_trace(const std::string &text, int level = CALLHOME_TRACE_INFO) {
    const auto history = platform::trace_history();
    return std::find(history.begin(), history.end(), std::make_pair(level, text)) != history.end();
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
cmi_email_conf_t stored_email(uint32_t type = 1, uint32_t port = 25) {
    cmi_email_conf_t c{"old-from@example.com", "old-reply@example.com", "", "", type, port, 0};
    strcpy(c.return_receipt_addr, "old-receipt@example.com");
    strcpy(c.smtp_server, "192.0.2.1");
    return c;
}
Bytes email_record(cmi_email_conf_t c) {
    c.address_type = be32(c.address_type);
    c.smtp_server_port = be32(c.smtp_server_port);
    return wire(c);
}

// The text scalars: longest value, whether complaints go to standard error (or the trace),
// the record that carries the value, and the label of the trace that shows it.
struct TextScalar {
    const char *object;
    WriteMethod *handler;
    size_t max;
    bool to_stderr;
    const char *info_name;                      // info record, or
    char (cmi_email_conf_t::*email_field)[256]; // e-mail record
    const char *being_set;
};
const TextScalar kTexts[] = {
    {"sysContactPhoneNumber", set_sysContactPhoneNumber, 17, false, "sysContactPhoneNumber",
     nullptr, "contactPhone"},
    {"sysContactEmailAddress", set_sysContactEmailAddress, 255, false, "sysContactEmail", nullptr,
     "contactEmail"},
    {"sysStreetAddress", set_sysStreetAddress, 255, true, "sysStreetAddress", nullptr,
     "contactStreetAddr"},
    {"callHomeCustomerId", set_callHomeCustomerId, 255, true, "custId", nullptr, "custId"},
    {"callHomeContractId", set_callHomeContractId, 255, true, "contractId", nullptr, "contractId"},
    {"callHomeSiteId", set_callHomeSiteId, 255, true, "siteId", nullptr, "siteId"},
    {"callHomeEmailFrom", set_callHomeEmailFrom, 255, true, nullptr,
     &cmi_email_conf_t::from_email_addr, "fromEmail"},
    {"callHomeEmailReplyTo", set_callHomeEmailReplyTo, 255, true, nullptr,
     &cmi_email_conf_t::reply_to, "reply-To"},
    {"callHomeEmailMsgDispNotification", set_callHomeEmailMsgDispNotification, 255, true, nullptr,
     &cmi_email_conf_t::return_receipt_addr, "ReturnReceipt"}};

struct PlatformReset {
    PlatformReset() { platform::reset_for_tests(); }
};

class ScalarWrite : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::set_snmp_context("operator", 77);
        channel.set_default({}); // writes succeed unless a test says otherwise
        callhome_email_conf = stored_email();
    }
    void TearDown() override { platform::reset_for_tests(); }

    // Runs one phase: its status and what it wrote to standard error.
    static std::pair<int, std::string> run_captured(WriteMethod *h, int action, const Value &v) {
        ::testing::internal::CaptureStderr();
        const int status = run(h, action, v);
        return {status, ::testing::internal::GetCapturedStderr()};
    }
    void answer(int status, int err) {
        status == -1 ? channel.answer_errno(err) : channel.answer_status(status);
    }

    PlatformReset reset_;
    FakeChannel channel;
};

/* ---- The senders ---------------------------------------------------------------------- */

TEST_F(ScalarWrite, SetScalarSendsASetWithoutAnswerRecord) {
    char record[] = "abc";
    EXPECT_EQ(set_Scalar(CALLHOME_INFO_OPC, 4, record, 10), SNMP_ERR_NOERROR);
    ASSERT_EQ(channel.count(), 1u);
    const auto &r = channel.last();
    EXPECT_EQ(
        std::make_tuple(r.opcode, r.msg_type, r.record, r.wants_record),
        std::make_tuple(int{CALLHOME_INFO_OPC}, int{SET_REQ}, Bytes{'a', 'b', 'c', 0}, false));
    EXPECT_EQ(std::make_tuple(r.user, r.session, r.client, r.wait),
              std::make_tuple(std::string("operator"), 77u, 0, 10));
    EXPECT_EQ(platform::heartbeat_log(), (std::vector<int>{1, 0}));
    EXPECT_TRUE(has_trace("set_Scalar : Setting opcode = 2155, data = abc\n"));
    EXPECT_TRUE(has_trace("set_Scalar : SET succeeded\n"));
    EXPECT_EQ(platform::last_set_error(), std::make_pair(0, 0));
}

TEST_F(ScalarWrite, SetScalarFailures) {
    struct Case {
        int status, err, expected;
        const char *text; // the failure trace's status text; null: refused input
    };
    const std::string minus_one = strerror(-1);
    const Case cases[] = {{CALLHOME_UNKNOWN_ENTRY, 0, SNMP_ERR_NOSUCHNAME, "unknown entry"},
                          {CALLHOME_ERR_NO_MEMORY, 0, SNMP_ERR_GENERR, "out of memory"},
                          {-1, EIO, SNMP_ERR_GENERR, minus_one.c_str()},
                          {CALLHOME_ERR_INVALID_INPUT, 0, SNMP_ERR_GENERR, nullptr}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.status);
        platform::clear_errors();
        platform::clear_heartbeat_log();
        platform::clear_trace_history();
        answer(c.status, c.err);
        char record[5] = {};
        EXPECT_EQ(set_Scalar(CALLHOME_ENABLE_OPC, 5, record, 10), c.expected);
        EXPECT_EQ(platform::heartbeat_log(), (std::vector<int>{1, 0}));
        const std::string failed =
            std::string("set_Scalar : SET failed : ") + (c.text ? c.text : "invalid input") + "\n";
        EXPECT_EQ(has_trace(failed, CALLHOME_TRACE_ERROR), c.text != nullptr);
        EXPECT_EQ(platform::last_set_error(),
                  c.text ? std::make_pair(c.status, 472) : std::make_pair(0, 0));
        // Refused input: the service's text goes to the error record instead.
        EXPECT_EQ(platform::last_snmp_error(),
                  c.text ? std::make_pair(0, std::string())
                         : std::make_pair(int32_t{CALLHOME_ERR_INVALID_INPUT},
                                          std::string("invalid input")));
    }
}

TEST_F(ScalarWrite, SetTableObjects) {
    callHomeDestProfileEntry_t row{};
    strcpy(row.destination_profile_id, "p1");
    EXPECT_EQ(setTableObjects(CALLHOME_DEST_PROFILE_OPC, &row, sizeof row), SNMP_ERR_NOERROR);
    const auto &r = channel.last();
    EXPECT_EQ(std::make_tuple(r.msg_type, r.client, r.wait, r.wants_record, r.record),
              std::make_tuple(int{SET_REQ}, 66, 10, false, wire(row)));
    EXPECT_EQ(platform::trace_history(), (std::vector<std::pair<int, std::string>>{
                                             {101, "setTableObjects : SET succeeded\n"}}));
    // Refused input is treated like any other failure here.
    channel.answer_status(CALLHOME_ERR_INVALID_INPUT);
    EXPECT_EQ(setTableObjects(CALLHOME_DEST_PROFILE_OPC, &row, sizeof row), SNMP_ERR_GENERR);
    EXPECT_EQ(platform::last_set_error(), std::make_pair(int{CALLHOME_ERR_INVALID_INPUT}, 472));
    EXPECT_EQ(platform::last_snmp_error().first, 0);
    EXPECT_TRUE(has_trace("setTableObjects : SET failed : invalid input\n", CALLHOME_TRACE_ERROR));
    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    EXPECT_EQ(setTableObjects(CALLHOME_DEST_PROFILE_OPC, &row, sizeof row), SNMP_ERR_NOSUCHNAME);
    EXPECT_EQ(platform::heartbeat_log(), (std::vector<int>{1, 0, 1, 0, 1, 0}));
}

/* ---- RESERVE1 ----------------------------------------------------------------------------- */

// Type and length complaints of every handler, in its family's words and place: standard error
// or the trace as "write to <object>", or the trace as "<handler> : ...". The port's message
// names INTEGER though only Gauge32 passes. Integers may also come in 32 bits; a text's length
// is checked before its content.
TEST_F(ScalarWrite, Reserve1TypeAndLengthComplaints) {
    enum Family { Stderr, Trace, Named };
    struct Case {
        WriteMethod *handler;
        std::string name;
        u_char type;
        Family family;
        size_t max; // texts
    };
    const u_char I = ASN_INTEGER, G = ASN_GAUGE, S = ASN_OCTET_STR;
    std::vector<Case> cases = {
        {set_callHomeEnable, "callHomeEnable", I, Trace, 0},
        {set_MsgThrottlingEnable, "MsgThrottlingEnable", I, Named, 0},
        {set_PeriodicSwInventoryMsgEnable, "PeriodicSwInventoryMsgEnable", I, Named, 0},
        {set_PeriodicSwInventoryTimeFrame, "PeriodicSwInventoryTimeFrame", G, Named, 0},
        {set_PeriodicSwInventoryTimeOfDay, "PeriodicSwInventoryTimeOfDay", S, Named, 5},
        {set_callHomeDeviceServicePriority, "callHomeDeviceServicePriority", I, Stderr, 0},
        {set_callHomeAlertAction, "callHomeAlertTest", I, Stderr, 0},
        {set_callHomeSmtpServerAddrType, "callHomeSmtpServerAddrType", I, Stderr, 0},
        {set_callHomeSmtpServerPort, "callHomeSmtpServerPort", G, Stderr, 0},
        {set_callHomeSmtpServerAddr, "callHomeSmtpServerAddr", S, Stderr, 255}};
    for (const auto &t : kTexts) {
        cases.push_back({t.handler, t.object, S, t.to_stderr ? Stderr : Trace, t.max});
    }
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const bool named = c.family == Named;
        const std::string type_complaint =
            named ? "set_" + c.name + " : type not ASN_INTEGER \n"
                  : "write to " + c.name +
                        (c.type == S ? " not ASN_OCTET_STR\n" : " not ASN_INTEGER\n");
        const std::string length_complaint =
            named ? "set_" + c.name + " : bad length \n" : "write to " + c.name + ": bad length\n";
        const std::pair<Value, std::string> complaints[] = {
            {c.type == S ? text("x", I) : num(1, c.type == I ? G : I), type_complaint},
            // (An empty time of day is refused in ACTION, as a bad format.)
            {c.type == S ? text(c.max == 5 ? "12:3456" : "") : num(1, c.type, 5), length_complaint},
            {c.type == S ? text(std::string(c.max + 1, '+')) : num(1, c.type, 9),
             length_complaint}};
        for (const auto &[value, complaint] : complaints) {
            platform::clear_trace_history();
            const auto [status, err] = run_captured(c.handler, RESERVE1, value);
            EXPECT_EQ(status, value.type == c.type ? SNMP_ERR_WRONGLENGTH : SNMP_ERR_WRONGTYPE);
            EXPECT_EQ(err, c.family == Stderr ? complaint : "");
            EXPECT_EQ(has_trace(complaint), c.family != Stderr) << complaint;
        }
        EXPECT_EQ(run(c.handler, RESERVE1,
                      c.type == S ? text("+" + std::string(c.max - 1, '7')) : num(1, c.type, 4)),
                  0);
    }
    EXPECT_EQ(channel.count(), 0u);
}

// Values refused and accepted at the boundaries (only some handlers say why, in the trace),
// and the content rules of the texts.
TEST_F(ScalarWrite, Reserve1Values) {
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
            EXPECT_EQ(run_captured(c.handler, RESERVE1, num(v, gauge ? ASN_GAUGE : ASN_INTEGER)),
                      std::make_pair(refused, std::string()))
                << v;
        }
        for (long v : c.accepted) {
            EXPECT_EQ(run(c.handler, RESERVE1, num(v, gauge ? ASN_GAUGE : ASN_INTEGER)), 0) << v;
        }
    }
    EXPECT_TRUE(has_trace("set_MsgThrottlingEnable : Wrong value ( shd be true/false) \n"));
    EXPECT_TRUE(has_trace("set_PeriodicSwInventoryTimeFrame : Wrong value ( shd be 1 ...30) \n"));

    // SnmpAdminString: no space at either end (the phone number has its own rule).
    for (const auto &c : kTexts) {
        for (const char *bad : {" lead", "trail ", " "}) {
            EXPECT_EQ(run(c.handler, RESERVE1, text(bad)),
                      c.max == 17 ? SNMP_ERR_GENERR : SNMP_ERR_WRONGVALUE)
                << c.object << bad;
        }
        EXPECT_EQ(run(c.handler, RESERVE1, text(c.max == 17 ? "+1 2" : "in\tside")), 0);
    }
    EXPECT_TRUE(has_trace("set_callHomeSiteId : leading/trailing space is not allowed in "
                          "SnmpAdminString type\n"));
    EXPECT_EQ(run(set_callHomeSmtpServerAddr, RESERVE1, text(" any ")), 0); // type not known yet
    EXPECT_EQ(run(set_PeriodicSwInventoryTimeOfDay, RESERVE1, text("24:00")), 0); // see ACTION
    EXPECT_TRUE(has_trace("set_PeriodicSwInventoryTimeOfDay : in RESERVE1 \n"));
    // The phone number: '+', then digits, spaces and dashes; a bad one goes to the error
    // record, not the trace.
    for (const char *phone :
         {"+", "+1 800-555 ", "+ ", "1800", " +1800", "+1800x", "+1(800)", "++1"}) {
        const bool good = phone[0] == '+' && strpbrk(phone + 1, "+x(") == nullptr;
        platform::clear_errors();
        platform::clear_trace_history();
        EXPECT_EQ(run(set_sysContactPhoneNumber, RESERVE1, text(phone)), good ? 0 : SNMP_ERR_GENERR)
            << phone;
        EXPECT_EQ(platform::last_snmp_error().first, good ? 0 : CALLHOME_ERR_INVALID_INPUT);
        EXPECT_TRUE(platform::trace_history().empty());
    }
    EXPECT_EQ(platform::last_snmp_error().second, "invalid input");
    EXPECT_EQ(channel.count(), 0u);
}

/* ---- ACTION ------------------------------------------------------------------------------- */

// What each scalar's ACTION sends. The e-mail record goes out whole, with the fields that this
// write leaves alone as the last read left them, and keeps the new value in host order.
TEST_F(ScalarWrite, ActionSendsTheRecord) {
    struct Case {
        WriteMethod *handler;
        Value value;
        int opcode;
        int wait;
        Bytes record;
        std::string trace;
    };
    std::vector<Case> cases;
    for (const auto &t : kTexts) {
        const std::string value = t.max == 17 ? "+1 800-555" : "ops team@example.com";
        cmi_email_conf_t email = stored_email();
        if (t.email_field != nullptr) {
            strcpy(email.*t.email_field, value.c_str());
        }
        cases.push_back({t.handler, text(value),
                         t.info_name ? CALLHOME_INFO_OPC : CALLHOME_EMAIL_CONF_OPC, 10,
                         t.info_name ? info_record(t.info_name, value) : email_record(email),
                         std::string("set_") + t.object + " : " + t.being_set + "  being set to " +
                             value + "\n"});
    }
    const int info = CALLHOME_INFO_OPC, mail = CALLHOME_EMAIL_CONF_OPC,
              alert = CALLHOME_ALERT_ACTION_OPC;
    const callhome_alert_action_t test{"Test Call Home"}, inventory{"Inventory"};
    cases.insert(
        cases.end(),
        {{set_callHomeEnable,
          num(1),
          CALLHOME_ENABLE_OPC,
          10,
          {0, 0, 0, 1, 0},
          "set_callHomeEnable : CallhomeEnable being set to 1\n"},
         {set_callHomeEnable, num(2), CALLHOME_ENABLE_OPC, 10, {0, 0, 0, 0, 0}, ""},
         {set_MsgThrottlingEnable, num(1), CALLHOME_MSG_THROTTLING_OPC, 10, {0, 0, 0, 1, 0}, ""},
         {set_MsgThrottlingEnable, num(2), CALLHOME_MSG_THROTTLING_OPC, 10, {0, 0, 0, 0, 0}, ""},
         // The priority travels one lower; the alert action does not wait for its outcome.
         {set_callHomeDeviceServicePriority, num(8), info, 10, info_record("priority", "7"), ""},
         {set_callHomeDeviceServicePriority, num(1), info, 10, info_record("priority", "0"), ""},
         {set_callHomeAlertAction, num(2), alert, 2, wire(test), ""},
         {set_callHomeAlertAction, num(3), alert, 2, wire(inventory), ""},
         {set_callHomeSmtpServerAddrType, num(16), mail, 10, email_record(stored_email(16)), ""},
         {set_callHomeSmtpServerPort, num(587, ASN_GAUGE), mail, 10,
          email_record(stored_email(1, 587)), ""}});
    for (size_t i = 0; i < cases.size(); ++i) {
        const Case &c = cases[i];
        SCOPED_TRACE("case " + std::to_string(i));
        channel.clear();
        platform::clear_trace_history();
        callhome_email_conf = stored_email();
        EXPECT_EQ(run(c.handler, ACTION, c.value), SNMP_ERR_NOERROR);
        ASSERT_EQ(channel.count(), 1u);
        const auto &r = channel.last();
        EXPECT_EQ(std::make_tuple(r.opcode, r.msg_type, r.wait, r.wants_record, r.record),
                  std::make_tuple(c.opcode, int{SET_REQ}, c.wait, false, c.record));
        if (c.opcode == mail) {
            EXPECT_EQ(email_record(callhome_email_conf), c.record);
        }
        EXPECT_TRUE(c.trace.empty() || has_trace(c.trace)) << c.trace;
    }
    // A text stops at its length or its first NUL.
    u_char bytes[] = {'a', 'b', 0, 'c', 'd', 'e'};
    EXPECT_EQ(set_callHomeSiteId(ACTION, bytes, ASN_OCTET_STR, 5, nullptr, nullptr, 0), 0);
    EXPECT_EQ(channel.last().record, info_record("siteId", "ab"));
    EXPECT_EQ(set_callHomeSiteId(ACTION, bytes + 3, ASN_OCTET_STR, 2, nullptr, nullptr, 0), 0);
    EXPECT_EQ(channel.last().record, info_record("siteId", "cd"));
}

TEST_F(ScalarWrite, ActionFailuresOfTheService) {
    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    EXPECT_EQ(run(set_callHomeSiteId, ACTION, text("s1")), SNMP_ERR_NOSUCHNAME);
    channel.answer_errno(ECONNREFUSED);
    EXPECT_EQ(run(set_callHomeEnable, ACTION, num(1)), SNMP_ERR_GENERR);
    channel.answer_status(CALLHOME_ERR_INVALID_INPUT);
    EXPECT_EQ(run(set_sysContactEmailAddress, ACTION, text("x@y")), SNMP_ERR_GENERR);
    EXPECT_EQ(platform::last_snmp_error().first, CALLHOME_ERR_INVALID_INPUT);
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
        platform::clear_heartbeat_log();
        answer(c.status, c.err);
        EXPECT_EQ(run(set_callHomeAlertAction, ACTION, num(2)), c.expected) << c.status;
        EXPECT_EQ(platform::last_set_error(),
                  c.logged ? std::make_pair(c.status, 472) : std::make_pair(0, 0));
        EXPECT_EQ(platform::last_snmp_error().first, 0); // no error record for the action
        EXPECT_EQ(platform::heartbeat_log(), (std::vector<int>{1, 0}));
    }
    EXPECT_EQ(channel.count(), 4u + 6u);
}

// Every handler: the phases other than RESERVE1 and ACTION check nothing and send nothing, and
// a phase number above UNDO is accepted at once.
TEST_F(ScalarWrite, OtherPhasesDoNothing) {
    std::vector<WriteMethod *> handlers = {set_callHomeEnable,
                                           set_callHomeDeviceServicePriority,
                                           set_callHomeAlertAction,
                                           set_MsgThrottlingEnable,
                                           set_callHomeSmtpServerPort,
                                           set_PeriodicSwInventoryMsgEnable,
                                           set_PeriodicSwInventoryTimeFrame,
                                           set_PeriodicSwInventoryTimeOfDay};
    for (const auto &t : kTexts) {
        handlers.push_back(t.handler);
    }
    for (WriteMethod *h : handlers) {
        for (int action : {RESERVE2, COMMIT, FREE, UNDO, UNDO + 1}) {
            EXPECT_EQ(run(h, action, text(" bad value ", ASN_COUNTER)), 0) << action;
        }
    }
    EXPECT_EQ(run(set_callHomeSmtpServerAddrType, UNDO + 1, num(99, ASN_OCTET_STR)), 0);
    EXPECT_EQ(run(set_callHomeSmtpServerAddr, UNDO + 1, text("", ASN_INTEGER)), 0);
    EXPECT_EQ(channel.count(), 0u);
}

/* ---- SMTP server: the type is stored in every phase, the address checked in RESERVE2 ----- */

TEST_F(ScalarWrite, SmtpAddressMustFitTheType) {
    callhome_email_conf.address_type = 0;
    EXPECT_EQ(run(set_callHomeSmtpServerAddrType, RESERVE1, num(4)), SNMP_ERR_BADVALUE);
    EXPECT_EQ(callhome_email_conf.address_type, 0u) << "a refused type is not stored";
    EXPECT_EQ(run(set_callHomeSmtpServerAddrType, RESERVE1, num(16)), 0);
    EXPECT_EQ(callhome_email_conf.address_type, 16u);
    callhome_email_conf.address_type = 1; // a read in between
    EXPECT_EQ(run(set_callHomeSmtpServerAddrType, RESERVE2, num(2)), 0);
    EXPECT_EQ(callhome_email_conf.address_type, 2u);
    EXPECT_TRUE(has_trace("R2 - set_callHomeSmtpServerAddrType : Address Type 2\n"));

    const std::string v4("\xC0\x00\x02\x0A", 4), name255(255, 'h');
    const std::string v6("\x20\x01\x0D\xB8\0\0\0\0\0\0\0\0\0\0\0\x01", 16);
    const std::tuple<uint32_t, std::string, const char *> cases[] = {
        // null: refused
        {1, v4, "192.0.2.10"},
        {1, std::string(16, '\x01'), nullptr},
        {1, "abc", nullptr},
        {2, v6, "2001:db8::1"},
        {2, v4, nullptr},
        {16, "mail.example.com", "mail.example.com"},
        {16, name255, name255.c_str()},
        {0, "mail.example.com", nullptr},
        {3, v4, nullptr}};
    for (const auto &[type, value, stored] : cases) {
        SCOPED_TRACE(std::to_string(type) + " / " + std::to_string(value.size()));
        strcpy(callhome_email_conf.smtp_server, "unchanged");
        callhome_email_conf.address_type = type;
        platform::clear_trace_history();
        EXPECT_EQ(run(set_callHomeSmtpServerAddr, RESERVE2, text(value)),
                  stored ? 0 : SNMP_ERR_WRONGVALUE);
        EXPECT_STREQ(callhome_email_conf.smtp_server, stored ? stored : "unchanged");
        EXPECT_TRUE(has_trace("R2 set_callHomeSmtpServerAddr : SMTP server address type " +
                              std::to_string(type) + "\n"));
        EXPECT_EQ(has_trace(std::string(
                                "set_callHomeSmtpServerAddr : SMTP server address being set to ") +
                            (stored ? stored : "") + "\n"),
                  stored != nullptr);
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

TEST_F(ScalarWrite, PeriodicWritesKeepTheOtherFields) {
    struct Case {
        bool distribution;
        Bytes service; // what the reads get; empty: unknown entry
        WriteMethod *handler;
        Value value;
        Bytes sent;
    };
    const Bytes usual = periodic_record(1, 14, 605), off = periodic_record(0, 7, 480);
    const Case cases[] = {
        {false, usual, set_PeriodicSwInventoryTimeFrame, num(30, ASN_GAUGE),
         periodic_record(1, 30, 605)},
        {false, usual, set_PeriodicSwInventoryMsgEnable, num(2), periodic_record(0, 14, 605)},
        {false, usual, set_PeriodicSwInventoryTimeOfDay, text("23:59"),
         periodic_record(1, 14, 1439)},
        {false, off, set_PeriodicSwInventoryTimeFrame, num(3, ASN_GAUGE),
         periodic_record(0, 3, 480)},
        // Failed plain reads give the defaults; failed distribution reads -1, sent unchecked.
        {false, {}, set_PeriodicSwInventoryTimeOfDay, text("00:00"), periodic_record(1, 7, 0)},
        {true,
         {},
         set_PeriodicSwInventoryMsgEnable,
         num(1),
         periodic_record(1, 0xFFFFFFFF, 0xFFFFFFFF)}};
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        const Case &c = cases[i];
        SCOPED_TRACE("case " + std::to_string(i));
        channel.clear();
        platform::set_distribution(c.distribution, 1);
        channel.serve_with([&c](const FakeChannel::Request &r) {
            const bool read = r.msg_type != SET_REQ;
            const bool known = read && !c.service.empty();
            return FakeChannel::Reply{read && !known ? CALLHOME_UNKNOWN_ENTRY : 0, known,
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

TEST_F(ScalarWrite, TimeOfDayIsCheckedInAction) {
    const std::pair<std::string, int> cases[] = {
        // -1: out of range, -2: bad format
        {"23:59", 1439}, {"00:00", 0}, {"09:5", 545}, {"24:00", -1}, {"12:60", -1}, {"-1:30", -1},
        {"9:30", -2},    {"0930", -2}, {"12:", -2},   {"12:ab", -2}, {"ab:12", -2}, {"", -2}};
    const std::string handler = "set_PeriodicSwInventoryTimeOfDay : ";
    channel.set_default({0, true, periodic_record(1, 7, 480), 0});
    for (const auto &[value, minutes] : cases) {
        SCOPED_TRACE("'" + value + "'");
        channel.clear();
        platform::clear_trace_history();
        const int status = run(set_PeriodicSwInventoryTimeOfDay, ACTION, text(value));
        if (minutes < 0) {
            EXPECT_EQ(status, SNMP_ERR_WRONGVALUE);
            EXPECT_EQ(channel.count(), 0u);
            EXPECT_TRUE(has_trace(
                handler +
                (minutes == -1 ? "out of range error" : "bad format (should be in HH:MM)") +
                " \n"));
            continue;
        }
        EXPECT_EQ(status, 0);
        ASSERT_EQ(channel.count(), 3u);
        EXPECT_EQ(channel.last().record, periodic_record(1, 7, minutes));
        EXPECT_TRUE(has_trace(handler + "PeriodicSwInventoryTimeFrame being set to " +
                              std::to_string(minutes) + "\n"));
    }
}

} // namespace
