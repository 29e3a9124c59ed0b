#include "callhome/service.hpp"

#include <arpa/inet.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <new>
#include <optional>
#include <set>
#include <stdexcept>

#include "callhome/admin.hpp"
#include "callhome_wire.h"
#include "json.hpp"
#include "message.hpp"
#include "platform/frame.hpp"
#include "store.hpp"
#include "validate.hpp"

namespace callhome {
namespace {

using Bytes = std::vector<uint8_t>;
using platform::CmiReply;
using platform::CmiRequest;

constexpr int32_t kNoDestination = 0x403B0040;
constexpr int kSchemaVersion = 1;
constexpr uint32_t kMaxTypes = 63; // every type index fits the module's 8-octet bit set
constexpr int32_t kMaxUserCmdIndex = CALLHOME_MAX_USER_CMDS;
constexpr uint32_t kMaxMessageSize = 1000000;
constexpr const char *kAll = "all";

const char *const kInfoNames[] = {"sysContactPhoneNumber",
                                  "sysContactEmail",
                                  "sysStreetAddress",
                                  "custId",
                                  "contractId",
                                  "siteId",
                                  "priority"};
const char *const kBuiltinProfiles[] = {"full_txt", "xml", "short_txt"};
const char *const kDefaultTypes[] = {"Configuration", "Diagnostic", "Environmental", "Inventory",
                                     "Syslog",        "System",     "Test"};

// Channel integers are big-endian in every record.
uint32_t be(uint32_t v) {
    return ntohl(v);
}
int32_t be_signed(int32_t v) {
    return int32_t(ntohl(uint32_t(v)));
}
uint32_t to_be(uint32_t v) {
    return htonl(v);
}
int32_t to_be_signed(int32_t v) {
    return int32_t(htonl(uint32_t(v)));
}

// Text fields are read within their field: a missing NUL never runs past it.
std::string text(const char *field, size_t cap) {
    return std::string(field, strnlen(field, cap));
}
#define FIELD(rec, f) text((rec).f, sizeof((rec).f))

void put(char *field, size_t cap, const std::string &s) {
    const size_t n = std::min(s.size(), cap - 1);
    std::memcpy(field, s.data(), n);
    std::memset(field + n, 0, cap - n);
}
#define PUT(rec, f, s) put((rec).f, sizeof((rec).f), (s))

template <class T> bool load(const Bytes &b, T &out) {
    if (b.size() != sizeof(T)) {
        return false;
    }
    std::memcpy(&out, b.data(), sizeof(T));
    return true;
}

CmiReply answer(int32_t status) {
    CmiReply r;
    r.status = status;
    if (status == -1) {
        r.err = EIO;
    }
    return r;
}

template <class T> CmiReply answer_record(const T &rec) {
    CmiReply r;
    r.has_record = true;
    const auto *p = reinterpret_cast<const uint8_t *>(&rec);
    r.record.assign(p, p + sizeof(T));
    return r;
}

bool is_builtin(const std::string &name) {
    for (const char *b : kBuiltinProfiles) {
        if (name == b) {
            return true;
        }
    }
    return false;
}

bool known_info(const std::string &name) {
    for (const char *n : kInfoNames) {
        if (name == n) {
            return true;
        }
    }
    return false;
}

struct Profile {
    int32_t transport = 1;
    int32_t format = 1;
    uint32_t max_size = 0;
    int32_t row_status = 1;
    int32_t level = 0;
    std::map<int32_t, std::string> emails;
    std::set<std::string> groups;
};

struct EmailConf {
    std::string from, reply_to, receipt, server;
    uint32_t type = CALLHOME_ADDR_DNS;
    uint32_t port = 25;
};

struct Status {
    uint32_t sec = 0, usec = 0;
    uint32_t sent = 0;
    uint32_t message_status = 2; // nothing sent yet
    uint32_t error_code = 0;
    std::string error_message;
};

struct Periodic {
    uint32_t enable = 1;
    uint32_t days = 7;
    uint32_t minutes = 480;
};

struct Fault {
    int opcode;
    std::optional<int> type;
    int remaining;
    FaultAction action;
};

using CmdKey = std::pair<uint32_t, int32_t>; // (type index, command index)

// Profiles are ordered as the MIB orders their rows: a text index is encoded as its length,
// then one arc per byte, so shorter names come first and names of one length compare byte by
// byte (unsigned). Walks then see strictly increasing OIDs.
struct OidOrder {
    using is_transparent = void;
    bool operator()(const std::string &a, const std::string &b) const {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    }
};

} // namespace

struct Service::Impl {
    explicit Impl(const std::string &path) : db(path) {
        db.exec("PRAGMA synchronous=FULL");
        if (path != ":memory:" && !path.empty()) {
            // WAL keeps commits durable under synchronous=FULL with one fsync per commit.
            db.exec("PRAGMA journal_mode=WAL");
        }
        const int64_t version = db.user_version();
        if (version == 0) {
            create_schema();
        } else if (version != kSchemaVersion) {
            throw std::runtime_error("database schema version " + std::to_string(version) +
                                     " is not supported (expected " +
                                     std::to_string(kSchemaVersion) + ")");
        }
        load_all();
    }

    // ---- storage ----

