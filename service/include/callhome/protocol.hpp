// What callhomed and callhomectl agree on beyond the platform's frame codec.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace callhome::protocol {

// AdminReply flag: more reply frames follow for the same request (long outputs are sent in
// pieces that each fit one frame).
inline constexpr uint32_t kAdminMore = 1u << 16;

// Admin arguments travel NUL-separated.
std::vector<uint8_t> join_args(const std::vector<std::string> &args);
std::vector<std::string> split_args(const std::vector<uint8_t> &body);

} // namespace callhome::protocol
