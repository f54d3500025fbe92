// Received frames of the fake host: a buffer as a receive worker has it, and the worker's round
// over it. Bytes behind the frame's end are poisoned under AddressSanitizer, so that a read past
// what was received is caught.
#pragma once

#include "lb_types.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace fake
{

enum class link { ethernet, slip, loopback };

// What dispatch() returns when no entry of the stack was called.
constexpr int NOT_DISPATCHED = -1;

class frame
{
  public:
    static constexpr int HEADROOM = 32;
    static constexpr int CAPACITY = 1568;

    frame();
    ~frame();
    frame(const frame &) = delete;
    frame &operator=(const frame &) = delete;

    // Receives bytes into the buffer; what is beyond CAPACITY is cut off. No allocation. The stack
    // must not hold the frame.
    void load(const void *bytes, std::size_t len);
    // One round of a receive worker: enters grace, calls the entry for the frame's type, acts on
    // the disposition and returns it. No allocation.
    int dispatch(link type = link::ethernet);

    // What the buffer holds now (the stack rewrites in place).
    [[nodiscard]] const std::uint8_t *bytes() const { return buf_ + HEADROOM; }
    [[nodiscard]] std::uint8_t *bytes() { return buf_ + HEADROOM; }
    [[nodiscard]] int length() const { return datalen_; }
    [[nodiscard]] bool held() const;
    // os_packetfree() calls since load(). A second one is a fault.
    [[nodiscard]] int frees() const { return frees_.load(std::memory_order_relaxed); }
    // The stack's name for this buffer, for tests that call an entry themselves.
    [[nodiscard]] lb_osopaque_t opaque() { return this; }

    // For the host services alone.
    [[nodiscard]] static frame *from_opaque(lb_osopaque_t osopaque); // null if it is none
    void free_by_stack();
    void hold_by_stack();
    [[nodiscard]] bool has_headroom(const void *proto, int headroom) const;
    // Records a fault if `len` bytes from `start` begin in this buffer and end beyond the frame.
    void check_bounds(const void *start, int len) const;

  private:
    friend int receive(const void *bytes, std::size_t len, link type);
    friend class worker;
    // As on the real host: MARKED until the worker has let go of a frame that the stack keeps.
    enum ownership : int { OWNED, HELD, RELEASED, MARKED };
    static constexpr std::uint64_t MAGIC = 0x66616b656672616d;

    int call_entry(link type);
    void settle(int rc);
    void bury();

    std::uint64_t magic_ = MAGIC;
    std::atomic<int> state_{OWNED};
    std::atomic<int> frees_{0};
    bool on_heap_ = false; // made by receive(): buried when the stack frees it
    int datalen_ = 0;
    alignas(8) std::uint8_t buf_[HEADROOM + CAPACITY];
};

// Receives a frame into a buffer of its own and returns the disposition. A held one lives until the
// stack frees it.
int receive(const void *bytes, std::size_t len, link type = link::ethernet);
inline int receive(const std::vector<std::uint8_t> &bytes, link type = link::ethernet)
{
    return receive(bytes.data(), bytes.size(), type);
}
// The same without allocating: for benchmarks. The buffer must not be held.
inline int receive_into(frame &buffer, const void *bytes, std::size_t len,
                        link type = link::ethernet)
{
    buffer.load(bytes, len);
    return buffer.dispatch(type);
}

// A receive worker with its buffer, which it reuses until the stack holds it.
class worker
{
  public:
    int receive(const void *bytes, std::size_t len, link type = link::ethernet);
    int receive(const std::vector<std::uint8_t> &bytes, link type = link::ethernet)
    {
        return receive(bytes.data(), bytes.size(), type);
    }
    // The buffer of the last frame; null when the stack has it.
    [[nodiscard]] frame *buffer() { return buffer_.get(); }

  private:
    std::unique_ptr<frame> buffer_;
};

} // namespace fake
