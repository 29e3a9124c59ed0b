// The scalar objects: info, e-mail configuration, the two switches, periodic inventory and
// the (read-only) status.
#include "callhome_wire.h"
#include "channel.hpp"
#include "codec.hpp"
#include "serve.hpp"
#include "log.hpp"
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
    if (type != SET_REQ) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    if (!known_info(name)) {
        return answer(refused("info object", "no such object"));
    }
    const std::string value = FIELD(rec, info_value);
    if (const std::string why = validate::text_problem(value); !why.empty()) {
        return answer(refused(name, why));
    }
    if (name == "sysContactEmail" && !validate::email(value)) {
        return answer(refused(name, "not an e-mail address (local@domain)"));
    }
    if (name == "priority" && (value.size() != 1 || value[0] < '0' || value[0] > '7')) {
        return answer(refused(name, "the priority is 1 to 8"));
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

namespace {

bool valid_server(uint32_t type, const std::string &server) {
    switch (type) {
    case CALLHOME_ADDR_IPV4:
        return server.empty() || validate::ipv4(server);
    case CALLHOME_ADDR_IPV6:
        return server.empty() || validate::ipv6(server);
    case CALLHOME_ADDR_DNS:
        return server.empty() || validate::host_name(server);
    default:
        return false;
    }
}

// The writable scalars are settings: read from the state, written to the storage first and
// to the state after.
struct Setting {
    State &state;
    Storage &storage;
};

struct EmailScalar : Setting {
    using Record = cmi_email_conf_t;

    Record get() const {
        const EmailConf &email = state.email;
        Record out{};
        PUT(out, from_email_addr, email.from);
        PUT(out, reply_to, email.reply_to);
        PUT(out, return_receipt_addr, email.receipt);
        PUT(out, smtp_server, email.server);
        out.address_type = to_be(email.type);
        out.smtp_server_port = to_be(email.port);
        return out;
    }
    int32_t set(const Record &rec) {
        EmailConf e;
        e.from = FIELD(rec, from_email_addr);
        e.reply_to = FIELD(rec, reply_to);
        e.receipt = FIELD(rec, return_receipt_addr);
        e.server = FIELD(rec, smtp_server);
        e.type = be(rec.address_type);
        e.port = be(rec.smtp_server_port);
        const std::pair<const char *, const std::string *> addrs[] = {
            {"callHomeEmailFrom", &e.from},
            {"callHomeEmailReplyTo", &e.reply_to},
            {"callHomeEmailReturnReceipt", &e.receipt}};
        for (const auto &[what, addr] : addrs) {
            if (const std::string why = validate::text_problem(*addr); !why.empty()) {
                return refused(what, why);
            }
            if (!addr->empty() && !validate::email(*addr)) {
                return refused(what, "not an e-mail address (local@domain)");
            }
        }
        if (!valid_server(e.type, e.server)) {
            return refused("callHomeSmtpServer",
                           validate::printable(e.server)
                               ? "not an address of its type " + std::to_string(e.type)
                               : validate::text_problem(e.server));
        }
        if (e.port < 1 || e.port > 65535) {
            return refused("callHomeSmtpServerPort", "the port is 1 to 65535");
        }
        storage.put_email(e);
        state.email = e;
        return CALLHOME_SUCCESS;
    }
};

// callHomeEnable and callHomeMsgThrottling.
struct SwitchScalar : Setting {
    using Record = callhome_switch_t;
    bool is_enable;

    Record get() const {
        Record out{};
        out.value = to_be((is_enable ? state.enabled : state.throttling) ? 1 : 0);
        return out;
    }
    int32_t set(const Record &rec) {
        const bool on = be(rec.value) != 0;
        if (is_enable) {
            // Messages need someone to answer them: no switching on without the contact.
            if (on && !state.contact_complete()) {
                return refused("callHomeEnable=true",
                               std::string(state.missing_contact()) + " is not set");
            }
            storage.put_enabled(on);
            state.enabled = on;
        } else {
            storage.put_throttling(on);
            state.throttling = on;
        }
        return CALLHOME_SUCCESS;
    }
};

struct PeriodicScalar : Setting {
    using Record = callhome_periodic_inventory_t;

    Record get() const {
        Record out{};
        out.enable = to_be(state.periodic.enable);
        out.time_frame = to_be(state.periodic.days);
        out.time_of_day = to_be(state.periodic.minutes);
        return out;
    }
    int32_t set(const Record &rec) {
        Periodic p;
        p.enable = be(rec.enable);
        p.days = be(rec.time_frame);
        p.minutes = be(rec.time_of_day);
        if (p.enable > 1 || p.days < 1 || p.days > 30 || p.minutes > 1439) {
            return refused("periodic inventory",
                           "switch " + std::to_string(p.enable) + ", period " +
                               std::to_string(p.days) + " days (1..30) or time " +
                               std::to_string(p.minutes) + " minutes (0..1439) out of range");
        }
        storage.put_periodic(p);
        state.periodic = p;
        return CALLHOME_SUCCESS;
    }
};

struct StatusScalar {
    using Record = callhome_status_t;
    Storage &storage;

    Record get() const {
        // The sender thread records outcomes through its own connection: read them afresh.
        const outbox::Status status = storage.status();
        Record out{};
        out.last_alert_sent.tv_sec = to_be(status.sec);
        out.last_alert_sent.tv_usec = to_be(status.usec);
        out.num_alerts_sent = to_be(status.sent);
        out.callhome_message_status = to_be(status.message_status);
        out.callhome_error_code = to_be(status.error_code);
        // The module shows "code text -  message" four characters short: four spaces at the
        // end take that cut, so the reason is shown whole.
        PUT(out, callhome_error_message,
            status.error_message.empty() ? status.error_message : status.error_message + "    ");
        return out;
    }
    // The status is the service's to keep.
    int32_t set(const Record &) const { return CALLHOME_ERR_INVALID_INPUT; }
};

} // namespace

platform::CmiReply Channel::op_email_conf(int type, const Bytes &b) {
    return serve_scalar(EmailScalar{{state_, storage_}}, type, b);
}

platform::CmiReply Channel::op_switch(int type, const Bytes &b, bool is_enable) {
    return serve_scalar(SwitchScalar{{state_, storage_}, is_enable}, type, b);
}

platform::CmiReply Channel::op_periodic(int type, const Bytes &b) {
    return serve_scalar(PeriodicScalar{{state_, storage_}}, type, b);
}

platform::CmiReply Channel::op_status(int type, const Bytes &b) {
    return serve_scalar(StatusScalar{storage_}, type, b);
}

} // namespace callhome
