// The service's answers on the request channel, hosted in-process.
#include <gtest/gtest.h>

#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "callhome/service.hpp"
#include "records.hpp"

using namespace svc_test;

namespace {

constexpr int kInvalid = CALLHOME_ERR_INVALID_INPUT;
constexpr int kUnknown = CALLHOME_UNKNOWN_ENTRY;
constexpr int kEnd = CALLHOME_END_OF_TABLE;

class Channel : public ::testing::Test {
  protected:
    platform::CmiReply call(int opcode, int type, const Bytes &rec) {
        return svc.handle(request(opcode, type, rec));
    }
    int status(int opcode, int type, const Bytes &rec) { return call(opcode, type, rec).status; }
    std::string dump() { return svc.admin({"dump"}).second; }

    void add_profile(const std::string &name, int32_t format = 1, uint32_t size = 0) {
        ASSERT_EQ(0, status(CALLHOME_DEST_PROFILE_OPC, SET_REQ, profile_rec(name, format, size)))
            << name;
    }
    void add_email(const std::string &profile, int32_t idx, const std::string &addr) {
        ASSERT_EQ(0, status(CALLHOME_DEST_EMAIL_OPC, SET_REQ, dest_email_rec(profile, idx, addr)));
    }
    void add_group(const std::string &profile, const std::string &group) {
        ASSERT_EQ(
            0, status(CALLHOME_PROFILE_ALERTGROUP_OPC, SET_REQ, profile_group_rec(profile, group)));
    }
    void set_info(const std::string &name, const std::string &value) {
        ASSERT_EQ(0, status(CALLHOME_INFO_OPC, SET_REQ, info_rec(name, value))) << name;
    }
    void enable() {
        set_info("sysContactEmail", "ops@example.com");
        set_info("sysContactPhoneNumber", "+1 800-555");
        set_info("sysStreetAddress", "1 Main Street");
        ASSERT_EQ(0, status(CALLHOME_ENABLE_OPC, SET_REQ, switch_rec(1)));
    }

    // Every row of a table, by GETNEXT from `first` until the end of the table.
    std::vector<std::string> walk_profiles(const std::string &from = "") {
        std::vector<std::string> out;
        Bytes key = profile_rec(from);
        for (int guard = 0; guard < 100; ++guard) {
            auto r = call(CALLHOME_DEST_PROFILE_OPC, GETNEXT_REQ, key);
            if (r.status != 0) {
                EXPECT_EQ(kEnd, r.status);
                break;
            }
            auto rec = record_of<callHomeDestProfileEntry>(r);
            out.push_back(text(rec.destination_profile_id, 32));
            key = r.record;
        }
        return out;
    }
    std::vector<std::string> walk_emails(const std::string &profile = "", int32_t idx = 0) {
        std::vector<std::string> out;
        Bytes key = dest_email_rec(profile, idx);
        for (int guard = 0; guard < 100; ++guard) {
            auto r = call(CALLHOME_DEST_EMAIL_OPC, GETNEXT_REQ, key);
            if (r.status != 0) {
                EXPECT_EQ(kEnd, r.status);
                break;
            }
            auto rec = record_of<callHomeDestEmailAddressEntry>(r);
            out.push_back(text(rec.destination_profile_id, 32) + "/" +
                          std::to_string(host(rec.index)) + "=" + text(rec.email_addr, 256));
            key = r.record;
        }
        return out;
    }
    std::vector<std::string> walk_groups(const std::string &profile = "",
                                         const std::string &group = "") {
        std::vector<std::string> out;
        Bytes key = profile_group_rec(profile, group);
        for (int guard = 0; guard < 100; ++guard) {
            auto r = call(CALLHOME_PROFILE_ALERTGROUP_OPC, GETNEXT_REQ, key);
            if (r.status != 0) {
                EXPECT_EQ(kEnd, r.status);
                break;
            }
            auto rec = record_of<callHomeAlertGroupEntry>(r);
            out.push_back(text(rec.destination_profile_id, 32) + "/" + text(rec.alert_group, 260));
            key = r.record;
        }
        return out;
    }
    std::vector<std::string> walk_types() {
        std::vector<std::string> out;
        Bytes key = group_type_rec(0);
        for (int guard = 0; guard < 100; ++guard) {
            auto r = call(CALLHOME_ALERTGROUP_TYPE_OPC, GETNEXT_REQ, key);
            if (r.status != 0) {
                EXPECT_EQ(kEnd, r.status);
                break;
            }
            auto rec = record_of<callhome_alertgroup_type_t>(r);
            out.push_back(std::to_string(host(rec.index)) + ":" + text(rec.grp_name, 256));
            key = r.record;
        }
        return out;
    }
    std::vector<std::string> walk_cmds(const std::string &type = "", int32_t idx = 0) {
        std::vector<std::string> out;
        Bytes key = user_cmd_rec(type, idx);
        for (int guard = 0; guard < 100; ++guard) {
            auto r = call(CALLHOME_USER_DEF_CMD_OPC, GETNEXT_REQ, key);
            if (r.status != 0) {
                EXPECT_EQ(kEnd, r.status);
                break;
            }
            auto rec = record_of<cmi_userdef_cli_cmd_t>(r);
            out.push_back(text(rec.alertgroup_type, 256) + "/" + std::to_string(host(rec.index)) +
                          "=" + text(rec.cli_cmd, 600));
            key = r.record;
        }
        return out;
    }

