// callhome-agentx: the call-home MIB module as an AgentX subagent of any master agent, for
// hosts whose agent can't load modules (or shouldn't: a module crash then takes down only
// this process). It serves exactly what the module serves inside snmpd with dlmod, including
// the notifications, which it hands to the master.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <getopt.h>
#include <signal.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "callhome_mib.h"
#include "posix/pid_file.hpp"

namespace {

constexpr const char *kApp = "callhome-agentx";
constexpr int kDefaultPingSeconds = 5;

volatile sig_atomic_t stop_requested = 0;

void request_stop(int) {
    stop_requested = 1;
}

void usage(std::FILE *out) {
    std::fprintf(out,
                 "usage: %s [-f] [-x ADDRESS] [-s SOCKET] [-L LOGOPTS] [-D TOKENS] [-p PIDFILE]\n"
                 "          [-i SECONDS]\n"
                 "\n"
                 "Serves the call-home MIB module as an AgentX subagent.\n"
                 "\n"
                 "  -x ADDRESS  the master agent's AgentX socket (default: net-snmp's, %s)\n"
                 "  -s SOCKET   the call-home service's socket (default: $CALLHOME_SOCKET, or\n"
                 "              the service's own default)\n"
                 "  -f          stay in the foreground\n"
                 "  -L LOGOPTS  logging as net-snmp's tools take it: -Le standard error,\n"
                 "              -Lf FILE a file, -Ls daemon syslog (default: standard error in\n"
                 "              the foreground, syslog otherwise)\n"
                 "  -D TOKENS   debug traces for these comma-separated tokens (e.g. callhome)\n"
                 "  -p PIDFILE  write the process id to PIDFILE\n"
                 "  -i SECONDS  AgentX ping interval; a subagent that loses its master\n"
                 "              reconnects at this interval (default %d, 0: never)\n"
                 "  -h          this help\n",
                 kApp, NETSNMP_AGENTX_SOCKET, kDefaultPingSeconds);
}

bool parse_seconds(const char *text, int *out) {
    char *end = nullptr;
    errno = 0;
    const long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < 0 || v > 86400) {
        return false;
    }
    *out = int(v);
    return true;
}

} // namespace

int main(int argc, char **argv) {
    bool foreground = false;
    bool log_chosen = false;
    std::string pidfile;
    int ping_seconds = kDefaultPingSeconds;

    int c;
    while ((c = ::getopt(argc, argv, "fx:s:L:D:p:i:h")) != -1) {
        switch (c) {
        case 'f':
            foreground = true;
            break;
        case 'x':
            netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, optarg);
            break;
        case 's':
            // The module finds the service through the environment, as it does in snmpd.
            ::setenv("CALLHOME_SOCKET", optarg, 1);
            break;
        case 'L':
            if (snmp_log_options(optarg, argc, argv) < 0) {
                usage(stderr);
                return 2;
            }
            log_chosen = true;
            break;
        case 'D':
            debug_register_tokens(optarg);
            snmp_set_do_debugging(1);
            break;
        case 'p':
            pidfile = optarg;
            break;
        case 'i':
            if (!parse_seconds(optarg, &ping_seconds)) {
                std::fprintf(stderr, "%s: bad ping interval '%s'\n", kApp, optarg);
                return 2;
            }
            break;
        case 'h':
            usage(stdout);
            return 0;
        default:
            usage(stderr);
            return 2;
        }
    }
    if (optind != argc) {
        usage(stderr);
        return 2;
    }
    // Serving needs no MIB files; without this the library would parse every one it finds.
    ::setenv("MIBS", "", 0);
    if (!log_chosen) {
        if (foreground) {
            snmp_enable_stderrlog();
        } else {
            snmp_enable_syslog_ident(kApp, LOG_DAEMON);
        }
    }

    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
    // The subagent keeps no state of its own: nothing to load or save between runs.
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);

    if (!foreground && netsnmp_daemonize(1, snmp_stderrlog_status()) != 0) {
        snmp_log(LOG_ERR, "%s: can't go to the background\n", kApp);
        return 1;
    }
    const posix::PidFile pid(pidfile);
    if (!pid.ok()) {
        snmp_log(LOG_ERR, "%s: can't write pid file %s\n", kApp, pidfile.c_str());
    }

    struct sigaction sa {};
    sa.sa_handler = request_stop;
    ::sigemptyset(&sa.sa_mask);
    ::sigaction(SIGTERM, &sa, nullptr);
    ::sigaction(SIGINT, &sa, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    // init_agent first: it records the agent's start time, which the module's notification
    // listener waits for before it joins the agent's select loop.
    if (init_agent(kApp) != 0) {
        snmp_log(LOG_ERR, "%s: agent initialisation failed\n", kApp);
        return 1;
    }
    // Set after init_agent, which resets the AgentX settings to their defaults.
    netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL,
                       ping_seconds);
    init_callhome_mib();
    init_snmp(kApp);
    snmp_log(LOG_INFO, "%s: serving the call-home subtree\n", kApp);
    sd_notify(0, "READY=1"); // for Type=notify units; nothing happens outside systemd

    // A signal interrupts the wait in agent_check_and_process.
    while (stop_requested == 0) {
        agent_check_and_process(1);
    }

    sd_notify(0, "STOPPING=1");
    snmp_log(LOG_INFO, "%s: stopping\n", kApp);
    deinit_callhome_mib();
    snmp_shutdown(kApp);
    return 0;
}
