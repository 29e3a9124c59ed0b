#include "message.hpp"

#include <sys/utsname.h>

#include <ctime>
#include <utility>
#include <vector>

namespace callhome::message {
namespace {

std::string iso_time(int64_t sec) {
    const time_t t = time_t(sec);
    tm utc{};
    gmtime_r(&t, &utc);
    char buf[32];
    strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return buf;
}

std::string xml_escape(const std::string &s) {
    std::string out;
    for (char c : s) {
        switch (c) {
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '&':
            out += "&amp;";
            break;
        case '"':
            out += "&quot;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

// The labelled fields every message carries, in the order they are shown.
std::vector<std::pair<std::string, std::string>> fields(const Input &in) {
    auto get = [&](const char *name) {
        const auto it = in.info.find(name);
        return it == in.info.end() ? std::string() : it->second;
    };
    return {
        {"Message type", in.action},
        {"Time", iso_time(in.time_sec)},
        {"Device", in.host},
        {"Destination profile", in.profile},
        {"Customer id", get("custId")},
        {"Contract id", get("contractId")},
        {"Site id", get("siteId")},
        {"Contact e-mail", get("sysContactEmail")},
        {"Contact phone", get("sysContactPhoneNumber")},
        {"Street address", get("sysStreetAddress")},
        {"Service priority", get("priority")},
    };
}

std::vector<std::pair<std::string, std::string>> inventory() {
    utsname u{};
    if (uname(&u) != 0) {
        return {};
    }
    return {{"System", u.sysname},
            {"Release", u.release},
            {"Version", u.version},
            {"Machine", u.machine}};
}

// Cuts at most max bytes without splitting a UTF-8 sequence.
void cut(std::string &s, uint32_t max) {
    if (max == 0 || s.size() <= max) {
        return;
    }
    size_t n = max;
    while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80) {
        --n;
    }
    s.resize(n);
}

} // namespace

Message compose(const Input &in, int format, uint32_t max_size) {
    const bool is_inventory = in.action == "Inventory";
    Message m;
    m.subject =
        std::string(is_inventory ? "Call home inventory message" : "Call home test message") +
        " from " + in.host;
    const auto list = fields(in);
    const auto inv = is_inventory ? inventory() : decltype(inventory()){};
    std::string &b = m.body;
    switch (format) {
    case Xml:
        b = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
        b += "<callhome-message type=\"" + std::string(is_inventory ? "inventory" : "test") +
             "\">\n";
        for (const auto &[k, v] : list) {
            b += "  <field name=\"" + xml_escape(k) + "\">" + xml_escape(v) + "</field>\n";
        }
        if (is_inventory) {
            b += "  <inventory>\n";
            for (const auto &[k, v] : inv) {
                b += "    <item name=\"" + xml_escape(k) + "\">" + xml_escape(v) + "</item>\n";
            }
            b += "  </inventory>\n";
        }
        b += "</callhome-message>\n";
        break;
    case ShortText:
        b = in.action + " " + iso_time(in.time_sec) + " " + in.host;
        for (const auto &[k, v] : list) {
            if ((k == "Customer id" || k == "Site id") && !v.empty()) {
                b += " " + k + "=" + v;
            }
        }
        b += "\n";
        break;
    default:
        for (const auto &[k, v] : list) {
            b += k + ": " + v + "\n";
        }
        if (is_inventory) {
            b += "\nSoftware inventory:\n";
            for (const auto &[k, v] : inv) {
                b += "  " + k + ": " + v + "\n";
            }
        }
        break;
    }
    cut(b, max_size);
    return m;
}

} // namespace callhome::message
