// The service's log: one line per event on standard error, where callhomed's supervisor
// (systemd's journal, or run.sh's log file) keeps it.
#pragma once

#include <cstdint>
#include <iostream>
#include <string>

#include "callhome_wire.h"

namespace callhome {

inline void log_line(const std::string &text) {
    std::cerr << "callhomed: " << text << "\n" << std::flush;
}

// Refuses a change, saying why ("refused callHomeEnable=true: ..."); gives back the status.
inline int32_t refused(const std::string &what, const std::string &why,
                       int32_t status = CALLHOME_ERR_INVALID_INPUT) {
    log_line("refused " + what + ": " + why);
    return status;
}

} // namespace callhome
