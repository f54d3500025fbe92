// The interface tree: its keys, the collection at its root, the interfaces and their addresses. It
// answers on which interface an address is reachable and which of our addresses speaks to it.
//
// Commands change the tree on the command thread. Workers and the timer look things up under the
// lists' locks: the interface list first, an interface's address list within. Interfaces and
// addresses that are removed go to the grace list and are freed on the timer thread; a list's mutex
// is never destroyed before that.

#include "lb_interface.h"

#include "lb_executor.h"
#include "lb_ip.h"
#include "lb_log.h"
#include "lb_multicast.h"
#include "lb_neigh.h"
#include "lb_utils.h"
#include "lb_words.h"

namespace
{

// How many interfaces the host is told of when one is added, besides the new one.
constexpr int HOSTLIST_MAX = 50;

// An interface's name with room for the NUL that a key may lack.
struct ifname_t {
    char text[LBIFACE_NAMELEN + 1];
};

ifname_t nameof(const lbiface_key_t *key)
{
    ifname_t name;
    os_memcpy(name.text, key->name, LBIFACE_NAMELEN);
    name.text[LBIFACE_NAMELEN] = '\0';
    return name;
}

static_assert(offsetof(lbifin_obj_t, cmdobj) == 0 && offsetof(lbifaddr_obj_t, cmdobj) == 0);
lbifin_obj_t *ifinof(lbcmd_objhdr_t *obj)
{
    return reinterpret_cast<lbifin_obj_t *>(obj);
}
lbifaddr_obj_t *ifaddrof(lbcmd_objhdr_t *obj)
{
    return reinterpret_cast<lbifaddr_obj_t *>(obj);
}
lbifin_obj_t *ifinof(lb_grace_node_t *node)
{
    return reinterpret_cast<lbifin_obj_t *>(reinterpret_cast<unsigned char *>(node) -
                                            offsetof(lbifin_obj_t, grace));
}
lbifaddr_obj_t *ifaddrof(lb_grace_node_t *node)
{
    return reinterpret_cast<lbifaddr_obj_t *>(reinterpret_cast<unsigned char *>(node) -
                                              offsetof(lbifaddr_obj_t, grace));
}

// --- Key tree ------------------------------------------------------------------------------------

const lbiface_key_t *keyof(const void *obj)
{
    return &static_cast<const lbcmd_objhdr_t *>(obj)->key.iface;
}

bool samename(const lbiface_key_t *a, const lbiface_key_t *b)
{
    return os_memcmp(a->name, b->name, LBIFACE_NAMELEN) == 0;
}

int _lbiface_ll_select(void *vkey, void *vobj)
{
    const auto *key = static_cast<const lbiface_key_t *>(vkey);
    const lbiface_key_t *own = keyof(vobj);
    return samename(key, own) && lbip_isaddrequal(&key->addr, &own->addr) ? LBLL_FILTER_YES : 0;
}

int _lbiface_ll_childfilter(void *vkey, void *vobj)
{
    const auto *key = static_cast<const lbiface_key_t *>(vkey);
    const lbiface_key_t *own = keyof(vobj);
    const _lbiface_keytype_e kind = _lbiface_keytype(own);
    bool ischild = false;
    switch (_lbiface_keytype(key)) {
    case LBIFACE_KEYTYPE_IFCOLLECTION: ischild = kind == LBIFACE_KEYTYPE_IFINSTANCE; break;
    case LBIFACE_KEYTYPE_IFINSTANCE:
        ischild = kind == LBIFACE_KEYTYPE_IPADDR && samename(key, own);
        break;
    case LBIFACE_KEYTYPE_IPADDR:
    case LBIFACE_KEYTYPE_UNKNOWN: break;
    }
    return ischild ? LBLL_FILTER_YES : 0;
}

void _lbiface_printkey(lbcmd_key_t *key)
{
    if (key->iface.name[0] != '\0') {
        os_print("%.32s/", key->iface.name);
    } else {
        os_print("0/");
    }
    lbip_printaddr("", &key->iface.addr, "");
}

void _lbiface_ll_print(void *vobj)
{
    _lbiface_printkey(&static_cast<lbcmd_objhdr_t *>(vobj)->key);
}

int _lbiface_calcparent(lbcmd_buf_t *buffer, lbcmd_key_t *parent)
{
    const lbiface_key_t *key = &buffer->hdr.key.iface;
    if (key->name[0] == '\0') {
        LB_LOG(LB_LOG_IFACETREE | LB_LOG_EVENT, "no parent of system\n");
        buffer->hdr.answer_rc = LBCMD_RC_NOPARENT;
        return 1;
    }
    if (lbip_isaddrvalid(&key->addr) != LBIP_VALID_EMPTY) {
        os_memset(&parent->iface.addr, 0, sizeof(parent->iface.addr));
    } else {
        os_memset(parent->iface.name, 0, sizeof(parent->iface.name));
    }
    return 0;
}

int _lbiface_keycheck(lbcmd_key_t *key)
{
    return lbip_isaddrvalid(&key->iface.addr) == LBIP_VALID_NO ? 1 : 0;
}

void _lbiface_blocksizes(lbcmd_key_t *key, lb_u32_t *addlen, lb_u32_t *setlen)
{
    *addlen = 0;
    *setlen = lbip_isaddrvalid(&key->iface.addr) == LBIP_VALID_EMPTY ? sizeof(lbifin_setable_t)
                                                                     : sizeof(lbifaddr_setable_t);
}

// --- Addresses -----------------------------------------------------------------------------------

bool freeifaddr(lb_grace_node_t *node)
{
    lbifaddr_obj_t *ifaddr = ifaddrof(node);
    os_memset(ifaddr, 0, sizeof(*ifaddr));
    os_memfree(ifaddr);
    return true;
}

int _lbifaddr_cmd_rm(lbcmd_objhdr_t *obj)
{
    lbifaddr_obj_t *ifaddr = ifaddrof(obj);
    if (lbll_rmnode(&ifaddr->parent->ifaddrlist, ifaddr) != 0) {
        LB_LOG(LB_LOG_IFACE | LB_LOG_FAILURE, "removal of interface from list failed\n");
        return LBCMD_RC_FAILURE;
    }
    lbmc_refresh();
    lb_grace_defer(&ifaddr->grace, freeifaddr);
    return LBCMD_RC_SUCCESS;
}

// What interfaces and addresses are set to says where IPv6 addresses of ours are reached: also when
// one is added, which sets it, too.
int _lbiface_cmd_set(lbcmd_objhdr_t * /*obj*/)
{
    lbmc_refresh();
    return 0;
}

int lbifaddr_init(lbcmd_key_t *key, lbifin_obj_t *parent, lbifaddr_obj_t *ifaddr, void *setable)
{
    if (lbip_isaddrvalid(&key->iface.addr) != LBIP_VALID_YES) {
        return 1;
    }
    lbcmd_objhdr_t *hdr = &ifaddr->cmdobj;
    lbcmd_objhdr_init(hdr, key);
    hdr->setable = {sizeof(ifaddr->setable), &ifaddr->setable};
    hdr->getable = {sizeof(ifaddr->getable), &ifaddr->getable};
    hdr->remove = _lbifaddr_cmd_rm;
    hdr->set = _lbiface_cmd_set;
    os_memcpy(&ifaddr->setable, setable, sizeof(ifaddr->setable));
    ifaddr->parent = parent;
    return 0;
}

int _lbifin_cmd_ifaddr_add(lbcmd_key_t *key, lbcmd_objhdr_t *parent, void * /*addable*/,
                           void *setable, lbcmd_objhdr_t **newobj)
{
    lbifin_obj_t *ifin = ifinof(parent);
    auto *ifaddr = lb_newzero<lbifaddr_obj_t>();
    if (ifaddr == nullptr) {
        LB_LOG(LB_LOG_IFACE | LB_LOG_FAILURE, "allocation of new interface failed\n");
        return LBCMD_RC_FAILURE;
    }
    lb_undo undo_alloc([ifaddr] { os_memfree(ifaddr); });
    if (lbifaddr_init(key, ifin, ifaddr, setable) != 0) {
        LB_LOG(LB_LOG_IFACE | LB_LOG_FAILURE, "interface init failed\n");
        return LBCMD_RC_FAILURE;
    }
    if (lbll_addnode_rhs(&ifin->ifaddrlist, ifaddr) != 0) {
        LB_LOG(LB_LOG_IFACE | LB_LOG_FAILURE, "add interface to interfacelist failed\n");
        return LBCMD_RC_FAILURE;
    }
    undo_alloc.dismiss();
    *newobj = &ifaddr->cmdobj;
    return LBCMD_RC_SUCCESS;
}

int _lbifin_ll_filtercallback_subnetmatch(void *vaddr, void *vobj)
{
    const auto *addr = static_cast<const lbip_addr_t *>(vaddr);
    const auto *ifaddr = static_cast<const lbifaddr_obj_t *>(vobj);
    return lbip_onnetof(addr, &ifaddr->cmdobj.key.iface.addr) ? LBLL_FILTER_YES : 0;
}

int _lbifin_ll_filtercallback_p2pmatch(void *vaddr, void *vobj)
{
    const auto *addr = static_cast<const lbip_addr_t *>(vaddr);
    const auto *ifaddr = static_cast<const lbifaddr_obj_t *>(vobj);
    // The far end may be given anew at any moment. A torn read costs one look-up.
    lbip_addr_t peer;
    lb_load_shared(&peer, &ifaddr->setable.peer, sizeof(peer));
    const lb_u8_t *a = addr->nboaddr.v4;
    const lb_u8_t *k = ifaddr->cmdobj.key.iface.addr.nboaddr.v4;
    const lb_u8_t *p = peer.nboaddr.v4;
    LB_LOG(LB_LOG_IFACE,
           "p2pmatch comparing 0x%0x:0x%0x:0x%0x:0x%0x with "
           "0x%0x:0x%0x:0x%0x:0x%0x/0x%0x:0x%0x:0x%0x:0x%0x\n",
           a[0], a[1], a[2], a[3], k[0], k[1], k[2], k[3], p[0], p[1], p[2], p[3]);
    return lbip_isaddrequal(addr, &peer) ? LBLL_FILTER_YES : 0;
}

lbip_addr_t *firstaddress(lbifin_obj_t *ifin, lbip_addr_t *addr, lbll_select_fn filter)
{
    void *found = nullptr;
    if (lbll_selectn(&ifin->ifaddrlist, &found, 1, filter, addr) <= 0) {
        return nullptr;
    }
    return &static_cast<lbifaddr_obj_t *>(found)->cmdobj.key.iface.addr;
}

// --- Interfaces ----------------------------------------------------------------------------------

// The timer may have published a route over the interface while that was being removed. Such a
// route is swept away here; but whoever took it earlier reaches the interface through it until the
// route's own grace has passed, even where nothing was left to sweep. So the last route goes first.
bool freeifin(lb_grace_node_t *node)
{
    lbifin_obj_t *ifin = ifinof(node);
    (void)lbneigh_clear_iface(ifin); // what it finds is still among the routes
    if (lb_peek(ifin->routes) != 0) {
        return false;
    }
    if (lbll_rmlist(&ifin->ifaddrlist) != 0) {
        LB_LOG(LB_LOG_IFACE | LB_LOG_FAILURE, "removal of ifaddr list failed.\n");
    }
    os_memset(ifin, 0, sizeof(*ifin));
    os_memfree(ifin);
    return true;
}

int _lbifin_cmd_rm(lbcmd_objhdr_t *obj)
{
    lbifin_obj_t *ifin = ifinof(obj);
    if (lbll_size(&ifin->ifaddrlist) != 0) {
        LB_LOG(LB_LOG_IFACE | LB_LOG_FAILURE, "removal of ifaddr list failed.\n");
        return LBCMD_RC_FAILURE;
    }
    if (lbll_rmnode(&lbexecutor->ifcollection.interfacelist, ifin) != 0) {
        LB_LOG(LB_LOG_IFACE | LB_LOG_FAILURE, "removal of interface from list failed\n");
        return LBCMD_RC_FAILURE;
    }
    const ifname_t name = nameof(&obj->key.iface);
    os_removeiface(name.text, &ifin->setable.ethaddr);
    (void)lbneigh_clear_iface(ifin); // how many had it does not matter here
    lb_grace_defer(&ifin->grace, freeifin);
    return LBCMD_RC_SUCCESS;
}

int lbifin_init(lbcmd_key_t *key, lbifin_obj_t *ifin, void *setable)
{
    lbcmd_objhdr_t *hdr = &ifin->cmdobj;
    lbcmd_objhdr_init(hdr, key);
    hdr->setable = {sizeof(ifin->setable), &ifin->setable};
    hdr->getable = {sizeof(ifin->getable), &ifin->getable};
    hdr->addchild = _lbifin_cmd_ifaddr_add;
    hdr->remove = _lbifin_cmd_rm;
    hdr->set = _lbiface_cmd_set;
    os_memcpy(&ifin->setable, setable, sizeof(ifin->setable));
    LB_LOG(LB_LOG_IFACE, "init entered, mtu=%d\n", static_cast<int>(ifin->setable.mtu_sys));
    if (lbll_initlist(&ifin->ifaddrlist, offsetof(lbifaddr_obj_t, ifaddrnode), lbifaddr_ll_select,
                      lbifaddr_ll_print) != 0) {
        LB_LOG(LB_LOG_IFACE | LB_LOG_FAILURE, "init ifaddrlist failed\n");
        return 1;
    }
    lbll_setrank(&ifin->ifaddrlist, LB_RANK_IFADDR);
    return 0;
}

// --- Collection ----------------------------------------------------------------------------------

// Tells the host of the new interface and of those that were there before it.
void tellhost(lbifin_obj_t *newifin, void **interfaces, int count)
{
    void *blocks[HOSTLIST_MAX + 1];
    for (int i = 0; i < count; i++) {
        auto *ifin = static_cast<lbifin_obj_t *>(interfaces[i]);
        LB_LOG(LB_LOG_IFCOL, "adding interface %s to list\n", nameof(&ifin->cmdobj.key.iface).text);
        blocks[i] = &ifin->setable;
    }
    blocks[count] = &newifin->setable;
    const ifname_t name = nameof(&newifin->cmdobj.key.iface);
    os_addiface(name.text, &newifin->setable.ethaddr, blocks, count + 1);
}

int _lbifcol_cmd_ifin_add(lbcmd_key_t *key, lbcmd_objhdr_t *parent, void * /*addable*/,
                          void *setable, lbcmd_objhdr_t **newobj)
{
    lbll_list_t *interfacelist = &lbexecutor->ifcollection.interfacelist;
    if (parent != &lbexecutor->ifcollection.cmdobj) {
        LB_LOG(LB_LOG_IFCOL | LB_LOG_FAILURE, "cmd2cfg --> obj conversion failed\n");
        return LBCMD_RC_FAILURE;
    }
    auto *ifin = lb_newzero<lbifin_obj_t>();
    if (ifin == nullptr) {
        LB_LOG(LB_LOG_IFCOL | LB_LOG_FAILURE, "allocation of new interface failed\n");
        return LBCMD_RC_FAILURE;
    }
    lb_undo undo_alloc([ifin] { os_memfree(ifin); });
    if (lbifin_init(key, ifin, setable) != 0) {
        LB_LOG(LB_LOG_IFCOL | LB_LOG_FAILURE, "interface init failed\n");
        return LBCMD_RC_FAILURE;
    }
    lb_undo undo_init([ifin] { (void)lbll_rmlist(&ifin->ifaddrlist); });
    void *interfaces[HOSTLIST_MAX];
    const int count =
        lbll_selectn(interfacelist, interfaces, HOSTLIST_MAX, lbifin_ll_selectall, nullptr);
    if (lbll_addnode_rhs(interfacelist, ifin) != 0) {
        LB_LOG(LB_LOG_IFCOL | LB_LOG_FAILURE, "add interface to interfacelist failed\n");
        return LBCMD_RC_FAILURE;
    }
    undo_init.dismiss();
    undo_alloc.dismiss();
    *newobj = &ifin->cmdobj;
    tellhost(ifin, interfaces, count);
    return LBCMD_RC_SUCCESS;
}

int _lbifcol_ll_filtercallback_hasp2pmatch(void *vaddr, void *vobj)
{
    LB_LOG(LB_LOG_IFCOL, "selectbyip(p2p) ll callback\n");
    auto *ifin = static_cast<lbifin_obj_t *>(vobj);
    return lbifin_getsrcp2pip(ifin, static_cast<lbip_addr_t *>(vaddr)) != nullptr ? LBLL_FILTER_YES
                                                                                  : 0;
}

int _lbifcol_ll_filtercallback_hassubnetmatch(void *vaddr, void *vobj)
{
    LB_LOG(LB_LOG_IFCOL, "selectbyip ll callback\n");
    auto *ifin = static_cast<lbifin_obj_t *>(vobj);
    return lbifin_getsrcip(ifin, static_cast<lbip_addr_t *>(vaddr)) != nullptr ? LBLL_FILTER_YES
                                                                               : 0;
}

lb_u32_t _lbiface_keyhash(const lbcmd_key_t *vkey)
{
    const lbiface_key_t *key = &vkey->iface;
    lb_u32_t hash = 0;
    for (const char letter : key->name) {
        hash = lb_hashstep(hash, static_cast<lb_u8_t>(letter));
    }
    return lb_hashstep(hash, lbip_hash(&key->addr));
}

int _lbiface_iskeyodd(const lbcmd_key_t *key)
{
    return lbip_isaddrodd(&key->iface.addr);
}

} // namespace

