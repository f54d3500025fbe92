// Words that several threads touch without a lock: counters, seeds, states, settings. Every access
// to such a word goes through these helpers (relaxed atomics); a plain access is a bug, even where
// it works. None of them orders anything else: what must be seen whole is one word or has a lock.
#pragma once

#include "lb_types.h"

#include <atomic>
#include <bit>
#include <type_traits>

// Reads one word. T is trivially copyable, at most 8 bytes, and the word naturally aligned for its
// size. A byte layout of 8 bytes that stands on an 8-byte boundary (a hardware address) travels as
// the integer, because compilers disagree on whether its own type is a lock-free word.
template <class T> inline T lb_peek(const T &word)
{
    if constexpr (alignof(T) < 8 && sizeof(T) == 8) {
        return std::bit_cast<T>(lb_peek(reinterpret_cast<const lb_u64_t &>(word)));
    } else {
        static_assert(sizeof(T) <= 8 && std::atomic_ref<T>::is_always_lock_free);
        return std::atomic_ref<T>(const_cast<T &>(word)).load(std::memory_order_relaxed);
    }
}

template <class T> inline void lb_poke(T &word, std::type_identity_t<T> value)
{
    if constexpr (alignof(T) < 8 && sizeof(T) == 8) {
        lb_poke(reinterpret_cast<lb_u64_t &>(word), std::bit_cast<lb_u64_t>(value));
    } else {
        static_assert(sizeof(T) <= 8 && std::atomic_ref<T>::is_always_lock_free);
        std::atomic_ref<T>(word).store(value, std::memory_order_relaxed);
    }
}

// Counts one (or more) event.
template <class T> inline void lb_stat_inc(T &counter, std::type_identity_t<T> by = 1)
{
    std::atomic_ref<T>(counter).fetch_add(by, std::memory_order_relaxed);
}

// Takes the word's value and leaves it one higher: seeds and identifications.
template <class T> inline T lb_take_next(T &seed)
{
    return std::atomic_ref<T>(seed).fetch_add(1, std::memory_order_relaxed);
}

// Takes `amount` of a budget: false, and nothing is taken, if more than `limit` would be taken
// then.
template <class T>
inline bool lb_budget_take(T &taken, std::type_identity_t<T> amount, std::type_identity_t<T> limit)
{
    T before = std::atomic_ref<T>(taken).load(std::memory_order_relaxed);
    do {
        if (before + amount > limit) {
            return false;
        }
    } while (!std::atomic_ref<T>(taken).compare_exchange_weak(before, before + amount,
                                                              std::memory_order_relaxed));
    return true;
}

template <class T> inline void lb_budget_give(T &taken, std::type_identity_t<T> amount)
{
    std::atomic_ref<T>(taken).fetch_sub(amount, std::memory_order_relaxed);
}

// Pointers to objects that are published to readers without a lock: what the object held before it
// was published is seen by who reads the pointer.
template <class T> inline T *lb_peekptr(T *const &pointer)
{
    return std::atomic_ref<T *>(const_cast<T *&>(pointer)).load(std::memory_order_acquire);
}

template <class T> inline void lb_pokeptr(T *&pointer, std::type_identity_t<T *> value)
{
    std::atomic_ref<T *>(pointer).store(value, std::memory_order_release);
}

// Copies a block that others read (or write) word by word at the same time. Aligned words of up to
// 8 bytes are never torn; the block as a whole is not a snapshot. `shared` is the side that others
// touch, aligned to 8; the other side may have any alignment.
void lb_store_shared(void *shared, const void *from, std::size_t len);
void lb_load_shared(void *to, const void *shared, std::size_t len);
