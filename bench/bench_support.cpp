#include "bench_support.hpp"

#include <fcntl.h>
#include <ftw.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace bench {

Spread spread(std::vector<double> v) {
    Spread s;
    if (v.empty()) {
        return s;
    }
    std::sort(v.begin(), v.end());
    s.min = v.front();
    s.max = v.back();
    const size_t n = v.size();
    s.median = n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
    return s;
}

double percentile(std::vector<double> v, double p) {
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    const size_t rank = size_t(std::ceil(p / 100.0 * double(v.size())));
    return v[std::min(v.size() - 1, rank == 0 ? 0 : rank - 1)];
}

Child::Child(const std::vector<std::string> &argv, const std::map<std::string, std::string> &env,
             const std::string &log) {
    std::vector<char *> args;
    for (const auto &a : argv) {
        args.push_back(const_cast<char *>(a.c_str()));
    }
    args.push_back(nullptr);
    pid_ = fork();
    if (pid_ < 0) {
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    }
    if (pid_ == 0) {
        const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fd < 0 || null < 0 || dup2(null, 0) < 0 || dup2(fd, 1) < 0 || dup2(fd, 2) < 0) {
            _exit(127);
        }
        for (const auto &[k, v] : env) {
            setenv(k.c_str(), v.c_str(), 1);
        }
        const std::string path = std::string(std::getenv("PATH") ? std::getenv("PATH") : "") +
                                 ":/usr/sbin:/usr/bin:/sbin:/bin";
        setenv("PATH", path.c_str(), 1);
        execvp(args[0], args.data());
        _exit(127);
    }
}

Child &Child::operator=(Child &&o) noexcept {
    if (this != &o) {
        stop();
        pid_ = o.pid_;
        o.pid_ = -1;
    }
    return *this;
}

bool Child::alive() const {
    return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0;
}

void Child::stop() {
    if (pid_ <= 0) {
        return;
    }
    kill(pid_, SIGTERM);
    if (!wait_until(5, [&] { return waitpid(pid_, nullptr, WNOHANG) != 0; })) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
}

ScratchDir::ScratchDir(const std::string &parent) {
    mkdir(parent.c_str(), 0700);
    // Absolute, so that child processes and net-snmp's path handling agree on it.
    char *abs = realpath(parent.c_str(), nullptr);
    if (abs == nullptr) {
        throw std::runtime_error("cannot use " + parent + ": " + std::strerror(errno));
    }
    std::string templ = std::string(abs) + "/run-XXXXXX";
    std::free(abs);
    if (mkdtemp(templ.data()) == nullptr) { // mkdtemp creates it 0700
        throw std::runtime_error("mkdtemp under " + parent + ": " + std::strerror(errno));
    }
    path_ = templ;
}

ScratchDir::~ScratchDir() {
    nftw(
        path_.c_str(),
        [](const char *p, const struct stat *, int, struct FTW *) { return remove(p); }, 16,
        FTW_DEPTH | FTW_PHYS);
}

int free_udp_port() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0) {
        throw std::runtime_error(std::string("no free UDP port: ") + std::strerror(errno));
    }
    close(fd);
    return ntohs(a.sin_port);
}

long rss_kib(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

long file_size(const std::string &path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? long(st.st_size) : -1;
}

} // namespace bench
