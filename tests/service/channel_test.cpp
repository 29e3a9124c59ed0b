// The service's answers on the request channel, hosted in-process.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "callhome/service.hpp"
#include "json.hpp"
#include "golden.hpp"
#include "records.hpp"
#include "run_command.hpp"

using namespace svc_test;

namespace {

// Words of the transcript: "quoted" keeps blanks; each word unescaped.
Strings words(const std::string &line) {
    Strings out;
    bool quoted = false, in = false;
    for (char c : line) {
        if (c == ' ' && !quoted) {
            in = false;
            continue;
        }
        if (!in) {
            out.emplace_back();
            in = true;
        }
        if (c == '"') {
            quoted = !quoted;
        } else {
            out.back() += c;
        }
    }
    for (auto &w : out) {
        w = callhome_test::unescaped(w);
    }
    return out;
}
using callhome_test::escaped;

std::string arg(const Strings &a, size_t i, const char *fallback = "") {
    return i < a.size() ? a[i] : fallback;
}
long num(const Strings &a, size_t i, long fallback = 0) {
    return i < a.size() ? std::stol(a[i], nullptr, 0) : fallback;
}
// Fields as the transcript shows them: texts quoted, numbers from network order.
template <size_t N> std::string f(const char (&field)[N]) {
    return "\"" + text(field) + "\"";
}
template <class T> std::string f(T v) {
    return std::to_string(sizeof v == 1 ? v : be(v));
}
template <class... T> std::string fields(const T &...v) {
    std::string out;
    ((out += (out.empty() ? "" : " ") + v), ...);
    return out;
}

// The tables by the transcript's word for them: opcode, the record built from the words after
// the request type, the record shown (or its length when it is none of the table's).
struct Table {
    const char *word;
    int op;
    Bytes (*build)(const Strings &a);
    std::string (*show)(const Bytes &b);
};
#define SHOW(R, ...)                                                                               \
    [](const Bytes &b) {                                                                           \
        const R r = record_of<R>(b);                                                               \
        return b.size() == sizeof r ? fields(__VA_ARGS__) : std::to_string(b.size()) + " bytes";   \
    }
// clang-format off
const Table kTables[] = {
    {"info", CALLHOME_INFO_OPC, [](const Strings &a) { return info_rec(arg(a, 0), arg(a, 1)); }, SHOW(cmi_callhome_info_t, f(r.info_name), f(r.info_value))},
    {"mail", CALLHOME_EMAIL_CONF_OPC, [](const Strings &a) { return email_conf_rec(arg(a, 0), arg(a, 1), arg(a, 2), arg(a, 3), num(a, 4, 16), num(a, 5, 25)); }, SHOW(cmi_email_conf_t, f(r.from_email_addr), f(r.reply_to), f(r.return_receipt_addr), f(r.smtp_server), f(r.address_type), f(r.smtp_server_port))},
    {"enable", CALLHOME_ENABLE_OPC, [](const Strings &a) { return switch_rec(num(a, 0)); }, SHOW(callhome_switch_t, f(r.value))},
    {"throttle", CALLHOME_MSG_THROTTLING_OPC, [](const Strings &a) { return switch_rec(num(a, 0)); }, SHOW(callhome_switch_t, f(r.value))},
    {"periodic", CALLHOME_PERIODIC_INVENTORY_OPC, [](const Strings &a) { return periodic_rec(num(a, 0), num(a, 1), num(a, 2)); }, SHOW(callhome_periodic_inventory_t, f(r.enable), f(r.time_frame), f(r.time_of_day))},
    {"status", CALLHOME_STATUS_OPC, [](const Strings &) { return Bytes(); }, SHOW(callhome_status_t, f(r.callhome_message_status), f(r.num_alerts_sent), f(r.last_alert_sent.tv_sec), f(r.callhome_error_code), f(r.callhome_error_message))},
    {"action", CALLHOME_ALERT_ACTION_OPC, [](const Strings &a) { return action_rec(arg(a, 0)); }, SHOW(callhome_alert_action_t, f(r.action))},
    {"profile", CALLHOME_DEST_PROFILE_OPC, [](const Strings &a) { return profile_rec(arg(a, 0), num(a, 1, 1), num(a, 2), num(a, 3, 1), num(a, 4)); }, SHOW(callHomeDestProfileEntry, f(r.destination_profile_id), f(r.format_method), f(r.maximum_message_size), f(r.transport_method), f(r.row_status), f(r.msg_level))},
    {"addr", CALLHOME_DEST_EMAIL_OPC, [](const Strings &a) { return dest_email_rec(arg(a, 0), num(a, 1), arg(a, 2)); }, SHOW(callHomeDestEmailAddressEntry, f(r.destination_profile_id), f(r.index), f(r.email_addr), f(r.row_status))},
    {"type", CALLHOME_ALERTGROUP_TYPE_OPC, [](const Strings &a) { return group_type_rec(num(a, 0)); }, SHOW(callhome_alertgroup_type_t, f(r.index), f(r.grp_name))},
    {"group", CALLHOME_PROFILE_ALERTGROUP_OPC, [](const Strings &a) { return profile_group_rec(arg(a, 0), arg(a, 1)); }, SHOW(callHomeAlertGroupEntry, f(r.destination_profile_id), f(r.alert_group))},
    {"cmd", CALLHOME_USER_DEF_CMD_OPC, [](const Strings &a) { return user_cmd_rec(arg(a, 0), num(a, 1), arg(a, 2)); }, SHOW(cmi_userdef_cli_cmd_t, f(r.alertgroup_type), f(r.index), f(r.cli_cmd), f(r.row_status))},
};
// clang-format on
#undef SHOW
// clang-format off
const std::pair<const char *, int> kTypes[] = {{"get", GET_REQ}, {"next", GETNEXT_REQ}, {"set", SET_REQ}, {"del", DELETE_REQ}, {"vget", VELD_GET_REQ}, {"vnext", VELD_GETNEXT_REQ}};
const std::pair<int, const char *> kStatuses[] = {{0, "ok"}, {CALLHOME_ERR_INVALID_INPUT, "invalid"}, {CALLHOME_UNKNOWN_ENTRY, "unknown"}, {CALLHOME_END_OF_TABLE, "end"}, {CALLHOME_ERR_BUILTIN_PROFILE, "builtin"}, {CALLHOME_ERR_VELD_RESEND, "resend"}};
// clang-format on

// golden/channel.txt: every "> " line is run, and the lines up to the next one must be its
// answer; "#" lines and blank lines are kept as they are.
class Transcript {
  public:
    // One line of the transcript (its language: the file's head).
    std::string run(Strings w) {
        if (w[0] == "reset" || w[0] == "restart") {
            const std::string before = svc ? svc->admin({"dump"}).second : "";
            svc.reset();
            if (w[0] == "reset") {
                db = dir / ("db" + std::to_string(++resets));
                now = 1773144000; // 2026-03-10 12:00, local time UTC (set by the test)
            }
            svc = std::make_unique<callhome::Service>(db);
            svc->set_clock([this] { return now; });
            svc->set_notifier([&](int32_t id, const Bytes &p) { notified.emplace_back(id, p); });
            return w[0] == "reset"                         ? ""
                   : svc->admin({"dump"}).second == before ? "same\n"
                                                           : "lost\n";
        }
        if (w[0] == "clock") {
            now += std::stol(w[1]);
            return "";
        }
        if (w[0] == "outbox") {
            return outbox(svc->admin({"outbox"}).second);
        }
        if (w[0] == "tick" || w[0] == "wait") { // the service's event loop, once
            pollfd p{svc->event_fd(), POLLIN, 0};
            const std::string out = w[0] == "tick" ? "timeout " + std::to_string(svc->timeout_ms())
                                    : poll(&p, 1, 10000) == 1 ? "event"
                                                              : "no event";
            svc->on_event();
            return out + "\n";
        }
        if (w[0] == "dump") {
            std::istringstream in(svc->admin({"dump"}).second);
            std::string out;
            for (std::string line; std::getline(in, line);) {
                out +=
                    has(line, w[1]) ? escaped(line.substr(line.find_first_not_of(' '))) + "\n" : "";
            }
            return out;
        }
        uint32_t session = 0;
        if (w[0][0] == '@') {
            session = std::stoul(w[0].substr(1));
            w.erase(w.begin());
        }
        const std::string before = svc->admin({"dump"}).second;
        std::string out;
        if (w[0] == "admin") {
            const auto [code, text] = svc->admin(Strings(w.begin() + 1, w.end()));
            const size_t more = count(text, "\n") - (text.empty() ? 0 : 1);
            out = escaped("exit " + std::to_string(code) + " " + text.substr(0, text.find('\n')) +
                          (more > 0 ? " (+" + std::to_string(more) + " lines)" : "")) +
                  "\n";
        } else {
            const bool walk = w[0] == "walk";
            const std::string table = w[walk ? 1 : 0], type = walk ? "next" : w[1];
            const Table *t = nullptr;
            for (const auto &c : kTables) {
                t = table == c.word ? &c : t;
            }
            int op = t != nullptr ? t->op : std::stoi(table), msg = std::atoi(type.c_str());
            for (const auto &[word, value] : kTypes) {
                msg = type == word ? value : msg;
            }
            const Strings a(w.begin() + 2, w.end());
            auto r = request(op, msg,
                             a.size() == 1 && a[0].rfind("bytes:", 0) == 0
                                 ? Bytes(std::stoul(a[0].substr(6)))
                             : t != nullptr ? t->build(a)
                                            : Bytes());
            r.session = session;
            for (auto reply = svc->handle(r);; reply = svc->handle(r)) {
                std::string line;
                for (const auto &[value, word] : kStatuses) {
                    line = reply.status == value ? word : line;
                }
                line = line.empty() ? std::to_string(reply.status) : line;
                line += reply.err != 0 ? " err" : "";
                line += svc->admin({"dump"}).second != before ? " changed" : "";
                if (reply.has_record) {
                    line += ": " + (t != nullptr
                                        ? t->show(reply.record)
                                        : "(" + std::to_string(reply.record.size()) + " bytes)");
                }
                out += escaped(line) + "\n";
                if (!walk || reply.status != 0 || out.size() > 100000) {
                    break;
                }
                r.record = reply.record;
            }
        }
        for (const auto &[id, payload] : notified) {
            out += escaped("notify " + std::to_string(id) + " " +
                           std::string(payload.begin(), payload.end())) +
                   "\n";
        }
        notified.clear();
        return out;
    }

