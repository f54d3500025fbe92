// The host services in memory. Owns all that the fake host knows: clock, kept frames and lines,
// counters, planned failures, interfaces. Entered by any thread. One mutex guards what is kept; the
// counters are relaxed atomics, so that accounting neither slows a benchmark down nor orders two
// threads that the stack itself leaves unordered (ThreadSanitizer would then miss the race).
#include "fake_host.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <utility>

#include "fake_state.h"
#include "os.h"

namespace fake
{

namespace detail
{
std::atomic<std::int64_t> held_frames{0};
std::atomic<std::uint64_t> unheld_frees{0};
std::atomic<std::uint64_t> pullups{0};
void (*reset_frames)() = nullptr;
} // namespace detail

namespace
{

constexpr auto RELAXED = std::memory_order_relaxed;
constexpr std::int64_t START_USECS = 1000000LL * 1000000;
constexpr std::size_t MAX_LINES = 200000; // of log kept: a forgotten trace must not eat the machine
constexpr int ETH_HEADER = 14;

// What needs the mutex.
struct kept_state {
    std::vector<sent_frame> frames;
    std::vector<std::string> lines;
    std::vector<std::string> faults;
    std::set<std::string> unknown_interfaces;
    std::map<std::string, int> ifindexes;
    std::map<int, std::string> ifnames;
    std::vector<membership> memberships;
    std::vector<iface_event> iface_events;
    std::vector<tun_request> tun_requests;
    std::vector<std::uint8_t> last_raw4 = {0, 0, 0, 0};
    std::function<void()> during_getxmithandle;
};

std::mutex kept_lock;

kept_state &kept()
{
    static kept_state state;
    return state;
}

std::atomic<std::int64_t> clock_usecs{START_USECS};
std::atomic<std::uint64_t> frames_sent{0};
std::atomic<std::uint64_t> bytes_sent{0};
std::atomic<bool> counting_only{false};
std::atomic<bool> discarding{false};
std::atomic<bool> echoing{false};
std::atomic<std::int64_t> allocations{0};
std::atomic<std::int64_t> allocated_bytes{0};
std::atomic<std::uint64_t> allocations_ever{0};
std::atomic<std::int64_t> mutexes{0};
std::atomic<bool> expecting_core{false};
std::atomic<int> cores{0};
std::atomic<int> unasked_cores{0};
std::atomic<bool> stopped{false};
std::array<std::atomic<int>, static_cast<std::size_t>(op::count)> countdowns{};

// Counts resets: what an earlier test left behind is not charged to a later one.
std::atomic<std::uint32_t> era{1};

// Stands in front of every block.
struct alignas(16) block_header {
    std::uint32_t magic;
    std::uint32_t era;
    std::uint64_t size;
};
constexpr std::uint32_t BLOCK_LIVE = 0x6b636f6c;
constexpr std::uint32_t BLOCK_FREED = 0x64656572;

struct fake_mutex {
    std::uint64_t magic;
    fake_mutex *self; // differs in a copy
    std::uint32_t era;
    std::atomic<const void *> owner; // a thread, by the address of its `line`
    pthread_mutex_t real;
};
constexpr std::uint64_t MUTEX_LIVE = 0x6d757465786c6976;
static_assert(sizeof(fake_mutex) <= sizeof(lblock) && alignof(fake_mutex) <= alignof(lblock));

// A thread's unfinished line.
struct partial_line {
    std::uint32_t era = 0;
    std::size_t used = 0;
    char text[1024];
};
thread_local partial_line line;
thread_local int locks_held = 0;

// The beginning of a transmit handle, laid out as sockaddr_ll (packet(7)).
struct handle_head {
    std::uint16_t family;
    std::uint8_t protocol[2];
    std::int32_t ifindex;
    std::uint8_t rest[12];
};
static_assert(sizeof(handle_head) == 20);
constexpr std::uint16_t FAMILY_PACKET = 17;

const void *this_thread()
{
    return &line;
}

int default_ifindex(const std::string &name)
{
    std::uint32_t hash = 2166136261U; // FNV-1a
    for (const char c : name) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    }
    return static_cast<int>((hash & 0xFFFFFU) + 1);
}

// The caller holds kept_lock.
int ifindex_nl(const std::string &name)
{
    kept_state &k = kept();
    const auto known = k.ifindexes.find(name);
    const int index = known != k.ifindexes.end() ? known->second : default_ifindex(name);
    k.ifindexes[name] = index;
    k.ifnames[index] = name;
    return index;
}

std::vector<std::uint8_t> copy_bytes(const void *data, int len)
{
    const auto *p = static_cast<const std::uint8_t *>(data);
    return p != nullptr && len > 0 ? std::vector<std::uint8_t>(p, p + len)
                                   : std::vector<std::uint8_t>();
}

sent_frame new_frame(via how, const void *data, int len)
{
    sent_frame f;
    f.how = how;
    f.bytes = copy_bytes(data, len);
    return f;
}

void keep(sent_frame &&f)
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    kept().frames.push_back(std::move(f));
}

