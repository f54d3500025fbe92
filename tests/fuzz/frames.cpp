// See frames.h. One thread.
#include "frames.h"

#include "lb_entry.h"
#include "lb_executor.h"
#include "lb_fragment.h"
#include "lb_log.h"

#include <algorithm>

#include "fake_host.h"
#include "frames6.h"
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

// What a line of the log says about the way of a frame of one IP version, or of either.
enum version : unsigned { V4 = 1, V6 = 2, BOTH = V4 | V6 };
struct label {
    const char *text;
    const char *place;
    version versions;
};
constexpr label LABELS[] = {
    {"arp_entry packet too small", "ARP: too short", V4},
    {"arp_entry not ether", "ARP: other hardware or protocol", V4},
    {"arp_entry hwlen", "ARP: other hardware length", V4},
    {"arp_entry OP", "ARP: other operation", V4},
    {"neigh update on reply", "neighbour: its reply", BOTH},
    {"request is for a *target*", "neighbour: its request", BOTH},
    {"not in neigh table", "neighbour: a stranger's reply", BOTH},
    {"request for a *cluster*", "neighbour: request for the cluster", BOTH},
    {"request for a *return address*", "neighbour: request for a return address", BOTH},
    {"request not for cluster", "neighbour: request for others", BOTH},
    {"no station's", "neighbour: group address not learnt", BOTH},
    {"dIP sP:dP ERROR badinput", "IP: bad header", BOTH},
    {"dIP sP:dP DISCARD proto", "IP: no upper layer", V6},
    {"icmpv6_pbuf_entry packet too small", "ICMP: too short", V6},
    {"icmpv6_pbuf_entry invalid checksum", "ICMP: bad checksum", V6},
    {"icmpv6_pbuf_entry OP uninteresting", "ICMP: other type", V6},
    {"10.0.0.100 sP:dP ERROR badinput", "ICMP: for the cluster, can't be read", V4},
    {":100 sP:dP ERROR badinput", "ICMP: for the cluster, can't be read", V6},
    {"10.0.0.1 sP:dP ERROR badinput", "ICMP: about a tunnel, can't be read", V4},
    {"icmp-unhandled-type", "ICMP: other type", V4},
    {"this is not the first fragment", "ICMP: quotes a later fragment", BOTH},
    {"icmp-no-port-match", "ICMP: quotes an unknown port", BOTH},
    {"no-existing-record", "ICMP: quotes no connection", BOTH},
    {"icmp-no-servers", "ICMP: echo, no server", BOTH},
    {"icmp-fwd", "ICMP: echo to a server", BOTH},
    {"reset server encapmtu", "ICMP: about a tunnel, too long", V4},
    {"server marked as unreachable", "ICMP: about a tunnel, unreachable", V4},
    {"badip4chksum", "IP: bad checksum", V4},
    {"frag-discard-norecord", "fragment: no room to hold it", BOTH},
    {"frag-fwd", "fragment: after its first", BOTH},
    {"forward-saved-frag", "fragment: held until its first", BOTH},
    {"00 sP:dP DISCARD proto", "IP: other protocol for the cluster", BOTH},
    {"pullup failed", "TCP/UDP: header incomplete", BOTH},
    {"not a lb port", "TCP/UDP: unknown port", BOTH},
    {"no connection table", "choose: no table", V4},
    {"no affinity table", "choose: no table", V4},
    {"no connection or affinity table", "choose: no table", V4},
    {"hash-no-servers", "choose: no server", BOTH},
    {"hash-fwd", "choose: a server", BOTH},
    {"send-failure", "send: total length or route", BOTH},
    {"forwarded packet success", "send: forwarded", BOTH},
    {"Collocated forwarded packet success", "send: to this host", BOTH},
    {"got nat port", "NAT: a connection", BOTH},
    {"NAT return : copying hw address", "NAT: an answer", BOTH},
    {"CR not found in NAT return path", "NAT: an answer to nobody", BOTH},
    {"nat-return-badinput", "NAT: an answer that can't be read", BOTH},
    {"time exceeded packet sent", "send: time exceeded", V4},
    {"time_ exceeded packet sent", "send: time exceeded", V6},
    {"Destination unreachable packet", "send: too long for the link", V4},
    {"packet2long packet sent", "send: too long for the link", V6},
};

// The places that no line tells of.
constexpr const char *LINK_PLACES[] = {"link: no entry", "link: SLIP", "send: in a tunnel"};
constexpr const char *COUNTED_PLACES[] = {"IP: others'", "ICMP: error to a server",
                                          "fragment: held"};
constexpr const char *OTHERS_ICMP = "IP: others' ICMP";
constexpr const char *ALL_NODES = "IPv6 neighbour: all are told whose the address is";

