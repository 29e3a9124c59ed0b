// The request channel: what reaches the service, and what the caller gets back when the
// service answers, stays silent, goes away or misbehaves.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <gtest/gtest.h>

#include "cmi.h"
#include "fake_service.hpp"
#include "platform/paths.hpp"
#include "platform/testing.hpp"

namespace {

using namespace platform_test;

// A cmi_req_resp answer, freed whatever the test's outcome.
char unset; // what `data` points to until cmi_req_resp overwrites it
struct Answer {
    int rc = 0, err = 0;
    void *data = &unset;
    uint32_t length = 0;
    ~Answer() {
        if (data != &unset) {
            std::free(data);
        }
    }
    Bytes bytes() const {
        return data == nullptr ? Bytes{} : Bytes((uint8_t *)data, (uint8_t *)data + length);
    }
};

class ChannelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::reset_for_tests();
        platform::set_socket_path(path);
    }
    void TearDown() override { platform::reset_for_tests(); }
    // Sends `request` (opcode 2155, GET) with a response pointer, waiting `wait` seconds.
    std::unique_ptr<Answer> ask(const Bytes &request, int wait = 2, const char *user = "admin") {
        auto a = std::make_unique<Answer>();
        a->length = uint32_t(request.size());
        errno = 0;
        a->rc = cmi_req_resp(2155, 1, request.data(), &a->data, &a->length, user, 77, 66,
                             mts_response_q, wait);
        a->err = errno;
        return a;
    }
    // A service answering every request with status 0 and a record echoing the request.
    std::unique_ptr<FakeService> echo() {
        return std::make_unique<FakeService>(
            path, [](const fr::Frame &r) { return Action{{response(r.seq, 0, &r.body)}}; });
    }
    TempDir dir;
    std::string path = dir.path + "/callhomed.sock";
};

TEST_F(ChannelTest, RequestReachesServiceWithEveryField) {
    auto service = echo();
    EXPECT_EQ(Bytes({1, 2, 3, 4, 5}), ask({1, 2, 3, 4, 5}, 4)->bytes());
    // No user and no response pointer: flagged, and the status still comes back.
    const Bytes request{7};
    uint32_t length = 1;
    EXPECT_EQ(0, cmi_req_resp(2156, 3, request.data(), nullptr, &length, nullptr, 0, 0, 1, 10));
    EXPECT_EQ(length, 0u);
    const auto seen = service->requests();
    ASSERT_EQ(seen.size(), 2u);
    const fr::Frame &f = seen[0];
    EXPECT_EQ(f.kind, fr::Kind::Request);
    EXPECT_EQ(std::make_tuple(f.opcode, f.msg_type, f.client, f.session, f.wait),
              std::make_tuple(2155, 1, 66, 77u, 4));
    EXPECT_EQ(f.user, "admin");
    EXPECT_EQ(f.flags, fr::kWantsRecord);
    EXPECT_EQ(f.body, Bytes({1, 2, 3, 4, 5}));
    EXPECT_EQ(seen[1].flags, fr::kUserNull);
    EXPECT_TRUE(seen[1].user.empty());
    // Too large to send: refused, nothing reaches the service.
    auto a = ask(Bytes(fr::kMaxBody + 1, 0));
    EXPECT_EQ(std::make_pair(-1, EMSGSIZE), std::make_pair(a->rc, a->err));
    EXPECT_EQ(service->requests().size(), 2u);
}

// What the service does with the first request, and what the caller gets; whatever it was,
// the next request on the same channel gets its own answer.
TEST_F(ChannelTest, AnswersMalformedAnswersAndHangUps) {
    const Bytes big(fr::kMaxBody, 0xA5), none, four{1, 2, 3, 4};
    struct Case {
        const char *what;
        std::function<Action(uint32_t seq)> first; // the service's answer to the first request
        int rc, err;                               // what the caller gets (err 0: not checked)
        bool has_data;
        Bytes data;
    };
    const auto damaged = [](Bytes m, const std::function<void(Bytes &)> &damage) {
        damage(m);
        return Action{{m}};
    };
    // clang-format off
    const Case cases[] = {
        {"status without record", [](uint32_t s) { return Action{{response(s, 0x403B000B)}}; }, 0x403B000B, 0, false, {}},
        {"empty record", [&](uint32_t s) { return Action{{response(s, 0, &none)}}; }, 0, 0, true, {}},
        {"largest record", [&](uint32_t s) { return Action{{response(s, 0, &big)}}; }, 0, 0, true, big},
        {"status -1", [](uint32_t s) { return Action{{response(s, -1)}}; }, -1, EIO, false, {}},
        {"hang-up", [](uint32_t) { return Action{{}, true}; }, -1, ECONNRESET, false, {}},
        // Built at its full size: GCC 12 misreads a resize here under the sanitizers.
        {"oversized", [&](uint32_t s) { return damaged(Bytes(fr::kMaxFrame + 100, 0), [s](Bytes &m) {
             const Bytes head = response(s, 0);
             std::copy(head.begin(), head.end(), m.begin()); }); }, -1, EPROTO, false, {}},
        {"bad magic", [&](uint32_t s) { return damaged(response(s, 0), [](Bytes &m) { m[0] ^= 0xFF; }); },
         -1, EPROTO, false, {}},
        {"body longer than message", [&](uint32_t s) {
             return damaged(response(s, 0, &four), [](Bytes &m) { m.resize(m.size() - 2); }); },
         -1, EPROTO, false, {}},
        {"shorter than header", [](uint32_t) { return Action{{Bytes{0x43, 0x48, 0x4D, 0x46}}}; }, -1, EPROTO, false, {}},
    };
    // clang-format on
    for (const auto &c : cases) {
        bool first = true;
        FakeService service(path, [&](const fr::Frame &r) {
            return std::exchange(first, false) ? c.first(r.seq)
                                               : Action{{response(r.seq, 0, &r.body)}};
        });
        auto a = ask({1});
        EXPECT_EQ(c.rc, a->rc) << c.what;
        if (c.err != 0) {
            EXPECT_EQ(c.err, a->err) << c.what;
        }
        EXPECT_EQ(c.has_data, a->data != nullptr) << c.what;
        EXPECT_EQ(c.data, a->bytes()) << c.what;
        EXPECT_EQ(c.data.size(), a->length) << c.what;
        EXPECT_EQ(Bytes{2}, ask({2})->bytes()) << c.what;
    }
}

