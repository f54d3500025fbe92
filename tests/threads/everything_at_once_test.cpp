// Everything at once: workers with all kinds of frames, commands at random on all kinds of objects,
// and a timer whose clock runs fast and steps to and fro.
//
// Only the command thread changes the trees, so a plain model of them says what each command must
// answer, whatever the other threads do meanwhile. Once all have stopped, the model and the stack
// must agree, every list must be whole, and all memory must come back.
#include "lb_cluster.h"
#include "lb_port.h"
#include "lb_server.h"

#include "stress.h"

namespace
{

using stress::below;
using stress::rng;

const std::vector<std::string> CLUSTERS = {"10.0.0.100", "10.0.1.100", "10.0.2.100"};
const std::vector<lb_u16_t> PORTS = {80, 443, 53};
const std::vector<std::string> SERVERS = {"10.0.0.11", "10.0.0.12", "10.0.1.11", "10.0.2.11"};
const std::vector<std::string> GATEWAYS = {"", "10.0.0.254", "10.0.1.254", "10.0.0.11"};
const std::vector<std::string> INTERFACES = {"eth0", "eth1", "ppp0"};

template <class T> const T &any(rng &random, const std::vector<T> &of)
{
    return of[random() % of.size()];
}

enum class kind { executor, cluster, port, server, collection, interface, address };

// One object that may or may not be there.
struct object {
    kind what;
    lbcmd_key_t key;
    object *parent; // null: a root, always there
    bool present = parent == nullptr;
    std::vector<object *> children{}; // in the order of their ADD

