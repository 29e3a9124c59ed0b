// The JSON texts of `callhomectl dump` and `callhomectl outbox`.
#include "admin_commands.hpp"
#include "json.hpp"
#include "message.hpp"

#include <ctime>

namespace callhome {

std::string dump_json(const State &s, const outbox::Status &status,
                      const std::function<void(json::Writer &)> &more) {
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
    w.field("last_alert_sec", status.sec);
    w.field("last_alert_usec", status.usec);
    w.field("alerts_sent", status.sent);
    w.field("message_status", status.message_status);
    w.field("error_code", status.error_code);
    w.field("error_message", status.error_message);
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

namespace {

std::string utc(int64_t sec) {
    return sec == 0 ? "" : message::iso_time(sec);
}

} // namespace

std::string outbox_json(const std::vector<outbox::Entry> &entries) {
    json::Writer w;
    w.begin_array();
    for (const auto &e : entries) {
        std::string recipients;
        for (const auto &r : e.recipients) {
            recipients += (recipients.empty() ? "" : ", ") + r;
        }
        const bool waiting = e.state == outbox::kQueued || e.state == outbox::kRetrying;
        w.begin_object();
        w.field("id", e.id);
        w.field("state", e.state);
        w.field("attempts", e.attempts);
        w.field("last_error", e.last_error);
        w.field("sent_at", utc(e.sent_sec));
        w.field("last_attempt_at", utc(e.last_attempt_sec));
        w.field("next_attempt_at", waiting ? utc(e.next_attempt_sec) : "");
        w.field("time_sec", e.created_sec);
        w.field("time_usec", e.created_usec);
        w.field("profile", e.profile);
        w.field("alert_group", e.alert_group);
        w.field("severity", e.severity);
        w.field("recipients", recipients);
        w.field("format", e.format);
        w.field("message_id", e.message_id);
        w.field("subject", e.subject);
        w.field("body", e.body);
        w.end_object();
    }
    w.end_array();
    return w.str();
}

} // namespace callhome
