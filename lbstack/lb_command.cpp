// The command dispatcher: applies ADD, RM, GET and SET to keyed objects and reaps removed ones. It
// owns the table of the key trees and the life cycle that all objects share; what an object means
// is its own module's business, reached through the header that begins every object.
//
// Commands run on the command thread alone, the reaper on the timer thread. Each list operation
// locks for itself, so no lock is held while an object's method runs; only the reaper keeps the
// reap list's lock, the lowest of all, while it calls `reap`. An object that was removed is never
// freed here.

#include "lb_command.h"

#include "lb_config.h"
#include "lb_executor.h"
#include "lb_interface.h"
#include "lb_log.h"
#include "lb_srvset.h"
#include "lb_utils.h"
#include "lb_words.h"

lbcmd_func_t cmdfuncs[LBCMD_KEYTYPE_MAXIMUM];

namespace
{

lb_u32_t commandcount; // command thread

// The blocks of an ADD, out of the payload: there they may overlap when the sizes of the request
// lie, and a method that settles a value in one would change the other.
constexpr int BLOCKMAX = 1024;
struct blocks_t {
    alignas(8) lb_u8_t add[BLOCKMAX];
    alignas(8) lb_u8_t set[BLOCKMAX];
    lb_u32_t addlen;
    lb_u32_t setlen;
};

constexpr int CHILDREN_MAX = LBCMD_PAYLOADSIZE / static_cast<int>(sizeof(lbcmd_key_t));

struct name_t {
    int value;
    const char *name;
};
constexpr name_t ACTIONS[] = {
    {LBCMD_ACTION_ADD, "ADD"},
    {LBCMD_ACTION_RM, "RM"},
    {LBCMD_ACTION_GET, "GET"},
    {LBCMD_ACTION_SET, "SET"},
};
// HASCHILD is traced as "undef".
constexpr name_t ANSWERS[] = {
    {LBCMD_RC_SUCCESS, "SUCCESS"},     {LBCMD_RC_NOTRECOGNIZED, "NOTRECOGNIZED"},
    {LBCMD_RC_NOPARENT, "NOPARENT"},   {LBCMD_RC_ALREADYEXISTS, "ALREADYEXISTS"},
    {LBCMD_RC_PARENTDNE, "PARENTDNE"}, {LBCMD_RC_OBJNOTFOUND, "OBJNOTFOUND"},
    {LBCMD_RC_FAILURE, "FAILURE"},     {LBCMD_RC_BADKEYTYPE, "BADKEYTYPE"},
    {LBCMD_RC_PROTOONLY, "PROTOONLY"},
};

template <std::size_t N> const char *nameof(const name_t (&names)[N], int value)
{
    for (const name_t &candidate : names) {
        if (candidate.value == value) {
            return candidate.name;
        }
    }
    return "undef";
}

bool isknowntree(int keytype)
{
    return keytype == LBCMD_KEYTYPE_CONFIG || keytype == LBCMD_KEYTYPE_IFACE;
}

// Every object that was added, by its key, under its tree's command list's lock: with thousands of
// them, walking that list for each command would take most of the time. The list tells their order.
constexpr lb_u32_t INDEX_SIZE = 4096; // a power of 2
lbcmd_objhdr_t *keyindex[LBCMD_KEYTYPE_MAXIMUM][INDEX_SIZE];
// How many objects have odd keys, which may be counted by the wrong parent; command thread.
lb_u32_t oddkeys[LBCMD_KEYTYPE_MAXIMUM];

lbcmd_objhdr_t **indexplace(const lbcmd_func_t *row, const lbcmd_key_t *key)
{
    return &keyindex[row - cmdfuncs][row->keyhash(key) & (INDEX_SIZE - 1)];
}

lbcmd_objhdr_t *selectobj_nl(lbcmd_func_t *row, lbcmd_key_t *key) LB_NEEDS(row->cmdlist)
{
    for (lbcmd_objhdr_t *obj = *indexplace(row, key); obj != nullptr; obj = obj->_nextinindex) {
        if (row->llselect(key, obj) != 0) {
            return obj;
        }
    }
    // The tree's root was there first; nobody adds it.
    void *root = nullptr;
    const bool isroot = lbll_selectn_nl(row->cmdlist, &root, 1, lbll_filter_true, nullptr) != 0 &&
                        row->llselect(key, root) != 0;
    return isroot ? static_cast<lbcmd_objhdr_t *>(root) : nullptr;
}

lbcmd_objhdr_t *selectobj(lbcmd_func_t *row, lbcmd_key_t *key)
{
    lbll_guard held(row->cmdlist);
    return selectobj_nl(row, key);
}

// Those who list an object have one more (1) or one less (-1).
void countchild_nl(lbcmd_func_t *row, lbcmd_objhdr_t *child, lbcmd_key_t *parent, int change)
    LB_NEEDS(row->cmdlist)
{
    lbcmd_key_t referred = child->key;
    const bool isreferred = row->calcreferred != nullptr && row->calcreferred(&referred) != 0;
    for (lbcmd_key_t *key : {parent, isreferred ? &referred : nullptr}) {
        lbcmd_objhdr_t *obj = key != nullptr ? selectobj_nl(row, key) : nullptr;
        if (obj != nullptr) {
            obj->_children += static_cast<lb_u32_t>(change);
        }
    }
}

void addtoindex(lbcmd_func_t *row, lbcmd_objhdr_t *obj, lbcmd_key_t *parent)
{
    lbll_guard held(row->cmdlist);
    lbcmd_objhdr_t **place = indexplace(row, &obj->key);
    obj->_nextinindex = *place;
    *place = obj;
    countchild_nl(row, obj, parent, 1);
    oddkeys[row - cmdfuncs] += static_cast<lb_u32_t>(row->iskeyodd(&obj->key));
}

// Does nothing with a root, which is not there. `buffer` names the object.
void takefromindex(lbcmd_buf_t *buffer, lbcmd_func_t *row, lbcmd_objhdr_t *obj)
{
    lbll_guard held(row->cmdlist);
    lbcmd_objhdr_t **at = indexplace(row, &obj->key);
    while (*at != nullptr && *at != obj) {
        at = &(*at)->_nextinindex;
    }
    lbcmd_key_t parent = obj->key;
    if (*at != nullptr && row->calcparent(buffer, &parent) == 0) {
        *at = obj->_nextinindex;
        countchild_nl(row, obj, &parent, -1);
        oddkeys[row - cmdfuncs] -= static_cast<lb_u32_t>(row->iskeyodd(&obj->key));
    }
}

// The direct children, in the order of their list, at most `capacity`: how many. The walk ends with
// the last of them; an odd key makes it go to the end.
int selectchildren(lbcmd_func_t *row, lbcmd_objhdr_t *obj, void **out, int capacity)
{
    const auto known = static_cast<int>(obj->_children);
    const bool iscounted = oddkeys[row - cmdfuncs] == 0 && known < capacity;
    const int wanted = iscounted ? known : capacity;
    return wanted == 0 ? 0 : lbll_selectn(row->cmdlist, out, wanted, row->llchildfilter, &obj->key);
}

// Copies the blocks that the new object will want out of the payload: 0, or 1 if they leave it.
int takeblocks(const lbcmd_buf_t *buffer, lbcmd_func_t *row, lbcmd_key_t *key, blocks_t *blocks)
{
    constexpr lb_u32_t room = LBCMD_PAYLOADSIZE;
    const lb_u32_t setoffset = buffer->hdr.addsize;
    row->blocksizes(key, &blocks->addlen, &blocks->setlen);
    if (blocks->addlen > BLOCKMAX || blocks->setlen > BLOCKMAX || setoffset > room ||
        blocks->setlen > room - setoffset) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_EVENT, "blocks of %u and %u bytes leave the payload at %u\n",
               blocks->addlen, blocks->setlen, setoffset);
        return 1;
    }
    os_memcpy(blocks->add, buffer->_x, blocks->addlen);
    os_memcpy(blocks->set, buffer->_x + setoffset, blocks->setlen);
    return 0;
}

