// A real call-home service and a stock snmpd with the module, on free loopback ports in a
// temporary directory, driven with net-snmp's command-line tools.
#pragma once

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "callhome_wire.h"
#include "run_command.hpp"
#include "cmi.h"
#include "platform/testing.hpp"

namespace agent_test {

namespace fs = std::filesystem;

inline constexpr const char *kRoot = ".1.3.6.1.4.1.32473.9.300";
// The SNMPv3 user the agent's configuration creates; writes go through it.
inline constexpr const char *kV3User = "callhome";
inline constexpr const char *kV3Auth = "agent-test-auth";
inline constexpr const char *kV3Priv = "agent-test-priv";
// snmpset's security options for that user at authPriv.
inline std::string v3_options() {
    return std::string("-v3 -u ") + kV3User + " -l authPriv -a SHA-256 -A " + kV3Auth +
           " -x AES -X " + kV3Priv;
}

using callhome_test::CommandResult;

// Runs a shell command line; standard output and error are captured together.
inline CommandResult run(const std::string &command) {
    return callhome_test::run_command(command + " 2>&1");
}

inline std::string quote(const std::string &s) {
    std::string q = "'";
    for (char c : s) {
        if (c == '\'') {
            q += "'\\''";
        } else {
            q += c;
        }
    }
    return q + "'";
}

inline int free_udp_port() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    socklen_t len = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    ::close(fd);
    return ntohs(a.sin_port);
}

// Polls `pred` every 50 ms for at most `seconds`.
template <class Pred> bool eventually(Pred pred, double seconds = 10) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

// A child process, killed when the object goes away.
class Process {
  public:
    Process() = default;
    Process(const std::vector<std::string> &argv, const std::map<std::string, std::string> &env,
            const std::string &log) {
        pid_ = ::fork();
        if (pid_ == 0) {
            const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            ::dup2(fd, 1);
            ::dup2(fd, 2);
            const int in = ::open("/dev/null", O_RDONLY);
            ::dup2(in, 0);
            for (const auto &[k, v] : env) {
                ::setenv(k.c_str(), v.c_str(), 1);
            }
            callhome_test::exec_args(argv);
        }
    }
    Process(Process &&o) noexcept : pid_(o.pid_) { o.pid_ = -1; }
    Process &operator=(Process &&o) noexcept {
        if (this != &o) {
            stop();
            pid_ = o.pid_;
            o.pid_ = -1;
        }
        return *this;
    }
    ~Process() { stop(); }

