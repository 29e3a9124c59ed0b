// The read handlers against the real service: any OID, exact (GET) or not (GETNEXT), as the
// agent hands it to the object whose subtree holds it (or, for GETNEXT, to each following
// object in turn). A GET answers for the name asked or not at all; a GETNEXT answer lies in
// the object's subtree, after the name asked; values are readable for their whole length.
#include <algorithm>
#include <cstdio>
#include <string>

#include "fuzz_support.hpp"

namespace {

using callhome_fuzz::Input;

[[noreturn]] void fail(const char *what, const std::vector<oid> &asked, const oid *answer,
                       size_t answer_len) {
    std::string text = std::string(what) + ": asked ";
    for (size_t i = 0; i < asked.size() + answer_len; ++i) {
        text += (i == asked.size() ? " answer ." : ".") +
                std::to_string(i < asked.size() ? asked[i] : answer[i - asked.size()]);
    }
    std::fprintf(stderr, "%s\n", text.c_str());
    std::abort();
}

// True when the index after an object's column is one the module's index rules read as
// written, so that a GET answers for it and a GETNEXT answer follows it. Text indexes (profiles,
// addresses) hold at most 31 characters, one per arc, each 1..255 (the module keeps an arc's low
// byte, caps the length and stops at a NUL). An address OID is read as written only whole: name,
// then an index that is a positive 32-bit integer (without the index the module drops the last
// character given; with more arcs it restarts the walk at the first row).
// Command indexes (type, index) travel as signed 32-bit integers.
bool index_read_as_written(const variable &vp, const std::vector<oid> &asked) {
    const oid *r = vp.name + CALLHOME_MIB_ROOT_LEN;
    const size_t rn = vp.namelen - CALLHOME_MIB_ROOT_LEN;
    const bool profile = rn == 5 && r[0] == 1 && r[1] == 1 && r[2] == 12 && r[3] == 1;
    const bool address = rn == 5 && r[0] == 1 && r[1] == 1 && r[2] == 14 && r[3] == 1;
    const bool command = rn == 6 && r[0] == 1 && r[1] == 1 && r[2] == 30 && r[3] == 6;
    const size_t at = vp.namelen;
    if (command) {
        return std::all_of(asked.begin() + long(std::min(at, asked.size())),
                           asked.begin() + long(std::min(at + 2, asked.size())),
                           [](oid a) { return a <= 0x7FFFFFFF; });
    }
    if ((!profile && !address) || asked.size() <= at) {
        return true;
    }
    const oid n = asked[at];
    if (n > 31) {
        return false;
    }
    for (size_t k = 1; k <= n && at + k < asked.size(); ++k) {
        if (asked[at + k] == 0 || asked[at + k] > 255) {
            return false;
        }
    }
    if (address) {
        const size_t after = asked.size() > at + 1 + n ? asked.size() - (at + 1 + n) : 0;
        return n == 0 || (after == 1 && asked.back() <= 0x7FFFFFFF);
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    callhome_fuzz::start_module();
    Input in(data, size);
    const uint8_t flags = in.byte();
    const bool exact = flags & 1;
    // Mostly names under the module's root; sometimes anything at all.
    std::vector<oid> asked;
    if (!(flags & 2)) {
        asked.assign(callhome_mib_variables_oid,
                     callhome_mib_variables_oid + CALLHOME_MIB_ROOT_LEN);
    }
    while (!in.empty() && asked.size() < MAX_OID_LEN) {
        asked.push_back(in.arc());
    }
    for (size_t i = 0; i < CALLHOME_MIB_VARIABLE_COUNT; ++i) {
        variable vp = callhome_test::object_var(i);
        const bool inside =
            asked.size() >= vp.namelen && std::equal(vp.name, vp.name + vp.namelen, asked.begin());
        if (exact && !inside) {
            continue;
        }
        // The agent hands a GETNEXT that falls before an object's subtree over as the
        // object's own name.
        const bool before =
            !inside && snmp_oid_compare(asked.data(), asked.size(), vp.name, vp.namelen) < 0;
        if (!exact && !inside && !before) {
            continue;
        }
        const oid *from = before ? vp.name : asked.data();
        size_t len = before ? vp.namelen : asked.size();
        const std::vector<oid> given(from, from + len);
        oid name[MAX_OID_LEN];
        std::copy(given.begin(), given.end(), name);
        size_t var_len = 0;
        WriteMethod *write = nullptr;
        const u_char *value = vp.findVar(&vp, name, &len, exact, &var_len, &write);
        if (value == nullptr) {
            if (exact) {
                break;
            }
            continue;
        }
        if (var_len > 65536) {
            fail("value longer than any object's", asked, name, len);
        }
        static std::vector<u_char> sink; // ASan sees any read past the value's storage
        sink.assign(value, value + var_len);
        if (exact) {
            if (std::vector<oid>(name, name + len) != given && index_read_as_written(vp, given)) {
                fail("GET answered for another name", asked, name, len);
            }
            break;
        }
        if (len < vp.namelen || !std::equal(vp.name, vp.name + vp.namelen, name)) {
            fail("GETNEXT answered outside the object", asked, name, len);
        }
        if (snmp_oid_compare(name, len, given.data(), given.size()) <= 0 &&
            index_read_as_written(vp, given)) {
            fail("GETNEXT answer not after the name asked", asked, name, len);
        }
        break;
    }
    return 0;
}
