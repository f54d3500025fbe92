// Servers that no Ethernet frame reaches: inside IPIP and GRE, and on the forwarder's own host.
#include "lb_server.h"

#include "stack_fixture.h"

namespace
{

using namespace packets;

constexpr const char *CLUSTER = "10.0.0.100";
constexpr const char *DISTANT = "192.0.2.11";
constexpr const char *LOCAL = "10.0.0.11";
constexpr std::uint16_t DF = 0x4000;

struct method {
    const char *name;
    lb_u8_t type;
    int protocol;
    bytes header; // in front of the client's packet
    int overhead;
};
const method METHODS[] = {
    {"IPIP", LBSRV_ENCAPTYPE_IPIP, 4, {}, 20},
    {"GRE", LBSRV_ENCAPTYPE_GRE, 47, {0, 0, 8, 0}, 24},
};

class TunnelTest : public StackTest
{
  protected:
    void SetUp() override
    {
        StackTest::SetUp();
        make_eth0();
        make_service(CLUSTER, {});
    }

    int add_tunnel(const char *server, lb_u8_t encapflags)
    {
        lbsrv_setable_t setable{};
        setable.weight = 1;
        setable.encapflags = encapflags;
        setable.encapmtu = 1500;
        return add_server(CLUSTER, 80, server, setable);
    }

