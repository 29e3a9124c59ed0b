// The pieces of the messages the service sends by itself: inventory, the periodic schedule,
// user-defined commands, throttling and the cut at the maximum size.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "commands.hpp"
#include "inventory.hpp"
#include "message.hpp"
#include "runner.hpp"
#include "schedule.hpp"
#include "throttle.hpp"

using namespace callhome;

namespace {

// A host tree of small fixture files.
class Inventory : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/inventory-XXXXXX";
        root = mkdtemp(tmpl);
        for (const char *d : {"/etc", "/proc", "/var", "/var/lib", "/var/lib/dpkg"}) {
            mkdir((root + d).c_str(), 0755);
        }
        put("/etc/os-release",
            "NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian <12> & \\\"x\\\"\"\n");
        put("/proc/cpuinfo", "processor\t: 0\nmodel name\t: Test CPU @ 2GHz\n\n"
                             "processor\t: 1\nmodel name\t: Test CPU @ 2GHz\n");
        put("/proc/meminfo", "MemTotal:        2048000 kB\nMemFree: 1 kB\n"
                             "MemAvailable:    1024000 kB\n");
        put("/proc/uptime", "93784.52 1000.00\n");
        put("/var/lib/dpkg/status",
            "Package: zlib1g\nStatus: install ok installed\nArchitecture: amd64\n"
            "Version: 1:1.2.13\nDescription: compression\n more text\n .\n\n"
            "Package: gone\nStatus: deinstall ok config-files\nVersion: 1.0\n\n"
            "Package: adduser\nStatus: hold ok installed\nArchitecture: all\nVersion: 3.134\n"
            "Conffiles:\n /etc/adduser.conf abc\n");
    }
    void TearDown() override { std::system(("rm -rf " + root).c_str()); }
    void put(const std::string &path, const std::string &text) {
        std::ofstream(root + path) << text;
    }
    std::string root;
};

TEST_F(Inventory, ReadsTheHostFiles) {
    const auto inv = inventory::collect(root);
    EXPECT_EQ("Debian <12> & \"x\"", inv.os_release);
    EXPECT_EQ("Test CPU @ 2GHz", inv.cpu_model);
    EXPECT_EQ(2u, inv.cpu_count);
    EXPECT_EQ(2048000u, inv.mem_total_kb);
    EXPECT_EQ(1024000u, inv.mem_available_kb);
    EXPECT_EQ(93784u, inv.uptime_sec);
    ASSERT_EQ(2u, inv.packages.size()); // config-files only is not installed
    EXPECT_EQ("adduser", inv.packages[0].name);
    EXPECT_EQ("3.134", inv.packages[0].version);
    EXPECT_EQ("zlib1g", inv.packages[1].name);
    EXPECT_EQ("1:1.2.13", inv.packages[1].version);
    EXPECT_FALSE(inv.host.empty());
    EXPECT_FALSE(inv.kernel.empty());

    const auto text = inventory::to_text(inv);
    EXPECT_NE(std::string::npos, text.find("Uptime: 1 days 02:03:04"));
    EXPECT_NE(std::string::npos, text.find("Installed packages (2):\n    adduser 3.134 all\n"
                                           "    zlib1g 1:1.2.13 amd64\n"));
    EXPECT_NE(std::string::npos, inventory::to_xml(inv, "").find(
                                     "<os-release>Debian &lt;12&gt; &amp; &quot;x&quot;<"));
    const auto brief = inventory::to_short(inv);
    EXPECT_EQ(std::string::npos, brief.find('\n'));
    EXPECT_NE(std::string::npos, brief.find("packages=2 cpus=2"));
}

TEST_F(Inventory, MissingFilesLeaveFieldsEmpty) {
    const auto inv = inventory::collect(root + "/nowhere");
    EXPECT_EQ("", inv.os_release);
    EXPECT_EQ(0u, inv.cpu_count);
    EXPECT_TRUE(inv.packages.empty());
}

