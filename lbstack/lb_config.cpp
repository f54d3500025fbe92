// The configuration key tree: what a configuration key names, and which object is whose child. It
// owns the tree's row in the dispatcher's table; the command list itself lives in the executor.
//
// The functions only look at keys. Those that are list callbacks run under the command list's
// lock; a key never changes while its object is on the list.

#include "lb_config.h"

#include "lb_executor.h"
#include "lb_ip.h"
#include "lb_log.h"
#include "lb_utils.h"

namespace
{

const lbcfg_key_t *keyof(const void *obj)
{
    return &static_cast<const lbcmd_objhdr_t *>(obj)->key.cfg;
}

bool isempty(const lbip_addr_t *addr)
{
    return lbip_isaddrvalid(addr) == LBIP_VALID_EMPTY;
}

void clearaddr(lbip_addr_t *addr)
{
    os_memset(addr, 0, sizeof(*addr));
}

int _lbcfg_ll_select(void *vkey, void *vobj)
{
    const auto *key = static_cast<const lbcfg_key_t *>(vkey);
    const lbcfg_key_t *own = keyof(vobj);
    return lbip_isaddrequal(&key->cluster, &own->cluster) && key->port == own->port &&
                   key->rule == own->rule && lbip_isaddrequal(&key->server, &own->server)
               ? LBLL_FILTER_YES
               : 0;
}

int _lbcfg_ll_childfilter(void *vkey, void *vobj)
{
    const auto *key = static_cast<const lbcfg_key_t *>(vkey);
    const lbcfg_key_t *own = keyof(vobj);
    const _lbcfg_keytype_e kind = _lbcfg_keytype(own);
    const bool samecluster = lbip_isaddrequal(&key->cluster, &own->cluster) != 0;
    const bool sameport = samecluster && key->port == own->port;
    bool ischild = false;
    switch (_lbcfg_keytype(key)) {
    case LBCFG_KEYTYPE_EXECUTOR:
        ischild = kind == LBCFG_KEYTYPE_CLUSTER || kind == LBCFG_KEYTYPE_HEARTBEAT;
        break;
    case LBCFG_KEYTYPE_CLUSTER: ischild = kind == LBCFG_KEYTYPE_PORT && samecluster; break;
    case LBCFG_KEYTYPE_PORT:
        ischild = (kind == LBCFG_KEYTYPE_RULE || kind == LBCFG_KEYTYPE_SERVER) && sameport;
        break;
    case LBCFG_KEYTYPE_RULE:
        ischild = kind == LBCFG_KEYTYPE_USESERVER && sameport && key->rule == own->rule;
        break;
    case LBCFG_KEYTYPE_SERVER:
        // A server counts its use-servers as children, so it can't go while a rule uses it.
        ischild = kind == LBCFG_KEYTYPE_USESERVER && sameport &&
                  lbip_isaddrequal(&key->server, &own->server) != 0;
        break;
    case LBCFG_KEYTYPE_UNKNOWN:
    case LBCFG_KEYTYPE_USESERVER:
    case LBCFG_KEYTYPE_HEARTBEAT: break;
    }
    return ischild ? LBLL_FILTER_YES : 0;
}

void _lbcfg_printkey(lbcmd_key_t *key)
{
    lbip_printaddr("", &key->cfg.cluster, "");
    os_print("/%d/%d/", key->cfg.port, key->cfg.rule);
    lbip_printaddr("", &key->cfg.server, "");
}

void _lbcfg_ll_print(void *vobj)
{
    _lbcfg_printkey(&static_cast<lbcmd_objhdr_t *>(vobj)->key);
}

int _lbcfg_calcparent(lbcmd_buf_t *buffer, lbcmd_key_t *parent)
{
    const lbcfg_key_t *key = &buffer->hdr.key.cfg;
    if (isempty(&key->cluster)) {
        LB_LOG(LB_LOG_CONFIG | LB_LOG_EVENT, "no parent of executor\n");
        buffer->hdr.answer_rc = LBCMD_RC_NOPARENT;
        return 1;
    }
    if (key->port == 0) {
        clearaddr(&parent->cfg.cluster);
        clearaddr(&parent->cfg.server);
        return 0;
    }
    if (!isempty(&key->server)) {
        clearaddr(&parent->cfg.server);
    } else if (key->rule != 0) {
        parent->cfg.rule = 0;
    } else {
        parent->cfg.port = 0;
    }
    return 0;
}

int _lbcfg_keycheck(lbcmd_key_t *key)
{
    return lbip_isaddrvalid(&key->cfg.cluster) == LBIP_VALID_NO ? 1 : 0;
}

// By the tests that choose the parent and, in the parent, the kind of child: a malformed server
// address leads to a server here, while _lbcfg_keytype() may not see it.
void _lbcfg_blocksizes(lbcmd_key_t *vkey, lb_u32_t *addlen, lb_u32_t *setlen)
{
    const lbcfg_key_t *key = &vkey->cfg;
    *addlen = 0;
    *setlen = 0;
    if (key->port == 0) {
        if (isempty(&key->server)) {
            *addlen = sizeof(lbclu_addable_t);
            *setlen = sizeof(lbclu_setable_t);
        } else {
            *setlen = sizeof(lbha_hb_setable_t);
        }
    } else if (key->rule != 0 && isempty(&key->server)) {
        *addlen = sizeof(lbrul_addable_t);
        *setlen = sizeof(lbrul_setable_t);
    } else if (key->rule != 0) {
        *addlen = sizeof(lbusrv_addable_t);
        *setlen = sizeof(lbusrv_setable_t);
    } else if (isempty(&key->server)) {
        *addlen = sizeof(lbport_addable_t);
        *setlen = sizeof(lbport_setable_t);
    } else {
        *addlen = sizeof(lbsrv_addable_t);
        *setlen = sizeof(lbsrv_setable_t);
    }
}

lb_u32_t _lbcfg_keyhash(const lbcmd_key_t *vkey)
{
    const lbcfg_key_t *key = &vkey->cfg;
    lb_u32_t hash = lb_hashstep(0, lbip_hash(&key->cluster));
    hash = lb_hashstep(hash, static_cast<lb_u32_t>(key->port) << 16U | key->rule);
    return lb_hashstep(hash, lbip_hash(&key->server));
}

// A use-server counts for its server as well as for its rule.
int _lbcfg_calcreferred(lbcmd_key_t *key)
{
    if (_lbcfg_keytype(&key->cfg) != LBCFG_KEYTYPE_USESERVER) {
        return 0;
    }
    key->cfg.rule = 0;
    return 1;
}

int _lbcfg_iskeyodd(const lbcmd_key_t *key)
{
    return lbip_isaddrodd(&key->cfg.cluster) | lbip_isaddrodd(&key->cfg.server);
}

} // namespace

