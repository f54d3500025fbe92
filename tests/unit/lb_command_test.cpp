#include "lb_cluster.h"
#include "lb_command.h"
#include "lb_port.h"
#include "lb_server.h"

#include <atomic>
#include <thread>

#include "stack_fixture.h"

namespace
{

using stack::cfgkey;
using stack::ifacekey;

constexpr const char *C = "10.0.0.100";
constexpr const char *S = "10.0.0.11";

class CommandTest : public StackTest
{
  protected:
    lbport_obj_t *port(const char *cluster, lb_u16_t number)
    {
        lbcmd_key_t key = cfgkey(cluster, number);
        return reinterpret_cast<lbport_obj_t *>(lbcmd_lookup(LBCMD_KEYTYPE_CONFIG, &key));
    }
};

lbcmd_key_t malformed()
{
    lbcmd_key_t key = cfgkey(C);
    key.cfg.cluster.version = 5;
    return key;
}

lbcmd_key_t malformedserver(lb_u8_t version)
{
    lbcmd_key_t key = cfgkey(C, 80, S);
    key.cfg.server.version = version;
    return key;
}

lbcmd_key_t namelessaddress()
{
    lbcmd_key_t key = ifacekey("", "10.0.0.1/24");
    return key;
}

TEST_F(CommandTest, AnswerCodes)
{
    constexpr auto CFG = LBCMD_KEYTYPE_CONFIG;
    constexpr auto IF = LBCMD_KEYTYPE_IFACE;
    ASSERT_ADDED(add_cluster(C));
    ASSERT_ADDED(add_port(C, 80));
    ASSERT_ADDED(add_server(C, 80, S));
    ASSERT_ADDED(add_interface("eth0"));
    ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
    const struct {
        const char *name;
        int action;
        int keytype;
        lbcmd_key_t key;
        int rc;
    } rows[] = {
        {"action 0", 0, CFG, cfgkey(), LBCMD_RC_NOTRECOGNIZED},
        {"action 5", 5, CFG, cfgkey(), LBCMD_RC_NOTRECOGNIZED},
        {"action 255", 255, IF, ifacekey(), LBCMD_RC_NOTRECOGNIZED},
        {"key type 0", LBCMD_ACTION_GET, 0, cfgkey(), LBCMD_RC_FAILURE},
        {"key type 3", LBCMD_ACTION_GET, 3, cfgkey(), LBCMD_RC_FAILURE},
        {"key type 255", LBCMD_ACTION_GET, 255, cfgkey(), LBCMD_RC_FAILURE},
        {"malformed cluster", LBCMD_ACTION_ADD, CFG, malformed(), LBCMD_RC_FAILURE},
        {"cluster 0.0.0.0", LBCMD_ACTION_ADD, CFG, cfgkey("0.0.0.0"), LBCMD_RC_FAILURE},
        {"address of no interface", LBCMD_ACTION_GET, IF, namelessaddress(), LBCMD_RC_OBJNOTFOUND},
        {"malformed server", LBCMD_ACTION_ADD, CFG, malformedserver(9), LBCMD_RC_FAILURE},
        {"server without version", LBCMD_ACTION_ADD, CFG, malformedserver(0), LBCMD_RC_FAILURE},
        {"add executor", LBCMD_ACTION_ADD, CFG, cfgkey(), LBCMD_RC_NOPARENT},
        {"add collection", LBCMD_ACTION_ADD, IF, ifacekey(), LBCMD_RC_NOPARENT},
        {"add without cluster", LBCMD_ACTION_ADD, CFG, cfgkey("", 80), LBCMD_RC_NOPARENT},
        {"add cluster again", LBCMD_ACTION_ADD, CFG, cfgkey(C), LBCMD_RC_ALREADYEXISTS},
        {"add server again", LBCMD_ACTION_ADD, CFG, cfgkey(C, 80, S), LBCMD_RC_ALREADYEXISTS},
        {"add interface again", LBCMD_ACTION_ADD, IF, ifacekey("eth0"), LBCMD_RC_ALREADYEXISTS},
        {"add port to no cluster", LBCMD_ACTION_ADD, CFG, cfgkey("10.0.0.101", 80),
         LBCMD_RC_PARENTDNE},
        {"add server to no port", LBCMD_ACTION_ADD, CFG, cfgkey(C, 81, S), LBCMD_RC_PARENTDNE},
        {"add use-server to no rule", LBCMD_ACTION_ADD, CFG, cfgkey(C, 80, S, 1),
         LBCMD_RC_PARENTDNE},
        {"add rule of a cluster", LBCMD_ACTION_ADD, CFG, cfgkey(C, 0, "", 1), LBCMD_RC_PARENTDNE},
        {"add address to no interface", LBCMD_ACTION_ADD, IF, ifacekey("eth1", "10.0.1.1/24"),
         LBCMD_RC_PARENTDNE},
        {"add heartbeat", LBCMD_ACTION_ADD, CFG, cfgkey(C, 0, S), LBCMD_RC_FAILURE},
        {"add IPv6 cluster", LBCMD_ACTION_ADD, CFG, cfgkey("2001:db8::1"), LBCMD_RC_FAILURE},
        {"add IPv6 server", LBCMD_ACTION_ADD, CFG, cfgkey(C, 80, "2001:db8::2"), LBCMD_RC_FAILURE},
        {"get nothing", LBCMD_ACTION_GET, CFG, cfgkey("10.0.0.101"), LBCMD_RC_OBJNOTFOUND},
        {"set nothing", LBCMD_ACTION_SET, CFG, cfgkey(C, 81), LBCMD_RC_OBJNOTFOUND},
        {"rm nothing", LBCMD_ACTION_RM, CFG, cfgkey(C, 80, "10.0.0.12"), LBCMD_RC_OBJNOTFOUND},
        {"rm executor with clusters", LBCMD_ACTION_RM, CFG, cfgkey(), LBCMD_RC_HASCHILD},
        {"rm cluster with ports", LBCMD_ACTION_RM, CFG, cfgkey(C), LBCMD_RC_HASCHILD},
        {"rm port with servers", LBCMD_ACTION_RM, CFG, cfgkey(C, 80), LBCMD_RC_HASCHILD},
        {"rm interface with addresses", LBCMD_ACTION_RM, IF, ifacekey("eth0"), LBCMD_RC_HASCHILD},
        {"set with no bytes", LBCMD_ACTION_SET, CFG, cfgkey(C), LBCMD_RC_FAILURE},
    };
    const auto before = fake::live_allocations();
    for (const auto &row : rows) {
        lbcmd_bufhdr_t &hdr = prepare(LBCMD_ACTION_GET, CFG, row.key);
        hdr.action = static_cast<lb_u8_t>(row.action);
        hdr.keytype = static_cast<lb_u8_t>(row.keytype);
        EXPECT_EQ(send(), row.rc) << row.name;
        EXPECT_EQ(hdr.answer_rc, row.rc) << row.name;
    }
    EXPECT_EQ(fake::live_allocations(), before);
    EXPECT_FALSE(fake::stop_requested());
}

TEST_F(CommandTest, AnotherVersionComesBackUntouched)
{
    prepare(LBCMD_ACTION_ADD, LBCMD_KEYTYPE_CONFIG, cfgkey(C));
    auto *bytes = reinterpret_cast<lb_u8_t *>(&buffer());
    for (int i = 60; i < LBCMD_BUFSIZE; i++) {
        bytes[i] = static_cast<lb_u8_t>(i * 7);
    }
    buffer().hdr.lbversion = LBCMD_VERSION + 1;
    const lbcmd_buf_t sent = buffer();
    EXPECT_EQ(send(), LBCMD_RC_FAILURE);
    EXPECT_EQ(buffer().hdr.answer_rc, LBCMD_RC_FAILURE);
    buffer().hdr.answer_rc = sent.hdr.answer_rc;
    EXPECT_EQ(std::memcmp(&buffer(), &sent, sizeof(sent)), 0);
    EXPECT_TRUE(get_executor().children.empty());
}

TEST_F(CommandTest, SizesComeBackZeroAfterAddRmAndSet)
{
    constexpr int ACTIONS[] = {LBCMD_ACTION_ADD, LBCMD_ACTION_RM, LBCMD_ACTION_SET, 5};
    for (int action : ACTIONS) {
        lbcmd_bufhdr_t &hdr = prepare(LBCMD_ACTION_ADD, LBCMD_KEYTYPE_CONFIG, cfgkey(C, 80));
        hdr.action = static_cast<lb_u8_t>(action);
        hdr.addsize = 1;
        hdr.setsize = 2;
        hdr.getsize = 3;
        hdr.listsize = 4;
        send();
        const bool kept = action == 5;
        EXPECT_EQ(hdr.addsize, kept ? 1 : 0) << action;
        EXPECT_EQ(hdr.setsize, kept ? 2 : 0) << action;
        EXPECT_EQ(hdr.getsize, kept ? 3 : 0) << action;
        EXPECT_EQ(hdr.listsize, kept ? 4 : 0) << action;
    }
}

TEST_F(CommandTest, AddRefusesReadableBlockAndList)
{
    for (int which : {0, 1}) {
        lbcmd_bufhdr_t &hdr = prepare(LBCMD_ACTION_ADD, LBCMD_KEYTYPE_CONFIG, cfgkey(C));
        (which == 0 ? hdr.getsize : hdr.listsize) = 1;
        EXPECT_EQ(send(), LBCMD_RC_FAILURE);
    }
    EXPECT_EQ(get_cluster(C).rc, LBCMD_RC_OBJNOTFOUND);
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
    } rows[] = {{8, 1},         {9, 1},          {11, 1},         {4095, 1},  {LAST, 1},
                {LAST + 1, 10}, {LAST + 24, 10}, {LAST + 25, 10}, {65535, 10}};
    for (const auto &row : rows) {
        lbport_addable_t addable{};
        addable.selectalg = LBSEL_ALGORIGHM_UDPRR;
        lbport_setable_t setable{};
        setable.staletimeout = 1234;
        setable.repstrategy = 3;
        lbcmd_bufhdr_t &hdr = prepare(LBCMD_ACTION_ADD, LBCMD_KEYTYPE_CONFIG, cfgkey(C, 80));
        std::memcpy(buffer()._x, &addable, sizeof(addable));
        if (row.addsize <= LAST) {
            std::memcpy(buffer()._x + row.addsize, &setable, sizeof(setable));
        }
        hdr.addsize = static_cast<lb_u16_t>(row.addsize);
        EXPECT_EQ(send(), row.rc) << row.addsize;
        const stack::port_view view = get_port(C, 80);
        if (row.rc != LBCMD_RC_SUCCESS) {
            EXPECT_EQ(view.rc, LBCMD_RC_OBJNOTFOUND) << row.addsize;
            continue;
        }
        EXPECT_EQ(view.addable.selectalg, LBSEL_ALGORIGHM_UDPRR) << row.addsize;
        EXPECT_EQ(view.setable.staletimeout, 1234U) << row.addsize;
        EXPECT_EQ(view.setable.repstrategy, 3) << row.addsize;
        EXPECT_EQ(rm_port(C, 80), LBCMD_RC_SUCCESS);
    }
}

