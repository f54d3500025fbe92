// Keys of the two object trees, as commands carry them. Host byte order except within addresses.
#pragma once

#include "prot/ipaddr.h"

// Configuration tree: executor (nothing set), cluster, port, rule, server, use-server; a cluster
// and a server address alone name a heartbeat (local address, partner's address).
struct lbcfg_key_s {
    lbip_addr_t cluster;
    lb_u16_t port;
    lb_u16_t rule;
    lb_u32_t _pad;
    lbip_addr_t server;
};
using lbcfg_key_t = lbcfg_key_s;
static_assert(sizeof(lbcfg_key_t) == 56 && alignof(lbcfg_key_t) == 4);
static_assert(offsetof(lbcfg_key_t, port) == 24 && offsetof(lbcfg_key_t, rule) == 26);
static_assert(offsetof(lbcfg_key_t, server) == 32);

// Interface tree: collection (nothing set), instance (name), address (name and address). The name
// fills up with NULs and may lack one.
constexpr int LBIFACE_NAMELEN = 32;
struct lbiface_key_s {
    char name[LBIFACE_NAMELEN];
    lbip_addr_t addr;
};
using lbiface_key_t = lbiface_key_s;
static_assert(sizeof(lbiface_key_t) == 56 && offsetof(lbiface_key_t, addr) == 32);

union lbcmd_key_u {
    lbcfg_key_t cfg;
    lbiface_key_t iface;
};
using lbcmd_key_t = lbcmd_key_u;
static_assert(sizeof(lbcmd_key_t) == 56 && alignof(lbcmd_key_t) == 4);
