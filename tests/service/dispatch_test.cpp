// The messages the service sends by itself, through the service as the daemon hosts it:
// alerts by group and level, throttling, commands attached, and the periodic inventory
// across restarts. The clock is injected; the service is switched on.
#include <gtest/gtest.h>

#include <poll.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "callhome/service.hpp"
#include "records.hpp"

using namespace svc_test;

namespace {

class Dispatch : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        char tmpl[] = "/tmp/dispatch-XXXXXX";
        dir = mkdtemp(tmpl);
        open();
        set(CALLHOME_INFO_OPC, info_rec("sysContactEmail", "ops@example.com"));
        set(CALLHOME_INFO_OPC, info_rec("sysContactPhoneNumber", "+1 800-555"));
        set(CALLHOME_INFO_OPC, info_rec("sysStreetAddress", "1 Main Street"));
        set(CALLHOME_ENABLE_OPC, switch_rec(1));
    }
    void TearDown() override {
        svc.reset();
        std::filesystem::remove_all(dir);
    }
    // A start on the same database (the running service stops first).
    void open() {
        svc.reset();
        svc = std::make_unique<callhome::Service>(dir + "/db");
        svc->set_clock([this] { return now; });
    }
    void set(int op, const Bytes &rec) {
        ASSERT_EQ(0, svc->handle(request(op, SET_REQ, rec)).status) << op;
    }
    // A profile with one address; level as the MIB shows it (1..10).
    void profile(const std::string &name, int level, const std::string &group) {
        set(CALLHOME_DEST_PROFILE_OPC, profile_rec(name, 1, 0, 1, int8_t(level - 1)));
        set(CALLHOME_DEST_EMAIL_OPC, dest_email_rec(name, 1, name + "@example.com"));
        set(CALLHOME_PROFILE_ALERTGROUP_OPC, profile_group_rec(name, group));
    }
    std::string outbox() { return svc->admin({"outbox"}).second; }
    bool in(const std::string &text, const std::string &what) {
        return text.find(what) != std::string::npos;
    }
    size_t count(const std::string &what, std::string text = "") {
        text = text.empty() ? outbox() : text;
        size_t n = 0;
        for (size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) {
            ++n;
        }
        return n;
    }
    std::string dir;
    int64_t now = 1773100800 + 12 * 3600; // 2026-03-10 12:00 UTC
    std::unique_ptr<callhome::Service> svc;
};

TEST_F(Dispatch, AlertsReachProfilesByGroupAndLevel) {
    profile("lvl2", 2, "Diagnostic");
    profile("lvl4", 4, "Diagnostic");
    profile("lvl1all", 1, "all");
    profile("syslog", 1, "Syslog");
    const struct {
        Strings args;
        int status;
        Strings reached;
    } cases[] = {
        {{"alert", "Diagnostic", "--severity", "3", "disk"}, 0, {"lvl2", "lvl1all"}},
        {{"alert", "Diagnostic", "--severity", "4", "disk"}, 0, {"lvl2", "lvl4", "lvl1all"}},
        {{"alert", "Diagnostic", "disk"}, 0, {"lvl2", "lvl4", "lvl1all"}}, // default 5
        {{"alert", "Syslog", "--severity", "1", "x"}, 0, {"syslog", "lvl1all"}},
        {{"alert", "Environmental", "--severity", "1", "x"}, 0, {"lvl1all"}},
        {{"alert", "NoSuchGroup", "x"}, 1, {}},
        {{"alert", "Diagnostic", "--severity", "11", "x"}, 2, {}},
        {{"alert", "Diagnostic", "--severity", "0", "x"}, 2, {}},
    };
    for (const auto &c : cases) {
        const std::string before = outbox();
        const auto [status, text] = svc->admin(c.args);
        EXPECT_EQ(c.status, status) << c.args[1] << " " << text;
        const std::string added = outbox().substr(before.size() - 2);
        EXPECT_EQ(c.reached.size(), count("\"profile\": ", added)) << c.args[1] << added;
        for (const auto &p : c.reached) {
            EXPECT_TRUE(in(added, "\"profile\": \"" + p + "\"")) << p;
        }
    }
    // A test message ignores levels: the level-4 profile gets it too.
    set(CALLHOME_PROFILE_ALERTGROUP_OPC, profile_group_rec("lvl4", "Test"));
    const std::string before = outbox();
    set(CALLHOME_ALERT_ACTION_OPC, action_rec("Test Call Home"));
    EXPECT_TRUE(in(outbox().substr(before.size() - 2), "\"lvl4\""));
}