std::string place(const char *name, bool isv6)
{
    return isv6 ? std::string("IPv6 ") + name : name;
}

constexpr lb_u64_t COUNTING_MASK = LB_LOG_PKTERROR | LB_LOG_DISCARDED | LB_LOG_INTACT |
                                   LB_LOG_FORWARDED | LB_LOG_TCPUDP | LB_LOG_ARP | LB_LOG_NEIGH |
                                   LB_LOG_ICMP | LB_LOG_ICMPV6 | LB_LOG_IPV6 | LB_LOG_SELECT;

bool is_prefix(const bytes &part, std::size_t from, const bytes &whole)
{
    return part.size() - from <= whole.size() &&
           std::equal(part.begin() + static_cast<long>(from), part.end(), whole.begin());
}

// Whether what left is the beginning of what came, but for one hop and the header checksum, which
// is as good as it was.
bool is_hop_of(const bytes &out, const bytes &ip)
{
    const std::size_t hdrlen = static_cast<std::size_t>(ip.at(0) & 15) * 4;
    if (out.size() < hdrlen || ip.size() < hdrlen) {
        return false;
    }
    bytes expected = ip;
    expected.at(8)--;
    std::copy(out.begin() + 10, out.begin() + 12, expected.begin() + 10);
    const bool wasgood = packets::checksum(ip, 0, hdrlen) == 0;
    const bool isgood = packets::checksum(out, 0, hdrlen) == 0;
    return ip[8] > 1 && is_prefix(out, 0, expected) && (isgood || !wasgood);
}

// Whether what left is the beginning of what came, but for addresses, ports and checksums, either
// from the return address or from the cluster. A whole packet's checksums are right.
bool is_translation_of(const bytes &out, const bytes &ip)
{
    const std::size_t l4 = static_cast<std::size_t>(ip.at(0) & 15) * 4;
    if (out.size() < l4 || ip.at(9) != packets::TCP || packets::checksum(out, 0, l4) != 0 ||
        (packets::ip_at(out, 12) != RETURN && packets::ip_at(ip, 16) != RETURN)) {
        return false;
    }
    bytes expected = ip;
    std::copy(out.begin() + 10, out.begin() + 20, expected.begin() + 10);
    const std::uint16_t fragoff = packets::get16(ip, 6);
    if ((fragoff & 0x1FFF) == 0 && out.size() >= l4 + 20) {
        const auto at = static_cast<long>(l4);
        std::copy(out.begin() + at, out.begin() + at + 4, expected.begin() + at);
        std::copy(out.begin() + at + 16, out.begin() + at + 18, expected.begin() + at + 16);
    }
    const bool whole = (fragoff & 0x3FFF) == 0;
    return is_prefix(out, 0, expected) && (!whole || packets::transport_residue(out, 0) == 0);
}

bool is_tunnelled(const fake::sent_frame &out)
{
    return out.how == fake::via::raw4 && out.protocol != 1;
}

// Whether a packet of this host's sends the packet that came on to a server or a client.
bool is_sent_as(const fake::sent_frame &out, const bytes &ip)
{
    if (is_ipv6(ip)) {
        const bytes packet(out.bytes.begin() + (out.has_eth ? ETH : 0), out.bytes.end());
        const bool linked = out.how == fake::via::packet;
        return (linked || out.how == fake::via::tun) &&
               (is_hop_of6(packet, ip) || is_same_as6(packet, ip) ||
                (linked && is_translation_of6(packet, ip)));
    }
    if (is_tunnelled(out)) {
        const bytes gre = {0, 0, 8, 0};
        const std::size_t header = out.protocol == 47 ? gre.size() : 0;
        return out.bytes.size() >= header + 20 &&
               std::equal(gre.begin(), gre.begin() + static_cast<long>(header),
                          out.bytes.begin()) &&
               is_prefix(out.bytes, header, ip);
    }
    const bytes packet(out.bytes.begin() + (out.has_eth ? ETH : 0), out.bytes.end());
    return ip.size() >= 20 && packet.size() >= 20 &&
           (is_hop_of(packet, ip) ||
            (out.how == fake::via::packet && is_translation_of(packet, ip)) ||
            (ip[9] != packets::TCP && is_prefix(packet, 0, ip))); // NAT leaves these as they are
}

bool is_icmp_error(const fake::sent_frame &out)
{
    return out.how == fake::via::raw6 || (out.how == fake::via::raw4 && out.protocol == 1);
}

// Whether an ICMP error quotes the packet.
bool is_about(const fake::sent_frame &out, const bytes &ip)
{
    if (is_ipv6(ip)) {
        return is_error_about6(out, ip);
    }
    return out.how == fake::via::raw4 && out.protocol == 1 && out.bytes.size() > ICMP_HEADER &&
           is_prefix(out.bytes, ICMP_HEADER, ip);
}

} // namespace

