// One packet through the whole stack, and the containers that it meets on its way: nanoseconds and
// allocations. The host is the one in memory, so no system call is in the figures, but its checks
// are: the rows called "host" tell their share. Exits with 1 when a packet allocates, or comes out
// otherwise than it must.
#include "lb_hashtable.h"
#include "lb_linkedlist.h"
#include "lb_log.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "bench_world.h"
#include "fake_host.h"
#include "prot/ipv4.h"

namespace
{

using bench::bytes_t;
using bench::shape_t;
using bench::world;

bool failed = false;

// Feeds the frames in turn and checks what became of them: every one has the disposition `want`,
// and `sends` frames left for each.
template <typename Frames>
void feed(benchmark::State &state, const Frames &frames, int want, int sends)
{
    fake::frame buffer;
    auto round = [&](std::size_t n) {
        const bytes_t &bytes = frames[n % frames.size()];
        return fake::receive_into(buffer, bytes.data(), bytes.size());
    };
    std::uint64_t wrong = 0;
    for (std::size_t i = 0; i < 1000; i++) { // warm: caches, and what a thread keeps
        wrong += round(i) != want;
    }
    std::uint64_t allocations = 0;
    std::uint64_t sent = 0;
    std::size_t n = 0;
    while (state.KeepRunning()) {
        if (n == 0) { // only here has every thread warmed up
            allocations = fake::total_allocations();
            sent = fake::sent_count();
        }
        wrong += round(n++) != want;
    }
    const auto made = static_cast<double>(fake::total_allocations() - allocations);
    const std::uint64_t left = fake::sent_count() - sent;
    state.counters["allocs"] = made / static_cast<double>(n);
    state.SetItemsProcessed(static_cast<std::int64_t>(n));
    // Other threads' frames are in the counts, too.
    const bool counted = state.threads() > 1 || left == n * static_cast<std::size_t>(sends);
    if (made > 0 || wrong > 0 || !counted) {
        failed = true;
        state.SkipWithError(made > 0 ? "a packet allocated memory" : "a packet went astray");
    }
}

// Threads of one benchmark share a world, made by the first before the others start measuring.
std::optional<world> shared;

void forward(benchmark::State &state, lb_u8_t proto, lbsel_algorighm_e udp)
{
    const world here({.clusters = static_cast<int>(state.range(0)),
                      .ports = static_cast<int>(state.range(1)),
                      .udp = udp});
    feed(state, here.client_frames(proto), LB_PACKETRC_CONSUMED, 1);
}

void forward_two_threads(benchmark::State &state)
{
    feed(state, shared->client_frames(LBIP_PROTO_UDP), LB_PACKETRC_CONSUMED, 1);
}

void left_alone(benchmark::State &state)
{
    const world here({.clusters = static_cast<int>(state.range(0))});
    feed(state, std::array{here.foreign_frame()}, LB_PACKETRC_INTACT, 0);
}

void arp_request(benchmark::State &state)
{
    const world here({.clusters = static_cast<int>(state.range(0))});
    feed(state, std::array{here.arp_request()}, LB_PACKETRC_CONSUMED, 1);
}

// --- The host's own share ------------------------------------------------------------------------

void host_frame(benchmark::State &state)
{
    const world here({});
    const auto frames = here.client_frames(LBIP_PROTO_UDP);
    fake::frame buffer;
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(
            fake::receive_into(buffer, frames[0].data(), frames[0].size(), fake::link::loopback));
    }
}

void host_mutex(benchmark::State &state)
{
    fake::reset();
    lblock lock;
    (void)os_mutex_init(&lock);
    while (state.KeepRunning()) {
        (void)os_mutex_lock(&lock);
        (void)os_mutex_unlock(&lock);
    }
    (void)os_mutex_destroy(&lock);
}

// --- Containers ----------------------------------------------------------------------------------

// A fresh host and logging off: without a stack nobody has set the mask.
void bare_host()
{
    static lb_u64_t no_logging = 0;
    fake::reset();
    lbexeos_logmask = &no_logging;
}

struct item_t {
    lbll_node_t node;
    lb_u32_t key;
};

int item_select(void *key, void *obj)
{
    return static_cast<item_t *>(obj)->key == *static_cast<lb_u32_t *>(key) ? LBLL_FILTER_YES : 0;
}
lb_u32_t item_hash(void *key, void *obj)
{
    return obj != nullptr ? static_cast<item_t *>(obj)->key : *static_cast<lb_u32_t *>(key);
}
void item_print(void *) {}

