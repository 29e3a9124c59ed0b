// Scalar writes, phase by phase, against the scripted channel: the checks of RESERVE1, what
// ACTION sends, how service failures come back, and where the complaints go.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <cstring>
#include <string>
#include <vector>

#include "callhome_mib.h"
#include "fake_channel.hpp"

namespace {

using callhome_test::be32;
using callhome_test::FakeChannel;
using ::testing::HasSubstr;

constexpr int kAboveUndo = 6;

int write_text(WriteMethod *handler, int action, const std::string &value,
               u_char type = ASN_OCTET_STR) {
    std::vector<u_char> bytes(value.begin(), value.end());
    bytes.push_back(0xEE); // a byte past the value that must never be read as part of it
    return handler(action, bytes.data(), type, value.size(), nullptr, nullptr, 0);
}

// Integers reach the handlers as the agent passes them: a long of sizeof(long) bytes.
int write_long(WriteMethod *handler, int action, long value, u_char type = ASN_INTEGER,
               size_t len = sizeof(long)) {
    u_char bytes[16] = {};
    memcpy(bytes, &value, sizeof value);
    return handler(action, bytes, type, len, nullptr, nullptr, 0);
}

bool has_trace(const std::string &text, int level = CALLHOME_TRACE_INFO) {
    for (const auto &[l, t] : platform::trace_history()) {
        if (t == text && l == level) {
            return true;
        }
    }
    return false;
}

struct PlatformReset {
    PlatformReset() { platform::reset_for_tests(); }
};

class ScalarWrite : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::set_snmp_context("operator", 77);
        channel.set_default({}); // writes succeed unless a test says otherwise
        memset(&callhome_email_conf, 0, sizeof callhome_email_conf);
    }
    void TearDown() override { platform::reset_for_tests(); }

    PlatformReset reset_;
    FakeChannel channel;
};

/* ---- The senders ---------------------------------------------------------------------- */

TEST_F(ScalarWrite, SetScalarSendsASetWithoutAnswerRecord) {
    char record[] = "abc";
    EXPECT_EQ(set_Scalar(CALLHOME_INFO_OPC, 4, record, 10), SNMP_ERR_NOERROR);
    ASSERT_EQ(channel.count(), 1u);
    const auto &r = channel.last();
    EXPECT_EQ(r.opcode, CALLHOME_INFO_OPC);
    EXPECT_EQ(r.msg_type, SET_REQ);
    EXPECT_EQ(r.record, (std::vector<uint8_t>{'a', 'b', 'c', 0}));
    EXPECT_FALSE(r.wants_record);
    EXPECT_EQ(r.user, "operator");
    EXPECT_EQ(r.session, 77u);
    EXPECT_EQ(r.client, 0);
    EXPECT_EQ(r.wait, 10);
    EXPECT_EQ(platform::heartbeat_log(), (std::vector<int>{1, 0}));
    EXPECT_TRUE(has_trace("set_Scalar : Setting opcode = 2155, data = abc\n"));
    EXPECT_TRUE(has_trace("set_Scalar : SET succeeded\n"));
    EXPECT_EQ(platform::last_set_error(), std::make_pair(0, 0));
}

TEST_F(ScalarWrite, SetScalarFailures) {
    struct Case {
        int status;
        int err;
        int expected;
        bool logged;
        const char *text; // the failure trace's status text; null: no trace
    };
    const std::string minus_one = strerror(-1);
    const Case cases[] = {
        {CALLHOME_UNKNOWN_ENTRY, 0, SNMP_ERR_NOSUCHNAME, true, "unknown entry"},
        {CALLHOME_ERR_NO_MEMORY, 0, SNMP_ERR_GENERR, true, "out of memory"},
        {-1, EIO, SNMP_ERR_GENERR, true, minus_one.c_str()},
        {CALLHOME_ERR_INVALID_INPUT, 0, SNMP_ERR_GENERR, false, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.status);
        platform::clear_errors();
        platform::clear_heartbeat_log();
        platform::clear_trace_history();
        if (c.status == -1) {
            channel.answer_errno(c.err);
        } else {
            channel.answer_status(c.status);
        }
        char record[5] = {};
        EXPECT_EQ(set_Scalar(CALLHOME_ENABLE_OPC, 5, record, 10), c.expected);
        EXPECT_EQ(platform::heartbeat_log(), (std::vector<int>{1, 0}));
        if (c.logged) {
            EXPECT_EQ(platform::last_set_error(), std::make_pair(c.status, 472));
            EXPECT_TRUE(has_trace(std::string("set_Scalar : SET failed : ") + c.text + "\n",
                                  CALLHOME_TRACE_ERROR));
            EXPECT_EQ(platform::last_snmp_error().first, 0);
        } else {
            // Refused input: the service's text goes to the error record instead.
            EXPECT_EQ(platform::last_set_error(), std::make_pair(0, 0));
            EXPECT_EQ(
                platform::last_snmp_error(),
                std::make_pair(int32_t{CALLHOME_ERR_INVALID_INPUT}, std::string("invalid input")));
            for (const auto &[level, text] : platform::trace_history()) {
                EXPECT_THAT(text, ::testing::Not(HasSubstr("SET failed")));
            }
        }
    }
}

TEST_F(ScalarWrite, SetScalarReturnsTheAlertActionsRawStatus) {
    char record[8] = {};
    for (int status : {int{CALLHOME_UNKNOWN_ENTRY}, int{CALLHOME_ERR_INVALID_INPUT}}) {
        platform::clear_errors();
        channel.answer_status(status);
        EXPECT_EQ(set_Scalar(CALLHOME_ALERT_ACTION_OPC, sizeof record, record, 2), status);
        EXPECT_EQ(platform::last_set_error(), std::make_pair(0, 0));
        EXPECT_EQ(platform::last_snmp_error().first, 0);
    }
    channel.answer_errno(ETIME);
    EXPECT_EQ(set_Scalar(CALLHOME_ALERT_ACTION_OPC, sizeof record, record, 2), -1);
    EXPECT_EQ(errno, ETIME);
}

