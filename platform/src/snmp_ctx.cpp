#include "snmp_ctx.h"

#include <mutex>
#include <optional>
#include <string>

#include "internal.hpp"
#include "platform/testing.hpp"

namespace {

struct Context {
    std::optional<std::string> user; // set by tests; wins over the agent's request
    uint32_t session = 0;
    std::string current; // backing store of the last returned name
};

Context &context() {
    static Context c;
    return c;
}

// The PDU the agent is processing, or null outside a request.
netsnmp_pdu *current_pdu() {
    netsnmp_agent_session *session = netsnmp_get_current_agent_session();
    return session != nullptr ? session->pdu : nullptr;
}

} // namespace

extern "C" const char *get_snmp_username(int) {
    Context &c = context();
    if (c.user) {
        return c.user->c_str();
    }
    netsnmp_pdu *pdu = current_pdu();
    if (pdu == nullptr) {
        return "";
    }
    if (pdu->version == SNMP_VERSION_3) {
        c.current.assign(pdu->securityName != nullptr ? pdu->securityName : "",
                         pdu->securityName != nullptr ? pdu->securityNameLen : 0);
    } else {
        c.current.assign(reinterpret_cast<const char *>(pdu->community),
                         pdu->community != nullptr ? pdu->community_len : 0);
    }
    return c.current.c_str();
}

extern "C" uint32_t get_snmp_sessionid(int) {
    Context &c = context();
    if (c.user) {
        return c.session;
    }
    // The agent's transaction id, not the manager's request id: it is unique per request
    // the agent received, and an AgentX subagent sees the same one in every phase of a SET
    // (each phase comes in a PDU with a request id of its own).
    netsnmp_pdu *pdu = current_pdu();
    return pdu != nullptr ? uint32_t(pdu->transid) : 0;
}

namespace platform {

void set_snmp_context(const std::string &user, uint32_t session) {
    context().user = user;
    context().session = session;
}

void clear_snmp_context() {
    context().user.reset();
    context().session = 0;
}

namespace detail {
void reset_snmp_ctx() {
    clear_snmp_context();
}
} // namespace detail

} // namespace platform