// Stores a block that readers of a linked object may be looking at.
void storeblock(const lbcmd_objaccess_t *to, const lb_u8_t *from, lb_u32_t len)
{
    if (to->data != nullptr) {
        lb_store_shared(to->data, from, to->len < len ? to->len : len);
    }
}

// The child's own initialisation has stored the key already, which others compare by now.
void settlechild(lbcmd_bufhdr_t *hdr, lbcmd_func_t *row, lbcmd_objhdr_t *newobj,
                 lbcmd_key_t *parentkey, const blocks_t *blocks)
{
    storeblock(&newobj->addable, blocks->add, blocks->addlen);
    storeblock(&newobj->setable, blocks->set, blocks->setlen);
    if (newobj->set != nullptr) {
        (void)newobj->set(newobj); // what it refuses it logs; the object is there all the same
    }
    if (lbll_addnode_rhs(row->cmdlist, newobj) != 0) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_FAILURE, "add new obj to command list failed\n");
        hdr->answer_rc = LBCMD_RC_FAILURE;
        return;
    }
    addtoindex(row, newobj, parentkey);
}

lb_u16_t makechild(lbcmd_buf_t *buffer, lbcmd_func_t *row, lbcmd_objhdr_t *parent)
{
    lbcmd_bufhdr_t *hdr = &buffer->hdr;
    blocks_t blocks;
    if (takeblocks(buffer, row, &hdr->key, &blocks) != 0) {
        return LBCMD_RC_FAILURE;
    }
    lbcmd_objhdr_t *newobj = nullptr;
    hdr->answer_rc =
        static_cast<lb_u16_t>(parent->addchild(&hdr->key, parent, blocks.add, blocks.set, &newobj));
    if (newobj == nullptr) {
        if (hdr->answer_rc == LBCMD_RC_SUCCESS) {
            LB_LOG(LB_LOG_COMMAND | LB_LOG_FAILURE, "command succeeded but no new obj present\n");
            hdr->answer_rc = LBCMD_RC_FAILURE;
        }
        return hdr->answer_rc;
    }
    settlechild(hdr, row, newobj, &parent->key, &blocks);
    return hdr->answer_rc;
}

