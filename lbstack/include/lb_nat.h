// NAT: servers behind a router are spoken to from a return address of ours, each connection from a
// port of its own. Here are the return addresses with their tables of ports, the rewriting of
// packets, and the way of an answer back to its client.
#pragma once

#include "lb_fragment.h"
#include "lb_grace.h"
#include "lb_linkedlist.h"
#include "lb_multicast.h"
#include "lb_types.h"

#include "os.h"
#include "prot/ipaddr.h"

// --- Ports of a return address -------------------------------------------------------------------

constexpr int EXC_EPT_SLOTS = 64512;
constexpr int EXC_EPT_LASTSLOT = 64510; // port 65535; what is behind it is never used
constexpr int EXC_EPT_FIRSTPORT = 1025; // of slot 0
constexpr int EXC_EPT_NOPORT = -68;

// Who owns which port. Slots are written under the lock, as shared words: lb_peekptr.
struct EXC_EphemeralPortTable_s {
    lbsel_cr_obj_t *ucBusyPorts[EXC_EPT_SLOTS]; // null: free
    lb_u16_t usNextPort;                        // the slot where the next search begins
    lblock lock;
};
using EXC_EphemeralPortTable = EXC_EphemeralPortTable_s;

// Clears the table and makes its lock: 0, or the mutex's error code.
[[nodiscard]] int EXC_EPTInit(EXC_EphemeralPortTable *pept);
// Takes the next free port for the record, which must name its client already and nothing else
// needs to guard yet: 0 and the port in its natkey, or EXC_EPT_NOPORT.
[[nodiscard]] int EXC_EPTGetPort(EXC_EphemeralPortTable *pept, lbsel_cr_obj_t *cr);
// Frees a port, whoever owns it: 0, or -1 for one that is never handed out.
int EXC_EPTFreePort(EXC_EphemeralPortTable *pept, lb_u16_t usPort);
// Frees a port if the record owns it: whether it did.
bool lb_ept_freeif(EXC_EphemeralPortTable *pept, lb_u16_t port, const lbsel_cr_obj_t *cr);
// Gives a port to a record, whoever owned it, and lets the next search begin behind it. A port that
// is never handed out is nobody's.
void lb_ept_claim(EXC_EphemeralPortTable *pept, lb_u16_t port, lbsel_cr_obj_t *cr);
// The record that owns the port, or null. Records are recycled: know from elsewhere what it is now.
[[nodiscard]] lbsel_cr_obj_t *EXC_EPTGetCR(EXC_EphemeralPortTable *pept, lb_u16_t natport);
// Whether the record owns the port; no lock. While a server's records are locked, what one of them
// owns stays its own.
[[nodiscard]] bool lb_ept_owns(const EXC_EphemeralPortTable *pept, lb_u16_t port,
                               const lbsel_cr_obj_t *cr);
// How many slots are busy, the last usable one left out.
[[nodiscard]] int EXC_EPTCountPorts(EXC_EphemeralPortTable *pept);

// --- Return addresses ----------------------------------------------------------------------------

struct lb_retaddr_obj_s {
    lbll_node_t exenode; // in the executor's retaddrlist
    lbip_addr_t retaddr; // the key; never changes
    EXC_EphemeralPortTable ept;
    lbfrag_table_t frag; // fragments of answers; their second address is the client's
    lb_u32_t refcount;   // servers that use it; under the list's lock, as is the next
    lb_u32_t holders;    // servers that used it and have not been freed
    lbmc_membership_t membership;
    lb_grace_node_t grace;
};

[[nodiscard]] int _lb_nat_init(); // the list's result
int _lb_nat_exit();
int lbrat_ll_select(void *vkey, void *vobj); // key: lbip_addr_t

// The object of an address, made if it is new, for one more server; null when there is no memory or
// lock for it. Command thread.
[[nodiscard]] lb_retaddr_obj_t *lbrat_take(const lbip_addr_t *addr);
// The server's records are out of the table: the last server to say so takes the address out of the
// list.
void lbrat_drop(lb_retaddr_obj_t *obj);
// The server will never touch the object again. After the last one it is freed, in its grace. Only
// what was dropped may be let go.
void lbrat_letgo(lb_retaddr_obj_t *obj);

// Ages what return addresses remember of fragments. Timer thread.
void lb_nat_timer_entry();

// --- Packets -------------------------------------------------------------------------------------

// What a packet's addresses and ports become; ports in host order, 0 leaves the packet's own.
struct lb_nat_endpoints_s {
    const lbip_addr_t *src;
    const lbip_addr_t *dst;
    lb_u16_t sport;
    lb_u16_t dport;
};

// Rewrites a TCP packet and its checksums: 0, or -1 when the addresses are of another IP version,
// when its lengths are unusable, or when a whole packet or first fragment holds no TCP header; then
// nothing has been changed. Later fragments have no ports.
[[nodiscard]] int lb_nat_rewrite(lbpbuf_obj_t *pkt, const lb_nat_endpoints_s *to);

// A TCP packet, or the first fragment of one, to a port above 1024 of a return address: sends it to
// its client. Always LB_PACKETRC_CONSUMED.
unsigned int lb_nat_entry(lbpbuf_obj_t *pkt, lb_retaddr_obj_t *retaddrrecord);
// A later fragment of one follows the first: LB_PACKETRC_CONSUMED, or HELD until that has come.
unsigned int lb_nat_fragment_entry(lbpbuf_obj_t *pkt, lb_retaddr_obj_t *retaddrrecord);

// Callbacks for a hash table of records by NAT port (key: lb_nat_obj_key_t).
lb_u32_t _lb_nat_hthash_callback(void *key, void *obj);
int _lb_nat_htselect_callback(void *key, void *obj);
void _lb_nat_htprint_callback(void *obj);
