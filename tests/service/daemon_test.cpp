// callhomed and callhomectl as processes: the socket protocol, durability, notifications,
// several clients, injected faults and the admin tool's exit codes.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <memory>
#include <optional>

#include "platform/frame.hpp"
#include "records.hpp"
#include "run_command.hpp"

using namespace svc_test;
using namespace callhome_test;
namespace fr = platform::frame;

namespace {

int connect_to(const std::string &path) {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A raw client of the service socket.
struct Client {
    explicit Client(const std::string &path) : fd(connect_to(path)) {}
    ~Client() { close(fd); }
    void send(const fr::Frame &f) {
        const Bytes b = *fr::encode(f);
        ASSERT_EQ(ssize_t(b.size()), ::send(fd, b.data(), b.size(), MSG_NOSIGNAL));
    }
    uint32_t ask(int opcode, int type, const Bytes &rec, bool wants_record = true,
                 uint64_t deadline_ms = 0) {
        send({fr::Kind::Request, ++seq, opcode, type, 66, 0, 0, 0, // in Frame's order

              wants_record ? fr::kWantsRecord : 0, deadline_ms, "tester", rec});
        return seq;
    }
    // The next frame, or nullopt when none arrives in `ms` or the connection closed.
    std::optional<fr::Frame> receive(int ms = 20000) {
        pollfd p{fd, POLLIN, 0};
        Bytes buf(fr::kMaxFrame);
        const ssize_t n = poll(&p, 1, ms) > 0 ? recv(fd, buf.data(), buf.size(), 0) : -1;
        closed = n == 0;
        return n > 0 ? fr::decode(buf.data(), size_t(n)) : std::nullopt;
    }
    fr::Frame request(int opcode, int type, const Bytes &rec) {
        const uint32_t sent = ask(opcode, type, rec);
        auto f = receive();
        EXPECT_TRUE(f && f->kind == fr::Kind::Response && f->seq == sent);
        return f.value_or(fr::Frame{});
    }
    int fd;
    uint32_t seq = 0;
    bool closed = false;
};

// One callhomed on its own socket and database.
struct Daemon {
    std::string sock, db, pidfile;
    std::function<void()> prepare = {}; // Child's: descriptor limit, log, user
    Child child = {};
    // Starts it and waits until it answers; false when it exited instead.
    bool start() {
        child = Child({CALLHOMED_PATH, "--socket", sock, "--db", db, "--pidfile", pidfile,
                       "--enable-fault-injection"},
                      prepare);
        return eventually([&] { return !child.running() || close(connect_to(sock)) == 0; }) &&
               child.running();
    }
};

class DaemonTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(daemon.start()); }
    CommandResult ctl(std::vector<std::string> args) {
        args.insert(args.begin(), {CALLHOMECTL_PATH, "--socket", sock});
        return run_program(args, dir / "ctl");
    }

    TempDir dir;
    std::string sock = dir / "run/callhomed.sock", db = dir / "state/callhome.db";
    Daemon daemon{sock, db, dir / "callhomed.pid"};
};

