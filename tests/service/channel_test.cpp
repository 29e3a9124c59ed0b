// The service's answers on the request channel, hosted in-process.
#include <gtest/gtest.h>

#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "callhome/service.hpp"
#include "json.hpp"
#include "records.hpp"

using namespace svc_test;

namespace {

constexpr int kInvalid = CALLHOME_ERR_INVALID_INPUT, kUnknown = CALLHOME_UNKNOWN_ENTRY,
              kEnd = CALLHOME_END_OF_TABLE;
constexpr int kInfo = CALLHOME_INFO_OPC, kMail = CALLHOME_EMAIL_CONF_OPC,
              kEnable = CALLHOME_ENABLE_OPC, kThrottle = CALLHOME_MSG_THROTTLING_OPC,
              kPeriodic = CALLHOME_PERIODIC_INVENTORY_OPC, kStatus = CALLHOME_STATUS_OPC,
              kAction = CALLHOME_ALERT_ACTION_OPC, kProfile = CALLHOME_DEST_PROFILE_OPC,
              kAddr = CALLHOME_DEST_EMAIL_OPC, kType = CALLHOME_ALERTGROUP_TYPE_OPC,
              kGroup = CALLHOME_PROFILE_ALERTGROUP_OPC, kCmd = CALLHOME_USER_DEF_CMD_OPC;
const Strings kTypes = {"1:Configuration", "2:Diagnostic", "3:Environmental", "4:Inventory",
                        "5:Syslog",        "6:System",     "7:Test"};

class Channel : public ::testing::Test {
  protected:
    platform::CmiReply call(int op, int type, const Bytes &rec) {
        return svc.handle(request(op, type, rec));
    }
    int status(int op, int type, const Bytes &rec) { return call(op, type, rec).status; }
    void set(int op, const Bytes &rec) { ASSERT_EQ(0, status(op, SET_REQ, rec)) << op; }
    std::string dump() { return svc.admin({"dump"}).second; }
    callhome_status_t state() {
        return record_of<callhome_status_t>(call(kStatus, GET_REQ, {}).record);
    }
    void enable() {
        set(kInfo, info_rec("sysContactEmail", "ops@example.com"));
        set(kInfo, info_rec("sysContactPhoneNumber", "+1 800-555"));
        set(kInfo, info_rec("sysStreetAddress", "1 Main Street"));
        set(kEnable, switch_rec(1));
    }
    // Every row after `key` by GETNEXT, each shown by `show`, up to the end of the table.
    template <class R> Strings walk(int op, Bytes key, std::function<std::string(const R &)> show) {
        Strings out;
        for (int guard = 0; guard < 100; ++guard) {
            auto r = call(op, GETNEXT_REQ, key);
            if (r.status != 0) {
                EXPECT_EQ(kEnd, r.status);
                break;
            }
            out.push_back(show(record_of<R>(r.record)));
            key = r.record;
        }
        return out;
    }
    Strings profiles(const std::string &from = "") {
        return walk<callHomeDestProfileEntry>(
            kProfile, profile_rec(from), [](auto &r) { return text(r.destination_profile_id); });
    }
    Strings emails(const std::string &profile = "", int32_t idx = 0) {
        return walk<callHomeDestEmailAddressEntry>(
            kAddr, dest_email_rec(profile, idx), [](auto &r) {
                return text(r.destination_profile_id) + "/" + std::to_string(be(r.index)) + "=" +
                       text(r.email_addr);
            });
    }
    Strings groups(const std::string &profile = "", const std::string &group = "") {
        return walk<callHomeAlertGroupEntry>(
            kGroup, profile_group_rec(profile, group),
            [](auto &r) { return text(r.destination_profile_id) + "/" + text(r.alert_group); });
    }
    Strings types() {
        return walk<callhome_alertgroup_type_t>(kType, group_type_rec(0), [](auto &r) {
            return std::to_string(be(r.index)) + ":" + text(r.grp_name);
        });
    }
    Strings cmds(const std::string &type = "", int32_t idx = 0) {
        return walk<cmi_userdef_cli_cmd_t>(kCmd, user_cmd_rec(type, idx), [](auto &r) {
            return text(r.alertgroup_type) + "/" + std::to_string(be(r.index)) + "=" +
                   text(r.cli_cmd);
        });
    }

    static size_t count(const std::string &hay, const std::string &needle) {
        size_t n = 0;
        for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) {
            ++n;
        }
        return n;
    }

    callhome::Service svc{":memory:"};
};

