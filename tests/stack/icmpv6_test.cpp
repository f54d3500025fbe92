// ICMPv6 in and out: solicitations for our addresses are answered byte by byte, neighbours are
// asked and learnt over IPv6, and errors go to nobody but hosts. Frames are cut at every length;
// the fake host sees to it that nothing is read beyond. What is sent on to servers, icmp_test.cpp
// has.
#include "lb_icmpv6.h"
#include "lb_neigh.h"

#include "stack_fixture.h"

namespace
{

using namespace packets;

constexpr const char *C = "2001:db8::100";
constexpr const char *OWN = "2001:db8::1";
constexpr const char *ASKER = "2001:db8::50";
constexpr const char *SERVER = "2001:db8::11";
constexpr const char *RETURN = "2001:db8::1:2:3";
constexpr mac OWNHW = mac_of(1);
constexpr mac ASKERHW = mac_of(0x50);
constexpr mac SERVERHW = mac_of(11);

bytes solicitation(const std::string &src, std::uint8_t option = 1, mac hw = ASKERHW,
                   const std::string &target = C)
{
    neighbour n = {.target = target, .option = option, .hw = hw};
    n.outer.src = src;
    return build(n);
}

// What the stack sends from OWNHW: a solicitation of its own, an answer, an announcement.
bytes sent_by_us(std::uint8_t type, std::uint32_t flags, const std::string &src,
                 const std::string &dst, const mac &ethdst, const std::string &target)
{
    return build(neighbour{
        .type = type,
        .flags = flags,
        .target = target,
        .option = static_cast<std::uint8_t>(type - 134),
        .hw = OWNHW,
        .outer = {.src = src, .dst = dst, .ttl = 255, .ethdst = ethdst, .ethsrc = OWNHW}});
}
bytes answer_to(const std::string &asker, const mac &hw, const std::string &target = C)
{
    return sent_by_us(ADVERTISEMENT, 0x60000000, target, asker, hw, target);
}
bytes announcement()
{
    return sent_by_us(ADVERTISEMENT, 0x20000000, C, "ff02::1", {0x33, 0x33, 0, 0, 0, 1}, C);
}

bytes advertisement(const mac &hw = SERVERHW, std::uint8_t option = 2,
                    const std::string &target = SERVER, const std::string &src = SERVER,
                    const mac &ethsrc = SERVERHW)
{
    return build(neighbour{.type = ADVERTISEMENT,
                           .target = target,
                           .option = option,
                           .hw = hw,
                           .outer = {.src = src, .dst = OWN, .ttl = 255, .ethsrc = ethsrc}});
}

// Cuts what follows the IPv6 header to `len` bytes; `honest` makes the header and the checksum say
// so.
bytes cut(const bytes &whole, std::size_t len, bool honest = true)
{
    bytes frame = packets::cut(whole, 40 + len, honest);
    if (honest && len >= 4) {
        mend_transport(frame);
    }
    return frame;
}

class Icmpv6Test : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        set_executor_log_mask(LB_LOG_FORWARDED | LB_LOG_DISCARDED | LB_LOG_PKTERROR | LB_LOG_IPV6 |
                              LB_LOG_ICMPV6);
        make_eth0();
        ASSERT_ADDED(add_cluster(C));
        expect_sent(announcement());
        ASSERT_ADDED(add_port(C, 80));
        ASSERT_ADDED(add_server(C, 80, SERVER));
        fake::receive(advertisement());
        (void)fake::take_sent();
    }

    static lbneigh_obj_t *neigh(const std::string &addr = SERVER)
    {
        const lbip_addr_t key = stack::ip(addr);
        return lbneigh_lookup(&key);
    }
    static mac known(const std::string &addr = SERVER)
    {
        const lbeth_addr_align_t eaddr = lb_peek(neigh(addr)->eaddr);
        return mac_at({eaddr.b, eaddr.b + 6}, 0);
    }
    static lb_proto_stats_t stats() { return lbexecutor->getable.icmpv6stats; }

    static void expect_sent(const bytes &expected)
    {
        const auto sent = fake::take_sent();
        ASSERT_EQ(sent.size(), 1U);
        EXPECT_EQ(sent[0].bytes, expected);
        EXPECT_EQ(sent[0].ifname, "eth0");
        EXPECT_EQ(sent[0].ipver, 6);
    }
    static void expect_answered(const bytes &frame, const bytes &expected)
    {
        EXPECT_EQ(fake::receive(frame), LB_PACKETRC_CONSUMED);
        expect_sent(expected);
    }
};

