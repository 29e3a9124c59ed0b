#include "notif.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "internal.hpp"
#include "platform/frame.hpp"
#include "platform/testing.hpp"

// Notifications run on the agent's single thread (or the test's), like everything the
// module does, so this state has no lock.

namespace platform::detail {
namespace {

namespace fr = platform::frame;

constexpr unsigned kRetrySeconds = 2;

struct Notifications {
    std::map<uint32_t, notif_handler_t> handlers;
    TrapSink sink;
    // Listener on the service's notification stream.
    UniqueFd fd;
    bool wanted = false;  // started and not stopped
    bool watched = false; // fd registered with the agent's select loop
    unsigned int retry_alarm = 0;
    std::vector<uint8_t> rx;
};

Notifications &state() {
    static Notifications n;
    return n;
}

void drain(int, void *);
void retry(unsigned int, void *);

void cancel_retry() {
    Notifications &n = state();
    if (n.retry_alarm != 0) {
        snmp_alarm_unregister(n.retry_alarm);
        n.retry_alarm = 0;
    }
}

void schedule_retry() {
    Notifications &n = state();
    if (n.retry_alarm == 0) {
        n.retry_alarm = snmp_alarm_register(kRetrySeconds, SA_REPEAT, retry, nullptr);
    }
}

void drop_connection() {
    Notifications &n = state();
    if (n.watched) {
        unregister_readfd(n.fd.get());
        n.watched = false;
    }
    n.fd.reset();
}

// Connects and subscribes; inside an agent the socket joins the agent's select loop.
int connect_listener() {
    Notifications &n = state();
    UniqueFd fd = connect_seqpacket(socket_path());
    if (!fd) {
        return -1;
    }
    fr::Frame subscribe;
    subscribe.kind = fr::Kind::Subscribe;
    const auto bytes = fr::encode(subscribe);
    if (!bytes || send_message(fd.get(), *bytes) != 0) {
        return -1;
    }
    n.fd = std::move(fd);
    if (agent_initialised()) {
        register_readfd(n.fd.get(), drain, nullptr);
        n.watched = true;
    }
    return 0;
}

void connection_lost() {
    drop_connection();
    if (state().wanted && agent_initialised()) {
        schedule_retry();
    }
}

void retry(unsigned int, void *) {
    Notifications &n = state();
    if (!n.wanted || n.fd) {
        cancel_retry();
        return;
    }
    if (connect_listener() == 0) {
        cancel_retry();
    }
}

// Reads every message waiting on the listener; returns the number dispatched.
int drain_messages() {
    Notifications &n = state();
    if (n.rx.size() != fr::kMaxFrame + 1) {
        n.rx.resize(fr::kMaxFrame + 1);
    }
    int dispatched = 0;
    // A handler may unregister the last id, which stops the listener under our feet.
    while (n.fd) {
        const ssize_t got = ::recv(n.fd.get(), n.rx.data(), n.rx.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                connection_lost();
            }
            break;
        }
        if (got == 0) {
            connection_lost();
            break;
        }
        if (size_t(got) > fr::kMaxFrame) {
            snmp_log(LOG_WARNING, "callhome: oversized notification dropped\n");
            continue;
        }
        const auto f = fr::decode(n.rx.data(), size_t(got));
        if (!f || f->kind != fr::Kind::Notification) {
            snmp_log(LOG_WARNING, "callhome: malformed notification dropped\n");
            continue;
        }
        dispatched += deliver_notification(f->opcode, f->body.data(), f->body.size());
    }
    return dispatched;
}

void drain(int, void *) {
    drain_messages();
}

// Hands the notification to the trap sink or to the agent, and frees the bindings.
void emit(const oid *notif_oid, size_t notif_oid_len, netsnmp_variable_list *vars) {
    Notifications &n = state();
    if (n.sink) {
        try {
            const TrapSink sink = n.sink;
            sink(notif_oid, notif_oid_len, vars);
        } catch (...) {
            snmp_log(LOG_ERR, "callhome: trap sink failed\n");
        }
        snmp_free_varbind(vars);
        return;
    }
    static const oid kSnmpTrapOid[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
    netsnmp_variable_list *list = nullptr;
    if (snmp_varlist_add_variable(&list, kSnmpTrapOid, OID_LENGTH(kSnmpTrapOid), ASN_OBJECT_ID,
                                  notif_oid, notif_oid_len * sizeof(oid)) == nullptr) {
        snmp_log(LOG_ERR, "callhome: notification not sent (out of memory)\n");
        snmp_free_varbind(vars);
        return;
    }
    list->next_variable = vars;
    send_v2trap(list);
    snmp_free_varbind(list);
}

} // namespace

bool agent_initialised() {
    const auto *started = static_cast<const struct timeval *>(netsnmp_get_agent_starttime());
    return started != nullptr && (started->tv_sec != 0 || started->tv_usec != 0);
}

void reset_notifications() {
    stop_notification_listener();
    state().handlers.clear();
    state().sink = {};
}

} // namespace platform::detail

