// Drives whole SET requests through the module as net-snmp's agent does, and a small model
// of the call-home service's tables for the scripted channel.
#pragma once

#include <cstring>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "callhome_mib.h"
#include "fake_channel.hpp"
#include "platform/testing.hpp"

namespace callhome_test {

// ---- OIDs ------------------------------------------------------------------------------

using Oid = std::vector<oid>;

inline Oid root_oid() {
    return Oid(callhome_mib_variables_oid, callhome_mib_variables_oid + CALLHOME_MIB_ROOT_LEN);
}
inline void append_text(Oid &o, const std::string &text) {
    o.push_back(text.size());
    for (unsigned char c : text) {
        o.push_back(c);
    }
}
inline Oid profile_oid(int column, const std::string &name) {
    Oid o = root_oid();
    o.insert(o.end(), {1, 1, 12, 1, oid(column)});
    append_text(o, name);
    return o;
}
inline Oid email_oid(int column, const std::string &name, int index) {
    Oid o = root_oid();
    o.insert(o.end(), {1, 1, 14, 1, oid(column)});
    append_text(o, name);
    o.push_back(index);
    return o;
}
inline Oid command_oid(int column, int type, int index) {
    Oid o = root_oid();
    o.insert(o.end(), {1, 1, 30, 6, 1, oid(column), oid(type), oid(index)});
    return o;
}

// Column numbers.
enum { kFormat = 2, kMaxSize = 3, kTransport = 4, kProfileStatus = 5, kLevel = 6, kGroups = 7 };
enum { kEmailAddr = 2, kEmailStatus = 3 };
enum { kCommand = 2, kCommandStatus = 3 };

// ---- Varbinds and the SET driver -------------------------------------------------------

struct Varbind {
    Oid name;
    u_char type;
    std::vector<u_char> value;

    // INTEGER and Gauge32 values reach write handlers as a C long, as the agent hands them.
    static Varbind integer(Oid name, long v, u_char type = ASN_INTEGER) {
        std::vector<u_char> bytes(sizeof v);
        std::memcpy(bytes.data(), &v, sizeof v);
        return {std::move(name), type, bytes};
    }
    static Varbind gauge(Oid name, unsigned long v) {
        return integer(std::move(name), long(v), ASN_UNSIGNED);
    }
    static Varbind octets(Oid name, const std::string &text) {
        return {std::move(name), ASN_OCTET_STR, std::vector<u_char>(text.begin(), text.end())};
    }
};

struct SetResult {
    int status = SNMP_ERR_NOERROR; // the first failure, as the agent reports it
    int phase = -1;                // the phase that failed
    int index = -1;                // the varbind that failed
};

inline std::ostream &operator<<(std::ostream &os, const SetResult &r) {
    return os << "status " << r.status << " in phase " << r.phase << " at varbind " << r.index;
}

// One SET request: for each varbind the read handler (exact) and RESERVE1; RESERVE2, ACTION
// and COMMIT for all; FREE for all after a failed RESERVE phase; UNDO and then FREE for all
// after a failed ACTION.
class SetRequest {
  public:
    explicit SetRequest(std::vector<Varbind> varbinds) : vbs_(std::move(varbinds)) {}

    SetResult run() {
        const size_t n = vbs_.size();
        methods_.assign(n, nullptr);
        stat_.assign(n, nullptr);
        SetResult result;
        for (size_t i = 0; i < n && result.status == 0; ++i) {
            lookup(i);
            if (methods_[i] == nullptr) {
                note(result, SNMP_ERR_NOTWRITABLE, RESERVE1, i);
                break;
            }
            note(result, call(i, RESERVE1), RESERVE1, i);
        }
        if (result.status == 0) {
            for (size_t i = 0; i < n; ++i) {
                note(result, call(i, RESERVE2), RESERVE2, i);
            }
        }
        if (result.status != 0) {
            all(FREE);
            return result;
        }
        for (size_t i = 0; i < n; ++i) {
            note(result, call(i, ACTION), ACTION, i);
        }
        if (result.status != 0) {
            all(UNDO);
            all(FREE);
            return result;
        }
        all(COMMIT);
        return result;
    }

