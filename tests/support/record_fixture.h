// Ports with servers behind one interface and a client gateway, TCP segments of many clients, and
// what the readable blocks say of the servers' records.
#pragma once

#include "lb_cluster.h"
#include "lb_port.h"
#include "lb_server.h"

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
    static void meet(int last)
    {
        fake::receive(packets::arp_reply(address(last), static_cast<std::uint8_t>(last)));
        (void)fake::take_sent();
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
    int weigh(lb_u16_t number, int last, lb_u16_t weight)
    {
        return set_server(C, number, address(last),
                          [weight](lbsrv_setable_t &setable) { setable.weight = weight; });
    }

    // Sends a packet: the server that it was forwarded to, or NOWHERE.
    static int route(const packets::packet &p = {})
    {
        (void)fake::take_sent();
        EXPECT_EQ(fake::receive(packets::build(p)), LB_PACKETRC_CONSUMED);
        const auto frames = fake::sent();
        return frames.size() == 1 && packets::ip_at(frames[0].bytes, packets::ETH + 16) == C
                   ? frames[0].bytes[5]
                   : NOWHERE;
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

    static lbport_obj_t *port_object(lb_u16_t number)
    {
        lbcmd_key_t key = stack::cfgkey(C, number);
        return reinterpret_cast<lbport_obj_t *>(lbcmd_lookup(LBCMD_KEYTYPE_CONFIG, &key));
    }
    static lbsrv_obj_t *server_object(int last, lb_u16_t number = 80)
    {
        lbcmd_key_t key = stack::cfgkey(C, number, address(last));
        return reinterpret_cast<lbsrv_obj_t *>(lbcmd_lookup(LBCMD_KEYTYPE_CONFIG, &key));
    }
};
