// See frames.h. One thread. What may be sent is judged by the received bytes alone; a packet is
// given from its IP header on, whatever it claims about its length.
#include "frames.h"

#include "lb_entry.h"
#include "lb_executor.h"
#include "lb_fragment.h"
#include "lb_words.h"

#include <algorithm>

#include "fake_host.h"
#include "packets.h"

namespace fuzz
{

namespace
{

constexpr std::size_t ETH = packets::ETH;
constexpr int ETH_IPV4 = 0x0800;
constexpr int ETH_IPV6 = 0x86DD;
constexpr int ETH_ARP = 0x0806;
constexpr std::size_t ARP_FRAME = 42;
constexpr std::size_t ICMP_HEADER = 8;
constexpr lb_u64_t HELD_FRAMES = 16; // so few that some find no room

bool is_ipv6(const bytes &ip)
{
    return !ip.empty() && packets::is_ipv6(ip, 0);
}

// What of a packet may change on its way, and what decides whether it does.
struct fields {
    std::size_t hops;
    std::size_t addresses, addresseslen;
    std::size_t upper; // where the transport header begins
    std::uint8_t proto;
    bool later; // a fragment that is not the first
    bool whole; // no fragment
};

// Throws std::out_of_range for a packet that ends within its headers.
fields fields_of(const bytes &ip)
{
    const packets::upper u = packets::upper_of(ip, 0);
    if (is_ipv6(ip)) {
        const bool later = u.fragment != 0 && (packets::get16(ip, u.fragment + 2) & 0xFFF0) != 0;
        return {7, 8, 32, u.at, u.proto, later, u.fragment == 0};
    }
    const std::uint16_t fragoff = packets::get16(ip, 6);
    return {8, 12, 8, u.at, u.proto, (fragoff & 0x1FFF) != 0, (fragoff & 0x3FFF) == 0};
}

bool is_prefix(const bytes &part, std::size_t from, const bytes &whole)
{
    return part.size() >= from && part.size() - from <= whole.size() &&
           std::equal(part.begin() + static_cast<long>(from), part.end(), whole.begin());
}

// Copies bytes that may be others than expected.
void allow(bytes &expected, const bytes &out, std::size_t at, std::size_t len)
{
    if (at + len <= out.size() && at + len <= expected.size()) {
        std::copy_n(out.begin() + static_cast<long>(at), len,
                    expected.begin() + static_cast<long>(at));
    }
}

bool header_sum_fits(const bytes &ip)
{
    return is_ipv6(ip) || packets::checksum(ip, 0, (ip.at(0) & 15U) * 4) == 0;
}

// Whether what left is the beginning of what came, but for one hop and the header checksum, which
// is as good as it was.
bool is_hop_of(const bytes &out, const bytes &ip, const fields &f)
{
    bytes expected = ip;
    expected.at(f.hops)--;
    if (!is_ipv6(ip)) {
        allow(expected, out, 10, 2);
    }
    return ip[f.hops] > 1 && is_prefix(out, 0, expected) &&
           (header_sum_fits(out) || !header_sum_fits(ip));
}

// Whether what left is the beginning of what came, but for addresses, ports and checksums, either
// from the return address or from the cluster. A whole packet's checksums are right.
bool is_translation_of(const bytes &out, const bytes &ip, const fields &f)
{
    const bool isv6 = is_ipv6(ip);
    const bool ours = isv6
                          ? packets::ip6_at(out, 8) == RETURN6 || packets::ip6_at(ip, 24) == RETURN6
                          : packets::ip_at(out, 12) == RETURN || packets::ip_at(ip, 16) == RETURN;
    if (f.proto != packets::TCP || !ours || !header_sum_fits(out)) {
        return false;
    }
    bytes expected = ip;
    allow(expected, out, f.addresses, f.addresseslen);
    if (!isv6) {
        allow(expected, out, 10, 2);
    }
    if (!f.later) {
        allow(expected, out, f.upper, 4);
        allow(expected, out, f.upper + 16, 2);
    }
    return is_prefix(out, 0, expected) && (!f.whole || packets::transport_residue(out, 0) == 0);
}

bool is_tunnelled(const fake::sent_frame &out)
{
    return out.how == fake::via::raw4 && out.protocol != 1;
}

// Whether what was sent is the packet that came, on its way to a server or a client.
bool is_sent_as(const fake::sent_frame &out, const bytes &ip)
try {
    if (is_tunnelled(out)) {
        const bytes gre = {0, 0, 8, 0};
        const std::size_t header = out.protocol == 47 ? gre.size() : 0;
        return !is_ipv6(ip) && out.bytes.size() >= header + 20 &&
               std::equal(gre.begin(), gre.begin() + static_cast<long>(header),
                          out.bytes.begin()) &&
               is_prefix(out.bytes, header, ip);
    }
    const bool linked = out.how == fake::via::packet;
    const bytes packet(out.bytes.begin() + (out.has_eth ? ETH : 0), out.bytes.end());
    if ((!linked && out.how != fake::via::tun) || packet.size() < 20 ||
        (out.has_eth && packets::get16(out.bytes, 12) != (is_ipv6(ip) ? ETH_IPV6 : ETH_IPV4))) {
        return false;
    }
    const fields f = fields_of(ip);
    return is_hop_of(packet, ip, f) || (linked && is_translation_of(packet, ip, f)) ||
           (f.proto != packets::TCP && is_prefix(packet, 0, ip)); // NAT leaves these as they are
} catch (const std::out_of_range &) {
    return false;
}

bool is_icmp_error(const fake::sent_frame &out)
{
    return out.how == fake::via::raw6 || (out.how == fake::via::raw4 && out.protocol == 1);
}

// Whether it is an ICMP error that quotes the packet and goes to who sent it.
bool is_about(const fake::sent_frame &out, const bytes &ip)
{
    const bool isv6 = is_ipv6(ip);
    const std::size_t header = isv6 ? 40 : 20;
    if (!is_icmp_error(out) || isv6 != (out.how == fake::via::raw6) || ip.size() < header ||
        out.bytes.size() <= ICMP_HEADER || !is_prefix(out.bytes, ICMP_HEADER, ip)) {
        return false;
    }
    // Over IPv6 the host fills in the checksum.
    const long from = isv6 ? 8 : 12;
    return out.dest == bytes(ip.begin() + from, ip.begin() + (isv6 ? 24 : 16)) &&
           (isv6 || packets::checksum(out.bytes, 0, out.bytes.size()) == 0);
}

// Whether it is an advertisement of an address of ours for which the packet is a solicitation.
bool is_advertisement_for(const fake::sent_frame &out, const bytes &ip)
try {
    const std::size_t at = packets::upper_of(ip, 0).at;
    const std::string target = packets::ip6_at(ip, at + 8);
    return is_ipv6(ip) && ip.at(at) == packets::SOLICITATION && out.bytes.size() == 86 &&
           out.bytes[packets::IP6] == packets::ADVERTISEMENT &&
           packets::ip6_at(out.bytes, packets::IP6 + 8) == target &&
           (target == CLUSTER6 || target == RETURN6);
} catch (const std::out_of_range &) {
    return false;
}

} // namespace

frame_feeder::frame_feeder()
{
    lbfrag_setbudget(HELD_FRAMES * LBFRAG_HELDCHARGE);
}

void frame_feeder::feed(const bytes &frame, fake::link link)
{
    const int rc = worker_.receive(frame, link);
    const bytes received(
        frame.begin(),
        frame.begin() + std::min<long>(static_cast<long>(frame.size()), fake::frame::CAPACITY));
    if (rc == LB_PACKETRC_HELD) {
        require(worker_.buffer() == nullptr, "a held buffer is still the worker's");
        held_.emplace_back(received.begin() + (link == fake::link::slip ? 0 : ETH), received.end());
        reached_["held"]++;
    } else {
        const bool consumed = rc == LB_PACKETRC_CONSUMED;
        const fake::frame &buffer = *worker_.buffer();
        require(buffer.frees() == (consumed ? 1 : 0), "the buffer was not freed exactly once");
        require(consumed || std::equal(received.begin(), received.end(), buffer.bytes()),
                "a frame that is the host's was changed");
    }
    check_sent(received, link);
    world::require_unharmed();
}

// A packet that was held before and is sent now, each once. (One that was given up stays noted
// until none is held.)
bool frame_feeder::was_held(const fake::sent_frame &out)
{
    if (is_icmp_error(out)) {
        return std::any_of(held_.begin(), held_.end(),
                           [&out](const bytes &ip) { return is_about(out, ip); });
    }
    const auto found = std::find_if(held_.begin(), held_.end(),
                                    [&out](const bytes &ip) { return is_sent_as(out, ip); });
    if (found == held_.end()) {
        return false;
    }
    held_.erase(found);
    return true;
}

// The packet itself is sent last; those that waited for it go before, and an error about one that
// goes all the same.
void frame_feeder::check_sent(const bytes &frame, fake::link link)
{
    const auto sent = fake::take_sent();
    const std::size_t header = std::min(frame.size(), link == fake::link::slip ? 0 : ETH);
    const bytes ip(frame.begin() + static_cast<long>(header), frame.end());
    const bool isarp = header == ETH && packets::get16(frame, 12) == ETH_ARP;
    for (std::size_t i = 0; i < sent.size(); i++) {
        const fake::sent_frame &out = sent[i];
        reached_["tunnelled"] += is_tunnelled(out) ? 1 : 0;
        reached_["to this host"] += out.how == fake::via::tun ? 1 : 0;
        if (isarp) {
            require(out.bytes.size() == ARP_FRAME && out.bytes.size() <= frame.size(),
                    "an ARP answer of the wrong length");
        } else {
            const bool last = i + 1 == sent.size();
            require(was_held(out) || is_about(out, ip) ||
                        (last && (is_sent_as(out, ip) || is_advertisement_for(out, ip))),
                    "sent what is neither the packet nor about it, nor waited for it");
        }
    }
    if (fake::held_frames() == 0) {
        held_.clear();
    }
}

reached frame_feeder::places() const
{
    reached out = reached_;
    const lbexe_getable_t &all = lbexecutor->getable;
    const std::pair<std::string, const lb_proto_stats_t &> protocols[] = {
        {"IPv4", all.ipv4stats},
        {"IPv6", all.ipv6stats},
        {"ICMP", all.icmpstats},
        {"ICMPv6", all.icmpv6stats}};
    for (const auto &[protocol, stats] : protocols) {
        out[protocol + " forwarded"] = lb_peek(stats.fwd);
        out[protocol + " discarded"] = lb_peek(stats.discard);
        out[protocol + " in error"] = lb_peek(stats.err);
        out[protocol + " not for us"] = lb_peek(stats.notforus);
        out[protocol + " generated"] = lb_peek(stats.gen);
    }
    return out;
}

void run_frames(world &stack, const std::uint8_t *data, std::size_t size)
{
    frame_feeder feeder;
    for (record next; take_record(data, size, next);) {
        if ((next.control & 3) == 3) {
            fake::advance_ms(static_cast<std::int64_t>(next.length) * 100);
            (void)lb_timer_entry();
            (void)fake::take_sent();
            continue;
        }
        const fake::link link = (next.control & 3) == 2 ? fake::link::slip : fake::link::ethernet;
        if ((next.control & 4) != 0) {
            mend_checksums(next.content, link);
        }
        feeder.feed(next.content, link);
    }
    // The next input knows nothing of what this one's fragments left behind.
    fake::advance_s(2 * static_cast<std::int64_t>(LBFRAG_TIMEOUT_S));
    (void)lb_timer_entry();
    require(fake::held_frames() == 0, "a fragment was held too long");
    stack.require_forwarding();
}

void mend_checksums(bytes &frame, fake::link link)
try {
    const std::size_t ip = link == fake::link::slip ? 0 : ETH;
    const bytes packet(frame.begin() + static_cast<long>(std::min(ip, frame.size())), frame.end());
    if (ip != 0 && packets::get16(frame, 12) != (is_ipv6(packet) ? ETH_IPV6 : ETH_IPV4)) {
        return;
    }
    const packets::upper u = packets::upper_of(packet, 0);
    if (!is_ipv6(packet)) {
        if (u.at < 20 || packet.size() < u.at) {
            return;
        }
        packets::mend_ip(frame, ip);
    }
    if (u.proto == packets::TCP || u.proto == packets::UDP ||
        u.proto == (is_ipv6(packet) ? packets::ICMP6 : packets::ICMP)) {
        packets::mend_transport(frame, ip);
    }
} catch (const std::out_of_range &) {
    // It ends before its checksum could be told.
}

} // namespace fuzz
