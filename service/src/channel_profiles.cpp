// The destination profiles and their two child tables: e-mail addresses and alert groups.
#include <optional>

#include "callhome_wire.h"
#include "channel.hpp"
#include "codec.hpp"
#include "serve.hpp"
#include "validate.hpp"

namespace callhome {

using namespace codec;

namespace {

constexpr uint32_t kMaxMessageSize = 1000000;

using Profiles = std::map<std::string, Profile, OidOrder>;

bool valid_profile_name(const std::string &name) {
    return !name.empty() && name.size() <= CALLHOME_PROFILE_ID_LEN - 1 && name.front() != ' ' &&
           name.back() != ' ' && validate::printable(name);
}

struct ProfileRows {
    using Record = callHomeDestProfileEntry;
    using Key = std::string;
    State &state;
    Storage &storage;

    std::optional<Key> key(const Record &rec, int) const {
        return FIELD(rec, destination_profile_id);
    }
    static std::optional<Record> row(Profiles::const_iterator it, const Profiles &profiles) {
        if (it == profiles.end()) {
            return std::nullopt;
        }
        const Profile &p = it->second;
        Record out{};
        PUT(out, destination_profile_id, it->first);
        out.transport_method = to_be_signed(p.transport);
        out.format_method = to_be_signed(p.format);
        out.maximum_message_size = to_be(p.max_size);
        out.row_status = to_be_signed(p.row_status);
        out.msg_level = int8_t(p.level);
        return out;
    }
    std::optional<Record> find(const Key &k) const {
        return row(state.profiles.find(k), state.profiles);
    }
    std::optional<Record> next(const Key &k) const {
        return row(state.profiles.upper_bound(k), state.profiles);
    }
    int32_t set(const Key &k, const Record &rec) {
        auto &profiles = state.profiles;
        Profile p;
        p.transport = be_signed(rec.transport_method);
        p.format = be_signed(rec.format_method);
        p.max_size = be(rec.maximum_message_size);
        p.level = rec.msg_level;
        p.row_status = 1;
        if (!valid_profile_name(k) || p.format < 1 || p.format > 3 || p.transport != 1 ||
            p.max_size > kMaxMessageSize || p.level < 0 || p.level > 9) {
            return CALLHOME_ERR_INVALID_INPUT;
        }
        const auto it = profiles.find(k);
        if (it == profiles.end() && profiles.size() >= size_t(CALLHOME_MAX_PROFILES)) {
            return CALLHOME_ERR_INVALID_INPUT;
        }
        storage.put_profile(k, p);
        if (it == profiles.end()) {
            profiles.emplace(k, std::move(p));
        } else {
            // Replacing the row keeps its addresses and alert groups.
            p.emails = std::move(it->second.emails);
            p.groups = std::move(it->second.groups);
            it->second = std::move(p);
        }
        return CALLHOME_SUCCESS;
    }
    int32_t erase(const Key &k) {
        if (is_builtin(k)) {
            return CALLHOME_ERR_BUILTIN_PROFILE;
        }
        const auto it = state.profiles.find(k);
        if (it == state.profiles.end()) {
            return CALLHOME_UNKNOWN_ENTRY;
        }
        storage.erase_profile(k);
        state.profiles.erase(it);
        return CALLHOME_SUCCESS;
    }
};

// The child rows of a profile, ordered by profile, then by their own index.
struct AddressRows {
    using Record = callHomeDestEmailAddressEntry;
    using Key = std::pair<std::string, int32_t>; // (profile, index)
    State &state;
    Storage &storage;