    [[nodiscard]] lbcmd_keytype_e tree() const
    {
        return what < kind::collection ? LBCMD_KEYTYPE_CONFIG : LBCMD_KEYTYPE_IFACE;
    }
};

packets::bytes random_packet(rng &random)
{
    packets::packet p;
    p.src = any(random, SERVERS);
    p.dst = any(random, CLUSTERS);
    p.sport = static_cast<std::uint16_t>(1024 + below(random, 1000));
    p.dport = static_cast<std::uint16_t>(below(random, 8) == 0 ? 9 : any(random, PORTS));
    const std::uint8_t protos[] = {packets::TCP, packets::TCP, packets::UDP, packets::UDP, 1, 50};
    p.proto = protos[below(random, 6)];
    p.ttl = static_cast<std::uint8_t>(below(random, 6) == 0 ? 1 : 64);
    const std::uint16_t fragoffs[] = {0x2000, 0x2010, 0x0020};
    p.fragoff = below(random, 12) == 0 ? fragoffs[below(random, 3)] : std::uint16_t{0};
    p.id = static_cast<std::uint16_t>(below(random, 4));
    p.payload = static_cast<std::size_t>(below(random, 10) == 0 ? 1400 : below(random, 100));
    return packets::build(p);
}

packets::bytes random_arp(rng &random)
{
    packets::arp a;
    a.op = static_cast<std::uint16_t>(1 + below(random, 2));
    a.srchw = packets::mac_of(static_cast<std::uint8_t>(random()));
    a.srcip = below(random, 4) == 0 ? "10.0.0.254" : any(random, SERVERS);
    a.tgtip = any(random, CLUSTERS);
    return packets::build(a);
}

stack::bytes addable_of(rng &random, kind what)
{
    lbport_addable_t port{};
    port.selectalg = below(random, 2) == 0 ? LBSEL_ALGORIGHM_HASH : LBSEL_ALGORIGHM_UDPRR;
    port.udpselectalg = static_cast<lb_u8_t>(below(random, 7)); // some cannot choose
    switch (what) {
    case kind::cluster: return stack::bytes_of(lbclu_addable_t{});
    case kind::port: return stack::bytes_of(port);
    case kind::server: return stack::bytes_of(lbsrv_addable_t{});
    default: return {};
    }
}

stack::bytes setable_of(rng &random, kind what)
{
    switch (what) {
    case kind::executor: {
        lbexe_setable_t block{};
        const int verbosity = below(random, 30);
        block.log_mask = verbosity == 0 ? ~0ULL : verbosity < 10 ? LB_LOG_FAILURE : 0;
        block.clientgateway = stack::ip(any(random, GATEWAYS));
        block.ha.role = static_cast<lb_u8_t>(below(random, 5));
        return stack::bytes_of(block);
    }
    case kind::cluster: return stack::bytes_of(lbclu_setable_t{});
    case kind::port: return stack::bytes_of(lbport_setable_t{});
    case kind::server: {
        lbsrv_setable_t block{};
        block.weight = static_cast<lb_u16_t>(below(random, 4));
        block.encapmtu = static_cast<lb_u16_t>(random());
        return stack::bytes_of(block);
    }
    case kind::collection: return stack::bytes_of(lbifcol_setable_t{});
    case kind::interface: {
        lbifin_setable_t block =
            stack::ethernet(static_cast<lb_u8_t>(random()), below(random, 4) == 0 ? 576 : 1500);
        block.arp = below(random, 5) == 0 ? LBIFIN_YN_NO : LBIFIN_YN_YES;
        block.isPTP = below(random, 5) == 0 ? LBIFIN_YN_YES : LBIFIN_YN_NO;
        return stack::bytes_of(block);
    }
    case kind::address: break;
    }
    const std::string peer = below(random, 3) == 0 ? any(random, SERVERS) : "";
    return stack::bytes_of(lbifaddr_setable_t{stack::ip(peer)});
}

std::vector<void *> members(lbll_list_t *list)
{
    std::vector<void *> out(static_cast<std::size_t>(lbll_size(list)));
    const int count =
        lbll_selectn(list, out.data(), static_cast<int>(out.size()), lbll_filter_true, nullptr);
    EXPECT_EQ(static_cast<std::size_t>(count), out.size());
    EXPECT_EQ(_lbll_debug_consistencycheck(list), 0);
    return out;
}

// Every list that the tree leads to, and every bucket of neighbours.
void expect_consistent_lists()
{
    (void)members(&lbexecutor->cfgcmdlist);
    (void)members(&lbexecutor->ifacecmdlist);
    (void)members(&lbexecutor->cmdreaplist);
    for (void *cluster : members(&lbexecutor->clusterlist)) {
        for (void *obj : members(&static_cast<lbclu_obj_t *>(cluster)->portlist)) {
            auto *port = static_cast<lbport_obj_t *>(obj);
            EXPECT_EQ(members(&port->serverlist).size(),
                      members(&port->serverset.srvreflist).size());
        }
    }
    for (void *ifin : members(&lbexecutor->ifcollection.interfacelist)) {
        (void)members(&static_cast<lbifin_obj_t *>(ifin)->ifaddrlist);
    }
    for (lbht_bucket_t &bucket : lbexecutor->neightable.buckets) {
        (void)members(&bucket);
    }
}

class EverythingAtOnceTest : public Stress<StackTest>
{
  protected:
    void SetUp() override
    {
        Stress::SetUp();
        object *executor = declare(kind::executor, stack::cfgkey(), nullptr);
        object *collection = declare(kind::collection, stack::ifacekey(), nullptr);
        for (const std::string &cluster : CLUSTERS) {
            object *c = declare(kind::cluster, stack::cfgkey(cluster), executor);
            for (const lb_u16_t port : PORTS) {
                object *p = declare(kind::port, stack::cfgkey(cluster, port), c);
                for (const std::string &server : SERVERS) {
                    declare(kind::server, stack::cfgkey(cluster, port, server), p);
                }
            }
        }
        for (std::size_t i = 0; i < INTERFACES.size(); i++) {
            const std::string net = "10.0." + std::to_string(i);
            object *ifin = declare(kind::interface, stack::ifacekey(INTERFACES[i]), collection);
            declare(kind::address, stack::ifacekey(INTERFACES[i], net + ".1/24"), ifin);
            declare(kind::address, stack::ifacekey(INTERFACES[i], net + ".2/16"), ifin);
        }
    }

