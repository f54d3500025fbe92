// The stack under measurement: started, told its interfaces, clusters, ports and servers with
// command buffers as a client would send them, and taught the servers' hardware addresses with ARP
// replies. Everything here runs before or after a measurement, on one thread.
#include "bench_world.h"

#include "lb_command.h"
#include "lb_entry.h"
#include "lb_grace.h"
#include "lb_ipv4.h"
#include "lb_log.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fake_host.h"
#include "prot/arp.h"
#include "prot/command.h"
#include "prot/ipv4.h"
#include "prot/tcpudp.h"

namespace bench
{
namespace
{

constexpr lbeth_addr_t OUR_MAC = {{2, 0, 10, 0, 0, 2}};
constexpr lbeth_addr_t CLIENT_MAC = {{2, 0, 10, 0, 0, 1}};
constexpr ipv4_t OUR_IP = {10, 0, 0, 2};
constexpr ipv4_t CLIENT_IP = {10, 0, 0, 1};
constexpr int FIRST_PORT = 8000;
constexpr std::size_t FRAME_LEN = 60;

[[noreturn]] void give_up(const char *what, int rc)
{
    std::fprintf(stderr, "vell_bench: %s: the stack answered %d\n", what, rc);
    for (const std::string &line : fake::log_lines()) {
        std::fputs(line.c_str(), stderr);
    }
    std::abort();
}

ipv4_t cluster_ip(int index)
{
    return {10, 0, 1, static_cast<std::uint8_t>(index + 1)};
}
ipv4_t server_ip(int index)
{
    return {10, 0, 0, static_cast<std::uint8_t>(index + 11)};
}
lbeth_addr_t server_mac(int index)
{
    return {{2, 0, 10, 0, 0, static_cast<lb_u8_t>(index + 11)}};
}

lbip_addr_t address(const ipv4_t &ip, int prefix = 0)
{
    lbip_addr_t made{};
    made.version = 4;
    made.prefix = static_cast<lb_u8_t>(prefix);
    std::memcpy(made.nboaddr.v4, ip.data(), ip.size());
    return made;
}

template <typename A, typename S>
void add(const char *what, lbcmd_keytype_e keytype, const lbcmd_key_t &key, const A *addable,
         const S &setable)
{
    const auto buffer = std::make_unique<lbcmd_buf_t>();
    std::memset(buffer.get(), 0, sizeof(*buffer));
    buffer->hdr.lbversion = LBCMD_VERSION;
    buffer->hdr.key = key;
    buffer->hdr.keytype = keytype;
    buffer->hdr.action = LBCMD_ACTION_ADD;
    if (addable != nullptr) {
        buffer->hdr.addsize = sizeof(A);
        std::memcpy(buffer->_x, addable, sizeof(A));
    }
    buffer->hdr.setsize = sizeof(S);
    std::memcpy(buffer->_x + buffer->hdr.addsize, &setable, sizeof(S));
    const lb_grace_inside inside;
    const int rc = lbcmd_entry(buffer.get());
    if (rc != LBCMD_RC_SUCCESS) {
        give_up(what, rc);
    }
}

void add_interface()
{
    lbcmd_key_t key{};
    std::strcpy(key.iface.name, "eth0");
    lbifin_setable_t settings{};
    std::memcpy(settings.ethaddr.b, OUR_MAC.b, sizeof(OUR_MAC.b));
    settings.mtu_sys = settings.mtu_lb = 1500;
    settings.isup_sys = settings.isup_lb = settings.arp = LBIFIN_YN_YES;
    settings.loopback = settings.isPTP = LBIFIN_YN_NO;
    add<char>("interface", LBCMD_KEYTYPE_IFACE, key, nullptr, settings);
    key.iface.addr = address(OUR_IP, 16);
    add<char>("interface address", LBCMD_KEYTYPE_IFACE, key, nullptr, lbifaddr_setable_t{});
}

void add_cluster(int index, int ports, const shape_t &shape)
{
    lbcmd_key_t key{};
    key.cfg.cluster = address(cluster_ip(index));
    const lbclu_addable_t nothing{};
    add("cluster", LBCMD_KEYTYPE_CONFIG, key, &nothing, lbclu_setable_t{});
    for (int port = 0; port < ports; port++) {
        key.cfg.port = static_cast<lb_u16_t>(FIRST_PORT + port);
        const lbport_addable_t algorithms{
            .selectalg = shape.tcp, .udpselectalg = shape.udp, .crossport = 0, ._pad = 0};
        add("port", LBCMD_KEYTYPE_CONFIG, key, &algorithms, lbport_setable_t{});
    }
}

// The header of an Ethernet frame at the front of `frame`; what follows it.
std::uint8_t *put_eth(bytes_t &frame, const lbeth_addr_t &src, const lbeth_addr_t &dst,
                      lb_u16_t type)
{
    lbeth_hdr_t eth{};
    eth.src = src;
    eth.dst = dst;
    lb_put16(eth.type, type);
    std::memcpy(frame.data(), &eth, sizeof(eth));
    return frame.data() + sizeof(eth);
}

bytes_t arp_frame(lb_u16_t op, const lbeth_addr_t &src, const ipv4_t &src_ip,
                  const lbeth_addr_t &dst, const ipv4_t &target_ip)
{
    bytes_t frame(FRAME_LEN);
    lbarp_pkt_t arp{};
    lb_put16(arp.hdr.hwtype, LBARP_HW_ETHERNET);
    lb_put16(arp.hdr.prototype, LBETH_TYPE_IPV4);
    arp.hdr.hwlen = LBETH_ADDRLEN;
    arp.hdr.protolen = 4;
    lb_put16(arp.hdr.op, op);
    arp.srchw = src;
    std::memcpy(arp.srcip, src_ip.data(), src_ip.size());
    std::memcpy(arp.tgtip, target_ip.data(), target_ip.size());
    std::memcpy(put_eth(frame, src, dst, LBETH_TYPE_ARP), &arp, sizeof(arp));
    return frame;
}

bytes_t ipv4_frame(lb_u8_t proto, const ipv4_t &dst, int sport, int dport)
{
    bytes_t frame(FRAME_LEN);
    std::uint8_t *at = put_eth(frame, CLIENT_MAC, OUR_MAC, LBETH_TYPE_IPV4);
    lbipv4_hdr_t ip{};
    ip.verihl = 0x45;
    lb_put16(ip.totlen, static_cast<lb_u16_t>(FRAME_LEN - LBETH_HDRLEN));
    ip.ttl = 64;
    ip.proto = proto;
    std::memcpy(ip.src, CLIENT_IP.data(), CLIENT_IP.size());
    std::memcpy(ip.dst, dst.data(), dst.size());
    std::memcpy(at, &ip, sizeof(ip));
    lb_put16(ip.csum, lbipv4_checksum(at));
    std::memcpy(at, &ip, sizeof(ip));
    lbtcpudp_hdr_t ports{};
    lb_put16(ports.sport, static_cast<lb_u16_t>(sport));
    lb_put16(ports.dport, static_cast<lb_u16_t>(dport));
    std::memcpy(at + sizeof(ip), &ports, sizeof(ports));
    if (proto == LBIP_PROTO_TCP) {
        at[sizeof(ip) + offsetof(lbtcp_hdr_t, dataoff)] = 0x50;
        at[sizeof(ip) + offsetof(lbtcp_hdr_t, flags)] = LBTCP_ACK;
    }
    return frame;
}

void teach(const lbeth_addr_t &mac, const ipv4_t &ip)
{
    fake::frame buffer;
    const bytes_t reply = arp_frame(LBARP_OP_REPLY, mac, ip, OUR_MAC, OUR_IP);
    (void)fake::receive_into(buffer, reply.data(), reply.size()); // the forwarding shows its effect
}

} // namespace

world::world(const shape_t &shape) : shape_(shape)
{
    fake::reset();
    lbexe_log_mask = 0;
    if (const int rc = lb_init(); rc != 0) {
        give_up("lb_init", rc);
    }
    add_interface();
    for (int i = 0; i < shape.clusters; i++) {
        add_cluster(i, i == shape.clusters - 1 ? shape.ports : 1, shape);
    }
    lbcmd_key_t key{};
    key.cfg.cluster = address(cluster_ip(shape.clusters - 1));
    key.cfg.port = static_cast<lb_u16_t>(FIRST_PORT + shape.ports - 1);
    for (int i = 0; i < SERVERS; i++) {
        key.cfg.server = address(server_ip(i));
        const lbsrv_addable_t direct{};
        lbsrv_setable_t settings{};
        settings.weight = 1;
        add("server", LBCMD_KEYTYPE_CONFIG, key, &direct, settings);
        teach(server_mac(i), server_ip(i));
    }
    (void)fake::take_sent();
    fake::count_only(true);
    fake::log_discard(true);
}

world::~world()
{
    (void)lb_exit(); // its objects are forgotten with the host's next reset
}

std::array<bytes_t, SERVERS> world::client_frames(lb_u8_t proto) const
{
    constexpr int first_sport = 30000; // divisible by SERVERS
    std::array<bytes_t, SERVERS> frames;
    for (int i = 0; i < SERVERS; i++) {
        frames[static_cast<std::size_t>(i)] = ipv4_frame(
            proto, cluster_ip(shape_.clusters - 1), first_sport + i, FIRST_PORT + shape_.ports - 1);
    }
    return frames;
}

lbport_obj_t *world::last_port() const
{
    lbcmd_key_t key{};
    key.cfg.cluster = address(cluster_ip(shape_.clusters - 1));
    key.cfg.port = static_cast<lb_u16_t>(FIRST_PORT + shape_.ports - 1);
    return reinterpret_cast<lbport_obj_t *>(lbcmd_lookup(LBCMD_KEYTYPE_CONFIG, &key));
}

bytes_t world::foreign_frame() const
{
    return ipv4_frame(LBIP_PROTO_UDP, {10, 0, 200, 200}, 30000, FIRST_PORT);
}

bytes_t world::arp_request() const
{
    constexpr lbeth_addr_t everyone = {{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}};
    return arp_frame(LBARP_OP_REQUEST, CLIENT_MAC, CLIENT_IP, everyone,
                     cluster_ip(shape_.clusters - 1));
}

} // namespace bench
