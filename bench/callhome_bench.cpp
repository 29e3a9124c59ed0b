// callhome_bench: what one request costs, measured beside a peer in the same run.
//
// It starts its own callhomed and snmpd (free port, scratch state directory), loads the
// reference data set through the service's ordinary SET requests, and measures:
//   channel   cmi_req_resp round trips vs a bare SOCK_SEQPACKET ping-pong of the same sizes
//   walks     per-varbind cost of the subtree and each table (GETNEXT, GETBULK 25) vs
//             snmpd's own hrSWRunTable in the same snmpd
//   requests  service requests per varbind for each table (through a counting relay)
//   latency   channel GET p50/p99 alone and while another client streams SETs, and while a
//             delivery waits on a mail server that never greets
//   memory    RSS of snmpd and callhomed before and after 100,000 mixed requests
// Each figure is the median of several rounds with its range. The table goes to stdout and,
// as JSON, to --out. Run it through ./run.sh bench.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>

#include "bench_support.hpp"
#include "callhome_wire.h"
#include "cmi.h"
#include "platform/frame.hpp"
#include "platform/testing.hpp"
#include "snmp_client.hpp"

namespace bench {
namespace {

const std::string kRoot = "1.3.6.1.4.1.32473.9.300";
const std::string kConfig = kRoot + ".1.1";
const std::string kPeerTable = "1.3.6.1.2.1.25.4.2"; // HOST-RESOURCES-MIB hrSWRunTable

constexpr int kRounds = 7;
constexpr int kChannelIterations = 2000;
constexpr int kLatencySamples = 20000;
constexpr int kWarmup = 10000;
constexpr int kMixed = 100000;
constexpr int kBulk = 25;

const char *const kTypes[] = {"Configuration", "Diagnostic", "Environmental", "Inventory",
                              "Syslog",        "System",     "Test"};
constexpr int kProfiles = 50;  // the service's maximum, three of them built in
constexpr int kAddresses = 5;  // per profile
constexpr int kCommands = 5;   // per alert-group type
constexpr int kGroupsEach = 3; // alert groups each profile subscribes to

std::string profile_name(int i) {
    static const char *const kBuiltins[] = {"full_txt", "xml", "short_txt"};
    if (i < 3) {
        return kBuiltins[i];
    }
    char name[32];
    std::snprintf(name, sizeof name, "dest-profile-%02d", i);
    return name;
}

template <size_t N> void put_text(char (&field)[N], const std::string &s) {
    std::memset(field, 0, N);
    std::memcpy(field, s.data(), std::min(s.size(), N - 1));
}

// ---- the channel ----------------------------------------------------------------------------

int cmi_set(int opcode, const void *record, uint32_t size) {
    uint32_t len = size;
    return cmi_req_resp(opcode, SET_REQ, record, nullptr, &len, "", 0, CALLHOME_CLIENT_TABLE,
                        mts_response_q, 10);
}

void must(int status, const std::string &what) {
    if (status != 0) {
        throw std::runtime_error("loading the data set: " + what + " answered " +
                                 std::to_string(status) + " (" + std::strerror(errno) + ")");
    }
}

cmi_callhome_info_t info_record(const std::string &name, const std::string &value) {
    cmi_callhome_info_t r{};
    put_text(r.info_name, name);
    put_text(r.info_value, value);
    return r;
}

callHomeDestProfileEntry profile_record(const std::string &name, int format) {
    callHomeDestProfileEntry p{};
    put_text(p.destination_profile_id, name);
    p.transport_method = int32_t(htonl(1));
    p.format_method = int32_t(htonl(uint32_t(format)));
    p.maximum_message_size = htonl(format == 3 ? 4000 : 500000);
    p.row_status = int32_t(htonl(1));
    return p;
}

// The reference data set: contact details, 50 profiles with 5 addresses and 3 alert groups
// each, 5 commands for each of the 7 alert-group types.
void load_reference_data() {
    const std::pair<const char *, const char *> info[] = {
        {"sysContactPhoneNumber", "+1-555-0100"},
        {"sysContactEmail", "noc@example.com"},
        {"sysStreetAddress", "1 Example Way, Springfield"},
        {"custId", "customer-0001"},
        {"contractId", "contract-0001"},
        {"siteId", "site-0001"},
        {"priority", "2"}};
    for (const auto &[name, value] : info) {
        const auto r = info_record(name, value);
        must(cmi_set(CALLHOME_INFO_OPC, &r, sizeof r), name);
    }
    for (int i = 0; i < kProfiles; ++i) {
        const std::string name = profile_name(i);
        if (i >= 3) {
            const auto p = profile_record(name, 1 + i % 3);
            must(cmi_set(CALLHOME_DEST_PROFILE_OPC, &p, sizeof p), "profile " + name);
        }
        for (int a = 1; a <= kAddresses; ++a) {
            callHomeDestEmailAddressEntry e{};
            put_text(e.destination_profile_id, name);
            put_text(e.email_addr,
                     "ops" + std::to_string(a) + "." + std::to_string(i) + "@example.com");
            e.index = int32_t(htonl(uint32_t(a)));
            e.row_status = int32_t(htonl(1));
            must(cmi_set(CALLHOME_DEST_EMAIL_OPC, &e, sizeof e), "address of " + name);
        }
        for (int g = 0; g < kGroupsEach; ++g) {
            callHomeAlertGroupEntry e{};
            put_text(e.destination_profile_id, name);
            e.row_status = int32_t(htonl(1));
            put_text(e.alert_group, kTypes[(i + 2 * g) % 7]);
            must(cmi_set(CALLHOME_PROFILE_ALERTGROUP_OPC, &e, sizeof e), "group of " + name);
        }
    }
    for (const char *type : kTypes) {
        for (int c = 1; c <= kCommands; ++c) {
            cmi_userdef_cli_cmd_t cmd{};
            cmd.index = int32_t(htonl(uint32_t(c)));
            put_text(cmd.alertgroup_type, type);
            cmd.row_status = int32_t(htonl(1));
            put_text(cmd.cli_cmd, "show " + std::string(type) + " detail " + std::to_string(c));
            must(cmi_set(CALLHOME_USER_DEF_CMD_OPC, &cmd, sizeof cmd), "command");
        }
    }
}

// The two requests of the channel figure: a scalar read of the contact details (2305-byte
// record each way) and a table read of the next profile (51 bytes each way).
void info_get() {
    static const cmi_callhome_info_t request = info_record("sysContactPhoneNumber", "");
    void *resp = nullptr;
    uint32_t len = sizeof request;
    const int st = cmi_req_resp(CALLHOME_INFO_OPC, GET_REQ, &request, &resp, &len, nullptr, 0,
                                CALLHOME_CLIENT_SCALAR, mts_response_q, 2);
    std::free(resp);
    if (st != 0) {
        throw std::runtime_error("info GET failed: " + std::to_string(st));
    }
}

void profile_getnext() {
    static const callHomeDestProfileEntry request = profile_record(profile_name(20), 1);
    void *resp = nullptr;
    uint32_t len = sizeof request;
    const int st = cmi_req_resp(CALLHOME_DEST_PROFILE_OPC, GETNEXT_REQ, &request, &resp, &len, "",
                                0, CALLHOME_CLIENT_TABLE, mts_response_q, 4);
    std::free(resp);
    if (st != 0) {
        throw std::runtime_error("profile GETNEXT failed: " + std::to_string(st));
    }
}

// A second process that answers each message with one of the same size: the least any
// request channel between two processes can cost.
class EchoPeer {
  public:
    EchoPeer() {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) {
            throw std::runtime_error(std::string("socketpair: ") + std::strerror(errno));
        }
        const pid_t pid = fork();
        if (pid == 0) {
            close(sv[0]);
            std::vector<uint8_t> buf(platform::frame::kMaxFrame);
            for (;;) {
                const ssize_t n = recv(sv[1], buf.data(), buf.size(), 0);
                if (n <= 0 || send(sv[1], buf.data(), size_t(n), MSG_NOSIGNAL) != n) {
                    _exit(0);
                }
            }
        }
        close(sv[1]);
        fd_ = sv[0];
        child_ = Child(pid);
    }
    ~EchoPeer() { close(fd_); }
    void round_trip(const std::vector<uint8_t> &msg) {
        if (send(fd_, msg.data(), msg.size(), MSG_NOSIGNAL) != ssize_t(msg.size()) ||
            recv(fd_, buf_.data(), buf_.size(), 0) != ssize_t(msg.size())) {
            throw std::runtime_error("echo peer failed");
        }
    }

