#include "platform/paths.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace platform {

std::string per_user_socket_path() {
    const char *runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && *runtime != '\0') {
        return std::string(runtime) + "/callhome/callhomed.sock";
    }
    return "/tmp/callhome-" + std::to_string(getuid()) + "/callhomed.sock";
}

std::string default_socket_path() {
    const char *explicit_path = std::getenv("CALLHOME_SOCKET");
    if (explicit_path != nullptr && *explicit_path != '\0') {
        return explicit_path;
    }
    struct stat st {};
    if (lstat(kSystemSocketPath, &st) == 0) {
        return kSystemSocketPath;
    }
    return per_user_socket_path();
}

std::string socket_dir_problem(const std::string &dir, bool private_only) {
    struct stat st {};
    if (lstat(dir.c_str(), &st) != 0) {
        return "cannot check the socket directory " + dir + ": " + std::strerror(errno);
    }
    if (!S_ISDIR(st.st_mode)) {
        return "the socket directory " + dir + " is not a directory";
    }
    if (st.st_uid != geteuid()) {
        return "the socket directory " + dir + " belongs to uid " + std::to_string(st.st_uid) +
               ", not to uid " + std::to_string(geteuid());
    }
    const mode_t forbidden = private_only ? mode_t(077) : mode_t(S_IWGRP | S_IWOTH);
    if ((st.st_mode & forbidden) != 0) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", unsigned(st.st_mode & 07777));
        return "the socket directory " + dir + " has mode " + mode + "; it must be " +
               (private_only ? "0700" : "writable by its owner only");
    }
    return "";
}

std::string per_user_dir_problem(const std::string &socket_path) {
    if (socket_path != per_user_socket_path()) {
        return "";
    }
    const std::string dir = socket_path.substr(0, socket_path.rfind('/'));
    struct stat st {};
    if (lstat(dir.c_str(), &st) != 0 && errno == ENOENT) {
        return ""; // no service there yet; connecting says so
    }
    return socket_dir_problem(dir, true);
}

} // namespace platform
