// Clusters. The module owns a cluster's ports, its fragment table, and the membership that lets
// solicitations for an IPv6 cluster reach the stack.
//
// Init and remove run on the command thread, reap and the periodic work on the timer thread;
// workers read linked clusters without a lock. Only lists are locked, one at a time.

#include "lb_cluster.h"

#include "lb_executor.h"
#include "lb_ip.h"
#include "lb_log.h"
#include "lb_port.h"
#include "lb_utils.h"

namespace
{

constexpr int REAPAGE_S = 3;

static_assert(offsetof(lbclu_obj_t, cmdobj) == 0);
lbclu_obj_t *clusterof(lbcmd_objhdr_t *obj)
{
    return reinterpret_cast<lbclu_obj_t *>(obj);
}

int _lbclu_cmd_port_add(lbcmd_key_t *key, lbcmd_objhdr_t *parent, void *addable, void *setable,
                        lbcmd_objhdr_t **newobj)
{
    lbclu_obj_t *cluster = clusterof(parent);
    auto *port = lb_newzero<lbport_obj_t>();
    if (port == nullptr) {
        LB_LOG(LB_LOG_CLUSTER | LB_LOG_FAILURE, "allocation of new port failed\n");
        return LBCMD_RC_FAILURE;
    }
    lb_undo undo_alloc([port] { os_memfree(port); });
    if (lbport_init(&key->cfg, cluster, port, addable, setable) != 0) {
        LB_LOG(LB_LOG_CLUSTER | LB_LOG_FAILURE, "port init failed\n");
        return LBCMD_RC_FAILURE;
    }
    if (lbll_addnode_rhs(&cluster->portlist, port) != 0) {
        LB_LOG(LB_LOG_CLUSTER | LB_LOG_FAILURE, "add port to portlist failed\n");
        return LBCMD_RC_FAILURE;
    }
    undo_alloc.dismiss();
    *newobj = &port->config;
    return LBCMD_RC_SUCCESS;
}

int _lbclu_cmd_rm(lbcmd_objhdr_t *obj)
{
    lbclu_obj_t *cluster = clusterof(obj);
    if (lbll_size(&cluster->portlist) != 0) {
        LB_LOG(LB_LOG_CLUSTER | LB_LOG_FAILURE, "removal of port list failed.\n");
        return LBCMD_RC_FAILURE;
    }
    if (cluster->parent == nullptr) {
        LB_LOG(LB_LOG_CLUSTER | LB_LOG_FAILURE, "No parent!\n");
        return LBCMD_RC_FAILURE;
    }
    lbmc_leave(&cluster->membership);
    if (lbll_rmnode(&cluster->parent->clusterlist, cluster) != 0) {
        LB_LOG(LB_LOG_CLUSTER | LB_LOG_FAILURE, "removal of cluster from list failed\n");
    }
    return LBCMD_RC_SUCCESS;
}

// Retires the port list. A port whose ADD failed late may still be on it.
void retireports(lbclu_obj_t *cluster)
{
    if (lbll_rmlist(&cluster->portlist) != 0) {
        LB_LOG(LB_LOG_CLUSTER | LB_LOG_FAILURE, "removal of port list failed.\n");
        (void)lbll_cleanuplist(&cluster->portlist); // logs what it can't do; the memory goes anyway
    }
}

int _lbclu_cmd_reap(lbcmd_objhdr_t *obj, int age)
{
    lbclu_obj_t *cluster = clusterof(obj);
    LB_LOG(LB_LOG_CLUSTER | LB_LOG_REAP, "cluster reap %p %d\n", static_cast<void *>(cluster), age);
    if (age < REAPAGE_S || !lb_grace_passed(obj->grace)) {
        LB_LOG(LB_LOG_CLUSTER | LB_LOG_REAP, "not reaping cluster age %d\n", age);
        return 0;
    }
    lbmc_leave(&cluster->membership);
    if (cluster->clusternode._list != nullptr) {
        // Its removal was refused, so readers have been finding it until now.
        if (lbll_rmnode(&cluster->parent->clusterlist, cluster) != 0) {
            LB_LOG(LB_LOG_CLUSTER | LB_LOG_FAILURE, "removal of cluster from list failed\n");
        }
        obj->grace = lb_grace_now();
        return 0;
    }
    retireports(cluster);
    LB_LOG(LB_LOG_CLUSTER | LB_LOG_REAP, "reaping cluster\n");
    if (lbfrag_cleanuptable(&cluster->fragtable) != 0) {
        LB_LOG(LB_LOG_CLUSTER | LB_LOG_FAILURE, "removal of fragment table failed\n");
    }
    os_memset(cluster, 0, sizeof(*cluster));
    os_memfree(cluster);
    return 1;
}

void fillheader(lbclu_obj_t *cluster, const lbcfg_key_t *key)
{
    lbcmd_key_t wide;
    wide.cfg = *key;
    lbcmd_objhdr_t *hdr = &cluster->cmdobj;
    lbcmd_objhdr_init(hdr, &wide);
    hdr->addable = {sizeof(cluster->addable), &cluster->addable};
    hdr->setable = {sizeof(cluster->setable), &cluster->setable};
    hdr->getable = {sizeof(cluster->getable), &cluster->getable};
    hdr->addchild = _lbclu_cmd_port_add;
    hdr->remove = _lbclu_cmd_rm;
    hdr->reap = _lbclu_cmd_reap;
}

} // namespace