// CPU seconds a process has used so far (user and system time, fields 14 and 15).
double cpu_seconds(pid_t pid) {
    const std::string stat = slurp("/proc/" + std::to_string(pid) + "/stat");
    unsigned long user = 0, sys = 0;
    std::sscanf(stat.c_str() + stat.rfind(')') + 2,
                "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user, &sys);
    return double(user + sys) / double(sysconf(_SC_CLK_TCK));
}

// A daemon of its own, started by the test, logging to a file.
class LoggingDaemonTest : public DaemonTest {
  protected:
    void SetUp() override {
        daemon.prepare = [&] { redirect(log); };
    }
    std::string log = dir / "callhomed.log";
};

TEST_F(LoggingDaemonTest, OutOfDescriptorsItBacksOffServesItsClientsAndLogsOnce) {
#if defined(__SANITIZE_ADDRESS__)
    // The sanitizers' runtime checks memory through a pipe of its own, which a process out of
    // descriptors cannot open: it would report every check as a fault.
    GTEST_SKIP() << "needs descriptors the sanitizer runtime takes for itself";
#endif
    daemon.prepare = [&] {
        const rlimit lim{64, 64};
        setrlimit(RLIMIT_NOFILE, &lim);
        redirect(log);
    };
    ASSERT_TRUE(daemon.start());
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 80; ++i) {
        clients.push_back(std::make_unique<Client>(sock));
        ASSERT_GE(clients.back()->fd, 0) << i;
    }
    // Every client asks; those the daemon had room for are answered.
    for (auto &c : clients) {
        c->ask(CALLHOME_ENABLE_OPC, GET_REQ, Bytes());
    }
    EXPECT_TRUE(clients.front()->receive());
    const double cpu = cpu_seconds(daemon.child.pid());
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_LT(cpu_seconds(daemon.child.pid()) - cpu, 0.1); // no spinning on the full table
    // Room made, the clients that waited get in and are answered.
    clients.erase(clients.begin(), clients.begin() + 50);
    for (auto &c : clients) {
        EXPECT_TRUE(c->receive());
    }
    const std::string text = slurp(log);
    EXPECT_EQ(1u, count(text, "accept: Too many open files")) << text;
    EXPECT_EQ(1u, count(text, "accepting connections again")) << text;
}

// Where an operator looks: why a change was refused, why storing it failed, what became of
// the database file; and a database that can't be used at all stops the daemon at once.
TEST_F(LoggingDaemonTest, RefusalsAndStorageFailuresSayWhy) {
    const auto bad = run_program({CALLHOMED_PATH, "--socket", sock, "--db", dir.path}, dir / "bad");
    EXPECT_EQ(1, bad.status);
    EXPECT_TRUE(has(bad.err, "cannot use the database " + dir.path + ": ")) << bad.err;

    ASSERT_TRUE(daemon.start()); // creates the database
    ASSERT_EQ(0, daemon.child.stop());
    // Read-only for the daemon: root ignores file modes, so the daemon runs as nobody then.
    if (geteuid() == 0) {
        daemon.prepare = [&] {
            redirect(log);
            if (setgid(65534) != 0 || setuid(65534) != 0) {
                _exit(126);
            }
        };
        ASSERT_EQ(0, std::system(("chown -R 65534:65534 '" + dir.path + "'").c_str()));
    }
    // A database it can't write stops it at start, saying why.
    ASSERT_EQ(0, chmod(db.c_str(), 0444));
    EXPECT_FALSE(daemon.start());
    // SQLite made its -wal and -shm files read-only like the database: fix all of them.
    for (const char *suffix : {"", "-wal", "-shm"}) {
        chmod((db + suffix).c_str(), 0644);
    }
    ASSERT_TRUE(daemon.start()) << slurp(log);
    Client c(sock);
    EXPECT_EQ(CALLHOME_ERR_INVALID_INPUT,
              c.request(CALLHOME_ENABLE_OPC, SET_REQ, switch_rec(1)).status);
    ASSERT_EQ(0, unlink(db.c_str()));
    c.request(CALLHOME_INFO_OPC, SET_REQ, info_rec("custId", "C-1"));
    const std::string text = slurp(log);
    for (const std::string &line : std::vector<std::string>{
             "cannot use the database " + db + ": ",
             "readonly database",
             "refused callHomeEnable=true: sysContactPhoneNumber is not set",
             "was deleted while running",
         }) {
        EXPECT_TRUE(has(text, line)) << line << "\n" << text;
    }
}

