// Multicast memberships. The module owns the executor's list of them, not the objects that they are
// part of.
//
// The command thread enters and refreshes; it leaves, too, or the timer thread does for an object
// whose removal was refused. The list's lock guards the memberships and is held while the host is
// asked to join or leave, so that each is asked for once; the locks of the interface tree are taken
// inside. Packets never come here.
#include "lb_multicast.h"

#include "lb_executor.h"
#include "lb_log.h"
#include "lb_srvset.h"

namespace
{

constexpr lb_u64_t TRACE = LB_LOG_CLUSTER;
constexpr lb_u64_t EVENT = LB_LOG_CLUSTER | LB_LOG_EVENT;
constexpr lb_u64_t FAILURE = LB_LOG_CLUSTER | LB_LOG_FAILURE;

lbll_list_t *memberships()
{
    return &lbexecutor->memberships;
}

// An interface's name as keys have it, all zero for none.
struct ifname_s {
    char text[LBIFACE_NAMELEN];
};

// The interface on which neighbours ask for the address.
ifname_s wantedby(lbmc_membership_t *membership)
{
    ifname_s name = {};
    const lbifin_obj_t *ifin = lbifcol_selectbyip(&membership->addr);
    if (ifin != nullptr && lbifin_doesarp(ifin)) {
        os_memcpy(name.text, ifin->cmdobj.key.iface.name, sizeof(name.text));
    }
    return name;
}

// Filter: memberships that are not where they are wanted.
int _lbmc_ll_filtermoved(void * /*key*/, void *obj)
{
    auto *membership = static_cast<lbmc_membership_t *>(obj);
    const ifname_s wanted = wantedby(membership);
    return os_memcmp(wanted.text, membership->ifname, sizeof(wanted.text)) != 0 ? LBLL_FILTER_YES
                                                                                : 0;
}

void join_nl(lbmc_membership_t *membership)
{
    LB_LOG(TRACE, "registering ethernet multicast address\n");
    const ifname_s wanted = wantedby(membership);
    if (wanted.text[0] == '\0') {
        LB_LOG(EVENT, "no matching interface or non-arp interface\n");
        return;
    }
    os_memcpy(membership->ifname, wanted.text, sizeof(wanted.text));
    os_regethmulticast(membership->ifname, membership->addr.nboaddr.v6);
}

void leave_nl(lbmc_membership_t *membership)
{
    LB_LOG(TRACE, "unregistering ethernet multicast address\n");
    if (membership->ifname[0] == '\0') {
        LB_LOG(EVENT, "no matching interface or non-arp interface\n");
        return;
    }
    os_unregethmulticast(membership->ifname, membership->addr.nboaddr.v6);
    os_memset(membership->ifname, 0, sizeof(membership->ifname));
}

} // namespace

int lbmc_init()
{
    const int rc =
        lbll_initlist(memberships(), offsetof(lbmc_membership_t, node), nullptr, nullptr);
    if (rc == 0) {
        lbll_setrank(memberships(), LB_RANK_OBJECT);
    }
    return rc;
}

int lbmc_exit()
{
    return lbll_cleanuplist(memberships());
}

void lbmc_enter(lbmc_membership_t *membership, const lbip_addr_t *addr)
{
    if (addr->version != 6) {
        return;
    }
    lbll_guard held(memberships());
    membership->addr = *addr;
    if (lbll_addnode_rhs_nl(memberships(), membership) != 0) {
        LB_LOG(FAILURE, "add address to multicast memberships failed\n");
        return;
    }
    join_nl(membership);
}

void lbmc_leave(lbmc_membership_t *membership)
{
    if (membership->node._list == nullptr) {
        return;
    }
    lbll_guard held(memberships());
    leave_nl(membership);
    (void)lbll_rmnode_nl(memberships(), membership); // a broken list is reported by its module
}

void lbmc_refresh()
{
    void *found[LB_SNAPSHOT_MAX];
    int count = LB_SNAPSHOT_MAX;
    lbll_guard held(memberships());
    while (count == LB_SNAPSHOT_MAX) {
        count =
            lbll_selectn_nl(memberships(), found, LB_SNAPSHOT_MAX, _lbmc_ll_filtermoved, nullptr);
        for (int i = 0; i < count; i++) {
            auto *membership = static_cast<lbmc_membership_t *>(found[i]);
            if (membership->ifname[0] != '\0') {
                leave_nl(membership);
            }
            join_nl(membership);
        }
    }
}
