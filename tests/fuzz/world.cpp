// See world.h. One thread.
#include "world.h"

#include "lb_log.h"
#include "lb_pbuf.h"
#include "lb_port.h"

#include <algorithm>
#include <cstring>

#include "packets.h"
#include "stack_daemon.h"
#include "vellcfg/apply.h"
#include "vellcfg/diff.h"
#include "vellcfg/normalise.h"
#include "vellcfg/reader.h"

namespace fuzz
{

namespace
{

constexpr int TICKS_TO_REAP = 40;

// The service of the fixed configuration, as a file has it.
constexpr const char *SERVICE = R"(
executor: {client-gateway: 10.0.0.254, client-gateway-ipv6: "2001:db8::fe"}
clusters:
  - address: 10.0.0.100
    ports:
      - {port: 80, algorithm: hash, servers: [10.0.0.11, 10.0.0.12]}
      - port: 81
        algorithm: udprr
        servers: [{address: 10.0.0.11, weight: 2}, {address: 10.0.0.12, weight: 0}]
      - {port: 82, algorithm: hash}
      - {port: 83, algorithm: hash, servers: [192.0.2.7]} # which no interface reaches
      - {port: 84, algorithm: hash, servers: [10.9.0.2]} # the far end of ppp0
      - {port: 85, algorithm: connection, servers: [10.0.0.11, 10.0.0.12]}
      - port: 86
        algorithm: connection
        servers:
          - {address: 10.2.0.11, forward: nat, return-address: 10.0.0.200, router-address: 10.0.0.12}
          - {address: 10.2.0.12, forward: nat, return-address: 10.0.0.200, router-address: 10.0.0.12}
      - {port: 87, algorithm: hash, servers: [{address: 192.0.2.8, forward: gre, encap-mtu: 500}]}
      - {port: 88, algorithm: hash, servers: [{address: 192.0.2.8, forward: ipip, encap-mtu: 500}]}
      - {port: 89, algorithm: hash, servers: [{address: 10.0.0.13, forward: collocated}]}
  - address: 2001:db8::100
    ports:
      - {port: 80, algorithm: hash, servers: ["2001:db8::11", "2001:db8::12"]}
      - {port: 82, algorithm: hash}
      - {port: 83, algorithm: hash, servers: [10.0.0.11]} # frames reach it all the same
      - {port: 85, algorithm: connection, servers: ["2001:db8::11", "2001:db8::12"]}
      - port: 86
        algorithm: connection
        servers:
          - address: 2001:db8:2::11
            forward: nat
            return-address: 2001:db8::200
            router-address: 2001:db8::12
      - {port: 87, algorithm: hash} # a tunnel, which carries IPv4 alone
      - {port: 89, algorithm: hash, servers: [{address: "2001:db8::13", forward: collocated}]}
)";

const std::vector<vellcfg::step> &service_steps()
{
    static const std::vector<vellcfg::step> made = [] {
        const auto read = vellcfg::read_texts({{"service", SERVICE}});
        if (!read.errors.empty()) {
            throw fault(finding_text(read.errors[0]));
        }
        return vellcfg::diff(vellcfg::normalised(read.wanted), vellb::read_picture(stack_daemon{}))
            .steps;
    }();
    return made;
}

// A block of a kind that has `len` bytes without the word at `own`, which a GET may change.
void append_block(bytes &out, const lbcmd_objaccess_t &block, std::size_t len, std::size_t own)
{
    const std::size_t at = out.size();
    const auto *p = static_cast<const std::uint8_t *>(block.data);
    out.insert(out.end(), p, p + (p != nullptr ? block.len : 0));
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
    for (void *obj : objs) {
        auto *hdr = static_cast<lbcmd_objhdr_t *>(obj);
        const bytes key = bytes_of(hdr->key);
        out.insert(out.end(), key.begin(), key.end());
        append_block(out, hdr->addable, sizeof(lbport_addable_t),
                     offsetof(lbport_addable_t, crossport));
        append_block(out, hdr->setable, sizeof(lbsrv_setable_t),
                     offsetof(lbsrv_setable_t, encapmtu));
    }
}

} // namespace

bool take_record(const std::uint8_t *&data, std::size_t &size, record &out)
{
    if (size < RECORD) {
        return false;
    }
    out.control = data[0];
    out.length = static_cast<std::size_t>(data[1] << 8 | data[2]);
    const std::size_t end = std::min(size, RECORD + out.length);
    out.content.assign(data + RECORD, data + end);
    data += end;
    size -= end;
    return true;
}

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
    const auto add = [this](lbcmd_keytype_e tree, const lbcmd_key_t &key, const bytes &addable,
                            const bytes &setable) {
        require(command(LBCMD_ACTION_ADD, tree, key, addable, setable) == LBCMD_RC_SUCCESS,
                "the configuration was refused");
    };
    const auto add_address = [&](const char *name, const char *addr, const char *peer = "") {
        add(LBCMD_KEYTYPE_IFACE, stack::ifacekey(name, addr), {},
            bytes_of(lbifaddr_setable_t{stack::ip(peer)}));
    };
    const lbifin_setable_t eth = stack::ethernet(1, MTU);
    lbifin_setable_t ppp = eth;
    ppp.isPTP = LBIFIN_YN_YES;
    ppp.arp = LBIFIN_YN_NO;
    add(LBCMD_KEYTYPE_IFACE, stack::ifacekey("eth0"), {}, bytes_of(eth));
    add_address("eth0", "10.0.0.1/24");
    add_address("eth0", "2001:db8::1/64");
    add(LBCMD_KEYTYPE_IFACE, stack::ifacekey("ppp0"), {}, bytes_of(ppp));
    add_address("ppp0", "10.9.0.1/32", "10.9.0.2");
    require(vellcfg::apply(stack_daemon{}, service_steps()).complete(), "the service was refused");
    // What no file may ask for: an algorithm whose table the port lacks, and a tunnel for IPv6.
    lbport_addable_t lacking{};
    lacking.selectalg = LBSEL_ALGORIGHM_HASH;
    lacking.udpselectalg = LBSEL_ALGORIGHM_CONNECTION;
    lbsrv_setable_t plain{};
    plain.weight = 1;
    lbsrv_setable_t tunnel = plain;
    tunnel.encapflags = LBSRV_ENCAPTYPE_GRE | LBSRV_ENCAPFLAG_ENCAPSULATE;
    tunnel.encapmtu = MTU - 100;
    constexpr auto CONFIG = LBCMD_KEYTYPE_CONFIG;
    const bytes server = bytes_of(lbsrv_addable_t{});
    add(CONFIG, stack::cfgkey(CLUSTER, 53), bytes_of(lacking), bytes_of(lbport_setable_t{}));
    add(CONFIG, stack::cfgkey(CLUSTER, 53, "10.0.0.11"), server, bytes_of(plain));
    add(CONFIG, stack::cfgkey(CLUSTER6, 87, "192.0.2.8"), server, bytes_of(tunnel));
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
void require_forwarded(packets::packet p)
{
    const bytes frame = packets::build(p);
    fake::receive(frame);
    const auto sent = fake::take_sent();
    require(sent.size() == 1, "a good frame was not forwarded");
    p.ttl--;
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
    require_forwarded({.sport = 40019});
    require_forwarded({.version = 6, .sport = 40019});
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

} // namespace fuzz
