// The software inventory of this host: what an operator asks of a Linux device.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace callhome::inventory {

struct Package {
    std::string name;
    std::string version;
    std::string arch;
};

struct Inventory {
    std::string host;
    std::string os_release; // PRETTY_NAME of os-release, or NAME VERSION
    std::string kernel;     // uname: system, release, version, machine
    std::string cpu_model;
    unsigned cpu_count = 0;
    uint64_t mem_total_kb = 0;
    uint64_t mem_available_kb = 0;
    uint64_t uptime_sec = 0;
    std::vector<Package> packages; // installed ones, sorted by name
};

// Reads the inventory from the files under `root` ("" for this host's own /etc, /proc and
// /var/lib/dpkg); host name and kernel come from the system calls. Missing files leave
// their fields empty: an inventory is sent even from a host without dpkg.
Inventory collect(const std::string &root = "");

// The installed packages of a dpkg status file's text.
std::vector<Package> parse_dpkg_status(const std::string &text);

// The three renderings a message body carries.
std::string to_text(const Inventory &inv);
std::string to_xml(const Inventory &inv, const std::string &indent);
std::string to_short(const Inventory &inv);

} // namespace callhome::inventory
