// Shared by the table-read and alert-group tests: OIDs of the module's columns, and wire
// records as the service sends them (big-endian).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "callhome_mib.h"
#include "platform/testing.hpp"

namespace callhome_read_test {

using Arcs = std::vector<oid>;
using Reply = platform::CmiReply;
inline constexpr auto be32 = [](uint32_t v) -> uint32_t { return __builtin_bswap32(v); };
inline constexpr auto be = [](int32_t v) { return int32_t(__builtin_bswap32(uint32_t(v))); };
template <size_t N> void put(char (&field)[N], const std::string &s) {
    std::strncpy(field, s.c_str(), N - 1);
}
inline Arcs operator+(Arcs a, const Arcs &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A text index: its length, then one arc per character.
inline Arcs text(const std::string &s) {
    Arcs a{s.size()};
    return a + Arcs(reinterpret_cast<const uint8_t *>(s.data()),
                    reinterpret_cast<const uint8_t *>(s.data()) + s.size());
}

// The variable entry the agent hands to a read handler: the object's full OID.
inline struct variable column(u_char magic) {
    struct variable vp {};
    for (const auto &v : callhome_mib_variables) {
        if (v.magic == magic) {
            vp = {v.magic, char(v.type), v.acl, v.findVar, u_char(9 + v.namelen), {}};
            std::copy(callhome_mib_variables_oid, callhome_mib_variables_oid + 9, vp.name);
            std::copy(v.name, v.name + v.namelen, vp.name + 9);
        }
    }
    EXPECT_NE(vp.namelen, 0) << "no object with magic " << int(magic);
    return vp;
}
inline Arcs arcs_of(u_char magic) {
    const struct variable vp = column(magic);
    return Arcs(vp.name, vp.name + vp.namelen);
}

// A request OID as the agent holds it, read through the column's handler.
struct Read {
    oid arcs[MAX_OID_LEN] = {};
    size_t length = 0, var_len = 0;
    u_char *value = nullptr;
    WriteMethod *write = nullptr;
    Arcs oid_now() const { return Arcs(arcs, arcs + length); }
    std::string str() const { return std::string(reinterpret_cast<char *>(value), var_len); }
    int32_t num() const {
        int32_t v = 0;
        EXPECT_EQ(var_len, 4u);
        std::memcpy(&v, value, sizeof v);
        return v;
    }
};
inline Read fetch_at(u_char magic, const Arcs &a, int exact) {
    struct variable vp = column(magic);
    Read r;
    std::copy(a.begin(), a.end(), r.arcs);
    r.length = a.size();
    r.value = vp.findVar(&vp, r.arcs, &r.length, exact, &r.var_len, &r.write);
    return r;
}
inline Read fetch(u_char magic, const Arcs &index, int exact) {
    return fetch_at(magic, arcs_of(magic) + index, exact);
}

inline callHomeDestProfileEntry_t profile_rec(const std::string &id, int32_t format = 1,
                                              uint32_t max = 500000, int8_t level = 0) {
    callHomeDestProfileEntry_t r{{}, be(1), be(format), be32(max), be(1), level, 0, 0};
    put(r.destination_profile_id, id);
    return r;
}
inline callHomeDestEmailAddressEntry_t email_rec(const std::string &id, int32_t index,
                                                 const std::string &addr) {
    callHomeDestEmailAddressEntry_t r{{}, {}, be(index), be(1), 0};
    put(r.destination_profile_id, id);
    put(r.email_addr, addr);
    return r;
}
inline callHomeAlertGroupEntry_t group_rec(const std::string &id, const std::string &group) {
    callHomeAlertGroupEntry_t r{{}, 0, be(1), {}, 0};
    put(r.destination_profile_id, id);
    put(r.alert_group, group);
    return r;
}
inline cmi_userdef_cli_cmd_t cmd_rec(int32_t index, const std::string &type,
                                     const std::string &cmd) {
    cmi_userdef_cli_cmd_t r{be(index), {}, be(1), {}, 0};
    put(r.alertgroup_type, type);
    put(r.cli_cmd, cmd);
    return r;
}
template <class Record> Reply record_reply(const Record &r) {
    const auto *p = reinterpret_cast<const uint8_t *>(&r);
    return Reply{0, true, std::vector<uint8_t>(p, p + sizeof r), 0};
}
inline Reply status_reply(int status, int err = 0) {
    return Reply{status, false, {}, err};
}

// The type table as the service answers it: GET finds an index, GETNEXT the next one.
using Types = std::vector<std::pair<uint32_t, std::string>>; // increasing indexes
inline Reply serve_types(const Types &types, const platform::CmiRequest &r) {
    callhome_alertgroup_type_t asked{};
    std::memcpy(&asked, r.record.data(), std::min(r.record.size(), sizeof asked));
    const bool get = r.msg_type == GET_REQ;
    for (const auto &[index, name] : types) {
        if (get ? index == be32(asked.index) : index > be32(asked.index)) {
            callhome_alertgroup_type_t found{be32(index), {}};
            put(found.grp_name, name);
            return record_reply(found);
        }
    }
    return status_reply(get ? CALLHOME_UNKNOWN_ENTRY : CALLHOME_END_OF_TABLE);
}

} // namespace callhome_read_test
