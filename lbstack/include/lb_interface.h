// The interface tree: the collection, the host interfaces that the forwarder may use, and their
// addresses. It answers two questions: on which interface is an address reachable, and from which
// of our addresses is it spoken to.
//
// Only the command thread changes the tree. What a look-up returns stays valid while the caller is
// inside the stack (lb_grace.h).
#pragma once

#include "lb_command.h"
#include "lb_grace.h"

#include "prot/blocks.h"

// --- Key tree ------------------------------------------------------------------------------------

enum _lbiface_keytype_e : lb_u8_t {
    LBIFACE_KEYTYPE_UNKNOWN = 0,
    LBIFACE_KEYTYPE_IFCOLLECTION = 1,
    LBIFACE_KEYTYPE_IFINSTANCE = 2,
    LBIFACE_KEYTYPE_IPADDR = 3,
};

[[nodiscard]] int lbiface_init();
int lbiface_exit();
_lbiface_keytype_e _lbiface_keytype(const lbiface_key_t *key);

// --- Objects -------------------------------------------------------------------------------------

struct lbifcol_collection_s {
    lbcmd_objhdr_t cmdobj;
    alignas(8) lbifcol_setable_t setable;
    alignas(8) lbifcol_getable_t getable;
    lbll_list_t interfacelist; // of lbifin_obj_t
};

struct lbifin_obj_s {
    lbcmd_objhdr_t cmdobj;
    lbll_node_t ifinnode;
    alignas(8) lbifin_setable_t setable; // read by workers: lb_peek
    alignas(8) lbifin_getable_t getable;
    void *osiface;
    lbll_list_t ifaddrlist; // of lbifaddr_obj_t
    // Routes in memory that lead over it, also those that nothing leads to any more; they belong to
    // lb_neigh. lb_stat_inc, lb_peek.
    lb_u32_t routes;
    lb_grace_node_t grace;
};

struct lbifaddr_obj_s {
    lbcmd_objhdr_t cmdobj;
    lbll_node_t ifaddrnode;
    alignas(8) lbifaddr_setable_t setable;
    alignas(8) lbifaddr_getable_t getable;
    lbifin_obj_t *parent;
    lb_grace_node_t grace;
};

[[nodiscard]] int lbifcol_init(); // 0, or 1
int lbifcol_exit();

// The interface on which `addr` is reachable, or null: the far end of a point-to-point link before
// any subnet, the first in list order within each.
[[nodiscard]] lbifin_obj_t *lbifcol_selectbyip(lbip_addr_t *addr);
// The address of `ifin` whose subnet holds `addr`, or null.
[[nodiscard]] lbip_addr_t *lbifin_getsrcip(lbifin_obj_t *ifin, lbip_addr_t *addr);
// The address of `ifin` whose far end is `addr`, or null.
[[nodiscard]] lbip_addr_t *lbifin_getsrcp2pip(lbifin_obj_t *ifin, lbip_addr_t *addr);

// Whether it is a point-to-point link, which carries bare IP.
[[nodiscard]] bool lbifin_isptp(const lbifin_obj_t *ifin);
// Whether neighbours on it are found by ARP.
[[nodiscard]] bool lbifin_doesarp(const lbifin_obj_t *ifin);
// Whether packets that the stack builds get an Ethernet header on it: neither a point-to-point link
// nor one with ARP switched off.
[[nodiscard]] bool lbifin_haslinkheader(const lbifin_obj_t *ifin);

int lbifin_ll_select(void *key, void *obj);    // key: lbiface_key_t
int lbifin_ll_selectall(void *key, void *obj); // every instance
void lbifin_ll_print(void *obj);
int lbifaddr_ll_select(void *key, void *obj); // key: lbip_addr_t
void lbifaddr_ll_print(void *obj);
