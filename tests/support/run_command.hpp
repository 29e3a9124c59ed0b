// Runs a shell command line and captures its standard output; runs a program in a forked
// child without a shell.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>
#include <vector>

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

// In a forked child: becomes `args[0]` (searched in PATH when it has no slash) with the other
// words as its arguments; exits 127 when that fails.
[[noreturn]] inline void exec_args(std::vector<std::string> args) {
    std::vector<char *> argv;
    for (auto &a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
}

} // namespace callhome_test
