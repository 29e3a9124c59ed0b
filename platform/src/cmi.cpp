#include "cmi.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include "callhome_wire.h"
#include "internal.hpp"
#include "platform/frame.hpp"
#include "platform/paths.hpp"
#include "platform/testing.hpp"

int mts_response_q = 1; // C linkage from cmi.h

namespace platform::detail {
namespace {

namespace fr = platform::frame;

struct Channel {
    std::mutex mutex;
    Transport transport;
    std::string path; // empty: default_socket_path()
    UniqueFd fd;
    long long rcvtimeo_ms = -1; // SO_RCVTIMEO on fd; -1: not set yet
    uint32_t seq = 0;
    std::vector<uint8_t> rx; // kMaxFrame + 1 so an oversized answer shows as truncated
};

Channel &channel() {
    static Channel c;
    return c;
}

CmiReply failure(int err) {
    CmiReply reply;
    reply.status = -1;
    reply.err = err;
    return reply;
}

uint32_t next_seq(Channel &c) {
    // 0 is left out so that a zeroed frame never matches a request.
    if (++c.seq == 0) {
        c.seq = 1;
    }
    return c.seq;
}

// (Re)connects the channel's socket; 0 or an errno value.
int ensure_connected(Channel &c) {
    if (c.fd) {
        return 0;
    }
    c.fd = connect_seqpacket(c.path.empty() ? default_socket_path() : c.path);
    c.rcvtimeo_ms = -1;
    return c.fd ? 0 : errno;
}

CmiReply socket_round_trip(const CmiRequest &r) {
    Channel &c = channel();
    std::lock_guard<std::mutex> lock(c.mutex);

    fr::Frame f;
    f.kind = fr::Kind::Request;
    f.seq = next_seq(c);
    f.opcode = r.opcode;
    f.msg_type = r.msg_type;
    f.client = r.client;
    f.session = r.session;
    f.wait = r.wait;
    f.flags = (r.user_null ? fr::kUserNull : 0) | (r.wants_record ? fr::kWantsRecord : 0);
    f.user = r.user;
    f.body = r.record;
    const auto bytes = fr::encode(f);
    if (!bytes) {
        return failure(EMSGSIZE);
    }

    const bool reused = bool(c.fd);
    if (int err = ensure_connected(c)) {
        return failure(err);
    }
    if (send_message(c.fd.get(), *bytes) != 0) {
        int err = errno;
        c.fd.reset();
        // A connection kept from before a service restart fails at the first send; the
        // request never reached anyone, so one fresh attempt is safe.
        if (!reused || (err != EPIPE && err != ECONNRESET && err != ENOTCONN)) {
            return failure(err);
        }
        if ((err = ensure_connected(c)) != 0) {
            return failure(err);
        }
        if (send_message(c.fd.get(), *bytes) != 0) {
            err = errno;
            c.fd.reset();
            return failure(err);
        }
    }

    if (c.rx.size() != fr::kMaxFrame + 1) {
        c.rx.resize(fr::kMaxFrame + 1);
    }
    // A blocking receive bounded by SO_RCVTIMEO: two system calls a round trip (send, recv)
    // instead of a poll before every receive. The time-out is set only when it changes:
    // callers use a few fixed waits, and a late answer shortens what is left.
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::seconds(std::max(r.wait, 1));
    long long timeout_ms = std::max(r.wait, 1) * 1000LL;
    for (;;) {
        if (timeout_ms <= 0) {
            // The connection stays: a late answer is recognised by its seq and dropped.
            return failure(ETIME);
        }
        if (timeout_ms != c.rcvtimeo_ms) {
            timeval tv{};
            tv.tv_sec = time_t(timeout_ms / 1000);
            tv.tv_usec = suseconds_t(timeout_ms % 1000 * 1000);
            if (::setsockopt(c.fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0) {
                const int err = errno;
                c.fd.reset();
                return failure(err);
            }
            c.rcvtimeo_ms = timeout_ms;
        }
        const ssize_t got = ::recv(c.fd.get(), c.rx.data(), c.rx.size(), MSG_TRUNC);
        const auto left = [&] {
            return std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now())
                .count();
        };
        if (got < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) {
                timeout_ms = left();
                continue;
            }
            const int err = errno;
            c.fd.reset();
            return failure(err);
        }
        if (got == 0) {
            c.fd.reset(); // the service went away mid-request
            return failure(ECONNRESET);
        }
        if (size_t(got) > fr::kMaxFrame) {
            return failure(EPROTO);
        }
        auto answer = fr::decode(c.rx.data(), size_t(got));
        if (!answer) {
            return failure(EPROTO);
        }
        if (answer->kind != fr::Kind::Response || answer->seq != c.seq) {
            timeout_ms = left();
            continue; // a late answer to a request that already timed out
        }
        if (answer->status == -1) {
            return failure(EIO);
        }
        CmiReply reply;
        reply.status = answer->status;
        reply.has_record = (answer->flags & fr::kHasRecord) != 0;
        if (reply.has_record) {
            reply.record = std::move(answer->body);
        }
        return reply;
    }
}

Transport current_transport() {
    Channel &c = channel();
    std::lock_guard<std::mutex> lock(c.mutex);
    return c.transport;
}

// Turns a reply into cmi_req_resp's results.
int finish(const CmiReply &reply, void **response, uint32_t *length) {
    if (reply.status == -1) {
        errno = reply.err != 0 ? reply.err : EIO;
        return -1;
    }
    if (response != nullptr && reply.has_record) {
        void *copy = std::malloc(std::max<size_t>(reply.record.size(), 1));
        if (copy == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        if (!reply.record.empty()) {
            std::memcpy(copy, reply.record.data(), reply.record.size());
        }
        *response = copy;
        if (length != nullptr) {
            *length = uint32_t(reply.record.size());
        }
    }
    return reply.status;
}

} // namespace

std::string socket_path() {
    Channel &c = channel();
    std::lock_guard<std::mutex> lock(c.mutex);
    return c.path.empty() ? default_socket_path() : c.path;
}

UniqueFd connect_seqpacket(const std::string &path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) {
        errno = path.empty() ? ENOENT : ENAMETOOLONG;
        return UniqueFd();
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!fd) {
        return fd;
    }
    if (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        const int err = errno;
        fd.reset();
        errno = err;
    }
    return fd;
}

