// The IPv6 layer's entry. The forwarder serves IPv4 clusters only, so every IPv6 frame belongs to
// the host; the frames are counted, so that an operator sees that they come.
#include "lb_entry.h"
#include "lb_executor.h"
#include "lb_words.h"

int lbipv6_entry(void * /*ethh*/, void * /*iph*/, int /*len*/, lb_osopaque_t /*osopaque*/)
{
    lb_stat_inc(lbexecutor->getable.ipv6stats.in);
    return LB_PACKETRC_INTACT;
}
