// Alert actions: a test message or an inventory, composed for every active profile that
// subscribes to the action's alert group and queued in the outbox.
#include <sys/time.h>
#include <unistd.h>

#include <cstring>

#include "callhome_wire.h"
#include "channel.hpp"
#include "codec.hpp"
#include "message.hpp"

namespace callhome {

using namespace codec;

namespace {

constexpr int32_t kNoDestination = 0x403B0040;

} // namespace

platform::CmiReply Channel::op_alert_action(int type, const Bytes &b) {
    callhome_alert_action_t rec;
    if (type != SET_REQ || !load(b, rec) || !state_.enabled) {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    const std::string action = FIELD(rec, action);
    std::string group;
    if (action == "Test Call Home") {
        group = "Test";
    } else if (action == "Inventory") {
        group = "Inventory";
    } else {
        return answer(CALLHOME_ERR_INVALID_INPUT);
    }
    timeval now{};
    gettimeofday(&now, nullptr);
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0) {
        std::strcpy(host, "localhost");
    }

    std::vector<outbox::NewMessage> queued;
    for (const auto &[name, p] : state_.profiles) {
        if (p.row_status != 1 || p.emails.empty() ||
            (!p.groups.count(group) && !p.groups.count(kAll))) {
            continue;
        }
        outbox::NewMessage m;
        m.profile = name;
        m.alert_group = group;
        m.format = p.format;
        for (const auto &[idx, addr] : p.emails) {
            m.recipients.push_back(addr);
        }
        message::Input in{action, state_.info, int64_t(now.tv_sec), host, name};
        message::Message msg = message::compose(in, p.format, p.max_size);
        m.subject = std::move(msg.subject);
        m.body = std::move(msg.body);
        queued.push_back(std::move(m));
    }

    // Queuing changes no status object: only a delivery attempt's outcome does (the
    // sender's). A trigger that reaches nobody is such an outcome.
    if (queued.empty()) {
        storage_.record_failure(uint32_t(kNoDestination),
                                "for the " + group +
                                    " alert group: subscribe an active profile that has an "
                                    "address");
    } else {
        storage_.queue(queued, now, host);
    }
    return answer(CALLHOME_SUCCESS);
}

} // namespace callhome
