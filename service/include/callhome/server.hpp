// callhomed's event loop: one thread, epoll(7), many connections on an AF_UNIX
// SOCK_SEQPACKET socket, each connection's requests answered in order. Writes commit on a
// second thread (committer.hpp says how and why) while reads go on.
//
// Up to kMaxReaders connections also get a reader thread of their own that blocks in recv()
// and answers the reads a snapshot answers by itself: a round trip then costs the client's
// send and recv and the service's recv and send, with no wake-up of the loop in between.
// Everything else such a reader hands to the loop and waits until the loop is done with the
// connection (its answer sent, nothing held, nothing left in its outbox), so the loop keeps
// every rule it has (order, faults, writes, admin, subscriptions) and only one thread ever
// sends on a connection that is not subscribed.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
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
    // What a reader thread hands the loop.
    enum class Handed { Frame, Answer, Closed };
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

        // With a reader thread, the loop watches the connection only for writability.
        std::thread reader;
        std::atomic<bool> with_loop{false}; // the reader waits until the loop clears it
        bool loop_has = false;              // the loop took what the reader handed (loop only)
        std::atomic<bool> closing{false};   // the reader stops
        Handed handed = Handed::Closed;     // set by the reader before it posts the Conn
        platform::frame::Frame handed_frame;
        std::vector<uint8_t> handed_answer; // an answer the client was not ready for
    };

    // A connection's reader thread: answers snapshot reads, hands the rest to the loop.
    void read_loop(Conn &c);
    // The reader's answer to a snapshot read; false when the connection failed.
    bool answer_read(Conn &c, platform::frame::Frame &f, platform::CmiRequest &request,
                     std::vector<uint8_t> &tx);
    // Posts `c` (whose handed* fields are set) to the loop; waits until the loop is done with
    // it unless it closed.
    void hand_off(Conn &c, Handed what);
    // The loop's side: takes what readers posted.
    void take_handed();
    // Wakes and joins a connection's reader (before its Conn goes).
    void stop_reader(Conn &c);
    // The snapshot readers answer from, swapped in under read_mutex_.
    void publish(Service::SnapshotPtr snapshot);
    // A read answered from the snapshot, its session noted for the next write's UNDOs.
    platform::CmiReply read_snapshot(uint32_t session, const platform::CmiRequest &request);

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
    // Guards undo_ and snapshot_, and every read of a snapshot (a read changes the snapshot's
    // own bookkeeping), for the loop and the readers alike.
    std::mutex read_mutex_;
    Service::ReadSessions undo_;    // of the reads since the last write
    Service::SnapshotPtr snapshot_; // the state as last committed; reads answer from it
    // Connections whose reader handed something over, and the loop's wake-up for them.
    std::mutex handed_mutex_;
    std::vector<Conn *> handed_;
    UniqueFd handed_wake_;
    size_t readers_ = 0;                   // connections with a reader thread
    std::unique_ptr<Committer> committer_; // last: stopped first
};

} // namespace callhome
