// A back-end server of a port.
#pragma once

#include "lb_command.h"
#include "lb_srvset.h"

#include "prot/blocks.h"

// The server's records by state (connections) and of its clients (affinity). The algorithm
// initialises the lists that it uses; `active`'s lock guards the first three.
struct lbsrv_seldat_s {
    lbll_list_t preest;
    lbll_list_t active;
    lbll_list_t fin;
    lbll_list_t arlist;
    void *at;        // the affinity table of its clients' records; it outlives the server
    lb_u8_t removed; // lb_peek; set before a removed server's records are swept: makes no new ones
};
using lbsrv_seldat_t = lbsrv_seldat_s;

struct lbsrv_obj_s {
    lbcmd_objhdr_t config;
    lbll_node_t llnode;
    lbsrv_seldat_t sel;
    alignas(8) lbsrv_addable_t addable;
    alignas(8) lbsrv_setable_t setable; // read by workers: lb_peek
    alignas(8) lbsrv_getable_t getable;
    lbport_obj_t *parent;
    lbneigh_obj_t *neigh;         // set before the server is linked, never changed
    lb_retaddr_obj_t *retaddrobj; // a NAT server's, else null; as long as neigh
    lbsrv_ref_t srvref;
    lb_u8_t usesretaddr; // counted in retaddrobj's refcount; command thread, then its reaper
};

// The tun device through which the servers of this host are reached; 0 until the first of them is
// set up, open for good then. lb_peek.
extern int os_tunfd;

// Fills a freshly allocated object: 0, or 1 (what it took is given back then).
[[nodiscard]] int lbsrv_init(lbcfg_key_t *key, lbport_obj_t *parent, lbsrv_obj_t *srv,
                             void *addable, void *vsetable);
int lbsrv_ll_select(void *key, void *obj); // key: lbip_addr_t
void lbsrv_ll_print(void *obj);
