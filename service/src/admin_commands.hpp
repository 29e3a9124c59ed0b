// The admin commands as the service runs them (admin.hpp parses them): inspection (dump,
// outbox, retries), alert-group types, the distribution state and fault injection.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "callhome/admin.hpp"
#include "callhome/service.hpp"
#include "dispatch.hpp"
#include "faults.hpp"
#include "json.hpp"
#include "state.hpp"
#include "storage.hpp"

namespace callhome {

class AdminCommands {
  public:
    AdminCommands(State &state, Storage &storage, Faults &faults, Dispatcher &dispatcher)
        : state_(state), storage_(storage), faults_(faults), dispatcher_(dispatcher) {}

    // (exit status, output text). A store failure throws, with nothing applied.
    std::pair<int, std::string> run(const AdminCommand &c);

    void set_notifier(Service::Notifier notifier) { notifier_ = std::move(notifier); }

  private:
    std::pair<int, std::string> alert(const AdminCommand &c);
    void dump_messages(json::Writer &w);
    std::pair<int, std::string> distribution(bool enabled, uint32_t mode);
    std::pair<int, std::string> group_add(const std::string &name);
    std::pair<int, std::string> group_del(const std::string &name);
    void notify(int32_t id, const std::vector<uint8_t> &payload);

    State &state_;
    Storage &storage_;
    Faults &faults_;
    Dispatcher &dispatcher_;
    Service::Notifier notifier_;
};

// `callhomectl dump`: the whole configuration as JSON.
// `more` adds keys of other rooms (the dispatcher's schedule and throttling).
std::string dump_json(const State &state, const outbox::Status &status,
                      const std::function<void(json::Writer &)> &more = {});
// `callhomectl outbox`: the outbox as a JSON array, oldest first.
std::string outbox_json(const std::vector<outbox::Entry> &entries);

} // namespace callhome
