#include "callhome/config.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace callhome::config {
namespace {

constexpr int kMaxTimeout = 600;
constexpr int kMaxDelay = 7 * 24 * 3600;
constexpr size_t kMaxDelays = 20;

std::string trim(const std::string &s) {
    const size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos) {
        return {};
    }
    const size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

// A whole decimal number in [lo, hi]; nothing else.
bool number(const std::string &s, int lo, int hi, int &out) {
    if (s.empty() || s.size() > 9 || s.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    const int v = std::stoi(s);
    if (v < lo || v > hi) {
        return false;
    }
    out = v;
    return true;
}

std::string read_password(const std::string &path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
        throw std::runtime_error("smtp_password_file " + path + ": " + std::strerror(errno));
    }
    if (st.st_mode & S_IROTH) {
        throw std::runtime_error("smtp_password_file " + path +
                                 " is readable by every user; make it 0600");
    }
    std::ifstream in(path);
    std::string first;
    if (!in || !std::getline(in, first)) {
        throw std::runtime_error("smtp_password_file " + path + ": cannot read it or it is empty");
    }
    if (!first.empty() && first.back() == '\r') {
        first.pop_back();
    }
    if (first.empty()) {
        throw std::runtime_error("smtp_password_file " + path + ": the first line is empty");
    }
    return first;
}

} // namespace

const char *name(Security s) {
    switch (s) {
    case Security::StartTls:
        return "starttls";
    case Security::Tls:
        return "tls";
    default:
        return "none";
    }
}

Config load(const std::string &path) {
    std::ifstream in(path);
    if (!in) {
        throw Error(path + ":0: cannot open: " + std::strerror(errno));
    }
    Config conf;
    Delivery &d = conf.delivery;
    std::string password_file;
    int password_line = 0;
    std::string raw;
    int lineno = 0;
    auto fail = [&](const std::string &why) -> Error {
        return Error(path + ":" + std::to_string(lineno) + ": " + why);
    };
    while (std::getline(in, raw)) {
        ++lineno;
        const std::string line = trim(raw);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const size_t eq = line.find('=');
        if (eq == std::string::npos) {
            throw fail("expected 'key = value'");
        }
        const std::string key = trim(line.substr(0, eq)), value = trim(line.substr(eq + 1));
        if (key == "smtp_security") {
            if (value == "none") {
                d.security = Security::None;
            } else if (value == "starttls") {
                d.security = Security::StartTls;
            } else if (value == "tls") {
                d.security = Security::Tls;
            } else {
                throw fail("smtp_security must be none, starttls or tls, not '" + value + "'");
            }
        } else if (key == "smtp_user") {
            d.user = value;
        } else if (key == "smtp_password_file") {
            if (value.empty()) {
                throw fail("smtp_password_file needs a path");
            }
            password_file = value;
            password_line = lineno;
        } else if (key == "smtp_ca_file") {
            if (access(value.c_str(), R_OK) != 0) {
                throw fail("smtp_ca_file " + value + ": " + std::strerror(errno));
            }
            d.ca_file = value;
        } else if (key == "smtp_timeout_s") {
            if (!number(value, 1, kMaxTimeout, d.timeout_s)) {
                throw fail("smtp_timeout_s must be a whole number of seconds from 1 to " +
                           std::to_string(kMaxTimeout));
            }
        } else if (key == "retry_delays_s") {
            d.retry_delays_s.clear();
            std::istringstream list(value);
            std::string item;
            while (std::getline(list, item, ',')) {
                int v = 0;
                if (!number(trim(item), 1, kMaxDelay, v)) {
                    throw fail("retry_delays_s must be a comma-separated list of seconds from 1 "
                               "to " +
                               std::to_string(kMaxDelay) + ", not '" + trim(item) + "'");
                }
                d.retry_delays_s.push_back(v);
            }
            if (d.retry_delays_s.size() > kMaxDelays) {
                throw fail("retry_delays_s lists more than " + std::to_string(kMaxDelays) +
                           " delays");
            }
        } else if (key == "allowed_commands") {
            // Paths hold no blanks (a command line is split on them), so blanks and commas
            // both separate. Empty: no command runs.
            std::vector<std::string> paths;
            std::string item;
            std::istringstream list(value);
            while (list >> item) {
                std::istringstream parts(item);
                std::string p;
                while (std::getline(parts, p, ',')) {
                    if (p.empty()) {
                        continue;
                    }
                    if (p[0] != '/' || p.back() == '/') {
                        throw fail("allowed_commands lists absolute paths of executables, not '" +
                                   p + "'");
                    }
                    paths.push_back(p);
                }
            }
            conf.allowed_commands = std::move(paths);
        } else {
            throw fail("unknown key '" + key + "'");
        }
    }
    if (in.bad()) {
        throw Error(path + ":" + std::to_string(lineno) + ": read error");
    }
    if (!password_file.empty()) {
        try {
            d.password = read_password(password_file);
        } catch (const std::runtime_error &e) {
            throw Error(path + ":" + std::to_string(password_line) + ": " + e.what());
        }
    }
    if (!d.password.empty() && d.user.empty()) {
        throw Error(path + ":" + std::to_string(password_line) +
                    ": smtp_password_file given without smtp_user");
    }
    return conf;
}

} // namespace callhome::config
