// Programs the tests run: a shell command line with its output captured, or a program in a
// forked child without a shell (a daemon under test, or a tool run to its end).
#pragma once

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace callhome_test {

struct CommandResult {
    int status = -1; // exit status, -1 when the command could not run or was killed
    std::string out, err;
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

inline std::string slurp(const std::string &path) {
    std::stringstream ss;
    ss << std::ifstream(path).rdbuf();
    return ss.str();
}

// Polls `done` every 20 ms, at most `seconds`: the bound only cuts a hung test short.
template <class F> bool eventually(F done, int seconds = 20) {
    for (int i = 0; i < seconds * 50;
         ++i, std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
        if (done()) {
            return true;
        }
    }
    return false;
}

// A loopback port of `type` (SOCK_STREAM, SOCK_DGRAM) that nothing used a moment ago.
inline int free_port(int type) {
    const int fd = ::socket(AF_INET, type, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ::bind(fd, reinterpret_cast<sockaddr *>(&a), len);
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    ::close(fd);
    return ntohs(a.sin_port);
}

// A scratch directory, removed with everything in it when it goes away.
struct TempDir {
    std::string path = [] {
        char tmpl[] = "/tmp/callhome-test-XXXXXX";
        return std::string(::mkdtemp(tmpl) != nullptr ? tmpl : "/nonexistent");
    }();
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
    std::string operator/(const std::string &name) const { return path + "/" + name; }
};

// A program in a forked child, without a shell (`argv[0]` is searched in PATH when it has no
// slash); `prepare` runs in the child just before exec: redirections, limits, another user.
// Stopped and reaped when it goes away.
class Child {
  public:
    Child() = default;
    explicit Child(std::vector<std::string> argv, const std::function<void()> &prepare = {}) {
        if ((pid_ = ::fork()) == 0) {
            if (prepare) {
                prepare();
            }
            std::vector<char *> args;
            for (auto &a : argv) {
                args.push_back(a.data());
            }
            args.push_back(nullptr);
            ::execvp(args[0], args.data());
            ::_exit(127);
        }
    }
    Child(Child &&o) noexcept : pid_(std::exchange(o.pid_, -1)) {}
    Child &operator=(Child &&o) noexcept {
        if (this != &o) {
            stop();
            pid_ = std::exchange(o.pid_, -1);
        }
        return *this;
    }
    ~Child() { stop(); }

    pid_t pid() const { return pid_; }
    // False once it has exited (then it is reaped here).
    bool running() {
        if (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
        }
        return pid_ > 0;
    }
    void signal(int sig) const {
        if (pid_ > 0) {
            ::kill(pid_, sig);
        }
    }
    // Sends `sig` (none when 0), resumes it if stopped, and reaps it: its exit status, 128 +
    // the signal that ended it, or -1 when there was no child.
    int stop(int sig = SIGTERM) {
        int st = 0;
        if (pid_ <= 0) {
            return -1;
        }
        signal(sig);
        signal(SIGCONT); // a stopped process acts on the signal only once resumed
        ::waitpid(std::exchange(pid_, -1), &st, 0);
        return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    }
    int wait() { return stop(0); }

  private:
    pid_t pid_ = -1;
};

// For `prepare`: no standard input; standard output, and standard error too unless `err`
// names a file of its own, appended to `out`.
inline void redirect(const std::string &out, const std::string &err = "") {
    const auto open = [](const std::string &p) {
        return ::open(p.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    };
    ::dup2(::open("/dev/null", O_RDONLY), 0);
    ::dup2(open(out), 1);
    ::dup2(err.empty() ? 1 : open(err), 2);
}

// Runs `argv` to its end; its output goes through the files `scratch`.out and .err.
inline CommandResult run_program(const std::vector<std::string> &argv, const std::string &scratch) {
    for (const char *s : {".out", ".err"}) {
        ::unlink((scratch + s).c_str());
    }
    const int status = Child(argv, [&] { redirect(scratch + ".out", scratch + ".err"); }).wait();
    return {status, slurp(scratch + ".out"), slurp(scratch + ".err")};
}

} // namespace callhome_test
