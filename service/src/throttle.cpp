#include "throttle.hpp"

namespace callhome::throttle {

void Throttle::prune(Key &k, int64_t now) {
    while (!k.sent.empty() && k.sent.front() <= now - kWindow) {
        k.sent.pop_front();
    }
}

Decision Throttle::admit(const std::string &profile, const std::string &group, int64_t now) {
    Key &k = keys_[{profile, group}];
    prune(k, now);
    if (int(k.sent.size()) < kLimit) {
        k.sent.push_back(now);
        return Decision::Send;
    }
    ++k.throttled;
    if (k.last_logged == INT64_MIN || now - k.last_logged >= kWindow) {
        k.last_logged = now;
        return Decision::ThrottledFirst;
    }
    return Decision::Throttled;
}

void Throttle::record(const std::string &profile, const std::string &group, int64_t when) {
    Key &k = keys_[{profile, group}];
    k.sent.push_back(when);
}

std::map<std::pair<std::string, std::string>, Throttle::Counter> Throttle::counters(int64_t now) {
    std::map<std::pair<std::string, std::string>, Counter> out;
    for (auto &[key, k] : keys_) {
        prune(k, now);
        out[key] = {int(k.sent.size()), k.throttled};
    }
    return out;
}

} // namespace callhome::throttle
