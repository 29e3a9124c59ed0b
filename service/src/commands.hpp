// User-defined commands attached to alert messages, run without a shell.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace callhome::commands {

// The executables a command line may name when the configuration names none.
const std::vector<std::string> &default_allowed();

struct Limits {
    int timeout_ms = 5000;
    size_t max_output = 64 * 1024;
};

struct Result {
    std::string line;       // the command line as configured
    bool ran = false;       // false: `note` says why nothing was started
    int exit_status = -1;   // when it exited
    int signal = 0;         // when a signal ended it
    bool timed_out = false; // stopped at the time limit
    bool truncated = false; // stopped at the output limit
    std::string output;     // standard output and standard error, as they came
    std::string note;       // why it did not run
    int timeout_ms = 0;     // the limits it ran with
    size_t max_output = 0;
    // One line for the message: "exit status 0", "killed after 5 s (time limit)", ...
    std::string status_text() const;
};

// The words of a command line: split on blanks, nothing else is special.
std::vector<std::string> split(const std::string &line);

// The executable the first word names: itself when it is an absolute path in `allowed`, the
// entry of `allowed` whose file name it is when it has no '/', else "".
std::string resolve(const std::string &word, const std::vector<std::string> &allowed);

// Runs one command line with no standard input, the environment PATH=/usr/bin:/bin and
// LANG=C.UTF-8 only, and the limits. Blocks for at most the time limit (plus the reaping).
Result run(const std::string &line, const std::vector<std::string> &allowed,
           const Limits &limits = {});

} // namespace callhome::commands
