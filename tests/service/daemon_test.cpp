// callhomed and callhomectl as processes: the socket protocol, durability, notifications,
// several clients, injected faults and the admin tool's exit codes.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/frame.hpp"
#include "records.hpp"

using namespace svc_test;
namespace fr = platform::frame;

namespace {

// Bounds of the polls below: generous, since they only ever cut a hung test short.
constexpr int kAnswerMs = 20000;

std::string read_file(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool exists(const std::string &path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

class TempDir {
  public:
    TempDir() {
        char tmpl[] = "/tmp/callhomed-test-XXXXXX";
        path_ = mkdtemp(tmpl);
    }
    ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

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
class Client {
  public:
    explicit Client(const std::string &path) : fd_(connect_to(path)) {}
    ~Client() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    bool ok() const { return fd_ >= 0; }

    void send_raw(const Bytes &b) {
        ASSERT_EQ(ssize_t(b.size()), ::send(fd_, b.data(), b.size(), MSG_NOSIGNAL));
    }
    void send(const fr::Frame &f) { send_raw(*fr::encode(f)); }

    uint32_t send_request(int opcode, int type, const Bytes &rec, bool wants_record = true) {
        fr::Frame f;
        f.kind = fr::Kind::Request;
        f.seq = ++seq_;
        f.opcode = opcode;
        f.msg_type = type;
        f.client = 66;
        f.user = "tester";
        f.flags = wants_record ? fr::kWantsRecord : 0;
        f.body = rec;
        send(f);
        return f.seq;
    }

    // The next frame, or nullopt when none arrives in `ms` or the connection closed.
    std::optional<fr::Frame> receive(int ms = kAnswerMs) {
        closed_ = false;
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, ms) <= 0) {
            return std::nullopt;
        }
        std::vector<uint8_t> buf(fr::kMaxFrame);
        const ssize_t n = recv(fd_, buf.data(), buf.size(), 0);
        if (n <= 0) {
            closed_ = true;
            return std::nullopt;
        }
        return fr::decode(buf.data(), size_t(n));
    }
    bool closed() const { return closed_; }
    bool readable_now() {
        pollfd p{fd_, POLLIN, 0};
        return poll(&p, 1, 0) > 0;
    }

    fr::Frame request(int opcode, int type, const Bytes &rec) {
        const uint32_t seq = send_request(opcode, type, rec);
        auto f = receive();
        EXPECT_TRUE(f.has_value());
        if (!f) {
            return {};
        }
        EXPECT_EQ(fr::Kind::Response, f->kind);
        EXPECT_EQ(seq, f->seq);
        return *f;
    }

  private:
    int fd_;
    uint32_t seq_ = 0;
    bool closed_ = false;
};

struct Result {
    int code = -1;
    std::string out, err;
};

Result run(const std::string &program, const std::vector<std::string> &args,
           const std::string &scratch) {
    const std::string out = scratch + ".out", err = scratch + ".err";
    const pid_t pid = fork();
    if (pid == 0) {
        const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(o, 1);
        dup2(e, 2);
        std::vector<char *> argv{const_cast<char *>(program.c_str())};
        for (const auto &a : args) {
            argv.push_back(const_cast<char *>(a.c_str()));
        }
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    Result r;
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = read_file(out);
    r.err = read_file(err);
    return r;
}

// One callhomed process on its own socket and database.
class Daemon {
  public:
    Daemon(std::string socket, std::string db, std::string pidfile = "")
        : socket_(std::move(socket)), db_(std::move(db)), pidfile_(std::move(pidfile)) {}
    ~Daemon() { stop(SIGKILL); }

    // Starts and waits (bounded) until it answers; false when it exited instead.
    bool start() {
        pid_ = fork();
        if (pid_ == 0) {
            std::vector<std::string> args = {CALLHOMED_PATH, "--socket", socket_, "--db", db_};
            if (!pidfile_.empty()) {
                args.insert(args.end(), {"--pidfile", pidfile_});
            }
            std::vector<char *> argv;
            for (auto &a : args) {
                argv.push_back(a.data());
            }
            argv.push_back(nullptr);
            execv(CALLHOMED_PATH, argv.data());
            _exit(127);
        }
        for (int i = 0; i < 1000; ++i) {
            if (int st; waitpid(pid_, &st, WNOHANG) == pid_) {
                exit_code_ = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
                pid_ = -1;
                return false;
            }
            if (const int fd = connect_to(socket_); fd >= 0) {
                close(fd);
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    // Sends `sig` and reaps the process (bounded); returns its exit status.
    int stop(int sig) {
        if (pid_ <= 0) {
            return exit_code_;
        }
        kill(pid_, sig);
        int st = 0;
        for (int i = 0; i < 1000; ++i) {
            if (waitpid(pid_, &st, WNOHANG) == pid_) {
                pid_ = -1;
                return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        kill(pid_, SIGKILL);
        waitpid(pid_, &st, 0);
        pid_ = -1;
        return -1;
    }
    int exit_code() const { return exit_code_; }

  private:
    std::string socket_, db_, pidfile_;
    pid_t pid_ = -1;
    int exit_code_ = -1;
};

class DaemonTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(daemon.start()); }
    Result ctl(const std::vector<std::string> &args) {
        std::vector<std::string> all = {"--socket", sock};
        all.insert(all.end(), args.begin(), args.end());
        return run(CALLHOMECTL_PATH, all, dir / "ctl");
    }

    TempDir dir;
    std::string sock = dir / "run/callhomed.sock";
    std::string db = dir / "state/callhome.db";
    std::string pidfile = dir / "callhomed.pid";
    Daemon daemon{sock, db, pidfile};
};

TEST_F(DaemonTest, AcknowledgedChangesSurviveKillNine) {
    {
        Client c(sock);
        ASSERT_TRUE(c.ok());
        EXPECT_EQ(0, c.request(CALLHOME_INFO_OPC, SET_REQ, info_rec("custId", "C-1")).status);
        EXPECT_EQ(0, c.request(CALLHOME_DEST_PROFILE_OPC, SET_REQ, profile_rec("p", 2)).status);
        EXPECT_EQ(
            0,
            c.request(CALLHOME_DEST_EMAIL_OPC, SET_REQ, dest_email_rec("p", 1, "a@b.org")).status);
        EXPECT_EQ(0, c.request(CALLHOME_DEST_PROFILE_OPC, DELETE_REQ, profile_rec("p")).status);
        EXPECT_EQ(0, c.request(CALLHOME_DEST_PROFILE_OPC, SET_REQ, profile_rec("q", 3)).status);
    }
    EXPECT_EQ(128 + SIGKILL, daemon.stop(SIGKILL));
    // The socket file stays behind after kill -9; the next start removes it.
    EXPECT_TRUE(exists(sock));
    Daemon again(sock, db);
    ASSERT_TRUE(again.start());
    Client c(sock);
    auto r = c.request(CALLHOME_INFO_OPC, GET_REQ, info_rec("custId"));
    ASSERT_EQ(0, r.status);
    ASSERT_TRUE(r.flags & fr::kHasRecord);
    cmi_callhome_info_t info{};
    std::memcpy(&info, r.body.data(), sizeof info);
    EXPECT_EQ("C-1", text(info.info_value, 2049));
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
    const uint32_t seq = c.send_request(CALLHOME_STATUS_OPC, GET_REQ, Bytes(), false);
    auto without = c.receive();
    ASSERT_TRUE(without);
    EXPECT_EQ(seq, without->seq);
    EXPECT_FALSE(without->flags & fr::kHasRecord);
    EXPECT_TRUE(without->body.empty());
    auto set = c.request(CALLHOME_MSG_THROTTLING_OPC, SET_REQ, switch_rec(0));
    EXPECT_EQ(0, set.status);
    EXPECT_TRUE(set.body.empty());
    EXPECT_EQ(CALLHOME_ERR_INVALID_INPUT, c.request(4242, GET_REQ, Bytes(5)).status);
}

TEST_F(DaemonTest, SubscribersReceiveTypeAndDistributionNotifications) {
    Client sub(sock), other(sock);
    fr::Frame s;
    s.kind = fr::Kind::Subscribe;
    sub.send(s);
    // A request on the same connection proves the subscription was handled first.
    sub.request(CALLHOME_ENABLE_OPC, GET_REQ, Bytes());

    ASSERT_EQ(0, ctl({"group", "add", "Power"}).code);
    ASSERT_EQ(0, ctl({"group", "del", "Syslog"}).code);
    ASSERT_EQ(0, ctl({"distribution", "on", "mode", "2"}).code);
    const std::vector<std::pair<int32_t, Bytes>> expected = {
        {CALLHOME_ALERTGROUP_ADDED_NOTIF, {0, 0, 0, 8, 'P', 'o', 'w', 'e', 'r', 0}},
        {CALLHOME_ALERTGROUP_DELETED_NOTIF, {0, 0, 0, 5, 'S', 'y', 's', 'l', 'o', 'g', 0}},
        {fr::kDistributionStateNotif, {0, 0, 0, 1, 0, 0, 0, 2}},
    };
    for (const auto &[id, payload] : expected) {
        auto n = sub.receive();
        ASSERT_TRUE(n);
        EXPECT_EQ(fr::Kind::Notification, n->kind);
        EXPECT_EQ(id, n->opcode);
        EXPECT_EQ(payload, n->body);
    }
    // A connection that did not subscribe gets its answers and nothing else.
    const uint32_t seq = other.send_request(CALLHOME_ENABLE_OPC, GET_REQ, Bytes());
    auto f = other.receive();
    ASSERT_TRUE(f);
    EXPECT_EQ(fr::Kind::Response, f->kind);
    EXPECT_EQ(seq, f->seq);
}

TEST_F(DaemonTest, SeveralClientsAreAnsweredInTheirOwnOrder) {
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 6; ++i) {
        clients.push_back(std::make_unique<Client>(sock));
        ASSERT_TRUE(clients.back()->ok());
    }
    // Each client sends its whole batch before reading anything.
    std::vector<std::vector<uint32_t>> seqs(clients.size());
    for (size_t i = 0; i < clients.size(); ++i) {
        const std::string name = "c" + std::to_string(i);
        seqs[i].push_back(
            clients[i]->send_request(CALLHOME_DEST_PROFILE_OPC, SET_REQ, profile_rec(name, 2)));
        seqs[i].push_back(
            clients[i]->send_request(CALLHOME_DEST_PROFILE_OPC, GET_REQ, profile_rec(name)));
        seqs[i].push_back(
            clients[i]->send_request(CALLHOME_DEST_PROFILE_OPC, DELETE_REQ, profile_rec(name)));
        seqs[i].push_back(
            clients[i]->send_request(CALLHOME_DEST_PROFILE_OPC, GET_REQ, profile_rec(name)));
    }
    const int expected[] = {0, 0, 0, CALLHOME_UNKNOWN_ENTRY};
    for (size_t i = 0; i < clients.size(); ++i) {
        for (size_t k = 0; k < 4; ++k) {
            auto f = clients[i]->receive();
            ASSERT_TRUE(f) << i << "/" << k;
            EXPECT_EQ(seqs[i][k], f->seq);
            EXPECT_EQ(expected[k], f->status) << i << "/" << k;
        }
    }
}

TEST_F(DaemonTest, MalformedFrameClosesOnlyThatConnection) {
    Client bad(sock), good(sock);
    bad.send_raw({'n', 'o', 't', ' ', 'a', ' ', 'f', 'r', 'a', 'm', 'e'});
    EXPECT_FALSE(bad.receive());
    EXPECT_TRUE(bad.closed());
    // A well-formed frame of a kind clients never send closes the connection too.
    Client odd(sock);
    fr::Frame reply;
    reply.kind = fr::Kind::Response;
    odd.send(reply);
    EXPECT_FALSE(odd.receive());
    EXPECT_TRUE(odd.closed());
    EXPECT_EQ(0, good.request(CALLHOME_ENABLE_OPC, GET_REQ, Bytes()).status);
}

TEST_F(DaemonTest, StatusFaultAnswersAndChangesNothing) {
    ASSERT_EQ(0, ctl({"fault", "status", "CALLHOME_INFO_OPC", "0x403B0019", "--type", "3"}).code);
    Client c(sock);
    EXPECT_EQ(CALLHOME_ERR_INVALID_INPUT,
              c.request(CALLHOME_INFO_OPC, SET_REQ, info_rec("custId", "C-9")).status);
    EXPECT_EQ(CALLHOME_UNKNOWN_ENTRY,
              c.request(CALLHOME_INFO_OPC, GET_REQ, info_rec("custId")).status);
    ASSERT_EQ(0, ctl({"fault", "status", "2159", "-1"}).code);
    EXPECT_EQ(-1, c.request(CALLHOME_STATUS_OPC, GET_REQ, Bytes()).status);
    EXPECT_EQ(0, c.request(CALLHOME_STATUS_OPC, GET_REQ, Bytes()).status);
}

TEST_F(DaemonTest, DroppedRequestIsNeverAnswered) {
    ASSERT_EQ(0, ctl({"fault", "drop", "CALLHOME_ENABLE_OPC", "--count", "2"}).code);
    Client c(sock);
    c.send_request(CALLHOME_ENABLE_OPC, GET_REQ, Bytes());
    c.send_request(CALLHOME_ENABLE_OPC, GET_REQ, Bytes());
    const uint32_t third = c.send_request(CALLHOME_ENABLE_OPC, GET_REQ, Bytes());
    auto f = c.receive();
    ASSERT_TRUE(f);
    EXPECT_EQ(third, f->seq); // the first two were swallowed
}

TEST_F(DaemonTest, DelayedAnswerDoesNotHoldUpOtherClients) {
    ASSERT_EQ(0, ctl({"fault", "delay", "CALLHOME_ENABLE_OPC", "3000"}).code);
    Client slow(sock), fast(sock);
    const uint32_t first = slow.send_request(CALLHOME_ENABLE_OPC, GET_REQ, Bytes());
    const uint32_t second = slow.send_request(CALLHOME_STATUS_OPC, GET_REQ, Bytes());
    EXPECT_EQ(0, fast.request(CALLHOME_ENABLE_OPC, GET_REQ, Bytes()).status);
    EXPECT_EQ(0, ctl({"ping"}).code);
    EXPECT_FALSE(slow.readable_now()); // still held back
    // The delayed connection's answers still come in the order asked.
    auto a = slow.receive();
    auto b = slow.receive();
    ASSERT_TRUE(a && b);
    EXPECT_EQ(first, a->seq);
    EXPECT_EQ(0, a->status);
    EXPECT_EQ(second, b->seq);
}

TEST_F(DaemonTest, SigtermRemovesSocketAndPidfile) {
    EXPECT_TRUE(exists(pidfile));
    EXPECT_GT(std::atoi(read_file(pidfile).c_str()), 0);
    EXPECT_EQ(0, daemon.stop(SIGTERM));
    EXPECT_FALSE(exists(sock));
    EXPECT_FALSE(exists(pidfile));
}

TEST_F(DaemonTest, SecondDaemonOnTheSameSocketRefusesToStart) {
    const Result second =
        run(CALLHOMED_PATH, {"--socket", sock, "--db", dir / "other.db"}, dir / "second");
    EXPECT_EQ(1, second.code);
    EXPECT_NE(std::string::npos, second.err.find("another callhomed")) << second.err;
    EXPECT_EQ(0, ctl({"ping"}).code); // the first one is untouched
}

TEST(DaemonStart, StaleSocketFileIsReplaced) {
    TempDir dir;
    const std::string sock = dir / "s.sock";
    {
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", sock.c_str());
        ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr));
        close(fd); // bound, never listened: nobody answers there
    }
    Daemon d(sock, dir / "c.db");
    ASSERT_TRUE(d.start());
    Client c(sock);
    EXPECT_EQ(0, c.request(CALLHOME_ENABLE_OPC, GET_REQ, Bytes()).status);
}

TEST_F(DaemonTest, CtlExitCodesAndOutputs) {
    struct Case {
        std::vector<std::string> args;
        int code;
        const char *in_out; // expected in stdout (0) or stderr (otherwise)
    };
    const Case cases[] = {
        {{"ping"}, 0, "ok"},
        {{}, 2, "missing command"},
        {{"frobnicate"}, 2, "unknown command"},
        {{"group", "add"}, 2, "group add NAME"},
        {{"fault", "status", "NOT_AN_OPC", "1"}, 2, "bad opcode"},
        {{"group", "del", "Nope"}, 1, "no alert-group type"},
        {{"group", "add", "Test"}, 1, "already exists"},
        {{"dump"}, 0, "\"alert_group_types\""},
        {{"outbox"}, 0, "[]"},
    };
    for (const auto &c : cases) {
        const Result r = ctl(c.args);
        EXPECT_EQ(c.code, r.code) << (c.args.empty() ? "(none)" : c.args[0]);
        const std::string &where = c.code == 0 ? r.out : r.err;
        EXPECT_NE(std::string::npos, where.find(c.in_out)) << where;
    }
    const Result help = run(CALLHOMECTL_PATH, {"--help"}, dir / "help");
    EXPECT_EQ(0, help.code);
    EXPECT_NE(std::string::npos, help.out.find("dump keys"));
    const Result gone =
        run(CALLHOMECTL_PATH, {"--socket", dir / "nobody.sock", "ping"}, dir / "gone");
    EXPECT_EQ(1, gone.code);
    EXPECT_NE(std::string::npos, gone.err.find("cannot reach"));
    const Result no_path = run(CALLHOMECTL_PATH, {"--socket"}, dir / "nopath");
    EXPECT_EQ(2, no_path.code);
}

TEST_F(DaemonTest, LongOutputsArriveWhole) {
    Client c(sock);
    for (const char *n : {"sysContactEmail", "sysContactPhoneNumber", "sysStreetAddress"}) {
        ASSERT_EQ(0, c.request(CALLHOME_INFO_OPC, SET_REQ, info_rec(n, "ops@example.com")).status);
    }
    ASSERT_EQ(0, c.request(CALLHOME_ENABLE_OPC, SET_REQ, switch_rec(1)).status);
    for (int i = 0; i < 50; ++i) {
        const std::string name = i < 47    ? "p" + std::to_string(i)
                                 : i == 47 ? "full_txt"
                                 : i == 48 ? "xml"
                                           : "short_txt";
        if (i < 47) {
            ASSERT_EQ(0, c.request(CALLHOME_DEST_PROFILE_OPC, SET_REQ, profile_rec(name)).status);
        }
        ASSERT_EQ(
            0, c.request(CALLHOME_DEST_EMAIL_OPC, SET_REQ, dest_email_rec(name, 1, "x@example.com"))
                   .status);
        ASSERT_EQ(
            0, c.request(CALLHOME_PROFILE_ALERTGROUP_OPC, SET_REQ, profile_group_rec(name, "all"))
                   .status);
    }
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(0, c.request(CALLHOME_ALERT_ACTION_OPC, SET_REQ, action_rec("Inventory")).status);
    }
    const Result r = ctl({"outbox"});
    ASSERT_EQ(0, r.code);
    EXPECT_GT(r.out.size(), fr::kMaxBody);
    size_t ids = 0;
    for (size_t p = r.out.find("\"id\": "); p != std::string::npos;
         p = r.out.find("\"id\": ", p + 1)) {
        ++ids;
    }
    EXPECT_EQ(150u, ids);
    EXPECT_EQ("]\n", r.out.substr(r.out.size() - 2));
}

} // namespace