namespace platform {

int start_notification_listener() {
    auto &n = detail::state();
    n.wanted = true;
    if (n.fd) {
        return 0;
    }
    if (detail::connect_listener() == 0) {
        detail::cancel_retry();
        return 0;
    }
    if (detail::agent_initialised()) {
        detail::schedule_retry(); // the service may start after the agent
    }
    return -1;
}

void stop_notification_listener() {
    auto &n = detail::state();
    n.wanted = false;
    detail::cancel_retry();
    detail::drop_connection();
}

int poll_notifications(int timeout_ms) {
    auto &n = detail::state();
    if (!n.wanted) {
        return 0;
    }
    if (!n.fd && detail::connect_listener() != 0) {
        return 0;
    }
    pollfd p{n.fd.get(), POLLIN, 0};
    int ready = 0;
    do {
        ready = ::poll(&p, 1, std::max(timeout_ms, 0));
    } while (ready < 0 && errno == EINTR);
    return ready > 0 ? detail::drain_messages() : 0;
}

int deliver_notification(int32_t id, const void *payload, size_t len) {
    if (payload == nullptr) {
        len = 0;
    }
    if (id == frame::kDistributionStateNotif) {
        if (len < 8) {
            return 0;
        }
        const auto *p = static_cast<const uint8_t *>(payload);
        detail::set_distribution_state(frame::get_u32(p), frame::get_u32(p + 4));
        return 1;
    }
    auto &n = detail::state();
    const auto it = n.handlers.find(uint32_t(id));
    if (it == n.handlers.end()) {
        return 0;
    }
    const notif_handler_t handler = it->second;

    mts_msg msg;
    msg.length = uint32_t(len);
    msg.buffer.assign(std::max<size_t>(len, 8) + 1, 0);
    if (len > 0) {
        std::memcpy(msg.buffer.data(), payload, len);
    }
    oid notif_oid[MAX_OID_LEN] = {};
    size_t notif_oid_len = 0;
    int send = 0;
    netsnmp_variable_list *vars = handler(&msg, notif_oid, &notif_oid_len, &send);
    if (send != 0 && notif_oid_len > 0 && notif_oid_len <= MAX_OID_LEN) {
        detail::emit(notif_oid, notif_oid_len, vars);
    } else {
        snmp_free_varbind(vars);
    }
    return 1;
}

void set_trap_sink(TrapSink sink) {
    detail::state().sink = std::move(sink);
}

size_t registered_notification_count() {
    return detail::state().handlers.size();
}

} // namespace platform

extern "C" int register_for_notification(uint32_t id, notif_handler_t handler) {
    if (handler == nullptr) {
        return -1;
    }
    try {
        platform::detail::state().handlers[id] = handler;
    } catch (...) {
        return -1;
    }
    // Inside an agent the first registration brings up the listener; it retries on its own
    // while the service is not there yet, so a failed connect is no registration failure.
    if (platform::detail::agent_initialised()) {
        platform::start_notification_listener();
    }
    return 0;
}

extern "C" int unregister_for_notification(uint32_t id) {
    auto &n = platform::detail::state();
    if (n.handlers.erase(id) == 0) {
        return -1;
    }
    if (n.handlers.empty()) {
        platform::stop_notification_listener();
    }
    return 0;
}

extern "C" void *mts_payload_get(mts_msg_t *msg) {
    return msg != nullptr ? msg->buffer.data() : nullptr;
}

extern "C" uint32_t mts_payload_len_get(mts_msg_t *msg) {
    return msg != nullptr ? msg->length : 0;
}