TEST_F(ScalarWrite, SetTableObjects) {
    callHomeDestProfileEntry_t row{};
    strcpy(row.destination_profile_id, "p1");
    EXPECT_EQ(setTableObjects(CALLHOME_DEST_PROFILE_OPC, &row, sizeof row), SNMP_ERR_NOERROR);
    const auto &r = channel.last();
    EXPECT_EQ(r.msg_type, SET_REQ);
    EXPECT_EQ(r.client, 66);
    EXPECT_EQ(r.wait, 10);
    EXPECT_FALSE(r.wants_record);
    EXPECT_EQ(r.record.size(), sizeof row);
    EXPECT_TRUE(has_trace("setTableObjects : SET succeeded\n"));
    for (const auto &[level, text] : platform::trace_history()) {
        EXPECT_THAT(text, ::testing::Not(HasSubstr("Setting")));
    }

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

/* ---- Text scalars ---------------------------------------------------------------------- */

struct TextCase {
    const char *object;
    WriteMethod *handler;
    size_t max;
    bool to_stderr;
    const char *info_name;                      // info record, or
    char (cmi_email_conf_t::*email_field)[256]; // e-mail record
    const char *being_set;                      // the trace's label
};

const TextCase kTextCases[] = {
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
     &cmi_email_conf_t::return_receipt_addr, "ReturnReceipt"},
};

std::string handler_name(const TextCase &c) {
    return std::string("set_") + c.object;
}

// A valid value of the object's kind.
std::string good_value(const TextCase &c) {
    return c.max == 17 ? "+1 800-555" : "ops team@example.com";
}

// The complaint, captured from wherever the object sends it.
template <class Fn> std::string complaint(const TextCase &c, Fn &&fn) {
    platform::clear_trace_history();
    ::testing::internal::CaptureStderr();
    fn();
    const std::string err = ::testing::internal::GetCapturedStderr();
    if (c.to_stderr) {
        EXPECT_TRUE(platform::trace_history().empty() ||
                    platform::trace_history().back().second.find("write to") == std::string::npos);
        return err;
    }
    EXPECT_EQ(err, "");
    const auto history = platform::trace_history();
    return history.empty() ? std::string() : history.back().second;
}

TEST_F(ScalarWrite, TextTypeAndLengthChecks) {
    for (const auto &c : kTextCases) {
        SCOPED_TRACE(c.object);
        const std::string object = c.object;
        EXPECT_EQ(complaint(c,
                            [&] {
                                EXPECT_EQ(write_text(c.handler, RESERVE1, "x", ASN_INTEGER),
                                          SNMP_ERR_WRONGTYPE);
                            }),
                  "write to " + object + " not ASN_OCTET_STR\n");
        // Length before content: an empty value is wrongLength, not a format error.
        EXPECT_EQ(
            complaint(
                c, [&] { EXPECT_EQ(write_text(c.handler, RESERVE1, ""), SNMP_ERR_WRONGLENGTH); }),
            "write to " + object + ": bad length\n");
        std::string too_long(c.max + 1, '7');
        too_long[0] = '+';
        EXPECT_EQ(complaint(c,
                            [&] {
                                EXPECT_EQ(write_text(c.handler, RESERVE1, too_long),
                                          SNMP_ERR_WRONGLENGTH);
                            }),
                  "write to " + object + ": bad length\n");
        std::string longest(c.max, '7');
        longest[0] = '+';
        EXPECT_EQ(write_text(c.handler, RESERVE1, longest), SNMP_ERR_NOERROR);
        EXPECT_EQ(write_text(c.handler, RESERVE1, good_value(c)), SNMP_ERR_NOERROR);
    }
    EXPECT_EQ(channel.count(), 0u);
}

TEST_F(ScalarWrite, AdminStringsRefuseOuterSpaces) {
    for (const auto &c : kTextCases) {
        if (c.max == 17) {
            continue; // the phone number has its own rule
        }
        SCOPED_TRACE(c.object);
        for (const char *bad : {" lead", "trail ", " "}) {
            platform::clear_trace_history();
            EXPECT_EQ(write_text(c.handler, RESERVE1, bad), SNMP_ERR_WRONGVALUE) << bad;
            EXPECT_TRUE(has_trace(handler_name(c) +
                                  " : leading/trailing space is not allowed in SnmpAdminString "
                                  "type\n"));
        }
        EXPECT_EQ(write_text(c.handler, RESERVE1, "in side"), SNMP_ERR_NOERROR);
        EXPECT_EQ(write_text(c.handler, RESERVE1, "\ttab"), SNMP_ERR_NOERROR); // spaces only
    }
    EXPECT_EQ(channel.count(), 0u);
}

TEST_F(ScalarWrite, PhoneNumberRule) {
    struct Case {
        std::string value;
        int expected;
    };
    const Case cases[] = {
        {"+", SNMP_ERR_NOERROR},
        {"+1 800-555", SNMP_ERR_NOERROR},
        {"+1 800-555 ", SNMP_ERR_NOERROR},
        {"+ ", SNMP_ERR_NOERROR},
        {"1800", SNMP_ERR_GENERR},
        {" +1800", SNMP_ERR_GENERR},
        {"+1800x", SNMP_ERR_GENERR},
        {"+1(800)", SNMP_ERR_GENERR},
        {"++1", SNMP_ERR_GENERR},
        {"+123456789012345678", SNMP_ERR_WRONGLENGTH}, // 19 bytes
        {"+1234567890123456", SNMP_ERR_NOERROR},       // 17 bytes
        {"+12345678901234567", SNMP_ERR_WRONGLENGTH},  // 18 bytes
    };
    for (const auto &c : cases) {
        platform::clear_errors();
        platform::clear_trace_history();
        EXPECT_EQ(write_text(set_sysContactPhoneNumber, RESERVE1, c.value), c.expected)
            << "'" << c.value << "'";
        if (c.expected == SNMP_ERR_GENERR) {
            EXPECT_EQ(
                platform::last_snmp_error(),
                std::make_pair(int32_t{CALLHOME_ERR_INVALID_INPUT}, std::string("invalid input")));
            EXPECT_TRUE(platform::trace_history().empty()); // no trace line for this
        } else {
            EXPECT_EQ(platform::last_snmp_error().first, 0) << c.value;
        }
    }
    EXPECT_EQ(channel.count(), 0u);
}