    u_char *stat(size_t i) const { return stat_.at(i); }
    WriteMethod *method(size_t i) const { return methods_.at(i); }

  private:
    static void note(SetResult &r, int status, int phase, size_t i) {
        if (status != 0 && r.status == 0) {
            r.status = status;
            r.phase = phase;
            r.index = int(i);
        }
    }

    // The object table entry whose OID the varbind's name begins with.
    static const variable7 *entry_for(const Oid &name) {
        for (const auto &v : callhome_mib_variables) {
            const size_t len = CALLHOME_MIB_ROOT_LEN + v.namelen;
            if (name.size() < len) {
                continue;
            }
            Oid full = root_oid();
            full.insert(full.end(), v.name, v.name + v.namelen);
            if (std::equal(full.begin(), full.end(), name.begin())) {
                return &v;
            }
        }
        return nullptr;
    }

    void lookup(size_t i) {
        const variable7 *v = entry_for(vbs_[i].name);
        if (v == nullptr) {
            return;
        }
        variable vp{};
        vp.magic = v->magic;
        vp.type = v->type;
        vp.acl = v->acl;
        vp.findVar = v->findVar;
        vp.namelen = u_char(CALLHOME_MIB_ROOT_LEN + v->namelen);
        std::memcpy(vp.name, callhome_mib_variables_oid, sizeof callhome_mib_variables_oid);
        std::memcpy(vp.name + CALLHOME_MIB_ROOT_LEN, v->name, v->namelen * sizeof(oid));
        oid name[MAX_OID_LEN];
        size_t len = vbs_[i].name.size();
        std::memcpy(name, vbs_[i].name.data(), len * sizeof(oid));
        size_t var_len = 0;
        WriteMethod *wm = nullptr;
        stat_[i] = v->findVar(&vp, name, &len, 1, &var_len, &wm);
        methods_[i] = wm;
    }

    int call(size_t i, int action) {
        if (methods_[i] == nullptr) {
            return 0;
        }
        Varbind &vb = vbs_[i];
        std::vector<u_char> value = vb.value; // the handler sees the agent's copy
        return methods_[i](action, value.empty() ? empty_ : value.data(), vb.type, value.size(),
                           stat_[i], vb.name.data(), vb.name.size());
    }

    void all(int action) {
        for (size_t i = 0; i < vbs_.size(); ++i) {
            call(i, action);
        }
    }

