#include "platform/frame.hpp"

#include <cstring>
#include <ctime>

namespace platform::frame {
namespace {

void put_u16(uint8_t *p, uint16_t v) {
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}
uint16_t get_u16(const uint8_t *p) {
    return uint16_t(p[0] << 8 | p[1]);
}

bool known_kind(uint16_t k) {
    return k >= uint16_t(Kind::Request) && k <= uint16_t(Kind::AdminReply);
}

} // namespace

uint64_t monotonic_ms() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000 + uint64_t(ts.tv_nsec) / 1'000'000;
}

bool encode_into(const Frame &f, std::span<const uint8_t> body, std::vector<uint8_t> &out) {
    if (f.user.size() > kMaxUser || body.size() > kMaxBody) {
        return false;
    }
    out.resize(kHeaderSize + f.user.size() + body.size());
    uint8_t *p = out.data();
    put_u32(p + 0, kMagic);
    put_u16(p + 4, kVersion);
    put_u16(p + 6, uint16_t(f.kind));
    put_u32(p + 8, f.seq);
    put_u32(p + 12, uint32_t(f.opcode));
    put_u32(p + 16, uint32_t(f.msg_type));
    put_u32(p + 20, uint32_t(f.client));
    put_u32(p + 24, f.session);
    put_u32(p + 28, uint32_t(f.wait));
    put_u32(p + 32, uint32_t(f.status));
    put_u32(p + 36, f.flags);
    put_u16(p + 40, uint16_t(f.user.size()));
    put_u16(p + 42, 0);
    put_u32(p + 44, uint32_t(body.size()));
    put_u32(p + 48, uint32_t(f.deadline_ms >> 32));
    put_u32(p + 52, uint32_t(f.deadline_ms));
    if (!f.user.empty()) {
        std::memcpy(p + kHeaderSize, f.user.data(), f.user.size());
    }
    if (!body.empty()) {
        std::memcpy(p + kHeaderSize + f.user.size(), body.data(), body.size());
    }
    return true;
}

std::optional<std::vector<uint8_t>> encode(const Frame &f) {
    std::vector<uint8_t> out;
    if (!encode_into(f, f.body, out)) {
        return std::nullopt;
    }
    return out;
}

bool decode_into(const uint8_t *data, size_t size, Frame &f) {
    if (data == nullptr || size < kHeaderSize || size > kMaxFrame) {
        return false;
    }
    if (get_u32(data) != kMagic || get_u16(data + 4) != kVersion ||
        !known_kind(get_u16(data + 6)) || get_u16(data + 42) != 0) {
        return false;
    }
    const size_t user_len = get_u16(data + 40);
    const size_t body_len = get_u32(data + 44);
    if (user_len > kMaxUser || body_len > kMaxBody || kHeaderSize + user_len + body_len != size) {
        return false;
    }
    f.kind = Kind(get_u16(data + 6));
    f.seq = get_u32(data + 8);
    f.opcode = int32_t(get_u32(data + 12));
    f.msg_type = int32_t(get_u32(data + 16));
    f.client = int32_t(get_u32(data + 20));
    f.session = get_u32(data + 24);
    f.wait = int32_t(get_u32(data + 28));
    f.status = int32_t(get_u32(data + 32));
    f.flags = get_u32(data + 36);
    f.deadline_ms = uint64_t(get_u32(data + 48)) << 32 | get_u32(data + 52);
    f.user.assign(reinterpret_cast<const char *>(data + kHeaderSize), user_len);
    f.body.assign(data + kHeaderSize + user_len, data + kHeaderSize + user_len + body_len);
    return true;
}

std::optional<Frame> decode(const uint8_t *data, size_t size) {
    Frame f;
    if (!decode_into(data, size, f)) {
        return std::nullopt;
    }
    return f;
}

} // namespace platform::frame
