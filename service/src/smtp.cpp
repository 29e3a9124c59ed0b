#include "smtp.hpp"

#include <curl/curl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "validate.hpp"

namespace callhome::smtp {
namespace {

constexpr size_t kMaxLine = 998; // RFC 5322's limit without the CRLF

// ---- message text ----

bool ascii(const std::string &s) {
    for (unsigned char c : s) {
        if (c >= 0x80) {
            return false;
        }
    }
    return true;
}

// Header values are one line: a stray CR or LF would start a header of its own.
std::string one_line(const std::string &s) {
    std::string out = s;
    for (char &c : out) {
        if (c == '\r' || c == '\n') {
            c = ' ';
        }
    }
    return out;
}

std::string base64(const std::string &in) {
    static const char *t = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < in.size(); i += 3) {
        const uint32_t v =
            uint32_t(uint8_t(in[i])) << 16 | uint32_t(uint8_t(in[i + 1])) << 8 | uint8_t(in[i + 2]);
        out += {t[v >> 18], t[(v >> 12) & 63], t[(v >> 6) & 63], t[v & 63]};
    }
    if (i + 1 == in.size()) {
        const uint32_t v = uint32_t(uint8_t(in[i])) << 16;
        out += {t[v >> 18], t[(v >> 12) & 63], '=', '='};
    } else if (i + 2 == in.size()) {
        const uint32_t v = uint32_t(uint8_t(in[i])) << 16 | uint32_t(uint8_t(in[i + 1])) << 8;
        out += {t[v >> 18], t[(v >> 12) & 63], t[(v >> 6) & 63], '='};
    }
    return out;
}

// RFC 2047: UTF-8 text as encoded words of whole characters, folded one per line.
std::string encoded_words(const std::string &s) {
    std::string out;
    size_t at = 0;
    while (at < s.size()) {
        size_t n = std::min<size_t>(45, s.size() - at);
        while (at + n < s.size() && n > 0 && (uint8_t(s[at + n]) & 0xC0) == 0x80) {
            --n;
        }
        if (n == 0) {
            n = std::min<size_t>(45, s.size() - at);
        }
        out += (out.empty() ? "" : "\r\n ") + std::string("=?UTF-8?B?") + base64(s.substr(at, n)) +
               "?=";
        at += n;
    }
    return out;
}

std::string rfc5322_date(int64_t sec) {
    static const char *days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char *months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const time_t t = time_t(sec);
    tm u{};
    gmtime_r(&t, &u);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%s, %02d %s %04d %02d:%02d:%02d +0000", days[u.tm_wday],
                  u.tm_mday, months[u.tm_mon], u.tm_year + 1900, u.tm_hour, u.tm_min, u.tm_sec);
    return buf;
}

std::vector<std::string> lines_of(const std::string &body) {
    std::vector<std::string> lines;
    std::string cur;
    for (size_t i = 0; i < body.size(); ++i) {
        if (body[i] == '\n') {
            lines.push_back(cur);
            cur.clear();
        } else if (body[i] == '\r' && i + 1 < body.size() && body[i + 1] == '\n') {
            continue;
        } else {
            cur += body[i];
        }
    }
    if (!cur.empty()) {
        lines.push_back(cur);
    }
    return lines;
}

// Quoted-printable of one line (RFC 2045), with soft breaks before 76 characters.
std::string quoted_printable(const std::string &line) {
    std::string out, cur;
    for (size_t i = 0; i < line.size(); ++i) {
        const auto c = uint8_t(line[i]);
        const bool last = i + 1 == line.size();
        std::string piece;
        if ((c >= 33 && c <= 126 && c != '=') || ((c == ' ' || c == '\t') && !last)) {
            piece = char(c);
        } else {
            char hex[4];
            std::snprintf(hex, sizeof hex, "=%02X", c);
            piece = hex;
        }
        if (cur.size() + piece.size() > 75) {
            out += cur + "=\r\n";
            cur.clear();
        }
        cur += piece;
    }
    return out + cur;
}

// ---- the transaction ----

// Records what the server answered to which command, for the reasons an operator reads.
// Never keeps what follows AUTH: that carries the password.
struct Transcript {
    std::string in_buf;
    std::string command;   // verb of the command the next reply answers
    std::string recipient; // its address, for RCPT
    std::vector<std::string> lines;
    int last_code = 0;
    std::string last_reply; // "550 5.1.1 unknown mailbox ..." (multi-line replies joined)
    std::string last_command;
    bool any_reply = false;
    struct Refusal {
        std::string address, reply;
        int code;
    };
    std::vector<Refusal> refused; // RCPTs answered 4xx/5xx
    int accepted_rcpts = 0;