    callhome::Service svc{":memory:"};
};

using Strings = std::vector<std::string>;

TEST_F(Channel, FirstStartDefaults) {
    auto en = record_of<callhome_switch_t>(call(CALLHOME_ENABLE_OPC, GET_REQ, switch_rec(0)));
    EXPECT_EQ(0u, host(en.value));
    auto th =
        record_of<callhome_switch_t>(call(CALLHOME_MSG_THROTTLING_OPC, GET_REQ, switch_rec(0)));
    EXPECT_EQ(1u, host(th.value));
    auto pi = record_of<callhome_periodic_inventory_t>(
        call(CALLHOME_PERIODIC_INVENTORY_OPC, GET_REQ, periodic_rec(0, 0, 0)));
    EXPECT_EQ(1u, host(pi.enable));
    EXPECT_EQ(7u, host(pi.time_frame));
    EXPECT_EQ(480u, host(pi.time_of_day));
    auto ec = record_of<cmi_email_conf_t>(
        call(CALLHOME_EMAIL_CONF_OPC, GET_REQ, email_conf_rec("", "", "", "", 0, 0)));
    EXPECT_EQ("", text(ec.from_email_addr, 256));
    EXPECT_EQ(16u, host(ec.address_type));
    EXPECT_EQ(25u, host(ec.smtp_server_port));
    auto st = call(CALLHOME_STATUS_OPC, GET_REQ, Bytes(sizeof(callhome_status_t)));
    ASSERT_EQ(0, st.status);
    ASSERT_EQ(sizeof(callhome_status_t), st.record.size());
    auto s = record_of<callhome_status_t>(st);
    EXPECT_EQ(2u, host(s.callhome_message_status));
    EXPECT_EQ(0u, host(s.num_alerts_sent) + host(s.last_alert_sent.tv_sec) +
                      host(s.callhome_error_code));

    EXPECT_EQ((Strings{"xml", "full_txt", "short_txt"}), walk_profiles());
    const std::map<std::string, std::pair<int32_t, uint32_t>> builtins = {
        {"full_txt", {1, 500000}}, {"xml", {2, 500000}}, {"short_txt", {3, 4000}}};
    for (const auto &[name, fs] : builtins) {
        auto r = call(CALLHOME_DEST_PROFILE_OPC, GET_REQ, profile_rec(name));
        ASSERT_EQ(0, r.status);
        auto p = record_of<callHomeDestProfileEntry>(r);
        EXPECT_EQ(fs.first, host(p.format_method)) << name;
        EXPECT_EQ(fs.second, host(p.maximum_message_size)) << name;
        EXPECT_EQ(1, host(p.transport_method));
        EXPECT_EQ(1, host(p.row_status));
        EXPECT_EQ(0, p.msg_level);
    }
    EXPECT_EQ((Strings{"1:Configuration", "2:Diagnostic", "3:Environmental", "4:Inventory",
                       "5:Syslog", "6:System", "7:Test"}),
              walk_types());
}

// Malformed requests are refused and change nothing.
TEST_F(Channel, MalformedRequestsAreRefusedWithoutEffect) {
    const std::string before = dump();
    struct Case {
        const char *what;
        int opcode, type;
        Bytes rec;
    };
    const Case cases[] = {
        {"unknown opcode", 2158, GET_REQ, switch_rec(0)},
        {"message type 0", CALLHOME_ENABLE_OPC, 0, switch_rec(1)},
        {"message type 7", CALLHOME_ENABLE_OPC, 7, switch_rec(1)},
        {"short info", CALLHOME_INFO_OPC, SET_REQ, Bytes(2304)},
        {"long info", CALLHOME_INFO_OPC, GET_REQ, Bytes(2306)},
        {"short email conf", CALLHOME_EMAIL_CONF_OPC, SET_REQ, Bytes(1032)},
        {"empty enable set", CALLHOME_ENABLE_OPC, SET_REQ, Bytes()},
        {"long throttling set", CALLHOME_MSG_THROTTLING_OPC, SET_REQ, Bytes(6)},
        {"short periodic set", CALLHOME_PERIODIC_INVENTORY_OPC, SET_REQ, Bytes(12)},
        {"status set", CALLHOME_STATUS_OPC, SET_REQ, Bytes(sizeof(callhome_status_t))},
        {"status bad length", CALLHOME_STATUS_OPC, GET_REQ, Bytes(2067)},
        {"alert action get", CALLHOME_ALERT_ACTION_OPC, GET_REQ, action_rec("Inventory")},
        {"profile short", CALLHOME_DEST_PROFILE_OPC, SET_REQ, Bytes(50)},
        {"profile long", CALLHOME_DEST_PROFILE_OPC, GETNEXT_REQ, Bytes(52)},
        {"email short", CALLHOME_DEST_EMAIL_OPC, DELETE_REQ, Bytes(296)},
        {"group type set", CALLHOME_ALERTGROUP_TYPE_OPC, SET_REQ, group_type_rec(9)},
        {"group type delete", CALLHOME_ALERTGROUP_TYPE_OPC, DELETE_REQ, group_type_rec(1)},
        {"group type short", CALLHOME_ALERTGROUP_TYPE_OPC, GET_REQ, Bytes(259)},
        {"profile group short", CALLHOME_PROFILE_ALERTGROUP_OPC, SET_REQ, Bytes(300)},
        {"user cmd long", CALLHOME_USER_DEF_CMD_OPC, SET_REQ, Bytes(866)},
        {"info getnext", CALLHOME_INFO_OPC, GETNEXT_REQ, info_rec("custId")},
    };
    for (const auto &c : cases) {
        auto r = call(c.opcode, c.type, c.rec);
        EXPECT_EQ(kInvalid, r.status) << c.what;
        EXPECT_FALSE(r.has_record) << c.what;
    }
    EXPECT_EQ(before, dump());
}

TEST_F(Channel, InfoValuesAreCheckedAndReadBack) {
    EXPECT_EQ(kUnknown, status(CALLHOME_INFO_OPC, GET_REQ, info_rec("custId")));
    EXPECT_EQ(kUnknown, status(CALLHOME_INFO_OPC, GET_REQ, info_rec("noSuchName")));
    struct Case {
        const char *name;
        std::string value;
        int expected;
    };
    const Case cases[] = {
        {"custId", "C-42", 0},
        {"contractId", "K 7", 0},
        {"siteId", "site", 0},
        {"sysStreetAddress", "1 Main Street", 0},
        {"sysContactPhoneNumber", "+1 800-555", 0},
        {"sysContactEmail", "ops@example.com", 0},
        {"sysContactEmail", "not-an-address", kInvalid},
        {"sysContactEmail", "two@@example.com", kInvalid},
        {"sysContactEmail", "a b@example.com", kInvalid},
        {"sysContactEmail", "ops@-bad-.com", kInvalid},
        {"priority", "0", 0},
        {"priority", "7", 0},
        {"priority", "8", kInvalid},
        {"priority", "07", kInvalid},
        {"priority", "x", kInvalid},
        {"unknownName", "x", kInvalid},
        {"siteId", "tab\there", kInvalid},
    };
    std::map<std::string, std::string> expected;
    for (const auto &c : cases) {
        EXPECT_EQ(c.expected, status(CALLHOME_INFO_OPC, SET_REQ, info_rec(c.name, c.value)))
            << c.name << "=" << c.value;
        if (c.expected == 0) {
            expected[c.name] = c.value;
        }
    }
    for (const auto &[name, value] : expected) {
        auto r = call(CALLHOME_INFO_OPC, GET_REQ, info_rec(name));
        ASSERT_EQ(0, r.status) << name;
        auto rec = record_of<cmi_callhome_info_t>(r);
        EXPECT_EQ(name, text(rec.info_name, 256));
        EXPECT_EQ(value, text(rec.info_value, 2049)) << name;
    }
    EXPECT_EQ(kUnknown, status(CALLHOME_INFO_OPC, GET_REQ, info_rec("unknownName")));

    // A name that fills its whole field has no terminator: it is no known name.
    EXPECT_EQ(kInvalid,
              status(CALLHOME_INFO_OPC, SET_REQ, info_rec("custId" + std::string(250, 'x'), "v")));
    // A value without terminator is cut at its field.
    ASSERT_EQ(0, status(CALLHOME_INFO_OPC, SET_REQ, info_rec("siteId", std::string(2049, 's'))));
    auto rec = record_of<cmi_callhome_info_t>(call(CALLHOME_INFO_OPC, GET_REQ, info_rec("siteId")));
    EXPECT_EQ(std::string(2048, 's'), text(rec.info_value, 2049));
}

TEST_F(Channel, EmailConfigurationIsChecked) {
    struct Case {
        const char *what;
        Bytes rec;
        int expected;
    };
    const Case cases[] = {
        {"all empty", email_conf_rec("", "", "", "", 16, 25), 0},
        {"ipv4", email_conf_rec("a@b.c", "r@b.c", "", "192.0.2.1", 1, 587), 0},
        {"ipv6", email_conf_rec("", "", "n@b.c", "2001:db8::1", 2, 1), 0},
        {"dns", email_conf_rec("", "", "", "mail.example.com", 16, 65535), 0},
        {"bad from", email_conf_rec("nobody", "", "", "", 16, 25), kInvalid},
        {"bad reply-to", email_conf_rec("", "x@", "", "", 16, 25), kInvalid},
        {"bad receipt", email_conf_rec("", "", "@x.com", "", 16, 25), kInvalid},
        {"ipv4 text for ipv6", email_conf_rec("", "", "", "192.0.2.1", 2, 25), kInvalid},
        {"bad ipv4", email_conf_rec("", "", "", "192.0.2.256", 1, 25), kInvalid},
        {"name for ipv4", email_conf_rec("", "", "", "mail.example.com", 1, 25), kInvalid},
        {"bad host name", email_conf_rec("", "", "", "mail_server!", 16, 25), kInvalid},
        {"type 3", email_conf_rec("", "", "", "", 3, 25), kInvalid},
        {"type 0", email_conf_rec("", "", "", "", 0, 25), kInvalid},
        {"port 0", email_conf_rec("", "", "", "", 16, 0), kInvalid},
        {"port 65536", email_conf_rec("", "", "", "", 16, 65536), kInvalid},
    };
    for (const auto &c : cases) {
        const std::string before = dump();
        EXPECT_EQ(c.expected, status(CALLHOME_EMAIL_CONF_OPC, SET_REQ, c.rec)) << c.what;
        if (c.expected != 0) {
            EXPECT_EQ(before, dump()) << c.what;
            continue;
        }
        // An accepted record reads back as it was sent.
        auto r = call(CALLHOME_EMAIL_CONF_OPC, GET_REQ, Bytes());
        ASSERT_EQ(0, r.status);
        EXPECT_EQ(c.rec, r.record) << c.what;
    }
}

TEST_F(Channel, SwitchingOnNeedsTheContact) {
    const char *needed[] = {"sysContactEmail", "sysContactPhoneNumber", "sysStreetAddress"};
    const std::string values[] = {"ops@example.com", "+1 555", "1 Main Street"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(kInvalid, status(CALLHOME_ENABLE_OPC, SET_REQ, switch_rec(1))) << i;
        set_info(needed[i], values[i]);
    }
    EXPECT_EQ(0, status(CALLHOME_ENABLE_OPC, SET_REQ, switch_rec(1)));
    auto en = record_of<callhome_switch_t>(call(CALLHOME_ENABLE_OPC, VELD_GET_REQ, Bytes()));
    EXPECT_EQ(1u, host(en.value));
    EXPECT_EQ(0, status(CALLHOME_ENABLE_OPC, SET_REQ, switch_rec(0)));
    EXPECT_EQ(0, status(CALLHOME_MSG_THROTTLING_OPC, SET_REQ, switch_rec(0)));
    auto th = record_of<callhome_switch_t>(call(CALLHOME_MSG_THROTTLING_OPC, GET_REQ, Bytes()));
    EXPECT_EQ(0u, host(th.value));
}

TEST_F(Channel, PeriodicInventoryBoundaries) {
    struct Case {
        uint32_t enable, days, minutes;
        int expected;
    };
    const Case cases[] = {
        {0, 1, 0, 0},           {1, 30, 1439, 0},       {1, 0, 480, kInvalid},
        {1, 31, 480, kInvalid}, {1, 7, 1440, kInvalid}, {2, 7, 480, kInvalid},
    };
    for (const auto &c : cases) {
        const auto before = call(CALLHOME_PERIODIC_INVENTORY_OPC, GET_REQ, Bytes()).record;
        const Bytes rec = periodic_rec(c.enable, c.days, c.minutes);
        EXPECT_EQ(c.expected, status(CALLHOME_PERIODIC_INVENTORY_OPC, SET_REQ, rec))
            << c.enable << " " << c.days << " " << c.minutes;
        const auto after = call(CALLHOME_PERIODIC_INVENTORY_OPC, GET_REQ, Bytes()).record;
        EXPECT_EQ(c.expected == 0 ? rec : before, after);
    }
}

TEST_F(Channel, ProfilesWalkInOidOrderFromAnyKey) {
    for (const char *n : {"b", "a b", "B", "ab", "\xc3\xa9t\xc3\xa9", "a"}) {
        add_profile(n);
    }
    // The row index is the name's length, then its bytes: shorter names first, names of one
    // length by unsigned bytes.
    const Strings all = {"B",        "a",        "b", "ab", "a b", "xml", "\xc3\xa9t\xc3\xa9",
                         "full_txt", "short_txt"};
    EXPECT_EQ(all, walk_profiles());
    // GETNEXT is strictly after the key, also for keys that name no row.
    EXPECT_EQ((Strings{"xml", "\xc3\xa9t\xc3\xa9", "full_txt", "short_txt"}), walk_profiles("a b"));
    EXPECT_EQ((Strings{"ab", "a b", "xml", "\xc3\xa9t\xc3\xa9", "full_txt", "short_txt"}),
              walk_profiles("c"));
    // A truncated index arrives filled with 0xFF: it sorts after every name of its length.
    EXPECT_EQ((Strings{"\xc3\xa9t\xc3\xa9", "full_txt", "short_txt"}),
              walk_profiles("a\xff\xff\xff"));
    EXPECT_EQ((Strings{"full_txt", "short_txt"}), walk_profiles("\xff\xff\xff\xff\xff"));
    // A key that fills the whole field (no NUL) is read within the field.
    EXPECT_EQ(Strings{}, walk_profiles(std::string(32, '\xff')));
    EXPECT_EQ(kEnd, status(CALLHOME_DEST_PROFILE_OPC, GETNEXT_REQ, profile_rec("short_txt")));
    EXPECT_EQ(kUnknown, status(CALLHOME_DEST_PROFILE_OPC, GET_REQ, profile_rec("")));
    EXPECT_EQ(kUnknown, status(CALLHOME_DEST_PROFILE_OPC, GET_REQ, profile_rec("A")));
    // Distribution reads are answered like plain reads.
    auto r = call(CALLHOME_DEST_PROFILE_OPC, VELD_GETNEXT_REQ, profile_rec(""));
    ASSERT_EQ(0, r.status);
    EXPECT_EQ("B", text(record_of<callHomeDestProfileEntry>(r).destination_profile_id, 32));
}

TEST_F(Channel, ProfileSetChecksEveryField) {
    struct Case {
        const char *what;
        Bytes rec;
        int expected;
    };
    const Case cases[] = {
        {"31 characters", profile_rec(std::string(31, 'p'), 3, 1000000, 1, 9), 0},
        {"32 characters", profile_rec(std::string(32, 'q')), kInvalid},
        {"empty name", profile_rec(""), kInvalid},
        {"leading space", profile_rec(" p"), kInvalid},
        {"trailing space", profile_rec("p "), kInvalid},
        {"inner space", profile_rec("p q"), 0},
        {"control character", profile_rec("p\nq"), kInvalid},
        {"format 0", profile_rec("f", 0), kInvalid},
        {"format 4", profile_rec("f", 4), kInvalid},
        {"transport 2", profile_rec("t", 1, 0, 2), kInvalid},
        {"size 1000001", profile_rec("s", 1, 1000001), kInvalid},
        {"level 10", profile_rec("l", 1, 0, 1, 10), kInvalid},
        {"level -1", profile_rec("l", 1, 0, 1, -1), kInvalid},
    };
    for (const auto &c : cases) {
        const std::string before = dump();
        EXPECT_EQ(c.expected, status(CALLHOME_DEST_PROFILE_OPC, SET_REQ, c.rec)) << c.what;
        if (c.expected != 0) {
            EXPECT_EQ(before, dump()) << c.what;
        }
    }
    auto r = call(CALLHOME_DEST_PROFILE_OPC, GET_REQ, profile_rec(std::string(31, 'p')));
    ASSERT_EQ(0, r.status);
    auto p = record_of<callHomeDestProfileEntry>(r);
    EXPECT_EQ(3, host(p.format_method));
    EXPECT_EQ(1000000u, host(p.maximum_message_size));
    EXPECT_EQ(9, p.msg_level);
    EXPECT_EQ(1, host(p.row_status)); // stored active whatever was sent
    EXPECT_FALSE(call(CALLHOME_DEST_PROFILE_OPC, SET_REQ, profile_rec("x")).has_record);
}

TEST_F(Channel, AtMostFiftyProfiles) {
    for (int i = 0; i < 47; ++i) {
        add_profile("p" + std::to_string(i));
    }
    EXPECT_EQ(kInvalid, status(CALLHOME_DEST_PROFILE_OPC, SET_REQ, profile_rec("one-more")));
    // Replacing an existing row is no new row.
    EXPECT_EQ(0, status(CALLHOME_DEST_PROFILE_OPC, SET_REQ, profile_rec("p3", 2)));
    EXPECT_EQ(0, status(CALLHOME_DEST_PROFILE_OPC, DELETE_REQ, profile_rec("p0")));
    EXPECT_EQ(0, status(CALLHOME_DEST_PROFILE_OPC, SET_REQ, profile_rec("one-more")));
}

TEST_F(Channel, BuiltinProfilesCannotBeDeleted) {
    for (const char *n : {"full_txt", "short_txt", "xml"}) {
        EXPECT_EQ(CALLHOME_ERR_BUILTIN_PROFILE,
                  status(CALLHOME_DEST_PROFILE_OPC, DELETE_REQ, profile_rec(n)));
        EXPECT_EQ(0, status(CALLHOME_DEST_PROFILE_OPC, GET_REQ, profile_rec(n)));
    }
    EXPECT_EQ(kUnknown, status(CALLHOME_DEST_PROFILE_OPC, DELETE_REQ, profile_rec("ghost")));
    // A longer name that starts like a built-in is an ordinary profile.
    add_profile("xml2");
    EXPECT_EQ(0, status(CALLHOME_DEST_PROFILE_OPC, DELETE_REQ, profile_rec("xml2")));
}

TEST_F(Channel, DeletingAProfileRemovesItsAddressesAndGroups) {
    add_profile("p");
    add_profile("q");
    add_email("p", 1, "a@example.com");
    add_email("p", 2, "b@example.com");
    add_email("q", 1, "c@example.com");
    add_group("p", "Test");
    add_group("q", "System");
    ASSERT_EQ(0, status(CALLHOME_DEST_PROFILE_OPC, DELETE_REQ, profile_rec("p")));
    EXPECT_EQ(Strings{"q/1=c@example.com"}, walk_emails());
    EXPECT_EQ(Strings{"q/System"}, walk_groups());
    // A profile re-created under the same name starts empty.
    add_profile("p");
    EXPECT_EQ(kUnknown, status(CALLHOME_DEST_EMAIL_OPC, GET_REQ, dest_email_rec("p", 1)));
    // Replacing a profile keeps its addresses and groups.
    add_profile("q", 2);
    EXPECT_EQ(Strings{"q/1=c@example.com"}, walk_emails());
    EXPECT_EQ(Strings{"q/System"}, walk_groups());
}

TEST_F(Channel, EmailAddressesWalkByProfileThenIndex) {
    add_profile("p");
    add_profile("q");
    add_email("q", 1, "q1@example.com");
    add_email("p", 10, "p10@example.com");
    add_email("p", 2, "p2@example.com");
    EXPECT_EQ((Strings{"p/2=p2@example.com", "p/10=p10@example.com", "q/1=q1@example.com"}),
              walk_emails());
    EXPECT_EQ((Strings{"p/10=p10@example.com", "q/1=q1@example.com"}), walk_emails("p", 2));
    EXPECT_EQ(Strings{"q/1=q1@example.com"}, walk_emails("p", 10));
    EXPECT_EQ(Strings{}, walk_emails("p\xff\xff", 0)); // longer than every name here
    EXPECT_EQ(Strings{}, walk_emails("q", 1));
    EXPECT_EQ(Strings{}, walk_emails(std::string(32, '\xff'), 0));

    auto r = call(CALLHOME_DEST_EMAIL_OPC, GET_REQ, dest_email_rec("p", 10));
    ASSERT_EQ(0, r.status);
    auto e = record_of<callHomeDestEmailAddressEntry>(r);
    EXPECT_EQ("p10@example.com", text(e.email_addr, 256));
    EXPECT_EQ(1, host(e.row_status));
    EXPECT_EQ(kUnknown, status(CALLHOME_DEST_EMAIL_OPC, GET_REQ, dest_email_rec("p", 3)));
    EXPECT_EQ(kUnknown, status(CALLHOME_DEST_EMAIL_OPC, GET_REQ, dest_email_rec("zz", 1)));
}

TEST_F(Channel, EmailAddressWritesAreChecked) {
    add_profile("p");
    add_email("p", 1, "a@example.com");
    const std::string before = dump();
    struct Case {
        const char *what;
        int type;
        Bytes rec;
        int expected;
    };
    const Case cases[] = {
        {"unknown profile", SET_REQ, dest_email_rec("zz", 1, "a@example.com"), kUnknown},
        {"index 0", SET_REQ, dest_email_rec("p", 0, "a@example.com"), kInvalid},
        {"index -1", SET_REQ, dest_email_rec("p", -1, "a@example.com"), kInvalid},
        {"not an address", SET_REQ, dest_email_rec("p", 2, "nobody"), kInvalid},
        {"empty address", SET_REQ, dest_email_rec("p", 2, ""), kInvalid},
        {"delete missing index", DELETE_REQ, dest_email_rec("p", 2), kUnknown},
        {"delete missing profile", DELETE_REQ, dest_email_rec("zz", 1), kUnknown},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.expected, status(CALLHOME_DEST_EMAIL_OPC, c.type, c.rec)) << c.what;
    }
    EXPECT_EQ(before, dump());
    EXPECT_EQ(0, status(CALLHOME_DEST_EMAIL_OPC, DELETE_REQ, dest_email_rec("p", 1)));
    EXPECT_EQ(Strings{}, walk_emails());
}