  private:
    int fd_ = -1;
    Child child_;
    std::vector<uint8_t> buf_ = std::vector<uint8_t>(platform::frame::kMaxFrame);
};

double per_call(int iterations, const std::function<void()> &call) {
    const auto start = Clock::now();
    for (int i = 0; i < iterations; ++i) {
        call();
    }
    return micros_since(start) / iterations;
}

// ---- a relay that counts the module's requests ----------------------------------------------

class CountingRelay {
  public:
    CountingRelay(std::string listen_path, std::string upstream)
        : path_(std::move(listen_path)), upstream_(std::move(upstream)) {
        listen_fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path_.c_str());
        if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
            listen(listen_fd_, 8) != 0 || pipe2(stop_, O_CLOEXEC) != 0) {
            throw std::runtime_error("relay: " + std::string(std::strerror(errno)));
        }
        threads_.emplace_back([this] { accept_loop(); });
    }
    ~CountingRelay() {
        (void)!write(stop_[1], "x", 1);
        for (auto &t : threads_) {
            t.join();
        }
        close(listen_fd_);
        close(stop_[0]);
        close(stop_[1]);
        unlink(path_.c_str());
    }
    size_t requests() const { return requests_.load(); }

  private:
    void accept_loop() {
        std::vector<std::thread> pairs;
        for (;;) {
            pollfd p[2] = {{stop_[0], POLLIN, 0}, {listen_fd_, POLLIN, 0}};
            if (poll(p, 2, -1) < 0 && errno != EINTR) {
                break;
            }
            if (p[0].revents != 0) {
                break;
            }
            if (p[1].revents & POLLIN) {
                const int client = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
                if (client < 0) {
                    continue;
                }
                const int up = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
                sockaddr_un a{};
                a.sun_family = AF_UNIX;
                std::snprintf(a.sun_path, sizeof a.sun_path, "%s", upstream_.c_str());
                if (up < 0 || connect(up, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
                    close(client);
                    if (up >= 0) {
                        close(up);
                    }
                    continue;
                }
                pairs.emplace_back([this, client, up] { forward(client, up); });
            }
        }
        for (auto &t : pairs) {
            t.join();
        }
    }
    void forward(int client, int up) {
        std::vector<uint8_t> buf(platform::frame::kMaxFrame + 1);
        for (;;) {
            pollfd p[3] = {{stop_[0], POLLIN, 0}, {client, POLLIN, 0}, {up, POLLIN, 0}};
            if (poll(p, 3, -1) < 0 && errno != EINTR) {
                break;
            }
            if (p[0].revents != 0) {
                break;
            }
            bool closed = false;
            for (int i : {1, 2}) {
                if (p[i].revents == 0) {
                    continue;
                }
                const ssize_t n = recv(p[i].fd, buf.data(), buf.size(), 0);
                if (n <= 0) {
                    closed = true;
                    break;
                }
                // Frame kind (u16 at offset 6) 1 is a request.
                if (i == 1 && n >= 8 && buf[6] == 0 && buf[7] == 1) {
                    ++requests_;
                }
                send(i == 1 ? up : client, buf.data(), size_t(n), MSG_NOSIGNAL);
            }
            if (closed) {
                break;
            }
        }
        close(client);
        close(up);
    }

    std::string path_, upstream_;
    int listen_fd_ = -1;
    int stop_[2] = {-1, -1};
    std::atomic<size_t> requests_{0};
    std::vector<std::thread> threads_;
};

