// Hooks for tests and for hosting the service in-process. Not used by the MIB module.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/types.h>

#include "platform/cmi_request.hpp"

namespace platform {

using Transport = std::function<CmiReply(const CmiRequest &)>;

// Replaces the socket with an in-process transport; an empty function restores the socket.
void set_transport(Transport transport);

// Socket transport: connect to this path instead of default_socket_path().
void set_socket_path(const std::string &path);
// Drops the socket connection (the next request reconnects).
void disconnect();

// Notification listener: connects to the service's notification stream. Inside an agent
// (after init_agent) the socket is watched with register_readfd; elsewhere tests call
// poll_notifications(). Returns 0 when connected.
int start_notification_listener();
void stop_notification_listener();
// Handles whatever has arrived on the listener within `timeout_ms`; returns the number of
// notifications dispatched.
int poll_notifications(int timeout_ms);

// Dispatches a notification to the registered handler as if it had come from the service.
// Returns 1 when a handler ran, 0 when none is registered for the id.
int deliver_notification(int32_t id, const void *payload, size_t len);

// Where notifications go: by default send_v2trap through the agent. The sink receives the
// notification OID and the bindings handed back by the handler (the platform frees the
// list after the sink returns).
using TrapSink = std::function<void(const oid *, size_t, netsnmp_variable_list *)>;
void set_trap_sink(TrapSink sink);
size_t registered_notification_count();

// SNMP request context outside an agent.
void set_snmp_context(const std::string &user, uint32_t session);
void clear_snmp_context();

// Distribution state.
void set_distribution(bool enabled, int show_run_mode);

// Error logging.
std::pair<int32_t, int> last_set_error();          // (status, code); (0, 0) when none
std::pair<int32_t, std::string> last_snmp_error(); // (status, text)
void clear_errors();

// What the process monitor knows: whether the last heartbeat said busy, and how many
// heartbeats changed that (a write bracketed by busy and idle beats adds two).
struct HeartbeatState {
    bool busy = false;
    uint64_t changes = 0;
    bool operator==(const HeartbeatState &o) const {
        return busy == o.busy && changes == o.changes;
    }
};
HeartbeatState heartbeat_state();
void clear_heartbeat_state();

// Event history: (level, text) of the most recent records, oldest first. It records only
// while switched on: by CALLHOME_TRACE_HISTORY in the environment, set_trace_history, or
// reset_for_tests (tests read it).
std::vector<std::pair<int, std::string>> trace_history();
void clear_trace_history();
void set_trace_history(bool on);
// Debug output also on without -Dcallhome or CALLHOME_DEBUG (which is read at start and by
// reset_for_tests).
void set_debug_output(bool on);

// Index containers.
void fail_next_indxobj_add(int count = 1); // the next `count` adds are refused
void fail_indxobj_create_after(
    int successes);          // creates fail after this many more successes; -1 never
size_t live_indxobj_count(); // containers created and not destroyed
size_t indxobj_size(const struct indxobj *obj);

// Restores every hook above to its initial state.
void reset_for_tests();

} // namespace platform
