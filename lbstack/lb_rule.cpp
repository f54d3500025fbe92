// Rules. The module owns a rule's life, its place in the port's rule list, which is in ascending
// order of rule numbers, and the question whether it fires.
//
// Init, set and remove run on the command thread, reap and the periodic work on the timer thread.
// Workers evaluate the rules under the rule list's lock, looking at shared words alone, and choose
// among the fired rule's servers after they have dropped it. A rule that was removed in between is
// kept from being freed by their grace. Only lists are locked, one at a time.

#include "lb_rule.h"

#include "lb_ip.h"
#include "lb_log.h"
#include "lb_pbuf.h"
#include "lb_port.h"
#include "lb_select.h"
#include "lb_server.h"
#include "lb_useserver.h"
#include "lb_utils.h"
#include "lb_words.h"

namespace
{

constexpr int REAPAGE_S = 3;

static_assert(offsetof(lbrul_obj_t, config) == 0);
lbrul_obj_t *ruleof(lbcmd_objhdr_t *obj)
{
    return reinterpret_cast<lbrul_obj_t *>(obj);
}

lb_u16_t numberof(const lbrul_obj_t *rul)
{
    return rul->config.key.cfg.rule;
}

// Servers that all weigh nothing are no servers to send to; a rule without any drops on purpose.
bool mayfire(const lbrul_obj_t *rul)
{
    return lbll_size(&rul->serverset.srvreflist) == 0 || lb_peek(rul->serverset.weightsum) != 0;
}

int fire(lbrul_obj_t *rul)
{
    lb_stat_inc(rul->getable.timesfired);
    return 1;
}

bool isinrange(const lbrul_obj_t *rul, lb_u32_t active)
{
    return lb_peek(rul->setable.beginrange) <= active && active <= lb_peek(rul->setable.endrange);
}

int _lbrul_evaluate_true(lbrul_obj_t *rul, lbpbuf_obj_t * /*pkt*/)
{
    return mayfire(rul) ? fire(rul) : 0;
}

int _lbrul_evaluate_portactive(lbrul_obj_t *rul, lbpbuf_obj_t * /*pkt*/)
{
    const lb_u32_t active = lb_peek(rul->parent->serverset.numactive);
    return mayfire(rul) && isinrange(rul, active) ? fire(rul) : 0;
}

int _lbrul_evaluate_ruleactive(lbrul_obj_t *rul, lbpbuf_obj_t * /*pkt*/)
{
    const lb_u32_t active = lb_peek(rul->serverset.numactive);
    return mayfire(rul) && isinrange(rul, active) ? fire(rul) : 0;
}

int _lbrul_ll_evaluate(void *key, void *obj)
{
    auto *rul = static_cast<lbrul_obj_t *>(obj);
    const lbrul_evaluate_fn evaluate = lb_peekptr(rul->evaluatefp);
    const int rc = evaluate != nullptr ? evaluate(rul, static_cast<lbpbuf_obj_t *>(key)) : 0;
    LB_LOG(LB_LOG_RULE, "_lbrul_ll_evaluate returning %d\n", rc);
    return rc != 0 ? LBLL_FILTER_YES : 0;
}

int _lbrul_ll_ordercallback(void *vnewobj, void *vobj)
{
    return numberof(static_cast<const lbrul_obj_t *>(vnewobj)) <
                   numberof(static_cast<const lbrul_obj_t *>(vobj))
               ? 1
               : 0;
}

// Makes the use-server of a server that is counted as used already: an answer code.
int makeuseserver(lbcfg_key_t *key, lbrul_obj_t *rul, void *addable, void *setable,
                  lbcmd_objhdr_t **newobj)
{
    auto *usrv = lb_newzero<lbusrv_obj_t>();
    if (usrv == nullptr) {
        LB_LOG(LB_LOG_RULE | LB_LOG_FAILURE, "allocation of new useserver failed\n");
        return LBCMD_RC_FAILURE;
    }
    if (lbusrv_init(key, rul, usrv, addable, setable) != 0) {
        LB_LOG(LB_LOG_RULE | LB_LOG_FAILURE, "useserver init failed\n");
        os_memfree(usrv);
        return LBCMD_RC_FAILURE;
    }
    if (lbll_addnode_rhs(&rul->serverset.srvreflist, &usrv->srvref) != 0) {
        LB_LOG(LB_LOG_RULE | LB_LOG_FAILURE, "add port to portlist failed\n");
        if (usrv->srvref.refnode._list == nullptr) {
            os_memfree(usrv); // else readers may have found it, and nothing says when they are done
        }
        return LBCMD_RC_FAILURE;
    }
    *newobj = &usrv->config;
    LB_LOG(LB_LOG_RULE, "_lbrul_cmd_usrv_exit\n");
    return LBCMD_RC_SUCCESS;
}

int _lbrul_cmd_usrv_add(lbcmd_key_t *key, lbcmd_objhdr_t *parent, void *addable, void *setable,
                        lbcmd_objhdr_t **newobj)
{
    lbrul_obj_t *rul = ruleof(parent);
    LB_LOG(LB_LOG_RULE, "_lbrul_cmd_usrv_add\n");
    auto *server =
        static_cast<lbsrv_obj_t *>(lbll_select1(&rul->parent->serverlist, &key->cfg.server));
    if (server == nullptr) {
        LB_LOG(LB_LOG_RULE | LB_LOG_EVENT,
               "adding a useserver without the server, returning NOPARENT\n");
        return LBCMD_RC_NOPARENT;
    }
    // Stays where a later step fails: the server then answers its own removal with a refusal.
    lb_stat_inc(server->getable.useservercount);
    return makeuseserver(&key->cfg, rul, addable, setable, newobj);
}

int _lbrul_cmd_rm(lbcmd_objhdr_t *obj)
{
    lbrul_obj_t *rul = ruleof(obj);
    LB_LOG(LB_LOG_RULE, "_lbrul_cmd_rm entry\n");
    if (rul->parent == nullptr) {
        LB_LOG(LB_LOG_RULE | LB_LOG_FAILURE, "No parent!\n");
        return LBCMD_RC_FAILURE;
    }
    int rc = LBCMD_RC_SUCCESS;
    if (lbll_rmnode(&rul->parent->rulelist, rul) != 0) {
        LB_LOG(LB_LOG_RULE | LB_LOG_FAILURE, "removal of rule from list failed\n");
        rc = LBCMD_RC_FAILURE;
    }
    LB_LOG(LB_LOG_RULE, "_lbrul_cmd_rm exit rc=%d\n", rc);
    return rc;
}

int _lbrul_cmd_set(lbcmd_objhdr_t *obj)
{
    lbrul_obj_t *rul = ruleof(obj);
    const lb_u8_t type = lb_peek(rul->setable.type);
    LB_LOG(LB_LOG_RULE, "_lbrul_cmd_set type=%d\n", type);
    lbrul_evaluate_fn evaluate = _lbrul_evaluate_true;
    if (type == LBRUL_TYPE_PORTACTIVE) {
        evaluate = _lbrul_evaluate_portactive;
    } else if (type == LBRUL_TYPE_RULEACTIVE) {
        evaluate = _lbrul_evaluate_ruleactive;
    } else if (type != LBRUL_TYPE_TRUE) {
        LB_LOG(LB_LOG_RULE | LB_LOG_EVENT, "lbrul_init unrecognized type %d, setting to true\n",
               type);
        lb_poke(rul->setable.type, LBRUL_TYPE_TRUE);
    }
    lb_pokeptr(rul->evaluatefp, evaluate);
    return 0;
}

int _lbrul_cmd_reap(lbcmd_objhdr_t *obj, int age)
{
    lbrul_obj_t *rul = ruleof(obj);
    LB_LOG(LB_LOG_RULE | LB_LOG_REAP, "rule reap %p age=%d \n", static_cast<void *>(rul), age);
    if (age < REAPAGE_S || !lb_grace_passed(obj->grace)) {
        return 0;
    }
    if (rul->llnode._list != nullptr) {
        // Its removal was refused, so readers have been finding it until now.
        if (lbll_rmnode(&rul->parent->rulelist, rul) != 0) {
            LB_LOG(LB_LOG_RULE | LB_LOG_FAILURE, "removal of rule from list failed\n");
        }
        obj->grace = lb_grace_now();
        return 0;
    }
    (void)lbsrvset_cleanup(&rul->serverset); // logged there, and the rule is unlinked
    os_memfree(rul);
    return 1;
}

} // namespace

