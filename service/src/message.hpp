// Composition of the messages that an alert action queues for delivery.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace callhome::message {

enum Format : int { FullText = 1, Xml = 2, ShortText = 3 };

struct Input {
    std::string action;                      // "Test Call Home" or "Inventory"
    std::map<std::string, std::string> info; // contact details by info name
    int64_t time_sec = 0;
    std::string host;
    std::string profile;
};

struct Message {
    std::string subject;
    std::string body;
};

// Builds the message in `format`; a body longer than max_size (when non-zero) is cut to
// max_size bytes, at a character boundary.
Message compose(const Input &in, int format, uint32_t max_size);

} // namespace callhome::message