TEST_F(LoggingDaemonTest, RequestReachedAfterItsDeadlineIsRefusedUnapplied) {
    ASSERT_TRUE(daemon.start());
    ASSERT_EQ(0, ctl({"fault", "delay", "CALLHOME_INFO_OPC", "600", "--type", "3"}).status);
    Client c(sock);
    const uint32_t seq = c.ask(CALLHOME_INFO_OPC, SET_REQ, info_rec("siteId", "late"), true,
                               fr::monotonic_ms() + 300);
    auto r = c.receive();
    ASSERT_TRUE(r);
    EXPECT_EQ(seq, r->seq);
    EXPECT_TRUE(r->flags & fr::kExpired);
    EXPECT_EQ(-1, r->status);
    // Not applied; a request in time is. A read reached late is refused like a write.
    EXPECT_EQ(CALLHOME_UNKNOWN_ENTRY,
              c.request(CALLHOME_INFO_OPC, GET_REQ, info_rec("siteId")).status);
    c.ask(CALLHOME_INFO_OPC, GET_REQ, info_rec("siteId"), true, fr::monotonic_ms() - 1);
    r = c.receive();
    ASSERT_TRUE(r);
    EXPECT_TRUE(r->flags & fr::kExpired);
    EXPECT_TRUE(has(slurp(log), "refused CALLHOME_INFO_OPC SET unapplied: its caller's "
                                "deadline had passed"))
        << slurp(log);
}

TEST_F(DaemonTest, AcknowledgedChangesSurviveKillNineAndTheStaleSocketIsReplaced) {
    {
        Client c(sock);
        const std::tuple<int, int, Bytes> writes[] = {
            {CALLHOME_INFO_OPC, SET_REQ, info_rec("custId", "C-1")},
            {CALLHOME_DEST_PROFILE_OPC, SET_REQ, profile_rec("p", 2)},
            {CALLHOME_DEST_EMAIL_OPC, SET_REQ, dest_email_rec("p", 1, "a@b.org")},
            {CALLHOME_DEST_PROFILE_OPC, DELETE_REQ, profile_rec("p")},
            {CALLHOME_DEST_PROFILE_OPC, SET_REQ, profile_rec("q", 3)}};
        for (const auto &[op, type, rec] : writes) {
            EXPECT_EQ(0, c.request(op, type, rec).status) << op;
        }
    }
    EXPECT_EQ(128 + SIGKILL, daemon.child.stop(SIGKILL));
    EXPECT_EQ(0, access(sock.c_str(), F_OK)); // left behind by kill -9: the next start replaces it
    ASSERT_TRUE(daemon.start());
    Client c(sock);
    auto r = c.request(CALLHOME_INFO_OPC, GET_REQ, info_rec("custId"));
    ASSERT_EQ(0, r.status);
    ASSERT_TRUE(r.flags & fr::kHasRecord);
    EXPECT_EQ(info_rec("custId", "C-1"), r.body);
    EXPECT_EQ(CALLHOME_UNKNOWN_ENTRY,
              c.request(CALLHOME_DEST_PROFILE_OPC, GET_REQ, profile_rec("p")).status);
    EXPECT_EQ(0, c.request(CALLHOME_DEST_PROFILE_OPC, GET_REQ, profile_rec("q")).status);
    EXPECT_EQ(CALLHOME_UNKNOWN_ENTRY,
              c.request(CALLHOME_DEST_EMAIL_OPC, GET_REQ, dest_email_rec("p", 1)).status);
}

TEST_F(DaemonTest, RecordsTravelOnlyWhenWanted) {
    Client c(sock);
    auto with = c.request(CALLHOME_STATUS_OPC, GET_REQ, Bytes(sizeof(callhome_status_t)));
    EXPECT_EQ(0, with.status);
    EXPECT_TRUE(with.flags & fr::kHasRecord);
    EXPECT_EQ(sizeof(callhome_status_t), with.body.size());
    const uint32_t seq = c.ask(CALLHOME_STATUS_OPC, GET_REQ, Bytes(), false);
    auto without = c.receive();
    ASSERT_TRUE(without);
    EXPECT_EQ(seq, without->seq);
    EXPECT_FALSE(without->flags & fr::kHasRecord);
    EXPECT_TRUE(without->body.empty());
}

