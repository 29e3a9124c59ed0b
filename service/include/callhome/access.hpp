// Which peers may use the service's socket.
#pragma once

#include <string>

namespace callhome {

// Empty when the peer of the connected socket `fd` is root, this process's user, or a member
// of this process's group; otherwise why it is refused (with its uid and pid).
std::string peer_problem(int fd);

} // namespace callhome
