// The service's side of the channel: any message decodes or is refused; a decoded frame
// encodes back to the same bytes; a decoded request or admin command is then handled by an
// in-memory service, whatever its record holds.
#include <cstdlib>
#include <memory>

#include "callhome/protocol.hpp"
#include "callhome/service.hpp"
#include "platform/frame.hpp"

namespace fr = platform::frame;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static auto service = std::make_unique<callhome::Service>(":memory:");
    const auto f = fr::decode(data, size);
    if (!f) {
        return 0;
    }
    const auto bytes = fr::encode(*f);
    if (!bytes || *bytes != std::vector<uint8_t>(data, data + size)) {
        std::abort(); // the round trip lost or changed something
    }
    if (f->kind == fr::Kind::Request) {
        platform::CmiRequest r;
        r.opcode = f->opcode;
        r.msg_type = f->msg_type;
        r.record = f->body;
        r.wants_record = (f->flags & fr::kWantsRecord) != 0;
        r.user = f->user;
        r.session = f->session;
        r.client = f->client;
        r.wait = f->wait;
        service->process(r);
    } else if (f->kind == fr::Kind::Admin) {
        const auto args = callhome::protocol::split_args(f->body);
        // Faults would make later inputs behave differently; the rest is stateless enough.
        if (args.empty() || args[0] != "fault") {
            service->admin(args);
        }
    }
    return 0;
}
