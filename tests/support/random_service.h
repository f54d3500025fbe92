// Configurations at random, out of a small world so that two of them have much in common. All of
// them are right: what the reader would refuse is not made.
#pragma once

#include <random>
#include <string>

#include "vellb/address.h"
#include "vellcfg/model.h"

class random_service
{
  public:
    explicit random_service(unsigned seed) : random_(seed) {}

    unsigned below(unsigned most) { return std::uniform_int_distribution(0U, most - 1)(random_); }
    bool one_in(unsigned n) { return below(n) == 0; }

    vellcfg::service next()
    {
        vellcfg::service made;
        made.executor.client_gateway = one_in(2) ? ip("10.0.0.254") : lbip_addr_t{};
        made.executor.own_address = one_in(2) ? ip("10.0.0.1") : lbip_addr_t{};
        if (one_in(2)) {
            made.executor.log_mask = 0x200 + below(2);
        }
        if (one_in(2)) {
            make_pair(made.ha);
        }
        for (const char *each : {"10.0.0.100", "10.0.0.101", "2001:db8::100"}) {
            if (!one_in(4)) {
                made.clusters.push_back({{}, ip(each), one_in(3) ? "id" : "", {}});
                make_ports(made.clusters.back());
            }
        }
        return made;
    }

  private:
    static lbip_addr_t ip(const std::string &text) { return *vellb::parse_address(text); }

    void make_pair(vellcfg::ha &pair)
    {
        pair.role = one_in(2) ? LBHA_ROLE_PRIMARY : LBHA_ROLE_BACKUP;
        pair.takeover = one_in(2) ? LBHA_TAKEOVERSTRATEGY_MANUAL : LBHA_TAKEOVERSTRATEGY_AUTOMATIC;
        pair.replication = static_cast<lb_u8_t>(below(2));
        pair.timeout_s = static_cast<lb_u8_t>(2 + below(2));
        pair.port = static_cast<lb_u16_t>(4646 + below(2));
        for (unsigned i = below(3); i > 0; i--) {
            pair.reach.push_back(ip("10.0.0." + std::to_string(200 + i)));
        }
        for (unsigned i = below(3); i > 0; i--) {
            pair.heartbeats.push_back({{}, ip("10.0.0.1"), ip("10.0.0." + std::to_string(1 + i))});
        }
    }

    void make_ports(vellcfg::cluster &into)
    {
        for (lb_u16_t number = 80; number < 84; number++) {
            if (one_in(3)) {
                continue;
            }
            vellcfg::port made;
            made.number = number;
            const bool affinity = one_in(2);
            made.algorithm = static_cast<lb_u8_t>(affinity ? 3 + below(2) : 1 + below(2));
            made.udp_algorithm = one_in(4) ? LBSEL_ALGORIGHM_HASH : LBSEL_ALGORIGHM_UDPRR;
            made.crossport = static_cast<lb_u16_t>(affinity && one_in(2) ? 80 + below(5) : 0);
            if (one_in(3)) {
                made.stale_timeout_s = 100 + below(2);
            }
            if (one_in(3)) {
                made.sticky_time_s = 50 + below(2);
            }
            made.reset = one_in(3);
            made.replication = static_cast<lb_u8_t>(below(4));
            make_servers(into.address, made);
            make_rules(made);
            into.ports.push_back(std::move(made));
        }
    }

    void make_servers(const lbip_addr_t &cluster, vellcfg::port &into)
    {
        const std::string net = cluster.version == 6 ? "2001:db8::" : "10.0.0.";
        for (unsigned i = 11; i < 15; i++) {
            if (one_in(3)) {
                continue;
            }
            vellcfg::server made;
            made.address = ip(net + std::to_string(i));
            made.weight = static_cast<lb_u16_t>(below(3) * 5);
            made.id = one_in(4) ? "it's \"one\"" : "";
            made.sticky = !one_in(4);
            made.quiesced = one_in(4);
            made.forward = static_cast<vellcfg::forward_e>(below(5));
            if (made.forward == vellcfg::forward_e::NAT) {
                made.return_address = ip(net + std::to_string(50 + below(2)));
                made.router_address = ip(net + "254");
            }
            if (made.forward == vellcfg::forward_e::GRE && one_in(2)) {
                made.encap_source = ip(net + "1");
                made.encap_mtu = static_cast<lb_u16_t>(1400);
            }
            into.servers.push_back(std::move(made));
        }
    }

    void make_rules(vellcfg::port &into)
    {
        for (lb_u16_t number = 1; number < 4; number++) {
            if (one_in(2)) {
                continue;
            }
            vellcfg::rule made;
            made.number = number;
            made.name = one_in(3) ? "rule" : "";
            made.type = static_cast<lb_u8_t>(1 + below(3));
            if (made.type != LBRUL_TYPE_TRUE) {
                made.ranged = true;
                made.first = below(2);
                made.last = one_in(2) ? 0xFFFFFFFF : 10;
            }
            for (const vellcfg::server &each : into.servers) {
                if (one_in(2)) {
                    made.useservers.push_back({{}, each.address});
                }
            }
            into.rules.push_back(std::move(made));
        }
    }

    std::mt19937 random_;
};
