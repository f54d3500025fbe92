#include "lb_config.h"

#include "stack_fixture.h"

namespace
{

using stack::cfgkey;

using ConfigTest = StackTest;

constexpr const char *C = "10.0.0.100";
constexpr const char *S = "10.0.0.11";

TEST_F(ConfigTest, ChildrenAreDirectOnes)
{
    const struct {
        const char *name;
        lbcmd_key_t parent;
        lbcmd_key_t child;
        bool ischild;
    } rows[] = {
        {"executor - cluster", cfgkey(), cfgkey(C), true},
        {"executor - heartbeat", cfgkey(), cfgkey(C, 0, S), true},
        {"executor - port", cfgkey(), cfgkey(C, 80), false},
        {"executor - itself", cfgkey(), cfgkey(), false},
        {"cluster - port", cfgkey(C), cfgkey(C, 80), true},
        {"cluster - other's port", cfgkey(C), cfgkey("10.0.0.101", 80), false},
        {"cluster - server", cfgkey(C), cfgkey(C, 80, S), false},
        {"cluster - its heartbeat", cfgkey(C), cfgkey(C, 0, S), false},
        {"port - server", cfgkey(C, 80), cfgkey(C, 80, S), true},
        {"port - other's server", cfgkey(C, 80), cfgkey(C, 81, S), false},
        {"port - rule", cfgkey(C, 80), cfgkey(C, 80, "", 7), true},
        {"port - use-server", cfgkey(C, 80), cfgkey(C, 80, S, 7), false},
        {"rule - use-server", cfgkey(C, 80, "", 7), cfgkey(C, 80, S, 7), true},
        {"rule - other's use-server", cfgkey(C, 80, "", 8), cfgkey(C, 80, S, 7), false},
        {"server - use-server", cfgkey(C, 80, S), cfgkey(C, 80, S, 7), true},
        {"server - other's use-server", cfgkey(C, 80, "10.0.0.12"), cfgkey(C, 80, S, 7), false},
        {"use-server - anything", cfgkey(C, 80, S, 7), cfgkey(C, 80, S, 7), false},
    };
    for (const auto &row : rows) {
        lbcmd_objhdr_t obj{};
        obj.key = row.child;
        lbcmd_key_t parent = row.parent;
        const int rc = cmdfuncs[LBCMD_KEYTYPE_CONFIG].llchildfilter(&parent, &obj);
        EXPECT_EQ(rc, row.ischild ? LBLL_FILTER_YES : 0) << row.name;
    }
}

} // namespace
