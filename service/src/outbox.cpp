#include "outbox.hpp"

#include <algorithm>
#include <cstdio>
#include <random>

namespace callhome::outbox {
namespace {

const char *const kColumns =
    "id, created_sec, created_usec, profile, alert_group, severity, recipients, format, "
    "subject, body, message_id, state, attempts, COALESCE(last_error, ''), "
    "COALESCE(last_attempt_sec, 0), next_attempt_sec, COALESCE(sent_sec, 0)";

Entry entry(const db::Row &r) {
    Entry e;
    e.id = r.integer(0);
    e.created_sec = r.integer(1);
    e.created_usec = r.integer(2);
    e.profile = r.text(3);
    e.alert_group = r.text(4);
    e.severity = int(r.integer(5));
    e.recipients = split_recipients(r.text(6));
    e.format = int(r.integer(7));
    e.subject = r.text(8);
    e.body = r.text(9);
    e.message_id = r.text(10);
    e.state = r.text(11);
    e.attempts = int(r.integer(12));
    e.last_error = r.text(13);
    e.last_attempt_sec = r.integer(14);
    e.next_attempt_sec = r.integer(15);
    e.sent_sec = r.integer(16);
    return e;
}

// Where the settings table keeps the status: its numbers, then the reason.
constexpr std::pair<const char *, uint32_t Status::*> kStatusNumbers[] = {
    {"status.sec", &Status::sec},
    {"status.usec", &Status::usec},
    {"status.sent", &Status::sent},
    {"status.message_status", &Status::message_status},
    {"status.error_code", &Status::error_code},
};
constexpr const char *kStatusReason = "status.error_message";

void write_status(db::Database &db, const Status &s) {
    constexpr const char *kPut = "INSERT OR REPLACE INTO settings(key, value) VALUES(?, ?)";
    for (const auto &[key, field] : kStatusNumbers) {
        db.exec(kPut, {std::string(key), int64_t(s.*field)});
    }
    db.exec(kPut, {std::string(kStatusReason), s.error_message});
}

std::string message_id(int64_t sec, const std::string &host) {
    std::random_device rd;
    char buf[64];
    std::snprintf(buf, sizeof buf, "%lld.%08x%08x", static_cast<long long>(sec), rd(), rd());
    return std::string("<") + buf + "@" + (host.empty() ? "localhost" : host) + ">";
}

} // namespace

std::vector<std::string> split_recipients(const std::string &joined) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start < joined.size()) {
        size_t end = joined.find(", ", start);
        if (end == std::string::npos) {
            end = joined.size();
        }
        if (end > start) {
            out.push_back(joined.substr(start, end - start));
        }
        start = end + 2;
    }
    return out;
}

void create_schema(db::Database &db) {
    db.exec(R"(
        CREATE TABLE outbox(id INTEGER PRIMARY KEY AUTOINCREMENT,
            created_sec INTEGER NOT NULL, created_usec INTEGER NOT NULL,
            profile TEXT NOT NULL, recipients TEXT NOT NULL, format INTEGER NOT NULL,
            subject TEXT NOT NULL, body TEXT NOT NULL, state TEXT NOT NULL,
            attempts INTEGER NOT NULL DEFAULT 0, last_attempt_sec INTEGER,
            last_error TEXT, alert_group TEXT NOT NULL DEFAULT '',
            severity INTEGER NOT NULL DEFAULT 0, message_id TEXT NOT NULL DEFAULT '',
            next_attempt_sec INTEGER NOT NULL DEFAULT 0, sent_sec INTEGER);
        CREATE INDEX outbox_by_state ON outbox(state, id);
    )");
    write_status(db, Status{});
}

void upgrade_from_v1(db::Database &db) {
    db.exec(R"(
        ALTER TABLE outbox ADD COLUMN alert_group TEXT NOT NULL DEFAULT '';
        ALTER TABLE outbox ADD COLUMN severity INTEGER NOT NULL DEFAULT 0;
        ALTER TABLE outbox ADD COLUMN message_id TEXT NOT NULL DEFAULT '';
        ALTER TABLE outbox ADD COLUMN next_attempt_sec INTEGER NOT NULL DEFAULT 0;
        ALTER TABLE outbox ADD COLUMN sent_sec INTEGER;
    )");
    // Messages queued before there was a sender carry no Message-ID yet.
    db.exec("UPDATE outbox SET message_id = '<' || created_sec || '.' || id || "
            "'@localhost>' WHERE message_id = ''");
}

