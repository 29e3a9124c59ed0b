// The JSON texts of `callhomectl dump` and `callhomectl outbox`.
#include "admin_commands.hpp"
#include "json.hpp"

namespace callhome {

std::string dump_json(const State &s, const std::function<void(json::Writer &)> &more) {
    json::Writer w;
    w.begin_object();
    w.field("enabled", s.enabled);
    w.key("info").begin_object();
    for (const auto &[k, v] : s.info) {
        w.field(k, v);
    }
    w.end_object();
    w.key("email").begin_object();
    w.field("from", s.email.from);
    w.field("reply_to", s.email.reply_to);
    w.field("return_receipt", s.email.receipt);
    w.field("smtp_server", s.email.server);
    w.field("address_type", s.email.type);
    w.field("port", s.email.port);
    w.end_object();
    w.field("throttling", s.throttling);
    w.key("periodic_inventory").begin_object();
    w.field("enabled", s.periodic.enable != 0);
    w.field("days", s.periodic.days);
    w.field("time_of_day", s.periodic.minutes);
    w.end_object();
    w.key("status").begin_object();
    w.field("last_alert_sec", s.status.sec);
    w.field("last_alert_usec", s.status.usec);
    w.field("alerts_sent", s.status.sent);
    w.field("message_status", s.status.message_status);
    w.field("error_code", s.status.error_code);
    w.field("error_message", s.status.error_message);
    w.end_object();
    w.key("profiles").begin_array();
    for (const auto &[name, p] : s.profiles) {
        w.begin_object();
        w.field("name", name);
        w.field("format", p.format);
        w.field("transport", p.transport);
        w.field("max_size", p.max_size);
        w.field("level", p.level);
        w.field("row_status", p.row_status);
        w.field("builtin", is_builtin(name));
        w.key("addresses").begin_array();
        for (const auto &[idx, addr] : p.emails) {
            w.begin_object().field("index", idx).field("address", addr).end_object();
        }
        w.end_array();
        w.key("alert_groups").begin_array();
        for (const auto &g : p.groups) {
            w.value(g);
        }
        w.end_array();
        w.end_object();
    }
    w.end_array();
    w.key("alert_group_types").begin_array();
    for (const auto &[idx, name] : s.types) {
        w.begin_object().field("index", idx).field("name", name).end_object();
    }
    w.end_array();
    w.key("user_commands").begin_array();
    for (const auto &[k, cmd] : s.commands) {
        w.begin_object()
            .field("type", s.types.at(k.first))
            .field("type_index", k.first)
            .field("index", k.second)
            .field("command", cmd)
            .end_object();
    }
    w.end_array();
    w.key("distribution").begin_object();
    w.field("enabled", s.dist_enabled);
    w.field("mode", s.dist_mode);
    w.end_object();
    if (more) {
        more(w);
    }
    w.end_object();
    return w.str();
}

std::string outbox_json(const std::vector<OutboxRow> &rows) {
    json::Writer w;
    w.begin_array();
    for (const OutboxRow &r : rows) {
        w.begin_object();
        w.field("id", r.id);
        w.field("time_sec", r.sec);
        w.field("time_usec", r.usec);
        w.field("profile", r.profile);
        w.field("recipients", r.recipients);
        w.field("format", r.format);
        w.field("subject", r.subject);
        w.field("body", r.body);
        w.field("state", r.state);
        w.field("attempts", r.attempts);
        w.field("last_error", r.last_error);
        w.end_object();
    }
    w.end_array();
    return w.str();
}

} // namespace callhome
