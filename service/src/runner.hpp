// Runs the user-defined commands of composed messages on a thread of its own, so that a
// command that hangs or floods costs its own time limit and never the event loop's.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "commands.hpp"
#include "posix/unique_fd.hpp"

namespace callhome::commands {

class Runner {
  public:
    struct Job {
        uint64_t id = 0;
        std::vector<std::string> lines;
    };
    struct Done {
        uint64_t id = 0;
        std::vector<Result> results; // in the order of the job's lines
    };

    Runner(std::vector<std::string> allowed, Limits limits = {});
    // The destructor finishes the command under way and drops the jobs not started.
    Runner(const Runner &) = delete;
    Runner &operator=(const Runner &) = delete;

    void submit(Job job);
    // Readable while finished jobs wait to be taken (an eventfd for the event loop's poll).
    int fd() const { return event_fd_.get(); }
    std::vector<Done> take();
    // Jobs submitted and not yet taken.
    size_t pending() const;

  private:
    void work(std::stop_token stop);

    const std::vector<std::string> allowed_;
    const Limits limits_;
    posix::UniqueFd event_fd_;
    mutable std::mutex mu_;
    std::condition_variable_any cv_;
    std::deque<Job> jobs_;
    std::vector<Done> done_;
    size_t running_ = 0;
    std::jthread thread_; // last: stopped and joined before the rest goes
};

} // namespace callhome::commands
