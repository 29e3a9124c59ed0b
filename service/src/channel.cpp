#include "channel.hpp"

#include <new>
#include <string>
#include <stdexcept>

#include "callhome_wire.h"
#include "cmi.h"
#include "codec.hpp"
#include "log.hpp"
#include "platform/frame.hpp"

namespace callhome {

using codec::answer;

namespace {

// How long a deleted profile's addresses and groups wait for an UNDO of the same request.
constexpr int64_t kUndoWindowMs = 30'000;

} // namespace

platform::CmiReply Channel::process(const platform::CmiRequest &r) {
    try {
        expire_deleted(r.session);
        session_ = r.session;
        return dispatch(r);
    } catch (const std::bad_alloc &) {
        log_line("refused " + std::string(mts_opc_name_get(r.opcode)) + ": out of memory");
        return answer(CALLHOME_ERR_NO_MEMORY);
    } catch (const std::exception &e) {
        // The store refused the change: nothing was applied, and the caller learns
        // that no status could be had.
        log_line("storage error, " + std::string(mts_opc_name_get(r.opcode)) +
                 " not applied: " + e.what());
        return answer(-1);
    }
}

void Channel::expire_deleted(uint32_t session) {
    // A request of another SNMP request ends the chance of an UNDO (reads of scalars carry
    // no session and say nothing about that); so does time.
    const int64_t now = int64_t(platform::frame::monotonic_ms());
    auto &d = state_.deleted;
    for (auto it = d.begin(); it != d.end();) {
        const bool other = session != 0 && session != it->session;
        it = other || now - it->deleted_ms > kUndoWindowMs ? d.erase(it) : it + 1;
    }
}

platform::CmiReply Channel::dispatch(const platform::CmiRequest &r) {
    int type = r.msg_type;
    if (type == VELD_GET_REQ) {
        type = GET_REQ;
    } else if (type == VELD_GETNEXT_REQ) {
        type = GETNEXT_REQ;
    }
    if (type < GET_REQ || type > DELETE_REQ) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    switch (r.opcode) {
    case CALLHOME_INFO_OPC:
        return op_info(type, r.record);
    case CALLHOME_EMAIL_CONF_OPC:
        return op_email_conf(type, r.record);
    case CALLHOME_ENABLE_OPC:
        return op_switch(type, r.record, true);
    case CALLHOME_MSG_THROTTLING_OPC:
        return op_switch(type, r.record, false);
    case CALLHOME_PERIODIC_INVENTORY_OPC:
        return op_periodic(type, r.record);
    case CALLHOME_STATUS_OPC:
        return op_status(type, r.record);
    case CALLHOME_ALERT_ACTION_OPC:
        return op_alert_action(type, r.record);
    case CALLHOME_DEST_PROFILE_OPC:
        return op_profile(type, r.record);
    case CALLHOME_DEST_EMAIL_OPC:
        return op_dest_email(type, r.record);
    case CALLHOME_ALERTGROUP_TYPE_OPC:
        return op_group_type(type, r.record);
    case CALLHOME_PROFILE_ALERTGROUP_OPC:
        return op_profile_group(type, r.record);
    case CALLHOME_USER_DEF_CMD_OPC:
        return op_user_cmd(type, r.record);
    default:
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
}

} // namespace callhome
