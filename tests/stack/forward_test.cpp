// Packets in, packets out: what becomes of every kind of IPv4 packet, what exactly a server
// receives, what the client is told, and what is counted.
#include <random>

#include "packets.h"
#include "stack_fixture.h"

namespace
{

using packets::bytes;
using packets::ETH;
using packets::TCP;
using packets::UDP;

constexpr const char *CLUSTER = "10.0.0.100";
constexpr packets::mac OWN = {2, 0, 0, 0, 0, 1};
constexpr packets::mac SERVER = {2, 0, 0, 0, 0, 0x11};

class ForwardTest : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        ASSERT_ADDED(add_interface("eth0", stack::ethernet(1)));
        ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
        ASSERT_ADDED(add_cluster(CLUSTER));
        ASSERT_ADDED(add_port(CLUSTER, 80));
        ASSERT_ADDED(add_server(CLUSTER, 80, "10.0.0.11"));
        learn();
        (void)fake::take_sent();
    }

    static void learn(const std::string &ip = "10.0.0.11", packets::mac hw = SERVER)
    {
        fake::receive(
            packets::build(packets::arp{.op = 2, .srchw = hw, .srcip = ip, .tgtip = "10.0.0.1"}));
    }

    lb_proto_stats_t stats() { return get_executor().getable.ipv4stats; }

    // The protocol's, cluster's, port's and server's counters.
    std::vector<lb_proto_stats_t> all_stats()
    {
        return {stats(), get_cluster(CLUSTER).getable.ipstats,
                get_port(CLUSTER, 80).getable.ipstats,
                get_server(CLUSTER, 80, "10.0.0.11").getable.ipstats};
    }
    std::vector<lb_u32_t> icmp_generated()
    {
        return {get_executor().getable.icmpstats.gen, get_cluster(CLUSTER).getable.icmpstats.gen,
                get_port(CLUSTER, 80).getable.icmpstats.gen,
                get_server(CLUSTER, 80, "10.0.0.11").getable.icmpstats.gen};
    }
};

// Cuts the IP packet to `len` bytes; `honest` makes the header say so.
bytes cut(bytes frame, std::size_t len, bool honest)
{
    frame.resize(ETH + len);
    if (honest) {
        packets::put16(frame, ETH + 2, static_cast<std::uint16_t>(len));
        packets::mend_ip(frame);
    }
    return frame;
}

bytes with_total(bytes frame, std::uint16_t total)
{
    packets::put16(frame, ETH + 2, total);
    packets::mend_ip(frame);
    return frame;
}

// Another byte in the IP header, its checksum as it was.
bytes with(bytes frame, std::size_t at, std::uint8_t value)
{
    frame[ETH + at] = value;
    return frame;
}

bytes with_sum(bytes frame, std::uint16_t sum)
{
    packets::put16(frame, ETH + 10, sum);
    return frame;
}

bytes packet(const packets::packet &p = {})
{
    return packets::build(p);
}

enum fate { FORWARDED, INTACT, DISCARDED, ERROR };