TEST_F(Channel, FirstStartDefaults) {
    EXPECT_EQ(switch_rec(0), call(kEnable, GET_REQ, switch_rec(0)).record);
    EXPECT_EQ(switch_rec(1), call(kThrottle, GET_REQ, switch_rec(0)).record);
    EXPECT_EQ(periodic_rec(1, 7, 480), call(kPeriodic, GET_REQ, periodic_rec(0, 0, 0)).record);
    EXPECT_EQ(email_conf_rec("", "", "", "", 16, 25), call(kMail, GET_REQ, Bytes()).record);
    auto st = call(kStatus, GET_REQ, Bytes(sizeof(callhome_status_t)));
    ASSERT_EQ(0, st.status);
    ASSERT_EQ(sizeof(callhome_status_t), st.record.size());
    auto s = record_of<callhome_status_t>(st.record);
    EXPECT_EQ(2u, be(s.callhome_message_status));
    EXPECT_EQ(0u, be(s.num_alerts_sent) + be(s.last_alert_sent.tv_sec) + be(s.callhome_error_code));
    EXPECT_EQ((Strings{"xml", "full_txt", "short_txt"}), profiles());
    for (auto [name, format, size] :
         {std::tuple<const char *, int32_t, uint32_t>{"full_txt", 1, 500000},
          {"xml", 2, 500000},
          {"short_txt", 3, 4000}}) {
        auto p =
            record_of<callHomeDestProfileEntry>(call(kProfile, GET_REQ, profile_rec(name)).record);
        EXPECT_EQ(text(p.destination_profile_id), name);
        EXPECT_EQ(format, be(p.format_method)) << name;
        EXPECT_EQ(size, be(p.maximum_message_size)) << name;
        EXPECT_EQ(std::make_pair(1, 1), std::make_pair(be(p.transport_method), be(p.row_status)));
        EXPECT_EQ(0, p.msg_level);
    }
    EXPECT_EQ(kTypes, types());
}

