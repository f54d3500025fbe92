// Ports. The module owns a port's settings and its three collections: servers, rules, and the set
// of references that is chosen from. What the selection algorithm keeps for the port is the
// algorithm's own.
//
// Init, get and remove run on the command thread, reap and the periodic work on the timer thread;
// workers read linked ports without a lock. Only lists are locked, one at a time.

#include "lb_port.h"

#include "lb_cluster.h"
#include "lb_ip.h"
#include "lb_log.h"
#include "lb_rule.h"
#include "lb_sel_affinity.h"
#include "lb_select.h"
#include "lb_server.h"
#include "lb_utils.h"
#include "lb_words.h"

namespace
{

constexpr int REAPAGE_S = 3;
constexpr lb_u32_t TIMEOUT_MIN_S = 10; // shorter ones become the default
constexpr lb_u32_t STALETIMEOUT_S = 6400;
constexpr lb_u32_t STICKYTIME_S = 1800;
constexpr lb_u32_t WEIGHTBOUND = 20;

static_assert(offsetof(lbport_obj_t, config) == 0);
lbport_obj_t *portof(lbcmd_objhdr_t *obj)
{
    return reinterpret_cast<lbport_obj_t *>(obj);
}

const lbsel_funcs_t *algorithmof(const lbport_obj_t *port)
{
    return &selectfunc[lb_peek(port->addable.selectalg)];
}

bool isalgorithm(lb_u8_t algorithm)
{
    return algorithm >= LBSEL_ALGORIGHM_MINIMUM && algorithm <= LBSEL_ALGORIGHM_MAXIMUM;
}

// The partner learns of the pairing even where this port fails later.
void pairwithpartner(lbport_obj_t *port)
{
    lb_u16_t number = lbport_number(port);
    if (port->addable.crossport == 0) {
        port->addable.crossport = number;
        return;
    }
    auto *partner = static_cast<lbport_obj_t *>(
        lbll_select1(&port->parent->portlist, &port->addable.crossport));
    if (partner != nullptr) {
        lb_poke(partner->addable.crossport, number);
    }
}

void defaultalgorithms(lbport_addable_t *addable)
{
    if (!isalgorithm(addable->selectalg)) {
        LB_LOG(LB_LOG_PORT | LB_LOG_EVENT,
               "invalid selection algorithm specified (%d), using default\n", addable->selectalg);
        addable->selectalg = LBSEL_ALGORIGHM_HASH;
    }
    if (!isalgorithm(addable->udpselectalg)) {
        LB_LOG(LB_LOG_PORT | LB_LOG_EVENT,
               "invalid udp selection algorithm specified (%d), using default(%d)\n",
               addable->udpselectalg, LBSEL_ALGORIGHM_UDPRR);
        addable->udpselectalg = LBSEL_ALGORIGHM_UDPRR;
    }
}

void defaulttimes(lb_u8_t algorithm, lbport_setable_t *setable)
{
    if (setable->staletimeout < TIMEOUT_MIN_S) {
        setable->staletimeout = STALETIMEOUT_S;
    }
    if (setable->stickytime < TIMEOUT_MIN_S) {
        if (algorithm == LBSEL_ALGORIGHM_CONN_AFFIN) {
            setable->stickytime = STICKYTIME_S;
        } else if (algorithm == LBSEL_ALGORIGHM_AFFINITY) {
            setable->stickytime = setable->staletimeout;
        }
    }
    setable->weightbound = WEIGHTBOUND;
}

// Whether the port's settings fit each other and an algorithm that can choose: 0, or 1.
int checkalgorithm(const lbport_obj_t *port)
{
    const lbport_addable_t *addable = &port->addable;
    const bool hasaffinity = addable->selectalg == LBSEL_ALGORIGHM_AFFINITY ||
                             addable->selectalg == LBSEL_ALGORIGHM_CONN_AFFIN;
    if (!hasaffinity && addable->crossport != lbport_number(port)) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE,
               "crossport %d not valid with this selection algorithm\n", addable->crossport);
        return 1;
    }
    return 0;
}