TEST_F(DaemonTest, OnlySubscribersReceiveTypeAndDistributionNotifications) {
    Client sub(sock), other(sock);
    fr::Frame s;
    s.kind = fr::Kind::Subscribe;
    sub.send(s);
    // A request on the same connection proves the subscription was handled first.
    sub.request(CALLHOME_ENABLE_OPC, GET_REQ, Bytes());
    ASSERT_EQ(0, ctl({"group", "add", "Power"}).status);
    ASSERT_EQ(0, ctl({"group", "del", "Syslog"}).status);
    ASSERT_EQ(0, ctl({"distribution", "on", "mode", "2"}).status);
    const std::pair<int32_t, Bytes> expected[] = {
        {CALLHOME_ALERTGROUP_ADDED_NOTIF, {0, 0, 0, 8, 'P', 'o', 'w', 'e', 'r', 0}},
        {CALLHOME_ALERTGROUP_DELETED_NOTIF, {0, 0, 0, 5, 'S', 'y', 's', 'l', 'o', 'g', 0}},
        {fr::kDistributionStateNotif, {0, 0, 0, 1, 0, 0, 0, 2}}};
    for (const auto &[id, payload] : expected) {
        auto n = sub.receive();
        ASSERT_TRUE(n);
        EXPECT_EQ(fr::Kind::Notification, n->kind);
        EXPECT_EQ(id, n->opcode);
        EXPECT_EQ(payload, n->body);
    }
    // A connection that did not subscribe gets its answer and nothing else.
    EXPECT_EQ(0, other.request(CALLHOME_ENABLE_OPC, GET_REQ, Bytes()).status);
}

TEST_F(DaemonTest, SeveralClientsAreAnsweredInTheirOwnOrder) {
    std::vector<std::unique_ptr<Client>> clients;
    const int types[] = {SET_REQ, GET_REQ, DELETE_REQ, GET_REQ};
    const int expected[] = {0, 0, 0, CALLHOME_UNKNOWN_ENTRY};
    // More clients than callhomed gives reader threads (32): the loop serves the rest.
    for (int i = 0; i < 36; ++i) { // each client sends its whole batch before reading anything
        clients.push_back(std::make_unique<Client>(sock));
        for (int type : types) {
            clients[i]->ask(CALLHOME_DEST_PROFILE_OPC, type, profile_rec("c" + std::to_string(i)));
        }
    }
    for (auto &c : clients) {
        for (uint32_t k = 0; k < 4; ++k) {
            auto f = c->receive();
            ASSERT_TRUE(f) << k;
            EXPECT_EQ(k + 1, f->seq);
            EXPECT_EQ(expected[k], f->status) << k;
        }
    }
}

TEST_F(DaemonTest, ClientThatStopsReadingHoldsUpOnlyItselfAndGetsEveryAnswerInOrder) {
    Client slow(sock), other(sock);
    ASSERT_EQ(0, slow.request(CALLHOME_INFO_OPC, SET_REQ, info_rec("custId", "C-1")).status);
    fr::Frame f; // answered with a whole record: the answers fill the socket before the asks
    f.opcode = CALLHOME_INFO_OPC;
    f.msg_type = GET_REQ;
    f.flags = fr::kWantsRecord;
    f.body = info_rec("custId");
    uint32_t sent = 0;
    for (pollfd p{slow.fd, POLLOUT, 0}; sent < 2000 && poll(&p, 1, 300) > 0; ++sent) {
        f.seq = ++slow.seq;
        slow.send(f);
    }
    EXPECT_LT(sent, 2000u); // the daemon stopped taking them
    EXPECT_EQ(0, other.request(CALLHOME_ENABLE_OPC, GET_REQ, Bytes()).status);
    for (uint32_t k = 0; k < sent; ++k) {
        auto r = slow.receive();
        ASSERT_TRUE(r && r->status == 0) << k;
        ASSERT_EQ(k + 2, r->seq);
    }
}

TEST_F(DaemonTest, MalformedFrameClosesOnlyThatConnection) {
    Client bad(sock), odd(sock), good(sock);
    const Bytes junk = {'n', 'o', 't', ' ', 'a', ' ', 'f', 'r', 'a', 'm', 'e'};
    ASSERT_EQ(ssize_t(junk.size()), ::send(bad.fd, junk.data(), junk.size(), MSG_NOSIGNAL));
    fr::Frame reply; // well-formed, but of a kind clients never send
    reply.kind = fr::Kind::Response;
    odd.send(reply);
    for (Client *c : {&bad, &odd}) {
        EXPECT_FALSE(c->receive());
        EXPECT_TRUE(c->closed);
    }
    EXPECT_EQ(0, good.request(CALLHOME_ENABLE_OPC, GET_REQ, Bytes()).status);
}

