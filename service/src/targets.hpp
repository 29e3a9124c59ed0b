// Who receives a message the service sends by itself, and what runs for it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "state.hpp"

namespace callhome::targets {

struct Target {
    std::string profile;
    std::vector<std::string> recipients;
    int format = 1;
    uint32_t max_size = 0;
};

// Every active profile with addresses that subscribes to `group` or "all". Alerts also need
// the profile's level (1..10 as the MIB shows it) at most `severity`; Test and Inventory
// messages go regardless of levels (severity 0).
std::vector<Target> select(const State &st, const std::string &group, int severity);

// The command lines attached to the alert-group type `group`, in index order.
std::vector<std::string> commands_of(const State &st, const std::string &group);

} // namespace callhome::targets
