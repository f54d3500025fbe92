// ICMP in: errors about servers' answers reach the servers of the connections that they quote, echo
// requests go round, errors about our own tunnels change how their far ends are seen and stay with
// the host. Frames are cut at every length; the fake host sees to it that nothing is read beyond.
#include "lb_neigh.h"

#include "packets6.h"
#include "record_fixture.h"

namespace
{

using packets::bytes;
using packets::ETH;
using packets::icmp;
using packets::TCP;
using packets::UDP;
using packets::with;

constexpr const char *C = "10.0.0.100";
constexpr const char *C6 = "2001:db8::100";
constexpr const char *CLIENT = "10.9.0.1";

// What a server answered to the client, which an error quotes.
packets::packet answer_of(std::uint8_t proto = TCP, std::uint16_t clientport = 40000,
                          std::uint16_t port = 80, const std::string &client = CLIENT)
{
    return {.src = C, .dst = client, .sport = port, .dport = clientport, .proto = proto};
}

bytes error_about(const packets::packet &quoted, std::uint8_t type = 3, std::uint8_t code = 1)
{
    return packets::build(icmp{
        .type = type, .code = code, .body = packets::quote(quoted), .outer = {.src = "192.0.2.1"}});
}

bytes tunnel_error(std::uint8_t proto, std::uint8_t code, std::uint16_t mtu = 0,
                   const std::string &farend = "10.0.0.11")
{
    return packets::build(
        icmp{.code = code,
             .mtu = mtu,
             .body = packets::quote(packets::packet{.dst = farend, .proto = proto}),
             .outer = {.dst = "10.0.0.1"}});
}

// Cuts the ICMP message, which no headers but the IP header go before.
bytes cut(const bytes &frame, std::size_t len, bool honest = true)
{
    return packets::cut(frame, (packets::is_ipv6(frame) ? 40 : 20) + len, honest);
}

// An error about what a server answered over IPv6, with these headers in front of the ports.
bytes error6(const std::vector<packets::ext> &exts, std::uint8_t type = 1, std::uint8_t proto = TCP)
{
    const packets::packet6 quoted = {
        .src = C6, .dst = "fd00::9", .sport = 80, .dport = 40000, .proto = proto, .exts = exts};
    return packets::build(packets::icmp6{
        .type = type, .body = packets::quote(quoted), .outer = {.src = "2001:db8:f::1"}});
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
    int make_servers(lb_u16_t port)
    {
        return make_server(port, 11) | make_server(port, 12) | make_server(port, 13);
    }

    struct counts_s {
        lb_u64_t ip, icmp, cluster; // fwd, or discard, or err
        bool operator==(const counts_s &) const = default;
    };
    counts_s counted(auto lb_proto_stats_t::*counter, bool isv6 = false)
    {
        const auto exe = get_executor().getable;
        return {(isv6 ? exe.ipv6stats : exe.ipv4stats).*counter,
                (isv6 ? exe.icmpv6stats : exe.icmpstats).*counter,
                get_cluster(isv6 ? C6 : C).getable.icmpstats.*counter};
    }
    // The packet is dropped under the label, and counted in all three places.
    void expect_dropped(const bytes &frame, const char *label, bool aserror = false)
    {
        const auto counter = aserror ? &lb_proto_stats_t::err : &lb_proto_stats_t::discard;
        const bool isv6 = packets::is_ipv6(frame);
        const counts_s before = counted(counter, isv6);
        fake::log_clear();
        (void)fake::take_sent();
        EXPECT_EQ(fake::receive(frame), LB_PACKETRC_CONSUMED);
        EXPECT_TRUE(fake::take_sent().empty());
        EXPECT_TRUE(fake::log_contains(std::string(" ") + label + "\n"));
        EXPECT_EQ(counted(counter, isv6),
                  (counts_s{before.ip + 1, before.icmp + 1, before.cluster + 1}));
    }
    // Sends an ICMP packet for the cluster: the server that got it as it was, or NOWHERE.
    static int sent_to(const bytes &frame)
    {
        (void)fake::take_sent();
        EXPECT_EQ(fake::receive(frame), LB_PACKETRC_CONSUMED);
        const auto sent = fake::take_sent();
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
    const struct {
        const char *name;
        lb_u8_t algorithm;
        const char *nobody; // a client without a record
    } rows[] = {
        {"hash", LBSEL_ALGORIGHM_HASH, nullptr},
        {"connection", LBSEL_ALGORIGHM_CONNECTION, "no-existing-record"},
        {"affinity", LBSEL_ALGORIGHM_AFFINITY, "no-existing-record"},
        {"both", LBSEL_ALGORIGHM_CONN_AFFIN, "no-existing-record"},
    };
    lb_u16_t port = 1000;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_ADDED(make_port(++port, row.algorithm, 0, row.algorithm));
        ASSERT_ADDED(make_servers(port));
        ASSERT_NE(tcp(SYN, 40000, "10.9.0.2", port), NOWHERE); // so that not all is at the first
        const int server = tcp(SYN, 40001, CLIENT, port);
        const std::string records = counts(server, port);
        for (const std::uint8_t type : {3, 4, 5, 11}) {
            for (const std::uint8_t proto : {TCP, UDP}) {
                EXPECT_EQ(sent_to(error_about(answer_of(proto, 40001, port), type)), server);
            }
        }
        EXPECT_EQ(counts(server, port), records);
        const bytes stranger = error_about(answer_of(TCP, 40001, port, "10.9.0.3"));
        if (row.nobody != nullptr) {
            expect_dropped(stranger, row.nobody);
        } else {
            EXPECT_EQ(sent_to(stranger), server); // by the client's port alone
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
    const counts_s before = counted(&lb_proto_stats_t::fwd);
    EXPECT_EQ(sent_to(error_about(answer_of(UDP, 40000, 90))), 11);
    EXPECT_EQ(sent_to(error_about(answer_of(UDP, 40000, 90))), 12);
    EXPECT_EQ(udp(40000, CLIENT, 90), 13);
    // Forwarding counts IPv4 itself, as it does for the datagram.
    EXPECT_EQ(counted(&lb_proto_stats_t::fwd),
              (counts_s{before.ip + 5, before.icmp + 2, before.cluster + 2}));
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

TEST_F(IcmpTest, DropsWhatBelongsToNobody)
{
    ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_CONNECTION, 0, LBSEL_ALGORIGHM_AFFINITY));
    ASSERT_ADDED(make_servers(80));
    ASSERT_EQ(tcp(SYN), 11);
    packets::packet later = answer_of();
    later.fragoff = 185;
    packets::packet fragment = {.src = "192.0.2.1", .fragoff = 185};
    const bytes good = error_about(answer_of());
    const std::size_t quoted = ETH + 20 + 8;
    const struct {
        const char *name;
        bytes frame;
        const char *label;
        bool aserror;
    } rows[] = {
        {"another port", error_about(answer_of(TCP, 40000, 81)), "icmp-no-port-match", false},
        {"another client port", error_about(answer_of(TCP, 40001)), "no-existing-record", false},
        {"an algorithm without its table", error_about(answer_of(UDP)), "no-existing-record",
         false},
        {"quoted ICMP", error_about(answer_of(1)), "proto", false},
        {"quoted later fragment", error_about(later), "proto", false},
        {"quoted version 6", with(good, quoted, 0x65), "badinput", true},
        {"quoted header of 16", with(good, quoted, 0x44), "badinput", true},
        {"quoted header too long", with(good, quoted, 0x46), "badinput", true},
        {"timestamp request", packets::build(icmp{.type = 13, .body = bytes(12)}),
         "icmp-unhandled-type", false},
        {"echo reply", packets::build(icmp{.type = 0}), "icmp-unhandled-type", false},
        {"a later fragment", packets::build(icmp{.type = 8, .outer = fragment}),
         "icmp-unhandled-type", false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        expect_dropped(row.frame, row.label, row.aserror);
    }
    EXPECT_EQ(sent_to(good), 11);
    EXPECT_EQ(counts(11), "1 0 0 1");
}

TEST_F(IcmpTest, CutAnywhereNothingIsReadBeyondTheEnd)
{
    ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_CONNECTION));
    ASSERT_ADDED(make_server(80, 11));
    ASSERT_EQ(tcp(SYN), 11);
    packets::packet quoted = answer_of();
    quoted.options = 8;
    constexpr std::size_t WHOLE = 8 + 28 + 8;
    const bytes error = error_about(quoted);
    const bytes tunnel = tunnel_error(47, 3);
    ASSERT_EQ(error.size(), ETH + 20 + WHOLE);
    for (std::size_t len = 0; len < WHOLE; len++) {
        SCOPED_TRACE(len);
        expect_dropped(cut(error, len), "badinput", true);
        expect_dropped(cut(error, len, false), "badinput", true);
        // What the total length leaves out is not the message's, though it was received.
        bytes padded = cut(error, len);
        padded.insert(padded.end(), error.begin() + static_cast<long>(padded.size()), error.end());
        expect_dropped(padded, "badinput", true);
    }
    for (std::size_t len = 0; len < tunnel.size() - ETH - 20; len++) {
        EXPECT_EQ(fake::receive(cut(tunnel, len)), LB_PACKETRC_INTACT) << len;
        EXPECT_EQ(fake::receive(cut(tunnel, len, false)), LB_PACKETRC_INTACT) << len;
    }
    EXPECT_FALSE(fake::log_contains("unreachable"));
}

TEST_F(IcmpTest, QuotesOverIPv6AreChainsOfHeaders)
{
    using packets::padding;
    ASSERT_ADDED(add_ifaddr("eth0", "2001:db8::1/64"));
    ASSERT_ADDED(add_cluster(C6));
    ASSERT_ADDED(add_port(C6, 80, LBSEL_ALGORIGHM_CONNECTION));
    for (const std::uint8_t last : {11, 12}) {
        const std::string server = "2001:db8::" + std::to_string(last);
        ASSERT_ADDED(add_server(C6, 80, server));
        fake::receive(packets::advertisement(server, last));
    }
    for (const std::uint16_t sport : {39999, 40000}) { // so that not all is at the first
        fake::receive(packets::build(packets::packet6{.src = "fd00::9", .sport = sport}));
    }
    const int server = fake::take_sent().back().bytes[5];
    for (const std::uint8_t type : {1, 2, 3, 4}) {
        EXPECT_EQ(sent_to(error6({}, type)), server);
    }
    EXPECT_EQ(sent_to(error6({padding(packets::HOPOPTS), padding(packets::ROUTING, 2),
                              padding(packets::DSTOPTS)})),
              server);
    EXPECT_EQ(sent_to(error6({packets::fragment(1, 1)})), server);
    EXPECT_EQ(get_executor().getable.icmpv6stats.fwd, 6U);
    packets::icmp6 echo = {.type = 128};
    echo.outer.exts = {padding(packets::DSTOPTS, 3)};
    EXPECT_NE(sent_to(packets::build(echo)), NOWHERE);

    constexpr const char *UNPARSED = "Error parsing ipv6 extension headers\n";
    const bytes good = error6({});
    const std::size_t quoted = packets::IP6 + 8;
    const struct {
        const char *name;
        bytes frame;
        const char *label;
        const char *message;
    } rows[] = {
        {"later fragment", error6({packets::fragment(1, 0x10)}), "proto",
         "Original packet is fragmented and this is not the first fragment\n"},
        {"ICMPv6", error6({}, 1, packets::ICMP6), "proto", ""},
        {"nothing", error6({}, 1, packets::NONEXT), "proto", UNPARSED},
        {"chain that does not end", with(with(good, quoted + 6, 60), quoted + 41, 255), "proto",
         UNPARSED},
        {"version 4", with(good, quoted, 0x45), "badinput", ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        expect_dropped(row.frame, row.label, std::string(row.label) == "badinput");
        EXPECT_TRUE(fake::log_contains(row.message));
    }
    for (std::size_t len = 8; len < 8 + 44; len++) { // the quoted ports are its last bytes
        SCOPED_TRACE(len);
        expect_dropped(cut(good, len), "badinput", true);
    }
    EXPECT_EQ(sent_to(cut(good, 8 + 44)), server);
}

TEST_F(IcmpTest, EchoGoesRoundPortsAndServers)
{
    const bytes ping = packets::build(icmp{.type = 8, .body = bytes(32, 'x')});
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
    EXPECT_TRUE(fake::log_contains(" FORWARD to 10.0.0.12 icmp-fwd\n"));
    packets::packet first;
    first.fragoff = 0x2000;
    EXPECT_NE(sent_to(packets::build(icmp{.type = 8, .body = bytes(32), .outer = first})), NOWHERE);
}

TEST_F(IcmpTest, TunnelErrorsChangeTheFarEndAndStayWithTheHost)
{
    ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_CONNECTION));
    ASSERT_ADDED(make_server(80, 11));
    const lbneigh_obj_t *neigh = server_object(11)->neigh;
    const bytes unreachable = tunnel_error(4, 3);
    bytes exceeded = unreachable;
    exceeded[ETH + 20] = 11;
    packets::mend_transport(exceeded);
    const std::size_t quoted = ETH + 20 + 8;
    packets::packet later = {.dst = "10.0.0.1", .fragoff = 1};
    enum outcome { LEARNT, DISCARDED, ERROR, NOTFORUS };
    const struct {
        const char *name;
        bytes frame;
        outcome expected;
        int mtu;
        bool reachable;
    } rows[] = {
        {"fragmentation needed, GRE", tunnel_error(47, 4, 1400), LEARNT, 1400, true},
        {"fragmentation needed, IPIP", tunnel_error(4, 4, 1300), LEARNT, 1300, true},
        {"an old router's", tunnel_error(4, 4, 0), LEARNT, 0, true},
        {"bad checksum", with(unreachable, ETH + 20 + 7, 1), ERROR, 1500, true},
        {"time exceeded", exceeded, NOTFORUS, 1500, true},
        {"about TCP", tunnel_error(6, 3), DISCARDED, 1500, true},
        {"far end unknown", tunnel_error(47, 3, 0, "10.0.0.99"), NOTFORUS, 1500, true},
        {"27 bytes", cut(unreachable, 27), DISCARDED, 1500, true},
        {"7 bytes", cut(unreachable, 7), ERROR, 1500, true},
        {"quoted version 6", with(unreachable, quoted, 0x65), ERROR, 1500, true},
        {"quoted header too long", with(unreachable, quoted, 0x48), ERROR, 1500, true},
        {"a later fragment",
         packets::build(
             icmp{.body = packets::quote(packets::packet{.dst = "10.0.0.11"}), .outer = later}),
         NOTFORUS, 1500, true},
        {"port unreachable, IPIP", unreachable, LEARNT, 1500, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        fake::log_clear();
        lb_poke(server_object(11)->neigh->encapmtu, 1500);
        const auto before = get_executor().getable;
        fake::frame buffer{};
        EXPECT_EQ(fake::receive_into(buffer, row.frame.data(), row.frame.size()),
                  LB_PACKETRC_INTACT);
        EXPECT_TRUE(std::equal(row.frame.begin(), row.frame.end(), buffer.bytes()));
        const auto after = get_executor().getable;
        for (const auto stats : {&lbexe_getable_t::icmpstats, &lbexe_getable_t::ipv4stats}) {
            const auto &b = before.*stats;
            const auto &a = after.*stats;
            EXPECT_EQ(a.in - b.in, 1U);
            EXPECT_EQ(a.discard - b.discard, row.expected == DISCARDED ? 1U : 0U);
            EXPECT_EQ(a.err - b.err, row.expected == ERROR ? 1U : 0U);
            EXPECT_EQ(a.notforus - b.notforus, row.expected == NOTFORUS ? 1U : 0U);
        }
        EXPECT_EQ(lb_peek(neigh->encapmtu), row.mtu);
        EXPECT_EQ(lb_peek(neigh->encapreachable), row.reachable ? 1 : 0);
        EXPECT_EQ(fake::log_contains(" server marked as unreachable\n"), !row.reachable);
        EXPECT_EQ(fake::log_contains(" reset server encapmtu to " + std::to_string(row.mtu) + "\n"),
                  row.mtu != 1500);
    }
    EXPECT_TRUE(fake::take_sent().empty());
}

} // namespace
