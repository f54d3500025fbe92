// NAT under load: workers open and close connections and send answers to every port that may be in
// use, while a fast clock ages records and servers that share return addresses are taken away and
// brought back.
//
// An answer may come too late, but never reach a client that has no connection on its port: each
// client has one port and a fixed address for it, so who an answer is rewritten for is checked in
// every frame. Once all have stopped, ports and connections must know each other, and all memory
// must come back.
#include "lb_nat.h"

#include <atomic>

#include "record_check.h"
#include "stress.h"

namespace
{

using packets::ETH;
using stress::below;

constexpr const char *C = "10.0.0.100";
constexpr const char *RETURNS[] = {"10.0.0.201", "10.0.0.202"};
constexpr const char *ROUTER = "10.0.0.253";
constexpr int SERVERS = 4;
constexpr int CLIENTS = 48;
constexpr int FIRSTCLIENTPORT = 40000;
constexpr int GUESSES = 100; // ports from the first one on that answers are sent to

std::string server_ip(int index)
{
    return "10.2.0." + std::to_string(11 + index);
}

packets::bytes random_segment(stress::rng &random)
{
    constexpr std::uint8_t flags[] = {0x02, 0x02, 0x02, 0x10, 0x10, 0x11, 0x04};
    const int client = below(random, CLIENTS);
    packets::packet p;
    p.src = "10.9.0." + std::to_string(1 + client);
    p.sport = static_cast<std::uint16_t>(FIRSTCLIENTPORT + client);
    p.flags = flags[below(random, 7)];
    p.payload = 0;
    return packets::build(p);
}

packets::bytes random_answer(stress::rng &random)
{
    packets::packet p;
    p.src = server_ip(below(random, SERVERS));
    p.dst = RETURNS[below(random, 2)];
    p.sport = 80;
    p.dport = static_cast<std::uint16_t>(EXC_EPT_FIRSTPORT + below(random, GUESSES));
    p.fragoff = below(random, 8) == 0 ? 0x2000 : 0;
    p.flags = 0x12;
    p.payload = 0;
    return packets::build(p);
}

class NatStress : public StressTest
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
        ASSERT_ADDED(make_port());
        for (int i = 0; i < SERVERS; i++) {
            ASSERT_ADDED(make_server(i));
        }
        fake::count_only(true);
    }

    int make_port()
    {
        lbport_addable_t addable{};
        addable.selectalg = LBSEL_ALGORIGHM_CONNECTION;
        lbport_setable_t setable{};
        setable.reset = 1;
        setable.staletimeout = 10;
        return add_port(C, 80, addable, setable);
    }
    int make_server(int index)
    {
        lbsrv_setable_t setable{};
        setable.weight = 1;
        lbsrv_addable_t addable{};
        addable.nat = 1;
        addable.returnaddress = stack::ip(RETURNS[index % 2]);
        addable.routeraddress = stack::ip(ROUTER);
        const int rc = add_server(C, 80, server_ip(index), setable, addable);
        fake::receive(stress::arp_reply(ROUTER, 253));
        return rc;
    }

    void command(stress::rng &random)
    {
        const int index = below(random, SERVERS);
        switch (below(random, 8)) {
        case 0:
            for (int i = 0; i < SERVERS; i++) {
                (void)rm_server(C, 80, server_ip(i)); // perhaps it is gone already
            }
            ASSERT_EQ(rm_port(C, 80), LBCMD_RC_SUCCESS);
            ASSERT_ADDED(make_port());
            for (int i = 0; i < SERVERS; i++) {
                ASSERT_ADDED(make_server(i));
            }
            return;
        case 1:
            if (get_server(C, 80, server_ip(index)).rc == LBCMD_RC_SUCCESS) {
                (void)set_server(C, 80, server_ip(index), [&](lbsrv_setable_t &s) {
                    s.weight = static_cast<lb_u16_t>(below(random, 3));
                });
            }
            return;
        default:
            if (rm_server(C, 80, server_ip(index)) != LBCMD_RC_SUCCESS) {
                ASSERT_ADDED(make_server(index));
            }
            return;
        }
    }

    // Has a return address hand out low ports again, which would take a long time otherwise: ports
    // change hands as fast as they can.
    static void rewind(const char *address)
    {
        lb_grace_inside inside;
        lbip_addr_t key = stack::ip(address);
        auto *retaddr =
            static_cast<lb_retaddr_obj_t *>(lbll_select1(&lbexecutor->retaddrlist, &key));
        if (retaddr != nullptr) {
            os_mutex_lock(&retaddr->ept.lock);
            retaddr->ept.usNextPort = 0;
            os_mutex_unlock(&retaddr->ept.lock);
        }
    }

    // One round of a worker; counts answers that reached a client.
    static void work(const packets::bytes &bytes, fake::frame &buffer, std::uint64_t &answered)
    {
        const bool isanswer = packets::ip_at(bytes, ETH + 16) != C;
        const int rc = fake::receive_into(buffer, bytes.data(), bytes.size());
        if (!isanswer) {
            EXPECT_EQ(rc, LB_PACKETRC_CONSUMED);
            return;
        }
        const packets::bytes after(buffer.bytes(), buffer.bytes() + buffer.length());
        if (after == bytes) {
            return; // not ours now, or nobody's
        }
        answered++;
        EXPECT_EQ(packets::ip_at(after, ETH + 12), C);
        EXPECT_EQ(after[ETH + 19] - 1, packets::get16(after, ETH + 22) - FIRSTCLIENTPORT)
            << "one client's address and another's port";
        EXPECT_EQ(packets::checksum(after, ETH, ETH + 20), 0);
        EXPECT_EQ(packets::transport_residue(after), 0);
    }

    std::atomic<bool> stop_{false};
};

