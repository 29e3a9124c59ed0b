#include "inventory.hpp"

#include "xml.hpp"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace callhome::inventory {
namespace {

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::string trim(const std::string &s) {
    const auto b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) {
        return {};
    }
    return s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
}

// A shell-style os-release value: quotes removed, backslash escapes resolved.
std::string unquote(const std::string &v) {
    if (v.size() < 2 || (v.front() != '"' && v.front() != '\'') || v.back() != v.front()) {
        return v;
    }
    std::string out;
    for (size_t i = 1; i + 1 < v.size(); ++i) {
        if (v[i] == '\\' && i + 2 < v.size()) {
            ++i;
        }
        out += v[i];
    }
    return out;
}

std::string os_release(const std::string &root) {
    std::string text = read_file(root + "/etc/os-release");
    if (text.empty()) {
        text = read_file(root + "/usr/lib/os-release");
    }
    std::string pretty, name, version;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        const auto eq = line.find('=');
        if (eq == std::string::npos) {
            continue;
        }
        const std::string key = trim(line.substr(0, eq));
        const std::string value = unquote(trim(line.substr(eq + 1)));
        if (key == "PRETTY_NAME") {
            pretty = value;
        } else if (key == "NAME") {
            name = value;
        } else if (key == "VERSION") {
            version = value;
        }
    }
    if (!pretty.empty()) {
        return pretty;
    }
    return trim(name + " " + version);
}

void cpu(const std::string &root, Inventory &inv) {
    std::istringstream in(read_file(root + "/proc/cpuinfo"));
    for (std::string line; std::getline(in, line);) {
        const auto colon = line.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        const std::string key = trim(line.substr(0, colon));
        if (key == "processor") {
            ++inv.cpu_count;
        } else if (inv.cpu_model.empty() &&
                   (key == "model name" || key == "Model" || key == "Hardware" || key == "cpu")) {
            inv.cpu_model = trim(line.substr(colon + 1));
        }
    }
}

void memory(const std::string &root, Inventory &inv) {
    std::istringstream in(read_file(root + "/proc/meminfo"));
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string key;
        uint64_t kb = 0;
        if (!(words >> key >> kb)) {
            continue;
        }
        if (key == "MemTotal:") {
            inv.mem_total_kb = kb;
        } else if (key == "MemAvailable:") {
            inv.mem_available_kb = kb;
        }
    }
}

std::string duration(uint64_t sec) {
    char buf[64];
    snprintf(buf, sizeof buf, "%llu days %02u:%02u:%02u", (unsigned long long)(sec / 86400),
             unsigned(sec / 3600 % 24), unsigned(sec / 60 % 60), unsigned(sec % 60));
    return buf;
}

// A value in double quotes, its quotes and backslashes escaped, so that a parser of the short
// form finds where it ends.
std::string quoted(const std::string &value) {
    std::string out = "\"";
    for (const char c : value) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    return out + '"';
}

} // namespace

std::vector<Package> parse_dpkg_status(const std::string &text) {
    std::vector<Package> out;
    Package p;
    bool installed = false;
    auto flush = [&] {
        if (installed && !p.name.empty()) {
            out.push_back(p);
        }
        p = {};
        installed = false;
    };
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.empty()) {
            flush();
            continue;
        }
        if (line[0] == ' ' || line[0] == '\t') {
            continue; // continuation of a multi-line field
        }
        const auto colon = line.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        const std::string key = line.substr(0, colon);
        const std::string value = trim(line.substr(colon + 1));
        if (key == "Package") {
            p.name = value;
        } else if (key == "Version") {
            p.version = value;
        } else if (key == "Architecture") {
            p.arch = value;
        } else if (key == "Status") {
            // "want flag status": only the last word says whether it is on the disk.
            installed =
                value.size() >= 10 && value.compare(value.size() - 10, 10, " installed") == 0;
        }
    }
    flush();
    std::sort(out.begin(), out.end(), [](const Package &a, const Package &b) {
        return a.name != b.name ? a.name < b.name : a.arch < b.arch;
    });
    return out;
}

Inventory collect(const std::string &root) {
    Inventory inv;
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) == 0) {
        inv.host = host;
    }
    utsname u{};
    if (uname(&u) == 0) {
        inv.kernel = std::string(u.sysname) + " " + u.release + " " + u.version + " " + u.machine;
    }
    inv.os_release = os_release(root);
    cpu(root, inv);
    memory(root, inv);
    std::istringstream(read_file(root + "/proc/uptime")) >> inv.uptime_sec;
    inv.packages = parse_dpkg_status(read_file(root + "/var/lib/dpkg/status"));
    return inv;
}

std::string to_text(const Inventory &inv) {
    std::string b = "Software inventory:\n";
    b += "  Host name: " + inv.host + "\n";
    b += "  OS release: " + inv.os_release + "\n";
    b += "  Kernel: " + inv.kernel + "\n";
    b += "  CPU: " + std::to_string(inv.cpu_count) + " x " + inv.cpu_model + "\n";
    b += "  Memory: " + std::to_string(inv.mem_total_kb) + " kB total, " +
         std::to_string(inv.mem_available_kb) + " kB available\n";
    b += "  Uptime: " + duration(inv.uptime_sec) + "\n";
    b += "  Installed packages (" + std::to_string(inv.packages.size()) + "):\n";
    for (const auto &p : inv.packages) {
        b += "    " + p.name + " " + p.version + (p.arch.empty() ? "" : " " + p.arch) + "\n";
    }
    return b;
}

std::string to_xml(const Inventory &inv, const std::string &in) {
    using xml::escape;
    std::string b = in + "<inventory>\n";
    b += in + "  <host-name>" + escape(inv.host) + "</host-name>\n";
    b += in + "  <os-release>" + escape(inv.os_release) + "</os-release>\n";
    b += in + "  <kernel>" + escape(inv.kernel) + "</kernel>\n";
    b += in + "  <cpu count=\"" + std::to_string(inv.cpu_count) + "\">" + escape(inv.cpu_model) +
         "</cpu>\n";
    b += in + "  <memory total-kb=\"" + std::to_string(inv.mem_total_kb) + "\" available-kb=\"" +
         std::to_string(inv.mem_available_kb) + "\"/>\n";
    b += in + "  <uptime seconds=\"" + std::to_string(inv.uptime_sec) + "\"/>\n";
    b += in + "  <packages count=\"" + std::to_string(inv.packages.size()) + "\">\n";
    for (const auto &p : inv.packages) {
        b += in + "    <package name=\"" + escape(p.name) + "\" version=\"" + escape(p.version) +
             "\" arch=\"" + escape(p.arch) + "\"/>\n";
    }
    b += in + "  </packages>\n" + in + "</inventory>\n";
    return b;
}

std::string to_short(const Inventory &inv) {
    return "os=" + quoted(inv.os_release) + " packages=" + std::to_string(inv.packages.size()) +
           " cpus=" + std::to_string(inv.cpu_count) +
           " mem_mb=" + std::to_string(inv.mem_total_kb / 1024) +
           " uptime_s=" + std::to_string(inv.uptime_sec);
}

} // namespace callhome::inventory
