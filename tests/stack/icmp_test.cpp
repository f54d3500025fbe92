// ICMP in: errors about servers' answers reach the servers of the connections that they quote, echo
// requests go round, errors about our own tunnels change how their far ends are seen and stay with
// the host. Frames are cut at every length; the fake host sees to it that nothing is read beyond.
#include "lb_neigh.h"

#include "record_fixture.h"

namespace
{

using namespace packets;

constexpr const char *C = "10.0.0.100";
constexpr const char *C6 = "2001:db8::100";
constexpr const char *CLIENT = "10.9.0.1";

// What a server answered to the client, which an error quotes.
packet answer_of(std::uint8_t proto = TCP, std::uint16_t clientport = 40000,
                 std::uint16_t port = 80, const std::string &client = CLIENT)
{
    return {.src = C, .dst = client, .sport = port, .dport = clientport, .proto = proto};
}

// The same over IPv6, with these headers in front of the ports.
packet answer6_of(const std::vector<ext> &exts, std::uint8_t proto = TCP)
{
    return {.src = C6, .dst = "fd00::9", .sport = 80, .dport = 40000, .proto = proto, .exts = exts};
}

// An error about it from a router; of type 0: it could not be delivered.
bytes error_about(const packet &quoted, std::uint8_t type = 0)
{
    const bool isv6 = is_ipv6(quoted);
    const std::uint8_t unreachable = isv6 ? 1 : 3;
    return build(icmp{.type = type != 0 ? type : unreachable,
                      .body = quote(quoted),
                      .outer = {.src = isv6 ? "2001:db8:f::1" : "192.0.2.1"}});
}

bytes tunnel_error(std::uint8_t proto, std::uint8_t code, std::uint16_t mtu = 0,
                   const std::string &farend = "10.0.0.11", std::uint8_t type = 3)
{
    return build(icmp{.type = type,
                      .code = code,
                      .word = mtu,
                      .body = quote({.dst = farend, .proto = proto}),
                      .outer = {.dst = "10.0.0.1"}});
}

// Cuts the ICMP message, which no headers but the IP header go before.
bytes cut(const bytes &frame, std::size_t len, bool honest = true)
{
    return packets::cut(frame, (is_ipv6(frame) ? 40 : 20) + len, honest);
}

class IcmpTest : public RecordFixture
{
  protected:
    void SetUp() override
    {
        RecordFixture::SetUp();
        set_executor_log_mask(LB_LOG_FORWARDED | LB_LOG_DISCARDED | LB_LOG_INTACT |
                              LB_LOG_PKTERROR | LB_LOG_EVENT | LB_LOG_ICMP | LB_LOG_IPV6);
    }
    // A counter of the protocol's, its ICMP's and the cluster's: fwd, or discard, or err.
    std::vector<lb_u64_t> counted(auto lb_proto_stats_t::*counter, bool isv6 = false)
    {
        const auto exe = get_executor().getable;
        return {(isv6 ? exe.ipv6stats : exe.ipv4stats).*counter,
                (isv6 ? exe.icmpv6stats : exe.icmpstats).*counter,
                get_cluster(isv6 ? C6 : C).getable.icmpstats.*counter};
    }
    // The packet is dropped under the label, and counted in all three places.
    void expect_dropped(const bytes &frame, const std::string &label)
    {
        const auto counter =
            label == "badinput" ? &lb_proto_stats_t::err : &lb_proto_stats_t::discard;
        const bool isv6 = is_ipv6(frame);
        const auto before = counted(counter, isv6);
        fake::log_clear();
        EXPECT_TRUE(sent_for(frame).empty());
        EXPECT_TRUE(fake::log_contains(" " + label + "\n"));
        EXPECT_EQ(counted(counter, isv6),
                  (std::vector{before[0] + 1, before[1] + 1, before[2] + 1}));
    }
    // Sends an ICMP packet for the cluster: the server that got it as it was, or NOWHERE.
    static int sent_to(const bytes &frame)
    {
        const auto sent = sent_for(frame);
        if (sent.size() != 1) {
            return NOWHERE;
        }
        EXPECT_TRUE(std::equal(frame.begin() + ETH + 20, frame.end(),
                               sent[0].bytes.begin() + ETH + 20, sent[0].bytes.end()));
        return sent[0].bytes[5];
    }
};

TEST_F(IcmpTest, ErrorsReachTheServerOfEachAlgorithm)
{
    lb_u16_t port = 1000;
    for (const auto algorithm : {LBSEL_ALGORIGHM_HASH, LBSEL_ALGORIGHM_CONNECTION,
                                 LBSEL_ALGORIGHM_AFFINITY, LBSEL_ALGORIGHM_CONN_AFFIN}) {
        SCOPED_TRACE(algorithm);
        ASSERT_ADDED(make_port(++port, algorithm, 0, algorithm));
        ASSERT_ADDED(make_servers(port));
        ASSERT_NE(tcp(SYN, 40000, "10.9.0.2", port), NOWHERE); // so that not all is at the first
        const int server = tcp(SYN, 40001, CLIENT, port);
        const std::string records = counts(server, port);
        for (const std::uint8_t type : {3, 4, 5, 11}) {
            for (const std::uint8_t proto : {TCP, UDP}) {
                EXPECT_EQ(sent_to(error_about(answer_of(proto, 40001, port), type)), server);
            }
        }
        const bytes stranger = error_about(answer_of(TCP, 40001, port, "10.9.0.3"));
        if (algorithm == LBSEL_ALGORIGHM_HASH) {
            EXPECT_EQ(sent_to(stranger), server); // by the client's port alone
        } else {
            expect_dropped(stranger, "no-existing-record");
        }
        EXPECT_EQ(counts(server, port), records);
    }
    // The last port has both tables: another connection of the client is where its address is.
    EXPECT_EQ(sent_to(error_about(answer_of(TCP, 50000, port))), tcp(SYN, 50001, CLIENT, port));
}

TEST_F(IcmpTest, RotatesWhereUdpDoesAndCountsOnTop)
{
    ASSERT_ADDED(make_port(90, LBSEL_ALGORIGHM_HASH));
    ASSERT_ADDED(make_servers(90));
    const auto seeds = get_port(C, 90).getable;
    const auto before = counted(&lb_proto_stats_t::fwd);
    EXPECT_EQ(sent_to(error_about(answer_of(UDP, 40000, 90))), 11);
    EXPECT_EQ(sent_to(error_about(answer_of(UDP, 40000, 90))), 12);
    EXPECT_EQ(udp(40000, CLIENT, 90), 13);
    // Forwarding counts IPv4 itself, as it does for the datagram.
    EXPECT_EQ(counted(&lb_proto_stats_t::fwd),
              (std::vector{before[0] + 5, before[1] + 2, before[2] + 2}));
    const auto after = get_port(C, 90).getable;
    EXPECT_EQ(after.sel_rr_tablecounter, seeds.sel_rr_tablecounter);
    EXPECT_EQ(after.ipstats.fwd - seeds.ipstats.fwd, 3U);
}

// A client that came by one port is known on its partner, where the same machine has another
// object.
TEST_F(IcmpTest, AffinityIsFoundAcrossPorts)
{
    ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_AFFINITY));
    ASSERT_ADDED(make_servers(80));
    ASSERT_ADDED(make_port(443, LBSEL_ALGORIGHM_AFFINITY, 80));
    ASSERT_ADDED(make_server(443, 12));
    ASSERT_ADDED(make_server(443, 11));
    const int server = tcp(SYN, 40000, CLIENT, 443);
    EXPECT_EQ(server, 12);
    EXPECT_EQ(sent_to(error_about(answer_of(TCP, 7, 80))), 12);
    EXPECT_EQ(get_server(C, 80, "10.0.0.12").getable.ipstats.fwd, 1U);
}

