#include "platform/paths.hpp"

#include <cstdlib>
#include <unistd.h>

namespace platform {

std::string default_socket_path() {
    const char *explicit_path = std::getenv("CALLHOME_SOCKET");
    if (explicit_path != nullptr && *explicit_path != '\0') {
        return explicit_path;
    }
    const char *runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && *runtime != '\0') {
        return std::string(runtime) + "/callhome/callhomed.sock";
    }
    return "/tmp/callhome-" + std::to_string(getuid()) + "/callhomed.sock";
}

} // namespace platform