int lbiface_init()
{
    lbll_list_t *cmdlist = &lbexecutor->ifacecmdlist;
    cmdfuncs[LBCMD_KEYTYPE_IFACE] = {
        .llselect = _lbiface_ll_select,
        .llchildfilter = _lbiface_ll_childfilter,
        .llprint = _lbiface_ll_print,
        .calcparent = _lbiface_calcparent,
        .keycheck = _lbiface_keycheck,
        .printkey = _lbiface_printkey,
        .cmdlist = cmdlist,
        .blocksizes = _lbiface_blocksizes,
        .keyhash = _lbiface_keyhash,
        .calcreferred = nullptr,
        .iskeyodd = _lbiface_iskeyodd,
    };
    const int rc = lbll_initlist(cmdlist, 0, _lbiface_ll_select, _lbiface_ll_print);
    if (rc == 0) {
        lbll_setrank(cmdlist, LB_RANK_COMMAND);
    }
    return rc;
}

int lbiface_exit()
{
    return lbll_cleanuplist(&lbexecutor->ifacecmdlist);
}

_lbiface_keytype_e _lbiface_keytype(const lbiface_key_t *key)
{
    const bool named = key->name[0] != '\0';
    switch (lbip_isaddrvalid(&key->addr)) {
    case LBIP_VALID_EMPTY: return named ? LBIFACE_KEYTYPE_IFINSTANCE : LBIFACE_KEYTYPE_IFCOLLECTION;
    case LBIP_VALID_YES:
        if (named) {
            return LBIFACE_KEYTYPE_IPADDR;
        }
        break;
    }
    LB_LOG(LB_LOG_IFACETREE, "keytype unknown\n");
    return LBIFACE_KEYTYPE_UNKNOWN;
}

