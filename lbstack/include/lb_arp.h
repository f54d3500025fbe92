// ARP (RFC 826): validates what comes in, builds what the neighbour table sends.
#pragma once

#include "lb_entry.h"
#include "lb_types.h"

// Sends one message. `type` is an lbneigh_type_e; hardware addresses are 6 bytes, IP addresses 4.
void lbarp_send(int type, const unsigned char *eth_dhost, const unsigned char *eth_shost,
                const unsigned char *ip_sender, const unsigned char *ip_target,
                lb_xmithandle_t *xmithndl);