    bool running() const { return pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == 0; }
    void kill(int sig) {
        if (pid_ > 0) {
            ::kill(pid_, sig);
            ::kill(pid_, SIGCONT); // a stopped process acts on the signal only once resumed
            ::waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }
    void stop() { kill(SIGTERM); }
    // Sends `sig` and leaves the process be (SIGSTOP, SIGCONT).
    void signal(int sig) const {
        if (pid_ > 0) {
            ::kill(pid_, sig);
        }
    }

  private:
    pid_t pid_ = -1;
};

// How the module runs: loaded into snmpd (dlmod), or as the callhome-agentx subagent of an
// snmpd that is AgentX master. The tests talk to snmpd's UDP port either way.
enum class AgentMode { Dlmod, AgentX };

inline std::string mode_name(AgentMode mode) {
    return mode == AgentMode::Dlmod ? "dlmod" : "agentx";
}

inline std::string agentx_path() {
#ifdef AGENTX_PATH
    return AGENTX_PATH;
#else
    // Built beside callhomed.
    return (fs::path(CALLHOMED_PATH).parent_path() / "callhome-agentx").string();
#endif
}

class AgentEnv : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/callhome-agent-XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        socket_ = dir_ + "/callhomed.sock";
        db_ = dir_ + "/callhome.db";
        port_ = free_udp_port();
        trap_port_ = free_udp_port();
        platform::set_socket_path(socket_);
        start_service();
    }

    void TearDown() override {
        platform::disconnect();
        trapd_.stop();
        subagent_.stop();
        agent_.stop();
        service_.stop();
        if (::testing::Test::HasFailure()) {
            for (const char *log :
                 {"/snmpd.log", "/callhomed.log", "/snmptrapd.log", "/callhome-agentx.log"}) {
                std::ifstream f(dir_ + log);
                std::stringstream s;
                s << f.rdbuf();
                std::cerr << "---- " << log << " ----\n" << s.str().substr(0, 20000) << "\n";
            }
        }
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    void start_service() {
        service_ =
            Process({CALLHOMED_PATH, "--socket", socket_, "--db", db_, "--enable-fault-injection"},
                    {}, dir_ + "/callhomed.log");
        ASSERT_TRUE(eventually([&] { return ctl({"ping"}).status == 0; }))
            << "callhomed did not answer";
    }
    void stop_service() { service_.stop(); }

    // Starts snmpd with the module (in agent_mode_). `extra` lines go into its configuration.
    void start_agent(const std::string &extra = "") {
        const std::string conf = dir_ + "/snmpd.conf";
        std::ofstream c(conf);
        c << "agentAddress udp:127.0.0.1:" << port_ << "\n"
          << "rocommunity public 127.0.0.1\n"
          // Writes take SNMPv3 authPriv, as in ./run.sh start.
          << "createUser " << kV3User << " SHA-256 " << kV3Auth << " AES " << kV3Priv << "\n"
          << "rwuser " << kV3User << " priv\n"
          << "trap2sink 127.0.0.1:" << trap_port_ << " public\n";
        if (agent_mode_ == AgentMode::Dlmod) {
            c << "dlmod callhome_mib " << MODULE_PATH << "\n";
        } else {
            // The module may wait up to 10 s for the service; the master must wait as long.
            c << "master agentx\n"
              << "agentXSocket " << agentx_socket() << "\n"
              << "agentXTimeout 15\n";
        }
        c << extra;
        c.close();
        start_snmpd();
        if (agent_mode_ == AgentMode::AgentX) {
            start_subagent();
        }
        // Short probes: a request sent before snmpd listens is simply lost, and a long
        // timeout would then make every start wait it out.
        ASSERT_TRUE(eventually([&] {
            return run("MIBS= snmpget -v2c -c public -On -r 0 -t 0.2 127.0.0.1:" +
                       std::to_string(port_) + " " + kRoot + ".1.1.13.0")
                       .out.find("Gauge32: 50") != std::string::npos;
        })) << "snmpd with the module ("
            << mode_name(agent_mode_) << ") did not answer";
    }
    // snmpd alone, with the configuration start_agent wrote; in AgentX mode a restart leaves
    // the subagent running, which has to reconnect.
    void start_snmpd() {
        const std::string conf = dir_ + "/snmpd.conf";
        fs::create_directories(dir_ + "/persist");
        std::map<std::string, std::string> env{
            {"CALLHOME_SOCKET", socket_}, {"SNMP_PERSISTENT_DIR", dir_ + "/persist"}, {"MIBS", ""}};
#ifdef CALLHOME_ASAN_RUNTIME
        // snmpd itself is not instrumented; the sanitizer runtime must be loaded first.
        env["LD_PRELOAD"] = CALLHOME_ASAN_RUNTIME;
        env["ASAN_OPTIONS"] = "detect_leaks=0";
#endif
        agent_ =
            Process({SNMPD_PATH, "-f", "-C", "-c", conf, "-Lf", dir_ + "/snmpd.log", "-Dcallhome"},
                    env, dir_ + "/snmpd.out");
    }
    void stop_snmpd() {
        agent_.stop();
    }
    std::string agentx_socket() const {
        return dir_ + "/agentx.sock";
    }

    void start_subagent() {
        // A ping every second: a restarted master gets the subagent back quickly.
        subagent_ = Process({agentx_path(), "-f", "-x", agentx_socket(), "-i", "1", "-Lf",
                             dir_ + "/callhome-agentx.log", "-D", "callhome"},
                            {{"CALLHOME_SOCKET", socket_}}, dir_ + "/callhome-agentx.out");
    }

    void start_trapd() {
        const std::string conf = dir_ + "/snmptrapd.conf";
        std::ofstream c(conf);
        c << "disableAuthorization yes\n";
        c.close();
        trapd_ = Process({SNMPTRAPD_PATH, "-f", "-C", "-c", conf, "-On", "-Lf", dir_ + "/traps.log",
                          "udp:127.0.0.1:" + std::to_string(trap_port_)},
                         {{"MIBS", ""}}, dir_ + "/snmptrapd.log");
        // snmptrapd logs this line once it listens.
        ASSERT_TRUE(
            eventually([&] { return traps().find("NET-SNMP version") != std::string::npos; }));
    }
    std::string traps() const {
        std::ifstream f(dir_ + "/traps.log");
        std::stringstream s;
        s << f.rdbuf();
        return s.str();
    }

    // net-snmp tool against the agent: numeric OIDs, one try, 5-second timeout.
    CommandResult snmp(const std::string &tool, const std::string &args,
                       const std::string &community = "public") const {
        return run("MIBS= " + tool + " -v2c -c " + community +
                   " -On -r 0 -t 5 127.0.0.1:" + std::to_string(port_) + " " + args);
    }
    // A write, as the v3 user at authPriv.
    CommandResult snmpset(const std::string &args) const {
        return run("MIBS= snmpset " + v3_options() +
                   " -On -r 0 -t 5 127.0.0.1:" + std::to_string(port_) + " " + args);
    }
    CommandResult ctl(const std::vector<std::string> &args) const {
        std::string cmd = std::string(CALLHOMECTL_PATH) + " --socket " + quote(socket_);
        for (const auto &a : args) {
            cmd += " " + quote(a);
        }
        return run(cmd);
    }

    // Writes a record straight into the service over its request channel, as the module's
    // SET path would; used to prepare state independently of the handlers under test.
    template <class Record> void service_set(int opcode, const Record &rec) {
        uint32_t len = sizeof rec;
        ASSERT_EQ(cmi_req_resp(opcode, SET_REQ, &rec, nullptr, &len, nullptr, 0, 0, 0, 5), 0)
            << "opcode " << opcode;
    }
    template <size_t N> static void put(char (&field)[N], const std::string &s) {
        std::strncpy(field, s.c_str(), N - 1);
    }
    static int32_t be(uint32_t v) {
        return int32_t(htonl(v));
    }
    void set_info(const char *name, const char *value) {
        cmi_callhome_info_t rec{};
        put(rec.info_name, name);
        put(rec.info_value, value);
        service_set(CALLHOME_INFO_OPC, rec);
    }
    void add_profile(const char *name, int format = 1, uint32_t size = 500000, int level = 0) {
        callHomeDestProfileEntry_t p{{},    be(1),         be(format), htonl(size),
                                     be(1), int8_t(level), 0,          0};
        put(p.destination_profile_id, name);
        service_set(CALLHOME_DEST_PROFILE_OPC, p);
    }
    void add_address(const char *profile, int index, const char *address) {
        callHomeDestEmailAddressEntry_t e{{}, {}, be(index), be(1), 0};
        put(e.destination_profile_id, profile);
        put(e.email_addr, address);
        service_set(CALLHOME_DEST_EMAIL_OPC, e);
    }
    void add_group(const char *profile, const char *group) {
        callHomeAlertGroupEntry_t g{{}, 0, be(1), {}, 0};
        put(g.destination_profile_id, profile);
        put(g.alert_group, group);
        service_set(CALLHOME_PROFILE_ALERTGROUP_OPC, g);
    }
    void add_command(const char *type, int index, const char *command) {
        cmi_userdef_cli_cmd_t c{be(index), {}, be(1), {}, 0};
        put(c.alertgroup_type, type);
        put(c.cli_cmd, command);
        service_set(CALLHOME_USER_DEF_CMD_OPC, c);
    }
    std::string get(const std::string &oid) const {
        return snmp("snmpget", oid).out;
    }
    std::string dump() const {
        return ctl({"dump"}).out;
    }

    std::string dir_, socket_, db_;
    int port_ = 0, trap_port_ = 0;
    Process service_, agent_, trapd_;
    AgentMode agent_mode_ = AgentMode::Dlmod;
    Process subagent_; // AgentX mode only
};

