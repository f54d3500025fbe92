// Checks the order in which locks are taken. Owns one word per thread: the set of levels whose lock
// the thread holds. As locks are taken upwards only and never two of one level, a set is all the
// history there is. Entered by every thread around every ranked lock; takes no lock itself. It is
// compiled into checking builds only, and aborts there: an order that is wrong once deadlocks some
// other day.
#include "lb_lockrank.h"

#ifdef LB_LOCK_RANKS

#include <cstdlib>

#include "os.h"

static const char *const rank_names[] = {
    "unranked",
    "reap list",
    "command list",
    "object list",
    "interface list",
    "address list",
    "server references",
    "server records",
    "hash bucket",
    "fragment expiries",
    "NAT port table",
    "leaf",
    "log",
};
constexpr lb_u8_t RANKS = sizeof(rank_names) / sizeof(rank_names[0]);
static_assert(RANKS == LB_RANK_LOG + 1);

static thread_local lb_u32_t held; // bit n: the lock of level n

static const char *rank_name(lb_u8_t rank)
{
    return rank < RANKS ? rank_names[rank] : "unknown";
}

static lb_u8_t highest_held()
{
    lb_u8_t rank = RANKS - 1;
    while (rank > 0 && (held >> rank & 1U) == 0) {
        rank--;
    }
    return rank;
}

void lb_lockrank_take(lb_u8_t rank)
{
    if (rank == LB_RANK_NONE) {
        return;
    }
    if (rank >= RANKS || held >> rank != 0) {
        const lb_u8_t top = highest_held();
        os_print(
            "lock order violated: taking %s (level %d) while holding %s (level %d); take locks "
            "upwards only, one of a level\n",
            rank_name(rank), rank, rank_name(top), top);
        std::abort();
    }
    held |= 1U << rank;
}

void lb_lockrank_drop(lb_u8_t rank)
{
    if (rank != LB_RANK_NONE && rank < RANKS) {
        held &= ~(1U << rank);
    }
}

#endif