TEST_F(Channel, AlertGroupTypesAreReadOnlyOnTheChannel) {
    auto r = call(CALLHOME_ALERTGROUP_TYPE_OPC, GET_REQ, group_type_rec(7));
    ASSERT_EQ(0, r.status);
    EXPECT_EQ("Test", text(record_of<callhome_alertgroup_type_t>(r).grp_name, 256));
    EXPECT_EQ(kUnknown, status(CALLHOME_ALERTGROUP_TYPE_OPC, GET_REQ, group_type_rec(0)));
    EXPECT_EQ(kUnknown, status(CALLHOME_ALERTGROUP_TYPE_OPC, GET_REQ, group_type_rec(8)));
    EXPECT_EQ(kEnd, status(CALLHOME_ALERTGROUP_TYPE_OPC, GETNEXT_REQ, group_type_rec(7)));
    EXPECT_EQ(kEnd, status(CALLHOME_ALERTGROUP_TYPE_OPC, GETNEXT_REQ, group_type_rec(0xFFFFFFFF)));
}

TEST_F(Channel, TypeChangesTakeTheLowestFreeIndexAndNotify) {
    std::vector<std::pair<int32_t, Bytes>> seen;
    svc.set_notifier([&](int32_t id, const Bytes &p) { seen.emplace_back(id, p); });
    add_group("full_txt", "Syslog");
    ASSERT_EQ(0, status(CALLHOME_USER_DEF_CMD_OPC, SET_REQ, user_cmd_rec("Syslog", 1, "show log")));
    ASSERT_EQ(0, status(CALLHOME_USER_DEF_CMD_OPC, SET_REQ, user_cmd_rec("Test", 1, "show ver")));

    EXPECT_EQ(0, svc.admin({"group", "del", "Syslog"}).first);
    EXPECT_EQ(Strings{}, walk_groups());
    EXPECT_EQ(Strings{"Test/1=show ver"}, walk_cmds());
    EXPECT_EQ(0, svc.admin({"group", "add", "Power"}).first);
    EXPECT_EQ(0, svc.admin({"group", "add", "Fans"}).first);
    EXPECT_EQ((Strings{"1:Configuration", "2:Diagnostic", "3:Environmental", "4:Inventory",
                       "5:Power", "6:System", "7:Test", "8:Fans"}),
              walk_types());

    auto payload = [](uint32_t idx, const std::string &name) {
        Bytes p = {uint8_t(idx >> 24), uint8_t(idx >> 16), uint8_t(idx >> 8), uint8_t(idx)};
        p.insert(p.end(), name.begin(), name.end());
        p.push_back(0);
        return p;
    };
    ASSERT_EQ(3u, seen.size());
    EXPECT_EQ(CALLHOME_ALERTGROUP_DELETED_NOTIF, seen[0].first);
    EXPECT_EQ(payload(5, "Syslog"), seen[0].second);
    EXPECT_EQ(CALLHOME_ALERTGROUP_ADDED_NOTIF, seen[1].first);
    EXPECT_EQ(payload(5, "Power"), seen[1].second);
    EXPECT_EQ(payload(8, "Fans"), seen[2].second);

    // Refusals: exit status 1, nothing changes, nothing is announced.
    const std::string before = dump();
    for (const Strings &cmd : {Strings{"group", "add", "Fans"}, Strings{"group", "del", "Nope"},
                               Strings{"group", "add", "all"}, Strings{"group", "add", ""}}) {
        EXPECT_EQ(1, svc.admin(cmd).first) << cmd[1] << " " << cmd[2];
    }
    EXPECT_EQ(before, dump());
    EXPECT_EQ(3u, seen.size());
}

