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

inline uint32_t be(uint32_t v) {
    return htonl(v);
}
inline int32_t be(int32_t v) {
    return int32_t(htonl(uint32_t(v)));
}
inline uint32_t host(uint32_t v) {
    return ntohl(v);
}
inline int32_t host(int32_t v) {
    return int32_t(ntohl(uint32_t(v)));
}

template <class T> Bytes bytes(const T &rec) {
    const auto *p = reinterpret_cast<const uint8_t *>(&rec);
    return Bytes(p, p + sizeof(T));
}

template <class T> T record_of(const platform::CmiReply &r) {
    T out{};
    if (r.record.size() == sizeof(T)) {
        std::memcpy(&out, r.record.data(), sizeof(T));
    }
    return out;
}

// Copies s into a text field without any check: tests need unterminated and 0xFF-filled keys.
template <size_t N> void fill(char (&field)[N], const std::string &s) {
    std::memset(field, 0, N);
    std::memcpy(field, s.data(), std::min(s.size(), N));
}

inline platform::CmiRequest request(int opcode, int type, Bytes record) {
    platform::CmiRequest r;
    r.opcode = opcode;
    r.msg_type = type;
    r.record = std::move(record);
    r.wants_record = true;
    return r;
}

inline Bytes info_rec(const std::string &name, const std::string &value = "") {
    cmi_callhome_info_t r{};
    fill(r.info_name, name);
    fill(r.info_value, value);
    return bytes(r);
}

inline Bytes email_conf_rec(const std::string &from, const std::string &reply,
                            const std::string &receipt, const std::string &server, uint32_t type,
                            uint32_t port) {
    cmi_email_conf_t r{};
    fill(r.from_email_addr, from);
    fill(r.reply_to, reply);
    fill(r.return_receipt_addr, receipt);
    fill(r.smtp_server, server);
    r.address_type = be(type);
    r.smtp_server_port = be(port);
    return bytes(r);
}

inline Bytes switch_rec(uint32_t v) {
    callhome_switch_t r{};
    r.value = be(v);
    return bytes(r);
}

inline Bytes periodic_rec(uint32_t enable, uint32_t days, uint32_t minutes) {
    callhome_periodic_inventory_t r{};
    r.enable = be(enable);
    r.time_frame = be(days);
    r.time_of_day = be(minutes);
    return bytes(r);
}

inline Bytes action_rec(const std::string &action) {
    callhome_alert_action_t r{};
    fill(r.action, action);
    return bytes(r);
}

inline Bytes profile_rec(const std::string &name, int32_t format = 1, uint32_t max_size = 0,
                         int32_t transport = 1, int8_t level = 0) {
    callHomeDestProfileEntry r{};
    fill(r.destination_profile_id, name);
    r.transport_method = be(transport);
    r.format_method = be(format);
    r.maximum_message_size = be(max_size);
    r.row_status = be(int32_t(4));
    r.msg_level = level;
    return bytes(r);
}

inline Bytes dest_email_rec(const std::string &profile, int32_t index,
                            const std::string &addr = "") {
    callHomeDestEmailAddressEntry r{};
    fill(r.destination_profile_id, profile);
    fill(r.email_addr, addr);
    r.index = be(index);
    r.row_status = be(int32_t(4));
    return bytes(r);
}

inline Bytes group_type_rec(uint32_t index) {
    callhome_alertgroup_type_t r{};
    r.index = be(index);
    return bytes(r);
}

inline Bytes profile_group_rec(const std::string &profile, const std::string &group) {
    callHomeAlertGroupEntry r{};
    fill(r.destination_profile_id, profile);
    fill(r.alert_group, group);
    return bytes(r);
}

inline Bytes user_cmd_rec(const std::string &type, int32_t index, const std::string &cmd = "") {
    cmi_userdef_cli_cmd_t r{};
    r.index = be(index);
    fill(r.alertgroup_type, type);
    r.row_status = be(int32_t(4));
    fill(r.cli_cmd, cmd);
    return bytes(r);
}

inline std::string text(const char *field, size_t cap) {
    return std::string(field, strnlen(field, cap));
}

} // namespace svc_test
