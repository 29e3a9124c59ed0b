// An eventfd for waking a poll or epoll loop from another thread.
#pragma once

#include <sys/eventfd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "unique_fd.hpp"

namespace posix {

// Non-blocking and closed on exec; throws with the system's reason when none can be had.
inline UniqueFd event_fd() {
    UniqueFd fd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!fd) {
        throw std::runtime_error(std::string("eventfd: ") + std::strerror(errno));
    }
    return fd;
}

} // namespace posix