void _lbcmd_add(lbcmd_buf_t *buffer)
{
    lbcmd_bufhdr_t *hdr = &buffer->hdr;
    lbcmd_func_t *row = &cmdfuncs[hdr->keytype];
    hdr->answer_rc = LBCMD_RC_FAILURE;
    if (hdr->getsize != 0 || hdr->listsize != 0) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_EVENT, "received get or list on add\n");
        return;
    }
    lbcmd_key_t parentkey = hdr->key;
    if (row->calcparent(buffer, &parentkey) != 0) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_EVENT, "root key -- no parent -- ADD invalid\n");
        return;
    }
    if (selectobj(row, &hdr->key) != nullptr) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_EVENT, "key already exists\n");
        hdr->answer_rc = LBCMD_RC_ALREADYEXISTS;
        return;
    }
    lbcmd_objhdr_t *parent = selectobj(row, &parentkey);
    if (parent == nullptr) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_EVENT, "parent does not exist\n");
        hdr->answer_rc = LBCMD_RC_PARENTDNE;
        return;
    }
    if (parent->addchild == nullptr) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_FAILURE, "No addchild method defined\n");
        return;
    }
    hdr->answer_rc = makechild(buffer, row, parent);
}

void queueforreaping(lbcmd_objhdr_t *obj)
{
    obj->grace = lb_grace_now();
    LB_LOG(LB_LOG_COMMAND, "adding %p to reap list\n", static_cast<void *>(obj));
    if (lbll_addnode_rhs(&lbexecutor->cmdreaplist, obj) != 0) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_FAILURE, "add obj to reap list failed\n");
    }
}

