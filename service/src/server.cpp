#include "callhome/server.hpp"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <span>
#include <stdexcept>
#include <system_error>

#include "callhome/access.hpp"
#include "callhome/paths.hpp"
#include "platform/paths.hpp"
#include "callhome/protocol.hpp"
#include "cmi.h"
#include "committer.hpp"
#include "posix/event_fd.hpp"

namespace callhome {
namespace {

namespace fr = platform::frame;

// Bounds that keep one misbehaving client from growing the service without limit.
constexpr size_t kMaxInbox = 1024;
constexpr size_t kMaxOutbox = 4096;
// Connections served by a reader thread of their own; those beyond are served by the loop.
// snmpd and an AgentX subagent keep one or two connections each.
constexpr size_t kMaxReaders = 32;
// A request reached with less than this left would likely be answered after its caller
// gave up; it is refused like one whose deadline has passed.
constexpr uint64_t kDeadlineMarginMs = 20;
// What an epoll event stands for, when it is not a connection (whose Conn it points at).
enum Tag : uint64_t { kStop = 1, kListener, kCommitter, kServiceEvent, kReaders };
// Out of descriptors, the listener is left alone this long before accepting again.
constexpr auto kAcceptBackoff = std::chrono::milliseconds(250);

[[noreturn]] void fail(const std::string &what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

sockaddr_un address_of(const std::string &path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) {
        throw std::runtime_error("socket path too long or empty: " + path);
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return addr;
}

// True when a service accepts connections on `path`.
bool someone_listens(const std::string &path) {
    UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!fd) {
        fail("socket");
    }
    const sockaddr_un addr = address_of(path);
    return connect(fd.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0;
}

// Moves the frame into `req`, keeping the request's capacity: the frame's body is swapped in
// (the answer needs only the frame's header).
void fill_request(fr::Frame &f, platform::CmiRequest &req) {
    req.opcode = f.opcode;
    req.msg_type = f.msg_type;
    req.record.swap(f.body);
    req.wants_record = (f.flags & fr::kWantsRecord) != 0;
    req.user_null = (f.flags & fr::kUserNull) != 0;
    req.user = f.user;
    req.session = f.session;
    req.client = f.client;
    req.wait = f.wait;
}

platform::CmiRequest to_request(fr::Frame &f) {
    platform::CmiRequest req;
    fill_request(f, req);
    return req;
}

const char *type_name(int msg_type) {
    static const char *const kNames[] = {"GET",    "GETNEXT",  "SET",
                                         "DELETE", "VELD_GET", "VELD_GETNEXT"};
    return msg_type >= 1 && msg_type <= 6 ? kNames[msg_type - 1] : "request";
}

// The answer to a request reached when its caller has (nearly) stopped waiting, or nullopt.
// Its caller was told it failed: applying it now would change what the caller was told.
std::optional<fr::Frame> refusal_if_late(const fr::Frame &f) {
    const uint64_t now = fr::monotonic_ms();
    if (f.deadline_ms == 0 || now + kDeadlineMarginMs <= f.deadline_ms) {
        return std::nullopt;
    }
    const int64_t late = int64_t(now) - int64_t(f.deadline_ms);
    std::cerr << "callhomed: refused " << mts_opc_name_get(f.opcode) << " " << type_name(f.msg_type)
              << " unapplied: its caller's deadline "
              << (late >= 0 ? "had passed " + std::to_string(late) + " ms before"
                            : "was " + std::to_string(-late) + " ms away when")
              << " it was reached\n";
    fr::Frame reply;
    reply.kind = fr::Kind::Response;
    reply.seq = f.seq;
    reply.opcode = f.opcode;
    reply.msg_type = f.msg_type;
    reply.status = -1;
    reply.flags = fr::kExpired;
    return reply;
}

// The response frame to `f`, without its record: flags say whether `r`'s record goes along.
fr::Frame response_to(const fr::Frame &f, const platform::CmiReply &r) {
    fr::Frame reply;
    reply.kind = fr::Kind::Response;
    reply.seq = f.seq;
    reply.opcode = f.opcode;
    reply.msg_type = f.msg_type;
    reply.status = r.status;
    if ((f.flags & fr::kWantsRecord) && r.has_record) {
        reply.flags = fr::kHasRecord;
    }
    return reply;
}

} // namespace

Server::Server(Service &service, std::string socket_path)
    : service_(service), path_(std::move(socket_path)) {
    const sockaddr_un addr = address_of(path_);
    if (!make_parent_dirs(path_)) {
        fail("create directory for " + path_);
    }
    // Whoever can write the directory could swap the socket under the clients.
    const std::string dir = path_.substr(0, std::max<size_t>(path_.rfind('/'), 1));
    if (auto why = platform::socket_dir_problem(dir, path_ == platform::per_user_socket_path());
        !why.empty()) {
        throw std::runtime_error(why);
    }
    struct stat st {};
    if (lstat(path_.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            throw std::runtime_error(path_ + " exists and is not a socket");
        }
        if (someone_listens(path_)) {
            throw std::runtime_error("another callhomed is answering on " + path_);
        }
        if (unlink(path_.c_str()) != 0) {
            fail("remove stale socket " + path_);
        }
    }
    listen_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!listen_) {
        fail("socket");
    }
    // Owner and group only, whatever the umask: the socket never exists with a wider mode.
    const mode_t old_umask = umask(0177);
    const int bound = bind(listen_.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr);
    umask(old_umask);
    if (bound != 0) {
        fail("bind " + path_);
    }
    if (chmod(path_.c_str(), 0660) != 0) {
        unlink(path_.c_str());
        fail("chmod " + path_);
    }
    if (listen(listen_.get(), 64) != 0) {
        unlink(path_.c_str());
        fail("listen " + path_);
    }
    epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_) {
        unlink(path_.c_str());
        fail("epoll_create1");
    }
    committer_ = std::make_unique<Committer>(service_);
    snapshot_ = service_.snapshot();
    handed_wake_ = posix::event_fd();
    watch(listen_.get(), EPOLLIN, kListener, EPOLL_CTL_ADD);
    watch(committer_->fd(), EPOLLIN, kCommitter, EPOLL_CTL_ADD);
    watch(handed_wake_.get(), EPOLLIN, kReaders, EPOLL_CTL_ADD);
    if (service_.event_fd() >= 0) {
        watch(service_.event_fd(), EPOLLIN, kServiceEvent, EPOLL_CTL_ADD);
    }
    service_.set_notifier([this](int32_t id, const std::vector<uint8_t> &payload) {
        if (committer_->on_thread()) {
            committer_->post(id, payload); // the loop owns the connections
        } else {
            broadcast(id, payload);
        }
    });
}