// Every refusal answers its own status, hands out no record and changes nothing.
TEST_F(Channel, RefusalsAnswerTheirStatusAndChangeNothing) {
    set(kProfile, profile_rec("p"));
    set(kAddr, dest_email_rec("p", 1, "a@example.com"));
    set(kGroup, profile_group_rec("full_txt", "all"));
    const auto mail = [](const char *host, uint32_t type, uint32_t port) {
        return email_conf_rec("", "", "", host, type, port);
    };
    const auto info = [](const char *value) { return info_rec("sysContactEmail", value); };
    const std::string before = dump();
    const auto refused = [&](int op, int type, int expected, const std::vector<Bytes> &recs) {
        for (size_t i = 0; i < recs.size(); ++i) {
            auto r = call(op, type, recs[i]);
            EXPECT_EQ(expected, r.status) << op << "/" << type << " #" << i;
            EXPECT_FALSE(r.has_record) << op << "/" << type << " #" << i;
            EXPECT_EQ(before, dump()) << op << "/" << type << " #" << i;
        }
    };
    // Unknown opcode or message type, wrong record length, an operation the table lacks.
    refused(2158, GET_REQ, kInvalid, {switch_rec(0)});
    refused(kEnable, 0, kInvalid, {switch_rec(1)});
    refused(kEnable, 7, kInvalid, {switch_rec(1)});
    refused(kInfo, GET_REQ, kInvalid, {Bytes(2306)});
    refused(kInfo, GETNEXT_REQ, kInvalid, {info_rec("custId")});
    refused(kStatus, GET_REQ, kInvalid, {Bytes(2067)});
    refused(kAction, GET_REQ, kInvalid, {action_rec("Inventory")});
    refused(kProfile, GETNEXT_REQ, kInvalid, {Bytes(52)});
    refused(kAddr, DELETE_REQ, kInvalid, {Bytes(296)});
    refused(kType, SET_REQ, kInvalid, {group_type_rec(9)});
    refused(kType, DELETE_REQ, kInvalid, {group_type_rec(1)});
    refused(kType, GET_REQ, kInvalid, {Bytes(259)});
    refused(kGroup, SET_REQ, kInvalid, {Bytes(300)});
    refused(kCmd, SET_REQ, kInvalid, {Bytes(866)});
    refused(kMail, SET_REQ, kInvalid, {Bytes(1032)});
    refused(kEnable, SET_REQ, kInvalid, {Bytes(), switch_rec(1)}); // on without the contact
    refused(kThrottle, SET_REQ, kInvalid, {Bytes(6)});
    refused(kStatus, SET_REQ, kInvalid, {Bytes(sizeof(callhome_status_t))});
    refused(kAction, SET_REQ, kInvalid, {action_rec("Test Call Home")}); // while off
    // Bad addresses and priorities, unknown names, text that is not clean UTF-8; a name
    // that fills its whole field has no terminator: it is no known name.
    refused(kInfo, SET_REQ, kInvalid,
            {Bytes(2304), info("not-an-address"), info("two@@example.com"), info("a b@x.com"),
             info("ops@-bad-.com"), info_rec("priority", "8"), info_rec("priority", "07"),
             info_rec("priority", "x"), info_rec("unknownName", "x"),
             info_rec("siteId", "tab\there"), info_rec("siteId", "caf\xe9"),
             info_rec("custId", "\xc0\xaf"), info_rec("custId", "\xed\xa0\x80"),
             info_rec("custId", "ab\xe2\x82"), info_rec("custId" + std::string(250, 'x'), "v")});
    refused(kMail, SET_REQ, kInvalid,
            {email_conf_rec("nobody", "", "", "", 16, 25), email_conf_rec("", "x@", "", "", 16, 25),
             email_conf_rec("", "", "@x.com", "", 16, 25), mail("192.0.2.1", 2, 25),
             mail("192.0.2.256", 1, 25), mail("mail.example.com", 1, 25),
             mail("mail_server!", 16, 25), mail("", 3, 25), mail("", 0, 25), mail("", 16, 0),
             mail("", 16, 65536)});
    refused(kPeriodic, SET_REQ, kInvalid,
            {Bytes(12), periodic_rec(1, 0, 480), periodic_rec(1, 31, 480), periodic_rec(1, 7, 1440),
             periodic_rec(2, 7, 480)});
    // Names: 32 bytes, empty, edge blanks, control characters, not UTF-8; formats,
    // transports, sizes and levels out of range.
    refused(kProfile, SET_REQ, kInvalid,
            {Bytes(50), profile_rec(std::string(32, 'q')), profile_rec(""), profile_rec(" p"),
             profile_rec("p "), profile_rec("p\nq"), profile_rec("p\xff"), profile_rec("f", 0),
             profile_rec("f", 4), profile_rec("t", 1, 0, 2), profile_rec("s", 1, 1000001),
             profile_rec("l", 1, 0, 1, 10), profile_rec("l", 1, 0, 1, -1)});
    refused(kProfile, DELETE_REQ, CALLHOME_ERR_BUILTIN_PROFILE,
            {profile_rec("full_txt"), profile_rec("short_txt"), profile_rec("xml")});
    refused(kProfile, DELETE_REQ, kUnknown, {profile_rec("ghost")});
    refused(kAddr, SET_REQ, kUnknown, {dest_email_rec("zz", 1, "a@x.com")});
    refused(kAddr, SET_REQ, kInvalid,
            {dest_email_rec("p", 0, "a@example.com"), dest_email_rec("p", -1, "a@example.com"),
             dest_email_rec("p", 2, "nobody"), dest_email_rec("p", 2, "")});
    refused(kAddr, DELETE_REQ, kUnknown, {dest_email_rec("p", 2), dest_email_rec("zz", 1)});
    refused(kGroup, SET_REQ, kUnknown, {profile_group_rec("zz", "Test")});
    // Unknown group, case matters, a single group beside "all".
    refused(kGroup, SET_REQ, kInvalid,
            {profile_group_rec("p", "Nope"), profile_group_rec("p", "ALL"),
             profile_group_rec("full_txt", "Test")});
    refused(kGroup, DELETE_REQ, kUnknown,
            {profile_group_rec("p", "Test"), profile_group_rec("zz", "Test")});
    refused(kCmd, SET_REQ, kUnknown, {user_cmd_rec("Nope", 1, "x")});
    refused(kCmd, SET_REQ, kInvalid,
            {user_cmd_rec("Test", 0, "x"), user_cmd_rec("Test", 6, "x"),
             user_cmd_rec("Test", 1, ""), user_cmd_rec("Test", 1, std::string(600, 'c'))});
    refused(kCmd, DELETE_REQ, kUnknown, {user_cmd_rec("Test", 1), user_cmd_rec("Nope", 1)});
}

TEST_F(Channel, AcceptedWritesReadBackAsSent) {
    const std::pair<int, std::vector<Bytes>> writes[] = {
        {kInfo,
         {info_rec("custId", "C-42"), info_rec("contractId", "K 7"),
          info_rec("siteId", "Zürich \xe2\x82\xac \xf0\x9f\x93\x9e"),
          info_rec("sysStreetAddress", "1 Main Street"),
          info_rec("sysContactPhoneNumber", "+1 800-555"),
          info_rec("sysContactEmail", "ops@example.com"), info_rec("priority", "0"),
          info_rec("priority", "7")}},
        {kEnable, {switch_rec(1), switch_rec(0)}}, // the contact is complete now
        {kThrottle, {switch_rec(0)}},
        {kPeriodic, {periodic_rec(0, 1, 0), periodic_rec(1, 30, 1439)}},
        {kMail,
         {email_conf_rec("a@b.c", "r@b.c", "", "192.0.2.1", 1, 587),
          email_conf_rec("", "", "n@b.c", "2001:db8::1", 2, 1),
          email_conf_rec("", "", "", "mail.example.com", 16, 65535),
          email_conf_rec("", "", "", "", 16, 25)}},
    };
    for (const auto &[op, recs] : writes) {
        for (const Bytes &rec : recs) {
            auto r = call(op, SET_REQ, rec);
            EXPECT_EQ(0, r.status) << op;
            EXPECT_FALSE(r.has_record) << op;
            EXPECT_EQ(rec, call(op, GET_REQ, rec).record) << op;
        }
    }
    EXPECT_EQ(switch_rec(0), call(kEnable, VELD_GET_REQ, Bytes()).record);
    EXPECT_EQ(kUnknown, status(kInfo, GET_REQ, info_rec("unknownName")));
    // A value without terminator is cut at its field.
    set(kInfo, info_rec("siteId", std::string(2049, 's')));
    EXPECT_EQ(info_rec("siteId", std::string(2048, 's')),
              call(kInfo, GET_REQ, info_rec("siteId")).record);
}