// With a connection of each version.
class IcmpErrorTest : public IcmpTest
{
  protected:
    void SetUp() override
    {
        IcmpTest::SetUp();
        ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_CONNECTION, 0, LBSEL_ALGORIGHM_AFFINITY));
        ASSERT_ADDED(make_servers(80));
        ASSERT_EQ(tcp(SYN), 11);
        add_ipv6({"2001:db8::11", "2001:db8::12"});
        for (const std::uint16_t sport : {39999, 40000}) { // so that not all is at the first
            server6_ = sent_to(build({.src = "fd00::9", .sport = sport}));
        }
    }
    int server6_ = NOWHERE;
};

TEST_F(IcmpErrorTest, DropsWhatBelongsToNobody)
{
    packet later = answer_of();
    later.fragoff = 185;
    const packet tail = {.src = "192.0.2.1", .fragoff = 185};
    const bytes good = error_about(answer_of());
    const bytes good6 = error_about(answer6_of({}));
    const std::size_t quoted = ETH + 20 + 8;
    const std::size_t quoted6 = IP6 + 8;
    const struct {
        const char *name;
        bytes frame;
        const char *label;
    } rows[] = {
        {"another port", error_about(answer_of(TCP, 40000, 81)), "icmp-no-port-match"},
        {"another client port", error_about(answer_of(TCP, 40001)), "no-existing-record"},
        {"an algorithm without its table", error_about(answer_of(UDP)), "no-existing-record"},
        {"quoted ICMP", error_about(answer_of(1)), "proto"},
        {"quoted later fragment", error_about(later), "proto"},
        {"quoted version 6", with(good, quoted, 0x65), "badinput"},
        {"quoted header of 16", with(good, quoted, 0x44), "badinput"},
        {"quoted header too long", with(good, quoted, 0x46), "badinput"},
        {"timestamp request", build(icmp{.type = 13, .body = bytes(12)}), "icmp-unhandled-type"},
        {"echo reply", build(icmp{.type = 0}), "icmp-unhandled-type"},
        {"a later fragment", build(icmp{.type = 8, .outer = tail}), "icmp-unhandled-type"},
        {"later fragment6", error_about(answer6_of({fragment(1, 0x10)})), "proto"},
        {"ICMPv6", error_about(answer6_of({}, ICMP6)), "proto"},
        {"nothing", error_about(answer6_of({}, NONEXT)), "proto"},
        {"chain that does not end", with(with(good6, quoted6 + 6, 60), quoted6 + 41, 255), "proto"},
        {"version 4", with(good6, quoted6, 0x45), "badinput"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        expect_dropped(row.frame, row.label);
    }
    EXPECT_EQ(sent_to(good), 11);
    EXPECT_EQ(counts(11), "1 0 0 1");
}

TEST_F(IcmpErrorTest, QuotesOverIPv6AreChainsOfHeaders)
{
    for (const std::uint8_t type : {1, 2, 3, 4}) {
        EXPECT_EQ(sent_to(error_about(answer6_of({}), type)), server6_);
    }
    const ext all[] = {padding(HOPOPTS), padding(ROUTING, 2), padding(DSTOPTS), fragment(1, 1)};
    EXPECT_EQ(sent_to(error_about(answer6_of({all, all + 4}))), server6_);
    EXPECT_EQ(get_executor().getable.icmpv6stats.fwd, 5U);
    EXPECT_NE(
        sent_to(build(icmp{.type = 128, .outer = {.version = 6, .exts = {padding(DSTOPTS, 3)}}})),
        NOWHERE);
}

TEST_F(IcmpErrorTest, CutAnywhereNothingIsReadBeyondTheEnd)
{
    packet quoted = answer_of();
    quoted.options = 8;
    const struct {
        const char *name;
        bytes frame;
        std::size_t from, needed; // bytes of the ICMP message
    } rows[] = {
        {"IPv4", error_about(quoted), 0, 8 + 28 + 8},
        {"IPv6", error_about(answer6_of({})), 8, 8 + 44}, // the ports
    };
    for (const auto &row : rows) {
        for (std::size_t len = row.from; len < row.needed; len++) {
            SCOPED_TRACE(row.name + (" " + std::to_string(len)));
            expect_dropped(cut(row.frame, len), "badinput");
            expect_dropped(cut(row.frame, len, false), "badinput");
            // What the length leaves out is not the message's, though it was received.
            bytes padded = cut(row.frame, len);
            const bytes rest = part(row.frame, padded.size(), row.frame.size());
            padded.insert(padded.end(), rest.begin(), rest.end());
            expect_dropped(padded, "badinput");
        }
        EXPECT_NE(sent_to(cut(row.frame, row.needed)), NOWHERE);
    }
    const bytes tunnel = tunnel_error(47, 3);
    for (std::size_t len = 0; len < tunnel.size() - ETH - 20; len++) {
        EXPECT_EQ(fake::receive(cut(tunnel, len)), LB_PACKETRC_INTACT) << len;
        EXPECT_EQ(fake::receive(cut(tunnel, len, false)), LB_PACKETRC_INTACT) << len;
    }
    EXPECT_FALSE(fake::log_contains("unreachable"));
}

TEST_F(IcmpTest, EchoGoesRoundPortsAndServers)
{
    const bytes ping = build(icmp{.type = 8, .body = bytes(32, 'x')});
    expect_dropped(ping, "icmp-no-ports");
    ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_CONNECTION));
    expect_dropped(ping, "icmp-no-servers");
    ASSERT_ADDED(make_server(80, 11));
    ASSERT_ADDED(make_server(80, 12, 0)); // weights play no part
    ASSERT_ADDED(make_port(443, LBSEL_ALGORIGHM_AFFINITY));
    ASSERT_ADDED(make_server(443, 13));
    EXPECT_EQ(get_cluster(C).getable.sel_rr_icmpctr, 2U); // whoever drops took a turn, too
    for (const int server : {12, 13, 11, 13, 12, 13}) {
        EXPECT_EQ(sent_to(ping), server);
    }
    const lbport_getable_t port = get_port(C, 80).getable;
    EXPECT_EQ(port.sel_rr_icmpcounter, 4U); // one of them was dropped
    EXPECT_EQ(port.sel_rr_connlesscounter, 0U) << "UDP's turns are its own";
    EXPECT_TRUE(fake::log_contains(" FORWARD to 10.0.0.12 icmp-fwd\n"));
    const packet first = {.fragoff = 0x2000};
    EXPECT_NE(sent_to(build(icmp{.type = 8, .body = bytes(32), .outer = first})), NOWHERE);
}

