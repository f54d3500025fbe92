// Small helpers that several modules share: the byte dump, time differences, and copies of blocks
// that other threads touch meanwhile. Owns nothing, takes no lock, may be entered by any thread.
#include "lb_utils.h"

#include "lb_words.h"

#include <cstdint>
#include <cstring>

constexpr lb_s64_t USECS_PER_SEC = 1000000;
constexpr int DUMP_HALF = 8;
constexpr int DUMP_LINE = 16;

// The size of the next word to copy: the largest that the shared side is aligned for and that still
// fits, so that an aligned word of a block never travels in two pieces.
static std::size_t word_size(const unsigned char *shared, std::size_t left)
{
    std::size_t size = 8;
    while (size > left || reinterpret_cast<std::uintptr_t>(shared) % size != 0) {
        size /= 2;
    }
    return size;
}

template <class W> static void store_word(unsigned char *shared, const unsigned char *from)
{
    W word;
    std::memcpy(&word, from, sizeof(W));
    lb_poke(*reinterpret_cast<W *>(shared), word);
}

template <class W> static void load_word(unsigned char *to, const unsigned char *shared)
{
    const W word = lb_peek(*reinterpret_cast<const W *>(shared));
    std::memcpy(to, &word, sizeof(W));
}

void lb_byteprint(const void *buf, int len)
{
    if (buf == nullptr) {
        os_print("lb_byteprint: null pointer\n");
        return;
    }
    const auto *bytes = static_cast<const unsigned char *>(buf);
    for (int i = 0; i < len; i++) {
        const bool printable = bytes[i] >= ' ' && bytes[i] <= '~';
        os_print("%02x[%c] ", bytes[i], printable ? bytes[i] : '.');
        if ((i + 1) % DUMP_LINE == 0) {
            os_print("\n");
        } else if ((i + 1) % DUMP_HALF == 0) {
            os_print("  ");
        }
    }
    os_print("\n");
}

lb_timeval_t lb_timediff(lb_timeval_t now, lb_timeval_t then)
{
    // In one number of microseconds: its division rounds towards zero, which gives both fields the
    // sign of the difference.
    const lb_s64_t usecs =
        (static_cast<lb_s64_t>(now.secs) - then.secs) * USECS_PER_SEC + now.usecs - then.usecs;
    lb_timeval_t diff;
    diff.secs = static_cast<lb_s32_t>(usecs / USECS_PER_SEC);
    diff.usecs = static_cast<lb_s32_t>(usecs % USECS_PER_SEC);
    return diff;
}

lb_s32_t lb_timediff_s(lb_timeval_t now, lb_timeval_t then)
{
    return lb_timediff(now, then).secs;
}

void lb_store_shared(void *shared, const void *from, std::size_t len)
{
    auto *out = static_cast<unsigned char *>(shared);
    const auto *in = static_cast<const unsigned char *>(from);
    while (len > 0) {
        const std::size_t size = word_size(out, len);
        switch (size) {
        case 8: store_word<lb_u64_t>(out, in); break;
        case 4: store_word<lb_u32_t>(out, in); break;
        case 2: store_word<lb_u16_t>(out, in); break;
        default: store_word<lb_u8_t>(out, in); break;
        }
        out += size;
        in += size;
        len -= size;
    }
}

void lb_load_shared(void *to, const void *shared, std::size_t len)
{
    auto *out = static_cast<unsigned char *>(to);
    const auto *in = static_cast<const unsigned char *>(shared);
    while (len > 0) {
        const std::size_t size = word_size(in, len);
        switch (size) {
        case 8: load_word<lb_u64_t>(out, in); break;
        case 4: load_word<lb_u32_t>(out, in); break;
        case 2: load_word<lb_u16_t>(out, in); break;
        default: load_word<lb_u8_t>(out, in); break;
        }
        out += size;
        in += size;
        len -= size;
    }
}
