// Forwarding: delivers a packet to the server that was chosen for it.
#pragma once

#include "lb_types.h"

// Sends the packet to pkt->server, or drops and counts it; the host's buffer is freed in every
// case. Returns LB_PACKETRC_CONSUMED.
int lbsel_send(lbpbuf_obj_t *pkt);
