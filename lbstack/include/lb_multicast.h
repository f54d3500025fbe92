// Multicast membership: neighbours ask for an IPv6 address in its solicited-node group (RFC 4291,
// 2.7.1), so the host has to hear that group on the interface that reaches the address. Every
// address that the stack answers for, a cluster's or a NAT return address, has a membership, which
// follows the interface tree: it makes no difference which of the two is configured first.
#pragma once

#include "lb_linkedlist.h"

#include "prot/ipaddr.h"
#include "prot/keys.h"

// One address's. Zero it before its first use; everything else is guarded by the list it is on.
struct lbmc_membership_s {
    lbll_node_t node; // in the executor's memberships
    lbip_addr_t addr;
    char ifname[LBIFACE_NAMELEN + 1]; // where the group has been joined; "" nowhere
};
using lbmc_membership_t = lbmc_membership_s;

[[nodiscard]] int lbmc_init(); // the list's result
int lbmc_exit();

// The stack answers for `addr` from now on: joins its group as soon as there is an interface for
// it. Nothing for IPv4. Command thread.
void lbmc_enter(lbmc_membership_t *membership, const lbip_addr_t *addr);
// No longer: leaves the group where it was joined. Nothing without lbmc_enter(), or a second time.
void lbmc_leave(lbmc_membership_t *membership);
// Interfaces or their addresses have changed: joins and leaves what that makes necessary. Command
// thread.
void lbmc_refresh();
