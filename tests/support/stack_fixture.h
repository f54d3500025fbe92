// The whole stack on the fake host: starts it, drives it through command buffers as a client would,
// and at the end removes every object by commands, waits until all is reaped, stops the stack and
// lets the base class prove that nothing is left.
//
// Helpers return the answer code; what a test needs and does not examine goes in ASSERT_ADDED.
#pragma once

#include "lb_entry.h"
#include "lb_executor.h"
#include "lb_pbuf.h"

#include <arpa/inet.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fake_fixture.h"

#define ASSERT_ADDED(command) ASSERT_EQ((command), LBCMD_RC_SUCCESS)

namespace stack
{

// An address from its text, "" for none: "10.0.0.1", "10.0.0.1/24", "2001:db8::1".
inline lbip_addr_t ip(const std::string &text)
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
    EXPECT_EQ(inet_pton(isv6 ? AF_INET6 : AF_INET, host.c_str(), &addr.nboaddr), 1) << text;
    return addr;
}

inline lbcmd_key_t cfgkey(const std::string &cluster = "", lb_u16_t port = 0,
                          const std::string &server = "", lb_u16_t rule = 0)
{
    lbcmd_key_t key{};
    key.cfg.cluster = ip(cluster);
    key.cfg.port = port;
    key.cfg.rule = rule;
    key.cfg.server = ip(server);
    return key;
}

inline lbcmd_key_t ifacekey(const std::string &name = "", const std::string &addr = "")
{
    lbcmd_key_t key{};
    std::memset(&key, 0, sizeof(key));
    std::memcpy(key.iface.name, name.data(),
                name.size() < LBIFACE_NAMELEN ? name.size() : std::size_t{LBIFACE_NAMELEN});
    key.iface.addr = ip(addr);
    return key;
}

// The answer of a GET, taken apart. Blocks are zero where they are absent.
template <class Add, class Set, class Get> struct view {
    int rc = 0;
    Add addable{};
    Set setable{};
    Get getable{};
    std::vector<lbcmd_key_t> children;
};
struct none {
};
using executor_view = view<none, lbexe_setable_t, lbexe_getable_t>;
using cluster_view = view<lbclu_addable_t, lbclu_setable_t, lbclu_getable_t>;
using port_view = view<lbport_addable_t, lbport_setable_t, lbport_getable_t>;
using server_view = view<lbsrv_addable_t, lbsrv_setable_t, lbsrv_getable_t>;
using collection_view = view<none, lbifcol_setable_t, lbifcol_getable_t>;
using interface_view = view<none, lbifin_setable_t, lbifin_getable_t>;
using ifaddr_view = view<none, lbifaddr_setable_t, lbifaddr_getable_t>;

// An interface that is up, does ARP, and has a hardware address 02:00:00:00:00:`last`.
inline lbifin_setable_t ethernet(lb_u8_t last = 1, lb_u32_t mtu = 1500)
{
    lbifin_setable_t setable{};
    setable.ethaddr.b[0] = 2;
    setable.ethaddr.b[5] = last;
    setable.mtu_sys = mtu;
    setable.mtu_lb = mtu;
    setable.isup_sys = LBIFIN_YN_YES;
    setable.isup_lb = LBIFIN_YN_YES;
    setable.arp = LBIFIN_YN_YES;
    setable.loopback = LBIFIN_YN_NO;
    setable.isPTP = LBIFIN_YN_NO;
    return setable;
}

} // namespace stack

class StackTest : public FakeHostTest
{
  protected:
    void SetUp() override
    {
        FakeHostTest::SetUp();
        ASSERT_EQ(lb_init(), 0);
    }

    void TearDown() override
    {
        stop_stack();
        FakeHostTest::TearDown();
    }

    // Removes everything, waits until it is freed, and stops the stack; does nothing when it is
    // stopped already.
    void stop_stack()
    {
        for (int which = 0; which < static_cast<int>(fake::op::count); which++) {
            fake::fail(static_cast<fake::op>(which), 0);
        }
        if (lbexecutor == nullptr) {
            return;
        }
        remove_all();
        lbpbuf_drain();
        for (int ticks = 0; ticks < 40 && fake::live_allocations() != 0; ticks++) {
            tick_once();
        }
        EXPECT_EQ(lb_exit(), 0);
    }

    // --- Buffers ---------------------------------------------------------------------------------

    // The buffer of the last command; a test may fill and send it itself.
    lbcmd_buf_t &buffer() { return *buffer_; }

    // Clears the buffer and fills its header.
    lbcmd_bufhdr_t &prepare(lbcmd_action_e action, lbcmd_keytype_e keytype, const lbcmd_key_t &key)
    {
        std::memset(buffer_.get(), 0, sizeof(*buffer_));
        buffer_->hdr.lbversion = LBCMD_VERSION;
        buffer_->hdr.key = key;
        buffer_->hdr.keytype = keytype;
        buffer_->hdr.action = action;
        return buffer_->hdr;
    }

