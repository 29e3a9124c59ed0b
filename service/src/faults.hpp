// Fault injection: faults armed by `callhomectl fault ...` that answer, delay or drop the next
// requests of one opcode (and optionally one message type), for testing the module's error
// paths against a real service.
#pragma once

#include <atomic>
#include <optional>
#include <vector>

#include "callhome/service.hpp"

namespace callhome {

class Faults {
  public:
    // Arms `action` for the next `count` requests of `opcode` (of message type `type`, when
    // given). Faults armed earlier match first.
    void arm(int opcode, std::optional<int> type, int count, FaultAction action);
    void clear() {
        faults_.clear();
        armed_ = 0;
    }
    // The action of the first fault that matches, counted down; Kind::None when none does.
    // `status_only` looks at status faults only (for hosts that can't delay or drop).
    FaultAction take(int opcode, int msg_type, bool status_only);
    // Whether any fault is armed; any thread may ask (the others are for the owner's).
    bool armed() const { return armed_.load() != 0; }

  private:
    struct Fault {
        int opcode;
        std::optional<int> type;
        int remaining;
        FaultAction action;
    };
    std::vector<Fault> faults_;
    std::atomic<size_t> armed_{0}; // faults_.size()
};

} // namespace callhome
