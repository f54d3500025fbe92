// Use-servers. The module owns a use-server's life; the rule makes it and links its reference. Each
// counts at its server as a use, which keeps the server from being removed.
//
// Init, set and remove run on the command thread, reap on the timer thread; workers find the
// reference in the rule's server set. Only lists are locked, one at a time.

#include "lb_useserver.h"

#include "lb_log.h"
#include "lb_port.h"
#include "lb_rule.h"
#include "lb_server.h"
#include "lb_words.h"

namespace
{

constexpr int REAPAGE_S = 3;

static_assert(offsetof(lbusrv_obj_t, config) == 0);
lbusrv_obj_t *useserverof(lbcmd_objhdr_t *obj)
{
    return reinterpret_cast<lbusrv_obj_t *>(obj);
}

// Takes the reference out of the rule's set and the use off the server: 0, or 1.
int letgo(lbusrv_obj_t *usrv)
{
    if (lbll_rmnode(&usrv->parent->serverset.srvreflist, &usrv->srvref) != 0) {
        LB_LOG(LB_LOG_USESERVER | LB_LOG_FAILURE, "removal of server from list failed\n");
        return 1;
    }
    LB_LOG(LB_LOG_USESERVER, "decrementing useserver count\n");
    constexpr auto MINUS_ONE = static_cast<lb_u16_t>(-1);
    lb_stat_inc(usrv->srvref.server->getable.useservercount, MINUS_ONE);
    return 0;
}

int _lbusrv_cmd_rm(lbcmd_objhdr_t *obj)
{
    lbusrv_obj_t *usrv = useserverof(obj);
    LB_LOG(LB_LOG_USESERVER, "_lbusrv_cmd_rm entry\n");
    if (usrv->parent == nullptr) {
        LB_LOG(LB_LOG_USESERVER | LB_LOG_FAILURE, "No parent!\n");
        return LBCMD_RC_FAILURE;
    }
    const int failed = letgo(usrv);
    lbport_weightsums(usrv->parent->parent);
    return failed != 0 ? LBCMD_RC_FAILURE : LBCMD_RC_SUCCESS;
}

int _lbusrv_cmd_set(lbcmd_objhdr_t *obj)
{
    lbport_weightsums(useserverof(obj)->parent->parent);
    return LBCMD_RC_SUCCESS;
}

int _lbusrv_cmd_reap(lbcmd_objhdr_t *obj, int age)
{
    lbusrv_obj_t *usrv = useserverof(obj);
    LB_LOG(LB_LOG_USESERVER | LB_LOG_REAP, "usrve reap %p %d.\n", static_cast<void *>(usrv), age);
    if (age < REAPAGE_S || !lb_grace_passed(obj->grace)) {
        return 0;
    }
    if (usrv->srvref.refnode._list != nullptr) {
        // Its removal was refused, so readers have been finding it until now. Rule and server are
        // reaped after it, because they were removed after it.
        (void)letgo(usrv);
        obj->grace = lb_grace_now();
        return 0;
    }
    os_memfree(usrv);
    return 1;
}

} // namespace

int lbusrv_init(lbcfg_key_t *key, lbrul_obj_t *parent, lbusrv_obj_t *usrv, void *addable,
                void *vsetable)
{
    LB_LOG(LB_LOG_USESERVER, "lbusrv_init entry\n");
    os_memset(usrv, 0, sizeof(*usrv));
    lbcmd_key_t wide;
    wide.cfg = *key;
    lbcmd_objhdr_init(&usrv->config, &wide);
    usrv->config.addable = {sizeof(usrv->addable), &usrv->addable};
    usrv->config.setable = {sizeof(usrv->setable), &usrv->setable};
    usrv->config.getable = {sizeof(usrv->getable), &usrv->getable};
    usrv->config.remove = _lbusrv_cmd_rm;
    usrv->config.set = _lbusrv_cmd_set;
    usrv->config.reap = _lbusrv_cmd_reap;
    usrv->parent = parent;
    os_memcpy(&usrv->addable, addable, sizeof(usrv->addable));
    os_memcpy(&usrv->setable, vsetable, sizeof(usrv->setable));
    usrv->srvref.server =
        static_cast<lbsrv_obj_t *>(lbll_select1(&parent->parent->serverlist, &key->server));
    const int rc = usrv->srvref.server != nullptr ? 0 : LBCMD_RC_NOPARENT;
    LB_LOG(LB_LOG_USESERVER, "lbusrv_init exit rc=%d\n", rc);
    return rc;
}