TEST_F(Channel, AtMostSixtyThreeTypes) {
    for (int i = 8; i <= 63; ++i) {
        ASSERT_EQ(0, svc.admin({"group", "add", "T" + std::to_string(i)}).first) << i;
    }
    auto r = svc.admin({"group", "add", "T64"});
    EXPECT_EQ(1, r.first);
    EXPECT_NE(std::string::npos, r.second.find("63"));
    EXPECT_EQ(kEnd, status(CALLHOME_ALERTGROUP_TYPE_OPC, GETNEXT_REQ, group_type_rec(63)));
}

TEST_F(Channel, ProfileAlertGroupsWalkAndAllRules) {
    add_profile("p");
    add_profile("q");
    add_group("q", "Test");
    add_group("p", "System");
    add_group("p", "Diagnostic");
    add_group("full_txt", "all");
    // Profiles in the order of the profile table, each profile's groups by name.
    EXPECT_EQ((Strings{"p/Diagnostic", "p/System", "q/Test", "full_txt/all"}), walk_groups());
    EXPECT_EQ((Strings{"p/System", "q/Test", "full_txt/all"}), walk_groups("p", "Diagnostic"));
    EXPECT_EQ((Strings{"full_txt/all"}), walk_groups("p\xff", ""));
    EXPECT_EQ((Strings{"full_txt/all"}), walk_groups("q", "Test"));
    EXPECT_EQ(Strings{}, walk_groups("full_txt", "all"));
    EXPECT_EQ(0,
              status(CALLHOME_PROFILE_ALERTGROUP_OPC, GET_REQ, profile_group_rec("p", "System")));
    EXPECT_EQ(kUnknown,
              status(CALLHOME_PROFILE_ALERTGROUP_OPC, GET_REQ, profile_group_rec("p", "Test")));

    const std::string before = dump();
    struct Case {
        const char *what;
        int type;
        Bytes rec;
        int expected;
    };
    const Case cases[] = {
        {"unknown profile", SET_REQ, profile_group_rec("zz", "Test"), kUnknown},
        {"unknown type", SET_REQ, profile_group_rec("p", "Nope"), kInvalid},
        {"case matters", SET_REQ, profile_group_rec("p", "ALL"), kInvalid},
        {"single beside all", SET_REQ, profile_group_rec("full_txt", "Test"), kInvalid},
        {"delete missing", DELETE_REQ, profile_group_rec("p", "Test"), kUnknown},
        {"delete unknown profile", DELETE_REQ, profile_group_rec("zz", "Test"), kUnknown},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.expected, status(CALLHOME_PROFILE_ALERTGROUP_OPC, c.type, c.rec)) << c.what;
    }
    EXPECT_EQ(before, dump());

    add_group("p", "all"); // replaces the individual groups
    EXPECT_EQ((Strings{"p/all", "q/Test", "full_txt/all"}), walk_groups("p", ""));
    ASSERT_EQ(0,
              status(CALLHOME_PROFILE_ALERTGROUP_OPC, DELETE_REQ, profile_group_rec("p", "all")));
    add_group("p", "Test");
    EXPECT_EQ((Strings{"p/Test", "q/Test", "full_txt/all"}), walk_groups("p", ""));
}

