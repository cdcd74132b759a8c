#pragma once
/// How addresses lie in record bodies. Fields are passed as bytes because blocks are packed; they
/// hold zeros before. IPv4 values are the caller's 32-bit words, IPv6 values the caller's 16 bytes.
#include <cstdint>
#include <cstring>

#include "ruv/conn.h"

/// One 16-byte field: `head` is its first 12 bytes, `tail` its last 4. A non-zero IPv4 value goes
/// into the tail, otherwise the IPv6 bytes fill the field.
inline void put_address(void *head, void *tail, uint32_t ipv4, const uint32_t *ipv6) {
    if (ipv4 != 0) {
        memcpy(tail, &ipv4, 4);
    } else {
        memcpy(head, ipv6, 12);
        memcpy(tail, ipv6 + 3, 4);
    }
}

/// Two separate fields of 16 and 4 bytes, of which only one is filled.
inline void put_address_pair(void *field6, void *field4, uint32_t ipv4, const uint32_t *ipv6) {
    if (ipv4 != 0)
        memcpy(field4, &ipv4, 4);
    else
        memcpy(field6, ipv6, 16);
}

/// The data source's 16-byte field of versions 1 to 5; a host id or no source leaves it zero.
inline void put_source(void *head, void *tail, const RUVDSInfo *dsinfo) {
    if (dsinfo == nullptr) return;
    if (dsinfo->type == kDsIPv4) memcpy(tail, &dsinfo->ipv4, 4);
    if (dsinfo->type != kDsIPv6) return;
    memcpy(head, dsinfo->ipv6, 12);
    memcpy(tail, dsinfo->ipv6 + 3, 4);
}
