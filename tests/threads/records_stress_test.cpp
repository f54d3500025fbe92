// Records under load: four workers open, use and close connections from few clients, so that they
// meet on the same records, while a timer with a fast clock ages them, and commands change weights
// and times and take servers and whole ports away and bring them back. Ports of every kind that
// keeps records, two of them sharing a table.
//
// Once all have stopped, every record must be on exactly one list and in exactly one bucket or in
// neither, no connection may have two, and all memory must come back.
#include <atomic>

#include "record_check.h"
#include "stress.h"

namespace
{

using stress::below;

constexpr const char *C = "10.0.0.100";
constexpr int SERVERS = 4;
constexpr int CLIENTS = 24;
constexpr int CLIENTPORTS = 8; // in two buckets

struct service {
    lb_u16_t number;
    lb_u8_t algorithm;
    lb_u8_t udp;
    lb_u16_t crossport;
};
constexpr service SERVICES[] = {
    {80, LBSEL_ALGORIGHM_CONNECTION, LBSEL_ALGORIGHM_CONNECTION, 0},
    {81, LBSEL_ALGORIGHM_AFFINITY, LBSEL_ALGORIGHM_AFFINITY, 0},
    {443, LBSEL_ALGORIGHM_CONN_AFFIN, LBSEL_ALGORIGHM_AFFINITY, 0},
    {8443, LBSEL_ALGORIGHM_CONN_AFFIN, LBSEL_ALGORIGHM_CONNECTION, 443},
};
constexpr int KINDS = 4;

std::string server_ip(int index)
{
    return "10.0.0." + std::to_string(11 + index);
}

packets::bytes random_segment(stress::rng &random)
{
    constexpr std::uint8_t flags[] = {0x02, 0x02, 0x10, 0x10, 0x10, 0x18, 0x11, 0x04, 0x12};
    packets::packet p;
    p.src = "10.9.0." + std::to_string(1 + below(random, CLIENTS));
    p.sport = static_cast<std::uint16_t>(40000 + below(random, CLIENTPORTS) / 4 +
                                         4096 * below(random, 4));
    p.dport = SERVICES[below(random, KINDS)].number;
    p.proto = below(random, 10) == 0 ? packets::UDP : packets::TCP;
    p.flags = flags[below(random, 9)];
    p.payload = 0;
    return packets::build(p);
}

class RecordStress : public StressTest
{
  protected:
    void SetUp() override
    {
        StressTest::SetUp();
        ASSERT_ADDED(add_interface("eth0", stack::ethernet(1)));
        ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
        ASSERT_ADDED(set_client_gateway("10.0.0.254"));
        fake::receive(stress::arp_reply("10.0.0.254", 254));
        ASSERT_ADDED(add_cluster(C));
        for (const service &each : SERVICES) {
            ASSERT_ADDED(make_port(each));
            for (int i = 0; i < SERVERS; i++) {
                ASSERT_ADDED(make_server(each.number, i));
            }
        }
        fake::count_only(true);
    }

    int make_port(const service &each)
    {
        lbport_addable_t addable{};
        addable.selectalg = each.algorithm;
        addable.udpselectalg = each.udp;
        addable.crossport = each.crossport;
        lbport_setable_t setable{};
        setable.reset = 1;
        setable.staletimeout = 10;
        setable.stickytime = 10;
        return add_port(C, each.number, addable, setable);
    }
    int make_server(lb_u16_t number, int index)
    {
        lbsrv_setable_t setable{};
        setable.weight = 1;
        setable.stickyflag = 1;
        const int rc = add_server(C, number, server_ip(index), setable);
        fake::receive(stress::arp_reply(server_ip(index), static_cast<std::uint8_t>(11 + index)));
        return rc;
    }

    // A port goes with its servers and comes back. A partner that names a port that is not there
    // is refused; the one that comes back is the other's partner then.
    void replace_port(int kind)
    {
        service each = SERVICES[kind];
        for (int i = 0; i < SERVERS; i++) {
            (void)rm_server(C, each.number, server_ip(i)); // perhaps it is gone already
        }
        ASSERT_EQ(rm_port(C, each.number), LBCMD_RC_SUCCESS);
        if (each.number == 443) {
            each.crossport = 8443;
        }
        ASSERT_ADDED(make_port(each));
        for (int i = 0; i < SERVERS; i++) {
            ASSERT_ADDED(make_server(each.number, i));
        }
    }

    // Takes a server away and brings it back, or the other way round.
    void toggle_server(lb_u16_t number, int index)
    {
        if (rm_server(C, number, server_ip(index)) != LBCMD_RC_SUCCESS) {
            ASSERT_ADDED(make_server(number, index));
        }
    }