TEST_F(Channel, UserCommandsWalkInTypeIndexOrder) {
    // Rows come in the order of the type's index (Configuration 1, Inventory 4, System 6,
    // Test 7), not of the type's name.
    const std::pair<std::string, int> rows[] = {
        {"Test", 2}, {"Inventory", 5}, {"System", 1}, {"Test", 1}, {"Configuration", 3}};
    for (const auto &[type, idx] : rows) {
        ASSERT_EQ(0, status(CALLHOME_USER_DEF_CMD_OPC, SET_REQ,
                            user_cmd_rec(type, idx, "cmd " + type + std::to_string(idx))));
    }
    EXPECT_EQ((Strings{"Configuration/3=cmd Configuration3", "Inventory/5=cmd Inventory5",
                       "System/1=cmd System1", "Test/1=cmd Test1", "Test/2=cmd Test2"}),
              walk_cmds());
    EXPECT_EQ((Strings{"System/1=cmd System1", "Test/1=cmd Test1", "Test/2=cmd Test2"}),
              walk_cmds("Inventory", 5));
    EXPECT_EQ((Strings{"Test/2=cmd Test2"}), walk_cmds("Test", 1));
    EXPECT_EQ(kUnknown, status(CALLHOME_USER_DEF_CMD_OPC, GETNEXT_REQ, user_cmd_rec("Nope", 0)));
    auto r = call(CALLHOME_USER_DEF_CMD_OPC, GET_REQ, user_cmd_rec("Test", 2));
    ASSERT_EQ(0, r.status);
    auto c = record_of<cmi_userdef_cli_cmd_t>(r);
    EXPECT_EQ("cmd Test2", text(c.cli_cmd, 600));
    EXPECT_EQ(1, host(c.row_status));
    EXPECT_EQ(kUnknown, status(CALLHOME_USER_DEF_CMD_OPC, GET_REQ, user_cmd_rec("Test", 3)));
}

