// The destination profiles and their two child tables: e-mail addresses and alert groups.
#include "callhome_wire.h"
#include "channel.hpp"
#include "codec.hpp"
#include "validate.hpp"

namespace callhome {

using namespace codec;

namespace {

constexpr uint32_t kMaxMessageSize = 1000000;

void fill(callHomeDestProfileEntry &out, const std::string &name, const Profile &p) {
    out = {};
    PUT(out, destination_profile_id, name);
    out.transport_method = to_be_signed(p.transport);
    out.format_method = to_be_signed(p.format);
    out.maximum_message_size = to_be(p.max_size);
    out.row_status = to_be_signed(p.row_status);
    out.msg_level = int8_t(p.level);
}

bool valid_profile_name(const std::string &name) {
    return !name.empty() && name.size() <= CALLHOME_PROFILE_ID_LEN - 1 && name.front() != ' ' &&
           name.back() != ' ' && validate::printable(name);
}

platform::CmiReply email_row(const std::string &profile, int32_t idx, const std::string &addr) {
    callHomeDestEmailAddressEntry out{};
    PUT(out, destination_profile_id, profile);
    PUT(out, email_addr, addr);
    out.index = to_be_signed(idx);
    out.row_status = to_be_signed(1);
    return answer_record(out);
}

platform::CmiReply group_row(const std::string &profile, const std::string &group) {
    callHomeAlertGroupEntry out{};
    PUT(out, destination_profile_id, profile);
    out.row_status = to_be_signed(1);
    PUT(out, alert_group, group);
    return answer_record(out);
}

} // namespace

platform::CmiReply Channel::op_profile(int type, const Bytes &b) {
    auto &profiles = state_.profiles;
    callHomeDestProfileEntry rec;
    if (!load(b, rec)) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    const std::string key = FIELD(rec, destination_profile_id);
    callHomeDestProfileEntry out;
    switch (type) {
    case GET_REQ: {
        const auto it = profiles.find(key);
        if (it == profiles.end()) {
            return answer(CALLHOME_UNKNOWN_ENTRY);
        }
        fill(out, it->first, it->second);
        return answer_record(out);
    }
    case GETNEXT_REQ: {
        const auto it = profiles.upper_bound(key);
        if (it == profiles.end()) {
            return answer(CALLHOME_END_OF_TABLE);
        }
        fill(out, it->first, it->second);
        return answer_record(out);
    }
    case SET_REQ: {
        Profile p;
        p.transport = be_signed(rec.transport_method);
        p.format = be_signed(rec.format_method);
        p.max_size = be(rec.maximum_message_size);
        p.level = rec.msg_level;
        p.row_status = 1;
        if (!valid_profile_name(key) || p.format < 1 || p.format > 3 || p.transport != 1 ||
            p.max_size > kMaxMessageSize || p.level < 0 || p.level > 9) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        const auto it = profiles.find(key);
        if (it == profiles.end() && profiles.size() >= size_t(CALLHOME_MAX_PROFILES)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        storage_.put_profile(key, p);
        if (it == profiles.end()) {
            profiles.emplace(key, std::move(p));
        } else {
            // Replacing the row keeps its addresses and alert groups.
            p.emails = std::move(it->second.emails);
            p.groups = std::move(it->second.groups);
            it->second = std::move(p);
        }
        return answer(CALLHOME_SUCCESS);
    }
    default: { // DELETE
        if (is_builtin(key)) {
            return answer(CALLHOME_ERR_BUILTIN_PROFILE);
        }
        const auto it = profiles.find(key);
        if (it == profiles.end()) {
            return answer(CALLHOME_UNKNOWN_ENTRY);
        }
        storage_.erase_profile(key);
        profiles.erase(it);
        return answer(CALLHOME_SUCCESS);
    }
    }
}

platform::CmiReply Channel::op_dest_email(int type, const Bytes &b) {
    auto &profiles = state_.profiles;
    callHomeDestEmailAddressEntry rec;
    if (!load(b, rec)) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    const std::string key = FIELD(rec, destination_profile_id);
    const int32_t idx = be_signed(rec.index);
    switch (type) {
    case GET_REQ: {
        const auto p = profiles.find(key);
        if (p == profiles.end()) {
            return answer(CALLHOME_UNKNOWN_ENTRY);
        }
        const auto e = p->second.emails.find(idx);
        if (e == p->second.emails.end()) {
            return answer(CALLHOME_UNKNOWN_ENTRY);
        }
        return email_row(p->first, e->first, e->second);
    }
    case GETNEXT_REQ: {
        for (auto p = profiles.lower_bound(key); p != profiles.end(); ++p) {
            const auto &emails = p->second.emails;
            const auto e = p->first == key ? emails.upper_bound(idx) : emails.begin();
            if (e != emails.end()) {
                return email_row(p->first, e->first, e->second);
            }
        }
        return answer(CALLHOME_END_OF_TABLE);
    }
    case SET_REQ: {
        const std::string addr = FIELD(rec, email_addr);
        if (idx < 1 || !validate::email(addr)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        const auto p = profiles.find(key);
        if (p == profiles.end()) {
            return answer(CALLHOME_UNKNOWN_ENTRY);
        }
        storage_.put_address(key, idx, addr);
        p->second.emails[idx] = addr;
        return answer(CALLHOME_SUCCESS);
    }
    default: { // DELETE
        const auto p = profiles.find(key);
        if (p == profiles.end() || !p->second.emails.count(idx)) {
            return answer(CALLHOME_UNKNOWN_ENTRY);
        }
        storage_.erase_address(key, idx);
        p->second.emails.erase(idx);
        return answer(CALLHOME_SUCCESS);
    }
    }
}

platform::CmiReply Channel::op_profile_group(int type, const Bytes &b) {
    auto &profiles = state_.profiles;
    callHomeAlertGroupEntry rec;
    if (!load(b, rec)) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    const std::string key = FIELD(rec, destination_profile_id);
    const std::string group = FIELD(rec, alert_group);
    switch (type) {
    case GET_REQ: {
        const auto p = profiles.find(key);
        if (p == profiles.end() || !p->second.groups.count(group)) {
            return answer(CALLHOME_UNKNOWN_ENTRY);
        }
        return group_row(key, group);
    }
    case GETNEXT_REQ: {
        for (auto p = profiles.lower_bound(key); p != profiles.end(); ++p) {
            const auto &groups = p->second.groups;
            const auto g = p->first == key ? groups.upper_bound(group) : groups.begin();
            if (g != groups.end()) {
                return group_row(p->first, *g);
            }
        }
        return answer(CALLHOME_END_OF_TABLE);
    }
    case SET_REQ: {
        const auto p = profiles.find(key);
        if (p == profiles.end()) {
            return answer(CALLHOME_UNKNOWN_ENTRY);
        }
        auto &groups = p->second.groups;
        if (group == kAll) {
            storage_.put_all_groups(key);
            groups = {group};
            return answer(CALLHOME_SUCCESS);
        }
        // "all" already covers every type: a single type next to it would be ambiguous.
        if (!state_.type_index(group) || groups.count(kAll)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        storage_.put_group(key, group);
        groups.insert(group);
        return answer(CALLHOME_SUCCESS);
    }
    default: { // DELETE
        const auto p = profiles.find(key);
        if (p == profiles.end() || !p->second.groups.count(group)) {
            return answer(CALLHOME_UNKNOWN_ENTRY);
        }
        storage_.erase_group(key, group);
        p->second.groups.erase(group);
        return answer(CALLHOME_SUCCESS);
    }
    }
}

} // namespace callhome
