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

    std::vector<OutboxMessage> queued;
    for (const auto &[name, p] : state_.profiles) {
        if (p.row_status != 1 || p.emails.empty() ||
            (!p.groups.count(group) && !p.groups.count(kAll))) {
            continue;
        }
        std::string recipients;
        for (const auto &[idx, addr] : p.emails) {
            recipients += (recipients.empty() ? "" : ", ") + addr;
        }
        message::Input in{action, state_.info, int64_t(now.tv_sec), host, name};
        const message::Message msg = message::compose(in, p.format, p.max_size);
        queued.push_back({int64_t(now.tv_sec), int64_t(now.tv_usec), name, recipients, p.format,
                          msg.subject, msg.body});
    }

    Status s = state_.status;
    if (queued.empty()) {
        s.message_status = 3;
        s.error_code = uint32_t(kNoDestination);
        s.error_message = "no active destination profile with e-mail addresses subscribes "
                          "to the " +
                          group + " alert group";
    } else {
        s.sec = uint32_t(now.tv_sec);
        s.usec = uint32_t(now.tv_usec);
        s.sent += uint32_t(queued.size());
        s.message_status = 1;
        s.error_code = 0;
        s.error_message.clear();
    }
    storage_.queue(queued, s);
    state_.status = s;
    return answer(CALLHOME_SUCCESS);
}

} // namespace callhome
