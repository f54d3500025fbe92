// Fragmented UDP datagrams: made as clients send them, and put together again from what was sent to
// the servers. Knows nothing of the stack.
#pragma once

#include <gtest/gtest.h>
#include <map>
#include <string>
#include <utility>

#include "fake_host.h"
#include "packets.h"

namespace datagrams
{

using packets::bytes;

// A whole datagram, in one frame that no link would take. Every one has other bytes.
inline bytes whole(const std::string &src, std::uint16_t id, std::size_t payload = 8192,
                   std::uint16_t dport = 80)
{
    bytes frame = packets::build({.src = src,
                                  .sport = static_cast<std::uint16_t>(20000 + id % 40000),
                                  .dport = dport,
                                  .proto = packets::UDP,
                                  .id = id,
                                  .payload = payload});
    for (std::size_t i = packets::upper_of(frame).at + 8; i < frame.size(); i++) {
        frame[i] = static_cast<std::uint8_t>(i * 7 + id * 31U + frame[packets::ETH + 15] + i / 256);
    }
    packets::mend_transport(frame);
    return frame;
}

// What the servers were sent, by source and identification.
class receiver
{
  public:
    // Notes the frames; a piece that came before, or went to another server, is a failure.
    void take(const std::vector<fake::sent_frame> &sent)
    {
        for (const fake::sent_frame &frame : sent) {
            const bytes &b = frame.bytes;
            if (packets::get16(b, 12) == 0x0806 || packets::upper_of(b).proto != packets::UDP) {
                continue;
            }
            const packets::piece piece = packets::piece_of(b);
            auto &[server, pieces] = got_[{packets::src_of(b), piece.id}];
            if (!pieces.empty()) {
                EXPECT_EQ(server, packets::mac_at(b, 0)) << "pieces went to two servers";
            }
            server = packets::mac_at(b, 0);
            EXPECT_TRUE(
                pieces.emplace(piece.offset, packets::part(b, piece.begin, b.size())).second)
                << "the piece at " << piece.offset << " came twice";
        }
    }
    // Whether all of the datagram has come, byte by byte. One of IPv6 has the identification that
    // it was cut with.
    [[nodiscard]] bool has(const bytes &datagram, std::uint32_t id6 = 0) const
    {
        const std::uint32_t id = id6 != 0 ? id6 : packets::piece_of(datagram).id;
        const auto found = got_.find({packets::src_of(datagram), id});
        if (found == got_.end()) {
            return false;
        }
        bytes body;
        for (const auto &[at, piece] : found->second.second) {
            body.resize(at); // a gap stays zero
            body.insert(body.end(), piece.begin(), piece.end());
        }
        return body == packets::part(datagram, packets::upper_of(datagram).at, datagram.size());
    }
    [[nodiscard]] std::size_t pieces() const
    {
        std::size_t count = 0;
        for (const auto &each : got_) {
            count += each.second.second.size();
        }
        return count;
    }

  private:
    using delivery = std::pair<packets::mac, std::map<std::size_t, bytes>>;
    std::map<std::pair<std::string, std::uint32_t>, delivery> got_;
};

} // namespace datagrams
