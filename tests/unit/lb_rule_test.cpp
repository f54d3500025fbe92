// Rules and their use-servers: which rule fires, whom its packets reach, whom its uses keep from
// being removed, and what is left when making or removing one fails. All through commands and
// packets.
#include "record_fixture.h"

namespace
{

class RuleTest : public RecordFixture
{
  protected:
    void SetUp() override
    {
        RecordFixture::SetUp();
        ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_HASH));
        ASSERT_ADDED(make_servers(80));
    }
    // Pretends that the server has so many connections, as its tables would count them.
    static void pretend(int last, int preest, int active)
    {
        lb_poke(server_object(last)->sel.preest._size, preest);
        lb_poke(server_object(last)->sel.active._size, active);
    }
    int make_rule(int rule, std::initializer_list<int> uses)
    {
        int rc = add_rule(rule);
        for (const int last : uses) {
            rc = rc == LBCMD_RC_SUCCESS ? use(rule, last) : rc;
        }
        return rc;
    }
    int weigh(int last, lb_u16_t weight) { return RecordFixture::weigh(80, last, weight); }
    auto get_rule(int rule, lb_u16_t number = 80)
    {
        return get<stack::view<lbrul_addable_t, lbrul_setable_t, lbrul_getable_t>>(
            rule_key(rule, number));
    }
    lb_u64_t fired(int rule, lb_u16_t number = 80)
    {
        return get_rule(rule, number).getable.timesfired;
    }
    lb_u16_t uses_of(int last) { return get_server(C, 80, address(last)).getable.useservercount; }
};

TEST_F(RuleTest, TheFirstThatFiresInOrderOfNumbersDecides)
{
    ASSERT_ADDED(make_rule(5, {12}));
    ASSERT_ADDED(make_rule(2, {11}));
    ASSERT_ADDED(make_rule(40000, {13})); // which no sign makes the first
    EXPECT_EQ(route(), 11);
    EXPECT_EQ(route({.sport = 1001}), 11) << "whatever the client's port";
    ASSERT_ADDED(weigh(11, 0));
    EXPECT_EQ(route(), 12);
    ASSERT_ADDED(weigh(12, 0));
    EXPECT_EQ(route(), 13);
    EXPECT_EQ(fired(2), 2U);
    EXPECT_EQ(fired(5), 1U);
    EXPECT_EQ(fired(40000), 1U);
}

TEST_F(RuleTest, WithoutUseServersItDropsEveryPacket)
{
    ASSERT_ADDED(add_rule(1));
    const auto freed = fake::unheld_frees();
    EXPECT_EQ(route(), NOWHERE);
    EXPECT_EQ(udp(), NOWHERE);
    EXPECT_EQ(fake::unheld_frees(), freed + 2);
    EXPECT_EQ(drops(80), "2 0");
    EXPECT_EQ(get_port(C, 80).getable.sel_rr_connlesscounter, 0U) << "nobody took a turn";
    EXPECT_EQ(fired(1), 2U);
    EXPECT_EQ(rm_rule(1), LBCMD_RC_SUCCESS);
    EXPECT_NE(route(), NOWHERE);
}

TEST_F(RuleTest, ServersThatWeighNothingKeepItFromFiring)
{
    ASSERT_ADDED(weigh(11, 0));
    ASSERT_ADDED(weigh(12, 0));
    ASSERT_ADDED(make_rule(1, {11, 12}));
    for (const int type : {LBRUL_TYPE_TRUE, LBRUL_TYPE_PORTACTIVE, LBRUL_TYPE_RULEACTIVE}) {
        SCOPED_TRACE(type);
        ASSERT_ADDED(set_rule(1, settings(type)));
        EXPECT_EQ(route(), 13) << "the port's own";
        ASSERT_ADDED(weigh(12, 1));
        EXPECT_EQ(route(), 12);
        ASSERT_ADDED(weigh(12, 0));
    }
    EXPECT_EQ(fired(1), 3U);
}

TEST_F(RuleTest, ItsServersTakeTurnsByWeight)
{
    ASSERT_ADDED(weigh(13, 2));
    ASSERT_ADDED(make_rule(1, {11, 13}));
    for (const int turn : {11, 13, 13, 11, 13, 13}) {
        EXPECT_EQ(route(), turn) << "though the port is by hash";
    }
    EXPECT_EQ(disuse(1, 13), LBCMD_RC_SUCCESS);
    EXPECT_EQ(route(), 11);
    EXPECT_EQ(route(), 11) << "the sum of their weights has followed";
}

