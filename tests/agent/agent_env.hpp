// A real call-home service and a stock snmpd with the module, on free loopback ports in a
// temporary directory, driven with net-snmp's command-line tools.
#pragma once

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "run_command.hpp"

namespace agent_test {

namespace fs = std::filesystem;
using callhome_test::CommandResult;
using Varbinds = std::vector<std::pair<std::string, std::string>>;

inline const std::string R = ".1.3.6.1.4.1.32473.9.300";

// Runs a shell command line; standard output and error are captured together.
inline CommandResult run(const std::string &command) {
    return callhome_test::run_command(command + " 2>&1");
}

using callhome_test::eventually;
using callhome_test::slurp;
inline int free_udp_port() {
    return callhome_test::free_port(SOCK_DGRAM);
}

using callhome_test::Child;
// For Child's prepare hook: output to `log`, the environment with `env` added.
inline std::function<void()> with_env(std::string log,
                                      std::map<std::string, std::string> env = {}) {
    return [log, env] {
        callhome_test::redirect(log);
        for (const auto &[k, v] : env) {
            ::setenv(k.c_str(), v.c_str(), 1);
        }
    };
}

// How the module runs: loaded into snmpd (dlmod), or as the callhome-agentx subagent of an
// snmpd that is AgentX master. The tests talk to snmpd's UDP port either way.
enum class AgentMode { Dlmod, AgentX };

inline std::string mode_name(AgentMode mode) {
    return mode == AgentMode::Dlmod ? "dlmod" : "agentx";
}
// For gtest's messages: the mode's name, not its bytes.
inline void PrintTo(AgentMode mode, std::ostream *os) {
    *os << mode_name(mode);
}

// ".len.c1.c2..." : a text index as a table row's OID carries it.
inline std::string text_index(const std::string &s) {
    std::string out = "." + std::to_string(s.size());
    for (unsigned char c : s) {
        out += "." + std::to_string(c);
    }
    return out;
}
inline std::string profile_col(int column, const std::string &name) {
    return R + ".1.1.12.1." + std::to_string(column) + text_index(name);
}
inline std::string email_col(int column, const std::string &name, int index) {
    return R + ".1.1.14.1." + std::to_string(column) + text_index(name) + "." +
           std::to_string(index);
}
inline std::string command_col(int column, int type, int index) {
    return R + ".1.1.30.6.1." + std::to_string(column) + "." + std::to_string(type) + "." +
           std::to_string(index);
}

// The lines "OID = TYPE: value" of a tool's output, as (oid, "TYPE: value").
inline Varbinds varbinds(const std::string &out) {
    Varbinds v;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line)) {
        const auto eq = line.find(" = ");
        if (!line.empty() && line[0] == '.' && eq != std::string::npos) {
            v.emplace_back(line.substr(0, eq), line.substr(eq + 3));
        }
    }
    return v;
}