// ---- processes --------------------------------------------------------------------------------

struct Paths {
    std::string bin, lib, out, state_parent;
};

Child start_service(const Paths &p, const std::string &dir, const std::string &socket) {
    Child c({p.bin + "/callhomed", "--socket", socket, "--db", dir + "/callhome.db"}, {},
            dir + "/callhomed.log");
    const bool up = wait_until(10, [&] {
        const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::snprintf(a.sun_path, sizeof a.sun_path, "%s", socket.c_str());
        const bool ok = connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
        close(fd);
        return ok;
    });
    if (!up) {
        throw std::runtime_error("callhomed did not come up; see " + dir + "/callhomed.log");
    }
    return c;
}

// snmpd with the module, configured as ./run.sh start configures it, plus read access to
// hrSWRunTable for the peer figure.
Child start_agent(const Paths &p, const std::string &dir, const std::string &name, int port,
                  const std::string &socket) {
    const std::string conf = dir + "/" + name + ".conf";
    std::ofstream(conf) << "agentAddress udp:127.0.0.1:" << port << "\n"
                        << "rocommunity public 127.0.0.1\n"
                        << "rwcommunity private 127.0.0.1 " << kRoot << "\n"
                        << "dontLogTCPWrappersConnects yes\n"
                        << "dlmod callhome_mib " << p.lib << "/libcallhomemib.so\n";
    Child c({"snmpd", "-f", "-C", "-c", conf, "-Lf", dir + "/" + name + ".log"},
            {{"CALLHOME_SOCKET", socket},
             {"SNMP_PERSISTENT_DIR", dir + "/" + name + "-persist"},
             {"MIBS", ""}},
            dir + "/" + name + ".out");
    SnmpClient probe(port, "public");
    const Oid max_count = parse_oid(kConfig + ".13.0");
    if (!wait_until(15, [&] { return c.alive() && probe.get(max_count); })) {
        throw std::runtime_error("snmpd does not answer; see " + dir + "/" + name + ".log");
    }
    return c;
}

