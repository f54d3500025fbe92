// IPv6 frames of every kind. See seeds.h. No state.
#include "neighbours6.h"
#include "seeds.h"

namespace fuzz
{

namespace
{

using packets::icmp6;
using packets::neighbour;
using packets::packet6;
using packets::padding;

seed frame(const std::string &name, const packet6 &p)
{
    return {"v6-" + name, packets::build(p)};
}

packet6 to(std::uint16_t dport, std::uint8_t proto = packets::TCP)
{
    packet6 p;
    p.dport = dport;
    p.proto = proto;
    return p;
}

packet6 with(packet6 p, const std::vector<packets::ext> &exts)
{
    p.exts = exts;
    return p;
}

void add_extensions(std::vector<seed> &seeds)
{
    using packets::DSTOPTS;
    using packets::HOPOPTS;
    using packets::ROUTING;
    seeds.push_back(frame("options", with(to(80), {padding(HOPOPTS), padding(DSTOPTS, 2)})));
    seeds.push_back(frame("routing", with(to(85), {padding(ROUTING, 2)})));
    seeds.push_back(frame("many", with(to(80), std::vector<packets::ext>(40, padding(DSTOPTS)))));
    seeds.push_back(frame("atomic", with(to(80), {packets::fragment(3, 0)})));
    seeds.push_back(frame("no-next", with(to(80, packets::NONEXT), {padding(HOPOPTS)})));
    seeds.push_back(frame("ah", to(80, 51)));
    seeds.push_back(frame("gre", to(80, 47)));
    seeds.push_back(frame("endless", with(to(80), {padding(DSTOPTS)})));
    seeds.back().content[packets::IP6 + 1] = 255;
}

// A later fragment of what the same id's first began.
packet6 piece(std::uint16_t port, std::uint8_t proto, std::uint16_t offmf)
{
    return with(to(port, proto), {packets::fragment(port, offmf)});
}

void add_fragments(std::vector<seed> &seeds)
{
    constexpr std::uint16_t MORE = 1;
    for (const std::uint8_t proto : {packets::TCP, packets::UDP}) {
        const std::string name = proto == packets::TCP ? "tcp" : "udp";
        seeds.push_back(frame(name + "-first-fragment", piece(80, proto, MORE)));
        seeds.push_back(frame(name + "-later-fragment", piece(80, proto, 0x40 | MORE)));
        seeds.push_back(frame(name + "-last-fragment", piece(80, proto, 0x80)));
        seeds.push_back(frame(name + "-fragment-at-8", piece(80, proto, 8 | MORE)));
    }
    for (const std::uint16_t port : {86, 89}) {
        const std::string name = "way-" + std::to_string(port);
        seeds.push_back(frame(name + "-first-fragment", piece(port, packets::TCP, MORE)));
        seeds.push_back(frame(name + "-last-fragment", piece(port, packets::TCP, 0x40)));
    }
    for (int i = 0; i < 3; i++) {
        seeds.push_back({"v6-datagram-" + std::to_string(i),
                         packets::fragments6({.proto = packets::UDP, .payload = 1000}, 7,
                                             500)[static_cast<std::size_t>(i)]});
    }
}

void add_special_packets(std::vector<seed> &seeds)
{
    packet6 p = to(80);
    p.hops = 1;
    seeds.push_back(frame("hop-limit-1", p));
    p = to(80);
    p.payload = 1000;
    seeds.push_back(frame("beyond-mtu", p));
    p = to(80);
    p.dst = "2001:db8::77";
    seeds.push_back(frame("to-others", p));
    p = to(80);
    p.payload = 0;
    bytes cut = packets::build(p);
    cut.resize(packets::IP6 + 3);
    seeds.push_back({"v6-cut-in-ports", cut});
    packets::put16(cut, packets::ETH + 4, 3);
    seeds.push_back({"v6-3-bytes", cut});
    bytes lying = packets::build(to(80));
    packets::put16(lying, packets::ETH + 4, 1200);
    seeds.push_back({"v6-length-beyond-frame", lying});
}

seed solicitation(const std::string &name, const std::string &from, const std::string &target,
                  std::uint8_t option = 1)
{
    neighbour n = {.target = target, .option = option};
    n.outer.src = from;
    return {"v6-" + name, packets::build(n)};
}

void add_neighbours(std::vector<seed> &seeds)
{
    const std::string asker = "2001:db8::50";
    seeds.push_back(solicitation("solicit-cluster", asker, CLUSTER6));
    seeds.push_back(solicitation("solicit-without-option", asker, CLUSTER6, 0));
    seeds.push_back(solicitation("solicit-return-address", asker, RETURN6));
    seeds.push_back(solicitation("solicit-others", asker, "2001:db8::77"));
    seeds.push_back(solicitation("solicit-by-server", "2001:db8::11", "2001:db8::1"));
    seeds.push_back(solicitation("detect-duplicate", "::", CLUSTER6, 0));
    seeds.push_back(solicitation("detect-with-nonce", "::", CLUSTER6, 14));
    seeds.push_back({"v6-advertise-server", packets::advertisement("2001:db8::12", 0x12)});
    seeds.push_back({"v6-advertise-stranger", packets::advertisement("2001:db8::99", 0x99)});
    seeds.push_back({"v6-advertise-group", packets::advertisement("2001:db8::11", 0x11)});
    packets::set_at(seeds.back().content, 80, packets::BROADCAST);
    packets::mend6(seeds.back().content);
    seeds.push_back({"v6-router-advertisement",
                     packets::build(icmp6{.type = 134, .body = bytes(8), .outer = {.hops = 255}})});
}

// A message that quotes what a server at CLUSTER6 answered to the client of the TCP seeds.
seed error(const std::string &name, std::uint8_t type, std::uint16_t port,
           std::uint8_t proto = packets::TCP, const std::vector<packets::ext> &exts = {})
{
    packet6 quoted = {.src = CLUSTER6,
                      .dst = "2001:db8::50",
                      .sport = port,
                      .dport = 40000,
                      .proto = proto,
                      .exts = exts};
    return {"v6-" + name, packets::build(icmp6{.type = type, .body = packets::quote(quoted)})};
}

void add_icmp(std::vector<seed> &seeds)
{
    seeds.push_back({"v6-echo", packets::build(icmp6{.type = 128, .body = bytes(32)})});
    icmp6 m = {.type = 128, .body = bytes(32), .outer = {.dst = "2001:db8::1"}};
    seeds.push_back({"v6-echo-to-us", packets::build(m)});
    m.outer = with({}, {packets::fragment(9, 0x40)});
    seeds.push_back({"v6-icmp-later-fragment", packets::build(m)});
    for (const std::uint8_t type : {1, 2, 3, 4}) {
        seeds.push_back(error("error-" + std::to_string(type), type, 85));
    }
    seeds.push_back(error("about-hash", 1, 80));
    seeds.push_back(error("about-udp", 1, 80, packets::UDP));
    seeds.push_back(error("about-icmp", 1, 80, packets::ICMP6));
    seeds.push_back(error("about-options", 1, 85, packets::TCP, {padding(packets::HOPOPTS)}));
    seeds.push_back(
        error("about-later-fragment", 1, 85, packets::TCP, {packets::fragment(1, 0x40)}));
}

void add_nat_answers(std::vector<seed> &seeds)
{
    packet6 p = {.src = "2001:db8:2::11", .dst = RETURN6, .sport = 86, .dport = 1025};
    seeds.push_back(frame("nat-answer", p));
    seeds.push_back(frame("nat-answer-options", with(p, {padding(packets::DSTOPTS)})));
    seeds.push_back(frame("nat-answer-first-fragment", with(p, {packets::fragment(5, 1)})));
    seeds.push_back(frame("nat-answer-last-fragment", with(p, {packets::fragment(5, 0x40)})));
    bytes cut = packets::build(p);
    cut.resize(packets::IP6 + 12);
    seeds.push_back({"v6-nat-answer-cut", cut});
    p.dport = 60000;
    seeds.push_back(frame("nat-answer-to-nobody", p));
}

} // namespace

std::vector<seed> frame_seeds6()
{
    std::vector<seed> seeds;
    for (const std::uint16_t port : {9, 80, 82, 83, 85, 86, 87, 89}) {
        const std::string name = std::to_string(port);
        seeds.push_back(frame("tcp-" + name, to(port)));
        seeds.push_back(frame("udp-" + name, to(port, packets::UDP)));
    }
    add_extensions(seeds);
    add_fragments(seeds);
    add_special_packets(seeds);
    add_neighbours(seeds);
    add_icmp(seeds);
    add_nat_answers(seeds);
    return seeds;
}

} // namespace fuzz