    int send() { return lbcmd_entry(buffer_.get()); }

    template <class Add, class Set>
    int add(lbcmd_keytype_e keytype, const lbcmd_key_t &key, const Add &addable, const Set &setable)
    {
        lbcmd_bufhdr_t &hdr = prepare(LBCMD_ACTION_ADD, keytype, key);
        std::size_t addlen = 0;
        if constexpr (!std::is_same_v<Add, stack::none>) {
            addlen = sizeof(addable);
            std::memcpy(buffer_->_x, &addable, addlen);
        }
        std::memcpy(buffer_->_x + addlen, &setable, sizeof(setable));
        hdr.addsize = static_cast<lb_u16_t>(addlen);
        hdr.setsize = sizeof(setable);
        return send();
    }

    int rm(lbcmd_keytype_e keytype, const lbcmd_key_t &key)
    {
        prepare(LBCMD_ACTION_RM, keytype, key);
        return send();
    }

    template <class Set>
    int set(lbcmd_keytype_e keytype, const lbcmd_key_t &key, const Set &setable)
    {
        prepare(LBCMD_ACTION_SET, keytype, key).setsize = sizeof(setable);
        std::memcpy(buffer_->_x, &setable, sizeof(setable));
        return send();
    }

    template <class View> View get(lbcmd_keytype_e keytype, const lbcmd_key_t &key)
    {
        lbcmd_bufhdr_t &hdr = prepare(LBCMD_ACTION_GET, keytype, key);
        View answer;
        answer.rc = send();
        if (answer.rc != LBCMD_RC_SUCCESS) {
            return answer;
        }
        const lb_u8_t *at = buffer_->_x;
        take(at, hdr.addsize, answer.addable);
        take(at, hdr.setsize, answer.setable);
        take(at, hdr.getsize, answer.getable);
        answer.children.resize(hdr.listsize / sizeof(lbcmd_key_t));
        if (hdr.listsize != 0) {
            std::memcpy(answer.children.data(), at, hdr.listsize);
        }
        return answer;
    }

    // --- Configuration tree ----------------------------------------------------------------------