TEST_F(Dispatch, ThrottlesThe31stAlertOfAGroupWithinAnHour) {
    profile("p", 1, "all");
    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(0, svc->admin({"alert", "Syslog", "m"}).first);
        now += 60;
    }
    open(); // a restart keeps the rolling hour
    EXPECT_EQ("alert queued for 0 profile(s), throttled for 1\n",
              svc->admin({"alert", "Syslog", "m"}).second);
    EXPECT_EQ(0, svc->admin({"alert", "Diagnostic", "m"}).first); // another group
    set(CALLHOME_ALERT_ACTION_OPC, action_rec("Test Call Home")); // not an alert
    EXPECT_EQ(1u, count("\"state\": \"throttled\""));
    EXPECT_TRUE(in(svc->admin({"dump"}).second, "\"throttled\": 1"));
    now += 3600; // the first ones left the rolling hour
    EXPECT_EQ("alert queued for 1 profile(s)\n", svc->admin({"alert", "Syslog", "m"}).second);
    set(CALLHOME_MSG_THROTTLING_OPC, switch_rec(0)); // switched off: nothing throttled
    for (int i = 0; i < 35; ++i) {
        svc->admin({"alert", "Syslog", "m"});
    }
    EXPECT_EQ(1u, count("\"state\": \"throttled\""));
}

// The group's commands run beside the service; a restart before they ran sends the message
// without their output.
TEST_F(Dispatch, CommandsOfTheGroupAreAttachedWithoutBlocking) {
    profile("p", 1, "all");
    set(CALLHOME_USER_DEF_CMD_OPC, user_cmd_rec("Diagnostic", 1, "uname -s"));
    set(CALLHOME_USER_DEF_CMD_OPC, user_cmd_rec("Diagnostic", 2, "rm -rf /tmp/x;id"));
    ASSERT_EQ(0, svc->admin({"alert", "Diagnostic", "disk"}).first);
    EXPECT_EQ(1u, count("\"state\": \"composing\""));
    pollfd p{svc->event_fd(), POLLIN, 0};
    ASSERT_EQ(1, poll(&p, 1, 10000));
    svc->on_event();
    const std::string out = outbox();
    EXPECT_TRUE(in(out, "\"state\": \"queued\"")) << out;
    EXPECT_TRUE(in(out, "--- uname -s (exit status 0)\\nLinux\\n")) << out;
    EXPECT_TRUE(in(out, "--- rm -rf /tmp/x;id (not run: rm is not in allowed_commands)"));
    ASSERT_EQ(0, svc->admin({"alert", "Diagnostic", "disk"}).first);
    open();
    EXPECT_EQ(1u, count("--- uname -s (not run: the service stopped before it ran)"));
    EXPECT_EQ(2u, count("\"state\": \"queued\""));
}

TEST_F(Dispatch, PeriodicInventoryOncePerDueTimeAcrossRestarts) {
    profile("p", 5, "Inventory");
    set(CALLHOME_USER_DEF_CMD_OPC, user_cmd_rec("Inventory", 1, "uname -s")); // alerts only
    // Daily at 12:01, set at 12:00: due in a minute.
    set(CALLHOME_PERIODIC_INVENTORY_OPC, periodic_rec(1, 1, 12 * 60 + 1));
    EXPECT_EQ(60000, svc->timeout_ms());
    svc->on_event();
    EXPECT_EQ("[]\n", outbox());
    now += 60;
    EXPECT_EQ(0, svc->timeout_ms());
    svc->on_event();
    svc->on_event();
    EXPECT_EQ(1u, count("Installed packages ("));
    EXPECT_EQ(1u, count("\"state\": \"queued\""));
    EXPECT_TRUE(in(svc->admin({"dump"}).second, "\"next_due\": \"2026-03-11 12:01 +0000\""));
    // Restarted right after: not sent again.
    open();
    svc->on_event();
    EXPECT_EQ(1u, count("Installed packages ("));
    // Down across the next two due times: sent once at the start.
    svc.reset();
    now += 2 * 86400 + 3600;
    open();
    svc->on_event();
    svc->on_event();
    EXPECT_EQ(2u, count("Installed packages ("));
    // A change of the time of day reschedules from the next matching time.
    set(CALLHOME_PERIODIC_INVENTORY_OPC, periodic_rec(1, 30, 23 * 60 + 59));
    svc->on_event();
    EXPECT_TRUE(in(svc->admin({"dump"}).second, "\"next_due\": \"2026-03-12 23:59 +0000\""));
    // Switched off: nothing is due.
    set(CALLHOME_PERIODIC_INVENTORY_OPC, periodic_rec(0, 30, 23 * 60 + 59));
    EXPECT_EQ(-1, svc->timeout_ms());
}

} // namespace
