// The linked list, against a naive reference and with every mutex call made to fail.
#include "lb_linkedlist.h"
#include "lb_lockrank.h"

#include <algorithm>
#include <array>
#include <deque>
#include <random>
#include <vector>

#include "fake_fixture.h"

namespace
{

struct item {
    int value = 0;
    lbll_node_t first = {};
    lbll_node_t second = {};
};

int has_value(void *key, void *obj)
{
    return static_cast<item *>(obj)->value == *static_cast<int *>(key) ? LBLL_FILTER_YES : 0;
}

int before_by_value(void *newobj, void *listobj)
{
    return static_cast<item *>(newobj)->value < static_cast<item *>(listobj)->value;
}

void print_item(void *obj)
{
    os_print("%d", static_cast<item *>(obj)->value);
}

bool zeroed(const lbll_node_t &node)
{
    return node._list == nullptr && node._left == nullptr && node._right == nullptr;
}

class ListTest : public FakeHostTest
{
  protected:
    void SetUp() override
    {
        FakeHostTest::SetUp();
        set_log_mask(LB_LOG_FAILURE | LB_LOG_EVENT);
        ASSERT_EQ(lbll_initlist(&list_, offsetof(item, first), has_value, print_item), 0);
        ASSERT_EQ(lbll_initlist(&other_, offsetof(item, first), has_value, print_item), 0);
        for (int i = 0; i < ITEMS; i++) {
            items_[i].value = i;
        }
    }

    void TearDown() override
    {
        if (list_._status == LBLL_FLAG_READY) {
            EXPECT_EQ(_lbll_debug_consistencycheck(&list_), 0);
            EXPECT_EQ(lbll_cleanuplist(&list_), 0);
        }
        EXPECT_EQ(lbll_cleanuplist(&other_), 0);
        for (const item &it : items_) {
            EXPECT_TRUE(zeroed(it.first));
        }
        FakeHostTest::TearDown();
    }

    void fill(int count)
    {
        for (int i = 0; i < count; i++) {
            ASSERT_EQ(lbll_addnode_rhs(&list_, &items_[i]), 0);
        }
    }

    std::vector<int> values()
    {
        std::array<void *, ITEMS> out;
        const int count = lbll_selectn(&list_, out.data(), ITEMS, lbll_filter_true, nullptr);
        std::vector<int> found;
        for (int i = 0; i < count; i++) {
            found.push_back(static_cast<item *>(out[i])->value);
        }
        return found;
    }

    static constexpr int ITEMS = 40;
    lbll_list_t list_;
    lbll_list_t other_;
    item items_[ITEMS];
};

TEST_F(ListTest, RandomOperationsAgreeWithAReference)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::deque<item *> reference;
    for (int step = 0; step < 4000; step++) {
        item *it = &items_[random() % ITEMS];
        const auto at = std::find(reference.begin(), reference.end(), it);
        const bool linked = at != reference.end();
        switch (random() % 4) {
        case 0:
            ASSERT_EQ(lbll_addnode_lhs(&list_, it), linked ? 2 : 0);
            if (!linked) {
                reference.push_front(it);
            }
            break;
        case 1:
            ASSERT_EQ(lbll_addnode_rhs(&list_, it), linked ? 2 : 0);
            if (!linked) {
                reference.push_back(it);
            }
            break;
        case 2:
            if (!linked) {
                ASSERT_EQ(lbll_addnode_inorder(&list_, it, before_by_value), 0);
                reference.insert(std::find_if(reference.begin(), reference.end(),
                                              [it](item *m) { return it->value < m->value; }),
                                 it);
            }
            break;
        default:
            if (linked) {
                ASSERT_EQ(lbll_rmnode(&list_, it), 0);
                reference.erase(at);
                ASSERT_TRUE(zeroed(it->first));
            }
        }
        std::vector<int> want;
        for (const item *m : reference) {
            want.push_back(m->value);
        }
        ASSERT_EQ(values(), want);
        ASSERT_EQ(lbll_size(&list_), static_cast<int>(want.size()));
        ASSERT_EQ(_lbll_debug_consistencycheck(&list_), 0);
        ASSERT_EQ(lbll_getnode_lhs(&list_), reference.empty() ? nullptr : reference.front());
        ASSERT_EQ(lbll_getnode_rhs(&list_), reference.empty() ? nullptr : reference.back());
        ASSERT_EQ(lbll_select1(&list_, &it->value),
                  std::count(reference.begin(), reference.end(), it) != 0 ? it : nullptr);
    }
}

