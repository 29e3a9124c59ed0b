// The service's facade: the rooms behind it are the state (state.hpp), its storage
// (storage.hpp), the channel's handlers (channel.hpp), the admin commands
// (admin_commands.hpp) and fault injection (faults.hpp).
#include "callhome/service.hpp"

#include <iostream>
#include <memory>

#include "admin_commands.hpp"
#include "callhome_wire.h"
#include "channel.hpp"
#include "codec.hpp"
#include "dispatch.hpp"
#include "faults.hpp"
#include "state.hpp"
#include "storage.hpp"
#include "validate.hpp"

namespace callhome {

struct Service::Impl {
    Impl(const std::string &path, std::vector<std::string> allowed)
        : storage(path, state), dispatcher(state, storage, std::move(allowed)),
          channel(state, storage), admin(state, storage, faults, dispatcher) {}

    State state; // before storage, which loads it
    Storage storage;
    Dispatcher dispatcher;
    Faults faults;
    Channel channel;
    AdminCommands admin;

    std::pair<int, std::string> smtp_server(const std::string &host, uint32_t port);
};

// A state of its own with a channel over it. The channel keeps the live storage for its
// writes, which reads never reach.
class Service::Snapshot {
  public:
    Snapshot(const State &state, Storage &storage) : state_(state), channel_(state_, storage) {}
    platform::CmiReply read(const platform::CmiRequest &request) {
        return channel_.process(request);
    }

  private:
    State state_;
    Channel channel_;
};

Service::SnapshotPtr Service::snapshot() {
    return std::make_shared<Snapshot>(impl_->state, impl_->storage);
}

platform::CmiReply Service::read(Snapshot &snapshot, const platform::CmiRequest &request) {
    if (!is_read(request.msg_type)) { // a write would reach the live storage
        return codec::answer(CALLHOME_ERR_INVALID_INPUT);
    }
    return snapshot.read(request);
}

bool Service::is_read(int msg_type) {
    return msg_type == GET_REQ || msg_type == GETNEXT_REQ || msg_type == VELD_GET_REQ ||
           msg_type == VELD_GETNEXT_REQ;
}

bool Service::snapshot_answers(int opcode, int msg_type) {
    return is_read(msg_type) && opcode != CALLHOME_STATUS_OPC;
}

void Service::end_undo(const ReadSessions &sessions) {
    for (const uint32_t s : sessions.seen) {
        if (s != 0) {
            impl_->channel.expire_deleted(s);
        }
    }
}

Service::Service(const std::string &db_path,
                 std::optional<std::vector<std::string>> allowed_commands)
    : impl_(std::make_unique<Impl>(db_path, allowed_commands ? std::move(*allowed_commands)
                                                             : commands::default_allowed())) {}

Service::~Service() = default;

platform::CmiReply Service::handle(const platform::CmiRequest &request) {
    const FaultAction f = impl_->faults.take(request.opcode, request.msg_type, true);
    if (f.kind == FaultAction::Kind::Status) {
        return codec::answer(f.status);
    }
    return impl_->channel.process(request);
}

platform::CmiReply Service::process(const platform::CmiRequest &request) {
    return impl_->channel.process(request);
}

FaultAction Service::take_fault(int opcode, int msg_type) {
    return impl_->faults.take(opcode, msg_type, false);
}

bool Service::faults_armed() const {
    return impl_->faults.armed();
}

// `smtp-server HOST [PORT]`: the e-mail record the module would send for a SET of the SMTP
// server objects, answered by the same handler, so the same checks apply and a walk shows
// the result.
std::pair<int, std::string> Service::Impl::smtp_server(const std::string &host, uint32_t port) {
    using namespace codec;
    cmi_email_conf_t rec{};
    PUT(rec, from_email_addr, state.email.from);
    PUT(rec, reply_to, state.email.reply_to);
    PUT(rec, return_receipt_addr, state.email.receipt);
    PUT(rec, smtp_server, host);
    const uint32_t type = validate::ipv4(host)   ? CALLHOME_ADDR_IPV4
                          : validate::ipv6(host) ? CALLHOME_ADDR_IPV6
                                                 : CALLHOME_ADDR_DNS;
    rec.address_type = to_be(type);
    rec.smtp_server_port = to_be(port);
    platform::CmiRequest r;
    r.opcode = CALLHOME_EMAIL_CONF_OPC;
    r.msg_type = SET_REQ;
    const auto *p = reinterpret_cast<const uint8_t *>(&rec);
    r.record.assign(p, p + sizeof rec);
    if (channel.process(r).status != CALLHOME_SUCCESS) {
        return {1, "'" + host + "' is not an IPv4 or IPv6 address or a host name\n"};
    }
    return {0, "SMTP server " + host + " port " + std::to_string(port) + " (address type " +
                   std::to_string(type) + ")\n"};
}

std::pair<int, std::string> Service::admin(const std::vector<std::string> &args) {
    auto parsed = parse_admin(args);
    if (auto *err = std::get_if<AdminUsageError>(&parsed)) {
        return {2, err->message};
    }
    try {
        const auto &c = std::get<AdminCommand>(parsed);
        if (c.op == AdminCommand::Op::SmtpServer) {
            return impl_->smtp_server(c.name, c.port);
        }
        return impl_->admin.run(c);
    } catch (const std::exception &e) {
        return {1, std::string("command failed: ") + e.what() + "\n"};
    }
}

int Service::event_fd() const {
    return impl_->dispatcher.fd();
}

int Service::timeout_ms() {
    return impl_->dispatcher.timeout_ms();
}

void Service::on_event() {
    try {
        impl_->dispatcher.on_event();
    } catch (const std::exception &e) {
        std::cerr << "callhomed: sending by itself failed: " << e.what() << "\n";
    }
}

void Service::set_clock(std::function<int64_t()> clock) {
    impl_->dispatcher.set_clock(std::move(clock));
}

void Service::set_notifier(Notifier notifier) {
    impl_->admin.set_notifier(std::move(notifier));
}

void Service::set_outbox_listener(std::function<void()> listener) {
    impl_->storage.set_outbox_listener(std::move(listener));
}

} // namespace callhome
