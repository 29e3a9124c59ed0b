/* Address records and their text forms. */
#ifndef PLATFORM_IP_ADDR_H
#define PLATFORM_IP_ADDR_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define IP_ADDR_FAMILY_IPV4 1
#define IP_ADDR_FAMILY_IPV6 2

/* u32 family (host order), then 16 address bytes; an IPv4 address uses the first 4. */
typedef struct __attribute__((packed)) ip_addr {
    uint32_t family;
    uint8_t addr[16];
} ip_addr_t;

/* Parses dotted IPv4 or colon IPv6 text into *addr (family set). 0 on success. */
int ip_addr_from_str(ip_addr_t *addr, const char *text);
/* Writes the standard text of *addr into `text` (NUL-terminated). 0 on success. */
int ip_addr_to_str(const ip_addr_t *addr, char *text, size_t size);

#ifdef __cplusplus
}
#endif

#endif
