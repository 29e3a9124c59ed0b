// Where the call-home service's socket lives.
#pragma once

#include <string>

namespace platform {

// $CALLHOME_SOCKET when set; else $XDG_RUNTIME_DIR/callhome/callhomed.sock; else
// /tmp/callhome-<uid>/callhomed.sock.
std::string default_socket_path();

} // namespace platform
