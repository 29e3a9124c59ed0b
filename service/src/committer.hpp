// The service's writes, each committed on a thread of its own so that the event loop keeps
// answering reads while the disk syncs.
//
// Why and how: a write is durable (SQLite, synchronous=FULL) before its answer goes out, and
// the sync takes far longer than any read. The loop hands each write request to this thread
// and answers reads meanwhile from a snapshot of the state as last committed; the thread
// applies the write to the live service (storage first, state after, as always), copies the
// state into a new snapshot when the write changed it (a refused one changes nothing) and
// posts both back. Only then does the loop swap snapshots and answer the writer. So an acknowledged
// write is durable, a read never sees a value that is not committed, and a client's own read after
// its write sees it (its requests are answered in order). One write is in flight at a time: the
// next one, every admin command and every read of the status objects (which run on the loop against
// the live service) wait until it is done. A request whose caller's deadline passes while it waits
// is refused unapplied.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "callhome/server.hpp"
#include "callhome/service.hpp"
#include "platform/frame.hpp"

namespace callhome {

class Committer {
  public:
    struct Done {
        uint64_t conn = 0;
        platform::frame::Frame frame;
        platform::CmiReply reply;
        bool changed = false;          // the write was applied: readers need a new snapshot
        Service::SnapshotPtr snapshot; // null when none could be taken (or none was needed)
    };

    // Starts the thread. Throws std::runtime_error when the wake-up descriptor can't be made.
    explicit Committer(Service &service);
    // The destructor lets the write in flight (and one submitted) finish: thread_ goes first.
    Committer(const Committer &) = delete;
    Committer &operator=(const Committer &) = delete;

    // Readable when a write is done or a notification waits (an eventfd).
    int fd() const { return wake_.get(); }
    // True from submit() until take() has handed the result back. Loop thread only.
    bool busy() const { return busy_; }
    // `reads`: the sessions of the reads answered since the last write (Service::end_undo).
    void submit(uint64_t conn, platform::frame::Frame frame, platform::CmiRequest request,
                Service::ReadSessions reads);
    std::optional<Done> take();

    // A notification the service raised on this thread; the loop sends it.
    bool on_thread() const { return std::this_thread::get_id() == thread_.get_id(); }
    void post(int32_t id, std::vector<uint8_t> payload);
    std::vector<std::pair<int32_t, std::vector<uint8_t>>> take_notifications();

  private:
    struct Job {
        uint64_t conn;
        platform::frame::Frame frame;
        platform::CmiRequest request;
        Service::ReadSessions reads;
    };
    void loop(std::stop_token stop);
    void wake();

    Service &service_;
    UniqueFd wake_;
    std::mutex mutex_;
    std::condition_variable_any cv_;
    std::optional<Job> job_;
    std::optional<Done> done_;
    std::vector<std::pair<int32_t, std::vector<uint8_t>>> notifications_;
    bool busy_ = false;
    std::jthread thread_; // last: stopped and joined before the rest goes
};

} // namespace callhome
