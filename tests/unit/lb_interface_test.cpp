#include "lb_interface.h"
#include "lb_ip.h"
#include "lb_utils.h"

#include "stack_fixture.h"

namespace
{

using stack::ifacekey;
using stack::ip;

class InterfaceTest : public StackTest
{
  protected:
    // The interface over which the address is reached, and our address there that speaks to it.
    static std::string way_to(const std::string &text)
    {
        lbip_addr_t to = ip(text);
        lbifin_obj_t *ifin = lbifcol_selectbyip(&to);
        if (ifin == nullptr) {
            return "";
        }
        const lbip_addr_t *near = lbifin_getsrcip(ifin, &to);
        const lbip_addr_t *src = near != nullptr ? near : lbifin_getsrcp2pip(ifin, &to);
        const auto *b = src->nboaddr.v4;
        return ifin->cmdobj.key.iface.name + (" " + packets::to_text({b[0], b[1], b[2], b[3]}));
    }
};

TEST_F(InterfaceTest, SelectsFarEndBeforeSubnetAndFirstOfEach)
{
    const struct {
        const char *name, *addr, *peer;
    } addresses[] = {
        {"wide", "10.0.0.1/8", ""},
        {"wide", "10.0.2.1/24", ""},
        {"near", "10.0.1.1/24", ""},
        {"ptp", "192.168.0.1/32", "10.0.1.9"},
        {"ptp", "192.168.1.1/24", ""},
        {"ptp2", "192.168.2.1/24", ""},
        {"ptp2", "192.168.0.2/32", "10.0.1.9"},
        {"near", "172.16.0.1", ""},
    };
    for (const char *name : {"wide", "near", "ptp", "ptp2"}) {
        ASSERT_ADDED(add_interface(name));
    }
    for (const auto &a : addresses) {
        ASSERT_ADDED(add_ifaddr(a.name, a.addr, a.peer));
    }
    const struct {
        const char *to;
        const char *way;
    } rows[] = {
        {"10.0.2.7", "wide 10.0.0.1"},      // the first subnet that matches, not the narrowest
        {"10.0.1.9", "ptp 192.168.0.1"},    // a far end beats subnets, and the first the second
        {"192.168.0.1", "ptp 192.168.0.1"}, // its own address is its subnet
        {"192.168.1.7", "ptp 192.168.1.1"}, // and not the first address
        {"172.16.0.1", ""},                 // without a prefix there is no subnet
        {"11.0.0.1", ""},
        {"2001:db8::1", ""},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(way_to(row.to), row.way) << row.to;
    }
    // A SET of the far end moves it.
    EXPECT_EQ(set(LBCMD_KEYTYPE_IFACE, ifacekey("ptp", "192.168.0.1"), lbifaddr_setable_t{}), 1);
    EXPECT_EQ(way_to("10.0.1.9"), "ptp2 192.168.0.2");
}

TEST_F(InterfaceTest, HostIsToldOfUpTo51Interfaces)
{
    for (int i = 1; i <= 52; i++) {
        ASSERT_ADDED(add_interface("eth" + std::to_string(i), stack::ethernet(3)));
    }
    const std::string full(LBIFACE_NAMELEN, 'n'); // no NUL in the key; the host wants 15 at most
    ASSERT_ADDED(add_interface(full));
    EXPECT_EQ(rm_interface(full), LBCMD_RC_SUCCESS);
    const auto events = fake::iface_events();
    ASSERT_EQ(events.size(), 54U);
    EXPECT_EQ(events[0].interfaces, 1);
    EXPECT_EQ(events[50].interfaces, 51);
    EXPECT_EQ(events[51].interfaces, 51);
    EXPECT_EQ(events[52].ifname, full.substr(0, 16));
    EXPECT_FALSE(events[53].added);
}

} // namespace
