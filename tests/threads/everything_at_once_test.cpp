// Everything at once: workers with all kinds of frames, commands at random on all kinds of objects,
// and a timer whose clock runs fast and steps to and fro.
//
// Only the command thread changes the trees, so a plain model of them says what each command must
// answer, whatever the other threads do meanwhile. Once all have stopped, the model and the stack
// must agree, every list must be whole, and all memory must come back.
#include <atomic>

#include "stress.h"

namespace
{

using stress::below;

struct load {
    packets::bytes bytes;
    fake::link link = fake::link::ethernet;
};

const std::vector<std::string> CLUSTERS = {"10.0.0.100", "10.0.1.100", "10.0.2.100"};
const std::vector<lb_u16_t> PORTS = {80, 443, 53};
const std::vector<std::string> SERVERS = {"10.0.0.11", "10.0.0.12", "10.0.1.11", "10.0.2.11"};
const std::vector<std::string> GATEWAYS = {"", "10.0.0.254", "10.0.1.254", "10.0.0.11"};
const std::vector<std::string> INTERFACES = {"eth0", "eth1", "ppp0"};

template <class T> const T &any(stress::rng &random, const std::vector<T> &of)
{
    return of[random() % of.size()];
}

// One object that may or may not be there.
struct object {
    lbcmd_keytype_e tree;
    lbcmd_key_t key;
    int parent; // -1: a root, always there
    bool present = false;
    std::vector<int> children{}; // in the order of their ADD
};

packets::bytes random_packet(stress::rng &random)
{
    packets::packet p;
    p.src = any(random, SERVERS);
    p.dst = any(random, CLUSTERS);
    p.sport = static_cast<std::uint16_t>(1024 + below(random, 1000));
    p.dport = static_cast<std::uint16_t>(below(random, 8) == 0 ? 9 : any(random, PORTS));
    const std::uint8_t protos[] = {packets::TCP, packets::TCP, packets::UDP, packets::UDP, 1, 50};
    p.proto = protos[below(random, 6)];
    p.ttl = static_cast<std::uint8_t>(below(random, 6) == 0 ? 1 : 64);
    p.fragoff = static_cast<std::uint16_t>(below(random, 12) == 0 ? 0x2000 : 0);
    p.payload = static_cast<std::size_t>(below(random, 10) == 0 ? 1400 : below(random, 100));
    return packets::build(p);
}

packets::bytes random_arp(stress::rng &random)
{
    packets::arp a;
    a.op = static_cast<std::uint16_t>(1 + below(random, 2));
    a.srchw = stress::mac_of(static_cast<std::uint8_t>(random()));
    a.srcip = below(random, 4) == 0 ? "10.0.0.254" : any(random, SERVERS);
    a.tgtip = any(random, CLUSTERS);
    return packets::build(a);
}

packets::bytes garbage(stress::rng &random)
{
    packets::bytes bytes(static_cast<std::size_t>(below(random, 120)));
    for (std::uint8_t &byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    if (bytes.size() > packets::ETH) {
        packets::put16(bytes, 12, below(random, 2) == 0 ? 0x0800 : 0x0806);
        bytes[packets::ETH] = 0x45;
    }
    return bytes;
}

load random_load(stress::rng &random)
{
    const int kind = below(random, 20);
    if (kind < 6) {
        return {random_arp(random)};
    }
    if (kind < 8) {
        return {garbage(random)};
    }
    packets::bytes packet = random_packet(random);
    if (kind == 8) {
        packet.resize(static_cast<std::size_t>(below(random, static_cast<int>(packet.size()))));
    }
    if (kind == 9) {
        packet.erase(packet.begin(), packet.begin() + packets::ETH);
        return {packet, fake::link::slip};
    }
    return {packet};
}

void work(stress::rng random, const std::atomic<bool> &stop)
{
    std::vector<load> loads;
    for (int i = 0; i < 500; i++) {
        loads.push_back(random_load(random));
    }
    fake::frame buffer;
    while (!stop) {
        const load &next = any(random, loads);
        (void)fake::receive_into(buffer, next.bytes.data(), next.bytes.size(), next.link);
    }
}

void keep_time(stress::rng random, const std::atomic<bool> &stop)
{
    while (!stop) {
        switch (below(random, 40)) {
        case 0: fake::advance_ms(-5000); break;
        case 1: fake::advance_ms(31000); break;
        case 2: fake::advance_ms(-3600000); break;
        case 3: fake::advance_ms(3600000); break;
        default: fake::advance_ms(500); break;
        }
        EXPECT_EQ(lb_timer_entry(), 0);
    }
}

class EverythingAtOnceTest : public StressTest
{
  protected:
    void SetUp() override
    {
        StressTest::SetUp();
        const int executor = declare(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(), -1);
        const int collection = declare(LBCMD_KEYTYPE_IFACE, stack::ifacekey(), -1);
        for (const std::string &cluster : CLUSTERS) {
            const int c = declare(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster), executor);
            for (const lb_u16_t port : PORTS) {
                const int p = declare(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster, port), c);
                for (const std::string &server : SERVERS) {
                    declare(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(cluster, port, server), p);
                }
            }
        }
        for (std::size_t i = 0; i < INTERFACES.size(); i++) {
            const std::string net = "10.0." + std::to_string(i);
            const int ifin =
                declare(LBCMD_KEYTYPE_IFACE, stack::ifacekey(INTERFACES[i]), collection);
            declare(LBCMD_KEYTYPE_IFACE, stack::ifacekey(INTERFACES[i], net + ".1/24"), ifin);
            declare(LBCMD_KEYTYPE_IFACE, stack::ifacekey(INTERFACES[i], net + ".2/16"), ifin);
        }
    }

