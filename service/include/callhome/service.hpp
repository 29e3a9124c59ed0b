// The call-home service: every value the MIB module serves lives here.
//
// One Service owns the configuration (kept in SQLite, served from memory), answers the
// request channel one request at a time and runs the admin commands of callhomectl. It is
// not thread-safe: one thread at a time drives it (the daemon's event loop, or its committer
// while a write is in flight; reads meanwhile go to a snapshot), and tests host it
// in-process behind the platform's transport hook.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/cmi_request.hpp"

namespace callhome {

// What an injected fault does to the request it matches.
struct FaultAction {
    enum class Kind { None, Status, Delay, Drop };
    Kind kind = Kind::None;
    int32_t status = 0; // Kind::Status: the status answered
    int delay_ms = 0;   // Kind::Delay: how long the answer is held back
};

class Service {
  public:
    // ":memory:" keeps everything in memory (tests). Throws std::runtime_error when the
    // database can't be opened, created or read. `allowed_commands`: the executables the
    // user-defined commands may start (the configuration's key; unset: the built-in list).
    explicit Service(const std::string &db_path,
                     std::optional<std::vector<std::string>> allowed_commands = std::nullopt);
    ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    // One request of the channel. Injected status faults apply here too.
    platform::CmiReply handle(const platform::CmiRequest &request);

    // An admin command as callhomectl sends it: (exit status, output text).
    std::pair<int, std::string> admin(const std::vector<std::string> &args);

    using Notifier = std::function<void(int32_t id, const std::vector<uint8_t> &payload)>;
    // Called for every platform notification the service emits.
    void set_notifier(Notifier notifier);
    // Called after messages were queued or a retry was asked for (the sender's wake-up).
    void set_outbox_listener(std::function<void()> listener);

    // The event loop's side of the messages the service sends by itself (the periodic
    // inventory, finished commands): poll event_fd() for reading, wait at most timeout_ms()
    // (-1: no limit), then call on_event().
    int event_fd() const;
    int timeout_ms();
    void on_event();
    // Tests: the wall clock (epoch seconds) the schedule and throttling use.
    void set_clock(std::function<int64_t()> clock);

    // For the daemon, which applies delays and drops itself: takes the fault (if any) that
    // matches the request, counting it down, and answers the request without fault checks.
    FaultAction take_fault(int opcode, int msg_type);
    // Whether any fault is armed. Unlike the rest, any thread may ask.
    bool faults_armed() const;
    platform::CmiReply process(const platform::CmiRequest &request);

    // For the daemon, which answers reads while a write commits on another thread: a copy of
    // the state as it stands (taken by whoever owns the service at that moment), and the
    // answer to a read from such a copy. read() touches nothing but the snapshot, so it may
    // run while another thread is inside process().
    class Snapshot;
    using SnapshotPtr = std::shared_ptr<Snapshot>;
    SnapshotPtr snapshot();
    platform::CmiReply read(Snapshot &snapshot, const platform::CmiRequest &request);
    static bool is_read(int msg_type); // GET, GETNEXT and their VELD forms
    // A read a snapshot answers: every one but the status objects', which the sender thread
    // records in the database and the live service reads afresh.
    static bool snapshot_answers(int opcode, int msg_type);
    // The sessions of the reads a snapshot answered since the last write. A request of
    // another session ends the UNDO of a deleted profile; these reads never reached the live
    // state, so the next write ends those UNDOs first (end_undo). Two distinct sessions end
    // every one, so no more are kept.
    struct ReadSessions {
        uint32_t seen[2] = {0, 0};
        void saw(uint32_t session) {
            if (seen[0] == 0) {
                seen[0] = session;
            } else if (seen[1] == 0 && session != seen[0]) {
                seen[1] = session;
            }
        }
    };
    void end_undo(const ReadSessions &sessions);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace callhome
