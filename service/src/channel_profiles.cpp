// The destination profiles and their two child tables: e-mail addresses and alert groups.
#include <optional>

#include "callhome_wire.h"
#include "channel.hpp"
#include "codec.hpp"
#include "serve.hpp"
#include "log.hpp"
#include "platform/frame.hpp"
#include "validate.hpp"

namespace callhome {

using namespace codec;

namespace {

constexpr uint32_t kMaxMessageSize = 1000000;

using Profiles = std::map<std::string, Profile, OidOrder>;

// Why a profile name is refused, or empty.
std::string profile_name_problem(const std::string &name) {
    if (name.empty() || name.size() > CALLHOME_PROFILE_ID_LEN - 1) {
        return "a name of 1 to " + std::to_string(CALLHOME_PROFILE_ID_LEN - 1) +
               " characters is needed";
    }
    if (name.front() == ' ' || name.back() == ' ') {
        return "leading or trailing space in the name";
    }
    return validate::text_problem(name);
}

struct ProfileRows {
    using Record = callHomeDestProfileEntry;
    using Key = std::string;
    State &state;
    Storage &storage;
    uint32_t session; // of the request: an UNDO carries the session of its delete

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
        const std::string what = "callHomeDestProfileEntry";
        if (const std::string why = profile_name_problem(k); !why.empty()) {
            return refused(what, why);
        }
        if (p.format < 1 || p.format > 3 || p.transport != 1 || p.max_size > kMaxMessageSize ||
            p.level < 0 || p.level > 9) {
            return refused(what + " " + k,
                           "format " + std::to_string(p.format) + " (1..3), transport " +
                               std::to_string(p.transport) + " (1), size " +
                               std::to_string(p.max_size) + " (at most 1000000) or level " +
                               std::to_string(p.level + 1) + " (1..10) out of range");
        }
        const auto it = profiles.find(k);
        if (it == profiles.end() && profiles.size() >= size_t(CALLHOME_MAX_PROFILES)) {
            return refused(what + " " + k,
                           "already " + std::to_string(CALLHOME_MAX_PROFILES) + " profiles");
        }
        if (it == profiles.end()) {
            // The UNDO of the request that deleted it gives the profile back whole.
            auto &deleted = state.deleted;
            for (auto d = deleted.begin(); d != deleted.end(); ++d) {
                if (d->name == k && d->session == session && session != 0) {
                    p.emails = std::move(d->profile.emails);
                    p.groups = std::move(d->profile.groups);
                    deleted.erase(d);
                    break;
                }
            }
            storage.put_profile_with_rows(k, p);
            profiles.emplace(k, std::move(p));
        } else {
            storage.put_profile(k, p);
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
        if (!it->second.emails.empty() || !it->second.groups.empty()) {
            state.deleted.push_back(
                {session, k, std::move(it->second), int64_t(platform::frame::monotonic_ms())});
        }
        state.profiles.erase(it);
        return CALLHOME_SUCCESS;
    }
};

// The child rows of a profile (its addresses, its alert groups), ordered by profile, then by
// their own index; `children` picks the profile's rows of one table.
template <class Children>
using ChildRow = std::pair<Profiles::iterator, typename Children::iterator>;

// The profile of key (profile, child) when it has that child.
template <class Children, class Key>
Profile *profile_with(Profiles &profiles, Children Profile::*children, const Key &k) {
    const auto p = profiles.find(k.first);
    return p != profiles.end() && (p->second.*children).count(k.second) ? &p->second : nullptr;
}

// The first child row after the key.
template <class Children, class Key>
std::optional<ChildRow<Children>> next_child(Profiles &profiles, Children Profile::*children,
                                             const Key &k) {
    for (auto p = profiles.lower_bound(k.first); p != profiles.end(); ++p) {
        auto &rows = p->second.*children;
        const auto c = p->first == k.first ? rows.upper_bound(k.second) : rows.begin();
        if (c != rows.end()) {
            return ChildRow<Children>{p, c};
        }
    }
    return std::nullopt;
}

// Removes the child row of the key from the store and from its profile.
template <class Children, class Key, class Child>
int32_t erase_child(Profiles &profiles, Children Profile::*children, const Key &k, Storage &storage,
                    void (Storage::*erase_stored)(const std::string &, Child)) {
    Profile *p = profile_with(profiles, children, k);
    if (p == nullptr) {
        return CALLHOME_UNKNOWN_ENTRY;
    }
    (storage.*erase_stored)(k.first, k.second);
    (p->*children).erase(k.second);
    return CALLHOME_SUCCESS;
}

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
        const Profile *p = profile_with(state.profiles, &Profile::emails, k);
        return p ? std::optional(row(k.first, k.second, p->emails.at(k.second))) : std::nullopt;
    }
    std::optional<Record> next(const Key &k) const {
        const auto c = next_child(state.profiles, &Profile::emails, k);
        return c ? std::optional(row(c->first->first, c->second->first, c->second->second))
                 : std::nullopt;
    }
    int32_t set(const Key &k, const Record &rec) {
        const std::string addr = FIELD(rec, email_addr);
        const std::string what = "callHomeDestEmailAddress." + std::to_string(k.second);
        if (k.second < 1) {
            return refused(what, "the index must be 1 or more");
        }
        if (const std::string why = validate::text_problem(addr); !why.empty()) {
            return refused(what, why);
        }
        if (!validate::email(addr)) {
            return refused(what, "not an e-mail address (local@domain)");
        }
        const auto p = state.profiles.find(k.first);
        if (p == state.profiles.end()) {
            return refused(what, "no profile " + k.first, CALLHOME_UNKNOWN_ENTRY);
        }
        storage.put_address(k.first, k.second, addr);
        p->second.emails[k.second] = addr;
        return CALLHOME_SUCCESS;
    }
    int32_t erase(const Key &k) {
        return erase_child(state.profiles, &Profile::emails, k, storage, &Storage::erase_address);
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
        return profile_with(state.profiles, &Profile::groups, k)
                   ? std::optional(row(k.first, k.second))
                   : std::nullopt;
    }
    std::optional<Record> next(const Key &k) const {
        const auto c = next_child(state.profiles, &Profile::groups, k);
        return c ? std::optional(row(c->first->first, *c->second)) : std::nullopt;
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
        if (!state.type_index(group)) {
            return refused("callHomeAlertGroups of " + profile, "no alert-group type " + group);
        }
        if (groups.count(kAll)) {
            return refused("callHomeAlertGroups of " + profile,
                           "the profile has \"all\"; clear it before adding single types");
        }
        storage.put_group(profile, group);
        groups.insert(group);
        return CALLHOME_SUCCESS;
    }
    int32_t erase(const Key &k) {
        return erase_child(state.profiles, &Profile::groups, k, storage, &Storage::erase_group);
    }
};

} // namespace

platform::CmiReply Channel::op_profile(int type, const Bytes &b) {
    return serve_table(ProfileRows{state_, storage_, session_}, type, b);
}

platform::CmiReply Channel::op_dest_email(int type, const Bytes &b) {
    return serve_table(AddressRows{state_, storage_}, type, b);
}

platform::CmiReply Channel::op_profile_group(int type, const Bytes &b) {
    return serve_table(GroupRows{state_, storage_}, type, b);
}

} // namespace callhome