Server::~Server() {
    committer_.reset(); // the write in flight finishes first
    for (Conn &c : conns_) {
        stop_reader(c);
    }
    service_.set_notifier({});
    if (listen_) {
        unlink(path_.c_str());
    }
}

void Server::watch(int fd, uint32_t events, uint64_t data, int op) {
    epoll_event e{};
    e.events = events;
    e.data.u64 = data;
    if (epoll_ctl(epoll_.get(), op, fd, &e) != 0 && !(op == EPOLL_CTL_ADD && errno == EEXIST)) {
        fail("epoll_ctl");
    }
}

void Server::drop_dead() {
    conns_.remove_if([this](Conn &c) {
        if (c.dead) {
            stop_reader(c);
            // Explicitly: a child forked meanwhile may still hold the descriptor, and the
            // registration would outlive the Conn it points at.
            epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, c.fd.get(), nullptr);
        }
        return c.dead;
    });
}

void Server::stop_reader(Conn &c) {
    if (!c.reader.joinable()) {
        return;
    }
    // shutdown() wakes a reader blocked in recv() (a forked child may hold the descriptor
    // too, so closing it would not); clearing with_loop wakes one that waits for the loop.
    c.closing = true;
    shutdown(c.fd.get(), SHUT_RDWR);
    c.with_loop = false;
    c.with_loop.notify_one();
    c.reader.join();
    --readers_;
    std::lock_guard<std::mutex> lock(handed_mutex_);
    handed_.erase(std::remove(handed_.begin(), handed_.end(), &c), handed_.end());
}

void Server::publish(Service::SnapshotPtr snapshot) {
    {
        std::lock_guard<std::mutex> lock(read_mutex_);
        snapshot_.swap(snapshot);
    }
    // The old one is freed here, outside the lock: readers need not wait for that.
}

platform::CmiReply Server::read_snapshot(uint32_t session, const platform::CmiRequest &request) {
    std::lock_guard<std::mutex> lock(read_mutex_);
    if (session != 0) {
        undo_.saw(session);
    }
    return service_.read(*snapshot_, request);
}

