// The executor: the root of the configuration tree, the one object that exists without an ADD, and
// the periodic driver of the rest. Start and stop build and retire every part of the stack in one
// fixed order, and undo what was built when a part fails.
//
// Commands on it run on the command thread, the periodic work on the timer thread; workers read its
// settings and gateways without a lock. Clusters are copied out of their list before their timers
// run, so no lock is held meanwhile.

#include "lb_executor.h"

#include "lb_cluster.h"
#include "lb_entry.h"
#include "lb_heartbeat.h"
#include "lb_ip.h"
#include "lb_log.h"
#include "lb_multicast.h"
#include "lb_nat.h"
#include "lb_select.h"
#include "lb_srvset.h"
#include "lb_utils.h"
#include "lb_words.h"

lbexe_obj_t *lbexecutor = nullptr;

namespace
{

lbexe_obj_t executor;
bool initialized;

static_assert(offsetof(lbexe_obj_t, cmdobj) == 0);

void fillversion(char (&version)[sizeof(lbexe_getable_t::version)])
{
    const char *parts[] = {lb_version, " ", lb_buildinfo};
    std::size_t length = 0;
    for (const char *part : parts) {
        for (; *part != '\0' && length < sizeof(version); part++) {
            version[length++] = *part;
        }
    }
}

int _lbexe_addchild_cluster(lbcfg_key_t *key, void *addable, void *setable, lbcmd_objhdr_t **newobj)
{
    auto *cluster = lb_newzero<lbclu_obj_t>();
    if (cluster == nullptr) {
        LB_LOG(LB_LOG_EXECUTOR | LB_LOG_FAILURE, "allocation of new cluster failed\n");
        return LBCMD_RC_FAILURE;
    }
    lb_undo undo_alloc([cluster] { os_memfree(cluster); });
    if (lbclu_init(key, cluster, addable, setable) != 0) {
        LB_LOG(LB_LOG_EXECUTOR | LB_LOG_FAILURE, "cluster init failed\n");
        return LBCMD_RC_FAILURE;
    }
    lb_undo undo_init([cluster] { lbmc_leave(&cluster->membership); });
    if (lbll_addnode_rhs(&lbexecutor->clusterlist, cluster) != 0) {
        LB_LOG(LB_LOG_EXECUTOR | LB_LOG_FAILURE, "add cluster to clusterlist failed\n");
        return LBCMD_RC_FAILURE;
    }
    undo_init.dismiss();
    undo_alloc.dismiss();
    *newobj = &cluster->cmdobj;
    if (!lbha_isstandby()) {
        lbneigh_grat_send(&key->cluster);
    }
    return LBCMD_RC_SUCCESS;
}

int _lbexe_addchild_heartbeat(lbcfg_key_t *key, void *addable, void *setable,
                              lbcmd_objhdr_t **newobj)
{
    auto *heartbeat = lb_newzero<lbha_heartbeatobj_t>();
    if (heartbeat == nullptr) {
        LB_LOG(LB_LOG_EXECUTOR | LB_LOG_FAILURE, "allocation of new heartbeat failed\n");
        return LBCMD_RC_FAILURE;
    }
    if (lbhahb_init(key, heartbeat, addable, setable) != 0) {
        LB_LOG(LB_LOG_EXECUTOR | LB_LOG_FAILURE, "heartbeat init failed\n");
        os_memfree(heartbeat);
        return LBCMD_RC_FAILURE;
    }
    if (lbll_addnode_rhs(&lbexecutor->ha.heartbeatlist, heartbeat) != 0) {
        LB_LOG(LB_LOG_EXECUTOR | LB_LOG_FAILURE, "add heartbeat to heartbeatlist failed\n");
        lbhahb_undo(heartbeat);
        if (lb_peekptr(heartbeat->hbnode._list) == nullptr) {
            os_memfree(heartbeat); // else it stays: the timer may have found it
        }
        return LBCMD_RC_FAILURE;
    }
    *newobj = &heartbeat->cmdobj;
    return LBCMD_RC_SUCCESS;
}

int _lbexe_addchild(lbcmd_key_t *key, lbcmd_objhdr_t *parent, void *addable, void *setable,
                    lbcmd_objhdr_t **newobj)
{
    LB_LOG(LB_LOG_EXECUTOR, "executor addchild\n");
    if (parent != &lbexecutor->cmdobj) {
        LB_LOG(LB_LOG_EXECUTOR | LB_LOG_FAILURE, "cmd2cfg --> obj conversion failed\n");
    }
    switch (lbip_isaddrvalid(&key->cfg.server)) {
    case LBIP_VALID_YES: return _lbexe_addchild_heartbeat(&key->cfg, addable, setable, newobj);
    case LBIP_VALID_EMPTY: return _lbexe_addchild_cluster(&key->cfg, addable, setable, newobj);
    }
    LB_LOG(LB_LOG_EXECUTOR | LB_LOG_EVENT, "executor child neither cluster nor heartbeat\n");
    return LBCMD_RC_FAILURE;
}

int _lbexe_cmd_rm(lbcmd_objhdr_t * /*obj*/)
{
    os_stop();
    return LBCMD_RC_SUCCESS;
}

lb_u8_t stateof(const lbneigh_obj_t *neigh)
{
    return neigh != nullptr ? lb_peek(neigh->state) : lb_u8_t{LBNEIGH_STATE_UNDEF};
}

int _lbexe_cmd_get(lbcmd_objhdr_t * /*obj*/)
{
    lbexe_getable_t *getable = &lbexecutor->getable;
    lb_poke(getable->clientgwneighstate, stateof(lb_peekptr(lbexecutor->clientgw_neigh)));
    lb_poke(getable->clientgwneighstate_ipv6, stateof(lb_peekptr(lbexecutor->clientgw_neigh_ipv6)));
    return 0;
}

// The client gateway of an IP version.
struct gateway_s {
    lb_u8_t version;
    const char *suffix; // of its name in messages
    lbneigh_obj_t *&neigh;
};

void addgateway(const gateway_s &gateway, const lbip_addr_t *addr)
{
    lbneigh_obj_t *neigh = lbneigh_addnode(addr);
    if (neigh == nullptr) {
        LB_LOG(LB_LOG_EXECUTOR | LB_LOG_FAILURE, "neigh record for clientgateway%s failed\n",
               gateway.suffix);
    }
    lb_pokeptr(gateway.neigh, neigh);
}

// Packets may be on their way to the old gateway: the new one is published first, and the old one's
// entry outlives its last use by its grace.
void setgateway(const gateway_s &gateway, const lbip_addr_t *addr)
{
    lbneigh_obj_t *old = lb_peekptr(gateway.neigh);
    const bool wanted =
        addr->version == gateway.version && lbip_isaddrvalid(addr) == LBIP_VALID_YES;
    if (old == nullptr) {
        if (wanted) {
            LB_LOG(LB_LOG_EXECUTOR, "creating new neigh record for clientgateway%s\n",
                   gateway.suffix);
            addgateway(gateway, addr);
        }
        return;
    }
    if (wanted && lbip_isaddrequal(addr, &old->ipaddr)) {
        return;
    }
    const lbip_addr_t oldaddr = old->ipaddr;
    if (wanted) {
        LB_LOG(LB_LOG_EXECUTOR, "removing old clientgateway%s from neigh table and add new\n",
               gateway.suffix);
        addgateway(gateway, addr);
    } else {
        LB_LOG(LB_LOG_EXECUTOR, "removing clientgateway%s from neigh table\n", gateway.suffix);
        lb_pokeptr(gateway.neigh, nullptr);
    }
    lbneigh_rmnode(&oldaddr);
}

int _lbexe_cmd_set(lbcmd_objhdr_t *obj)
{
    const lbexe_setable_t *setable = &lbexecutor->setable;
    setgateway({4, "", lbexecutor->clientgw_neigh}, &setable->clientgateway);
    setgateway({6, "6", lbexecutor->clientgw_neigh_ipv6}, &setable->clientgateway_ipv6);
    return lbha_cmd_set(obj);
}

// --- Start and stop ------------------------------------------------------------------------------

void fillexecutor()
{
    os_memset(&executor, 0, sizeof(executor));
    executor.setable.log_mask = lbexe_log_mask;
    executor.setable.ha.timeout = LBHA_TIMEOUT_DEFAULT;
    (void)os_gettime(&executor.getable.starttime);
    lbexeos_logmask = &executor.setable.log_mask;
    lbexeos_starttime = &executor.getable.starttime;
    lbcmd_objhdr_t *hdr = &executor.cmdobj;
    hdr->setable = {sizeof(executor.setable), &executor.setable};
    hdr->getable = {sizeof(executor.getable), &executor.getable};
    hdr->addchild = _lbexe_addchild;
    hdr->remove = _lbexe_cmd_rm;
    hdr->get = _lbexe_cmd_get;
    hdr->set = _lbexe_cmd_set;
    fillversion(executor.getable.version);
    lbexecutor = &executor;
}

int startselect()
{
    (void)lbsel_init(); // it only fills tables
    return 0;
}

int stopselect()
{
    lbsel_cleanup();
    return 0;
}

int linkself()
{
    if (lbll_addnode_rhs(&lbexecutor->cfgcmdlist, &lbexecutor->cmdobj) != 0) {
        LB_LOG(LB_LOG_EXECUTOR | LB_LOG_FAILURE, "command ll init failed\n");
        return 1;
    }
    return 0;
}

// An RM of the executor has unlinked it already.
int unlinkself()
{
    lbll_list_t *cmdlist = &lbexecutor->cfgcmdlist;
    return lbexecutor->cmdobj.cmdlist._list == cmdlist ? lbll_rmnode(cmdlist, &lbexecutor->cmdobj)
                                                       : 0;
}

int startclusters()
{
    initialized = true;
    const int rc = lbll_initlist(&lbexecutor->clusterlist, offsetof(lbclu_obj_t, clusternode),
                                 lbclu_ll_select, lbclu_ll_print);
    if (rc != 0) {
        LB_LOG(LB_LOG_EXECUTOR | LB_LOG_FAILURE, "cluster ll init failed\n");
        return rc;
    }
    lbll_setrank(&lbexecutor->clusterlist, LB_RANK_OBJECT);
    return 0;
}

int stopclusters()
{
    return lbll_cleanuplist(&lbexecutor->clusterlist);
}

// The parts of the stack in the order of their start. A part that fails to start leaves nothing.
struct part_t {
    int (*start)();
    int (*stop)();
};
constexpr part_t PARTS[] = {
    {lb_grace_init, lb_grace_exit}, {startselect, stopselect},    {lbcmd_init, lbcmd_exit},
    {lbifcol_init, lbifcol_exit},   {lbneigh_init, lbneigh_exit}, {lbha_init, lbha_exit},
    {lbmc_init, lbmc_exit},         {linkself, unlinkself},       {startclusters, stopclusters},
    {_lb_nat_init, _lb_nat_exit},
};
constexpr int NUMPARTS = static_cast<int>(sizeof(PARTS) / sizeof(PARTS[0]));

// Stops the first `count` parts, the last one first: the number that failed.
int stopparts(int count)
{
    int failed = 0;
    for (int i = count - 1; i >= 0; i--) {
        if (PARTS[i].stop() != 0) {
            failed++;
        }
    }
    initialized = false;
    lbexecutor = nullptr;
    lbexeos_logmask = nullptr;
    lbexeos_starttime = nullptr;
    return failed;
}

} // namespace