TEST_F(ListTest, ALinkedObjectIsRefusedAndNothingChanges)
{
    ASSERT_EQ(lbll_addnode_rhs(&other_, &items_[0]), 0);
    ASSERT_EQ(lbll_addnode_rhs(&other_, &items_[1]), 0);
    fill(0);
    EXPECT_EQ(lbll_addnode_lhs(&list_, &items_[0]), 2);
    EXPECT_TRUE(fake::log_contains("l,r,list ptrs not null, addnode_lhs_nl rc=2\n"));
    EXPECT_EQ(lbll_addnode_rhs(&list_, &items_[0]), 2);
    EXPECT_TRUE(fake::log_contains("l,r,list ptrs not null, addnode_rhs_nl rc=2\n"));
    EXPECT_EQ(lbll_addnode_inorder(&list_, &items_[0], before_by_value), 2);
    EXPECT_EQ(lbll_size(&list_), 0);
    EXPECT_EQ(lbll_size(&other_), 2);
    EXPECT_EQ(_lbll_debug_consistencycheck(&other_), 0);
}

TEST_F(ListTest, RemovingFromTheWrongListIsABrokenInvariant)
{
    fake::core_expected(true);
    fill(2);
    EXPECT_EQ(lbll_rmnode(&other_, &items_[0]), 1);
    EXPECT_EQ(lbll_rmnode(&list_, &items_[5]), 1) << "an object that is on no list";
    EXPECT_EQ(fake::log_count("wrong list"), 2);
    EXPECT_EQ(lbll_rmnode(nullptr, &items_[0]), 1);
    EXPECT_TRUE(fake::log_contains("no fromlist, rc 1\n"));
    EXPECT_EQ(fake::core_calls(), 3);
    EXPECT_EQ(values(), (std::vector<int>{0, 1}));
}

