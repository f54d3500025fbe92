// The linked list. Owns nothing but the links: heads are embedded in their owners, nodes in the
// members. Entered by every thread. Each list has one mutex, not recursive: the plain functions
// take it around their _nl form. No operation takes a second lock, allocates, or frees a member.
//
// A node's `_list` and the list's `_size` are looked at without the lock (by lbll_locknode and
// lbll_size), so they are written as shared words; all else is touched under the lock only.
#include "lb_linkedlist.h"

#include "lb_log.h"
#include "lb_words.h"

constexpr lb_u64_t TRACE = LB_LOG_LIST;
constexpr lb_u64_t FAILURE = LB_LOG_LIST | LB_LOG_FAILURE;

constexpr int RC_OK = 0;
constexpr int RC_REFUSED = 1;
constexpr int RC_LINKED = 2;

// The level is taken first, so that a wrong order aborts a checking build instead of hanging it.
static int lock_quietly(lbll_list_t *list)
{
    lb_lockrank_take(list->_rank);
    const int rc = os_mutex_lock(&list->_osopaquelock);
    if (rc != 0) {
        lb_lockrank_drop(list->_rank);
    }
    return rc;
}

static int unlock_quietly(lbll_list_t *list)
{
    const int rc = os_mutex_unlock(&list->_osopaquelock);
    lb_lockrank_drop(list->_rank);
    return rc;
}

static bool is_linked(const lbll_node_t *node)
{
    return lb_peekptr(node->_list) != nullptr || node->_left != nullptr || node->_right != nullptr;
}

static void count_members(lbll_list_t *list, int change)
{
    lb_poke(list->_size, list->_size + change);
}

static void clear_node(lbll_node_t *node)
{
    node->_left = nullptr;
    node->_right = nullptr;
    lb_pokeptr(node->_list, nullptr);
}

// Puts an unlinked node to the left of a member, or at the right end (null).
static void link_before(lbll_list_t *list, lbll_node_t *node, lbll_node_t *member)
{
    lbll_node_t *left = member != nullptr ? member->_left : list->_rhs;
    node->_left = left;
    node->_right = member;
    lb_pokeptr(node->_list, list);
    if (left != nullptr) {
        left->_right = node;
    } else {
        list->_lhs = node;
    }
    if (member != nullptr) {
        member->_left = node;
    } else {
        list->_rhs = node;
    }
    count_members(list, 1);
}

int lbll_initlist(lbll_list_t *list, int offset, lbll_select_fn select, lbll_print_fn print)
{
    if (list == nullptr) {
        LB_LOG(FAILURE, "bad params\n");
        return RC_REFUSED;
    }
    const int rc = os_mutex_init(&list->_osopaquelock);
    if (rc != 0) {
        LB_LOG(FAILURE, "os_mutex_init failed, rc %d\n", rc);
        return RC_REFUSED;
    }
    list->_lhs = nullptr;
    list->_rhs = nullptr;
    list->_offset = static_cast<lb_u16_t>(offset);
    list->_select = select;
    list->_print = print;
    lb_poke(list->_size, 0);
    list->_status = LBLL_FLAG_READY;
    list->_rank = LB_RANK_NONE;
    LB_LOG(TRACE, "init %p returning success, %d\n", static_cast<void *>(list), RC_OK);
    return RC_OK;
}

void lbll_setrank(lbll_list_t *list, lb_lockrank_e rank)
{
    list->_rank = rank;
}

int lbll_rmlist(lbll_list_t *list)
{
    if (lb_peek(list->_size) != 0 || list->_lhs != nullptr || list->_rhs != nullptr) {
        LB_LOG(FAILURE, "cannot remove a non-empty list\n");
        return RC_REFUSED;
    }
    if (list->_status != LBLL_FLAG_READY) {
        LB_LOG(FAILURE, "cannot remove a non-ready list\n");
        return RC_REFUSED;
    }
    list->_status = LBLL_FLAG_UNINITIALIZED;
    const int rc = os_mutex_destroy(&list->_osopaquelock);
    if (rc != 0) {
        LB_LOG(FAILURE, "os_mutex_destroy error, rc %d\n", rc);
    }
    list->_select = nullptr;
    list->_print = nullptr;
    return rc;
}

