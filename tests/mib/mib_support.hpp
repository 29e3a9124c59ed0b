// What the module's unit tests share: a scripted request channel, wire records as the service
// sends them (numbers big-endian), reads through a column's handler, and a model of the
// service's tables behind the scripted channel. Whole SET requests go through set_driver.hpp.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "callhome_mib.h"
#include "platform/testing.hpp"
#include "set_driver.hpp"

namespace callhome_test {

using Arcs = Oid;
using Reply = platform::CmiReply;
using Request = platform::CmiRequest;

inline uint32_t be32(uint32_t v) {
    return __builtin_bswap32(v);
}
inline int32_t be(int32_t v) {
    return int32_t(be32(uint32_t(v)));
}
template <size_t N> void put(char (&field)[N], const std::string &s) {
    std::strncpy(field, s.c_str(), N - 1);
}
inline Arcs operator+(Arcs a, const Arcs &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// ---- The scripted channel: records every request and answers from a queue or a function ----

class FakeChannel {
  public:
    FakeChannel() {
        platform::set_transport([this](const Request &r) { return serve(r); });
    }
    ~FakeChannel() { platform::set_transport({}); }
    FakeChannel(const FakeChannel &) = delete;
    FakeChannel &operator=(const FakeChannel &) = delete;

    // Queued answers are used in order; with the queue empty, the default answer.
    void answer_status(int status) { replies_.push_back(Reply{status, false, {}, 0}); }
    void answer_errno(int err) { replies_.push_back(Reply{-1, false, {}, err}); }
    template <class Record> void answer(const Record &rec) {
        const auto *p = reinterpret_cast<const uint8_t *>(&rec);
        replies_.push_back(Reply{0, true, Bytes(p, p + sizeof rec), 0});
    }
    void set_default(Reply reply) { default_ = std::move(reply); }
    // Answers every request through `fn` instead (the queue is ignored).
    void serve_with(std::function<Reply(const Request &)> fn) { handler_ = std::move(fn); }

    const std::vector<Request> &requests() const { return requests_; }
    size_t count() const { return requests_.size(); }
    const Request &last() const { return requests_.back(); }
    const Request &at(size_t i) const { return requests_.at(i); }
    void clear() {
        requests_.clear();
        replies_.clear();
    }
    // The request record read as a wire record.
    template <class Record> static Record as(const Request &r) {
        Record rec{};
        std::memcpy(&rec, r.record.data(), std::min(r.record.size(), sizeof rec));
        return rec;
    }

  private:
    Reply serve(const Request &r) {
        requests_.push_back(r);
        if (handler_) {
            return handler_(r);
        }
        if (replies_.empty()) {
            return default_;
        }
        Reply reply = std::move(replies_.front());
        replies_.pop_front();
        return reply;
    }

    std::vector<Request> requests_;
    std::deque<Reply> replies_;
    Reply default_{CALLHOME_UNKNOWN_ENTRY, false, {}, 0};
    std::function<Reply(const Request &)> handler_;
};

template <class Record> Reply record_reply(const Record &r) {
    const auto *p = reinterpret_cast<const uint8_t *>(&r);
    return Reply{0, true, Bytes(p, p + sizeof r), 0};
}
inline Reply status_reply(int status, int err = 0) {
    return Reply{status, false, {}, err};
}

// ---- Wire records ----

inline callHomeDestProfileEntry_t profile_rec(const std::string &id, int32_t format = 1,
                                              uint32_t max = 500000, int8_t level = 0,
                                              int32_t transport = 1, int32_t status = 1) {
    callHomeDestProfileEntry_t r{{}, be(transport), be(format), be32(max), be(status), level, 0, 0};
    put(r.destination_profile_id, id);
    return r;
}
inline callHomeDestEmailAddressEntry_t email_rec(const std::string &id, int32_t index,
                                                 const std::string &addr, int32_t status = 1) {
    callHomeDestEmailAddressEntry_t r{{}, {}, be(index), be(status), 0};
    put(r.destination_profile_id, id);
    put(r.email_addr, addr);
    return r;
}
inline callHomeAlertGroupEntry_t group_rec(const std::string &id, const std::string &group,
                                           int32_t status = 1) {
    callHomeAlertGroupEntry_t r{{}, 0, be(status), {}, 0};
    put(r.destination_profile_id, id);
    put(r.alert_group, group);
    return r;
}
inline cmi_userdef_cli_cmd_t cmd_rec(const std::string &type, int32_t index, const std::string &cmd,
                                     int32_t status = 1) {
    cmi_userdef_cli_cmd_t r{be(index), {}, be(status), {}, 0};
    put(r.alertgroup_type, type);
    put(r.cli_cmd, cmd);
    return r;
}

// The type table as the service answers it: GET finds an index, GETNEXT the next one.
using Types = std::vector<std::pair<uint32_t, std::string>>; // increasing indexes
inline Reply serve_types(const Types &types, const Request &r) {
    const auto asked = FakeChannel::as<callhome_alertgroup_type_t>(r);
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

// ---- Reads through a column's handler ----

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

// ---- Writes as they reach the service, and a model of its tables ----

using Write = std::tuple<int, int, Bytes>; // opcode, message type, record

template <class R> Write write_of(int opcode, const R &r) {
    const auto *p = reinterpret_cast<const uint8_t *>(&r);
    return {opcode, SET_REQ, Bytes(p, p + sizeof r)};
}
inline Write del(Write w) {
    std::get<1>(w) = DELETE_REQ;
    return w;
}
inline Write profile_row(const std::string &name, int format = 1, uint32_t size = 500000,
                         int8_t level = 0, int transport = 1, int status = 1) {
    return write_of(CALLHOME_DEST_PROFILE_OPC,
                    profile_rec(name, format, size, level, transport, status));
}
inline Write email_row(const std::string &profile, int index, const std::string &addr,
                       int status = 1) {
    return write_of(CALLHOME_DEST_EMAIL_OPC, email_rec(profile, index, addr, status));
}
inline Write command_row(const std::string &type, int index, const std::string &cmd,
                         int status = 1) {
    return write_of(CALLHOME_USER_DEF_CMD_OPC, cmd_rec(type, index, cmd, status));
}
inline Write group_row(const std::string &profile, const std::string &group) {
    // As the module sends it: row status 0.
    return write_of(CALLHOME_PROFILE_ALERTGROUP_OPC, group_rec(profile, group, 0));
}
inline Write type_row(uint32_t index, const std::string &name) {
    callhome_alertgroup_type_t t{be32(index), {}};
    put(t.grp_name, name);
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
        channel.serve_with([this](const Request &r) { return serve(r); });
    }
    void put(const Write &w) {
        rows[{std::get<0>(w), key(std::get<0>(w), std::get<2>(w))}] = std::get<2>(w);
    }
    void fail(int opcode, int msg_type, int status, int skip = 0) {
        faults_[{opcode, msg_type}] = {status, skip};
    }
    // Answers one request as the service would; tests may wrap it to answer differently.
    Reply serve(const Request &r) {
        auto fault = faults_.find({r.opcode, r.msg_type});
        if (fault != faults_.end() && fault->second.second-- == 0) {
            const int s = fault->second.first;
            faults_.erase(fault);
            return status_reply(s);
        }
        const Key k{r.opcode, key(r.opcode, r.record)};
        if (r.msg_type == SET_REQ) {
            rows[k] = r.record;
            return status_reply(0);
        }
        if (r.msg_type == DELETE_REQ) {
            return status_reply(rows.erase(k) != 0 ? 0 : CALLHOME_UNKNOWN_ENTRY);
        }
        const bool next = r.msg_type == GETNEXT_REQ || r.msg_type == VELD_GETNEXT_REQ;
        auto it = next ? rows.upper_bound(k) : rows.find(k);
        if (it == rows.end() || it->first.first != r.opcode) {
            return status_reply(next ? CALLHOME_END_OF_TABLE : CALLHOME_UNKNOWN_ENTRY);
        }
        return Reply{0, true, it->second, 0};
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
