// The state machine of a pair's node by table, the moment of a takeover on the fake clock, and how
// settings are corrected.
#include "ha_fixture.h"

namespace
{

constexpr lb_u8_t SOLO = LBHA_ROLE_SOLO, PRIMARY = LBHA_ROLE_PRIMARY, BACKUP = LBHA_ROLE_BACKUP;
constexpr lb_u8_t NA = LBHA_STATE_NA, ACTIVE = LBHA_STATE_ACTIVE, STANDBY = LBHA_STATE_STANDBY;
constexpr lb_u8_t MANUAL = LBHA_TAKEOVERSTRATEGY_MANUAL;
constexpr lb_u8_t AUTOMATIC = LBHA_TAKEOVERSTRATEGY_AUTOMATIC;

class HaTest : public HaFixture
{
  protected:
    void SetUp() override
    {
        HaFixture::SetUp();
        set_executor_log_mask(LB_LOG_FAILURE | LB_LOG_EVENT);
    }
    static void set_state(lb_u8_t state) { lb_poke(lbexecutor->getable.ha.state, state); }
};

TEST_F(HaTest, SettingsAreCorrected)
{
    struct settings_t {
        lb_u8_t role, takeover, replication, manual;
        bool operator==(const settings_t &) const = default;
    };
    const struct {
        const char *name;
        lb_u8_t state; // before
        settings_t given, want;
        lb_u8_t wantstate;
    } rows[] = {
        {"all wrong", NA, {BACKUP, 0, 3, 0}, {BACKUP, MANUAL, 0, 0}, STANDBY},
        {"all right", NA, {PRIMARY, AUTOMATIC, 1, 0}, {PRIMARY, AUTOMATIC, 1, 0}, STANDBY},
        {"for ports", STANDBY, {PRIMARY, 3, 2, 0}, {PRIMARY, MANUAL, 0, 0}, STANDBY},
        {"stays active", ACTIVE, {BACKUP, MANUAL, 0, 0}, {BACKUP, MANUAL, 0, 0}, ACTIVE},
        {"takeover", STANDBY, {BACKUP, MANUAL, 0, 9}, {BACKUP, MANUAL, 0, 0}, ACTIVE},
        {"alone", ACTIVE, {SOLO, MANUAL, 1, 1}, {SOLO, 3, 0, 1}, NA},
        {"no such role", STANDBY, {7, AUTOMATIC, 1, 0}, {SOLO, 3, 0, 0}, NA},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        set_state(row.state);
        fake::log_clear();
        EXPECT_EQ(set_executor([&](lbexe_setable_t &set) {
                      set.ha.role = row.given.role;
                      set.ha.tostrategy = row.given.takeover;
                      set.ha.repstrategy = row.given.replication;
                      set.ha.manualtakeover = row.given.manual;
                      set.ha.timeout = 9;
                  }),
                  LBCMD_RC_SUCCESS);
        const stack::executor_view view = get_executor();
        const auto &ha = view.setable.ha;
        EXPECT_EQ((settings_t{ha.role, ha.tostrategy, ha.repstrategy, ha.manualtakeover}),
                  row.want);
        EXPECT_EQ(ha.timeout, 9);
        EXPECT_EQ(view.getable.ha.state, row.wantstate);
        EXPECT_EQ(fake::log_count("Manual takeover issueed"),
                  row.given.manual != row.want.manual ? 1 : 0);
    }
}

TEST_F(HaTest, RulesOfAHeartbeat)
{
    const struct {
        const char *name;
        lb_u8_t role, strategy, state, partner, score; // own reach score: 5
        lb_u8_t want;
    } rows[] = {
        {"both active", PRIMARY, MANUAL, ACTIVE, ACTIVE, 5, STANDBY},
        {"active, although worse", BACKUP, AUTOMATIC, ACTIVE, STANDBY, 6, ACTIVE},
        {"a better backup", BACKUP, MANUAL, STANDBY, ACTIVE, 4, ACTIVE},
        {"both standby, primary", PRIMARY, MANUAL, STANDBY, STANDBY, 5, ACTIVE},
        {"both standby, primary but worse", PRIMARY, MANUAL, STANDBY, STANDBY, 6, ACTIVE},
        {"both standby, backup", BACKUP, AUTOMATIC, STANDBY, STANDBY, 5, STANDBY},
        {"returned, manual", PRIMARY, MANUAL, STANDBY, ACTIVE, 5, STANDBY},
        {"returned, automatic", PRIMARY, AUTOMATIC, STANDBY, ACTIVE, 5, ACTIVE},
        {"returned, automatic, worse", PRIMARY, AUTOMATIC, STANDBY, ACTIVE, 6, STANDBY},
        {"returned backup, automatic", BACKUP, AUTOMATIC, STANDBY, ACTIVE, 5, STANDBY},
        {"partner without a state", PRIMARY, AUTOMATIC, STANDBY, NA, 5, ACTIVE},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(pair(row.role, row.strategy), LBCMD_RC_SUCCESS);
        lb_poke(lbexecutor->setable.ha.reachscore, 5);
        set_state(row.state);
        fake::advance_s(1);
        fake::log_clear();
        hear(beat{.state = row.partner, .score = row.score});
        EXPECT_EQ(state(), row.want);
        const bool changed = row.want != row.state;
        EXPECT_EQ(fake::log_count("HA TAKEOVER") + fake::log_count("HA RELINQUISH"),
                  changed ? 1 : 0);
        EXPECT_EQ(lbexecutor->ha.laststatechange.secs == fake::now().secs, changed);
        EXPECT_EQ(beats().size(), row.want == ACTIVE && changed ? 1U : 0U);
    }
}

TEST_F(HaTest, TakesOverAfterThreeWholeSeconds)
{
    const struct {
        const char *name;
        lb_u8_t timeout;
        std::int64_t heard_ms;  // when the partner last echoed, after becoming standby; -1: never
        std::int64_t before_ms; // the last moment without a takeover; 1 ms later it comes
    } rows[] = {
        {"a lone node", 2, -1, 2999},
        {"silent for 3 s", 2, 10000, 12999},
        {"heard between seconds", 2, 10400, 13399},
        {"thirty", 30, 60000, 90999},
        {"a time-out that nobody set", 0, 5000, 5999},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        restart();
        set_executor_log_mask(LB_LOG_FAILURE | LB_LOG_EVENT);
        fake::advance_ms(700); // no whole second
        ASSERT_EQ(pair(PRIMARY), LBCMD_RC_SUCCESS);
        lb_poke(lbexecutor->setable.ha.timeout, row.timeout);
        std::int64_t passed = 0;
        if (row.heard_ms >= 0) {
            fake::advance_ms(row.heard_ms);
            passed = row.heard_ms;
            hear(beat{.state = ACTIVE, .ack = fake::now()});
        }
        fake::advance_ms(row.before_ms - passed);
        lbha_timer_entry();
        EXPECT_EQ(state(), STANDBY);
        fake::advance_ms(1);
        lbha_timer_entry();
        EXPECT_EQ(state(), ACTIVE);
    }
}

TEST_F(HaTest, AfterAStepBackTheTimeOutRunsFromThen)
{
    fake::advance_s(7200);
    ASSERT_EQ(pair(BACKUP), LBCMD_RC_SUCCESS);
    hear(beat{.state = ACTIVE, .ack = fake::now()});
    const std::pair<std::int64_t, lb_u8_t> steps[] = {
        {-3600000, STANDBY}, {2900, STANDBY}, {100, ACTIVE}};
    for (const auto &[ms, want] : steps) {
        fake::advance_ms(ms);
        lbha_timer_entry();
        EXPECT_EQ(state(), want);
    }
}

TEST_F(HaTest, VersionsMayDifferInTheLastByte)
{
    ASSERT_EQ(pair(BACKUP), LBCMD_RC_SUCCESS);
    lb_s32_t secs = 0;
    for (const lb_u32_t version : {0x0805050B, 0x080505FF, 0x08050500, 0x08050600, 0x0905050B, 0}) {
        SCOPED_TRACE(version);
        const bool taken = version >> 8 == 0x080505;
        secs++;
        hear(beat{.seq = {secs, 1}, .ack = {secs, 2}, .version = version});
        EXPECT_EQ(lbexecutor->ha.partnerack.secs == secs, taken);
        EXPECT_EQ(lbexecutor->ha.ack.secs == secs, taken);
    }
    EXPECT_TRUE(fake::log_contains("dropping update 8050600 != 805050b\n"));
}

// A request that comes during a tick waits for the next one, whole.
TEST_F(HaTest, ReplicateAllIsGrantedOncePerTick)
{
    EXPECT_EQ(lbha_set_crrepall(), 0);
    lbha_repall_begin();
    EXPECT_EQ(lbha_set_arrepall(), 0);
    EXPECT_TRUE(lbha_crrepall() && !lbha_arrepall());
    lbha_repall_end();
    EXPECT_FALSE(lbha_crrepall() || lbha_arrepall()); // the second cluster's
    lbha_repall_begin();
    EXPECT_TRUE(!lbha_crrepall() && lbha_arrepall());
    lbha_repall_end();
    lbha_repall_begin();
    EXPECT_FALSE(lbha_crrepall() || lbha_arrepall());
}

} // namespace