// With addsize 0 both blocks begin at the same byte. Defaults settled in one must not leak into the
// other, where they would be an algorithm that does not exist.
TEST_F(CommandTest, OverlappingBlocksDoNotSpoilEachOther)
{
    ASSERT_ADDED(add_cluster(C));
    prepare(LBCMD_ACTION_ADD, LBCMD_KEYTYPE_CONFIG, cfgkey(C, 80));
    buffer()._x[0] = 5;
    const lbcmd_buf_t sent = buffer();
    ASSERT_ADDED(send());
    EXPECT_EQ(std::memcmp(buffer()._x, sent._x, sizeof(sent._x)), 0) << "payload changed";
    const stack::port_view view = get_port(C, 80);
    EXPECT_EQ(view.addable.selectalg, 5);
    EXPECT_EQ(view.addable.udpselectalg, LBSEL_ALGORIGHM_UDPRR);
    EXPECT_EQ(view.addable.crossport, 80);
    EXPECT_EQ(view.setable.staletimeout, 6400U);
}

TEST_F(CommandTest, GetLaysOutBlocksAndChildrenInOrder)
{
    lbclu_setable_t setable{};
    setable.bps = 77;
    std::memset(setable.clusterid, 'x', sizeof(setable.clusterid));
    ASSERT_ADDED(add_cluster(C, setable));
    for (lb_u16_t number : {443, 80, 8080}) {
        ASSERT_ADDED(add_port(C, number));
        ASSERT_ADDED(add_server(C, number, S));
    }
    ASSERT_ADDED(add_cluster("10.0.0.101"));
    ASSERT_ADDED(add_port("10.0.0.101", 1));

    lbcmd_key_t key = cfgkey(C);
    key.cfg.cluster.prefix = 24;
    lbcmd_bufhdr_t &hdr = prepare(LBCMD_ACTION_GET, LBCMD_KEYTYPE_CONFIG, key);
    hdr.addsize = 65535;
    hdr.listsize = 65535;
    ASSERT_EQ(send(), LBCMD_RC_SUCCESS);
    EXPECT_EQ(hdr.key.cfg.cluster.prefix, 0) << "not the stored key";
    EXPECT_EQ(hdr.addsize, 8);
    EXPECT_EQ(hdr.setsize, 280);
    EXPECT_EQ(hdr.getsize, 104);
    ASSERT_EQ(hdr.listsize, 3 * 56);
    EXPECT_EQ(std::memcmp(buffer()._x + 8, &setable, sizeof(setable)), 0);
    lb_u16_t expected[] = {443, 80, 8080};
    for (int i = 0; i < 3; i++) {
        lbcmd_key_t child;
        std::memcpy(&child, buffer()._x + 8 + 280 + 104 + 56 * i, sizeof(child));
        EXPECT_EQ(child.cfg.port, expected[i]);
        EXPECT_EQ(child.cfg.server.version, 0);
    }
}

