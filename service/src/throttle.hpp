// Message throttling: at most `limit` alert messages per (profile, alert group) in any rolling
// hour. The clock is the caller's.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>

namespace callhome::throttle {

enum class Decision {
    Send,
    Throttled,      // over the limit
    ThrottledFirst, // over the limit, and the first such in this hour: worth a log line
};

class Throttle {
  public:
    static constexpr int kLimit = 30;
    static constexpr int64_t kWindow = 3600;

    // Decides for one alert message queued at `now` and counts it.
    Decision admit(const std::string &profile, const std::string &group, int64_t now);
    // Counts a message queued earlier (rebuilding the window after a restart).
    void record(const std::string &profile, const std::string &group, int64_t when);

    struct Counter {
        int in_window = 0; // messages queued in the hour before `now`
        uint64_t throttled = 0;
    };
    std::map<std::pair<std::string, std::string>, Counter> counters(int64_t now);

  private:
    struct Key {
        std::deque<int64_t> sent; // times of the queued messages of the last hour, oldest first
        uint64_t throttled = 0;
        int64_t last_logged = INT64_MIN;
    };
    static void prune(Key &k, int64_t now);
    std::map<std::pair<std::string, std::string>, Key> keys_;
};

} // namespace callhome::throttle