int lbclu_init(lbcfg_key_t *key, lbclu_obj_t *cluster, void *addable, void *setable)
{
    os_memset(cluster, 0, sizeof(*cluster));
    fillheader(cluster, key);
    cluster->parent = lbexecutor;
    os_memcpy(&cluster->addable, addable, sizeof(cluster->addable));
    os_memcpy(&cluster->setable, setable, sizeof(cluster->setable));
    if (key->cluster.version != 4 && key->cluster.version != 6) {
        LB_LOG(LB_LOG_CLUSTER | LB_LOG_FAILURE, "ip version not set!\n");
        return 1;
    }
    if (lbll_initlist(&cluster->portlist, offsetof(lbport_obj_t, llnode), lbport_ll_select,
                      lbport_ll_print) != 0) {
        LB_LOG(LB_LOG_CLUSTER | LB_LOG_FAILURE, "init portlist failed\n");
        return 1;
    }
    lbll_setrank(&cluster->portlist, LB_RANK_OBJECT);
    if (lbfrag_inittable(&cluster->fragtable) != 0) {
        LB_LOG(LB_LOG_CLUSTER | LB_LOG_FAILURE, "init fragtable failed\n");
        (void)lbll_rmlist(&cluster->portlist); // it is empty and ready
        return 1;
    }
    lbmc_enter(&cluster->membership, &key->cluster);
    return 0;
}

void lbclu_timer_entry(lbclu_obj_t *cluster)
{
    void *ports[LB_SNAPSHOT_MAX];
    const int count =
        lbll_selectn(&cluster->portlist, ports, LB_SNAPSHOT_MAX, lbll_filter_true, nullptr);
    for (int i = 0; i < count; i++) {
        lbport_timer_entry(static_cast<lbport_obj_t *>(ports[i]));
    }
    lbha_repall_end();
    lbfrag_timer_entry(&cluster->fragtable);
}

int lbclu_ll_select(void *key, void *obj)
{
    return lbip_isaddrequal(static_cast<const lbip_addr_t *>(key),
                            &static_cast<const lbclu_obj_t *>(obj)->cmdobj.key.cfg.cluster);
}

void lbclu_ll_print(void *obj)
{
    lbip_printaddr("", &static_cast<const lbclu_obj_t *>(obj)->cmdobj.key.cfg.cluster, "");
}