Status read_status(db::Database &db) {
    Status s;
    db.query("SELECT key, value FROM settings WHERE key LIKE 'status.%'", {},
             [&](const db::Row &r) {
                 const std::string key = r.text(0);
                 if (key == kStatusReason) {
                     s.error_message = r.text(1);
                     return;
                 }
                 for (const auto &[name, field] : kStatusNumbers) {
                     if (key == name) {
                         s.*field = uint32_t(r.integer(1));
                     }
                 }
             });
    return s;
}

void record_failure_status(db::Database &db, uint32_t code, const std::string &why) {
    Status s = read_status(db);
    s.message_status = 3;
    s.error_code = code;
    s.error_message = why;
    write_status(db, s);
}

namespace {
std::string join_recipients(const std::vector<std::string> &recipients) {
    std::string joined;
    for (const auto &r : recipients) {
        joined += (joined.empty() ? "" : ", ") + r;
    }
    return joined;
}
} // namespace

int64_t enqueue(db::Database &db, const NewMessage &m, const timeval &now,
                const std::string &host) {
    const std::string joined = join_recipients(m.recipients);
    db.exec("INSERT INTO outbox(created_sec, created_usec, profile, alert_group, severity, "
            "recipients, format, subject, body, message_id, state, next_attempt_sec) "
            "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
            {int64_t(now.tv_sec), int64_t(now.tv_usec), m.profile, m.alert_group,
             int64_t(m.severity), joined, int64_t(m.format), m.subject, m.body,
             message_id(now.tv_sec, host), m.state, int64_t(now.tv_sec)});
    int64_t id = 0;
    db.query("SELECT last_insert_rowid()", {}, [&](const db::Row &r) { id = r.integer(0); });
    return id;
}

std::vector<Entry> list(db::Database &db) {
    std::vector<Entry> out;
    db.query(std::string("SELECT ") + kColumns + " FROM outbox ORDER BY id", {},
             [&](const db::Row &r) { out.push_back(entry(r)); });
    return out;
}

std::optional<int> retry_now(db::Database &db, std::optional<int64_t> id, int64_t now) {
    db::Transaction tx(db);
    int n = 0;
    auto count = [&](const db::Row &r) { n = int(r.integer(0)); };
    if (id) {
        db.query("SELECT COUNT(*) FROM outbox WHERE id = ? AND state IN (?, ?, ?)",
                 {*id, std::string(kQueued), std::string(kRetrying), std::string(kFailed)}, count);
        if (n == 0) {
            return std::nullopt;
        }
        // A failed message gets one more attempt.
        db.exec("UPDATE outbox SET state = CASE state WHEN ? THEN ? ELSE state END, "
                "next_attempt_sec = ? WHERE id = ?",
                {std::string(kFailed), std::string(kRetrying), now, *id});
    } else {
        db.query("SELECT COUNT(*) FROM outbox WHERE state IN (?, ?)",
                 {std::string(kQueued), std::string(kRetrying)}, count);
        db.exec("UPDATE outbox SET next_attempt_sec = ? WHERE state IN (?, ?)",
                {now, std::string(kQueued), std::string(kRetrying)});
    }
    tx.commit();
    return n;
}

void requeue_interrupted(db::Database &db, int64_t now) {
    db::Transaction tx(db);
    db.exec("UPDATE outbox SET state = ?, next_attempt_sec = ?, "
            "last_error = 'the service stopped during an attempt' WHERE state = ?",
            {std::string(kRetrying), now, std::string(kSending)});
    tx.commit();
}

