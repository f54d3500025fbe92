#include "lb_cluster.h"
#include "lb_command.h"
#include "lb_port.h"
#include "lb_server.h"

#include "stack_fixture.h"

namespace
{

using stack::cfgkey;
using stack::ifacekey;

constexpr const char *C = "10.0.0.100";
constexpr const char *S = "10.0.0.11";

using CommandTest = StackTest;

TEST_F(CommandTest, AnswerCodes)
{
    constexpr auto CFG = LBCMD_KEYTYPE_CONFIG, IFC = LBCMD_KEYTYPE_IFACE;
    ASSERT_ADDED(add_interface("eth0"));
    ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
    ASSERT_ADDED(add_cluster(C));
    ASSERT_ADDED(add_port(C, 80));
    ASSERT_ADDED(add_server(C, 80, S));
    const auto malformed = [](lb_u8_t version) {
        lbcmd_key_t key = cfgkey(C, 80, S);
        key.cfg.server.version = version;
        return key;
    };
    const struct {
        const char *name;
        lbcmd_action_e action;
        lbcmd_keytype_e keytype;
        lbcmd_key_t key;
        int rc;
    } rows[] = {
        {"the executor is there", LBCMD_ACTION_ADD, CFG, cfgkey(), LBCMD_RC_NOPARENT},
        {"the collection is there", LBCMD_ACTION_ADD, IFC, ifacekey(), LBCMD_RC_NOPARENT},
        {"interface with addresses", LBCMD_ACTION_RM, IFC, ifacekey("eth0"), LBCMD_RC_HASCHILD},
        {"heartbeat between versions", LBCMD_ACTION_ADD, CFG, cfgkey(S, 0, "::1"),
         LBCMD_RC_FAILURE},
        {"cluster 0.0.0.0", LBCMD_ACTION_ADD, CFG, cfgkey("0.0.0.0"), LBCMD_RC_FAILURE},
        {"malformed server", LBCMD_ACTION_ADD, CFG, malformed(9), LBCMD_RC_FAILURE},
        {"server without version", LBCMD_ACTION_ADD, CFG, malformed(0), LBCMD_RC_FAILURE},
        {"address of no interface", LBCMD_ACTION_GET, IFC, ifacekey("", "10.0.0.1/24"),
         LBCMD_RC_OBJNOTFOUND},
    };
    const auto before = fake::live_allocations();
    for (const auto &row : rows) {
        EXPECT_EQ(command(row.action, row.keytype, row.key), row.rc) << row.name;
        EXPECT_EQ(buffer().hdr.answer_rc, row.rc) << row.name;
    }
    for (auto size : {&lbcmd_bufhdr_t::getsize, &lbcmd_bufhdr_t::listsize}) {
        prepare(LBCMD_ACTION_ADD, CFG, cfgkey("10.0.0.110")).*size = sizeof(lbcmd_key_t);
        EXPECT_EQ(send(), LBCMD_RC_FAILURE) << "an ADD with blocks that only answers have";
    }
    EXPECT_EQ(fake::live_allocations(), before);
    EXPECT_FALSE(fake::stop_requested());
}

TEST_F(CommandTest, AGetListsTheFirst1168ChildrenInTheOrderOfTheirAdding)
{
    ASSERT_ADDED(add_interface("many"));
    std::vector<lbip_addr_t> added;
    for (int i = 0; i < 1170; i++) { // their numbers fall: 19, 18, ... 0, 39, 38...
        const int number = i / 20 * 20 + 19 - i % 20;
        const std::string addr =
            "10.1." + std::to_string(number / 200) + "." + std::to_string(number % 200);
        ASSERT_ADDED(add_ifaddr("many", addr));
        added.push_back(stack::ip(addr));
    }
    EXPECT_EQ(command(LBCMD_ACTION_GET, LBCMD_KEYTYPE_IFACE, ifacekey("many")), LBCMD_RC_SUCCESS);
    const auto keys = children();
    ASSERT_EQ(keys.size(), 1168U);
    for (std::size_t i = 0; i < keys.size(); i++) {
        ASSERT_EQ(std::memcmp(&keys[i].iface.addr, &added[i], sizeof(added[i])), 0);
    }
}

// The blocks of an ADD lie where addsize says, at any alignment, as long as they stay in the
// payload.
TEST_F(CommandTest, SettableBlockLiesBehindAddsize)
{
    ASSERT_ADDED(add_cluster(C));
    constexpr int LAST = LBCMD_PAYLOADSIZE - static_cast<int>(sizeof(lbport_setable_t));
    const struct {
        int addsize;
        int rc;
    } rows[] = {{9, 1}, {11, 1}, {4095, 1}, {LAST, 1}, {LAST + 1, 10}, {65535, 10}};
    for (const auto &row : rows) {
        lbport_addable_t addable{};
        addable.selectalg = LBSEL_ALGORIGHM_UDPRR;
        lbport_setable_t setable{};
        setable.staletimeout = 1234;
        lbcmd_bufhdr_t &hdr = prepare(LBCMD_ACTION_ADD, LBCMD_KEYTYPE_CONFIG, cfgkey(C, 80));
        std::memcpy(buffer()._x, &addable, sizeof(addable));
        if (row.addsize <= LAST) {
            std::memcpy(buffer()._x + row.addsize, &setable, sizeof(setable));
        }
        hdr.addsize = static_cast<lb_u16_t>(row.addsize);
        EXPECT_EQ(send(), row.rc) << row.addsize;
        const stack::port_view view = get_port(C, 80);
        ASSERT_EQ(view.rc, row.rc == LBCMD_RC_SUCCESS ? row.rc : LBCMD_RC_OBJNOTFOUND);
        if (row.rc == LBCMD_RC_SUCCESS) {
            EXPECT_EQ(view.addable.selectalg, LBSEL_ALGORIGHM_UDPRR) << row.addsize;
            EXPECT_EQ(view.setable.staletimeout, 1234U) << row.addsize;
            EXPECT_EQ(rm_port(C, 80), LBCMD_RC_SUCCESS);
        }
    }
}

TEST_F(CommandTest, RefusedSetChangesNothingButAppliesAgain)
{
    ASSERT_ADDED(add_cluster(C));
    ASSERT_ADDED(add_port(C, 80));
    ASSERT_ADDED(add_server(C, 80, S, 7));
    lbcmd_key_t key = cfgkey(C, 80);
    auto *port = reinterpret_cast<lbport_obj_t *>(lbcmd_lookup(LBCMD_KEYTYPE_CONFIG, &key));
    const struct {
        lb_u16_t setsize, addsize, getsize, listsize;
    } rows[] = {{703, 0, 0, 0}, {705, 0, 0, 0}, {704, 8, 0, 0}, {704, 0, 1, 0}, {704, 0, 0, 56}};
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        lb_poke(port->serverset.weightsum, 99);
        lbcmd_bufhdr_t &hdr = prepare(LBCMD_ACTION_SET, LBCMD_KEYTYPE_CONFIG, cfgkey(C, 80, S));
        std::memset(buffer()._x, 0x55, 1000);
        hdr.setsize = row.setsize;
        hdr.addsize = row.addsize;
        hdr.getsize = row.getsize;
        hdr.listsize = row.listsize;
        EXPECT_EQ(send(), LBCMD_RC_FAILURE);
        EXPECT_EQ(get_server(C, 80, S).setable.weight, 7);
        EXPECT_EQ(lb_peek(port->serverset.weightsum), 7U);
    }
}

} // namespace