int lbll_cleanuplist(lbll_list_t *list) LB_UNCHECKED_LOCKING
{
    if (list->_status != LBLL_FLAG_READY) {
        LB_LOG(FAILURE, "cannot cleanup a non-ready list\n");
        return RC_REFUSED;
    }
    list->_status = LBLL_FLAG_UNINITIALIZED; // first, so that a second cleanup is refused
    int rc = lock_quietly(list);
    if (rc != 0) {
        LB_LOG(FAILURE, "os_mutex_lock error, rc %d\n", rc);
        return RC_REFUSED;
    }
    lbll_node_t *node = list->_lhs;
    while (node != nullptr) {
        lbll_node_t *next = node->_right;
        clear_node(node);
        count_members(list, -1);
        node = next;
    }
    list->_lhs = nullptr;
    list->_rhs = nullptr;
    list->_select = nullptr;
    if (list->_size != 0) {
        LB_LOG(FAILURE, "cleanup list inconsistency\n");
    }
    rc = unlock_quietly(list);
    if (rc != 0) {
        LB_LOG(FAILURE, "os_mutex_unlock error, rc %d\n", rc);
    }
    rc = os_mutex_destroy(&list->_osopaquelock);
    if (rc != 0) {
        LB_LOG(FAILURE, "os_mutex_destroy error, rc %d\n", rc);
        return RC_REFUSED;
    }
    LB_LOG(TRACE, "cleanup returning success, %d\n", RC_OK);
    return RC_OK;
}

int lbll_addnode_lhs(lbll_list_t *list, void *obj) LB_UNCHECKED_LOCKING
{
    int rc = lbll_lock(list);
    if (rc != 0) {
        return rc;
    }
    rc = lbll_addnode_lhs_nl(list, obj);
    const int rc2 = lbll_unlock(list);
    return rc2 != 0 ? rc2 : rc;
}

int lbll_addnode_lhs_nl(lbll_list_t *list, void *obj)
{
    lbll_node_t *node = _lbll_obj2node(list, obj);
    if (is_linked(node)) {
        LB_LOG(FAILURE, "l,r,list ptrs not null, addnode_lhs_nl rc=%d\n", RC_LINKED);
        return RC_LINKED;
    }
    link_before(list, node, list->_lhs);
    LB_LOG(TRACE, "addnode_lhs_nl(%p,%p) returning %d\n", static_cast<void *>(list), obj, RC_OK);
    return RC_OK;
}

int lbll_addnode_rhs(lbll_list_t *list, void *obj) LB_UNCHECKED_LOCKING
{
    int rc = lbll_lock(list);
    if (rc != 0) {
        return rc;
    }
    rc = lbll_addnode_rhs_nl(list, obj);
    const int rc2 = lbll_unlock(list);
    return rc2 != 0 ? rc2 : rc;
}

int lbll_addnode_rhs_nl(lbll_list_t *list, void *obj)
{
    lbll_node_t *node = _lbll_obj2node(list, obj);
    if (is_linked(node)) {
        LB_LOG(FAILURE, "l,r,list ptrs not null, addnode_rhs_nl rc=%d\n", RC_LINKED);
        return RC_LINKED;
    }
    link_before(list, node, nullptr);
    LB_LOG(TRACE, "addnode_rhs_nl(%p,%p) returning %d\n", static_cast<void *>(list), obj, RC_OK);
    return RC_OK;
}

int lbll_addnode_inorder(lbll_list_t *list, void *obj, lbll_before_fn before) LB_UNCHECKED_LOCKING
{
    int rc = lbll_lock(list);
    if (rc != 0) {
        return rc;
    }
    rc = lbll_addnode_inorder_nl(list, obj, before);
    const int rc2 = lbll_unlock(list);
    return rc2 != 0 ? rc2 : rc;
}

