// Notification dispatch: handlers, the send flag, the trap sink, the socket listener (polled,
// or watched by an agent's own loop) and the distribution state pushed by the service.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include "fake_service.hpp"
#include "notif.h"
#include "platform/testing.hpp"
#include "snmp_ctx.h"
#include "veld.h"

namespace {

using namespace platform_test;

// What the handler saw and what it should answer; handlers are plain C callbacks.
struct HandlerScript {
    bool send = true;
    std::vector<oid> notif_oid{1, 3, 6, 1, 4, 1, 32473, 9, 300, 0, 2};
    int calls = 0;
    Bytes padded; // payload buffer as handed over, up to its first 9 bytes
    std::string text;
    uint32_t length = 0;
} g;

netsnmp_variable_list *handler(mts_msg_t *msg, oid *notif_oid, size_t *notif_oid_len, int *send) {
    static const oid kNameOid[] = {1, 3, 6, 1, 4, 1, 32473, 9, 300, 1, 7, 1, 2};
    ++g.calls;
    const auto *payload = static_cast<const uint8_t *>(mts_payload_get(msg));
    g.length = mts_payload_len_get(msg);
    g.padded.assign(payload, payload + std::max<uint32_t>(g.length, 8) + 1);
    g.text = g.length > 4 ? reinterpret_cast<const char *>(payload + 4) : "";
    std::copy(g.notif_oid.begin(), g.notif_oid.end(), notif_oid);
    *notif_oid_len = g.notif_oid.size();
    *send = g.send ? 1 : 0;
    netsnmp_variable_list *vars = nullptr;
    snmp_varlist_add_variable(&vars, kNameOid, OID_LENGTH(kNameOid), ASN_OCTET_STR, "binding", 7);
    return vars;
}

// A payload as the service sends it: u32 big-endian index, then the NUL-terminated name.
Bytes payload(uint32_t index, const std::string &name) {
    Bytes p(4 + name.size() + 1, 0);
    fr::put_u32(p.data(), index);
    std::memcpy(p.data() + 4, name.data(), name.size());
    return p;
}
Bytes state(uint32_t on, uint32_t mode) {
    Bytes p(8, 0);
    fr::put_u32(p.data(), on);
    fr::put_u32(p.data() + 4, mode);
    return p;
}
int deliver(int32_t id, const Bytes &p) {
    return platform::deliver_notification(id, p.data(), p.size());
}

class NotificationTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::reset_for_tests();
        platform::set_socket_path(path);
        g = HandlerScript{};
        platform::set_trap_sink([this](const oid *o, size_t n, netsnmp_variable_list *vars) {
            traps.emplace_back(o, o + n);
            EXPECT_EQ("binding", std::string((const char *)vars->val.string, vars->val_len));
        });
    }
    void TearDown() override { platform::reset_for_tests(); }
    // Polls until `n` notifications were dispatched; each poll waits at most 10 s.
    void dispatch(int n) {
        for (int got = 0; got < n;) {
            const int now = platform::poll_notifications(10'000);
            ASSERT_GT(now, 0);
            got += now;
        }
    }
    std::vector<std::vector<oid>> traps;
    TempDir dir;
    std::string path = dir.path + "/callhomed.sock";
};

TEST_F(NotificationTest, HandlersSendFlagAndRegistration) {
    EXPECT_EQ(deliver(2166, payload(1, "x")), 0); // nobody registered
    EXPECT_EQ(unregister_for_notification(2166), -1);
    EXPECT_NE(register_for_notification(2166, nullptr), 0);
    ASSERT_EQ(register_for_notification(2166, handler), 0);
    ASSERT_EQ(register_for_notification(2166, handler), 0); // replaces
    ASSERT_EQ(register_for_notification(2167, handler), 0);

    EXPECT_EQ(deliver(2166, payload(7, "environment")), 1);
    EXPECT_EQ(traps, std::vector<std::vector<oid>>{g.notif_oid});
    EXPECT_EQ(g.length, payload(7, "environment").size());
    EXPECT_EQ(g.text, "environment");
    // Unset flag, or an empty OID: nothing is sent, and the bindings are still freed.
    g.send = false;
    EXPECT_EQ(deliver(2166, payload(7, "environment")), 1);
    g.send = true;
    g.notif_oid.clear();
    EXPECT_EQ(deliver(2166, payload(7, "environment")), 1);
    EXPECT_EQ(traps.size(), 1u);
    EXPECT_EQ(g.calls, 3);
    // A short payload is zero-padded and terminated.
    ASSERT_EQ(deliver(2167, {0xAA, 0xBB, 0xCC}), 1);
    EXPECT_EQ(g.length, 3u);
    EXPECT_EQ(g.padded, (Bytes{0xAA, 0xBB, 0xCC, 0, 0, 0, 0, 0, 0}));
    ASSERT_EQ(platform::deliver_notification(2167, nullptr, 0), 1);
    EXPECT_EQ(g.length, 0u);
    // Without a sink the agent path builds and frees the list (ASan checks).
    platform::set_trap_sink({});
    EXPECT_EQ(deliver(2166, payload(3, "inventory")), 1);

    EXPECT_EQ(unregister_for_notification(2166), 0);
    EXPECT_EQ(deliver(2166, payload(1, "x")), 0);
    EXPECT_EQ(deliver(2167, payload(1, "x")), 1);
    EXPECT_EQ(unregister_for_notification(2167), 0);
}

