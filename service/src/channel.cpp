#include "channel.hpp"

#include <new>
#include <stdexcept>

#include "callhome_wire.h"
#include "codec.hpp"

namespace callhome {

using codec::answer;

platform::CmiReply Channel::process(const platform::CmiRequest &r) {
    try {
        return dispatch(r);
    } catch (const std::bad_alloc &) {
        return answer(CALLHOME_ERR_NO_MEMORY);
    } catch (const std::exception &) {
        // The store refused the change: nothing was applied, and the caller learns
        // that no status could be had.
        return answer(-1);
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
