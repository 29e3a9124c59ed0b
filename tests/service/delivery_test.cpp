// Delivery with a real SMTP server: callhomed as a process (short time-out and retry delays
// from its --config file), configured through its request channel, sending to aiosmtpd
// (tests/service/smtp_server.py) on a free port. What reaches the server, what the status
// objects and the outbox say, what survives kill -9.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "callhome/config.hpp"
#include "cmi.h"
#include "commands.hpp"
#include "platform/testing.hpp"
#include "records.hpp"
#include "run_command.hpp"
#include "smtp.hpp"
#include "golden.hpp"

using namespace svc_test;
using namespace callhome_test;
using Clock = std::chrono::steady_clock;

namespace {

void spit(const std::string &path, const std::string &text, mode_t mode = 0600) {
    std::ofstream(path) << text;
    chmod(path.c_str(), mode);
}

class Delivery : public ::testing::Test {
  protected:
    void SetUp() override {
        mkdir(mail.c_str(), 0700);
        write_config("");
        platform::set_socket_path(dir / "callhomed.sock");
    }
    void TearDown() override {
        daemon.stop(SIGKILL);
        platform::disconnect();
        platform::set_socket_path("");
    }

    void write_config(const std::string &extra) {
        spit(dir / "callhomed.conf", "smtp_timeout_s = 2\nretry_delays_s = 1, 1\n" + extra);
    }
    void start_smtp(Strings opts = {}) {
        unlink((mail + "/ready").c_str());
        opts.insert(opts.begin(), {"/usr/bin/python3", SMTP_SERVER_SCRIPT, "--port",
                                   std::to_string(port), "--dir", mail});
        smtp = Child(opts, [&] { redirect(dir / "smtp.log"); });
        ASSERT_TRUE(eventually([&] { return access((mail + "/ready").c_str(), F_OK) == 0; }))
            << slurp(dir / "smtp.log");
    }
    void start_daemon() {
        daemon = Child({CALLHOMED_PATH, "--socket", dir / "callhomed.sock", "--db",
                        dir / "callhome.db", "--config", dir / "callhomed.conf"},
                       [&] { redirect(dir / "callhomed.log"); });
        ASSERT_TRUE(eventually([&] { return ctl({"ping"}).status == 0; }))
            << slurp(dir / "callhomed.log");
    }
    CommandResult ctl(Strings args) {
        args.insert(args.begin(), {CALLHOMECTL_PATH, "--socket", dir / "callhomed.sock"});
        return run_program(args, dir / "ctl");
    }
    // One request through the platform's channel, as the module sends it.
    int request(int opcode, int type, Bytes rec, Bytes *answer = nullptr) {
        void *resp = nullptr;
        uint32_t len = uint32_t(rec.size());
        const int st = cmi_req_resp(opcode, type, rec.data(), answer ? &resp : nullptr, &len,
                                    "tester", 0, 0, 0, 2);
        if (answer && resp) {
            answer->assign(static_cast<uint8_t *>(resp), static_cast<uint8_t *>(resp) + len);
        }
        free(resp);
        return st;
    }
    // Contact details, the service on, the headers and server, profile "p" with `to`
    // subscribed to Test.
    void configure(const Strings &to) {
        std::vector<std::pair<int, Bytes>> writes = {
            {CALLHOME_INFO_OPC, info_rec("sysContactEmail", "noc@example.com")},
            {CALLHOME_INFO_OPC, info_rec("sysContactPhoneNumber", "+1 555 0100")},
            {CALLHOME_INFO_OPC, info_rec("sysStreetAddress", "1 Main Street")},
            {CALLHOME_ENABLE_OPC, switch_rec(1)},
            {CALLHOME_EMAIL_CONF_OPC,
             email_conf_rec("dev@example.com", "noc@example.com", "receipts@example.com",
                            "127.0.0.1", 1, uint32_t(port))},
            {CALLHOME_DEST_PROFILE_OPC, profile_rec("p", 1)},
            {CALLHOME_PROFILE_ALERTGROUP_OPC, profile_group_rec("p", "Test")},
        };
        for (size_t i = 0; i < to.size(); ++i) {
            writes.push_back({CALLHOME_DEST_EMAIL_OPC, dest_email_rec("p", int32_t(i + 1), to[i])});
        }
        for (const auto &[op, rec] : writes) {
            ASSERT_EQ(0, request(op, SET_REQ, rec)) << op;
        }
    }
    void trigger() {
        ASSERT_EQ(0, request(CALLHOME_ALERT_ACTION_OPC, SET_REQ, action_rec("Test Call Home")));
    }
    callhome_status_t status() {
        Bytes b;
        EXPECT_EQ(0, request(CALLHOME_STATUS_OPC, GET_REQ, {}, &b));
        return record_of<callhome_status_t>(b);
    }
    // The error message as the service sends it (padded by four characters the module cuts).
    std::string error_shown() {
        const std::string shown = text(status().callhome_error_message);
        return shown.substr(0, shown.size() - 4);
    }
    std::string outbox() { return ctl({"outbox"}).out; }
    // The newest message of the outbox listing.
    std::string newest() {
        const std::string box = outbox();
        const size_t at = box.rfind("\"id\": ");
        return at == std::string::npos ? "" : box.substr(at);
    }
    // The messages the server accepted, in order.
    Strings received() {
        Strings out;
        for (std::string m;
             !(m = slurp(mail + "/msg-" + std::to_string(out.size() + 1))).empty();) {
            out.push_back(m);
        }
        return out;
    }
    bool newest_has(const std::string &text) { return has(newest(), text); }