TEST_F(Channel, UserCommandWritesAreChecked) {
    const std::string before = dump();
    struct Case {
        const char *what;
        int type;
        Bytes rec;
        int expected;
    };
    const Case cases[] = {
        {"unknown type", SET_REQ, user_cmd_rec("Nope", 1, "x"), kUnknown},
        {"index 0", SET_REQ, user_cmd_rec("Test", 0, "x"), kInvalid},
        {"index 6", SET_REQ, user_cmd_rec("Test", 6, "x"), kInvalid},
        {"empty command", SET_REQ, user_cmd_rec("Test", 1, ""), kInvalid},
        {"600 characters", SET_REQ, user_cmd_rec("Test", 1, std::string(600, 'c')), kInvalid},
        {"delete missing", DELETE_REQ, user_cmd_rec("Test", 1), kUnknown},
        {"delete unknown type", DELETE_REQ, user_cmd_rec("Nope", 1), kUnknown},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.expected, status(CALLHOME_USER_DEF_CMD_OPC, c.type, c.rec)) << c.what;
    }
    EXPECT_EQ(before, dump());
    EXPECT_EQ(0, status(CALLHOME_USER_DEF_CMD_OPC, SET_REQ,
                        user_cmd_rec("Test", 5, std::string(599, 'c'))));
    EXPECT_EQ(0, status(CALLHOME_USER_DEF_CMD_OPC, DELETE_REQ, user_cmd_rec("Test", 5)));
    EXPECT_EQ(Strings{}, walk_cmds());
}