    std::vector<Varbind> vbs_;
    std::vector<WriteMethod *> methods_;
    std::vector<u_char *> stat_;
    u_char empty_[1] = {0};
};

inline SetResult run_set(std::vector<Varbind> vbs) {
    return SetRequest(std::move(vbs)).run();
}

// A GET of one column instance through the module's read handler; false when it has none.
inline bool read_column(const Oid &name, std::vector<u_char> &value) {
    for (const auto &v : callhome_mib_variables) {
        Oid full = root_oid();
        full.insert(full.end(), v.name, v.name + v.namelen);
        if (name.size() < full.size() || !std::equal(full.begin(), full.end(), name.begin())) {
            continue;
        }
        variable vp{};
        vp.magic = v.magic;
        vp.type = v.type;
        vp.acl = v.acl;
        vp.findVar = v.findVar;
        vp.namelen = u_char(full.size());
        std::copy(full.begin(), full.end(), vp.name);
        oid buf[MAX_OID_LEN];
        size_t len = name.size();
        std::copy(name.begin(), name.end(), buf);
        size_t var_len = 0;
        WriteMethod *wm = nullptr;
        const u_char *p = v.findVar(&vp, buf, &len, 1, &var_len, &wm);
        if (p == nullptr) {
            return false;
        }
        value.assign(p, p + var_len);
        return true;
    }
    return false;
}

// An INTEGER or Gauge32 column read back; -1 when the instance doesn't exist.
inline long read_number(const Oid &name) {
    std::vector<u_char> v;
    if (!read_column(name, v) || v.size() < sizeof(int32_t)) {
        return -1;
    }
    if (v.size() == sizeof(long)) {
        long n;
        std::memcpy(&n, v.data(), sizeof n);
        return n;
    }
    int32_t n;
    std::memcpy(&n, v.data(), sizeof n);
    return n;
}

// A text column read back; "<none>" when the instance doesn't exist.
inline std::string read_text(const Oid &name) {
    std::vector<u_char> v;
    return read_column(name, v) ? std::string(v.begin(), v.end()) : "<none>";
}

// Calls one write handler in one phase, outside a request.
inline int write_phase(WriteMethod *method, int action, const Varbind &vb,
                       u_char *statP = nullptr) {
    std::vector<u_char> value = vb.value;
    u_char empty[1] = {0};
    Oid name = vb.name;
    return method(action, value.empty() ? empty : value.data(), vb.type, value.size(), statP,
                  name.data(), name.size());
}

// Every container of the module is empty between requests.
inline void expect_containers_empty() {
    EXPECT_EQ(platform::indxobj_size(callHomeDestProfileEntry_list), 0u);
    EXPECT_EQ(platform::indxobj_size(callHomeDestProfileEntry_undo_list), 0u);
    EXPECT_EQ(platform::indxobj_size(callHomeDestEmailAddressEntry_list), 0u);
    EXPECT_EQ(platform::indxobj_size(callHomeDestEmailAddressEntry_undo_list), 0u);
    EXPECT_EQ(platform::indxobj_size(callHomeUserDefCliCmd_list), 0u);
    EXPECT_EQ(platform::indxobj_size(callHomeUserDefCliCmd_undo_list), 0u);
}

// ---- A model of the service's tables behind the scripted channel ------------------------

// Records big-endian on the wire, host order here.
inline uint32_t swap32(uint32_t v) {
    return __builtin_bswap32(v);
}

inline callHomeDestProfileEntry_t profile_from_wire(std::vector<uint8_t> bytes) {
    callHomeDestProfileEntry_t r{};
    std::memcpy(&r, bytes.data(), std::min(bytes.size(), sizeof r));
    r.transport_method = int32_t(swap32(uint32_t(r.transport_method)));
    r.format_method = int32_t(swap32(uint32_t(r.format_method)));
    r.maximum_message_size = swap32(r.maximum_message_size);
    r.row_status = int32_t(swap32(uint32_t(r.row_status)));
    return r;
}
inline callHomeDestProfileEntry_t profile_to_wire(callHomeDestProfileEntry_t r) {
    r.transport_method = int32_t(swap32(uint32_t(r.transport_method)));
    r.format_method = int32_t(swap32(uint32_t(r.format_method)));
    r.maximum_message_size = swap32(r.maximum_message_size);
    r.row_status = int32_t(swap32(uint32_t(r.row_status)));
    return r;
}
inline callHomeDestEmailAddressEntry_t email_from_wire(std::vector<uint8_t> bytes) {
    callHomeDestEmailAddressEntry_t r{};
    std::memcpy(&r, bytes.data(), std::min(bytes.size(), sizeof r));
    r.index = int32_t(swap32(uint32_t(r.index)));
    r.row_status = int32_t(swap32(uint32_t(r.row_status)));
    return r;
}
inline callHomeDestEmailAddressEntry_t email_to_wire(callHomeDestEmailAddressEntry_t r) {
    r.index = int32_t(swap32(uint32_t(r.index)));
    r.row_status = int32_t(swap32(uint32_t(r.row_status)));
    return r;
}
inline cmi_userdef_cli_cmd_t command_from_wire(std::vector<uint8_t> bytes) {
    cmi_userdef_cli_cmd_t r{};
    std::memcpy(&r, bytes.data(), std::min(bytes.size(), sizeof r));
    r.index = int32_t(swap32(uint32_t(r.index)));
    r.row_status = int32_t(swap32(uint32_t(r.row_status)));
    return r;
}
inline cmi_userdef_cli_cmd_t command_to_wire(cmi_userdef_cli_cmd_t r) {
    r.index = int32_t(swap32(uint32_t(r.index)));
    r.row_status = int32_t(swap32(uint32_t(r.row_status)));
    return r;
}

// Just enough of the service for the write paths: exact reads, SET and DELETE of the three
// tables, the alert-group types and each profile's alert groups. `fail` makes the next
// request of an opcode and message type answer a status instead.
class TableModel {
  public:
    using Reply = platform::CmiReply;
    using Request = platform::CmiRequest;

