// A use-server: one of the port's servers, as a rule uses it.
#pragma once

#include "lb_command.h"
#include "lb_srvset.h"

#include "prot/blocks.h"

struct lbusrv_obj_s {
    lbcmd_objhdr_t config;
    lbll_node_t llnode;
    alignas(8) lbusrv_addable_t addable;
    alignas(8) lbusrv_setable_t setable;
    alignas(8) lbusrv_getable_t getable;
    lbrul_obj_t *parent;
    lbsrv_ref_t srvref; // in the rule's server set
};

// Fills a freshly allocated object: 0, or LBCMD_RC_NOPARENT when the port has no such server. Links
// nothing. The server outlives the object: a server that is used can't be removed.
[[nodiscard]] int lbusrv_init(lbcfg_key_t *key, lbrul_obj_t *parent, lbusrv_obj_t *usrv,
                              void *addable, void *vsetable);