TEST_F(NotificationTest, ListenerDropsMalformedMessagesAndFollowsRestarts) {
    // Not there at first: the listener keeps trying on each poll.
    ASSERT_EQ(register_for_notification(2166, handler), 0);
    EXPECT_NE(platform::start_notification_listener(), 0);
    EXPECT_EQ(platform::poll_notifications(0), 0);
    auto svc = std::make_unique<FakeService>(path);
    EXPECT_EQ(platform::poll_notifications(0), 0); // connects and subscribes
    ASSERT_TRUE(svc->wait_for_subscribers(1));
    svc->send_raw_to_subscribers(Bytes{1, 2, 3});
    svc->send_raw_to_subscribers(Bytes(fr::kMaxFrame + 10, 0));
    svc->notify(fr::kDistributionStateNotif, state(1, 0));
    svc->notify(2999, payload(1, "nobody listens"));
    svc->notify(2166, payload(9, "syslog"));
    dispatch(2);
    EXPECT_NE(is_veld_enabled("callhome"), 0);
    EXPECT_EQ(traps.size(), 1u);
    EXPECT_EQ(g.text, "syslog");
    // A truncated state changes nothing.
    EXPECT_EQ(platform::deliver_notification(fr::kDistributionStateNotif, state(0, 0).data(), 7),
              0);
    EXPECT_NE(is_veld_enabled("callhome"), 0);

    svc.reset();
    EXPECT_EQ(platform::poll_notifications(10'000), 0); // sees the hang-up
    svc = std::make_unique<FakeService>(path);
    EXPECT_EQ(platform::poll_notifications(0), 0);
    ASSERT_TRUE(svc->wait_for_subscribers(1));
    svc->notify(2166, payload(4, "restarted"));
    dispatch(1);
    EXPECT_EQ(g.text, "restarted");

    // The last unregistration stops the listener.
    ASSERT_EQ(register_for_notification(2167, handler), 0);
    EXPECT_EQ(unregister_for_notification(2166), 0);
    EXPECT_EQ(svc->subscribers(), 1u);
    EXPECT_EQ(unregister_for_notification(2167), 0);
    EXPECT_TRUE(svc->wait_for_subscribers(0));
    svc->notify(2166, payload(1, "late"));
    EXPECT_EQ(platform::poll_notifications(0), 0);
    EXPECT_EQ(g.calls, 2);
}

// Inside an agent the listener is watched by the agent's own loop, retried by alarm while
// the service is away, and gone without a trace once nothing is registered. The scenario
// initialises net-snmp's agent library, so it runs in a child process.
#define REQUIRE(cond)                                                                              \
    if (!(cond)) {                                                                                 \
        std::fprintf(stderr, "failed: %s (line %d)\n", #cond, __LINE__);                           \
        return false;                                                                              \
    }

// Runs the agent's loop without blocking until `done` holds (bounded).
template <class Pred> bool pump_until(Pred done) {
    for (int i = 0; i < 2000 && !done(); ++i) {
        agent_check_and_process(0);
        ::usleep(5000);
    }
    return done();
}
bool alarm_pending() {
    struct timeval delta {};
    return get_next_alarm_delay_time(&delta) != 0;
}

bool listener_follows_the_service(const std::string &path) {
    snmp_disable_log();
    REQUIRE(init_agent("callhome-platform-test") == 0);
    REQUIRE(!alarm_pending());
    // Outside a request the context is empty even inside an agent.
    REQUIRE(std::strcmp(get_snmp_username(0), "") == 0 && get_snmp_sessionid(0) == 0);
    // The service is not there yet: registration still succeeds and a retry is scheduled.
    REQUIRE(register_for_notification(2166, handler) == 0);
    REQUIRE(alarm_pending());
    for (const char *text : {"first", "second"}) {
        auto service = std::make_unique<FakeService>(path);
        REQUIRE(pump_until([&] { return service->subscribers() == 1; }));
        REQUIRE(!alarm_pending());
        // Delivered by the agent's loop alone (no poll_notifications).
        service->notify(2166, payload(1, text));
        REQUIRE(pump_until([&] { return g.text == text; }));
        service->notify(fr::kDistributionStateNotif, state(1, g.calls));
        REQUIRE(pump_until([] {
            return is_veld_enabled("callhome") && get_veld_show_run_mode("callhome") == g.calls;
        }));
        if (g.calls == 2) {
            // Unregistering the last id closes the connection and leaves no alarm behind.
            REQUIRE(unregister_for_notification(2166) == 0);
            REQUIRE(service->wait_for_subscribers(0));
            REQUIRE(!alarm_pending());
        }
        service.reset(); // the hang-up is noticed, and the alarm reconnects to the next one
        REQUIRE(g.calls == 2 || pump_until([] { return alarm_pending(); }));
    }
    // Also while a retry is pending.
    REQUIRE(register_for_notification(2167, handler) == 0);
    REQUIRE(alarm_pending());
    REQUIRE(unregister_for_notification(2167) == 0);
    REQUIRE(!alarm_pending());
    return true;
}

TEST_F(NotificationTest, AgentLoopFollowsTheServiceAndCleansUpDeathTest) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::exit(listener_follows_the_service(path) ? 0 : 1), ::testing::ExitedWithCode(0),
                "");
}

} // namespace
