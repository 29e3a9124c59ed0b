#include "cmi.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
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

using Clock = std::chrono::steady_clock;

// After a time-out the channel stops sending requests until the service shows it is alive,
// so that a hung service costs one SNMP request one wait instead of a wait per request.
// Proof of life is any answer: a late one, or one to a probe sent at most every kProbeEvery.
constexpr auto kProbeEvery = std::chrono::seconds(1);
constexpr auto kProbeWait = std::chrono::milliseconds(200);

struct Channel {
    std::mutex mutex;
    Transport transport;
    std::string path; // empty: default_socket_path()
    UniqueFd fd;
    long long rcvtimeo_ms = -1; // SO_RCVTIMEO on fd; -1: not set yet
    uint32_t seq = 0;
    std::vector<uint8_t> rx; // kMaxFrame + 1 so an oversized answer shows as truncated
    std::vector<uint8_t> tx; // the request being sent; kept so that sending allocates nothing
    bool stalled = false;
    std::time_t stalled_since = 0;
    Clock::time_point next_probe;
    std::string failure; // the last channel failure not yet followed by an answer; logged once
};

Channel &channel() {
    static Channel c;
    return c;
}

std::string path_of(const Channel &c) {
    return c.path.empty() ? default_socket_path() : c.path;
}

CmiReply failure(int err) {
    CmiReply reply;
    reply.status = -1;
    reply.err = err;
    return reply;
}

// Records why the channel failed, logging each new reason once; returns `err`.
int note_failure(Channel &c, const char *what, int err) {
    std::string text = "channel to " + path_of(c) + ": " + what + ": " + std::strerror(err);
    if (text != c.failure) {
        snmp_log(LOG_ERR, "callhome: %s\n", text.c_str());
        c.failure = std::move(text);
    }
    return err;
}

std::string clock_text(std::time_t t) {
    char text[32];
    std::tm tm{};
    ::localtime_r(&t, &tm);
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
    return text;
}

void enter_stall(Channel &c) {
    c.stalled = true;
    c.stalled_since = std::time(nullptr);
    c.next_probe = Clock::now();
    c.failure = "service on " + path_of(c) + " not answering since " + clock_text(c.stalled_since);
    snmp_log(LOG_WARNING, "callhome: %s; requests fail at once until it answers again\n",
             c.failure.c_str());
}

void leave_stall(Channel &c) {
    c.stalled = false;
    c.failure.clear();
    snmp_log(LOG_NOTICE, "callhome: service on %s answering again (silent since %s)\n",
             path_of(c).c_str(), clock_text(c.stalled_since).c_str());
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
    const std::string path = path_of(c);
    const std::string why = per_user_dir_problem(path);
    if (why.empty()) {
        c.fd = connect_seqpacket(path);
        if (c.fd) {
            c.rcvtimeo_ms = -1;
            return 0;
        }
    }
    const int err = why.empty() ? errno : EACCES;
    std::string text = "cannot reach the call-home service at " + path + ": " +
                       (why.empty() ? std::string(std::strerror(err)) : why);
    if (text != c.failure) {
        snmp_log(LOG_ERR, "callhome: %s\n", text.c_str());
        c.failure = std::move(text);
    }
    return err;
}

// Receives one frame, waiting until `until` at the latest (a time already past only
// takes what has arrived). 0 with `out` set, ETIME, or an errno value (the connection is
// dropped when it failed). The wait is a blocking receive bounded by SO_RCVTIMEO: a round
// trip costs two system calls (send, recv) instead of a poll before every receive. The
// time-out is set only when it changes: callers use a few fixed waits, passed as `first_ms`
// (the whole wait, which `until` was computed from an instant earlier).
int receive_frame(Channel &c, Clock::time_point until, fr::Frame &out, long long first_ms = 0) {
    if (c.rx.size() != fr::kMaxFrame + 1) {
        c.rx.resize(fr::kMaxFrame + 1);
    }
    for (bool first = true;; first = false) {
        const long long left =
            first && first_ms > 0
                ? first_ms
                : std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now())
                      .count();
        int flags = MSG_TRUNC;
        if (left <= 0) {
            flags |= MSG_DONTWAIT;
        } else if (left != c.rcvtimeo_ms) {
            timeval tv{};
            tv.tv_sec = time_t(left / 1000);
            tv.tv_usec = suseconds_t(left % 1000 * 1000);
            if (::setsockopt(c.fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0) {
                const int err = errno;
                c.fd.reset();
                return note_failure(c, "setsockopt", err);
            }
            c.rcvtimeo_ms = left;
        }
        const ssize_t got = ::recv(c.fd.get(), c.rx.data(), c.rx.size(), flags);
        if (got < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                if (left <= 0 || Clock::now() >= until) {
                    return ETIME;
                }
                continue;
            }
            if (errno == EINTR) {
                continue;
            }
            const int err = errno;
            c.fd.reset();
            return note_failure(c, "recv", err);
        }
        if (got == 0) {
            c.fd.reset(); // the service went away mid-request
            return note_failure(c, "recv", ECONNRESET);
        }
        auto frame =
            size_t(got) <= fr::kMaxFrame ? fr::decode(c.rx.data(), size_t(got)) : std::nullopt;
        if (!frame) {
            return note_failure(c, "malformed answer", EPROTO);
        }
        out = std::move(*frame);
        return 0;
    }
}

