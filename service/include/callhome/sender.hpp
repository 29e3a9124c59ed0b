// The sender: a thread of its own, with its own database connection, that takes due
// messages from the outbox, hands each to the SMTP server in one transaction and records the
// outcome. The request channel never waits for it; a slow or silent server costs the sender
// time only.
#pragma once

#include <memory>
#include <string>

#include "callhome/config.hpp"

namespace callhome {

class Sender {
  public:
    // Opens `db_path` (the service's database, already created) and starts the thread.
    // Throws std::runtime_error when the database can't be opened.
    Sender(const std::string &db_path, config::Delivery cfg);
    ~Sender(); // interrupts an attempt in progress and joins
    Sender(const Sender &) = delete;
    Sender &operator=(const Sender &) = delete;

    // Something was queued or a retry was asked for: look at the outbox now.
    void wake();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace callhome