// Whether the frame is to be kept: it is counted, and refused where a failure was planned.
bool account_frame(int len)
{
    if (locks_held > 0) {
        record_fault("a frame was sent while a lock was held");
    }
    if (len < 0) {
        record_fault("a frame of negative length was sent");
        return false;
    }
    if (detail::must_fail(static_cast<int>(op::xmit))) {
        return false;
    }
    frames_sent.fetch_add(1, RELAXED);
    bytes_sent.fetch_add(static_cast<std::uint64_t>(len), RELAXED);
    return !counting_only.load(RELAXED);
}

// Stale text of an earlier test is dropped.
void start_line()
{
    const std::uint32_t now_era = era.load(RELAXED);
    if (line.era != now_era) {
        line.era = now_era;
        line.used = 0;
    }
}

void emit_line()
{
    // A violated lock order aborts the process right after: it must be seen.
    if (echoing.load(RELAXED) || std::strstr(line.text, "lock order violated") != nullptr) {
        std::fputs(line.text, stderr);
    }
    if (discarding.load(RELAXED)) {
        return;
    }
    const std::lock_guard<std::mutex> guard(kept_lock);
    if (kept().lines.size() < MAX_LINES) {
        kept().lines.emplace_back(line.text);
    }
}

fake_mutex *live_mutex(void *lock, const char *what)
{
    auto *m = static_cast<fake_mutex *>(lock);
    if (m->magic == MUTEX_LIVE && m->self == m) {
        return m;
    }
    record_fault(std::string(what) + " of a mutex that was never initialised or is destroyed");
    return nullptr;
}

} // namespace

bool detail::must_fail(int which)
{
    std::atomic<int> &left = countdowns[static_cast<std::size_t>(which)];
    if (left.load(RELAXED) <= 0) {
        return false;
    }
    return left.fetch_sub(1, RELAXED) == 1;
}

void reset()
{
    if (detail::reset_frames != nullptr) {
        detail::reset_frames();
    }
    const std::lock_guard<std::mutex> guard(kept_lock);
    kept() = kept_state();
    era.fetch_add(1, RELAXED);
    clock_usecs = START_USECS;
    frames_sent = 0;
    bytes_sent = 0;
    counting_only = false;
    discarding = false;
    echoing = std::getenv("VELL_TEST_LOG") != nullptr; // NOLINT(concurrency-mt-unsafe)
    allocations = 0;
    allocated_bytes = 0;
    allocations_ever = 0;
    mutexes = 0;
    expecting_core = false;
    cores = 0;
    unasked_cores = 0;
    stopped = false;
    for (auto &left : countdowns) {
        left = 0;
    }
    detail::held_frames = 0;
    detail::unheld_frees = 0;
    detail::pullups = 0;
    locks_held = 0;
}

void set_time(lb_s32_t secs, lb_s32_t usecs)
{
    clock_usecs = static_cast<std::int64_t>(secs) * 1000000 + usecs;
}

void advance_ms(std::int64_t ms)
{
    clock_usecs.fetch_add(ms * 1000, RELAXED);
}

lb_timeval_t now()
{
    const std::int64_t usecs = clock_usecs.load(RELAXED);
    lb_timeval_t t;
    t.secs = static_cast<lb_s32_t>(usecs / 1000000);
    t.usecs = static_cast<lb_s32_t>(usecs % 1000000);
    return t;
}

std::vector<sent_frame> sent()
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    return kept().frames;
}

std::vector<sent_frame> take_sent()
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    return std::exchange(kept().frames, {});
}

std::uint64_t sent_count()
{
    return frames_sent.load(RELAXED);
}

std::uint64_t sent_bytes()
{
    return bytes_sent.load(RELAXED);
}

void count_only(bool on)
{
    counting_only = on;
}

std::vector<std::string> log_lines()
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    return kept().lines;
}

int log_count(std::string_view text)
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    int count = 0;
    for (const std::string &l : kept().lines) {
        count += l.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
}

bool log_contains(std::string_view text)
{
    return log_count(text) > 0;
}

void log_clear()
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    kept().lines.clear();
}

void log_discard(bool on)
{
    discarding = on;
}