TEST_F(Channel, InfoStartsUnsetAndSwitchingOnNeedsTheWholeContact) {
    EXPECT_EQ(kUnknown, status(kInfo, GET_REQ, info_rec("custId")));
    const char *needed[] = {"sysContactEmail", "sysContactPhoneNumber", "sysStreetAddress"};
    for (const char *name : needed) {
        EXPECT_EQ(kInvalid, status(kEnable, SET_REQ, switch_rec(1))) << name;
        set(kInfo, info_rec(name, "ops@example.com"));
    }
    EXPECT_EQ(0, status(kEnable, SET_REQ, switch_rec(1)));
}

TEST_F(Channel, ProfilesWalkInOidOrderFromAnyKey) {
    for (const char *n : {"b", "a b", "B", "ab", "\xc3\xa9t\xc3\xa9", "a"}) {
        set(kProfile, profile_rec(n));
    }
    // The row index is the name's length, then its bytes: shorter names first, names of one
    // length by unsigned bytes.
    const Strings tail = {"xml", "\xc3\xa9t\xc3\xa9", "full_txt", "short_txt"};
    EXPECT_EQ((Strings{"B", "a", "b", "ab", "a b", tail[0], tail[1], tail[2], tail[3]}),
              profiles());
    // GETNEXT is strictly after the key, also for keys that name no row.
    EXPECT_EQ(tail, profiles("a b"));
    EXPECT_EQ((Strings{"ab", "a b", tail[0], tail[1], tail[2], tail[3]}), profiles("c"));
    // A truncated index arrives filled with 0xFF: it sorts after every name of its length.
    EXPECT_EQ(Strings(tail.begin() + 1, tail.end()), profiles("a\xff\xff\xff"));
    EXPECT_EQ(Strings(tail.begin() + 2, tail.end()), profiles("\xff\xff\xff\xff\xff"));
    // A key that fills the whole field (no NUL) is read within the field.
    EXPECT_EQ(Strings{}, profiles(std::string(32, '\xff')));
    EXPECT_EQ(kUnknown, status(kProfile, GET_REQ, profile_rec("")));
    EXPECT_EQ(kUnknown, status(kProfile, GET_REQ, profile_rec("A")));
    // Distribution reads are answered like plain reads.
    auto r = call(kProfile, VELD_GETNEXT_REQ, profile_rec(""));
    ASSERT_EQ(0, r.status);
    EXPECT_EQ("B", text(record_of<callHomeDestProfileEntry>(r.record).destination_profile_id));
}

TEST_F(Channel, ProfileLimitsAndReplacement) {
    set(kProfile, profile_rec(std::string(31, 'p'), 3, 1000000, 1, 9));
    auto p = record_of<callHomeDestProfileEntry>(
        call(kProfile, GET_REQ, profile_rec(std::string(31, 'p'))).record);
    EXPECT_EQ(3, be(p.format_method));
    EXPECT_EQ(1000000u, be(p.maximum_message_size));
    EXPECT_EQ(9, p.msg_level);
    EXPECT_EQ(1, be(p.row_status)); // stored active whatever was sent
    set(kProfile, profile_rec("p q"));
    for (int i = 0; i < 45; ++i) {
        set(kProfile, profile_rec("p" + std::to_string(i)));
    }
    EXPECT_EQ(kInvalid, status(kProfile, SET_REQ, profile_rec("one-more"))); // the 51st
    set(kProfile, profile_rec("p3", 2)); // replacing an existing row is no new row
    EXPECT_EQ(0, status(kProfile, DELETE_REQ, profile_rec("p0")));
    set(kProfile, profile_rec("one-more"));
    EXPECT_EQ(0, status(kProfile, DELETE_REQ, profile_rec("one-more")));
    // A longer name that starts like a built-in is an ordinary profile.
    set(kProfile, profile_rec("xml2"));
    EXPECT_EQ(kInvalid, status(kProfile, SET_REQ, profile_rec("xml3")));
    EXPECT_EQ(0, status(kProfile, DELETE_REQ, profile_rec("xml2")));
}

