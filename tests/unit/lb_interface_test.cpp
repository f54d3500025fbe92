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
    std::string reachable_on(const std::string &text)
    {
        lbip_addr_t addr = ip(text);
        const lbifin_obj_t *ifin = lbifcol_selectbyip(&addr);
        return ifin != nullptr ? ifin->cmdobj.key.iface.name : "null";
    }

    lbifin_obj_t *interface(const std::string &name)
    {
        lbcmd_key_t key = ifacekey(name);
        return reinterpret_cast<lbifin_obj_t *>(lbcmd_lookup(LBCMD_KEYTYPE_IFACE, &key));
    }
};

TEST_F(InterfaceTest, SelectsFarEndBeforeSubnetAndFirstOfEach)
{
    ASSERT_ADDED(add_interface("wide", stack::ethernet(1)));
    ASSERT_ADDED(add_ifaddr("wide", "10.0.0.1/8"));
    ASSERT_ADDED(add_interface("near", stack::ethernet(2)));
    ASSERT_ADDED(add_ifaddr("near", "10.0.1.1/24"));
    ASSERT_ADDED(add_interface("ptp", stack::ethernet(3)));
    ASSERT_ADDED(add_ifaddr("ptp", "192.168.0.1/32", "10.0.1.9"));
    ASSERT_ADDED(add_interface("ptp2", stack::ethernet(4)));
    ASSERT_ADDED(add_ifaddr("ptp2", "192.168.0.2/32", "10.0.1.9"));
    ASSERT_ADDED(add_interface("noprefix", stack::ethernet(5)));
    ASSERT_ADDED(add_ifaddr("noprefix", "172.16.0.1"));
    const struct {
        const char *addr;
        const char *name;
    } rows[] = {
        {"10.0.1.7", "wide"}, // the first subnet that matches, not the narrowest
        {"10.0.1.9", "ptp"},  // a far end beats both subnets, and the first beats the second
        {"11.0.0.1", "null"},    {"192.168.0.1", "ptp"}, // its own address is its subnet
        {"172.16.0.1", "null"},                          // without a prefix there is no subnet
        {"2001:db8::1", "null"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(reachable_on(row.addr), row.name) << row.addr;
    }
    // A SET of the far end moves it.
    EXPECT_EQ(set(LBCMD_KEYTYPE_IFACE, ifacekey("ptp", "192.168.0.1"), lbifaddr_setable_t{}), 1);
    EXPECT_EQ(reachable_on("10.0.1.9"), "ptp2");
}

TEST_F(InterfaceTest, SourceIsTheAddressWhoseSubnetOrFarEndMatches)
{
    ASSERT_ADDED(add_interface("eth0"));
    ASSERT_ADDED(add_ifaddr("eth0", "10.0.0.1/24"));
    ASSERT_ADDED(add_ifaddr("eth0", "10.0.1.1/24", "10.9.9.9"));
    ASSERT_ADDED(add_ifaddr("eth0", "10.0.1.2/16"));
    const struct {
        const char *to;
        const char *subnet; // "" for none
        const char *farend;
    } rows[] = {
        {"10.0.0.9", "10.0.0.1", ""},
        {"10.0.1.9", "10.0.1.1", ""},
        {"10.0.2.9", "10.0.1.2", ""},
        {"10.9.9.9", "", "10.0.1.1"},
    };
    for (const auto &row : rows) {
        lbip_addr_t to = ip(row.to);
        const auto text = [](const lbip_addr_t *addr) {
            const auto *b = addr != nullptr ? addr->nboaddr.v4 : nullptr;
            return b != nullptr ? packets::to_text({b[0], b[1], b[2], b[3]}) : "";
        };
        EXPECT_EQ(text(lbifin_getsrcip(interface("eth0"), &to)), row.subnet) << row.to;
        EXPECT_EQ(text(lbifin_getsrcp2pip(interface("eth0"), &to)), row.farend) << row.to;
    }
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
