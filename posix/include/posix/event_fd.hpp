// An eventfd for waking a poll or epoll loop from another thread.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
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

// Wakes whoever watches `fd`; false (errno set) when it can't. A counter at its limit
// (EAGAIN) wakes the watcher all the same.
inline bool signal_event(int fd) {
    const uint64_t one = 1;
    while (::write(fd, &one, sizeof one) < 0) {
        if (errno != EINTR) {
            return errno == EAGAIN;
        }
    }
    return true;
}

// Takes the wake-ups `fd` collected: one read takes them all.
inline void clear_events(int fd) {
    uint64_t n;
    while (::read(fd, &n, sizeof n) < 0 && errno == EINTR) {
    }
}

} // namespace posix
