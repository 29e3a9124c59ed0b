#include "callhome/admin.hpp"

#include <cerrno>
#include <cstdlib>
#include <limits>

#include "callhome_wire.h"

namespace callhome {

const char *const kAdminUsage = "commands:\n"
                                "  ping\n"
                                "  dump\n"
                                "  outbox\n"
                                "  outbox retry [ID]\n"
                                "  smtp-server HOST [PORT]\n"
                                "  group add NAME\n"
                                "  group del NAME\n"
                                "  distribution on|off [mode N]\n"
                                "  fault status OPCODE STATUS [--type N] [--count N]\n"
                                "  fault delay OPCODE MILLISECONDS [--type N] [--count N]\n"
                                "  fault drop OPCODE [--type N] [--count N]\n"
                                "  fault clear\n"
                                "  alert GROUP [--severity N] [--subject TEXT] BODY\n";

namespace {

// Decimal, or hexadecimal with 0x; nothing else (no octal surprises from a leading 0).
std::optional<int64_t> parse_number(const std::string &text) {
    if (text.empty()) {
        return std::nullopt;
    }
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char *start = text.c_str() + (hex ? 2 : 0);
    if (*start == '+' || (hex && *start == '-') || *start == ' ') {
        return std::nullopt;
    }
    char *end = nullptr;
    errno = 0;
    const long long v = std::strtoll(start, &end, hex ? 16 : 10);
    if (errno != 0 || end == start || *end != '\0') {
        return std::nullopt;
    }
    return v;
}

AdminUsageError usage(const std::string &what) {
    return {what + "\n" + kAdminUsage};
}

} // namespace

std::optional<int> parse_opcode(const std::string &text) {
#define CALLHOME_OPCODE(name, code) {#name, code},
    static const std::pair<const char *, int> names[] = {CALLHOME_OPCODES(CALLHOME_OPCODE)};
#undef CALLHOME_OPCODE
    for (const auto &[name, value] : names) {
        if (text == name) {
            return value;
        }
    }
    const auto n = parse_number(text);
    if (!n || *n < 0 || *n > std::numeric_limits<int32_t>::max()) {
        return std::nullopt;
    }
    return int(*n);
}

std::variant<AdminCommand, AdminUsageError> parse_admin(const std::vector<std::string> &args) {
    using Op = AdminCommand::Op;
    AdminCommand cmd;
    if (args.empty()) {
        return usage("missing command");
    }
    const std::string &verb = args[0];
    const size_t n = args.size();
    if (verb == "outbox" && n > 1) {
        if (args[1] != "retry" || n > 3) {
            return usage("usage: outbox [retry [ID]]");
        }
        cmd.op = Op::OutboxRetry;
        if (n == 3) {
            const auto id = parse_number(args[2]);
            if (!id || *id < 1) {
                return usage("bad message id '" + args[2] + "'");
            }
            cmd.id = *id;
        }
        return cmd;
    }
    if (verb == "smtp-server") {
        if (n < 2 || n > 3) {
            return usage("usage: smtp-server HOST [PORT]");
        }
        cmd.op = Op::SmtpServer;
        cmd.name = args[1];
        if (n == 3) {
            const auto port = parse_number(args[2]);
            if (!port || *port < 1 || *port > 65535) {
                return usage("bad port '" + args[2] + "' (1 to 65535)");
            }
            cmd.port = uint32_t(*port);
        }
        return cmd;
    }
    if (verb == "ping" || verb == "dump" || verb == "outbox") {
        if (n != 1) {
            return usage(verb + " takes no arguments");
        }
        cmd.op = verb == "ping" ? Op::Ping : verb == "dump" ? Op::Dump : Op::Outbox;
        return cmd;
    }
    if (verb == "alert") {
        const char *const form = "usage: alert GROUP [--severity N] [--subject TEXT] BODY";
        cmd.op = Op::Alert;
        std::vector<std::string> rest;
        for (size_t i = 1; i < n; ++i) {
            if (args[i] == "--severity" || args[i] == "--subject") {
                if (i + 1 >= n) {
                    return usage(std::string(form) + " (" + args[i] + " needs a value)");
                }
                if (args[i] == "--subject") {
                    cmd.subject = args[++i];
                    continue;
                }
                const auto v = parse_number(args[++i]);
                if (!v || *v < 1 || *v > 10) {
                    return usage(std::string(form) + " (N from 1 to 10)");
                }
                cmd.severity = int(*v);
                continue;
            }
            rest.push_back(args[i]);
        }
        if (rest.size() != 2) {
            return usage(form);
        }
        cmd.name = rest[0];
        cmd.text = rest[1];
        return cmd;
    }
    if (verb == "group") {
        if (n != 3 || (args[1] != "add" && args[1] != "del")) {
            return usage("usage: group add NAME | group del NAME");
        }
        cmd.op = args[1] == "add" ? Op::GroupAdd : Op::GroupDel;
        cmd.name = args[2];
        return cmd;
    }
    if (verb == "distribution") {
        if ((n != 2 && n != 4) || (args[1] != "on" && args[1] != "off")) {
            return usage("usage: distribution on|off [mode N]");
        }
        cmd.op = Op::Distribution;
        cmd.enabled = args[1] == "on";
        if (n == 4) {
            const auto mode = parse_number(args[3]);
            if (args[2] != "mode" || !mode || *mode < 0 ||
                *mode > std::numeric_limits<uint32_t>::max()) {
                return usage("usage: distribution on|off [mode N] (N a non-negative number)");
            }
            cmd.mode = uint32_t(*mode);
        }
        return cmd;
    }
    if (verb == "fault") {
        if (n < 2) {
            return usage("usage: fault status|delay|drop|clear ...");
        }
        const std::string &kind = args[1];
        if (kind == "clear") {
            if (n != 2) {
                return usage("fault clear takes no arguments");
            }
            cmd.op = Op::FaultClear;
            return cmd;
        }
        size_t positional;
        if (kind == "status") {
            cmd.op = Op::FaultStatus;
            positional = 2;
        } else if (kind == "delay") {
            cmd.op = Op::FaultDelay;
            positional = 2;
        } else if (kind == "drop") {
            cmd.op = Op::FaultDrop;
            positional = 1;
        } else {
            return usage("unknown fault kind '" + kind + "'");
        }
        if (n < 2 + positional) {
            return usage("usage: fault " + kind + " OPCODE" +
                         (kind == "status"  ? " STATUS"
                          : kind == "delay" ? " MILLISECONDS"
                                            : "") +
                         " [--type N] [--count N]");
        }
        const auto opcode = parse_opcode(args[2]);
        if (!opcode) {
            return usage("bad opcode '" + args[2] + "'");
        }
        cmd.opcode = *opcode;
        if (cmd.op == Op::FaultStatus) {
            const auto status = parse_number(args[3]);
            if (!status || *status < std::numeric_limits<int32_t>::min() ||
                *status > int64_t(std::numeric_limits<uint32_t>::max())) {
                return usage("bad status '" + args[3] + "'");
            }
            cmd.status = int32_t(uint32_t(*status));
        } else if (cmd.op == Op::FaultDelay) {
            const auto ms = parse_number(args[3]);
            if (!ms || *ms < 0 || *ms > 3600 * 1000) {
                return usage("bad delay '" + args[3] + "' (milliseconds, 0 to 3600000)");
            }
            cmd.delay_ms = int(*ms);
        }
        for (size_t i = 2 + positional; i < n; i += 2) {
            if (i + 1 >= n) {
                return usage("option " + args[i] + " needs a value");
            }
            const auto v = parse_number(args[i + 1]);
            if (args[i] == "--type") {
                if (!v || *v < 1 || *v > 6) {
                    return usage("bad message type '" + args[i + 1] + "' (1 to 6)");
                }
                cmd.type = int(*v);
            } else if (args[i] == "--count") {
                if (!v || *v < 1 || *v > 1000000) {
                    return usage("bad count '" + args[i + 1] + "' (1 to 1000000)");
                }
                cmd.count = int(*v);
            } else {
                return usage("unknown option '" + args[i] + "'");
            }
        }
        return cmd;
    }
    return usage("unknown command '" + verb + "'");
}

} // namespace callhome
