// callhomed's own configuration file (callhomed --config FILE): how mail leaves the machine
// and which programs the user-defined commands may start. What the MIB configures (server,
// port, addresses, the command lines) lives in the database; this file holds what an
// operator must not hand out over SNMP, such as the relay's password.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace callhome::config {

enum class Security { None, StartTls, Tls };

struct Delivery {
    Security security = Security::None;
    std::string user;
    std::string password; // read from smtp_password_file; never logged or shown
    std::string ca_file;  // empty: the system's CA store
    int timeout_s = 30;   // bounds the connection and every silence during a transaction
    std::vector<int> retry_delays_s{30, 120, 600, 1800};
};

struct Config {
    Delivery delivery;
    // allowed_commands: the absolute paths of the executables a user-defined command may
    // name. Unset: the service's built-in list.
    std::optional<std::vector<std::string>> allowed_commands;
};

// "FILE:LINE: reason" (line 0 when the file as a whole is at fault).
struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Reads `path`: "key = value" lines, '#' comments, blank lines. Throws Error on an unreadable
// file, an unknown key, a bad value (such as a relative path in allowed_commands) or a missing,
// empty or world-readable password file.
Config load(const std::string &path);

const char *name(Security s);

} // namespace callhome::config