// --- Solicitations -------------------------------------------------------------------------------

TEST_F(Icmpv6Test, SolicitationsForAClusterAreAnswered)
{
    ASSERT_ADDED(add_server(C, 80, "2001:db8::12")); // which says nothing of itself
    lbsrv_addable_t nat{};
    nat.nat = 1;
    nat.returnaddress = stack::ip(RETURN);
    nat.routeraddress = stack::ip(SERVER);
    ASSERT_ADDED(add_server(C, 80, "2001:db8:2::11", lbsrv_setable_t{}, nat));
    (void)fake::take_sent();
    neighbour behind;
    behind.outer.exts = {padding(HOPOPTS), padding(DSTOPTS, 1)};
    neighbour bare = behind;
    bare.option = 0;
    bytes padded = solicitation(ASKER, 0);
    padded.resize(padded.size() + 8, 0xEE); // which the payload length leaves out
    const struct {
        const char *name;
        bytes frame, answer;
    } rows[] = {
        {"with its address", solicitation(ASKER), answer_to(ASKER, ASKERHW)},
        {"another address than the frame's", solicitation(ASKER, 1, mac_of(0x51)),
         answer_to(ASKER, mac_of(0x51))},
        {"for a return address", solicitation(ASKER, 1, ASKERHW, RETURN),
         answer_to(ASKER, ASKERHW, RETURN)},
        {"link-local", solicitation("fe80::50"), answer_to("fe80::50", ASKERHW)},
        {"behind extension headers", build(behind), answer_to(ASKER, ASKERHW)},
        {"no option", solicitation(ASKER, 0), answer_to(ASKER, ASKERHW)},
        {"no option, as long as one with", build(bare), answer_to(ASKER, ASKERHW)},
        {"no option, bytes behind the packet", padded, answer_to(ASKER, ASKERHW)},
        {"no option, a neighbour", solicitation(SERVER, 0), answer_to(SERVER, SERVERHW)},
        {"no option, a neighbour not met", solicitation("2001:db8::12", 0),
         answer_to("2001:db8::12", ASKERHW)},
        {"detection of duplicates", solicitation("::", 0), announcement()},
        {"detection with a nonce", solicitation("::", 14, BROADCAST), announcement()},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const lb_proto_stats_t before = stats();
        expect_answered(row.frame, row.answer);
        EXPECT_EQ(stack::counted(before, stats()), "in gen");
    }
}

TEST_F(Icmpv6Test, WhatIsLeftToTheHost)
{
    const bytes good = solicitation(ASKER);
    bytes lying = good; // its checksum is right for a byte that is not there
    lying.push_back(0);
    mend_length(lying);
    mend_transport(lying);
    lying.pop_back();
    const packet later = {.dst = C, .exts = {fragment(1, 0x10)}};
    constexpr const char *NOTHING = "in", *DISCARD = "in discard", *ERROR = "in err";
    const struct {
        const char *name;
        bytes frame;
        const char *counted;
    } rows[] = {
        {"another target", solicitation(ASKER, 1, ASKERHW, "2001:db8::77"), NOTHING},
        {"no address", solicitation(ASKER, 1, mac{}), NOTHING},
        {"checksum off by one", with(good, IP6 + 3, static_cast<std::uint8_t>(good[IP6 + 3] + 1)),
         DISCARD},
        {"checksum 0", with(with(good, IP6 + 2, 0), IP6 + 3, 0), DISCARD},
        {"longer than it came", lying, DISCARD},
        {"cut, and mended", cut(good, 23), ERROR},
        {"an echo for the host", build(icmp{.type = 128, .outer = {.dst = OWN}}), NOTHING},
        {"an error for the host",
         build(icmp{.type = 1, .body = quote({.src = C}), .outer = {.dst = OWN}}), NOTHING},
        {"a later fragment", build(icmp{.type = 128, .body = bytes(32), .outer = later}), DISCARD},
        {"ICMPv6 in IPv4", build({.dst = "10.0.0.1", .proto = ICMP6}), ""},
        {"a router's", build(icmp{.type = 134, .body = bytes(8), .outer = {.dst = C}}), DISCARD},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const lb_proto_stats_t before = stats();
        expect_left_to_host(row.frame);
        EXPECT_EQ(stack::counted(before, stats()), row.counted);
    }
    fake::set_interface_unknown("eth0");
    expect_left_to_host(good);
}