    std::optional<Key> key(const Record &rec, int) const {
        return Key{FIELD(rec, destination_profile_id), be_signed(rec.index)};
    }
    static Record row(const std::string &profile, int32_t idx, const std::string &addr) {
        Record out{};
        PUT(out, destination_profile_id, profile);
        PUT(out, email_addr, addr);
        out.index = to_be_signed(idx);
        out.row_status = to_be_signed(1);
        return out;
    }
    std::optional<Record> find(const Key &k) const {
        const auto p = state.profiles.find(k.first);
        if (p == state.profiles.end()) {
            return std::nullopt;
        }
        const auto e = p->second.emails.find(k.second);
        if (e == p->second.emails.end()) {
            return std::nullopt;
        }
        return row(p->first, e->first, e->second);
    }
    std::optional<Record> next(const Key &k) const {
        for (auto p = state.profiles.lower_bound(k.first); p != state.profiles.end(); ++p) {
            const auto &emails = p->second.emails;
            const auto e = p->first == k.first ? emails.upper_bound(k.second) : emails.begin();
            if (e != emails.end()) {
                return row(p->first, e->first, e->second);
            }
        }
        return std::nullopt;
    }
    int32_t set(const Key &k, const Record &rec) {
        const std::string addr = FIELD(rec, email_addr);
        if (k.second < 1 || !validate::email(addr)) {
            return CALLHOME_ERR_INVALID_INPUT;
        }
        const auto p = state.profiles.find(k.first);
        if (p == state.profiles.end()) {
            return CALLHOME_UNKNOWN_ENTRY;
        }
        storage.put_address(k.first, k.second, addr);
        p->second.emails[k.second] = addr;
        return CALLHOME_SUCCESS;
    }
    int32_t erase(const Key &k) {
        const auto p = state.profiles.find(k.first);
        if (p == state.profiles.end() || !p->second.emails.count(k.second)) {
            return CALLHOME_UNKNOWN_ENTRY;
        }
        storage.erase_address(k.first, k.second);
        p->second.emails.erase(k.second);
        return CALLHOME_SUCCESS;
    }
};

struct GroupRows {
    using Record = callHomeAlertGroupEntry;
    using Key = std::pair<std::string, std::string>; // (profile, group)
    State &state;
    Storage &storage;

    std::optional<Key> key(const Record &rec, int) const {
        return Key{FIELD(rec, destination_profile_id), FIELD(rec, alert_group)};
    }
    static Record row(const std::string &profile, const std::string &group) {
        Record out{};
        PUT(out, destination_profile_id, profile);
        out.row_status = to_be_signed(1);
        PUT(out, alert_group, group);
        return out;
    }
    std::optional<Record> find(const Key &k) const {
        const auto p = state.profiles.find(k.first);
        if (p == state.profiles.end() || !p->second.groups.count(k.second)) {
            return std::nullopt;
        }
        return row(k.first, k.second);
    }
    std::optional<Record> next(const Key &k) const {
        for (auto p = state.profiles.lower_bound(k.first); p != state.profiles.end(); ++p) {
            const auto &groups = p->second.groups;
            const auto g = p->first == k.first ? groups.upper_bound(k.second) : groups.begin();
            if (g != groups.end()) {
                return row(p->first, *g);
            }
        }
        return std::nullopt;
    }
    int32_t set(const Key &k, const Record &) {
        const auto &[profile, group] = k;
        const auto p = state.profiles.find(profile);
        if (p == state.profiles.end()) {
            return CALLHOME_UNKNOWN_ENTRY;
        }
        auto &groups = p->second.groups;
        if (group == kAll) {
            storage.put_all_groups(profile);
            groups = {group};
            return CALLHOME_SUCCESS;
        }
        // "all" already covers every type: a single type next to it would be ambiguous.
        if (!state.type_index(group) || groups.count(kAll)) {
            return CALLHOME_ERR_INVALID_INPUT;
        }
        storage.put_group(profile, group);
        groups.insert(group);
        return CALLHOME_SUCCESS;
    }
    int32_t erase(const Key &k) {
        const auto p = state.profiles.find(k.first);
        if (p == state.profiles.end() || !p->second.groups.count(k.second)) {
            return CALLHOME_UNKNOWN_ENTRY;
        }
        storage.erase_group(k.first, k.second);
        p->second.groups.erase(k.second);
        return CALLHOME_SUCCESS;
    }
};

} // namespace

platform::CmiReply Channel::op_profile(int type, const Bytes &b) {
    return serve_table(ProfileRows{state_, storage_}, type, b);
}

platform::CmiReply Channel::op_dest_email(int type, const Bytes &b) {
    return serve_table(AddressRows{state_, storage_}, type, b);
}

platform::CmiReply Channel::op_profile_group(int type, const Bytes &b) {
    return serve_table(GroupRows{state_, storage_}, type, b);
}

} // namespace callhome
