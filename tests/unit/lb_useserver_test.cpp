// Use-servers: what they count at their servers, and whom that keeps from being removed.
#include "rule_fixture.h"

namespace
{

class UseServerTest : public RuleFixture
{
  protected:
    void SetUp() override
    {
        RuleFixture::SetUp();
        ASSERT_ADDED(add_rule(1));
    }
};

TEST_F(UseServerTest, NeedsARuleAndAServerOfThePort)
{
    set_executor_log_mask(LB_LOG_EVENT);
    ASSERT_ADDED(add_port(C, 81));
    ASSERT_ADDED(add_server(C, 81, "10.0.0.14"));
    EXPECT_EQ(use(1, 14), LBCMD_RC_NOPARENT) << "another port's";
    EXPECT_TRUE(fake::log_contains("adding a useserver without the server, returning NOPARENT\n"));
    EXPECT_EQ(use(2, 11), LBCMD_RC_PARENTDNE);
    ASSERT_ADDED(use(1, 11));
    EXPECT_EQ(use(1, 11), LBCMD_RC_ALREADYEXISTS);
    EXPECT_EQ(uses_of(11), 1U);
}

TEST_F(UseServerTest, AServerIsKeptByItsUses)
{
    ASSERT_ADDED(add_rule(2));
    ASSERT_ADDED(use(1, 11));
    ASSERT_ADDED(use(2, 11));
    EXPECT_EQ(uses_of(11), 2U);
    EXPECT_EQ(rm_server(C, 80, address(11)), LBCMD_RC_HASCHILD);
    lbcmd_objhdr_t *obj = &server(11)->config;
    EXPECT_EQ(obj->remove(obj), LBCMD_RC_FAILURE);
    EXPECT_EQ(lbll_size(&port()->serverlist), 3) << "nothing changed";
    EXPECT_EQ(rm_rule(1), LBCMD_RC_HASCHILD);
    EXPECT_EQ(disuse(1, 11), LBCMD_RC_SUCCESS);
    EXPECT_EQ(rm_server(C, 80, address(11)), LBCMD_RC_HASCHILD) << "the other rule's";
    EXPECT_EQ(disuse(2, 11), LBCMD_RC_SUCCESS);
    EXPECT_EQ(uses_of(11), 0U);
    EXPECT_EQ(rm_server(C, 80, address(11)), LBCMD_RC_SUCCESS);
    EXPECT_EQ(rm_rule(1), LBCMD_RC_SUCCESS);
}

TEST_F(UseServerTest, WhatFailsWhileItIsMadeLeavesTheUseCountedAndNothingElse)
{
    const struct {
        fake::op what;
        int n;
        const char *message;
    } rows[] = {
        {fake::op::alloc, 1, "allocation of new useserver failed"},
        // The command list is locked twice, the server list twice.
        {fake::op::lock, 4, "useserver init failed"},
        {fake::op::lock, 5, "add port to portlist failed"},
    };
    lb_u16_t uses = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.message);
        const auto memory = fake::live_allocations();
        fake::fail(row.what, row.n);
        EXPECT_EQ(use(1, 11), LBCMD_RC_FAILURE);
        EXPECT_FALSE(fake::fail_pending(row.what));
        EXPECT_TRUE(fake::log_contains(row.message));
        EXPECT_EQ(fake::live_allocations(), memory);
        EXPECT_EQ(lbll_size(&object<lbrul_obj_t>(rule_key(1))->serverset.srvreflist), 0);
        EXPECT_EQ(uses_of(11), ++uses);
    }
    // No child, but a use: the removal is refused, and made up for when the server is reaped.
    EXPECT_EQ(rm_server(C, 80, address(11)), LBCMD_RC_FAILURE);
    tick(8);
    EXPECT_EQ(lbll_size(&port()->serverlist), 2);
}

TEST_F(UseServerTest, RefusedRemovalIsMadeUpForWhenItIsReaped)
{
    ASSERT_ADDED(use(1, 11));
    fake::fail(fake::op::lock, 4); // the command list is locked three times
    EXPECT_EQ(disuse(1, 11), LBCMD_RC_FAILURE);
    EXPECT_TRUE(fake::log_contains("removal of server from list failed"));
    EXPECT_EQ(uses_of(11), 1U);
    EXPECT_EQ(route(), 11) << "it is used on";
    tick(5);
    EXPECT_EQ(uses_of(11), 0U);
    EXPECT_EQ(route(), NOWHERE) << "the rule has no server left";
}

} // namespace