TEST_F(Inventory, MessageInEachFormatAndItsCut) {
    auto inv = inventory::collect(root);
    for (int i = 0; i < 200; ++i) {
        inv.packages.push_back({"pkg-é" + std::to_string(i), "1.0", "amd64"});
    }
    message::Input in{message::kInventory, {{"custId", "c<1>"}}, 0, "h", "p"};
    in.inventory = &inv;
    struct Case {
        int format;
        const char *has;
    } cases[] = {{message::FullText, "    pkg-é199 1.0 amd64\n"},
                 {message::Xml, "<package name=\"pkg-é199\" version=\"1.0\" arch=\"amd64\"/>"},
                 {message::ShortText, "packages=202 cpus=2"}};
    for (const auto &c : cases) {
        const auto whole = message::compose(in, c.format, 0).body;
        EXPECT_NE(std::string::npos, whole.find(c.has)) << c.format;
        if (c.format == message::ShortText) {
            EXPECT_EQ(whole.size() - 1, whole.find('\n'));
            continue;
        }
        for (uint32_t max : {uint32_t(whole.size()), 1000u, 1001u, 1002u}) {
            const auto body = message::compose(in, c.format, max).body;
            ASSERT_LE(body.size(), max);
            if (max == whole.size()) {
                EXPECT_EQ(whole, body);
                continue;
            }
            // Cut within a character: the kept part is a prefix ending on a boundary.
            const auto note = body.rfind("\n[message cut: ");
            ASSERT_NE(std::string::npos, note) << max;
            EXPECT_EQ(0, whole.compare(0, note, body, 0, note));
            EXPECT_NE(0x80, static_cast<unsigned char>(whole[note]) & 0xC0);
            EXPECT_EQ("\n[message cut: " + std::to_string(whole.size() - note) +
                          " bytes left out]\n",
                      body.substr(note));
        }
    }
}

TEST(Message, AlertCarriesCommandsInEachFormat) {
    std::vector<commands::Result> cmds(2);
    cmds[0].line = "uname -a";
    cmds[0].ran = true;
    cmds[0].exit_status = 0;
    cmds[0].output = "Linux <box>\x01\n";
    cmds[1].line = "rm -rf /tmp/x";
    cmds[1].note = "not run: rm is not in allowed_commands";
    message::Input in{message::kAlert, {{"priority", "2"}}, 0, "h", "p"};
    in.group = "Diagnostic";
    in.severity = 3;
    in.subject = "disk";
    in.text = "disk full";
    in.commands = &cmds;
    const auto full = message::compose(in, message::FullText, 0);
    EXPECT_EQ("Call home alert Diagnostic (severity 3) from h: disk", full.subject);
    EXPECT_NE(std::string::npos, full.body.find("\n--- uname -a (exit status 0)\nLinux <box>"));
    // The priority as the MIB reads it: kept from 0, shown from 1; 8 while never set.
    EXPECT_NE(std::string::npos, full.body.find("\nService priority: 3\n"));
    EXPECT_NE(std::string::npos,
              message::compose({message::kTest, {}, 0, "h", "p"}, message::FullText, 0)
                  .body.find("\nService priority: 8\n"));
    EXPECT_NE(std::string::npos,
              full.body.find("--- rm -rf /tmp/x (not run: rm is not in allowed_commands)"));
    const auto xml = message::compose(in, message::Xml, 0).body;
    EXPECT_NE(std::string::npos, xml.find("status=\"exit status 0\">Linux &lt;box&gt;?\n<"));
    EXPECT_NE(std::string::npos, xml.find("ran=\"false\" status=\"not run: rm is not in"));
    const auto brief = message::compose(in, message::ShortText, 0).body;
    EXPECT_NE(std::string::npos, brief.find("commands=\"uname -a; rm -rf /tmp/x\""));
    EXPECT_EQ(std::string::npos, brief.find("Linux"));
}

// ---- schedule ----

class Schedule : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }
    // 2026-03-10 + seconds.
    static int64_t t(int64_t day, int hh, int mm, int ss = 0) {
        return 1773100800 + day * 86400 + hh * 3600 + mm * 60 + ss;
    }
};

