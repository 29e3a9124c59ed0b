// The durable outbox: every message the service composes waits here until an SMTP server
// accepted it or delivery was given up, and the status objects are derived from what
// happened to it. Two connections use these functions: the request channel's (queuing,
// listing, retry requests, status reads) and the sender thread's (attempts and outcomes).
// Every change is one committed transaction, so a kill -9 loses nothing that was answered.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "store.hpp"

namespace callhome::outbox {

// States of a message. queued and retrying wait for the sender, sending is an attempt under
// way, sent and failed are finished. A queuer may use a state of its own (e.g. "throttled")
// for messages the sender must leave alone.
inline constexpr const char *kQueued = "queued";
inline constexpr const char *kSending = "sending";
inline constexpr const char *kSent = "sent";
inline constexpr const char *kRetrying = "retrying";
inline constexpr const char *kFailed = "failed";

// Finished messages kept for callhomectl outbox; unfinished ones are never dropped.
inline constexpr size_t kKeepFinished = 1000;

// The platform status that callHomeErrorMessage names when a delivery failed.
inline constexpr uint32_t kDeliveryFailed = 0x403B0041;

struct NewMessage {
    std::string profile;
    std::string alert_group; // "Test", "Inventory", ...
    int severity = 0;
    std::vector<std::string> recipients;
    int format = 1; // message::Format
    std::string subject;
    std::string body;
    std::string state = kQueued;
};

struct Entry {
    int64_t id = 0;
    int64_t created_sec = 0, created_usec = 0;
    std::string profile, alert_group;
    int severity = 0;
    std::vector<std::string> recipients;
    int format = 1;
    std::string subject, body, message_id, state;
    int attempts = 0;
    std::string last_error;
    int64_t last_attempt_sec = 0, next_attempt_sec = 0, sent_sec = 0; // 0: never
};

// What callHomeMessageStatus, callHomeErrorMessage, callHomeLastAlertSentTime and
// callHomeAlertsSentCount show: the outcome of the latest attempt and the accepted messages.
struct Status {
    uint32_t sec = 0, usec = 0;  // latest acceptance
    uint32_t sent = 0;           // messages accepted
    uint32_t message_status = 2; // 1 sent, 2 none tried yet, 3 failed
    uint32_t error_code = 0;
    std::string error_message; // the reason, in words an operator acts on
};

// Creates the outbox table and the initial status (inside the caller's transaction).
void create_schema(db::Database &db);
// Brings an outbox of schema version 1 to the current columns.
void upgrade_from_v1(db::Database &db);

Status read_status(db::Database &db);
// Records a failure that never reached the sender (no destination, for one).
void record_failure_status(db::Database &db, uint32_t code, const std::string &why);

// Adds a message (inside the caller's transaction) and returns its id. `host` names this
// machine in the Message-ID.
int64_t enqueue(db::Database &db, const NewMessage &m, const timeval &now, const std::string &host);

std::vector<Entry> list(db::Database &db);
// Makes waiting messages due at once: every queued and retrying one, or the one `id` names
// (which may also be failed). Returns how many; nullopt when `id` names no such message.
std::optional<int> retry_now(db::Database &db, std::optional<int64_t> id, int64_t now);

// ---- the sender's side ----

// After a restart: an attempt that was under way may or may not have reached the server
// (its acceptance was never recorded), so the message is tried again at once.
void requeue_interrupted(db::Database &db, int64_t now);
// Marks the first due message sending, counts the attempt, and returns it.
std::optional<Entry> claim_due(db::Database &db, int64_t now);
// When the next waiting message falls due (epoch seconds), if any.
std::optional<int64_t> next_due(db::Database &db);
// The server accepted the message for at least one recipient; `note` says which were refused.
// The recipients it put off for now (`retry`) get a copy of the message of their own, which
// waits like a failed attempt would (retry_delays_s[attempts - 1]); after the last delay they
// are given up and only `note` tells of them.
void record_accepted(db::Database &db, int64_t id, const timeval &now, const std::string &note,
                     const std::vector<std::string> &retry, const std::vector<int> &retry_delays_s);
// The attempt failed: a permanent cause, or a temporary one after the last delay, finishes
// the message as failed; otherwise it waits retry_delays_s[attempts - 1].
void record_failed(db::Database &db, int64_t id, int64_t now, const std::string &reason,
                   bool permanent, const std::vector<int> &retry_delays_s);

// Deletes all but the newest `keep` finished messages.
void prune(db::Database &db, size_t keep = kKeepFinished);

std::vector<std::string> split_recipients(const std::string &joined);

} // namespace callhome::outbox