const std::vector<std::string> FRAME_PLACES = [] {
    std::vector<std::string> places(std::begin(LINK_PLACES), std::end(LINK_PLACES));
    places.insert(places.end(), {OTHERS_ICMP, ALL_NODES});
    for (const bool isv6 : {false, true}) {
        for (const char *name : COUNTED_PLACES) {
            places.push_back(place(name, isv6));
        }
        for (const label &l : LABELS) {
            if ((l.versions & (isv6 ? V6 : V4)) != 0) {
                places.push_back(place(l.place, isv6));
            }
        }
    }
    return places;
}();

frame_feeder::frame_feeder(bool count) : counting_(count)
{
    lbfrag_setbudget(HELD_FRAMES * LBFRAG_HELDCHARGE);
    if (count) {
        fake::log_discard(false);
        lb_poke(lbexecutor->setable.log_mask, COUNTING_MASK);
    }
}

void frame_feeder::feed(const bytes &frame, fake::link link)
{
    const int rc = worker_.receive(frame, link);
    bytes received(frame.begin(), frame.begin() + std::min<long>(static_cast<long>(frame.size()),
                                                                 fake::frame::CAPACITY));
    if (rc == LB_PACKETRC_HELD) {
        require(worker_.buffer() == nullptr, "a held buffer is still the worker's");
        held_.emplace_back(received.begin() + (link == fake::link::slip ? 0 : ETH), received.end());
    } else {
        const bool consumed = rc == LB_PACKETRC_CONSUMED;
        const fake::frame &buffer = *worker_.buffer();
        require(buffer.frees() == (consumed ? 1 : 0), "the buffer was not freed exactly once");
        require(consumed || std::equal(received.begin(), received.end(), buffer.bytes()),
                "a frame that is the host's was changed");
    }
    check_sent(received, link);
    world::require_unharmed();
    if (counting_) {
        count(rc, link,
              link != fake::link::slip && received.size() >= ETH &&
                  packets::get16(received, 12) == ETH_IPV6);
    }
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

void frame_feeder::check_sent(const bytes &frame, fake::link link)
{
    auto sent = fake::take_sent();
    if (!sent.empty()) {
        // The packet itself is the last one; those that waited for it go before, and an error about
        // one that goes all the same.
        const fake::sent_frame last = sent.back();
        sent.pop_back();
        const std::size_t header = std::min(frame.size(), link == fake::link::slip ? 0 : ETH);
        const bytes ip(frame.begin() + static_cast<long>(header), frame.end());
        for (const fake::sent_frame &out : sent) {
            places_["send: in a tunnel"] += is_tunnelled(out) ? 1 : 0;
            require(was_held(out) || is_about(out, ip),
                    "sent besides the packet and those that waited for it");
        }
        places_["send: in a tunnel"] += is_tunnelled(last) ? 1 : 0;
        if (!was_held(last)) { // or the packet could not go on itself
            check_one(frame, link, last);
        }
    }
    if (fake::held_frames() == 0) {
        held_.clear();
    }
}

void frame_feeder::check_one(const bytes &frame, fake::link link, const fake::sent_frame &out)
{
    const std::size_t header = link == fake::link::slip ? 0 : ETH;
    require(frame.size() >= header, "something was sent for a frame without a link header");
    const bytes ip(frame.begin() + static_cast<long>(header), frame.end());
    if (is_tunnelled(out) || out.how == fake::via::tun) {
        require(is_sent_as(out, ip), "the packet was changed on its way");
        return;
    }
    if (out.how == fake::via::raw6) {
        require(is_error_about6(out, ip), "an ICMPv6 error about something else");
        return;
    }
    if (out.how == fake::via::raw4) {
        check_answer(ip, out.bytes);
        return;
    }
    require(out.how == fake::via::packet, "sent by a way that no frame takes");
    if (header != 0 && packets::get16(frame, 12) == ETH_ARP) {
        require(out.bytes.size() == ARP_FRAME && out.bytes.size() <= frame.size(),
                "an ARP answer of the wrong length");
        return;
    }
    if (is_advertisement_for(out, ip)) {
        places_[ALL_NODES] += (out.bytes[0] & 1) != 0 ? 1 : 0;
        return;
    }
    const std::size_t outheader = out.has_eth ? ETH : 0;
    require(out.bytes.size() >= outheader + 20, "half a packet was sent");
    require(out.bytes.size() - outheader <= ip.size(), "sent longer than it came");
    require(!out.has_eth || packets::get16(out.bytes, 12) == (is_ipv6(ip) ? ETH_IPV6 : ETH_IPV4),
            "the type is another version's");
    require(is_sent_as(out, ip), "the packet was changed on its way");
}

// An ICMP error quotes the packet as it came and goes to who sent it.
void frame_feeder::check_answer(const bytes &ip, const bytes &message)
{
    require(message.size() > ICMP_HEADER, "an ICMP error that quotes nothing");
    require(is_prefix(message, ICMP_HEADER, ip), "an ICMP error quotes something else");
    require(packets::checksum(message, 0, message.size()) == 0, "a wrong ICMP checksum");
}

void frame_feeder::count(int rc, fake::link link, bool isv6)
{
    places_["link: no entry"] += rc == fake::NOT_DISPATCHED ? 1 : 0;
    places_["link: SLIP"] += link == fake::link::slip ? 1 : 0;
    places_[place("fragment: held", isv6)] += rc == LB_PACKETRC_HELD ? 1 : 0;
    for (const std::string &line : fake::log_lines()) {
        for (const label &l : LABELS) {
            if ((l.versions & (isv6 ? V6 : V4)) != 0 && line.find(l.text) != std::string::npos) {
                places_[place(l.place, isv6)]++;
            }
        }
    }
    const lbexe_getable_t &stats = lbexecutor->getable;
    const lb_u32_t others = lb_peek(stats.icmpstats.notforus);
    places_[OTHERS_ICMP] = others;
    places_["IP: others'"] = lb_peek(stats.ipv4stats.notforus) - others;
    places_["IPv6 IP: others'"] = lb_peek(stats.ipv6stats.notforus);
    const char *const echo = "ICMP: echo to a server";
    places_["ICMP: error to a server"] = lb_peek(stats.icmpstats.fwd) - places_[place(echo, false)];
    places_["IPv6 ICMP: error to a server"] =
        lb_peek(stats.icmpv6stats.fwd) - places_[place(echo, true)];
    fake::log_clear();
}

void run_frames(world &stack, const std::uint8_t *data, std::size_t size)
{
    frame_feeder feeder(false);
    std::size_t at = 0;
    while (size - at >= 3) {
        const std::uint8_t control = data[at];
        const std::size_t wanted = static_cast<std::size_t>(data[at + 1] << 8 | data[at + 2]);
        at += 3;
        if ((control & 3) == 3) {
            fake::advance_ms(static_cast<std::int64_t>(wanted) * 100);
            (void)lb_timer_entry();
            (void)fake::take_sent();
            continue;
        }
        const std::size_t len = std::min(wanted, size - at);
        bytes frame(data + at, data + at + len);
        at += len;
        const fake::link link = (control & 3) == 2 ? fake::link::slip : fake::link::ethernet;
        if ((control & 4) != 0) {
            mend_checksums(frame, link);
        }
        feeder.feed(frame, link);
    }
    // The next input knows nothing of what this one's fragments left behind.
    fake::advance_s(2 * static_cast<std::int64_t>(LBFRAG_TIMEOUT_S));
    (void)lb_timer_entry();
    require(fake::held_frames() == 0, "a fragment was held too long");
    stack.require_forwarding();
}

bytes frame_record(const bytes &frame, fake::link link)
{
    const bool slip = link == fake::link::slip;
    const bytes content(frame.begin() + (slip ? packets::ETH : 0), frame.end());
    bytes out(3 + content.size());
    out[0] = slip ? 6 : 4;
    packets::put16(out, 1, static_cast<std::uint16_t>(content.size()));
    packets::set_at(out, 3, content);
    return out;
}

void mend_checksums(bytes &frame, fake::link link)
{
    const std::size_t ip = link == fake::link::slip ? 0 : ETH;
    if (ip != 0 && frame.size() > ip && packets::get16(frame, 12) == ETH_IPV6) {
        bytes packet(frame.begin() + ETH, frame.end());
        mend_checksum6(packet);
        std::copy(packet.begin(), packet.end(), frame.begin() + ETH);
        return;
    }
    if (frame.size() < ip + 20 || (ip != 0 && packets::get16(frame, 12) != ETH_IPV4)) {
        return;
    }
    const std::size_t hdrlen = static_cast<std::size_t>(frame[ip] & 15) * 4;
    if (hdrlen < 20 || ip + hdrlen > frame.size()) {
        return;
    }
    packets::mend_ip(frame, ip);
    const std::uint8_t proto = frame[ip + 9];
    const std::size_t end = ip + packets::get16(frame, ip + 2);
    const std::size_t transport = proto == packets::TCP ? 20 : 8;
    if ((proto == packets::TCP || proto == packets::UDP) && end <= frame.size() &&
        end >= ip + hdrlen + transport) {
        packets::mend_transport(frame, ip);
    }
    if (proto == 1 && end <= frame.size() && end >= ip + hdrlen + ICMP_HEADER) {
        packets::mend_icmp(frame, ip);
    }
}

} // namespace fuzz
