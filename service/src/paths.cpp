#include "callhome/paths.hpp"
#include "callhome/protocol.hpp"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace callhome {
namespace {

std::string env(const char *name) {
    const char *v = std::getenv(name);
    return v ? v : "";
}

std::string home() {
    std::string h = env("HOME");
    if (h.empty()) {
        if (const passwd *pw = getpwuid(getuid())) {
            h = pw->pw_dir;
        }
    }
    return h;
}

} // namespace

std::string default_db_path() {
    if (std::string s = env("XDG_STATE_HOME"); !s.empty()) {
        return s + "/callhome/callhome.db";
    }
    return home() + "/.local/state/callhome/callhome.db";
}

bool make_parent_dirs(const std::string &path) {
    for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1)) {
        const std::string dir = path.substr(0, pos);
        if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return true;
}

namespace protocol {

std::vector<uint8_t> join_args(const std::vector<std::string> &args) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i < args.size(); ++i) {
        if (i > 0) {
            out.push_back(0);
        }
        out.insert(out.end(), args[i].begin(), args[i].end());
    }
    return out;
}

std::vector<std::string> split_args(const std::vector<uint8_t> &body) {
    std::vector<std::string> args;
    if (body.empty()) {
        return args;
    }
    size_t end = body.size();
    if (body.back() == 0) {
        --end; // a trailing separator is tolerated
    }
    std::string cur;
    for (size_t i = 0; i < end; ++i) {
        if (body[i] == 0) {
            args.push_back(cur);
            cur.clear();
        } else {
            cur += char(body[i]);
        }
    }
    args.push_back(cur);
    return args;
}

} // namespace protocol
} // namespace callhome
