// A scripted call-home service on a temporary socket, run on its own thread, for testing
// the platform's socket channel and notification listener end to end.
#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/frame.hpp"

namespace platform_test {

namespace fr = platform::frame;
using Bytes = std::vector<uint8_t>;

class Fd {
  public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Fd(Fd &&o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
    Fd &operator=(Fd &&o) noexcept {
        std::swap(fd_, o.fd_);
        return *this;
    }
    int get() const { return fd_; }

  private:
    int fd_;
};

// A fresh directory for sockets, removed with everything in it.
class TempDir {
  public:
    TempDir() {
        char tmpl[] = "/tmp/chplat-XXXXXX";
        path_ = ::mkdtemp(tmpl) != nullptr ? tmpl : "";
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

inline Bytes encoded(const fr::Frame &f) {
    return fr::encode(f).value();
}

// An answer to request `seq`.
inline Bytes response(uint32_t seq, int32_t status, const Bytes *record = nullptr) {
    fr::Frame f;
    f.kind = fr::Kind::Response;
    f.seq = seq;
    f.status = status;
    if (record != nullptr) {
        f.flags = fr::kHasRecord;
        f.body = *record;
    }
    return encoded(f);
}

class FakeService {
  public:
    // What the service does with one request: the messages it sends back, in order, and
    // whether it then hangs up.
    struct Action {
        std::vector<Bytes> send;
        bool close = false;
    };
    using Script = std::function<Action(const fr::Frame &request)>;

    FakeService(std::string path, Script script)
        : path_(std::move(path)), script_(std::move(script)) {
        int pipe_fds[2];
        if (::pipe2(pipe_fds, O_CLOEXEC) != 0) {
            std::abort();
        }
        wake_read_ = Fd(pipe_fds[0]);
        wake_write_ = Fd(pipe_fds[1]);
        listen_ = Fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        path_.copy(addr.sun_path, sizeof addr.sun_path - 1);
        ::unlink(path_.c_str());
        if (::bind(listen_.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
            ::listen(listen_.get(), 8) != 0) {
            std::abort();
        }
        thread_ = std::thread([this] { run(); });
    }

    ~FakeService() {
        const char stop = 's';
        (void)!::write(wake_write_.get(), &stop, 1);
        thread_.join();
        ::unlink(path_.c_str());
    }
    FakeService(const FakeService &) = delete;
    FakeService &operator=(const FakeService &) = delete;

    std::vector<fr::Frame> requests() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

    // Blocks until `n` subscribers are connected; false if that does not happen soon.
    bool wait_for_subscribers(size_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10),
                                 [&] { return subscribers_.size() == n; });
    }

    size_t subscribers() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return subscribers_.size();
    }

    // Pushes a notification to every subscriber.
    void notify(int32_t id, const Bytes &payload) {
        fr::Frame f;
        f.kind = fr::Kind::Notification;
        f.opcode = id;
        f.body = payload;
        send_raw_to_subscribers(encoded(f));
    }
    void send_raw_to_subscribers(const Bytes &message) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (int fd : subscribers_) {
            ::send(fd, message.data(), message.size(), MSG_NOSIGNAL);
        }
    }

  private:
    void run() {
        std::vector<Fd> conns;
        Bytes buffer(fr::kMaxFrame + 1);
        for (;;) {
            std::vector<pollfd> fds{{wake_read_.get(), POLLIN, 0}, {listen_.get(), POLLIN, 0}};
            for (const Fd &c : conns) {
                fds.push_back({c.get(), POLLIN, 0});
            }
            if (::poll(fds.data(), fds.size(), -1) < 0) {
                continue;
            }
            if (fds[0].revents != 0) {
                break;
            }
            if ((fds[1].revents & POLLIN) != 0) {
                conns.emplace_back(::accept4(listen_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            }
            std::vector<int> closing;
            for (size_t i = 2; i < fds.size(); ++i) {
                if (fds[i].revents == 0) {
                    continue;
                }
                const int fd = fds[i].fd;
                const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
                if (n <= 0) {
                    closing.push_back(fd);
                    continue;
                }
                auto f = fr::decode(buffer.data(), size_t(n));
                if (!f) {
                    continue;
                }
                if (f->kind == fr::Kind::Subscribe) {
                    std::lock_guard<std::mutex> lock(mutex_);
                    subscribers_.push_back(fd);
                    changed_.notify_all();
                    continue;
                }
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    requests_.push_back(*f);
                }
                const Action action = script_(*f);
                for (const Bytes &m : action.send) {
                    ::send(fd, m.data(), m.size(), MSG_NOSIGNAL);
                }
                if (action.close) {
                    closing.push_back(fd);
                }
            }
            for (int fd : closing) {
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    subscribers_.erase(std::remove(subscribers_.begin(), subscribers_.end(), fd),
                                       subscribers_.end());
                    changed_.notify_all();
                }
                conns.erase(std::remove_if(conns.begin(), conns.end(),
                                           [fd](const Fd &c) { return c.get() == fd; }),
                            conns.end());
            }
        }
        std::lock_guard<std::mutex> lock(mutex_);
        subscribers_.clear();
        changed_.notify_all();
    }

    std::string path_;
    Script script_;
    Fd wake_read_, wake_write_, listen_;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<fr::Frame> requests_;
    std::vector<int> subscribers_;
};

} // namespace platform_test
