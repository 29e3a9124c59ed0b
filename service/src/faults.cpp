#include "faults.hpp"

namespace callhome {

void Faults::arm(int opcode, std::optional<int> type, int count, FaultAction action) {
    faults_.push_back({opcode, type, count, action});
    armed_ = faults_.size();
}

FaultAction Faults::take(int opcode, int msg_type, bool status_only) {
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        if (it->opcode != opcode || (it->type && *it->type != msg_type)) {
            continue;
        }
        if (status_only && it->action.kind != FaultAction::Kind::Status) {
            continue;
        }
        const FaultAction a = it->action;
        if (--it->remaining <= 0) {
            faults_.erase(it);
            armed_ = faults_.size();
        }
        return a;
    }
    return {};
}

} // namespace callhome