    [[nodiscard]] std::size_t size() const { return objects_.size(); }

    void command(stress::rng &random)
    {
        const int which = below(random, static_cast<int>(objects_.size()));
        const object &o = objects_[static_cast<std::size_t>(which)];
        switch (below(random, 6)) {
        case 0:
        case 1: command_add(random, which); break;
        case 2:
            if (o.parent >= 0) {
                command_rm(which);
            }
            break;
        case 3: command_set(random, o); break;
        default: command_get(o); break;
        }
    }

    // What GET tells of an object against the model.
    void command_get(const object &o)
    {
        lbcmd_bufhdr_t &hdr = prepare(LBCMD_ACTION_GET, o.tree, o.key);
        ASSERT_EQ(send(), o.present ? LBCMD_RC_SUCCESS : LBCMD_RC_OBJNOTFOUND);
        ASSERT_EQ(hdr.listsize, o.children.size() * sizeof(lbcmd_key_t));
        const lb_u8_t *at = buffer()._x + hdr.addsize + hdr.setsize + hdr.getsize;
        for (const int child : o.children) {
            const lbcmd_key_t &key = objects_[static_cast<std::size_t>(child)].key;
            EXPECT_EQ(std::memcmp(at, &key, sizeof(key)), 0) << "children in the order of ADD";
            at += sizeof(key);
        }
    }

    void get_all()
    {
        for (const object &o : objects_) {
            command_get(o);
        }
    }

    void remove_all_objects()
    {
        for (std::size_t i = objects_.size(); i-- > 0;) {
            if (objects_[i].present && objects_[i].parent >= 0) {
                command_rm(static_cast<int>(i)); // children stand behind their parents
            }
        }
        EXPECT_EQ(set_client_gateway(""), LBCMD_RC_SUCCESS);
    }

    void expect_forwards()
    {
        fake::count_only(false);
        ASSERT_ADDED(add_interface("eth0"));
        ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
        ASSERT_ADDED(add_cluster("10.0.0.100"));
        ASSERT_ADDED(add_port("10.0.0.100", 80));
        ASSERT_ADDED(add_server("10.0.0.100", 80, "10.0.0.11"));
        fake::receive(stress::arp_reply("10.0.0.11", 0x11));
        (void)fake::take_sent();
        EXPECT_EQ(fake::receive(packets::build(packets::packet{})), LB_PACKETRC_CONSUMED);
        const auto sent = fake::take_sent();
        ASSERT_EQ(sent.size(), 1U);
        EXPECT_EQ(packets::mac_at(sent[0].bytes, 0), stress::mac_of(0x11));
    }

  private:
    int declare(lbcmd_keytype_e tree, const lbcmd_key_t &key, int parent)
    {
        objects_.push_back({tree, key, parent, parent < 0});
        return static_cast<int>(objects_.size()) - 1;
    }

    void command_add(stress::rng &random, int which)
    {
        object &o = objects_[static_cast<std::size_t>(which)];
        int expected = LBCMD_RC_ALREADYEXISTS;
        if (o.parent < 0) {
            expected = LBCMD_RC_NOPARENT;
        } else if (!o.present) {
            expected = objects_[static_cast<std::size_t>(o.parent)].present ? LBCMD_RC_SUCCESS
                                                                            : LBCMD_RC_PARENTDNE;
        }
        ASSERT_EQ(send_add(random, o), expected);
        if (expected == LBCMD_RC_SUCCESS) {
            o.present = true;
            objects_[static_cast<std::size_t>(o.parent)].children.push_back(which);
        }
    }

