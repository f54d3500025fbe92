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
};

int has_value(void *key, void *obj)
{
    return static_cast<item *>(obj)->value == *static_cast<int *>(key) ? LBLL_FILTER_YES : 0;
}

int before_by_value(void *newobj, void *listobj)
{
    return static_cast<item *>(newobj)->value < static_cast<item *>(listobj)->value;
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
        ASSERT_EQ(lbll_initlist(&list_, offsetof(item, first), has_value, nullptr), 0);
        ASSERT_EQ(lbll_initlist(&other_, offsetof(item, first), has_value, nullptr), 0);
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

TEST_F(ListTest, RemovingFromTheWrongListIsABrokenInvariant)
{
    fake::core_expected(true);
    fill(2);
    EXPECT_EQ(lbll_rmnode(&other_, &items_[0]), 1);
    EXPECT_EQ(lbll_rmnode(&list_, &items_[5]), 1) << "an object that is on no list";
    EXPECT_EQ(lbll_rmnode(nullptr, &items_[0]), 1);
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

TEST_F(ListTest, RetiringAList)
{
    fill(3);
    EXPECT_EQ(lbll_rmlist(&list_), 1);
    EXPECT_EQ(values(), (std::vector<int>{0, 1, 2})) << "a refused removal leaves it usable";
    EXPECT_EQ(lbll_cleanuplist(&list_), 0);
    EXPECT_TRUE(zeroed(items_[0].first) && zeroed(items_[1].first) && zeroed(items_[2].first));
    EXPECT_EQ(lbll_cleanuplist(&list_), 1);
    EXPECT_EQ(lbll_rmlist(&list_), 1);
    ASSERT_EQ(lbll_initlist(&list_, offsetof(item, first), has_value, nullptr), 0);
    EXPECT_EQ(lbll_rmlist(&list_), 0);
    EXPECT_EQ(list_._select, nullptr);
}

TEST_F(ListTest, MutexErrorsArePassedThrough)
{
    fill(2);
    void *out[4];
    int key = 1;
    for (const fake::op which : {fake::op::lock, fake::op::unlock}) {
        const int done = which == fake::op::unlock ? 1 : 0; // the work was done before it failed
        fake::fail(which, 1);
        EXPECT_EQ(lbll_addnode_lhs(&list_, &items_[5]), fake::INJECTED_RC);
        EXPECT_EQ(lbll_size(&list_), 2 + done);
        fake::fail(which, 1);
        EXPECT_EQ(lbll_addnode_rhs(&list_, &items_[6]), fake::INJECTED_RC);
        fake::fail(which, 1);
        EXPECT_EQ(lbll_addnode_inorder(&list_, &items_[7], before_by_value), fake::INJECTED_RC);
        EXPECT_EQ(lbll_size(&list_), 2 + 3 * done);
        fake::fail(which, 1);
        EXPECT_EQ(lbll_select1(&list_, &key), nullptr);
        fake::fail(which, 1);
        EXPECT_EQ(lbll_selectn(&list_, out, 4, lbll_filter_true, nullptr), 0);
        fake::fail(which, 1);
        EXPECT_EQ(lbll_rmnode(&list_, &items_[1]), fake::INJECTED_RC);
        EXPECT_EQ(lbll_size(&list_), 2 + 2 * done);
        fake::fail(which, 1);
        EXPECT_EQ(lbll_getnode_rhs(&list_), done != 0 ? &items_[7] : &items_[1]);
    }
    EXPECT_EQ(_lbll_debug_consistencycheck(&list_), 0);
}

TEST_F(ListTest, FailuresWhileRetiring)
{
    fill(2);
    fake::fail(fake::op::unlock, 1);
    EXPECT_EQ(lbll_cleanuplist(&list_), 0) << "a failed unlock is ignored";
    ASSERT_EQ(lbll_initlist(&list_, offsetof(item, first), has_value, nullptr), 0);
    fake::fail(fake::op::mutex_destroy, 1);
    EXPECT_EQ(lbll_rmlist(&list_), fake::INJECTED_RC);
    ASSERT_EQ(lbll_initlist(&list_, offsetof(item, first), has_value, nullptr), 0);
    fake::fail(fake::op::mutex_destroy, 1);
    EXPECT_EQ(lbll_cleanuplist(&list_), 1);
    ASSERT_EQ(lbll_initlist(&list_, offsetof(item, first), has_value, nullptr), 0);
    fake::fail(fake::op::lock, 1);
    EXPECT_EQ(lbll_cleanuplist(&list_), 1);
    EXPECT_EQ(lbll_cleanuplist(&list_), 1) << "it stays retired";
    EXPECT_EQ(os_mutex_destroy(&list_._osopaquelock), 0);
}

TEST_F(ListTest, TheCheckSeesEveryKindOfDamage)
{
    fill(3);
    for (lbll_node_t **word : {&list_._rhs, &items_[0].first._left, &items_[1].first._left,
                               &items_[1].first._right, &items_[2].first._right}) {
        lbll_node_t *const right = *word;
        *word = right == &items_[1].first ? nullptr : &items_[1].first;
        EXPECT_EQ(_lbll_debug_consistencycheck(&list_), 1);
        *word = right;
    }
    list_._size = 4;
    EXPECT_EQ(_lbll_debug_consistencycheck(&list_), 1);
    list_._size = 3;
}

#ifdef LB_LOCK_RANKS
using ListDeathTest = ListTest;

TEST_F(ListDeathTest, LocksTakenDownwardsAbort)
{
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    lbll_setrank(&list_, LB_RANK_BUCKET);
    for (const lb_lockrank_e rank : {LB_RANK_OBJECT, LB_RANK_BUCKET}) {
        lbll_setrank(&other_, rank);
        EXPECT_DEATH(
            {
                lbll_guard held(&list_);
                lbll_guard wrong(&other_);
            },
            "taking .* while holding hash bucket");
    }
    for (const lb_lockrank_e rank : {LB_RANK_LEAF, LB_RANK_NONE}) {
        lbll_setrank(&other_, rank);
        lbll_guard held(&list_);
        lbll_guard right(&other_);
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
