// When memory may be freed. Owns the epoch, one slot per thread that is inside the stack, and the
// list of objects that wait for nothing but grace. Every thread enters; only the timer thread
// frees. The list's lock is the only one taken, never around a reap.
//
// How it works. The epoch is a number that only grows. lb_grace_enter() writes the epoch into the
// thread's slot and then reads the epoch once more; lb_grace_leave() writes 0. An object is
// unlinked first; then lb_grace_now() takes the epoch and moves it on by one. lb_grace_passed()
// wants every slot to hold 0 or a newer epoch than that.
//
// Why such a thread can't reach the object: the slots and the epoch are sequentially consistent, so
// there is one order of all their accesses, in which now() stands before passed(). Three cases.
//
// The slot holds a newer epoch: the thread read it from the increment in now() or a later one, and
// so sees what came before, the unlinking. Whatever it did in an earlier stay came before this
// write to its slot, which passed() has read: the free comes after it.
//
// The slot holds 0, and the thread had been inside: leave() wrote that 0 after its last use, and
// passed() has read it: the free comes after.
//
// The slot holds 0, and the thread enters afterwards: its write of the slot stands behind passed(),
// and the second reading of the epoch behind that, so it reads what now() wrote or something newer,
// and the thread sees the unlinking before it touches anything. This is what the second reading is
// for: its value is not used.
//
// A thread that reads an old epoch and is delayed before it writes its slot shows an old epoch
// while it is inside: that makes others wait longer, no more.
#include "lb_grace.h"

#include "lb_log.h"

#include <atomic>

constexpr int SLOTS = 64;
constexpr lb_u64_t OUTSIDE = 0;

// A cache line each: entering touches no line that another thread writes.
struct alignas(64) grace_slot {
    std::atomic<lb_u64_t> epoch;
    std::atomic<bool> claimed;
};

static std::atomic<lb_u64_t> current_epoch{1};
static grace_slot slots[SLOTS];
// Threads inside that found no slot. While there is one, nothing is freed.
static std::atomic<lb_u64_t> inside_without_slot{0};

static thread_local grace_slot *my_slot = nullptr;
static thread_local int my_depth = 0;
static thread_local bool slotless = false; // inside, but without a slot

static lbll_list_t deferred;

// Gives the slot back when the thread ends.
struct slot_keeper {
    grace_slot *slot = nullptr;
    ~slot_keeper()
    {
        if (slot != nullptr) {
            slot->epoch.store(OUTSIDE, std::memory_order_release);
            slot->claimed.store(false, std::memory_order_release);
            my_slot = nullptr;
        }
    }
};

static grace_slot *claim_slot()
{
    // Here and not at file level: a thread pays for the destructor's registration once, when it
    // enters for the first time, and enter() stays free of initialisation checks.
    static thread_local slot_keeper keeper;
    for (grace_slot &slot : slots) {
        bool expected = false;
        if (slot.claimed.compare_exchange_strong(expected, true, std::memory_order_acq_rel)) {
            keeper.slot = &slot;
            return &slot;
        }
    }
    return nullptr;
}

static void enter_without_slot()
{
    LB_LOG(LB_LOG_COMMAND | LB_LOG_FAILURE, "more than %d threads inside the stack\n", SLOTS);
    os_core();
    slotless = true;
    inside_without_slot.fetch_add(1, std::memory_order_seq_cst);
}

void lb_grace_enter()
{
    if (my_depth++ > 0) {
        return;
    }
    if (my_slot == nullptr) {
        my_slot = claim_slot();
    }
    if (my_slot != nullptr) {
        my_slot->epoch.store(current_epoch.load(std::memory_order_seq_cst),
                             std::memory_order_seq_cst);
    } else {
        enter_without_slot();
    }
    (void)current_epoch.load(std::memory_order_seq_cst); // the second reading: see above
}

void lb_grace_leave()
{
    if (--my_depth > 0) {
        return;
    }
    if (slotless) {
        slotless = false;
        inside_without_slot.fetch_sub(1, std::memory_order_release);
        return;
    }
    my_slot->epoch.store(OUTSIDE, std::memory_order_release);
}

lb_grace_t lb_grace_now()
{
    return current_epoch.fetch_add(1, std::memory_order_seq_cst);
}

bool lb_grace_passed(lb_grace_t since)
{
    if (inside_without_slot.load(std::memory_order_seq_cst) != 0) {
        return false;
    }
    for (const grace_slot &slot : slots) {
        const lb_u64_t epoch = slot.epoch.load(std::memory_order_seq_cst);
        if (epoch != OUTSIDE && epoch <= since) {
            return false;
        }
    }
    return true;
}

int lb_grace_init()
{
    if (lbll_initlist(&deferred, offsetof(lb_grace_node_t, node), lbll_filter_true, nullptr) != 0) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_FAILURE, "grace list init failed\n");
        return 1;
    }
    lbll_setrank(&deferred, LB_RANK_LEAF);
    return 0;
}

int lb_grace_exit()
{
    if (lbll_size(&deferred) != 0) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_FAILURE, "%d objects still waited for grace\n",
               lbll_size(&deferred));
    }
    return lbll_cleanuplist(&deferred);
}

// Puts a node at the end of the list, with the wait starting now.
static void enqueue(lb_grace_node_t *node)
{
    node->since = lb_grace_now();
    if (lbll_addnode_rhs(&deferred, node) == 0 || lb_peekptr(node->node._list) == &deferred) {
        return;
    }
    // A mutex refused. Once more; and if that fails too, memory that is lost is the lesser evil.
    if (lbll_addnode_rhs(&deferred, node) != 0) {
        LB_LOG(LB_LOG_COMMAND | LB_LOG_FAILURE, "an object can't wait for grace and is lost\n");
    }
}

// The first node of the list if its grace has passed, taken out; else null. Later ones joined
// later. Two looks at the list without a lock between them: only the timer thread takes nodes out.
static lb_grace_node_t *take_passed()
{
    auto *node = static_cast<lb_grace_node_t *>(lbll_getnode_lhs(&deferred));
    if (node == nullptr || !lb_grace_passed(node->since)) {
        return nullptr;
    }
    if (lbll_rmnode(&deferred, node) != 0 && lb_peekptr(node->node._list) != nullptr) {
        return nullptr; // not even locked: the next tick tries again
    }
    return node;
}

void lb_grace_defer(lb_grace_node_t *node, bool (*reap)(lb_grace_node_t *node))
{
    node->reap = reap;
    enqueue(node);
}

void lb_grace_timer_entry()
{
    // One pass over those that are here now: what is queued again meanwhile waits for the next
    // tick.
    for (int left = lbll_size(&deferred); left > 0; left--) {
        lb_grace_node_t *node = take_passed();
        if (node == nullptr) {
            return;
        }
        if (!node->reap(node)) {
            enqueue(node);
        }
    }
}
