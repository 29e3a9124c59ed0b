// callhomed: the call-home service daemon.
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "callhome/paths.hpp"
#include "platform/paths.hpp"
#include "callhome/server.hpp"
#include "callhome/service.hpp"
#include "posix/pid_file.hpp"

namespace {

const char kUsage[] = "usage: callhomed [--socket PATH] [--db PATH] [--pidfile PATH]\n"
                      "  --socket PATH   listening socket (default: $CALLHOME_SOCKET, else\n"
                      "                  $XDG_RUNTIME_DIR/callhome/callhomed.sock, else\n"
                      "                  /tmp/callhome-<uid>/callhomed.sock)\n"
                      "  --db PATH       configuration database (default:\n"
                      "                  $XDG_STATE_HOME/callhome/callhome.db, else\n"
                      "                  ~/.local/state/callhome/callhome.db)\n"
                      "  --pidfile PATH  write the process id there while running\n"
                      "Runs in the foreground and logs to stderr; SIGTERM or SIGINT stops it.\n";

} // namespace

int main(int argc, char **argv) {
    std::string socket_path, db_path, pidfile;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::cout << kUsage;
            return 0;
        }
        if ((a == "--socket" || a == "--db" || a == "--pidfile") && i + 1 < argc) {
            (a == "--socket" ? socket_path : a == "--db" ? db_path : pidfile) = argv[++i];
            continue;
        }
        std::cerr << "callhomed: bad argument '" << a << "'\n" << kUsage;
        return 2;
    }
    if (socket_path.empty()) {
        socket_path = platform::default_socket_path();
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
            service_ptr = std::make_unique<callhome::Service>(db_path);
        } catch (const std::exception &e) {
            throw std::runtime_error("cannot use the database " + db_path + ": " + e.what());
        }
        callhome::Service &service = *service_ptr;
        callhome::Server server(service, socket_path);
        if (!pidfile.empty()) {
            callhome::make_parent_dirs(pidfile);
        }
        const posix::PidFile pid(pidfile);
        if (!pid.ok()) {
            throw std::runtime_error("cannot write pid file " + pidfile);
        }
        std::cerr << "callhomed: serving " << socket_path << " (database " << db_path << ")\n";
        server.run(sfd.get());
        std::cerr << "callhomed: stopping\n";
    } catch (const std::exception &e) {
        std::cerr << "callhomed: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
