// Removal under load: a server, a port, a cluster or an interface goes and comes back while four
// workers use it and its neighbours. What was removed is freed after its time and its grace, not
// before, and of the traffic for services that nobody touches not one frame is lost or misled.
//
// The main thread gives the commands and ticks, so that what is allocated at each step is known.
#include <array>
#include <atomic>

#include "stress.h"

namespace
{

enum class victim { server, port, cluster, interface };

struct removal {
    const char *name;
    victim what;
    bool waits; // three seconds of clock before its memory may go
};

const std::array<removal, 4> REMOVALS = {{
    {"Server", victim::server, true},
    {"Port", victim::port, true},
    {"Cluster", victim::cluster, true},
    {"Interface", victim::interface, false},
}};

constexpr int CLIENTPORTS = 64;
constexpr const char *SERVICE = "10.0.0.100"; // its ports 80 and 53 are never touched
constexpr const char *OTHER = "10.0.0.101";

std::vector<packets::bytes> make_load()
{
    std::vector<packets::bytes> load;
    for (std::uint16_t i = 0; i < CLIENTPORTS; i++) {
        packets::packet p;
        p.sport = static_cast<std::uint16_t>(1024 + i);
        load.push_back(packets::build(p)); // untouched, TCP
        p.dport = 81;
        load.push_back(packets::build(p)); // perhaps the victim's
        p.dst = OTHER;
        p.dport = 80;
        load.push_back(packets::build(p)); // perhaps the victim's
        p.dst = SERVICE;
        p.proto = packets::UDP;
        p.dport = 53;
        load.push_back(packets::build(p)); // untouched, UDP
    }
    return load;
}

bool is_untouched(const packets::bytes &frame)
{
    const std::uint16_t dport = packets::get16(frame, packets::ETH + 22);
    return packets::ip_at(frame, packets::ETH + 16) == SERVICE && (dport == 80 || dport == 53);
}

struct worker {
    std::atomic<std::uint64_t> rounds{0};
    std::thread thread{};
};

class RemovalTest : public StressTest, public ::testing::WithParamInterface<removal>
{
  protected:
    void SetUp() override
    {
        StressTest::SetUp();
        load_ = make_load();
        ASSERT_ADDED(add_interface("eth0"));
        ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
        ASSERT_ADDED(add_cluster(SERVICE));
        for (const lb_u16_t port : {80, 53}) {
            ASSERT_ADDED(add_port(SERVICE, port));
            ASSERT_ADDED(add_server(SERVICE, port, "10.0.0.11"));
            ASSERT_ADDED(add_server(SERVICE, port, "10.0.0.12"));
        }
        switch (GetParam().what) {
        case victim::server: ASSERT_ADDED(add_port(SERVICE, 81)); break;
        case victim::interface:
            ASSERT_ADDED(add_cluster(OTHER));
            ASSERT_ADDED(add_port(OTHER, 80));
            ASSERT_ADDED(add_server(OTHER, 80, "10.0.1.11"));
            ASSERT_ADDED(add_server(OTHER, 80, "10.0.0.12"));
            break;
        case victim::port:
        case victim::cluster: break;
        }
    }

    void add_victim()
    {
        switch (GetParam().what) {
        case victim::server: add_victim_servers(SERVICE, 81); break;
        case victim::port:
            ASSERT_ADDED(add_port(SERVICE, 81));
            add_victim_servers(SERVICE, 81);
            break;
        case victim::cluster:
            ASSERT_ADDED(add_cluster(OTHER));
            ASSERT_ADDED(add_port(OTHER, 80));
            add_victim_servers(OTHER, 80);
            break;
        case victim::interface:
            ASSERT_ADDED(add_interface("eth1", stack::ethernet(2)));
            ASSERT_ADDED(add_ifaddr("eth1", "10.0.1.1/24"));
            break;
        }
        tick(2); // neighbours without an interface look for one
        introduce();
    }

    void rm_victim()
    {
        switch (GetParam().what) {
        case victim::server: rm_victim_servers(SERVICE, 81); break;
        case victim::port:
            rm_victim_servers(SERVICE, 81);
            EXPECT_EQ(rm_port(SERVICE, 81), LBCMD_RC_SUCCESS);
            break;
        case victim::cluster:
            rm_victim_servers(OTHER, 80);
            EXPECT_EQ(rm_port(OTHER, 80), LBCMD_RC_SUCCESS);
            EXPECT_EQ(rm_cluster(OTHER), LBCMD_RC_SUCCESS);
            break;
        case victim::interface:
            EXPECT_EQ(rm_ifaddr("eth1", "10.0.1.1/24"), LBCMD_RC_SUCCESS);
            EXPECT_EQ(rm_interface("eth1"), LBCMD_RC_SUCCESS);
            break;
        }
    }