TEST_F(Channel, AlertActionNeedsTheServiceOnAndAKnownAction) {
    EXPECT_EQ(kInvalid, status(CALLHOME_ALERT_ACTION_OPC, SET_REQ, action_rec("Test Call Home")));
    enable();
    EXPECT_EQ(kInvalid, status(CALLHOME_ALERT_ACTION_OPC, SET_REQ, action_rec("test call home")));
    EXPECT_EQ(kInvalid, status(CALLHOME_ALERT_ACTION_OPC, SET_REQ, action_rec("")));
    EXPECT_EQ("[]\n", svc.admin({"outbox"}).second);
}

TEST_F(Channel, AlertActionWithoutDestinationRecordsTheError) {
    enable();
    add_group("full_txt", "Test"); // subscribed, but no addresses
    ASSERT_EQ(0, status(CALLHOME_ALERT_ACTION_OPC, SET_REQ, action_rec("Test Call Home")));
    auto s = record_of<callhome_status_t>(call(CALLHOME_STATUS_OPC, GET_REQ, Bytes()));
    EXPECT_EQ(3u, host(s.callhome_message_status));
    EXPECT_EQ(0x403B0040u, host(s.callhome_error_code));
    EXPECT_NE("", text(s.callhome_error_message, 2048));
    EXPECT_EQ(0u, host(s.num_alerts_sent));
    EXPECT_EQ("[]\n", svc.admin({"outbox"}).second);
}

TEST_F(Channel, AlertActionQueuesOneMessagePerMatchingProfile) {
    enable();
    add_email("full_txt", 2, "b@example.com");
    add_email("full_txt", 1, "a@example.com");
    add_group("full_txt", "Test");
    add_email("xml", 1, "x@example.com");
    add_group("xml", "all");
    add_email("short_txt", 1, "short@example.org");
    add_group("short_txt", "Inventory"); // not for a test message
    add_profile("tiny", 1, 60);
    add_email("tiny", 1, "t@example.com");
    add_group("tiny", "Test");
    add_profile("silent", 1);
    add_group("silent", "Test"); // no addresses

    timeval before{};
    gettimeofday(&before, nullptr);
    ASSERT_EQ(0, status(CALLHOME_ALERT_ACTION_OPC, SET_REQ, action_rec("Test Call Home")));
    auto s = record_of<callhome_status_t>(call(CALLHOME_STATUS_OPC, GET_REQ, Bytes()));
    EXPECT_EQ(1u, host(s.callhome_message_status));
    EXPECT_EQ(3u, host(s.num_alerts_sent));
    EXPECT_EQ(0u, host(s.callhome_error_code));
    EXPECT_GE(host(s.last_alert_sent.tv_sec), uint32_t(before.tv_sec));
    EXPECT_LT(host(s.last_alert_sent.tv_usec), 1000000u);

    const std::string out = svc.admin({"outbox"}).second;
    EXPECT_NE(std::string::npos, out.find("\"recipients\": \"a@example.com, b@example.com\""));
    EXPECT_NE(std::string::npos, out.find("\"profile\": \"xml\""));
    EXPECT_NE(std::string::npos, out.find("<callhome-message type=\\\"test\\\">"));
    EXPECT_EQ(std::string::npos, out.find("short@example.org"));
    EXPECT_EQ(std::string::npos, out.find("\"profile\": \"silent\""));
    EXPECT_NE(std::string::npos, out.find("\"state\": \"queued\""));

    ASSERT_EQ(0, status(CALLHOME_ALERT_ACTION_OPC, SET_REQ, action_rec("Inventory")));
    s = record_of<callhome_status_t>(call(CALLHOME_STATUS_OPC, GET_REQ, Bytes()));
    EXPECT_EQ(5u, host(s.num_alerts_sent)); // short_txt and xml
}

