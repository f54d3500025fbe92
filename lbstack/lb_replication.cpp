// Replication: the queue of packets of records that wait for the next heartbeat, and the reading of
// those that the partner sent.
//
// Workers and the timer queue records, often under the lock of a server's records; the queue's own
// lock is a leaf, held while one record is written or the whole queue taken out, never while a
// packet is sent. The queue has no bound: it grows while no partner can be reached. Records are
// read on the workers; what they do to the tables is lb_sel_apply's.
#include "lb_replication.h"

#include "lb_config.h"
#include "lb_executor.h"
#include "lb_ip.h"
#include "lb_log.h"
#include "lb_sel_apply.h"
#include "lb_server.h"
#include "lb_utils.h"
#include "lb_words.h"

namespace
{

constexpr lb_u64_t TRACE = LB_LOG_HA;
constexpr lb_u64_t EVENT = LB_LOG_HA | LB_LOG_EVENT;

lbll_list_t *queue()
{
    return &lbexecutor->ha.reppktq;
}

// The packet that the next record goes into, opened if need be; null when memory is exhausted.
lbha_reppkt_t *openpacket() LB_NEEDS(*queue())
{
    auto *newest = static_cast<lbha_repqobj_t *>(lbll_getnode_lhs_nl(queue()));
    if (newest != nullptr &&
        newest->reppkt.pkthdr.numreprec < lb_peek(lbexecutor->ha.maxhbpayload)) {
        return &newest->reppkt;
    }
    auto *packet = lb_newzero<lbha_repqobj_t>();
    if (packet == nullptr) {
        return nullptr;
    }
    lb_timeval_t now;
    (void)os_gettime(&now);
    lb_put32(packet->reppkt.pkthdr.rseq.nbosecs, static_cast<lb_u32_t>(now.secs));
    lb_put32(packet->reppkt.pkthdr.rseq.nbousecs, static_cast<lb_u32_t>(now.usecs));
    if (lbll_addnode_lhs_nl(queue(), packet) != 0) {
        os_memfree(packet);
        return nullptr;
    }
    return &packet->reppkt;
}

void writekey(lbha_cfgkey_t *to, const lbcfg_key_t *key)
{
    to->cluster = key->cluster;
    to->server = key->server;
    lb_put16(to->port, key->port);
    lb_put16(to->rule, key->rule);
}

lbcmd_key_t readkey(const lbha_cfgkey_t *from)
{
    lbcmd_key_t key = {};
    key.cfg.cluster = from->cluster;
    key.cfg.server = from->server;
    key.cfg.port = lb_get16(from->port);
    key.cfg.rule = lb_get16(from->rule);
    return key;
}

// The server that a record belongs to, or null. Everything else that the key may name is no server.
lbsrv_obj_t *serverof(const lbha_replicationrec_t *rec)
{
    lbcmd_key_t key = readkey(&rec->nbocfgkey);
    if (_lbcfg_keytype(&key.cfg) != LBCFG_KEYTYPE_SERVER) {
        return nullptr;
    }
    static_assert(offsetof(lbsrv_obj_t, config) == 0);
    return reinterpret_cast<lbsrv_obj_t *>(lbcmd_lookup(LBCMD_KEYTYPE_CONFIG, &key));
}

// A client's address as packets give it, with nothing in the bytes that they don't have.
lbip_addr_t clientof(const lbha_replicationrec_t *rec)
{
    return rec->srcip.version == 4 ? lbip_fromv4(rec->srcip.nboaddr.v4)
                                   : lbip_fromv6(rec->srcip.nboaddr.v6);
}

// False when there is no use in trying the next.
bool applyrecord(const lbha_replicationrec_t *rec)
{
    lbsrv_obj_t *server = serverof(rec);
    if (server == nullptr) {
        LB_LOG(EVENT, " No port object found !!!\n");
        return true;
    }
    if (rec->srcip.version != server->config.key.cfg.cluster.version) {
        return true; // no packet to the cluster has such a client
    }
    const lbsel_replica_t replica = {.client = clientof(rec),
                                     .clientport = lb_get16(rec->nbosrcport),
                                     .natport = lb_get16(rec->natport),
                                     .state = rec->connstate[0]};
    return replica.clientport != 0 ? lbsel_ct_apply(server, &replica)
                                   : lbsel_at_apply(server, &replica.client);
}

} // namespace

