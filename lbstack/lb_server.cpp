// Servers. The module owns a server's life: its neighbour entry is held from its init to its reap,
// so whoever still has the server while it is being removed can send to it.
//
// A NAT server is reached through its router and has a return address, which it uses until its
// records are gone and whose memory it holds until it is freed itself.
//
// Init, get, set and remove run on the command thread, reap on the timer thread; workers read
// linked servers without a lock. Only lists are locked, one at a time. Whether the IP versions of
// the cluster, the server and its NAT addresses go together is not looked at here, because the
// settings that decide it may come later: packets that can't be sent as they are told to count as
// errors.

#include "lb_server.h"

#include "lb_executor.h"
#include "lb_ip.h"
#include "lb_log.h"
#include "lb_nat.h"
#include "lb_port.h"
#include "lb_select.h"
#include "lb_utils.h"
#include "lb_words.h"

int os_tunfd = 0;

namespace
{

constexpr int REAPAGE_S = 3;
constexpr int TUNNAMELEN = 16;
constexpr int TUNFLAG_TUN = 1; // IP packets without a link header (tun devices, IFF_TUN)
constexpr lb_u8_t NEIGHSTATE_NONE = LBNEIGH_STATEMOD_ERROR;

static_assert(offsetof(lbsrv_obj_t, config) == 0);
lbsrv_obj_t *serverof(lbcmd_objhdr_t *obj)
{
    return reinterpret_cast<lbsrv_obj_t *>(obj);
}

const lbsel_funcs_t *algorithmof(const lbsrv_obj_t *srv)
{
    return &selectfunc[lb_peek(srv->parent->addable.selectalg)];
}

// The addresses that a NAT server needs: 0, or 1 after telling what is wrong.
int checknat(const lbsrv_addable_t *addable)
{
    if (lbip_isaddrvalid(&addable->returnaddress) != LBIP_VALID_YES) {
        LB_LOG(LB_LOG_SERVER | LB_LOG_EVENT, "NAT server's return address is not valid\n");
        return 1;
    }
    if (lbip_isaddrvalid(&addable->routeraddress) != LBIP_VALID_YES) {
        LB_LOG(LB_LOG_SERVER | LB_LOG_EVENT, "NAT server's router address is not valid\n");
        return 1;
    }
    return 0;
}

// Whether the server is of a kind that can be served: 0, or 1 after telling why not.
int checkkind(const lbsrv_obj_t *srv)
{
    const lbip_addr_t *addr = &srv->config.key.cfg.server;
    if (lbip_isaddrvalid(addr) != LBIP_VALID_YES) {
        LB_LOG(LB_LOG_SERVER | LB_LOG_EVENT, "server address is not valid\n");
        return 1;
    }
    if (srv->addable.nat != 0 && checknat(&srv->addable) != 0) {
        return 1;
    }
    return 0;
}

void setencapmtu(lbsrv_obj_t *srv)
{
    lb_poke(srv->neigh->encapmtu, lb_peek(srv->setable.encapmtu));
}

// Who the server's frames are addressed to.
const lbip_addr_t *nexthopof(const lbsrv_obj_t *srv)
{
    return srv->addable.nat != 0 ? &srv->addable.routeraddress : &srv->config.key.cfg.server;
}

// Gives up the use of the return address, once: the server's records are gone.
void dropreturnaddress(lbsrv_obj_t *srv)
{
    if (srv->usesretaddr != 0) {
        srv->usesretaddr = 0;
        lbrat_drop(srv->retaddrobj);
    }
}

void releasereturnaddress(lbsrv_obj_t *srv)
{
    if (srv->retaddrobj != nullptr) {
        dropreturnaddress(srv);
        lbrat_letgo(srv->retaddrobj);
    }
}

// Takes what the server needs of others: 0, or 1 after giving back what was had.
int takeothers(lbsrv_obj_t *srv)
{
    if (srv->addable.nat != 0) {
        srv->retaddrobj = lbrat_take(&srv->addable.returnaddress);
        if (srv->retaddrobj == nullptr) {
            return 1;
        }
        srv->usesretaddr = 1;
    }
    srv->neigh = lbneigh_addnode(nexthopof(srv));
    if (srv->neigh == nullptr) {
        LB_LOG(LB_LOG_SERVER | LB_LOG_FAILURE, "init neigh addnode failed\n");
        releasereturnaddress(srv);
        return 1;
    }
    return 0;
}

// Gives all of that back. Nobody uses the server any more.
void releaseothers(lbsrv_obj_t *srv)
{
    lbneigh_rmnode(nexthopof(srv));
    releasereturnaddress(srv);
}

// The tunnel to the servers of this host, unless it is open: 0, or 1.
int opentunnel(const lbsrv_obj_t *srv)
{
    if (lb_peek(os_tunfd) != 0) {
        return 0;
    }
    lb_poke(srv->neigh->Collocated, 1);
    char name[TUNNAMELEN] = {'v', 'e', 'l', 'd', 'r', 'a'};
    const int fd = os_tunAlloc(name, TUNFLAG_TUN);
    if (fd < 0) {
        LB_LOG(LB_LOG_SERVER | LB_LOG_FAILURE, "Tun Allocation Failed = %d\n", fd);
        return 1;
    }
    lb_poke(os_tunfd, fd);
    return 0;
}

// Unlinks the server from both of the port's lists where it is linked: the number of failures.
int unlinkserver(lbsrv_obj_t *srv)
{
    lbport_obj_t *port = srv->parent;
    int failed = 0;
    if (srv->llnode._list != nullptr && lbll_rmnode(&port->serverlist, srv) != 0) {
        failed++;
    }
    if (srv->srvref.refnode._list != nullptr &&
        lbll_rmnode(&port->serverset.srvreflist, &srv->srvref) != 0) {
        failed++;
    }
    return failed;
}

void removerecords(lbsrv_obj_t *srv)
{
    if (const auto srvrm = algorithmof(srv)->srvrm; srvrm != nullptr) {
        srvrm(srv);
    }
}

int _lbsrv_cmd_rm(lbcmd_objhdr_t *obj)
{
    lbsrv_obj_t *srv = serverof(obj);
    lbport_obj_t *port = srv->parent;
    if (port == nullptr) {
        LB_LOG(LB_LOG_SERVER | LB_LOG_FAILURE, "No parent!\n");
        return LBCMD_RC_FAILURE;
    }
    if (srv->getable.useservercount != 0) {
        return LBCMD_RC_FAILURE;
    }
    if (lbll_rmnode(&port->serverlist, srv) != 0 ||
        lbll_rmnode(&port->serverset.srvreflist, &srv->srvref) != 0) {
        LB_LOG(LB_LOG_SERVER | LB_LOG_FAILURE, "removal of server from list failed\n");
        return LBCMD_RC_FAILURE;
    }
    if (lbll_size(&port->serverset.srvreflist) != 0) {
        lbport_weightsums(port);
    }
    removerecords(srv);
    dropreturnaddress(srv);
    return LBCMD_RC_SUCCESS;
}

int _lbsrv_cmd_reap(lbcmd_objhdr_t *obj, int age)
{
    lbsrv_obj_t *srv = serverof(obj);
    LB_LOG(LB_LOG_SERVER | LB_LOG_REAP, "server reap %p %d.\n", static_cast<void *>(srv), age);
    if (age < REAPAGE_S || !lb_grace_passed(obj->grace)) {
        return 0;
    }
    if (srv->llnode._list != nullptr || srv->srvref.refnode._list != nullptr) {
        // Its removal was refused, so readers have been finding it until now.
        if (unlinkserver(srv) != 0) {
            LB_LOG(LB_LOG_SERVER | LB_LOG_FAILURE, "removal of server from list failed\n");
        }
        removerecords(srv);
        dropreturnaddress(srv);
        obj->grace = lb_grace_now();
        return 0;
    }
    // What was born or found meanwhile may be in use by who is inside the stack now.
    if (const auto srvreap = algorithmof(srv)->srvreap; srvreap != nullptr && srvreap(srv)) {
        obj->grace = lb_grace_now();
        return 0;
    }
    releaseothers(srv);
    os_memfree(srv);
    return 1;
}

int _lbsrv_cmd_set(lbcmd_objhdr_t *obj)
{
    lbsrv_obj_t *srv = serverof(obj);
    lbport_weightsums(srv->parent);
    setencapmtu(srv);
    return lb_peek(srv->setable.Collocated) == 1 ? opentunnel(srv) : 0;
}

int _lbsrv_cmd_get(lbcmd_objhdr_t *obj)
{
    lbsrv_obj_t *srv = serverof(obj);
    if (srv->neigh != nullptr) {
        lb_poke(srv->getable.neighstate, lb_peek(srv->neigh->state));
        lb_poke(srv->setable.encapmtu, lb_peek(srv->neigh->encapmtu));
    } else {
        LB_LOG(LB_LOG_SERVER | LB_LOG_FAILURE, "no neigh\n");
        lb_poke(srv->getable.neighstate, NEIGHSTATE_NONE);
    }
    const lbll_list_t *active = srv->parent->ct != nullptr ? &srv->sel.active : &srv->sel.arlist;
    lb_conn_stats_t *selstats = &srv->getable.selstats;
    lb_poke(selstats->preest, static_cast<lb_u32_t>(lbll_size(&srv->sel.preest)));
    lb_poke(selstats->fin, static_cast<lb_u32_t>(lbll_size(&srv->sel.fin)));
    lb_poke(selstats->active, static_cast<lb_u32_t>(lbll_size(active)));
    return 0;
}

} // namespace