TEST_F(Channel, DeletingAProfileCascadesAndReplacingKeepsItsRows) {
    set(kProfile, profile_rec("p"));
    set(kProfile, profile_rec("q"));
    set(kAddr, dest_email_rec("p", 1, "a@example.com"));
    set(kAddr, dest_email_rec("p", 2, "b@example.com"));
    set(kAddr, dest_email_rec("q", 1, "c@example.com"));
    set(kGroup, profile_group_rec("p", "Test"));
    set(kGroup, profile_group_rec("q", "System"));
    ASSERT_EQ(0, status(kProfile, DELETE_REQ, profile_rec("p")));
    EXPECT_EQ(Strings{"q/1=c@example.com"}, emails());
    EXPECT_EQ(Strings{"q/System"}, groups());
    set(kProfile, profile_rec("p")); // re-created under the same name, it starts empty
    EXPECT_EQ(kUnknown, status(kAddr, GET_REQ, dest_email_rec("p", 1)));
    set(kProfile, profile_rec("q", 2));
    EXPECT_EQ(Strings{"q/1=c@example.com"}, emails());
    EXPECT_EQ(Strings{"q/System"}, groups());
    ASSERT_EQ(0, status(kAddr, DELETE_REQ, dest_email_rec("q", 1)));
    EXPECT_EQ(Strings{}, emails());
}

// Created again by the request that deleted it (its UNDO), a profile comes back with its
// addresses and groups; created by another request, or with no request named, it starts empty.
TEST_F(Channel, ProfileCreatedAgainByTheRequestThatDeletedIt) {
    auto in = [&](uint32_t session, int type) {
        auto r = request(kProfile, type, profile_rec("p"));
        r.session = session;
        return svc.handle(r).status;
    };
    const Strings rows = {"p/1=a@example.com"};
    for (const auto &[deleting, creating, kept] :
         {std::tuple{6u, 6u, true}, {6u, 7u, false}, {0u, 0u, false}}) {
        set(kProfile, profile_rec("p"));
        set(kAddr, dest_email_rec("p", 1, "a@example.com"));
        set(kGroup, profile_group_rec("p", "Test"));
        ASSERT_EQ(0, in(deleting, DELETE_REQ));
        ASSERT_EQ(0, in(creating, SET_REQ));
        EXPECT_EQ(kept ? rows : Strings{}, emails()) << deleting << " " << creating;
        EXPECT_EQ(kept ? Strings{"p/Test"} : Strings{}, groups()) << deleting << " " << creating;
        ASSERT_EQ(0, in(creating, DELETE_REQ));
    }
}

TEST_F(Channel, EmailAddressesWalkByProfileThenIndex) {
    set(kProfile, profile_rec("p"));
    set(kProfile, profile_rec("q"));
    set(kAddr, dest_email_rec("q", 1, "q1@example.com"));
    set(kAddr, dest_email_rec("p", 10, "p10@example.com"));
    set(kAddr, dest_email_rec("p", 2, "p2@example.com"));
    const Strings all = {"p/2=p2@example.com", "p/10=p10@example.com", "q/1=q1@example.com"};
    EXPECT_EQ(all, emails());
    EXPECT_EQ(Strings(all.begin() + 1, all.end()), emails("p", 2));
    EXPECT_EQ(Strings{all[2]}, emails("p", 10));
    EXPECT_EQ(Strings{}, emails("p\xff\xff", 0)); // longer than every name here
    EXPECT_EQ(Strings{}, emails("q", 1));
    EXPECT_EQ(Strings{}, emails(std::string(32, '\xff'), 0));
    auto e = record_of<callHomeDestEmailAddressEntry>(
        call(kAddr, GET_REQ, dest_email_rec("p", 10)).record);
    EXPECT_EQ("p10@example.com", text(e.email_addr));
    EXPECT_EQ(1, be(e.row_status));
    EXPECT_EQ(kUnknown, status(kAddr, GET_REQ, dest_email_rec("p", 3)));
    EXPECT_EQ(kUnknown, status(kAddr, GET_REQ, dest_email_rec("zz", 1)));
}

