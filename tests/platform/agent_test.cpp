// The notification listener inside an agent: watched by the agent's own loop, retried by
// alarm while the service is away, and gone without a trace once nothing is registered.
// Each scenario initialises net-snmp's agent library, so it runs in a child process.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

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

int g_calls = 0;
std::string g_last;

netsnmp_variable_list *count_handler(mts_msg_t *msg, oid *, size_t *, int *send) {
    ++g_calls;
    g_last = static_cast<const char *>(mts_payload_get(msg));
    *send = 0;
    return nullptr;
}

// Runs the agent's loop without blocking until `done` holds; false if it never does.
template <class Pred> bool pump_until(Pred done) {
    for (int i = 0; i < 2000; ++i) {
        if (done()) {
            return true;
        }
        agent_check_and_process(0);
        ::usleep(5000);
    }
    return done();
}

#define REQUIRE(cond)                                                                              \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            std::fprintf(stderr, "failed: %s (line %d)\n", #cond, __LINE__);                       \
            return false;                                                                          \
        }                                                                                          \
    } while (0)

bool no_alarm_pending() {
    struct timeval delta {};
    return get_next_alarm_delay_time(&delta) == 0;
}

std::unique_ptr<FakeService> silent_service(const std::string &path) {
    return std::make_unique<FakeService>(path,
                                         [](const fr::Frame &) { return FakeService::Action{}; });
}

Bytes text_payload(const char *text) {
    return Bytes(text, text + std::strlen(text) + 1);
}

bool listener_follows_the_service() {
    TempDir dir;
    const std::string path = dir.path() + "/callhomed.sock";
    platform::set_socket_path(path);
    snmp_disable_log();
    REQUIRE(init_agent("callhome-platform-test") == 0);
    REQUIRE(no_alarm_pending());

    // Outside a request the context is empty even inside an agent.
    REQUIRE(std::strcmp(get_snmp_username(0), "") == 0);
    REQUIRE(get_snmp_sessionid(0) == 0);

    // The service is not there yet: registration still succeeds and a retry is scheduled.
    REQUIRE(register_for_notification(2166, count_handler) == 0);
    REQUIRE(!no_alarm_pending());

    auto service = silent_service(path);
    REQUIRE(pump_until([&] { return service->subscribers() == 1; }));
    REQUIRE(no_alarm_pending());

    // Delivered by the agent's loop alone (no poll_notifications).
    service->notify(2166, text_payload("first"));
    REQUIRE(pump_until([] { return g_calls == 1; }));
    REQUIRE(g_last == "first");

    Bytes state(8, 0);
    fr::put_u32(state.data(), 1);
    fr::put_u32(state.data() + 4, 1);
    service->notify(fr::kDistributionStateNotif, state);
    REQUIRE(pump_until([] { return is_veld_enabled("callhome") != 0; }));
    REQUIRE(get_veld_show_run_mode("callhome") == 1);

    // Restart: the hang-up is noticed, and the alarm reconnects to the new service.
    service.reset();
    REQUIRE(pump_until([] { return !no_alarm_pending(); }));
    service = silent_service(path);
    REQUIRE(pump_until([&] { return service->subscribers() == 1; }));
    service->notify(2166, text_payload("second"));
    REQUIRE(pump_until([] { return g_calls == 2; }));
    REQUIRE(g_last == "second");

    // Unregistering the last id closes the connection and leaves no alarm behind, also
    // while a retry is pending.
    REQUIRE(unregister_for_notification(2166) == 0);
    REQUIRE(service->wait_for_subscribers(0));
    REQUIRE(no_alarm_pending());
    service.reset();
    REQUIRE(register_for_notification(2167, count_handler) == 0);
    REQUIRE(!no_alarm_pending());
    REQUIRE(unregister_for_notification(2167) == 0);
    REQUIRE(no_alarm_pending());
    return true;
}

TEST(AgentListenerDeathTest, FollowsTheServiceAndCleansUp) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::exit(listener_follows_the_service() ? 0 : 1), ::testing::ExitedWithCode(0),
                "");
}

} // namespace