void log_echo(bool on)
{
    echoing = on;
}

std::int64_t live_allocations()
{
    return allocations.load(RELAXED);
}

std::int64_t live_bytes()
{
    return allocated_bytes.load(RELAXED);
}

std::uint64_t total_allocations()
{
    return allocations_ever.load(RELAXED);
}

std::int64_t live_mutexes()
{
    return mutexes.load(RELAXED);
}

int mutexes_held_here()
{
    return locks_held;
}

std::int64_t held_frames()
{
    return detail::held_frames.load(RELAXED);
}

std::uint64_t unheld_frees()
{
    return detail::unheld_frees.load(RELAXED);
}

std::uint64_t pullups()
{
    return detail::pullups.load(RELAXED);
}

std::vector<std::string> faults()
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    return kept().faults;
}

std::vector<std::string> take_faults()
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    return std::exchange(kept().faults, {});
}

void record_fault(const std::string &what)
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    if (kept().faults.size() < 100) {
        kept().faults.push_back(what);
    }
}

void core_expected(bool on)
{
    expecting_core = on;
}

int core_calls()
{
    return cores.load(RELAXED);
}

int unasked_core_calls()
{
    return unasked_cores.load(RELAXED);
}

bool stop_requested()
{
    return stopped.load(RELAXED);
}

void fail(op which, int n)
{
    countdowns[static_cast<std::size_t>(which)] = n;
}

bool fail_pending(op which)
{
    return countdowns[static_cast<std::size_t>(which)].load(RELAXED) > 0;
}

void during_getxmithandle(std::function<void()> what)
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    kept().during_getxmithandle = std::move(what);
}

// Takes what was planned for the moment, and does it without the lock.
static void interrupt_getxmithandle()
{
    std::function<void()> what;
    {
        const std::lock_guard<std::mutex> guard(kept_lock);
        what = std::exchange(kept().during_getxmithandle, nullptr);
    }
    if (what) {
        what();
    }
}

void set_interface_unknown(const std::string &name, bool unknown)
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    if (unknown) {
        kept().unknown_interfaces.insert(name);
    } else {
        kept().unknown_interfaces.erase(name);
    }
}

void set_ifindex(const std::string &name, int ifindex)
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    kept().ifindexes[name] = ifindex;
    kept().ifnames[ifindex] = name;
}

int ifindex_of(const std::string &name)
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    return ifindex_nl(name);
}

std::vector<membership> memberships()
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    return kept().memberships;
}

std::vector<iface_event> iface_events()
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    return kept().iface_events;
}

std::vector<tun_request> tun_requests()
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    return kept().tun_requests;
}

// What transmission asks of a received frame. Here, so that a test without received frames need not
// link the packet path.
frame *frame::from_opaque(lb_osopaque_t osopaque)
{
    auto *f = static_cast<frame *>(osopaque);
    return f != nullptr && f->magic_ == MAGIC ? f : nullptr;
}

void frame::check_bounds(const void *start, int len) const
{
    const auto *p = static_cast<const std::uint8_t *>(start);
    if (p >= buf_ && p < buf_ + sizeof(buf_) && p + len > buf_ + HEADROOM + datalen_) {
        record_fault("sent " + std::to_string(p + len - (buf_ + HEADROOM + datalen_)) +
                     " bytes beyond what was received");
    }
}

} // namespace fake

using namespace fake;

// --- Mutexes -------------------------------------------------------------------------------------

int os_mutex_init(void *lock)
{
    if (detail::must_fail(static_cast<int>(op::mutex_init))) {
        return INJECTED_RC;
    }
    auto *m = static_cast<fake_mutex *>(lock);
    if (m->magic == MUTEX_LIVE && m->self == m && m->era == era.load(RELAXED)) {
        record_fault("a live mutex was initialised again");
    }
    const int rc = pthread_mutex_init(&m->real, nullptr);
    if (rc != 0) {
        return rc;
    }
    m->magic = MUTEX_LIVE;
    m->self = m;
    m->era = era.load(RELAXED);
    new (&m->owner) std::atomic<const void *>(nullptr);
    mutexes.fetch_add(1, RELAXED);
    return 0;
}

int os_mutex_destroy(void *lock)
{
    fake_mutex *m = live_mutex(lock, "destroy");
    if (m == nullptr) {
        return EINVAL;
    }
    if (m->owner.load(RELAXED) != nullptr) {
        record_fault("a held mutex was destroyed");
        return EBUSY;
    }
    m->magic = 0;
    if (m->era == era.load(RELAXED)) {
        mutexes.fetch_sub(1, RELAXED);
    }
    const int rc = pthread_mutex_destroy(&m->real);
    return detail::must_fail(static_cast<int>(op::mutex_destroy)) ? INJECTED_RC : rc;
}