    // "fwd+4 err+2"
    std::string counted(const char *server)
    {
        return stack::counted({}, get_server(CLUSTER, 80, server).getable.ipstats);
    }
};

// A client's packet of `len` bytes from its IP header on.
bytes packet(std::size_t len, std::uint16_t fragoff = 0)
{
    return build(packets::packet{.fragoff = fragoff, .payload = len - 40});
}

void expect_tunnelled(const fake::sent_frame &sent, const method &m, const bytes &frame)
{
    EXPECT_EQ(sent.how, fake::via::raw4);
    EXPECT_EQ(sent.protocol, m.protocol);
    EXPECT_EQ(ip_at(sent.dest, 0), DISTANT);
    bytes expected = m.header;
    expected.insert(expected.end(), frame.begin() + ETH, frame.end());
    EXPECT_EQ(sent.bytes, expected);
}

void expect_toolong(const fake::sent_frame &sent, int mtu)
{
    EXPECT_EQ(sent.protocol, 1);
    EXPECT_EQ(ip_at(sent.dest, 0), "10.0.0.50");
    EXPECT_EQ(get16(sent.bytes, 0), 0x0304);
    EXPECT_EQ(get16(sent.bytes, 6), mtu);
}

TEST_F(TunnelTest, ThePacketTravelsInsideUnchanged)
{
    for (const method &m : METHODS) {
        SCOPED_TRACE(m.name);
        ASSERT_ADDED(add_tunnel(DISTANT, m.type | LBSRV_ENCAPFLAG_ENCAPSULATE));
        bytes frame = packet(100);
        frame.resize(frame.size() + 9); // padding stays behind
        const bytes bare = part(frame, ETH, frame.size());
        for (const auto &sent : {sent_for(frame), sent_for(bare, fake::link::slip)}) {
            ASSERT_EQ(sent.size(), 1U);
            expect_tunnelled(sent[0], m, packet(100));
        }
        EXPECT_TRUE(sent_for(with_total(frame, 200)).empty()) << "more than came";
        EXPECT_EQ(counted(DISTANT), "fwd+2 err");

        // What is too long for the tunnel.
        const auto largest = static_cast<std::size_t>(1500 - m.overhead);
        EXPECT_EQ(sent_for(packet(largest, DF)).size(), 1U);
        const auto marked = sent_for(packet(1500, DF));
        ASSERT_EQ(marked.size(), 1U) << "the error alone";
        expect_toolong(marked[0], 1500 - m.overhead);
        const auto unmarked = sent_for(packet(1500));
        ASSERT_EQ(unmarked.size(), 2U) << "the error, and the packet all the same";
        expect_toolong(unmarked[0], 1500 - m.overhead);
        expect_tunnelled(unmarked[1], m, packet(1500));
        EXPECT_EQ(counted(DISTANT), "fwd+4 err+2");
        EXPECT_EQ(get_server(CLUSTER, 80, DISTANT).getable.icmpstats.gen, 2U);
        ASSERT_ADDED(set_server(CLUSTER, 80, DISTANT, [](auto &s) { s.encapmtu = 10; }));
        const auto narrow = sent_for(packet(100, DF));
        ASSERT_EQ(narrow.size(), 1U);
        expect_toolong(narrow[0], 0);
        ASSERT_ADDED(rm_server(CLUSTER, 80, DISTANT));
    }
}

// The flag decides where a link is known; without a link, the type.
TEST_F(TunnelTest, WhenAPacketIsEncapsulated)
{
    const struct {
        const char *name;
        const char *server;
        lb_u8_t encapflags;
        int protocol; // 0: a frame; -1: nothing
    } rows[] = {
        {"link, no flag", LOCAL, LBSRV_ENCAPTYPE_GRE, 0},
        {"link and flag", LOCAL, LBSRV_ENCAPTYPE_GRE | LBSRV_ENCAPFLAG_ENCAPSULATE, 47},
        {"no link, no flag", DISTANT, LBSRV_ENCAPTYPE_IPIP, 4},
        {"a flag without a type", LOCAL, LBSRV_ENCAPFLAG_ENCAPSULATE, -1},
        {"no such type", LOCAL, 3 | LBSRV_ENCAPFLAG_ENCAPSULATE, -1},
        {"no way at all", DISTANT, 0, -1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_ADDED(add_tunnel(row.server, row.encapflags));
        const auto sent = sent_for(packet(100));
        ASSERT_EQ(sent.size(), row.protocol < 0 ? 0U : 1U);
        if (row.protocol >= 0) {
            EXPECT_EQ(sent[0].protocol, row.protocol);
        }
        EXPECT_EQ(counted(row.server), row.protocol < 0 ? "err" : "fwd");
        ASSERT_ADDED(rm_server(CLUSTER, 80, row.server));
    }
}

// --- Servers of this host ------------------------------------------------------------------------

TEST_F(TunnelTest, PacketsForThisHostLeaveThroughTheOneTunDevice)
{
    os_tunfd = 0; // it stays open while the process runs
    const auto set_collocated = [this](const char *server) {
        return set_server(CLUSTER, 80, server, [](auto &s) { s.Collocated = 1; });
    };
    ASSERT_ADDED(add_tunnel(LOCAL, 0));
    fake::fail(fake::op::tun_alloc, 1);
    (void)set_collocated(LOCAL);
    EXPECT_TRUE(sent_for(packet(100)).empty()) << "above all not to descriptor 0";
    EXPECT_EQ(counted(LOCAL), "err");
    ASSERT_ADDED(set_collocated(LOCAL)); // the next SET tries again
    ASSERT_ADDED(add_tunnel("10.0.0.12", 0));
    ASSERT_ADDED(set_collocated("10.0.0.12"));
    const auto requests = fake::tun_requests();
    ASSERT_EQ(requests.size(), 2U) << "the one that failed, and another";
    EXPECT_EQ(requests[1].dev, "veldra");
    EXPECT_EQ(requests[1].flags, 1);

    bytes frame = packet(100);
    bytes expected = part(frame, ETH, frame.size());
    expected[8]--;
    mend_ip(expected, 0);
    frame.resize(frame.size() + 9); // padding stays behind
    const bytes bare = part(frame, ETH, frame.size());
    for (const auto &sent : {sent_for(frame), sent_for(bare, fake::link::slip)}) {
        ASSERT_EQ(sent.size(), 1U);
        EXPECT_EQ(sent[0].how, fake::via::tun);
        EXPECT_EQ(sent[0].tunfd, requests[1].result);
        EXPECT_EQ(sent[0].bytes, expected);
    }
    os_tunfd = 0;
}

} // namespace