TEST_F(CommandTest, GetListsAsManyChildrenAsFit)
{
    set_executor_log_mask(0);
    constexpr int FIT = 1168; // (65,464 - 28 - 4) / 56
    ASSERT_ADDED(add_interface("eth0"));
    for (int i = 0; i < FIT + 2; i++) {
        lbcmd_key_t key = ifacekey("eth0", "10.0.0.1/8");
        key.iface.addr.nboaddr.v4[2] = static_cast<lb_u8_t>(i / 250);
        key.iface.addr.nboaddr.v4[3] = static_cast<lb_u8_t>(i % 250 + 1);
        ASSERT_ADDED(
            add(LBCMD_KEYTYPE_IFACE, key, stack::none{}, lbifaddr_setable_t{stack::ip("")}));
        if (i == FIT - 1) {
            EXPECT_EQ(get_interface("eth0").children.size(), static_cast<std::size_t>(FIT));
        }
    }
    const auto children = get_interface("eth0").children;
    ASSERT_EQ(children.size(), static_cast<std::size_t>(FIT));
    for (int i = 0; i < FIT; i++) {
        const lb_u8_t *bytes = children[static_cast<std::size_t>(i)].iface.addr.nboaddr.v4;
        ASSERT_EQ(bytes[2] * 250 + bytes[3] - 1, i);
    }
}