int lbll_addnode_inorder_nl(lbll_list_t *list, void *obj, lbll_before_fn before)
{
    int rc = RC_OK;
    lbll_node_t *member = list->_lhs;
    while (member != nullptr && before(obj, _lbll_node2obj(member)) == 0) {
        member = member->_right;
    }
    if (member != nullptr) {
        link_before(list, _lbll_obj2node(list, obj), member);
    } else {
        rc = lbll_addnode_rhs_nl(list, obj);
    }
    LB_LOG(TRACE, "addnode_inorder returning %d\n", rc);
    return rc;
}

int lbll_rmnode(lbll_list_t *list, void *obj) LB_UNCHECKED_LOCKING
{
    if (list == nullptr) {
        LB_LOG(LB_LOG_LIST | LB_LOG_EVENT, "no fromlist, rc 1\n");
        os_core();
        return RC_REFUSED;
    }
    int rc = lbll_lock(list);
    if (rc != 0) {
        return rc;
    }
    rc = lbll_rmnode_nl(list, obj);
    const int rc2 = lbll_unlock(list);
    return rc2 != 0 ? rc2 : rc;
}

int lbll_rmnode_nl(lbll_list_t *list, void *obj)
{
    if (list == nullptr) {
        LB_LOG(LB_LOG_LIST | LB_LOG_EVENT, "no fromlist, rc 1\n");
        os_core();
        return RC_REFUSED;
    }
    lbll_node_t *node = _lbll_obj2node(list, obj);
    lbll_list_t *actual = lb_peekptr(node->_list);
    if (actual != list) {
        LB_LOG(FAILURE, "wrong list %p, rc %d\n", static_cast<void *>(actual), RC_REFUSED);
        os_core();
        return RC_REFUSED;
    }
    if (node->_right == nullptr) {
        list->_rhs = node->_left;
    } else {
        node->_right->_left = node->_left;
    }
    if (node->_left != nullptr) {
        node->_left->_right = node->_right;
    } else {
        list->_lhs = node->_right;
    }
    clear_node(node);
    count_members(list, -1);
    LB_LOG(TRACE, "rmnode(%p,%p) returning success, %d\n", static_cast<void *>(list), obj, RC_OK);
    return RC_OK;
}

void *lbll_select1(lbll_list_t *list, void *key) LB_UNCHECKED_LOCKING
{
    if (lbll_lock(list) != 0) {
        return nullptr;
    }
    void *obj = lbll_select1_nl(list, key);
    return lbll_unlock(list) != 0 ? nullptr : obj;
}

void *lbll_select1_nl(lbll_list_t *list, void *key)
{
    void *found = nullptr;
    for (lbll_node_t *node = list->_lhs; node != nullptr; node = node->_right) {
        void *obj = _lbll_node2obj(node);
        if ((list->_select(key, obj) & LBLL_FILTER_YES) != 0) {
            found = obj;
            break;
        }
    }
    LB_LOG(TRACE, "select1 returning %p\n", found);
    return found;
}

int lbll_selectn(lbll_list_t *list, void **out, int capacity, lbll_select_fn filter,
                 void *key) LB_UNCHECKED_LOCKING
{
    if (lbll_lock(list) != 0) {
        return 0;
    }
    const int count = lbll_selectn_nl(list, out, capacity, filter, key);
    return lbll_unlock(list) != 0 ? 0 : count;
}

int lbll_selectn_nl(lbll_list_t *list, void **out, int capacity, lbll_select_fn filter, void *key)
{
    int count = 0;
    lbll_node_t *node = list->_lhs;
    while (node != nullptr && count < capacity) {
        void *obj = _lbll_node2obj(node);
        const int answer = filter(key, obj);
        if ((answer & LBLL_FILTER_YES) != 0) {
            out[count] = obj;
            count++;
        }
        if ((answer & LBLL_FILTER_STOP) != 0) {
            break;
        }
        node = node->_right;
    }
    LB_LOG(TRACE, "selectn returning %d\n", count);
    return count;
}

