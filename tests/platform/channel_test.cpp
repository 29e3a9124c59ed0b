// The request channel: what reaches the service, and what the caller gets back when the
// service answers, stays silent, goes away or misbehaves.
#include <cerrno>
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

// Frees a cmi_req_resp answer whatever the test's outcome.
struct Answer {
    void *data = nullptr;
    uint32_t length = 0;
    ~Answer() { std::free(data); }
};

class ChannelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::reset_for_tests();
        path_ = dir_.path() + "/callhomed.sock";
        platform::set_socket_path(path_);
    }
    void TearDown() override { platform::reset_for_tests(); }

    // Sends `request` with a response pointer; the answer lands in `answer`.
    int ask(const Bytes &request, Answer &answer, int wait = 2, const char *user = "admin") {
        answer.length = uint32_t(request.size());
        return cmi_req_resp(2155, 1, request.data(), &answer.data, &answer.length, user, 77, 66,
                            mts_response_q, wait);
    }

    // A service answering every request with `status` and a record echoing the request.
    std::unique_ptr<FakeService> echo_service() {
        return std::make_unique<FakeService>(path_, [](const fr::Frame &r) {
            return FakeService::Action{{response(r.seq, 0, &r.body)}};
        });
    }

    TempDir dir_;
    std::string path_;
};

TEST_F(ChannelTest, RequestReachesServiceWithEveryField) {
    auto service = echo_service();
    const Bytes request{1, 2, 3, 4, 5};
    Answer answer;
    ASSERT_EQ(ask(request, answer, 4), 0);
    ASSERT_EQ(answer.length, request.size());
    EXPECT_EQ(0, std::memcmp(answer.data, request.data(), request.size()));

    const auto seen = service->requests();
    ASSERT_EQ(seen.size(), 1u);
    const fr::Frame &f = seen[0];
    EXPECT_EQ(f.kind, fr::Kind::Request);
    EXPECT_EQ(f.opcode, 2155);
    EXPECT_EQ(f.msg_type, 1);
    EXPECT_EQ(f.client, 66);
    EXPECT_EQ(f.session, 77u);
    EXPECT_EQ(f.wait, 4);
    EXPECT_EQ(f.user, "admin");
    EXPECT_EQ(f.flags, fr::kWantsRecord);
    EXPECT_EQ(f.body, request);
}

TEST_F(ChannelTest, NullUserAndNullResponseAreFlagged) {
    FakeService service(path_, [](const fr::Frame &r) {
        const Bytes record{9, 9};
        return FakeService::Action{{response(r.seq, 0x403B0019, &record)}};
    });
    const Bytes request{7};
    uint32_t length = 1;
    // No response pointer: the status still comes back, no record is handed out.
    EXPECT_EQ(cmi_req_resp(2156, 3, request.data(), nullptr, &length, nullptr, 0, 0, 1, 10),
              0x403B0019);
    EXPECT_EQ(length, 0u);
    const auto seen = service.requests();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].flags, fr::kUserNull);
    EXPECT_TRUE(seen[0].user.empty());
}

TEST_F(ChannelTest, StatusWithoutRecordGivesNullResponse) {
    FakeService service(path_, [](const fr::Frame &r) {
        return FakeService::Action{{response(r.seq, 0x403B000B)}};
    });
    Answer answer;
    answer.data = &answer; // must be overwritten, never freed as is
    EXPECT_EQ(ask({1}, answer), 0x403B000B);
    EXPECT_EQ(answer.data, nullptr);
    EXPECT_EQ(answer.length, 0u);
}

TEST_F(ChannelTest, EmptyRecordIsStillARecord) {
    FakeService service(path_, [](const fr::Frame &r) {
        const Bytes none;
        return FakeService::Action{{response(r.seq, 0, &none)}};
    });
    Answer answer;
    EXPECT_EQ(ask({1}, answer), 0);
    EXPECT_NE(answer.data, nullptr);
    EXPECT_EQ(answer.length, 0u);
}

TEST_F(ChannelTest, LargestRecordComesThrough) {
    FakeService service(path_, [](const fr::Frame &r) {
        const Bytes big(fr::kMaxBody, 0xA5);
        return FakeService::Action{{response(r.seq, 0, &big)}};
    });
    Answer answer;
    ASSERT_EQ(ask({1}, answer), 0);
    ASSERT_EQ(answer.length, fr::kMaxBody);
    EXPECT_EQ(static_cast<uint8_t *>(answer.data)[fr::kMaxBody - 1], 0xA5);
}