TEST_F(CommandTest, RefusedSetChangesNothingButAppliesAgain)
{
    ASSERT_ADDED(add_cluster(C));
    ASSERT_ADDED(add_port(C, 80));
    ASSERT_ADDED(add_server(C, 80, S, 7));
    const struct {
        const char *name;
        int setsize, addsize, getsize, listsize;
    } rows[] = {
        {"short", 703, 0, 0, 0},
        {"long", 705, 0, 0, 0},
        {"none", 0, 0, 0, 0},
        {"with addable", 704, 8, 0, 0},
        {"with readable", 704, 0, 1, 0},
        {"with list", 704, 0, 0, 56},
    };
    for (const auto &row : rows) {
        lb_poke(port(C, 80)->serverset.weightsum, 99);
        lbcmd_bufhdr_t &hdr = prepare(LBCMD_ACTION_SET, LBCMD_KEYTYPE_CONFIG, cfgkey(C, 80, S));
        std::memset(buffer()._x, 0x55, 1000);
        hdr.setsize = static_cast<lb_u16_t>(row.setsize);
        hdr.addsize = static_cast<lb_u16_t>(row.addsize);
        hdr.getsize = static_cast<lb_u16_t>(row.getsize);
        hdr.listsize = static_cast<lb_u16_t>(row.listsize);
        EXPECT_EQ(send(), LBCMD_RC_FAILURE) << row.name;
        EXPECT_EQ(get_server(C, 80, S).setable.weight, 7) << row.name;
        EXPECT_EQ(lb_peek(port(C, 80)->serverset.weightsum), 7U) << row.name;
    }
}

