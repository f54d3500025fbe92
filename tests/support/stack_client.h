// A client of the stack's command entry that needs no test framework: keys and blocks from texts,
// commands, the removal of whole trees, and time as the timer thread sees it. The fixtures and the
// fuzz targets both drive the stack with it. One thread.
#pragma once

#include "lb_entry.h"
#include "lb_executor.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "fake_host.h"
#include "packets.h"

namespace stack
{

using packets::bytes;

template <class T> bytes bytes_of(const T &block)
{
    const auto *p = reinterpret_cast<const std::uint8_t *>(&block);
    return {p, p + sizeof(block)};
}

// An address from its text, "" for none: "10.0.0.1", "10.0.0.1/24", "2001:db8::1".
inline lbip_addr_t ip(const std::string &text)
{
    lbip_addr_t addr{};
    if (text.empty()) {
        return addr;
    }
    const std::size_t slash = text.find('/');
    const std::string host = text.substr(0, slash);
    if (slash != std::string::npos) {
        addr.prefix = static_cast<lb_u8_t>(std::stoi(text.substr(slash + 1)));
    }
    const bool isv6 = host.find(':') != std::string::npos;
    addr.version = isv6 ? 6 : 4;
    if (inet_pton(isv6 ? AF_INET6 : AF_INET, host.c_str(), &addr.nboaddr) != 1) {
        throw std::invalid_argument("not an address: " + text);
    }
    return addr;
}

inline lbcmd_key_t cfgkey(const std::string &cluster = "", lb_u16_t port = 0,
                          const std::string &server = "", lb_u16_t rule = 0)
{
    lbcmd_key_t key{};
    key.cfg.cluster = ip(cluster);
    key.cfg.port = port;
    key.cfg.rule = rule;
    key.cfg.server = ip(server);
    return key;
}

inline lbcmd_key_t ifacekey(const std::string &name = "", const std::string &addr = "")
{
    lbcmd_key_t key{};
    std::memset(&key, 0, sizeof(key));
    std::memcpy(key.iface.name, name.data(), std::min(name.size(), std::size_t{LBIFACE_NAMELEN}));
    key.iface.addr = ip(addr);
    return key;
}

// An interface that is up, does ARP, and has a hardware address 02:00:00:00:00:`last`.
inline lbifin_setable_t ethernet(lb_u8_t last = 1, lb_u32_t mtu = 1500)
{
    lbifin_setable_t setable{};
    setable.ethaddr.b[0] = 2;
    setable.ethaddr.b[5] = last;
    setable.mtu_sys = setable.mtu_lb = mtu;
    setable.isup_sys = setable.isup_lb = setable.arp = LBIFIN_YN_YES;
    setable.loopback = setable.isPTP = LBIFIN_YN_NO;
    return setable;
}

class client
{
  public:
    // The buffer of the last command; a test may fill and send it itself.
    lbcmd_buf_t &buffer() { return *buffer_; }

    // Clears the buffer and fills it with a command.
    lbcmd_bufhdr_t &prepare(lbcmd_action_e action, lbcmd_keytype_e keytype, const lbcmd_key_t &key,
                            const bytes &add = {}, const bytes &set = {})
    {
        std::memset(buffer_.get(), 0, sizeof(*buffer_));
        lbcmd_bufhdr_t &hdr = buffer_->hdr;
        hdr.lbversion = LBCMD_VERSION;
        hdr.key = key;
        hdr.keytype = keytype;
        hdr.action = action;
        hdr.addsize = static_cast<lb_u16_t>(add.size());
        hdr.setsize = static_cast<lb_u16_t>(set.size());
        std::copy(add.begin(), add.end(), buffer_->_x);
        std::copy(set.begin(), set.end(), buffer_->_x + add.size());
        return hdr;
    }

    int send() { return lbcmd_entry(buffer_.get()); }

    int command(lbcmd_action_e action, lbcmd_keytype_e keytype, const lbcmd_key_t &key,
                const bytes &add = {}, const bytes &set = {})
    {
        prepare(action, keytype, key, add, set);
        return send();
    }

    // The children that the answer of a GET lists.
    std::vector<lbcmd_key_t> children()
    {
        const lbcmd_bufhdr_t &hdr = buffer_->hdr;
        std::vector<lbcmd_key_t> keys(hdr.listsize / sizeof(lbcmd_key_t));
        if (!keys.empty()) {
            std::memcpy(keys.data(), buffer_->_x + hdr.addsize + hdr.setsize + hdr.getsize,
                        hdr.listsize);
        }
        return keys;
    }

    // Removes what is below a key, the lowest first; again and again, as a GET lists what fits.
    void remove_below(lbcmd_keytype_e keytype, const lbcmd_key_t &key)
    {
        while (command(LBCMD_ACTION_GET, keytype, key) == LBCMD_RC_SUCCESS &&
               buffer_->hdr.listsize != 0) {
            for (const lbcmd_key_t &child : children()) {
                remove_below(keytype, child);
                if (command(LBCMD_ACTION_RM, keytype, child) != LBCMD_RC_SUCCESS) {
                    throw std::runtime_error("an object without children was not removed");
                }
            }
        }
    }
    void remove_all()
    {
        // Without a gateway; a test may have removed the executor.
        (void)command(LBCMD_ACTION_SET, LBCMD_KEYTYPE_CONFIG, cfgkey(), {},
                      bytes_of(lbexe_setable_t{}));
        remove_below(LBCMD_KEYTYPE_CONFIG, cfgkey());
        remove_below(LBCMD_KEYTYPE_IFACE, ifacekey());
    }

    // Lets time pass as the timer thread sees it: a tick every half second.
    static void tick_once()
    {
        fake::advance_ms(500);
        if (lb_timer_entry() != 0) {
            throw std::runtime_error("the timer failed");
        }
    }
    static void tick(int seconds)
    {
        for (int i = 0; i < 2 * seconds; i++) {
            tick_once();
        }
    }

  private:
    std::unique_ptr<lbcmd_buf_t> buffer_ = std::make_unique<lbcmd_buf_t>();
};

} // namespace stack