// ---- the report ---------------------------------------------------------------------------

struct Figure {
    std::string group, name, unit;
    Spread value;
    std::optional<Spread> peer;
    std::string peer_name;
    std::optional<double> target; // the ratio (or value, without a peer) must stay at or below
    int decimals = 1;

    std::optional<double> ratio() const {
        if (!peer || peer->median <= 0) {
            return std::nullopt;
        }
        return value.median / peer->median;
    }
    std::optional<double> judged() const { return peer ? ratio() : value.median; }
    bool met() const { return !target || (judged() && *judged() <= *target); }
};

std::string fmt(double v, int decimals) {
    char b[64];
    std::snprintf(b, sizeof b, "%.*f", decimals, v);
    return b;
}

std::string fmt_spread(const Spread &s, int decimals, const std::string &unit) {
    std::string out = fmt(s.median, decimals) + " " + unit;
    if (s.min != s.max) {
        out += " [" + fmt(s.min, decimals) + "-" + fmt(s.max, decimals) + "]";
    }
    return out;
}

std::string json_escape(const std::string &s) {
    std::string o;
    for (char c : s) {
        if (c == '"' || c == '\\') {
            o += '\\';
        }
        o += c;
    }
    return o;
}

std::string json_spread(const Spread &s) {
    return "{\"median\": " + fmt(s.median, 4) + ", \"min\": " + fmt(s.min, 4) +
           ", \"max\": " + fmt(s.max, 4) + "}";
}

void report(const std::vector<Figure> &figures, const std::string &out_path) {
    std::printf("\n%-44s %-28s %-34s %7s %8s\n", "figure", "value", "peer", "ratio", "target");
    std::string group;
    int met = 0, judged = 0;
    for (const auto &f : figures) {
        if (f.group != group) {
            group = f.group;
            std::printf("-- %s\n", group.c_str());
        }
        const std::string peer =
            f.peer ? fmt_spread(*f.peer, f.decimals, f.unit) + " " + f.peer_name : "";
        const std::string ratio = f.ratio() ? fmt(*f.ratio(), 2) : "";
        std::string target;
        if (f.target) {
            ++judged;
            met += f.met();
            target = "<=" + fmt(*f.target, f.peer ? 2 : 1) + (f.met() ? " ok" : " MISS");
        }
        std::printf("%-44s %-28s %-34s %7s %8s\n", f.name.c_str(),
                    fmt_spread(f.value, f.decimals, f.unit).c_str(), peer.c_str(), ratio.c_str(),
                    target.c_str());
    }
    std::printf("\ntargets met: %d of %d\n", met, judged);

    std::ostringstream j;
    j << "{\n  \"rounds\": " << kRounds << ",\n  \"figures\": [\n";
    for (size_t i = 0; i < figures.size(); ++i) {
        const auto &f = figures[i];
        j << "    {\"group\": \"" << json_escape(f.group) << "\", \"name\": \""
          << json_escape(f.name) << "\", \"unit\": \"" << f.unit
          << "\", \"value\": " << json_spread(f.value);
        if (f.peer) {
            j << ", \"peer\": " << json_spread(*f.peer) << ", \"peer_name\": \""
              << json_escape(f.peer_name) << "\", \"ratio\": " << fmt(*f.ratio(), 4);
        }
        if (f.target) {
            j << ", \"target\": " << fmt(*f.target, 2)
              << ", \"met\": " << (f.met() ? "true" : "false");
        }
        j << "}" << (i + 1 < figures.size() ? "," : "") << "\n";
    }
    j << "  ]\n}\n";
    std::ofstream out(out_path);
    out << j.str();
    if (!out) {
        std::fprintf(stderr, "callhome_bench: cannot write %s\n", out_path.c_str());
    } else {
        std::printf("JSON: %s\n", out_path.c_str());
    }
}

