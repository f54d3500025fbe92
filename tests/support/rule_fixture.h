// A port with three servers behind one interface, and the commands for rules and use-servers.
#pragma once

#include "lb_rule.h"
#include "lb_useserver.h"

#include "record_fixture.h"

class RuleFixture : public RecordFixture
{
  protected:
    using rule_view = stack::view<lbrul_addable_t, lbrul_setable_t, lbrul_getable_t>;
    using useserver_view = stack::view<lbusrv_addable_t, lbusrv_setable_t, lbusrv_getable_t>;

    // The servers 11, 12 and 13, each of weight 1.
    void SetUp() override
    {
        RecordFixture::SetUp();
        ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_HASH));
        for (const int last : {11, 12, 13}) {
            ASSERT_ADDED(make_server(80, last, 1, 0));
        }
    }
    void TearDown() override { StackTest::TearDown(); } // there are no records

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
    int weigh(int last, lb_u16_t weight) { return RecordFixture::weigh(80, last, weight); }

    rule_view get_rule(int rule) { return get<rule_view>(rule_key(rule)); }
    lb_u64_t fired(int rule) { return get_rule(rule).getable.timesfired; }
    lb_u16_t uses_of(int last) { return get_server(C, 80, address(last)).getable.useservercount; }

    template <class Object> static Object *object(const lbcmd_key_t &key)
    {
        lbcmd_key_t copy = key;
        return reinterpret_cast<Object *>(lbcmd_lookup(LBCMD_KEYTYPE_CONFIG, &copy));
    }
    static lbport_obj_t *port() { return port_object(80); }
    static lbsrv_obj_t *server(int last) { return server_object(last); }
};
