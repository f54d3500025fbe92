// One node of a pair, whose partner is the test: it reads the heartbeats that were sent, and sends
// some of its own. Frames are built here from offsets, not from the stack's layouts.
#pragma once

#include "lb_ha.h"
#include "lb_heartbeat.h"
#include "lb_replication.h"

#include "nat_fixture.h"
#include "packets.h"

class HaFixture : public NatFixture
{
  protected:
    static constexpr lb_u16_t PORT = 12345;
    static constexpr const char *OWN = "10.0.0.1";
    static constexpr const char *PARTNER = "10.0.0.2";
    static constexpr std::size_t HDR = packets::ETH + 28; // of an IPv4 heartbeat's frame
    static constexpr std::size_t RECS = HDR + 40;
    static constexpr std::size_t RECLEN = 96;

    struct record {
        lb_u16_t sport = 0; // 0: affinity
        std::string server = "10.0.0.11";
        lb_u8_t state = LBSEL_CR_STATE_ACTIVE;
        lb_u16_t natport = 0;
        std::string client = "10.9.0.1";
        lb_u16_t port = 80;
        std::string cluster = C;
        lb_u16_t rule = 0;
    };
    struct beat {
        lb_u8_t state = LBHA_STATE_STANDBY;
        lb_u8_t score = 0;
        lb_timeval_t seq = {.secs = 5, .usecs = 6};
        lb_timeval_t ack = {.secs = 0, .usecs = 0};
        std::vector<record> records = {};
        int count = -1; // as the header says; -1: as many as there are
        lb_u32_t version = 0x0805050B;
        packets::packet ip = {
            .src = PARTNER, .dst = OWN, .sport = PORT, .dport = PORT, .proto = packets::UDP};
    };

    void SetUp() override
    {
        NatFixture::SetUp();
        ASSERT_ADDED(add_heartbeat(OWN, PARTNER));
        meet(2);
    }
    // Another node with the same configuration, which knows nothing yet.
    void restart()
    {
        TearDown();
        SetUp();
    }

    int add_heartbeat(const std::string &own, const std::string &partner)
    {
        return add(LBCMD_KEYTYPE_CONFIG, stack::cfgkey(own, 0, partner), {},
                   stack::bytes_of(lbha_hb_setable_t{}));
    }
    int pair(lb_u8_t role, lb_u8_t strategy = LBHA_TAKEOVERSTRATEGY_MANUAL, bool manual = false)
    {
        return set_executor([=](lbexe_setable_t &set) {
            set.ha.role = role;
            set.ha.tostrategy = strategy;
            set.ha.manualtakeover = manual ? 1 : 0;
            set.ha.port = PORT;
        });
    }
    int take_over() { return pair(LBHA_ROLE_BACKUP, LBHA_TAKEOVERSTRATEGY_MANUAL, true); }
    static lb_u8_t state() { return lb_peek(lbexecutor->getable.ha.state); }

