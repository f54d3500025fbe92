// The affinity table's parts: the bucket of a client, the count of ports that share a table, and
// the record that a packet carries on. What packets do to clients is tested through the stack.
#include "lb_grace.h"

#include "record_fixture.h"

namespace
{

class AffinityTableTest : public RecordFixture
{
  protected:
    static lbsel_at_obj_t *table_of(lb_u16_t number)
    {
        return static_cast<lbsel_at_obj_t *>(port_object(number)->at);
    }
};

TEST_F(AffinityTableTest, CountsThePortsThatShareATable)
{
    ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_AFFINITY));
    EXPECT_EQ(table_of(80)->refcount, 0);
    for (lb_u16_t number = 1000; number < 1255; number++) {
        ASSERT_ADDED(make_port(number, LBSEL_ALGORIGHM_AFFINITY, 80));
    }
    EXPECT_EQ(table_of(80)->refcount, 255);
    EXPECT_EQ(make_port(2000, LBSEL_ALGORIGHM_AFFINITY, 80), LBCMD_RC_FAILURE);
    ASSERT_EQ(rm_port(C, 80), LBCMD_RC_SUCCESS); // the others keep it
    for (lb_u16_t number = 1000; number < 1254; number++) {
        ASSERT_EQ(rm_port(C, number), LBCMD_RC_SUCCESS);
    }
    tick(5);
    EXPECT_EQ(table_of(1254)->refcount, 0);
}

// A port that joined a table and then fails must not take the table along.
TEST_F(AffinityTableTest, GivesItsUseBackWhenThePortFails)
{
    ASSERT_ADDED(make_port(80, LBSEL_ALGORIGHM_AFFINITY));
    ASSERT_ADDED(make_server(80, 11));
    EXPECT_EQ(tcp(SYN), 11);
    for (int n = 1; n <= 3; n++) { // the server set's, the rules' and the servers' list
        fake::fail(fake::op::mutex_init, n);
        EXPECT_EQ(make_port(443, LBSEL_ALGORIGHM_AFFINITY, 80), LBCMD_RC_FAILURE);
        EXPECT_EQ(table_of(80)->refcount, 0);
    }
    EXPECT_EQ(tcp(SYN), 11);
}

} // namespace