    int add_cluster(const std::string &cluster, const lbclu_setable_t &setable = {})
    {
        return add(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster), lbclu_addable_t{}, setable);
    }
    int add_port(const std::string &cluster, lb_u16_t port, const lbport_addable_t &addable,
                 const lbport_setable_t &setable = {})
    {
        return add(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster, port), addable, setable);
    }
    int add_port(const std::string &cluster, lb_u16_t port,
                 lb_u8_t selectalg = LBSEL_ALGORIGHM_HASH,
                 lb_u8_t udpselectalg = LBSEL_ALGORIGHM_UDPRR)
    {
        lbport_addable_t addable{};
        addable.selectalg = selectalg;
        addable.udpselectalg = udpselectalg;
        return add_port(cluster, port, addable);
    }
    int add_server(const std::string &cluster, lb_u16_t port, const std::string &server,
                   const lbsrv_setable_t &setable, const lbsrv_addable_t &addable = {})
    {
        return add(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster, port, server), addable, setable);
    }
    int add_server(const std::string &cluster, lb_u16_t port, const std::string &server,
                   lb_u16_t weight = 1)
    {
        lbsrv_setable_t setable{};
        setable.weight = weight;
        return add_server(cluster, port, server, setable);
    }

    int rm_cluster(const std::string &cluster)
    {
        return rm(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster));
    }
    int rm_port(const std::string &cluster, lb_u16_t port)
    {
        return rm(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster, port));
    }
    int rm_server(const std::string &cluster, lb_u16_t port, const std::string &server)
    {
        return rm(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster, port, server));
    }

    stack::executor_view get_executor()
    {
        return get<stack::executor_view>(LBCMD_KEYTYPE_CONFIG, stack::cfgkey());
    }
    stack::cluster_view get_cluster(const std::string &cluster)
    {
        return get<stack::cluster_view>(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster));
    }
    stack::port_view get_port(const std::string &cluster, lb_u16_t port)
    {
        return get<stack::port_view>(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster, port));
    }
    stack::server_view get_server(const std::string &cluster, lb_u16_t port,
                                  const std::string &server)
    {
        return get<stack::server_view>(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster, port, server));
    }

    // Reads the settable block, changes it and writes it back, as a careful client does.
    int set_executor(const std::function<void(lbexe_setable_t &)> &change)
    {
        lbexe_setable_t setable = get_executor().setable;
        change(setable);
        return set(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(), setable);
    }
    int set_port(const std::string &cluster, lb_u16_t port,
                 const std::function<void(lbport_setable_t &)> &change)
    {
        lbport_setable_t setable = get_port(cluster, port).setable;
        change(setable);
        return set(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster, port), setable);
    }
    int set_server(const std::string &cluster, lb_u16_t port, const std::string &server,
                   const std::function<void(lbsrv_setable_t &)> &change)
    {
        lbsrv_setable_t setable = get_server(cluster, port, server).setable;
        change(setable);
        return set(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster, port, server), setable);
    }
    int set_client_gateway(const std::string &gateway)
    {
        return set_executor(
            [&](lbexe_setable_t &setable) { setable.clientgateway = stack::ip(gateway); });
    }
    // What the running stack logs; FakeHostTest::set_log_mask() is for tests without an executor.
    void set_executor_log_mask(lb_u64_t mask) { lb_poke(lbexecutor->setable.log_mask, mask); }

    // --- Interface tree --------------------------------------------------------------------------

    int add_interface(const std::string &name, const lbifin_setable_t &setable = stack::ethernet())
    {
        return add(LBCMD_KEYTYPE_IFACE, stack::ifacekey(name), stack::none{}, setable);
    }
    // `addr` with its prefix: "10.0.0.1/24".
    int add_ifaddr(const std::string &name, const std::string &addr, const std::string &peer = "")
    {
        return add(LBCMD_KEYTYPE_IFACE, stack::ifacekey(name, addr), stack::none{},
                   lbifaddr_setable_t{stack::ip(peer)});
    }
    int rm_interface(const std::string &name)
    {
        return rm(LBCMD_KEYTYPE_IFACE, stack::ifacekey(name));
    }
    int rm_ifaddr(const std::string &name, const std::string &addr)
    {
        return rm(LBCMD_KEYTYPE_IFACE, stack::ifacekey(name, addr));
    }
    int set_interface(const std::string &name, const lbifin_setable_t &setable)
    {
        return set(LBCMD_KEYTYPE_IFACE, stack::ifacekey(name), setable);
    }
    stack::interface_view get_interface(const std::string &name)
    {
        return get<stack::interface_view>(LBCMD_KEYTYPE_IFACE, stack::ifacekey(name));
    }

    // --- Time ------------------------------------------------------------------------------------

    static void tick_once()
    {
        fake::advance_ms(500);
        EXPECT_EQ(lb_timer_entry(), 0);
    }
    // Lets time pass as the timer thread sees it: a tick every half second.
    static void tick(int seconds)
    {
        for (int i = 0; i < 2 * seconds; i++) {
            tick_once();
        }
    }

  private:
    template <class Block> static void take(const lb_u8_t *&at, lb_u16_t size, Block &block)
    {
        if constexpr (!std::is_same_v<Block, stack::none>) {
            EXPECT_EQ(size, sizeof(block));
            std::memcpy(&block, at, size < sizeof(block) ? size : sizeof(block));
        } else {
            EXPECT_EQ(size, 0);
        }
        at += size;
    }

    std::vector<lbcmd_key_t> children_of(lbcmd_keytype_e keytype, const lbcmd_key_t &key)
    {
        const lbcmd_bufhdr_t &hdr = prepare(LBCMD_ACTION_GET, keytype, key);
        if (send() != LBCMD_RC_SUCCESS) {
            return {};
        }
        std::vector<lbcmd_key_t> keys(hdr.listsize / sizeof(lbcmd_key_t));
        if (!keys.empty()) {
            std::memcpy(keys.data(), buffer_->_x + hdr.addsize + hdr.setsize + hdr.getsize,
                        hdr.listsize);
        }
        return keys;
    }

    // Removes what is below a key, the lowest first; more than one GET lists, too.
    void remove_below(lbcmd_keytype_e keytype, const lbcmd_key_t &key)
    {
        for (auto keys = children_of(keytype, key); !keys.empty();
             keys = children_of(keytype, key)) {
            for (const lbcmd_key_t &child : keys) {
                remove_below(keytype, child);
                ASSERT_EQ(rm(keytype, child), LBCMD_RC_SUCCESS) << "an object can't be removed";
            }
        }
    }

    void remove_all()
    {
        if (get_executor().rc == LBCMD_RC_SUCCESS) {
            EXPECT_EQ(set_client_gateway(""), LBCMD_RC_SUCCESS);
        }
        remove_below(LBCMD_KEYTYPE_CONFIG, stack::cfgkey());
        remove_below(LBCMD_KEYTYPE_IFACE, stack::ifacekey());
    }

    std::unique_ptr<lbcmd_buf_t> buffer_ = std::make_unique<lbcmd_buf_t>();
};
