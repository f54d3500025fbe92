// See world.h. One thread.
#include "world.h"

#include "lb_log.h"
#include "lb_pbuf.h"
#include "lb_port.h"

#include <algorithm>
#include <cstring>

#include "packets6.h"

namespace fuzz
{

namespace
{

constexpr int TICKS_TO_REAP = 40;

// The configuration, as the commands that make it.
struct item {
    lbcmd_keytype_e keytype;
    lbcmd_key_t key;
    bytes add;
    bytes set;
};

item cluster(const std::string &addr)
{
    return {LBCMD_KEYTYPE_CONFIG, stack::cfgkey(addr), bytes_of(lbclu_addable_t{}),
            bytes_of(lbclu_setable_t{})};
}

item interface(const std::string &name, const lbifin_setable_t &set)
{
    return {LBCMD_KEYTYPE_IFACE, stack::ifacekey(name), {}, bytes_of(set)};
}

item address(const std::string &name, const std::string &addr, const std::string &peer = "")
{
    return {LBCMD_KEYTYPE_IFACE,
            stack::ifacekey(name, addr),
            {},
            bytes_of(lbifaddr_setable_t{stack::ip(peer)})};
}

// The cluster of a server's own IP version.
std::string cluster_of(const std::string &addr)
{
    return addr.find(':') == std::string::npos ? CLUSTER : CLUSTER6;
}

item port(lb_u16_t number, lb_u8_t tcp, lb_u8_t udp, const std::string &of = CLUSTER)
{
    return {LBCMD_KEYTYPE_CONFIG, stack::cfgkey(of, number), bytes_of(port_block(tcp, udp)),
            bytes_of(lbport_setable_t{})};
}
item port6(lb_u16_t number, lb_u8_t tcp)
{
    return port(number, tcp, LBSEL_ALGORIGHM_UDPRR, CLUSTER6);
}

// One whose settings are not the usual ones.
item special(const std::string &of, lb_u16_t number, const std::string &addr,
             const lbsrv_addable_t &add, const lbsrv_setable_t &set)
{
    return {LBCMD_KEYTYPE_CONFIG, stack::cfgkey(of, number, addr), bytes_of(add), bytes_of(set)};
}

item server(lb_u16_t number, const std::string &addr, lb_u16_t weight)
{
    return special(cluster_of(addr), number, addr, {}, server_block(weight));
}

item natted(lb_u16_t number, const std::string &addr, const char *from = RETURN,
            const char *router = "10.0.0.12")
{
    lbsrv_addable_t add{};
    add.nat = 1;
    add.returnaddress = stack::ip(from);
    add.routeraddress = stack::ip(router);
    return special(cluster_of(addr), number, addr, add, server_block(1));
}

item tunnelled(lb_u16_t number, lb_u8_t type, const std::string &of = CLUSTER)
{
    lbsrv_setable_t set = server_block(1);
    set.encapflags = static_cast<lb_u8_t>(type | LBSRV_ENCAPFLAG_ENCAPSULATE);
    set.encapmtu = MTU - 100;
    return special(of, number, "192.0.2.8", {}, set);
}

item collocated(lb_u16_t number, const std::string &addr)
{
    lbsrv_setable_t set = server_block(1);
    set.Collocated = 1;
    return special(cluster_of(addr), number, addr, {}, set);
}

constexpr lb_u8_t HASH = LBSEL_ALGORIGHM_HASH;
constexpr lb_u8_t UDPRR = LBSEL_ALGORIGHM_UDPRR;
constexpr lb_u8_t CONNECTIONS = LBSEL_ALGORIGHM_CONNECTION;

std::vector<item> configuration4()
{
    lbifin_setable_t ppp = stack::ethernet(1, MTU);
    ppp.isPTP = LBIFIN_YN_YES;
    ppp.arp = LBIFIN_YN_NO;
    return {
        interface("eth0", stack::ethernet(1, MTU)),
        address("eth0", "10.0.0.1/24"),
        interface("ppp0", ppp),
        address("ppp0", "10.9.0.1/32", "10.9.0.2"),
        cluster(CLUSTER),
        port(80, HASH, UDPRR),
        server(80, "10.0.0.11", 1),
        server(80, "10.0.0.12", 1),
        port(81, UDPRR, UDPRR),
        server(81, "10.0.0.11", 2),
        server(81, "10.0.0.12", 0),
        port(53, HASH, CONNECTIONS), // whose table the port lacks
        server(53, "10.0.0.11", 1),
        port(82, HASH, UDPRR),
        port(83, HASH, UDPRR),
        server(83, "192.0.2.7", 1), // which no interface reaches
        port(84, HASH, UDPRR),
        server(84, "10.9.0.2", 1),
        port(85, CONNECTIONS, UDPRR),
        server(85, "10.0.0.11", 1),
        server(85, "10.0.0.12", 1),
        port(86, CONNECTIONS, UDPRR),
        natted(86, "10.2.0.11"),
        natted(86, "10.2.0.12"),
        port(87, HASH, UDPRR),
        tunnelled(87, LBSRV_ENCAPTYPE_GRE),
        port(88, HASH, UDPRR),
        tunnelled(88, LBSRV_ENCAPTYPE_IPIP),
        port(89, HASH, UDPRR),
        collocated(89, "10.0.0.13"),
    };
}

std::vector<item> configuration6()
{
    return {
        address("eth0", "2001:db8::1/64"),
        cluster(CLUSTER6),
        port6(80, HASH),
        server(80, "2001:db8::11", 1),
        server(80, "2001:db8::12", 1),
        port6(82, HASH),
        port6(83, HASH),
        special(CLUSTER6, 83, "10.0.0.11", {}, server_block(1)), // frames reach it all the same
        port6(85, CONNECTIONS),
        server(85, "2001:db8::11", 1),
        server(85, "2001:db8::12", 1),
        port6(86, CONNECTIONS),
        natted(86, "2001:db8:2::11", RETURN6, "2001:db8::12"),
        port6(87, HASH),
        tunnelled(87, LBSRV_ENCAPTYPE_GRE, CLUSTER6), // which carries IPv4 alone
        port6(89, HASH),
        collocated(89, "2001:db8::13"),
    };
}

void append(bytes &out, const void *data, std::size_t len)
{
    const auto *p = static_cast<const std::uint8_t *>(data);
    out.insert(out.end(), p, p + len);
}

// A block of a kind that has `len` bytes without the word at `own`, which a GET may change.
void append_block(bytes &out, const lbcmd_objaccess_t &block, std::size_t len, std::size_t own)
{
    const std::size_t at = out.size();
    append(out, block.data, block.data != nullptr ? block.len : 0);
    if (block.len == len) {
        std::memset(out.data() + at + own, 0, sizeof(lb_u16_t));
    }
}

void append_objects(bytes &out, lbll_list_t *list)
{
    std::vector<void *> objs(static_cast<std::size_t>(lbll_size(list)));
    require(static_cast<std::size_t>(lbll_selectn(list, objs.data(), lbll_size(list),
                                                  lbll_filter_true, nullptr)) == objs.size(),
            "a list is not as long as it says");
    const lbcmd_func_t *row = list == &lbexecutor->cfgcmdlist ? &cmdfuncs[LBCMD_KEYTYPE_CONFIG]
                                                              : &cmdfuncs[LBCMD_KEYTYPE_IFACE];
    const bool anyodd = std::any_of(objs.begin(), objs.end(), [&](void *obj) {
        return row->iskeyodd(&static_cast<lbcmd_objhdr_t *>(obj)->key) != 0;
    });
    for (void *obj : objs) {
        auto *hdr = static_cast<lbcmd_objhdr_t *>(obj);
        append(out, &hdr->key, sizeof(hdr->key));
        const auto ischild = [&](void *other) { return row->llchildfilter(&hdr->key, other) != 0; };
        require(anyodd || std::count_if(objs.begin(), objs.end(), ischild) == hdr->_children,
                "an object has other children than it counts");
        append_block(out, hdr->addable, sizeof(lbport_addable_t),
                     offsetof(lbport_addable_t, crossport));
        append_block(out, hdr->setable, sizeof(lbsrv_setable_t),
                     offsetof(lbsrv_setable_t, encapmtu));
    }
}

} // namespace

world::world()
{
    lbexeos_logmask = nullptr;
    lbexeos_starttime = nullptr;
    lbexe_log_mask = 0;
    fake::reset();
    fake::log_discard(true);
    require(lb_init() == 0, "the stack did not start");
    configure();
}

world::~world()
{
    if (lbexecutor != nullptr) {
        (void)lb_exit(); // what a fault left behind is nobody's business
    }
    fake::reset();
}

void world::configure()
{
    for (const auto &items : {configuration4(), configuration6()}) {
        for (const item &i : items) {
            const int rc = command(LBCMD_ACTION_ADD, i.keytype, i.key, i.add, i.set);
            require(rc == LBCMD_RC_SUCCESS || rc == LBCMD_RC_ALREADYEXISTS,
                    "the configuration was refused");
        }
    }
    lbexe_setable_t setable{};
    setable.clientgateway = stack::ip("10.0.0.254");
    setable.clientgateway_ipv6 = stack::ip("2001:db8::fe");
    require(command(LBCMD_ACTION_SET, LBCMD_KEYTYPE_CONFIG, stack::cfgkey(), {},
                    bytes_of(setable)) == LBCMD_RC_SUCCESS,
            "the executor refused its settings");
    (void)fake::take_sent(); // queries and an announcement
}

void world::finish()
{
    remove_all();
    lbpbuf_drain();
    for (int i = 0; i < TICKS_TO_REAP && lbll_size(&lbexecutor->cmdreaplist) != 0; i++) {
        tick_once();
    }
    (void)lb_timer_entry(); // grace of what the last tick has retired
    (void)lb_timer_entry();
    lbpbuf_drain(); // a table that was reaped has freed what it held
    require(lb_exit() == 0, "the stack did not stop");
    require(fake::live_allocations() == 0, "memory leaked");
    require(fake::live_mutexes() == 0, "a mutex was never destroyed");
    require(fake::held_frames() == 0, "a received frame was never freed");
    require_unharmed();
}

void world::require_unharmed()
{
    require(fake::unasked_core_calls() == 0, "os_core() was called");
    require(fake::mutexes_held_here() == 0, "a mutex is still locked");
    const auto faults = fake::faults();
    if (!faults.empty()) {
        throw fault(faults.front());
    }
}

namespace
{

// Sends a packet that a server with the hardware address 02::12 must get, one hop later.
template <class Packet> void require_forwarded(Packet p, std::uint8_t Packet::*hops)
{
    const bytes frame = packets::build(p);
    fake::receive(frame);
    const auto sent = fake::take_sent();
    require(sent.size() == 1, "a good frame was not forwarded");
    (p.*hops)--;
    p.ethsrc = packets::mac_of(1);
    p.ethdst = packets::mac_of(0x12);
    require(sent[0].bytes == packets::build(p), "a good frame was forwarded wrongly");
}

} // namespace

void world::require_forwarding()
{
    fake::receive(packets::arp_reply("10.0.0.11", 0x11));
    fake::receive(packets::arp_reply("10.0.0.12", 0x12));
    fake::receive(packets::advertisement("2001:db8::11", 0x11));
    fake::receive(packets::advertisement("2001:db8::12", 0x12));
    (void)fake::take_sent();
    require_forwarded(packets::packet{.sport = 40001}, &packets::packet::ttl);
    require_forwarded(packets::packet6{.sport = 40001}, &packets::packet6::hops);
}

int world::execute()
{
    const int rc = send();
    require(rc == buffer().hdr.answer_rc, "the answer differs from the answer code");
    return rc;
}

bytes world::objects()
{
    bytes out;
    append_objects(out, &lbexecutor->cfgcmdlist);
    append_objects(out, &lbexecutor->ifacecmdlist);
    return out;
}

lbport_addable_t port_block(lb_u8_t tcp, lb_u8_t udp)
{
    lbport_addable_t block{};
    block.selectalg = tcp;
    block.udpselectalg = udp;
    return block;
}

lbsrv_setable_t server_block(lb_u16_t weight)
{
    lbsrv_setable_t block{};
    block.weight = weight;
    return block;
}

} // namespace fuzz