int os_mutex_lock(void *lock)
{
    if (detail::must_fail(static_cast<int>(op::lock))) {
        return INJECTED_RC;
    }
    fake_mutex *m = live_mutex(lock, "lock");
    if (m == nullptr) {
        return EINVAL;
    }
    if (m->owner.load(RELAXED) == this_thread()) {
        record_fault("a mutex was locked again by the thread that holds it");
        return EDEADLK;
    }
    const int rc = pthread_mutex_lock(&m->real);
    if (rc == 0) {
        m->owner.store(this_thread(), RELAXED);
        locks_held++;
    }
    return rc;
}

int os_mutex_unlock(void *lock)
{
    fake_mutex *m = live_mutex(lock, "unlock");
    if (m == nullptr) {
        return EINVAL;
    }
    if (m->owner.load(RELAXED) != this_thread()) {
        record_fault("a mutex was unlocked by a thread that does not hold it");
        return EPERM;
    }
    m->owner.store(nullptr, RELAXED);
    locks_held--;
    const int rc = pthread_mutex_unlock(&m->real);
    return detail::must_fail(static_cast<int>(op::unlock)) ? INJECTED_RC : rc;
}

// --- Memory --------------------------------------------------------------------------------------

// New memory is full of rubbish and freed memory is overwritten: both what was never set and what
// is used too late show, the latter as a race under ThreadSanitizer.
void *os_memalloc(int size)
{
    if (detail::must_fail(static_cast<int>(op::alloc)) || size < 0) {
        return nullptr;
    }
    const auto bytes = static_cast<std::size_t>(size);
    auto *header = static_cast<block_header *>(std::malloc(sizeof(block_header) + bytes));
    if (header == nullptr) {
        return nullptr;
    }
    *header = {BLOCK_LIVE, era.load(RELAXED), bytes};
    std::memset(header + 1, 0xA5, bytes);
    allocations.fetch_add(1, RELAXED);
    allocated_bytes.fetch_add(size, RELAXED);
    allocations_ever.fetch_add(1, RELAXED);
    return header + 1;
}

void os_memfree(void *obj)
{
    if (obj == nullptr) {
        return;
    }
    block_header *header = static_cast<block_header *>(obj) - 1;
    if (header->magic != BLOCK_LIVE) {
        record_fault("memory was freed that is not allocated");
        return;
    }
    header->magic = BLOCK_FREED;
    if (header->era == era.load(RELAXED)) {
        allocations.fetch_sub(1, RELAXED);
        allocated_bytes.fetch_sub(static_cast<std::int64_t>(header->size), RELAXED);
    }
    std::memset(obj, 0x5A, header->size);
    std::free(header);
}

void *os_memcpy(void *to, const void *from, std::size_t len)
{
    return std::memcpy(to, from, len);
}

void *os_memset(void *to, int byte, std::size_t len)
{
    return std::memset(to, byte, len);
}

int os_memcmp(const void *a, const void *b, std::size_t len)
{
    return std::memcmp(a, b, len);
}

// --- Time and process ----------------------------------------------------------------------------

lb_s32_t os_gettime(lb_timeval_t *timeval)
{
    *timeval = fake::now();
    return timeval->secs;
}

void os_core()
{
    cores.fetch_add(1, RELAXED);
    if (!expecting_core.load(RELAXED)) {
        unasked_cores.fetch_add(1, RELAXED);
    }
}

void os_stop()
{
    stopped = true;
}

// --- Log -----------------------------------------------------------------------------------------

void os_print(const char *fmt, ...)
{
    start_line();
    const std::size_t room = sizeof(line.text) - 1 - line.used;
    va_list args;
    va_start(args, fmt);
    const int n = std::vsnprintf(line.text + line.used, room, fmt, args);
    va_end(args);
    const std::size_t added = n > 0 ? static_cast<std::size_t>(n) : 0;
    if (added < room && (added == 0 || line.text[line.used + added - 1] != '\n')) {
        line.used += added;
        return;
    }
    emit_line();
    line.used = 0;
}

// --- Transmission --------------------------------------------------------------------------------

