/*
 * Bit sets: a 32-bit header word holding the size of the storage in bytes, followed by the
 * storage. Bits are numbered as SNMP's BITS convention does: bit 0 is the most significant
 * bit of the first octet, so a set copied into an OCTET STRING reads naturally. Bits beyond
 * the storage are ignored, never written.
 */
#ifndef PLATFORM_BITSET_H
#define PLATFORM_BITSET_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define BITSET_HEADER_SIZE 4

/* Clears the storage the header describes. */
void bitset_clear(void *set);
void bitset_set_bit(void *set, uint32_t bit);
/* 1 when the bit is set, 0 otherwise (also for bits beyond the storage). */
int bitset_is_bit_set(const void *set, uint32_t bit);

#ifdef __cplusplus
}
#endif

#endif
