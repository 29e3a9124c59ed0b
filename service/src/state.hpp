// The configuration as the service serves it: every value the channel reads comes from here,
// in memory. storage.hpp keeps a durable copy of it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "callhome_wire.h"

namespace callhome {

inline constexpr uint32_t kMaxTypes = 63; // every type index fits the module's 8-octet bit set
inline constexpr const char *kAll = "all";

// The info objects that can be set, by name.
bool known_info(const std::string &name);
// full_txt, xml and short_txt: created with the database, never deleted.
bool is_builtin(const std::string &name);

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

struct Periodic {
    uint32_t enable = 1;
    uint32_t days = 7;
    uint32_t minutes = 480;
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

// A profile deleted by a request, kept for a short while so that the UNDO of the same SNMP
// request (same session) can give it back its addresses and alert groups.
struct DeletedProfile {
    uint32_t session = 0;
    std::string name;
    Profile profile;
    int64_t deleted_ms = 0; // monotonic
};

struct State {
    bool enabled = false;
    bool throttling = true;
    std::map<std::string, std::string> info;
    EmailConf email;
    Periodic periodic;
    std::map<std::string, Profile, OidOrder> profiles;
    std::map<uint32_t, std::string> types;
    std::map<CmdKey, std::string> commands;
    bool dist_enabled = false;
    uint32_t dist_mode = 0;
    std::vector<DeletedProfile> deleted;

    std::optional<uint32_t> type_index(const std::string &name) const;
    // Phone, e-mail and street address all set: someone can answer a message.
    bool contact_complete() const { return missing_contact() == nullptr; }
    // The first contact object that is not set, or null.
    const char *missing_contact() const;
};

} // namespace callhome
