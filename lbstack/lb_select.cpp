// Server selection: the table of operations by algorithm, round robin over a server set, and the
// two algorithms that keep no state, HASH and UDPRR.
//
// The tables are filled once, before any other thread runs, and only read afterwards. Choosers run
// on every receive worker at once; the walk over a server set takes the lock of its reference list.
// Seeds are shared words: the rotation needs no more than that each packet takes one.
#include "lb_select.h"

#include "lb_cluster.h"
#include "lb_forward.h"
#include "lb_log.h"
#include "lb_pbuf.h"
#include "lb_port.h"
#include "lb_rule.h"
#include "lb_sel_connection.h"
#include "lb_server.h"
#include "lb_words.h"

lbsel_funcs_t selectfunc[LBSEL_ALGORIGHM_MAXIMUM + 1];
lbsel_encapforward_fn encapforwardfunc[LBSRV_ENCAPTYPE_MAX + 1];

namespace
{

struct algorithm_s {
    lbsel_algorighm_e algorithm;
    lbsel_funcs_t funcs;
};
extern const algorithm_s algorithms[2];

// The algorithms that keep records bring rows of their own.
struct recordrow_s {
    lbsel_algorighm_e algorithm;
    const lbsel_funcs_t *funcs;
};
constexpr recordrow_s RECORDROWS[] = {
    {LBSEL_ALGORIGHM_CONNECTION, &lbsel_ct_funcs},
    {LBSEL_ALGORIGHM_AFFINITY, &lbsel_at_funcs},
    {LBSEL_ALGORIGHM_CONN_AFFIN, &lbsel_ctat_funcs},
};

// Sets and traces the choice; without one, counts and frees the packet. UDPRR traces under the
// names of HASH too.
lbsrv_obj_t *_lbsel_settle(lbpbuf_obj_t *pkt, lbsrv_obj_t *server)
{
    pkt->server = server;
    if (server != nullptr) {
        lbpbuf_trace(LB_LOG_SELECT | LB_LOG_FORWARDED, pkt, "hash-fwd");
        return server;
    }
    lbpbuf_trace(LB_LOG_SELECT | LB_LOG_DISCARDED, pkt, "hash-no-servers");
    lb_stat_inc(pkt->port->getable.ipstats.discard);
    lb_stat_inc(pkt->cluster->getable.ipstats.discard);
    lb_stat_inc(pkt->stats->discard);
    os_packetfree(pkt->osopaque);
    return nullptr;
}

// By the client's port alone: the same port reaches the same server while the set is unchanged.
lbsrv_obj_t *_lbsel_hash_choose(lbpbuf_obj_t *pkt)
{
    LB_LOG(LB_LOG_SELECT, "hash_choose\n");
    lb_u32_t seed = lbsel_pbuf_getclientport(pkt);
    lbsrv_obj_t *server = lbsel_chooseserver(pkt, &seed);
    lb_stat_inc(pkt->port->serverset.seeds[LBSRVSET_SEED_ATCT]);
    return _lbsel_settle(pkt, server);
}

lbsrv_obj_t *_lbsel_udprr_choose(lbpbuf_obj_t *pkt)
{
    LB_LOG(LB_LOG_SELECT, "hash_choose\n");
    return _lbsel_settle(pkt,
                         lbsel_chooseserver(pkt, &pkt->port->serverset.seeds[LBSRVSET_SEED_UDPRR]));
}

} // namespace

int lbsel_init()
{
    for (lbsel_funcs_t &row : selectfunc) {
        row = lbsel_funcs_t{};
    }
    for (lbsel_encapforward_fn &forwarder : encapforwardfunc) {
        forwarder = nullptr;
    }
    encapforwardfunc[LBSRV_ENCAPTYPE_IPIP] = lbsel_forwardipip;
    encapforwardfunc[LBSRV_ENCAPTYPE_GRE] = lbsel_forwardgre;
    for (const algorithm_s &row : algorithms) {
        selectfunc[row.algorithm] = row.funcs;
    }
    for (const recordrow_s &row : RECORDROWS) {
        selectfunc[row.algorithm] = *row.funcs;
    }
    return 0;
}

