// Notification dispatch: handlers, the send flag, the trap sink, the socket listener and
// the distribution state pushed by the service.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "fake_service.hpp"
#include "notif.h"
#include "platform/testing.hpp"
#include "veld.h"

namespace {

using namespace platform_test;

// What the handler saw and what it should answer; handlers are plain C callbacks.
struct HandlerScript {
    bool send = true;
    std::vector<oid> notif_oid{1, 3, 6, 1, 4, 1, 32473, 9, 300, 0, 2};
    std::string binding = "environment";
    int calls = 0;
    std::vector<uint8_t> padded; // payload buffer as handed over, up to its first 9 bytes
    std::string payload_text;
    uint32_t payload_len = 0;
};
HandlerScript g_script;

const oid kNameOid[] = {1, 3, 6, 1, 4, 1, 32473, 9, 300, 1, 7, 1, 2};

netsnmp_variable_list *handler(mts_msg_t *msg, oid *notif_oid, size_t *notif_oid_len, int *send) {
    ++g_script.calls;
    const auto *payload = static_cast<const uint8_t *>(mts_payload_get(msg));
    g_script.payload_len = mts_payload_len_get(msg);
    g_script.padded.assign(payload, payload + std::max<uint32_t>(g_script.payload_len, 8) + 1);
    if (g_script.payload_len > 4) {
        g_script.payload_text = reinterpret_cast<const char *>(payload + 4);
    }
    std::copy(g_script.notif_oid.begin(), g_script.notif_oid.end(), notif_oid);
    *notif_oid_len = g_script.notif_oid.size();
    *send = g_script.send ? 1 : 0;
    netsnmp_variable_list *vars = nullptr;
    snmp_varlist_add_variable(&vars, kNameOid, OID_LENGTH(kNameOid), ASN_OCTET_STR,
                              g_script.binding.data(), g_script.binding.size());
    return vars;
}

// A payload as the service sends it: u32 big-endian index, then the NUL-terminated name.
Bytes type_payload(uint32_t index, const std::string &name) {
    Bytes p(4 + name.size() + 1, 0);
    fr::put_u32(p.data(), index);
    std::memcpy(p.data() + 4, name.data(), name.size());
    return p;
}

struct Trap {
    std::vector<oid> notif_oid;
    std::vector<std::string> bindings;
};

class NotificationTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::reset_for_tests();
        g_script = HandlerScript{};
        platform::set_trap_sink([this](const oid *o, size_t n, netsnmp_variable_list *vars) {
            Trap t{{o, o + n}, {}};
            for (auto *v = vars; v != nullptr; v = v->next_variable) {
                t.bindings.emplace_back(reinterpret_cast<const char *>(v->val.string), v->val_len);
            }
            traps_.push_back(t);
        });
    }
    void TearDown() override { platform::reset_for_tests(); }

    std::vector<Trap> traps_;
};

TEST_F(NotificationTest, SendFlagDecidesWhetherTheTrapGoesOut) {
    ASSERT_EQ(register_for_notification(2166, handler), 0);
    EXPECT_EQ(platform::registered_notification_count(), 1u);

    const Bytes payload = type_payload(7, "environment");
    EXPECT_EQ(platform::deliver_notification(2166, payload.data(), payload.size()), 1);
    ASSERT_EQ(traps_.size(), 1u);
    EXPECT_EQ(traps_[0].notif_oid, g_script.notif_oid);
    EXPECT_EQ(traps_[0].bindings, std::vector<std::string>{"environment"});
    EXPECT_EQ(g_script.payload_len, payload.size());
    EXPECT_EQ(g_script.payload_text, "environment");

    // Unset flag, or an empty OID: nothing is sent, and the bindings are still freed.
    g_script.send = false;
    EXPECT_EQ(platform::deliver_notification(2166, payload.data(), payload.size()), 1);
    g_script.send = true;
    g_script.notif_oid.clear();
    EXPECT_EQ(platform::deliver_notification(2166, payload.data(), payload.size()), 1);
    EXPECT_EQ(traps_.size(), 1u);
    EXPECT_EQ(g_script.calls, 3);
}

TEST_F(NotificationTest, ShortPayloadIsZeroPaddedAndTerminated) {
    ASSERT_EQ(register_for_notification(2167, handler), 0);
    const uint8_t three[3] = {0xAA, 0xBB, 0xCC};
    ASSERT_EQ(platform::deliver_notification(2167, three, sizeof three), 1);
    EXPECT_EQ(g_script.payload_len, 3u);
    EXPECT_EQ(g_script.padded, (std::vector<uint8_t>{0xAA, 0xBB, 0xCC, 0, 0, 0, 0, 0, 0}));
    ASSERT_EQ(platform::deliver_notification(2167, nullptr, 0), 1);
    EXPECT_EQ(g_script.payload_len, 0u);
}

TEST_F(NotificationTest, RegistrationBookkeeping) {
    const Bytes payload = type_payload(1, "x");
    EXPECT_EQ(platform::deliver_notification(2166, payload.data(), payload.size()), 0);
    EXPECT_EQ(unregister_for_notification(2166), -1);
    EXPECT_NE(register_for_notification(2166, nullptr), 0);
    ASSERT_EQ(register_for_notification(2166, handler), 0);
    ASSERT_EQ(register_for_notification(2166, handler), 0); // replaces
    ASSERT_EQ(register_for_notification(2167, handler), 0);
    EXPECT_EQ(platform::registered_notification_count(), 2u);
    EXPECT_EQ(unregister_for_notification(2166), 0);
    EXPECT_EQ(platform::deliver_notification(2166, payload.data(), payload.size()), 0);
    EXPECT_EQ(platform::deliver_notification(2167, payload.data(), payload.size()), 1);
    EXPECT_EQ(unregister_for_notification(2167), 0);
    EXPECT_EQ(platform::registered_notification_count(), 0u);
}

