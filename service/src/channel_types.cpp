// The alert-group types (read-only here: they change through the admin commands) and the
// user-defined commands of each type.
#include <climits>
#include <optional>

#include "callhome_wire.h"
#include "channel.hpp"
#include "codec.hpp"
#include "serve.hpp"

namespace callhome {

using namespace codec;

namespace {

constexpr int32_t kMaxUserCmdIndex = CALLHOME_MAX_USER_CMDS;

struct TypeRows {
    using Record = callhome_alertgroup_type_t;
    using Key = uint32_t;
    const State &state;

    std::optional<Key> key(const Record &rec, int) const { return be(rec.index); }
    std::optional<Record> row(std::map<uint32_t, std::string>::const_iterator it) const {
        if (it == state.types.end()) {
            return std::nullopt;
        }
        Record out{};
        out.index = to_be(it->first);
        PUT(out, grp_name, it->second);
        return out;
    }
    std::optional<Record> find(Key k) const { return row(state.types.find(k)); }
    std::optional<Record> next(Key k) const { return row(state.types.upper_bound(k)); }
    // Types change only through the admin interface.
    int32_t set(Key, const Record &) const { return CALLHOME_ERR_INVALID_INPUT; }
    int32_t erase(Key) const { return CALLHOME_ERR_INVALID_INPUT; }
};

struct CommandRows {
    using Record = cmi_userdef_cli_cmd_t;
    using Key = CmdKey;
    State &state;
    Storage &storage;

    // The type travels by name; a GETNEXT without one starts before every row (type
    // indexes start at 1).
    std::optional<Key> key(const Record &rec, int type) const {
        const std::string type_name = FIELD(rec, alertgroup_type);
        const int32_t idx = be_signed(rec.index);
        if (type == GETNEXT_REQ && type_name.empty()) {
            return Key{0, INT32_MIN};
        }
        const auto t = state.type_index(type_name);
        if (!t) {
            return std::nullopt;
        }
        return Key{*t, idx};
    }
    std::optional<Record> row(std::map<CmdKey, std::string>::const_iterator it) const {
        if (it == state.commands.end()) {
            return std::nullopt;
        }
        Record out{};
        out.index = to_be_signed(it->first.second);
        PUT(out, alertgroup_type, state.types.at(it->first.first));
        out.row_status = to_be_signed(1);
        PUT(out, cli_cmd, it->second);
        return out;
    }
    std::optional<Record> find(const Key &k) const { return row(state.commands.find(k)); }
    std::optional<Record> next(const Key &k) const { return row(state.commands.upper_bound(k)); }
    int32_t set(const Key &k, const Record &rec) {
        const std::string cmd = FIELD(rec, cli_cmd);
        if (k.second < 1 || k.second > kMaxUserCmdIndex || cmd.empty() ||
            cmd.size() >= sizeof(rec.cli_cmd)) {
            return CALLHOME_ERR_INVALID_INPUT;
        }
        storage.put_command(k, cmd);
        state.commands[k] = cmd;
        return CALLHOME_SUCCESS;
    }
    int32_t erase(const Key &k) {
        if (!state.commands.count(k)) {
            return CALLHOME_UNKNOWN_ENTRY;
        }
        storage.erase_command(k);
        state.commands.erase(k);
        return CALLHOME_SUCCESS;
    }
};

} // namespace

platform::CmiReply Channel::op_group_type(int type, const Bytes &b) {
    return serve_table(TypeRows{state_}, type, b);
}

platform::CmiReply Channel::op_user_cmd(int type, const Bytes &b) {
    return serve_table(CommandRows{state_, storage_}, type, b);
}

} // namespace callhome
