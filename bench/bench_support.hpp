// Pieces of the bench driver that are not measurements: statistics, child processes, a
// scratch directory, free ports, resident memory.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double micros_since(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// Median and range of a set of per-round figures.
struct Spread {
    double median = 0, min = 0, max = 0;
};
Spread spread(std::vector<double> v);
// The p-th percentile (0..100) of samples, nearest rank.
double percentile(std::vector<double> v, double p);

// A child process started by the bench; stopped (SIGTERM, then SIGKILL) when destroyed.
class Child {
  public:
    Child() = default;
    // Starts argv[0] (searched in PATH and /usr/sbin) with extra environment variables;
    // its standard output and error go to `log` (appended). Throws on failure to fork.
    Child(const std::vector<std::string> &argv, const std::map<std::string, std::string> &env,
          const std::string &log);
    // Adopts a forked pid.
    explicit Child(pid_t pid) : pid_(pid) {}
    ~Child() { stop(); }
    Child(Child &&o) noexcept : pid_(o.pid_) { o.pid_ = -1; }
    Child &operator=(Child &&o) noexcept;
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t pid() const { return pid_; }
    bool alive() const;
    void stop();

  private:
    pid_t pid_ = -1;
};

// A private scratch directory (0700), removed with its contents when destroyed.
class ScratchDir {
  public:
    explicit ScratchDir(const std::string &parent);
    ~ScratchDir();
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

// A UDP port on 127.0.0.1 that nothing listens on right now.
int free_udp_port();

// Resident set size of a process in KiB (VmRSS), or -1.
long rss_kib(pid_t pid);

// Size of a file in bytes, or -1.
long file_size(const std::string &path);

// Polls `ready` every 20 ms until it is true or `seconds` pass.
template <class F> bool wait_until(double seconds, F &&ready) {
    const auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    while (Clock::now() < deadline) {
        if (ready()) {
            return true;
        }
        struct timespec ts {
            0, 20'000'000
        };
        nanosleep(&ts, nullptr);
    }
    return ready();
}

} // namespace bench