    // The outbox's messages one a line: where each goes, and whether its body was cut, to what
    // length (JSON escapes counted as the one character they stand for); the whole bodies name
    // the host.
    static std::string outbox(const std::string &json) {
        std::istringstream in(json);
        std::string out, msg;
        for (std::string line; std::getline(in, line);) {
            for (const char *key : {"state", "profile", "alert_group", "severity", "recipients"}) {
                const std::string k = "    \"" + std::string(key) + "\": ";
                if (line.rfind(k, 0) == 0) {
                    msg += line.substr(k.size(), line.find_last_not_of(',') + 1 - k.size()) + " ";
                }
            }
            if (const std::string k = "    \"body\": \""; line.rfind(k, 0) == 0) {
                // The commands' headings and first output lines, unescaped enough to find them.
                std::string body = line.substr(k.size(), line.size() - k.size() - 1);
                for (size_t p; (p = body.find("\\n")) != std::string::npos;) {
                    body.replace(p, 2, "\n");
                }
                std::istringstream lines(body);
                for (std::string l, next; std::getline(lines, l); next.clear()) {
                    if (l.rfind("--- ", 0) == 0) {
                        std::getline(lines, next);
                        msg += "[" + l + (next.empty() ? "" : " " + next) + "] ";
                    }
                }
                size_t n = 0;
                for (size_t i = k.size(); i + 1 < line.size(); ++i, ++n) {
                    i += line[i] != '\\' ? 0 : line[i + 1] == 'u' ? 5 : 1;
                }
                const bool cut = line.find("[message cut: ") != std::string::npos;
                out += escaped(msg + (cut ? "cut to " + std::to_string(n) : "whole")) + "\n";
                msg.clear();
            }
        }
        return out;
    }

