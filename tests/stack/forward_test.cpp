// Packets in, packets out, of either IP version: what becomes of every kind of packet and chain of
// headers, what exactly a server receives, what the client is told, and what is counted.
#include "lb_ipv4.h"

#include <random>
#include <string_view>

#include "stack_fixture.h"

namespace
{

using namespace packets;

constexpr const char *CLUSTER = "10.0.0.100";

class ForwardTest : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        make_eth0();
        make_service(CLUSTER, {"10.0.0.11"});
        make_service("2001:db8::100", {"2001:db8::11"});
    }
    lb_proto_stats_t stats(bool isv6 = false)
    {
        const lbexe_getable_t all = get_executor().getable;
        return isv6 ? all.ipv6stats : all.ipv4stats;
    }
};

bytes packet(const packets::packet &p = {})
{
    return build(p);
}

bytes packet6(packets::packet p = {})
{
    p.version = 6;
    return build(p);
}

bytes chain(const std::vector<ext> &exts, std::uint8_t proto = TCP)
{
    return packet6({.proto = proto, .exts = exts});
}

// What a server gets of a frame that is forwarded to it: without what is behind the packet.
bytes one_hop_later(bytes frame)
{
    const bool isv6 = is_ipv6(frame);
    frame.resize(ETH + (isv6 ? 40U : 0U) + get16(frame, ETH + (isv6 ? 4 : 2)));
    set_at(frame, 0, mac_of(11));
    set_at(frame, 6, mac_of(1));
    frame[ETH + (isv6 ? 7 : 8)]--;
    if (!isv6) {
        mend_ip(frame);
    }
    return frame;
}

// What becomes of a packet, as it is counted.
constexpr std::string_view FORWARDED = "in fwd", INTACT = "in notforus", DISCARDED = "in discard",
                           ERROR = "in err";

