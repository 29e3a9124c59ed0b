#include "schedule.hpp"

#include <ctime>

namespace callhome::schedule {
namespace {

// Local time `minutes` after midnight of the local day of `t`, `add_days` days later.
int64_t at_time_of_day(int64_t t, int add_days, uint32_t minutes) {
    const time_t tt = time_t(t);
    tm local{};
    localtime_r(&tt, &local);
    local.tm_mday += add_days;
    local.tm_hour = int(minutes / 60);
    local.tm_min = int(minutes % 60);
    local.tm_sec = 0;
    local.tm_isdst = -1; // let mktime decide across a daylight-saving change
    return int64_t(mktime(&local));
}

} // namespace

int64_t next_time_of_day(int64_t after, uint32_t minutes) {
    for (int d = 0; d < 3; ++d) {
        const int64_t t = at_time_of_day(after, d, minutes);
        if (t > after) {
            return t;
        }
    }
    return at_time_of_day(after, 3, minutes);
}

State reschedule(const Settings &s, int64_t now) {
    State st;
    st.basis = s;
    st.next_due = s.enable ? next_time_of_day(now, s.minutes) : 0;
    return st;
}

State restore(const State &kept, const Settings &current, int64_t now) {
    if (kept.basis == current && (kept.next_due != 0 || !current.enable)) {
        return kept;
    }
    State st = reschedule(current, now);
    st.last_run = kept.last_run;
    return st;
}

bool is_due(const State &st, int64_t now) {
    return st.basis.enable && st.next_due != 0 && now >= st.next_due && st.last_run != st.next_due;
}

State advance(const State &st, int64_t now) {
    State next = st;
    next.last_run = st.next_due;
    int64_t due = st.next_due;
    const int days = int(st.basis.days < 1 ? 1 : st.basis.days);
    do {
        due = at_time_of_day(due, days, st.basis.minutes);
    } while (due <= now);
    next.next_due = due;
    return next;
}

} // namespace callhome::schedule
