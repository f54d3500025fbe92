// The hash table over its buckets, one of which may fail.
#include "lb_hashtable.h"

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
        ASSERT_EQ(lbht_inittable(&table_, BUCKETS, buckets_, offsetof(item, node), hash_item,
                                 same_key, nullptr),
                  0);
    }

    void TearDown() override
    {
        if (table_.numbuckets != 0) {
            EXPECT_EQ(lbht_rmtable(&table_), 0);
        }
        FakeHostTest::TearDown();
    }

    lbht_bucket_t buckets_[BUCKETS];
    lbht_table_t table_;
    std::vector<item> items_; // outlives the table
};

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
