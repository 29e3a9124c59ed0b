// The service's facade: the rooms behind it are the state (state.hpp), its storage
// (storage.hpp), the channel's handlers (channel.hpp), the admin commands
// (admin_commands.hpp) and fault injection (faults.hpp).
#include "callhome/service.hpp"

#include <iostream>

#include "admin_commands.hpp"
#include "channel.hpp"
#include "codec.hpp"
#include "dispatch.hpp"
#include "faults.hpp"
#include "state.hpp"
#include "storage.hpp"

namespace callhome {

struct Service::Impl {
    explicit Impl(const std::string &path)
        : storage(path, state), dispatcher(state, storage, commands::default_allowed()),
          channel(state, storage), admin(state, storage, faults, dispatcher) {}

    State state; // before storage, which loads it
    Storage storage;
    Dispatcher dispatcher;
    Faults faults;
    Channel channel;
    AdminCommands admin;
};

Service::Service(const std::string &db_path) : impl_(std::make_unique<Impl>(db_path)) {}

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

std::pair<int, std::string> Service::admin(const std::vector<std::string> &args) {
    auto parsed = parse_admin(args);
    if (auto *err = std::get_if<AdminUsageError>(&parsed)) {
        return {2, err->message};
    }
    try {
        return impl_->admin.run(std::get<AdminCommand>(parsed));
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

} // namespace callhome
