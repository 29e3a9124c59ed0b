// What the module's fuzz targets share: the real service in memory behind the channel, the
// module initialised once, and a reader of the fuzzer's bytes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// The module's headers first: the platform's test hooks name their container type.
#include "set_driver.hpp"

#include "cmi.h"
#include "service_channel.hpp"

namespace callhome_fuzz {

// Consumes the input front to back; past the end it yields zeros.
class Input {
  public:
    Input(const uint8_t *data, size_t size) : p_(data), end_(data + size) {}
    bool empty() const { return p_ == end_; }
    uint8_t byte() { return p_ < end_ ? *p_++ : 0; }
    uint32_t u32() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) {
            v = v << 8 | byte();
        }
        return v;
    }
    // A small arc most of the time, any 32-bit arc after an escape byte.
    oid arc() {
        const uint8_t b = byte();
        return b < 0xF0 ? oid(b) : oid(u32());
    }
    std::vector<uint8_t> bytes(size_t n) {
        std::vector<uint8_t> out;
        while (n-- > 0 && !empty()) {
            out.push_back(byte());
        }
        return out;
    }

  private:
    const uint8_t *p_, *end_;
};

// The service in memory, the module initialised, and a few rows in every table, once.
inline void start_module() {
    static bool started = false;
    if (started) {
        return;
    }
    started = true;
    platform::reset_for_tests();
    static callhome_test::ServiceChannel channel;
    platform::set_trap_sink([](const oid *, size_t, netsnmp_variable_list *) {});
    platform::set_snmp_context("fuzz", 1);
    platform::set_debug_output(std::getenv("FUZZ_DEBUG") != nullptr);
    init_callhome_mib();
    using callhome_test::int_vb;
    using callhome_test::str_vb;
    const auto ok = [](std::vector<callhome_test::Varbind> vbs) {
        const auto r = callhome_test::run_set(vbs);
        if (r.status != 0) { // the seed rows must exist for the targets to mean anything
            std::fprintf(stderr, "seed SET %zu failed: status %d in phase %d\n",
                         size_t(vbs[0].name.back()), r.status, r.phase);
            std::abort();
        }
    };
    for (const char *name : {"ops", "a", "zz"}) {
        ok({int_vb(callhome_test::profile_oid(callhome_test::kProfileStatus, name), 4)});
        ok({int_vb(callhome_test::email_oid(callhome_test::kEmailStatus, name, 1), 4),
            str_vb(callhome_test::email_oid(callhome_test::kEmailAddr, name, 1), "x@y.org")});
    }
    ok({int_vb(callhome_test::command_oid(callhome_test::kCommandStatus, 1, 1), 4),
        str_vb(callhome_test::command_oid(callhome_test::kCommand, 1, 1), "show clock")});
    ok({int_vb(callhome_test::command_oid(callhome_test::kCommandStatus, 2, 3), 4),
        str_vb(callhome_test::command_oid(callhome_test::kCommand, 2, 3), "show log")});
    ok({str_vb(callhome_test::profile_oid(callhome_test::kGroups, "ops"), std::string(1, '\x40'))});
}

// The object table entry `i` as the agent registers it: the full OID in vp.
inline variable object(size_t i) {
    const auto &v = callhome_mib_variables[i];
    variable vp{v.magic, char(v.type), v.acl, v.findVar, u_char(CALLHOME_MIB_ROOT_LEN + v.namelen),
                {}};
    std::copy(callhome_mib_variables_oid, callhome_mib_variables_oid + CALLHOME_MIB_ROOT_LEN,
              vp.name);
    std::copy(v.name, v.name + v.namelen, vp.name + CALLHOME_MIB_ROOT_LEN);
    return vp;
}

} // namespace callhome_fuzz
