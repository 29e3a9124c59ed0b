// Runs a shell command line and captures its standard output.
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

namespace callhome_test {

struct CommandResult {
    int status = -1; // exit status, -1 when the command could not run or was killed
    std::string out;
};

// Arguments must already be quoted; add "2>&1" to the line to capture standard error too.
inline CommandResult run_command(const std::string &command) {
    CommandResult r;
    FILE *p = ::popen(command.c_str(), "r");
    if (p == nullptr) {
        return r;
    }
    std::array<char, 4096> buf{};
    size_t n;
    while ((n = std::fread(buf.data(), 1, buf.size(), p)) > 0) {
        r.out.append(buf.data(), n);
    }
    const int st = ::pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

} // namespace callhome_test