    callhome_test::TempDir dir;
    std::string db;
    int resets = 0;
    int64_t now = 0;
    std::unique_ptr<callhome::Service> svc;
    std::vector<std::pair<int32_t, Bytes>> notified;
};

TEST(ChannelTranscript, AnswersAsGolden) {
    setenv("TZ", "UTC", 1);
    tzset();
    Transcript t;
    t.run({"reset"});
    std::stringstream log; // the service's log lines, shown after each answer
    std::streambuf *const cerr = std::cerr.rdbuf(log.rdbuf());
    std::ifstream file(GOLDEN_DIR "/channel.txt");
    std::string got;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("> ", 0) == 0) {
            got += line + "\n" + t.run(words(line.substr(2)));
            for (std::string l; std::getline(log, l);) {
                got += escaped(l) + "\n";
            }
            log.clear();
        } else if (line.empty() || line[0] == '#') {
            got += line + "\n";
        }
    }
    std::cerr.rdbuf(cerr);
    callhome_test::expect_golden(GOLDEN_DIR "/channel.txt", got);
}

// A database that is none, or cannot be created, stops the service at its start.
TEST(Durability, JunkIsRefused) {
    EXPECT_THROW(callhome::Service("/nonexistent-dir/sub/c.db"), std::runtime_error);
    const callhome_test::TempDir dir;
    std::ofstream(dir / "junk.db") << "this is not a database, just text long enough to be noticed";
    EXPECT_THROW(callhome::Service(dir / "junk.db"), std::runtime_error);
}

} // namespace

TEST(JsonText, AnyBytesBecomeWellFormedUtf8) {
    const std::pair<std::string, std::string> cases[] = {
        {"plain", "\"plain\""},
        {"q\"\\\n", "\"q\\\"\\\\\\n\""},
        {"\x01\x7f", "\"\\u0001\\u007f\""},
        {"\xc3\xa9\xf0\x9f\x93\x9e", "\"\xc3\xa9\xf0\x9f\x93\x9e\""}, // kept as it is
        {"caf\xe9!", "\"caf\\ufffd!\""},                              // Latin-1
        {"\xe2\x82", "\"\\ufffd\\ufffd\""},                           // cut short
        {"\xc0\xaf", "\"\\ufffd\\ufffd\""},                           // overlong
        {"\xed\xa0\x80", "\"\\ufffd\\ufffd\\ufffd\""},                // surrogate
    };
    for (const auto &[in, out] : cases) {
        callhome::json::Writer w;
        w.value(in);
        EXPECT_EQ(out + "\n", w.str()) << in;
    }
}
