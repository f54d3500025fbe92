// Log output. A line is assembled in a buffer of its thread and leaves whole: in the foreground on
// standard output, else as one syslog record. Towards syslog a place in the source that writes more
// than LX_SITE_LIMIT lines within a second is silenced for the rest of it, so that a frame flood
// doesn't become a log flood; how many lines were left out is said afterwards. Standard output is
// not limited.
//
// Any thread enters. The one lock, of the highest rank, guards the table of places; nothing is
// written while it is held, and nothing is allocated.
#include "lb_annotations.h"
#include "lb_lockrank.h"
#include "lx_host.h"

#include <linux/if_packet.h>
#include <pthread.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "os.h"

namespace
{

constexpr int LX_LINESIZE = 1024;
constexpr int LX_SITES = 128; // a power of two
constexpr int LX_PROBES = 8;
constexpr int LX_SITENAME = 48;
constexpr int LX_SITE_LIMIT = 100;
constexpr int LX_DUMP_ROW = 16;

// A line in the making.
struct lx_line_t {
    char text[LX_LINESIZE];
    int used;
};
thread_local lx_line_t lx_line;

class LB_CAPABILITY("mutex") lx_sitelock_t
{
  public:
    void lock() LB_TAKES() LB_UNCHECKED_LOCKING
    {
        lb_lockrank_take(LB_RANK_LOG);
        pthread_mutex_lock(&mutex_);
    }
    void unlock() LB_DROPS() LB_UNCHECKED_LOCKING
    {
        pthread_mutex_unlock(&mutex_);
        lb_lockrank_drop(LB_RANK_LOG);
    }

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

// A place that writes lines, and its lines within one second.
struct lx_site_t {
    char name[LX_SITENAME]; // empty: this entry was never used
    lb_s64_t second;
    int lines;
    int left_out;
};

lx_sitelock_t lx_sitelock;
lx_site_t lx_sites[LX_SITES] LB_GUARDED_BY(lx_sitelock);

// Seconds that no change of the wall clock moves.
lb_s64_t lx_second()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

// The place that a line comes from: "file:line", or the first word of those few lines that don't
// name it ("pkt" of all packet traces). The time in front, and the word ERROR, name no place.
void lx_sitename(const char *line, char *name)
{
    const char *word = line;
    std::size_t len = std::strcspn(word, " \n");
    if (len > 0 && std::strspn(word, "0123456789.-") == len) {
        word += len + std::strspn(word + len, " ");
        len = std::strcspn(word, " \n");
    }
    if (std::strncmp(word, "ERROR: ", 7) == 0) {
        word += 7;
        len = std::strcspn(word, " \n");
    }
    len = len < LX_SITENAME - 1 ? len : LX_SITENAME - 1;
    std::memset(name, 0, LX_SITENAME);
    std::memcpy(name, word, len);
}

unsigned lx_sitehash(const char *name)
{
    unsigned hash = 2166136261U; // FNV-1a
    for (; *name != '\0'; name++) {
        hash = (hash ^ static_cast<unsigned char>(*name)) * 16777619U;
    }
    return hash;
}

// The entry of a place, made if need be; NULL while all that it could have are busy.
lx_site_t *lx_findsite(const char *name, lb_s64_t second) LB_NEEDS(lx_sitelock)
{
    const unsigned first = lx_sitehash(name);
    lx_site_t *spare = nullptr;
    for (unsigned i = 0; i < LX_PROBES; i++) {
        lx_site_t *site = &lx_sites[(first + i) % LX_SITES];
        if (std::strcmp(site->name, name) == 0) {
            return site;
        }
        const bool idle = site->name[0] == '\0' || (site->second != second && site->left_out == 0);
        if (spare == nullptr && idle) {
            spare = site;
        }
    }
    if (spare != nullptr) {
        *spare = {};
        std::memcpy(spare->name, name, LX_SITENAME);
        spare->second = second;
    }
    return spare;
}

// Counts a line of a place: whether it may be written. `left_out` is how many lines of an earlier
// second have yet to be owned up to.
bool lx_admit(const char *name, int *left_out)
{
    const lb_s64_t second = lx_second();
    bool admitted = true;
    lx_sitelock.lock();
    lx_site_t *site = lx_findsite(name, second);
    if (site != nullptr) {
        if (site->second != second) {
            *left_out = site->left_out;
            site->second = second;
            site->lines = 0;
            site->left_out = 0;
        }
        admitted = site->lines < LX_SITE_LIMIT;
        site->lines += admitted ? 1 : 0;
        site->left_out += admitted ? 0 : 1;
    }
    lx_sitelock.unlock();
    return admitted;
}

void lx_own_up(const char *name, int left_out)
{
    const lb_timeval_t elapsed = lb_log_elapsed();
    syslog(LOG_INFO, "%d.%06d %s %d more lines within one second were left out\n", elapsed.secs,
           elapsed.usecs, name, left_out);
}

void lx_to_syslog(const char *line)
{
    char name[LX_SITENAME];
    lx_sitename(line, name);
    int left_out = 0;
    const bool admitted = lx_admit(name, &left_out);
    if (left_out > 0) {
        lx_own_up(name, left_out);
    }
    if (admitted) {
        syslog(LOG_INFO, "%s", line);
    }
}

void lx_to_stdout(const char *line, int len)
{
    // One call under the stream's own lock, which line buffering (set by main) turns into one
    // write.
    std::fputs(line, stdout);
    if (len > 0 && line[len - 1] != '\n') {
        std::fflush(stdout);
    }
}

} // namespace

void os_print(const char *fmt, ...)
{
    lx_line_t *line = &lx_line;
    char *at = line->text + line->used;
    const int room = LX_LINESIZE - 1 - line->used;
    va_list args;
    va_start(args, fmt);
    // clang 14 does not see that va_start() sets it.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int n = std::vsnprintf(at, static_cast<std::size_t>(room), fmt, args);
    va_end(args);
    if (n < room && (n <= 0 || at[n - 1] != '\n')) {
        line->used += n > 0 ? n : 0;
        return;
    }
    line->used = 0;
    if (argforeground != 0) {
        lx_to_stdout(line->text, static_cast<int>(std::strlen(line->text)));
    } else {
        lx_to_syslog(line->text);
    }
}

void lx_log_flush()
{
    const lb_s64_t second = lx_second();
    for (int i = 0; i < LX_SITES; i++) {
        char name[LX_SITENAME] = "";
        int left_out = 0;
        lx_sitelock.lock();
        if (lx_sites[i].left_out > 0 && lx_sites[i].second != second) {
            std::memcpy(name, lx_sites[i].name, LX_SITENAME);
            left_out = lx_sites[i].left_out;
            lx_sites[i].left_out = 0;
        }
        lx_sitelock.unlock();
        if (left_out > 0) {
            lx_own_up(name, left_out);
        }
    }
}

void lx_dbg_bufprint(const char *label, const unsigned char *buf, const int len)
{
    static std::atomic<int> calls{0};
    std::printf("%03d %s returned %d", calls.fetch_add(1, std::memory_order_relaxed), label, len);
    for (int i = 0; i < len; i++) {
        std::printf("%s%02x ", i % LX_DUMP_ROW == 0 ? "\n" : "", buf[i]);
    }
    std::printf("\n");
}

void lx_dbg_printsll(void *pkt)
{
    const auto *sll = static_cast<const sockaddr_ll *>(pkt);
    const unsigned char *addr = sll->sll_addr;
    std::printf("%s fam=0x%x prot=0x%x ifindex=0x%x halen=0x%x, "
                "addr=%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x\n",
                "lx_dbg_printsll", sll->sll_family, sll->sll_protocol,
                static_cast<unsigned>(sll->sll_ifindex), sll->sll_halen, addr[0], addr[1], addr[2],
                addr[3], addr[4], addr[5], addr[6], addr[7]);
}