    void start_workers()
    {
        for (worker &w : workers_) {
            w.thread = std::thread([this, &w] { work(w); });
        }
        for (worker &w : workers_) {
            await([&w] { return w.rounds > 0; }, "a worker's first round");
        }
    }

    void stop_workers()
    {
        stop_ = true;
        for (worker &w : workers_) {
            w.thread.join();
        }
    }

    // Ticks without letting time pass until `happened`; grace needs the workers to come out once.
    template <class Condition> void await(Condition happened, const char *what)
    {
        const auto end = stress::clock::now() + std::chrono::seconds(60);
        while (!happened()) {
            ASSERT_LT(stress::clock::now(), end) << what << " did not come";
            EXPECT_EQ(lb_timer_entry(), 0);
            drain();
            std::this_thread::yield();
        }
    }

    // Looks at what was sent since the last call.
    void drain()
    {
        for (const fake::sent_frame &frame : fake::take_sent()) {
            const packets::bytes &bytes = frame.bytes;
            if (packets::get16(bytes, 12) != 0x0800 || !is_untouched(bytes)) {
                continue;
            }
            forwarded_++;
            const std::uint16_t sport = packets::get16(bytes, packets::ETH + 20);
            const bool tcp = bytes[packets::ETH + 9] == packets::TCP;
            const std::uint8_t last = bytes[5];
            misled_ += tcp && last != (sport % 2 == 0 ? 0x11 : 0x12) ? 1 : 0;
        }
    }

    [[nodiscard]] std::uint64_t untouched_received() const
    {
        std::uint64_t count = 0;
        for (const worker &w : workers_) {
            count += w.rounds * 2 * CLIENTPORTS;
        }
        return count;
    }

    std::uint64_t forwarded_ = 0;
    std::uint64_t misled_ = 0;

  private:
    // Each round is the whole load.
    void work(worker &me)
    {
        fake::frame buffer;
        while (!stop_) {
            for (const packets::bytes &frame : load_) {
                (void)fake::receive_into(buffer, frame.data(), frame.size());
            }
            me.rounds++;
        }
    }

    // One of them is a server of the untouched service, too: they share its neighbour entry.
    void add_victim_servers(const std::string &cluster, lb_u16_t port)
    {
        ASSERT_ADDED(add_server(cluster, port, "10.0.0.11"));
        ASSERT_ADDED(add_server(cluster, port, "10.0.0.21"));
    }
    void rm_victim_servers(const std::string &cluster, lb_u16_t port)
    {
        EXPECT_EQ(rm_server(cluster, port, "10.0.0.11"), LBCMD_RC_SUCCESS);
        EXPECT_EQ(rm_server(cluster, port, "10.0.0.21"), LBCMD_RC_SUCCESS);
    }

    static void introduce()
    {
        fake::receive(stress::arp_reply("10.0.0.11", 0x11));
        fake::receive(stress::arp_reply("10.0.0.12", 0x12));
        fake::receive(stress::arp_reply("10.0.0.21", 0x21));
        fake::receive(stress::arp_reply("10.0.1.11", 0x31));
    }

    std::vector<packets::bytes> load_;
    std::array<worker, stress::WORKERS> workers_;
    std::atomic<bool> stop_{false};
};

TEST_P(RemovalTest, FreesInTimeAndLosesNoFrameOfOthers)
{
    add_victim();
    rm_victim();
    tick(6);
    start_workers();
    const auto end = stress::clock::now() + stress::duration() / REMOVALS.size();
    int rounds = 0;
    while ((rounds < 3 || stress::clock::now() < end) && !HasFailure()) {
        const auto without = fake::live_allocations();
        add_victim();
        const auto with = fake::live_allocations();
        EXPECT_GT(with, without);
        rm_victim();
        for (int i = 0; GetParam().waits && i < 5; i++) {
            tick_once();
            EXPECT_EQ(fake::live_allocations(), with) << "freed before its time";
        }
        tick_once();
        await([&] { return fake::live_allocations() == without; }, "the victim's memory");
        rounds++;
    }
    stop_workers();
    drain();
    std::printf("%d removals, %llu frames for others\n", rounds,
                static_cast<unsigned long long>(forwarded_));
    EXPECT_EQ(forwarded_, untouched_received());
    EXPECT_EQ(misled_, 0U) << "frames to the wrong server";
    expect_consistent_lists();
}

INSTANTIATE_TEST_SUITE_P(Victims, RemovalTest, ::testing::ValuesIn(REMOVALS),
                         [](const auto &row) { return std::string(row.param.name); });

} // namespace
