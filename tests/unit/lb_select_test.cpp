// Choosing: the arithmetic of round robin against a naive reference, and the two algorithms that
// keep no state.
#include "lb_cluster.h"
#include "lb_port.h"
#include "lb_select.h"
#include "lb_server.h"

#include <map>
#include <memory>
#include <random>

#include "packets.h"
#include "stack_fixture.h"

namespace
{

constexpr int NONE = -1;

// A server set of its own, with servers that are nothing but a weight.
class SrvsetTest : public FakeHostTest
{
  protected:
    void SetUp() override
    {
        FakeHostTest::SetUp();
        set_log_mask(LB_LOG_FAILURE);
        ASSERT_EQ(lbsrvset_init(&set_), 0);
    }

    void TearDown() override
    {
        EXPECT_EQ(lbsrvset_cleanup(&set_), 0);
        FakeHostTest::TearDown();
    }

    void fill(const std::vector<int> &weights)
    {
        ASSERT_EQ(lbsrvset_cleanup(&set_), 0);
        set_ = {};
        ASSERT_EQ(lbsrvset_init(&set_), 0);
        servers_.clear();
        for (const int weight : weights) {
            servers_.push_back(std::make_unique<lbsrv_obj_t>());
            lbsrv_obj_t *server = servers_.back().get();
            *server = {};
            server->setable.weight = static_cast<lb_u16_t>(weight);
            server->srvref.server = server;
            ASSERT_EQ(lbll_addnode_rhs(&set_.srvreflist, &server->srvref), 0);
        }
        lbsrvset_weightsum(&set_);
    }

    // The index of the server chosen, or NONE; the seed moves on.
    int choose(lb_u32_t &seed)
    {
        const lbsrv_obj_t *chosen = lbsel_srvset_chooseserver(&set_, &seed);
        for (std::size_t i = 0; i < servers_.size(); i++) {
            if (servers_[i].get() == chosen) {
                return static_cast<int>(i);
            }
        }
        return NONE;
    }

    std::vector<int> turns(lb_u32_t seed, int count)
    {
        std::vector<int> out;
        for (int i = 0; i < count; i++) {
            out.push_back(choose(seed));
        }
        return out;
    }

    lbsrvset_obj_t set_ = {};
    std::vector<std::unique_ptr<lbsrv_obj_t>> servers_;
};

TEST_F(SrvsetTest, TurnsByName)
{
    const struct {
        const char *name;
        std::vector<int> weights;
        lb_u32_t seed;
        std::vector<int> turns;
    } rows[] = {
        {"strict, from seed 7", {0, 0, 0}, 7, {1, 2, 0, 1}},
        {"weights 1, 0, 2", {1, 0, 2}, 0, {0, 2, 2, 0}},
        {"the first weighs nothing", {0, 1}, 0, {1, 1}},
        {"two alike, an odd port", {1, 1}, 1025, {1, 0}},
        {"one server", {0}, 99, {0, 0}},
        // 2^32 - 1 is divisible by 3, and 0 follows it.
        {"the seed wraps", {1, 1, 1}, 0xFFFFFFFE, {2, 0, 0, 1}},
        {"largest weights", {65535, 65535}, 65534, {0, 1}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        fill(row.weights);
        EXPECT_EQ(turns(row.seed, static_cast<int>(row.turns.size())), row.turns);
    }
}

TEST_F(SrvsetTest, AnEmptySetLeavesTheSeedAlone)
{
    lb_u32_t seed = 5;
    EXPECT_EQ(choose(seed), NONE);
    EXPECT_EQ(seed, 5U);
}

TEST_F(SrvsetTest, AStaleWeightSumChoosesNobodyRatherThanAnybody)
{
    fill({1, 1});
    lb_poke(servers_[1]->setable.weight, 0); // the sum still says 2
    lb_u32_t seed = 0;
    EXPECT_EQ(choose(seed), 0);
    EXPECT_EQ(choose(seed), NONE);
    EXPECT_EQ(choose(seed), 0);
    EXPECT_EQ(seed, 3U);
}

TEST_F(SrvsetTest, ShareOfTurnsIsTheWeight)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 50; round++) {
        std::vector<int> weights(1 + random() % 128);
        std::vector<int> expected; // one entry a turn
        for (std::size_t i = 0; i < weights.size(); i++) {
            weights[i] = static_cast<int>(random() % 6);
            expected.insert(expected.end(), static_cast<std::size_t>(weights[i]),
                            static_cast<int>(i));
        }
        if (expected.empty()) {
            continue;
        }
        fill(weights);
        EXPECT_EQ(turns(0, static_cast<int>(expected.size())), expected);
    }
}

// --- Algorithms ----------------------------------------------------------------------------------