int lbifcol_init()
{
    lbifcol_collection_t *collection = &lbexecutor->ifcollection;
    lbcmd_objhdr_t *hdr = &collection->cmdobj;
    hdr->setable = {sizeof(collection->setable), &collection->setable};
    hdr->getable = {sizeof(collection->getable), &collection->getable};
    hdr->addchild = _lbifcol_cmd_ifin_add;
    if (lbll_addnode_rhs(&lbexecutor->ifacecmdlist, hdr) != 0) {
        LB_LOG(LB_LOG_IFCOL | LB_LOG_FAILURE, "add system iface instance node failed\n");
        return 1;
    }
    const int rc = lbll_initlist(&collection->interfacelist, offsetof(lbifin_obj_t, ifinnode),
                                 lbifin_ll_select, lbifin_ll_print);
    if (rc == 0) {
        lbll_setrank(&collection->interfacelist, LB_RANK_IFACE);
    } else {
        // It was linked a moment ago; the list logs what it can't undo.
        (void)lbll_rmnode(&lbexecutor->ifacecmdlist, hdr);
    }
    LB_LOG(LB_LOG_IFCOL, "init returning %d\n", rc);
    return rc;
}

int lbifcol_exit()
{
    lbifcol_collection_t *collection = &lbexecutor->ifcollection;
    const int rc = lbll_cleanuplist(&collection->interfacelist);
    lbll_list_t *cmdlist = &lbexecutor->ifacecmdlist;
    if (collection->cmdobj.cmdlist._list != cmdlist) {
        return rc;
    }
    return rc + lbll_rmnode(cmdlist, &collection->cmdobj);
}

