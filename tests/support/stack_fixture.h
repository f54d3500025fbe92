// The whole stack on the fake host: starts it, drives it through command buffers as a client would,
// and at the end removes every object by commands, waits until all is reaped, stops the stack and
// lets the base class prove that nothing is left.
//
// Helpers return the answer code; what a test needs and does not examine goes in ASSERT_ADDED.
#pragma once

#include "lb_pbuf.h"

#include <functional>

#include "fake_fixture.h"
#include "stack_client.h"

#define ASSERT_ADDED(command) ASSERT_EQ((command), LBCMD_RC_SUCCESS)

namespace stack
{

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

// Which of the counters went up, by name: "in fwd", or "in fwd+2".
inline std::string counted(const lb_proto_stats_t &before, const lb_proto_stats_t &after)
{
    const std::pair<const char *, lb_u64_t> counters[] = {
        {"in", after.in - before.in},
        {"gen", after.gen - before.gen},
        {"fwd", after.fwd - before.fwd},
        {"notforus", after.notforus - before.notforus},
        {"discard", after.discard - before.discard},
        {"err", after.err - before.err},
    };
    std::string out;
    for (const auto &[name, more] : counters) {
        if (more != 0) {
            out += (out.empty() ? "" : " ") + std::string(name);
            out += more > 1 ? "+" + std::to_string(more) : "";
        }
    }
    return out;
}

} // namespace stack

