// callhomed's own configuration file (callhomed --config FILE): how mail leaves the machine.
// What the MIB configures (server, port, addresses) lives in the database; this file holds
// what an operator must not hand out over SNMP, such as the relay's password.
#pragma once

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

// "FILE:LINE: reason" (line 0 when the file as a whole is at fault).
struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Reads `path`: "key = value" lines, '#' comments, blank lines. Throws Error on an unreadable
// file, an unknown key, a bad value or a missing, empty or world-readable password file.
Delivery load(const std::string &path);

const char *name(Security s);

} // namespace callhome::config
