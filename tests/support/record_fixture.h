// Ports with servers behind one interface and a client gateway, their rules, TCP segments of many
// clients, and what the readable blocks say of the servers' records.
#pragma once

#include "lb_cluster.h"
#include "lb_port.h"
#include "lb_rule.h"
#include "lb_server.h"
#include "lb_useserver.h"

#include <string>

#include "packets.h"
#include "record_check.h"
#include "stack_fixture.h"

constexpr std::uint8_t FIN = 0x01;
constexpr std::uint8_t SYN = 0x02;
constexpr std::uint8_t RST = 0x04;
constexpr std::uint8_t ACK = 0x10;

class RecordFixture : public StackTest
{
  protected:
    static constexpr const char *C = "10.0.0.100";
    static constexpr const char *C6 = "2001:db8::100";
    static constexpr int NOWHERE = -1;

    void SetUp() override
    {
        StackTest::SetUp();
        ASSERT_ADDED(add_interface("eth0", stack::ethernet(1)));
        ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
        ASSERT_ADDED(set_client_gateway("10.0.0.254"));
        meet(254);
        ASSERT_ADDED(add_cluster(C));
    }
    void TearDown() override
    {
        if (lbexecutor != nullptr) {
            for (const lb_u16_t number : {lb_u16_t{80}, lb_u16_t{443}, lb_u16_t{8443}}) {
                if (lbport_obj_t *port = port_object(number); port != nullptr) {
                    records::check_port(port);
                }
            }
        }
        StackTest::TearDown();
    }

    static std::string address(int last) { return "10.0.0." + std::to_string(last); }
    using StackTest::meet;
    static void meet(int last) { meet(address(last), static_cast<std::uint8_t>(last)); }
    // All of it for IPv6, too: a gateway, and a cluster whose port 80 has these servers.
    void add_ipv6(const std::vector<std::string> &servers = {})
    {
        ASSERT_ADDED(add_ifaddr("eth0", "2001:db8::1/64"));
        ASSERT_ADDED(set_executor([](lbexe_setable_t &setable) {
            setable.clientgateway_ipv6 = stack::ip("2001:db8::254");
        }));
        meet("2001:db8::254", 254);
        make_service(C6, servers, LBSEL_ALGORIGHM_CONNECTION);
    }

    // A port with its times, which are given rather than defaulted.
    int make_port(lb_u16_t number, lb_u8_t algorithm, lb_u16_t crossport = 0,
                  lb_u8_t udp = LBSEL_ALGORIGHM_UDPRR, lbport_setable_t setable = {})
    {
        lbport_addable_t addable{};
        addable.selectalg = algorithm;
        addable.udpselectalg = udp;
        addable.crossport = crossport;
        return add_port(C, number, addable, setable);
    }
    // Servers go by the last byte of their addresses.
    int make_server(lb_u16_t number, int last, lb_u16_t weight = 1, lb_u32_t sticky = 1)
    {
        lbsrv_setable_t setable{};
        setable.weight = weight;
        setable.stickyflag = sticky;
        const int rc = add_server(C, number, address(last), setable);
        meet(last);
        return rc;
    }
    int make_servers(lb_u16_t number, const std::vector<int> &servers = {11, 12, 13},
                     lb_u16_t weight = 1)
    {
        int rc = LBCMD_RC_SUCCESS;
        for (const int last : servers) {
            rc = rc == LBCMD_RC_SUCCESS ? make_server(number, last, weight) : rc;
        }
        return rc;
    }
    // A port with its servers.
    void remove_port(lb_u16_t number, const std::vector<int> &servers = {11, 12, 13})
    {
        for (const int last : servers) {
            EXPECT_EQ(rm_server(C, number, address(last)), LBCMD_RC_SUCCESS);
        }
        EXPECT_EQ(rm_port(C, number), LBCMD_RC_SUCCESS);
    }
    int weigh(lb_u16_t number, int last, lb_u16_t weight)
    {
        return set_server(C, number, address(last),
                          [weight](lbsrv_setable_t &setable) { setable.weight = weight; });
    }

