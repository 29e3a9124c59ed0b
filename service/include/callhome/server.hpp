// callhomed's event loop: one thread, epoll(7), many connections on an AF_UNIX
// SOCK_SEQPACKET socket, each connection's requests answered in order. Writes commit on a
// second thread (committer.hpp says how and why) while reads go on.
#pragma once

#include <chrono>
#include <deque>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "callhome/service.hpp"
#include "platform/frame.hpp"
#include "posix/unique_fd.hpp"

namespace callhome {

using UniqueFd = posix::UniqueFd;

class Committer;

class Server {
  public:
    // Binds and listens on `socket_path` (creating its directory, 0700; the socket is 0660).
    // Refuses to start (std::runtime_error) when another service answers there or when the
    // directory is not this user's alone to write (for the per-user default: mode 0700);
    // removes a stale socket file. Accepts only root, this user and members of its group.
    Server(Service &service, std::string socket_path);
    ~Server(); // removes the socket file
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Serves until `stop_fd` becomes readable (a signalfd in callhomed).
    void run(int stop_fd);
    // Lets the admin command `fault` arm faults (off by default).
    void enable_fault_injection(bool on) { fault_injection_ = on; }

  private:
    using Clock = std::chrono::steady_clock;
    struct Held {
        platform::frame::Frame frame;
        Clock::time_point due;
    };
    struct Conn {
        uint64_t id = 0;
        UniqueFd fd;
        bool subscriber = false;
        bool dead = false;
        bool writing = false;  // its write is with the committer; later requests wait
        bool want_out = false; // watched for writability (its outbox is not empty)
        std::deque<platform::frame::Frame> inbox;
        std::optional<Held> held; // a request whose answer is being delayed
        std::deque<std::vector<uint8_t>> outbox;
    };

    // epoll_ctl for one of the loop's own descriptors; throws on failure.
    void watch(int fd, uint32_t events, uint64_t data, int op);
    // Forgets the connections marked dead.
    void drop_dead();
    void accept_clients();
    void read_from(Conn &c);
    void pump(Conn &c);
    void handle(Conn &c, platform::frame::Frame &&f);
    // Refuses a request whose caller's deadline has passed, answers a read from the snapshot
    // (or the live service), or hands a write to the committer.
    void serve(Conn &c, platform::frame::Frame &&f);
    // True when `f` must wait for the write in flight: writes, status reads, admin commands.
    bool waits_for_committer(const platform::frame::Frame &f) const;
    void finish_write();
    void answer_request(Conn &c, const platform::frame::Frame &f, platform::CmiReply &&r);
    void send(Conn &c, const platform::frame::Frame &f);
    void flush(Conn &c);
    void broadcast(int32_t id, const std::vector<uint8_t> &payload);

    Service &service_;
    std::string path_;
    UniqueFd listen_;
    UniqueFd epoll_;
    std::list<Conn> conns_;
    bool accept_starved_ = false; // accept failed (EMFILE...) and connections still wait
    bool accept_paused_ = false;  // the listener is left alone until accept_resume_
    bool listening_ = true;       // the listener is watched
    Clock::time_point accept_resume_;
    bool fault_injection_ = false;
    std::vector<uint8_t> rx_; // receive buffer shared by all connections
    std::vector<uint8_t> tx_; // the answer being sent, likewise
    uint64_t next_conn_id_ = 1;
    Service::ReadSessions undo_;           // of the reads since the last write
    Service::SnapshotPtr snapshot_;        // the state as last committed; reads answer from it
    std::unique_ptr<Committer> committer_; // last: stopped first
};

} // namespace callhome
