// When memory may be freed. Readers use objects without a lock, so an object that was unlinked may
// still be in use. Every thread therefore says when it is inside the stack; memory of an unlinked
// object is freed only after each thread has been outside once since the unlinking. This module
// owns that question, and the list of objects that wait for nothing else. Nobody frees around it.
#pragma once

#include "lb_linkedlist.h"
#include "lb_types.h"

// Enter before touching any object of the stack, leave before waiting for anything. Nests. At most
// 64 threads may have entered at one time; one more is a broken invariant (os_core).
void lb_grace_enter();
void lb_grace_leave();

class lb_grace_inside
{
  public:
    lb_grace_inside() { lb_grace_enter(); }
    ~lb_grace_inside() { lb_grace_leave(); }
    lb_grace_inside(const lb_grace_inside &) = delete;
    lb_grace_inside &operator=(const lb_grace_inside &) = delete;
};

// A moment, taken after an object was unlinked.
using lb_grace_t = lb_u64_t;
[[nodiscard]] lb_grace_t lb_grace_now();
// Whether every thread that was inside at that moment has been outside since.
[[nodiscard]] bool lb_grace_passed(lb_grace_t since);

// Objects that are unlinked and answered at once, and freed when grace has passed.
struct lb_grace_node_s {
    lbll_node_t node;
    lb_grace_t since;
    // Called on the timer thread without a lock, once grace has passed: frees the object and
    // returns true; or sweeps away a reference that it found and returns false, and the wait starts
    // again.
    bool (*reap)(lb_grace_node_s *node);
};
using lb_grace_node_t = lb_grace_node_s;

[[nodiscard]] int lb_grace_init(); // 0, or 1
int lb_grace_exit();               // frees nothing; the list is retired
// Hands an unlinked object over.
void lb_grace_defer(lb_grace_node_t *node, bool (*reap)(lb_grace_node_t *node));
// Frees what may be freed. Timer thread.
void lb_grace_timer_entry();