TEST_F(Icmpv6Test, CutAnywhereASolicitationIsReadNoFurther)
{
    const bytes good = solicitation(ASKER);
    for (std::size_t len = 0; len < 32; len++) {
        SCOPED_TRACE(len);
        expect_left_to_host(cut(good, len, false));
        if (len >= 24) { // without the option, or with a part of it, which is none
            expect_answered(cut(good, len, true), answer_to(ASKER, ASKERHW));
        } else {
            expect_left_to_host(cut(good, len, true));
        }
    }
}

// --- Neighbours ----------------------------------------------------------------------------------

TEST_F(Icmpv6Test, ANeighbourIsAskedAndVerified)
{
    constexpr const char *PEER = "2001:db8::1:2:3";
    ASSERT_ADDED(rm_server(C, 80, SERVER));
    ASSERT_ADDED(add_server(C, 80, PEER));
    expect_sent(sent_by_us(SOLICITATION, 0, OWN, "ff02::1:ff02:3",
                           {0x33, 0x33, 0xFF, 0x02, 0x00, 0x03}, PEER));
    fake::receive(advertisement(SERVERHW, 2, PEER));
    EXPECT_EQ(lb_peek(neigh(PEER)->state), LBNEIGH_STATE_RXOK);
    tick(10);
    expect_sent(sent_by_us(SOLICITATION, 0, OWN, PEER, SERVERHW, PEER));
}

TEST_F(Icmpv6Test, WhatIsLearntAndWhatIsNot)
{
    constexpr mac OTHERHW = mac_of(0x12);
    const bytes other = advertisement(OTHERHW);
    const struct {
        const char *name;
        bytes frame;
        mac learnt;
    } rows[] = {
        {"advertisement", other, OTHERHW},
        {"advertisement from elsewhere", advertisement(OTHERHW, 2, SERVER, ASKER), OTHERHW},
        {"solicitation", solicitation(SERVER, 1, OTHERHW, "2001:db8::77"), OTHERHW},
        {"no option", advertisement(OTHERHW, 0, SERVER, SERVER, OTHERHW), SERVERHW},
        {"about another", advertisement(OTHERHW, 2, ASKER), SERVERHW},
        {"a group's address", advertisement(BROADCAST), SERVERHW},
        {"no address", advertisement(mac{}), SERVERHW},
        {"bad checksum", with(other, IP6 + 3, static_cast<std::uint8_t>(other[IP6 + 3] + 1)),
         SERVERHW},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        fake::receive(advertisement());
        ASSERT_EQ(known(), SERVERHW);
        expect_left_to_host(row.frame);
        EXPECT_EQ(known(), row.learnt);
    }
    EXPECT_EQ(neigh(ASKER), nullptr) << "strangers are not taken in";
    ASSERT_ADDED(add_server(C, 80, "2001:db8::12"));
    fake::receive(advertisement(mac{}, 0, "2001:db8::12", SERVER, OTHERHW));
    EXPECT_EQ(known("2001:db8::12"), OTHERHW) << "whose it was that sent the frame";
}

TEST_F(Icmpv6Test, ErrorsGoToNobodyButHosts)
{
    bytes data(60, 'd');
    for (const char *address : {ASKER, "::", "ff02::1", "10.0.0.1"}) {
        lbip_addr_t to = stack::ip(address);
        EXPECT_EQ(lbicmpv6_packet2long(&to, 4, 0x10000 + 1280, data.data(), 60), 0);
        EXPECT_EQ(lbicmpv6_timeexceeded(&to, 1, data.data(), 60), 0);
        const auto sent = fake::take_sent();
        ASSERT_EQ(sent.size(), address == ASKER ? 2U : 0U) << address;
        EXPECT_TRUE(sent.empty() || get32(sent[0].bytes, 4) == 0x10000U + 1280U);
    }
}

} // namespace
