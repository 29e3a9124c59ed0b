#include "ip_addr.h"

#include <arpa/inet.h>
#include <cstring>
#include <sys/socket.h>

extern "C" int ip_addr_from_str(ip_addr_t *addr, const char *text) {
    if (addr == nullptr || text == nullptr) {
        return -1;
    }
    uint8_t bytes[16] = {};
    if (inet_pton(AF_INET, text, bytes) == 1) {
        addr->family = IP_ADDR_FAMILY_IPV4;
    } else if (inet_pton(AF_INET6, text, bytes) == 1) {
        addr->family = IP_ADDR_FAMILY_IPV6;
    } else {
        return -1;
    }
    std::memcpy(addr->addr, bytes, sizeof bytes);
    return 0;
}

extern "C" int ip_addr_to_str(const ip_addr_t *addr, char *text, size_t size) {
    if (addr == nullptr || text == nullptr || size == 0) {
        return -1;
    }
    // Copy out of the packed record: inet_ntop wants an aligned address.
    uint8_t bytes[16];
    std::memcpy(bytes, addr->addr, sizeof bytes);
    const uint32_t family = addr->family;
    int af = 0;
    if (family == IP_ADDR_FAMILY_IPV4) {
        af = AF_INET;
    } else if (family == IP_ADDR_FAMILY_IPV6) {
        af = AF_INET6;
    } else {
        return -1;
    }
    const socklen_t room = size > INET6_ADDRSTRLEN ? INET6_ADDRSTRLEN : socklen_t(size);
    return inet_ntop(af, bytes, text, room) != nullptr ? 0 : -1;
}