TEST_F(ForwardTest, WhatBecomesOfAPacket)
{
    constexpr std::uint16_t MF = 0x2000;
    const struct {
        const char *name;
        bytes frame;
        fate expected;
        const char *label;
    } rows[] = {
        {"TCP", packet(), FORWARDED, "hash-fwd"},
        {"UDP", packet({.proto = UDP}), FORWARDED, "hash-fwd"},
        {"with options", packet({.options = 40}), FORWARDED, "hash-fwd"},
        {"don't fragment set", packet({.fragoff = 0x4000}), FORWARDED, "hash-fwd"},
        {"no payload", packet({.payload = 0}), FORWARDED, "hash-fwd"},
        {"another host", packet({.dst = "10.0.0.101"}), INTACT, "notforus"},
        {"our own address", packet({.dst = "10.0.0.1"}), INTACT, "notforus"},
        {"like a heartbeat",
         packet({.dst = "10.0.0.1", .sport = 12345, .dport = 12345, .proto = UDP}), INTACT,
         "notforus"},
        {"GRE to the cluster", packet({.proto = 47}), DISCARDED, "proto"},
        {"GRE to another", packet({.dst = "10.0.0.101", .proto = 47}), INTACT, "notforus"},
        {"ICMPv6's number to the cluster", packet({.proto = 58}), DISCARDED, "proto"},
        {"ICMPv6's number to another", packet({.dst = "10.0.0.101", .proto = 58}), INTACT,
         "notforus"},
        {"ICMP to another", packet({.dst = "10.0.0.101", .proto = 1}), INTACT, "notforus"},
        {"port that is not configured", packet({.dport = 81}), DISCARDED, "not a lb port"},
        {"port without servers", packet({.dport = 443}), DISCARDED, "hash-no-servers"},
        {"UDP without a table", packet({.dport = 53, .proto = UDP}), ERROR, "no affinity table"},
        {"TCP to the same port", packet({.dport = 53}), FORWARDED, "hash-fwd"},
        {"first fragment", packet({.fragoff = MF}), FORWARDED, "hash-fwd"},
        {"last fragment", packet({.fragoff = 185}), FORWARDED, "frag-fwd"},
        {"fragment for another", packet({.dst = "10.0.0.101", .fragoff = MF}), INTACT, "notforus"},
        {"flags not received", cut(packet(), 20 + 13, true), ERROR, "pullup failed"},
        {"flags just received", cut(packet(), 20 + 14, true), FORWARDED, "hash-fwd"},
        {"UDP ports alone", cut(packet({.proto = UDP}), 20 + 4, true), FORWARDED, "hash-fwd"},
        {"total beyond the frame", with_total(packet(), 200), ERROR, "send-failure"},
        {"total within the header", with_total(packet(), 19), ERROR, "send-failure"},
        {"total of nothing", with_total(packet({.proto = UDP}), 0), ERROR, "send-failure"},
        {"flags behind the total", with_total(packet(), 33), ERROR, "pullup failed"},
        {"nothing behind the link header", cut(packet(), 0, false), ERROR, "badinput"},
        {"19 bytes", cut(packet(), 19, false), ERROR, "badinput"},
        {"header of 16", with(packet(), 0, 0x44), ERROR, "badinput"},
        {"header of nothing", with(packet(), 0, 0x40), ERROR, "badinput"},
        {"header beyond the frame", cut(packet({.options = 40}), 59, false), ERROR, "badinput"},
        {"version 6", with(packet(), 0, 0x65), ERROR, "badinput"},
        {"a flipped bit", with(packet(), 1, 0x10), ERROR, "badip4chksum"},
        {"checksum 1", with_sum(packet(), 1), ERROR, "badip4chksum"},
        {"checksum 0", with_sum(packet(), 0), FORWARDED, "hash-fwd"},
        {"checksum 0xFFFF", with_sum(packet(), 0xFFFF), FORWARDED, "hash-fwd"},
        {"TTL 1", packet({.ttl = 1}), ERROR, "hash-fwd"},
        {"TTL 0", packet({.ttl = 0}), ERROR, "hash-fwd"},
        {"TTL 2", packet({.ttl = 2}), FORWARDED, "hash-fwd"},
    };
    ASSERT_ADDED(add_port(CLUSTER, 443));
    ASSERT_ADDED(add_port(CLUSTER, 53, LBSEL_ALGORIGHM_HASH, LBSEL_ALGORIGHM_AFFINITY));
    ASSERT_ADDED(add_server(CLUSTER, 53, "10.0.0.11"));
    set_executor_log_mask(0x1F | LB_LOG_TCPUDP);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        fake::log_clear();
        (void)fake::take_sent();
        const auto before = stats();
        const auto freed = fake::unheld_frees();
        EXPECT_EQ(fake::receive(row.frame),
                  row.expected == INTACT ? LB_PACKETRC_INTACT : LB_PACKETRC_CONSUMED);
        const auto after = stats();
        EXPECT_EQ(after.in - before.in, 1U);
        EXPECT_EQ(after.fwd - before.fwd, row.expected == FORWARDED ? 1U : 0U);
        EXPECT_EQ(after.notforus - before.notforus, row.expected == INTACT ? 1U : 0U);
        EXPECT_EQ(after.discard - before.discard, row.expected == DISCARDED ? 1U : 0U);
        EXPECT_EQ(after.err - before.err, row.expected == ERROR ? 1U : 0U);
        EXPECT_EQ(fake::unheld_frees() - freed, row.expected == INTACT ? 0U : 1U);
        EXPECT_TRUE(fake::log_contains(std::string(" ") + row.label + "\n"));
        int frames = 0;
        for (const auto &sent : fake::take_sent()) {
            frames += sent.how == fake::via::packet ? 1 : 0;
        }
        EXPECT_EQ(frames, row.expected == FORWARDED ? 1 : 0);
    }
}

