// The messages the service sends by itself: alerts (callhomectl alert), the periodic
// inventory, and the output of the user-defined commands attached to their alert group.
//
// It selects the profiles (groups and levels), throttles alerts, composes and queues. A
// message whose group has commands is queued as `composing` with the commands marked as not
// yet run; the command runner's thread runs them and the event loop then completes the
// message and hands it to the sender. A restart sends such a message as it was queued.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "message.hpp"
#include "runner.hpp"
#include "schedule.hpp"
#include "state.hpp"
#include "storage.hpp"
#include "throttle.hpp"

namespace callhome {

class Dispatcher {
  public:
    using Clock = std::function<int64_t()>; // epoch seconds

    Dispatcher(State &state, Storage &storage, std::vector<std::string> allowed_commands);

    struct Alert {
        std::string group;
        int severity = 5; // 1..10
        std::string subject;
        std::string text;
    };
    struct Outcome {
        int queued = 0;
        int throttled = 0;
        std::string error; // non-empty: nothing was queued, and why
    };
    Outcome alert(const Alert &a);

    // The event loop's side: the fd to poll, how long it may sleep, and the work due.
    int fd() const { return runner_.fd(); }
    int timeout_ms();
    void on_event();

    void set_clock(Clock clock);
    // For dump.
    const schedule::State &inventory_schedule() {
        follow_settings();
        return sched_;
    }
    std::map<std::pair<std::string, std::string>, throttle::Throttle::Counter> throttle_counters();

  private:
    struct Pending {
        int64_t id;
        message::Input input;
        int format;
        uint32_t max_size;
    };
    int64_t now() const { return clock_ ? clock_() : int64_t(::time(nullptr)); }
    void follow_settings();
    void run_inventory();
    // Composes for each target and queues; returns how many went out and how many were
    // throttled.
    Outcome queue(const std::string &action, const std::string &group, int severity,
                  const std::string &subject, const std::string &text,
                  const schedule::State *sched);
    void complete(const commands::Runner::Done &d);
    // The throttle, its window rebuilt from the outbox on first use (the clock may be set
    // after construction).
    throttle::Throttle &throttle();

    State &state_;
    Storage &storage_;
    Clock clock_;
    throttle::Throttle throttle_;
    bool throttle_restored_ = false;
    schedule::State sched_;
    bool restored_ = false;
    commands::Runner runner_;
    uint64_t next_job_ = 1;
    std::map<uint64_t, std::vector<Pending>> pending_;
};

} // namespace callhome
