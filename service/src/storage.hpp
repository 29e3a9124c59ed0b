// The durable copy of the configuration, in SQLite: the schema, loading it at start, and one
// write per kind of change. The service changes its memory (state.hpp) only after the
// matching write has committed, so what it serves is always what a restart would load.
#pragma once

#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <string_view>
#include <vector>

#include "schedule.hpp"
#include "outbox.hpp"
#include "state.hpp"
#include "store.hpp"

namespace callhome {

// A message waiting for delivery, as an alert action queues it.
struct OutboxMessage {
    int64_t sec = 0, usec = 0;
    std::string profile, recipients;
    int format = 0;
    std::string subject, body;
    std::string state = "queued"; // or "composing", "throttled"
    std::string group;            // the alert group
    int severity = 0;
};

class Storage {
  public:
    // ":memory:" keeps everything in memory (tests). An empty database gets the schema and
    // its defaults; then everything is loaded into `state`, which starts with the defaults.
    // Throws std::runtime_error when the database can't be opened, created or read, or has
    // a schema version this build does not know.
    Storage(const std::string &path, State &state);

    // Each change is one transaction, committed (durably) before returning; a failure throws
    // and leaves the database as it was.
    void put_info(const std::string &name, const std::string &value);
    void erase_info(const std::string &name);
    void put_enabled(bool on);
    void put_throttling(bool on);
    void put_email(const EmailConf &e);
    void put_periodic(const Periodic &p);
    void put_distribution(bool enabled, uint32_t mode);
    // Queues the messages in one step (outbox.hpp), then tells the outbox listener. `host`
    // names this machine in their Message-IDs.
    void queue(const std::vector<outbox::NewMessage> &messages, const timeval &now,
               const std::string &host);
    // An action that reached nobody: the status objects say failed, with `why`.
    void record_failure(uint32_t code, const std::string &why);

    void put_profile(const std::string &name, const Profile &p); // its addresses and groups stay
    // A new profile with its addresses and groups (an undone delete), in one transaction.
    void put_profile_with_rows(const std::string &name, const Profile &p);
    void erase_profile(const std::string &name); // with its addresses and groups
    void put_address(const std::string &profile, int32_t idx, const std::string &address);
    void erase_address(const std::string &profile, int32_t idx);
    void put_group(const std::string &profile, const std::string &group);
    void put_all_groups(const std::string &profile); // "all" replaces every group of the profile
    void erase_group(const std::string &profile, const std::string &group);

    void add_type(uint32_t idx, const std::string &name);
    // Removes the type with the profiles' subscriptions to it and its user commands.
    void erase_type(uint32_t idx, const std::string &name);
    void put_command(const CmdKey &k, const std::string &command);
    void erase_command(const CmdKey &k);

    std::vector<outbox::Entry> outbox();
    // The status objects as the sender last recorded them (it writes through a connection
    // of its own, so they are read afresh).
    outbox::Status status();
    // outbox::retry_now, then tells the outbox listener.
    std::optional<int> retry(std::optional<int64_t> id);
    // Called after messages were queued or made due (the sender's wake-up).
    void set_outbox_listener(std::function<void()> listener) { listener_ = std::move(listener); }

    // The messages the service sends by itself (storage_messages.cpp). Queues the messages
    // and, when given, the periodic inventory's schedule in one step; returns their ids.
    std::vector<int64_t> queue_messages(const std::vector<OutboxMessage> &messages,
                                        const schedule::State *sched);
    // A composing message is complete: queued for delivery with its final text.
    void complete_message(int64_t id, const std::string &subject, const std::string &body);
    // After a restart: composing messages go as they were queued.
    void release_composing();
    void put_schedule(const schedule::State &sched);
    std::optional<schedule::State> schedule_state();
    // The alerts queued for delivery (not throttled) after `since`, oldest first: (profile,
    // alert group, time queued). They rebuild the throttling window after a restart.
    std::vector<std::tuple<std::string, std::string, int64_t>> alerts_since(int64_t since);

  private:
    void create_schema();
    void load(State &state);
    // Writes the settings whose keys start with `prefix`, with their values in `values`
    // (a copy: the table's fields are writable, for loading).
    void save_settings(State values, std::string_view prefix);
    void save_profile(const std::string &name, const Profile &p);
    // Runs `write` in one transaction, committed (durably) before returning.
    static std::string host_name() {
        char host[256] = {};
        return gethostname(host, sizeof host - 1) == 0 && host[0] ? host : "localhost";
    }
    template <class F> void write_through(F &&write) {
        check_file();
        db::Transaction tx(db_);
        write();
        tx.commit();
    }
    // Logs (once per change) when the file at the path is no longer the one opened.
    void check_file();

    db::Database db_;
    std::string path_;
    uint64_t dev_ = 0, ino_ = 0;
    bool file_gone_ = false;
    std::function<void()> listener_;
    std::string host_ = host_name(); // in the Message-IDs
};

} // namespace callhome
