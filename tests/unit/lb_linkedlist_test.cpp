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
        start();
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

    void start() { ASSERT_EQ(lbll_initlist(&list_, offsetof(item, first), has_value, nullptr), 0); }
    // The list, of which the next call of this kind will fail.
    lbll_list_t *failing(fake::op op)
    {
        fake::fail(op, 1);
        return &list_;
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
        const unsigned which = random() % 4;
        if (which == 0) {
            ASSERT_EQ(lbll_addnode_lhs(&list_, it), linked ? 2 : 0);
        } else if (which == 1) {
            ASSERT_EQ(lbll_addnode_rhs(&list_, it), linked ? 2 : 0);
        } else if (linked) {
            ASSERT_EQ(lbll_rmnode(&list_, it), 0);
            reference.erase(at);
        } else {
            ASSERT_EQ(lbll_addnode_inorder(&list_, it, before_by_value), 0);
        }
        if (!linked) {
            const auto larger = std::find_if(reference.begin(), reference.end(),
                                             [it](item *m) { return it->value < m->value; });
            reference.insert(which == 0   ? reference.begin()
                             : which == 1 ? reference.end()
                                          : larger,
                             it);
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
    struct row_t {
        const char *name;
        int answer, capacity, stored, looked;
        int count = 0;
    } rows[] = {
        {"no and stop", 2, 4, 0, 1}, {"yes and stop", 3, 4, 1, 1},       {"array full", 1, 2, 2, 2},
        {"no room", 1, 0, 0, 0},     {"less than no room", 1, -1, 0, 0},
    };
    const auto filter = [](void *key, void *) {
        static_cast<row_t *>(key)->count++;
        return static_cast<row_t *>(key)->answer;
    };
    for (row_t &row : rows) {
        void *out[4];
        EXPECT_EQ(lbll_selectn(&list_, out, row.capacity, filter, &row), row.stored) << row.name;
        EXPECT_EQ(row.count, row.looked) << row.name;
    }
    list_._select = filter;
    row_t stop = {"", LBLL_FILTER_STOP, 0, 0, 0};
    EXPECT_EQ(lbll_select1(&list_, &stop), nullptr);
    EXPECT_EQ(stop.count, 4) << "select1 does not look at the stop bit";
}

TEST_F(ListTest, RetiringAListThatMayFail)
{
    fill(3);
    EXPECT_EQ(lbll_rmlist(&list_), 1);
    EXPECT_EQ(values(), (std::vector<int>{0, 1, 2})) << "a refused removal leaves it usable";
    EXPECT_EQ(lbll_cleanuplist(failing(fake::op::unlock)), 0) << "a failed unlock is ignored";
    EXPECT_TRUE(zeroed(items_[0].first) && zeroed(items_[1].first) && zeroed(items_[2].first));
    EXPECT_EQ(lbll_cleanuplist(&list_), 1);
    EXPECT_EQ(lbll_rmlist(&list_), 1);
    start();
    EXPECT_EQ(lbll_rmlist(failing(fake::op::mutex_destroy)), fake::INJECTED_RC);
    start();
    EXPECT_EQ(lbll_cleanuplist(failing(fake::op::lock)), 1);
    EXPECT_EQ(lbll_cleanuplist(&list_), 1) << "it stays retired";
    EXPECT_EQ(os_mutex_destroy(&list_._osopaquelock), 0);
}

TEST_F(ListTest, MutexErrorsArePassedThrough)
{
    fill(2);
    void *out[4];
    int key = 1;
    for (const fake::op op : {fake::op::lock, fake::op::unlock}) {
        const int done = op == fake::op::unlock ? 1 : 0; // the work was done before it failed
        EXPECT_EQ(lbll_addnode_lhs(failing(op), &items_[5]), fake::INJECTED_RC);
        EXPECT_EQ(lbll_addnode_rhs(failing(op), &items_[6]), fake::INJECTED_RC);
        EXPECT_EQ(lbll_addnode_inorder(failing(op), &items_[7], before_by_value),
                  fake::INJECTED_RC);
        EXPECT_EQ(lbll_size(&list_), 2 + 3 * done);
        EXPECT_EQ(lbll_select1(failing(op), &key), nullptr);
        EXPECT_EQ(lbll_selectn(failing(op), out, 4, lbll_filter_true, nullptr), 0);
        EXPECT_EQ(lbll_rmnode(failing(op), &items_[1]), fake::INJECTED_RC);
        EXPECT_EQ(lbll_size(&list_), 2 + 2 * done);
        EXPECT_EQ(lbll_getnode_rhs(failing(op)), done != 0 ? &items_[7] : &items_[1]);
    }
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

#endif

} // namespace
