// Framing of the call-home request channel: one frame per SOCK_SEQPACKET message.
//
// Every frame starts with a fixed big-endian header:
//   0  u32 magic "CHMF"      4  u16 version (1)     6  u16 kind
//   8  u32 seq              12  i32 opcode (or notification id)
//  16  i32 msg_type         20  i32 client          24  u32 session
//  28  i32 wait             32  i32 status          36  u32 flags
//  40  u16 user length      42  u16 reserved        44  u32 body length
//  48  u64 deadline: CLOCK_MONOTONIC milliseconds after which the sender no longer waits
//      for the answer (0: none). Both ends share one host, so they share that clock.
// followed by the user name and the body (the record, payload or admin text).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace platform::frame {

inline constexpr uint32_t kMagic = 0x43484D46; // "CHMF"
inline constexpr uint16_t kVersion = 2;
inline constexpr size_t kHeaderSize = 56;
inline constexpr size_t kMaxUser = 256;
inline constexpr size_t kMaxBody = 64 * 1024;
inline constexpr size_t kMaxFrame = kHeaderSize + kMaxUser + kMaxBody;

enum class Kind : uint16_t {
    Request = 1,      // client -> service: a cmi request
    Response = 2,     // service -> client: status and optional record, same seq
    Subscribe = 3,    // client -> service: send me notifications on this connection
    Notification = 4, // service -> subscriber: opcode = notification id, body = payload
    Admin = 5,        // callhomectl -> service: body = NUL-separated arguments
    AdminReply = 6,   // service -> callhomectl: status, body = text
};

// flags
inline constexpr uint32_t kUserNull = 1u << 0;    // request: the caller passed no user
inline constexpr uint32_t kWantsRecord = 1u << 1; // request: the caller wants the answer's record
inline constexpr uint32_t kHasRecord = 1u << 2;   // response: body is the answer's record
inline constexpr uint32_t kExpired = 1u << 3;     // response: refused unapplied, deadline passed

// Notification ids the platform handles itself (the service's own ids are above 1000).
inline constexpr int32_t kDistributionStateNotif = 1; // body: u32 enabled, u32 show-run mode

struct Frame {
    Kind kind = Kind::Request;
    uint32_t seq = 0;
    int32_t opcode = 0;
    int32_t msg_type = 0;
    int32_t client = 0;
    uint32_t session = 0;
    int32_t wait = 0;
    int32_t status = 0;
    uint32_t flags = 0;
    uint64_t deadline_ms = 0;
    std::string user;
    std::vector<uint8_t> body;
};

// Encodes a frame; user names and bodies beyond the limits are refused (nullopt).
std::optional<std::vector<uint8_t>> encode(const Frame &f);
// The same into `out`, whose capacity is kept: a caller that keeps `out` allocates nothing
// per frame. `body` stands for f.body, so that a record need not be copied into the frame.
// False beyond the limits.
bool encode_into(const Frame &f, std::span<const uint8_t> body, std::vector<uint8_t> &out);

// Decodes one received message. Refuses (nullopt) a wrong magic or version, an unknown kind,
// a reserved field that is not 0, lengths that disagree with the message size, or anything beyond
// the limits.
std::optional<Frame> decode(const uint8_t *data, size_t size);
// The same into `out`, whose user and body keep their capacity (a caller that keeps `out`
// allocates nothing per frame). False, with `out` unspecified, where decode refuses.
bool decode_into(const uint8_t *data, size_t size, Frame &out);

// Now on the clock that deadlines are written in.
uint64_t monotonic_ms();

// Big-endian helpers shared by the platform and the service.
inline void put_u32(uint8_t *p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
inline uint32_t get_u32(const uint8_t *p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
}

} // namespace platform::frame
