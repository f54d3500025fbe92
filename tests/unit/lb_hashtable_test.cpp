// The hash table, against a naive reference, with bucket failures, and under four threads.
#include "lb_hashtable.h"

#include <algorithm>
#include <atomic>
#include <random>
#include <set>
#include <thread>
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

TEST_F(HashTest, AFailedBucketRetiresThoseBeforeIt)
{
    ASSERT_EQ(lbht_rmtable(&table_), 0);
    for (int n = 1; n <= BUCKETS; n++) {
        fake::fail(fake::op::mutex_init, n);
        EXPECT_EQ(init(), 1);
        EXPECT_EQ(fake::live_mutexes(), 0) << "at bucket " << n - 1;
    }
    EXPECT_EQ(fake::log_count("rmtable sublist init failed\n"), BUCKETS);
    EXPECT_EQ(fake::log_count("init returning failure\n"), BUCKETS);
    table_.numbuckets = 0;
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
    EXPECT_EQ(fake::log_count("rmtable sublist cleanup failed\n"), 1);
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

TEST_F(HashTest, LookUpAndRemoveUnderTheKeyLock)
{
    item it;
    it.key = 13;
    ASSERT_EQ(lbht_addnode(&table_, &it), 0);
    ASSERT_EQ(lbht_lockkeylist(&table_, &it.key), 0);
    EXPECT_EQ(fake::mutexes_held_here(), 1);
    EXPECT_EQ(lbht_select1_nl(&table_, &it.key), &it);
    void *out[2];
    EXPECT_EQ(lbht_selectn1b_nl(&table_, out, 2, same_key, &it.key), 1);
    EXPECT_EQ(lbht_rmnode_nl(&table_, &it), 0);
    EXPECT_EQ(lbht_addnode_nl(&table_, &it), 0);
    ASSERT_EQ(lbht_unlockkeylist(&table_, &it.key), 0);
    ASSERT_EQ(lbht_rmnode(&table_, &it), 0);
}

TEST_F(HashTest, FourThreads)
{
    constexpr int THREADS = 4;
    constexpr int PER_THREAD = 16;
    constexpr int STEPS = 3000;
    std::vector<item> items(THREADS * PER_THREAD);
    std::atomic<int> wrong{0};
    const auto work = [&](int me) {
        std::mt19937 random(static_cast<unsigned>(me));
        std::vector<bool> in(PER_THREAD, false);
        for (int step = 0; step < STEPS; step++) {
            const std::size_t mine = random() % PER_THREAD;
            item *it = &items[static_cast<std::size_t>(me) * PER_THREAD + mine];
            // A thread's own objects are where it left them, whatever the others do to the buckets.
            wrong += lbht_select1(&table_, &it->key) != (in[mine] ? it : nullptr);
            wrong += (in[mine] ? lbht_rmnode(&table_, it) : lbht_addnode(&table_, it)) != 0;
            in[mine] = !in[mine];
            void *out[PER_THREAD];
            (void)lbht_selectn(&table_, out, PER_THREAD, lbll_filter_true, nullptr);
            (void)lbll_size(&buckets_[random() % BUCKETS]);
        }
        for (std::size_t i = 0; i < PER_THREAD; i++) {
            if (in[i]) {
                wrong +=
                    lbht_rmnode(&table_, &items[static_cast<std::size_t>(me) * PER_THREAD + i]);
            }
        }
    };
    for (std::size_t i = 0; i < items.size(); i++) {
        items[i].key = static_cast<lb_u32_t>(i);
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; t++) {
        threads.emplace_back(work, t);
    }
    for (std::thread &t : threads) {
        t.join();
    }
    EXPECT_EQ(wrong, 0);
    void *out[1];
    EXPECT_EQ(lbht_selectn(&table_, out, 1, lbll_filter_true, nullptr), 0);
}

} // namespace