TEST_F(Channel, TypesAreReadOnlyAndAdminChangesTakeTheLowestFreeIndexAndNotify) {
    EXPECT_EQ(kUnknown, status(kType, GET_REQ, group_type_rec(0)));
    EXPECT_EQ(kUnknown, status(kType, GET_REQ, group_type_rec(8)));
    EXPECT_EQ(kEnd, status(kType, GETNEXT_REQ, group_type_rec(7)));
    EXPECT_EQ(kEnd, status(kType, GETNEXT_REQ, group_type_rec(0xFFFFFFFF)));
    std::vector<std::pair<int32_t, Bytes>> seen;
    svc.set_notifier([&](int32_t id, const Bytes &p) { seen.emplace_back(id, p); });
    set(kGroup, profile_group_rec("full_txt", "Syslog"));
    set(kCmd, user_cmd_rec("Syslog", 1, "show log"));
    set(kCmd, user_cmd_rec("Test", 1, "show ver"));
    EXPECT_EQ(0, svc.admin({"group", "del", "Syslog"}).first);
    EXPECT_EQ(Strings{}, groups());
    EXPECT_EQ(Strings{"Test/1=show ver"}, cmds());
    EXPECT_EQ(0, svc.admin({"group", "add", "Power"}).first);
    EXPECT_EQ(0, svc.admin({"group", "add", "Fans"}).first);
    Strings now = kTypes;
    now[4] = "5:Power";
    now.push_back("8:Fans");
    EXPECT_EQ(now, types());
    EXPECT_EQ("Fans", text(record_of<callhome_alertgroup_type_t>(
                               call(kType, GET_REQ, group_type_rec(8)).record)
                               .grp_name));
    auto payload = [](uint8_t idx, const std::string &name) {
        const std::string p = std::string(3, '\0') + char(idx) + name + '\0';
        return Bytes(p.begin(), p.end());
    };
    const std::vector<std::pair<int32_t, Bytes>> expected = {
        {CALLHOME_ALERTGROUP_DELETED_NOTIF, payload(5, "Syslog")},
        {CALLHOME_ALERTGROUP_ADDED_NOTIF, payload(5, "Power")},
        {CALLHOME_ALERTGROUP_ADDED_NOTIF, payload(8, "Fans")}};
    EXPECT_EQ(expected, seen);
    // Refusals: exit status 1, nothing changes, nothing is announced.
    const std::string before = dump();
    for (const Strings &cmd : {Strings{"group", "add", "Fans"}, Strings{"group", "del", "Nope"},
                               Strings{"group", "add", "all"}, Strings{"group", "add", ""}}) {
        EXPECT_EQ(1, svc.admin(cmd).first) << cmd[1] << " " << cmd[2];
    }
    EXPECT_EQ(before, dump());
    EXPECT_EQ(3u, seen.size());
    for (int i = 9; i <= 63; ++i) {
        ASSERT_EQ(0, svc.admin({"group", "add", "T" + std::to_string(i)}).first) << i;
    }
    auto r = svc.admin({"group", "add", "T64"});
    EXPECT_EQ(1, r.first);
    EXPECT_NE(std::string::npos, r.second.find("63"));
    EXPECT_EQ(kEnd, status(kType, GETNEXT_REQ, group_type_rec(63)));
}

TEST_F(Channel, ProfileAlertGroupsWalkAndAllReplacesTheRest) {
    set(kProfile, profile_rec("p"));
    set(kProfile, profile_rec("q"));
    for (auto [p, g] :
         {std::pair{"q", "Test"}, {"p", "System"}, {"p", "Diagnostic"}, {"full_txt", "all"}}) {
        set(kGroup, profile_group_rec(p, g));
    }
    // Profiles in the order of the profile table, each profile's groups by name.
    EXPECT_EQ((Strings{"p/Diagnostic", "p/System", "q/Test", "full_txt/all"}), groups());
    EXPECT_EQ((Strings{"p/System", "q/Test", "full_txt/all"}), groups("p", "Diagnostic"));
    EXPECT_EQ((Strings{"full_txt/all"}), groups("p\xff", ""));
    EXPECT_EQ((Strings{"full_txt/all"}), groups("q", "Test"));
    EXPECT_EQ(Strings{}, groups("full_txt", "all"));
    EXPECT_EQ(0, status(kGroup, GET_REQ, profile_group_rec("p", "System")));
    EXPECT_EQ(kUnknown, status(kGroup, GET_REQ, profile_group_rec("p", "Test")));
    set(kGroup, profile_group_rec("p", "all"));
    EXPECT_EQ((Strings{"p/all", "q/Test", "full_txt/all"}), groups("p", ""));
    ASSERT_EQ(0, status(kGroup, DELETE_REQ, profile_group_rec("p", "all")));
    set(kGroup, profile_group_rec("p", "Test"));
    EXPECT_EQ((Strings{"p/Test", "q/Test", "full_txt/all"}), groups("p", ""));
}