TEST_F(ListTest, FiltersAnswerInBits)
{
    fill(4);
    struct calls {
        int answer;
        int count;
    };
    const auto filter = [](void *key, void *) {
        auto *c = static_cast<calls *>(key);
        c->count++;
        return c->answer;
    };
    struct {
        const char *name;
        int answer, capacity, stored, looked;
    } const rows[] = {
        {"no", 0, 4, 0, 4},
        {"yes", 1, 4, 4, 4},
        {"no and stop", 2, 4, 0, 1},
        {"yes and stop", 3, 4, 1, 1},
        {"array full", 1, 2, 2, 2},
        {"no room", 1, 0, 0, 0},
        {"less than no room", 1, -1, 0, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        calls c = {row.answer, 0};
        void *out[4];
        EXPECT_EQ(lbll_selectn(&list_, out, row.capacity, filter, &c), row.stored);
        EXPECT_EQ(c.count, row.looked);
    }
    list_._select = filter;
    calls c = {LBLL_FILTER_STOP, 0};
    EXPECT_EQ(lbll_select1(&list_, &c), nullptr);
    EXPECT_EQ(c.count, 4) << "select1 does not look at the stop bit";
}

TEST_F(ListTest, EqualsInOrder)
{
    items_[0].value = items_[1].value = 7;
    ASSERT_EQ(lbll_addnode_inorder(&list_, &items_[0], before_by_value), 0);
    ASSERT_EQ(lbll_addnode_inorder(&list_, &items_[1], before_by_value), 0);
    EXPECT_EQ(lbll_getnode_lhs(&list_), &items_[0]) << "first come, first kept";
    items_[2].value = 7;
    ASSERT_EQ(lbll_addnode_inorder(&list_, &items_[2], [](void *, void *) { return 1; }), 0);
    EXPECT_EQ(lbll_getnode_lhs(&list_), &items_[2]);
}

TEST_F(ListTest, RetiringAList)
{
    fill(3);
    EXPECT_EQ(lbll_rmlist(&list_), 1);
    EXPECT_TRUE(fake::log_contains("cannot remove a non-empty list\n"));
    EXPECT_EQ(values(), (std::vector<int>{0, 1, 2})) << "a refused removal leaves it usable";
    EXPECT_EQ(lbll_cleanuplist(&list_), 0);
    EXPECT_TRUE(zeroed(items_[0].first) && zeroed(items_[1].first) && zeroed(items_[2].first));
    EXPECT_EQ(lbll_cleanuplist(&list_), 1);
    EXPECT_TRUE(fake::log_contains("cannot cleanup a non-ready list\n"));
    EXPECT_EQ(lbll_rmlist(&list_), 1);
    EXPECT_TRUE(fake::log_contains("cannot remove a non-ready list\n"));
    ASSERT_EQ(lbll_initlist(&list_, offsetof(item, first), has_value, print_item), 0);
    EXPECT_EQ(lbll_rmlist(&list_), 0);
    EXPECT_EQ(list_._select, nullptr);
}

TEST_F(ListTest, AnObjectCanBeOnTwoListsThroughTwoNodes)
{
    lbll_list_t second;
    item probe;
    ASSERT_EQ(lbll_initlist(&second, lbll_obj2offset(&probe.second, &probe), has_value, print_item),
              0);
    fill(2);
    ASSERT_EQ(lbll_addnode_lhs(&second, &items_[1]), 0);
    EXPECT_EQ(lbll_getnode_lhs(&second), &items_[1]);
    ASSERT_EQ(lbll_rmnode(&list_, &items_[1]), 0);
    EXPECT_EQ(lbll_getnode_lhs(&second), &items_[1]);
    EXPECT_EQ(lbll_locknode(&items_[1].second), 0);
    EXPECT_EQ(fake::mutexes_held_here(), 1);
    EXPECT_EQ(lbll_unlocknode(&items_[1].second), 0);
    EXPECT_NE(lbll_locknode(&items_[1].first), 0) << "a detached node has no lock";
    EXPECT_EQ(lbll_cleanuplist(&second), 0);
}

TEST_F(ListTest, InitialisationFailures)
{
    EXPECT_EQ(lbll_initlist(nullptr, 0, has_value, print_item), 1);
    EXPECT_TRUE(fake::log_contains("bad params\n"));
    lbll_list_t fresh;
    fresh._size = 99;
    fake::fail(fake::op::mutex_init, 1);
    EXPECT_EQ(lbll_initlist(&fresh, 0, has_value, print_item), 1);
    EXPECT_TRUE(fake::log_contains("os_mutex_init failed, rc 77\n"));
    EXPECT_EQ(fresh._size, 99) << "the rest of the head stays untouched";
}

TEST_F(ListTest, MutexErrorsArePassedThrough)
{
    fill(2);
    void *out[4];
    int key = 1;
    struct {
        fake::op which;
        const char *log;
    } const failures[] = {
        {fake::op::lock, "os_mutex_lock error, rc 77\n"},
        {fake::op::unlock, "os_mutex_unlock error, rc2=77\n"},
    };
    for (const auto &f : failures) {
        SCOPED_TRACE(f.log);
        fake::log_clear();
        const int done = f.which == fake::op::unlock ? 1 : 0; // the work was done before it failed
        fake::fail(f.which, 1);
        EXPECT_EQ(lbll_addnode_lhs(&list_, &items_[5]), fake::INJECTED_RC);
        EXPECT_EQ(lbll_size(&list_), 2 + done);
        fake::fail(f.which, 1);
        EXPECT_EQ(lbll_addnode_rhs(&list_, &items_[6]), fake::INJECTED_RC);
        fake::fail(f.which, 1);
        EXPECT_EQ(lbll_addnode_inorder(&list_, &items_[7], before_by_value), fake::INJECTED_RC);
        EXPECT_EQ(lbll_size(&list_), 2 + 3 * done);
        fake::fail(f.which, 1);
        EXPECT_EQ(lbll_select1(&list_, &key), nullptr);
        fake::fail(f.which, 1);
        EXPECT_EQ(lbll_selectn(&list_, out, 4, lbll_filter_true, nullptr), 0);
        EXPECT_EQ(fake::log_count(f.log), 5) << "each failure is logged once";
        fake::fail(f.which, 1);
        EXPECT_EQ(lbll_rmnode(&list_, &items_[1]), fake::INJECTED_RC);
        EXPECT_EQ(lbll_size(&list_), 2 + 2 * done);
        fake::fail(f.which, 1);
        EXPECT_EQ(lbll_getnode_rhs(&list_), done != 0 ? &items_[7] : &items_[1]);
    }
    EXPECT_EQ(_lbll_debug_consistencycheck(&list_), 0);
}

TEST_F(ListTest, FailuresWhileRetiring)
{
    fill(2);
    fake::fail(fake::op::unlock, 1);
    EXPECT_EQ(lbll_cleanuplist(&list_), 0) << "a failed unlock is ignored";
    EXPECT_TRUE(fake::log_contains("os_mutex_unlock error, rc 77\n"));
    ASSERT_EQ(lbll_initlist(&list_, offsetof(item, first), has_value, print_item), 0);
    fake::fail(fake::op::mutex_destroy, 1);
    EXPECT_EQ(lbll_rmlist(&list_), fake::INJECTED_RC);
    ASSERT_EQ(lbll_initlist(&list_, offsetof(item, first), has_value, print_item), 0);
    fake::fail(fake::op::mutex_destroy, 1);
    EXPECT_EQ(lbll_cleanuplist(&list_), 1);
    ASSERT_EQ(lbll_initlist(&list_, offsetof(item, first), has_value, print_item), 0);
    fake::fail(fake::op::lock, 1);
    EXPECT_EQ(lbll_cleanuplist(&list_), 1);
    EXPECT_EQ(lbll_cleanuplist(&list_), 1) << "it stays retired";
    EXPECT_EQ(os_mutex_destroy(&list_._osopaquelock), 0);
}

TEST_F(ListTest, TheCheckSeesEveryKindOfDamage)
{
    fill(3);
    lbll_node_t *const a = &items_[0].first;
    lbll_node_t *const b = &items_[1].first;
    lbll_node_t *const c = &items_[2].first;
    struct {
        lbll_node_t **word;
        lbll_node_t *damage;
        const char *log;
    } const rows[] = {
        {&list_._rhs, nullptr, "list inconsistent\n"},
        {&a->_left, c, "end nodes inconsistent\n"},
        {&c->_right, a, "end nodes inconsistent\n"},
        {&b->_left, c, "lhs right-view node inconsistent\n"},
        {&list_._rhs, b, "end nodes inconsistent\n"},
        {&b->_right, nullptr, "rhs size 2 != 3\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.log);
        fake::log_clear();
        lbll_node_t *const right = *row.word;
        *row.word = row.damage;
        EXPECT_EQ(_lbll_debug_consistencycheck(&list_), 1);
        EXPECT_TRUE(fake::log_contains(row.log));
        *row.word = right;
    }
    list_._size = 4;
    EXPECT_EQ(_lbll_debug_consistencycheck(&list_), 1);
    list_._size = 3;
}

TEST_F(ListTest, Printers)
{
    fill(3);
    _lbll_debug_printlist(&list_, 0);
    EXPECT_TRUE(fake::log_contains("(0) (1) (2) \n"));
    _lbll_debug_printlist_rhs(&list_, 0);
    EXPECT_TRUE(fake::log_contains("(2) (1) (0) \n"));
    _lbll_debug_printlist(&list_, 1);
    EXPECT_TRUE(fake::log_contains("offset=8 lhs=0x"));
}

#ifdef LB_LOCK_RANKS
using ListDeathTest = ListTest;

TEST_F(ListDeathTest, LocksTakenDownwardsAbort)
{
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    lbll_setrank(&list_, LB_RANK_BUCKET);
    struct {
        const char *name;
        lb_lockrank_e rank;
        bool dies;
    } const rows[] = {
        {"lower", LB_RANK_OBJECT, true},
        {"same", LB_RANK_BUCKET, true},
        {"higher", LB_RANK_LEAF, false},
        {"unchecked", LB_RANK_NONE, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        lbll_setrank(&other_, row.rank);
        if (row.dies) {
            EXPECT_DEATH(
                {
                    lbll_guard held(&list_);
                    lbll_guard wrong(&other_);
                },
                "taking .* while holding hash bucket");
        } else {
            lbll_guard held(&list_);
            lbll_guard right(&other_);
        }
    }
}

TEST_F(ListTest, AFailedLockLeavesNoLevelBehind)
{
    lbll_setrank(&list_, LB_RANK_LEAF);
    fake::fail(fake::op::lock, 1);
    EXPECT_NE(lbll_addnode_lhs(&list_, &items_[0]), 0);
    lbll_setrank(&list_, LB_RANK_BUCKET);
    EXPECT_EQ(lbll_addnode_lhs(&list_, &items_[0]), 0)
        << "would abort if the level were still held";
}
#endif

} // namespace
