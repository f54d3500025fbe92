// The configuration key tree: executor, clusters, ports, rules, servers, use-servers, heartbeats. A
// key's kind follows from which of its fields are set; a parent's key is the child's without the
// child's own fields.
#pragma once

#include "lb_command.h"

enum _lbcfg_keytype_e : lb_u8_t {
    LBCFG_KEYTYPE_UNKNOWN = 0,
    LBCFG_KEYTYPE_EXECUTOR = 1,
    LBCFG_KEYTYPE_CLUSTER = 2,
    LBCFG_KEYTYPE_PORT = 3,
    LBCFG_KEYTYPE_RULE = 4,
    LBCFG_KEYTYPE_SERVER = 5,
    LBCFG_KEYTYPE_USESERVER = 6,
    LBCFG_KEYTYPE_HEARTBEAT = 7,
};

[[nodiscard]] int lbcfg_init(); // the command list's result
int lbcfg_exit();
_lbcfg_keytype_e _lbcfg_keytype(const lbcfg_key_t *key);