int lbrul_init(lbcfg_key_t *key, lbport_obj_t *parent, lbrul_obj_t *rul, void *vaddable,
               void *vsetable)
{
    LB_LOG(LB_LOG_RULE, "lbrul_init entry\n");
    os_memset(rul, 0, sizeof(*rul));
    lbcmd_key_t wide;
    wide.cfg = *key;
    lbcmd_objhdr_init(&rul->config, &wide);
    rul->config.addable = {sizeof(rul->addable), &rul->addable};
    rul->config.setable = {sizeof(rul->setable), &rul->setable};
    rul->config.getable = {sizeof(rul->getable), &rul->getable};
    rul->config.addchild = _lbrul_cmd_usrv_add;
    rul->config.remove = _lbrul_cmd_rm;
    rul->config.set = _lbrul_cmd_set;
    rul->config.reap = _lbrul_cmd_reap;
    rul->parent = parent;
    os_memcpy(&rul->addable, vaddable, sizeof(rul->addable));
    os_memcpy(&rul->setable, vsetable, sizeof(rul->setable));
    if (lbsrvset_init(&rul->serverset) != 0) {
        LB_LOG(LB_LOG_RULE | LB_LOG_FAILURE, "init useserverlist failed\n");
        return 1;
    }
    if (lbll_addnode_inorder(&parent->rulelist, rul, _lbrul_ll_ordercallback) != 0) {
        LB_LOG(LB_LOG_RULE | LB_LOG_FAILURE, "add rule to rulelist failed\n");
        if (rul->llnode._list == nullptr) {
            (void)lbsrvset_cleanup(&rul->serverset);
        }
        return 1;
    }
    LB_LOG(LB_LOG_RULE, "lbrul_init exit rc=%d\n", 0);
    return 0;
}

