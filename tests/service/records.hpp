// Building request records and reading answers in the channel's byte order.
#pragma once

#include <arpa/inet.h>

#include <cstring>
#include <string>
#include <vector>

#include "callhome_wire.h"
#include "platform/testing.hpp"

namespace svc_test {

using Bytes = std::vector<uint8_t>;
using Strings = std::vector<std::string>;

// Network order and back (the same swap both ways), for 32-bit fields signed or not.
template <class T> T be(T v) {
    return T(htonl(uint32_t(v)));
}
template <class T> Bytes bytes(const T &rec) {
    const auto *p = reinterpret_cast<const uint8_t *>(&rec);
    return Bytes(p, p + sizeof(T));
}
template <class T> T record_of(const Bytes &b) {
    T out{};
    if (b.size() == sizeof(T)) {
        std::memcpy(&out, b.data(), sizeof(T));
    }
    return out;
}
// Copies s into a text field without any check: tests need unterminated and 0xFF-filled keys.
template <size_t N> void fill(char (&field)[N], const std::string &s) {
    std::memset(field, 0, N);
    std::memcpy(field, s.data(), std::min(s.size(), N));
}
template <size_t N> std::string text(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}
inline bool has(const std::string &hay, const std::string &needle) {
    return hay.find(needle) != std::string::npos;
}
inline size_t count(const std::string &hay, const std::string &needle) {
    size_t n = 0;
    for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) {
        ++n;
    }
    return n;
}

inline platform::CmiRequest request(int opcode, int type, Bytes record) {
    platform::CmiRequest r;
    r.opcode = opcode;
    r.msg_type = type;
    r.record = std::move(record);
    r.wants_record = true;
    return r;
}

// Each builder fills a record from its fields in declaration order (numbers in host order).
#define CALLHOME_REC(name, type, params, body)                                                     \
    inline Bytes name params {                                                                     \
        type r{};                                                                                  \
        body;                                                                                      \
        return bytes(r);                                                                           \
    }
using S = const std::string &;
CALLHOME_REC(info_rec, cmi_callhome_info_t, (S name, S value = ""),
             (fill(r.info_name, name), fill(r.info_value, value)))
CALLHOME_REC(email_conf_rec, cmi_email_conf_t,
             (S from, S reply, S receipt, S server, uint32_t type, uint32_t port),
             (fill(r.from_email_addr, from), fill(r.reply_to, reply),
              fill(r.return_receipt_addr, receipt), fill(r.smtp_server, server),
              r.address_type = be(type), r.smtp_server_port = be(port)))
CALLHOME_REC(switch_rec, callhome_switch_t, (uint32_t v), r.value = be(v))
CALLHOME_REC(periodic_rec, callhome_periodic_inventory_t, (uint32_t on, uint32_t days, uint32_t m),
             (r.enable = be(on), r.time_frame = be(days), r.time_of_day = be(m)))
CALLHOME_REC(action_rec, callhome_alert_action_t, (S action), fill(r.action, action))
CALLHOME_REC(profile_rec, callHomeDestProfileEntry,
             (S name, int32_t format = 1, uint32_t size = 0, int32_t transport = 1,
              int8_t level = 0),
             (fill(r.destination_profile_id, name), r.transport_method = be(transport),
              r.format_method = be(format), r.maximum_message_size = be(size),
              r.row_status = be(int32_t(4)), r.msg_level = level))
CALLHOME_REC(dest_email_rec, callHomeDestEmailAddressEntry, (S profile, int32_t idx, S addr = ""),
             (fill(r.destination_profile_id, profile), fill(r.email_addr, addr), r.index = be(idx),
              r.row_status = be(int32_t(4))))
CALLHOME_REC(group_type_rec, callhome_alertgroup_type_t, (uint32_t idx), r.index = be(idx))
CALLHOME_REC(profile_group_rec, callHomeAlertGroupEntry, (S profile, S group),
             (fill(r.destination_profile_id, profile), fill(r.alert_group, group)))
CALLHOME_REC(user_cmd_rec, cmi_userdef_cli_cmd_t, (S type, int32_t idx, S cmd = ""),
             (r.index = be(idx), fill(r.alertgroup_type, type), r.row_status = be(int32_t(4)),
              fill(r.cli_cmd, cmd)))
#undef CALLHOME_REC

} // namespace svc_test