void Server::run(int stop_fd) {
    // epoll rather than poll: a request's wake-up then costs no walk over every descriptor
    // and no allocation of wait-queue entries in the kernel.
    watch(stop_fd, EPOLLIN, kStop, EPOLL_CTL_ADD);
    std::vector<epoll_event> events(64);
    for (;;) {
        // Answer delayed requests that are due, and find the next deadline.
        const auto now = Clock::now();
        int timeout = -1;
        for (Conn &c : conns_) {
            if (c.held && c.held->due <= now && !waits_for_committer(c.held->frame)) {
                Held h = std::move(*c.held);
                c.held.reset();
                serve(c, std::move(h.frame));
                pump(c);
            }
            // A due write that waits for the committer resumes when the committer wakes us.
            if (c.held && c.held->due > now) {
                const auto ms =
                    std::chrono::duration_cast<std::chrono::milliseconds>(c.held->due - now)
                        .count() +
                    1;
                timeout = timeout < 0 ? int(ms) : std::min(timeout, int(ms));
            }
        }
        drop_dead();
        auto service_due = Clock::time_point::max();
        if (!committer_->busy()) {
            if (const int ms = service_.timeout_ms(); ms >= 0) {
                timeout = timeout < 0 ? ms : std::min(timeout, ms);
                service_due = now + std::chrono::milliseconds(ms);
            }
        }
        // While out of descriptors the listener is not watched: it would stay readable and
        // spin the loop. Connected clients are served meanwhile.
        const bool accepting = !accept_paused_ || now >= accept_resume_;
        if (accepting != listening_) {
            watch(listen_.get(), accepting ? uint32_t(EPOLLIN) : 0u, kListener, EPOLL_CTL_MOD);
            listening_ = accepting;
        }
        accept_paused_ = !accepting;
        if (!accepting) {
            const auto ms =
                std::chrono::duration_cast<std::chrono::milliseconds>(accept_resume_ - now)
                    .count() +
                1;
            timeout = timeout < 0 ? int(ms) : std::min(timeout, int(ms));
        }
        for (Conn &c : conns_) {
            const bool reader = c.reader.joinable();
            // The loop is done with a reader's connection once its answers are all out: the
            // reader goes on.
            if (reader && c.loop_has && !c.dead && c.inbox.empty() && !c.held && !c.writing &&
                c.outbox.empty()) {
                c.loop_has = false;
                c.with_loop = false;
                c.with_loop.notify_one();
            }
            // Writability is asked for only while answers wait in an outbox. A connection
            // with a reader is watched for nothing else, so it is registered only meanwhile.
            if (const bool want = !c.outbox.empty(); want != c.want_out) {
                epoll_event e{};
                e.events = (reader ? 0u : uint32_t(EPOLLIN)) | (want ? uint32_t(EPOLLOUT) : 0u);
                e.data.ptr = &c;
                const int op = !reader ? EPOLL_CTL_MOD : want ? EPOLL_CTL_ADD : EPOLL_CTL_DEL;
                if (epoll_ctl(epoll_.get(), op, c.fd.get(), &e) != 0) {
                    c.dead = true;
                    continue;
                }
                c.want_out = want;
            }
        }

        const int n = epoll_wait(epoll_.get(), events.data(), int(events.size()), timeout);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            fail("epoll_wait");
        }
        bool accept_ready = false, committer_ready = false, service_ready = false,
             readers_ready = false;
        for (int i = 0; i < n; ++i) {
            switch (events[size_t(i)].data.u64) {
            case kStop:
                return;
            case kListener:
                accept_ready = true;
                break;
            case kCommitter:
                committer_ready = true;
                break;
            case kServiceEvent:
                service_ready = true;
                break;
            case kReaders:
                readers_ready = true;
                break;
            default: // a connection, served below
                break;
            }
        }
        if (accept_ready) {
            accept_clients();
        }
        if (committer_ready) {
            finish_write();
        }
        if (readers_ready) {
            take_handed();
        }
        // The service's own work (schedule, finished commands) changes the live state: only
        // while no write is with the committer, and the snapshot follows. A busy committer
        // wakes the loop when done, and the event is still pending then.
        if (!committer_->busy() && (service_ready || service_due <= Clock::now())) {
            service_.on_event();
            publish(service_.snapshot());
        }
        for (int i = 0; i < n; ++i) {
            const epoll_event &e = events[size_t(i)];
            if (e.data.u64 <= kReaders) {
                continue;
            }
            Conn &c = *static_cast<Conn *>(e.data.ptr);
            if (e.events & (EPOLLOUT | (c.reader.joinable() ? EPOLLHUP | EPOLLERR : 0u))) {
                flush(c);
            }
            if (!c.dead && !c.reader.joinable() && (e.events & (EPOLLIN | EPOLLHUP | EPOLLERR))) {
                read_from(c);
                pump(c);
            }
        }
        drop_dead();
    }
}