    static void put_time(packets::bytes &frame, std::size_t at, lb_timeval_t time)
    {
        packets::put32(frame, at, static_cast<std::uint32_t>(time.secs));
        packets::put32(frame, at + 4, static_cast<std::uint32_t>(time.usecs));
    }
    static void put_addr(packets::bytes &frame, std::size_t at, const std::string &text)
    {
        if (!text.empty()) {
            frame.at(at) = text.find(':') != std::string::npos ? 6 : 4;
            packets::set_at(frame, at + 8, packets::to_ip(text));
        }
    }
    static packets::bytes build(const beat &b)
    {
        packets::packet ip = b.ip;
        ip.payload = 40 + b.records.size() * RECLEN;
        packets::bytes frame = packets::build(ip);
        std::size_t at = packets::upper_of(frame).at + 8;
        std::fill(frame.begin() + static_cast<long>(at), frame.end(), 0);
        packets::put32(frame, at, b.version);
        frame[at + 4] = b.state;
        frame[at + 5] = b.score;
        frame[at + 6] = 1;
        frame[at + 7] = static_cast<std::uint8_t>(b.count >= 0 ? b.count : b.records.size());
        put_time(frame, at + 8, b.seq);
        put_time(frame, at + 16, b.ack);
        at += 40;
        for (const record &r : b.records) {
            put_addr(frame, at, r.cluster);
            packets::put16(frame, at + 24, r.port);
            packets::put16(frame, at + 26, r.rule);
            put_addr(frame, at + 32, r.server);
            put_addr(frame, at + 56, r.client);
            packets::put16(frame, at + 80, r.sport);
            frame[at + 82] = r.state;
            packets::put16(frame, at + 88, r.natport);
            at += RECLEN;
        }
        packets::mend_transport(frame);
        return frame;
    }
    // Records of few clients at a port 80 with NAT servers and others, and at 443 and 8443.
    template <class Random> static beat random_beat(Random &random)
    {
        const lb_u16_t ports[] = {80, 80, 443, 8443};
        const lb_u16_t natports[] = {0, 1024, 1025, 65535};
        beat b;
        b.state = static_cast<lb_u8_t>(random() % 4);
        b.score = static_cast<lb_u8_t>(random() % 3);
        for (auto left = random() % 14; left > 0; left--) {
            record r;
            r.port = ports[random() % 4];
            r.sport = r.port == 80 ? lb_u16_t{7} : lb_u16_t{0};
            const int last = static_cast<int>(11 + random() % 3);
            const bool nat = r.port == 80 && random() % 2 == 0;
            r.server = nat ? server_ip(last) : address(last);
            r.natport = random() % 8 == 0 ? natports[random() % 4]
                                          : static_cast<lb_u16_t>(2000 + random() % 100);
            r.state = static_cast<lb_u8_t>(1 + random() % 4);
            r.client = "10.9.0." + std::to_string(1 + random() % 64);
            b.records.push_back(r);
        }
        return b;
    }
    // The servers of these, as far as they are missing.
    void make_everywhere(int last)
    {
        lbsrv_setable_t sticky{};
        sticky.weight = 1;
        sticky.stickyflag = 1;
        (void)add_server(C, 80, address(last));
        (void)make_natserver(last);
        (void)add_server(C, 443, address(last), sticky);
        (void)add_server(C, 8443, address(last), sticky);
    }
    static int hear(const beat &b) { return fake::receive(build(b)); }
    static int hear(const record &r) { return hear(beat{.records = {r}}); }

    // The heartbeats that were sent since the last look.
    static std::vector<packets::bytes> beats()
    {
        std::vector<packets::bytes> out;
        for (const fake::sent_frame &sent : fake::take_sent()) {
            const std::size_t udp = sent.ipver == 6 ? packets::ETH + 40 : packets::ETH + 20;
            if (sent.has_eth && sent.bytes.size() >= udp + 48 &&
                packets::get16(sent.bytes, udp) == PORT &&
                packets::get16(sent.bytes, udp + 2) == PORT) {
                out.push_back(sent.bytes);
            }
        }
        return out;
    }
    static std::vector<packets::bytes> beats_of_a_tick()
    {
        (void)fake::take_sent();
        tick_once();
        return beats();
    }

    static lbsel_cr_obj_t *connection(lb_u16_t sport, const std::string &client = "10.9.0.1",
                                      const std::string &cluster = C)
    {
        auto *ct =
            static_cast<lbsel_ct_obj_t *>(object<lbport_obj_t>(stack::cfgkey(cluster, 80))->ct);
        lbsel_cr_obj_key_t key = {.sip = stack::ip(client), .sport = sport, ._pad = 0};
        return static_cast<lbsel_cr_obj_t *>(lbht_select1(&ct->lookup, &key));
    }
    // "server state natport" of a connection, the server by its last byte; "" without a record.
    static std::string known(lb_u16_t sport, const std::string &client = "10.9.0.1",
                             const std::string &cluster = C)
    {
        const lbsel_cr_obj_t *cr = connection(sport, client, cluster);
        if (cr == nullptr) {
            return "";
        }
        const lbip_addr_t &server = cr->server->config.key.cfg.server;
        return std::to_string(server.nboaddr.v6[server.version == 6 ? 15 : 3]) + " " +
               std::to_string(cr->state) + " " + std::to_string(cr->natkey.natport);
    }
};