void lbll_iterateact_nl(lbll_list_t *list, void (*action)(void *obj))
{
    for (lbll_node_t *node = list->_lhs; node != nullptr; node = node->_right) {
        action(_lbll_node2obj(node));
    }
}

int lbll_filter_true(void *, void *)
{
    return LBLL_FILTER_YES;
}

// These two ignore what locking says: an end read without the lock is still an end.
void *lbll_getnode_lhs(lbll_list_t *list) LB_UNCHECKED_LOCKING
{
    const int rc = lbll_lock(list);
    void *obj = lbll_getnode_lhs_nl(list);
    if (rc == 0) {
        (void)lbll_unlock(list);
    }
    return obj;
}

void *lbll_getnode_rhs(lbll_list_t *list) LB_UNCHECKED_LOCKING
{
    const int rc = lbll_lock(list);
    void *obj = lbll_getnode_rhs_nl(list);
    if (rc == 0) {
        (void)lbll_unlock(list);
    }
    return obj;
}

void *lbll_getnode_lhs_nl(lbll_list_t *list)
{
    return _lbll_node2obj(list->_lhs);
}

void *lbll_getnode_rhs_nl(lbll_list_t *list)
{
    return _lbll_node2obj(list->_rhs);
}

int lbll_size(const lbll_list_t *list)
{
    return lb_peek(list->_size);
}

int lbll_lock(lbll_list_t *list) LB_UNCHECKED_LOCKING
{
    const int rc = lock_quietly(list);
    if (rc != 0) {
        LB_LOG(FAILURE, "os_mutex_lock error, rc %d\n", rc);
    }
    return rc;
}

int lbll_unlock(lbll_list_t *list) LB_UNCHECKED_LOCKING
{
    const int rc = unlock_quietly(list);
    if (rc != 0) {
        LB_LOG(FAILURE, "os_mutex_unlock error, rc2=%d\n", rc);
    }
    return rc;
}

int lbll_locknode(lbll_node_t *node) LB_UNCHECKED_LOCKING
{
    for (;;) {
        lbll_list_t *list = lb_peekptr(node->_list);
        if (list == nullptr) {
            return RC_REFUSED;
        }
        const int rc = lbll_lock(list);
        // The member may have moved to another list between the look and the lock.
        if (rc != 0 || lb_peekptr(node->_list) == list) {
            return rc;
        }
        (void)lbll_unlock(list);
    }
}

int lbll_unlocknode(lbll_node_t *node) LB_UNCHECKED_LOCKING
{
    lbll_list_t *list = lb_peekptr(node->_list);
    return list != nullptr ? lbll_unlock(list) : RC_REFUSED;
}

lb_s32_t lbll_obj2offset(const void *node, const void *obj)
{
    LB_LOG(TRACE, "offset calculated\n");
    return static_cast<lb_s32_t>(static_cast<const char *>(node) - static_cast<const char *>(obj));
}

lbll_node_t *_lbll_obj2node(const lbll_list_t *list, void *obj)
{
    return reinterpret_cast<lbll_node_t *>(static_cast<char *>(obj) + list->_offset);
}

void *_lbll_node2obj(lbll_node_t *node)
{
    if (node == nullptr) {
        return nullptr;
    }
    const lbll_list_t *list = lb_peekptr(node->_list);
    return list != nullptr ? reinterpret_cast<char *>(node) - list->_offset : nullptr;
}

// The members seen walking from the left, or -1 once a problem was found and logged.
static int check_from_left(const lbll_list_t *list)
{
    int count = 0;
    for (const lbll_node_t *node = list->_lhs; node != nullptr; node = node->_right) {
        count++;
        if (node->_left != nullptr && node->_left->_right != node) {
            LB_LOG(FAILURE, "lhs left-view node inconsistent\n");
            return -1;
        }
        if (node->_right != nullptr && node->_right->_left != node) {
            LB_LOG(FAILURE, "lhs right-view node inconsistent\n");
            return -1;
        }
    }
    return count;
}

