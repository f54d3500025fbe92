// A port with three servers behind one interface, and the commands for rules and use-servers.
#pragma once

#include "lb_port.h"
#include "lb_rule.h"
#include "lb_server.h"
#include "lb_useserver.h"

#include <string>

#include "packets.h"
#include "stack_fixture.h"

class RuleFixture : public StackTest
{
  protected:
    using rule_view = stack::view<lbrul_addable_t, lbrul_setable_t, lbrul_getable_t>;
    using useserver_view = stack::view<lbusrv_addable_t, lbusrv_setable_t, lbusrv_getable_t>;

    static constexpr const char *C = "10.0.0.100";
    static constexpr int NOWHERE = -1;

    // Servers go by the last byte of their addresses: 11, 12 and 13, each of weight 1.
    void SetUp() override
    {
        StackTest::SetUp();
        ASSERT_ADDED(add_interface("eth0", stack::ethernet(1)));
        ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
        ASSERT_ADDED(add_cluster(C));
        ASSERT_ADDED(add_port(C, 80));
        for (const lb_u8_t last : {11, 12, 13}) {
            ASSERT_ADDED(add_server(C, 80, address(last)));
            fake::receive(packets::build(packets::arp{.op = 2,
                                                      .srchw = {2, 0, 0, 0, 0, last},
                                                      .srcip = address(last),
                                                      .tgtip = "10.0.0.1"}));
        }
    }

    static std::string address(int last) { return "10.0.0." + std::to_string(last); }
    static lbcmd_key_t rule_key(int rule)
    {
        return stack::cfgkey(C, 80, "", static_cast<lb_u16_t>(rule));
    }
    static lbcmd_key_t use_key(int rule, int last)
    {
        return stack::cfgkey(C, 80, address(last), static_cast<lb_u16_t>(rule));
    }
    static lbrul_setable_t settings(int type, lb_u32_t begin = 0, lb_u32_t end = 0)
    {
        lbrul_setable_t setable{};
        setable.type = static_cast<lb_u8_t>(type);
        setable.beginrange = begin;
        setable.endrange = end;
        return setable;
    }

    int add_rule(int rule, const lbrul_setable_t &setable = settings(LBRUL_TYPE_TRUE))
    {
        return add(LBCMD_KEYTYPE_CONFIG, rule_key(rule), stack::bytes_of(lbrul_addable_t{}),
                   stack::bytes_of(setable));
    }
    int set_rule(int rule, const lbrul_setable_t &setable)
    {
        return set(LBCMD_KEYTYPE_CONFIG, rule_key(rule), setable);
    }
    int rm_rule(int rule) { return rm(LBCMD_KEYTYPE_CONFIG, rule_key(rule)); }
    int use(int rule, int last)
    {
        return add(LBCMD_KEYTYPE_CONFIG, use_key(rule, last), stack::bytes_of(lbusrv_addable_t{}),
                   stack::bytes_of(lbusrv_setable_t{}));
    }
    int disuse(int rule, int last) { return rm(LBCMD_KEYTYPE_CONFIG, use_key(rule, last)); }
    int weigh(int last, lb_u16_t weight)
    {
        return set_server(C, 80, address(last),
                          [weight](lbsrv_setable_t &setable) { setable.weight = weight; });
    }

    rule_view get_rule(int rule) { return get<rule_view>(rule_key(rule)); }
    lb_u64_t fired(int rule) { return get_rule(rule).getable.timesfired; }
    lb_u16_t uses_of(int last) { return get_server(C, 80, address(last)).getable.useservercount; }

    template <class Object> static Object *object(const lbcmd_key_t &key)
    {
        lbcmd_key_t copy = key;
        return reinterpret_cast<Object *>(lbcmd_lookup(LBCMD_KEYTYPE_CONFIG, &copy));
    }
    static lbport_obj_t *port() { return object<lbport_obj_t>(stack::cfgkey(C, 80)); }
    static lbsrv_obj_t *server(int last)
    {
        return object<lbsrv_obj_t>(stack::cfgkey(C, 80, address(last)));
    }

    // The server that a packet reaches, by its hardware address.
    static int route(const packets::packet &packet = {})
    {
        (void)fake::take_sent();
        EXPECT_EQ(fake::receive(packets::build(packet)), LB_PACKETRC_CONSUMED);
        const auto sent = fake::take_sent();
        return sent.size() == 1 ? sent[0].bytes[5] : NOWHERE;
    }
};
