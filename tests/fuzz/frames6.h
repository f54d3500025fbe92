// What may be sent for an IPv6 packet, judged by its bytes alone. A packet is given from its IPv6
// header on, whatever it claims about its length.
#pragma once

#include "fake_host.h"
#include "world.h"

namespace fuzz
{

[[nodiscard]] bool is_ipv6(const bytes &ip);

// Whether `out`, from its IPv6 header on, is the packet one hop later, or the packet as it goes to
// a NAT server or comes from one, or, but for TCP, the packet as it came.
[[nodiscard]] bool is_hop_of6(const bytes &out, const bytes &ip);
[[nodiscard]] bool is_translation_of6(const bytes &out, const bytes &ip);
[[nodiscard]] bool is_same_as6(const bytes &out, const bytes &ip);
// Whether it is an ICMPv6 error that quotes the packet and goes to who sent it.
[[nodiscard]] bool is_error_about6(const fake::sent_frame &out, const bytes &ip);
// Whether it is an advertisement that answers the packet, which is a solicitation.
[[nodiscard]] bool is_advertisement_for(const fake::sent_frame &out, const bytes &ip);

// Computes the TCP, UDP or ICMPv6 checksum anew where one can be.
void mend_checksum6(bytes &ip);

} // namespace fuzz