void lbsel_cleanup() {}

lbsrv_obj_t *lbsel_chooseserver(lbpbuf_obj_t *pkt, lb_u32_t *seedptr)
{
    if (lbrul_pbuf_entry(pkt) != 0) {
        return pkt->server; // also when the rule has none: it drops the packet
    }
    return lbsel_srvset_chooseserver(&pkt->port->serverset, seedptr);
}

lbsrv_obj_t *lbsel_srvset_chooseserver(lbsrvset_obj_t *srvset, lb_u32_t *seedptr)
{
    const lb_u32_t weightsum = lb_peek(srvset->weightsum);
    lb_u32_t turns = weightsum;
    lbll_select_fn filter = _lbsel_llfilter_weightedrr;
    if (weightsum == 0) {
        turns = static_cast<lb_u32_t>(lbll_size(&srvset->srvreflist));
        filter = _lbsel_llfilter_strictrr;
        if (turns == 0) {
            return nullptr;
        }
        LB_LOG(LB_LOG_SELECT, "lbsel_srvset_chooseserver strict rr seed %d size %d\n",
               lb_peek(*seedptr), turns);
    } else {
        LB_LOG(LB_LOG_SELECT, "lbsel_srvset_chooseserver weighted rr weightsum %d\n", weightsum);
    }
    lb_s32_t key[2] = {static_cast<lb_s32_t>(lb_take_next(*seedptr) % turns), 0};
    void *found = nullptr;
    // None is found where servers left, or lost weight, since the turns were counted.
    if (lbll_selectn(&srvset->srvreflist, &found, 1, filter, key) != 1) {
        return nullptr;
    }
    return static_cast<lbsrv_ref_t *>(found)->server;
}

lb_u16_t lbsel_pbuf_getclientport(lbpbuf_obj_t *pkt)
{
    return pkt->_select_prv.sel_clientport_hbo;
}

lbip_addr_t *lbsel_pbuf_getclientaddr(lbpbuf_obj_t *pkt)
{
    return &pkt->_select_prv.sel_clientip;
}

int _lbsel_llfilter_strictrr(void *vkey, void * /*vobj*/)
{
    lb_s32_t *key = static_cast<lb_s32_t *>(vkey);
    if (key[1] < key[0]) {
        ++key[1];
        LB_LOG(LB_LOG_SELECT, "_lbsel_llfilter_strictrr key0 %d key1 %d false\n", key[0], key[1]);
        return 0;
    }
    LB_LOG(LB_LOG_SELECT, "_lbsel_llfilter_strictrr key0 %d key1 %d true\n", key[0], key[1]);
    return LBLL_FILTER_YES;
}

int _lbsel_llfilter_weightedrr(void *vkey, void *vobj)
{
    lb_s32_t *key = static_cast<lb_s32_t *>(vkey);
    const lbsrv_ref_t *ref = static_cast<const lbsrv_ref_t *>(vobj);
    key[1] += lb_peek(ref->server->setable.weight);
    if (key[0] < key[1]) {
        LB_LOG(LB_LOG_SELECT, "key0 %d key1 %d true\n", key[0], key[1]);
        return LBLL_FILTER_YES;
    }
    LB_LOG(LB_LOG_SELECT, "key0 %d key1 %d false\n", key[0], key[1]);
    return 0;
}

namespace
{

constexpr algorithm_s algorithms[2] = {
    {LBSEL_ALGORIGHM_HASH,
     {
         .portinit = nullptr,
         .srvinit = nullptr,
         .portcleanup = nullptr,
         .srvrm = nullptr,
         .srvreap = nullptr,
         .choose = _lbsel_hash_choose,
         .timer = nullptr,
     }},
    {LBSEL_ALGORIGHM_UDPRR,
     {
         .portinit = nullptr,
         .srvinit = nullptr,
         .portcleanup = nullptr,
         .srvrm = nullptr,
         .srvreap = nullptr,
         .choose = _lbsel_udprr_choose,
         .timer = nullptr,
     }},
};

} // namespace