// The rule uses 11 and 12; 13 counts for the port alone.
TEST_F(RuleTest, RangesIncludeBothBoundsAndSeeTheLastTick)
{
    const struct {
        const char *name;
        int type;
        int preest11, active12, active13;
        bool fires;
    } rows[] = {
        {"port, below", LBRUL_TYPE_PORTACTIVE, 4, 3, 2, false},
        {"port, lower bound", LBRUL_TYPE_PORTACTIVE, 4, 3, 3, true},
        {"port, upper bound", LBRUL_TYPE_PORTACTIVE, 4, 3, 13, true},
        {"port, above", LBRUL_TYPE_PORTACTIVE, 4, 3, 14, false},
        {"rule, below", LBRUL_TYPE_RULEACTIVE, 5, 4, 10, false},
        {"rule, lower bound", LBRUL_TYPE_RULEACTIVE, 5, 5, 0, true},
        {"rule, upper bound", LBRUL_TYPE_RULEACTIVE, 15, 5, 100, true},
        {"rule, above", LBRUL_TYPE_RULEACTIVE, 15, 6, 0, false},
    };
    ASSERT_ADDED(make_rule(1, {11, 12}));
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        tick_once();
        ASSERT_ADDED(set_rule(1, settings(row.type, 10, 20)));
        pretend(11, row.preest11, 0);
        pretend(12, 0, row.active12);
        pretend(13, 0, row.active13);
        const lb_u64_t before = fired(1);
        (void)route();
        EXPECT_EQ(fired(1), before) << "no tick has counted yet";
        tick_once();
        (void)route();
        EXPECT_EQ(fired(1), before + (row.fires ? 1 : 0));
        for (const int last : {11, 12, 13}) {
            pretend(last, 0, 0);
        }
    }
}

TEST_F(RuleTest, NewConnectionsFollowItAndOldOnesStay)
{
    ASSERT_ADDED(make_port(443, LBSEL_ALGORIGHM_CONNECTION));
    ASSERT_ADDED(make_servers(443, {11, 12}));
    ASSERT_ADDED(RecordFixture::weigh(443, 12, 0));
    ASSERT_ADDED(add_rule(1, settings(LBRUL_TYPE_PORTACTIVE, 2, 2), 443));
    const auto connect = [](std::uint16_t sport) { return route({.sport = sport, .dport = 443}); };
    EXPECT_EQ(connect(1000), 11);
    EXPECT_EQ(connect(1001), 11);
    ASSERT_ADDED(RecordFixture::weigh(443, 12, 1));
    ASSERT_ADDED(use(1, 12, 443));
    tick_once();
    EXPECT_EQ(connect(1002), 12);
    EXPECT_EQ(connect(1003), 12) << "two open ones are known until the next tick";
    EXPECT_EQ(route({.sport = 1000, .dport = 443, .flags = ACK}), 11);
    tick_once();
    EXPECT_EQ(fired(1, 443), 2U);
    (void)connect(1004);
    EXPECT_EQ(fired(1, 443), 2U) << "four are too many";
}

TEST_F(RuleTest, UnknownTypesBecomeTrue)
{
    for (const int type : {0, 4}) {
        ASSERT_ADDED(add_rule(1, settings(type)));
        EXPECT_EQ(route(), NOWHERE) << "it fires";
        ASSERT_ADDED(set_rule(1, settings(LBRUL_TYPE_PORTACTIVE, 9, 9)));
        EXPECT_NE(route(), NOWHERE);
        ASSERT_ADDED(set_rule(1, settings(type)));
        EXPECT_EQ(get_rule(1).setable.type, LBRUL_TYPE_TRUE) << "through SET, too";
        EXPECT_EQ(rm_rule(1), LBCMD_RC_SUCCESS);
    }
}

// --- Uses ----------------------------------------------------------------------------------------