    void create_schema() {
        db::Transaction tx(db);
        db.exec(R"(
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
            -- Messages waiting for (or done with) delivery; a mailer picks up 'queued' rows
            -- in id order and records its attempts.
            CREATE TABLE outbox(id INTEGER PRIMARY KEY AUTOINCREMENT,
                created_sec INTEGER NOT NULL, created_usec INTEGER NOT NULL,
                profile TEXT NOT NULL, recipients TEXT NOT NULL, format INTEGER NOT NULL,
                subject TEXT NOT NULL, body TEXT NOT NULL, state TEXT NOT NULL,
                attempts INTEGER NOT NULL DEFAULT 0, last_attempt_sec INTEGER,
                last_error TEXT);
            CREATE INDEX outbox_by_state ON outbox(state, id);
        )");
        save_setting("enabled", int64_t(0));
        save_setting("throttling", int64_t(1));
        save_periodic(periodic);
        save_email(email);
        save_status(status);
        save_setting("distribution.enabled", int64_t(0));
        save_setting("distribution.mode", int64_t(0));
        const std::pair<const char *, int> builtins[] = {
            {"full_txt", 1}, {"xml", 2}, {"short_txt", 3}};
        for (const auto &[name, format] : builtins) {
            Profile p;
            p.format = format;
            p.max_size = format == message::ShortText ? 4000 : 500000;
            save_profile(name, p);
        }
        uint32_t idx = 1;
        for (const char *t : kDefaultTypes) {
            db.exec("INSERT INTO group_types(idx, name) VALUES(?, ?)",
                    {int64_t(idx++), std::string(t)});
        }
        db.exec("PRAGMA user_version=" + std::to_string(kSchemaVersion));
        tx.commit();
    }

    void load_all() {
        std::map<std::string, std::string> settings;
        db.query("SELECT key, value FROM settings", {},
                 [&](const db::Row &r) { settings[r.text(0)] = r.text(1); });
        auto num = [&](const char *k, int64_t dflt) -> int64_t {
            const auto it = settings.find(k);
            return it == settings.end() ? dflt : std::stoll(it->second);
        };
        auto str = [&](const char *k) {
            const auto it = settings.find(k);
            return it == settings.end() ? std::string() : it->second;
        };
        enabled = num("enabled", 0) != 0;
        throttling = num("throttling", 1) != 0;
        periodic.enable = uint32_t(num("periodic.enable", 1));
        periodic.days = uint32_t(num("periodic.days", 7));
        periodic.minutes = uint32_t(num("periodic.minutes", 480));
        email.from = str("email.from");
        email.reply_to = str("email.reply_to");
        email.receipt = str("email.return_receipt");
        email.server = str("email.server");
        email.type = uint32_t(num("email.address_type", CALLHOME_ADDR_DNS));
        email.port = uint32_t(num("email.port", 25));
        status.sec = uint32_t(num("status.sec", 0));
        status.usec = uint32_t(num("status.usec", 0));
        status.sent = uint32_t(num("status.sent", 0));
        status.message_status = uint32_t(num("status.message_status", 2));
        status.error_code = uint32_t(num("status.error_code", 0));
        status.error_message = str("status.error_message");
        dist_enabled = num("distribution.enabled", 0) != 0;
        dist_mode = uint32_t(num("distribution.mode", 0));

        db.query("SELECT name, value FROM info", {},
                 [&](const db::Row &r) { info[r.text(0)] = r.text(1); });
        db.query("SELECT name, transport, format, max_size, row_status, level FROM profiles", {},
                 [&](const db::Row &r) {
                     Profile &p = profiles[r.text(0)];
                     p.transport = int32_t(r.integer(1));
                     p.format = int32_t(r.integer(2));
                     p.max_size = uint32_t(r.integer(3));
                     p.row_status = int32_t(r.integer(4));
                     p.level = int32_t(r.integer(5));
                 });
        db.query("SELECT profile, idx, address FROM profile_emails", {}, [&](const db::Row &r) {
            const auto it = profiles.find(r.text(0));
            if (it != profiles.end()) {
                it->second.emails[int32_t(r.integer(1))] = r.text(2);
            }
        });
        db.query("SELECT profile, grp FROM profile_groups", {}, [&](const db::Row &r) {
            const auto it = profiles.find(r.text(0));
            if (it != profiles.end()) {
                it->second.groups.insert(r.text(1));
            }
        });
        db.query("SELECT idx, name FROM group_types", {},
                 [&](const db::Row &r) { types[uint32_t(r.integer(0))] = r.text(1); });
        db.query("SELECT type_idx, idx, command FROM user_commands", {}, [&](const db::Row &r) {
            commands[{uint32_t(r.integer(0)), int32_t(r.integer(1))}] = r.text(2);
        });
    }

