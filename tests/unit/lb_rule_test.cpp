// Rules: which one fires, whom its packets reach, and what is left when making or removing one
// fails. All through commands and packets.
#include <atomic>
#include <thread>

#include "rule_fixture.h"

namespace
{

class RuleTest : public RuleFixture
{
  protected:
    // Pretends that the server has so many connections, as its tables would count them.
    static void pretend(int last, int preest, int active)
    {
        lb_poke(server(last)->sel.preest._size, preest);
        lb_poke(server(last)->sel.active._size, active);
    }
};

TEST_F(RuleTest, TheFirstThatFiresInOrderOfNumbersDecides)
{
    ASSERT_ADDED(add_rule(5));
    ASSERT_ADDED(use(5, 12));
    ASSERT_ADDED(add_rule(2));
    ASSERT_ADDED(use(2, 11));
    ASSERT_ADDED(add_rule(40000)); // which no sign makes the first
    ASSERT_ADDED(use(40000, 13));
    for (std::uint16_t sport = 1000; sport < 1003; sport++) {
        EXPECT_EQ(route({.sport = sport}), 11) << "whatever the client's port";
    }
    ASSERT_ADDED(weigh(11, 0));
    EXPECT_EQ(route(), 12);
    ASSERT_ADDED(weigh(12, 0));
    EXPECT_EQ(route(), 13);
    EXPECT_EQ(fired(2), 3U);
    EXPECT_EQ(fired(5), 1U);
    EXPECT_EQ(fired(40000), 1U);
}

TEST_F(RuleTest, WithoutUseServersItDropsEveryPacket)
{
    ASSERT_ADDED(add_port(C, 53));
    ASSERT_ADDED(add_server(C, 53, "10.0.0.11"));
    ASSERT_ADDED(add_rule(1));
    ASSERT_ADDED(add(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(C, 53, "", 1),
                     stack::bytes_of(lbrul_addable_t{}),
                     stack::bytes_of(settings(LBRUL_TYPE_TRUE))));
    const auto freed = fake::unheld_frees();
    EXPECT_EQ(route(), NOWHERE);
    EXPECT_EQ(route({.dport = 53, .proto = packets::UDP}), NOWHERE);
    EXPECT_EQ(fake::unheld_frees(), freed + 2);
    EXPECT_EQ(get_port(C, 80).getable.ipstats.discard, 1U);
    EXPECT_EQ(get_port(C, 53).getable.ipstats.discard, 1U);
    EXPECT_EQ(get_port(C, 53).getable.sel_rr_connlesscounter, 0U) << "nobody took a turn";
    EXPECT_EQ(fired(1), 1U);
    EXPECT_EQ(rm_rule(1), LBCMD_RC_SUCCESS);
    EXPECT_NE(route(), NOWHERE);
}

TEST_F(RuleTest, ServersThatWeighNothingKeepItFromFiring)
{
    ASSERT_ADDED(weigh(11, 0));
    ASSERT_ADDED(weigh(12, 0));
    const lbrul_setable_t rows[] = {settings(LBRUL_TYPE_TRUE), settings(LBRUL_TYPE_PORTACTIVE),
                                    settings(LBRUL_TYPE_RULEACTIVE)};
    for (const lbrul_setable_t &row : rows) {
        SCOPED_TRACE(+row.type);
        ASSERT_ADDED(add_rule(1, row));
        ASSERT_ADDED(use(1, 11));
        ASSERT_ADDED(use(1, 12));
        EXPECT_EQ(route(), 13) << "the port's own";
        EXPECT_EQ(fired(1), 0U);
        ASSERT_ADDED(weigh(12, 1));
        EXPECT_EQ(route(), 12);
        EXPECT_EQ(fired(1), 1U);
        ASSERT_ADDED(weigh(12, 0));
        EXPECT_EQ(disuse(1, 11), LBCMD_RC_SUCCESS);
        EXPECT_EQ(disuse(1, 12), LBCMD_RC_SUCCESS);
        EXPECT_EQ(rm_rule(1), LBCMD_RC_SUCCESS);
    }
}

TEST_F(RuleTest, ItsServersTakeTurnsByWeight)
{
    ASSERT_ADDED(weigh(13, 2));
    ASSERT_ADDED(add_rule(1));
    ASSERT_ADDED(use(1, 11));
    ASSERT_ADDED(use(1, 13));
    std::vector<int> order;
    for (int i = 0; i < 6; i++) {
        order.push_back(route());
    }
    EXPECT_EQ(order, (std::vector<int>{11, 13, 13, 11, 13, 13})) << "though the port is by hash";
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
    ASSERT_ADDED(add_rule(1));
    ASSERT_ADDED(use(1, 11));
    ASSERT_ADDED(use(1, 12));
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
    ASSERT_ADDED(add_port(C, 81, LBSEL_ALGORIGHM_CONNECTION));
    for (const int last : {11, 12}) {
        ASSERT_ADDED(add_server(C, 81, address(last)));
    }
    ASSERT_ADDED(set_server(C, 81, address(12), [](lbsrv_setable_t &b) { b.weight = 0; }));
    const auto at81 = [](int last) { return stack::cfgkey(C, 81, last ? address(last) : "", 1); };
    ASSERT_ADDED(add(LBCMD_KEYTYPE_CONFIG, at81(0), stack::bytes_of(lbrul_addable_t{}),
                     stack::bytes_of(settings(LBRUL_TYPE_PORTACTIVE, 2, 2))));
    const auto connect = [](std::uint16_t sport) { return route({.sport = sport, .dport = 81}); };
    EXPECT_EQ(connect(1000), 11);
    EXPECT_EQ(connect(1001), 11);
    ASSERT_ADDED(set_server(C, 81, address(12), [](lbsrv_setable_t &b) { b.weight = 1; }));
    ASSERT_ADDED(add(LBCMD_KEYTYPE_CONFIG, at81(12), stack::bytes_of(lbusrv_addable_t{}),
                     stack::bytes_of(lbusrv_setable_t{})));
    tick_once();
    EXPECT_EQ(connect(1002), 12);
    EXPECT_EQ(connect(1003), 12) << "two open ones are known until the next tick";
    EXPECT_EQ(route({.sport = 1000, .dport = 81, .flags = 0x10}), 11);
    tick_once();
    const auto fired = [&] { return get<rule_view>(at81(0)).getable.timesfired; };
    EXPECT_EQ(fired(), 2U);
    (void)connect(1004);
    EXPECT_EQ(fired(), 2U) << "four are too many";
}

TEST_F(RuleTest, UnknownTypesBecomeTrue)
{
    set_executor_log_mask(LB_LOG_EVENT);
    for (const int type : {0, 4, 7, 255}) {
        ASSERT_ADDED(add_rule(1, settings(type)));
        EXPECT_EQ(get_rule(1).setable.type, LBRUL_TYPE_TRUE);
        EXPECT_TRUE(fake::log_contains("lbrul_init unrecognized type " + std::to_string(type) +
                                       ", setting to true\n"));
        EXPECT_EQ(route(), NOWHERE) << "it fires";
        ASSERT_ADDED(set_rule(1, settings(LBRUL_TYPE_PORTACTIVE, 9, 9)));
        EXPECT_NE(route(), NOWHERE);
        ASSERT_ADDED(set_rule(1, settings(type)));
        EXPECT_EQ(route(), NOWHERE) << "through SET, too";
        EXPECT_EQ(rm_rule(1), LBCMD_RC_SUCCESS);
    }
}

TEST_F(RuleTest, DoesNotFireBeforeItsFirstSet)
{
    lbcmd_key_t key = rule_key(1);
    lbrul_addable_t addable{};
    lbrul_setable_t setable = settings(LBRUL_TYPE_TRUE);
    lbcmd_objhdr_t *parent = &port()->config;
    lbcmd_objhdr_t *made = nullptr;
    ASSERT_EQ(parent->addchild(&key, parent, &addable, &setable, &made), LBCMD_RC_SUCCESS);
    EXPECT_NE(route(), NOWHERE);
    EXPECT_EQ(made->set(made), 0);
    EXPECT_EQ(route(), NOWHERE);
    EXPECT_EQ(made->remove(made), LBCMD_RC_SUCCESS);
    EXPECT_EQ(made->reap(made, 2), 0) << "two seconds are too young";
    made->grace = lb_grace_now();
    EXPECT_EQ(made->reap(made, 3), 1);
}

TEST_F(RuleTest, WhatFailsWhileItIsMadeLeavesNothing)
{
    const struct {
        fake::op what;
        int n;
        const char *message;
    } rows[] = {
        {fake::op::alloc, 1, "allocation of new rule failed"},
        {fake::op::mutex_init, 1, "init useserverlist failed"},
        {fake::op::lock, 3, "add rule to rulelist failed"}, // the command list is locked twice
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.message);
        const auto memory = fake::live_allocations();
        const auto mutexes = fake::live_mutexes();
        fake::fail(row.what, row.n);
        EXPECT_EQ(add_rule(1), LBCMD_RC_FAILURE);
        EXPECT_FALSE(fake::fail_pending(row.what));
        EXPECT_TRUE(fake::log_contains(row.message));
        EXPECT_EQ(fake::live_allocations(), memory);
        EXPECT_EQ(fake::live_mutexes(), mutexes);
        EXPECT_EQ(lbll_size(&port()->rulelist), 0);
    }
    EXPECT_EQ(fake::log_count("srv init failed"), 2);
    ASSERT_ADDED(add_rule(1));
}