int initlists(lbport_obj_t *port)
{
    if (lbsrvset_init(&port->serverset) != 0) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "init server list failed\n");
        return 1;
    }
    lb_undo undo_set([port] { (void)lbsrvset_cleanup(&port->serverset); });
    if (lbll_initlist(&port->rulelist, offsetof(lbrul_obj_t, llnode), lbrul_ll_select,
                      lbrul_ll_print) != 0) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "init rule list failed\n");
        return 1;
    }
    lbll_setrank(&port->rulelist, LB_RANK_OBJECT);
    lb_undo undo_rules([port] { (void)lbll_rmlist(&port->rulelist); });
    if (lbll_initlist(&port->serverlist, offsetof(lbsrv_obj_t, llnode), lbsrv_ll_select,
                      lbsrv_ll_print) != 0) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "init rule list failed\n");
        return 1;
    }
    lbll_setrank(&port->serverlist, LB_RANK_OBJECT);
    undo_rules.dismiss();
    undo_set.dismiss();
    return 0;
}

int _lbport_cmd_srv_add(lbcfg_key_t *key, lbport_obj_t *port, void *addable, void *setable,
                        lbcmd_objhdr_t **newobj)
{
    auto *srv = lb_newzero<lbsrv_obj_t>();
    if (srv == nullptr) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "allocation of new server failed\n");
        return LBCMD_RC_FAILURE;
    }
    if (lbsrv_init(key, port, srv, addable, setable) != 0) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "srv init failed\n");
        os_memfree(srv);
        return LBCMD_RC_FAILURE;
    }
    // A list refuses only when its mutex fails. The server then stays as it is: readers may have
    // found it, and nothing would say when they are done.
    if (lbll_addnode_rhs(&port->serverset.srvreflist, &srv->srvref) != 0) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "add srv to serverset failed\n");
        return LBCMD_RC_FAILURE;
    }
    if (lbll_addnode_rhs(&port->serverlist, srv) != 0) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "add srv to serverlist failed\n");
        return LBCMD_RC_FAILURE;
    }
    *newobj = &srv->config;
    return LBCMD_RC_SUCCESS;
}

int _lbport_cmd_rul_add(lbcfg_key_t *key, lbport_obj_t *port, void *addable, void *setable,
                        lbcmd_objhdr_t **newobj)
{
    auto *rul = lb_newzero<lbrul_obj_t>();
    if (rul == nullptr) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "allocation of new rule failed\n");
        return LBCMD_RC_FAILURE;
    }
    if (lbrul_init(key, port, rul, addable, setable) != 0) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "srv init failed\n");
        if (rul->llnode._list == nullptr) {
            os_memfree(rul); // else it stays: the timer may be looking at it
        }
        return LBCMD_RC_FAILURE;
    }
    *newobj = &rul->config;
    return LBCMD_RC_SUCCESS;
}

int _lbport_cmd_child_add(lbcmd_key_t *key, lbcmd_objhdr_t *parent, void *addable, void *setable,
                          lbcmd_objhdr_t **newobj)
{
    const auto add = key->cfg.rule != 0 ? _lbport_cmd_rul_add : _lbport_cmd_srv_add;
    return add(&key->cfg, portof(parent), addable, setable, newobj);
}

int _lbport_cmd_rm(lbcmd_objhdr_t *obj)
{
    lbport_obj_t *port = portof(obj);
    if (lbll_size(&port->serverset.srvreflist) != 0) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "removal of server list failed.\n");
        return LBCMD_RC_FAILURE;
    }
    if (port->parent == nullptr) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "No parent!\n");
        return LBCMD_RC_FAILURE;
    }
    if (lbll_rmnode(&port->parent->portlist, port) != 0) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "removal of port from list failed\n");
        return LBCMD_RC_FAILURE;
    }
    lbsel_at_detachport(port);
    return LBCMD_RC_SUCCESS;
}

int _lbport_cmd_get(lbcmd_objhdr_t *obj)
{
    lbport_obj_t *port = portof(obj);
    const lb_u32_t *seeds = port->serverset.seeds;
    lb_poke(port->getable.sel_rr_tablecounter, lb_peek(seeds[LBSRVSET_SEED_ATCT]));
    lb_poke(port->getable.sel_rr_icmpcounter, lb_peek(seeds[LBSRVSET_SEED_ICMP]));
    lb_poke(port->getable.sel_rr_connlesscounter, lb_peek(seeds[LBSRVSET_SEED_UDPRR]));
    return 0;
}