    void save_setting(const std::string &key, const db::Value &value) {
        db.exec("INSERT OR REPLACE INTO settings(key, value) VALUES(?, ?)", {key, value});
    }
    void save_periodic(const Periodic &p) {
        save_setting("periodic.enable", int64_t(p.enable));
        save_setting("periodic.days", int64_t(p.days));
        save_setting("periodic.minutes", int64_t(p.minutes));
    }
    void save_email(const EmailConf &e) {
        save_setting("email.from", e.from);
        save_setting("email.reply_to", e.reply_to);
        save_setting("email.return_receipt", e.receipt);
        save_setting("email.server", e.server);
        save_setting("email.address_type", int64_t(e.type));
        save_setting("email.port", int64_t(e.port));
    }
    void save_status(const Status &s) {
        save_setting("status.sec", int64_t(s.sec));
        save_setting("status.usec", int64_t(s.usec));
        save_setting("status.sent", int64_t(s.sent));
        save_setting("status.message_status", int64_t(s.message_status));
        save_setting("status.error_code", int64_t(s.error_code));
        save_setting("status.error_message", s.error_message);
    }
    void save_profile(const std::string &name, const Profile &p) {
        db.exec("INSERT OR REPLACE INTO profiles(name, transport, format, max_size, row_status, "
                "level) VALUES(?, ?, ?, ?, ?, ?)",
                {name, int64_t(p.transport), int64_t(p.format), int64_t(p.max_size),
                 int64_t(p.row_status), int64_t(p.level)});
    }

    // Runs `write` in one transaction, committed (durably) before returning.
    template <class F> void write_through(F &&write) {
        db::Transaction tx(db);
        write();
        tx.commit();
    }

    // ---- channel ----