int lbexe_init()
{
    if (initialized) {
        LB_LOG_BARE(LB_LOG_EXECUTOR | LB_LOG_FAILURE, "Attempt to initialize the executor twice\n");
        return 1;
    }
    fillexecutor();
    for (int i = 0; i < NUMPARTS; i++) {
        if (int rc = PARTS[i].start(); rc != 0) {
            (void)stopparts(i); // what can't be undone is logged by its owner
            return rc;
        }
    }
    return 0;
}

int lbexe_exit()
{
    if (!initialized) {
        return 1;
    }
    return stopparts(NUMPARTS);
}

int lbexe_timer_entry()
{
    lbexe_protostats("ipv4", &lbexecutor->getable.ipv4stats);
    lbexe_protostats("arp ", &lbexecutor->getable.arpstats);
    lbcmd_timer_entry();
    lbneigh_timer_entry();
    lbha_timer_entry();
    lb_nat_timer_entry();
    lbha_repall_begin();
    void *clusters[LB_SNAPSHOT_MAX];
    const int count = lbll_selectn(&lbexecutor->clusterlist, clusters, LB_SNAPSHOT_MAX,
                                   lbll_filter_true, nullptr);
    for (int i = 0; i < count; i++) {
        lbclu_timer_entry(static_cast<lbclu_obj_t *>(clusters[i]));
    }
    return 0;
}

void lbexe_protostats(const char *label, const lb_proto_stats_t *stats)
{
    if (!lb_log_enabled(LB_LOG_EXECUTOR | LB_LOG_STATISTICS)) {
        return;
    }
    const auto fwd = static_cast<long long>(lb_peek(stats->fwd));
    const auto notforus = static_cast<int>(lb_peek(stats->notforus));
    const auto discard = static_cast<int>(lb_peek(stats->discard));
    const auto err = static_cast<int>(lb_peek(stats->err));
    LB_LOG_BARE(LB_LOG_EXECUTOR | LB_LOG_STATISTICS,
                "%s in:%lld = ( fwd:%lld notforus:%d discard:%d err:%d ):%lld gen:%d \n", label,
                static_cast<long long>(lb_peek(stats->in)), fwd, notforus, discard, err,
                fwd + notforus + discard + err, static_cast<int>(lb_peek(stats->gen)));
}
