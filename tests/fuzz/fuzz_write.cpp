// The write handlers against the real service: whole SET requests of up to four varbinds,
// each an object of the module with an index and a value of any type, run through every
// phase as the agent runs them (FREE after a failed RESERVE, UNDO after a failed ACTION).
// Whatever happens, no SET state outlives the request: the six containers end empty.
#include <cstdio>

#include "fuzz_support.hpp"

namespace {

using callhome_fuzz::Input;
using callhome_test::Varbind;

const char *const kNames[] = {"ops", "a", "zz", "new", "xml", " x", "x ", "a b", "", "all"};
const u_char kTypes[] = {ASN_INTEGER,   ASN_OCTET_STR, ASN_UNSIGNED,  ASN_IPADDRESS,
                         ASN_OBJECT_ID, ASN_COUNTER,   ASN_TIMETICKS, ASN_NULL};

Varbind varbind(Input &in) {
    const variable vp = callhome_test::object_var(in.byte() % CALLHOME_MIB_VARIABLE_COUNT);
    Varbind vb;
    vb.name.assign(vp.name, vp.name + vp.namelen);
    switch (in.byte() % 4) {
    case 0: // a scalar's instance
        vb.name.push_back(0);
        break;
    case 1: // a text index (profile tables), then maybe more arcs (address index)
    case 2: {
        const std::string name = kNames[in.byte() % (sizeof kNames / sizeof *kNames)];
        vb.name.push_back(name.size());
        vb.name.insert(vb.name.end(), name.begin(), name.end());
        for (int n = in.byte() % 3; n > 0; --n) {
            vb.name.push_back(in.arc());
        }
        break;
    }
    default: // any arcs (command table: type, index)
        for (int n = in.byte() % 5; n > 0 && vb.name.size() < MAX_OID_LEN; --n) {
            vb.name.push_back(in.arc());
        }
    }
    vb.type = kTypes[in.byte() % (sizeof kTypes / sizeof *kTypes)];
    const uint8_t shape = in.byte();
    if ((vb.type == ASN_INTEGER || vb.type == ASN_UNSIGNED) && shape < 0xC0) {
        // As the agent hands numbers: a C long; small values most of the time.
        const long v = shape < 0x80 ? long(int8_t(in.byte())) : long(int32_t(in.u32()));
        vb = callhome_test::int_vb(vb.name, v, vb.type);
    } else {
        vb.value = in.bytes(shape % 40);
    }
    return vb;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    callhome_fuzz::start_module();
    Input in(data, size);
    std::vector<Varbind> vbs;
    for (int n = 1 + in.byte() % 4; n > 0; --n) {
        vbs.push_back(varbind(in));
    }
    platform::set_snmp_context("fuzz", in.u32());
    callhome_test::run_set(vbs);
    if (!callhome_test::containers_empty()) {
        std::fprintf(stderr, "SET state outlived the request\n");
        std::abort();
    }
    return 0;
}