// ---- measurements -------------------------------------------------------------------------

std::vector<uint8_t> frame_bytes(int opcode, int msg_type, const std::string *user, size_t body) {
    platform::frame::Frame f;
    f.opcode = opcode;
    f.msg_type = msg_type;
    if (user != nullptr) {
        f.user = *user;
    }
    f.body.assign(body, 0);
    return *platform::frame::encode(f);
}

void measure_channel(std::vector<Figure> &out) {
    EchoPeer peer;
    const std::string empty;
    struct Case {
        std::string name;
        std::function<void()> call;
        std::vector<uint8_t> same_size;
    };
    const Case cases[] = {
        {"info GET, 2305-byte records", info_get,
         frame_bytes(CALLHOME_INFO_OPC, GET_REQ, nullptr, sizeof(cmi_callhome_info_t))},
        {"profile GETNEXT, 51-byte records", profile_getnext,
         frame_bytes(CALLHOME_DEST_PROFILE_OPC, GETNEXT_REQ, &empty,
                     sizeof(callHomeDestProfileEntry))},
    };
    for (const auto &c : cases) {
        std::vector<double> mine, bare;
        per_call(200, c.call); // connect and warm the caches
        per_call(200, [&] { peer.round_trip(c.same_size); });
        // Short alternating slices, so that both see the same machine load.
        constexpr int kSlices = 10;
        for (int r = 0; r < kRounds; ++r) {
            double m = 0, b = 0;
            for (int s = 0; s < kSlices; ++s) {
                m += per_call(kChannelIterations / kSlices, c.call);
                b += per_call(kChannelIterations / kSlices, [&] { peer.round_trip(c.same_size); });
            }
            mine.push_back(m / kSlices);
            bare.push_back(b / kSlices);
        }
        Figure f;
        f.group = "channel: cmi_req_resp round trip";
        f.name = c.name;
        f.unit = "us";
        f.value = spread(mine);
        f.peer = spread(bare);
        f.peer_name = "ping-pong";
        f.target = 1.15;
        f.decimals = 1;
        out.push_back(f);
    }
}

struct Target {
    std::string name, oid;
    bool whole = false;
};

const std::vector<Target> &walk_targets() {
    static const std::vector<Target> t = {
        {"whole subtree", kRoot, true},
        {"profile table", kConfig + ".12"},
        {"  alert-group column", kConfig + ".12.1.7"},
        {"e-mail address table", kConfig + ".14"},
        {"alert-group type table", kConfig + ".25"},
        {"user command table", kConfig + ".30.6"},
    };
    return t;
}

void measure_walks(int port, std::vector<Figure> &out) {
    SnmpClient client(port, "public");
    const Oid peer_root = parse_oid(kPeerTable);
    for (int bulk : {kBulk, 0}) {
        const std::string how = bulk ? "GETBULK " + std::to_string(bulk) : "GETNEXT";
        // One peer series per method, interleaved with every target's rounds.
        std::vector<std::vector<double>> mine(walk_targets().size());
        std::vector<double> peer;
        size_t peer_varbinds = 0;
        for (int r = 0; r < kRounds; ++r) {
            const WalkResult pw = client.walk(peer_root, bulk);
            peer.push_back(pw.micros / double(std::max<size_t>(pw.varbinds, 1)));
            peer_varbinds = pw.varbinds;
            for (size_t i = 0; i < walk_targets().size(); ++i) {
                const WalkResult w = client.walk(parse_oid(walk_targets()[i].oid), bulk);
                mine[i].push_back(w.micros / double(std::max<size_t>(w.varbinds, 1)));
            }
        }
        for (size_t i = 0; i < walk_targets().size(); ++i) {
            Figure f;
            f.group = "walks: time per varbind, " + how;
            f.name = walk_targets()[i].name;
            f.unit = "us";
            f.value = spread(mine[i]);
            f.peer = spread(peer);
            f.peer_name = "hrSWRun(" + std::to_string(peer_varbinds) + ")";
            if (walk_targets()[i].whole && bulk) {
                f.target = 8;
            }
            out.push_back(f);
        }
    }
}

