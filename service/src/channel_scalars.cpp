// The scalar objects: info, e-mail configuration, the two switches, periodic inventory and
// the (read-only) status.
#include "callhome_wire.h"
#include "channel.hpp"
#include "codec.hpp"
#include "validate.hpp"

namespace callhome {

using namespace codec;

platform::CmiReply Channel::op_info(int type, const Bytes &b) {
    cmi_callhome_info_t rec;
    if (!load(b, rec)) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    const std::string name = FIELD(rec, info_name);
    if (type == GET_REQ) {
        const auto it = state_.info.find(name);
        if (it == state_.info.end()) {
            return answer(CALLHOME_UNKNOWN_ENTRY);
        }
        cmi_callhome_info_t out{};
        PUT(out, info_name, name);
        PUT(out, info_value, it->second);
        return answer_record(out);
    }
    if (type != SET_REQ || !known_info(name)) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    const std::string value = FIELD(rec, info_value);
    if (!validate::printable(value)) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    if (name == "sysContactEmail" && !validate::email(value)) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    if (name == "priority" && (value.size() != 1 || value[0] < '0' || value[0] > '7')) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    if (value.empty()) {
        // An empty value clears the object: it reads as never set again.
        storage_.erase_info(name);
        state_.info.erase(name);
    } else {
        storage_.put_info(name, value);
        state_.info[name] = value;
    }
    return answer(CALLHOME_SUCCESS);
}

platform::CmiReply Channel::op_email_conf(int type, const Bytes &b) {
    const EmailConf &email = state_.email;
    if (type == GET_REQ) {
        if (!scalar_get_ok<cmi_email_conf_t>(b)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        cmi_email_conf_t out{};
        PUT(out, from_email_addr, email.from);
        PUT(out, reply_to, email.reply_to);
        PUT(out, return_receipt_addr, email.receipt);
        PUT(out, smtp_server, email.server);
        out.address_type = to_be(email.type);
        out.smtp_server_port = to_be(email.port);
        return answer_record(out);
    }
    cmi_email_conf_t rec;
    if (type != SET_REQ || !load(b, rec)) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    EmailConf e;
    e.from = FIELD(rec, from_email_addr);
    e.reply_to = FIELD(rec, reply_to);
    e.receipt = FIELD(rec, return_receipt_addr);
    e.server = FIELD(rec, smtp_server);
    e.type = be(rec.address_type);
    e.port = be(rec.smtp_server_port);
    for (const std::string *addr : {&e.from, &e.reply_to, &e.receipt}) {
        if (!addr->empty() && !validate::email(*addr)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
    }
    bool server_ok;
    switch (e.type) {
    case CALLHOME_ADDR_IPV4:
        server_ok = e.server.empty() || validate::ipv4(e.server);
        break;
    case CALLHOME_ADDR_IPV6:
        server_ok = e.server.empty() || validate::ipv6(e.server);
        break;
    case CALLHOME_ADDR_DNS:
        server_ok = e.server.empty() || validate::host_name(e.server);
        break;
    default:
        server_ok = false;
    }
    if (!server_ok || e.port < 1 || e.port > 65535) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    storage_.put_email(e);
    state_.email = e;
    return answer(CALLHOME_SUCCESS);
}

platform::CmiReply Channel::op_switch(int type, const Bytes &b, bool is_enable) {
    bool &value = is_enable ? state_.enabled : state_.throttling;
    if (type == GET_REQ) {
        if (!scalar_get_ok<callhome_switch_t>(b)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        callhome_switch_t out{};
        out.value = to_be(value ? 1 : 0);
        return answer_record(out);
    }
    callhome_switch_t rec;
    if (type != SET_REQ || !load(b, rec)) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    const bool on = be(rec.value) != 0;
    // Messages need someone to answer them: no switching on without the contact.
    if (is_enable && on && !state_.contact_complete()) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    if (is_enable) {
        storage_.put_enabled(on);
    } else {
        storage_.put_throttling(on);
    }
    value = on;
    return answer(CALLHOME_SUCCESS);
}

platform::CmiReply Channel::op_periodic(int type, const Bytes &b) {
    const Periodic &periodic = state_.periodic;
    if (type == GET_REQ) {
        if (!scalar_get_ok<callhome_periodic_inventory_t>(b)) {
            return answer(CALLHOME_ERR_INVALID_INPUT);
        }
        callhome_periodic_inventory_t out{};
        out.enable = to_be(periodic.enable);
        out.time_frame = to_be(periodic.days);
        out.time_of_day = to_be(periodic.minutes);
        return answer_record(out);
    }
    callhome_periodic_inventory_t rec;
    if (type != SET_REQ || !load(b, rec)) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    Periodic p;
    p.enable = be(rec.enable);
    p.days = be(rec.time_frame);
    p.minutes = be(rec.time_of_day);
    if (p.enable > 1 || p.days < 1 || p.days > 30 || p.minutes > 1439) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    storage_.put_periodic(p);
    state_.periodic = p;
    return answer(CALLHOME_SUCCESS);
}

platform::CmiReply Channel::op_status(int type, const Bytes &b) {
    if (type != GET_REQ || !scalar_get_ok<callhome_status_t>(b)) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    const Status &status = state_.status;
    callhome_status_t out{};
    out.last_alert_sent.tv_sec = to_be(status.sec);
    out.last_alert_sent.tv_usec = to_be(status.usec);
    out.num_alerts_sent = to_be(status.sent);
    out.callhome_message_status = to_be(status.message_status);
    out.callhome_error_code = to_be(status.error_code);
    PUT(out, callhome_error_message, status.error_message);
    return answer_record(out);
}

} // namespace callhome
