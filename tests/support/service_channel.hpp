// The real call-home service logic hosted in-process behind the platform's request channel.
#pragma once

#include <memory>

#include "callhome/service.hpp"
#include "platform/testing.hpp"

namespace callhome_test {

class ServiceChannel {
  public:
    ServiceChannel() : service_(std::make_unique<callhome::Service>(":memory:")) {
        platform::set_transport(
            [this](const platform::CmiRequest &r) { return service_->handle(r); });
        service_->set_notifier([](int32_t id, const std::vector<uint8_t> &payload) {
            platform::deliver_notification(id, payload.data(), payload.size());
        });
    }
    ~ServiceChannel() { platform::set_transport({}); }
    ServiceChannel(const ServiceChannel &) = delete;
    ServiceChannel &operator=(const ServiceChannel &) = delete;

    callhome::Service &service() { return *service_; }
    // Runs an admin command as callhomectl would: (exit status, output).
    std::pair<int, std::string> admin(const std::vector<std::string> &args) {
        return service_->admin(args);
    }

  private:
    std::unique_ptr<callhome::Service> service_;
};

} // namespace callhome_test
