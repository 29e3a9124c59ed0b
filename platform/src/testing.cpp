#include "internal.hpp"
#include "platform/testing.hpp"

namespace platform {

void reset_for_tests() {
    detail::reset_notifications();
    detail::reset_channel();
    detail::reset_indxobj();
    detail::reset_trace();
    detail::reset_syserr();
    detail::reset_snmp_ctx();
    detail::reset_veld();
}

} // namespace platform