    void sent(const char *data, size_t n) {
        std::string line(data, n);
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
            line.pop_back();
        }
        const size_t sp = line.find_first_of(" :");
        std::string verb = line.substr(0, sp);
        for (char &c : verb) {
            c = char(toupper(uint8_t(c)));
        }
        if (verb.empty() || verb.size() > 8) {
            return; // message data, or an AUTH continuation
        }
        command = verb;
        recipient.clear();
        if (verb == "RCPT") {
            const size_t lt = line.find('<'), gt = line.rfind('>');
            if (lt != std::string::npos && gt != std::string::npos && gt > lt) {
                recipient = line.substr(lt + 1, gt - lt - 1);
            }
        }
    }

    void received(const char *data, size_t n) {
        in_buf.append(data, n);
        size_t eol;
        while ((eol = in_buf.find('\n')) != std::string::npos) {
            std::string line = in_buf.substr(0, eol);
            in_buf.erase(0, eol + 1);
            if (!line.empty() && line.back() == '\r') {
                line.pop_back();
            }
            reply_line(line);
        }
    }

    void reply_line(const std::string &line) {
        if (line.size() < 3 || !isdigit(uint8_t(line[0])) || !isdigit(uint8_t(line[1])) ||
            !isdigit(uint8_t(line[2]))) {
            return;
        }
        lines.push_back(line.size() > 4 ? line.substr(4) : "");
        if (line.size() > 3 && line[3] == '-') {
            return; // more lines follow
        }
        any_reply = true;
        last_code = std::stoi(line.substr(0, 3));
        last_reply = line.substr(0, 3);
        for (const auto &l : lines) {
            if (!l.empty()) {
                last_reply += " " + l;
            }
        }
        lines.clear();
        last_command = command;
        if (command == "RCPT") {
            if (last_code >= 400) {
                std::string r = last_reply;
                if (!recipient.empty() && r.find(recipient) == std::string::npos) {
                    r += " " + recipient;
                }
                refused.push_back({recipient, r, last_code});
            } else {
                ++accepted_rcpts;
            }
        }
    }
};

int debug_cb(CURL *, curl_infotype type, char *data, size_t n, void *user) {
    auto *t = static_cast<Transcript *>(user);
    if (type == CURLINFO_HEADER_OUT) {
        t->sent(data, n);
    } else if (type == CURLINFO_HEADER_IN) {
        t->received(data, n);
    }
    return 0;
}

struct Upload {
    const std::string *data;
    size_t at = 0;
};

size_t read_cb(char *buf, size_t size, size_t nitems, void *user) {
    auto *u = static_cast<Upload *>(user);
    const size_t n = std::min(size * nitems, u->data->size() - u->at);
    std::memcpy(buf, u->data->data() + u->at, n);
    u->at += n;
    return n;
}

struct EasyCloser {
    void operator()(CURL *c) const { curl_easy_cleanup(c); }
};
struct MultiCloser {
    void operator()(CURLM *m) const { curl_multi_cleanup(m); }
};
struct ListFreer {
    void operator()(curl_slist *l) const { curl_slist_free_all(l); }
};

std::string local_name() {
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0 || !validate::host_name(host)) {
        return "localhost";
    }
    return host;
}

} // namespace

std::string shorten(const std::string &text, size_t max) {
    std::string out;
    for (unsigned char c : text) {
        out += c < 0x20 || c == 0x7F ? ' ' : char(c);
    }
    if (out.size() > max) {
        size_t n = max - 3;
        while (n > 0 && (uint8_t(out[n]) & 0xC0) == 0x80) {
            --n;
        }
        out = out.substr(0, n) + "...";
    }
    return out;
}