    TempDir dir;
    std::string mail = dir / "mail";
    int port = free_port(SOCK_STREAM);
    Child smtp, daemon;
};

// A recipient the server puts off (451) gets the same message on the next attempt; one it
// refuses for good (550) never does.
TEST_F(Delivery, AcceptedMessageCarriesEveryHeaderAndPutOffRecipientsGetItLater) {
    start_smtp({"--reject", "gone@example.com", "--defer", "later@example.com"});
    start_daemon();
    configure({"a@example.com", "gone@example.com", "later@example.com", "b@example.org"});
    trigger();
    ASSERT_TRUE(eventually([&] { return received().size() == 2; })) << outbox();
    ASSERT_TRUE(eventually([&] { return newest_has("\"state\": \"sent\""); })) << outbox();
    const std::string m = received()[0], later = received()[1];
    EXPECT_EQ(0u, m.find("from: dev@example.com\nrcpt: a@example.com\nrcpt: b@example.org\n\n"))
        << m;
    EXPECT_EQ(0u, later.find("from: dev@example.com\nrcpt: later@example.com\n\n")) << later;
    const auto id = [](const std::string &mail) {
        const size_t at = mail.find("\nMessage-ID: ");
        return mail.substr(at, mail.find('\n', at + 1) - at);
    };
    EXPECT_EQ(id(m), id(later));
    for (const char *h : {"\nFrom: dev@example.com\r\n",
                          "\nTo: a@example.com,\r\n gone@example.com,\r\n later@example.com,\r\n "
                          "b@example.org\r\n",
                          "\nReply-To: noc@example.com\r\n",
                          "\nDisposition-Notification-To: receipts@example.com\r\n",
                          "\nSubject: Call home test", "\r\n\r\nMessage type: Test Call Home"}) {
        EXPECT_TRUE(has(m, h)) << h << "\n" << m;
    }
    const auto s = status();
    EXPECT_EQ(1u, be(s.callhome_message_status));
    EXPECT_EQ(1u, be(s.num_alerts_sent)); // one message, whatever its recipients
    EXPECT_NE(0u, be(s.last_alert_sent.tv_sec));
    EXPECT_EQ("", text(s.callhome_error_message));
    const std::string box = outbox();
    EXPECT_TRUE(has(box, "550 5.1.1 unknown mailbox gone@example.com; 451 4.2.1 mailbox full, "
                         "try again later later@example.com"))
        << box;
    EXPECT_TRUE(newest_has("\"attempts\": 2")) << box;
    EXPECT_FALSE(has(box, "\"sent_at\": \"\"")) << box;
}

// A refusal's words reach the status objects whole; only temporary causes are retried.
TEST_F(Delivery, FailuresKeepTheServersWordsAndOnlyTemporaryOnesAreRetried) {
    const struct {
        Strings server; // smtp_server.py options; empty: nothing listens
        std::string reason;
        int attempts; // with retry_delays_s = 1, 1: three for a temporary cause
    } cases[] = {
        {{"--reject", "ops@example.com"}, "550 5.1.1 unknown mailbox ops@example.com", 1},
        {{"--tempfail"}, "451 4.3.0 mailbox busy, try again later ops@example.com", 3},
        {{}, "connection to 127.0.0.1:" + std::to_string(port) + " refused", 3},
    };
    start_daemon();
    configure({"ops@example.com"});
    for (const auto &c : cases) {
        SCOPED_TRACE(c.reason);
        smtp.stop();
        if (!c.server.empty()) {
            start_smtp(c.server);
        }
        trigger();
        ASSERT_TRUE(eventually([&] { return newest_has("\"state\": \"failed\""); })) << outbox();
        const auto s = status();
        EXPECT_EQ(3u, be(s.callhome_message_status));
        EXPECT_EQ(0x403B0041u, be(s.callhome_error_code));
        EXPECT_EQ(0u, be(s.num_alerts_sent));
        EXPECT_EQ(c.reason, error_shown());
        EXPECT_TRUE(newest_has("\"attempts\": " + std::to_string(c.attempts) +
                               ",\n    \"last_error\": \"" + c.reason + "\""))
            << newest();
    }
    EXPECT_TRUE(received().empty());
    EXPECT_EQ(1, ctl({"outbox", "retry", "99"}).status); // no such message
}

TEST_F(Delivery, RefusedThenServerUpIsDeliveredOnRetryAndKillNineNeverSendsTwice) {
    write_config("retry_delays_s = 1, 1, 1, 1, 1, 1, 1, 1, 1, 1\n");
    start_daemon();
    configure({"ops@example.com"});
    trigger();
    ASSERT_TRUE(eventually([&] { return newest_has("\"state\": \"retrying\""); })) << outbox();
    // Killed while the message waits for its next attempt: it is delivered after the restart.
    daemon.stop(SIGKILL);
    start_smtp();
    start_daemon();
    ASSERT_TRUE(eventually([&] { return newest_has("\"state\": \"sent\""); })) << outbox();
    EXPECT_EQ(1u, received().size());
    EXPECT_EQ(1u, be(status().num_alerts_sent));
    // Its acceptance was recorded: another kill -9 and restart send nothing again.
    daemon.stop(SIGKILL);
    start_daemon();
    EXPECT_EQ(0, ctl({"outbox", "retry"}).status);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(1u, received().size());
    EXPECT_EQ(1u, be(status().num_alerts_sent));
}

// A server that accepts the connection and never greets costs the sender its time-out, not
// the request channel a moment.
TEST_F(Delivery, SilentServerDoesNotDelayTheChannel) {
    // Long enough that the attempt is still under way when the channel is asked, even on a
    // loaded machine.
    write_config("smtp_timeout_s = 6\n");
    start_smtp({"--silent"});
    start_daemon();
    configure({"ops@example.com"});
    trigger();
    ASSERT_TRUE(eventually([&] { return newest_has("\"state\": \"sending\""); })) << outbox();
    const auto t0 = Clock::now();
    EXPECT_EQ(0, ctl({"ping"}).status);
    EXPECT_EQ(2u, be(status().callhome_message_status));
    EXPECT_LT(Clock::now() - t0, std::chrono::seconds(1));
    ASSERT_TRUE(eventually([&] { return be(status().callhome_message_status) == 3; }));
    EXPECT_EQ("no greeting from 127.0.0.1:" + std::to_string(port) + " within 6 s", error_shown());
}

// STARTTLS with a throw-away certificate, then AUTH PLAIN; a wrong password fails at once
// with the server's reply, and the password never shows.
TEST_F(Delivery, StartTlsAndLogin) {
    const std::string cert = dir / "cert.pem", key = dir / "key.pem";
    ASSERT_EQ(0, std::system(("openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj "
                              "/CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout '" +
                              key + "' -out '" + cert + "' 2>/dev/null")
                                 .c_str()));
    start_smtp({"--cert", cert, "--key", key, "--login", "device:s3cret-pass"});
    const std::pair<const char *, const char *> cases[] = {
        {"wrong", "\"state\": \"failed\",\n    \"attempts\": 1,\n    \"last_error\": \"535 "},
        {"s3cret-pass", "\"state\": \"sent\""}};
    for (const auto &[password, expected] : cases) {
        SCOPED_TRACE(password);
        daemon.stop(SIGKILL);
        spit(dir / "password", std::string(password) + "\n");
        write_config("smtp_security = starttls\nsmtp_user = device\nsmtp_password_file = " +
                     dir / "password" + "\nsmtp_ca_file = " + cert + "\n");
        start_daemon();
        configure({"ops@example.com"});
        trigger();
        ASSERT_TRUE(eventually([&] { return newest_has(expected); })) << outbox();
        EXPECT_FALSE(has(ctl({"dump"}).out + outbox() + slurp(dir / "callhomed.log"), password));
    }
    const auto got = received();
    ASSERT_EQ(1u, got.size());
    EXPECT_TRUE(has(got[0], "auth: device\n")) << got[0];
}

// golden/config.txt: what loading each file says; the password never shows.
TEST(DeliveryConfig, FilesAsGolden) {
    const TempDir dir;
    const std::string path = dir / "c.conf";
    spit(dir / "pw", "secret\n", 0600);
    spit(dir / "open", "secret\n", 0644);
    std::ifstream file(GOLDEN_DIR "/config.txt");
    std::string got;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("> ", 0) != 0) {
            got += line.empty() || line[0] == '#' ? line + "\n" : "";
            continue;
        }
        std::string text = unescaped(line.substr(2));
        for (size_t at; (at = text.find("$DIR")) != std::string::npos;) {
            text.replace(at, 4, dir.path);
        }
        spit(path, text);
        got += line + "\n";
        try {
            const auto c = callhome::config::load(path);
            got += "accepted, commands";
            for (const auto &cmd : c.allowed_commands.value_or(Strings{"(built in)"})) {
                got += " " + cmd;
            }
            got += "\n";
        } catch (const callhome::config::Error &e) {
            std::string what = e.what();
            EXPECT_EQ(0u, what.find(path)) << what;
            for (size_t at; (at = what.find(dir.path)) != std::string::npos;) {
                what.replace(at, dir.path.size(), "$DIR");
            }
            got += escaped("error" + what.substr(path.size() - dir.path.size() + 4)) + "\n";
        }
    }
    EXPECT_FALSE(has(got, "secret"));
    expect_golden(GOLDEN_DIR "/config.txt", got);
    // The shipped example holds the defaults, the commented list too.
    std::string shipped = slurp(PACKAGED_CONFIG);
    spit(path, shipped.replace(shipped.find("#allowed_commands"), 1, ""));
    EXPECT_EQ(callhome::commands::default_allowed(), callhome::config::load(path).allowed_commands);
    const auto d = callhome::config::load(PACKAGED_CONFIG).delivery;
    EXPECT_EQ(callhome::config::Security::None, d.security);
    EXPECT_EQ(30, d.timeout_s);
    EXPECT_EQ((std::vector<int>{30, 120, 600, 1800}), d.retry_delays_s);
    // The daemon stops at start with the same words.
    spit(path, "smtp_security = maybe\n");
    const auto r = run_program(
        {CALLHOMED_PATH, "--socket", dir / "s", "--db", dir / "db", "--config", path}, dir / "d");
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, path + ":1: smtp_security must be")) << r.err;
}

// golden/mails.txt: the mail as it goes over the wire (\x0d: the CR of each line end); line
// lengths and non-ASCII text pick the transfer encoding, headers stay one line each.
TEST(DeliveryFormat, MailsAsGolden) {
    callhome::smtp::Mail m{.from = "a@example.com",
                           .to = {"b@example.com", "c@example.com"},
                           .reply_to = "r@example.com",
                           .disposition_to = "d@example.com",
                           .subject = "Pr\xC3\xBC"
                                      "fung\r\nBcc: x@example.com",
                           .body = "",
                           .message_id = "<1@h>",
                           .date_sec = 1773144000};
    std::string got;
    for (const std::string &body :
         {std::string("plain\nlines\n"), std::string("gr\xC3\xBC\xC3\x9F =\n"),
          std::string(1000, 'x') + "\n"}) {
        m.body = body;
        std::istringstream in(callhome::smtp::format(m));
        for (std::string line; std::getline(in, line);) {
            got += escaped(line) + "\n";
        }
        got += "----\n";
        m.xml = !m.xml;
    }
    expect_golden(GOLDEN_DIR "/mails.txt", got);
}

} // namespace
