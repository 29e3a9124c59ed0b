// What the module's fuzz targets share: the real service in memory behind the channel, the
// module initialised once, and a reader of the fuzzer's bytes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>
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
    using namespace callhome_test;
    platform::reset_for_tests();
    static ServiceChannel channel;
    platform::set_trap_sink([](const oid *, size_t, netsnmp_variable_list *) {});
    platform::set_snmp_context("fuzz", 1);
    platform::set_debug_output(std::getenv("FUZZ_DEBUG") != nullptr);
    init_callhome_mib();
    // The seed rows must exist for the targets to mean anything.
    const auto ok = [](std::vector<Varbind> vbs) {
        const auto r = run_set(vbs);
        if (r.status != 0) {
            std::fprintf(stderr, "seed SET failed: status %d in phase %d\n", r.status, r.phase);
            std::abort();
        }
    };
    for (const char *name : {"ops", "a", "zz"}) {
        ok({int_vb(profile_oid(kProfileStatus, name), 4)});
        ok({int_vb(email_oid(kEmailStatus, name, 1), 4),
            str_vb(email_oid(kEmailAddr, name, 1), "x@y.org")});
    }
    for (const auto &[type, index, line] : {std::tuple{1, 1, "show clock"}, {2, 3, "show log"}}) {
        ok({int_vb(command_oid(kCommandStatus, type, index), 4),
            str_vb(command_oid(kCommand, type, index), line)});
    }
    ok({str_vb(profile_oid(kGroups, "ops"), std::string(1, '\x40'))});
}

} // namespace callhome_fuzz