    void command(stress::rng &random)
    {
        const int kind = below(random, KINDS);
        const lb_u16_t number = SERVICES[kind].number;
        const int index = below(random, SERVERS);
        switch (below(random, 40)) {
        case 0: replace_port(kind); return;
        case 1:
        case 2:
        case 3:
        case 4: toggle_server(number, index); return;
        case 5:
            (void)set_port(C, number, [&](lbport_setable_t &s) {
                s.reset = static_cast<lb_u8_t>(below(random, 2));
                s.stickytime = static_cast<lb_u32_t>(10 + below(random, 5));
            });
            return;
        case 6: (void)get_server(C, number, server_ip(index)); return;
        default:
            if (get_server(C, number, server_ip(index)).rc == LBCMD_RC_SUCCESS) {
                (void)set_server(C, number, server_ip(index), [&](lbsrv_setable_t &s) {
                    s.weight = static_cast<lb_u16_t>(below(random, 3));
                    s.quiesced = static_cast<lb_u32_t>(below(random, 2));
                    s.stickyflag = static_cast<lb_u32_t>(below(random, 4) != 0);
                });
            }
            return;
        }
    }

    std::atomic<bool> stop_{false};
};

TEST_F(RecordStress, KeepsEveryRecordInOnePlace)
{
    std::atomic<std::uint64_t> received{0};
    std::vector<std::thread> threads;
    threads.reserve(stress::WORKERS + 1);
    for (int i = 0; i < stress::WORKERS; i++) {
        threads.emplace_back([this, i, &received] {
            stress::rng random = random_for(i);
            std::vector<packets::bytes> load;
            load.reserve(4000);
            for (int n = 0; n < 4000; n++) {
                load.push_back(random_segment(random));
            }
            fake::frame buffer;
            std::size_t n = 0;
            while (!stop_.load(std::memory_order_relaxed)) {
                const packets::bytes &bytes = load[n++ % load.size()];
                EXPECT_EQ(fake::receive_into(buffer, bytes.data(), bytes.size()),
                          LB_PACKETRC_CONSUMED);
            }
            received.fetch_add(n);
        });
    }
    threads.emplace_back([this] {
        stress::rng random = random_for(stress::WORKERS);
        while (!stop_.load(std::memory_order_relaxed)) {
            // Most of it short, so that connections live; sometimes the time of a whole state.
            fake::advance_ms(below(random, 50) == 0 ? 31000 : below(random, 2000) - 100);
            EXPECT_EQ(lb_timer_entry(), 0);
        }
    });
    stress::rng random = random_for(stress::WORKERS + 1);
    std::uint64_t commands = 0;
    const auto end = stress::clock::now() + stress::duration();
    while (stress::clock::now() < end && !HasFatalFailure()) {
        command(random);
        commands++;
    }
    stop_ = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    std::printf("%llu frames, %llu commands\n", static_cast<unsigned long long>(received.load()),
                static_cast<unsigned long long>(commands));
    EXPECT_GT(received.load(), 0U);
    for (const service &each : SERVICES) {
        lbcmd_key_t key = stack::cfgkey(C, each.number);
        auto *port = reinterpret_cast<lbport_obj_t *>(lbcmd_lookup(LBCMD_KEYTYPE_CONFIG, &key));
        ASSERT_NE(port, nullptr);
        records::check_port(port);
    }
}

// The same SYN from every worker at the same time, over and over: one record for each connection.
TEST_F(RecordStress, MakesOneRecordForOneConnection)
{
    constexpr int ROUNDS = 2000;
    std::atomic<int> turn{0};
    std::atomic<int> done{0};
    std::vector<std::thread> threads;
    threads.reserve(stress::WORKERS + 1);
    for (int i = 0; i < stress::WORKERS; i++) {
        threads.emplace_back([&turn, &done] {
            fake::frame buffer;
            for (int round = 1; round <= ROUNDS; round++) {
                while (turn.load() < round) {
                    std::this_thread::yield();
                }
                packets::packet p;
                p.sport = static_cast<std::uint16_t>(1000 + round);
                p.dport = round % 2 != 0 ? 80 : 443;
                const packets::bytes bytes = packets::build(p);
                (void)fake::receive_into(buffer, bytes.data(), bytes.size());
                done.fetch_add(1);
            }
        });
    }
    for (int round = 1; round <= ROUNDS; round++) {
        turn = round;
        while (done.load() < round * stress::WORKERS) {
            std::this_thread::yield();
        }
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    for (const lb_u16_t number : {lb_u16_t{80}, lb_u16_t{443}}) {
        lb_u32_t preest = 0;
        lb_u32_t lifetime = 0;
        for (int i = 0; i < SERVERS; i++) {
            const auto stats = get_server(C, number, server_ip(i)).getable.selstats;
            preest += stats.preest;
            lifetime += stats.lifetime;
        }
        EXPECT_EQ(preest, ROUNDS / 2U);
        EXPECT_EQ(lifetime, ROUNDS / 2U + (number == 443 ? 1 : 0)) << "the client counts once more";
    }
}

} // namespace