TEST_F(RuleTest, RefusedRemovalIsMadeUpForWhenItIsReaped)
{
    ASSERT_ADDED(add_rule(1));
    fake::fail(fake::op::lock, 4); // the command list is locked three times
    EXPECT_EQ(rm_rule(1), LBCMD_RC_FAILURE);
    EXPECT_TRUE(fake::log_contains("removal of rule from list failed"));
    EXPECT_EQ(get_rule(1).rc, LBCMD_RC_OBJNOTFOUND);
    EXPECT_EQ(route(), NOWHERE) << "it fires on";
    const auto memory = fake::live_allocations();
    tick(5);
    EXPECT_NE(route(), NOWHERE);
    EXPECT_EQ(fake::live_allocations(), memory - 1);
}

TEST_F(RuleTest, WeightsAreSummedForTheFirst128)
{
    for (int number = 1; number <= 129; number++) {
        ASSERT_ADDED(add_rule(number, settings(LBRUL_TYPE_RULEACTIVE, 5, 5)));
    }
    ASSERT_ADDED(set_rule(129, settings(LBRUL_TYPE_TRUE)));
    ASSERT_ADDED(use(129, 11));
    (void)route();
    EXPECT_EQ(fired(129), 0U) << "its weights stay unknown";
    ASSERT_ADDED(set_rule(128, settings(LBRUL_TYPE_TRUE)));
    ASSERT_ADDED(use(128, 12));
    EXPECT_EQ(route(), 12);
}

