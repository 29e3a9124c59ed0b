#include "message.hpp"

#include "xml.hpp"

#include <ctime>
#include <utility>
#include <vector>

namespace callhome::message {
std::string iso_time(int64_t sec) {
    const time_t t = time_t(sec);
    tm utc{};
    gmtime_r(&t, &utc);
    char buf[32];
    strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return buf;
}

namespace {

using xml::escape;

// The service keeps the priority from 0 ("0" to "7"); the MIB shows it from 1 and reads 8
// while it was never set. Messages show what the MIB shows.
std::string priority(const std::string &stored) {
    if (stored.size() != 1 || stored[0] < '0' || stored[0] > '7') {
        return "8";
    }
    return std::string(1, char(stored[0] + 1));
}

// The labelled fields every message carries, in the order they are shown.
std::vector<std::pair<std::string, std::string>> fields(const Input &in) {
    auto get = [&](const char *name) {
        const auto it = in.info.find(name);
        return it == in.info.end() ? std::string() : it->second;
    };
    std::vector<std::pair<std::string, std::string>> f = {
        {"Message type", in.action},
        {"Time", iso_time(in.time_sec)},
        {"Device", in.host},
        {"Destination profile", in.profile},
    };
    if (in.action == kAlert) {
        f.push_back({"Alert group", in.group});
        f.push_back({"Severity", std::to_string(in.severity)});
    }
    f.insert(f.end(), {
                          {"Customer id", get("custId")},
                          {"Contract id", get("contractId")},
                          {"Site id", get("siteId")},
                          {"Contact e-mail", get("sysContactEmail")},
                          {"Contact phone", get("sysContactPhoneNumber")},
                          {"Street address", get("sysStreetAddress")},
                          {"Service priority", priority(get("priority"))},
                      });
    return f;
}

std::string one_line(std::string s) {
    for (char &c : s) {
        if (c == '\n' || c == '\r' || c == '\t') {
            c = ' ';
        }
    }
    return s;
}

std::string cut_note(size_t left_out) {
    return "\n[message cut: " + std::to_string(left_out) + " bytes left out]\n";
}

} // namespace

void cut(std::string &s, uint32_t max) {
    if (max == 0 || s.size() <= max) {
        return;
    }
    // The note is sized for the largest count it can show, so the whole fits.
    const size_t room = cut_note(s.size()).size();
    size_t n = max > room ? max - room : 0;
    while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80) {
        --n;
    }
    const size_t left_out = s.size() - n;
    s.resize(n);
    s += cut_note(left_out);
    if (s.size() > max) {
        s.resize(max); // a maximum smaller than the note itself: the note is cut too
    }
}

Message compose(const Input &in, int format, uint32_t max_size) {
    const bool is_inventory = in.action == kInventory;
    const bool is_alert = in.action == kAlert;
    inventory::Inventory collected;
    const inventory::Inventory *inv = in.inventory;
    if (is_inventory && inv == nullptr) {
        collected = inventory::collect();
        inv = &collected;
    }
    static const std::vector<commands::Result> no_commands;
    const auto &cmds = in.commands ? *in.commands : no_commands;

    Message m;
    if (is_alert) {
        m.subject = "Call home alert " + in.group + " (severity " + std::to_string(in.severity) +
                    ") from " + in.host + (in.subject.empty() ? "" : ": " + one_line(in.subject));
    } else {
        m.subject =
            std::string(is_inventory ? "Call home inventory message" : "Call home test message") +
            " from " + in.host;
    }
    const auto list = fields(in);
    std::string &b = m.body;
    switch (format) {
    case Xml:
        b = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
        b += "<callhome-message type=\"" +
             std::string(is_inventory ? "inventory"
                         : is_alert   ? "alert"
                                      : "test") +
             "\">\n";
        for (const auto &[k, v] : list) {
            b += "  <field name=\"" + escape(k) + "\">" + escape(v) + "</field>\n";
        }
        if (is_alert) {
            b += "  <subject>" + escape(in.subject) + "</subject>\n";
            b += "  <text>" + escape(in.text) + "</text>\n";
            b += "  <commands>\n";
            for (const auto &c : cmds) {
                b += "    <command line=\"" + escape(c.line) + "\" ran=\"" +
                     (c.ran ? "true" : "false") + "\" status=\"" + escape(c.status_text()) + "\">" +
                     escape(c.output) + "</command>\n";
            }
            b += "  </commands>\n";
        }
        if (inv) {
            b += inventory::to_xml(*inv, "  ");
        }
        b += "</callhome-message>\n";
        break;
    case ShortText:
        b = in.action + " " + iso_time(in.time_sec) + " " + in.host;
        if (is_alert) {
            b += " group=" + in.group + " severity=" + std::to_string(in.severity);
        }
        for (const auto &[k, v] : list) {
            if ((k == "Customer id" || k == "Site id") && !v.empty()) {
                b += " " + k + "=" + v;
            }
        }
        if (is_alert) {
            if (!in.subject.empty()) {
                b += " subject=\"" + one_line(in.subject) + "\"";
            }
            b += " text=\"" + one_line(in.text) + "\"";
            if (!cmds.empty()) {
                b += " commands=\"";
                for (size_t i = 0; i < cmds.size(); ++i) {
                    b += (i ? "; " : "") + one_line(cmds[i].line);
                }
                b += "\"";
            }
        }
        if (inv) {
            b += " " + one_line(inventory::to_short(*inv));
        }
        b += "\n";
        break;
    default:
        for (const auto &[k, v] : list) {
            b += k + ": " + v + "\n";
        }
        if (is_alert) {
            if (!in.subject.empty()) {
                b += "Subject: " + in.subject + "\n";
            }
            b += "\n" + in.text + (in.text.empty() || in.text.back() != '\n' ? "\n" : "");
            for (const auto &c : cmds) {
                b += "\n--- " + c.line + " (" + c.status_text() + ")\n";
                b += c.output;
                if (!c.output.empty() && c.output.back() != '\n') {
                    b += "\n";
                }
            }
        }
        if (inv) {
            b += "\n" + inventory::to_text(*inv);
        }
        break;
    }
    cut(b, max_size);
    return m;
}

} // namespace callhome::message