TEST_F(ChannelTest, LateAnswerIsNeverTakenForTheNextRequest) {
    // The first request goes unanswered; the probe that follows the time-out gets the stale
    // answer to the first and its own; the second request gets its own.
    uint32_t first_seq = 0;
    const Bytes stale{0xDE, 0xAD}, fresh{0x0F};
    FakeService service(path, [&](const fr::Frame &r) {
        if (first_seq == 0) {
            first_seq = r.seq;
            return Action{};
        }
        return Action{{response(first_seq, 0x403B000C, &stale), response(r.seq, 0, &fresh)}};
    });
    auto timed_out = ask({1}, 0); // a wait of 0 still waits a second
    EXPECT_EQ(std::make_tuple(-1, ETIME, (void *)nullptr, 0u),
              std::make_tuple(timed_out->rc, timed_out->err, timed_out->data, timed_out->length));
    EXPECT_EQ(fresh, ask({2})->bytes());
    const auto seen = service.requests();
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(std::make_tuple(seen[1].opcode, seen[1].msg_type, seen[1].flags),
              std::make_tuple(2156, 1, fr::kUserNull)); // the probe: a read, no record wanted
    EXPECT_EQ(seen[2].body, Bytes{2});
}

// After a time-out, requests fail at once (nothing sent) until the service answers a probe
// (at most one a second) or a late answer arrives; each request carries its deadline.
TEST_F(ChannelTest, SilentServiceCostsOneWaitThenFailsFastUntilItAnswers) {
    std::atomic<bool> silent{true};
    FakeService service(path, [&](const fr::Frame &r) {
        return silent ? Action{} : Action{{response(r.seq, 0, &r.body)}};
    });
    const auto sent = platform::frame::monotonic_ms();
    EXPECT_EQ(ETIME, ask({1}, 1)->err);
    const auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(ETIME, ask({2}, 4)->err);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(900));
    auto seen = service.requests();
    ASSERT_EQ(seen.size(), 2u); // the request and one probe
    EXPECT_NEAR(double(seen[0].deadline_ms), double(sent + 1000), 100.0);
    EXPECT_NEAR(double(seen[1].deadline_ms), double(seen[0].deadline_ms + 200), 100.0);
    silent = false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    EXPECT_EQ(Bytes{3}, ask({3})->bytes());
    // A refusal because the deadline passed reads as a time-out.
    FakeService refusing(path, [&](const fr::Frame &r) {
        fr::Frame a;
        a.kind = fr::Kind::Response;
        a.seq = r.seq;
        a.flags = fr::kExpired;
        return Action{{fr::encode(a).value()}};
    });
    platform::disconnect();
    EXPECT_EQ(ETIME, ask({4})->err);
}

TEST_F(ChannelTest, AbsentOrRestartedServiceFailsThenReconnects) {
    EXPECT_EQ(ENOENT, ask({1})->err);
    auto service = echo();
    EXPECT_EQ(Bytes{2}, ask({2})->bytes());
    service.reset();
    const int err = ask({3})->err;
    EXPECT_TRUE(err == ENOENT || err == ECONNREFUSED || err == EPIPE || err == ECONNRESET)
        << std::strerror(err);
    service = echo();
    EXPECT_EQ(Bytes{4}, ask({4})->bytes());
    // A connection kept across a restart is replaced transparently as well.
    service.reset();
    service = echo();
    EXPECT_EQ(Bytes{5}, ask({5})->bytes());
}

TEST(OpcodeNames, KnownAndUnknown) {
    EXPECT_STREQ(mts_opc_name_get(2167), "CALLHOME_ALERTGROUP_DELETED_NOTIF");
    EXPECT_STREQ(mts_opc_name_get(2158), "2158");
}

// Each test sets its own socket path: what this leaves in the environment harms none.
TEST(SocketPath, EnvironmentOrder) {
    ::setenv("CALLHOME_SOCKET", "/run/x.sock", 1);
    ::setenv("XDG_RUNTIME_DIR", "/run/user/5", 1);
    EXPECT_EQ(platform::default_socket_path(), "/run/x.sock");
    ::setenv("CALLHOME_SOCKET", "", 1);
    EXPECT_EQ(platform::default_socket_path(), "/run/user/5/callhome/callhomed.sock");
    ::unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(platform::default_socket_path(),
              "/tmp/callhome-" + std::to_string(::getuid()) + "/callhomed.sock");
}

} // namespace
