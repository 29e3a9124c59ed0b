// A pid file that exists while its owner lives: written on construction (nothing when the
// path is empty), removed on destruction, whichever way the process leaves its scope.
#pragma once

#include <unistd.h>

#include <fstream>
#include <string>
#include <utility>

namespace posix {

class PidFile {
  public:
    explicit PidFile(std::string path) : path_(std::move(path)) {
        if (path_.empty()) {
            return;
        }
        std::ofstream out(path_, std::ios::trunc);
        out << ::getpid() << "\n";
        if (!out) {
            path_.clear();
            failed_ = true;
        }
    }
    ~PidFile() {
        if (!path_.empty()) {
            ::unlink(path_.c_str());
        }
    }
    PidFile(const PidFile &) = delete;
    PidFile &operator=(const PidFile &) = delete;

    // False when the file could not be written (it is then not removed either); the caller
    // decides whether that is fatal.
    bool ok() const { return !failed_; }

  private:
    std::string path_;
    bool failed_ = false;
};

} // namespace posix