TEST_F(ChannelTest, StatusMinusOneIsAnIoError) {
    FakeService service(
        path_, [](const fr::Frame &r) { return FakeService::Action{{response(r.seq, -1)}}; });
    Answer answer;
    errno = 0;
    EXPECT_EQ(ask({1}, answer), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(answer.data, nullptr);
}

TEST_F(ChannelTest, LateAnswerIsNeverTakenForTheNextRequest) {
    // The first request goes unanswered; the second gets the stale answer to the first,
    // then its own.
    uint32_t first_seq = 0;
    FakeService service(path_, [&](const fr::Frame &r) {
        if (first_seq == 0) {
            first_seq = r.seq;
            return FakeService::Action{};
        }
        const Bytes stale{0xDE, 0xAD}, fresh{0x0F};
        return FakeService::Action{
            {response(first_seq, 0x403B000C, &stale), response(r.seq, 0, &fresh)}};
    });
    Answer timed_out;
    errno = 0;
    EXPECT_EQ(ask({1}, timed_out, 0), -1); // a wait of 0 still waits a second
    EXPECT_EQ(errno, ETIME);
    EXPECT_EQ(timed_out.data, nullptr);
    EXPECT_EQ(timed_out.length, 0u);

    Answer answer;
    ASSERT_EQ(ask({2}, answer), 0);
    ASSERT_EQ(answer.length, 1u);
    EXPECT_EQ(static_cast<uint8_t *>(answer.data)[0], 0x0F);
    EXPECT_EQ(service.requests().size(), 2u);
}

TEST_F(ChannelTest, AbsentServiceFailsThenReconnects) {
    Answer answer;
    errno = 0;
    EXPECT_EQ(ask({1}, answer), -1);
    EXPECT_EQ(errno, ENOENT);

    auto service = echo_service();
    Answer later;
    EXPECT_EQ(ask({2}, later), 0);
    EXPECT_EQ(later.length, 1u);
}

TEST_F(ChannelTest, ServiceRestartIsSurvived) {
    auto service = echo_service();
    Answer first;
    ASSERT_EQ(ask({1}, first), 0);

    service.reset();
    Answer while_down;
    errno = 0;
    EXPECT_EQ(ask({2}, while_down), -1);
    EXPECT_TRUE(errno == ENOENT || errno == ECONNREFUSED || errno == EPIPE || errno == ECONNRESET)
        << std::strerror(errno);

    service = echo_service();
    Answer after;
    EXPECT_EQ(ask({3}, after), 0);
    // A connection kept across a restart is replaced transparently as well.
    service.reset();
    service = echo_service();
    Answer again;
    EXPECT_EQ(ask({4}, again), 0);
}

TEST_F(ChannelTest, ServiceHangingUpMidRequest) {
    int calls = 0;
    FakeService service(path_, [&](const fr::Frame &r) {
        if (calls++ == 0) {
            return FakeService::Action{{}, true};
        }
        return FakeService::Action{{response(r.seq, 0)}};
    });
    Answer dropped;
    errno = 0;
    EXPECT_EQ(ask({1}, dropped), -1);
    EXPECT_EQ(errno, ECONNRESET);
    Answer answer;
    EXPECT_EQ(ask({2}, answer), 0);
}

struct BadAnswer {
    const char *name;
    std::function<Bytes(uint32_t seq)> make;
};

class BadAnswerTest : public ChannelTest, public ::testing::WithParamInterface<BadAnswer> {};

TEST_P(BadAnswerTest, RefusedAsProtocolErrorAndChannelRecovers) {
    bool misbehaved = false;
    FakeService service(path_, [&](const fr::Frame &r) {
        if (!misbehaved) {
            misbehaved = true;
            return FakeService::Action{{GetParam().make(r.seq)}};
        }
        return FakeService::Action{{response(r.seq, 0)}};
    });
    Answer answer;
    errno = 0;
    EXPECT_EQ(ask({1}, answer), -1);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_EQ(answer.data, nullptr);
    Answer next;
    EXPECT_EQ(ask({2}, next), 0);
}

INSTANTIATE_TEST_SUITE_P(Answers, BadAnswerTest,
                         ::testing::Values(BadAnswer{"Oversized",
                                                     [](uint32_t seq) {
                                                         Bytes m = response(seq, 0);
                                                         m.resize(fr::kMaxFrame + 100, 0);
                                                         return m;
                                                     }},
                                           BadAnswer{"BadMagic",
                                                     [](uint32_t seq) {
                                                         Bytes m = response(seq, 0);
                                                         m[0] ^= 0xFF;
                                                         return m;
                                                     }},
                                           BadAnswer{"BodyLongerThanMessage",
                                                     [](uint32_t seq) {
                                                         const Bytes record{1, 2, 3, 4};
                                                         Bytes m = response(seq, 0, &record);
                                                         m.resize(m.size() - 2);
                                                         return m;
                                                     }},
                                           BadAnswer{"ShorterThanHeader",
                                                     [](uint32_t) {
                                                         return Bytes{0x43, 0x48, 0x4D, 0x46};
                                                     }}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(ChannelTest, OversizedRequestIsRefusedBeforeSending) {
    auto service = echo_service();
    const Bytes huge(fr::kMaxBody + 1, 0);
    Answer answer;
    errno = 0;
    EXPECT_EQ(ask(huge, answer), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_TRUE(service->requests().empty());
}

// The in-process transport: the same results as the socket, no socket involved.
TEST_F(ChannelTest, TransportSeesTheCallAndShapesTheResult) {
    std::vector<platform::CmiRequest> seen;
    std::vector<platform::CmiReply> replies{
        {0, true, {4, 5, 6}, 0},
        {0x403B000B, false, {}, 0},
        {-1, false, {}, ETIME},
        {-1, true, {1}, ECONNREFUSED},
    };
    size_t next = 0;
    platform::set_transport([&](const platform::CmiRequest &r) {
        seen.push_back(r);
        return replies.at(next++);
    });

    const uint8_t request[3] = {1, 2, 3};
    Answer a;
    a.length = 3;
    EXPECT_EQ(cmi_req_resp(2154, 2, request, &a.data, &a.length, "u", 5, 66, 9, 4), 0);
    ASSERT_EQ(a.length, 3u);
    EXPECT_EQ(static_cast<uint8_t *>(a.data)[2], 6);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].opcode, 2154);
    EXPECT_EQ(seen[0].msg_type, 2);
    EXPECT_EQ(seen[0].record, Bytes(request, request + 3));
    EXPECT_TRUE(seen[0].wants_record);
    EXPECT_FALSE(seen[0].user_null);
    EXPECT_EQ(seen[0].user, "u");
    EXPECT_EQ(seen[0].session, 5u);
    EXPECT_EQ(seen[0].client, 66);
    EXPECT_EQ(seen[0].queue, 9);
    EXPECT_EQ(seen[0].wait, 4);

    Answer b;
    b.length = 3;
    EXPECT_EQ(cmi_req_resp(2154, 1, request, &b.data, &b.length, nullptr, 0, 0, 1, 2), 0x403B000B);
    EXPECT_EQ(b.data, nullptr);
    EXPECT_EQ(b.length, 0u);
    EXPECT_TRUE(seen[1].user_null);

    uint32_t length = 3;
    errno = 0;
    EXPECT_EQ(cmi_req_resp(2154, 3, request, nullptr, &length, "u", 0, 0, 1, 10), -1);
    EXPECT_EQ(errno, ETIME);
    EXPECT_FALSE(seen[2].wants_record);

    // A failed call hands out no record, even when the transport attached one.
    Answer d;
    d.length = 3;
    errno = 0;
    EXPECT_EQ(cmi_req_resp(2154, 1, request, &d.data, &d.length, "u", 0, 0, 1, 2), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(d.data, nullptr);
    EXPECT_EQ(d.length, 0u);

    // Removing the transport goes back to the socket (absent here).
    platform::set_transport({});
    Answer e;
    EXPECT_EQ(ask({1}, e), -1);
    EXPECT_EQ(seen.size(), 4u);
}

TEST(OpcodeNames, KnownAndUnknown) {
    const std::pair<int, const char *> names[] = {
        {2152, "CALLHOME_EMAIL_CONF_OPC"},
        {2153, "CALLHOME_DEST_EMAIL_OPC"},
        {2154, "CALLHOME_DEST_PROFILE_OPC"},
        {2155, "CALLHOME_INFO_OPC"},
        {2156, "CALLHOME_ENABLE_OPC"},
        {2157, "CALLHOME_ALERT_ACTION_OPC"},
        {2159, "CALLHOME_STATUS_OPC"},
        {2162, "CALLHOME_PROFILE_ALERTGROUP_OPC"},
        {2163, "CALLHOME_ALERTGROUP_TYPE_OPC"},
        {2173, "CALLHOME_MSG_THROTTLING_OPC"},
        {2175, "CALLHOME_PERIODIC_INVENTORY_OPC"},
        {2185, "CALLHOME_USER_DEF_CMD_OPC"},
        {2166, "CALLHOME_ALERTGROUP_ADDED_NOTIF"},
        {2167, "CALLHOME_ALERTGROUP_DELETED_NOTIF"},
        {2158, "2158"},
        {-7, "-7"},
    };
    for (const auto &[code, name] : names) {
        EXPECT_STREQ(mts_opc_name_get(code), name) << code;
    }
}

// Restores an environment variable when the test ends.
class EnvGuard {
  public:
    explicit EnvGuard(const char *name) : name_(name) {
        if (const char *v = std::getenv(name)) {
            saved_ = v;
            had_ = true;
        }
    }
    ~EnvGuard() {
        if (had_) {
            ::setenv(name_, saved_.c_str(), 1);
        } else {
            ::unsetenv(name_);
        }
    }

  private:
    const char *name_;
    std::string saved_;
    bool had_ = false;
};

TEST(SocketPath, EnvironmentOrder) {
    EnvGuard socket_env("CALLHOME_SOCKET"), runtime_env("XDG_RUNTIME_DIR");
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
