// The admin commands of callhomectl, parsed the same way by the tool (to refuse usage errors
// before connecting) and by the service.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace callhome {

struct AdminCommand {
    enum class Op {
        Ping,
        Dump,
        Outbox,
        OutboxRetry,
        SmtpServer,
        GroupAdd,
        GroupDel,
        Distribution,
        FaultStatus,
        FaultDelay,
        FaultDrop,
        FaultClear,
        Alert,
    };
    Op op = Op::Ping;
    std::string name;          // group add/del; smtp-server host
    std::optional<int64_t> id; // outbox retry
    uint32_t port = 25;        // smtp-server
    bool enabled = false;      // distribution
    uint32_t mode = 0;         // distribution
    int opcode = 0;            // fault
    std::optional<int> type;   // fault: message type filter
    int count = 1;             // fault: how many requests it applies to
    int32_t status = 0;        // fault status
    int delay_ms = 0;          // fault delay
    int severity = 5;          // alert: 1..10
    std::string subject;       // alert
    std::string text;          // alert: the body
};

struct AdminUsageError {
    std::string message;
};

std::variant<AdminCommand, AdminUsageError> parse_admin(const std::vector<std::string> &args);

// One line per command, for usage errors and --help.
extern const char *const kAdminUsage;

// Opcode by number or by name ("CALLHOME_INFO_OPC"); nullopt when neither.
std::optional<int> parse_opcode(const std::string &text);

} // namespace callhome
