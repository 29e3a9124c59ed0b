#include "admin_commands.hpp"

#include <cstring>
#include <ctime>

#include "callhome_wire.h"
#include "platform/frame.hpp"
#include "validate.hpp"

namespace callhome {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes type_payload(uint32_t idx, const std::string &name) {
    Bytes p(4 + name.size() + 1, 0);
    platform::frame::put_u32(p.data(), idx);
    std::memcpy(p.data() + 4, name.data(), name.size());
    return p;
}

} // namespace

std::pair<int, std::string> AdminCommands::run(const AdminCommand &c) {
    using Op = AdminCommand::Op;
    switch (c.op) {
    case Op::Ping:
        return {0, "ok\n"};
    case Op::Dump:
        return {
            0, dump_json(state_, storage_.status(), [this](json::Writer &w) { dump_messages(w); })};
    case Op::Alert:
        return alert(c);
    case Op::Outbox:
        return {0, outbox_json(storage_.outbox())};
    case Op::OutboxRetry: {
        const auto n = storage_.retry(c.id);
        if (!n) {
            return {1,
                    "no message " + std::to_string(*c.id) + " waiting or failed in the outbox\n"};
        }
        return {0, std::to_string(*n) + " message(s) to be tried now\n"};
    }
    case Op::SmtpServer: // the facade sends it through the channel
        break;
    case Op::GroupAdd:
        return group_add(c.name);
    case Op::GroupDel:
        return group_del(c.name);
    case Op::Distribution:
        return distribution(c.enabled, c.mode);
    case Op::FaultClear:
        faults_.clear();
        return {0, "faults cleared\n"};
    case Op::FaultStatus:
    case Op::FaultDelay:
    case Op::FaultDrop: {
        FaultAction action;
        action.kind = c.op == Op::FaultStatus  ? FaultAction::Kind::Status
                      : c.op == Op::FaultDelay ? FaultAction::Kind::Delay
                                               : FaultAction::Kind::Drop;
        action.status = c.status;
        action.delay_ms = c.delay_ms;
        faults_.arm(c.opcode, c.type, c.count, action);
        return {0, "fault armed for opcode " + std::to_string(c.opcode) + " (" +
                       std::to_string(c.count) + " request(s))\n"};
    }
    }
    return {2, kAdminUsage};
}

std::pair<int, std::string> AdminCommands::alert(const AdminCommand &c) {
    const auto o = dispatcher_.alert({c.name, c.severity, c.subject, c.text});
    if (o.queued + o.throttled == 0) {
        return {1, "alert not queued: " + o.error + "\n"};
    }
    return {0, "alert queued for " + std::to_string(o.queued) + " profile(s)" +
                   (o.throttled ? ", throttled for " + std::to_string(o.throttled) : "") + "\n"};
}

void AdminCommands::dump_messages(json::Writer &w) {
    const auto s = dispatcher_.inventory_schedule();
    w.key("inventory_schedule").begin_object();
    w.field("next_due_sec", s.next_due);
    char text[32] = "";
    const time_t t = time_t(s.next_due);
    tm local{};
    if (s.next_due != 0 && localtime_r(&t, &local)) {
        strftime(text, sizeof text, "%Y-%m-%d %H:%M %z", &local);
    }
    w.field("next_due", std::string(text));
    w.field("last_run_sec", s.last_run);
    w.end_object();
    w.key("throttling_counters").begin_array();
    for (const auto &[key, c] : dispatcher_.throttle_counters()) {
        w.begin_object()
            .field("profile", key.first)
            .field("alert_group", key.second)
            .field("last_hour", c.in_window)
            .field("throttled", c.throttled)
            .end_object();
    }
    w.end_array();
}

void AdminCommands::notify(int32_t id, const Bytes &payload) {
    if (notifier_) {
        notifier_(id, payload);
    }
}

std::pair<int, std::string> AdminCommands::distribution(bool enabled, uint32_t mode) {
    storage_.put_distribution(enabled, mode);
    state_.dist_enabled = enabled;
    state_.dist_mode = mode;
    Bytes payload(8);
    platform::frame::put_u32(payload.data(), enabled ? 1 : 0);
    platform::frame::put_u32(payload.data() + 4, mode);
    notify(platform::frame::kDistributionStateNotif, payload);
    return {0, std::string("distribution ") + (enabled ? "on" : "off") + " mode " +
                   std::to_string(mode) + "\n"};
}

std::pair<int, std::string> AdminCommands::group_add(const std::string &name) {
    if (name.empty() || name.size() > 255 || !validate::printable(name) || name == kAll) {
        return {1, "invalid alert-group type name '" + name +
                       "' (1 to 255 printable characters, not 'all')\n"};
    }
    if (state_.type_index(name)) {
        return {1, "alert-group type '" + name + "' already exists\n"};
    }
    uint32_t idx = 1;
    while (state_.types.count(idx)) {
        ++idx;
    }
    if (idx > kMaxTypes) {
        return {1, "too many alert-group types (at most " + std::to_string(kMaxTypes) + ")\n"};
    }
    storage_.add_type(idx, name);
    state_.types[idx] = name;
    notify(CALLHOME_ALERTGROUP_ADDED_NOTIF, type_payload(idx, name));
    return {0, "added alert-group type " + std::to_string(idx) + " " + name + "\n"};
}

std::pair<int, std::string> AdminCommands::group_del(const std::string &name) {
    const auto idx = state_.type_index(name);
    if (!idx) {
        return {1, "no alert-group type '" + name + "'\n"};
    }
    storage_.erase_type(*idx, name);
    state_.types.erase(*idx);
    for (auto &[pname, p] : state_.profiles) {
        p.groups.erase(name);
    }
    auto &commands = state_.commands;
    for (auto it = commands.begin(); it != commands.end();) {
        it = it->first.first == *idx ? commands.erase(it) : std::next(it);
    }
    notify(CALLHOME_ALERTGROUP_DELETED_NOTIF, type_payload(*idx, name));
    return {0, "removed alert-group type " + std::to_string(*idx) + " " + name + "\n"};
}

} // namespace callhome