std::vector<item_t> make_items(std::int64_t count)
{
    std::vector<item_t> items(static_cast<std::size_t>(count));
    for (std::size_t i = 0; i < items.size(); i++) {
        items[i].key = static_cast<lb_u32_t>(i);
    }
    return items;
}

void list_add_remove(benchmark::State &state)
{
    bare_host();
    lbll_list_t list{};
    item_t item{};
    int rc = lbll_initlist(&list, offsetof(item_t, node), item_select, item_print);
    while (state.KeepRunning()) {
        rc |= lbll_addnode_rhs(&list, &item);
        rc |= lbll_rmnode(&list, &item);
    }
    rc |= lbll_rmlist(&list);
    failed |= rc != 0;
}

// Finds the last member.
void list_select(benchmark::State &state)
{
    bare_host();
    lbll_list_t list{};
    auto items = make_items(state.range(0));
    int rc = lbll_initlist(&list, offsetof(item_t, node), item_select, item_print);
    for (item_t &item : items) {
        rc |= lbll_addnode_rhs(&list, &item);
    }
    lb_u32_t key = items.back().key;
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(lbll_select1(&list, &key));
    }
    failed |= rc != 0 || lbll_select1(&list, &key) != &items.back();
    (void)lbll_cleanuplist(&list);
}

// Finds each member in turn; as many members as buckets.
void hash_select(benchmark::State &state)
{
    bare_host();
    lbht_table_t table{};
    auto items = make_items(state.range(0));
    const auto buckets = std::make_unique<lbht_bucket_t[]>(items.size());
    int rc = lbht_inittable(&table, static_cast<int>(items.size()), buckets.get(),
                            offsetof(item_t, node), item_hash, item_select, item_print);
    for (item_t &item : items) {
        rc |= lbht_addnode(&table, &item);
    }
    lb_u32_t key = 0;
    while (state.KeepRunning()) {
        key = key + 1 < items.size() ? key + 1 : 0;
        benchmark::DoNotOptimize(lbht_select1(&table, &key));
    }
    failed |= rc != 0;
    (void)lbht_rmtable(&table);
}

void register_all()
{
    auto *udp_hash = benchmark::RegisterBenchmark("forward/udp/hash", forward, LBIP_PROTO_UDP,
                                                  LBSEL_ALGORIGHM_HASH);
    for (const auto &[clusters, ports] : {std::pair{1, 1}, {1, 10}, {1, 100}, {10, 1}, {100, 1}}) {
        udp_hash->Args({clusters, ports});
    }
    udp_hash->ArgNames({"clusters", "ports"});
    benchmark::RegisterBenchmark("forward/tcp/hash", forward, LBIP_PROTO_TCP, LBSEL_ALGORIGHM_HASH)
        ->ArgNames({"clusters", "ports"})
        ->Args({1, 1});
    benchmark::RegisterBenchmark("forward/udp/udprr", forward, LBIP_PROTO_UDP,
                                 LBSEL_ALGORIGHM_UDPRR)
        ->ArgNames({"clusters", "ports"})
        ->Args({1, 1});
    benchmark::RegisterBenchmark("forward/udp/hash", forward_two_threads)
        ->Setup([](const benchmark::State &) { shared.emplace(shape_t{}); })
        ->Teardown([](const benchmark::State &) { shared.reset(); })
        ->Threads(2)
        ->UseRealTime();
    benchmark::RegisterBenchmark("intact", left_alone)
        ->ArgName("clusters")
        ->Arg(1)
        ->Arg(10)
        ->Arg(100);
    benchmark::RegisterBenchmark("arp/request", arp_request)->ArgName("clusters")->Arg(1);
    benchmark::RegisterBenchmark("list/add+remove", list_add_remove);
    benchmark::RegisterBenchmark("list/find-last", list_select)->Arg(1)->Arg(10)->Arg(100);
    benchmark::RegisterBenchmark("hash/find", hash_select)->Arg(16)->Arg(4096);
    benchmark::RegisterBenchmark("host/receive", host_frame);
    benchmark::RegisterBenchmark("host/lock+unlock", host_mutex);
}

} // namespace

int main(int argc, char **argv)
{
    register_all();
    bench::register_records();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    failed |= bench::records_failed();
    if (failed) {
        std::fputs("vell_bench: a packet allocated memory or went astray; see the rows marked so\n",
                   stderr);
    }
    return failed ? 1 : 0;
}