void Server::accept_clients() {
    for (;;) {
        // Blocking: a reader thread waits in recv(); the loop's own calls say MSG_DONTWAIT.
        const int fd = accept4(listen_.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            const int err = errno;
            if (err == EINTR || err == ECONNABORTED) {
                continue;
            }
            if (err == EAGAIN || err == EWOULDBLOCK) {
                // An episode ends once every waiting connection has been taken.
                if (accept_starved_) {
                    accept_starved_ = false;
                    std::cerr << "callhomed: accepting connections again\n";
                }
                return;
            }
            // Out of descriptors or memory (or anything else that would repeat at once):
            // back off, and say so once per episode.
            if (!accept_starved_) {
                accept_starved_ = true;
                std::cerr << "callhomed: accept: " << std::strerror(err)
                          << "; new connections wait (" << conns_.size()
                          << " connected clients still served)\n";
            }
            accept_paused_ = true;
            accept_resume_ = Clock::now() + kAcceptBackoff;
            return;
        }
        UniqueFd conn(fd);
        if (auto why = peer_problem(fd); !why.empty()) {
            std::cerr << "callhomed: " << why << "\n";
            continue;
        }
        conns_.emplace_back();
        Conn &c = conns_.back();
        c.fd = std::move(conn);
        c.id = next_conn_id_++;
        if (readers_ < kMaxReaders) {
            try {
                c.reader = std::thread([this, &c] { read_loop(c); });
                ++readers_;
                continue;
            } catch (const std::system_error &e) {
                std::cerr << "callhomed: no reader thread for a new connection (" << e.what()
                          << "); the event loop serves it\n";
            }
        }
        epoll_event e{};
        e.events = EPOLLIN;
        e.data.ptr = &c;
        if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, c.fd.get(), &e) != 0) {
            std::cerr << "callhomed: cannot watch a new connection: " << std::strerror(errno)
                      << "\n";
            conns_.pop_back();
        }
    }
}

void Server::read_from(Conn &c) {
    // One message per wake-up: poll is level-triggered and clients wait for each answer, so
    // a second receive would almost always answer EAGAIN. The buffer is the server's, sized
    // once (one byte over the largest frame shows a truncated message).
    if (rx_.size() != fr::kMaxFrame + 1) {
        rx_.resize(fr::kMaxFrame + 1);
    }
    const ssize_t n = recv(c.fd.get(), rx_.data(), rx_.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (n < 0) {
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            c.dead = true;
        }
        return;
    }
    if (n == 0) { // the peer closed
        c.dead = true;
        return;
    }
    auto f = size_t(n) <= fr::kMaxFrame ? fr::decode(rx_.data(), size_t(n)) : std::nullopt;
    if (!f || c.inbox.size() >= kMaxInbox) {
        std::cerr << "callhomed: malformed frame; closing the connection\n";
        c.dead = true;
        return;
    }
    c.inbox.push_back(std::move(*f));
}

bool Server::waits_for_committer(const fr::Frame &f) const {
    const bool live =
        f.kind == fr::Kind::Admin ||
        (f.kind == fr::Kind::Request && !Service::snapshot_answers(f.opcode, f.msg_type));
    return live && committer_->busy();
}

void Server::finish_write() {
    auto done = committer_->take();
    for (auto &[id, payload] : committer_->take_notifications()) {
        broadcast(id, payload);
    }
    if (!done) {
        return;
    }
    // A snapshot the committer could not take (out of memory) is taken here: the live
    // service is idle again.
    if (done->changed) {
        publish(done->snapshot ? std::move(done->snapshot) : service_.snapshot());
    }
    for (Conn &c : conns_) {
        if (c.id == done->conn && c.writing) {
            c.writing = false;
            answer_request(c, done->frame, std::move(done->reply));
            break;
        }
    }
    // Whoever waited for the committer (this client or another) may go on.
    for (Conn &c : conns_) {
        pump(c);
    }
}

