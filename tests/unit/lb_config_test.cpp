#include "lb_config.h"

#include "stack_fixture.h"

namespace
{

using stack::cfgkey;

class ConfigTest : public StackTest
{
};

constexpr const char *C = "10.0.0.100";
constexpr const char *S = "10.0.0.11";

TEST_F(ConfigTest, KindFollowsFromTheFieldsThatAreSet)
{
    const struct {
        const char *cluster;
        lb_u16_t port;
        lb_u16_t rule;
        const char *server;
        _lbcfg_keytype_e kind;
    } rows[] = {
        {"", 0, 0, "", LBCFG_KEYTYPE_EXECUTOR}, {C, 0, 0, "", LBCFG_KEYTYPE_CLUSTER},
        {C, 80, 0, "", LBCFG_KEYTYPE_PORT},     {C, 80, 1, "", LBCFG_KEYTYPE_RULE},
        {C, 80, 0, S, LBCFG_KEYTYPE_SERVER},    {C, 80, 1, S, LBCFG_KEYTYPE_USESERVER},
        {C, 0, 0, S, LBCFG_KEYTYPE_HEARTBEAT},  {C, 0, 1, "", LBCFG_KEYTYPE_UNKNOWN},
        {C, 0, 1, S, LBCFG_KEYTYPE_UNKNOWN},    {"", 80, 0, "", LBCFG_KEYTYPE_UNKNOWN},
        {"", 0, 1, "", LBCFG_KEYTYPE_UNKNOWN},  {"", 0, 0, S, LBCFG_KEYTYPE_UNKNOWN},
        {"", 80, 1, S, LBCFG_KEYTYPE_UNKNOWN},
    };
    for (const auto &row : rows) {
        const lbcmd_key_t key = cfgkey(row.cluster, row.port, row.server, row.rule);
        EXPECT_EQ(_lbcfg_keytype(&key.cfg), row.kind)
            << row.cluster << "/" << row.port << "/" << row.rule << "/" << row.server;
    }
}

TEST_F(ConfigTest, ParentIsTheKeyWithoutItsOwnFields)
{
    const struct {
        const char *name;
        lbcmd_key_t key;
        lbcmd_key_t parent;
    } rows[] = {
        {"cluster", cfgkey(C), cfgkey()},
        {"heartbeat", cfgkey(C, 0, S), cfgkey()},
        {"port", cfgkey(C, 80), cfgkey(C)},
        {"server", cfgkey(C, 80, S), cfgkey(C, 80)},
        {"rule", cfgkey(C, 80, "", 7), cfgkey(C, 80)},
        {"use-server", cfgkey(C, 80, S, 7), cfgkey(C, 80, "", 7)},
        {"nonsense", cfgkey(C, 0, "", 7), cfgkey("", 0, "", 7)},
    };
    for (const auto &row : rows) {
        prepare(LBCMD_ACTION_ADD, LBCMD_KEYTYPE_CONFIG, row.key);
        lbcmd_key_t parent = row.key;
        EXPECT_EQ(cmdfuncs[LBCMD_KEYTYPE_CONFIG].calcparent(&buffer(), &parent), 0) << row.name;
        EXPECT_EQ(std::memcmp(&parent, &row.parent, sizeof(parent)), 0) << row.name;
    }
    prepare(LBCMD_ACTION_ADD, LBCMD_KEYTYPE_CONFIG, cfgkey());
    lbcmd_key_t parent{};
    EXPECT_NE(cmdfuncs[LBCMD_KEYTYPE_CONFIG].calcparent(&buffer(), &parent), 0);
    EXPECT_EQ(buffer().hdr.answer_rc, LBCMD_RC_NOPARENT);
}

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

TEST_F(ConfigTest, KeysAreEqualByAddressPortAndRuleAlone)
{
    const lbcmd_func_t &row = cmdfuncs[LBCMD_KEYTYPE_CONFIG];
    lbcmd_objhdr_t obj{};
    obj.key = cfgkey(C, 80, S, 7);
    lbcmd_key_t key = obj.key;
    key.cfg._pad = 1;
    key.cfg.cluster.prefix = 24;
    key.cfg.server._pad[0] = 1;
    EXPECT_EQ(row.llselect(&key, &obj), 1);
    key = cfgkey("10.0.0.101", 80, S, 7);
    EXPECT_EQ(row.llselect(&key, &obj), 0);
    key = cfgkey(C, 81, S, 7);
    EXPECT_EQ(row.llselect(&key, &obj), 0);
    key = cfgkey(C, 80, S, 8);
    EXPECT_EQ(row.llselect(&key, &obj), 0);
    key = cfgkey(C, 80, "10.0.0.12", 7);
    EXPECT_EQ(row.llselect(&key, &obj), 0);
}

} // namespace