class ChooserTest : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        ASSERT_ADDED(add_interface("eth0", stack::ethernet(1)));
        ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
        ASSERT_ADDED(add_cluster("10.0.0.100"));
    }

    // The last byte of the server that a packet goes to, by its hardware address; NONE if nowhere.
    int route(const packets::packet &packet)
    {
        (void)fake::take_sent();
        EXPECT_EQ(fake::receive(packets::build(packet)), LB_PACKETRC_CONSUMED);
        const auto sent = fake::take_sent();
        return sent.size() == 1 ? sent[0].bytes[5] : NONE;
    }

    void server(lb_u16_t port, lb_u8_t last, lb_u16_t weight)
    {
        const std::string ip = "10.0.0." + std::to_string(last);
        ASSERT_ADDED(add_server("10.0.0.100", port, ip, weight));
        fake::receive(packets::build(packets::arp{
            .op = 2, .srchw = {2, 0, 0, 0, 0, last}, .srcip = ip, .tgtip = "10.0.0.1"}));
    }
};

TEST_F(ChooserTest, HashGoesByTheClientsPortAlone)
{
    ASSERT_ADDED(add_port("10.0.0.100", 80));
    server(80, 11, 0);
    server(80, 12, 0);
    for (const char *client : {"10.0.0.50", "192.0.2.1"}) {
        EXPECT_EQ(route({.src = client, .sport = 1025}), 12);
        EXPECT_EQ(route({.src = client, .sport = 1025}), 12);
        EXPECT_EQ(route({.src = client, .sport = 1026}), 11);
    }
    EXPECT_EQ(get_port("10.0.0.100", 80).getable.sel_rr_tablecounter, 6U);
    // Weights 3 and 1: three of four ports go to the first.
    ASSERT_ADDED(set_server("10.0.0.100", 80, "10.0.0.11",
                            [](lbsrv_setable_t &setable) { setable.weight = 3; }));
    ASSERT_ADDED(set_server("10.0.0.100", 80, "10.0.0.12",
                            [](lbsrv_setable_t &setable) { setable.weight = 1; }));
    std::map<int, int> shares;
    for (std::uint16_t sport = 1024; sport < 1424; sport++) {
        shares[route({.sport = sport})]++;
    }
    EXPECT_EQ(shares, (std::map<int, int>{{11, 300}, {12, 100}}));
}

TEST_F(ChooserTest, UdpRoundRobinRotatesWhateverThePort)
{
    ASSERT_ADDED(add_port("10.0.0.100", 53));
    for (const lb_u8_t last : {11, 12, 13}) {
        server(53, last, 1);
    }
    std::vector<int> order;
    for (int i = 0; i < 6; i++) {
        order.push_back(route({.sport = 7000, .dport = 53, .proto = packets::UDP}));
    }
    EXPECT_EQ(order, (std::vector<int>{11, 12, 13, 11, 12, 13}));
    const auto getable = get_port("10.0.0.100", 53).getable;
    EXPECT_EQ(getable.sel_rr_connlesscounter, 6U);
    EXPECT_EQ(getable.sel_rr_tablecounter, 0U);
}

TEST_F(ChooserTest, WithoutServersThePacketIsDroppedAndCountedThrice)
{
    set_executor_log_mask(LB_LOG_DISCARDED);
    ASSERT_ADDED(add_port("10.0.0.100", 80));
    for (const std::uint8_t proto : {packets::TCP, packets::UDP}) {
        fake::log_clear();
        const auto freed = fake::unheld_frees();
        EXPECT_EQ(route({.proto = proto}), NONE);
        EXPECT_EQ(fake::unheld_frees(), freed + 1);
        EXPECT_EQ(fake::log_count("hash-no-servers"), 1);
        EXPECT_EQ(fake::log_count("tcpudp packet discarded"), 1);
    }
    EXPECT_EQ(get_port("10.0.0.100", 80).getable.ipstats.discard, 2U);
    EXPECT_EQ(get_cluster("10.0.0.100").getable.ipstats.discard, 2U);
    EXPECT_EQ(get_executor().getable.ipv4stats.discard, 2U);
    EXPECT_EQ(get_port("10.0.0.100", 80).getable.sel_rr_connlesscounter, 0U);
}

TEST_F(ChooserTest, AnAlgorithmWithoutAChooserIsAnError)
{
    for (lb_u8_t alg = LBSEL_ALGORIGHM_CONNECTION; alg <= LBSEL_ALGORIGHM_CONN_AFFIN; alg++) {
        SCOPED_TRACE(int(alg));
        if (selectfunc[alg].choose != nullptr) {
            continue;
        }
        ASSERT_ADDED(add_port("10.0.0.100", 80, LBSEL_ALGORIGHM_HASH, alg));
        server(80, 11, 1);
        fake::log_clear();
        const auto freed = fake::unheld_frees();
        EXPECT_EQ(route({.proto = packets::UDP}), NONE);
        EXPECT_EQ(fake::unheld_frees(), freed + 1);
        EXPECT_EQ(get_port("10.0.0.100", 80).getable.ipstats.err, 1U);
        EXPECT_TRUE(fake::log_contains("Error: null selection alg"));
        EXPECT_TRUE(fake::log_contains("tcpudp error"));
        EXPECT_EQ(route({}), 11) << "TCP goes on";
        EXPECT_EQ(rm_server("10.0.0.100", 80, "10.0.0.11"), LBCMD_RC_SUCCESS);
        EXPECT_EQ(rm_port("10.0.0.100", 80), LBCMD_RC_SUCCESS);
        tick(5);
    }
}

} // namespace