TEST_F(ScalarWrite, TextActionSendsTheRecord) {
    for (const auto &c : kTextCases) {
        SCOPED_TRACE(c.object);
        channel.clear();
        platform::clear_trace_history();
        // Fields that this write leaves alone, as the last read left them.
        memset(&callhome_email_conf, 0, sizeof callhome_email_conf);
        strcpy(callhome_email_conf.from_email_addr, "old-from@example.com");
        strcpy(callhome_email_conf.reply_to, "old-reply@example.com");
        strcpy(callhome_email_conf.return_receipt_addr, "old-receipt@example.com");
        strcpy(callhome_email_conf.smtp_server, "192.0.2.1");
        callhome_email_conf.address_type = 1;
        callhome_email_conf.smtp_server_port = 25;

        const std::string value = good_value(c);
        EXPECT_EQ(write_text(c.handler, ACTION, value), SNMP_ERR_NOERROR);
        ASSERT_EQ(channel.count(), 1u);
        const auto &r = channel.last();
        EXPECT_EQ(r.msg_type, SET_REQ);
        EXPECT_EQ(r.wait, 10);
        EXPECT_FALSE(r.wants_record);
        if (c.info_name != nullptr) {
            EXPECT_EQ(r.opcode, CALLHOME_INFO_OPC);
            ASSERT_EQ(r.record.size(), 2305u);
            const auto info = FakeChannel::as<cmi_callhome_info_t>(r);
            EXPECT_STREQ(info.info_name, c.info_name);
            EXPECT_EQ(std::string(info.info_value), value);
            // Zeroed beyond the texts.
            EXPECT_TRUE(std::all_of(r.record.begin() + 256 + value.size(), r.record.end(),
                                    [](uint8_t b) { return b == 0; }));
        } else {
            EXPECT_EQ(r.opcode, CALLHOME_EMAIL_CONF_OPC);
            ASSERT_EQ(r.record.size(), 1033u);
            const auto sent = FakeChannel::as<cmi_email_conf_t>(r);
            EXPECT_EQ(std::string(sent.*c.email_field), value);
            EXPECT_EQ(std::string(sent.smtp_server), "192.0.2.1");
            EXPECT_EQ(sent.address_type, be32(1));
            EXPECT_EQ(sent.smtp_server_port, be32(25));
            const auto kept = c.email_field == &cmi_email_conf_t::reply_to
                                  ? &cmi_email_conf_t::from_email_addr
                                  : &cmi_email_conf_t::reply_to;
            EXPECT_THAT(std::string(sent.*kept), HasSubstr("old-"));
            // The persistent record holds the new text, in host order.
            EXPECT_EQ(std::string(callhome_email_conf.*c.email_field), value);
            EXPECT_EQ(callhome_email_conf.smtp_server_port, 25u);
        }
        EXPECT_TRUE(
            has_trace(handler_name(c) + " : " + c.being_set + "  being set to " + value + "\n"));
    }
}

TEST_F(ScalarWrite, TextValueStopsAtItsLengthOrFirstNul) {
    u_char bytes[] = {'a', 'b', 0, 'c', 'd', 'e'};
    EXPECT_EQ(set_callHomeSiteId(ACTION, bytes, ASN_OCTET_STR, 5, nullptr, nullptr, 0), 0);
    EXPECT_STREQ(FakeChannel::as<cmi_callhome_info_t>(channel.last()).info_value, "ab");
    EXPECT_EQ(set_callHomeSiteId(ACTION, bytes + 3, ASN_OCTET_STR, 2, nullptr, nullptr, 0), 0);
    EXPECT_STREQ(FakeChannel::as<cmi_callhome_info_t>(channel.last()).info_value, "cd");
}

TEST_F(ScalarWrite, FailedEmailWriteKeepsTheNewText) {
    channel.answer_status(CALLHOME_ERR_NO_MEMORY);
    EXPECT_EQ(write_text(set_callHomeEmailReplyTo, ACTION, "new@example.com"), SNMP_ERR_GENERR);
    EXPECT_STREQ(callhome_email_conf.reply_to, "new@example.com");
    EXPECT_EQ(platform::last_set_error(), std::make_pair(int{CALLHOME_ERR_NO_MEMORY}, 472));
}

TEST_F(ScalarWrite, TextFailuresFromTheService) {
    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    EXPECT_EQ(write_text(set_callHomeSiteId, ACTION, "s1"), SNMP_ERR_NOSUCHNAME);
    channel.answer_errno(ECONNREFUSED);
    platform::clear_trace_history();
    EXPECT_EQ(write_text(set_callHomeSiteId, ACTION, "s1"), SNMP_ERR_GENERR);
    EXPECT_TRUE(has_trace(std::string("set_Scalar : SET failed : ") + strerror(-1) + "\n",
                          CALLHOME_TRACE_ERROR));
    channel.answer_status(CALLHOME_ERR_INVALID_INPUT);
    EXPECT_EQ(write_text(set_sysContactEmailAddress, ACTION, "x@y"), SNMP_ERR_GENERR);
    EXPECT_EQ(platform::last_snmp_error().first, CALLHOME_ERR_INVALID_INPUT);
}

// Every handler: the phases other than RESERVE1 and ACTION do nothing and send nothing, and a
// phase number above UNDO is accepted at once.
TEST_F(ScalarWrite, OtherPhasesDoNothing) {
    struct Handler {
        WriteMethod *handler;
        bool text;
    };
    const Handler handlers[] = {
        {set_sysContactPhoneNumber, true},
        {set_sysContactEmailAddress, true},
        {set_sysStreetAddress, true},
        {set_callHomeCustomerId, true},
        {set_callHomeContractId, true},
        {set_callHomeSiteId, true},
        {set_callHomeEmailFrom, true},
        {set_callHomeEmailReplyTo, true},
        {set_callHomeEmailMsgDispNotification, true},
        {set_callHomeEnable, false},
        {set_callHomeDeviceServicePriority, false},
        {set_callHomeAlertAction, false},
        {set_MsgThrottlingEnable, false},
        {set_callHomeSmtpServerPort, false},
        {set_PeriodicSwInventoryMsgEnable, false},
        {set_PeriodicSwInventoryTimeFrame, false},
        {set_PeriodicSwInventoryTimeOfDay, true},
    };
    for (const auto &h : handlers) {
        for (int action : {RESERVE2, COMMIT, FREE, UNDO, kAboveUndo}) {
            const int status = h.text ? write_text(h.handler, action, " bad value ", ASN_INTEGER)
                                      : write_long(h.handler, action, 999, ASN_OCTET_STR);
            EXPECT_EQ(status, SNMP_ERR_NOERROR) << action;
        }
    }
    EXPECT_EQ(write_long(set_callHomeSmtpServerAddrType, kAboveUndo, 99, ASN_OCTET_STR), 0);
    EXPECT_EQ(write_text(set_callHomeSmtpServerAddr, kAboveUndo, "", ASN_INTEGER), 0);
    EXPECT_EQ(channel.count(), 0u);
}