    explicit TableModel(FakeChannel &channel) {
        channel.serve_with([this](const Request &r) { return serve(r); });
    }

    std::map<std::string, callHomeDestProfileEntry_t> profiles;
    std::map<std::pair<std::string, int>, callHomeDestEmailAddressEntry_t> emails;
    std::map<std::pair<std::string, int>, cmi_userdef_cli_cmd_t> commands;
    std::map<uint32_t, std::string> types;
    std::map<std::pair<std::string, std::string>, callHomeAlertGroupEntry_t> groups;

    // The request of that opcode and type after `skip` others answers `status`.
    void fail(int opcode, int msg_type, int status, int skip = 0) {
        faults_[{opcode, msg_type}] = {status, skip};
    }

    void add_profile(const std::string &name, int format = 1, uint32_t size = 500000) {
        callHomeDestProfileEntry_t p{};
        std::strncpy(p.destination_profile_id, name.c_str(), 31);
        p.transport_method = 1;
        p.format_method = format;
        p.maximum_message_size = size;
        p.row_status = 1;
        profiles[name] = p;
    }
    void add_email(const std::string &profile, int index, const std::string &addr) {
        callHomeDestEmailAddressEntry_t e{};
        std::strncpy(e.destination_profile_id, profile.c_str(), 31);
        std::strncpy(e.email_addr, addr.c_str(), 255);
        e.index = index;
        e.row_status = 1;
        emails[{profile, index}] = e;
    }
    void add_command(const std::string &type, int index, const std::string &cmd) {
        cmi_userdef_cli_cmd_t c{};
        c.index = index;
        std::strncpy(c.alertgroup_type, type.c_str(), 255);
        std::strncpy(c.cli_cmd, cmd.c_str(), 599);
        c.row_status = 1;
        commands[{type, index}] = c;
    }
    void add_group(const std::string &profile, const std::string &group) {
        callHomeAlertGroupEntry_t g{};
        std::strncpy(g.destination_profile_id, profile.c_str(), 31);
        std::strncpy(g.alert_group, group.c_str(), 259);
        g.row_status = 1;
        groups[{profile, group}] = g;
    }

  private:
    static bool is_get(int t) { return t == GET_REQ || t == VELD_GET_REQ; }
    static bool is_getnext(int t) { return t == GETNEXT_REQ || t == VELD_GETNEXT_REQ; }
    static Reply status(int s) { return Reply{s, false, {}, 0}; }
    template <class R> static Reply record(const R &r) {
        const auto *p = reinterpret_cast<const uint8_t *>(&r);
        return Reply{0, true, std::vector<uint8_t>(p, p + sizeof r), 0};
    }

    Reply serve(const Request &r) {
        auto fault = faults_.find({r.opcode, r.msg_type});
        if (fault != faults_.end() && fault->second.second-- == 0) {
            const int s = fault->second.first;
            faults_.erase(fault);
            return status(s);
        }
        switch (r.opcode) {
        case CALLHOME_DEST_PROFILE_OPC:
            return serve_profile(r);
        case CALLHOME_DEST_EMAIL_OPC:
            return serve_email(r);
        case CALLHOME_USER_DEF_CMD_OPC:
            return serve_command(r);
        case CALLHOME_ALERTGROUP_TYPE_OPC:
            return serve_type(r);
        case CALLHOME_PROFILE_ALERTGROUP_OPC:
            return serve_group(r);
        default:
            return status(CALLHOME_UNKNOWN_ENTRY);
        }
    }

    Reply serve_profile(const Request &r) {
        auto rec = profile_from_wire(r.record);
        std::string name(rec.destination_profile_id, strnlen(rec.destination_profile_id, 32));
        if (is_get(r.msg_type)) {
            auto it = profiles.find(name);
            return it == profiles.end() ? status(CALLHOME_UNKNOWN_ENTRY)
                                        : record(profile_to_wire(it->second));
        }
        if (is_getnext(r.msg_type)) {
            auto it = profiles.upper_bound(name);
            return it == profiles.end() ? status(CALLHOME_END_OF_TABLE)
                                        : record(profile_to_wire(it->second));
        }
        if (r.msg_type == SET_REQ) {
            profiles[name] = rec;
            return status(0);
        }
        return profiles.erase(name) != 0 ? status(0) : status(CALLHOME_UNKNOWN_ENTRY);
    }