TEST_F(Channel, MessagesHonourTheProfileMaximumSize) {
    enable();
    add_profile("tiny", 1, 60);
    add_email("tiny", 1, "t@example.com");
    add_group("tiny", "Test");
    ASSERT_EQ(0, status(CALLHOME_ALERT_ACTION_OPC, SET_REQ, action_rec("Test Call Home")));
    const std::string out = svc.admin({"outbox"}).second;
    const size_t at = out.find("\"body\": \"");
    ASSERT_NE(std::string::npos, at);
    const size_t end = out.find("\",\n", at);
    // The JSON form escapes newlines; count them back as one byte each.
    std::string body = out.substr(at + 9, end - at - 9);
    size_t escapes = 0;
    for (size_t p = body.find("\\n"); p != std::string::npos; p = body.find("\\n", p + 2)) {
        ++escapes;
    }
    EXPECT_LE(body.size() - escapes, 60u);
    EXPECT_GT(body.size(), 0u);
}

TEST_F(Channel, StatusFaultsAnswerWithoutChangingAnything) {
    ASSERT_EQ(0, svc.admin({"fault", "status", "CALLHOME_INFO_OPC", "0x403B0034", "--type", "3",
                            "--count", "2"})
                     .first);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(CALLHOME_ERR_VELD_RESEND,
                  status(CALLHOME_INFO_OPC, SET_REQ, info_rec("custId", "x")));
    }
    EXPECT_EQ(kUnknown, status(CALLHOME_INFO_OPC, GET_REQ, info_rec("custId"))); // other type
    EXPECT_EQ(0, status(CALLHOME_INFO_OPC, SET_REQ, info_rec("custId", "x")));   // used up

    ASSERT_EQ(0, svc.admin({"fault", "status", "2154", "-1"}).first);
    auto r = call(CALLHOME_DEST_PROFILE_OPC, GET_REQ, profile_rec("xml"));
    EXPECT_EQ(-1, r.status);
    EXPECT_NE(0, r.err);
    ASSERT_EQ(0, svc.admin({"fault", "status", "2154", "5"}).first);
    ASSERT_EQ(0, svc.admin({"fault", "clear"}).first);
    EXPECT_EQ(0, status(CALLHOME_DEST_PROFILE_OPC, GET_REQ, profile_rec("xml")));
}

TEST(AdminUsage, MalformedCommandsExitTwo) {
    callhome::Service svc(":memory:");
    const Strings bad[] = {
        {},
        {"frobnicate"},
        {"ping", "extra"},
        {"group", "add"},
        {"group", "rename", "a"},
        {"distribution", "maybe"},
        {"distribution", "on", "mode"},
        {"distribution", "on", "mode", "-1"},
        {"fault", "status", "CALLHOME_NOPE_OPC", "1"},
        {"fault", "status", "2155"},
        {"fault", "status", "2155", "0x"},
        {"fault", "delay", "2155", "-5"},
        {"fault", "drop", "2155", "--type", "9"},
        {"fault", "drop", "2155", "--count", "0"},
        {"fault", "drop", "2155", "--count"},
        {"fault", "drop", "2155", "--verbose", "1"},
        {"fault", "clear", "now"},
    };
    for (const auto &args : bad) {
        auto [code, text] = svc.admin(args);
        EXPECT_EQ(2, code) << (args.empty() ? "(none)" : args[0]) << " " << args.size();
        EXPECT_NE(std::string::npos, text.find("commands:"));
    }
}

TEST(Durability, ConfigurationSurvivesARestart) {
    char dir[] = "/tmp/callhome-svc-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    const std::string db = std::string(dir) + "/c.db";
    std::string first;
    {
        callhome::Service svc(db);
        auto set = [&](int op, const Bytes &rec) {
            ASSERT_EQ(0, svc.handle(request(op, SET_REQ, rec)).status);
        };
        set(CALLHOME_INFO_OPC, info_rec("sysContactEmail", "ops@example.com"));
        set(CALLHOME_INFO_OPC, info_rec("sysContactPhoneNumber", "+1"));
        set(CALLHOME_INFO_OPC, info_rec("sysStreetAddress", "Main St"));
        set(CALLHOME_ENABLE_OPC, switch_rec(1));
        set(CALLHOME_MSG_THROTTLING_OPC, switch_rec(0));
        set(CALLHOME_PERIODIC_INVENTORY_OPC, periodic_rec(0, 30, 1));
        set(CALLHOME_EMAIL_CONF_OPC, email_conf_rec("f@x.org", "", "", "192.0.2.7", 1, 2525));
        set(CALLHOME_DEST_PROFILE_OPC, profile_rec("p", 3, 77, 1, 4));
        set(CALLHOME_DEST_EMAIL_OPC, dest_email_rec("p", 3, "p@x.org"));
        set(CALLHOME_PROFILE_ALERTGROUP_OPC, profile_group_rec("p", "Test"));
        set(CALLHOME_USER_DEF_CMD_OPC, user_cmd_rec("Test", 4, "show all"));
        set(CALLHOME_ALERT_ACTION_OPC, action_rec("Test Call Home"));
        ASSERT_EQ(0, svc.admin({"group", "add", "Power"}).first);
        ASSERT_EQ(0, svc.admin({"distribution", "on", "mode", "3"}).first);
        first = svc.admin({"dump"}).second;
    }
    callhome::Service again(db);
    EXPECT_EQ(first, again.admin({"dump"}).second);
    EXPECT_NE(std::string::npos, again.admin({"outbox"}).second.find("\"profile\": \"p\""));
    std::system(("rm -rf " + std::string(dir)).c_str());
}

TEST(Durability, UnreadableDatabaseThrows) {
    EXPECT_THROW(callhome::Service("/nonexistent-dir/sub/c.db"), std::runtime_error);
    char dir[] = "/tmp/callhome-svc-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    const std::string db = std::string(dir) + "/junk.db";
    FILE *f = fopen(db.c_str(), "w");
    ASSERT_NE(nullptr, f);
    fputs("this is not a database, just some text that is long enough to be noticed", f);
    fclose(f);
    EXPECT_THROW(callhome::Service{db}, std::runtime_error);
    std::system(("rm -rf " + std::string(dir)).c_str());
}

} // namespace
