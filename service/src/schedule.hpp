// When the periodic inventory is due. Times are seconds since the epoch; the time of day is
// the service's local time. The clock is the caller's: every function takes `now`.
#pragma once

#include <cstdint>

namespace callhome::schedule {

struct Settings {
    bool enable = true;
    uint32_t days = 7;      // 1..30
    uint32_t minutes = 480; // after local midnight, 0..1439
    bool operator==(const Settings &o) const {
        return enable == o.enable && days == o.days && minutes == o.minutes;
    }
};

// What is kept across restarts.
struct State {
    int64_t next_due = 0; // 0: nothing scheduled (switched off)
    int64_t last_run = 0; // the due time that was last sent
    Settings basis;       // the settings next_due was computed from
};

// The first time strictly after `after` at which the local clock reads `minutes`.
int64_t next_time_of_day(int64_t after, uint32_t minutes);

// The settings changed (or were never scheduled): due at the next matching time of day.
State reschedule(const Settings &s, int64_t now);

// The state to run with after a start: kept as it was when its settings are still the
// current ones (so a due time missed while down is still due, once), else rescheduled.
State restore(const State &kept, const Settings &current, int64_t now);

// Whether the inventory is due at `now`.
bool is_due(const State &st, int64_t now);

// After the due inventory went out at `now`: the next due time is `days` calendar days after
// the one just served, at the time of day, skipping any that are already past.
State advance(const State &st, int64_t now);

} // namespace callhome::schedule
