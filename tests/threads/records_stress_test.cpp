// Records under load: workers open, use and close connections from few clients, so that they meet
// on the same records, and send servers' answers to every port of a return address that may be in
// use, or are a partner that sends records of the same connections and claims every state.
// Meanwhile a fast clock ages the records, and commands change weights, times and roles and take
// servers, rules, whole ports and the heartbeat away and bring them back. Ports of every kind that
// keeps records, two of them sharing a table.
//
// The fixture proves that every record is on exactly one list and in exactly one bucket or in
// neither, no connection has two, ports and connections know each other, and all memory comes back.
#include "ha_fixture.h"
#include "stress.h"

namespace
{

using packets::ETH;
using stress::below;
using stress::rng;

constexpr lb_u16_t NUMBERS[] = {80, 81, 443, 8443};
constexpr int CLIENTS = 48;
constexpr int FIRSTCLIENTPORT = 40000;
constexpr int BUCKETS = 4096; // client ports that differ by it share one
constexpr int GUESSES = 100;  // ports from the first one on that answers are sent to

class RecordStress : public Stress<HaFixture>
{
  protected:
    void SetUp() override
    {
        Stress::SetUp();
        for (const lb_u16_t number : NUMBERS) {
            if (number == 80) {
                ASSERT_ADDED(set_port(C, 80, [](lbport_setable_t &set) { set = hasty(); }));
            } else {
                ASSERT_ADDED(make(number, number == 8443 ? 443 : 0));
            }
        }
        for (int last = 11; last <= 13; last++) {
            make_all_servers(last);
        }
        fake::count_only(true);
    }
    void TearDown() override
    {
        fake::count_only(false);
        if (lbexecutor != nullptr) {
            tick(6); // servers that were removed under way are swept once more, and freed
            records::check_port(port_object(81));
        }
        Stress::TearDown();
    }

    static lbport_setable_t hasty()
    {
        lbport_setable_t setable{};
        setable.reset = 1;
        setable.staletimeout = 10;
        setable.stickytime = 10;
        setable.repstrategy = LBHA_REPLICATIONSTRATEGY_CRARREP;
        return setable;
    }
    int make(lb_u16_t number, lb_u16_t crossport)
    {
        lb_u8_t algorithm = LBSEL_ALGORIGHM_CONN_AFFIN;
        lb_u8_t udp = LBSEL_ALGORIGHM_AFFINITY;
        switch (number) {
        case 80: algorithm = udp = LBSEL_ALGORIGHM_CONNECTION; break;
        case 81: algorithm = LBSEL_ALGORIGHM_AFFINITY; break;
        case 8443: udp = LBSEL_ALGORIGHM_CONNECTION; break;
        default: break;
        }
        return make_port(number, algorithm, crossport, udp, hasty());
    }
    // Of all ports, as far as they are missing.
    void make_all_servers(int last)
    {
        make_everywhere(last);
        (void)make_server(81, last);
    }

    // A port goes with its servers and comes back. A partner that names a port that is not there
    // is refused; the one that comes back is the other's partner then.
    void replace_port(lb_u16_t number)
    {
        for (int last = 11; last <= 13; last++) { // perhaps some are gone already
            (void)rm_server(C, number, address(last));
            (void)rm_server(C, number, server_ip(last));
        }
        ASSERT_ADDED(rm_port(C, number));
        ASSERT_ADDED(make(number, number == 443 ? 8443 : number == 8443 ? 443 : 0));
        for (int last = 11; last <= 13; last++) {
            make_all_servers(last);
        }
    }
    void random_command(rng &random)
    {
        const lb_u16_t number = NUMBERS[below(random, 4)];
        const int last = 11 + below(random, 3);
        const bool nat = number == 80 && below(random, 2) == 0;
        const std::string server = nat ? server_ip(last) : address(last);
        const int what = below(random, 300); // to replace a port takes long
        if (what == 0) {
            replace_port(number);
        } else if (what < 10) {
            (void)set_port(C, number, [&](lbport_setable_t &s) {
                s.reset = static_cast<lb_u8_t>(below(random, 2));
                s.stickytime = static_cast<lb_u32_t>(10 + below(random, 5));
            });
        } else if (what < 100) {
            if (rm_server(C, number, server) != LBCMD_RC_SUCCESS) {
                make_all_servers(last);
            }
        } else if (get_server(C, number, server).rc == LBCMD_RC_SUCCESS) {
            (void)set_server(C, number, server, [&](lbsrv_setable_t &s) {
                s.weight = static_cast<lb_u16_t>(below(random, 3));
                s.quiesced = static_cast<lb_u32_t>(below(random, 2));
                s.stickyflag = static_cast<lb_u32_t>(below(random, 4) != 0);
            });
        }
        rewind();
    }
    void random_pair_command(rng &random)
    {
        const int last = 11 + below(random, 3);
        switch (below(random, 6)) {
        case 0: EXPECT_EQ(rm_server(C, 443, address(last)), LBCMD_RC_SUCCESS); break;
        case 1:
            EXPECT_EQ(rm_server(C, 80, address(last)), LBCMD_RC_SUCCESS);
            EXPECT_EQ(rm_server(C, 80, server_ip(last)), LBCMD_RC_SUCCESS);
            break;
        case 2:
            EXPECT_EQ(rm(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(OWN, 0, PARTNER)), LBCMD_RC_SUCCESS);
            EXPECT_EQ(add_heartbeat(OWN, PARTNER), LBCMD_RC_SUCCESS);
            break;
        case 3: EXPECT_EQ(take_over(), LBCMD_RC_SUCCESS); break;
        default:
            EXPECT_EQ(pair(static_cast<lb_u8_t>(1 + below(random, 3)),
                           static_cast<lb_u8_t>(1 + below(random, 2))),
                      LBCMD_RC_SUCCESS);
            break;
        }
        make_all_servers(last);
    }
    // Has the return address hand out low ports again, which would take a long time otherwise:
    // ports change hands as fast as they can.
    static void rewind()
    {
        lb_grace_inside inside;
        if (lb_retaddr_obj_t *now = retaddr(); now != nullptr) {
            os_mutex_lock(&now->ept.lock);
            now->ept.usNextPort = 0;
            os_mutex_unlock(&now->ept.lock);
        }
    }