TEST_F(Schedule, NextDueTimes) {
    struct Case {
        uint32_t days, minutes;
        int64_t now, first, second;
    } cases[] = {
        {1, 0, t(0, 12, 0), t(1, 0, 0), t(2, 0, 0)},
        {1, 1439, t(0, 12, 0), t(0, 23, 59), t(1, 23, 59)},
        {30, 0, t(0, 0, 0), t(1, 0, 0), t(31, 0, 0)}, // exactly at the time: next day
        {30, 1439, t(0, 23, 58, 59), t(0, 23, 59), t(30, 23, 59)},
        {7, 480, t(0, 7, 59), t(0, 8, 0), t(7, 8, 0)},
    };
    for (const auto &c : cases) {
        auto st = schedule::reschedule({true, c.days, c.minutes}, c.now);
        EXPECT_EQ(c.first, st.next_due) << c.days << " " << c.minutes;
        EXPECT_FALSE(schedule::is_due(st, c.first - 1));
        ASSERT_TRUE(schedule::is_due(st, c.first));
        st = schedule::advance(st, c.first + 5);
        EXPECT_EQ(c.second, st.next_due);
        EXPECT_EQ(c.first, st.last_run);
    }
    EXPECT_EQ(0, schedule::reschedule({false, 1, 0}, t(0, 0, 0)).next_due);
}

TEST_F(Schedule, RestartsAndChanges) {
    const schedule::Settings daily{true, 1, 600};
    const auto st = schedule::reschedule(daily, t(0, 9, 0)); // due at 10:00 on day 0
    // Restart before the due time: unchanged, not yet due.
    auto r = schedule::restore(st, daily, t(0, 9, 30));
    EXPECT_EQ(t(0, 10, 0), r.next_due);
    EXPECT_FALSE(schedule::is_due(r, t(0, 9, 30)));
    // Down across three due times: sent once at the start, then the next one after now.
    r = schedule::restore(st, daily, t(3, 12, 0));
    ASSERT_TRUE(schedule::is_due(r, t(3, 12, 0)));
    r = schedule::advance(r, t(3, 12, 0));
    EXPECT_EQ(t(4, 10, 0), r.next_due);
    EXPECT_FALSE(schedule::is_due(r, t(3, 12, 0)));
    // Restart right after a run that was recorded: not sent again.
    const auto ran = schedule::advance(schedule::restore(st, daily, t(0, 10, 0)), t(0, 10, 0));
    EXPECT_FALSE(schedule::is_due(schedule::restore(ran, daily, t(0, 10, 1)), t(0, 10, 1)));
    // A change of any of the three settings (also while down): the next matching time of day.
    for (const schedule::Settings s :
         {schedule::Settings{true, 2, 600}, schedule::Settings{true, 1, 540}}) {
        r = schedule::restore(st, s, t(0, 9, 30));
        EXPECT_EQ(schedule::next_time_of_day(t(0, 9, 30), s.minutes), r.next_due);
    }
    r = schedule::restore(st, {false, 1, 600}, t(0, 9, 30));
    EXPECT_FALSE(schedule::is_due(r, t(5, 0, 0)));
    r = schedule::restore(r, daily, t(5, 11, 0)); // switched back on: from the next 10:00
    EXPECT_EQ(t(6, 10, 0), r.next_due);
}

// ---- commands ----