TEST_F(ForwardTest, AFrameIsWhatItsLinkHeaderSays)
{
    bytes v6 = packet();
    packets::put16(v6, 12, 0x86DD);
    EXPECT_EQ(fake::receive(v6), LB_PACKETRC_CONSUMED);
    EXPECT_EQ(get_executor().getable.ipv6stats.err, 1U);
    EXPECT_EQ(stats().in, 0U);
    EXPECT_TRUE(fake::take_sent().empty());
}

// --- What the server receives --------------------------------------------------------------------

TEST_F(ForwardTest, OnlyMacsTtlAndHeaderSumDiffer)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 2000; round++) {
        packets::packet p;
        p.src = packets::to_text({198, static_cast<std::uint8_t>(random()), 100, 7});
        p.sport = static_cast<std::uint16_t>(random());
        p.proto = random() % 2 != 0 ? TCP : UDP;
        p.flags = static_cast<std::uint8_t>(random());
        p.ttl = static_cast<std::uint8_t>(2 + random() % 254);
        p.id = static_cast<std::uint16_t>(random());
        p.options = random() % 11 * 4;
        p.payload = random() % 1400;
        bytes frame = packet(p);
        bytes expected = frame;
        frame.resize(frame.size() + random() % 20); // padding is not sent on
        ASSERT_EQ(fake::receive(frame), LB_PACKETRC_CONSUMED);
        const auto sent = fake::take_sent();
        ASSERT_EQ(sent.size(), 1U);
        packets::set_at(expected, 0, SERVER);
        packets::set_at(expected, 6, OWN);
        expected[ETH + 8]--;
        packets::mend_ip(expected);
        bytes got = sent[0].bytes;
        ASSERT_EQ(packets::checksum(got, ETH, ETH + 20 + p.options), 0);
        packets::mend_ip(got); // 0 has two representations in one's complement
        ASSERT_EQ(got, expected);
        ASSERT_EQ(sent[0].ifname, "eth0");
    }
}

TEST_F(ForwardTest, ASlipPacketGetsALinkHeader)
{
    const bytes frame = packet();
    EXPECT_EQ(fake::receive(bytes(frame.begin() + ETH, frame.end()), fake::link::slip),
              LB_PACKETRC_CONSUMED);
    bytes expected = frame;
    packets::set_at(expected, 0, SERVER);
    packets::set_at(expected, 6, OWN);
    expected[ETH + 8]--;
    packets::mend_ip(expected);
    const auto sent = fake::take_sent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].bytes, expected);
}

TEST_F(ForwardTest, APointToPointInterfaceSendsBareIp)
{
    lbifin_setable_t ppp = stack::ethernet(2);
    ppp.isPTP = LBIFIN_YN_YES;
    ASSERT_ADDED(add_interface("ppp0", ppp));
    ASSERT_ADDED(add_ifaddr("ppp0", "10.7.0.1/32", "10.7.0.2"));
    ASSERT_ADDED(add_port(CLUSTER, 443));
    ASSERT_ADDED(add_server(CLUSTER, 443, "10.7.0.2"));
    const bytes frame = packet({.dport = 443});
    EXPECT_EQ(fake::receive(frame), LB_PACKETRC_CONSUMED);
    const auto sent = fake::take_sent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_FALSE(sent[0].has_eth);
    EXPECT_EQ(sent[0].ifname, "ppp0");
    EXPECT_EQ(sent[0].bytes.size(), frame.size() - ETH);
}

TEST_F(ForwardTest, AServerWithoutAWayFailsAndIsCountedInFourPlaces)
{
    set_executor_log_mask(LB_LOG_PKTERROR);
    EXPECT_EQ(rm_ifaddr("eth0", "10.0.0.1/24"), LBCMD_RC_SUCCESS);
    EXPECT_EQ(rm_interface("eth0"), LBCMD_RC_SUCCESS);
    EXPECT_EQ(fake::receive(packet()), LB_PACKETRC_CONSUMED);
    EXPECT_TRUE(fake::take_sent().empty());
    EXPECT_TRUE(fake::log_contains("ERROR to 10.0.0.11 send-failure"));
    for (const auto &counted : all_stats()) {
        EXPECT_EQ(counted.err, 1U);
        EXPECT_EQ(counted.fwd, 0U);
    }
}

// --- What the client is told ---------------------------------------------------------------------

