// A scripted call-home service on a temporary socket, run on its own thread, for testing
// the platform's socket channel and notification listener end to end.
#pragma once

#include <algorithm>
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

// A fresh directory for sockets, removed with everything in it.
struct TempDir {
    TempDir() {
        char tmpl[] = "/tmp/chplat-XXXXXX";
        path = ::mkdtemp(tmpl) != nullptr ? tmpl : "";
    }
    ~TempDir() { std::filesystem::remove_all(path); }
    std::string path;
};

// A frame of `kind`: an answer to request `seq`, or a notification `id` carrying `body`.
inline Bytes frame(fr::Kind kind, uint32_t seq, int32_t status_or_id, const Bytes *body = nullptr) {
    fr::Frame f;
    f.kind = kind;
    f.seq = seq;
    (kind == fr::Kind::Response ? f.status : f.opcode) = status_or_id;
    if (body != nullptr) {
        f.flags = kind == fr::Kind::Response ? fr::kHasRecord : 0;
        f.body = *body;
    }
    return fr::encode(f).value();
}
inline Bytes response(uint32_t seq, int32_t status, const Bytes *record = nullptr) {
    return frame(fr::Kind::Response, seq, status, record);
}

// What the service does with one request: the messages it sends back, in order, and
// whether it then hangs up.
struct Action {
    std::vector<Bytes> send;
    bool close = false;
};
using Script = std::function<Action(const fr::Frame &request)>;

class FakeService {
  public:
    FakeService(
        std::string path, Script script = [](const fr::Frame &) { return Action{}; })
        : path_(std::move(path)), script_(std::move(script)) {
        listen_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        path_.copy(addr.sun_path, sizeof addr.sun_path - 1);
        ::unlink(path_.c_str());
        if (::pipe2(wake_, O_CLOEXEC) != 0 ||
            ::bind(listen_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
            ::listen(listen_, 8) != 0) {
            std::abort();
        }
        thread_ = std::thread([this] { run(); });
    }
    ~FakeService() {
        (void)!::write(wake_[1], "s", 1);
        thread_.join();
        for (int fd : {wake_[0], wake_[1], listen_}) {
            ::close(fd);
        }
        ::unlink(path_.c_str());
    }

    std::vector<fr::Frame> requests() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }
    size_t subscribers() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return subscribers_.size();
    }
    // Waits (bounded) until `n` subscribers are connected; false if that does not happen.
    bool wait_for_subscribers(size_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10),
                                 [&] { return subscribers_.size() == n; });
    }
    // Pushes a notification, or any bytes, to every subscriber.
    void notify(int32_t id, const Bytes &payload) {
        send_raw_to_subscribers(frame(fr::Kind::Notification, 0, id, &payload));
    }
    void send_raw_to_subscribers(const Bytes &message) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (int fd : subscribers_) {
            ::send(fd, message.data(), message.size(), MSG_NOSIGNAL);
        }
    }

  private:
    void run() {
        std::vector<int> conns;
        Bytes buffer(fr::kMaxFrame + 1);
        for (;;) {
            std::vector<pollfd> fds{{wake_[0], POLLIN, 0}, {listen_, POLLIN, 0}};
            for (int c : conns) {
                fds.push_back({c, POLLIN, 0});
            }
            if (::poll(fds.data(), fds.size(), -1) < 0) {
                continue;
            }
            if (fds[0].revents != 0) {
                break;
            }
            if ((fds[1].revents & POLLIN) != 0) {
                conns.push_back(::accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC));
            }
            for (size_t i = 2; i < fds.size(); ++i) {
                const int fd = fds[i].fd;
                const ssize_t n =
                    fds[i].revents == 0 ? 1 : ::recv(fd, buffer.data(), buffer.size(), 0);
                auto f = n > 0 && fds[i].revents != 0 ? fr::decode(buffer.data(), size_t(n))
                                                      : std::nullopt;
                Action action{{}, n <= 0};
                std::lock_guard<std::mutex> lock(mutex_);
                if (f && f->kind == fr::Kind::Subscribe) {
                    subscribers_.push_back(fd);
                } else if (f) {
                    requests_.push_back(*f);
                    action = script_(*f);
                }
                for (const Bytes &m : action.send) {
                    ::send(fd, m.data(), m.size(), MSG_NOSIGNAL);
                }
                if (action.close) {
                    subscribers_.erase(std::remove(subscribers_.begin(), subscribers_.end(), fd),
                                       subscribers_.end());
                    conns.erase(std::remove(conns.begin(), conns.end(), fd), conns.end());
                    ::close(fd);
                }
                changed_.notify_all();
            }
        }
        std::lock_guard<std::mutex> lock(mutex_);
        for (int fd : conns) {
            ::close(fd);
        }
        subscribers_.clear();
        changed_.notify_all();
    }

    std::string path_;
    Script script_;
    int wake_[2] = {-1, -1}, listen_ = -1;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<fr::Frame> requests_;
    std::vector<int> subscribers_;
};

} // namespace platform_test