int _lbport_cmd_reap(lbcmd_objhdr_t *obj, int age)
{
    lbport_obj_t *port = portof(obj);
    LB_LOG(LB_LOG_PORT | LB_LOG_REAP, "port reap %p %d.\n", static_cast<void *>(port), age);
    if (age < REAPAGE_S || !lb_grace_passed(obj->grace)) {
        return 0;
    }
    if (port->llnode._list != nullptr) {
        // Its removal was refused, so readers have been finding it until now.
        if (lbll_rmnode(&port->parent->portlist, port) != 0) {
            LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "removal of port from list failed\n");
        }
        lbsel_at_detachport(port);
        obj->grace = lb_grace_now();
        return 0;
    }
    if (lbsrvset_cleanup(&port->serverset) != 0) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "removal of server list failed.\n");
    }
    if (lbll_cleanuplist(&port->rulelist) != 0) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "removal of rule list failed.\n");
    }
    if (lbll_cleanuplist(&port->serverlist) != 0) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "removal of server list failed.\n");
    }
    if (const auto portcleanup = algorithmof(port)->portcleanup; portcleanup != nullptr) {
        portcleanup(port);
    }
    os_memfree(port);
    return 1;
}

} // namespace

int lbport_init(lbcfg_key_t *key, lbclu_obj_t *parent, lbport_obj_t *port, void *vaddable,
                void *vsetable)
{
    os_memset(port, 0, sizeof(*port));
    lbcmd_key_t wide;
    wide.cfg = *key;
    lbcmd_objhdr_init(&port->config, &wide);
    port->config.addable = {sizeof(port->addable), &port->addable};
    port->config.setable = {sizeof(port->setable), &port->setable};
    port->config.getable = {sizeof(port->getable), &port->getable};
    port->config.addchild = _lbport_cmd_child_add;
    port->config.remove = _lbport_cmd_rm;
    port->config.get = _lbport_cmd_get;
    port->config.reap = _lbport_cmd_reap;
    port->parent = parent;
    os_memcpy(&port->addable, vaddable, sizeof(port->addable));
    os_memcpy(&port->setable, vsetable, sizeof(port->setable));
    pairwithpartner(port);
    defaultalgorithms(&port->addable);
    defaulttimes(port->addable.selectalg, &port->setable);
    os_memcpy(vaddable, &port->addable, sizeof(port->addable));
    os_memcpy(vsetable, &port->setable, sizeof(port->setable));
    if (checkalgorithm(port) != 0) {
        return 1;
    }
    const lbsel_funcs_t *algorithm = algorithmof(port);
    if (algorithm->portinit != nullptr && algorithm->portinit(port) != 0) {
        LB_LOG(LB_LOG_PORT | LB_LOG_FAILURE, "init select failed\n");
        return 1;
    }
    lb_undo undo_select([port, algorithm] {
        if (algorithm->portcleanup != nullptr) {
            algorithm->portcleanup(port);
        }
    });
    if (initlists(port) != 0) {
        return 1;
    }
    undo_select.dismiss();
    return 0;
}

void lbport_timer_entry(lbport_obj_t *port)
{
    if (const auto timer = algorithmof(port)->timer; timer != nullptr) {
        timer(port);
    }
    void *rules[LB_SNAPSHOT_MAX];
    const int count =
        lbll_selectn(&port->rulelist, rules, LB_SNAPSHOT_MAX, lbll_filter_true, nullptr);
    for (int i = 0; i < count; i++) {
        // Its grace keeps a rule that is removed meanwhile: this thread is inside.
        lbrul_timer_entry(static_cast<lbrul_obj_t *>(rules[i]));
    }
    lbsrvset_timer_entry(&port->serverset);
}

void lbport_weightsums(lbport_obj_t *port)
{
    LB_LOG(LB_LOG_PORT, "lbport_weightsums entered %p\n", static_cast<void *>(port));
    lbsrvset_weightsum(&port->serverset);
    void *rules[LB_SNAPSHOT_MAX];
    const int count =
        lbll_selectn(&port->rulelist, rules, LB_SNAPSHOT_MAX, lbll_filter_true, nullptr);
    for (int i = 0; i < count; i++) {
        lbsrvset_weightsum(&static_cast<lbrul_obj_t *>(rules[i])->serverset);
    }
}

lb_u16_t lbport_number(const lbport_obj_t *port)
{
    return port->config.key.cfg.port;
}

int lbport_ll_select(void *key, void *obj)
{
    return *static_cast<const lb_u16_t *>(key) ==
                   lbport_number(static_cast<const lbport_obj_t *>(obj))
               ? LBLL_FILTER_YES
               : 0;
}

void lbport_ll_print(void *obj)
{
    os_print("%d", lbport_number(static_cast<const lbport_obj_t *>(obj)));
}
