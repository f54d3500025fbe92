// The hash table, against a naive reference, and with bucket failures.
#include "lb_hashtable.h"

#include <algorithm>
#include <random>
#include <set>
#include <vector>

#include "fake_fixture.h"

namespace
{

struct item {
    lb_u32_t key = 0;
    lbht_node_t node = {};
};

lb_u32_t hash_item(void *key, void *obj)
{
    return key != nullptr ? *static_cast<lb_u32_t *>(key) : static_cast<item *>(obj)->key;
}

int same_key(void *key, void *obj)
{
    return static_cast<item *>(obj)->key == *static_cast<lb_u32_t *>(key) ? LBLL_FILTER_YES : 0;
}

constexpr int BUCKETS = 8;

class HashTest : public FakeHostTest
{
  protected:
    void SetUp() override
    {
        FakeHostTest::SetUp();
        set_log_mask(LB_LOG_FAILURE);
        ASSERT_EQ(init(), 0);
    }

    void TearDown() override
    {
        if (table_.numbuckets != 0) {
            for (lbht_bucket_t &bucket : buckets_) {
                EXPECT_EQ(_lbll_debug_consistencycheck(&bucket), 0);
            }
            EXPECT_EQ(lbht_rmtable(&table_), 0);
        }
        FakeHostTest::TearDown();
    }

    int init()
    {
        return lbht_inittable(&table_, BUCKETS, buckets_, offsetof(item, node), hash_item, same_key,
                              nullptr);
    }

    lbht_bucket_t buckets_[BUCKETS];
    lbht_table_t table_;
    std::vector<item> items_; // outlives the table
};

TEST_F(HashTest, RandomOperationsAgreeWithAReference)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    auto &items = items_;
    items.resize(50);
    for (item &it : items) {
        it.key = random() % 2 == 0 ? random() : random() % 16 + 0xFFFFFFF0U; // high bit set, too
    }
    std::vector<item *> reference; // the newest first
    for (int step = 0; step < 3000; step++) {
        item *it = &items[random() % items.size()];
        const auto at = std::find(reference.begin(), reference.end(), it);
        if (at == reference.end()) {
            ASSERT_EQ(lbht_addnode(&table_, it), 0);
            reference.insert(reference.begin(), it);
        } else if (random() % 2 == 0) {
            ASSERT_EQ(lbht_rmnode(&table_, it), 0);
            reference.erase(at);
        } else {
            ASSERT_EQ(lbht_addnode(&table_, it), 2);
        }
        const auto newest = std::find_if(reference.begin(), reference.end(),
                                         [it](item *m) { return m->key == it->key; });
        ASSERT_EQ(lbht_select1(&table_, &it->key), newest != reference.end() ? *newest : nullptr);
        void *out[64];
        const int count = lbht_selectn(&table_, out, 64, lbll_filter_true, nullptr);
        ASSERT_EQ(std::set<void *>(out, out + count),
                  std::set<void *>(reference.begin(), reference.end()));
    }
    for (item *it : reference) {
        ASSERT_EQ(lbht_rmnode(&table_, it), 0);
    }
}

TEST_F(HashTest, AFailedCleanupDoesNotStopTheOthers)
{
    auto &items = items_;
    items.resize(2 * BUCKETS);
    for (std::size_t i = 0; i < items.size(); i++) {
        items[i].key = static_cast<lb_u32_t>(i);
        ASSERT_EQ(lbht_addnode(&table_, &items[i]), 0);
    }
    fake::fail(fake::op::mutex_destroy, 3);
    EXPECT_EQ(lbht_rmtable(&table_), 1);
    for (const item &it : items) {
        EXPECT_EQ(it.node._list, nullptr);
    }
    EXPECT_EQ(table_.numbuckets, 0);
}

TEST_F(HashTest, SelectionOverBuckets)
{
    auto &items = items_;
    items.resize(2 * (BUCKETS - 1)); // one bucket stays empty
    for (std::size_t i = 0; i < items.size(); i++) {
        items[i].key = static_cast<lb_u32_t>(i % (BUCKETS - 1) + (i / (BUCKETS - 1)) * BUCKETS);
        ASSERT_EQ(lbht_addnode(&table_, &items[i]), 0);
    }
    const auto yes_and_stop = [](void *, void *) { return LBLL_FILTER_YES | LBLL_FILTER_STOP; };
    const auto count_calls = [](void *key, void *) {
        ++*static_cast<int *>(key);
        return LBLL_FILTER_YES;
    };
    void *out[64];
    EXPECT_EQ(lbht_selectn(&table_, out, 64, yes_and_stop, nullptr), BUCKETS - 1);
    EXPECT_EQ(lbht_selectn_nl(&table_, out, 3, yes_and_stop, nullptr), 3);
    int calls = 0;
    EXPECT_EQ(lbht_selectn(&table_, out, 0, count_calls, &calls), 0);
    EXPECT_EQ(calls, 0);
    lb_u32_t key = 1; // the filter decides here, the key only names the bucket
    EXPECT_EQ(lbht_selectn1b(&table_, out, 64, lbll_filter_true, &key), 2);
    EXPECT_EQ(lbht_selectn1b(&table_, out, 64, yes_and_stop, &key), 1);
}

} // namespace