std::optional<Entry> claim_due(db::Database &db, int64_t now) {
    db::Transaction tx(db);
    std::optional<Entry> e;
    db.query(std::string("SELECT ") + kColumns +
                 " FROM outbox WHERE state IN (?, ?) AND next_attempt_sec <= ? "
                 "ORDER BY next_attempt_sec, id LIMIT 1",
             {std::string(kQueued), std::string(kRetrying), now},
             [&](const db::Row &r) { e = entry(r); });
    if (!e) {
        return std::nullopt;
    }
    e->attempts += 1;
    e->last_attempt_sec = now;
    e->state = kSending;
    db.exec("UPDATE outbox SET state = ?, attempts = ?, last_attempt_sec = ? WHERE id = ?",
            {std::string(kSending), int64_t(e->attempts), now, e->id});
    tx.commit();
    return e;
}

std::optional<int64_t> next_due(db::Database &db) {
    std::optional<int64_t> due;
    db.query("SELECT MIN(next_attempt_sec) FROM outbox WHERE state IN (?, ?)",
             {std::string(kQueued), std::string(kRetrying)}, [&](const db::Row &r) {
                 if (!r.text(0).empty()) {
                     due = r.integer(0);
                 }
             });
    return due;
}

void record_accepted(db::Database &db, int64_t id, const timeval &now, const std::string &note,
                     const std::vector<std::string> &retry,
                     const std::vector<int> &retry_delays_s) {
    db::Transaction tx(db);
    // A copy for recipients put off earlier is the same message: it is counted once.
    int64_t accepted_before = 0;
    db.query("SELECT COUNT(*) FROM outbox WHERE state = ? AND id != ? AND message_id = "
             "(SELECT message_id FROM outbox WHERE id = ?)",
             {std::string(kSent), id, id},
             [&](const db::Row &r) { accepted_before = r.integer(0); });
    db.exec("UPDATE outbox SET state = ?, sent_sec = ?, last_error = ? WHERE id = ?",
            {std::string(kSent), int64_t(now.tv_sec), note, id});
    int attempts = 0;
    db.query("SELECT attempts FROM outbox WHERE id = ?", {id},
             [&](const db::Row &r) { attempts = int(r.integer(0)); });
    if (!retry.empty() && attempts >= 1 && size_t(attempts) <= retry_delays_s.size()) {
        db.exec("INSERT INTO outbox(created_sec, created_usec, profile, alert_group, severity, "
                "recipients, format, subject, body, message_id, state, attempts, "
                "last_attempt_sec, next_attempt_sec, last_error) "
                "SELECT created_sec, created_usec, profile, alert_group, severity, ?, format, "
                "subject, body, message_id, ?, attempts, last_attempt_sec, ?, ? "
                "FROM outbox WHERE id = ?",
                {join_recipients(retry), std::string(kRetrying),
                 int64_t(now.tv_sec) + retry_delays_s[size_t(attempts - 1)], note, id});
    }
    Status s = read_status(db);
    s.sec = uint32_t(now.tv_sec);
    s.usec = uint32_t(now.tv_usec);
    s.sent += accepted_before == 0 ? 1 : 0;
    s.message_status = 1;
    s.error_code = 0;
    s.error_message.clear();
    write_status(db, s);
    prune(db);
    tx.commit();
}

void record_failed(db::Database &db, int64_t id, int64_t now, const std::string &reason,
                   bool permanent, const std::vector<int> &retry_delays_s) {
    db::Transaction tx(db);
    int attempts = 0;
    db.query("SELECT attempts FROM outbox WHERE id = ?", {id},
             [&](const db::Row &r) { attempts = int(r.integer(0)); });
    const bool retry = !permanent && attempts >= 1 && size_t(attempts) <= retry_delays_s.size();
    const int64_t next = retry ? now + retry_delays_s[size_t(attempts - 1)] : now;
    db.exec("UPDATE outbox SET state = ?, next_attempt_sec = ?, last_error = ? WHERE id = ?",
            {std::string(retry ? kRetrying : kFailed), next, reason, id});
    record_failure_status(db, kDeliveryFailed, reason);
    if (!retry) {
        prune(db);
    }
    tx.commit();
}

void prune(db::Database &db, size_t keep) {
    db.exec("DELETE FROM outbox WHERE state IN (?, ?) AND id NOT IN (SELECT id FROM outbox "
            "WHERE state IN (?, ?) ORDER BY id DESC LIMIT ?)",
            {std::string(kSent), std::string(kFailed), std::string(kSent), std::string(kFailed),
             int64_t(keep)});
}

} // namespace callhome::outbox