void os_packetxmit(void *eth, void *proto, int protolen, void *xmithandle, lb_osopaque_t osopaque)
{
    const void *start = eth != nullptr ? eth : proto;
    const int len = eth != nullptr ? protolen + ETH_HEADER : protolen;
    if (const frame *f = frame::from_opaque(osopaque); f != nullptr) {
        f->check_bounds(start, len);
    }
    if (!account_frame(len)) {
        return;
    }
    handle_head handle;
    std::memcpy(&handle, xmithandle, sizeof(handle));
    if (handle.family != FAMILY_PACKET) {
        record_fault("a frame was sent through a transmit handle that was never made");
    }
    sent_frame f = new_frame(via::packet, start, len);
    f.has_eth = eth != nullptr;
    f.ifindex = handle.ifindex;
    const int protocol = handle.protocol[0] << 8 | handle.protocol[1];
    f.ipver = protocol == 0x0800 ? 4 : protocol == 0x86DD ? 6 : 0;
    const std::lock_guard<std::mutex> guard(kept_lock);
    f.ifname = kept().ifnames[handle.ifindex];
    kept().frames.push_back(std::move(f));
}

void os_xmitraw(void *data, int length, unsigned char *, unsigned char *destaddr, int protocol,
                lb_osopaque_t osopaque)
{
    if (protocol != 255 && protocol != 47 && protocol != 4 && protocol != 1) {
        record_fault("os_xmitraw for protocol " + std::to_string(protocol));
        return;
    }
    if (const frame *f = frame::from_opaque(osopaque); f != nullptr) {
        f->check_bounds(data, length);
    }
    if (!account_frame(length)) {
        return;
    }
    sent_frame f = new_frame(via::raw4, data, length);
    f.protocol = protocol;
    const std::lock_guard<std::mutex> guard(kept_lock);
    if (destaddr != nullptr) {
        kept().last_raw4 = copy_bytes(destaddr, 4);
    }
    f.dest = kept().last_raw4;
    kept().frames.push_back(std::move(f));
}

void os_xmitraw6(void *data, int length, unsigned char *destaddr, int protocol)
{
    if (protocol != 58 || !account_frame(length)) {
        return;
    }
    sent_frame f = new_frame(via::raw6, data, length);
    f.protocol = protocol;
    f.dest = copy_bytes(destaddr, 16);
    keep(std::move(f));
}

int os_tunAlloc(char *dev, int flags)
{
    const bool failing = detail::must_fail(static_cast<int>(op::tun_alloc));
    const std::lock_guard<std::mutex> guard(kept_lock);
    const int result = failing ? -1 : 1000 + static_cast<int>(kept().tun_requests.size());
    kept().tun_requests.push_back({std::string(dev, strnlen(dev, 16)), flags, result});
    return result;
}

void os_tunXmit(void *eth, int protolen, int tunfd)
{
    if (!account_frame(protolen)) {
        return;
    }
    sent_frame f =
        new_frame(via::tun, static_cast<const std::uint8_t *>(eth) + ETH_HEADER, protolen);
    f.tunfd = tunfd;
    keep(std::move(f));
}

int os_getxmithandle(const char *name, int, const unsigned char *, int ipver, const unsigned char *,
                     const unsigned char *, void *xmithandle)
{
    const std::string ifname(name, strnlen(name, 16));
    interrupt_getxmithandle();
    const bool failing = detail::must_fail(static_cast<int>(op::getxmithandle));
    const std::lock_guard<std::mutex> guard(kept_lock);
    if (failing || ifname.empty() || kept().unknown_interfaces.count(ifname) != 0) {
        return 1;
    }
    handle_head handle{};
    handle.family = FAMILY_PACKET;
    handle.ifindex = ifindex_nl(ifname);
    const int protocol = ipver == 4 ? 0x0800 : ipver == 6 ? 0x86DD : 0;
    handle.protocol[0] = static_cast<std::uint8_t>(protocol >> 8);
    handle.protocol[1] = static_cast<std::uint8_t>(protocol);
    std::memcpy(xmithandle, &handle, sizeof(handle));
    return 0;
}

void os_regethmulticast(const char *interface, const unsigned char *ip6addr)
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    kept().memberships.push_back({true, interface, copy_bytes(ip6addr, 16)});
}

void os_unregethmulticast(const char *interface, const unsigned char *ip6addr)
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    kept().memberships.push_back({false, interface, copy_bytes(ip6addr, 16)});
}

void os_addiface(const char *ifacename, const void *ethaddr, void **, int ifacecount)
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    kept().iface_events.push_back(
        {true, std::string(ifacename, strnlen(ifacename, 16)), copy_bytes(ethaddr, 6), ifacecount});
}

void os_removeiface(const char *ifacename, const void *ethaddr)
{
    const std::lock_guard<std::mutex> guard(kept_lock);
    kept().iface_events.push_back(
        {false, std::string(ifacename, strnlen(ifacename, 16)), copy_bytes(ethaddr, 6), 0});
}