TEST_F(CommandTest, RemovedObjectsAreFreedInOrderAtThreeSeconds)
{
    ASSERT_ADDED(add_cluster(C));
    ASSERT_ADDED(add_port(C, 80));
    tick_once();
    lbpbuf_drain();
    const auto full = fake::live_allocations();
    EXPECT_EQ(rm_port(C, 80), LBCMD_RC_SUCCESS);
    tick(1);
    EXPECT_EQ(rm_cluster(C), LBCMD_RC_SUCCESS);
    EXPECT_EQ(lbll_size(&lbexecutor->cmdreaplist), 2);
    tick(1);
    tick_once();
    EXPECT_EQ(fake::live_allocations(), full) << "freed before three seconds";
    tick_once();
    EXPECT_EQ(fake::live_allocations(), full - 1) << "the port is three seconds old";
    EXPECT_EQ(lbll_size(&lbexecutor->cmdreaplist), 1);
    tick_once();
    EXPECT_EQ(lbll_size(&lbexecutor->cmdreaplist), 1);
    tick_once();
    EXPECT_EQ(fake::live_allocations(), full - 2);
}

TEST_F(CommandTest, RemovedKeyCanBeAddedAtOnceAndHasNoChildren)
{
    ASSERT_ADDED(add_cluster(C));
    EXPECT_EQ(rm_cluster(C), LBCMD_RC_SUCCESS);
    EXPECT_EQ(add_port(C, 80), LBCMD_RC_PARENTDNE) << "its parent waits to be freed";
    ASSERT_ADDED(add_cluster(C));
    ASSERT_ADDED(add_port(C, 80));
    tick(4);
    EXPECT_EQ(get_port(C, 80).rc, LBCMD_RC_SUCCESS);
    EXPECT_EQ(lbll_size(&lbexecutor->cmdreaplist), 0);
}

// A thread inside the stack, which may hold anything that it found there.
class Reader
{
  public:
    Reader()
        : thread_([this] {
              lb_grace_inside inside;
              entered_ = true;
              entered_.notify_one();
              leave_.wait(false);
          })
    {
        entered_.wait(false);
    }
    ~Reader()
    {
        leave_ = true;
        leave_.notify_one();
        thread_.join();
    }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

  private:
    std::atomic<bool> entered_{false};
    std::atomic<bool> leave_{false};
    std::thread thread_;
};

