// One cmi_req_resp call and its answer as a transport sees them: what the socket carries,
// what the service answers and what a test's in-process transport receives.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

// One cmi_req_resp call as the transport sees it.
struct CmiRequest {
    int opcode = 0;
    int msg_type = 0;
    std::vector<uint8_t> record; // the request bytes (length as passed)
    bool wants_record = false;   // the caller passed a response pointer
    bool user_null = false;      // the caller passed a null user
    std::string user;
    uint32_t session = 0;
    int client = 0;
    int queue = 0;
    int wait = 0;
};

// What the transport answers. status -1 makes cmi_req_resp fail with errno `err`.
struct CmiReply {
    int status = 0;
    bool has_record = false;
    std::vector<uint8_t> record;
    int err = 0;
};

} // namespace platform
