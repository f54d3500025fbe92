// See world.h. One thread.
#include "world.h"

#include "lb_entry.h"
#include "lb_executor.h"
#include "lb_log.h"
#include "lb_pbuf.h"
#include "lb_port.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "fake_host.h"
#include "packets.h"

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

item port(lb_u16_t number, lb_u8_t tcp, lb_u8_t udp)
{
    return {LBCMD_KEYTYPE_CONFIG, config_key(CLUSTER, number), bytes_of(port_block(tcp, udp)),
            bytes_of(lbport_setable_t{})};
}

item server(lb_u16_t number, const std::string &addr, lb_u16_t weight)
{
    return {LBCMD_KEYTYPE_CONFIG, config_key(CLUSTER, number, addr), bytes_of(lbsrv_addable_t{}),
            bytes_of(server_block(weight))};
}

std::vector<item> configuration()
{
    lbifin_setable_t ppp = ethernet_block();
    ppp.isPTP = LBIFIN_YN_YES;
    ppp.arp = LBIFIN_YN_NO;
    constexpr lb_u8_t HASH = LBSEL_ALGORIGHM_HASH;
    constexpr lb_u8_t UDPRR = LBSEL_ALGORIGHM_UDPRR;
    constexpr lb_u8_t CONNECTIONS = 2;
    return {
        {LBCMD_KEYTYPE_IFACE, interface_key("eth0"), {}, bytes_of(ethernet_block())},
        {LBCMD_KEYTYPE_IFACE,
         interface_key("eth0", "10.0.0.1/24"),
         {},
         bytes_of(lbifaddr_setable_t{})},
        {LBCMD_KEYTYPE_IFACE, interface_key("ppp0"), {}, bytes_of(ppp)},
        {LBCMD_KEYTYPE_IFACE,
         interface_key("ppp0", "10.9.0.1/32"),
         {},
         bytes_of(lbifaddr_setable_t{address("10.9.0.2")})},
        {LBCMD_KEYTYPE_CONFIG, config_key(CLUSTER), bytes_of(lbclu_addable_t{}),
         bytes_of(lbclu_setable_t{})},
        port(80, HASH, UDPRR),
        server(80, "10.0.0.11", 1),
        server(80, "10.0.0.12", 1),
        port(81, UDPRR, UDPRR),
        server(81, "10.0.0.11", 2),
        server(81, "10.0.0.12", 0),
        port(53, HASH, CONNECTIONS),
        server(53, "10.0.0.11", 1),
        port(82, HASH, UDPRR),
        port(83, HASH, UDPRR),
        server(83, "192.0.2.7", 1),
        port(84, HASH, UDPRR),
        server(84, "10.9.0.2", 1),
    };
}

void append(bytes &out, const void *data, std::size_t len)
{
    const auto *p = static_cast<const std::uint8_t *>(data);
    out.insert(out.end(), p, p + len);
}

