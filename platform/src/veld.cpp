#include "veld.h"

#include <atomic>
#include <cstring>

#include "internal.hpp"
#include "platform/testing.hpp"

namespace {

// The only feature whose distribution state the platform tracks.
constexpr const char *kFeature = "callhome";

std::atomic<uint32_t> g_enabled{0};
std::atomic<uint32_t> g_mode{0};

bool tracked(const char *feature) {
    return feature != nullptr && std::strcmp(feature, kFeature) == 0;
}

} // namespace

extern "C" int is_veld_enabled(const char *feature) {
    return tracked(feature) && g_enabled.load() != 0 ? 1 : 0;
}

extern "C" int get_veld_show_run_mode(const char *feature) {
    return tracked(feature) ? int(g_mode.load()) : 0;
}

namespace platform {

void set_distribution(bool enabled, int show_run_mode) {
    detail::set_distribution_state(enabled ? 1 : 0, uint32_t(show_run_mode));
}

namespace detail {

void set_distribution_state(uint32_t enabled, uint32_t mode) {
    g_enabled.store(enabled);
    g_mode.store(mode);
}

void reset_veld() {
    set_distribution_state(0, 0);
}

} // namespace detail
} // namespace platform
