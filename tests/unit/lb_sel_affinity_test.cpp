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

// Forwarding asks for a connection's record: it must be able to tell.
TEST_F(AffinityTableTest, TellsWhatKindOfRecordAPacketCarries)
{
    const struct {
        lb_u8_t algorithm;
        lb_u32_t sticky;
        lbpbuf_selrecord_e kind;
    } rows[] = {
        {LBSEL_ALGORIGHM_HASH, 1, LBPBUF_SELRECORD_NONE},
        {LBSEL_ALGORIGHM_CONNECTION, 1, LBPBUF_SELRECORD_CONNECTION},
        {LBSEL_ALGORIGHM_AFFINITY, 1, LBPBUF_SELRECORD_AFFINITY},
        {LBSEL_ALGORIGHM_AFFINITY, 0, LBPBUF_SELRECORD_NONE},
        {LBSEL_ALGORIGHM_CONN_AFFIN, 1, LBPBUF_SELRECORD_CONNECTION},
        {LBSEL_ALGORIGHM_CONN_AFFIN, 0, LBPBUF_SELRECORD_CONNECTION},
    };
    for (const auto &row : rows) {
        ASSERT_ADDED(make_port(80, row.algorithm));
        ASSERT_ADDED(make_server(80, 11, 1, row.sticky));
        lbpbuf_obj_t pkt{};
        pkt.port = port_object(80);
        pkt.cluster = pkt.port->parent;
        pkt.stats = &lbexecutor->getable.ipv4stats;
        pkt.pseudotcpflags = SYN;
        pkt._select_prv.sel_clientip = stack::ip("10.9.0.1");
        {
            const lb_grace_inside inside;
            EXPECT_EQ(selectfunc[row.algorithm].choose(&pkt), server_object(11));
        }
        EXPECT_EQ(pkt._select_prv.selrecordkind, row.kind) << int{row.algorithm};
        EXPECT_EQ(pkt._select_prv.selrecord != nullptr, row.kind != LBPBUF_SELRECORD_NONE);
        ASSERT_EQ(rm_server(C, 80, address(11)), LBCMD_RC_SUCCESS);
        ASSERT_EQ(rm_port(C, 80), LBCMD_RC_SUCCESS);
    }
}

} // namespace