void measure_requests(const Paths &p, const std::string &dir, const std::string &socket,
                      std::vector<Figure> &out) {
    const std::string relay_path = dir + "/relay.sock";
    CountingRelay relay(relay_path, socket);
    const int port = free_udp_port();
    Child agent = start_agent(p, dir, "snmpd-counted", port, relay_path);
    SnmpClient client(port, "public");
    for (int bulk : {kBulk, 0}) {
        for (const auto &t : walk_targets()) {
            const size_t before = relay.requests();
            const WalkResult w = client.walk(parse_oid(t.oid), bulk);
            const double per =
                double(relay.requests() - before) / double(std::max<size_t>(w.varbinds, 1));
            Figure f;
            f.group = std::string("service requests per varbind, ") +
                      (bulk ? "GETBULK " + std::to_string(bulk) : "GETNEXT");
            f.name = t.name + " (" + std::to_string(w.varbinds) + " varbinds)";
            f.unit = "req";
            f.value = {per, per, per};
            f.decimals = 2;
            out.push_back(f);
        }
    }
}

std::vector<double> get_latencies(int n) {
    std::vector<double> v;
    v.reserve(size_t(n));
    for (int i = 0; i < n; ++i) {
        const auto start = Clock::now();
        info_get();
        v.push_back(micros_since(start));
    }
    return v;
}

// Another client of the service that writes a scalar as fast as the service commits.
Child start_set_stream() {
    const pid_t pid = fork();
    if (pid == 0) {
        platform::disconnect(); // a connection of its own
        for (long i = 0;; ++i) {
            const auto r = info_record("custId", "customer-" + std::to_string(i % 1000));
            uint32_t len = sizeof r;
            cmi_req_resp(CALLHOME_INFO_OPC, SET_REQ, &r, nullptr, &len, nullptr, 0,
                         CALLHOME_CLIENT_SCALAR, mts_response_q, 10);
        }
    }
    return Child(pid);
}

// GET latency percentiles of each round, under a load and without it.
struct LatencyRounds {
    std::vector<double> p50, p99;
    void add(const std::vector<double> &samples) {
        p50.push_back(percentile(samples, 50));
        p99.push_back(percentile(samples, 99));
    }
};

// "GET p50 <load>" and "GET p99 <load>", each beside the same figure without the load.
void add_latency_figures(std::vector<Figure> &out, const std::string &load,
                         const LatencyRounds &busy, const LatencyRounds &alone,
                         const std::string &peer_name, std::optional<double> p99_target) {
    for (const auto &[pct, b, a, target] :
         {std::tuple{"p50", &busy.p50, &alone.p50, std::optional<double>()},
          std::tuple{"p99", &busy.p99, &alone.p99, p99_target}}) {
        Figure f;
        f.group = "channel latency (info GET)";
        f.name = std::string("GET ") + pct + " " + load;
        f.unit = "us";
        f.value = spread(*b);
        f.peer = spread(*a);
        f.peer_name = peer_name;
        f.target = target;
        out.push_back(f);
    }
}

void measure_latency(std::vector<Figure> &out) {
    get_latencies(2000); // warm
    LatencyRounds alone, busy;
    const int per_round = kLatencySamples / kRounds;
    for (int r = 0; r < kRounds; ++r) {
        alone.add(get_latencies(per_round));
        Child stream = start_set_stream();
        struct timespec ts {
            0, 50'000'000
        };
        nanosleep(&ts, nullptr);
        busy.add(get_latencies(per_round));
        stream.stop();
    }
    add_latency_figures(out, "while another client streams SETs", busy, alone, "alone", 3.0);
}