void _lbcmd_rm(lbcmd_buf_t *buffer)
{
    lbcmd_bufhdr_t *hdr = &buffer->hdr;
    lbcmd_func_t *row = &cmdfuncs[hdr->keytype];
    lbcmd_objhdr_t *obj = selectobj(row, &hdr->key);
    if (obj == nullptr) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_EVENT, "obj not found\n");
        hdr->answer_rc = LBCMD_RC_OBJNOTFOUND;
        return;
    }
    void *child = nullptr;
    if (selectchildren(row, obj, &child, 1) > 0) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_EVENT, "obj still has child[ren]\n");
        hdr->answer_rc = LBCMD_RC_HASCHILD;
        return;
    }
    hdr->key = obj->key;
    takefromindex(buffer, row, obj);
    if (int rc = lbll_rmnode(row->cmdlist, obj); rc != 0) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_FAILURE, "rm obj from command list %d failed, continuing\n",
               rc);
    }
    if (obj->remove == nullptr) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_FAILURE, "no rm callback registered\n");
        hdr->answer_rc = LBCMD_RC_FAILURE;
        return;
    }
    (void)os_gettime(&obj->rmtimestamp);
    // An object without `reap` may be freed by others as soon as `remove` has let go of it.
    const bool isreaped = obj->reap != nullptr;
    LB_LOG(LB_LOG_COMMAND, "calling remove\n");
    hdr->answer_rc = static_cast<lb_u16_t>(obj->remove(obj));
    if (isreaped) {
        queueforreaping(obj);
    }
}

// Appends a block to the payload: its length.
lb_u16_t layblock(lbcmd_buf_t *buffer, lb_u32_t offset, const lbcmd_objaccess_t *block)
{
    if (block->data == nullptr) {
        return 0;
    }
    lb_load_shared(buffer->_x + offset, block->data, block->len);
    return static_cast<lb_u16_t>(block->len);
}

void _lbcmd_get(lbcmd_buf_t *buffer)
{
    lbcmd_bufhdr_t *hdr = &buffer->hdr;
    lbcmd_func_t *row = &cmdfuncs[hdr->keytype];
    lbcmd_objhdr_t *obj = selectobj(row, &hdr->key);
    if (obj == nullptr) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_EVENT, "obj not found\n");
        hdr->answer_rc = LBCMD_RC_OBJNOTFOUND;
        return;
    }
    hdr->key = obj->key;
    if (obj->get != nullptr) {
        (void)obj->get(obj); // what it could not refresh stays as it was
    }
    lb_u32_t offset = 0;
    hdr->addsize = layblock(buffer, offset, &obj->addable);
    offset += hdr->addsize;
    hdr->setsize = layblock(buffer, offset, &obj->setable);
    offset += hdr->setsize;
    hdr->getsize = layblock(buffer, offset, &obj->getable);
    offset += hdr->getsize;

    void *children[CHILDREN_MAX];
    const int capacity = static_cast<int>((LBCMD_PAYLOADSIZE - offset) / sizeof(lbcmd_key_t));
    const int count = selectchildren(row, obj, children, capacity);
    for (int i = 0; i < count; i++) {
        // Only this thread removes objects, so the children outlive the list's lock.
        os_memcpy(buffer->_x + offset, &static_cast<lbcmd_objhdr_t *>(children[i])->key,
                  sizeof(lbcmd_key_t));
        offset += sizeof(lbcmd_key_t);
    }
    hdr->listsize = static_cast<lb_u16_t>(count * static_cast<int>(sizeof(lbcmd_key_t)));
    hdr->answer_rc = LBCMD_RC_SUCCESS;
}

