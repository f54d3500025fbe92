// Words of the command line: the library's, and what is wrong with a whole line of them.
#pragma once

#include "vellb/words.h"

namespace vellbctl
{

// A word that cannot be taken here. The usage text is added by the parser, which knows the command.
class usage_error : public vellb::bad_word
{
  public:
    explicit usage_error(const std::string &message, std::string wrong_word = "",
                         std::string usage_text = "")
        : bad_word(message, std::move(wrong_word)), usage(std::move(usage_text))
    {
    }
    std::string usage;
};

using vellb::did_you_mean;
using vellb::parse_decimal;
using vellb::seconds_text;
using vellb::take_address;
using vellb::take_address_or_none;
using vellb::take_encap_mtu;
using vellb::take_endpoint;
using vellb::take_interface;
using vellb::take_interval;
using vellb::take_mac;
using vellb::take_mask;
using vellb::take_name;
using vellb::take_number;
using vellb::take_prefix;
using vellb::take_range;
using vellb::take_seconds;
using vellb::take_socket;
using vellb::take_switch;
using vellb::take_text;

} // namespace vellbctl
