// Storage of the messages the service sends by itself and of the periodic inventory's
// schedule (settings keys inventory.*).
#include "storage.hpp"

#include <unistd.h>

namespace callhome {
namespace {

// Throttled messages are counted, never sent: keep only the newest of them.
constexpr int64_t kKeepThrottled = 1000;

void save_schedule(db::Database &db, const schedule::State &s) {
    const std::pair<const char *, int64_t> keys[] = {
        {"inventory.next_due", s.next_due},
        {"inventory.last_run", s.last_run},
        {"inventory.basis_enable", s.basis.enable ? 1 : 0},
        {"inventory.basis_days", s.basis.days},
        {"inventory.basis_minutes", s.basis.minutes},
    };
    for (const auto &[key, value] : keys) {
        db.exec("INSERT OR REPLACE INTO settings(key, value) VALUES(?, ?)",
                {std::string(key), value});
    }
}

} // namespace

std::vector<int64_t> Storage::queue_messages(const std::vector<OutboxMessage> &messages,
                                             const schedule::State *sched) {
    std::vector<int64_t> ids;
    write_through([&] {
        for (const auto &m : messages) {
            outbox::NewMessage n;
            n.profile = m.profile;
            n.alert_group = m.group;
            n.severity = m.severity;
            n.recipients = outbox::split_recipients(m.recipients);
            n.format = m.format;
            n.subject = m.subject;
            n.body = m.body;
            n.state = m.state;
            ids.push_back(
                outbox::enqueue(db_, n, timeval{time_t(m.sec), suseconds_t(m.usec)}, host_));
        }
        db_.exec("DELETE FROM outbox WHERE state = 'throttled' AND id NOT IN (SELECT id FROM "
                 "outbox WHERE state = 'throttled' ORDER BY id DESC LIMIT ?)",
                 {kKeepThrottled});
        if (sched) {
            save_schedule(db_, *sched);
        }
    });
    if (listener_) {
        listener_();
    }
    return ids;
}

void Storage::complete_message(int64_t id, const std::string &subject, const std::string &body) {
    write_through([&] {
        db_.exec("UPDATE outbox SET subject = ?, body = ?, state = 'queued' WHERE id = ? AND "
                 "state = 'composing'",
                 {subject, body, id});
    });
    if (listener_) {
        listener_();
    }
}

void Storage::release_composing() {
    write_through(
        [&] { db_.exec("UPDATE outbox SET state = 'queued' WHERE state = 'composing'"); });
    if (listener_) {
        listener_();
    }
}

void Storage::put_schedule(const schedule::State &sched) {
    write_through([&] { save_schedule(db_, sched); });
}

std::optional<schedule::State> Storage::schedule_state() {
    std::map<std::string, int64_t> v;
    db_.query("SELECT key, value FROM settings WHERE key LIKE 'inventory.%'", {},
              [&](const db::Row &r) { v[r.text(0)] = r.integer(1); });
    if (!v.count("inventory.next_due")) {
        return std::nullopt;
    }
    schedule::State s;
    s.next_due = v["inventory.next_due"];
    s.last_run = v["inventory.last_run"];
    s.basis.enable = v["inventory.basis_enable"] != 0;
    s.basis.days = uint32_t(v["inventory.basis_days"]);
    s.basis.minutes = uint32_t(v["inventory.basis_minutes"]);
    return s;
}

std::vector<std::tuple<std::string, std::string, int64_t>> Storage::alerts_since(int64_t since) {
    // Only alerts carry a severity (1 to 10); Test and Inventory messages carry 0.
    std::vector<std::tuple<std::string, std::string, int64_t>> out;
    // A copy for recipients the server put off is the same alert: grouped by Message-ID.
    db_.query("SELECT profile, alert_group, MIN(created_sec) AS created FROM outbox WHERE "
              "severity > 0 AND state != 'throttled' AND created_sec > ? GROUP BY message_id "
              "ORDER BY created, MIN(id)",
              {since},
              [&](const db::Row &r) { out.emplace_back(r.text(0), r.text(1), r.integer(2)); });
    return out;
}

} // namespace callhome
