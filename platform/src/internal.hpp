// Pieces shared between the platform's sources; not installed.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include "posix/unique_fd.hpp"

// A notification message as handlers see it (cmi.h keeps the type opaque).
struct mts_msg {
    std::vector<uint8_t> buffer; // payload, zero-padded to at least 8 bytes, then a NUL
    uint32_t length = 0;         // payload length as sent
};

namespace platform::detail {

using UniqueFd = posix::UniqueFd;

// The path the channel and the listener connect to (set_socket_path or the default).
std::string socket_path();

// Why the channel last failed ("cannot reach the call-home service at PATH: No such file or
// directory", "channel to PATH: recv: ..."), or
// empty once the service answered again.
std::string channel_failure();

// Connects a SOCK_SEQPACKET socket to `path`; on failure an invalid fd and errno set.
UniqueFd connect_seqpacket(const std::string &path);

// Sends one whole message without raising SIGPIPE; 0 or -1 with errno set.
int send_message(int fd, const std::vector<uint8_t> &bytes);

// Distribution state as pushed by the service (or set by tests).
void set_distribution_state(uint32_t enabled, uint32_t mode);

// True once the process has initialised net-snmp's agent library (init_agent sets the
// agent's start time, which stays zero before that).
bool agent_initialised();

// Per-interface resets, called by reset_for_tests().
void reset_channel();
void reset_notifications();
void reset_indxobj();
void reset_trace();
void reset_syserr();
void reset_snmp_ctx();
void reset_veld();

} // namespace platform::detail
