// The alert-group types (read-only here: they change through the admin commands) and the
// user-defined commands of each type.
#include "callhome_wire.h"
#include "channel.hpp"
#include "codec.hpp"

namespace callhome {

using namespace codec;

namespace {

constexpr int32_t kMaxUserCmdIndex = CALLHOME_MAX_USER_CMDS;

platform::CmiReply type_row(uint32_t idx, const std::string &name) {
    callhome_alertgroup_type_t out{};
    out.index = to_be(idx);
    PUT(out, grp_name, name);
    return answer_record(out);
}

platform::CmiReply cmd_row(const State &state, const CmdKey &k, const std::string &cmd) {
    cmi_userdef_cli_cmd_t out{};
    out.index = to_be_signed(k.second);
    PUT(out, alertgroup_type, state.types.at(k.first));
    out.row_status = to_be_signed(1);
    PUT(out, cli_cmd, cmd);
    return answer_record(out);
}

} // namespace

platform::CmiReply Channel::op_group_type(int type, const Bytes &b) {
    const auto &types = state_.types;
    callhome_alertgroup_type_t rec;
    if (!load(b, rec)) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    const uint32_t idx = be(rec.index);
    if (type == GET_REQ) {
        const auto it = types.find(idx);
        return it == types.end() ? answer(CALLHOME_UNKNOWN_ENTRY) : type_row(idx, it->second);
    }
    if (type == GETNEXT_REQ) {
        const auto it = types.upper_bound(idx);
        return it == types.end() ? answer(CALLHOME_END_OF_TABLE) : type_row(it->first, it->second);
    }
    // Types change only through the admin interface.
    return answer(CALLHOME_ERR_INVALID_INPUT);
}

platform::CmiReply Channel::op_user_cmd(int type, const Bytes &b) {
    auto &commands = state_.commands;
    cmi_userdef_cli_cmd_t rec;
    if (!load(b, rec)) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    const std::string type_name = FIELD(rec, alertgroup_type);
    const int32_t idx = be_signed(rec.index);
    if (type == GETNEXT_REQ) {
        auto it = commands.begin();
        if (!type_name.empty()) {
            const auto t = state_.type_index(type_name);
            if (!t) {
                return answer(CALLHOME_UNKNOWN_ENTRY);
            }
            it = commands.upper_bound({*t, idx});
        }
        return it == commands.end() ? answer(CALLHOME_END_OF_TABLE)
                                    : cmd_row(state_, it->first, it->second);
    }
    const auto t = state_.type_index(type_name);
    if (!t) {
        return answer(CALLHOME_UNKNOWN_ENTRY);
    }
    const CmdKey k{*t, idx};
    switch (type) {
    case GET_REQ: {
        const auto it = commands.find(k);
        return it == commands.end() ? answer(CALLHOME_UNKNOWN_ENTRY)
                                    : cmd_row(state_, it->first, it->second);
    }
    case SET_REQ: {
        const std::string cmd = FIELD(rec, cli_cmd);
        if (idx < 1 || idx > kMaxUserCmdIndex || cmd.empty() || cmd.size() >= sizeof(rec.cli_cmd)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        storage_.put_command(k, cmd);
        commands[k] = cmd;
        return answer(CALLHOME_SUCCESS);
    }
    default: { // DELETE
        if (!commands.count(k)) {
            return answer(CALLHOME_UNKNOWN_ENTRY);
        }
        storage_.erase_command(k);
        commands.erase(k);
        return answer(CALLHOME_SUCCESS);
    }
    }
}

} // namespace callhome