TEST_F(ForwardTest, WhatBecomesOfAPacket)
{
    constexpr std::uint16_t MF = 0x2000;
    // 1500 bytes with what TCP begins with.
    const std::vector<ext> full(180, padding(DSTOPTS));
    const struct {
        const char *name;
        bytes frame;
        std::string_view expected;
        const char *label;
    } rows[] = {
        {"TCP", packet(), FORWARDED, "hash-fwd"},
        {"our own address", packet({.dst = "10.0.0.1"}), INTACT, "notforus"},
        {"ICMPv6's number to the cluster", packet({.proto = 58}), DISCARDED, "proto"},
        {"ICMPv6's number to another", packet({.dst = "10.0.0.101", .proto = 58}), INTACT,
         "notforus"},
        {"ICMP to another", packet({.dst = "10.0.0.101", .proto = 1}), INTACT, "notforus"},
        {"port that is not configured", packet({.dport = 81}), DISCARDED, "not a lb port"},
        {"port without servers", packet({.dport = 443}), DISCARDED, "hash-no-servers"},
        {"UDP without a table", packet({.dport = 53, .proto = UDP}), ERROR, "no affinity table"},
        {"first fragment", packet({.fragoff = MF}), FORWARDED, "hash-fwd"},
        {"last fragment", packet({.fragoff = 185}), FORWARDED, "frag-fwd"},
        {"flags not received", cut(packet(), 20 + 13, true), ERROR, "pullup failed"},
        {"flags just received", cut(packet(), 20 + 14, true), FORWARDED, "hash-fwd"},
        {"UDP ports alone", cut(packet({.proto = UDP}), 20 + 4, true), FORWARDED, "hash-fwd"},
        {"total beyond the frame", with_total(packet(), 200), ERROR, "send-failure"},
        {"total of nothing", with_total(packet({.proto = UDP}), 0), ERROR, "send-failure"},
        {"flags behind the total", with_total(packet(), 33), ERROR, "pullup failed"},
        {"19 bytes", cut(packet(), 19, false), ERROR, "badinput"},
        {"header of 16", with(packet(), ETH + 0, 0x44), ERROR, "badinput"},
        {"header beyond the frame", cut(packet({.options = 40}), 59, false), ERROR, "badinput"},
        {"version 6", with(packet(), ETH + 0, 0x65), ERROR, "badinput"},
        {"a flipped bit", with(packet(), ETH + 1, 0x10), ERROR, "badip4chksum"},
        {"checksum 0", with16(packet(), ETH + 10, 0), FORWARDED, "hash-fwd"},
        {"checksum 0xFFFF", with16(packet(), ETH + 10, 0xFFFF), FORWARDED, "hash-fwd"},
        {"TTL 1", packet({.ttl = 1}), ERROR, "hash-fwd"},
        // IPv6
        {"options and TCP", chain({padding(HOPOPTS), padding(DSTOPTS, 3)}), FORWARDED, "hash-fwd"},
        {"routing and UDP", chain({padding(ROUTING, 2)}, UDP), FORWARDED, "hash-fwd"},
        {"fragment that is whole", chain({fragment(6, 0)}), FORWARDED, "hash-fwd"},
        {"first fragment6", chain({fragment(7, 1)}), FORWARDED, "hash-fwd"},
        {"last fragment6", chain({padding(HOPOPTS), fragment(7, 32)}), FORWARDED, "frag-fwd"},
        {"offset 8 counts as none", chain({fragment(8, 9)}), FORWARDED, "hash-fwd"},
        {"as many headers as fit", packet6({.exts = full, .payload = 0}), FORWARDED, "hash-fwd"},
        {"flags6 just received", cut(packet6(), 40 + 14, true), FORWARDED, "hash-fwd"},
        {"flags6 not received", cut(packet6(), 40 + 13, true), ERROR, "pullup failed"},
        {"padding behind it", cut(packet6({.payload = 4}), 40 + 60, false), FORWARDED, "hash-fwd"},
        {"another host6", packet6({.dst = "2001:db8::101"}), INTACT, "notforus"},
        {"nothing follows", chain({padding(HOPOPTS)}, NONEXT), DISCARDED, "proto"},
        {"unknown to another", packet6({.dst = "2001:db8::101", .proto = 50}), DISCARDED, "proto"},
        {"the other version's ICMP", packet6({.proto = 1}), DISCARDED, "proto"},
        {"header longer than the frame", with(chain({padding(DSTOPTS)}), ETH + 41, 255), DISCARDED,
         "proto"},
        {"header cut", cut(chain({padding(HOPOPTS)}), 40 + 7, true), DISCARDED, "proto"},
        {"no bytes of a header", cut(chain({padding(HOPOPTS)}), 40, true), DISCARDED, "proto"},
        {"longer than what came", cut(packet6(), 40 + 51, false), ERROR, "send-failure"},
        {"shorter than its headers", with(chain({padding(HOPOPTS)}), ETH + 5, 7), ERROR,
         "send-failure"},
        {"another version", with(packet6(), ETH + 0, 0x45), ERROR, "badinput"},
        {"no whole header", cut(packet6(), 39, false), ERROR, "badinput"},
    };
    ASSERT_ADDED(add_port(CLUSTER, 443));
    ASSERT_ADDED(add_port(CLUSTER, 53, LBSEL_ALGORIGHM_HASH, LBSEL_ALGORIGHM_AFFINITY));
    ASSERT_ADDED(add_server(CLUSTER, 53, "10.0.0.11"));
    set_executor_log_mask(0x1F | LB_LOG_TCPUDP);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        fake::log_clear();
        (void)fake::take_sent();
        const bool isv6 = get16(row.frame, 12) == 0x86DD;
        const auto before = stats(isv6);
        const auto freed = fake::unheld_frees();
        EXPECT_EQ(fake::receive(row.frame),
                  row.expected == INTACT ? LB_PACKETRC_INTACT : LB_PACKETRC_CONSUMED);
        EXPECT_EQ(stack::counted(before, stats(isv6)), row.expected);
        EXPECT_EQ(fake::unheld_frees() - freed, row.expected == INTACT ? 0U : 1U);
        EXPECT_TRUE(fake::log_contains(std::string(" ") + row.label + "\n"));
        auto sent = fake::take_sent();
        std::erase_if(sent, [](const auto &out) { return out.how != fake::via::packet; });
        ASSERT_EQ(sent.size(), row.expected == FORWARDED ? 1U : 0U);
        if (row.expected == FORWARDED) {
            if (!isv6) {
                mend_ip(sent[0].bytes); // some came with a sum that was none
            }
            EXPECT_EQ(sent[0].bytes, one_hop_later(row.frame));
        }
    }
    for (const bool isv6 : {false, true}) {
        const auto before = stats(isv6);
        lbpbuf_drain();
        fake::fail(fake::op::alloc, 1);
        EXPECT_EQ(fake::receive(isv6 ? packet6() : packet()), LB_PACKETRC_INTACT);
        EXPECT_EQ(stack::counted(before, stats(isv6)), ERROR) << "no memory for a packet object";
    }
}

TEST_F(ForwardTest, TheHostMayHandOverTooMuchOrNothing)
{
    bytes frame = packet({.payload = 2000});
    const struct {
        int len, rc;
        std::string_view counted;
    } rows[] = {
        {1600, LB_PACKETRC_CONSUMED, ERROR}, // for its total length
        {1601, LB_PACKETRC_INTACT, "err"},
        {-1, LB_PACKETRC_CONSUMED, ERROR},
    };
    for (const auto &row : rows) {
        const auto before = stats();
        fake::frame host;
        host.load(frame.data(), 0); // only its name is used here
        const lb_grace_inside inside;
        EXPECT_EQ(lbipv4_entry(frame.data(), frame.data() + ETH, row.len, host.opaque()), row.rc);
        EXPECT_EQ(stack::counted(before, stats()), row.counted) << row.len;
    }
}

// --- What the server receives --------------------------------------------------------------------