/* ---- Switches, priority and the alert action ------------------------------------------- */

TEST_F(ScalarWrite, EnableAndThrottlingSwitches) {
    struct Case {
        WriteMethod *handler;
        int opcode;
        const char *label;
    };
    for (const Case &c : {Case{set_callHomeEnable, CALLHOME_ENABLE_OPC,
                               "set_callHomeEnable : CallhomeEnable being set to "},
                          Case{set_MsgThrottlingEnable, CALLHOME_MSG_THROTTLING_OPC,
                               "set_MsgThrottlingEnable : MsgThrottlingEnable being set to "}}) {
        for (auto [mib, wire] : {std::pair{1L, 1u}, {2L, 0u}}) {
            channel.clear();
            EXPECT_EQ(write_long(c.handler, RESERVE1, mib), SNMP_ERR_NOERROR);
            EXPECT_EQ(write_long(c.handler, ACTION, mib), SNMP_ERR_NOERROR);
            ASSERT_EQ(channel.count(), 1u);
            const auto &r = channel.last();
            EXPECT_EQ(r.opcode, c.opcode);
            EXPECT_EQ(r.wait, 10);
            const uint8_t w = static_cast<uint8_t>(wire);
            EXPECT_EQ(r.record, (std::vector<uint8_t>{0, 0, 0, w, 0}));
            EXPECT_TRUE(has_trace(c.label + std::to_string(wire) + "\n"));
        }
        for (long bad : {0L, 3L, -1L}) {
            EXPECT_EQ(write_long(c.handler, RESERVE1, bad), SNMP_ERR_WRONGVALUE) << bad;
        }
        // A 32-bit value is accepted too; other lengths are not.
        EXPECT_EQ(write_long(c.handler, RESERVE1, 1, ASN_INTEGER, 4), SNMP_ERR_NOERROR);
        EXPECT_EQ(write_long(c.handler, RESERVE1, 1, ASN_INTEGER, 5), SNMP_ERR_WRONGLENGTH);
        EXPECT_EQ(write_long(c.handler, RESERVE1, 1, ASN_INTEGER, 9), SNMP_ERR_WRONGLENGTH);
        EXPECT_EQ(write_long(c.handler, RESERVE1, 1, ASN_OCTET_STR), SNMP_ERR_WRONGTYPE);
    }
}

TEST_F(ScalarWrite, SwitchComplaintsGoToTheTrace) {
    struct Case {
        WriteMethod *handler;
        u_char type;
        size_t len;
        long value;
        int expected;
        const char *trace;
    };
    const Case cases[] = {
        {set_callHomeEnable, ASN_OCTET_STR, 8, 1, SNMP_ERR_WRONGTYPE,
         "write to callHomeEnable not ASN_INTEGER\n"},
        {set_callHomeEnable, ASN_INTEGER, 5, 1, SNMP_ERR_WRONGLENGTH,
         "write to callHomeEnable: bad length\n"},
        {set_MsgThrottlingEnable, ASN_OCTET_STR, 8, 1, SNMP_ERR_WRONGTYPE,
         "set_MsgThrottlingEnable : type not ASN_INTEGER \n"},
        {set_MsgThrottlingEnable, ASN_INTEGER, 5, 1, SNMP_ERR_WRONGLENGTH,
         "set_MsgThrottlingEnable : bad length \n"},
        {set_MsgThrottlingEnable, ASN_INTEGER, 8, 3, SNMP_ERR_WRONGVALUE,
         "set_MsgThrottlingEnable : Wrong value ( shd be true/false) \n"},
    };
    for (const auto &c : cases) {
        platform::clear_trace_history();
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(write_long(c.handler, RESERVE1, c.value, c.type, c.len), c.expected);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
        EXPECT_TRUE(has_trace(c.trace)) << c.trace;
    }
}

TEST_F(ScalarWrite, PriorityTravelsOneLower) {
    for (auto [mib, text] : {std::pair{8L, "7"}, {1L, "0"}, {4L, "3"}}) {
        EXPECT_EQ(write_long(set_callHomeDeviceServicePriority, RESERVE1, mib), 0);
        EXPECT_EQ(write_long(set_callHomeDeviceServicePriority, ACTION, mib), 0);
        const auto &r = channel.last();
        EXPECT_EQ(r.opcode, CALLHOME_INFO_OPC);
        EXPECT_EQ(r.record.size(), 2305u);
        EXPECT_EQ(r.wait, 10);
        const auto info = FakeChannel::as<cmi_callhome_info_t>(r);
        EXPECT_STREQ(info.info_name, "priority");
        EXPECT_STREQ(info.info_value, text);
        EXPECT_TRUE(has_trace(std::string("set_callHomeDeviceServicePriority : switchPriority  "
                                          "being set to ") +
                              text + "\n"));
    }
    for (long bad : {0L, 9L}) {
        EXPECT_EQ(write_long(set_callHomeDeviceServicePriority, RESERVE1, bad),
                  SNMP_ERR_WRONGVALUE);
    }
}

