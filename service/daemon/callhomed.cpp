// callhomed: the call-home service daemon.
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "callhome/config.hpp"
#include "callhome/paths.hpp"
#include "callhome/sender.hpp"
#include "platform/paths.hpp"
#include "callhome/server.hpp"
#include "callhome/service.hpp"
#include "posix/pid_file.hpp"

namespace {

const char kUsage[] = "usage: callhomed [--socket PATH] [--db PATH] [--pidfile PATH]\n"
                      "                [--config FILE] [--enable-fault-injection]\n"
                      "  --socket PATH   listening socket, mode 0660; its directory must be\n"
                      "                  writable by this user only (default: $CALLHOME_SOCKET,\n"
                      "                  else $XDG_RUNTIME_DIR/callhome/callhomed.sock, else\n"
                      "                  /tmp/callhome-<uid>/callhomed.sock, whose directory\n"
                      "                  must be this user's and mode 0700)\n"
                      "  --db PATH       configuration database (default:\n"
                      "                  $XDG_STATE_HOME/callhome/callhome.db, else\n"
                      "                  ~/.local/state/callhome/callhome.db)\n"
                      "  --pidfile PATH  write the process id there while running\n"
                      "  --config FILE   how mail leaves: smtp_security, smtp_user,\n"
                      "                  smtp_password_file, smtp_ca_file, smtp_timeout_s,\n"
                      "                  retry_delays_s (without it: plain SMTP, 30 s time-out,\n"
                      "                  retries after 30, 120, 600 and 1800 s); and\n"
                      "                  allowed_commands, the absolute paths of the programs\n"
                      "                  user-defined commands may start (without it: uname,\n"
                      "                  uptime, df, free, ip, hostname and dpkg-query in\n"
                      "                  /usr/bin)\n"
                      "  --enable-fault-injection\n"
                      "                  accept callhomectl's fault commands (for tests only)\n"
                      "Only root, this user and members of this user's group may connect.\n"
                      "Runs in the foreground and logs to stderr; tells systemd when it is\n"
                      "ready (Type=notify); SIGTERM or SIGINT stops it.\n";

} // namespace

int main(int argc, char **argv) {
    std::string socket_path, db_path, pidfile, config_path;
    bool fault_injection = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::cout << kUsage;
            return 0;
        }
        if (a == "--enable-fault-injection") {
            fault_injection = true;
            continue;
        }
        if ((a == "--socket" || a == "--db" || a == "--pidfile" || a == "--config") &&
            i + 1 < argc) {
            (a == "--socket"   ? socket_path
             : a == "--db"     ? db_path
             : a == "--config" ? config_path
                               : pidfile) = argv[++i];
            continue;
        }
        std::cerr << "callhomed: bad argument '" << a << "'\n" << kUsage;
        return 2;
    }
    callhome::config::Config conf;
    if (!config_path.empty()) {
        try {
            conf = callhome::config::load(config_path);
        } catch (const callhome::config::Error &e) {
            std::cerr << "callhomed: " << e.what() << "\n";
            return 1;
        }
    }
    if (socket_path.empty()) {
        const char *env = std::getenv("CALLHOME_SOCKET");
        socket_path = env != nullptr && *env != '\0' ? env : platform::per_user_socket_path();
    }
    if (db_path.empty()) {
        db_path = callhome::default_db_path();
    }

    // Signals arrive through a descriptor the event loop polls, so shutdown is orderly.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    callhome::UniqueFd sfd(signalfd(-1, &stop, SFD_CLOEXEC));
    if (!sfd) {
        std::cerr << "callhomed: signalfd: " << std::strerror(errno) << "\n";
        return 1;
    }

    try {
        if (!callhome::make_parent_dirs(db_path)) {
            throw std::runtime_error("cannot create the directory of " + db_path + ": " +
                                     std::strerror(errno));
        }
        // A database that can't be opened, created or read stops the daemon here, saying so.
        std::unique_ptr<callhome::Service> service_ptr;
        try {
            service_ptr = std::make_unique<callhome::Service>(db_path, conf.allowed_commands);
        } catch (const std::exception &e) {
            throw std::runtime_error("cannot use the database " + db_path + ": " + e.what());
        }
        callhome::Service &service = *service_ptr;
        callhome::Sender sender(db_path, conf.delivery);
        service.set_outbox_listener([&sender] { sender.wake(); });
        callhome::Server server(service, socket_path);
        server.enable_fault_injection(fault_injection);
        if (!pidfile.empty()) {
            callhome::make_parent_dirs(pidfile);
        }
        const posix::PidFile pid(pidfile);
        if (!pid.ok()) {
            throw std::runtime_error("cannot write pid file " + pidfile);
        }
        std::cerr << "callhomed: serving " << socket_path << " (database " << db_path << ")"
                  << (fault_injection ? ", fault injection on" : "") << "\n";
        sd_notify(0, "READY=1");
        server.run(sfd.get());
        sd_notify(0, "STOPPING=1");
        std::cerr << "callhomed: stopping\n";
        service.set_outbox_listener({});
    } catch (const std::exception &e) {
        std::cerr << "callhomed: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
