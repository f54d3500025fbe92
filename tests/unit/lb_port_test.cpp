// What a port makes of settings that nobody gave or that cannot be.
#include "record_fixture.h"

namespace
{

using PortTest = RecordFixture;

TEST_F(PortTest, WhatIsOutOfRangeBecomesTheDefault)
{
    constexpr lb_u8_t HASH = LBSEL_ALGORIGHM_HASH, UDPRR = LBSEL_ALGORIGHM_UDPRR;
    constexpr lb_u8_t CONNECTION = LBSEL_ALGORIGHM_CONNECTION, AFFINITY = LBSEL_ALGORIGHM_AFFINITY;
    constexpr lb_u8_t BOTH = LBSEL_ALGORIGHM_CONN_AFFIN;
    struct settings_t {
        lb_u8_t tcp, udp;
        lb_u32_t stale, sticky;
        bool operator==(const settings_t &) const = default;
    };
    const struct {
        settings_t given, want;
    } rows[] = {
        {{0, 0, 9, 5}, {HASH, UDPRR, 6400, 5}},
        {{6, 6, 10, 0}, {HASH, UDPRR, 10, 0}},
        {{UDPRR, HASH, 0, 9}, {UDPRR, HASH, 6400, 9}},
        {{CONNECTION, CONNECTION, 0, 3}, {CONNECTION, CONNECTION, 6400, 3}},
        {{AFFINITY, UDPRR, 0, 0}, {AFFINITY, UDPRR, 6400, 6400}},
        {{AFFINITY, UDPRR, 77, 9}, {AFFINITY, UDPRR, 77, 77}},
        {{AFFINITY, UDPRR, 77, 10}, {AFFINITY, UDPRR, 77, 10}},
        {{BOTH, UDPRR, 77, 5}, {BOTH, UDPRR, 77, 1800}},
        {{BOTH, UDPRR, 77, 10}, {BOTH, UDPRR, 77, 10}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        lbport_setable_t setable{};
        setable.staletimeout = row.given.stale;
        setable.stickytime = row.given.sticky;
        setable.weightbound = 99;
        ASSERT_ADDED(make_port(80, row.given.tcp, 0, row.given.udp, setable));
        const stack::port_view view = get_port(C, 80);
        EXPECT_EQ((settings_t{view.addable.selectalg, view.addable.udpselectalg,
                              view.setable.staletimeout, view.setable.stickytime}),
                  row.want);
        EXPECT_EQ(view.setable.weightbound, 20U);
        EXPECT_EQ(rm_port(C, 80), LBCMD_RC_SUCCESS);
    }
}

} // namespace
