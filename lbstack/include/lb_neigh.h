// The neighbour table: the hardware address, interface and reachability of every host that the
// stack sends to, resolved and watched by itself. Workers feed answers in, the timer drives
// queries, the command thread adds and removes uses.
#pragma once

#include "lb_grace.h"
#include "lb_hashtable.h"

#include "prot/ether.h"
#include "prot/ipaddr.h"
#include "prot/neighstate.h"

enum lbneigh_state_vector_e : int {
    LBNEIGH_VECTOR_UNDEF = 0,
    LBNEIGH_VECTOR_TIMER = 1,
    LBNEIGH_VECTOR_RX = 2,
    LBNEIGH_VECTOR_TXERR = 3,
    LBNEIGH_VECTOR_NOIFACE = 4,
    LBNEIGH_VECTOR_TXOK = 5,
    LBNEIGH_VECTOR_HAVEIFACE = 6,
};

// What to send, and what was received.
enum lbneigh_type_e : int {
    LBNEIGH_TYPE_UNDEF = 0,
    LBNEIGH_TYPE_REQUEST = 1, // broadcast query
    LBNEIGH_TYPE_REPLY = 2,
    LBNEIGH_TYPE_VERIFY = 3, // unicast query to the known hardware address
    LBNEIGH_TYPE_GRAT = 4,   // gratuitous announcement
};

// How a neighbour is reached. Never changed once published: a reader that has the pointer has an
// interface, a source address and a handle that belong together.
struct lbneigh_route_s {
    lbifin_obj_t *ifin;
    lbip_addr_t srcip;
    lb_xmithandle_t xmithndl;
    lb_grace_node_t grace;
};
using lbneigh_route_t = lbneigh_route_s;

struct lbneigh_obj_s {
    lbht_node_t htnode;
    lbip_addr_t ipaddr;                  // the key; never changes
    alignas(8) lbeth_addr_align_t eaddr; // lb_peek, lb_poke: one word
    lb_u8_t state;                       // lb_peek, lb_poke
    lb_u8_t encapreachable;              // lb_peek, lb_poke
    lb_u16_t encapmtu;                   // lb_peek, lb_poke
    lb_u32_t usecount;                   // under the bucket's lock
    lb_u8_t Collocated;                  // lb_peek, lb_poke
    lb_u8_t _reserved[3];
    lb_u32_t lasttick;      // the timer round that visited it; timer thread
    lbneigh_route_t *route; // lb_peekptr; null without an interface
    lb_timeval_t lastrx;    // lb_peek, lb_poke
    lb_timeval_t lasttx;    // lb_peek, lb_poke
    lb_grace_node_t grace;
};

constexpr int LBNEIGH_BUCKETS = 16;
struct lbneigh_table_s {
    lbht_table_t ht;
    lbht_bucket_t buckets[LBNEIGH_BUCKETS];
};
using lbneigh_table_t = lbneigh_table_s;

[[nodiscard]] int lbneigh_init();
int lbneigh_exit();

// The entry for an address, made and queried for if it is new, with one more use; null when memory
// is exhausted. Command thread.
[[nodiscard]] lbneigh_obj_t *lbneigh_addnode(const lbip_addr_t *ipaddr);
// Drops one use; the last one unlinks the entry, which is freed after its grace.
void lbneigh_rmnode(const lbip_addr_t *ipaddr);
// The entry for an address, or null. Counts no use: valid while the caller is inside the stack.
[[nodiscard]] lbneigh_obj_t *lbneigh_lookup(const lbip_addr_t *ipaddr);

// An ARP or neighbour-discovery message whose `neighfuncs` read it.
int lbneigh_pbuf_entry(lbpbuf_obj_t *pkt);
void lbneigh_timer_entry();
// Announces an address of ours on the interface that reaches it.
void lbneigh_grat_send(lbip_addr_t *ipaddr);
// Takes an interface that goes away out of every entry: how many had it.
int lbneigh_clear_iface(const lbifin_obj_t *ifin);

// The state machine and its test of ripeness, visible for tests.
void _lbneigh_nextstate(lbneigh_obj_t *entry, int vector);
bool _lbneigh_isripe(const lbneigh_obj_t *entry, lb_timeval_t now);
