// Received frames of the fake host. Owns the buffers that receive() makes. A buffer that the stack
// frees stays behind, poisoned, until reset(): so a second free or a late access is seen for what
// it is. Entered by any thread.
#include "fake_frame.h"

#include "lb_entry.h"
#include "lb_grace.h"

#include <cstring>
#include <deque>
#include <memory>
#include <mutex>

#include "fake_host.h"
#include "fake_state.h"
#include "prot/ether.h"

#if defined(__SANITIZE_ADDRESS__)
#define FAKE_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FAKE_ASAN 1
#endif
#endif

#ifdef FAKE_ASAN
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(addr, size)   ((void)(addr), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(addr, size) ((void)(addr), (void)(size))
#endif

namespace fake
{

namespace
{

std::mutex graveyard_lock;
std::deque<std::unique_ptr<frame>> graveyard;
constexpr std::size_t GRAVES = 1000; // the oldest give way: a fuzzer receives millions

void clear_graveyard()
{
    const std::lock_guard<std::mutex> guard(graveyard_lock);
    graveyard.clear();
}

void add_grave(frame *dead)
{
    const std::lock_guard<std::mutex> guard(graveyard_lock);
    graveyard.emplace_back(dead);
    if (graveyard.size() > GRAVES) {
        graveyard.pop_front();
    }
}

// fake_host.cpp reaches the frames only through this, so that a test without frames need not link
// the entries of the packet path.
[[maybe_unused]] const bool registered = (detail::reset_frames = clear_graveyard, true);

} // namespace

frame::frame()
{
    std::memset(buf_, 0xA5, sizeof(buf_));
    ASAN_POISON_MEMORY_REGION(buf_ + HEADROOM, CAPACITY);
}

frame::~frame()
{
    ASAN_UNPOISON_MEMORY_REGION(buf_, sizeof(buf_));
    if (held()) {
        record_fault("a frame that the stack holds went out of scope");
    }
    magic_ = 0;
}

void frame::load(const void *bytes, std::size_t len)
{
    if (held()) {
        record_fault("a frame that the stack holds was received into");
        return;
    }
    datalen_ = len > CAPACITY ? CAPACITY : static_cast<int>(len);
    ASAN_UNPOISON_MEMORY_REGION(buf_, sizeof(buf_));
    if (datalen_ > 0) {
        std::memcpy(buf_ + HEADROOM, bytes, static_cast<std::size_t>(datalen_));
    }
    ASAN_POISON_MEMORY_REGION(buf_ + HEADROOM + datalen_,
                              static_cast<std::size_t>(CAPACITY - datalen_));
    state_.store(OWNED, std::memory_order_relaxed);
    frees_.store(0, std::memory_order_relaxed);
}

int frame::dispatch(link type)
{
    const lb_grace_inside inside;
    const int rc = call_entry(type);
    settle(rc);
    return rc;
}

int frame::call_entry(link type)
{
    std::uint8_t *start = buf_ + HEADROOM;
    if (type == link::slip) {
        return lbipv4_entry(nullptr, start, datalen_, this);
    }
    if (type == link::loopback || datalen_ < LBETH_HDRLEN) {
        return NOT_DISPATCHED;
    }
    std::uint8_t *payload = start + LBETH_HDRLEN;
    const int len = datalen_ - LBETH_HDRLEN;
    switch (lb_get16(lb_view<lbeth_hdr_t>(static_cast<void *>(start), datalen_)->type)) {
    case LBETH_TYPE_ARP: return lbarp_entry(start, payload, len, this);
    case LBETH_TYPE_IPV4: return lbipv4_entry(start, payload, len, this);
    case LBETH_TYPE_IPV6: return lbipv6_entry(start, payload, len, this);
    default: return NOT_DISPATCHED;
    }
}

// What the worker does with the disposition.
void frame::settle(int rc)
{
    switch (rc) {
    case NOT_DISPATCHED:
    case LB_PACKETRC_CONSUMED:
    case LB_PACKETRC_INTACT: return;
    case LB_PACKETRC_HELD: break;
    default: record_fault("invalid disposition " + std::to_string(rc)); return;
    }
    // Another thread may have freed it before: who comes second does the work.
    switch (state_.exchange(HELD, std::memory_order_acq_rel)) {
    case MARKED: return;
    case RELEASED:
        state_.store(RELEASED, std::memory_order_relaxed);
        bury();
        return;
    default: record_fault("a frame was held without being marked"); return;
    }
}

void frame::bury()
{
    if (on_heap_) {
        ASAN_POISON_MEMORY_REGION(buf_, sizeof(buf_));
        add_grave(this);
    }
}

void frame::hold_by_stack()
{
    detail::held_frames.fetch_add(1, std::memory_order_relaxed);
    if (state_.exchange(MARKED, std::memory_order_relaxed) != OWNED) {
        record_fault("a frame was held that is not its worker's");
    }
}

void frame::free_by_stack()
{
    frees_.fetch_add(1, std::memory_order_relaxed);
    switch (state_.exchange(RELEASED, std::memory_order_acq_rel)) {
    case HELD:
        detail::held_frames.fetch_sub(1, std::memory_order_relaxed);
        bury();
        break;
    case MARKED: detail::held_frames.fetch_sub(1, std::memory_order_relaxed); break;
    case OWNED: detail::unheld_frees.fetch_add(1, std::memory_order_relaxed); break;
    default: record_fault("a received frame was freed twice"); break;
    }
}

bool frame::held() const
{
    return state_.load(std::memory_order_acquire) == HELD;
}

bool frame::has_headroom(const void *proto, int headroom) const
{
    return static_cast<const std::uint8_t *>(proto) - buf_ >= headroom;
}

int receive(const void *bytes, std::size_t len, link type)
{
    auto f = std::make_unique<frame>();
    f->on_heap_ = true;
    f->load(bytes, len);
    // From here on another thread may bury it, so it is let go before the stack sees it.
    frame *raw = f.release();
    const int rc = raw->dispatch(type);
    if (rc != LB_PACKETRC_HELD) {
        add_grave(raw); // kept a while, so that a late free is seen
    }
    return rc;
}

int worker::receive(const void *bytes, std::size_t len, link type)
{
    if (buffer_ == nullptr) {
        buffer_ = std::make_unique<frame>();
    }
    frame *raw = buffer_.release(); // the stack's, unless it says otherwise
    raw->on_heap_ = true;
    raw->load(bytes, len);
    const int rc = raw->dispatch(type);
    if (rc != LB_PACKETRC_HELD) {
        buffer_.reset(raw);
    }
    return rc;
}

} // namespace fake

void os_packetfree(lb_osopaque_t osopaque)
{
    fake::frame *f = fake::frame::from_opaque(osopaque);
    if (f == nullptr) {
        fake::record_fault("os_packetfree of something that was never received");
        return;
    }
    f->free_by_stack();
}

void os_packethold(lb_osopaque_t osopaque)
{
    fake::frame *f = fake::frame::from_opaque(osopaque);
    if (f == nullptr) {
        fake::record_fault("os_packethold of something that was never received");
        return;
    }
    f->hold_by_stack();
}

int os_headroom(int headroom, void **ppethaddr, void **ppproto, void **pposopaque)
{
    const fake::frame *f = fake::frame::from_opaque(*pposopaque);
    if (f == nullptr || *ppethaddr != nullptr || !f->has_headroom(*ppproto, headroom)) {
        return 1;
    }
    *ppethaddr = static_cast<std::uint8_t *>(*ppproto) - headroom;
    return 0;
}

int os_pullup(int, void **, void **, int *, void **)
{
    fake::detail::pullups.fetch_add(1, std::memory_order_relaxed);
    return 0;
}
