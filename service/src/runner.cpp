#include "runner.hpp"

#include "posix/event_fd.hpp"

namespace callhome::commands {

Runner::Runner(std::vector<std::string> allowed, Limits limits)
    : allowed_(std::move(allowed)), limits_(limits), event_fd_(posix::event_fd()) {
    thread_ = std::jthread([this](std::stop_token stop) { work(stop); });
}

void Runner::submit(Job job) {
    {
        std::lock_guard<std::mutex> lock(mu_);
        jobs_.push_back(std::move(job));
    }
    cv_.notify_all();
}

std::vector<Runner::Done> Runner::take() {
    posix::clear_events(event_fd_.get());
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<Done> out;
    out.swap(done_);
    return out;
}

size_t Runner::pending() const {
    std::lock_guard<std::mutex> lock(mu_);
    return jobs_.size() + running_ + done_.size();
}

void Runner::work(std::stop_token stop) {
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
        cv_.wait(lock, stop, [this] { return !jobs_.empty(); });
        if (stop.stop_requested()) {
            return;
        }
        Job job = std::move(jobs_.front());
        jobs_.pop_front();
        ++running_;
        lock.unlock();
        Done d{job.id, {}};
        for (const auto &line : job.lines) {
            d.results.push_back(run(line, allowed_, limits_));
        }
        lock.lock();
        --running_;
        done_.push_back(std::move(d));
        posix::signal_event(event_fd_.get()); // fails only on a closed descriptor
    }
}

} // namespace callhome::commands