TEST_F(RuleTest, WorkersChooseWhileRulesComeAndGo)
{
    constexpr int ROUNDS = 150;
    fake::count_only(true);
    std::atomic<bool> done{false};
    const auto work = [&done](std::uint16_t sport) {
        const auto frame = packets::build(packets::packet{.sport = sport});
        while (!done) {
            (void)fake::receive(frame);
        }
    };
    std::thread first(work, std::uint16_t{1000});
    std::thread second(work, std::uint16_t{1001});
    std::thread timer([&done] {
        while (!done) {
            tick_once();
            std::this_thread::yield();
        }
    });
    for (int round = 0; round < ROUNDS; round++) {
        EXPECT_EQ(add_rule(2, settings(round % 8)), LBCMD_RC_SUCCESS);
        EXPECT_EQ(add_rule(1), LBCMD_RC_SUCCESS);
        EXPECT_EQ(use(1, 11), LBCMD_RC_SUCCESS);
        EXPECT_EQ(use(1, 12), LBCMD_RC_SUCCESS);
        EXPECT_EQ(weigh(12, static_cast<lb_u16_t>(round % 3)), LBCMD_RC_SUCCESS);
        EXPECT_EQ(set_rule(1, settings(round % 4, 0, 1)), LBCMD_RC_SUCCESS);
        EXPECT_EQ(disuse(1, 12), LBCMD_RC_SUCCESS);
        EXPECT_EQ(disuse(1, 11), LBCMD_RC_SUCCESS);
        EXPECT_EQ(rm_rule(1), LBCMD_RC_SUCCESS);
        EXPECT_EQ(rm_rule(2), LBCMD_RC_SUCCESS);
    }
    done = true;
    first.join();
    second.join();
    timer.join();
    fake::count_only(false);
    EXPECT_EQ(uses_of(11), 0U);
    EXPECT_EQ(uses_of(12), 0U);
    EXPECT_EQ(_lbll_debug_consistencycheck(&port()->rulelist), 0);
    EXPECT_NE(route(), NOWHERE);
}

} // namespace