TEST_F(ScalarWrite, IntegerComplaintsGoToStandardError) {
    struct Case {
        WriteMethod *handler;
        u_char good_type;
        const char *object;
    };
    const Case cases[] = {
        {set_callHomeDeviceServicePriority, ASN_INTEGER, "callHomeDeviceServicePriority"},
        {set_callHomeAlertAction, ASN_INTEGER, "callHomeAlertTest"},
        {set_callHomeSmtpServerAddrType, ASN_INTEGER, "callHomeSmtpServerAddrType"},
        {set_callHomeSmtpServerPort, ASN_GAUGE, "callHomeSmtpServerPort"},
    };
    for (const auto &c : cases) {
        const u_char wrong = c.good_type == ASN_INTEGER ? ASN_OCTET_STR : ASN_INTEGER;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(write_long(c.handler, RESERVE1, 1, wrong), SNMP_ERR_WRONGTYPE);
        // The port's message names INTEGER although only Gauge32 passes.
        EXPECT_EQ(::testing::internal::GetCapturedStderr(),
                  std::string("write to ") + c.object + " not ASN_INTEGER\n");
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(write_long(c.handler, RESERVE1, 1, c.good_type, 5), SNMP_ERR_WRONGLENGTH);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(),
                  std::string("write to ") + c.object + ": bad length\n");
    }
    EXPECT_EQ(channel.count(), 0u);
}

TEST_F(ScalarWrite, AlertAction) {
    // 1 is "no action": accepted and never sent.
    EXPECT_EQ(write_long(set_callHomeAlertAction, RESERVE1, 1), 0);
    EXPECT_EQ(write_long(set_callHomeAlertAction, ACTION, 1), 0);
    EXPECT_EQ(channel.count(), 0u);
    for (long bad : {0L, 4L}) {
        EXPECT_EQ(write_long(set_callHomeAlertAction, RESERVE1, bad), SNMP_ERR_WRONGVALUE);
    }

    for (auto [mib, name] : {std::pair{2L, "Test Call Home"}, {3L, "Inventory"}}) {
        platform::clear_errors();
        channel.clear();
        EXPECT_EQ(write_long(set_callHomeAlertAction, ACTION, mib), 0);
        ASSERT_EQ(channel.count(), 1u);
        const auto &r = channel.last();
        EXPECT_EQ(r.opcode, CALLHOME_ALERT_ACTION_OPC);
        EXPECT_EQ(r.wait, 2);
        ASSERT_EQ(r.record.size(), 2116u);
        std::vector<uint8_t> expected(2116, 0);
        memcpy(expected.data(), name, strlen(name));
        EXPECT_EQ(r.record, expected);
        EXPECT_TRUE(has_trace(std::string("set_callHomeAlertAction : callHomeTest  being set to ") +
                              name + "\n"));
        EXPECT_EQ(platform::last_set_error(), std::make_pair(0, 472)); // logged on success too
    }
}

TEST_F(ScalarWrite, AlertActionOutcomes) {
    struct Case {
        int status;
        int err;
        int expected;
        bool logged;
    };
    const Case cases[] = {
        {-1, ETIME, SNMP_ERR_NOERROR, false}, // the wait ran out: the action runs on
        {-1, ECONNREFUSED, SNMP_ERR_GENERR, true},
        {CALLHOME_UNKNOWN_ENTRY, 0, SNMP_ERR_NOSUCHNAME, true},
        {0x403B0040, 0, SNMP_ERR_GENERR, true},
        {CALLHOME_ERR_INVALID_INPUT, 0, SNMP_ERR_GENERR, true},
    };
    for (const auto &c : cases) {
        platform::clear_errors();
        platform::clear_heartbeat_log();
        if (c.status == -1) {
            channel.answer_errno(c.err);
        } else {
            channel.answer_status(c.status);
        }
        EXPECT_EQ(write_long(set_callHomeAlertAction, ACTION, 2), c.expected) << c.status;
        EXPECT_EQ(platform::last_set_error(),
                  c.logged ? std::make_pair(c.status, 472) : std::make_pair(0, 0));
        EXPECT_EQ(platform::last_snmp_error().first, 0); // no error record for the action
        EXPECT_EQ(platform::heartbeat_log(), (std::vector<int>{1, 0}));
    }
}

/* ---- SMTP server ----------------------------------------------------------------------- */

TEST_F(ScalarWrite, SmtpAddressTypeIsStoredInEveryPhase) {
    for (long bad : {0L, 3L, 4L, 15L}) {
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(write_long(set_callHomeSmtpServerAddrType, RESERVE1, bad), SNMP_ERR_BADVALUE);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(callhome_email_conf.address_type, 0u) << "a refused type is not stored";
    }
    EXPECT_EQ(write_long(set_callHomeSmtpServerAddrType, RESERVE1, 16), 0);
    EXPECT_EQ(callhome_email_conf.address_type, 16u);
    callhome_email_conf.address_type = 1; // a read in between
    EXPECT_EQ(write_long(set_callHomeSmtpServerAddrType, RESERVE2, 16), 0);
    EXPECT_EQ(callhome_email_conf.address_type, 16u);
    EXPECT_TRUE(has_trace("R2 - set_callHomeSmtpServerAddrType : Address Type 16\n"));
    EXPECT_EQ(channel.count(), 0u);

    callhome_email_conf.address_type = 1;
    strcpy(callhome_email_conf.smtp_server, "mail.example.com");
    callhome_email_conf.smtp_server_port = 25;
    EXPECT_EQ(write_long(set_callHomeSmtpServerAddrType, ACTION, 16), 0);
    ASSERT_EQ(channel.count(), 1u);
    const auto sent = FakeChannel::as<cmi_email_conf_t>(channel.last());
    EXPECT_EQ(channel.last().opcode, CALLHOME_EMAIL_CONF_OPC);
    EXPECT_EQ(channel.last().wait, 10);
    EXPECT_EQ(sent.address_type, be32(16));
    EXPECT_EQ(sent.smtp_server_port, be32(25));
    EXPECT_STREQ(sent.smtp_server, "mail.example.com");
    EXPECT_TRUE(has_trace("set_callHomeSmtpServerAddrType : Address Type  being set to 16\n"));
}

