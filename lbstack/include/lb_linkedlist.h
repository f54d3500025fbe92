// The one list type of the stack: intrusive, doubly linked, each head with its own mutex. An object
// embeds a node for each list that it can be on; the list finds the node by a fixed offset.
//
// The plain functions take the list's mutex; the _nl ("no lock") ones want it held by the caller,
// or the list out of other threads' reach. Nothing here allocates. Results: 0 done, 1 refused, 2
// the node is linked already; a mutex's error code is passed through.
#pragma once

#include "lb_annotations.h"
#include "lb_lockrank.h"
#include "lb_types.h"

#include "os.h"

// What a select callback or filter answers: a set of these bits.
constexpr int LBLL_FILTER_YES = 0x1;  // the object matches
constexpr int LBLL_FILTER_STOP = 0x2; // the walk ends after this object

// Callbacks run under the list's lock: they look, they lock nothing but a higher level, they
// neither send nor format at length.
using lbll_select_fn = int (*)(void *key, void *obj);
using lbll_before_fn = int (*)(void *newobj, void *listobj); // non-zero: newobj goes before listobj
using lbll_print_fn = void (*)(void *obj);

enum lbll_list_flags_e : lb_u16_t {
    LBLL_FLAG_UNINITIALIZED = 0,
    LBLL_FLAG_READY = 1,
};

// On no list: all three are null. Zero it when the object is made.
struct lbll_node_s {
    lbll_list_t *_list;
    lbll_node_t *_left;
    lbll_node_t *_right;
};

struct LB_CAPABILITY("mutex") lbll_list_s {
    lbll_node_t *_lhs;
    lbll_node_t *_rhs;
    lbll_select_fn _select;
    lbll_print_fn _print;
    lb_s32_t _size;
    lb_u16_t _offset;
    lb_u16_t _status; // lbll_list_flags_e
    lblock _osopaquelock;
    lb_u8_t _rank; // lb_lockrank_e, set by lbll_setrank() after initialisation
};

// `offset` is the node's offset in its object (lbll_obj2offset, or offsetof). 0; 1 for a null list
// or a mutex that could not be made.
[[nodiscard]] int lbll_initlist(lbll_list_t *list, int offset, lbll_select_fn select,
                                lbll_print_fn print);
// Says which level the list's lock has. Before the list is shared.
void lbll_setrank(lbll_list_t *list, lb_lockrank_e rank);
// Retires an empty list: the mutex-destroy result, or 1 if it has members or is not ready.
[[nodiscard]] int lbll_rmlist(lbll_list_t *list);
// Detaches every member (which belong to their owners) and retires the list: 0, or 1.
[[nodiscard]] int lbll_cleanuplist(lbll_list_t *list);

[[nodiscard]] int lbll_addnode_lhs(lbll_list_t *list, void *obj) LB_EXCLUDES(*list);
[[nodiscard]] int lbll_addnode_lhs_nl(lbll_list_t *list, void *obj) LB_NEEDS(*list);
[[nodiscard]] int lbll_addnode_rhs(lbll_list_t *list, void *obj) LB_EXCLUDES(*list);
[[nodiscard]] int lbll_addnode_rhs_nl(lbll_list_t *list, void *obj) LB_NEEDS(*list);
[[nodiscard]] int lbll_addnode_inorder(lbll_list_t *list, void *obj, lbll_before_fn before)
    LB_EXCLUDES(*list);
[[nodiscard]] int lbll_addnode_inorder_nl(lbll_list_t *list, void *obj, lbll_before_fn before)
    LB_NEEDS(*list);
// A null list and an object of another list are broken invariants: logged, os_core(), 1.
[[nodiscard]] int lbll_rmnode(lbll_list_t *list, void *obj) LB_EXCLUDES(*list);
[[nodiscard]] int lbll_rmnode_nl(lbll_list_t *list, void *obj) LB_NEEDS(*list);

// The first member that the list's own select callback says YES to (STOP is not looked at), or
// null. The object stays on the list: know from elsewhere that it is still alive when you use it.
[[nodiscard]] void *lbll_select1(lbll_list_t *list, void *key) LB_EXCLUDES(*list);
[[nodiscard]] void *lbll_select1_nl(lbll_list_t *list, void *key) LB_NEEDS(*list);
// Up to `capacity` members that `filter` says YES to, in list order; how many.
[[nodiscard]] int lbll_selectn(lbll_list_t *list, void **out, int capacity, lbll_select_fn filter,
                               void *key) LB_EXCLUDES(*list);
[[nodiscard]] int lbll_selectn_nl(lbll_list_t *list, void **out, int capacity,
                                  lbll_select_fn filter, void *key) LB_NEEDS(*list);
// Calls `action` on every member, left to right. It must not unlink.
void lbll_iterateact_nl(lbll_list_t *list, void (*action)(void *obj)) LB_NEEDS(*list);
int lbll_filter_true(void *key, void *obj);

// The ends, without removing them; null when empty.
[[nodiscard]] void *lbll_getnode_lhs(lbll_list_t *list) LB_EXCLUDES(*list);
[[nodiscard]] void *lbll_getnode_rhs(lbll_list_t *list) LB_EXCLUDES(*list);
[[nodiscard]] void *lbll_getnode_lhs_nl(lbll_list_t *list) LB_NEEDS(*list);
[[nodiscard]] void *lbll_getnode_rhs_nl(lbll_list_t *list) LB_NEEDS(*list);

// The number of members, read without the lock: exact only for who excludes changes.
[[nodiscard]] int lbll_size(const lbll_list_t *list);

int lbll_lock(lbll_list_t *list) LB_TAKES(*list);
int lbll_unlock(lbll_list_t *list) LB_DROPS(*list);
// Locks the list that a member's node is on.
int lbll_locknode(lbll_node_t *node);
int lbll_unlocknode(lbll_node_t *node);

// The byte distance of a node from its object.
[[nodiscard]] lb_s32_t lbll_obj2offset(const void *node, const void *obj);
lbll_node_t *_lbll_obj2node(const lbll_list_t *list, void *obj);
void *_lbll_node2obj(lbll_node_t *node); // null for a null or detached node

// Checks every link and both counts under the lock: the number of problems (it stops at the first),
// each logged. For tests and for who debugs.
int _lbll_debug_consistencycheck(lbll_list_t *list);
void _lbll_debug_printlist(lbll_list_t *list, int verbose);
void _lbll_debug_printlist_rhs(lbll_list_t *list, int verbose);

// Holds a list's lock for a scope.
class LB_SCOPED lbll_guard
{
  public:
    explicit lbll_guard(lbll_list_t *list) LB_TAKES(*list) : list_(list), rc_(lbll_lock(list)) {}
    ~lbll_guard() LB_DROPS()
    {
        if (rc_ == 0) {
            (void)lbll_unlock(list_); // the list module has logged it; nothing is left to undo
        }
    }
    lbll_guard(const lbll_guard &) = delete;
    lbll_guard &operator=(const lbll_guard &) = delete;

  private:
    lbll_list_t *list_;
    int rc_;
};
