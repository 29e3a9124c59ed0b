#include "callhome/sender.hpp"

#include <sys/time.h>

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include "message.hpp"
#include "outbox.hpp"
#include "smtp.hpp"
#include "store.hpp"

namespace callhome {
namespace {

// One line at a time, so the sender's lines do not interleave with the event loop's.
void log(const std::string &line) {
    std::cerr << ("callhomed: " + line + "\n") << std::flush;
}

// What the MIB configured for mail, read afresh for every attempt: the operator may have
// fixed the server or the sender address since the message was queued.
struct MailSettings {
    smtp::Server server;
    std::string from, reply_to, receipt;
};

MailSettings read_settings(db::Database &db) {
    std::map<std::string, std::string> v;
    db.query("SELECT key, value FROM settings WHERE key LIKE 'email.%'", {},
             [&](const db::Row &r) { v[r.text(0)] = r.text(1); });
    auto num = [&](const char *k, uint32_t dflt) {
        const auto it = v.find(k);
        return it == v.end() || it->second.empty() ? dflt : uint32_t(std::stoul(it->second));
    };
    MailSettings s;
    s.server.host = v["email.server"];
    s.server.address_type = num("email.address_type", 16);
    s.server.port = num("email.port", 25);
    s.from = v["email.from"];
    s.reply_to = v["email.reply_to"];
    s.receipt = v["email.return_receipt"];
    if (s.from.empty()) {
        db.query("SELECT value FROM info WHERE name = 'sysContactEmail'", {},
                 [&](const db::Row &r) { s.from = r.text(0); });
    }
    return s;
}

} // namespace

struct Sender::Impl {
    Impl(const std::string &db_path, config::Delivery c)
        : db_(db_path), cfg_(std::move(c)), client_(cfg_) {
        // A recorded acceptance must survive a crash, or the message would go out twice.
        db_.exec("PRAGMA synchronous=FULL");
    }
    void run();
    bool deliver_one();

    db::Database db_;
    config::Delivery cfg_;
    smtp::Client client_;
    std::mutex mutex_;
    std::condition_variable cv_;
    bool woken_ = false;
    bool stop_ = false;
    std::thread thread_;
};

Sender::Sender(const std::string &db_path, config::Delivery cfg)
    : impl_(std::make_unique<Impl>(db_path, std::move(cfg))) {
    impl_->thread_ = std::thread([this] { impl_->run(); });
}

Sender::~Sender() {
    {
        std::lock_guard<std::mutex> lock(impl_->mutex_);
        impl_->stop_ = true;
    }
    impl_->cv_.notify_all();
    impl_->client_.interrupt();
    impl_->thread_.join();
}

void Sender::wake() {
    {
        std::lock_guard<std::mutex> lock(impl_->mutex_);
        impl_->woken_ = true;
    }
    impl_->cv_.notify_all();
}

void Sender::Impl::run() {
    try {
        outbox::requeue_interrupted(db_, int64_t(time(nullptr)));
    } catch (const std::exception &e) {
        log(std::string("outbox: cannot resume interrupted attempts: ") + e.what());
    }
    using Clock = std::chrono::system_clock;
    for (;;) {
        bool delivered = false, failed = false;
        std::optional<int64_t> due;
        try {
            delivered = deliver_one();
            if (!delivered) {
                due = outbox::next_due(db_);
            }
        } catch (const std::exception &e) {
            log(std::string("outbox: ") + e.what());
            failed = true;
        }
        std::unique_lock<std::mutex> lock(mutex_);
        if (stop_) {
            return;
        }
        if (delivered) {
            continue;
        }
        // Sleep until the next message falls due or something is queued; after a storage
        // error, a second before trying again, whatever is due.
        auto until = Clock::now() + std::chrono::minutes(10);
        if (failed) {
            until = Clock::now() + std::chrono::seconds(1);
        } else if (due) {
            until = std::min(until, Clock::from_time_t(time_t(*due)));
        }
        cv_.wait_until(lock, until, [&] { return woken_ || stop_; });
        woken_ = false;
        if (stop_) {
            return;
        }
    }
}

bool Sender::Impl::deliver_one() {
    auto e = outbox::claim_due(db_, int64_t(time(nullptr)));
    if (!e) {
        return false;
    }
    const MailSettings s = read_settings(db_);
    smtp::Result r;
    if (s.server.host.empty()) {
        r = {smtp::Outcome::Permanent, "no SMTP server configured (callHomeSmtpServerAddr)"};
    } else if (s.from.empty()) {
        r = {smtp::Outcome::Permanent,
             "no sender address (callHomeEmailFrom and the contact e-mail are empty)"};
    } else if (e->recipients.empty()) {
        r = {smtp::Outcome::Permanent, "the message has no recipients"};
    } else {
        smtp::Mail m;
        m.from = s.from;
        m.to = e->recipients;
        m.reply_to = s.reply_to;
        m.disposition_to = s.receipt;
        m.subject = e->subject;
        m.body = e->body;
        m.xml = e->format == message::Xml;
        m.message_id = e->message_id;
        m.date_sec = e->created_sec;
        r = client_.send(s.server, m);
    }
    {
        // Stopped mid-attempt: the message stays "sending" and is tried again at the next
        // start, as after a crash.
        std::lock_guard<std::mutex> lock(mutex_);
        if (stop_) {
            return true;
        }
    }
    timeval now{};
    gettimeofday(&now, nullptr);
    const std::string what = "message " + std::to_string(e->id) + " (attempt " +
                             std::to_string(e->attempts) + ", " + s.server.where() + ")";
    if (r.outcome == smtp::Outcome::Accepted) {
        outbox::record_accepted(db_, e->id, now, r.reason, r.retry, cfg_.retry_delays_s);
        log(what + " accepted" + (r.reason.empty() ? "" : "; refused recipients: " + r.reason) +
            (r.retry.empty() ? "" : "; those refused for now are tried again"));
        return true;
    }
    const bool permanent = r.outcome == smtp::Outcome::Permanent;
    outbox::record_failed(db_, e->id, int64_t(now.tv_sec), r.reason, permanent,
                          cfg_.retry_delays_s);
    const bool last = permanent || size_t(e->attempts) > cfg_.retry_delays_s.size();
    log(what + " failed: " + r.reason +
        (last ? "; given up"
              : "; next attempt in " +
                    std::to_string(cfg_.retry_delays_s[size_t(e->attempts - 1)]) + " s"));
    return true;
}

} // namespace callhome