std::string Server::where() const {
    return (address_type == 2 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string format(const Mail &m) {
    std::string to;
    for (const auto &r : m.to) {
        to += (to.empty() ? "" : ",\r\n ") + one_line(r);
    }
    const auto lines = lines_of(m.body);
    bool plain = ascii(m.body);
    for (const auto &l : lines) {
        plain = plain && l.size() <= kMaxLine;
    }
    std::string h;
    h += "From: " + one_line(m.from) + "\r\n";
    h += "To: " + to + "\r\n";
    if (!m.reply_to.empty()) {
        h += "Reply-To: " + one_line(m.reply_to) + "\r\n";
    }
    if (!m.disposition_to.empty()) {
        h += "Disposition-Notification-To: " + one_line(m.disposition_to) + "\r\n";
    }
    const std::string subject = one_line(m.subject);
    h += "Subject: " + (ascii(subject) ? subject : encoded_words(subject)) + "\r\n";
    h += "Date: " + rfc5322_date(m.date_sec) + "\r\n";
    h += "Message-ID: " + one_line(m.message_id) + "\r\n";
    h += "MIME-Version: 1.0\r\n";
    h += std::string("Content-Type: ") + (m.xml ? "application/xml" : "text/plain") +
         "; charset=UTF-8\r\n";
    h += std::string("Content-Transfer-Encoding: ") + (plain ? "7bit" : "quoted-printable") +
         "\r\n\r\n";
    for (const auto &l : lines) {
        h += (plain ? l : quoted_printable(l)) + "\r\n";
    }
    return h;
}

struct Client::Impl {
    config::Delivery cfg;
    std::unique_ptr<CURLM, MultiCloser> multi;
    std::atomic<bool> interrupted{false};
    std::string helo = local_name();
};

Client::Client(config::Delivery cfg) : impl_(std::make_unique<Impl>()) {
    // Once per process, before any other thread uses curl (a static's initialisation is
    // thread-safe and, unlike std::call_once, needs no thread-local storage).
    static const CURLcode global = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (global != CURLE_OK) {
        throw std::runtime_error(std::string("curl_global_init: ") + curl_easy_strerror(global));
    }
    impl_->cfg = std::move(cfg);
    impl_->multi.reset(curl_multi_init());
    if (!impl_->multi) {
        throw std::runtime_error("curl_multi_init failed");
    }
}

Client::~Client() = default;

void Client::interrupt() {
    impl_->interrupted = true;
    curl_multi_wakeup(impl_->multi.get());
}

Result Client::send(const Server &server, const Mail &mail) {
    const config::Delivery &cfg = impl_->cfg;
    const std::string where = server.where();
    std::unique_ptr<CURL, EasyCloser> easy(curl_easy_init());
    if (!easy) {
        return {Outcome::Temporary, "out of memory starting a transaction with " + where};
    }
    CURL *c = easy.get();
    const std::string url = std::string(cfg.security == config::Security::Tls ? "smtps" : "smtp") +
                            "://" + where + "/" + impl_->helo;
    const std::string data = format(mail);
    Upload upload{&data};
    Transcript t;
    std::unique_ptr<curl_slist, ListFreer> rcpts;
    for (const auto &r : mail.to) {
        curl_slist *next = curl_slist_append(rcpts.get(), ("<" + r + ">").c_str());
        if (!next) {
            return {Outcome::Temporary, "out of memory"};
        }
        (void)rcpts.release();
        rcpts.reset(next);
    }
    const std::string from = "<" + mail.from + ">";
    char errbuf[CURL_ERROR_SIZE] = {};
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "smtp,smtps");
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, errbuf);
    curl_easy_setopt(c, CURLOPT_MAIL_FROM, from.c_str());
    curl_easy_setopt(c, CURLOPT_MAIL_RCPT, rcpts.get());
#if LIBCURL_VERSION_NUM >= 0x080200
    curl_easy_setopt(c, CURLOPT_MAIL_RCPT_ALLOWFAILS, 1L);
#else
    curl_easy_setopt(c, CURLOPT_MAIL_RCPT_ALLLOWFAILS, 1L);
#endif
    curl_easy_setopt(c, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(c, CURLOPT_READFUNCTION, read_cb);
    curl_easy_setopt(c, CURLOPT_READDATA, &upload);
    curl_easy_setopt(c, CURLOPT_INFILESIZE_LARGE, curl_off_t(data.size()));
    curl_easy_setopt(c, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(c, CURLOPT_DEBUGFUNCTION, debug_cb);
    curl_easy_setopt(c, CURLOPT_DEBUGDATA, &t);
    // Every wait is bounded: the connection (with the greeting and the handshakes), each
    // reply, and the transfer as a whole.
    const long timeout = cfg.timeout_s;
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, timeout);
    curl_easy_setopt(c, CURLOPT_SERVER_RESPONSE_TIMEOUT, timeout);
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_TIME, timeout);
    curl_easy_setopt(c, CURLOPT_TIMEOUT, timeout * 10);
    if (cfg.security == config::Security::StartTls) {
        curl_easy_setopt(c, CURLOPT_USE_SSL, long(CURLUSESSL_ALL));
    }
    if (!cfg.ca_file.empty()) {
        curl_easy_setopt(c, CURLOPT_CAINFO, cfg.ca_file.c_str());
    }
    if (!cfg.user.empty()) {
        curl_easy_setopt(c, CURLOPT_USERNAME, cfg.user.c_str());
        curl_easy_setopt(c, CURLOPT_PASSWORD, cfg.password.c_str());
    }

    CURLM *multi = impl_->multi.get();
    curl_multi_add_handle(multi, c);
    CURLcode rc = CURLE_OK;
    bool interrupted = false;
    for (;;) {
        int running = 0;
        curl_multi_perform(multi, &running);
        if (running == 0) {
            int left = 0;
            rc = CURLE_RECV_ERROR;
            while (CURLMsg *msg = curl_multi_info_read(multi, &left)) {
                if (msg->msg == CURLMSG_DONE && msg->easy_handle == c) {
                    rc = msg->data.result;
                }
            }
            break;
        }
        if (impl_->interrupted.exchange(false)) {
            interrupted = true;
            break;
        }
        curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    curl_multi_remove_handle(multi, c);
    if (interrupted) {
        return {Outcome::Temporary, "the service stopped during an attempt"};
    }

    std::string refused;
    bool any_temporary = false;
    std::vector<std::string> retry;
    for (const auto &r : t.refused) {
        refused += (refused.empty() ? "" : "; ") + r.reply;
        any_temporary = any_temporary || r.code < 500;
        if (r.code < 500 && !r.address.empty()) {
            retry.push_back(r.address);
        }
    }
    if (rc == CURLE_OK) {
        return {Outcome::Accepted, shorten(refused), std::move(retry)};
    }

    // Refused by the server: its own words, permanent when it said 5xx. Every RCPT refused
    // counts as refused for good only when none of the refusals was temporary.
    if (t.accepted_rcpts == 0 && !t.refused.empty()) {
        return {any_temporary ? Outcome::Temporary : Outcome::Permanent, shorten(refused)};
    }
    if (t.last_code >= 400 && rc != CURLE_OPERATION_TIMEDOUT) {
        return {t.last_code >= 500 ? Outcome::Permanent : Outcome::Temporary,
                shorten(t.last_reply)};
    }

    long os_errno = 0;
    curl_easy_getinfo(c, CURLINFO_OS_ERRNO, &os_errno);
    curl_off_t connect_us = 0;
    curl_easy_getinfo(c, CURLINFO_CONNECT_TIME_T, &connect_us);
    const std::string detail = errbuf[0] ? errbuf : curl_easy_strerror(rc);
    const std::string secs = std::to_string(timeout) + " s";
    switch (rc) {
    case CURLE_COULDNT_RESOLVE_HOST:
        return {Outcome::Temporary, shorten("cannot resolve the SMTP server name " + server.host)};
    case CURLE_COULDNT_CONNECT:
        if (os_errno == ECONNREFUSED) {
            return {Outcome::Temporary, "connection to " + where + " refused"};
        }
        return {Outcome::Temporary, shorten("cannot connect to " + where + ": " +
                                            (os_errno ? std::strerror(int(os_errno)) : detail))};
    case CURLE_OPERATION_TIMEDOUT:
        if (connect_us == 0) {
            return {Outcome::Temporary, "connection to " + where + " timed out after " + secs};
        }
        if (!t.any_reply) {
            return {Outcome::Temporary, "no greeting from " + where + " within " + secs};
        }
        return {Outcome::Temporary,
                shorten(where + " did not answer " + (t.command.empty() ? "" : t.command + " ") +
                        "within " + secs)};
    case CURLE_USE_SSL_FAILED:
        return {Outcome::Permanent, where + " does not offer STARTTLS"};
    case CURLE_LOGIN_DENIED:
        return {Outcome::Permanent, shorten(where + " refused the login: " +
                                            (t.last_reply.empty() ? detail : t.last_reply))};
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CERTPROBLEM:
        return {Outcome::Temporary, shorten("TLS with " + where + " failed: " + detail)};
    case CURLE_GOT_NOTHING:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
        return {Outcome::Temporary,
                shorten(where + " closed the connection" +
                        (t.command.empty() ? "" : " after " + t.command) + " (" + detail + ")")};
    default:
        return {Outcome::Temporary, shorten("SMTP with " + where + " failed: " + detail)};
    }
}

} // namespace callhome::smtp
