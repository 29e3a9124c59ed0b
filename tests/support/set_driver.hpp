// Drives whole SET requests and single reads through the module's handlers as net-snmp's
// agent does. Free of any test framework: the unit tests and the fuzz targets share it.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "callhome_mib.h"
#include "platform/testing.hpp"

namespace callhome_test {

using Oid = std::vector<oid>;
using Bytes = std::vector<uint8_t>;

// root.<arcs>, then a text index as its length and characters, then `tail`.
inline Oid mib_oid(const Oid &arcs, const std::string &text = "", const Oid &tail = {}) {
    Oid o(callhome_mib_variables_oid, callhome_mib_variables_oid + CALLHOME_MIB_ROOT_LEN);
    o.insert(o.end(), arcs.begin(), arcs.end());
    if (!text.empty()) {
        o.push_back(text.size());
        o.insert(o.end(), text.begin(), text.end());
    }
    o.insert(o.end(), tail.begin(), tail.end());
    return o;
}
inline Oid profile_oid(oid col, const std::string &name) {
    return mib_oid({1, 1, 12, 1, col}, name);
}
inline Oid email_oid(oid col, const std::string &name, oid i) {
    return mib_oid({1, 1, 14, 1, col}, name, {i});
}
inline Oid command_oid(oid col, oid type, oid i) {
    return mib_oid({1, 1, 30, 6, 1, col, type, i});
}

enum { kFormat = 2, kMaxSize = 3, kTransport = 4, kProfileStatus = 5, kLevel = 6, kGroups = 7 };
enum { kEmailAddr = 2, kEmailStatus = 3, kCommand = 2, kCommandStatus = 3 };

struct Varbind {
    Oid name;
    u_char type;
    Bytes value;
};
// INTEGER and Gauge32 values reach write handlers as a C long, as the agent hands them.
inline Varbind int_vb(Oid name, long v, u_char type = ASN_INTEGER) {
    Bytes b(sizeof v);
    std::memcpy(b.data(), &v, sizeof v);
    return {std::move(name), type, b};
}
inline Varbind str_vb(Oid name, const std::string &s) {
    return {std::move(name), ASN_OCTET_STR, Bytes(s.begin(), s.end())};
}

// The object table entry `i` as the agent registers it: the full OID in vp.
inline variable object_var(size_t i) {
    const auto &v = callhome_mib_variables[i];
    variable vp{v.magic, char(v.type), v.acl, v.findVar, u_char(CALLHOME_MIB_ROOT_LEN + v.namelen),
                {}};
    std::copy(callhome_mib_variables_oid, callhome_mib_variables_oid + CALLHOME_MIB_ROOT_LEN,
              vp.name);
    std::copy(v.name, v.name + v.namelen, vp.name + CALLHOME_MIB_ROOT_LEN);
    return vp;
}

// The read handler of the object `name` falls under, called as the agent calls it (exact).
inline u_char *find_var(const Oid &name, WriteMethod **wm, size_t *len) {
    for (size_t i = 0; i < CALLHOME_MIB_VARIABLE_COUNT; ++i) {
        variable vp = object_var(i);
        if (name.size() >= vp.namelen && std::equal(vp.name, vp.name + vp.namelen, name.begin())) {
            oid buf[MAX_OID_LEN];
            size_t n = name.size();
            std::copy(name.begin(), name.end(), buf);
            return vp.findVar(&vp, buf, &n, 1, len, wm);
        }
    }
    return nullptr;
}

// Resets the platform before a test's channel installs its transport.
struct PlatformReset {
    PlatformReset() { platform::reset_for_tests(); }
};

struct SetResult {
    int status = SNMP_ERR_NOERROR, phase = -1; // the first failure
};

// One SET request as net-snmp's agent runs it: for each varbind in turn the read handler,
// which hands back the write handler and the current value, then RESERVE1; RESERVE2 and
// ACTION of every varbind; then COMMIT of all, FREE of all after a failed RESERVE phase, or
// UNDO of all after a failed ACTION. Each handler sees its own copy of the value.
inline SetResult run_set(std::vector<Varbind> vbs) {
    std::vector<WriteMethod *> wm(vbs.size());
    std::vector<u_char *> stat(vbs.size());
    SetResult r;
    auto call = [&](size_t i, int action) {
        Bytes v = vbs[i].value;
        u_char none = 0;
        int s = wm[i] != nullptr     ? wm[i](action, v.empty() ? &none : v.data(), vbs[i].type,
                                         v.size(), stat[i], vbs[i].name.data(), vbs[i].name.size())
                : action == RESERVE1 ? SNMP_ERR_NOTWRITABLE
                                     : 0;
        if (s != 0 && r.status == 0) {
            r = {s, action};
        }
    };
    auto all = [&](int action) {
        for (size_t i = 0; i < vbs.size(); ++i) {
            call(i, action);
        }
    };
    for (size_t i = 0; i < vbs.size(); ++i) {
        size_t len = 0;
        stat[i] = find_var(vbs[i].name, &wm[i], &len);
        call(i, RESERVE1);
    }
    if (r.status == 0) {
        all(RESERVE2);
    }
    if (r.status != 0) {
        all(FREE);
        return r;
    }
    all(ACTION);
    all(r.status == 0 ? COMMIT : UNDO);
    return r;
}

// True when every index container of the module is empty (no SET state outlives a request).
inline bool containers_empty() {
    for (const indxobj_t *list :
         {callHomeDestProfileEntry_list, callHomeDestProfileEntry_undo_list,
          callHomeDestEmailAddressEntry_list, callHomeDestEmailAddressEntry_undo_list,
          callHomeUserDefCliCmd_list, callHomeUserDefCliCmd_undo_list}) {
        if (platform::indxobj_size(list) != 0) {
            return false;
        }
    }
    return true;
}

} // namespace callhome_test
