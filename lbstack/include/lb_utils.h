// Small helpers that several modules share.
#pragma once

#include "lb_types.h"

#include <type_traits>

#include "os.h"

// Dumps bytes to the log, 16 a line, each as hex and as a character.
void lb_byteprint(const void *buf, int len);

// A new object of the stack, all zero; NULL when memory is exhausted. Freed with os_memfree() by
// its own reap.
template <class T> [[nodiscard]] T *lb_newzero()
{
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_default_constructible_v<T>,
                  "objects of the stack are plain memory");
    static_assert(alignof(T) <= alignof(std::max_align_t));
    void *obj = os_memalloc(static_cast<int>(sizeof(T)));
    if (obj == nullptr) {
        return nullptr;
    }
    return static_cast<T *>(os_memset(obj, 0, sizeof(T)));
}

// One more word of a key into its hash.
inline lb_u32_t lb_hashstep(lb_u32_t hash, lb_u32_t word)
{
    const lb_u32_t mixed = (hash ^ word) * 0x9E3779B1U; // the golden ratio: spreads upwards
    return mixed ^ mixed >> 15U;
}

// now - then, both fields of one sign.
lb_timeval_t lb_timediff(lb_timeval_t now, lb_timeval_t then);

// Whole seconds from `then` to `now`, a started second not counted.
lb_s32_t lb_timediff_s(lb_timeval_t now, lb_timeval_t then);

// Runs an undo step at the end of the scope unless it was dismissed.
template <class F> class lb_undo
{
  public:
    explicit lb_undo(F step) : step_(step) {}
    ~lb_undo()
    {
        if (armed_) {
            step_();
        }
    }
    lb_undo(const lb_undo &) = delete;
    lb_undo &operator=(const lb_undo &) = delete;
    void dismiss() { armed_ = false; }

  private:
    F step_;
    bool armed_ = true;
};
