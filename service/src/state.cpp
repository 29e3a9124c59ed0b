#include "state.hpp"

namespace callhome {
namespace {

const char *const kInfoNames[] = {"sysContactPhoneNumber",
                                  "sysContactEmail",
                                  "sysStreetAddress",
                                  "custId",
                                  "contractId",
                                  "siteId",
                                  "priority"};
const char *const kBuiltinProfiles[] = {"full_txt", "xml", "short_txt"};

} // namespace

bool is_builtin(const std::string &name) {
    for (const char *b : kBuiltinProfiles) {
        if (name == b) {
            return true;
        }
    }
    return false;
}

bool known_info(const std::string &name) {
    for (const char *n : kInfoNames) {
        if (name == n) {
            return true;
        }
    }
    return false;
}

std::optional<uint32_t> State::type_index(const std::string &name) const {
    for (const auto &[idx, n] : types) {
        if (n == name) {
            return idx;
        }
    }
    return std::nullopt;
}

const char *State::missing_contact() const {
    for (const char *n : {"sysContactPhoneNumber", "sysContactEmail", "sysStreetAddress"}) {
        const auto it = info.find(n);
        if (it == info.end() || it->second.empty()) {
            return n;
        }
    }
    return nullptr;
}

} // namespace callhome
