#include "committer.hpp"

#include <cerrno>
#include <cstring>
#include <iostream>

#include "callhome_wire.h"
#include "posix/event_fd.hpp"

namespace callhome {

Committer::Committer(Service &service) : service_(service), wake_(posix::event_fd()) {
    thread_ = std::jthread([this](std::stop_token stop) { loop(stop); });
}

void Committer::submit(uint64_t conn, platform::frame::Frame frame, platform::CmiRequest request,
                       Service::ReadSessions reads) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        job_ = Job{conn, std::move(frame), std::move(request), reads};
    }
    busy_ = true;
    cv_.notify_one();
}

std::optional<Committer::Done> Committer::take() {
    posix::clear_events(wake_.get());
    std::lock_guard<std::mutex> lock(mutex_);
    std::optional<Done> d = std::move(done_);
    done_.reset();
    if (d) {
        busy_ = false;
    }
    return d;
}

void Committer::post(int32_t id, std::vector<uint8_t> payload) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        notifications_.emplace_back(id, std::move(payload));
    }
    wake();
}

std::vector<std::pair<int32_t, std::vector<uint8_t>>> Committer::take_notifications() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(notifications_, {});
}

void Committer::wake() {
    if (!posix::signal_event(wake_.get())) {
        std::cerr << "callhomed: cannot wake the event loop: " << std::strerror(errno) << "\n";
    }
}

void Committer::loop(std::stop_token stop) {
    for (;;) {
        Job job{};
        {
            std::unique_lock<std::mutex> lock(mutex_);
            cv_.wait(lock, stop, [&] { return job_.has_value(); });
            if (!job_) { // asked to stop, and no write waits
                return;
            }
            job = std::move(*job_);
            job_.reset();
        }
        Done d;
        d.conn = job.conn;
        service_.end_undo(job.reads);
        d.reply = service_.process(job.request);
        // Refused writes and store failures apply nothing, so the snapshot stands.
        d.changed = d.reply.status == CALLHOME_SUCCESS;
        if (d.changed) {
            try {
                d.snapshot = service_.snapshot();
            } catch (const std::exception &e) {
                std::cerr << "callhomed: no snapshot after a write (" << e.what()
                          << "); the event loop takes it\n";
            }
        }
        d.frame = std::move(job.frame);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = std::move(d);
        }
        wake();
    }
}

} // namespace callhome
