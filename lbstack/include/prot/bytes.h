// Big-endian words of alignment 1 without implicit conversion, and the one way to look at bytes
// that came from a wire: through a check of their length.
#pragma once

#include "lb_types.h"

#include <cstddef>
#include <type_traits>

struct lb_be16_t {
    lb_u8_t b[2];
};
struct lb_be32_t {
    lb_u8_t b[4];
};

constexpr lb_u16_t lb_get16(const lb_be16_t &w)
{
    return static_cast<lb_u16_t>(w.b[0] << 8 | w.b[1]);
}
constexpr lb_u32_t lb_get32(const lb_be32_t &w)
{
    return static_cast<lb_u32_t>(w.b[0]) << 24 | static_cast<lb_u32_t>(w.b[1]) << 16 |
           static_cast<lb_u32_t>(w.b[2]) << 8 | w.b[3];
}
constexpr void lb_put16(lb_be16_t &w, lb_u16_t v)
{
    w.b[0] = static_cast<lb_u8_t>(v >> 8);
    w.b[1] = static_cast<lb_u8_t>(v);
}
constexpr void lb_put32(lb_be32_t &w, lb_u32_t v)
{
    w.b[0] = static_cast<lb_u8_t>(v >> 24);
    w.b[1] = static_cast<lb_u8_t>(v >> 16);
    w.b[2] = static_cast<lb_u8_t>(v >> 8);
    w.b[3] = static_cast<lb_u8_t>(v);
}

// The T at the start of `len` bytes, or null if they don't hold one. T is a wire layout:
// alignment 1.
template <class T> [[nodiscard]] inline T *lb_view(void *bytes, long len)
{
    static_assert(alignof(T) == 1 && std::is_trivially_copyable_v<T>);
    if (bytes == nullptr || len < static_cast<long>(sizeof(T))) {
        return nullptr;
    }
    return static_cast<T *>(bytes);
}
template <class T> [[nodiscard]] inline const T *lb_view(const void *bytes, long len)
{
    return lb_view<T>(const_cast<void *>(bytes), len);
}