    Reply serve_email(const Request &r) {
        auto rec = email_from_wire(r.record);
        std::pair<std::string, int> key{
            std::string(rec.destination_profile_id, strnlen(rec.destination_profile_id, 32)),
            rec.index};
        if (is_get(r.msg_type)) {
            auto it = emails.find(key);
            return it == emails.end() ? status(CALLHOME_UNKNOWN_ENTRY)
                                      : record(email_to_wire(it->second));
        }
        if (r.msg_type == SET_REQ) {
            emails[key] = rec;
            return status(0);
        }
        if (r.msg_type == DELETE_REQ) {
            return emails.erase(key) != 0 ? status(0) : status(CALLHOME_UNKNOWN_ENTRY);
        }
        return status(CALLHOME_END_OF_TABLE);
    }

    Reply serve_command(const Request &r) {
        auto rec = command_from_wire(r.record);
        std::pair<std::string, int> key{
            std::string(rec.alertgroup_type, strnlen(rec.alertgroup_type, 256)), rec.index};
        if (is_get(r.msg_type)) {
            auto it = commands.find(key);
            return it == commands.end() ? status(CALLHOME_UNKNOWN_ENTRY)
                                        : record(command_to_wire(it->second));
        }
        if (r.msg_type == SET_REQ) {
            commands[key] = rec;
            return status(0);
        }
        if (r.msg_type == DELETE_REQ) {
            return commands.erase(key) != 0 ? status(0) : status(CALLHOME_UNKNOWN_ENTRY);
        }
        return status(CALLHOME_END_OF_TABLE);
    }

    Reply serve_type(const Request &r) {
        callhome_alertgroup_type_t rec{};
        std::memcpy(&rec, r.record.data(), std::min(r.record.size(), sizeof rec));
        const uint32_t index = swap32(rec.index);
        auto it = is_get(r.msg_type) ? types.find(index) : types.upper_bound(index);
        if (it == types.end()) {
            return status(is_get(r.msg_type) ? CALLHOME_UNKNOWN_ENTRY : CALLHOME_END_OF_TABLE);
        }
        callhome_alertgroup_type_t out{};
        out.index = swap32(it->first);
        std::strncpy(out.grp_name, it->second.c_str(), sizeof out.grp_name - 1);
        return record(out);
    }

    Reply serve_group(const Request &r) {
        callHomeAlertGroupEntry_t rec{};
        std::memcpy(&rec, r.record.data(), std::min(r.record.size(), sizeof rec));
        std::pair<std::string, std::string> key{
            std::string(rec.destination_profile_id, strnlen(rec.destination_profile_id, 32)),
            std::string(rec.alert_group, strnlen(rec.alert_group, 260))};
        if (is_getnext(r.msg_type)) {
            auto it = groups.upper_bound(key);
            if (it == groups.end()) {
                return status(CALLHOME_END_OF_TABLE);
            }
            callHomeAlertGroupEntry_t out = it->second;
            out.row_status = int32_t(swap32(uint32_t(out.row_status)));
            return record(out);
        }
        if (r.msg_type == SET_REQ) {
            groups[key] = rec;
            return status(0);
        }
        if (r.msg_type == DELETE_REQ) {
            return groups.erase(key) != 0 ? status(0) : status(CALLHOME_UNKNOWN_ENTRY);
        }
        return status(CALLHOME_UNKNOWN_ENTRY);
    }

    std::map<std::pair<int, int>, std::pair<int, int>> faults_;
};

// The write requests (SET and DELETE) among the recorded ones.
inline std::vector<platform::CmiRequest> writes(const FakeChannel &channel) {
    std::vector<platform::CmiRequest> out;
    for (const auto &r : channel.requests()) {
        if (r.msg_type == SET_REQ || r.msg_type == DELETE_REQ) {
            out.push_back(r);
        }
    }
    return out;
}

} // namespace callhome_test
