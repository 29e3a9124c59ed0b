#include "validate.hpp"

#include <arpa/inet.h>

#include <cctype>

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

bool printable(const std::string &s) {
    for (char c : s) {
        const auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7F) {
            return false;
        }
    }
    return true;
}

} // namespace callhome::validate