TEST_F(NotificationTest, WithoutSinkTheAgentPathFreesTheList) {
    // No agent is running: send_v2trap has nowhere to send, but the list must be built
    // and freed cleanly (ASan checks).
    platform::set_trap_sink({});
    ASSERT_EQ(register_for_notification(2166, handler), 0);
    const Bytes payload = type_payload(3, "inventory");
    EXPECT_EQ(platform::deliver_notification(2166, payload.data(), payload.size()), 1);
    EXPECT_EQ(g_script.calls, 1);
}

TEST_F(NotificationTest, DistributionStateNotification) {
    Bytes body(8, 0);
    fr::put_u32(body.data(), 1);
    fr::put_u32(body.data() + 4, 2);
    EXPECT_EQ(platform::deliver_notification(fr::kDistributionStateNotif, body.data(), 8), 1);
    EXPECT_NE(is_veld_enabled("callhome"), 0);
    EXPECT_EQ(get_veld_show_run_mode("callhome"), 2);
    // A truncated body changes nothing.
    fr::put_u32(body.data(), 0);
    EXPECT_EQ(platform::deliver_notification(fr::kDistributionStateNotif, body.data(), 7), 0);
    EXPECT_NE(is_veld_enabled("callhome"), 0);
}

class ListenerTest : public NotificationTest {
  protected:
    void SetUp() override {
        NotificationTest::SetUp();
        path_ = dir_.path() + "/callhomed.sock";
        platform::set_socket_path(path_);
    }
    std::unique_ptr<FakeService> service() {
        return std::make_unique<FakeService>(
            path_, [](const fr::Frame &) { return FakeService::Action{}; });
    }
    TempDir dir_;
    std::string path_;
};

TEST_F(ListenerTest, NotificationsArriveThroughTheSocket) {
    auto svc = service();
    ASSERT_EQ(register_for_notification(2166, handler), 0);
    ASSERT_EQ(platform::start_notification_listener(), 0);
    ASSERT_TRUE(svc->wait_for_subscribers(1));

    Bytes state(8, 0);
    fr::put_u32(state.data(), 1);
    svc->notify(fr::kDistributionStateNotif, state);
    svc->notify(2166, type_payload(9, "syslog"));
    svc->notify(2999, type_payload(1, "nobody listens"));
    int dispatched = 0;
    while (dispatched < 2) {
        const int got = platform::poll_notifications(10'000);
        ASSERT_GT(got, 0);
        dispatched += got;
    }
    EXPECT_NE(is_veld_enabled("callhome"), 0);
    EXPECT_EQ(get_veld_show_run_mode("callhome"), 0);
    ASSERT_EQ(traps_.size(), 1u);
    EXPECT_EQ(g_script.payload_text, "syslog");
}

TEST_F(ListenerTest, MalformedMessagesAreDroppedNotFatal) {
    auto svc = service();
    ASSERT_EQ(register_for_notification(2166, handler), 0);
    ASSERT_EQ(platform::start_notification_listener(), 0);
    ASSERT_TRUE(svc->wait_for_subscribers(1));
    svc->send_raw_to_subscribers(Bytes{1, 2, 3});
    svc->send_raw_to_subscribers(Bytes(fr::kMaxFrame + 10, 0));
    svc->notify(2166, type_payload(2, "after"));
    int dispatched = 0;
    while (dispatched < 1) {
        const int got = platform::poll_notifications(10'000);
        ASSERT_GE(got, 0);
        dispatched += got;
    }
    EXPECT_EQ(g_script.payload_text, "after");
}

TEST_F(ListenerTest, ReconnectsAfterServiceRestart) {
    // Not there at first: the listener keeps trying on each poll.
    ASSERT_EQ(register_for_notification(2166, handler), 0);
    EXPECT_NE(platform::start_notification_listener(), 0);
    EXPECT_EQ(platform::poll_notifications(0), 0);

    auto svc = service();
    EXPECT_EQ(platform::poll_notifications(0), 0); // connects and subscribes
    ASSERT_TRUE(svc->wait_for_subscribers(1));

    svc.reset();
    EXPECT_EQ(platform::poll_notifications(10'000), 0); // sees the hang-up

    svc = service();
    EXPECT_EQ(platform::poll_notifications(0), 0);
    ASSERT_TRUE(svc->wait_for_subscribers(1));
    svc->notify(2166, type_payload(4, "restarted"));
    EXPECT_EQ(platform::poll_notifications(10'000), 1);
    EXPECT_EQ(g_script.payload_text, "restarted");
}

TEST_F(ListenerTest, LastUnregistrationStopsTheListener) {
    auto svc = service();
    ASSERT_EQ(register_for_notification(2166, handler), 0);
    ASSERT_EQ(register_for_notification(2167, handler), 0);
    ASSERT_EQ(platform::start_notification_listener(), 0);
    ASSERT_TRUE(svc->wait_for_subscribers(1));
    EXPECT_EQ(unregister_for_notification(2166), 0);
    EXPECT_EQ(unregister_for_notification(2167), 0);
    EXPECT_TRUE(svc->wait_for_subscribers(0));
    svc->notify(2166, type_payload(1, "late"));
    EXPECT_EQ(platform::poll_notifications(0), 0);
    EXPECT_EQ(g_script.calls, 0);
}

} // namespace