TEST_F(IcmpTest, TunnelErrorsChangeTheFarEndAndStayWithTheHost)
{
    ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_CONNECTION));
    ASSERT_ADDED(make_server(80, 11));
    const lbneigh_obj_t *neigh = server_object(11)->neigh;
    const bytes unreachable = tunnel_error(4, 3);
    const std::size_t quoted = ETH + 20 + 8;
    const packet later = {.dst = "10.0.0.1", .fragoff = 1};
    constexpr const char *LEARNT = "in", *DISCARDED = "in discard", *ERROR = "in err",
                         *NOTFORUS = "in notforus";
    const struct {
        const char *name;
        bytes frame;
        const char *counted;
        int mtu;
        bool reachable;
    } rows[] = {
        {"fragmentation needed, GRE", tunnel_error(47, 4, 1400), LEARNT, 1400, true},
        {"fragmentation needed, IPIP", tunnel_error(4, 4, 1300), LEARNT, 1300, true},
        {"an old router's", tunnel_error(4, 4, 0), LEARNT, 0, true},
        {"bad checksum", with(unreachable, ETH + 20 + 7, 1), ERROR, 1500, true},
        {"time exceeded", tunnel_error(4, 3, 0, "10.0.0.11", 11), NOTFORUS, 1500, true},
        {"about TCP", tunnel_error(6, 3), DISCARDED, 1500, true},
        {"far end unknown", tunnel_error(47, 3, 0, "10.0.0.99"), NOTFORUS, 1500, true},
        {"27 bytes", cut(unreachable, 27), DISCARDED, 1500, true},
        {"7 bytes", cut(unreachable, 7), ERROR, 1500, true},
        {"quoted version 6", with(unreachable, quoted, 0x65), ERROR, 1500, true},
        {"quoted header too long", with(unreachable, quoted, 0x48), ERROR, 1500, true},
        {"a later fragment", build(icmp{.body = quote({.dst = "10.0.0.11"}), .outer = later}),
         NOTFORUS, 1500, true},
        {"port unreachable, IPIP", unreachable, LEARNT, 1500, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        lb_poke(server_object(11)->neigh->encapmtu, 1500);
        const auto before = get_executor().getable;
        expect_left_to_host(row.frame);
        const auto after = get_executor().getable;
        EXPECT_EQ(stack::counted(before.icmpstats, after.icmpstats), row.counted);
        EXPECT_EQ(stack::counted(before.ipv4stats, after.ipv4stats), row.counted);
        EXPECT_EQ(lb_peek(neigh->encapmtu), row.mtu);
        EXPECT_EQ(lb_peek(neigh->encapreachable), row.reachable ? 1 : 0);
    }
}

} // namespace
