// GRE header without options (RFC 2784, 2.1).
#pragma once

#include "prot/bytes.h"

struct lbgre_hdr_s {
    lb_be16_t flags; // and the version: all zero
    lb_be16_t proto; // the EtherType of what is inside
};
using lbgre_hdr_t = lbgre_hdr_s;
static_assert(sizeof(lbgre_hdr_t) == 4 && alignof(lbgre_hdr_t) == 1);