void _lbcmd_set(lbcmd_buf_t *buffer)
{
    lbcmd_bufhdr_t *hdr = &buffer->hdr;
    lbcmd_func_t *row = &cmdfuncs[hdr->keytype];
    lbcmd_objhdr_t *obj = selectobj(row, &hdr->key);
    if (obj == nullptr) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_EVENT, "obj not found\n");
        hdr->answer_rc = LBCMD_RC_OBJNOTFOUND;
        return;
    }
    hdr->key = obj->key;
    const lbcmd_objaccess_t *setable = &obj->setable;
    if (setable->data != nullptr && setable->len == hdr->setsize && hdr->addsize == 0 &&
        hdr->getsize == 0 && hdr->listsize == 0) {
        lb_store_shared(setable->data, buffer->_x, setable->len);
        hdr->answer_rc = LBCMD_RC_SUCCESS;
    } else {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_EVENT,
               "cannot set object: no setables or setable size mismatch %p %d==%d %d %d %d\n",
               setable->data, static_cast<int>(setable->len), hdr->setsize, hdr->addsize == 0,
               hdr->getsize == 0, hdr->listsize == 0);
        hdr->answer_rc = LBCMD_RC_FAILURE;
    }
    if (obj->set != nullptr) {
        (void)obj->set(obj); // the answer tells of the block alone
    }
}

void clearsizes(lbcmd_bufhdr_t *hdr)
{
    hdr->addsize = 0;
    hdr->setsize = 0;
    hdr->getsize = 0;
    hdr->listsize = 0;
}

void execute(lbcmd_buf_t *buffer)
{
    lbcmd_bufhdr_t *hdr = &buffer->hdr;
    if (hdr->lbversion != LBCMD_VERSION) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_EVENT, "cpserver/lbstackd version mismatch, %x != %x\n",
               hdr->lbversion, LBCMD_VERSION);
        hdr->answer_rc = LBCMD_RC_FAILURE;
        return;
    }
    if (!isknowntree(hdr->keytype) || cmdfuncs[hdr->keytype].keycheck(&hdr->key) != 0) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_EVENT, "command has invalid key or keytype\n");
        hdr->answer_rc = LBCMD_RC_FAILURE;
        return;
    }
    switch (hdr->action) {
    case LBCMD_ACTION_ADD:
        _lbcmd_add(buffer);
        clearsizes(hdr);
        return;
    case LBCMD_ACTION_RM:
        _lbcmd_rm(buffer);
        clearsizes(hdr);
        return;
    case LBCMD_ACTION_GET: _lbcmd_get(buffer); return;
    case LBCMD_ACTION_SET:
        _lbcmd_set(buffer);
        clearsizes(hdr);
        return;
    }
    LB_LOG(LB_LOG_COMMAND | LB_LOG_EVENT, "command not recognized\n");
    hdr->answer_rc = LBCMD_RC_NOTRECOGNIZED;
}

void tracebuf(lbcmd_buf_t *buffer, const char *arrow)
{
    if (lb_log_enabled(LB_LOG_COMMAND)) {
        lb_log_prefix();
        os_print("lbcmd [%u]%s ", commandcount, arrow);
        lbcmd_dbg_printbuf(buffer);
    }
}

// The object's age since its removal.
int ageof(const lbcmd_objhdr_t *obj, lb_timeval_t now)
{
    return lb_timediff_s(now, obj->rmtimestamp);
}

// Where the clock was set back ages start again, so that no object waits until the clock has caught
// up. All of them at once: one after the other, each would wait for its predecessors, too.
void restartages(void **objs, int count, lb_timeval_t now)
{
    for (int i = 0; i < count; i++) {
        auto *obj = static_cast<lbcmd_objhdr_t *>(objs[i]);
        if (ageof(obj, now) < 0) {
            obj->rmtimestamp = now;
        }
    }
}