lbifin_obj_t *lbifcol_selectbyip(lbip_addr_t *addr)
{
    LB_LOG(LB_LOG_IFCOL, "selectbyip\n");
    lbll_list_t *interfacelist = &lbexecutor->ifcollection.interfacelist;
    void *found = nullptr;
    int rc = lbll_selectn(interfacelist, &found, 1, _lbifcol_ll_filtercallback_hasp2pmatch, addr);
    if (rc == 0) {
        rc =
            lbll_selectn(interfacelist, &found, 1, _lbifcol_ll_filtercallback_hassubnetmatch, addr);
    }
    if (rc < 0) {
        LB_LOG(LB_LOG_IFCOL | LB_LOG_FAILURE, "rc not 0 -- %d\n", rc);
    }
    auto *ifin = rc > 0 ? static_cast<lbifin_obj_t *>(found) : nullptr;
    LB_LOG(LB_LOG_IFCOL, "selectbyip returning %s\n",
           ifin != nullptr ? nameof(&ifin->cmdobj.key.iface).text : "null");
    return ifin;
}

lbip_addr_t *lbifin_getsrcip(lbifin_obj_t *ifin, lbip_addr_t *addr)
{
    lbip_addr_t *source = firstaddress(ifin, addr, _lbifin_ll_filtercallback_subnetmatch);
    LB_LOG(LB_LOG_IFACE, "getsrcip returning 0x%p\n", static_cast<void *>(source));
    return source;
}