TEST_F(Channel, UserCommandsWalkInTypeIndexOrder) {
    // Rows come in the order of the type's index (Configuration 1, Inventory 4, System 6,
    // Test 7), not of the type's name.
    for (auto [type, idx] : {std::pair<std::string, int>{"Test", 2},
                             {"Inventory", 5},
                             {"System", 1},
                             {"Test", 1},
                             {"Configuration", 3}}) {
        set(kCmd, user_cmd_rec(type, idx, "cmd " + type + std::to_string(idx)));
    }
    const Strings all = {"Configuration/3=cmd Configuration3", "Inventory/5=cmd Inventory5",
                         "System/1=cmd System1", "Test/1=cmd Test1", "Test/2=cmd Test2"};
    EXPECT_EQ(all, cmds());
    EXPECT_EQ(Strings(all.begin() + 2, all.end()), cmds("Inventory", 5));
    EXPECT_EQ(Strings{all[4]}, cmds("Test", 1));
    EXPECT_EQ(kUnknown, status(kCmd, GETNEXT_REQ, user_cmd_rec("Nope", 0)));
    auto c = record_of<cmi_userdef_cli_cmd_t>(call(kCmd, GET_REQ, user_cmd_rec("Test", 2)).record);
    EXPECT_EQ("cmd Test2", text(c.cli_cmd));
    EXPECT_EQ(1, be(c.row_status));
    EXPECT_EQ(kUnknown, status(kCmd, GET_REQ, user_cmd_rec("Test", 3)));
    set(kCmd, user_cmd_rec("Test", 5, std::string(599, 'c')));
    EXPECT_EQ(0, status(kCmd, DELETE_REQ, user_cmd_rec("Test", 5)));
    EXPECT_EQ(all, cmds());
}

// Queuing changes no status object (only the sender's attempts do, tested with a real SMTP
// server in the daemon tests); a trigger that reaches nobody is an outcome of its own.
TEST_F(Channel, AlertActionsRecordTheirOutcomeAndQueueOneMessagePerProfile) {
    enable();
    EXPECT_EQ(kInvalid, status(kAction, SET_REQ, action_rec("test call home")));
    EXPECT_EQ(kInvalid, status(kAction, SET_REQ, action_rec("")));
    set(kGroup, profile_group_rec("full_txt", "Test")); // subscribed, but no addresses
    set(kAction, action_rec("Test Call Home"));
    auto s = state();
    EXPECT_EQ(3u, be(s.callhome_message_status));
    EXPECT_EQ(0x403B0040u, be(s.callhome_error_code));
    EXPECT_NE("", text(s.callhome_error_message));
    EXPECT_EQ(0u, be(s.num_alerts_sent));
    EXPECT_EQ("[]\n", svc.admin({"outbox"}).second);

    set(kAddr, dest_email_rec("full_txt", 2, "b@example.com"));
    set(kAddr, dest_email_rec("full_txt", 1, "a@example.com"));
    set(kAddr, dest_email_rec("xml", 1, "x@example.com"));
    set(kGroup, profile_group_rec("xml", "all"));
    set(kAddr, dest_email_rec("short_txt", 1, "short@example.org"));
    set(kGroup, profile_group_rec("short_txt", "Inventory")); // not for a test message
    set(kProfile, profile_rec("tiny", 1, 60));
    set(kAddr, dest_email_rec("tiny", 1, "t@example.com"));
    set(kGroup, profile_group_rec("tiny", "Test"));
    set(kProfile, profile_rec("silent", 1));
    set(kGroup, profile_group_rec("silent", "Test")); // no addresses
    set(kAction, action_rec("Test Call Home"));
    const auto after = state();
    EXPECT_EQ(0, std::memcmp(&s, &after, sizeof s)) << "queuing changed the status";
    // Profiles reached by group are the dispatch tests' matter; here: recipients in index
    // order, none for a profile without addresses, and each profile's maximum size (escaped
    // newlines count as one byte).
    const std::string out = svc.admin({"outbox"}).second;
    EXPECT_NE(std::string::npos, out.find("\"recipients\": \"a@example.com, b@example.com\""));
    EXPECT_EQ(std::string::npos, out.find("short@example.org"));
    EXPECT_EQ(std::string::npos, out.find("\"profile\": \"silent\""));
    const size_t at = out.find("\"body\": \"", out.find("\"profile\": \"tiny\""));
    ASSERT_NE(std::string::npos, at);
    const std::string body = out.substr(at + 9, out.find("\"\n", at) - at - 9);
    EXPECT_LE(body.size() - count(body, "\\n"), 60u);
    EXPECT_GT(body.size(), 0u);
    set(kAction, action_rec("Inventory")); // short_txt and xml
    EXPECT_EQ(5u, count(svc.admin({"outbox"}).second, "\"queued\""));
}

