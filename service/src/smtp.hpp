// One SMTP transaction per message, through libcurl, and the RFC 5322 text it carries.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "callhome/config.hpp"

namespace callhome::smtp {

// The server as the MIB objects name it.
struct Server {
    std::string host;          // dotted IPv4, IPv6 text (without brackets) or a DNS name
    uint32_t address_type = 0; // 1 IPv4, 2 IPv6, 16 DNS name
    uint32_t port = 25;
    std::string where() const; // "host:port", IPv6 in brackets
};

struct Mail {
    std::string from; // envelope sender and From
    std::vector<std::string> to;
    std::string reply_to;       // empty: no Reply-To
    std::string disposition_to; // empty: no Disposition-Notification-To
    std::string subject;
    std::string body;
    bool xml = false; // application/xml instead of text/plain
    std::string message_id;
    int64_t date_sec = 0;
};

// The message as it goes over the wire: headers, a blank line, the body; CRLF line ends;
// 7bit when it can be, else quoted-printable; a non-ASCII subject as RFC 2047 words.
std::string format(const Mail &m);

enum class Outcome { Accepted, Temporary, Permanent };

struct Result {
    Result(Outcome o = Outcome::Temporary, std::string why = {},
           std::vector<std::string> later = {})
        : outcome(o), reason(std::move(why)), retry(std::move(later)) {}

    Outcome outcome;
    // Failed: why, as an operator reads it ("connection to 127.0.0.1:2526 refused",
    // "550 5.1.1 unknown mailbox ops@example.com"). Accepted: the recipients the server
    // refused, if any; else empty.
    std::string reason;
    // Accepted: the recipients the server refused for now (4xx), to be tried again.
    std::vector<std::string> retry;
};

// A reusable transport. send() runs on one thread; interrupt() may be called from any
// thread and makes a send in progress return promptly (as a temporary failure).
class Client {
  public:
    explicit Client(config::Delivery cfg);
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    Result send(const Server &server, const Mail &mail);
    void interrupt();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Keeps a reason within what callHomeErrorMessage can show: printable, at most `max` bytes.
std::string shorten(const std::string &text, size_t max = 200);

} // namespace callhome::smtp