TEST(Commands, RunWithoutAShell) {
    // A helper that exits with its argument, or leaves a child holding the output, or closes
    // its output and stays.
    char dir[] = "/tmp/commands-XXXXXX";
    const std::string helper = std::string(mkdtemp(dir)) + "/helper";
    std::ofstream(helper) << "#!/bin/sh\ncase $1 in\nhold) /usr/bin/sleep 30 & exit 0;;\n"
                             "quiet) exec >&- 2>&-; /usr/bin/sleep 30;;\n*) exit $1;;\nesac\n";
    chmod(helper.c_str(), 0755);
    const std::vector<std::string> allowed = {"/usr/bin/echo", helper,         "/usr/bin/sleep",
                                              "/usr/bin/yes",  "/usr/bin/env", "/usr/bin/cat"};
    const commands::Limits quick{1000, 64 * 1024};
    struct Case {
        const char *line;
        bool ran;
        const char *output; // exact, or a prefix when `prefix`
        const char *status;
    } cases[] = {
        {"echo a;touch /tmp/x $(id) `id`", true, "a;touch /tmp/x $(id) `id`\n", "exit status 0"},
        {"  /usr/bin/echo   two\twords ", true, "two words\n", "exit status 0"},
        {"helper 3", true, "", "exit status 3"},
        {"env", true, "PATH=/usr/bin:/bin\nLANG=C.UTF-8\n", "exit status 0"},
        {"cat", true, "", "exit status 0"}, // no standard input: it does not wait for one
        {"rm -rf /tmp/x", false, "", "not run: rm is not in allowed_commands"},
        {"/bin/echo x", false, "", "not run: /bin/echo is not in allowed_commands"},
        {"./echo x", false, "", "not run: ./echo is not in allowed_commands"},
        {"", false, "", "not run: empty command"},
        {"sleep 30", true, "", "stopped at the time limit of 1 s"},
        {"helper hold", true, "", "stopped at the time limit of 1 s"},
        {"helper quiet", true, "", "stopped at the time limit of 1 s"},
    };
    for (const auto &c : cases) {
        const auto r = commands::run(c.line, allowed, quick);
        EXPECT_EQ(c.ran, r.ran) << c.line;
        EXPECT_EQ(c.output, r.output) << c.line;
        EXPECT_EQ(c.status, r.status_text()) << c.line;
    }
    const auto flood = commands::run("yes", allowed, quick);
    EXPECT_EQ(64u * 1024, flood.output.size());
    EXPECT_EQ("stopped at the output limit of 64 KiB", flood.status_text());
    EXPECT_EQ("/usr/bin/uname", commands::resolve("uname", commands::default_allowed()));
    for (const auto &path : commands::default_allowed()) {
        EXPECT_EQ(0, access(path.c_str(), X_OK)) << path;
    }
    std::system(("rm -rf " + std::string(dir)).c_str());
}

TEST(Commands, RunnerWorksBesideTheCaller) {
    commands::Runner runner({"/usr/bin/sleep", "/usr/bin/echo"}, {1000, 1024});
    runner.submit({7, {"sleep 30", "echo done"}});
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(1u, runner.pending()); // submit returned at once
    pollfd p{runner.fd(), POLLIN, 0};
    ASSERT_EQ(1, poll(&p, 1, 10000));
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
    const auto done = runner.take();
    ASSERT_EQ(1u, done.size());
    EXPECT_EQ(7u, done[0].id);
    ASSERT_EQ(2u, done[0].results.size());
    EXPECT_TRUE(done[0].results[0].timed_out);
    EXPECT_EQ("done\n", done[0].results[1].output);
    EXPECT_EQ(0u, runner.pending());
}

// ---- throttling ----

TEST(Throttle, ThirtyPerProfileAndGroupInAnyRollingHour) {
    throttle::Throttle th;
    using D = throttle::Decision;
    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(D::Send, th.admit("p", "Diagnostic", 1000 + i)) << i;
    }
    EXPECT_EQ(D::ThrottledFirst, th.admit("p", "Diagnostic", 1100)); // the 31st
    EXPECT_EQ(D::Throttled, th.admit("p", "Diagnostic", 1200));
    EXPECT_EQ(D::Send, th.admit("p", "Syslog", 1200));     // another group
    EXPECT_EQ(D::Send, th.admit("q", "Diagnostic", 1200)); // another profile
    auto c = th.counters(1200)[{"p", "Diagnostic"}];
    EXPECT_EQ(30, c.in_window);
    EXPECT_EQ(2u, c.throttled);
    // The first message leaves the window an hour after it was queued.
    EXPECT_EQ(D::Throttled, th.admit("p", "Diagnostic", 1000 + 3599));
    EXPECT_EQ(D::Send, th.admit("p", "Diagnostic", 1000 + 3600));
    for (int i = 0; i < 29; ++i) {
        ASSERT_EQ(D::Send, th.admit("p", "Diagnostic", 1100 + 3600)) << i;
    }
    EXPECT_EQ(D::ThrottledFirst, th.admit("p", "Diagnostic", 1100 + 3600)); // a new hour's first
}

} // namespace