TEST_F(NatStress, AnswersMeetExpiryAndRemoval)
{
    std::atomic<std::uint64_t> answers{0};
    std::vector<std::thread> threads;
    threads.reserve(stress::WORKERS + 1);
    for (int i = 0; i < stress::WORKERS; i++) {
        threads.emplace_back([this, i, &answers] {
            stress::rng random = random_for(i);
            std::vector<packets::bytes> load;
            load.reserve(4000);
            for (int n = 0; n < 4000; n++) {
                load.push_back(n % 3 == 0 ? random_segment(random) : random_answer(random));
            }
            fake::frame buffer;
            std::uint64_t answered = 0;
            for (std::size_t n = 0; !stop_.load(std::memory_order_relaxed); n++) {
                work(load[n % load.size()], buffer, answered);
            }
            answers.fetch_add(answered);
        });
    }
    threads.emplace_back([this] {
        stress::rng random = random_for(stress::WORKERS);
        while (!stop_.load(std::memory_order_relaxed)) {
            fake::advance_ms(below(random, 20) == 0 ? 31000 : below(random, 2000));
            EXPECT_EQ(lb_timer_entry(), 0);
        }
    });
    stress::rng random = random_for(stress::WORKERS + 1);
    std::uint64_t commands = 0;
    const auto end = stress::clock::now() + stress::duration();
    while (stress::clock::now() < end && !HasFatalFailure()) {
        command(random);
        commands++;
        for (const char *address : RETURNS) {
            rewind(address);
        }
        std::this_thread::sleep_for(
            std::chrono::microseconds(below(random, 2000))); // let some open
    }
    stop_ = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    std::printf("%llu answers, %llu commands\n", static_cast<unsigned long long>(answers.load()),
                static_cast<unsigned long long>(commands));
    EXPECT_GT(answers.load(), 0U);
    lbcmd_key_t key = stack::cfgkey(C, 80);
    records::check_port(reinterpret_cast<lbport_obj_t *>(lbcmd_lookup(LBCMD_KEYTYPE_CONFIG, &key)));
    for (const char *address : RETURNS) {
        lbip_addr_t addr = stack::ip(address);
        auto *retaddr =
            static_cast<lb_retaddr_obj_t *>(lbll_select1(&lbexecutor->retaddrlist, &addr));
        if (retaddr != nullptr) {
            records::check_natports(retaddr);
        }
    }
}

} // namespace