// A mail server that accepts and never greets: a delivery to it stays under way until the
// sender's time-out (30 s by default), far longer than the figure takes.
class SilentMailServer {
  public:
    SilentMailServer() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
            listen(fd_, 8) != 0 || getsockname(fd_, reinterpret_cast<sockaddr *>(&a), &len) != 0) {
            throw std::runtime_error("silent mail server: " + std::string(std::strerror(errno)));
        }
        port_ = ntohs(a.sin_port);
    }
    ~SilentMailServer() {
        for (int fd : accepted_) {
            close(fd);
        }
        close(fd_);
    }
    uint16_t port() const { return port_; }
    // True once the sender has connected (within `seconds`).
    bool connected(int seconds) {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, seconds * 1000) != 1) {
            return false;
        }
        const int fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            return false;
        }
        accepted_.push_back(fd);
        return true;
    }

  private:
    int fd_;
    uint16_t port_ = 0;
    std::vector<int> accepted_;
};

void measure_delivery_latency(std::vector<Figure> &out) {
    SilentMailServer smtp;
    LatencyRounds alone, busy;
    const int per_round = kLatencySamples / kRounds;
    get_latencies(2000); // warm
    for (int r = 0; r < kRounds; ++r) {
        alone.add(get_latencies(per_round));
    }
    cmi_email_conf_t conf{};
    put_text(conf.from_email_addr, "device@example.com");
    put_text(conf.smtp_server, "127.0.0.1");
    conf.address_type = htonl(CALLHOME_ADDR_IPV4);
    conf.smtp_server_port = htonl(smtp.port());
    must(cmi_set(CALLHOME_EMAIL_CONF_OPC, &conf, sizeof conf), "SMTP server");
    callhome_switch_t on{};
    on.value = htonl(1);
    must(cmi_set(CALLHOME_ENABLE_OPC, &on, sizeof on), "callHomeEnable");
    callhome_alert_action_t test{};
    put_text(test.action, "Test Call Home");
    must(cmi_set(CALLHOME_ALERT_ACTION_OPC, &test, sizeof test), "test message");
    if (!smtp.connected(10)) {
        throw std::runtime_error("no delivery reached the silent mail server");
    }
    for (int r = 0; r < kRounds; ++r) {
        busy.add(get_latencies(per_round));
    }
    add_latency_figures(out, "while delivering to a silent server", busy, alone, "no delivery",
                        std::nullopt);
}

// Reads and writes through snmpd in a fixed mix: of every 100 requests, 96 reads (GET,
// GETNEXT, GETBULK), 2 scalar SETs, one profile created and one destroyed. Writes are few
// because each waits for the disk.
void mixed_requests(SnmpClient &ro, SnmpClient &rw, int count, long &failures) {
    const Oid site = parse_oid(kConfig + ".7.0");
    const Oid customer = parse_oid(kConfig + ".5.0");
    const Oid profiles = parse_oid(kConfig + ".12.1.2");
    const Oid emails = parse_oid(kConfig + ".14.1.2");
    const Oid status_of_spare = with_text_index(parse_oid(kConfig + ".12.1.5"), "dest-spare");
    for (int i = 0; i < count; ++i) {
        bool ok = true;
        switch (int k = i % 100; k) {
        case 24:
        case 74:
            ok = rw.set_text(site, "site-" + std::to_string(i % 7));
            break;
        case 49:
            ok = rw.set_int(status_of_spare, 4); // createAndGo
            break;
        case 99:
            ok = rw.set_int(status_of_spare, 6); // destroy
            break;
        default:
            ok = k % 3 == 0   ? ro.get(customer)
                 : k % 3 == 1 ? ro.getnext(with_text_index(profiles, profile_name(k % kProfiles)))
                              : ro.getbulk(with_text_index(emails, profile_name(k % kProfiles)), 5);
        }
        failures += ok ? 0 : 1;
    }
}