// Faults that only a process shows (injected statuses: the channel tests).
TEST_F(DaemonTest, InjectedFaultsThroughTheAdminTool) {
    ASSERT_EQ(0, ctl({"fault", "drop", "CALLHOME_ENABLE_OPC", "--count", "2"}).status);
    Client c(sock);
    // Dropped requests are never answered: the first answer is the third request's.
    c.ask(CALLHOME_ENABLE_OPC, GET_REQ, Bytes());
    c.ask(CALLHOME_ENABLE_OPC, GET_REQ, Bytes());
    EXPECT_EQ(0, c.request(CALLHOME_ENABLE_OPC, GET_REQ, Bytes()).status);

    ASSERT_EQ(0, ctl({"fault", "delay", "CALLHOME_ENABLE_OPC", "3000"}).status);
    Client slow(sock), fast(sock);
    const uint32_t first = slow.ask(CALLHOME_ENABLE_OPC, GET_REQ, Bytes());
    const uint32_t second = slow.ask(CALLHOME_STATUS_OPC, GET_REQ, Bytes());
    EXPECT_EQ(0, fast.request(CALLHOME_STATUS_OPC, GET_REQ, Bytes()).status);
    EXPECT_EQ(0, ctl({"ping"}).status);
    EXPECT_FALSE(slow.receive(0)); // still held back, not holding up the others
    // The delayed connection's answers still come in the order asked.
    auto a = slow.receive();
    auto b = slow.receive();
    ASSERT_TRUE(a && b);
    EXPECT_EQ(first, a->seq);
    EXPECT_EQ(0, a->status);
    EXPECT_EQ(second, b->seq);
}

TEST_F(DaemonTest, OneDaemonPerSocketAndSigtermCleansUp) {
    const auto second =
        run_program({CALLHOMED_PATH, "--socket", sock, "--db", dir / "o.db"}, dir / "2");
    EXPECT_EQ(1, second.status);
    EXPECT_TRUE(has(second.err, "another callhomed")) << second.err;
    EXPECT_EQ(0, ctl({"ping"}).status); // the first one is untouched
    EXPECT_GT(std::atoi(slurp(daemon.pidfile).c_str()), 0);
    // Connected clients do not hold up the exit: one idle, one whose answer is held back.
    Client idle(sock), held(sock);
    EXPECT_EQ(0, idle.request(CALLHOME_ENABLE_OPC, GET_REQ, Bytes()).status);
    ASSERT_EQ(0, ctl({"fault", "delay", "CALLHOME_ENABLE_OPC", "60000"}).status);
    held.ask(CALLHOME_ENABLE_OPC, GET_REQ, Bytes());
    EXPECT_EQ(0, daemon.child.stop());
    EXPECT_NE(0, access(sock.c_str(), F_OK));
    EXPECT_NE(0, access(daemon.pidfile.c_str(), F_OK));
}

