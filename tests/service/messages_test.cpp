// The messages the service sends by itself. Their pieces: inventory, the periodic schedule,
// user-defined commands, throttling and the cut at the maximum size. Then through the service
// as the daemon hosts it, with its clock injected: alerts by group and level, throttling,
// commands attached, and the periodic inventory across restarts.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "callhome/service.hpp"
#include "golden.hpp"
#include "message.hpp"
#include "records.hpp"
#include "run_command.hpp"
#include "runner.hpp"
#include "schedule.hpp"
#include "throttle.hpp"

using namespace callhome;
using namespace svc_test;
namespace fs = std::filesystem;

namespace {

std::string repeat(const std::string &s, size_t n) {
    std::string out;
    while (n-- > 0) {
        out += s;
    }
    return out;
}

// Every message text whole, in golden/messages.txt: the inventory read from a fake host, its
// renderings, and the inventory, alert (commands attached) and test messages in each format.
TEST(Message, TextsAsGolden) {
    const callhome_test::TempDir root;
    const std::pair<const char *, const char *> files[] = {
        {"/etc/os-release", "NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian <12> & \\\"x\\\"\"\n"},
        {"/proc/cpuinfo", "processor\t: 0\nmodel name\t: Test CPU @ 2GHz\n\nprocessor\t: 1\n"},
        {"/proc/meminfo", "MemTotal:  2048000 kB\nMemFree: 1 kB\nMemAvailable:  1024000 kB\n"},
        {"/proc/uptime", "93784.52 1000.00\n"},
        {"/var/lib/dpkg/status",
         "Package: zlib1g\nStatus: install ok installed\nArchitecture: amd64\n"
         "Version: 1:1.2.13\nDescription: compression\n more text\n .\n\n"
         "Package: gone\nStatus: deinstall ok config-files\nVersion: 1.0\n\n"
         "Package: pkg-\xC3\xA9\nStatus: hold ok installed\nArchitecture: all\nVersion: 3.134\n"
         "Conffiles:\n /etc/adduser.conf abc\n"},
    };
    for (const auto &[path, text] : files) {
        fs::create_directories(fs::path(root.path + path).parent_path());
        std::ofstream(root.path + path) << text;
    }
    auto inv = inventory::collect(root.path);
    EXPECT_FALSE(inv.host.empty() || inv.kernel.empty());
    inv.host = "h";
    inv.kernel = "k";
    std::vector<commands::Result> cmds(2);
    cmds[0].line = "uname -a";
    cmds[0].ran = true;
    cmds[0].exit_status = 0;
    cmds[0].output = "Linux <box>\x01\n";
    cmds[1].line = "rm -rf /tmp/x";
    cmds[1].note = "not run: rm is not in allowed_commands";
    message::Input alert{message::kAlert, {{"priority", "2"}}, 1773100800, "h", "p"};
    alert.group = "Diagnostic";
    alert.severity = 3;
    alert.subject = "disk";
    alert.text = "disk full";
    alert.commands = &cmds;
    message::Input inventory{message::kInventory, {{"custId", "C-1"}}, 1773100800, "h", "p"};
    inventory.inventory = &inv;
    // Priority 8: never set.
    message::Input test{message::kTest, {{"siteId", "S"}}, 1773100800, "h", "p"};
    std::string out = "== inventory text\n" + inventory::to_text(inv) + "== inventory short\n" +
                      inventory::to_short(inv) + "\n== inventory of nothing\n" +
                      inventory::to_short(inventory::collect(root / "nowhere")) + "\n";
    for (const message::Input *in : {&alert, &inventory, &test}) {
        for (int format : {message::FullText, message::Xml, message::ShortText}) {
            const auto m = message::compose(*in, format, 0);
            out += "== " + in->action + " format " + std::to_string(format) +
                   "\nSubject: " + m.subject + "\n" + m.body;
        }
    }
    callhome_test::expect_golden(GOLDEN_DIR "/messages.txt", out);
}

// A long run of two-byte characters: the maxima below cut it at both alignments.
TEST(Message, EachFormatIsCutOnACharacterBoundaryWithinTheMaximum) {
    const message::Input in{message::kTest, {{"custId", repeat("\xC3\xA9", 600)}}, 0, "h", "p"};
    for (int format : {message::FullText, message::Xml, message::ShortText}) {
        const auto whole = message::compose(in, format, 0).body;
        EXPECT_EQ(whole, message::compose(in, format, uint32_t(whole.size())).body);
        for (uint32_t max : {1000u, 1001u}) {
            const auto body = message::compose(in, format, max).body;
            ASSERT_LE(body.size(), max);
            const auto note = body.rfind("\n[message cut: ");
            ASSERT_NE(std::string::npos, note) << format << " " << max;
            EXPECT_EQ(0, whole.compare(0, note, body, 0, note));
            EXPECT_NE(0x80, static_cast<unsigned char>(whole[note]) & 0xC0);
            EXPECT_EQ("\n[message cut: " + std::to_string(whole.size() - note) +
                          " bytes left out]\n",
                      body.substr(note));
        }
    }
}

// ---- schedule ----

// The service's local time is UTC here.
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
    const struct {
        uint32_t days, minutes;
        int64_t now, first, second;
    } cases[] = {
        {1, 0, t(0, 12, 0), t(1, 0, 0), t(2, 0, 0)},
        {1, 1439, t(0, 12, 0), t(0, 23, 59), t(1, 23, 59)},
        {30, 0, t(0, 0, 0), t(1, 0, 0), t(31, 0, 0)}, // exactly at the time: next day
        {30, 1439, t(0, 23, 58, 59), t(0, 23, 59), t(30, 23, 59)},
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
    // Restarts after a due time or after a run: through the service below, where what was
    // kept matters.
    // Any setting changed while down: the next matching time of day.
    for (const schedule::Settings s : {schedule::Settings{true, 2, 600}, {true, 1, 540}}) {
        EXPECT_EQ(schedule::next_time_of_day(t(0, 9, 30), s.minutes),
                  schedule::restore(st, s, t(0, 9, 30)).next_due);
    }
    r = schedule::restore(st, {false, 1, 600}, t(0, 9, 30));
    EXPECT_FALSE(schedule::is_due(r, t(5, 0, 0)));
    r = schedule::restore(r, daily, t(5, 11, 0)); // switched back on: from the next 10:00
    EXPECT_EQ(t(6, 10, 0), r.next_due);
}

// ---- commands ----

TEST(Commands, RunWithoutAShellWithinTheirLimits) {
    // Exits with its argument, or leaves a child holding the output, or closes its output
    // and stays.
    const callhome_test::TempDir dir;
    const std::string helper = dir / "helper";
    std::ofstream(helper) << "#!/bin/sh\ncase $1 in\nhold) /usr/bin/sleep 30 & exit 0;;\n"
                             "quiet) exec >&- 2>&-; /usr/bin/sleep 30;;\n*) exit $1;;\nesac\n";
    chmod(helper.c_str(), 0755);
    const std::vector<std::string> allowed = {"/usr/bin/echo", helper,         "/usr/bin/sleep",
                                              "/usr/bin/yes",  "/usr/bin/env", "/usr/bin/cat"};
    const std::string late = "stopped at the time limit of 1 s";
    const struct {
        std::string line, output, status; // not started when status begins "not run"
    } cases[] = {
        {"echo a;touch /tmp/x $(id) `id`", "a;touch /tmp/x $(id) `id`\n", "exit status 0"},
        {"  /usr/bin/echo   two\twords ", "two words\n", "exit status 0"},
        {"helper 3", "", "exit status 3"},
        {"env", "PATH=/usr/bin:/bin\nLANG=C.UTF-8\n", "exit status 0"},
        {"cat", "", "exit status 0"}, // no standard input: it does not wait for one
        {"rm -rf /tmp/x", "", "not run: rm is not in allowed_commands"},
        {"/bin/echo x", "", "not run: /bin/echo is not in allowed_commands"},
        {"./echo x", "", "not run: ./echo is not in allowed_commands"},
        {"", "", "not run: empty command"},
        {"sleep 30", "", late},
        {"helper hold", "", late},
        {"helper quiet", "", late},
        {"yes", repeat("y\n", 32 * 1024), "stopped at the output limit of 64 KiB"},
    };
    for (const auto &c : cases) {
        const auto r = commands::run(c.line, allowed, {1000, 64 * 1024});
        EXPECT_EQ(c.status.rfind("not run", 0) != 0, r.ran) << c.line;
        EXPECT_EQ(c.output, r.output) << c.line;
        EXPECT_EQ(c.status, r.status_text()) << c.line;
    }
    for (const auto &path : commands::default_allowed()) {
        EXPECT_EQ(0, access(path.c_str(), X_OK)) << path;
    }
}

// ---- throttling ----

TEST(Throttle, ThirtyPerProfileAndGroupInAnyRollingHour) {
    throttle::Throttle th;
    using D = throttle::Decision;
    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(D::Send, th.admit("p", "Diagnostic", 1000 + i)) << i;
    }
    EXPECT_EQ(D::ThrottledFirst, th.admit("p", "Diagnostic", 1100)); // the 31st: logged
    EXPECT_EQ(D::Throttled, th.admit("p", "Diagnostic", 1200));
    EXPECT_EQ(D::Send, th.admit("q", "Diagnostic", 1200)); // another profile
    // The first message leaves the window an hour after it was queued.
    EXPECT_EQ(D::Throttled, th.admit("p", "Diagnostic", 1000 + 3599));
    EXPECT_EQ(D::Send, th.admit("p", "Diagnostic", 1000 + 3600));
    for (int i = 0; i < 29; ++i) {
        ASSERT_EQ(D::Send, th.admit("p", "Diagnostic", 1100 + 3600)) << i;
    }
    EXPECT_EQ(D::ThrottledFirst, th.admit("p", "Diagnostic", 1100 + 3600)); // a new hour's first
}

} // namespace