static int check_from_right(const lbll_list_t *list)
{
    int count = 0;
    for (const lbll_node_t *node = list->_rhs; node != nullptr; node = node->_left) {
        count++;
        if (node->_right != nullptr && node->_right->_left != node) {
            LB_LOG(FAILURE, "rhs right-view node inconsistent\n");
            return -1;
        }
        if (node->_left != nullptr && node->_left->_right != node) {
            LB_LOG(FAILURE, "rhs left-view node inconsistent\n");
            return -1;
        }
    }
    return count;
}

static int count_problems(const lbll_list_t *list)
{
    if ((list->_lhs == nullptr) != (list->_rhs == nullptr)) {
        LB_LOG(FAILURE, "list inconsistent\n");
        return 1;
    }
    if (list->_lhs != nullptr && (list->_lhs->_left != nullptr || list->_rhs->_right != nullptr)) {
        LB_LOG(FAILURE, "end nodes inconsistent\n");
        return 1;
    }
    // The next two name the other end than the one the walk began at.
    int count = check_from_left(list);
    if (count >= 0 && count != list->_size) {
        LB_LOG(FAILURE, "rhs size %d != %d\n", count, list->_size);
        count = -1;
    }
    if (count < 0) {
        return 1;
    }
    count = check_from_right(list);
    if (count >= 0 && count != list->_size) {
        LB_LOG(FAILURE, "lhs size %d != %d\n", count, list->_size);
        count = -1;
    }
    return count < 0 ? 1 : 0;
}

int _lbll_debug_consistencycheck(lbll_list_t *list) LB_UNCHECKED_LOCKING
{
    // A lock that fails is not reported: who debugs wants to hear about the links all the same.
    const int lockrc = lbll_lock(list);
    const int problems = count_problems(list);
    if (lockrc == 0) {
        (void)lbll_unlock(list);
    }
    LB_LOG_BARE(TRACE, "%s returning %d\n", __func__, problems);
    return problems;
}

static void print_member(const lbll_list_t *list, lbll_node_t *node)
{
    if (list->_print != nullptr) {
        list->_print(_lbll_node2obj(node));
    }
}

void _lbll_debug_printlist(lbll_list_t *list, int verbose) LB_UNCHECKED_LOCKING
{
    const int lockrc = lbll_lock(list);
    if (verbose != 0) {
        os_print("\noffset=%d lhs=%p", list->_offset, static_cast<void *>(list->_lhs));
    }
    for (lbll_node_t *node = list->_lhs; node != nullptr; node = node->_right) {
        if (verbose != 0) {
            os_print(" %p[l:%p r:%p]", static_cast<void *>(node), static_cast<void *>(node->_left),
                     static_cast<void *>(node->_right));
        }
        os_print("(");
        print_member(list, node);
        os_print(") ");
    }
    if (verbose != 0) {
        os_print("rhs=%p", static_cast<void *>(list->_rhs));
    }
    os_print("\n");
    if (lockrc == 0) {
        (void)lbll_unlock(list);
    }
}

void _lbll_debug_printlist_rhs(lbll_list_t *list, int verbose) LB_UNCHECKED_LOCKING
{
    const int lockrc = lbll_lock(list);
    if (verbose != 0) {
        os_print("\noffset=%d rhs=%p", list->_offset, static_cast<void *>(list->_rhs));
    }
    for (lbll_node_t *node = list->_rhs; node != nullptr; node = node->_left) {
        if (verbose != 0) {
            os_print(" %p[l:%p r:%p](", static_cast<void *>(node), static_cast<void *>(node->_left),
                     static_cast<void *>(node->_right));
        } else {
            os_print("(");
        }
        print_member(list, node);
        os_print(") ");
    }
    if (verbose != 0) {
        os_print(" lhs=%p", static_cast<void *>(list->_lhs));
    }
    os_print("\n");
    if (lockrc == 0) {
        (void)lbll_unlock(list);
    }
}