int lbcfg_init()
{
    lbll_list_t *cmdlist = &lbexecutor->cfgcmdlist;
    cmdfuncs[LBCMD_KEYTYPE_CONFIG] = {
        .llselect = _lbcfg_ll_select,
        .llchildfilter = _lbcfg_ll_childfilter,
        .llprint = _lbcfg_ll_print,
        .calcparent = _lbcfg_calcparent,
        .keycheck = _lbcfg_keycheck,
        .printkey = _lbcfg_printkey,
        .cmdlist = cmdlist,
        .blocksizes = _lbcfg_blocksizes,
        .keyhash = _lbcfg_keyhash,
        .calcreferred = _lbcfg_calcreferred,
        .iskeyodd = _lbcfg_iskeyodd,
    };
    const int rc = lbll_initlist(cmdlist, 0, _lbcfg_ll_select, _lbcfg_ll_print);
    if (rc == 0) {
        lbll_setrank(cmdlist, LB_RANK_COMMAND);
    }
    return rc;
}

int lbcfg_exit()
{
    return lbll_cleanuplist(&lbexecutor->cfgcmdlist);
}

_lbcfg_keytype_e _lbcfg_keytype(const lbcfg_key_t *key)
{
    const bool port = key->port != 0;
    const bool rule = key->rule != 0;
    const bool server = key->server.version != 0;
    _lbcfg_keytype_e kind = LBCFG_KEYTYPE_UNKNOWN;
    if (key->cluster.version == 0) {
        if (!port && !rule && !server) {
            kind = LBCFG_KEYTYPE_EXECUTOR;
        }
    } else if (port) {
        if (rule) {
            kind = server ? LBCFG_KEYTYPE_USESERVER : LBCFG_KEYTYPE_RULE;
        } else {
            kind = server ? LBCFG_KEYTYPE_SERVER : LBCFG_KEYTYPE_PORT;
        }
    } else if (!rule) {
        kind = server ? LBCFG_KEYTYPE_HEARTBEAT : LBCFG_KEYTYPE_CLUSTER;
    }
    LB_LOG(LB_LOG_CONFIG, "keytype %d\n", kind);
    return kind;
}
