#include "targets.hpp"

namespace callhome::targets {

std::vector<Target> select(const State &st, const std::string &group, int severity) {
    std::vector<Target> out;
    for (const auto &[name, p] : st.profiles) {
        if (p.row_status != 1 || p.emails.empty() ||
            (!p.groups.count(group) && !p.groups.count(kAll))) {
            continue;
        }
        if (severity > 0 && p.level + 1 > severity) {
            continue;
        }
        Target t{name, {}, p.format, p.max_size};
        for (const auto &[idx, addr] : p.emails) {
            t.recipients.push_back(addr);
        }
        out.push_back(std::move(t));
    }
    return out;
}

std::vector<std::string> commands_of(const State &st, const std::string &group) {
    std::vector<std::string> out;
    const auto idx = st.type_index(group);
    if (!idx) {
        return out;
    }
    for (auto it = st.commands.lower_bound({*idx, INT32_MIN});
         it != st.commands.end() && it->first.first == *idx; ++it) {
        if (!it->second.empty()) {
            out.push_back(it->second);
        }
    }
    return out;
}

} // namespace callhome::targets
