#include "commands.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace callhome::commands {
namespace {

class Fd {
  public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }
    void reset() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = -1;
    }

  private:
    int fd_;
};

struct SpawnAttr {
    posix_spawnattr_t a;
    SpawnAttr() { posix_spawnattr_init(&a); }
    ~SpawnAttr() { posix_spawnattr_destroy(&a); }
};

struct FileActions {
    posix_spawn_file_actions_t f;
    FileActions() { posix_spawn_file_actions_init(&f); }
    ~FileActions() { posix_spawn_file_actions_destroy(&f); }
};

} // namespace

const std::vector<std::string> &default_allowed() {
    static const std::vector<std::string> list = {
        "/usr/bin/uname", "/usr/bin/uptime",   "/usr/bin/df",        "/usr/bin/free",
        "/usr/bin/ip",    "/usr/bin/hostname", "/usr/bin/dpkg-query"};
    return list;
}

std::string Result::status_text() const {
    if (!ran) {
        return note;
    }
    std::string s;
    if (timed_out) {
        s = "stopped at the time limit of " + std::to_string(timeout_ms / 1000) + " s";
    } else if (truncated) {
        s = "stopped at the output limit of " + std::to_string(max_output / 1024) + " KiB";
    } else if (signal != 0) {
        s = std::string("ended by signal ") + strsignal(signal);
    } else {
        s = "exit status " + std::to_string(exit_status);
    }
    return s;
}

std::vector<std::string> split(const std::string &line) {
    std::vector<std::string> words;
    std::string w;
    for (char c : line) {
        if (c == ' ' || c == '\t') {
            if (!w.empty()) {
                words.push_back(std::move(w));
                w.clear();
            }
        } else {
            w += c;
        }
    }
    if (!w.empty()) {
        words.push_back(std::move(w));
    }
    return words;
}

std::string resolve(const std::string &word, const std::vector<std::string> &allowed) {
    if (word.find('/') != std::string::npos) {
        return std::find(allowed.begin(), allowed.end(), word) != allowed.end() ? word : "";
    }
    for (const auto &path : allowed) {
        const auto slash = path.rfind('/');
        if (slash != std::string::npos && path.compare(slash + 1, std::string::npos, word) == 0) {
            return path;
        }
    }
    return "";
}

Result run(const std::string &line, const std::vector<std::string> &allowed, const Limits &limits) {
    Result r;
    r.line = line;
    r.timeout_ms = limits.timeout_ms;
    r.max_output = limits.max_output;
    auto words = split(line);
    if (words.empty()) {
        r.note = "not run: empty command";
        return r;
    }
    const std::string path = resolve(words[0], allowed);
    if (path.empty()) {
        r.note = "not run: " + words[0] + " is not in allowed_commands";
        return r;
    }
    words[0] = path;

    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0) {
        r.note = std::string("not run: pipe: ") + strerror(errno);
        return r;
    }
    Fd rd(p[0]), wr(p[1]);

    FileActions fa;
    posix_spawn_file_actions_addopen(&fa.f, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&fa.f, wr.get(), 1);
    posix_spawn_file_actions_adddup2(&fa.f, wr.get(), 2);
    // Its own process group, so that a time-out stops whatever it started too; default
    // signal handling and an empty mask whatever the service blocks for its event loop.
    SpawnAttr at;
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setpgroup(&at.a, 0);
    posix_spawnattr_setsigmask(&at.a, &none);
    posix_spawnattr_setsigdefault(&at.a, &all);
    posix_spawnattr_setflags(&at.a, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK |
                                        POSIX_SPAWN_SETSIGDEF);

    std::vector<char *> argv;
    for (auto &w : words) {
        argv.push_back(w.data());
    }
    argv.push_back(nullptr);
    char env_path[] = "PATH=/usr/bin:/bin";
    char env_lang[] = "LANG=C.UTF-8";
    char *envp[] = {env_path, env_lang, nullptr};

    pid_t pid = -1;
    const int err = posix_spawn(&pid, path.c_str(), &fa.f, &at.a, argv.data(), envp);
    wr.reset();
    if (err != 0) {
        r.note = "not run: " + path + ": " + strerror(err);
        return r;
    }
    r.ran = true;

    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(limits.timeout_ms);
    char buf[8192];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0) {
            r.timed_out = true;
            break;
        }
        pollfd pfd{rd.get(), POLLIN, 0};
        const int n = poll(&pfd, 1, int(left));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            continue; // the deadline check above ends it
        }
        const ssize_t got = read(rd.get(), buf, sizeof buf);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break; // every writer closed its end: the command is done or detached
        }
        const size_t room = limits.max_output - r.output.size();
        r.output.append(buf, std::min(size_t(got), room));
        if (size_t(got) > room) {
            r.truncated = true;
            break;
        }
    }
    // It may have closed its output and still run: wait for it within the same time limit.
    int status = 0;
    while (!r.timed_out && !r.truncated) {
        const pid_t w = waitpid(pid, &status, WNOHANG);
        if (w == pid || (w < 0 && errno != EINTR)) {
            break;
        }
        if (w == 0 && std::chrono::steady_clock::now() >= deadline) {
            r.timed_out = true;
            break;
        }
        if (w == 0) {
            usleep(10 * 1000);
        }
    }
    if (r.timed_out || r.truncated) {
        kill(-pid, SIGKILL);
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    if (WIFEXITED(status)) {
        r.exit_status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        r.signal = WTERMSIG(status);
    }
    return r;
}

} // namespace callhome::commands