void append_objects(bytes &out, lbll_list_t *list)
{
    std::vector<void *> objs(static_cast<std::size_t>(lbll_size(list)));
    require(static_cast<std::size_t>(lbll_selectn(list, objs.data(), lbll_size(list),
                                                  lbll_filter_true, nullptr)) == objs.size(),
            "a list is not as long as it says");
    for (void *obj : objs) {
        const auto *hdr = static_cast<const lbcmd_objhdr_t *>(obj);
        append(out, &hdr->key, sizeof(hdr->key));
        const std::size_t at = out.size();
        append(out, hdr->addable.data, hdr->addable.data != nullptr ? hdr->addable.len : 0);
        if (hdr->addable.len == sizeof(lbport_addable_t)) {
            constexpr std::size_t word = offsetof(lbport_addable_t, crossport);
            std::memset(out.data() + at + word, 0, sizeof(lbport_addable_t::crossport));
        }
        append(out, hdr->setable.data, hdr->setable.data != nullptr ? hdr->setable.len : 0);
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
    for (const item &i : configuration()) {
        const int rc = add(i.keytype, i.key, i.add, i.set);
        require(rc == LBCMD_RC_SUCCESS || rc == LBCMD_RC_ALREADYEXISTS,
                "the configuration was refused");
    }
    lbexe_setable_t setable{};
    setable.clientgateway = address("10.0.0.254");
    prepare(LBCMD_ACTION_SET, LBCMD_KEYTYPE_CONFIG, config_key(""), {}, bytes_of(setable));
    require(execute() == LBCMD_RC_SUCCESS, "the executor refused its settings");
    (void)fake::take_sent(); // queries and an announcement
}

void world::finish()
{
    prepare(LBCMD_ACTION_SET, LBCMD_KEYTYPE_CONFIG, config_key(""), {},
            bytes_of(lbexe_setable_t{}));
    (void)execute(); // a client may have removed the executor
    remove_below(LBCMD_KEYTYPE_CONFIG, config_key(""));
    remove_below(LBCMD_KEYTYPE_IFACE, interface_key(""));
    lbpbuf_drain();
    for (int i = 0; i < TICKS_TO_REAP && lbll_size(&lbexecutor->cmdreaplist) != 0; i++) {
        fake::advance_ms(500);
        (void)lb_timer_entry();
    }
    (void)lb_timer_entry(); // grace of what the last tick has retired
    (void)lb_timer_entry();
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

void world::require_forwarding()
{
    fake::receive(arp_reply("10.0.0.11", 0x11));
    fake::receive(arp_reply("10.0.0.12", 0x12));
    (void)fake::take_sent();
    packets::packet p;
    p.sport = 40001;
    const bytes frame = packets::build(p);
    fake::receive(frame);
    const auto sent = fake::take_sent();
    require(sent.size() == 1, "a good frame was not forwarded");
    packets::packet expected = p;
    expected.ttl--;
    expected.ethsrc = station(1);
    expected.ethdst = station(0x12);
    require(sent[0].bytes == packets::build(expected), "a good frame was forwarded wrongly");
}

int world::execute()
{
    const int rc = lbcmd_entry(buffer_.get());
    require(rc == buffer_->hdr.answer_rc, "the answer differs from the answer code");
    return rc;
}

void world::prepare(lbcmd_action_e action, lbcmd_keytype_e keytype, const lbcmd_key_t &key,
                    const bytes &addable, const bytes &setable)
{
    lbcmd_bufhdr_t &hdr = buffer_->hdr;
    hdr = lbcmd_bufhdr_t{};
    hdr.lbversion = LBCMD_VERSION;
    hdr.key = key;
    hdr.keytype = keytype;
    hdr.action = action;
    hdr.addsize = static_cast<lb_u16_t>(addable.size());
    hdr.setsize = static_cast<lb_u16_t>(setable.size());
    std::copy(addable.begin(), addable.end(), buffer_->_x);
    std::copy(setable.begin(), setable.end(), buffer_->_x + addable.size());
}

bytes world::objects()
{
    bytes out;
    append_objects(out, &lbexecutor->cfgcmdlist);
    append_objects(out, &lbexecutor->ifacecmdlist);
    return out;
}

int world::add(lbcmd_keytype_e keytype, const lbcmd_key_t &key, const bytes &addable,
               const bytes &setable)
{
    prepare(LBCMD_ACTION_ADD, keytype, key, addable, setable);
    return execute();
}

void world::remove_below(lbcmd_keytype_e keytype, const lbcmd_key_t &key)
{
    // Again and again, because a GET lists no more than fit.
    for (;;) {
        prepare(LBCMD_ACTION_GET, keytype, key);
        if (execute() != LBCMD_RC_SUCCESS || buffer_->hdr.listsize == 0) {
            break;
        }
        const lbcmd_bufhdr_t &hdr = buffer_->hdr;
        std::vector<lbcmd_key_t> keys(hdr.listsize / sizeof(lbcmd_key_t));
        std::memcpy(keys.data(), buffer_->_x + hdr.addsize + hdr.setsize + hdr.getsize,
                    hdr.listsize);
        for (const lbcmd_key_t &child : keys) {
            remove_below(keytype, child);
            prepare(LBCMD_ACTION_RM, keytype, child);
            require(execute() == LBCMD_RC_SUCCESS, "an object without children was not removed");
        }
    }
}

lbip_addr_t address(const std::string &text)
{
    lbip_addr_t addr{};
    if (text.empty()) {
        return addr;
    }
    const std::size_t slash = text.find('/');
    const std::string host = text.substr(0, slash);
    if (slash != std::string::npos) {
        addr.prefix = static_cast<lb_u8_t>(std::stoi(text.substr(slash + 1)));
    }
    const bool isv6 = host.find(':') != std::string::npos;
    addr.version = isv6 ? 6 : 4;
    require(inet_pton(isv6 ? AF_INET6 : AF_INET, host.c_str(), &addr.nboaddr) == 1, "bad address");
    return addr;
}

lbcmd_key_t config_key(const std::string &cluster, lb_u16_t port, const std::string &server,
                       lb_u16_t rule)
{
    lbcmd_key_t key{};
    key.cfg.cluster = address(cluster);
    key.cfg.port = port;
    key.cfg.rule = rule;
    key.cfg.server = address(server);
    return key;
}

lbcmd_key_t interface_key(const std::string &name, const std::string &addr)
{
    lbcmd_key_t key{};
    std::memset(&key, 0, sizeof(key));
    std::memcpy(key.iface.name, name.data(), std::min(name.size(), std::size_t{LBIFACE_NAMELEN}));
    key.iface.addr = address(addr);
    return key;
}

lbifin_setable_t ethernet_block()
{
    lbifin_setable_t block{};
    block.ethaddr.b[0] = 2;
    block.ethaddr.b[5] = 1;
    block.mtu_sys = MTU;
    block.mtu_lb = MTU;
    block.isup_sys = LBIFIN_YN_YES;
    block.isup_lb = LBIFIN_YN_YES;
    block.arp = LBIFIN_YN_YES;
    block.loopback = LBIFIN_YN_NO;
    block.isPTP = LBIFIN_YN_NO;
    return block;
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

std::array<std::uint8_t, 6> station(std::uint8_t last)
{
    return {2, 0, 0, 0, 0, last};
}

bytes arp_reply(const std::string &ip, std::uint8_t last)
{
    packets::arp reply;
    reply.op = 2;
    reply.srchw = station(last);
    reply.srcip = ip;
    reply.tgthw = station(1);
    reply.tgtip = "10.0.0.1";
    reply.ethdst = station(1);
    return packets::build(reply);
}

} // namespace fuzz