TEST_F(ScalarWrite, SmtpAddressMustFitTheType) {
    struct Case {
        uint32_t type;
        std::string value;
        int expected_r2;
        const char *stored; // smtp_server after RESERVE2
    };
    const std::string name255(255, 'h');
    const Case cases[] = {
        {1, std::string("\xC0\x00\x02\x0A", 4), 0, "192.0.2.10"},
        {1, std::string(16, '\x01'), SNMP_ERR_WRONGVALUE, "unchanged"},
        {1, "abc", SNMP_ERR_WRONGVALUE, "unchanged"},
        {2, std::string("\x20\x01\x0D\xB8\0\0\0\0\0\0\0\0\0\0\0\x01", 16), 0, "2001:db8::1"},
        {2, std::string("\xC0\x00\x02\x0A", 4), SNMP_ERR_WRONGVALUE, "unchanged"},
        {16, "mail.example.com", 0, "mail.example.com"},
        {16, name255, 0, name255.c_str()},
        {0, "mail.example.com", SNMP_ERR_WRONGVALUE, "unchanged"},
        {3, std::string("\xC0\x00\x02\x0A", 4), SNMP_ERR_WRONGVALUE, "unchanged"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.type) + " / " + std::to_string(c.value.size()));
        strcpy(callhome_email_conf.smtp_server, "unchanged");
        callhome_email_conf.address_type = c.type;
        platform::clear_trace_history();
        EXPECT_EQ(write_text(set_callHomeSmtpServerAddr, RESERVE1, c.value), 0);
        EXPECT_EQ(write_text(set_callHomeSmtpServerAddr, RESERVE2, c.value), c.expected_r2);
        EXPECT_STREQ(callhome_email_conf.smtp_server, c.stored);
        EXPECT_TRUE(has_trace("R2 set_callHomeSmtpServerAddr : SMTP server address type " +
                              std::to_string(c.type) + "\n"));
        if (c.expected_r2 == 0) {
            EXPECT_TRUE(has_trace(
                std::string("set_callHomeSmtpServerAddr : SMTP server address being set to ") +
                c.stored + "\n"));
        }
    }
    EXPECT_EQ(channel.count(), 0u);
}

TEST_F(ScalarWrite, SmtpAddressChecksOfReserve1) {
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(write_text(set_callHomeSmtpServerAddr, RESERVE1, "", ASN_OCTET_STR),
              SNMP_ERR_WRONGLENGTH);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "write to callHomeSmtpServerAddr: bad length\n");
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(write_text(set_callHomeSmtpServerAddr, RESERVE1, std::string(256, 'h')),
              SNMP_ERR_WRONGLENGTH);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "write to callHomeSmtpServerAddr: bad length\n");
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(write_text(set_callHomeSmtpServerAddr, RESERVE1, "x", ASN_IPADDRESS),
              SNMP_ERR_WRONGTYPE);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "write to callHomeSmtpServerAddr not ASN_OCTET_STR\n");
    // No content check before the type is known.
    EXPECT_EQ(write_text(set_callHomeSmtpServerAddr, RESERVE1, " any thing "), 0);
}

TEST_F(ScalarWrite, SmtpAddressActionSendsWhatReserve2Stored) {
    callhome_email_conf.address_type = 1;
    callhome_email_conf.smtp_server_port = 2525;
    const std::string address("\xC0\x00\x02\x0A", 4);
    EXPECT_EQ(write_text(set_callHomeSmtpServerAddr, RESERVE2, address), 0);
    platform::clear_trace_history();
    EXPECT_EQ(write_text(set_callHomeSmtpServerAddr, ACTION, address), 0);
    ASSERT_EQ(channel.count(), 1u);
    const auto sent = FakeChannel::as<cmi_email_conf_t>(channel.last());
    EXPECT_STREQ(sent.smtp_server, "192.0.2.10");
    EXPECT_EQ(sent.address_type, be32(1));
    EXPECT_EQ(sent.smtp_server_port, be32(2525));
    for (const auto &[level, text] : platform::trace_history()) {
        EXPECT_THAT(text, ::testing::Not(HasSubstr("SMTP server address")));
    }
}

// One SET request with the type and the address, in either order: the agent reads each
// variable (refreshing the persistent record) before its RESERVE1, then runs RESERVE2 and
// ACTION for all variables in request order.
TEST_F(ScalarWrite, SmtpTypeAndAddressInOneRequest) {
    const std::string v6("\x20\x01\x0D\xB8\0\0\0\0\0\0\0\0\0\0\0\x01", 16);
    const std::string v4("\xC0\x00\x02\x0A", 4);
    struct Case {
        bool type_first;
        std::string address;
        int expected;
    };
    for (const Case &c :
         {Case{true, v6, 0}, Case{false, v6, 0}, Case{true, v4, SNMP_ERR_WRONGVALUE},
          Case{false, v4, SNMP_ERR_WRONGVALUE}}) {
        SCOPED_TRACE(std::string(c.type_first ? "type first" : "address first") + ", " +
                     std::to_string(c.address.size()) + " bytes");
        channel.clear();
        cmi_email_conf_t stored{};
        strcpy(stored.smtp_server, "192.0.2.1");
        stored.address_type = be32(1);
        stored.smtp_server_port = be32(25);
        auto read = [&](u_char magic) {
            channel.answer(stored);
            struct variable vp {};
            vp.magic = magic;
            memcpy(vp.name, callhome_mib_variables_oid, sizeof callhome_mib_variables_oid);
            vp.name[9] = 1;
            vp.name[10] = 1;
            vp.name[11] = magic == CALLHOMESMTPSERVERADDRTYPE ? 18 : 19;
            vp.namelen = 12;
            oid name[MAX_OID_LEN];
            memcpy(name, vp.name, sizeof(oid) * 12);
            name[12] = 0;
            size_t len = 13, var_len = 0;
            WriteMethod *wm = nullptr;
            get_callhome_mib(&vp, name, &len, 1, &var_len, &wm);
        };
        auto type = [&](int action) {
            return write_long(set_callHomeSmtpServerAddrType, action, 2);
        };
        auto addr = [&](int action) {
            return write_text(set_callHomeSmtpServerAddr, action, c.address);
        };
        int status = 0;
        if (c.type_first) {
            read(CALLHOMESMTPSERVERADDRTYPE);
            EXPECT_EQ(type(RESERVE1), 0);
            read(CALLHOMESMTPSERVERADDR);
            EXPECT_EQ(addr(RESERVE1), 0);
            EXPECT_EQ(type(RESERVE2), 0);
            status = addr(RESERVE2);
        } else {
            read(CALLHOMESMTPSERVERADDR);
            EXPECT_EQ(addr(RESERVE1), 0);
            read(CALLHOMESMTPSERVERADDRTYPE);
            EXPECT_EQ(type(RESERVE1), 0);
            status = addr(RESERVE2);
            EXPECT_EQ(type(RESERVE2), 0);
        }
        EXPECT_EQ(status, c.expected);
        if (status != 0) {
            continue;
        }
        EXPECT_EQ(c.type_first ? type(ACTION) : addr(ACTION), 0);
        EXPECT_EQ(c.type_first ? addr(ACTION) : type(ACTION), 0);
        // Both ACTIONs send the record with the new type and the new address.
        ASSERT_EQ(channel.count(), 4u);
        for (size_t i : {2u, 3u}) {
            const auto sent = FakeChannel::as<cmi_email_conf_t>(channel.at(i));
            EXPECT_EQ(channel.at(i).msg_type, SET_REQ);
            EXPECT_EQ(sent.address_type, be32(2));
            EXPECT_STREQ(sent.smtp_server, "2001:db8::1");
            EXPECT_EQ(sent.smtp_server_port, be32(25));
        }
    }
}

