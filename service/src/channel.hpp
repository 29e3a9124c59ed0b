// The request channel: each request decoded, checked against the rules of its object, and
// applied to the storage first and the state after.
//
// One handler per opcode; channel.cpp routes to them, and the handlers of one family share a
// file: channel_scalars.cpp (info, e-mail, switches, periodic inventory, status),
// channel_alert.cpp (alert actions), channel_profiles.cpp (profiles, their addresses and
// alert groups), channel_types.cpp (alert-group types and user commands). Tables and
// whole-record scalars are small structs of their rules served by the skeletons in serve.hpp.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "callhome_wire.h"
#include "platform/cmi_request.hpp"
#include "state.hpp"
#include "storage.hpp"

namespace callhome {

class Channel {
  public:
    Channel(State &state, Storage &storage) : state_(state), storage_(storage) {}

    // Answers one request. A store failure answers -1 (EIO) with nothing applied.
    platform::CmiReply process(const platform::CmiRequest &request);
    // Forgets deleted profiles that no UNDO can ask for any more: those of sessions other
    // than `session` (0: none), and those past the UNDO window.
    void expire_deleted(uint32_t session);

  private:
    using Bytes = std::vector<uint8_t>;
    using Reply = platform::CmiReply;

    Reply dispatch(const platform::CmiRequest &r);
    Reply op_info(int type, const Bytes &b);
    Reply op_email_conf(int type, const Bytes &b);
    Reply op_switch(int type, const Bytes &b, bool is_enable);
    Reply op_periodic(int type, const Bytes &b);
    Reply op_status(int type, const Bytes &b);
    Reply op_alert_action(int type, const Bytes &b);
    Reply op_profile(int type, const Bytes &b);
    Reply op_dest_email(int type, const Bytes &b);
    Reply op_profile_group(int type, const Bytes &b);
    Reply op_group_type(int type, const Bytes &b);
    Reply op_user_cmd(int type, const Bytes &b);

    State &state_;
    Storage &storage_;
    uint32_t session_ = 0; // of the request being answered
};

} // namespace callhome
