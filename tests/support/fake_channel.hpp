// A scripted request channel: records every cmi_req_resp call and answers from a script.
#pragma once

#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <vector>

#include "callhome_wire.h"
#include "platform/testing.hpp"

namespace callhome_test {

// Host order <-> the channel's big-endian order, for building and checking records.
inline uint32_t be32(uint32_t v) {
    return __builtin_bswap32(v);
}

class FakeChannel {
  public:
    using Reply = platform::CmiReply;
    using Request = platform::CmiRequest;

    FakeChannel() {
        platform::set_transport([this](const Request &r) { return serve(r); });
    }
    ~FakeChannel() { platform::set_transport({}); }
    FakeChannel(const FakeChannel &) = delete;
    FakeChannel &operator=(const FakeChannel &) = delete;

    // Queue answers, used in order; when the queue is empty the default answer is used.
    void answer_status(int status) { replies_.push_back(Reply{status, false, {}, 0}); }
    void answer_errno(int err) { replies_.push_back(Reply{-1, false, {}, err}); }
    void answer_bytes(const void *data, size_t len, int status = 0) {
        const auto *p = static_cast<const uint8_t *>(data);
        replies_.push_back(Reply{status, true, std::vector<uint8_t>(p, p + len), 0});
    }
    template <class Record> void answer(const Record &rec, int status = 0) {
        answer_bytes(&rec, sizeof rec, status);
    }
    void set_default(Reply reply) { default_ = std::move(reply); }
    // Answers every request through `fn` instead of the queue (the queue is ignored).
    void serve_with(std::function<Reply(const Request &)> fn) { handler_ = std::move(fn); }

    const std::vector<Request> &requests() const { return requests_; }
    size_t count() const { return requests_.size(); }
    const Request &last() const { return requests_.back(); }
    const Request &at(size_t i) const { return requests_.at(i); }
    size_t pending() const { return replies_.size(); }
    void clear() {
        requests_.clear();
        replies_.clear();
    }

    // The request record reinterpreted as a wire record (sizes must match).
    template <class Record> static Record as(const Request &r) {
        Record rec{};
        std::memcpy(&rec, r.record.data(), std::min(r.record.size(), sizeof rec));
        return rec;
    }

  private:
    Reply serve(const Request &r) {
        requests_.push_back(r);
        if (handler_) {
            return handler_(r);
        }
        if (replies_.empty()) {
            return default_;
        }
        Reply reply = std::move(replies_.front());
        replies_.pop_front();
        return reply;
    }

    std::vector<Request> requests_;
    std::deque<Reply> replies_;
    Reply default_{CALLHOME_UNKNOWN_ENTRY, false, {}, 0};
    std::function<Reply(const Request &)> handler_;
};

} // namespace callhome_test
