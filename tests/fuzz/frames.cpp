// See frames.h. One thread.
#include "frames.h"

#include "lb_entry.h"
#include "lb_executor.h"
#include "lb_fragment.h"
#include "lb_log.h"

#include <algorithm>

#include "fake_host.h"
#include "packets.h"

namespace fuzz
{

namespace
{

constexpr std::size_t ETH = packets::ETH;
constexpr int ETH_IPV4 = 0x0800;
constexpr int ETH_ARP = 0x0806;
constexpr std::size_t ARP_FRAME = 42;
constexpr std::size_t ICMP_HEADER = 8;
constexpr lb_u64_t HELD_FRAMES = 16; // so few that some find no room

// What a line of the log says about the way of a frame.
struct label {
    const char *text;
    const char *place;
};
constexpr label LABELS[] = {
    {"arp_entry packet too small", "ARP: too short"},
    {"arp_entry not ether", "ARP: other hardware or protocol"},
    {"arp_entry hwlen", "ARP: other hardware length"},
    {"arp_entry OP", "ARP: other operation"},
    {"neigh update on reply", "ARP: reply of a neighbour"},
    {"request is for a *target*", "ARP: request of a neighbour"},
    {"not in neigh table", "ARP: reply of a stranger"},
    {"request for a *cluster*", "ARP: request for the cluster"},
    {"request not for cluster", "ARP: request for others"},
    {"no station's", "ARP: group address not learnt"},
    {"dIP sP:dP ERROR badinput", "IPv4: bad header"},
    {"10.0.0.100 sP:dP ERROR badinput", "ICMP: for the cluster, can't be read"},
    {"10.0.0.1 sP:dP ERROR badinput", "ICMP: about a tunnel, can't be read"},
    {"icmp-unhandled-type", "ICMP: other type"},
    {"this is not the first fragment", "ICMP: quotes a later fragment"},
    {"icmp-no-port-match", "ICMP: quotes an unknown port"},
    {"no-existing-record", "ICMP: quotes no connection"},
    {"icmp-no-servers", "ICMP: echo, no server"},
    {"icmp-fwd", "ICMP: echo to a server"},
    {"reset server encapmtu", "ICMP: about a tunnel, too long"},
    {"server marked as unreachable", "ICMP: about a tunnel, unreachable"},
    {"badip4chksum", "IPv4: bad checksum"},
    {"frag-discard-norecord", "fragment: no room to hold it"},
    {"frag-fwd", "fragment: after its first"},
    {"forward-saved-frag", "fragment: held until its first"},
    {"DISCARD proto", "IP: other protocol for the cluster"},
    {"pullup failed", "TCP/UDP: header incomplete"},
    {"not a lb port", "TCP/UDP: unknown port"},
    {"no connection table", "choose: no table"},
    {"no affinity table", "choose: no table"},
    {"no connection or affinity table", "choose: no table"},
    {"hash-no-servers", "choose: no server"},
    {"hash-fwd", "choose: a server"},
    {"send-failure", "send: total length or route"},
    {"forwarded packet success", "send: forwarded"},
    {"Collocated forwarded packet success", "send: to this host"},
    {"got nat port", "NAT: a connection"},
    {"NAT return : copying hw address", "NAT: an answer"},
    {"CR not found in NAT return path", "NAT: an answer to nobody"},
    {"nat-return-badinput", "NAT: an answer that can't be read"},
    {"time exceeded packet sent", "send: time exceeded"},
    {"Destination unreachable packet", "send: too long for the link"},
};

constexpr lb_u64_t COUNTING_MASK = LB_LOG_PKTERROR | LB_LOG_DISCARDED | LB_LOG_INTACT |
                                   LB_LOG_FORWARDED | LB_LOG_TCPUDP | LB_LOG_ARP | LB_LOG_NEIGH |
                                   LB_LOG_ICMP | LB_LOG_SELECT;

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

// Whether an ICMP error quotes the packet.
bool is_about(const fake::sent_frame &out, const bytes &ip)
{
    return out.how == fake::via::raw4 && out.protocol == 1 && out.bytes.size() > ICMP_HEADER &&
           is_prefix(out.bytes, ICMP_HEADER, ip);
}

} // namespace

const std::vector<std::string> FRAME_PLACES = [] {
    std::vector<std::string> places = {"link: no entry",   "link: IPv6",
                                       "link: SLIP",       "IP: others'",
                                       "IP: others' ICMP", "ICMP: error to a server",
                                       "fragment: held",   "send: in a tunnel"};
    for (const label &l : LABELS) {
        places.emplace_back(l.place);
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
        count(rc, link);
    }
}

// A packet that was held before and is sent now, each once. (One that was given up stays noted
// until none is held.)
bool frame_feeder::was_held(const fake::sent_frame &out)
{
    if (out.how == fake::via::raw4 && out.protocol == 1) {
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
    const std::size_t outheader = out.has_eth ? ETH : 0;
    require(out.bytes.size() >= outheader + 20, "half a packet was sent");
    require(out.bytes.size() - outheader <= ip.size(), "sent longer than it came");
    require(!out.has_eth || packets::get16(out.bytes, 12) == ETH_IPV4, "the type was changed");
    require(is_sent_as(out, ip), "the packet was changed on its way");
}

// An ICMP error quotes the packet as it came and goes to who sent it.
void frame_feeder::check_answer(const bytes &ip, const bytes &message)
{
    require(message.size() > ICMP_HEADER, "an ICMP error that quotes nothing");
    require(is_prefix(message, ICMP_HEADER, ip), "an ICMP error quotes something else");
    require(packets::checksum(message, 0, message.size()) == 0, "a wrong ICMP checksum");
}

void frame_feeder::count(int rc, fake::link link)
{
    places_["link: no entry"] += rc == fake::NOT_DISPATCHED ? 1 : 0;
    places_["fragment: held"] += rc == LB_PACKETRC_HELD ? 1 : 0;
    places_["link: SLIP"] += link == fake::link::slip ? 1 : 0;
    places_["link: IPv6"] = lb_peek(lbexecutor->getable.ipv6stats.in);
    places_["IP: others'"] = lb_peek(lbexecutor->getable.ipv4stats.notforus) -
                             lb_peek(lbexecutor->getable.icmpstats.notforus);
    places_["IP: others' ICMP"] = lb_peek(lbexecutor->getable.icmpstats.notforus);
    for (const std::string &line : fake::log_lines()) {
        for (const label &l : LABELS) {
            places_[l.place] += line.find(l.text) != std::string::npos ? 1 : 0;
        }
    }
    places_["ICMP: error to a server"] =
        lb_peek(lbexecutor->getable.icmpstats.fwd) - places_["ICMP: echo to a server"];
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