TEST_F(CommandTest, NothingIsFreedWhileAReaderIsInside)
{
    ASSERT_ADDED(add_interface("eth0"));
    ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
    ASSERT_ADDED(add_cluster(C));
    ASSERT_ADDED(add_port(C, 80));
    ASSERT_ADDED(add_server(C, 80, S));
    const struct {
        const char *name;
        lbcmd_keytype_e keytype;
        lbcmd_key_t key;
    } rows[] = {
        {"server", LBCMD_KEYTYPE_CONFIG, cfgkey(C, 80, S)},
        {"port", LBCMD_KEYTYPE_CONFIG, cfgkey(C, 80)},
        {"cluster", LBCMD_KEYTYPE_CONFIG, cfgkey(C)},
        {"address", LBCMD_KEYTYPE_IFACE, ifacekey("eth0", "10.0.0.1/24")},
        {"interface", LBCMD_KEYTYPE_IFACE, ifacekey("eth0")},
    };
    for (const auto &row : rows) {
        tick_once();
        lbpbuf_drain();
        const auto full = fake::live_allocations();
        {
            Reader reader;
            EXPECT_EQ(rm(row.keytype, row.key), LBCMD_RC_SUCCESS) << row.name;
            tick(10);
            lbpbuf_drain();
            EXPECT_EQ(fake::live_allocations(), full) << row.name;
        }
        tick(1);
        lbpbuf_drain();
        EXPECT_LT(fake::live_allocations(), full) << row.name;
    }
    EXPECT_EQ(fake::live_allocations(), 0);
}

// The one at the head declines until it is ripe, and those behind it are not asked.
TEST_F(CommandTest, ReapingKeepsTheOrderOfRemoval)
{
    ASSERT_ADDED(add_cluster(C));
    ASSERT_ADDED(add_port(C, 80));
    ASSERT_ADDED(add_server(C, 80, S));
    set_executor_log_mask(LB_LOG_REAP);
    EXPECT_EQ(rm_server(C, 80, S), LBCMD_RC_SUCCESS);
    EXPECT_EQ(rm_port(C, 80), LBCMD_RC_SUCCESS);
    EXPECT_EQ(rm_cluster(C), LBCMD_RC_SUCCESS);
    tick(2);
    tick_once();
    EXPECT_EQ(fake::log_count("server reap"), 5);
    EXPECT_EQ(fake::log_count("port reap"), 0);
    EXPECT_EQ(fake::log_count("cluster reap"), 0);
    EXPECT_EQ(fake::log_count(" not reaped"), 5);
    tick_once();
    EXPECT_EQ(fake::log_count("port reap"), 1);
    EXPECT_EQ(fake::log_count("reaping cluster"), 1);
    EXPECT_EQ(fake::log_count(" not reaped"), 5);
}

TEST_F(CommandTest, ReapingSurvivesAClockThatIsSetBack)
{
    ASSERT_ADDED(add_cluster(C));
    EXPECT_EQ(rm_cluster(C), LBCMD_RC_SUCCESS);
    fake::advance_s(-3600);
    tick(4);
    EXPECT_EQ(lbll_size(&lbexecutor->cmdreaplist), 0);
    ASSERT_ADDED(add_cluster(C));
    EXPECT_EQ(rm_cluster(C), LBCMD_RC_SUCCESS);
    fake::advance_s(3600);
    tick_once();
    EXPECT_EQ(lbll_size(&lbexecutor->cmdreaplist), 0);
}

TEST_F(CommandTest, ObjectWithoutRemoveLeavesTheTree)
{
    EXPECT_EQ(rm(LBCMD_KEYTYPE_IFACE, ifacekey()), LBCMD_RC_FAILURE);
    EXPECT_TRUE(fake::log_contains("no rm callback registered"));
    EXPECT_EQ(rm(LBCMD_KEYTYPE_IFACE, ifacekey()), LBCMD_RC_OBJNOTFOUND);
    EXPECT_EQ(add_interface("eth0"), LBCMD_RC_PARENTDNE);
}