void reapobjects()
{
    lb_timeval_t now;
    (void)os_gettime(&now);
    lbll_list_t *reaplist = &lbexecutor->cmdreaplist;
    lbll_guard held(reaplist);
    void *objs[LB_SNAPSHOT_MAX];
    const int count = lbll_selectn_nl(reaplist, objs, LB_SNAPSHOT_MAX, lbll_filter_true, nullptr);
    LB_LOG(LB_LOG_COMMAND | LB_LOG_REAP, "reaping %d nodes\n", count);
    restartages(objs, count, now);
    for (int i = 0; i < count; i++) {
        auto *obj = static_cast<lbcmd_objhdr_t *>(objs[i]);
        const int age = ageof(obj, now);
        if (lbll_rmnode_nl(reaplist, obj) != 0) {
            return; // logged by the list
        }
        if (obj->reap(obj, age) != 0) {
            LB_LOG(LB_LOG_COMMAND | LB_LOG_REAP, "node %p reaped\n", objs[i]);
            continue;
        }
        LB_LOG(LB_LOG_COMMAND | LB_LOG_REAP, "node %p not reaped\n", objs[i]);
        // Those behind it were removed later.
        (void)lbll_addnode_lhs_nl(reaplist, obj); // unlinked above, so it can't be refused
        return;
    }
}

} // namespace

int lbcmd_init()
{
    os_memset(cmdfuncs, 0, sizeof(cmdfuncs));
    os_memset(keyindex, 0, sizeof(keyindex));
    os_memset(oddkeys, 0, sizeof(oddkeys));
    if (lbcfg_init() != 0) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_FAILURE, "init failed\n");
        return 1;
    }
    lb_undo undo_cfg([] { (void)lbcfg_exit(); });
    if (lbiface_init() != 0) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_FAILURE, "init failed\n");
        return 1;
    }
    lb_undo undo_iface([] { (void)lbiface_exit(); });
    static_assert(offsetof(lbcmd_objhdr_t, cmdlist) == 0);
    if (lbll_initlist(&lbexecutor->cmdreaplist, 0, lbll_filter_true, nullptr) != 0) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_FAILURE, "init failed\n");
        return 1;
    }
    lbll_setrank(&lbexecutor->cmdreaplist, LB_RANK_REAP);
    undo_iface.dismiss();
    undo_cfg.dismiss();
    return 0;
}

int lbcmd_exit()
{
    const int reap = lbll_cleanuplist(&lbexecutor->cmdreaplist);
    const int cfg = lbcfg_exit();
    const int iface = lbiface_exit();
    return reap + cfg + iface;
}

void lbcmd_timer_entry()
{
    reapobjects();
    lb_grace_timer_entry();
}

void lbcmd_dbg_printbuf(lbcmd_buf_t *buffer)
{
    lbcmd_bufhdr_t *hdr = &buffer->hdr;
    os_print("cmdbuf: key: ");
    if (isknowntree(hdr->keytype)) {
        cmdfuncs[hdr->keytype].printkey(&hdr->key);
    } else {
        os_print("unknown key");
    }
    os_print(" action:%d(%s) sizes: add=%d set=%d get=%d list=%d(%d) rc:%d(%s)\n", hdr->action,
             nameof(ACTIONS, hdr->action), hdr->addsize, hdr->setsize, hdr->getsize, hdr->listsize,
             hdr->listsize / static_cast<int>(sizeof(lbcmd_key_t)), hdr->answer_rc,
             nameof(ANSWERS, hdr->answer_rc));
}

lbcmd_objhdr_t *lbcmd_lookup(int keytype, lbcmd_key_t *key)
{
    return isknowntree(keytype) ? selectobj(&cmdfuncs[keytype], key) : nullptr;
}

void lbcmd_objhdr_init(lbcmd_objhdr_t *hdr, const lbcmd_key_t *key)
{
    hdr->key = *key;
}

int lbcmd_entry(lbcmd_buf_t *buffer)
{
    lb_grace_inside inside;
    commandcount++;
    tracebuf(buffer, "-->");
    execute(buffer);
    tracebuf(buffer, "<--");
    return buffer->hdr.answer_rc;
}