    static lbcmd_key_t rule_key(int rule, lb_u16_t number = 80)
    {
        return stack::cfgkey(C, number, "", static_cast<lb_u16_t>(rule));
    }
    static lbrul_setable_t settings(int type, lb_u32_t begin = 0, lb_u32_t end = 0)
    {
        lbrul_setable_t setable{};
        setable.type = static_cast<lb_u8_t>(type);
        setable.beginrange = begin;
        setable.endrange = end;
        return setable;
    }
    int add_rule(int rule, const lbrul_setable_t &setable = settings(LBRUL_TYPE_TRUE),
                 lb_u16_t number = 80)
    {
        return add(LBCMD_KEYTYPE_CONFIG, rule_key(rule, number), stack::bytes_of(lbrul_addable_t{}),
                   stack::bytes_of(setable));
    }
    int set_rule(int rule, const lbrul_setable_t &setable, lb_u16_t number = 80)
    {
        return set(LBCMD_KEYTYPE_CONFIG, rule_key(rule, number), setable);
    }
    int rm_rule(int rule, lb_u16_t number = 80)
    {
        return rm(LBCMD_KEYTYPE_CONFIG, rule_key(rule, number));
    }
    static lbcmd_key_t use_key(int rule, int last, lb_u16_t number)
    {
        return stack::cfgkey(C, number, address(last), static_cast<lb_u16_t>(rule));
    }
    int use(int rule, int last, lb_u16_t number = 80)
    {
        return add(LBCMD_KEYTYPE_CONFIG, use_key(rule, last, number),
                   stack::bytes_of(lbusrv_addable_t{}), stack::bytes_of(lbusrv_setable_t{}));
    }
    int disuse(int rule, int last, lb_u16_t number = 80)
    {
        return rm(LBCMD_KEYTYPE_CONFIG, use_key(rule, last, number));
    }

    // The one frame that is sent for a frame that the stack takes, or none.
    static packets::bytes frame_for(const packets::bytes &frame)
    {
        const auto sent = sent_for(frame);
        return sent.size() == 1 ? sent[0].bytes : packets::bytes();
    }
    // Sends a packet: the server that it was forwarded to, or NOWHERE.
    static int route(const packets::packet &p = {})
    {
        const packets::bytes sent = frame_for(packets::build(p));
        return !sent.empty() && packets::ip_at(sent, packets::ETH + 16) == C ? sent[5] : NOWHERE;
    }
    static int tcp(std::uint8_t flags, std::uint16_t sport = 40000,
                   const std::string &client = "10.9.0.1", std::uint16_t dport = 80)
    {
        return route({.src = client, .sport = sport, .dport = dport, .flags = flags});
    }
    static int udp(std::uint16_t sport = 40000, const std::string &client = "10.9.0.1",
                   std::uint16_t dport = 80)
    {
        return route({.src = client, .sport = sport, .dport = dport, .proto = packets::UDP});
    }

    // A command that is refused because the n-th of these fails leaves nothing behind.
    static void expect_leaves_nothing(fake::op what, int n, const std::function<int()> &command)
    {
        SCOPED_TRACE(n);
        const std::int64_t blocks = fake::live_allocations();
        const std::int64_t mutexes = fake::live_mutexes();
        fake::fail(what, n);
        EXPECT_EQ(command(), LBCMD_RC_FAILURE);
        EXPECT_FALSE(fake::fail_pending(what));
        tick(1); // grace
        EXPECT_EQ(fake::live_allocations(), blocks);
        EXPECT_EQ(fake::live_mutexes(), mutexes);
    }

    // "preest active fin lifetime" of a server, as GET tells them.
    std::string counts(int last, lb_u16_t number = 80)
    {
        const lb_conn_stats_t stats = get_server(C, number, address(last)).getable.selstats;
        return std::to_string(stats.preest) + " " + std::to_string(stats.active) + " " +
               std::to_string(stats.fin) + " " + std::to_string(stats.lifetime);
    }
    // "discard err" of a port, which the cluster's must equal while there is one port.
    std::string drops(lb_u16_t number = 80)
    {
        const lb_proto_stats_t stats = get_port(C, number).getable.ipstats;
        return std::to_string(stats.discard) + " " + std::to_string(stats.err);
    }
    static void wait_ms(int ms)
    {
        fake::advance_ms(ms);
        EXPECT_EQ(lb_timer_entry(), 0);
    }

    template <class Object> static Object *object(lbcmd_key_t key)
    {
        return reinterpret_cast<Object *>(lbcmd_lookup(LBCMD_KEYTYPE_CONFIG, &key));
    }
    static lbport_obj_t *port_object(lb_u16_t number)
    {
        return object<lbport_obj_t>(stack::cfgkey(C, number));
    }
    static lbsrv_obj_t *server_object(int last, lb_u16_t number = 80)
    {
        return object<lbsrv_obj_t>(stack::cfgkey(C, number, address(last)));
    }
};
