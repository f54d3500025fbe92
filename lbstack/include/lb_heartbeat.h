// Heartbeats: what partners tell each other twice a second, between pairs of addresses that the
// configuration tree names.
#pragma once

#include "lb_command.h"
#include "lb_grace.h"

#include "prot/blocks.h"
#include "prot/ha.h"

struct lbha_heartbeatobj_s {
    lbcmd_objhdr_t cmdobj; // its key: our address (cluster), the partner's address (server)
    lbll_node_t hbnode;    // in the HA object's heartbeatlist
    alignas(8) lbha_hb_setable_t setable;
    alignas(8) lbha_hb_getable_t getable;
    lbneigh_obj_t *neigh; // the partner's entry; lb_peekptr, null once the heartbeat is removed
    lb_grace_node_t grace;
};
using lbha_heartbeatobj_t = lbha_heartbeatobj_s;

// Fills a freshly allocated object: 0, or 1 (nothing is left behind then). Command thread.
[[nodiscard]] int lbhahb_init(lbcfg_key_t *key, lbha_heartbeatobj_t *hb, void *addable,
                              void *setable);
// Gives back what the initialisation took, of an object that nobody has seen.
void lbhahb_undo(lbha_heartbeatobj_t *hb);
int _lbhahb_cmd_rm(lbcmd_objhdr_t *objhdr);
int _lbhahb_cmd_get(lbcmd_objhdr_t *objhdr);
int _lbhahb_ll_select(void *key, void *obj); // key: lbcfg_key_t
void _lbhahb_ll_print(void *obj);

// Sends one heartbeat to every partner, or as many as there are queued packets of records. Any
// thread inside the stack, no lock held.
void _lbha_sendheartbeats();
// Builds and sends one packet: the header in wire order, and `repdatalen` bytes of records, no more
// than LBHA_REPRECS_MAX of them; `repdata` may be null.
void _lbha_ipv4_sendheartbeat(lbha_heartbeatobj_t *hb, const lbha_pkthdr_t *hapkthdr,
                              const void *repdata, int repdatalen);
void _lbha_ipv6_sendheartbeat(lbha_heartbeatobj_t *hb, const lbha_pkthdr_t *hapkthdr,
                              const void *repdata, int repdatalen);

// A received heartbeat, whose buffer it frees: LB_PACKETRC_CONSUMED.
int lbhahb_pbuf_entry(lbpbuf_obj_t *pkt);