void Server::pump(Conn &c) {
    while (!c.dead && !c.held && !c.writing && !c.inbox.empty()) {
        if (waits_for_committer(c.inbox.front())) {
            return; // finish_write() pumps again
        }
        fr::Frame f = std::move(c.inbox.front());
        c.inbox.pop_front();
        handle(c, std::move(f));
    }
}

void Server::handle(Conn &c, fr::Frame &&f) {
    switch (f.kind) {
    case fr::Kind::Request: {
        const FaultAction fault = service_.take_fault(f.opcode, f.msg_type);
        switch (fault.kind) {
        case FaultAction::Kind::Drop:
            return;
        case FaultAction::Kind::Delay:
            c.held = Held{std::move(f), Clock::now() + std::chrono::milliseconds(fault.delay_ms)};
            return;
        case FaultAction::Kind::Status: {
            platform::CmiReply r;
            r.status = fault.status;
            answer_request(c, f, std::move(r));
            return;
        }
        case FaultAction::Kind::None:
            break;
        }
        serve(c, std::move(f));
        return;
    }
    case fr::Kind::Subscribe:
        c.subscriber = true;
        return;
    case fr::Kind::Admin: {
        const auto args = protocol::split_args(f.body);
        // Faults are for tests: a production service never arms them.
        // The committer is idle (pump saw to it): admin commands run on the live service.
        const auto [status, text] =
            !fault_injection_ && !args.empty() && args[0] == "fault"
                ? std::pair<int, std::string>(
                      1,
                      "fault injection is off (callhomed --enable-fault-injection turns it on)\n")
                : service_.admin(args);
        publish(service_.snapshot());
        // Long outputs go in pieces; every piece but the last carries kAdminMore.
        size_t pos = 0;
        do {
            fr::Frame reply;
            reply.kind = fr::Kind::AdminReply;
            reply.seq = f.seq;
            reply.status = status;
            const size_t n = std::min(text.size() - pos, fr::kMaxBody);
            reply.body.assign(text.begin() + long(pos), text.begin() + long(pos + n));
            pos += n;
            if (pos < text.size()) {
                reply.flags = protocol::kAdminMore;
            }
            send(c, reply);
        } while (pos < text.size() && !c.dead);
        return;
    }
    default:
        std::cerr << "callhomed: unexpected frame kind " << int(f.kind)
                  << "; closing the connection\n";
        c.dead = true;
        return;
    }
}

void Server::serve(Conn &c, fr::Frame &&f) {
    if (const auto refusal = refusal_if_late(f)) {
        send(c, *refusal);
        return;
    }
    if (Service::snapshot_answers(f.opcode, f.msg_type)) {
        answer_request(c, f, read_snapshot(f.session, to_request(f)));
        return;
    }
    if (!committer_->busy()) {
        // Reads the snapshot cannot answer are quick: the loop answers them on the live
        // service while the committer is idle (pump saw to it).
        if (Service::is_read(f.msg_type)) {
            answer_request(c, f, service_.process(to_request(f)));
            return;
        }
    }
    c.writing = true;
    auto request = to_request(f);
    Service::ReadSessions reads;
    {
        std::lock_guard<std::mutex> lock(read_mutex_);
        reads = std::exchange(undo_, {});
    }
    committer_->submit(c.id, std::move(f), std::move(request), reads);
}

void Server::answer_request(Conn &c, const fr::Frame &f, platform::CmiReply &&r) {
    fr::Frame reply = response_to(f, r);
    if (reply.flags & fr::kHasRecord) {
        reply.body = std::move(r.record);
    }
    send(c, reply);
}

void Server::send(Conn &c, const fr::Frame &f) {
    if (c.dead) {
        return;
    }
    // Encoded into the server's buffer and sent from there: only an answer the client is
    // not ready for is copied into its outbox.
    if (!fr::encode_into(f, f.body, tx_)) {
        std::cerr << "callhomed: answer too large to frame; closing the connection\n";
        c.dead = true;
        return;
    }
    if (c.outbox.empty()) {
        for (;;) {
            const ssize_t n =
                ::send(c.fd.get(), tx_.data(), tx_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n >= 0) {
                return;
            }
            if (errno == EINTR) {
                continue;
            }
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                c.dead = true;
                return;
            }
            break; // POLLOUT sends it from the outbox
        }
    }
    if (c.outbox.size() >= kMaxOutbox) {
        std::cerr << "callhomed: client does not read; closing the connection\n";
        c.dead = true;
        return;
    }
    c.outbox.push_back(tx_);
}