int lbrul_pbuf_entry(lbpbuf_obj_t *pkt)
{
    LB_LOG(LB_LOG_RULE, "lbrul_pbuf_entry\n");
    lbll_list_t *rules = &pkt->port->rulelist;
    if (lbll_size(rules) == 0) {
        return 0; // most ports: no packet waits for a lock that guards nothing
    }
    void *found = nullptr;
    if (lbll_selectn(rules, &found, 1, _lbrul_ll_evaluate, pkt) != 1) {
        return 0;
    }
    lbsrvset_obj_t *srvset = &static_cast<lbrul_obj_t *>(found)->serverset;
    pkt->server = lbsel_srvset_chooseserver(srvset, &srvset->seeds[LBSRVSET_SEED_ATCT]);
    return 1;
}

void lbrul_timer_entry(lbrul_obj_t *rul)
{
    lbsrvset_timer_entry(&rul->serverset);
}

int lbrul_ll_select(void *key, void *obj)
{
    return *static_cast<const lb_u16_t *>(key) == numberof(static_cast<const lbrul_obj_t *>(obj))
               ? LBLL_FILTER_YES
               : 0;
}

void lbrul_ll_print(void *obj)
{
    lbip_printaddr("", &static_cast<const lbrul_obj_t *>(obj)->config.key.cfg.server, "");
}