lbip_addr_t *lbifin_getsrcp2pip(lbifin_obj_t *ifin, lbip_addr_t *addr)
{
    lbip_addr_t *source = firstaddress(ifin, addr, _lbifin_ll_filtercallback_p2pmatch);
    LB_LOG(LB_LOG_IFACE, "getsrcp2pip returning 0x%p\n", static_cast<void *>(source));
    return source;
}

bool lbifin_isptp(const lbifin_obj_t *ifin)
{
    return lb_peek(ifin->setable.isPTP) == LBIFIN_YN_YES;
}

bool lbifin_doesarp(const lbifin_obj_t *ifin)
{
    return lb_peek(ifin->setable.arp) == LBIFIN_YN_YES;
}

bool lbifin_haslinkheader(const lbifin_obj_t *ifin)
{
    return !lbifin_isptp(ifin) && lb_peek(ifin->setable.arp) != LBIFIN_YN_NO;
}

int lbifin_ll_select(void *key, void *obj)
{
    return _lbiface_ll_select(key, obj);
}

int lbifin_ll_selectall(void * /*key*/, void * /*obj*/)
{
    return LBLL_FILTER_YES;
}

void lbifin_ll_print(void *obj)
{
    _lbiface_ll_print(obj);
}

int lbifaddr_ll_select(void *key, void *obj)
{
    return lbip_isaddrequal(static_cast<const lbip_addr_t *>(key), &keyof(obj)->addr);
}

void lbifaddr_ll_print(void *obj)
{
    lbip_printaddr("", &keyof(obj)->addr, "");
}