int lbha_replication_enqueue(lbcfg_key_t *key, lbip_addr_t *cliip, lb_u16_t cliport, lb_u8_t state,
                             lb_u16_t natport)
{
    lbll_guard held(queue());
    lbha_reppkt_t *packet = openpacket();
    if (packet == nullptr) {
        return LBHA_REPENQ_FAILURE;
    }
    const int index = packet->pkthdr.numreprec;
    LB_LOG(TRACE, "HA: enqueue packet = %d\n", index);
    lbha_replicationrec_t *rec = &packet->reprec[index];
    writekey(&rec->nbocfgkey, key);
    rec->srcip = *cliip;
    lb_put16(rec->nbosrcport, cliport);
    rec->connstate[0] = state;
    lb_put16(rec->natport, natport);
    packet->pkthdr.numreprec++;
    return LBHA_REPENQ_SUCCESS;
}

lbha_repqobj_t *lbha_replication_take()
{
    lbha_repqobj_t *oldest = nullptr;
    lbha_repqobj_t **end = &oldest;
    lbll_guard held(queue());
    for (;;) {
        auto *packet = static_cast<lbha_repqobj_t *>(lbll_getnode_rhs_nl(queue()));
        if (packet == nullptr || lbll_rmnode_nl(queue(), packet) != 0) {
            return oldest;
        }
        *end = packet;
        end = &packet->next;
    }
}

void lbha_replication_drop()
{
    lbha_repqobj_t *packet = lbha_replication_take();
    while (packet != nullptr) {
        lbha_repqobj_t *dropped = packet;
        packet = packet->next;
        os_memfree(dropped);
    }
}

void _lbha_handlereprecords(const lbha_pkthdr_t *pkt, int len)
{
    LB_LOG(TRACE, " No of rep records:%d\n", pkt->numreprec);
    const auto *recs = reinterpret_cast<const lbha_replicationrec_t *>(pkt + 1);
    const int received = (len - static_cast<int>(sizeof(lbha_pkthdr_t))) /
                         static_cast<int>(sizeof(lbha_replicationrec_t));
    const int count = pkt->numreprec < received ? pkt->numreprec : received;
    for (int i = 0; i < count; i++) {
        LB_LOG(TRACE, " processing record:%d\n", i);
        if (!applyrecord(&recs[i])) {
            return;
        }
    }
}

void _lbha_ll_repq_print(void *obj)
{
    const lbha_reppkt_t *packet = &static_cast<lbha_repqobj_t *>(obj)->reppkt;
    os_print("rseq %d.%d has %d records\n", static_cast<int>(lb_get32(packet->pkthdr.rseq.nbosecs)),
             static_cast<int>(lb_get32(packet->pkthdr.rseq.nbousecs)), packet->pkthdr.numreprec);
    for (int i = 0; i < packet->pkthdr.numreprec; i++) {
        _lbha_reprec_print(&packet->reprec[i]);
    }
}

void _lbha_reprec_print(const lbha_replicationrec_t *rec)
{
    os_print("  reprec ");
    lbip_printaddr("", &rec->srcip, "");
    os_print("[%d]->", lb_get16(rec->nbosrcport));
    lbip_printaddr("", &rec->nbocfgkey.cluster, "");
    os_print("[%d]->", lb_get16(rec->nbocfgkey.port));
    lbip_printaddr("", &rec->nbocfgkey.server, "");
    os_print(" exp %d", static_cast<int>(lb_get32(rec->nbostaleout)));
    os_print(" state %d\n", rec->connstate[0]);
    os_print("natport %d", lb_get16(rec->natport));
}
