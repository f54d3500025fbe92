// See seeds.h. No state.
#include "seeds.h"

#include "packets.h"

namespace fuzz
{

namespace
{

seed frame(const std::string &name, const packets::packet &p)
{
    return {name, packets::build(p)};
}

packets::packet to(std::uint16_t dport, std::uint8_t proto = packets::TCP)
{
    packets::packet p;
    p.dport = dport;
    p.proto = proto;
    return p;
}

seed arp(const std::string &name, std::uint16_t op, const std::string &from,
         const std::string &target)
{
    packets::arp a;
    a.op = op;
    a.srcip = from;
    a.tgtip = target;
    return {name, packets::build(a)};
}

seed arp_of_group()
{
    return {"arp-reply-with-group-address",
            packets::build(packets::arp{
                .op = 2, .srchw = packets::BROADCAST, .srcip = "10.0.0.11", .tgtip = "10.0.0.1"})};
}

seed typed(const std::string &name, std::uint16_t ethertype, bytes content)
{
    packets::put16(content, 12, ethertype);
    return {name, std::move(content)};
}

// A tag in front of the EtherType, as a host without hardware support would hand it up.
bytes tagged(bytes content)
{
    const bytes tag = {0x81, 0x00, 0x00, 0x07};
    content.insert(content.begin() + 12, tag.begin(), tag.end());
    return content;
}

void add_special_packets(std::vector<seed> &seeds)
{
    packets::packet p = to(80);
    p.ttl = 1;
    seeds.push_back(frame("tcp-ttl-1", p));
    p = to(80);
    p.payload = 1000;
    seeds.push_back(frame("tcp-beyond-mtu", p));
    p = to(80);
    p.options = 12;
    seeds.push_back(frame("tcp-options", p));
    p = to(80);
    p.flags = 0x11;
    seeds.push_back(frame("tcp-fin", p));
    p = to(80);
    p.fragoff = 0x2000;
    seeds.push_back(frame("tcp-first-fragment", p));
    p = to(80, packets::UDP);
    p.fragoff = 0x2000;
    seeds.push_back(frame("udp-first-fragment", p));
    p.fragoff = 0x2010;
    seeds.push_back(frame("udp-later-fragment", p));
    p.fragoff = 0x0020;
    p.id = 2;
    seeds.push_back(frame("udp-last-fragment", p));
    p = to(80);
    p.dst = "10.0.0.77";
    seeds.push_back(frame("tcp-to-others", p));
    p = to(0, 1);
    p.dst = "10.0.0.1";
    seeds.push_back(frame("icmp-to-us", p));
    p = to(80);
    p.payload = 0;
    bytes cut = packets::build(p);
    cut.resize(packets::ETH + 20 + 3);
    seeds.push_back({"tcp-cut-in-ports", cut});
    packets::put16(cut, packets::ETH + 2, 23);
    packets::mend_ip(cut);
    seeds.push_back({"tcp-3-bytes", cut});
    bytes lying = packets::build(to(80));
    packets::put16(lying, packets::ETH + 2, 1200);
    packets::mend_ip(lying);
    seeds.push_back({"tcp-length-beyond-frame", lying});
    bytes summless = packets::build(to(80));
    packets::put16(summless, packets::ETH + 10, 0);
    seeds.push_back({"tcp-checksum-0", summless});
}

// A message whose body quotes what a server at CLUSTER answered to the client of the TCP seeds.
seed error(const std::string &name, std::uint8_t type, std::uint16_t port,
           std::uint8_t proto = packets::TCP, std::uint16_t fragoff = 0)
{
    const packets::packet quoted = {.src = CLUSTER,
                                    .dst = "10.0.0.50",
                                    .sport = port,
                                    .dport = 40000,
                                    .proto = proto,
                                    .fragoff = fragoff};
    return {name, packets::build(packets::icmp{.type = type, .body = packets::quote(quoted)})};
}

seed tunnel_error(const std::string &name, std::uint8_t proto, std::uint8_t code,
                  const std::string &farend)
{
    packets::icmp m = {.code = code,
                       .mtu = 1400,
                       .body = packets::quote({.dst = farend, .proto = proto}),
                       .outer = {.dst = "10.0.0.1"}};
    return {name, packets::build(m)};
}

void add_icmp(std::vector<seed> &seeds)
{
    seeds.push_back({"icmp-echo", packets::build(packets::icmp{.type = 8, .body = bytes(32)})});
    seeds.push_back({"icmp-timestamp", packets::build(packets::icmp{.type = 13})});
    packets::icmp later = {.type = 8, .body = bytes(32)};
    later.outer.fragoff = 185;
    seeds.push_back({"icmp-later-fragment", packets::build(later)});
    for (const std::uint8_t type : {3, 4, 5, 11}) {
        seeds.push_back(error("icmp-error-" + std::to_string(type), type, 85));
    }
    seeds.push_back(error("icmp-about-hash", 3, 80));
    seeds.push_back(error("icmp-about-udp", 3, 80, packets::UDP));
    seeds.push_back(error("icmp-about-no-table", 3, 53, packets::UDP));
    seeds.push_back(error("icmp-about-icmp", 3, 80, 1));
    seeds.push_back(error("icmp-about-later-fragment", 3, 85, packets::TCP, 185));
    seeds.push_back(tunnel_error("tunnel-gre-too-long", 47, 4, "10.0.0.11"));
    seeds.push_back(tunnel_error("tunnel-ipip-unreachable", 4, 1, "10.0.0.11"));
    seeds.push_back(tunnel_error("tunnel-unknown", 4, 1, "10.0.0.99"));
}

// Ports whose servers no plain frame reaches, and answers of those behind NAT.
void add_ways(std::vector<seed> &seeds)
{
    for (const std::uint16_t port : {86, 87, 88, 89}) {
        const std::string name = "way-" + std::to_string(port);
        seeds.push_back(frame(name, to(port)));
        packets::packet p = to(port);
        p.fragoff = 0x2000;
        p.id = port;
        seeds.push_back(frame(name + "-first-fragment", p));
        p.fragoff = 8;
        seeds.push_back(frame(name + "-last-fragment", p));
        p = to(port);
        p.fragoff = 0x4000;
        p.payload = 500;
        seeds.push_back(frame(name + "-too-long", p));
        seeds.push_back(frame(name + "-udp", to(port, packets::UDP)));
    }
    packets::packet answer = {.src = "10.2.0.11", .dst = RETURN, .sport = 86, .dport = 1025};
    seeds.push_back(frame("nat-answer", answer));
    answer.fragoff = 0x2000;
    seeds.push_back(frame("nat-answer-first-fragment", answer));
    answer.fragoff = 8;
    seeds.push_back(frame("nat-answer-last-fragment", answer));
    answer.fragoff = 0;
    answer.dport = 60000;
    seeds.push_back(frame("nat-answer-to-nobody", answer));
    answer.dport = 1025;
    bytes cut = packets::build(answer);
    cut.resize(packets::ETH + 20 + 12);
    seeds.push_back({"nat-answer-cut", cut});
}

// --- Commands ------------------------------------------------------------------------------------

seed command(const std::string &name, lbcmd_action_e action, lbcmd_keytype_e keytype,
             const lbcmd_key_t &key, const bytes &add = {}, const bytes &set = {})
{
    lbcmd_bufhdr_t hdr{};
    hdr.lbversion = LBCMD_VERSION;
    hdr.key = key;
    hdr.keytype = keytype;
    hdr.action = action;
    hdr.addsize = static_cast<lb_u16_t>(add.size());
    hdr.setsize = static_cast<lb_u16_t>(set.size());
    bytes content = bytes_of(hdr);
    content.insert(content.end(), add.begin(), add.end());
    content.insert(content.end(), set.begin(), set.end());
    return {name, content};
}

// ADD, SET, GET and RM of one object.
void add_four(std::vector<seed> &seeds, const std::string &name, lbcmd_keytype_e keytype,
              const lbcmd_key_t &key, const bytes &add, const bytes &set)
{
    seeds.push_back(command(name + "-add", LBCMD_ACTION_ADD, keytype, key, add, set));
    seeds.push_back(command(name + "-set", LBCMD_ACTION_SET, keytype, key, {}, set));
    seeds.push_back(command(name + "-get", LBCMD_ACTION_GET, keytype, key));
    seeds.push_back(command(name + "-rm", LBCMD_ACTION_RM, keytype, key));
}

void add_config_seeds(std::vector<seed> &seeds)
{
    constexpr auto CONFIG = LBCMD_KEYTYPE_CONFIG;
    lbexe_setable_t executor{};
    executor.clientgateway = stack::ip("10.0.0.253");
    executor.clientgateway_ipv6 = stack::ip("2001:db8::1");
    executor.ha.role = LBHA_ROLE_PRIMARY;
    const bytes cluster_add = bytes_of(lbclu_addable_t{});
    const bytes cluster_set = bytes_of(lbclu_setable_t{});
    const bytes port_add = bytes_of(port_block(1, 5));
    const bytes port_set = bytes_of(lbport_setable_t{});
    const bytes server_add = bytes_of(lbsrv_addable_t{});
    const bytes server_set = bytes_of(server_block(3));
    add_four(seeds, "executor", CONFIG, stack::cfgkey(""), {}, bytes_of(executor));
    for (const char *cluster : {CLUSTER, "10.0.0.101", "2001:db8::100"}) {
        const std::string name = std::string(cluster) == CLUSTER        ? "known-"
                                 : std::string(cluster) == "10.0.0.101" ? "new-"
                                                                        : "v6-";
        add_four(seeds, name + "cluster", CONFIG, stack::cfgkey(cluster), cluster_add, cluster_set);
        add_four(seeds, name + "port", CONFIG, stack::cfgkey(cluster, 80), port_add, port_set);
        add_four(seeds, name + "server", CONFIG, stack::cfgkey(cluster, 80, "10.0.0.11"),
                 server_add, server_set);
    }
    add_four(seeds, "other-port", CONFIG, stack::cfgkey(CLUSTER, 8080), port_add, port_set);
    add_four(seeds, "empty-port", CONFIG, stack::cfgkey(CLUSTER, 82), port_add, port_set);
    add_four(seeds, "other-server", CONFIG, stack::cfgkey(CLUSTER, 80, "10.0.0.13"), server_add,
             server_set);
    add_four(seeds, "heartbeat", CONFIG, stack::cfgkey(CLUSTER, 0, "10.0.0.2"), {}, {});
    add_four(seeds, "rule", CONFIG, stack::cfgkey(CLUSTER, 80, "", 7), {}, {});
    add_four(seeds, "useserver", CONFIG, stack::cfgkey(CLUSTER, 80, "10.0.0.11", 7), {}, {});
}

void add_interface_seeds(std::vector<seed> &seeds)
{
    constexpr auto IFACE = LBCMD_KEYTYPE_IFACE;
    const bytes ifin = bytes_of(stack::ethernet(1, MTU));
    const bytes ifaddr = bytes_of(lbifaddr_setable_t{});
    add_four(seeds, "collection", IFACE, stack::ifacekey(""), {}, bytes_of(lbifcol_setable_t{}));
    add_four(seeds, "known-interface", IFACE, stack::ifacekey("eth0"), {}, ifin);
    add_four(seeds, "new-interface", IFACE, stack::ifacekey("eth1"), {}, ifin);
    add_four(seeds, "long-interface", IFACE, stack::ifacekey(std::string(32, 'x')), {}, ifin);
    add_four(seeds, "known-address", IFACE, stack::ifacekey("eth0", "10.0.0.1/24"), {}, ifaddr);
    add_four(seeds, "new-address", IFACE, stack::ifacekey("eth0", "10.0.3.1/24"), {}, ifaddr);
    add_four(seeds, "v6-address", IFACE, stack::ifacekey("eth0", "2001:db8::1/64"), {}, ifaddr);
}

} // namespace

std::vector<seed> frame_seeds()
{
    std::vector<seed> seeds = {
        arp("arp-request-for-cluster", 1, "10.0.0.50", CLUSTER),
        arp("arp-request-of-server", 1, "10.0.0.11", "10.0.0.1"),
        arp("arp-reply-of-server", 2, "10.0.0.12", "10.0.0.1"),
        arp("arp-reply-of-stranger", 2, "10.0.0.200", "10.0.0.1"),
        arp("arp-request-for-return-address", 1, "10.0.0.50", RETURN),
        arp_of_group(),
        arp("arp-other-operation", 3, "10.0.0.11", "10.0.0.1"),
        frame("tcp-unknown-port", to(9)),
        frame("udp-rotating", to(80, packets::UDP)),
        frame("udp-no-chooser", to(53, packets::UDP)),
        frame("icmp-to-cluster", to(0, 1)),
        frame("gre-to-cluster", to(0, 47)),
        typed("ipv6", 0x86DD, packets::build(to(80))),
        typed("lldp", 0x88CC, packets::build(to(80))),
        {"vlan-tcp", tagged(packets::build(to(80)))},
        {"runt", bytes(9)},
    };
    for (const std::uint16_t port : {80, 81, 82, 83, 84, 85}) {
        seeds.push_back(frame("tcp-" + std::to_string(port), to(port)));
    }
    add_special_packets(seeds);
    add_icmp(seeds);
    add_ways(seeds);
    const std::vector<seed> v6 = frame_seeds6();
    seeds.insert(seeds.end(), v6.begin(), v6.end());
    return seeds;
}

std::vector<seed> command_seeds()
{
    std::vector<seed> seeds;
    add_config_seeds(seeds);
    add_interface_seeds(seeds);
    return seeds;
}

} // namespace fuzz
