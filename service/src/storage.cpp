#include "storage.hpp"

#include <sys/stat.h>

#include <ctime>
#include <map>
#include <stdexcept>
#include <variant>

#include "log.hpp"
#include "message.hpp"

namespace callhome {
namespace {

constexpr int kSchemaVersion = 2; // 2: the outbox records delivery

const char *const kDefaultTypes[] = {"Configuration", "Diagnostic", "Environmental", "Inventory",
                                     "Syslog",        "System",     "Test"};

// The settings table: one key per value of State outside the tables. Loading and saving both
// walk this list; a key missing from the database loads as State's default.
using Field = std::variant<bool *, uint32_t *, std::string *>;
struct Setting {
    const char *key;
    Field (*field)(State &);
};
// clang-format off
#define SETTING(key, member) {key, [](State &s) -> Field { return &s.member; }}
const Setting kSettings[] = {
    SETTING("enabled", enabled),
    SETTING("throttling", throttling),
    SETTING("periodic.enable", periodic.enable),
    SETTING("periodic.days", periodic.days),
    SETTING("periodic.minutes", periodic.minutes),
    SETTING("email.from", email.from),
    SETTING("email.reply_to", email.reply_to),
    SETTING("email.return_receipt", email.receipt),
    SETTING("email.server", email.server),
    SETTING("email.address_type", email.type),
    SETTING("email.port", email.port),
    SETTING("distribution.enabled", dist_enabled),
    SETTING("distribution.mode", dist_mode),
};
// clang-format on
#undef SETTING

// Numbers and switches are stored as integers, texts as texts.
db::Value stored(const Field &f) {
    if (const auto *b = std::get_if<bool *>(&f)) {
        return int64_t(**b);
    }
    if (const auto *n = std::get_if<uint32_t *>(&f)) {
        return int64_t(**n);
    }
    return *std::get<std::string *>(f);
}

void assign(const Field &f, const std::string &text) {
    if (const auto *b = std::get_if<bool *>(&f)) {
        **b = std::stoll(text) != 0;
    } else if (const auto *n = std::get_if<uint32_t *>(&f)) {
        **n = uint32_t(std::stoll(text));
    } else {
        *std::get<std::string *>(f) = text;
    }
}

} // namespace

Storage::Storage(const std::string &path, State &state) : db_(path), path_(path) {
    if (path != ":memory:" && !path.empty()) {
        struct stat st {};
        if (::stat(path.c_str(), &st) == 0) {
            dev_ = uint64_t(st.st_dev);
            ino_ = uint64_t(st.st_ino);
        }
        if (db_.read_only()) {
            log_line("database " + path + " is read-only: changes will be refused");
        }
    }
    db_.exec("PRAGMA synchronous=FULL");
    if (path != ":memory:" && !path.empty()) {
        // WAL keeps commits durable under synchronous=FULL with one fsync per commit.
        db_.exec("PRAGMA journal_mode=WAL");
    }
    const int64_t version = db_.user_version();
    if (version == 0) {
        create_schema();
    } else if (version == 1) {
        db::Transaction tx(db_);
        outbox::upgrade_from_v1(db_);
        db_.exec("PRAGMA user_version=" + std::to_string(kSchemaVersion));
        tx.commit();
    } else if (version != kSchemaVersion) {
        throw std::runtime_error("database schema version " + std::to_string(version) +
                                 " is not supported (expected " + std::to_string(kSchemaVersion) +
                                 ")");
    }
    load(state);
}

void Storage::create_schema() {
    db::Transaction tx(db_);
    db_.exec(R"(
        CREATE TABLE settings(key TEXT PRIMARY KEY, value) WITHOUT ROWID;
        CREATE TABLE info(name TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;
        CREATE TABLE profiles(name TEXT PRIMARY KEY, transport INTEGER NOT NULL,
            format INTEGER NOT NULL, max_size INTEGER NOT NULL,
            row_status INTEGER NOT NULL, level INTEGER NOT NULL) WITHOUT ROWID;
        CREATE TABLE profile_emails(profile TEXT NOT NULL, idx INTEGER NOT NULL,
            address TEXT NOT NULL, PRIMARY KEY(profile, idx)) WITHOUT ROWID;
        CREATE TABLE profile_groups(profile TEXT NOT NULL, grp TEXT NOT NULL,
            PRIMARY KEY(profile, grp)) WITHOUT ROWID;
        CREATE TABLE group_types(idx INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE);
        CREATE TABLE user_commands(type_idx INTEGER NOT NULL, idx INTEGER NOT NULL,
            command TEXT NOT NULL, PRIMARY KEY(type_idx, idx)) WITHOUT ROWID;
    )");
    // The outbox and the status objects, which the sender keeps (outbox.hpp).
    outbox::create_schema(db_);
    save_settings(State{}, "");
    const std::pair<const char *, int> builtins[] = {{"full_txt", 1}, {"xml", 2}, {"short_txt", 3}};
    for (const auto &[name, format] : builtins) {
        Profile p;
        p.format = format;
        p.max_size = format == message::ShortText ? 4000 : 500000;
        save_profile(name, p);
    }
    uint32_t idx = 1;
    for (const char *t : kDefaultTypes) {
        db_.exec("INSERT INTO group_types(idx, name) VALUES(?, ?)",
                 {int64_t(idx++), std::string(t)});
    }
    db_.exec("PRAGMA user_version=" + std::to_string(kSchemaVersion));
    tx.commit();
}

void Storage::load(State &state) {
    std::map<std::string, std::string> settings;
    db_.query("SELECT key, value FROM settings", {},
              [&](const db::Row &r) { settings[r.text(0)] = r.text(1); });
    for (const Setting &s : kSettings) {
        const auto it = settings.find(s.key);
        if (it != settings.end()) {
            assign(s.field(state), it->second);
        }
    }
    db_.query("SELECT name, value FROM info", {},
              [&](const db::Row &r) { state.info[r.text(0)] = r.text(1); });
    db_.query("SELECT name, transport, format, max_size, row_status, level FROM profiles", {},
              [&](const db::Row &r) {
                  Profile &p = state.profiles[r.text(0)];
                  p.transport = int32_t(r.integer(1));
                  p.format = int32_t(r.integer(2));
                  p.max_size = uint32_t(r.integer(3));
                  p.row_status = int32_t(r.integer(4));
                  p.level = int32_t(r.integer(5));
              });
    db_.query("SELECT profile, idx, address FROM profile_emails", {}, [&](const db::Row &r) {
        const auto it = state.profiles.find(r.text(0));
        if (it != state.profiles.end()) {
            it->second.emails[int32_t(r.integer(1))] = r.text(2);
        }
    });
    db_.query("SELECT profile, grp FROM profile_groups", {}, [&](const db::Row &r) {
        const auto it = state.profiles.find(r.text(0));
        if (it != state.profiles.end()) {
            it->second.groups.insert(r.text(1));
        }
    });
    db_.query("SELECT idx, name FROM group_types", {},
              [&](const db::Row &r) { state.types[uint32_t(r.integer(0))] = r.text(1); });
    db_.query("SELECT type_idx, idx, command FROM user_commands", {}, [&](const db::Row &r) {
        state.commands[{uint32_t(r.integer(0)), int32_t(r.integer(1))}] = r.text(2);
    });
}

void Storage::save_settings(State values, std::string_view prefix) {
    for (const Setting &s : kSettings) {
        if (std::string_view(s.key).substr(0, prefix.size()) == prefix) {
            db_.exec("INSERT OR REPLACE INTO settings(key, value) VALUES(?, ?)",
                     {std::string(s.key), stored(s.field(values))});
        }
    }
}

void Storage::save_profile(const std::string &name, const Profile &p) {
    db_.exec("INSERT OR REPLACE INTO profiles(name, transport, format, max_size, row_status, "
             "level) VALUES(?, ?, ?, ?, ?, ?)",
             {name, int64_t(p.transport), int64_t(p.format), int64_t(p.max_size),
              int64_t(p.row_status), int64_t(p.level)});
}

void Storage::put_info(const std::string &name, const std::string &value) {
    write_through([&] {
        db_.exec("INSERT OR REPLACE INTO info(name, value) VALUES(?, ?)", {name, value});
    });
}

void Storage::erase_info(const std::string &name) {
    write_through([&] { db_.exec("DELETE FROM info WHERE name = ?", {name}); });
}

void Storage::put_enabled(bool on) {
    State v;
    v.enabled = on;
    write_through([&] { save_settings(v, "enabled"); });
}

void Storage::put_throttling(bool on) {
    State v;
    v.throttling = on;
    write_through([&] { save_settings(v, "throttling"); });
}

void Storage::put_email(const EmailConf &e) {
    State v;
    v.email = e;
    write_through([&] { save_settings(v, "email."); });
}

void Storage::put_periodic(const Periodic &p) {
    State v;
    v.periodic = p;
    write_through([&] { save_settings(v, "periodic."); });
}

void Storage::put_distribution(bool enabled, uint32_t mode) {
    State v;
    v.dist_enabled = enabled;
    v.dist_mode = mode;
    write_through([&] { save_settings(v, "distribution."); });
}

void Storage::queue(const std::vector<outbox::NewMessage> &messages, const timeval &now,
                    const std::string &host) {
    write_through([&] {
        for (const auto &m : messages) {
            outbox::enqueue(db_, m, now, host);
        }
    });
    if (!messages.empty() && listener_) {
        listener_();
    }
}

void Storage::record_failure(uint32_t code, const std::string &why) {
    write_through([&] { outbox::record_failure_status(db_, code, why); });
}

outbox::Status Storage::status() {
    return outbox::read_status(db_);
}

std::optional<int> Storage::retry(std::optional<int64_t> id) {
    const auto n = outbox::retry_now(db_, id, int64_t(time(nullptr)));
    if (n && *n > 0 && listener_) {
        listener_();
    }
    return n;
}

void Storage::put_profile(const std::string &name, const Profile &p) {
    write_through([&] { save_profile(name, p); });
}

void Storage::check_file() {
    if (ino_ == 0) {
        return;
    }
    struct stat st {};
    const bool gone = ::stat(path_.c_str(), &st) != 0;
    const bool other = !gone && (uint64_t(st.st_dev) != dev_ || uint64_t(st.st_ino) != ino_);
    if ((gone || other) != file_gone_) {
        file_gone_ = gone || other;
        log_line(file_gone_ ? "database " + path_ + (gone ? " was deleted" : " was replaced") +
                                  " while running: changes go to the file as opened and "
                                  "will not be there after a restart"
                            : "database " + path_ + " is back");
    }
}

void Storage::put_profile_with_rows(const std::string &name, const Profile &p) {
    write_through([&] {
        save_profile(name, p);
        for (const auto &[idx, address] : p.emails) {
            db_.exec("INSERT OR REPLACE INTO profile_emails(profile, idx, address) VALUES(?, ?, ?)",
                     {name, int64_t(idx), address});
        }
        for (const auto &group : p.groups) {
            db_.exec("INSERT OR REPLACE INTO profile_groups(profile, grp) VALUES(?, ?)",
                     {name, group});
        }
    });
}

void Storage::erase_profile(const std::string &name) {
    write_through([&] {
        db_.exec("DELETE FROM profile_emails WHERE profile = ?", {name});
        db_.exec("DELETE FROM profile_groups WHERE profile = ?", {name});
        db_.exec("DELETE FROM profiles WHERE name = ?", {name});
    });
}

void Storage::put_address(const std::string &profile, int32_t idx, const std::string &address) {
    write_through([&] {
        db_.exec("INSERT OR REPLACE INTO profile_emails(profile, idx, address) VALUES(?, ?, ?)",
                 {profile, int64_t(idx), address});
    });
}

void Storage::erase_address(const std::string &profile, int32_t idx) {
    write_through([&] {
        db_.exec("DELETE FROM profile_emails WHERE profile = ? AND idx = ?",
                 {profile, int64_t(idx)});
    });
}

void Storage::put_group(const std::string &profile, const std::string &group) {
    write_through([&] {
        db_.exec("INSERT OR REPLACE INTO profile_groups(profile, grp) VALUES(?, ?)",
                 {profile, group});
    });
}

void Storage::put_all_groups(const std::string &profile) {
    write_through([&] {
        db_.exec("DELETE FROM profile_groups WHERE profile = ?", {profile});
        db_.exec("INSERT INTO profile_groups(profile, grp) VALUES(?, ?)",
                 {profile, std::string(kAll)});
    });
}

void Storage::erase_group(const std::string &profile, const std::string &group) {
    write_through([&] {
        db_.exec("DELETE FROM profile_groups WHERE profile = ? AND grp = ?", {profile, group});
    });
}

void Storage::add_type(uint32_t idx, const std::string &name) {
    write_through([&] {
        db_.exec("INSERT INTO group_types(idx, name) VALUES(?, ?)", {int64_t(idx), name});
    });
}

void Storage::erase_type(uint32_t idx, const std::string &name) {
    write_through([&] {
        db_.exec("DELETE FROM profile_groups WHERE grp = ?", {name});
        db_.exec("DELETE FROM user_commands WHERE type_idx = ?", {int64_t(idx)});
        db_.exec("DELETE FROM group_types WHERE idx = ?", {int64_t(idx)});
    });
}

void Storage::put_command(const CmdKey &k, const std::string &command) {
    write_through([&] {
        db_.exec("INSERT OR REPLACE INTO user_commands(type_idx, idx, command) VALUES(?, ?, ?)",
                 {int64_t(k.first), int64_t(k.second), command});
    });
}

void Storage::erase_command(const CmdKey &k) {
    write_through([&] {
        db_.exec("DELETE FROM user_commands WHERE type_idx = ? AND idx = ?",
                 {int64_t(k.first), int64_t(k.second)});
    });
}

std::vector<outbox::Entry> Storage::outbox() {
    return outbox::list(db_);
}

} // namespace callhome
