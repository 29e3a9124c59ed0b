#include "callhome/access.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace callhome {

std::string peer_problem(int fd) {
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
        return std::string("cannot read the client's credentials: ") + std::strerror(errno);
    }
    if (cred.uid == 0 || cred.uid == geteuid() || cred.gid == getegid()) {
        return "";
    }
    // The peer's supplementary groups as they were when it connected.
    std::vector<gid_t> groups(64);
    for (;;) {
        len = socklen_t(groups.size() * sizeof(gid_t));
        if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &len) == 0) {
            groups.resize(len / sizeof(gid_t));
            break;
        }
        if (errno != ERANGE) {
            groups.clear();
            break;
        }
        groups.resize(len / sizeof(gid_t) + 1);
    }
    for (gid_t g : groups) {
        if (g == getegid()) {
            return "";
        }
    }
    return "refused a client (uid " + std::to_string(cred.uid) + ", pid " +
           std::to_string(cred.pid) + "): neither root, uid " + std::to_string(geteuid()) +
           " nor a member of group " + std::to_string(getegid());
}

} // namespace callhome