    int send_add(stress::rng &random, const object &o)
    {
        if (o.tree == LBCMD_KEYTYPE_IFACE) {
            return o.key.iface.addr.version == 0
                       ? add(o.tree, o.key, stack::none{}, random_interface(random))
                       : add(o.tree, o.key, stack::none{}, random_peer(random));
        }
        if (o.key.cfg.server.version != 0) {
            return add(o.tree, o.key, lbsrv_addable_t{}, random_server(random));
        }
        if (o.key.cfg.port == 0) {
            return add(o.tree, o.key, lbclu_addable_t{}, lbclu_setable_t{});
        }
        lbport_addable_t addable{};
        addable.selectalg = below(random, 2) == 0 ? LBSEL_ALGORIGHM_HASH : LBSEL_ALGORIGHM_UDPRR;
        addable.udpselectalg = static_cast<lb_u8_t>(below(random, 7)); // some cannot choose
        return add(o.tree, o.key, addable, lbport_setable_t{});
    }

    void command_rm(int which)
    {
        object &o = objects_[static_cast<std::size_t>(which)];
        const int expected = !o.present            ? LBCMD_RC_OBJNOTFOUND
                             : !o.children.empty() ? LBCMD_RC_HASCHILD
                                                   : LBCMD_RC_SUCCESS;
        ASSERT_EQ(rm(o.tree, o.key), expected);
        if (expected == LBCMD_RC_SUCCESS) {
            o.present = false;
            std::erase(objects_[static_cast<std::size_t>(o.parent)].children, which);
        }
    }

    void command_set(stress::rng &random, const object &o)
    {
        const int expected = o.present ? LBCMD_RC_SUCCESS : LBCMD_RC_OBJNOTFOUND;
        ASSERT_EQ(send_set(random, o), expected);
    }

    int send_set(stress::rng &random, const object &o)
    {
        if (o.tree == LBCMD_KEYTYPE_IFACE) {
            if (o.parent < 0) {
                return set(o.tree, o.key, lbifcol_setable_t{});
            }
            return o.key.iface.addr.version == 0 ? set(o.tree, o.key, random_interface(random))
                                                 : set(o.tree, o.key, random_peer(random));
        }
        if (o.parent < 0) {
            return set(o.tree, o.key, random_executor(random));
        }
        if (o.key.cfg.server.version != 0) {
            return set(o.tree, o.key, random_server(random));
        }
        return o.key.cfg.port == 0 ? set(o.tree, o.key, lbclu_setable_t{})
                                   : set(o.tree, o.key, lbport_setable_t{});
    }

    static lbexe_setable_t random_executor(stress::rng &random)
    {
        lbexe_setable_t setable{};
        const int verbosity = below(random, 30);
        setable.log_mask = verbosity == 0 ? ~0ULL : verbosity < 10 ? LB_LOG_FAILURE : 0;
        setable.clientgateway = stack::ip(any(random, GATEWAYS));
        setable.ha.role = static_cast<lb_u8_t>(below(random, 5));
        return setable;
    }
    static lbsrv_setable_t random_server(stress::rng &random)
    {
        lbsrv_setable_t setable{};
        setable.weight = static_cast<lb_u16_t>(below(random, 4));
        setable.encapmtu = static_cast<lb_u16_t>(random());
        return setable;
    }
    static lbifin_setable_t random_interface(stress::rng &random)
    {
        lbifin_setable_t setable =
            stack::ethernet(static_cast<lb_u8_t>(random()), below(random, 4) == 0 ? 576 : 1500);
        setable.arp = below(random, 5) == 0 ? LBIFIN_YN_NO : LBIFIN_YN_YES;
        setable.isPTP = below(random, 5) == 0 ? LBIFIN_YN_YES : LBIFIN_YN_NO;
        return setable;
    }
    static lbifaddr_setable_t random_peer(stress::rng &random)
    {
        return {stack::ip(below(random, 3) == 0 ? any(random, SERVERS) : "")};
    }

    std::vector<object> objects_;
};

TEST_F(EverythingAtOnceTest, AnswersAsOneThreadWouldAndLeavesNothing)
{
    fake::count_only(true);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < stress::WORKERS; i++) {
        threads.emplace_back(work, random_for(i), std::cref(stop));
    }
    threads.emplace_back(keep_time, random_for(stress::WORKERS), std::cref(stop));

    stress::rng random = random_for(-1);
    std::uint64_t commands = 0;
    const auto end = stress::clock::now() + stress::duration();
    while (stress::clock::now() < end && !HasFatalFailure()) {
        command(random);
        commands++;
    }
    stop = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    std::printf("%llu commands, %llu frames sent\n", static_cast<unsigned long long>(commands),
                static_cast<unsigned long long>(fake::sent_count()));
    EXPECT_GT(commands, 100 * size());
    EXPECT_GT(fake::sent_count(), 1000U);

    get_all();
    expect_consistent_lists();
    remove_all_objects();
    expect_consistent_lists();
    tick(6);
    EXPECT_EQ(lbll_size(&lbexecutor->cmdreaplist), 0);
    EXPECT_EQ(neighbours(), 0) << "uses of neighbours that nobody gave back";
    lbpbuf_drain();
    EXPECT_EQ(fake::live_allocations(), 0) << fake::live_bytes() << " bytes";
    expect_forwards();
}

} // namespace
