#include "validate.hpp"

#include <arpa/inet.h>

#include <cctype>
#include <cstdint>
#include <string>

namespace callhome::validate {
namespace {

bool alnum(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0;
}

} // namespace

bool host_name(const std::string &s) {
    std::string name = s;
    if (!name.empty() && name.back() == '.') {
        name.pop_back();
    }
    if (name.empty() || name.size() > 253) {
        return false;
    }
    size_t start = 0;
    while (start <= name.size()) {
        size_t end = name.find('.', start);
        if (end == std::string::npos) {
            end = name.size();
        }
        const size_t len = end - start;
        if (len == 0 || len > 63) {
            return false;
        }
        if (!alnum(name[start]) || !alnum(name[end - 1])) {
            return false;
        }
        for (size_t i = start; i < end; ++i) {
            if (!alnum(name[i]) && name[i] != '-') {
                return false;
            }
        }
        start = end + 1;
    }
    return true;
}

bool email(const std::string &s) {
    if (s.size() > 254) {
        return false;
    }
    const size_t at = s.find('@');
    if (at == std::string::npos || at == 0 || at > 64 || s.find('@', at + 1) != std::string::npos) {
        return false;
    }
    const std::string local = s.substr(0, at);
    if (local.front() == '.' || local.back() == '.' || local.find("..") != std::string::npos) {
        return false;
    }
    static const std::string specials = "()<>[]:;,\\\"";
    for (char c : local) {
        const auto u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u >= 0x7F || specials.find(c) != std::string::npos) {
            return false;
        }
    }
    return host_name(s.substr(at + 1));
}

bool ipv4(const std::string &s) {
    in_addr a{};
    return inet_pton(AF_INET, s.c_str(), &a) == 1;
}

bool ipv6(const std::string &s) {
    in6_addr a{};
    return inet_pton(AF_INET6, s.c_str(), &a) == 1;
}

size_t utf8_sequence(const std::string &s, size_t pos) {
    const auto at = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
    const unsigned char b = at(pos);
    if (b < 0x80) {
        return 1;
    }
    size_t n;
    uint32_t cp;
    if (b >= 0xC2 && b <= 0xDF) {
        n = 2, cp = b & 0x1F;
    } else if (b >= 0xE0 && b <= 0xEF) {
        n = 3, cp = b & 0x0F;
    } else if (b >= 0xF0 && b <= 0xF4) {
        n = 4, cp = b & 0x07;
    } else {
        return 0;
    }
    if (pos + n > s.size()) {
        return 0;
    }
    for (size_t i = 1; i < n; ++i) {
        if ((at(pos + i) & 0xC0) != 0x80) {
            return 0;
        }
        cp = cp << 6 | (at(pos + i) & 0x3F);
    }
    // Overlong forms, UTF-16 surrogates and code points past U+10FFFF are not UTF-8.
    const bool overlong = (n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000);
    if (overlong || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) {
        return 0;
    }
    return n;
}

std::string text_problem(const std::string &s) {
    for (size_t i = 0; i < s.size();) {
        const auto u = static_cast<unsigned char>(s[i]);
        if (u < 0x20 || u == 0x7F) {
            return "control character at byte " + std::to_string(i);
        }
        const size_t n = utf8_sequence(s, i);
        if (n == 0) {
            return "not valid UTF-8 at byte " + std::to_string(i);
        }
        i += n;
    }
    return {};
}

bool printable(const std::string &s) {
    return text_problem(s).empty();
}

} // namespace callhome::validate