// While stalled: true once the service has answered anything (a late answer waiting on the
// socket, or a probe, sent at most every kProbeEvery and given kProbeWait to answer).
bool service_answers(Channel &c) {
    fr::Frame f;
    while (c.fd && receive_frame(c, Clock::time_point(), f) == 0) {
        if (f.kind == fr::Kind::Response) {
            return true;
        }
    }
    if (!c.fd) {
        c.next_probe = Clock::now(); // a new connection deserves a probe at once
        if (ensure_connected(c) != 0) {
            return false;
        }
    }
    const auto now = Clock::now();
    if (now < c.next_probe) {
        return false;
    }
    c.next_probe = now + kProbeEvery;
    // A read of the master switch: harmless, and answered even when refused as expired.
    fr::Frame probe;
    probe.seq = next_seq(c);
    probe.opcode = CALLHOME_ENABLE_OPC;
    probe.msg_type = GET_REQ;
    probe.flags = fr::kUserNull;
    probe.deadline_ms =
        fr::monotonic_ms() + uint64_t(std::chrono::milliseconds(kProbeWait).count());
    const auto bytes = fr::encode(probe);
    // Never blocks: a hung service's full queue just means no answer yet.
    if (!bytes ||
        ::send(c.fd.get(), bytes->data(), bytes->size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            c.fd.reset();
        }
        return false;
    }
    const auto until = now + kProbeWait;
    while (receive_frame(c, until, f) == 0) {
        if (f.kind == fr::Kind::Response) {
            return true;
        }
    }
    return false;
}

CmiReply socket_round_trip(const CmiRequest &r) {
    Channel &c = channel();
    std::lock_guard<std::mutex> lock(c.mutex);

    if (c.stalled) {
        if (!service_answers(c)) {
            return failure(ETIME);
        }
        leave_stall(c);
    }

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
    // The service refuses, unapplied, a request it reaches after the caller stopped waiting.
    const auto wait = std::chrono::seconds(std::max(r.wait, 1));
    const auto deadline = Clock::now() + wait;
    f.deadline_ms = fr::monotonic_ms() + uint64_t(std::chrono::milliseconds(wait).count());
    if (!fr::encode_into(f, r.record, c.tx)) {
        return failure(EMSGSIZE);
    }
    const auto &bytes = c.tx;

    const bool reused = bool(c.fd);
    if (int err = ensure_connected(c)) {
        return failure(err);
    }
    if (send_message(c.fd.get(), bytes) != 0) {
        int err = errno;
        c.fd.reset();
        // A connection kept from before a service restart fails at the first send; the
        // request never reached anyone, so one fresh attempt is safe.
        if (!reused || (err != EPIPE && err != ECONNRESET && err != ENOTCONN)) {
            return failure(note_failure(c, "send", err));
        }
        if ((err = ensure_connected(c)) != 0) {
            return failure(err);
        }
        if (send_message(c.fd.get(), bytes) != 0) {
            err = errno;
            c.fd.reset();
            return failure(note_failure(c, "send", err));
        }
    }

    long long first_ms = std::chrono::milliseconds(wait).count();
    for (;; first_ms = 0) {
        fr::Frame answer;
        if (const int err = receive_frame(c, deadline, answer, first_ms)) {
            if (err == ETIME) {
                // The connection stays: a late answer is recognised by its seq and dropped.
                enter_stall(c);
            }
            return failure(err);
        }
        if (answer.kind != fr::Kind::Response || answer.seq != c.seq) {
            continue; // a late answer to a request that already timed out
        }
        c.failure.clear();
        if (answer.flags & fr::kExpired) {
            return failure(ETIME);
        }
        if (answer.status == -1) {
            return failure(EIO);
        }
        CmiReply reply;
        reply.status = answer.status;
        reply.has_record = (answer.flags & fr::kHasRecord) != 0;
        if (reply.has_record) {
            reply.record = std::move(answer.body);
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
    return path_of(c);
}

std::string channel_failure() {
    Channel &c = channel();
    std::lock_guard<std::mutex> lock(c.mutex);
    return c.failure;
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
    disconnect();
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
        c.stalled = false;
        c.failure.clear();
    }
    c.path = path;
}

void disconnect() {
    auto &c = detail::channel();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.fd.reset();
    c.stalled = false;
    c.failure.clear();
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
