#include "dispatch.hpp"

#include <unistd.h>

#include <cstring>
#include <ctime>
#include <iostream>

#include "message.hpp"
#include "targets.hpp"

namespace callhome {
namespace {

std::string host_name() {
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0) {
        std::strcpy(host, "localhost");
    }
    return host;
}

schedule::Settings settings_of(const State &st) {
    return {st.periodic.enable != 0, st.periodic.days, st.periodic.minutes};
}

// The commands of a message that is queued before they ran.
std::vector<commands::Result> not_yet_run(const std::vector<std::string> &lines,
                                          const std::string &why) {
    std::vector<commands::Result> out(lines.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        out[i].line = lines[i];
        out[i].note = why;
    }
    return out;
}

} // namespace

Dispatcher::Dispatcher(State &state, Storage &storage, std::vector<std::string> allowed)
    : state_(state), storage_(storage), runner_(std::move(allowed)) {
    storage_.release_composing();
}

void Dispatcher::set_clock(Clock clock) {
    clock_ = std::move(clock);
}

void Dispatcher::follow_settings() {
    if (!restored_) {
        // The schedule kept by the last run stays (a due time missed while down is due now,
        // once) unless the settings changed since.
        restored_ = true;
        const auto kept = storage_.schedule_state();
        sched_ = kept ? schedule::restore(*kept, settings_of(state_), now())
                      : schedule::reschedule(settings_of(state_), now());
        if (!kept || !(kept->basis == sched_.basis) || kept->next_due != sched_.next_due) {
            storage_.put_schedule(sched_);
        }
        return;
    }
    const auto s = settings_of(state_);
    if (!(s == sched_.basis)) {
        const int64_t last = sched_.last_run;
        sched_ = schedule::reschedule(s, now());
        sched_.last_run = last;
        storage_.put_schedule(sched_);
    }
}

int Dispatcher::timeout_ms() {
    follow_settings();
    if (!sched_.basis.enable || sched_.next_due == 0) {
        return -1;
    }
    const int64_t left = sched_.next_due - now();
    if (left <= 0) {
        return 0;
    }
    // Wake at least every minute: the wall clock may be set while we wait.
    return int(std::min<int64_t>(left, 60) * 1000);
}

void Dispatcher::on_event() {
    follow_settings();
    if (schedule::is_due(sched_, now())) {
        run_inventory();
    }
    if (pending_.empty()) {
        return;
    }
    for (const auto &d : runner_.take()) {
        complete(d);
    }
}

void Dispatcher::run_inventory() {
    const schedule::State next = schedule::advance(sched_, now());
    if (!state_.enabled) {
        std::cerr << "callhomed: periodic inventory due but the service is switched off; next "
                     "at "
                  << next.next_due << "\n";
        storage_.put_schedule(next);
        sched_ = next;
        return;
    }
    const Outcome o = queue(message::kInventory, "Inventory", 0, "", "", &next);
    sched_ = next;
    if (o.queued == 0) {
        std::cerr << "callhomed: periodic inventory: " << o.error << "\n";
    }
}

Dispatcher::Outcome Dispatcher::alert(const Alert &a) {
    Outcome o;
    if (!state_.enabled) {
        o.error = "the service is switched off (callHomeEnable)";
        return o;
    }
    if (!state_.type_index(a.group) || a.group == kAll) {
        o.error = "no alert-group type '" + a.group + "'";
        return o;
    }
    return queue(message::kAlert, a.group, a.severity, a.subject, a.text, nullptr);
}

Dispatcher::Outcome Dispatcher::queue(const std::string &action, const std::string &group,
                                      int severity, const std::string &subject,
                                      const std::string &text, const schedule::State *sched) {
    Outcome o;
    const int64_t t = now();
    const auto targets = targets::select(state_, group, severity);
    // Only alerts carry the output of their group's commands: run none for anything else.
    const auto lines = action == message::kAlert ? targets::commands_of(state_, group)
                                                 : std::vector<std::string>{};
    const std::string host = host_name();
    inventory::Inventory inv;
    if (action == message::kInventory) {
        inv = inventory::collect();
    }
    const auto waiting = not_yet_run(lines, "not run: the service stopped before it ran");
    const auto skipped = not_yet_run(lines, "not run: the message was throttled");

    std::vector<OutboxMessage> out;
    std::vector<Pending> pending;
    for (const auto &tg : targets) {
        message::Input in{action, state_.info, t, host, tg.profile};
        in.group = group;
        in.severity = severity;
        in.subject = subject;
        in.text = text;
        in.inventory = action == message::kInventory ? &inv : nullptr;
        OutboxMessage m;
        m.sec = t;
        m.profile = tg.profile;
        m.group = group;
        m.severity = severity;
        m.format = tg.format;
        for (const auto &r : tg.recipients) {
            m.recipients += (m.recipients.empty() ? "" : ", ") + r;
        }
        bool throttled = false;
        if (action == message::kAlert && state_.throttling) {
            const auto d = throttle().admit(tg.profile, group, t);
            throttled = d != throttle::Decision::Send;
            if (d == throttle::Decision::ThrottledFirst) {
                std::cerr << "callhomed: throttling alerts of group " << group << " to profile "
                          << tg.profile << ": more than " << throttle::Throttle::kLimit
                          << " within an hour\n";
            }
        }
        in.commands = throttled ? &skipped : &waiting;
        const auto msg = message::compose(in, tg.format, tg.max_size);
        m.subject = msg.subject;
        m.body = msg.body;
        m.state = throttled ? "throttled" : lines.empty() ? "queued" : "composing";
        (throttled ? o.throttled : o.queued)++;
        if (!throttled && !lines.empty()) {
            in.commands = nullptr;
            pending.push_back({0, in, tg.format, tg.max_size});
        }
        out.push_back(std::move(m));
    }
    const auto ids = storage_.queue_messages(out, sched);
    if (!pending.empty()) {
        size_t k = 0;
        for (size_t i = 0; i < out.size(); ++i) {
            if (out[i].state == "composing") {
                pending[k++].id = ids[i];
            }
        }
        const uint64_t job = next_job_++;
        pending_[job] = std::move(pending);
        runner_.submit({job, lines});
    }
    if (targets.empty()) {
        o.error = "no active destination profile with e-mail addresses subscribes to the " + group +
                  " alert group" +
                  (severity > 0 ? " at a level of at most " + std::to_string(severity) : "");
    }
    return o;
}

void Dispatcher::complete(const commands::Runner::Done &d) {
    const auto it = pending_.find(d.id);
    if (it == pending_.end()) {
        return;
    }
    for (auto &p : it->second) {
        p.input.commands = &d.results;
        const auto msg = message::compose(p.input, p.format, p.max_size);
        try {
            storage_.complete_message(p.id, msg.subject, msg.body);
        } catch (const std::exception &e) {
            std::cerr << "callhomed: completing message " << p.id << ": " << e.what() << "\n";
        }
    }
    pending_.erase(it);
}

throttle::Throttle &Dispatcher::throttle() {
    if (!throttle_restored_) {
        throttle_restored_ = true;
        // The rolling hour outlives a restart: what was queued in it still counts.
        for (const auto &[profile, group, when] :
             storage_.alerts_since(now() - throttle::Throttle::kWindow)) {
            throttle_.record(profile, group, when);
        }
    }
    return throttle_;
}

std::map<std::pair<std::string, std::string>, throttle::Throttle::Counter>
Dispatcher::throttle_counters() {
    return throttle().counters(now());
}

} // namespace callhome
