// Drives whole SET requests through the module as net-snmp's agent does, and models the
// service's tables behind the scripted channel.
#pragma once

#include <cstring>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "callhome_mib.h"
#include "fake_channel.hpp"
#include "set_driver.hpp"
#include "platform/testing.hpp"

namespace callhome_test {

inline void expect_containers_empty() {
    EXPECT_TRUE(containers_empty());
}

// ---- Records as they travel (numbers big-endian), and a model of the service's tables ----

using Write = std::tuple<int, int, Bytes>; // opcode, message type, record

template <class R> Write write_of(int opcode, const R &r) {
    const auto *p = reinterpret_cast<const uint8_t *>(&r);
    return {opcode, SET_REQ, Bytes(p, p + sizeof r)};
}
inline Write del(Write w) {
    std::get<1>(w) = DELETE_REQ;
    return w;
}

inline int32_t be(int v) {
    return int32_t(be32(uint32_t(v)));
}
inline Write profile_row(const std::string &name, int format = 1, uint32_t size = 500000,
                         int8_t level = 0, int transport = 1, int status = 1) {
    callHomeDestProfileEntry_t p{{},         be(transport), be(format), be32(size),
                                 be(status), level,         0,          0};
    name.copy(p.destination_profile_id, sizeof p.destination_profile_id - 1);
    return write_of(CALLHOME_DEST_PROFILE_OPC, p);
}
inline Write email_row(const std::string &profile, int index, const std::string &addr,
                       int status = 1) {
    callHomeDestEmailAddressEntry_t e{{}, {}, be(index), be(status), 0};
    profile.copy(e.destination_profile_id, sizeof e.destination_profile_id - 1);
    addr.copy(e.email_addr, sizeof e.email_addr - 1);
    return write_of(CALLHOME_DEST_EMAIL_OPC, e);
}
inline Write command_row(const std::string &type, int index, const std::string &cmd,
                         int status = 1) {
    cmi_userdef_cli_cmd_t c{be(index), {}, be(status), {}, 0};
    type.copy(c.alertgroup_type, sizeof c.alertgroup_type - 1);
    cmd.copy(c.cli_cmd, sizeof c.cli_cmd - 1);
    return write_of(CALLHOME_USER_DEF_CMD_OPC, c);
}
inline Write group_row(const std::string &profile, const std::string &group) {
    callHomeAlertGroupEntry_t g{}; // as the module sends it: word and row status 0
    profile.copy(g.destination_profile_id, sizeof g.destination_profile_id - 1);
    group.copy(g.alert_group, sizeof g.alert_group - 1);
    return write_of(CALLHOME_PROFILE_ALERTGROUP_OPC, g);
}
inline Write type_row(uint32_t index, const std::string &name) {
    callhome_alertgroup_type_t t{be32(index), {}};
    name.copy(t.grp_name, sizeof t.grp_name - 1);
    return write_of(CALLHOME_ALERTGROUP_TYPE_OPC, t);
}

// The service's tables: exact and next reads, SET and DELETE, each row under its index
// fields laid out so that byte order is row order. `fail` makes the request of an opcode and
// message type after `skip` others answer `status` instead.
class TableModel {
  public:
    using Key = std::pair<int, std::string>; // opcode, index fields
    std::map<Key, Bytes> rows;

    explicit TableModel(FakeChannel &channel) {
        channel.serve_with([this](const platform::CmiRequest &r) { return serve(r); });
    }
    void put(const Write &w) {
        rows[{std::get<0>(w), key(std::get<0>(w), std::get<2>(w))}] = std::get<2>(w);
    }
    void fail(int opcode, int msg_type, int status, int skip = 0) {
        faults_[{opcode, msg_type}] = {status, skip};
    }

  private:
    static std::string key(int opcode, Bytes r) {
        r.resize(std::max<size_t>(r.size(), 1024));
        auto text = [&](size_t off, size_t n) { // the text up to its NUL, padded
            const char *p = reinterpret_cast<const char *>(&r[off]);
            std::string s(p, n);
            std::fill(s.begin() + strnlen(p, n), s.end(), '\0');
            return s;
        };
        auto raw = [&](size_t off) { return std::string(&r[off], &r[off] + 4); };
        switch (opcode) {
        case CALLHOME_DEST_PROFILE_OPC:
            return text(0, 32);
        case CALLHOME_DEST_EMAIL_OPC:
            return text(0, 32) + raw(offsetof(callHomeDestEmailAddressEntry_t, index));
        case CALLHOME_USER_DEF_CMD_OPC:
            return text(4, 256) + raw(0);
        case CALLHOME_PROFILE_ALERTGROUP_OPC:
            return text(0, 32) + text(offsetof(callHomeAlertGroupEntry_t, alert_group), 260);
        default:
            return raw(0);
        }
    }

  public:
    // Answers one request as the service would; tests may wrap it to answer differently.
    platform::CmiReply serve(const platform::CmiRequest &r) {
        auto status = [](int s) { return platform::CmiReply{s, false, {}, 0}; };
        auto fault = faults_.find({r.opcode, r.msg_type});
        if (fault != faults_.end() && fault->second.second-- == 0) {
            const int s = fault->second.first;
            faults_.erase(fault);
            return status(s);
        }
        const Key k{r.opcode, key(r.opcode, r.record)};
        if (r.msg_type == SET_REQ) {
            rows[k] = r.record;
            return status(0);
        }
        if (r.msg_type == DELETE_REQ) {
            return status(rows.erase(k) != 0 ? 0 : CALLHOME_UNKNOWN_ENTRY);
        }
        const bool next = r.msg_type == GETNEXT_REQ || r.msg_type == VELD_GETNEXT_REQ;
        auto it = next ? rows.upper_bound(k) : rows.find(k);
        if (it == rows.end() || it->first.first != r.opcode) {
            return status(next ? CALLHOME_END_OF_TABLE : CALLHOME_UNKNOWN_ENTRY);
        }
        return platform::CmiReply{0, true, it->second, 0};
    }

  private:
    std::map<std::pair<int, int>, std::pair<int, int>> faults_;
};

// The SET and DELETE requests sent, each checked for the channel arguments of a write and
// bracketed for the process monitor (reads are not).
inline std::vector<Write> writes(const FakeChannel &channel, const std::string &user,
                                 uint32_t session) {
    std::vector<Write> out;
    platform::HeartbeatState beats;
    for (const auto &r : channel.requests()) {
        if (r.msg_type == SET_REQ || r.msg_type == DELETE_REQ) {
            EXPECT_EQ(std::make_tuple(r.wants_record, r.user, r.session, r.client, r.wait),
                      std::make_tuple(false, user, session, 66, 10));
            out.emplace_back(r.opcode, r.msg_type, r.record);
            beats.changes += 2; // busy, then idle again
        }
    }
    EXPECT_EQ(platform::heartbeat_state(), beats);
    return out;
}

} // namespace callhome_test