TEST_F(ScalarWrite, SmtpPort) {
    for (long bad : {0L, 65536L}) {
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(write_long(set_callHomeSmtpServerPort, RESERVE1, bad, ASN_GAUGE),
                  SNMP_ERR_WRONGVALUE);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    }
    for (long good : {1L, 25L, 65535L}) {
        EXPECT_EQ(write_long(set_callHomeSmtpServerPort, RESERVE1, good, ASN_GAUGE), 0);
    }
    strcpy(callhome_email_conf.from_email_addr, "from@example.com");
    callhome_email_conf.address_type = 16;
    EXPECT_EQ(write_long(set_callHomeSmtpServerPort, ACTION, 587, ASN_GAUGE), 0);
    const auto sent = FakeChannel::as<cmi_email_conf_t>(channel.last());
    EXPECT_EQ(sent.smtp_server_port, be32(587));
    EXPECT_EQ(sent.address_type, be32(16));
    EXPECT_STREQ(sent.from_email_addr, "from@example.com");
    EXPECT_EQ(callhome_email_conf.smtp_server_port, 587u);
    EXPECT_TRUE(has_trace("set_callHomeSmtpServerPort : SMTP port  being set to 587\n"));
}

/* ---- Periodic inventory ---------------------------------------------------------------- */

callhome_periodic_inventory_t periodic(uint32_t enable, uint32_t days, uint32_t minutes) {
    callhome_periodic_inventory_t r{};
    r.enable = be32(enable);
    r.time_frame = be32(days);
    r.time_of_day = be32(minutes);
    return r;
}

std::vector<uint8_t> periodic_bytes(uint32_t enable, uint32_t days, uint32_t minutes) {
    const auto r = periodic(enable, days, minutes);
    const auto *p = reinterpret_cast<const uint8_t *>(&r);
    return {p, p + sizeof r};
}

TEST_F(ScalarWrite, PeriodicChecksOfReserve1) {
    struct Case {
        WriteMethod *handler;
        u_char type;
        size_t len;
        long value;
        int expected;
        const char *trace; // null: accepted
    };
    const Case cases[] = {
        {set_PeriodicSwInventoryMsgEnable, ASN_GAUGE, 8, 1, SNMP_ERR_WRONGTYPE,
         "set_PeriodicSwInventoryMsgEnable : type not ASN_INTEGER \n"},
        {set_PeriodicSwInventoryMsgEnable, ASN_INTEGER, 5, 1, SNMP_ERR_WRONGLENGTH,
         "set_PeriodicSwInventoryMsgEnable : bad length \n"},
        {set_PeriodicSwInventoryMsgEnable, ASN_INTEGER, 8, 0, SNMP_ERR_WRONGVALUE,
         "set_PeriodicSwInventoryMsgEnable : Wrong value ( shd be true/false) \n"},
        {set_PeriodicSwInventoryMsgEnable, ASN_INTEGER, 8, 2, 0, nullptr},
        {set_PeriodicSwInventoryTimeFrame, ASN_INTEGER, 8, 7, SNMP_ERR_WRONGTYPE,
         "set_PeriodicSwInventoryTimeFrame : type not ASN_INTEGER \n"},
        {set_PeriodicSwInventoryTimeFrame, ASN_GAUGE, 5, 7, SNMP_ERR_WRONGLENGTH,
         "set_PeriodicSwInventoryTimeFrame : bad length \n"},
        {set_PeriodicSwInventoryTimeFrame, ASN_GAUGE, 8, 0, SNMP_ERR_WRONGVALUE,
         "set_PeriodicSwInventoryTimeFrame : Wrong value ( shd be 1 ...30) \n"},
        {set_PeriodicSwInventoryTimeFrame, ASN_GAUGE, 8, 31, SNMP_ERR_WRONGVALUE,
         "set_PeriodicSwInventoryTimeFrame : Wrong value ( shd be 1 ...30) \n"},
        {set_PeriodicSwInventoryTimeFrame, ASN_GAUGE, 8, 30, 0, nullptr},
        {set_PeriodicSwInventoryTimeFrame, ASN_GAUGE, 8, 1, 0, nullptr},
    };
    for (const auto &c : cases) {
        platform::clear_trace_history();
        EXPECT_EQ(write_long(c.handler, RESERVE1, c.value, c.type, c.len), c.expected) << c.value;
        if (c.trace != nullptr) {
            EXPECT_TRUE(has_trace(c.trace)) << c.trace;
        }
    }
    EXPECT_EQ(channel.count(), 0u);
}

