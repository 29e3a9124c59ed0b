// Composition of the messages the service queues for delivery: test, inventory and alerts.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "commands.hpp"
#include "inventory.hpp"

namespace callhome::message {

enum Format : int { FullText = 1, Xml = 2, ShortText = 3 };

inline constexpr const char *kTest = "Test Call Home";
inline constexpr const char *kInventory = "Inventory";
inline constexpr const char *kAlert = "Alert";

struct Input {
    std::string action;                      // kTest, kInventory or kAlert
    std::map<std::string, std::string> info; // contact details by info name
    int64_t time_sec = 0;
    std::string host;
    std::string profile;
    // Inventory messages: the inventory to carry (collected here when null).
    const inventory::Inventory *inventory = nullptr;
    // Alerts: the group, severity (1..10), the caller's subject and text, and the output of
    // the group's commands.
    std::string group{};
    int severity = 0;
    std::string subject{};
    std::string text{};
    const std::vector<commands::Result> *commands = nullptr;
};

struct Message {
    std::string subject;
    std::string body;
};

// Builds the message in `format`. A body longer than max_size (when non-zero) is cut at a
// character boundary and ends with a line saying how many bytes were left out; the whole
// stays within max_size.
// Seconds since the epoch as UTC, "2026-11-23T13:29:47Z".
std::string iso_time(int64_t sec);

Message compose(const Input &in, int format, uint32_t max_size);

// The cut of compose(), on its own.
void cut(std::string &body, uint32_t max_size);

} // namespace callhome::message