// Checks one ICMP error: to the client, about the first bytes of its packet.
void expect_icmp(const std::vector<fake::sent_frame> &sent, const bytes &frame, int type, int code,
                 int mtu, std::size_t quoted)
{
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].how, fake::via::raw4);
    EXPECT_EQ(sent[0].protocol, 1);
    EXPECT_EQ(packets::ip_at(sent[0].dest, 0), "10.0.0.50");
    const bytes &icmp = sent[0].bytes;
    ASSERT_EQ(icmp.size(), 8 + quoted);
    EXPECT_EQ(icmp[0], type);
    EXPECT_EQ(icmp[1], code);
    EXPECT_EQ(packets::get16(icmp, 4), 0);
    EXPECT_EQ(packets::get16(icmp, 6), mtu);
    EXPECT_EQ(packets::checksum(icmp, 0, icmp.size()), 0);
    EXPECT_TRUE(std::equal(icmp.begin() + 8, icmp.end(), frame.begin() + ETH));
}

TEST_F(ForwardTest, APacketBeyondTheMtuIsAnswered)
{
    ASSERT_ADDED(set_interface("eth0", stack::ethernet(1, 576)));
    EXPECT_EQ(fake::receive(packet({.payload = 576 - 40})), LB_PACKETRC_CONSUMED);
    EXPECT_EQ(fake::take_sent().at(0).bytes.size(), ETH + 576U) << "as large as can be";
    const bytes frame = packet({.ttl = 1, .payload = 577 - 40});
    EXPECT_EQ(fake::receive(frame), LB_PACKETRC_CONSUMED);
    expect_icmp(fake::take_sent(), frame, 3, 4, 576, 28);
    EXPECT_EQ(icmp_generated(), (std::vector<lb_u32_t>{1, 1, 1, 1}));
    for (const auto &counted : all_stats()) {
        EXPECT_EQ(counted.discard, 1U);
        EXPECT_EQ(counted.fwd, 1U);
        EXPECT_EQ(counted.err, 0U);
    }
}

TEST_F(ForwardTest, QuotesEndWhereThePacketEnds)
{
    const bytes frame = cut(packet({.proto = UDP, .ttl = 1}), 20 + 5, true);
    EXPECT_EQ(fake::receive(frame), LB_PACKETRC_CONSUMED);
    expect_icmp(fake::take_sent(), frame, 11, 0, 0, 20 + 5);
}

TEST_F(ForwardTest, WithoutMemoryForAnAnswerNothingIsSent)
{
    EXPECT_EQ(fake::receive(packet()), LB_PACKETRC_CONSUMED); // warm
    (void)fake::take_sent();
    fake::fail(fake::op::alloc, 1);
    EXPECT_EQ(fake::receive(packet({.ttl = 1})), LB_PACKETRC_CONSUMED);
    EXPECT_FALSE(fake::fail_pending(fake::op::alloc));
    EXPECT_TRUE(fake::take_sent().empty());
}

// --- Every length, and no allocation
// --------------------------------------------------------------------------

TEST_F(ForwardTest, EveryTruncationSendsNoMoreThanCame)
{
    for (const std::uint8_t proto : {TCP, UDP}) {
        for (const std::size_t options : {0, 8}) {
            const bytes whole = packet({.proto = proto, .options = options, .payload = 4});
            for (std::size_t len = 0; len <= whole.size() - ETH; len++) {
                for (const bool honest : {true, false}) {
                    const bytes frame = cut(whole, len, honest && len >= 20 + options);
                    const auto freed = fake::unheld_frees();
                    ASSERT_EQ(fake::receive(frame), LB_PACKETRC_CONSUMED) << len;
                    ASSERT_EQ(fake::unheld_frees(), freed + 1) << len;
                    for (const auto &sent : fake::take_sent()) {
                        ASSERT_LE(sent.bytes.size(), frame.size()) << len;
                    }
                }
            }
        }
    }
}

TEST_F(ForwardTest, AWarmRoadAllocatesNothing)
{
    fake::count_only(true);
    const bytes frames[] = {packet(), packet({.proto = UDP}), packet({.dst = "10.0.0.101"}),
                            packet({.dport = 81}), packets::build(packets::arp{})};
    fake::frame buffer;
    for (const auto &frame : frames) {
        fake::receive_into(buffer, frame.data(), frame.size());
    }
    const auto before = fake::total_allocations();
    for (int i = 0; i < 100; i++) {
        for (const auto &frame : frames) {
            fake::receive_into(buffer, frame.data(), frame.size());
        }
    }
    EXPECT_EQ(fake::total_allocations(), before);
}

} // namespace
