// Reading and writing the channel's records: byte order, text fields, replies.
#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "platform/cmi_request.hpp"

namespace callhome::codec {

using Bytes = std::vector<uint8_t>;

// Channel integers are big-endian in every record.
inline uint32_t be(uint32_t v) {
    return ntohl(v);
}
inline int32_t be_signed(int32_t v) {
    return int32_t(ntohl(uint32_t(v)));
}
inline uint32_t to_be(uint32_t v) {
    return htonl(v);
}
inline int32_t to_be_signed(int32_t v) {
    return int32_t(htonl(uint32_t(v)));
}

// Text fields are read within their field: a missing NUL never runs past it.
inline std::string text(const char *field, size_t cap) {
    return std::string(field, strnlen(field, cap));
}
#define FIELD(rec, f) ::callhome::codec::text((rec).f, sizeof((rec).f))

inline void put(char *field, size_t cap, const std::string &s) {
    const size_t n = std::min(s.size(), cap - 1);
    std::memcpy(field, s.data(), n);
    std::memset(field + n, 0, cap - n);
}
#define PUT(rec, f, s) ::callhome::codec::put((rec).f, sizeof((rec).f), (s))

template <class T> bool load(const Bytes &b, T &out) {
    if (b.size() != sizeof(T)) {
        return false;
    }
    std::memcpy(&out, b.data(), sizeof(T));
    return true;
}

inline platform::CmiReply answer(int32_t status) {
    platform::CmiReply r;
    r.status = status;
    if (status == -1) {
        r.err = EIO;
    }
    return r;
}

template <class T> platform::CmiReply answer_record(const T &rec) {
    platform::CmiReply r;
    r.has_record = true;
    const auto *p = reinterpret_cast<const uint8_t *>(&rec);
    r.record.assign(p, p + sizeof(T));
    return r;
}

} // namespace callhome::codec
