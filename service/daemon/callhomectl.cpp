// callhomectl: administration of the call-home service.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <variant>
#include <vector>

#include "callhome/admin.hpp"
#include "callhome/paths.hpp"
#include "platform/paths.hpp"
#include "callhome/protocol.hpp"
#include "callhome/server.hpp"
#include "platform/frame.hpp"

namespace {

namespace fr = platform::frame;

constexpr int kReplyTimeoutMs = 30000;
constexpr size_t kMaxAlertBody = 60 * 1024;

const char kHelp[] =
    "usage: callhomectl [--socket PATH] COMMAND...\n"
    "\n"
    "  ping              exit 0 when the service answers\n"
    "  dump              the whole configuration and status as JSON\n"
    "  outbox            the messages and their delivery as a JSON array\n"
    "  outbox retry [ID] try every waiting message now, or message ID (also a\n"
    "                    failed one, which gets one more attempt)\n"
    "  smtp-server HOST [PORT]\n"
    "                    set the SMTP server objects (address type from HOST; port\n"
    "                    25 unless given) as an SNMP SET would\n"
    "  group add NAME    add an alert-group type (lowest free index)\n"
    "  group del NAME    remove an alert-group type, its memberships and commands\n"
    "  distribution on|off [mode N]\n"
    "  fault ...         (only when callhomed runs with --enable-fault-injection)\n"
    "  fault status OPCODE STATUS [--type N] [--count N]\n"
    "                    the next N requests answer STATUS and change nothing\n"
    "  fault delay OPCODE MILLISECONDS [--type N] [--count N]\n"
    "                    the next N requests are answered late\n"
    "  fault drop OPCODE [--type N] [--count N]\n"
    "                    the next N requests are never answered\n"
    "  fault clear       remove every armed fault\n"
    "  alert GROUP [--severity N] [--subject TEXT] BODY\n"
    "                    queue an alert of alert-group type GROUP for every active profile\n"
    "                    subscribed to it (or to all) whose level is at most N (1..10,\n"
    "                    default 5); BODY - reads the body from standard input\n"
    "\n"
    "OPCODE is a number or a name such as CALLHOME_INFO_OPC; STATUS is decimal, hex\n"
    "(0x403B0019) or -1. --type limits a fault to one message type (1..6), --count sets N\n"
    "(default 1).\n"
    "\n"
    "dump keys: enabled; info {name: value}; email {from, reply_to, return_receipt,\n"
    "smtp_server, address_type, port}; throttling; periodic_inventory {enabled, days,\n"
    "time_of_day (minutes)}; status {last_alert_sec, last_alert_usec, alerts_sent,\n"
    "message_status, error_code, error_message}; profiles [{name, format, transport,\n"
    "max_size, level, row_status, builtin, addresses [{index, address}], alert_groups\n"
    "[name]}]; alert_group_types [{index, name}]; user_commands [{type, type_index, index,\n"
    "command}]; distribution {enabled, mode}.\n"
    "outbox keys: id, state (queued, sending, sent, retrying, failed), attempts,\n"
    "last_error, sent_at, last_attempt_at, next_attempt_at (UTC), time_sec, time_usec\n"
    "(queued at), profile, alert_group, severity, recipients, format, message_id,\n"
    "subject, body.\n"
    "\n"
    "Exit status: the service's (0 success, 1 refused), 2 usage error, 1 service\n"
    "unreachable. The socket: --socket PATH, else $CALLHOME_SOCKET, else\n"
    "/run/callhome/callhomed.sock when it exists, else\n"
    "$XDG_RUNTIME_DIR/callhome/callhomed.sock, else /tmp/callhome-<uid>/callhomed.sock\n"
    "(whose directory must be this user's and mode 0700).\n";

int unreachable(const std::string &path, const std::string &why) {
    std::cerr << "callhomectl: cannot reach the call-home service at " << path << ": " << why
              << "\n";
    return 1;
}

// `alert ... -` takes its body from standard input (a log watcher's pipe), up to what one
// request carries.
bool read_alert_body(std::vector<std::string> &args) {
    if (args.empty() || args[0] != "alert") {
        return true;
    }
    size_t positional = 0;
    for (size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "--severity" || args[i] == "--subject") {
            ++i;
            continue;
        }
        if (++positional == 2 && args[i] == "-") {
            std::string body;
            char buf[4096];
            size_t n;
            while ((n = fread(buf, 1, sizeof buf, stdin)) > 0) {
                body.append(buf, n);
                if (body.size() > kMaxAlertBody) {
                    std::cerr << "callhomectl: the alert's body is longer than " << kMaxAlertBody
                              << " bytes\n";
                    return false;
                }
            }
            args[i] = body;
        }
    }
    return true;
}

} // namespace

int main(int argc, char **argv) {
    std::string path;
    std::vector<std::string> args;
    int i = 1;
    for (; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::cout << kHelp;
            return 0;
        }
        if (a == "--socket") {
            if (i + 1 >= argc) {
                std::cerr << "callhomectl: --socket needs a path\n";
                return 2;
            }
            path = argv[++i];
            continue;
        }
        break;
    }
    args.assign(argv + i, argv + argc);
    if (auto parsed = callhome::parse_admin(args);
        auto *err = std::get_if<callhome::AdminUsageError>(&parsed)) {
        std::cerr << "callhomectl: " << err->message << "(callhomectl --help explains more)\n";
        return 2;
    }
    if (!read_alert_body(args)) {
        return 2;
    }
    if (path.empty()) {
        path = platform::default_socket_path();
    }
    // Another user could have made the per-user default directory and listen there.
    if (auto why = platform::per_user_dir_problem(path); !why.empty()) {
        return unreachable(path, why);
    }

    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        return unreachable(path, "socket path too long");
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    callhome::UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        return unreachable(path, std::strerror(errno));
    }

    fr::Frame req;
    req.kind = fr::Kind::Admin;
    req.seq = 1;
    req.body = callhome::protocol::join_args(args);
    const auto bytes = fr::encode(req);
    if (!bytes) {
        std::cerr << "callhomectl: arguments too long\n";
        return 2;
    }
    if (send(fd.get(), bytes->data(), bytes->size(), MSG_NOSIGNAL) < 0) {
        return unreachable(path, std::strerror(errno));
    }

    std::string text;
    int status = 0;
    std::vector<uint8_t> buf(fr::kMaxFrame + 1);
    for (;;) {
        pollfd p{fd.get(), POLLIN, 0};
        const int ready = poll(&p, 1, kReplyTimeoutMs);
        if (ready <= 0) {
            return unreachable(path, ready == 0 ? "no answer" : std::strerror(errno));
        }
        const ssize_t n = recv(fd.get(), buf.data(), buf.size(), 0);
        if (n <= 0) {
            return unreachable(path, n == 0 ? "connection closed" : std::strerror(errno));
        }
        const auto f = fr::decode(buf.data(), size_t(n));
        if (!f || f->kind != fr::Kind::AdminReply || f->seq != req.seq) {
            return unreachable(path, "malformed answer");
        }
        text.append(f->body.begin(), f->body.end());
        status = f->status;
        if (!(f->flags & callhome::protocol::kAdminMore)) {
            break;
        }
    }
    (status == 0 ? std::cout : std::cerr) << text;
    return status;
}