TEST_F(RuleTest, AServerIsKeptByItsUses)
{
    ASSERT_ADDED(add_rule(1));
    ASSERT_ADDED(add_rule(2));
    ASSERT_ADDED(make_port(443, LBSEL_ALGORIGHM_HASH));
    ASSERT_ADDED(make_server(443, 14));
    EXPECT_EQ(use(1, 14), LBCMD_RC_NOPARENT) << "another port's";
    EXPECT_EQ(use(3, 11), LBCMD_RC_PARENTDNE);
    ASSERT_ADDED(use(1, 11));
    ASSERT_ADDED(use(2, 11));
    EXPECT_EQ(use(1, 11), LBCMD_RC_ALREADYEXISTS);
    EXPECT_EQ(uses_of(11), 2U);
    EXPECT_EQ(rm_server(C, 80, address(11)), LBCMD_RC_HASCHILD);
    lbcmd_objhdr_t *obj = &server_object(11)->config;
    EXPECT_EQ(obj->remove(obj), LBCMD_RC_FAILURE);
    EXPECT_EQ(lbll_size(&port_object(80)->serverlist), 3) << "nothing changed";
    EXPECT_EQ(rm_rule(1), LBCMD_RC_HASCHILD);
    EXPECT_EQ(disuse(1, 11), LBCMD_RC_SUCCESS);
    EXPECT_EQ(rm_server(C, 80, address(11)), LBCMD_RC_HASCHILD) << "the other rule's";
    EXPECT_EQ(disuse(2, 11), LBCMD_RC_SUCCESS);
    EXPECT_EQ(uses_of(11), 0U);
    EXPECT_EQ(rm_server(C, 80, address(11)), LBCMD_RC_SUCCESS);
}

TEST_F(RuleTest, NoObjectIsFreedBeforeItIsThreeSecondsOld)
{
    ASSERT_ADDED(make_rule(1, {11}));
    for (lbcmd_key_t key : {stack::cfgkey(C), stack::cfgkey(C, 80), rule_key(1), use_key(1, 11, 80),
                            stack::cfgkey(C, 80, address(11))}) {
        lbcmd_objhdr_t *obj = lbcmd_lookup(LBCMD_KEYTYPE_CONFIG, &key);
        EXPECT_EQ(obj->reap(obj, 2), 0);
    }
}

// --- Failures ------------------------------------------------------------------------------------

TEST_F(RuleTest, WhatFailsWhileItIsMadeLeavesNothingButCountedUses)
{
    const struct {
        const char *name;
        bool use; // of rule 1, rather than a rule 2
        fake::op what;
        int n;
    } rows[] = {
        {"a rule's memory", false, fake::op::alloc, 1},
        {"a rule's lists", false, fake::op::mutex_init, 1},
        {"the list of rules", false, fake::op::lock, 3}, // the command list is locked twice
        {"a use's memory", true, fake::op::alloc, 1},
        {"the server", true, fake::op::lock, 4}, // the server list is locked twice
        {"the list of uses", true, fake::op::lock, 5},
    };
    ASSERT_ADDED(add_rule(1));
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        expect_leaves_nothing(row.what, row.n, [&] { return row.use ? use(1, 11) : add_rule(2); });
        EXPECT_EQ(lbll_size(&port_object(80)->rulelist), 1);
        EXPECT_EQ(lbll_size(&object<lbrul_obj_t>(rule_key(1))->serverset.srvreflist), 0);
    }
    EXPECT_EQ(uses_of(11), 3U);
    // No child, but uses: the removal is refused, and made up for when the server is reaped.
    EXPECT_EQ(rm_server(C, 80, address(11)), LBCMD_RC_FAILURE);
    tick(8);
    EXPECT_EQ(lbll_size(&port_object(80)->serverlist), 2);
}

TEST_F(RuleTest, RefusedRemovalIsMadeUpForWhenItIsReaped)
{
    ASSERT_ADDED(make_rule(1, {11}));
    fake::fail(fake::op::lock, 4); // the command list is locked three times
    EXPECT_EQ(disuse(1, 11), LBCMD_RC_FAILURE);
    EXPECT_EQ(uses_of(11), 1U);
    EXPECT_EQ(route(), 11) << "it is used on";
    tick(5);
    EXPECT_EQ(uses_of(11), 0U);
    EXPECT_EQ(route(), NOWHERE) << "the rule has no server left";
    fake::fail(fake::op::lock, 4);
    EXPECT_EQ(rm_rule(1), LBCMD_RC_FAILURE);
    EXPECT_EQ(route(), NOWHERE) << "it fires on";
    tick(5);
    EXPECT_NE(route(), NOWHERE);
}

} // namespace