TEST_F(ForwardTest, AnyHeaderSumIsKeptRight)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 2000; round++) {
        packets::packet p;
        p.src = to_text({198, static_cast<std::uint8_t>(random()), 100, 7});
        p.proto = random() % 2 != 0 ? TCP : UDP;
        p.ttl = static_cast<std::uint8_t>(2 + random() % 254);
        p.id = static_cast<std::uint16_t>(random());
        p.options = random() % 11 * 4;
        p.payload = random() % 1400;
        bytes frame = packet(p);
        const bytes expected = one_hop_later(frame);
        frame.resize(frame.size() + random() % 20); // padding is not sent on
        const bool slip = random() % 4 == 0;        // what came without a link header gets one
        auto sent = sent_for({frame.begin() + (slip ? ETH : 0), frame.end()},
                             slip ? fake::link::slip : fake::link::ethernet);
        ASSERT_EQ(sent.size(), 1U);
        ASSERT_EQ(checksum(sent[0].bytes, ETH, ETH + 20 + p.options), 0);
        mend_ip(sent[0].bytes); // 0 has two representations in one's complement
        ASSERT_EQ(sent[0].bytes, expected);
        ASSERT_EQ(sent[0].ifname, "eth0");
    }
}

// --- What the client is told ---------------------------------------------------------------------

TEST_F(ForwardTest, TheClientIsToldWhatCannotGoOn)
{
    ASSERT_ADDED(set_interface("eth0", stack::ethernet(1, 1400)));
    EXPECT_EQ(sent_for(packet({.payload = 1400 - 40})).at(0).how, fake::via::packet) << "fits";
    const bytes short5 = cut(packet({.proto = UDP, .ttl = 1}), 20 + 5, true);
    const struct {
        const char *name;
        bytes frame;
        std::uint16_t typecode;
        lb_u32_t word; // the MTU
        std::size_t quoted;
    } rows[] = {
        {"too long, and too late", packet({.ttl = 1, .payload = 1401 - 40}), 0x0304, 1400, 28},
        {"a quote ends where the packet ends", short5, 0x0B00, 0, 25},
        {"too long over IPv6", packet6({.ttl = 1, .exts = {padding(DSTOPTS)}, .payload = 1333}),
         0x0200, 1400, 1232},
        {"too late over IPv6", packet6({.ttl = 1}), 0x0300, 0, 92},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const bool isv6 = is_ipv6(row.frame);
        const auto before = get_executor().getable;
        const auto sent = sent_for(row.frame);
        const auto after = get_executor().getable;
        EXPECT_EQ(stack::counted(before.icmpstats, after.icmpstats), isv6 ? "" : "gen");
        EXPECT_EQ(stack::counted(before.icmpv6stats, after.icmpv6stats), isv6 ? "gen" : "");
        ASSERT_EQ(sent.size(), 1U);
        EXPECT_EQ(sent[0].how, isv6 ? fake::via::raw6 : fake::via::raw4);
        EXPECT_EQ(sent[0].protocol, isv6 ? ICMP6 : ICMP);
        EXPECT_EQ(isv6 ? ip6_at(sent[0].dest, 0) : ip_at(sent[0].dest, 0), src_of(row.frame));
        const bytes &icmp = sent[0].bytes;
        ASSERT_EQ(icmp.size(), 8 + row.quoted);
        EXPECT_EQ(get16(icmp, 0), row.typecode);
        EXPECT_EQ(get32(icmp, 4), row.word);
        EXPECT_TRUE(isv6 || checksum(icmp, 0, icmp.size()) == 0);
        EXPECT_TRUE(std::equal(icmp.begin() + 8, icmp.end(), row.frame.begin() + ETH));
    }
    const auto executor = get_executor().getable;
    const auto cluster = get_cluster(CLUSTER).getable;
    const auto port = get_port(CLUSTER, 80).getable;
    const auto server = get_server(CLUSTER, 80, "10.0.0.11").getable;
    for (const auto &counted :
         {executor.ipv4stats, cluster.ipstats, port.ipstats, server.ipstats}) {
        EXPECT_TRUE(counted.fwd == 1 && counted.discard == 1 && counted.err == 1);
    }
    for (const auto &counted :
         {executor.icmpstats, cluster.icmpstats, port.icmpstats, server.icmpstats}) {
        EXPECT_EQ(counted.gen, 2U);
    }
    for (const bytes &late : {packet({.ttl = 1}), packet6({.ttl = 1})}) {
        fake::fail(fake::op::alloc, 1);
        EXPECT_TRUE(sent_for(late).empty()) << "without memory for an answer";
        EXPECT_FALSE(fake::fail_pending(fake::op::alloc));
    }
}

// --- No allocation -------------------------------------------------------------------------------

TEST_F(ForwardTest, AWarmRoadAllocatesNothing)
{
    fake::count_only(true);
    const bytes frames[] = {packet(), packet({.proto = UDP}), packet({.dst = "10.0.0.101"}),
                            packet({.dport = 81}), build(arp{})};
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
