#include "bitset.h"

#include <cstring>

namespace {

// Storage size in bytes from the header word.
uint32_t storage_size(const void *set) {
    uint32_t size = 0;
    std::memcpy(&size, set, sizeof size);
    return size;
}

uint8_t *storage(void *set) {
    return static_cast<uint8_t *>(set) + BITSET_HEADER_SIZE;
}
const uint8_t *storage(const void *set) {
    return static_cast<const uint8_t *>(set) + BITSET_HEADER_SIZE;
}

// SNMP BITS numbering: bit 0 is the most significant bit of the first octet.
uint8_t mask(uint32_t bit) {
    return uint8_t(0x80u >> (bit % 8));
}

} // namespace

extern "C" void bitset_clear(void *set) {
    if (set != nullptr) {
        std::memset(storage(set), 0, storage_size(set));
    }
}

extern "C" void bitset_set_bit(void *set, uint32_t bit) {
    if (set != nullptr && bit / 8 < storage_size(set)) {
        storage(set)[bit / 8] |= mask(bit);
    }
}

extern "C" int bitset_is_bit_set(const void *set, uint32_t bit) {
    if (set == nullptr || bit / 8 >= storage_size(set)) {
        return 0;
    }
    return (storage(set)[bit / 8] & mask(bit)) != 0 ? 1 : 0;
}
