// An IP address of either version, as objects, keys and blocks hold it.
#pragma once

#include "lb_types.h"

#include <cstddef>

struct lbip_addr_s {
    lb_u8_t version; // 0 unset, 4 or 6
    lb_u8_t prefix;  // prefix length where one applies, else 0
    lb_u8_t _pad[6]; // zero
    union {
        lb_u8_t v6[16]; // first, so that {} clears all of it
        lb_u8_t v4[4];
    } nboaddr; // network byte order
};
using lbip_addr_t = lbip_addr_s;
static_assert(sizeof(lbip_addr_t) == 24 && alignof(lbip_addr_t) <= 4);
static_assert(offsetof(lbip_addr_t, prefix) == 1 && offsetof(lbip_addr_t, nboaddr) == 8);