TEST_F(CommandTest, TraceTellsKeySizesAndAnswer)
{
    ASSERT_ADDED(add_cluster(C));
    ASSERT_ADDED(add_port(C, 80));
    set_executor_log_mask(LB_LOG_COMMAND);
    rm_cluster(C);
    EXPECT_EQ(fake::log_count("<-- cmdbuf: key: 10.0.0.100/0/0/0 action:2(RM) "
                              "sizes: add=0 set=0 get=0 list=0(0) rc:7(undef)\n"),
              1);
    EXPECT_EQ(fake::log_count("--> cmdbuf: key: 10.0.0.100/0/0/0 action:2(RM) "
                              "sizes: add=0 set=0 get=0 list=0(0) rc:0(undef)\n"),
              1);
    get_cluster(C);
    EXPECT_EQ(fake::log_count("action:3(GET) sizes: add=8 set=280 get=104 list=56(1) "
                              "rc:1(SUCCESS)\n"),
              1);
    get_interface(std::string(40, 'n')); // fills the name: no NUL
    EXPECT_EQ(fake::log_count("key: " + std::string(32, 'n') + "/0 action:3(GET)"), 2);
    get<stack::collection_view>(LBCMD_KEYTYPE_IFACE, ifacekey());
    EXPECT_EQ(fake::log_count("key: 0/0 action:3(GET)"), 2);
    prepare(LBCMD_ACTION_ADD, LBCMD_KEYTYPE_UNUSED, cfgkey()).action = 9;
    send();
    EXPECT_EQ(fake::log_count("unknown key action:9(undef)"), 2);
}

// Look-ups on one thread, the timer on another, commands on this one: for the sanitizers.
TEST_F(CommandTest, TreeChangesUnderReadersAndTimer)
{
    set_executor_log_mask(0);
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        lbip_addr_t cluster = stack::ip(C);
        lbip_addr_t server = stack::ip(S);
        lb_u16_t number = 80;
        lb_u32_t seen = 0;
        while (!stop) {
            lb_grace_inside inside;
            auto *ifin = lbifcol_selectbyip(&server);
            seen += ifin != nullptr ? lb_peek(ifin->setable.mtu_sys) : 0;
            auto *clu =
                static_cast<lbclu_obj_t *>(lbll_select1(&lbexecutor->clusterlist, &cluster));
            auto *prt = clu == nullptr
                            ? nullptr
                            : static_cast<lbport_obj_t *>(lbll_select1(&clu->portlist, &number));
            auto *srv = prt == nullptr
                            ? nullptr
                            : static_cast<lbsrv_obj_t *>(lbll_select1(&prt->serverlist, &server));
            if (srv != nullptr) {
                seen += lb_peek(srv->setable.weight) + lb_peek(srv->neigh->state);
            }
        }
        EXPECT_GE(seen, 0U);
    });
    std::thread timer([&] {
        while (!stop) {
            fake::advance_ms(500);
            lb_timer_entry();
        }
        lbpbuf_drain();
    });
    for (int i = 0; i < 300; i++) {
        EXPECT_EQ(add_interface("eth0"), LBCMD_RC_SUCCESS);
        EXPECT_EQ(add_ifaddr("eth0", "10.0.0.1/24"), LBCMD_RC_SUCCESS);
        EXPECT_EQ(add_cluster(C), LBCMD_RC_SUCCESS);
        EXPECT_EQ(add_port(C, 80), LBCMD_RC_SUCCESS);
        EXPECT_EQ(add_server(C, 80, S), LBCMD_RC_SUCCESS);
        EXPECT_EQ(set_server(C, 80, S, [&](lbsrv_setable_t &b) { b.weight = 3; }),
                  LBCMD_RC_SUCCESS);
        EXPECT_EQ(rm_server(C, 80, S), LBCMD_RC_SUCCESS);
        EXPECT_EQ(rm_port(C, 80), LBCMD_RC_SUCCESS);
        EXPECT_EQ(rm_cluster(C), LBCMD_RC_SUCCESS);
        EXPECT_EQ(rm_ifaddr("eth0", "10.0.0.1/24"), LBCMD_RC_SUCCESS);
        EXPECT_EQ(rm_interface("eth0"), LBCMD_RC_SUCCESS);
    }
    stop = true;
    reader.join();
    timer.join();
}

} // namespace