// The lines "OID = TYPE: value" of a tool's output, as (oid, "TYPE: value").
inline std::vector<std::pair<std::string, std::string>> varbinds(const std::string &out) {
    std::vector<std::pair<std::string, std::string>> v;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line)) {
        const auto eq = line.find(" = ");
        if (!line.empty() && line[0] == '.' && eq != std::string::npos) {
            v.emplace_back(line.substr(0, eq), line.substr(eq + 3));
        } else if (!v.empty()) {
            v.back().second += "\n" + line; // continuation of a multi-line string
        }
    }
    return v;
}

// ".len.c1.c2..." : a text index as a table row's OID carries it.
inline std::string text_index(const std::string &s) {
    std::string out = "." + std::to_string(s.size());
    for (unsigned char c : s) {
        out += "." + std::to_string(c);
    }
    return out;
}

// The SNMP error status named in snmpset's output, or "noError".
inline std::string error_status(const CommandResult &r) {
    const auto at = r.out.find("Reason: ");
    if (at == std::string::npos) {
        return r.status == 0 ? "noError" : r.out;
    }
    const auto end = r.out.find_first_of(" \n", at + 8);
    std::string name = r.out.substr(at + 8, end - at - 8);
    // net-snmp puts some names in parentheses, and spells genErr its own way.
    if (name.size() > 2 && name.front() == '(' && name.back() == ')') {
        name = name.substr(1, name.size() - 2);
    }
    return name == "genError" ? "genErr" : name;
}

// Numeric comparison of dotted OIDs.
inline bool oid_less(const std::string &a, const std::string &b) {
    auto arcs = [](const std::string &s) {
        std::vector<unsigned long> v;
        std::istringstream in(s);
        std::string part;
        while (std::getline(in, part, '.')) {
            if (!part.empty()) {
                v.push_back(std::stoul(part));
            }
        }
        return v;
    };
    return arcs(a) < arcs(b);
}

} // namespace agent_test
