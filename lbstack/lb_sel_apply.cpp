// Records that the partner's tables have, applied to ours, by the rules of the tables themselves: a
// record is found without a lock, its server's records are locked, and it is looked at again; a new
// one enters only if its client has none by then and its server has not been removed.
//
// Runs on the workers. One server's records are locked at a time, and under that lock a bucket, a
// return address's ports or the reuse list. Servers are looked up in the configuration tree before.
// A record that is to change servers leaves the table and enters it anew, so that it never stands
// in the table without standing on a list.
#include "lb_sel_apply.h"

#include "lb_cluster.h"
#include "lb_executor.h"
#include "lb_log.h"
#include "lb_nat.h"
#include "lb_port.h"
#include "lb_sel_connection.h"
#include "lb_server.h"

namespace
{

constexpr lb_u64_t TRACE = LB_LOG_HA;
constexpr lb_u64_t FAILURE = LB_LOG_HA | LB_LOG_FAILURE;

enum outcome_e {
    AGAIN, // somebody else was faster: look once more
    DONE,
    SKIPPED, // the server is being removed
    FAILED,  // there is no memory
};

// --- Connections ---------------------------------------------------------------------------------

// Gives the record the port that it has at the partner, on a NAT server.
void adoptnatport(lbsrv_obj_t *server, lbsel_cr_obj_t *cr, lb_u16_t natport)
    LB_NEEDS(server->sel.active)
{
    EXC_EphemeralPortTable *ports = &server->retaddrobj->ept;
    if (cr->natkey.natport != natport) {
        (void)lb_ept_freeif(ports, cr->natkey.natport, cr); // it may have had none
    }
    cr->natkey.natport = natport;
    lb_ept_claim(ports, natport, cr);
}

// Appends a record that is in the table and on no list: false when it could not be, and is out of
// the table.
bool append(lbsel_ct_obj_t *ct, lbsrv_obj_t *server, lbll_list_t *target, lbsel_cr_obj_t *cr)
    LB_NEEDS(server->sel.active)
{
    if (lbsel_list_append(&server->sel.active, target, cr) == 0) {
        return true;
    }
    (void)lbht_rmnode(&ct->lookup, cr); // what it refuses it reports
    _lbsel_ct_table(ct).forget(cr);
    return false;
}

// A new record, into the table and onto its list: other than DONE when it is in neither.
outcome_e enterconnection(lbsel_ct_obj_t *ct, lbsrv_obj_t *server, lbsel_cr_obj_t *cr,
                          lb_u16_t natport) LB_NEEDS(server->sel.active)
{
    if (lb_peek(server->sel.removed) != 0) {
        return SKIPPED;
    }
    lb_pokeptr(cr->server, server);
    const lbsel_insert_e inserted = lbsel_insert(&ct->lookup, &cr->crkey, cr);
    if (inserted != LBSEL_INSERT_DONE) {
        lb_pokeptr(cr->server, nullptr);
        if (inserted == LBSEL_INSERT_EXISTS) {
            return AGAIN;
        }
        LB_LOG(FAILURE, "add to ct failed\n");
        return FAILED;
    }
    LB_LOG(TRACE, "add to ct successful\n");
    if (server->retaddrobj != nullptr && natport >= EXC_EPT_FIRSTPORT) {
        adoptnatport(server, cr, natport);
    }
    return append(ct, server, &server->sel.active, cr) ? DONE : FAILED;
}

outcome_e createconnection(lbsel_ct_obj_t *ct, lbsrv_obj_t *server, const lbsel_cr_obj_key_t *key,
                           const lbsel_replica_t *replica)
{
    LB_LOG(TRACE, "New HA connection to replicate!!!\n");
    lbsel_cr_obj_t *cr = _lbsel_ct_getnewcr(ct);
    if (cr == nullptr) {
        LB_LOG(FAILURE, "cannot create connection record !!!\n");
        return FAILED;
    }
    cr->crkey = *key;
    cr->state = replica->state;
    (void)os_gettime(&cr->timestamp);
    cr->reptimestamp = cr->timestamp;
    outcome_e outcome = DONE;
    {
        lbll_guard held(&server->sel.active);
        outcome = enterconnection(ct, server, cr, replica->natport);
    }
    if (outcome != DONE) {
        _lbsel_ct_returncr(ct, cr);
    }
    return outcome;
}

// What the partner's state makes of ours.
enum verdict_e {
    KEEP,
    REMOVE,
    INVALID,
};
verdict_e judge(lb_u8_t own, lb_u8_t theirs)
{
    if (own == LBSEL_CR_STATE_FIN) {
        return REMOVE;
    }
    if (own != LBSEL_CR_STATE_ACTIVE) {
        return INVALID;
    }
    switch (theirs) {
    case LBSEL_CR_STATE_ACTIVE:
    case LBSEL_CR_STATE_FIN: return KEEP;
    case LBSEL_CR_STATE_RST: return REMOVE;
    default: return INVALID;
    }
}

// Takes the partner's state over: false when the record could not be listed, and is out of the
// table.
bool keepconnection(lbsel_ct_obj_t *ct, lbsrv_obj_t *server, lbsel_cr_obj_t *cr,
                    const lbsel_replica_t *replica) LB_NEEDS(server->sel.active)
{
    cr->state = replica->state;
    if (server->retaddrobj != nullptr) {
        adoptnatport(server, cr, replica->natport);
    }
    lbll_list_t *target =
        replica->state == LBSEL_CR_STATE_FIN ? &server->sel.fin : &server->sel.active;
    // It stands on a list of this server: that was looked at under the lock.
    (void)lbsel_list_unlink(&server->sel.active, lb_peekptr(cr->expirelist._list), cr);
    return append(ct, server, target, cr);
}

outcome_e updateconnection(lbsel_ct_obj_t *ct, const lbsrv_obj_t *named, lbsel_cr_obj_t *cr,
                           const lbsel_cr_obj_key_t *key, const lbsel_replica_t *replica)
{
    lbsrv_obj_t *server = lb_peekptr(cr->server);
    if (server == nullptr) {
        return AGAIN; // retired since it was found
    }
    {
        lbll_guard held(&server->sel.active);
        if (!_lbsel_ct_isstill(server, cr, key)) {
            return AGAIN;
        }
        LB_LOG(TRACE, " connection record found !!!\n");
        const lbsel_table_t table = _lbsel_ct_table(ct);
        lbll_list_t *list = lb_peekptr(cr->expirelist._list);
        if (server != named) {
            // The client's port has begun another connection. Who forwards knows better.
            if (!lbha_isstandby()) {
                return DONE;
            }
            lbsel_retire(&table, &server->sel.active, list, cr);
            return AGAIN;
        }
        (void)os_gettime(&cr->timestamp);
        cr->reptimestamp = cr->timestamp;
        switch (judge(cr->state, replica->state)) {
        case KEEP:
            if (keepconnection(ct, server, cr, replica)) {
                return DONE;
            }
            break;
        case REMOVE: lbsel_retire(&table, &server->sel.active, list, cr); return DONE;
        case INVALID:
            LB_LOG(FAILURE, "invalid connection state\n");
            os_core();
            return DONE;
        }
    }
    _lbsel_ct_returncr(ct, cr);
    return FAILED;
}

// --- Affinity ------------------------------------------------------------------------------------

// Notes a record that is in the table and on no list, and puts it at the newest end: false when it
// could not be, and is out of the table.
bool refresh(lbsel_at_obj_t *at, lbsrv_obj_t *server, lbsel_ar_obj_t *ar)
    LB_NEEDS(server->sel.arlist)
{
    (void)os_gettime(&ar->timestamp);
    ar->reptimestamp = ar->timestamp;
    if (lbll_addnode_rhs_nl(&server->sel.arlist, ar) == 0) {
        return true;
    }
    (void)lbht_rmnode(&at->lookup, ar); // what it refuses it reports
    return false;
}

// A new record, into the table and onto its list: other than DONE when it is in neither.
outcome_e enteraffinity(lbsel_at_obj_t *at, lbsrv_obj_t *server, lbsel_ar_obj_t *ar)
    LB_NEEDS(server->sel.arlist)
{
    if (lb_peek(server->sel.removed) != 0) {
        return SKIPPED;
    }
    switch (lbsel_insert(&at->lookup, &ar->arkey, ar)) {
    case LBSEL_INSERT_DONE: return refresh(at, server, ar) ? DONE : FAILED;
    case LBSEL_INSERT_EXISTS: return AGAIN;
    case LBSEL_INSERT_FAILED: break;
    }
    LB_LOG(FAILURE, "HA:add to at failed\n");
    return FAILED;
}

outcome_e createaffinity(lbsel_at_obj_t *at, lbsrv_obj_t *server, lbsrv_obj_t *crossport,
                         const lbsel_ar_key_t *key)
{
    LB_LOG(TRACE, "HA:new affinity record\n");
    lbsel_ar_obj_t *ar = _lbsel_at_getnewar(at);
    if (ar == nullptr) {
        LB_LOG(FAILURE, "HA:affinity record alloc failed\n");
        return FAILED;
    }
    ar->arkey = *key;
    lb_pokeptr(ar->server, server);
    lb_pokeptr(ar->crossportServer, crossport);
    outcome_e outcome = DONE;
    {
        lbll_guard held(&server->sel.arlist);
        outcome = enteraffinity(at, server, ar);
    }
    if (outcome != DONE) {
        _lbsel_at_returnar(at, ar);
    }
    return outcome;
}

outcome_e updateaffinity(lbsel_at_obj_t *at, const lbsrv_obj_t *named, lbsel_ar_obj_t *ar,
                         const lbsel_ar_key_t *key)
{
    lbsrv_obj_t *server = lb_peekptr(ar->server);
    if (server == nullptr) {
        return AGAIN; // retired since it was found
    }
    {
        lbll_guard held(&server->sel.arlist);
        if (!_lbsel_at_isstill(server, ar, key)) {
            return AGAIN;
        }
        LB_LOG(TRACE, "HA:existing affinity record\n");
        if (server != named) {
            const lbsel_table_t table = _lbsel_at_table(at);
            lbsel_retire(&table, &server->sel.arlist, &server->sel.arlist, ar);
            return AGAIN; // as a record of the new server
        }
        // It stands on this list: that was looked at under the lock.
        (void)lbll_rmnode_nl(&server->sel.arlist, ar);
        if (refresh(at, server, ar)) {
            return DONE;
        }
    }
    _lbsel_at_returnar(at, ar);
    return FAILED;
}

} // namespace

