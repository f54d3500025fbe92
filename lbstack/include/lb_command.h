// The command dispatcher, and the header through which it reaches every configuration object. It
// applies ADD, RM, GET and SET to keyed objects and reaps removed ones; it knows nothing of what
// the objects mean. Commands run on the command thread alone.
#pragma once

#include "lb_entry.h"
#include "lb_grace.h"
#include "lb_linkedlist.h"

#include "prot/command.h"

// A block inside an object: what GET reads and ADD and SET write. `data` is null where an object
// has no such block, and aligned to 8 otherwise, because others read its words while they are
// written.
struct lbcmd_objaccess_s {
    lb_u32_t len;
    void *data;
};
using lbcmd_objaccess_t = lbcmd_objaccess_s;

// The first member of every configuration object. Callbacks run on the command thread, without a
// lock, except `reap`.
struct lbcmd_objhdr_s {
    lbll_node_t cmdlist; // in the tree's command list; after RM in the reap list
    lbcmd_key_t key;
    lbcmd_objaccess_t addable;
    lbcmd_objaccess_t getable;
    lbcmd_objaccess_t setable;
    lb_timeval_t rmtimestamp;
    // Creates a child: an answer code, and the child through `newobj`. The blocks are copies of
    // what the command buffer holds, at any alignment, and as long as the key's kind of object
    // wants; what the child changes in them is what the object will hold. Null where there are no
    // children.
    int (*addchild)(lbcmd_key_t *key, lbcmd_objhdr_t *parent, void *addable, void *setable,
                    lbcmd_objhdr_t **newobj);
    // Detaches the object from its parent: an answer code. Its memory stays.
    int (*remove)(lbcmd_objhdr_t *obj);
    // Refreshes the readable block before a GET; may be null.
    int (*get)(lbcmd_objhdr_t *obj);
    // Applies the settable block after ADD and SET; may be null.
    int (*set)(lbcmd_objhdr_t *obj);
    // Frees the object if it is `age_s` seconds old enough and its grace has passed: non-zero when
    // it did. Timer thread, under the reap list's lock. Null for objects that are never reaped.
    int (*reap)(lbcmd_objhdr_t *obj, int age_s);
    lb_grace_t grace; // when it was removed, or last seen in use
    // The dispatcher's own.
    lbcmd_objhdr_t *_nextinindex; // under the command list's lock
    lb_u32_t _children; // how many objects a GET lists, while no key is odd; command thread
};

// What the dispatcher must know of a key tree; one row per key type.
struct lbcmd_func_s {
    lbll_select_fn llselect;      // the command list's select: the object has this key
    lbll_select_fn llchildfilter; // filter: the object is a direct child of this key
    lbll_print_fn llprint;
    // The parent's key: 0, or non-zero for a root key (answer_rc is set then).
    int (*calcparent)(lbcmd_buf_t *buffer, lbcmd_key_t *parent);
    int (*keycheck)(lbcmd_key_t *key); // 0 if the key is well-formed
    void (*printkey)(lbcmd_key_t *key);
    lbll_list_t *cmdlist;
    // The sizes of the blocks of the kind of object that the key names; zeros for no kind.
    void (*blocksizes)(lbcmd_key_t *key, lb_u32_t *addlen, lb_u32_t *setlen);
    lb_u32_t (*keyhash)(const lbcmd_key_t *key); // equal for keys that llselect takes for equal
    // Turns the key of an object into that of a second one that counts it among its children: 1,
    // or 0 without one. May be null.
    int (*calcreferred)(lbcmd_key_t *key);
    // 1 if llchildfilter may see other parents or children in the key than calcparent does.
    int (*iskeyodd)(const lbcmd_key_t *key);
};
using lbcmd_func_t = lbcmd_func_s;
extern lbcmd_func_t cmdfuncs[LBCMD_KEYTYPE_MAXIMUM]; // row 0 is unused

[[nodiscard]] int lbcmd_init(); // 0, or 1
int lbcmd_exit();               // 0, or the sum of what went wrong
// Reaps removed objects, and frees what waits for nothing but grace. Timer thread.
void lbcmd_timer_entry();
// Prints one line for a buffer.
void lbcmd_dbg_printbuf(lbcmd_buf_t *buffer);

// The object of a key, or null. `keytype` is 1 or 2.
[[nodiscard]] lbcmd_objhdr_t *lbcmd_lookup(int keytype, lbcmd_key_t *key);

// Fills the common part of a new, zeroed object.
void lbcmd_objhdr_init(lbcmd_objhdr_t *hdr, const lbcmd_key_t *key);