    void random_command(rng &random)
    {
        object &o = *objects_[random() % objects_.size()];
        switch (below(random, 6)) {
        case 0:
        case 1: command_add(random, o); break;
        case 2: command_rm(o); break;
        case 3:
            ASSERT_EQ(command(LBCMD_ACTION_SET, o.tree(), o.key, {}, setable_of(random, o.what)),
                      o.present ? LBCMD_RC_SUCCESS : LBCMD_RC_OBJNOTFOUND);
            break;
        default: command_get(o); break;
        }
    }
    void command_add(rng &random, object &o)
    {
        int expected = LBCMD_RC_SUCCESS;
        if (o.parent == nullptr) {
            expected = LBCMD_RC_NOPARENT;
        } else if (o.present) {
            expected = LBCMD_RC_ALREADYEXISTS;
        } else if (!o.parent->present) {
            expected = LBCMD_RC_PARENTDNE;
        }
        ASSERT_EQ(add(o.tree(), o.key, addable_of(random, o.what), setable_of(random, o.what)),
                  expected);
        if (expected == LBCMD_RC_SUCCESS) {
            o.present = true;
            o.parent->children.push_back(&o);
        }
    }
    void command_rm(object &o)
    {
        if (o.parent == nullptr) {
            return;
        }
        const int expected = !o.present            ? LBCMD_RC_OBJNOTFOUND
                             : !o.children.empty() ? LBCMD_RC_HASCHILD
                                                   : LBCMD_RC_SUCCESS;
        ASSERT_EQ(rm(o.tree(), o.key), expected);
        if (expected == LBCMD_RC_SUCCESS) {
            o.present = false;
            std::erase(o.parent->children, &o);
        }
    }
    // What GET tells of an object against the model.
    void command_get(const object &o)
    {
        ASSERT_EQ(command(LBCMD_ACTION_GET, o.tree(), o.key),
                  o.present ? LBCMD_RC_SUCCESS : LBCMD_RC_OBJNOTFOUND);
        const auto listed = children();
        ASSERT_EQ(listed.size(), o.children.size());
        for (std::size_t i = 0; i < listed.size(); i++) {
            EXPECT_EQ(std::memcmp(&listed[i], &o.children[i]->key, sizeof(lbcmd_key_t)), 0)
                << "in the order of ADD";
        }
    }
    void expect_forwards()
    {
        fake::count_only(false);
        ASSERT_ADDED(add_interface("eth0"));
        ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
        ASSERT_ADDED(add_cluster("10.0.0.100"));
        ASSERT_ADDED(add_port("10.0.0.100", 80));
        ASSERT_ADDED(add_server("10.0.0.100", 80, "10.0.0.11"));
        fake::receive(packets::arp_reply("10.0.0.11", 0x11));
        (void)fake::take_sent();
        fake::receive(packets::build(packets::packet{}));
        EXPECT_EQ(packets::mac_at(fake::take_sent().at(0).bytes, 0), packets::mac_of(0x11));
    }

    std::vector<std::unique_ptr<object>> objects_; // children stand behind their parents

  private:
    object *declare(kind what, const lbcmd_key_t &key, object *parent)
    {
        return objects_.emplace_back(new object{what, key, parent}).get();
    }
};

TEST_F(EverythingAtOnceTest, AnswersAsOneThreadWouldAndLeavesNothing)
{
    fake::count_only(true);
    for (int i = 0; i < stress::WORKERS; i++) {
        start_worker(
            [](rng &random) {
                return below(random, 3) == 0 ? random_arp(random) : random_packet(random);
            },
            [](const packets::bytes &bytes, fake::worker &worker) { (void)worker.receive(bytes); });
    }
    start_timer();
    EXPECT_GT(run([this](rng &random) { random_command(random); }), 100 * objects_.size());

    for (const auto &each : objects_) {
        command_get(*each);
    }
    expect_consistent_lists();
    for (auto each = objects_.rbegin(); each != objects_.rend(); ++each) {
        command_rm(**each);
    }
    ASSERT_ADDED(set_client_gateway(""));
    expect_consistent_lists();
    tick(6);
    EXPECT_EQ(lbll_size(&lbexecutor->cmdreaplist), 0);
    for (const lbht_bucket_t &bucket : lbexecutor->neightable.buckets) {
        EXPECT_EQ(lbll_size(&bucket), 0) << "a use of a neighbour that nobody gave back";
    }
    lbpbuf_drain();
    EXPECT_EQ(fake::live_allocations(), 0) << fake::live_bytes() << " bytes";
    expect_forwards();
}

} // namespace