bool lbsel_ct_apply(lbsrv_obj_t *server, const lbsel_replica_t *replica)
{
    auto *ct = static_cast<lbsel_ct_obj_t *>(server->parent->ct);
    if (ct == nullptr) {
        return true;
    }
    lbsel_cr_obj_key_t key = {.sip = replica->client, .sport = replica->clientport, ._pad = 0};
    for (int tries = 0; tries < LBSEL_TRIES; tries++) {
        auto *cr = static_cast<lbsel_cr_obj_t *>(lbht_select1(&ct->lookup, &key));
        if (cr == nullptr && replica->state != LBSEL_CR_STATE_ACTIVE) {
            return true; // the end of a connection that is not known here
        }
        const outcome_e outcome = cr != nullptr ? updateconnection(ct, server, cr, &key, replica)
                                                : createconnection(ct, server, &key, replica);
        if (outcome != AGAIN) {
            return outcome != FAILED;
        }
    }
    return true;
}

bool lbsel_at_apply(lbsrv_obj_t *server, const lbip_addr_t *client)
{
    auto *at = static_cast<lbsel_at_obj_t *>(lb_peekptr(server->parent->at));
    if (at == nullptr) {
        return true;
    }
    lbsrv_obj_t *crossport = _lbsel_at_crossport(server);
    lbsel_ar_key_t key = {.sip = *client};
    for (int tries = 0; tries < LBSEL_TRIES; tries++) {
        auto *ar = static_cast<lbsel_ar_obj_t *>(lbht_select1(&at->lookup, &key));
        const outcome_e outcome = ar != nullptr ? updateaffinity(at, server, ar, &key)
                                                : createaffinity(at, server, crossport, &key);
        if (outcome != AGAIN) {
            return outcome != FAILED;
        }
    }
    return true;
}