void measure_memory(int port, pid_t agent, pid_t service, const std::string &agent_log,
                    std::vector<Figure> &out) {
    SnmpClient ro(port, "public"), rw(port, "private");
    long failures = 0;
    // The spare profile takes the slot that the mix creates and destroys.
    const callHomeDestProfileEntry last = profile_record(profile_name(kProfiles - 1), 1);
    uint32_t len = sizeof last;
    cmi_req_resp(CALLHOME_DEST_PROFILE_OPC, DELETE_REQ, &last, nullptr, &len, "", 0,
                 CALLHOME_CLIENT_TABLE, mts_response_q, 10);
    mixed_requests(ro, rw, kWarmup, failures);
    const long agent_before = rss_kib(agent), service_before = rss_kib(service);
    const long log_before = file_size(agent_log);
    const auto start = Clock::now();
    failures = 0;
    mixed_requests(ro, rw, kMixed, failures);
    const double seconds = micros_since(start) / 1e6;
    const long agent_after = rss_kib(agent), service_after = rss_kib(service);
    const long log_after = file_size(agent_log);
    if (failures > 0) {
        std::fprintf(stderr, "callhome_bench: %ld of %d mixed requests failed\n", failures, kMixed);
    }
    for (const auto &[name, before, after] :
         {std::tuple{"snmpd", agent_before, agent_after},
          std::tuple{"callhomed", service_before, service_after}}) {
        Figure f;
        f.group =
            "memory: 100,000 mixed requests after 10,000 (" + fmt(kMixed / seconds, 0) + " req/s)";
        f.name = std::string(name) + " RSS growth (" + std::to_string(before) + " -> " +
                 std::to_string(after) + " KiB)";
        f.unit = "%";
        const double growth = 100.0 * double(after - before) / double(std::max(before, 1L));
        f.value = {growth, growth, growth};
        f.target = 1.0;
        f.decimals = 2;
        out.push_back(f);
    }
    Figure f;
    f.group =
        "memory: 100,000 mixed requests after 10,000 (" + fmt(kMixed / seconds, 0) + " req/s)";
    f.name = "snmpd log growth";
    f.unit = "bytes";
    const double grown = double(log_after - log_before);
    f.value = {grown, grown, grown};
    f.target = 0;
    f.decimals = 0;
    out.push_back(f);
}

int run(const Paths &p) {
    signal(SIGPIPE, SIG_IGN);
    ScratchDir dir(p.state_parent);
    init_snmp_library(dir.path() + "/client-persist");
    const std::string socket = dir.path() + "/callhomed.sock";
    Child service = start_service(p, dir.path(), socket);
    platform::set_socket_path(socket);
    std::printf("callhome bench: %d rounds; figures are medians [min-max] over rounds; "
                "ratio = value / peer\n",
                kRounds);
    std::fflush(stdout);
    load_reference_data();
    const int port = free_udp_port();
    Child agent = start_agent(p, dir.path(), "snmpd", port, socket);

    std::vector<Figure> figures;
    const auto step = [&](const char *what, const std::function<void()> &f) {
        const auto start = Clock::now();
        std::printf("  %s...", what);
        std::fflush(stdout);
        f();
        std::printf(" %.1f s\n", micros_since(start) / 1e6);
    };
    step("channel round trips", [&] { measure_channel(figures); });
    step("walks", [&] { measure_walks(port, figures); });
    step("service requests per varbind", [&] { measure_requests(p, dir.path(), socket, figures); });
    step("GET latency", [&] { measure_latency(figures); });
    step("memory under mixed requests", [&] {
        measure_memory(port, agent.pid(), service.pid(), dir.path() + "/snmpd.log", figures);
    });
    // Last: the message it queues stays in the outbox.
    step("GET latency during a delivery", [&] { measure_delivery_latency(figures); });
    report(figures, p.out);
    return 0;
}

} // namespace
} // namespace bench

int main(int argc, char **argv) {
    bench::Paths p;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        (a == "--bin"   ? p.bin
         : a == "--lib" ? p.lib
         : a == "--out" ? p.out
                        : p.state_parent) = argv[i + 1];
        if (a != "--bin" && a != "--lib" && a != "--out" && a != "--state") {
            std::fprintf(stderr,
                         "usage: callhome_bench --bin DIR --lib DIR --out FILE --state DIR\n");
            return 2;
        }
    }
    if (p.bin.empty() || p.lib.empty() || p.out.empty() || p.state_parent.empty()) {
        std::fprintf(stderr, "usage: callhome_bench --bin DIR --lib DIR --out FILE --state DIR\n");
        return 2;
    }
    // snmpd loads the module by path from wherever it runs.
    for (std::string *dir : {&p.bin, &p.lib}) {
        char *abs = realpath(dir->c_str(), nullptr);
        if (abs == nullptr) {
            std::fprintf(stderr, "callhome_bench: no directory %s\n", dir->c_str());
            return 2;
        }
        *dir = abs;
        std::free(abs);
    }
    try {
        return bench::run(p);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "callhome_bench: %s\n", e.what());
        return 1;
    }
}