TEST_F(Channel, StatusFaultsAnswerWithoutChangingAnything) {
    ASSERT_EQ(0, svc.admin({"fault", "status", "CALLHOME_INFO_OPC", "0x403B0034", "--type", "3",
                            "--count", "2"})
                     .first);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(CALLHOME_ERR_VELD_RESEND, status(kInfo, SET_REQ, info_rec("custId", "x")));
    }
    EXPECT_EQ(kUnknown, status(kInfo, GET_REQ, info_rec("custId"))); // other type
    EXPECT_EQ(0, status(kInfo, SET_REQ, info_rec("custId", "x")));   // used up
    ASSERT_EQ(0, svc.admin({"fault", "status", "2154", "-1"}).first);
    auto r = call(kProfile, GET_REQ, profile_rec("xml"));
    EXPECT_EQ(-1, r.status);
    EXPECT_NE(0, r.err);
    ASSERT_EQ(0, svc.admin({"fault", "status", "2154", "5"}).first);
    ASSERT_EQ(0, svc.admin({"fault", "clear"}).first);
    EXPECT_EQ(0, status(kProfile, GET_REQ, profile_rec("xml")));
}

TEST(AdminUsage, MalformedCommandsExitTwo) {
    callhome::Service svc(":memory:");
    for (const char *line :
         {"", "frobnicate", "ping extra", "group add", "group rename a", "distribution maybe",
          "distribution on mode", "distribution on mode -1", "fault status CALLHOME_NOPE_OPC 1",
          "fault status 2155", "fault status 2155 0x", "fault delay 2155 -5",
          "fault drop 2155 --type 9", "fault drop 2155 --count 0", "fault drop 2155 --count",
          "fault drop 2155 --verbose 1", "fault clear now"}) {
        Strings args;
        std::istringstream words(line);
        for (std::string w; words >> w;) {
            args.push_back(w);
        }
        auto [code, text] = svc.admin(args);
        EXPECT_EQ(2, code) << line;
        EXPECT_NE(std::string::npos, text.find("commands:")) << line;
    }
}

TEST(Durability, ConfigurationSurvivesARestartAndJunkIsRefused) {
    EXPECT_THROW(callhome::Service("/nonexistent-dir/sub/c.db"), std::runtime_error);
    char dir[] = "/tmp/callhome-svc-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    const std::string db = std::string(dir) + "/c.db", junk = std::string(dir) + "/junk.db";
    std::string first;
    {
        callhome::Service svc(db);
        const std::pair<int, Bytes> writes[] = {
            {kInfo, info_rec("sysContactEmail", "ops@example.com")},
            {kInfo, info_rec("sysContactPhoneNumber", "+1")},
            {kInfo, info_rec("sysStreetAddress", "Main St")},
            {kEnable, switch_rec(1)},
            {kThrottle, switch_rec(0)},
            {kPeriodic, periodic_rec(0, 30, 1)},
            {kMail, email_conf_rec("f@x.org", "", "", "192.0.2.7", 1, 2525)},
            {kProfile, profile_rec("p", 3, 77, 1, 4)},
            {kAddr, dest_email_rec("p", 3, "p@x.org")},
            {kGroup, profile_group_rec("p", "Test")},
            {kCmd, user_cmd_rec("Test", 4, "show all")},
            {kAction, action_rec("Test Call Home")},
        };
        for (const auto &[op, rec] : writes) {
            ASSERT_EQ(0, svc.handle(request(op, SET_REQ, rec)).status) << op;
        }
        ASSERT_EQ(0, svc.admin({"group", "add", "Power"}).first);
        ASSERT_EQ(0, svc.admin({"distribution", "on", "mode", "3"}).first);
        first = svc.admin({"dump"}).second;
    }
    callhome::Service again(db);
    EXPECT_EQ(first, again.admin({"dump"}).second);
    EXPECT_NE(std::string::npos, again.admin({"outbox"}).second.find("\"profile\": \"p\""));
    FILE *f = fopen(junk.c_str(), "w");
    ASSERT_NE(nullptr, f);
    fputs("this is not a database, just some text that is long enough to be noticed", f);
    fclose(f);
    EXPECT_THROW(callhome::Service{junk}, std::runtime_error);
    std::system(("rm -rf " + std::string(dir)).c_str());
}

} // namespace

TEST(JsonText, AnyBytesBecomeWellFormedUtf8) {
    const std::pair<std::string, std::string> cases[] = {
        {"plain", "\"plain\""},
        {"q\"\\\n", "\"q\\\"\\\\\\n\""},
        {"\x01\x7f", "\"\\u0001\\u007f\""},
        {"\xc3\xa9\xf0\x9f\x93\x9e", "\"\xc3\xa9\xf0\x9f\x93\x9e\""}, // kept as it is
        {"caf\xe9!", "\"caf\\ufffd!\""},                              // Latin-1
        {"\xe2\x82", "\"\\ufffd\\ufffd\""},                           // cut short
        {"\xc0\xaf", "\"\\ufffd\\ufffd\""},                           // overlong
        {"\xed\xa0\x80", "\"\\ufffd\\ufffd\\ufffd\""},                // surrogate
    };
    for (const auto &[in, out] : cases) {
        callhome::json::Writer w;
        w.value(in);
        EXPECT_EQ(out + "\n", w.str()) << in;
    }
}
