// Connections: what a new one, a packet of an established one, a look-up and the end of many cost,
// and what a record costs in memory. Tables of up to a million connections, either spread over the
// buckets or, as an attacker would have them, all from one client port and so in one bucket.
#include "lb_entry.h"
#include "lb_port.h"
#include "lb_sel_connection.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <vector>

#include "bench_world.h"
#include "fake_host.h"
#include "prot/ether.h"
#include "prot/ipv4.h"
#include "prot/tcpudp.h"

namespace bench
{
namespace
{

bool failed = false;

constexpr int SPREAD_PORTS = 4096; // as many client ports as buckets

lbsel_cr_obj_key_t key_of(std::uint32_t index, bool onebucket)
{
    const std::uint32_t client = onebucket ? index : index / SPREAD_PORTS;
    lbsel_cr_obj_key_t key{};
    key.sip.version = 4;
    const std::uint8_t bytes[] = {20, static_cast<std::uint8_t>(client >> 16),
                                  static_cast<std::uint8_t>(client >> 8),
                                  static_cast<std::uint8_t>(client)};
    std::memcpy(key.sip.nboaddr.v4, bytes, sizeof(bytes));
    key.sport = static_cast<lb_u16_t>(onebucket ? 40000 : 8192 + index % SPREAD_PORTS);
    return key;
}

// A segment of a connection, made from another one's. Its header checksum is left to the hardware.
void address_frame(bytes_t &frame, std::uint32_t index, lb_u8_t flags)
{
    const lbsel_cr_obj_key_t key = key_of(index, false);
    std::uint8_t *ip = frame.data() + LBETH_HDRLEN;
    std::memset(ip + offsetof(lbipv4_hdr_t, csum), 0, 2);
    std::memcpy(ip + offsetof(lbipv4_hdr_t, src), key.sip.nboaddr.v4, 4);
    std::uint8_t *tcp = ip + sizeof(lbipv4_hdr_t);
    tcp[0] = static_cast<std::uint8_t>(key.sport >> 8);
    tcp[1] = static_cast<std::uint8_t>(key.sport);
    tcp[offsetof(lbtcp_hdr_t, flags)] = flags;
}

shape_t connections()
{
    shape_t shape;
    shape.tcp = LBSEL_ALGORIGHM_CONNECTION;
    return shape;
}

class client
{
  public:
    explicit client(const world &here) : frame_(here.client_frames(LBIP_PROTO_TCP)[0]) {}
    // Whether the segment was forwarded.
    bool send(std::uint32_t index, lb_u8_t flags)
    {
        address_frame(frame_, index, flags);
        const std::uint64_t before = fake::sent_count();
        (void)fake::receive_into(buffer_, frame_.data(), frame_.size()); // the count says all
        return fake::sent_count() == before + 1;
    }
    // Opens the connections 0 to count - 1.
    void open(std::uint32_t count)
    {
        for (std::uint32_t i = 0; i < count; i++) {
            failed |= !send(i, LBTCP_SYN);
        }
    }

  private:
    bytes_t frame_;
    fake::frame buffer_;
};

void expire()
{
    fake::advance_s(31);
    failed |= lb_timer_entry() != 0;
}

constexpr std::uint32_t MANY = 100000;

void new_connection(benchmark::State &state)
{
    const world here(connections());
    client sender(here);
    sender.open(MANY); // so that records are at hand
    expire();
    const std::uint64_t allocations = fake::total_allocations();
    std::uint32_t index = 0;
    while (state.KeepRunning()) {
        failed |= !sender.send(index++, LBTCP_SYN);
    }
    const auto made = fake::total_allocations() - allocations;
    state.counters["allocs"] = static_cast<double>(made);
    failed |= made != 0;
}

void established(benchmark::State &state)
{
    const auto count = static_cast<std::uint32_t>(state.range(0));
    const world here(connections());
    client sender(here);
    sender.open(count);
    std::vector<std::uint32_t> order(count);
    for (std::uint32_t i = 0; i < count; i++) {
        order[i] = i;
        failed |= !sender.send(i, LBTCP_ACK);
    }
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    std::size_t n = 0;
    while (state.KeepRunning()) {
        failed |= !sender.send(order[n++ % count], LBTCP_ACK);
    }
}

void expiry(benchmark::State &state)
{
    const world here(connections());
    client sender(here);
    while (state.KeepRunning()) {
        sender.open(MANY);
        fake::advance_s(31);
        const std::clock_t begin = std::clock(); // of this process: the machine may be shared
        failed |= lb_timer_entry() != 0;
        state.SetIterationTime(static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC);
    }
    failed |= lbll_size(&static_cast<lbsel_ct_obj_t *>(here.last_port()->ct)->pool.reuse) != MANY;
}

// Records in a random order of addresses, as a table has them that has been in use for a while.
void lookup(benchmark::State &state, bool onebucket)
{
    const auto count = static_cast<std::uint32_t>(state.range(0));
    const world here(connections());
    auto *ct = static_cast<lbsel_ct_obj_t *>(here.last_port()->ct);
    const std::int64_t bytes = fake::live_bytes();
    std::vector<lbsel_cr_obj_t *> records(count);
    for (lbsel_cr_obj_t *&record : records) {
        record = _lbsel_ct_getnewcr(ct);
    }
    const std::int64_t taken = fake::live_bytes() - bytes;
    std::shuffle(records.begin(), records.end(), std::mt19937(1));
    for (std::uint32_t i = 0; i < count; i++) {
        records[i]->crkey = key_of(i, onebucket);
        failed |= lbht_addnode(&ct->lookup, records[i]) != 0;
    }
    std::mt19937 random(2);
    while (state.KeepRunning()) {
        const std::uint32_t index = random() % count;
        lbsel_cr_obj_key_t key = key_of(index, onebucket);
        failed |= lbht_select1(&ct->lookup, &key) != records[index];
    }
    state.counters["bytes/record"] = static_cast<double>(taken) / count;
}

} // namespace

void register_records()
{
    benchmark::RegisterBenchmark("connection/new", new_connection)->Iterations(MANY);
    benchmark::RegisterBenchmark("connection/established", established)
        ->ArgName("connections")
        ->Arg(1000)
        ->Arg(100000);
    benchmark::RegisterBenchmark("connection/expiry-of-100000", expiry)
        ->Iterations(10)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    for (const bool onebucket : {false, true}) {
        const char *name =
            onebucket ? "connection/look-up/one-client-port" : "connection/look-up/spread";
        benchmark::RegisterBenchmark(name, lookup, onebucket)
            ->ArgName("connections")
            ->Arg(1000)
            ->Arg(100000)
            ->Arg(1000000)
            ->Iterations(1000)
            ->Repetitions(1) // a second look would not tell more, and the last row takes minutes
            ->Unit(benchmark::kMicrosecond);
    }
}

bool records_failed()
{
    return failed;
}

} // namespace bench