TEST_F(ScalarWrite, PeriodicWritesKeepTheOtherFields) {
    struct Case {
        const char *what;
        WriteMethod *handler;
        std::function<int(WriteMethod *)> write;
        std::vector<uint8_t> expected; // the record sent
    };
    // The service has: enabled, 14 days, 10:05.
    const Case cases[] = {
        {"time frame", set_PeriodicSwInventoryTimeFrame,
         [](WriteMethod *h) { return write_long(h, ACTION, 30, ASN_GAUGE); },
         periodic_bytes(1, 30, 605)},
        {"enable off", set_PeriodicSwInventoryMsgEnable,
         [](WriteMethod *h) { return write_long(h, ACTION, 2); }, periodic_bytes(0, 14, 605)},
        {"time of day", set_PeriodicSwInventoryTimeOfDay,
         [](WriteMethod *h) { return write_text(h, ACTION, "23:59"); },
         periodic_bytes(1, 14, 1439)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        channel.clear();
        channel.serve_with([](const FakeChannel::Request &r) {
            FakeChannel::Reply reply;
            if (r.msg_type != SET_REQ) {
                const auto rec = periodic(1, 14, 605);
                const auto *p = reinterpret_cast<const uint8_t *>(&rec);
                reply.has_record = true;
                reply.record.assign(p, p + sizeof rec);
            }
            return reply;
        });
        EXPECT_EQ(c.write(c.handler), 0);
        ASSERT_EQ(channel.count(), 3u); // two reads, then the write
        for (size_t i : {0u, 1u}) {
            EXPECT_EQ(channel.at(i).opcode, CALLHOME_PERIODIC_INVENTORY_OPC);
            EXPECT_EQ(channel.at(i).msg_type, GET_REQ);
            EXPECT_EQ(channel.at(i).record, std::vector<uint8_t>(13, 0));
        }
        const auto &set = channel.at(2);
        EXPECT_EQ(set.opcode, CALLHOME_PERIODIC_INVENTORY_OPC);
        EXPECT_EQ(set.msg_type, SET_REQ);
        EXPECT_EQ(set.wait, 10);
        EXPECT_FALSE(set.wants_record);
        EXPECT_EQ(set.record, c.expected);
    }
}

TEST_F(ScalarWrite, PeriodicEnableFromTheCurrentTruthValue) {
    // The service has the feature off: a new time frame keeps it off.
    channel.answer(periodic(0, 7, 480));
    channel.answer(periodic(0, 7, 480));
    EXPECT_EQ(write_long(set_PeriodicSwInventoryTimeFrame, ACTION, 3, ASN_GAUGE), 0);
    EXPECT_EQ(channel.last().record, periodic_bytes(0, 3, 480));
    EXPECT_TRUE(has_trace(
        "set_PeriodicSwInventoryTimeFrame : PeriodicSwInventoryTimeFrame being set to 3\n"));
}

TEST_F(ScalarWrite, PeriodicWriteSendsFailedReadsAsTheyCame) {
    // A distribution read that fails gives -1, which is not checked.
    platform::set_distribution(true, 1);
    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    EXPECT_EQ(write_long(set_PeriodicSwInventoryMsgEnable, ACTION, 1), 0);
    ASSERT_EQ(channel.count(), 3u);
    EXPECT_EQ(channel.at(0).msg_type, VELD_GET_REQ);
    EXPECT_EQ(channel.last().record, periodic_bytes(1, 0xFFFFFFFF, 0xFFFFFFFF));

    // Plain reads that fail give the defaults.
    channel.clear();
    platform::set_distribution(false, 0);
    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    channel.answer_status(CALLHOME_UNKNOWN_ENTRY);
    EXPECT_EQ(write_text(set_PeriodicSwInventoryTimeOfDay, ACTION, "00:00"), 0);
    EXPECT_EQ(channel.last().record, periodic_bytes(1, 7, 0));
}

TEST_F(ScalarWrite, TimeOfDayIsCheckedInAction) {
    struct Case {
        std::string value;
        int minutes; // -1: wrongValue
        const char *trace;
    };
    const Case cases[] = {
        {"23:59", 1439, nullptr},
        {"00:00", 0, nullptr},
        {"09:5", 545, nullptr},
        {"12:30", 750, nullptr},
        {"24:00", -1, "out of range error"},
        {"12:60", -1, "out of range error"},
        {"-1:30", -1, "out of range error"},
        {"9:30", -1, "bad format (should be in HH:MM)"},
        {"0930", -1, "bad format (should be in HH:MM)"},
        {"12:", -1, "bad format (should be in HH:MM)"},
        {"12:ab", -1, "bad format (should be in HH:MM)"},
        {"ab:12", -1, "bad format (should be in HH:MM)"},
        {"", -1, "bad format (should be in HH:MM)"},
    };
    const std::string handler = "set_PeriodicSwInventoryTimeOfDay";
    for (const auto &c : cases) {
        SCOPED_TRACE("'" + c.value + "'");
        channel.clear();
        platform::clear_trace_history();
        EXPECT_EQ(write_text(set_PeriodicSwInventoryTimeOfDay, RESERVE1, c.value), 0);
        EXPECT_TRUE(has_trace(handler + " : in RESERVE1 \n"));
        channel.answer(periodic(1, 7, 480));
        channel.answer(periodic(1, 7, 480));
        const int status = write_text(set_PeriodicSwInventoryTimeOfDay, ACTION, c.value);
        EXPECT_TRUE(has_trace(handler + " : IN ACTION SWITCH CASE \n"));
        EXPECT_TRUE(has_trace(handler +
                              " : in set_PeriodicSwInventoryTimeOfDay function and the string "
                              "is: " +
                              c.value + " \n"));
        if (c.minutes < 0) {
            EXPECT_EQ(status, SNMP_ERR_WRONGVALUE);
            EXPECT_EQ(channel.count(), 0u);
            EXPECT_TRUE(has_trace(handler + " : " + c.trace + " \n"));
            continue;
        }
        EXPECT_EQ(status, 0);
        ASSERT_EQ(channel.count(), 3u);
        EXPECT_EQ(channel.last().record, periodic_bytes(1, 7, c.minutes));
        EXPECT_TRUE(has_trace(handler + " : PeriodicSwInventoryTimeFrame being set to " +
                              std::to_string(c.minutes) + "\n"));
    }
}

TEST_F(ScalarWrite, TimeOfDayChecksOfReserve1) {
    const std::string handler = "set_PeriodicSwInventoryTimeOfDay";
    platform::clear_trace_history();
    EXPECT_EQ(write_text(set_PeriodicSwInventoryTimeOfDay, RESERVE1, "12:300"),
              SNMP_ERR_WRONGLENGTH);
    EXPECT_TRUE(has_trace(handler + " : bad length \n"));
    EXPECT_EQ(write_text(set_PeriodicSwInventoryTimeOfDay, RESERVE1, "12:30", ASN_INTEGER),
              SNMP_ERR_WRONGTYPE);
    EXPECT_TRUE(has_trace(handler + " : type not ASN_INTEGER \n"));
    EXPECT_EQ(channel.count(), 0u);
}

} // namespace
