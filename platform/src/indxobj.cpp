#include "indxobj.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "internal.hpp"
#include "platform/testing.hpp"

// A sorted vector searched with the caller's comparator. The comparator is never given a
// null pointer: null keys are refused before any comparison.
struct indxobj {
    struct Entry {
        void *key;
        void *element;
    };
    indxobj_cmp_t cmp;
    bool unique;
    bool owns;
    std::vector<Entry> entries;

    // First entry whose key does not order before `key`.
    std::vector<Entry>::iterator lower(const void *key) {
        return std::lower_bound(
            entries.begin(), entries.end(), key,
            [this](const Entry &e, const void *k) { return cmp(e.key, k) < 0; });
    }
    std::vector<Entry>::iterator upper(const void *key) {
        return std::upper_bound(
            entries.begin(), entries.end(), key,
            [this](const void *k, const Entry &e) { return cmp(k, e.key) < 0; });
    }
    std::vector<Entry>::iterator exact(const void *key) {
        auto it = lower(key);
        return it != entries.end() && cmp(it->key, key) == 0 ? it : entries.end();
    }
};

namespace {

struct Faults {
    std::mutex mutex;
    int failing_adds = 0;
    int creates_left = -1; // -1: creation never fails
    size_t live = 0;
};

Faults &faults() {
    static Faults f;
    return f;
}

bool consume_add_fault() {
    std::lock_guard<std::mutex> lock(faults().mutex);
    if (faults().failing_adds > 0) {
        --faults().failing_adds;
        return true;
    }
    return false;
}

bool consume_create_success() {
    std::lock_guard<std::mutex> lock(faults().mutex);
    if (faults().creates_left == 0) {
        return false;
    }
    if (faults().creates_left > 0) {
        --faults().creates_left;
    }
    return true;
}

} // namespace

extern "C" int indxobj_create(indxobj_t **obj, int kind, int unique, indxobj_cmp_t cmp, int owns) {
    if (obj == nullptr) {
        return -1;
    }
    *obj = nullptr;
    // Only the sorted kind exists here.
    if (kind != 0 || cmp == nullptr || !consume_create_success()) {
        return -1;
    }
    std::unique_ptr<indxobj> created;
    try {
        created = std::make_unique<indxobj>(indxobj{cmp, unique != 0, owns != 0, {}});
    } catch (const std::bad_alloc &) {
        return -1;
    }
    // Ownership passes to the C caller until indxobj_destroy takes it back.
    *obj = created.release();
    std::lock_guard<std::mutex> lock(faults().mutex);
    ++faults().live;
    return INDXOBJ_CREATED;
}

extern "C" int indxobj_add(indxobj_t *obj, void *key, void *element) {
    if (obj == nullptr || key == nullptr || consume_add_fault()) {
        return -1;
    }
    if (obj->unique && obj->exact(key) != obj->entries.end()) {
        return -1;
    }
    try {
        // Equal keys (non-unique containers) keep their insertion order.
        obj->entries.insert(obj->upper(key), indxobj::Entry{key, element});
    } catch (const std::bad_alloc &) {
        return -1;
    }
    return 0;
}

extern "C" void *indxobj_find(indxobj_t *obj, const void *key) {
    if (obj == nullptr || key == nullptr) {
        return nullptr;
    }
    auto it = obj->exact(key);
    return it != obj->entries.end() ? it->element : nullptr;
}

extern "C" void *indxobj_remove(indxobj_t *obj, const void *key) {
    if (obj == nullptr || key == nullptr) {
        return nullptr;
    }
    auto it = obj->exact(key);
    if (it == obj->entries.end()) {
        return nullptr;
    }
    void *element = it->element;
    obj->entries.erase(it);
    return element;
}

extern "C" void indxobj_destroy(indxobj_t *obj) {
    if (obj == nullptr) {
        return;
    }
    if (obj->owns) {
        for (const auto &e : obj->entries) {
            std::free(e.element);
        }
    }
    std::unique_ptr<indxobj> owned(obj);
    owned.reset();
    std::lock_guard<std::mutex> lock(faults().mutex);
    --faults().live;
}

namespace platform {

void fail_next_indxobj_add(int count) {
    std::lock_guard<std::mutex> lock(faults().mutex);
    faults().failing_adds = count > 0 ? count : 0;
}

void fail_indxobj_create_after(int successes) {
    std::lock_guard<std::mutex> lock(faults().mutex);
    faults().creates_left = successes < 0 ? -1 : successes;
}

size_t live_indxobj_count() {
    std::lock_guard<std::mutex> lock(faults().mutex);
    return faults().live;
}

size_t indxobj_size(const struct indxobj *obj) {
    return obj != nullptr ? obj->entries.size() : 0;
}

namespace detail {
void reset_indxobj() {
    std::lock_guard<std::mutex> lock(faults().mutex);
    faults().failing_adds = 0;
    faults().creates_left = -1;
}
} // namespace detail

} // namespace platform