int send_message(int fd, const std::vector<uint8_t> &bytes) {
    for (;;) {
        const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent >= 0) {
            // SOCK_SEQPACKET sends whole messages or fails.
            return size_t(sent) == bytes.size() ? 0 : (errno = EMSGSIZE, -1);
        }
        if (errno != EINTR) {
            return -1;
        }
    }
}

void reset_channel() {
    set_transport({});
    set_socket_path("");
}

} // namespace platform::detail

namespace platform {

void set_transport(Transport transport) {
    auto &c = detail::channel();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.transport = std::move(transport);
}

void set_socket_path(const std::string &path) {
    auto &c = detail::channel();
    std::lock_guard<std::mutex> lock(c.mutex);
    if (path != c.path) {
        c.fd.reset();
    }
    c.path = path;
}

void disconnect() {
    auto &c = detail::channel();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.fd.reset();
}

} // namespace platform

extern "C" int cmi_req_resp(int opcode, int msg_type, const void *request, void **response,
                            uint32_t *length, const char *user, uint32_t session, int client,
                            int queue, int wait) {
    using namespace platform;
    // Callers free the response on every path, so it is never left dangling.
    if (response != nullptr) {
        *response = nullptr;
    }
    const uint32_t request_length = length != nullptr ? *length : 0;
    if (length != nullptr) {
        *length = 0;
    }
    if (request == nullptr && request_length > 0) {
        errno = EINVAL;
        return -1;
    }
    try {
        CmiRequest r;
        r.opcode = opcode;
        r.msg_type = msg_type;
        if (request_length > 0) {
            const auto *p = static_cast<const uint8_t *>(request);
            r.record.assign(p, p + request_length);
        }
        r.wants_record = response != nullptr;
        r.user_null = user == nullptr;
        if (user != nullptr) {
            r.user = user;
        }
        r.session = session;
        r.client = client;
        r.queue = queue;
        r.wait = wait;

        // The transport runs unlocked: an in-process service may notify, and a handler may
        // issue requests of its own.
        const Transport transport = detail::current_transport();
        const CmiReply reply = transport ? transport(r) : detail::socket_round_trip(r);
        return detail::finish(reply, response, length);
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
    } catch (...) {
        errno = EIO;
    }
    return -1;
}

extern "C" const char *mts_opc_name_get(int opcode) {
    struct Name {
        int code;
        const char *name;
    };
#define CALLHOME_NAME(name, code) {code, #name},
    static constexpr Name kNames[] = {CALLHOME_OPCODES(CALLHOME_NAME)
                                          CALLHOME_NOTIFICATIONS(CALLHOME_NAME)};
#undef CALLHOME_NAME
    for (const auto &n : kNames) {
        if (n.code == opcode) {
            return n.name;
        }
    }
    thread_local char number[16];
    std::snprintf(number, sizeof number, "%d", opcode);
    return number;
}