    static packets::bytes random_segment(rng &random, std::uint16_t sport)
    {
        constexpr std::uint8_t flags[] = {SYN,     SYN,       ACK, ACK,      ACK,
                                          ACK | 8, FIN | ACK, RST, SYN | ACK};
        const int client = below(random, CLIENTS);
        packets::packet p = {.src = "10.9.0." + std::to_string(1 + client), .payload = 0};
        p.sport =
            sport != 0
                ? sport
                : static_cast<std::uint16_t>(FIRSTCLIENTPORT + client + BUCKETS * below(random, 2));
        p.dport = NUMBERS[below(random, 4)];
        p.proto = below(random, 10) == 0 ? packets::UDP : packets::TCP;
        p.flags = flags[below(random, 9)];
        return packets::build(p);
    }
    static packets::bytes random_answer(rng &random)
    {
        packets::packet p =
            answer(static_cast<std::uint16_t>(EXC_EPT_FIRSTPORT + below(random, GUESSES)),
                   11 + below(random, 3));
        p.fragoff = below(random, 8) == 0 ? 0x2000 : 0;
        return packets::build(p);
    }
    // An answer may come too late, but never reach a client that has no connection on its port:
    // whose ports are whose is known. Whether it reached one.
    static bool receive_checked(const packets::bytes &bytes, fake::worker &worker)
    {
        const int rc = worker.receive(bytes);
        const std::string to = packets::ip_at(bytes, ETH + 16);
        if (to != R) {
            EXPECT_TRUE(to != C || rc == LB_PACKETRC_CONSUMED);
            return false;
        }
        const fake::frame &buffer = *worker.buffer();
        const packets::bytes after(buffer.bytes(), buffer.bytes() + buffer.length());
        if (after == bytes) {
            return false; // not ours now, or nobody's
        }
        EXPECT_EQ(packets::ip_at(after, ETH + 12), C);
        EXPECT_EQ(after[ETH + 19] - 1,
                  (packets::get16(after, ETH + 22) - FIRSTCLIENTPORT) % BUCKETS)
            << "one client's address and another's port";
        EXPECT_EQ(packets::checksum(after, ETH, ETH + 20), 0);
        EXPECT_EQ(packets::transport_residue(after), 0);
        return true;
    }
};

TEST_F(RecordStress, KeepsEveryRecordInOnePlaceAndAnswersReachTheirClients)
{
    std::atomic<std::uint64_t> answers{0};
    for (int i = 0; i < stress::WORKERS; i++) {
        start_worker(
            [](rng &random) {
                return below(random, 3) == 0 ? random_answer(random) : random_segment(random, 0);
            },
            [&answers](const packets::bytes &bytes, fake::worker &worker) {
                answers += receive_checked(bytes, worker) ? 1 : 0;
            });
    }
    start_timer();
    run([this](rng &random) { random_command(random); });
    EXPECT_GT(answers.load(), 0U);
}

TEST_F(RecordStress, KeepsEveryRecordInOnePlaceWithAPartner)
{
    fake::core_expected(true); // both sides change the same connections
    const auto receive = [](const packets::bytes &bytes, fake::worker &worker) {
        (void)worker.receive(bytes);
    };
    for (int i = 0; i < 2; i++) {
        start_worker([](rng &random) { return random_segment(random, 7); }, receive);
        start_worker([](rng &random) { return build(random_beat(random)); }, receive);
    }
    start_timer();
    run([this](rng &random) { random_pair_command(random); });
    // Records that lost their port to another keep its number: they go before all is checked.
    for (int last = 11; last <= 13; last++) {
        EXPECT_EQ(rm_server(C, 80, server_ip(last)), LBCMD_RC_SUCCESS);
    }
}

// The same SYN from every worker at the same time, over and over: one record for each connection.
TEST_F(RecordStress, MakesOneRecordForOneConnection)
{
    constexpr int ROUNDS = 2000;
    packets::bytes frame;
    stress::team workers([&frame](fake::worker &worker) { (void)worker.receive(frame); });
    for (int round = 1; round <= ROUNDS; round++) {
        frame = packets::build(
            packets::packet{.sport = static_cast<std::uint16_t>(1000 + round),
                            .dport = static_cast<std::uint16_t>(round % 2 != 0 ? 80 : 443)});
        workers.together();
    }
    for (const lb_u16_t number : {lb_u16_t{80}, lb_u16_t{443}}) {
        lb_u32_t preest = 0;
        lb_u32_t lifetime = 0;
        for (int last = 11; last <= 13; last++) {
            for (const std::string &server : {address(last), server_ip(last)}) {
                const auto stats = get_server(C, number, server).getable.selstats;
                preest += stats.preest;
                lifetime += stats.lifetime;
            }
        }
        EXPECT_EQ(preest, ROUNDS / 2U);
        EXPECT_EQ(lifetime, ROUNDS / 2U + (number == 443 ? 1 : 0)) << "the client counts once more";
    }
}

} // namespace