    CmiReply dispatch(const CmiRequest &r) {
        int type = r.msg_type;
        if (type == VELD_GET_REQ) {
            type = GET_REQ;
        } else if (type == VELD_GETNEXT_REQ) {
            type = GETNEXT_REQ;
        }
        if (type < GET_REQ || type > DELETE_REQ) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        switch (r.opcode) {
        case CALLHOME_INFO_OPC:
            return op_info(type, r.record);
        case CALLHOME_EMAIL_CONF_OPC:
            return op_email_conf(type, r.record);
        case CALLHOME_ENABLE_OPC:
            return op_switch(type, r.record, true);
        case CALLHOME_MSG_THROTTLING_OPC:
            return op_switch(type, r.record, false);
        case CALLHOME_PERIODIC_INVENTORY_OPC:
            return op_periodic(type, r.record);
        case CALLHOME_STATUS_OPC:
            return op_status(type, r.record);
        case CALLHOME_ALERT_ACTION_OPC:
            return op_alert_action(type, r.record);
        case CALLHOME_DEST_PROFILE_OPC:
            return op_profile(type, r.record);
        case CALLHOME_DEST_EMAIL_OPC:
            return op_dest_email(type, r.record);
        case CALLHOME_ALERTGROUP_TYPE_OPC:
            return op_group_type(type, r.record);
        case CALLHOME_PROFILE_ALERTGROUP_OPC:
            return op_profile_group(type, r.record);
        case CALLHOME_USER_DEF_CMD_OPC:
            return op_user_cmd(type, r.record);
        default:
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
    }

    // A scalar read needs no key: the request may carry the record (as the module sends
    // it) or nothing at all.
    template <class T> static bool scalar_get_ok(const Bytes &b) {
        return b.empty() || b.size() == sizeof(T);
    }

    CmiReply op_info(int type, const Bytes &b) {
        cmi_callhome_info_t rec;
        if (!load(b, rec)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        const std::string name = FIELD(rec, info_name);
        if (type == GET_REQ) {
            const auto it = info.find(name);
            if (it == info.end()) {
                return answer(CALLHOME_UNKNOWN_ENTRY);
            }
            cmi_callhome_info_t out{};
            PUT(out, info_name, name);
            PUT(out, info_value, it->second);
            return answer_record(out);
        }
        if (type != SET_REQ || !known_info(name)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        const std::string value = FIELD(rec, info_value);
        if (!validate::printable(value)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        if (name == "sysContactEmail" && !validate::email(value)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        if (name == "priority" && (value.size() != 1 || value[0] < '0' || value[0] > '7')) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        if (value.empty()) {
            // An empty value clears the object: it reads as never set again.
            write_through([&] { db.exec("DELETE FROM info WHERE name = ?", {name}); });
            info.erase(name);
        } else {
            write_through([&] {
                db.exec("INSERT OR REPLACE INTO info(name, value) VALUES(?, ?)", {name, value});
            });
            info[name] = value;
        }
        return answer(CALLHOME_SUCCESS);
    }

    CmiReply op_email_conf(int type, const Bytes &b) {
        if (type == GET_REQ) {
            if (!scalar_get_ok<cmi_email_conf_t>(b)) {
                return answer(CALLHOME_ERR_INVALID_INPUT);
            }
            cmi_email_conf_t out{};
            PUT(out, from_email_addr, email.from);
            PUT(out, reply_to, email.reply_to);
            PUT(out, return_receipt_addr, email.receipt);
            PUT(out, smtp_server, email.server);
            out.address_type = to_be(email.type);
            out.smtp_server_port = to_be(email.port);
            return answer_record(out);
        }
        cmi_email_conf_t rec;
        if (type != SET_REQ || !load(b, rec)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        EmailConf e;
        e.from = FIELD(rec, from_email_addr);
        e.reply_to = FIELD(rec, reply_to);
        e.receipt = FIELD(rec, return_receipt_addr);
        e.server = FIELD(rec, smtp_server);
        e.type = be(rec.address_type);
        e.port = be(rec.smtp_server_port);
        for (const std::string *addr : {&e.from, &e.reply_to, &e.receipt}) {
            if (!addr->empty() && !validate::email(*addr)) {
                return answer(CALLHOME_ERR_INVALID_INPUT);
            }
        }
        bool server_ok;
        switch (e.type) {
        case CALLHOME_ADDR_IPV4:
            server_ok = e.server.empty() || validate::ipv4(e.server);
            break;
        case CALLHOME_ADDR_IPV6:
            server_ok = e.server.empty() || validate::ipv6(e.server);
            break;
        case CALLHOME_ADDR_DNS:
            server_ok = e.server.empty() || validate::host_name(e.server);
            break;
        default:
            server_ok = false;
        }
        if (!server_ok || e.port < 1 || e.port > 65535) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        write_through([&] { save_email(e); });
        email = e;
        return answer(CALLHOME_SUCCESS);
    }

    bool contact_complete() const {
        for (const char *n : {"sysContactEmail", "sysContactPhoneNumber", "sysStreetAddress"}) {
            const auto it = info.find(n);
            if (it == info.end() || it->second.empty()) {
                return false;
            }
        }
        return true;
    }

    CmiReply op_switch(int type, const Bytes &b, bool is_enable) {
        bool &value = is_enable ? enabled : throttling;
        if (type == GET_REQ) {
            if (!scalar_get_ok<callhome_switch_t>(b)) {
                return answer(CALLHOME_ERR_INVALID_INPUT);
            }
            callhome_switch_t out{};
            out.value = to_be(value ? 1 : 0);
            return answer_record(out);
        }
        callhome_switch_t rec;
        if (type != SET_REQ || !load(b, rec)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        const bool on = be(rec.value) != 0;
        // Messages need someone to answer them: no switching on without the contact.
        if (is_enable && on && !contact_complete()) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        write_through([&] { save_setting(is_enable ? "enabled" : "throttling", int64_t(on)); });
        value = on;
        return answer(CALLHOME_SUCCESS);
    }

    CmiReply op_periodic(int type, const Bytes &b) {
        if (type == GET_REQ) {
            if (!scalar_get_ok<callhome_periodic_inventory_t>(b)) {
                return answer(CALLHOME_ERR_INVALID_INPUT);
            }
            callhome_periodic_inventory_t out{};
            out.enable = to_be(periodic.enable);
            out.time_frame = to_be(periodic.days);
            out.time_of_day = to_be(periodic.minutes);
            return answer_record(out);
        }
        callhome_periodic_inventory_t rec;
        if (type != SET_REQ || !load(b, rec)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        Periodic p;
        p.enable = be(rec.enable);
        p.days = be(rec.time_frame);
        p.minutes = be(rec.time_of_day);
        if (p.enable > 1 || p.days < 1 || p.days > 30 || p.minutes > 1439) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        write_through([&] { save_periodic(p); });
        periodic = p;
        return answer(CALLHOME_SUCCESS);
    }

    CmiReply op_status(int type, const Bytes &b) {
        if (type != GET_REQ || !scalar_get_ok<callhome_status_t>(b)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        callhome_status_t out{};
        out.last_alert_sent.tv_sec = to_be(status.sec);
        out.last_alert_sent.tv_usec = to_be(status.usec);
        out.num_alerts_sent = to_be(status.sent);
        out.callhome_message_status = to_be(status.message_status);
        out.callhome_error_code = to_be(status.error_code);
        PUT(out, callhome_error_message, status.error_message);
        return answer_record(out);
    }

    CmiReply op_alert_action(int type, const Bytes &b) {
        callhome_alert_action_t rec;
        if (type != SET_REQ || !load(b, rec) || !enabled) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        const std::string action = FIELD(rec, action);
        std::string group;
        if (action == "Test Call Home") {
            group = "Test";
        } else if (action == "Inventory") {
            group = "Inventory";
        } else {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        timeval now{};
        gettimeofday(&now, nullptr);
        char host[256] = {};
        if (gethostname(host, sizeof host - 1) != 0) {
            std::strcpy(host, "localhost");
        }

        struct Queued {
            std::string profile, recipients;
            int format;
            message::Message msg;
        };
        std::vector<Queued> queued;
        for (const auto &[name, p] : profiles) {
            if (p.row_status != 1 || p.emails.empty() ||
                (!p.groups.count(group) && !p.groups.count(kAll))) {
                continue;
            }
            std::string recipients;
            for (const auto &[idx, addr] : p.emails) {
                recipients += (recipients.empty() ? "" : ", ") + addr;
            }
            message::Input in{action, info, int64_t(now.tv_sec), host, name};
            queued.push_back(
                {name, recipients, p.format, message::compose(in, p.format, p.max_size)});
        }

        Status s = status;
        if (queued.empty()) {
            s.message_status = 3;
            s.error_code = uint32_t(kNoDestination);
            s.error_message = "no active destination profile with e-mail addresses subscribes "
                              "to the " +
                              group + " alert group";
        } else {
            s.sec = uint32_t(now.tv_sec);
            s.usec = uint32_t(now.tv_usec);
            s.sent += uint32_t(queued.size());
            s.message_status = 1;
            s.error_code = 0;
            s.error_message.clear();
        }
        write_through([&] {
            for (const auto &q : queued) {
                db.exec("INSERT INTO outbox(created_sec, created_usec, profile, recipients, "
                        "format, subject, body, state) VALUES(?, ?, ?, ?, ?, ?, ?, 'queued')",
                        {int64_t(now.tv_sec), int64_t(now.tv_usec), q.profile, q.recipients,
                         int64_t(q.format), q.msg.subject, q.msg.body});
            }
            save_status(s);
        });
        status = s;
        return answer(CALLHOME_SUCCESS);
    }

    // ---- destination profiles ----

    static void fill(callHomeDestProfileEntry &out, const std::string &name, const Profile &p) {
        out = {};
        PUT(out, destination_profile_id, name);
        out.transport_method = to_be_signed(p.transport);
        out.format_method = to_be_signed(p.format);
        out.maximum_message_size = to_be(p.max_size);
        out.row_status = to_be_signed(p.row_status);
        out.msg_level = int8_t(p.level);
    }

    static bool valid_profile_name(const std::string &name) {
        return !name.empty() && name.size() <= CALLHOME_PROFILE_ID_LEN - 1 && name.front() != ' ' &&
               name.back() != ' ' && validate::printable(name);
    }

    CmiReply op_profile(int type, const Bytes &b) {
        callHomeDestProfileEntry rec;
        if (!load(b, rec)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        const std::string key = FIELD(rec, destination_profile_id);
        callHomeDestProfileEntry out;
        switch (type) {
        case GET_REQ: {
            const auto it = profiles.find(key);
            if (it == profiles.end()) {
                return answer(CALLHOME_UNKNOWN_ENTRY);
            }
            fill(out, it->first, it->second);
            return answer_record(out);
        }
        case GETNEXT_REQ: {
            const auto it = profiles.upper_bound(key);
            if (it == profiles.end()) {
                return answer(CALLHOME_END_OF_TABLE);
            }
            fill(out, it->first, it->second);
            return answer_record(out);
        }
        case SET_REQ: {
            Profile p;
            p.transport = be_signed(rec.transport_method);
            p.format = be_signed(rec.format_method);
            p.max_size = be(rec.maximum_message_size);
            p.level = rec.msg_level;
            p.row_status = 1;
            if (!valid_profile_name(key) || p.format < 1 || p.format > 3 || p.transport != 1 ||
                p.max_size > kMaxMessageSize || p.level < 0 || p.level > 9) {
                return answer(CALLHOME_ERR_INVALID_INPUT);
            }
            const auto it = profiles.find(key);
            if (it == profiles.end() && profiles.size() >= size_t(CALLHOME_MAX_PROFILES)) {
                return answer(CALLHOME_ERR_INVALID_INPUT);
            }
            write_through([&] { save_profile(key, p); });
            if (it == profiles.end()) {
                profiles.emplace(key, std::move(p));
            } else {
                // Replacing the row keeps its addresses and alert groups.
                p.emails = std::move(it->second.emails);
                p.groups = std::move(it->second.groups);
                it->second = std::move(p);
            }
            return answer(CALLHOME_SUCCESS);
        }
        default: { // DELETE
            if (is_builtin(key)) {
                return answer(CALLHOME_ERR_BUILTIN_PROFILE);
            }
            const auto it = profiles.find(key);
            if (it == profiles.end()) {
                return answer(CALLHOME_UNKNOWN_ENTRY);
            }
            write_through([&] {
                db.exec("DELETE FROM profile_emails WHERE profile = ?", {key});
                db.exec("DELETE FROM profile_groups WHERE profile = ?", {key});
                db.exec("DELETE FROM profiles WHERE name = ?", {key});
            });
            profiles.erase(it);
            return answer(CALLHOME_SUCCESS);
        }
        }
    }

    // ---- destination e-mail addresses ----

    static CmiReply email_row(const std::string &profile, int32_t idx, const std::string &addr) {
        callHomeDestEmailAddressEntry out{};
        PUT(out, destination_profile_id, profile);
        PUT(out, email_addr, addr);
        out.index = to_be_signed(idx);
        out.row_status = to_be_signed(1);
        return answer_record(out);
    }

    CmiReply op_dest_email(int type, const Bytes &b) {
        callHomeDestEmailAddressEntry rec;
        if (!load(b, rec)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        const std::string key = FIELD(rec, destination_profile_id);
        const int32_t idx = be_signed(rec.index);
        switch (type) {
        case GET_REQ: {
            const auto p = profiles.find(key);
            if (p == profiles.end()) {
                return answer(CALLHOME_UNKNOWN_ENTRY);
            }
            const auto e = p->second.emails.find(idx);
            if (e == p->second.emails.end()) {
                return answer(CALLHOME_UNKNOWN_ENTRY);
            }
            return email_row(p->first, e->first, e->second);
        }
        case GETNEXT_REQ: {
            for (auto p = profiles.lower_bound(key); p != profiles.end(); ++p) {
                const auto &emails = p->second.emails;
                const auto e = p->first == key ? emails.upper_bound(idx) : emails.begin();
                if (e != emails.end()) {
                    return email_row(p->first, e->first, e->second);
                }
            }
            return answer(CALLHOME_END_OF_TABLE);
        }
        case SET_REQ: {
            const std::string addr = FIELD(rec, email_addr);
            if (idx < 1 || !validate::email(addr)) {
                return answer(CALLHOME_ERR_INVALID_INPUT);
            }
            const auto p = profiles.find(key);
            if (p == profiles.end()) {
                return answer(CALLHOME_UNKNOWN_ENTRY);
            }
            write_through([&] {
                db.exec("INSERT OR REPLACE INTO profile_emails(profile, idx, address) "
                        "VALUES(?, ?, ?)",
                        {key, int64_t(idx), addr});
            });
            p->second.emails[idx] = addr;
            return answer(CALLHOME_SUCCESS);
        }
        default: { // DELETE
            const auto p = profiles.find(key);
            if (p == profiles.end() || !p->second.emails.count(idx)) {
                return answer(CALLHOME_UNKNOWN_ENTRY);
            }
            write_through([&] {
                db.exec("DELETE FROM profile_emails WHERE profile = ? AND idx = ?",
                        {key, int64_t(idx)});
            });
            p->second.emails.erase(idx);
            return answer(CALLHOME_SUCCESS);
        }
        }
    }

    // ---- alert-group types ----

    static CmiReply type_row(uint32_t idx, const std::string &name) {
        callhome_alertgroup_type_t out{};
        out.index = to_be(idx);
        PUT(out, grp_name, name);
        return answer_record(out);
    }

    CmiReply op_group_type(int type, const Bytes &b) {
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
            return it == types.end() ? answer(CALLHOME_END_OF_TABLE)
                                     : type_row(it->first, it->second);
        }
        // Types change only through the admin interface.
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }

    std::optional<uint32_t> type_index(const std::string &name) const {
        for (const auto &[idx, n] : types) {
            if (n == name) {
                return idx;
            }
        }
        return std::nullopt;
    }

    // ---- profile alert groups ----

    static CmiReply group_row(const std::string &profile, const std::string &group) {
        callHomeAlertGroupEntry out{};
        PUT(out, destination_profile_id, profile);
        out.row_status = to_be_signed(1);
        PUT(out, alert_group, group);
        return answer_record(out);
    }

    CmiReply op_profile_group(int type, const Bytes &b) {
        callHomeAlertGroupEntry rec;
        if (!load(b, rec)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        const std::string key = FIELD(rec, destination_profile_id);
        const std::string group = FIELD(rec, alert_group);
        switch (type) {
        case GET_REQ: {
            const auto p = profiles.find(key);
            if (p == profiles.end() || !p->second.groups.count(group)) {
                return answer(CALLHOME_UNKNOWN_ENTRY);
            }
            return group_row(key, group);
        }
        case GETNEXT_REQ: {
            for (auto p = profiles.lower_bound(key); p != profiles.end(); ++p) {
                const auto &groups = p->second.groups;
                const auto g = p->first == key ? groups.upper_bound(group) : groups.begin();
                if (g != groups.end()) {
                    return group_row(p->first, *g);
                }
            }
            return answer(CALLHOME_END_OF_TABLE);
        }
        case SET_REQ: {
            const auto p = profiles.find(key);
            if (p == profiles.end()) {
                return answer(CALLHOME_UNKNOWN_ENTRY);
            }
            auto &groups = p->second.groups;
            if (group == kAll) {
                write_through([&] {
                    db.exec("DELETE FROM profile_groups WHERE profile = ?", {key});
                    db.exec("INSERT INTO profile_groups(profile, grp) VALUES(?, ?)", {key, group});
                });
                groups = {group};
                return answer(CALLHOME_SUCCESS);
            }
            // "all" already covers every type: a single type next to it would be ambiguous.
            if (!type_index(group) || groups.count(kAll)) {
                return answer(CALLHOME_ERR_INVALID_INPUT);
            }
            write_through([&] {
                db.exec("INSERT OR REPLACE INTO profile_groups(profile, grp) VALUES(?, ?)",
                        {key, group});
            });
            groups.insert(group);
            return answer(CALLHOME_SUCCESS);
        }
        default: { // DELETE
            const auto p = profiles.find(key);
            if (p == profiles.end() || !p->second.groups.count(group)) {
                return answer(CALLHOME_UNKNOWN_ENTRY);
            }
            write_through([&] {
                db.exec("DELETE FROM profile_groups WHERE profile = ? AND grp = ?", {key, group});
            });
            p->second.groups.erase(group);
            return answer(CALLHOME_SUCCESS);
        }
        }
    }

    // ---- user-defined commands ----

    CmiReply cmd_row(const CmdKey &k, const std::string &cmd) const {
        cmi_userdef_cli_cmd_t out{};
        out.index = to_be_signed(k.second);
        PUT(out, alertgroup_type, types.at(k.first));
        out.row_status = to_be_signed(1);
        PUT(out, cli_cmd, cmd);
        return answer_record(out);
    }

    CmiReply op_user_cmd(int type, const Bytes &b) {
        cmi_userdef_cli_cmd_t rec;
        if (!load(b, rec)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        const std::string type_name = FIELD(rec, alertgroup_type);
        const int32_t idx = be_signed(rec.index);
        if (type == GETNEXT_REQ) {
            auto it = commands.begin();
            if (!type_name.empty()) {
                const auto t = type_index(type_name);
                if (!t) {
                    return answer(CALLHOME_UNKNOWN_ENTRY);
                }
                it = commands.upper_bound({*t, idx});
            }
            return it == commands.end() ? answer(CALLHOME_END_OF_TABLE)
                                        : cmd_row(it->first, it->second);
        }
        const auto t = type_index(type_name);
        if (!t) {
            return answer(CALLHOME_UNKNOWN_ENTRY);
        }
        const CmdKey k{*t, idx};
        switch (type) {
        case GET_REQ: {
            const auto it = commands.find(k);
            return it == commands.end() ? answer(CALLHOME_UNKNOWN_ENTRY)
                                        : cmd_row(it->first, it->second);
        }
        case SET_REQ: {
            const std::string cmd = FIELD(rec, cli_cmd);
            if (idx < 1 || idx > kMaxUserCmdIndex || cmd.empty() ||
                cmd.size() >= sizeof(rec.cli_cmd)) {
                return answer(CALLHOME_ERR_INVALID_INPUT);
            }
            write_through([&] {
                db.exec("INSERT OR REPLACE INTO user_commands(type_idx, idx, command) "
                        "VALUES(?, ?, ?)",
                        {int64_t(k.first), int64_t(k.second), cmd});
            });
            commands[k] = cmd;
            return answer(CALLHOME_SUCCESS);
        }
        default: { // DELETE
            if (!commands.count(k)) {
                return answer(CALLHOME_UNKNOWN_ENTRY);
            }
            write_through([&] {
                db.exec("DELETE FROM user_commands WHERE type_idx = ? AND idx = ?",
                        {int64_t(k.first), int64_t(k.second)});
            });
            commands.erase(k);
            return answer(CALLHOME_SUCCESS);
        }
        }
    }

    // ---- notifications ----

    void notify(int32_t id, const Bytes &payload) {
        if (notifier) {
            notifier(id, payload);
        }
    }

    static Bytes type_payload(uint32_t idx, const std::string &name) {
        Bytes p(4 + name.size() + 1, 0);
        platform::frame::put_u32(p.data(), idx);
        std::memcpy(p.data() + 4, name.data(), name.size());
        return p;
    }

    // ---- admin ----

    std::pair<int, std::string> admin(const AdminCommand &c) {
        using Op = AdminCommand::Op;
        switch (c.op) {
        case Op::Ping:
            return {0, "ok\n"};
        case Op::Dump:
            return {0, dump()};
        case Op::Outbox:
            return {0, outbox()};
        case Op::GroupAdd:
            return group_add(c.name);
        case Op::GroupDel:
            return group_del(c.name);
        case Op::Distribution: {
            write_through([&] {
                save_setting("distribution.enabled", int64_t(c.enabled));
                save_setting("distribution.mode", int64_t(c.mode));
            });
            dist_enabled = c.enabled;
            dist_mode = c.mode;
            Bytes payload(8);
            platform::frame::put_u32(payload.data(), c.enabled ? 1 : 0);
            platform::frame::put_u32(payload.data() + 4, c.mode);
            notify(platform::frame::kDistributionStateNotif, payload);
            return {0, std::string("distribution ") + (c.enabled ? "on" : "off") + " mode " +
                           std::to_string(c.mode) + "\n"};
        }
        case Op::FaultClear:
            faults.clear();
            return {0, "faults cleared\n"};
        case Op::FaultStatus:
        case Op::FaultDelay:
        case Op::FaultDrop: {
            Fault f{c.opcode, c.type, c.count, {}};
            f.action.kind = c.op == Op::FaultStatus  ? FaultAction::Kind::Status
                            : c.op == Op::FaultDelay ? FaultAction::Kind::Delay
                                                     : FaultAction::Kind::Drop;
            f.action.status = c.status;
            f.action.delay_ms = c.delay_ms;
            faults.push_back(f);
            return {0, "fault armed for opcode " + std::to_string(c.opcode) + " (" +
                           std::to_string(c.count) + " request(s))\n"};
        }
        }
        return {2, kAdminUsage};
    }

    std::pair<int, std::string> group_add(const std::string &name) {
        if (name.empty() || name.size() > 255 || !validate::printable(name) || name == kAll) {
            return {1, "invalid alert-group type name '" + name +
                           "' (1 to 255 printable characters, not 'all')\n"};
        }
        if (type_index(name)) {
            return {1, "alert-group type '" + name + "' already exists\n"};
        }
        uint32_t idx = 1;
        while (types.count(idx)) {
            ++idx;
        }
        if (idx > kMaxTypes) {
            return {1, "too many alert-group types (at most " + std::to_string(kMaxTypes) + ")\n"};
        }
        write_through([&] {
            db.exec("INSERT INTO group_types(idx, name) VALUES(?, ?)", {int64_t(idx), name});
        });
        types[idx] = name;
        notify(CALLHOME_ALERTGROUP_ADDED_NOTIF, type_payload(idx, name));
        return {0, "added alert-group type " + std::to_string(idx) + " " + name + "\n"};
    }

    std::pair<int, std::string> group_del(const std::string &name) {
        const auto idx = type_index(name);
        if (!idx) {
            return {1, "no alert-group type '" + name + "'\n"};
        }
        write_through([&] {
            db.exec("DELETE FROM profile_groups WHERE grp = ?", {name});
            db.exec("DELETE FROM user_commands WHERE type_idx = ?", {int64_t(*idx)});
            db.exec("DELETE FROM group_types WHERE idx = ?", {int64_t(*idx)});
        });
        types.erase(*idx);
        for (auto &[pname, p] : profiles) {
            p.groups.erase(name);
        }
        for (auto it = commands.begin(); it != commands.end();) {
            it = it->first.first == *idx ? commands.erase(it) : std::next(it);
        }
        notify(CALLHOME_ALERTGROUP_DELETED_NOTIF, type_payload(*idx, name));
        return {0, "removed alert-group type " + std::to_string(*idx) + " " + name + "\n"};
    }

    std::string dump() const {
        json::Writer w;
        w.begin_object();
        w.field("enabled", enabled);
        w.key("info").begin_object();
        for (const auto &[k, v] : info) {
            w.field(k, v);
        }
        w.end_object();
        w.key("email").begin_object();
        w.field("from", email.from);
        w.field("reply_to", email.reply_to);
        w.field("return_receipt", email.receipt);
        w.field("smtp_server", email.server);
        w.field("address_type", email.type);
        w.field("port", email.port);
        w.end_object();
        w.field("throttling", throttling);
        w.key("periodic_inventory").begin_object();
        w.field("enabled", periodic.enable != 0);
        w.field("days", periodic.days);
        w.field("time_of_day", periodic.minutes);
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
        for (const auto &[name, p] : profiles) {
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
        for (const auto &[idx, name] : types) {
            w.begin_object().field("index", idx).field("name", name).end_object();
        }
        w.end_array();
        w.key("user_commands").begin_array();
        for (const auto &[k, cmd] : commands) {
            w.begin_object()
                .field("type", types.at(k.first))
                .field("type_index", k.first)
                .field("index", k.second)
                .field("command", cmd)
                .end_object();
        }
        w.end_array();
        w.key("distribution").begin_object();
        w.field("enabled", dist_enabled);
        w.field("mode", dist_mode);
        w.end_object();
        w.end_object();
        return w.str();
    }

    std::string outbox() {
        json::Writer w;
        w.begin_array();
        db.query("SELECT id, created_sec, created_usec, profile, recipients, format, subject, "
                 "body, state, attempts, last_error FROM outbox ORDER BY id",
                 {}, [&](const db::Row &r) {
                     w.begin_object();
                     w.field("id", r.integer(0));
                     w.field("time_sec", r.integer(1));
                     w.field("time_usec", r.integer(2));
                     w.field("profile", r.text(3));
                     w.field("recipients", r.text(4));
                     w.field("format", r.integer(5));
                     w.field("subject", r.text(6));
                     w.field("body", r.text(7));
                     w.field("state", r.text(8));
                     w.field("attempts", r.integer(9));
                     w.field("last_error", r.text(10));
                     w.end_object();
                 });
        w.end_array();
        return w.str();
    }

    // ---- faults ----

    FaultAction take_fault(int opcode, int msg_type, bool status_only) {
        for (auto it = faults.begin(); it != faults.end(); ++it) {
            if (it->opcode != opcode || (it->type && *it->type != msg_type)) {
                continue;
            }
            if (status_only && it->action.kind != FaultAction::Kind::Status) {
                continue;
            }
            const FaultAction a = it->action;
            if (--it->remaining <= 0) {
                faults.erase(it);
            }
            return a;
        }
        return {};
    }

    CmiReply process(const CmiRequest &r) {
        try {
            return dispatch(r);
        } catch (const std::bad_alloc &) {
            return answer(CALLHOME_ERR_NO_MEMORY);
        } catch (const std::exception &) {
            // The store refused the change: nothing was applied, and the caller learns
            // that no status could be had.
            return answer(-1);
        }
    }

    db::Database db;
    bool enabled = false;
    bool throttling = true;
    std::map<std::string, std::string> info;
    EmailConf email;
    Status status;
    Periodic periodic;
    std::map<std::string, Profile, OidOrder> profiles;
    std::map<uint32_t, std::string> types;
    std::map<CmdKey, std::string> commands;
    bool dist_enabled = false;
    uint32_t dist_mode = 0;
    std::vector<Fault> faults;
    Notifier notifier;
};

Service::Service(const std::string &db_path) : impl_(std::make_unique<Impl>(db_path)) {}

Service::~Service() = default;

platform::CmiReply Service::handle(const platform::CmiRequest &request) {
    const FaultAction f = impl_->take_fault(request.opcode, request.msg_type, true);
    if (f.kind == FaultAction::Kind::Status) {
        return answer(f.status);
    }
    return impl_->process(request);
}

platform::CmiReply Service::process(const platform::CmiRequest &request) {
    return impl_->process(request);
}

FaultAction Service::take_fault(int opcode, int msg_type) {
    return impl_->take_fault(opcode, msg_type, false);
}

std::pair<int, std::string> Service::admin(const std::vector<std::string> &args) {
    auto parsed = parse_admin(args);
    if (auto *err = std::get_if<AdminUsageError>(&parsed)) {
        return {2, err->message};
    }
    try {
        return impl_->admin(std::get<AdminCommand>(parsed));
    } catch (const std::exception &e) {
        return {1, std::string("command failed: ") + e.what() + "\n"};
    }
}

void Service::set_notifier(Notifier notifier) {
    impl_->notifier = std::move(notifier);
}

} // namespace callhome