// The socket's own protection: its mode whatever the umask, the directories it trusts (and
// that callhomectl trusts at the per-user default). (Fault injection only when asked for:
// tests/security, on the service ./run.sh starts.)
TEST_F(DaemonTest, SocketGuardsItself) {
    const mode_t old_umask = umask(0);
    Daemon loose{dir / "loose/s.sock", dir / "loose.db", dir / "loose.pid"};
    const bool started = loose.start();
    umask(old_umask);
    ASSERT_TRUE(started);
    struct stat st {};
    ASSERT_EQ(0, lstat(loose.sock.c_str(), &st));
    EXPECT_EQ(0660u, st.st_mode & 07777);

    ASSERT_EQ(0, setenv("XDG_RUNTIME_DIR", dir.path.c_str(), 1));
    unsetenv("CALLHOME_SOCKET");
    const struct {
        std::string sock_dir;
        mode_t mode;
        const char *why; // in callhomed's refusal
    } cases[] = {
        {dir / "shared", 0777, "mode 0777; it must be writable by its owner only"},
        {dir / "group", 0770, "mode 0770"},
        {dir / "callhome", 0755, "mode 0755; it must be 0700"}, // the per-user default
    };
    for (const auto &c : cases) {
        ASSERT_EQ(0, mkdir(c.sock_dir.c_str(), 0700));
        ASSERT_EQ(0, chmod(c.sock_dir.c_str(), c.mode));
        const auto r = run_program(
            {CALLHOMED_PATH, "--socket", c.sock_dir + "/callhomed.sock", "--db", dir / "x.db"},
            dir / "refused");
        EXPECT_EQ(1, r.status) << c.sock_dir;
        EXPECT_TRUE(has(r.err, c.why)) << r.err;
    }
    // callhomectl does not talk to a listener in a per-user directory others can enter.
    const auto refused = run_program({CALLHOMECTL_PATH, "ping"}, dir / "ctl-default");
    EXPECT_EQ(1, refused.status);
    EXPECT_TRUE(has(refused.err, "cannot reach the call-home service at " + dir.path +
                                     "/callhome/callhomed.sock: the socket directory " + dir.path +
                                     "/callhome has mode 0755"))
        << refused.err;
    unsetenv("XDG_RUNTIME_DIR");
}

TEST_F(DaemonTest, CtlExitCodesAndOutputs) {
    const struct {
        std::vector<std::string> args;
        int status;
        const char *in_out; // expected in stdout (status 0) or stderr (otherwise)
    } cases[] = {
        {{"--socket", sock, "ping"}, 0, "ok"},
        {{"--socket", sock}, 2, "missing command"},
        {{"--socket", sock, "fault", "status", "NOT_AN_OPC", "1"}, 2, "bad opcode"},
        {{"--socket", sock, "group", "add", "Test"}, 1, "already exists"},
        {{"--socket", sock, "dump"}, 0, "\"alert_group_types\""},
        {{"--help"}, 0, "dump keys"},
        {{"--socket", dir / "no.sock", "ping"}, 1, "cannot reach"},
        {{"--socket"}, 2, "needs a path"},
    };
    for (const auto &c : cases) {
        std::vector<std::string> args = c.args;
        args.insert(args.begin(), CALLHOMECTL_PATH);
        const auto r = run_program(args, dir / "ctl");
        EXPECT_EQ(c.status, r.status) << args.back();
        EXPECT_TRUE(has(c.status == 0 ? r.out : r.err, c.in_out)) << args.back() << r.err;
    }
}

// Answers longer than a frame: two alerts of 50,000 bytes each in the outbox listing.
TEST_F(DaemonTest, LongOutputsArriveWhole) {
    Client c(sock);
    for (const auto &[op, rec] : std::vector<std::pair<int, Bytes>>{
             {CALLHOME_INFO_OPC, info_rec("sysContactEmail", "ops@example.com")},
             {CALLHOME_INFO_OPC, info_rec("sysContactPhoneNumber", "+1 800-555")},
             {CALLHOME_INFO_OPC, info_rec("sysStreetAddress", "1 Main Street")},
             {CALLHOME_ENABLE_OPC, switch_rec(1)},
             {CALLHOME_DEST_EMAIL_OPC, dest_email_rec("full_txt", 1, "x@y.com")},
             {CALLHOME_PROFILE_ALERTGROUP_OPC, profile_group_rec("full_txt", "all")}}) {
        ASSERT_EQ(0, c.request(op, SET_REQ, rec).status) << op;
    }
    const std::string body(50000, 'b');
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(0, ctl({"alert", "Test", body}).status);
    }
    const auto r = ctl({"outbox"});
    ASSERT_EQ(0, r.status);
    EXPECT_GT(r.out.size(), fr::kMaxBody);
    EXPECT_EQ(2u, count(r.out, body));
    EXPECT_EQ("]\n", r.out.substr(r.out.size() - 2));
}

} // namespace