// Whether snmpset's output names the error `status`, as net-snmp spells it (genError), with or
// without the parentheses it puts around some.
inline bool refused_as(const CommandResult &r, const std::string &status) {
    return r.out.find("Reason: " + status) != std::string::npos ||
           r.out.find("Reason: (" + status + ")") != std::string::npos;
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

class AgentEnv : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/callhome-agent-XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        socket_ = dir_ + "/callhomed.sock";
        db_ = dir_ + "/callhome.db";
        agentx_ = dir_ + "/agentx.sock";
        port_ = free_udp_port();
        trap_port_ = free_udp_port();
        start_service();
    }

    void TearDown() override {
        trapd_.stop();
        subagent_.stop();
        agent_.stop();
        service_.stop();
        if (::testing::Test::HasFailure()) {
            for (const char *log :
                 {"/snmpd.log", "/callhomed.log", "/snmptrapd.log", "/callhome-agentx.log"}) {
                std::cerr << "---- " << log << " ----\n" << slurp(dir_ + log).substr(0, 20000);
            }
        }
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    void start_service() {
        service_ =
            Child({CALLHOMED_PATH, "--socket", socket_, "--db", db_, "--enable-fault-injection"},
                  with_env(dir_ + "/callhomed.log"));
        ASSERT_TRUE(eventually([&] { return ctl("ping").status == 0; }))
            << "callhomed did not answer";
    }

    // Starts snmpd with the module (in agent_mode_), writes taking SNMPv3 authPriv as in
    // ./run.sh start.
    void start_agent() {
        std::ofstream c(dir_ + "/snmpd.conf");
        c << "agentAddress udp:127.0.0.1:" << port_ << "\nrocommunity public 127.0.0.1\n"
          << "createUser callhome SHA-256 agent-test-auth AES agent-test-priv\n"
          << "rwuser callhome priv\ntrap2sink 127.0.0.1:" << trap_port_ << " public\n";
        if (agent_mode_ == AgentMode::Dlmod) {
            c << "dlmod callhome_mib " << MODULE_PATH << "\n";
        } else {
            // The module may wait up to 10 s for the service; the master must wait as long.
            c << "master agentx\nagentXSocket " << agentx_ << "\nagentXTimeout 15\n";
        }
        c.close();
        start_snmpd();
        if (agent_mode_ == AgentMode::AgentX) {
            // A ping every second: a restarted master gets the subagent back quickly.
            subagent_ = Child(
                {(fs::path(CALLHOMED_PATH).parent_path() / "callhome-agentx").string(), "-f", "-x",
                 agentx_, "-i", "1", "-Lf", dir_ + "/callhome-agentx.log", "-D", "callhome"},
                with_env(dir_ + "/callhome-agentx.out", {{"CALLHOME_SOCKET", socket_}}));
        }
        // Short probes: a request sent before snmpd listens is simply lost, and a long
        // timeout would then make every start wait it out.
        ASSERT_TRUE(eventually([&] { return serving(0.2); }))
            << "snmpd with the module (" << mode_name(agent_mode_) << ") did not answer";
    }
    bool serving(double timeout = 5) const {
        return snmp("snmpget", R + ".1.1.13.0", timeout).out.find("Gauge32: 50") !=
               std::string::npos;
    }
    // snmpd alone, with the configuration start_agent wrote; in AgentX mode a restart leaves
    // the subagent running, which has to reconnect.
    void start_snmpd() {
        fs::create_directories(dir_ + "/persist");
        std::map<std::string, std::string> env{
            {"CALLHOME_SOCKET", socket_}, {"SNMP_PERSISTENT_DIR", dir_ + "/persist"}, {"MIBS", ""}};
#ifdef CALLHOME_ASAN_RUNTIME
        // snmpd itself is not instrumented; the sanitizer runtime must be loaded first.
        env["LD_PRELOAD"] = CALLHOME_ASAN_RUNTIME;
        env["ASAN_OPTIONS"] = "detect_leaks=0";
#endif
        agent_ = Child({SNMPD_PATH, "-f", "-C", "-c", dir_ + "/snmpd.conf", "-Lf",
                        dir_ + "/snmpd.log", "-Dcallhome"},
                       with_env(dir_ + "/snmpd.out", env));
    }

    void start_trapd() {
        std::ofstream(dir_ + "/snmptrapd.conf") << "disableAuthorization yes\n";
        trapd_ = Child({SNMPTRAPD_PATH, "-f", "-C", "-c", dir_ + "/snmptrapd.conf", "-On", "-Lf",
                        dir_ + "/traps.log", "udp:127.0.0.1:" + std::to_string(trap_port_)},
                       with_env(dir_ + "/snmptrapd.log", {{"MIBS", ""}}));
        // snmptrapd logs this line once it listens.
        ASSERT_TRUE(
            eventually([&] { return traps().find("NET-SNMP version") != std::string::npos; }));
    }
    std::string traps() const {
        return slurp(dir_ + "/traps.log");
    }

    // A net-snmp tool against the agent: numeric OIDs, one try; snmpset as the v3 user.
    CommandResult snmp(const std::string &tool, const std::string &args, double timeout = 5) const {
        const std::string security =
            tool == "snmpset" ? "-v3 -u callhome -l authPriv -a SHA-256 -A agent-test-auth -x AES "
                                "-X agent-test-priv"
                              : "-v2c -c public";
        return run("MIBS= " + tool + " " + security + " -On -r 0 -t " + std::to_string(timeout) +
                   " 127.0.0.1:" + std::to_string(port_) + " " + args);
    }
    // Prepares state through the agent; the request must succeed.
    void given(const std::string &args) const {
        const auto r = snmp("snmpset", args);
        ASSERT_EQ(r.status, 0) << args << "\n" << r.out;
    }
    // callhomectl with fixed words (no quoting needed).
    CommandResult ctl(const std::string &args) const {
        return run(std::string(CALLHOMECTL_PATH) + " --socket " + socket_ + " " + args);
    }
    std::string get(const std::string &oid) const {
        return snmp("snmpget", oid).out;
    }
    std::string dump() const {
        return ctl("dump").out;
    }

    std::string dir_, socket_, db_, agentx_;
    int port_ = 0, trap_port_ = 0;
    Child service_, agent_, trapd_;
    AgentMode agent_mode_ = AgentMode::Dlmod;
    Child subagent_; // AgentX mode only
};

} // namespace agent_test