class StackTest : public FakeHostTest, protected stack::client
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
            lbpbuf_drain(); // a table that is reaped frees what it held
        }
        EXPECT_EQ(lb_exit(), 0);
    }

    int add(lbcmd_keytype_e tree, const lbcmd_key_t &key, const stack::bytes &addable,
            const stack::bytes &setable)
    {
        return command(LBCMD_ACTION_ADD, tree, key, addable, setable);
    }
    int rm(lbcmd_keytype_e tree, const lbcmd_key_t &key)
    {
        return command(LBCMD_ACTION_RM, tree, key);
    }
    template <class Set> int set(lbcmd_keytype_e tree, const lbcmd_key_t &key, const Set &setable)
    {
        return command(LBCMD_ACTION_SET, tree, key, {}, stack::bytes_of(setable));
    }
    template <class View> View get(const lbcmd_key_t &key)
    {
        const lbcmd_bufhdr_t &hdr = prepare(LBCMD_ACTION_GET, LBCMD_KEYTYPE_CONFIG, key);
        View answer;
        answer.rc = send();
        if (answer.rc == LBCMD_RC_SUCCESS) {
            const lb_u8_t *at = buffer()._x;
            take(at, hdr.addsize, answer.addable);
            take(at, hdr.setsize, answer.setable);
            take(at, hdr.getsize, answer.getable);
            answer.children = children();
        }
        return answer;
    }

    // --- Configuration tree ----------------------------------------------------------------------

    int add_cluster(const std::string &cluster)
    {
        return add(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster), stack::bytes_of(lbclu_addable_t{}),
                   stack::bytes_of(lbclu_setable_t{}));
    }
    int add_port(const std::string &cluster, lb_u16_t port, const lbport_addable_t &addable,
                 const lbport_setable_t &setable = {})
    {
        return add(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster, port), stack::bytes_of(addable),
                   stack::bytes_of(setable));
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
        return add(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster, port, server),
                   stack::bytes_of(addable), stack::bytes_of(setable));
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

    stack::executor_view get_executor() { return get<stack::executor_view>(stack::cfgkey()); }
    stack::cluster_view get_cluster(const std::string &cluster)
    {
        return get<stack::cluster_view>(stack::cfgkey(cluster));
    }
    stack::port_view get_port(const std::string &cluster, lb_u16_t port)
    {
        return get<stack::port_view>(stack::cfgkey(cluster, port));
    }
    stack::server_view get_server(const std::string &cluster, lb_u16_t port,
                                  const std::string &server)
    {
        return get<stack::server_view>(stack::cfgkey(cluster, port, server));
    }

    // Reads the settable block, changes it and writes it back, as a careful client does.
    template <class Block>
    int change(const lbcmd_key_t &key, Block setable, const std::function<void(Block &)> &with)
    {
        with(setable);
        return set(LBCMD_KEYTYPE_CONFIG, key, setable);
    }
    int set_executor(const std::function<void(lbexe_setable_t &)> &with)
    {
        return change(stack::cfgkey(), get_executor().setable, with);
    }
    int set_port(const std::string &cluster, lb_u16_t port,
                 const std::function<void(lbport_setable_t &)> &with)
    {
        return change(stack::cfgkey(cluster, port), get_port(cluster, port).setable, with);
    }
    int set_server(const std::string &cluster, lb_u16_t port, const std::string &server,
                   const std::function<void(lbsrv_setable_t &)> &with)
    {
        return change(stack::cfgkey(cluster, port, server),
                      get_server(cluster, port, server).setable, with);
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
        return add(LBCMD_KEYTYPE_IFACE, stack::ifacekey(name), {}, stack::bytes_of(setable));
    }
    // `addr` with its prefix: "10.0.0.1/24".
    int add_ifaddr(const std::string &name, const std::string &addr, const std::string &peer = "")
    {
        return add(LBCMD_KEYTYPE_IFACE, stack::ifacekey(name, addr), {},
                   stack::bytes_of(lbifaddr_setable_t{stack::ip(peer)}));
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

    // --- What many tests begin with --------------------------------------------------------------

    // An interface on 10.0.0.0/24 and 2001:db8::/64.
    void make_eth0()
    {
        ASSERT_ADDED(add_interface("eth0"));
        ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
        ASSERT_ADDED(add_ifaddr("eth0", "2001:db8::1/64"));
    }
    // What the stack sends about a frame that is its own.
    static std::vector<fake::sent_frame> sent_for(const stack::bytes &frame,
                                                  fake::link link = fake::link::ethernet)
    {
        (void)fake::take_sent();
        EXPECT_EQ(fake::receive(frame, link), LB_PACKETRC_CONSUMED);
        return fake::take_sent();
    }
    // The host gets the frame as it came, and nothing is sent.
    static void expect_left_to_host(const stack::bytes &frame)
    {
        (void)fake::take_sent();
        fake::frame buffer{};
        EXPECT_EQ(fake::receive_into(buffer, frame.data(), frame.size()), LB_PACKETRC_INTACT);
        EXPECT_TRUE(std::equal(frame.begin(), frame.end(), buffer.bytes()));
        EXPECT_TRUE(fake::take_sent().empty());
    }
    // A neighbour tells the last byte of its hardware address, by ARP or by neighbour discovery.
    static void meet(const std::string &ip, std::uint8_t last)
    {
        fake::receive(ip.find(':') != std::string::npos ? packets::advertisement(ip, last)
                                                        : packets::arp_reply(ip, last));
        (void)fake::take_sent();
    }
    // A cluster whose port 80 has servers, which are met: their hardware addresses end like theirs.
    void make_service(const std::string &cluster, const std::vector<std::string> &servers,
                      lb_u8_t algorithm = LBSEL_ALGORIGHM_HASH)
    {
        ASSERT_ADDED(add_cluster(cluster));
        ASSERT_ADDED(add_port(cluster, 80, algorithm));
        for (const std::string &server : servers) {
            ASSERT_ADDED(add_server(cluster, 80, server));
            meet(server, static_cast<std::uint8_t>(
                             std::stoi(server.substr(server.find_last_of(".:") + 1))));
        }
    }

  private:
    template <class Block> static void take(const lb_u8_t *&at, lb_u16_t size, Block &block)
    {
        if constexpr (!std::is_same_v<Block, stack::none>) {
            EXPECT_EQ(size, sizeof(block));
            std::memcpy(&block, at, std::min<std::size_t>(size, sizeof(block)));
        } else {
            EXPECT_EQ(size, 0);
        }
        at += size;
    }
};
