// Where the call-home service's socket lives, and whether its directory can be trusted.
#pragma once

#include <string>

namespace platform {

// The packaged service's socket.
inline constexpr const char *kSystemSocketPath = "/run/callhome/callhomed.sock";

// $XDG_RUNTIME_DIR/callhome/callhomed.sock; else /tmp/callhome-<uid>/callhomed.sock.
std::string per_user_socket_path();

// Where clients look: $CALLHOME_SOCKET when set; else kSystemSocketPath when it exists; else
// per_user_socket_path().
std::string default_socket_path();

// Empty when `dir` is a directory owned by this process's user that neither group nor others
// can write (with `private_only`: that they cannot use at all, mode 0700); otherwise why it
// cannot be trusted, naming the directory.
std::string socket_dir_problem(const std::string &dir, bool private_only);

// For a socket at the per-user default: socket_dir_problem of its directory, private_only.
// Empty for any other path (those were chosen explicitly).
std::string per_user_dir_problem(const std::string &socket_path);

} // namespace platform