void Server::flush(Conn &c) {
    while (!c.dead && !c.outbox.empty()) {
        const auto &m = c.outbox.front();
        const ssize_t n = ::send(c.fd.get(), m.data(), m.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
                return; // POLLOUT resumes
            }
            c.dead = true;
            return;
        }
        c.outbox.pop_front();
    }
}

void Server::broadcast(int32_t id, const std::vector<uint8_t> &payload) {
    fr::Frame n;
    n.kind = fr::Kind::Notification;
    n.opcode = id;
    n.body = payload;
    for (Conn &c : conns_) {
        if (c.subscriber) {
            send(c, n);
        }
    }
}

void Server::read_loop(Conn &c) {
    // Sized once and never cleared: one byte over the largest frame shows a truncated message.
    const auto rx = std::make_unique_for_overwrite<uint8_t[]>(fr::kMaxFrame + 1);
    fr::Frame f;
    platform::CmiRequest request;
    std::vector<uint8_t> tx;
    bool subscribed = false; // notifications may go out meanwhile: only the loop sends then
    while (!c.closing) {
        const ssize_t n = recv(c.fd.get(), rx.get(), fr::kMaxFrame + 1, MSG_TRUNC);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) { // the peer closed, or the connection failed
            hand_off(c, Handed::Closed);
            return;
        }
        if (size_t(n) > fr::kMaxFrame || !fr::decode_into(rx.get(), size_t(n), f)) {
            std::cerr << "callhomed: malformed frame; closing the connection\n";
            hand_off(c, Handed::Closed);
            return;
        }
        subscribed = subscribed || f.kind == fr::Kind::Subscribe;
        // An armed fault may match any request: the loop applies faults.
        if (!subscribed && f.kind == fr::Kind::Request &&
            Service::snapshot_answers(f.opcode, f.msg_type) && !service_.faults_armed()) {
            if (!answer_read(c, f, request, tx)) {
                return;
            }
            continue;
        }
        std::swap(c.handed_frame, f);
        hand_off(c, Handed::Frame);
    }
}

bool Server::answer_read(Conn &c, fr::Frame &f, platform::CmiRequest &request,
                         std::vector<uint8_t> &tx) {
    const auto refusal = refusal_if_late(f);
    std::span<const uint8_t> body;
    platform::CmiReply r;
    fr::Frame reply;
    if (refusal) {
        reply = *refusal;
    } else {
        fill_request(f, request);
        r = read_snapshot(f.session, request);
        reply = response_to(f, r);
        if (reply.flags & fr::kHasRecord) {
            body = r.record;
        }
    }
    if (!fr::encode_into(reply, body, tx)) {
        std::cerr << "callhomed: answer too large to frame; closing the connection\n";
        hand_off(c, Handed::Closed);
        return false;
    }
    for (;;) {
        if (::send(c.fd.get(), tx.data(), tx.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            return true;
        }
        if (errno != EINTR) {
            break;
        }
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
        hand_off(c, Handed::Closed);
        return false;
    }
    // A client that is not ready for it: the loop sends it when the client is, and the
    // reader reads on only then.
    c.handed_answer = tx;
    hand_off(c, Handed::Answer);
    return !c.closing;
}

void Server::hand_off(Conn &c, Handed what) {
    c.handed = what;
    c.with_loop = true;
    {
        std::lock_guard<std::mutex> lock(handed_mutex_);
        handed_.push_back(&c);
    }
    if (!posix::signal_event(handed_wake_.get())) {
        std::cerr << "callhomed: cannot wake the event loop: " << std::strerror(errno) << "\n";
    }
    // Checked after with_loop is set: stop_reader sets closing before it clears with_loop,
    // so either this sees closing or the wait sees with_loop cleared.
    if (what != Handed::Closed && !c.closing) {
        c.with_loop.wait(true);
    }
}

void Server::take_handed() {
    posix::clear_events(handed_wake_.get());
    std::vector<Conn *> posted;
    {
        std::lock_guard<std::mutex> lock(handed_mutex_);
        posted.swap(handed_);
    }
    for (Conn *p : posted) {
        Conn &c = *p;
        c.loop_has = true;
        switch (c.handed) {
        case Handed::Frame:
            c.inbox.push_back(std::move(c.handed_frame));
            pump(c);
            break;
        case Handed::Answer:
            c.outbox.push_back(std::move(c.handed_answer));
            break;
        case Handed::Closed:
            c.dead = true;
            break;
        }
    }
}

} // namespace callhome