int lbsrv_init(lbcfg_key_t *key, lbport_obj_t *parent, lbsrv_obj_t *srv, void *addable,
               void *vsetable)
{
    os_memset(srv, 0, sizeof(*srv));
    lbcmd_key_t wide;
    wide.cfg = *key;
    lbcmd_objhdr_init(&srv->config, &wide);
    srv->config.addable = {sizeof(srv->addable), &srv->addable};
    srv->config.setable = {sizeof(srv->setable), &srv->setable};
    srv->config.getable = {sizeof(srv->getable), &srv->getable};
    srv->config.remove = _lbsrv_cmd_rm;
    srv->config.get = _lbsrv_cmd_get;
    srv->config.set = _lbsrv_cmd_set;
    srv->config.reap = _lbsrv_cmd_reap;
    srv->parent = parent;
    srv->srvref.server = srv;
    os_memcpy(&srv->addable, addable, sizeof(srv->addable));
    os_memcpy(&srv->setable, vsetable, sizeof(srv->setable));
    if (checkkind(srv) != 0 || takeothers(srv) != 0) {
        return 1;
    }
    setencapmtu(srv);
    if (const auto srvinit = algorithmof(srv)->srvinit; srvinit != nullptr && srvinit(srv) != 0) {
        LB_LOG(LB_LOG_SERVER | LB_LOG_FAILURE, "select init failed\n");
        releaseothers(srv);
        return 1;
    }
    LB_LOG(LB_LOG_SERVER, "init returning %d\n", 0);
    return 0;
}

int lbsrv_ll_select(void *key, void *obj)
{
    return lbip_isaddrequal(static_cast<const lbip_addr_t *>(key),
                            &static_cast<const lbsrv_obj_t *>(obj)->config.key.cfg.server);
}

void lbsrv_ll_print(void *obj)
{
    lbip_printaddr("", &static_cast<const lbsrv_obj_t *>(obj)->config.key.cfg.server, "");
}
