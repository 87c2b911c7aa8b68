// The generic hash table: sizing, chain order, counters, walks and failures.
#include <gtest/gtest.h>

#include <cstdio>
#include <deque>
#include <string>
#include <vector>

#include "core/alloc.h"
#include "sub/sub.h"

namespace {

// Items land in bucket key % table_size; items with equal keys compare equal.
struct Item {
    uint32_t key;
};

int g_compares = 0;

uint32_t item_index(void *item) {
    return static_cast<Item *>(item)->key;
}
int32_t item_compare(void *stored, void *key) {
    ++g_compares;
    return static_cast<Item *>(stored)->key == static_cast<Item *>(key)->key ? 0 : -1;
}

struct Visit {
    explicit Visit(qz_cap_hash_table *t, int32_t stop = 0, bool del = false)
        : table(t), stop_at(stop), delete_each(del) {}
    qz_cap_hash_table *table;
    std::vector<Item *> seen;
    int32_t stop_at;  // 1-based call that returns 5; 0: never
    bool delete_each;
};

int32_t visit(void *item, void *arg) {
    auto *v = static_cast<Visit *>(arg);
    v->seen.push_back(static_cast<Item *>(item));
    if (v->delete_each)
        qz_cap_hash_del_item(v->table, item);
    return static_cast<int32_t>(v->seen.size()) == v->stop_at ? 5 : 0;
}

class HashTable : public ::testing::Test {
  protected:
    void SetUp() override {
        g_compares = 0;
        t_ = qz_cap_create_hash(32, item_index, item_compare);
        ASSERT_NE(t_, nullptr);
    }
    void TearDown() override {
        libqz_cap_test_fail_alloc(0);
        Visit drain{t_, 0, true};  // destroy leaves nodes behind
        qz_cap_hash_each_item_op(t_, visit, &drain);
        qz_cap_destroy_hash(t_);
    }
    std::vector<Item *> walk() {
        Visit v{t_};
        EXPECT_EQ(qz_cap_hash_each_item_op(t_, visit, &v), 0);
        return v.seen;
    }
    // Items outlive the test body: TearDown still hashes them.
    Item &item(uint32_t key) { return pool_.emplace_back(Item{key}); }
    std::vector<Item *> items(std::initializer_list<uint32_t> keys) {
        std::vector<Item *> out;
        for (uint32_t k : keys)
            out.push_back(&item(k));
        return out;
    }
    std::deque<Item> pool_;
    qz_cap_hash_table *t_ = nullptr;
};

TEST(HashTableCreate, BucketCountFollowsExpectedSize) {
    for (auto [size, buckets] : {std::pair{0u, 1365u}, {1u, 1u}, {32u, 42u}, {2u, 2u}}) {
        qz_cap_hash_table *t = qz_cap_create_hash(size, item_index, item_compare);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(t->table_size, buckets) << "size " << size;
        EXPECT_EQ(t->item_num, 0u);
        EXPECT_EQ(t->bucket_warning_size, 0u);
        Item probe{buckets - 1};
        EXPECT_EQ(qz_cap_hash_find_item(t, &probe), nullptr);
        qz_cap_destroy_hash(t);
    }
}

TEST(HashTableCreate, ChainHeadArrayMustFitThirtyTwoBits) {
    EXPECT_EQ(qz_cap_create_hash(UINT32_MAX, item_index, item_compare), nullptr);
    // The smallest size whose chain-head bytes reach 2^32.
    const uint64_t max_buckets = UINT32_MAX / sizeof(qz_cap_hash_list);
    const auto too_big = static_cast<uint32_t>((max_buckets + 1) * 3 / 4);

    // Refused before allocating: the armed failure is still pending after.
    libqz_cap_test_fail_alloc(1);
    EXPECT_EQ(qz_cap_create_hash(too_big, item_index, item_compare), nullptr);
    EXPECT_EQ(qz_cap_create_hash(1, item_index, item_compare), nullptr);

    // One less is accepted: creation reaches the chain-head allocation.
    libqz_cap_test_fail_alloc(2);
    EXPECT_EQ(qz_cap_create_hash(too_big - 1, item_index, item_compare), nullptr);
    qz_cap_hash_table *t = qz_cap_create_hash(1, item_index, item_compare);
    EXPECT_NE(t, nullptr) << "the injected failure was not consumed";
    qz_cap_destroy_hash(t);
    libqz_cap_test_fail_alloc(0);
}

TEST(HashTableCreate, EachAllocationFailureYieldsNull) {
    for (uint32_t nth = 1; nth <= 3; ++nth) {
        libqz_cap_test_fail_alloc(nth);
        EXPECT_EQ(qz_cap_create_hash(32, item_index, item_compare), nullptr) << nth;
        libqz_cap_test_fail_alloc(0);
    }
}

TEST_F(HashTable, DuplicatesAndNewestFirst) {
    Item &a = item(5), &b = item(5), &c = item(47);  // 5 and 47 share bucket 5 of 42
    ASSERT_EQ(qz_cap_hash_insert_item(t_, &a), 0);
    ASSERT_EQ(qz_cap_hash_insert_item(t_, &a), 0);
    EXPECT_EQ(qz_cap_hash_get_current_item_num(t_), 2u);
    qz_cap_hash_del_item(t_, &a);
    EXPECT_EQ(qz_cap_hash_get_current_item_num(t_), 1u);
    EXPECT_EQ(qz_cap_hash_find_item(t_, &a), &a);

    ASSERT_EQ(qz_cap_hash_insert_item(t_, &b), 0);
    ASSERT_EQ(qz_cap_hash_insert_item(t_, &c), 0);
    EXPECT_EQ(qz_cap_hash_get_current_bucket_num(t_, &a), 3u);
    EXPECT_EQ(qz_cap_hash_find_item(t_, &a), &b);  // newest equal item
    EXPECT_EQ(qz_cap_hash_find_item(t_, &c), &c);
    EXPECT_EQ(walk(), (std::vector<Item *>{&c, &b, &a}));

    qz_cap_hash_del_item(t_, &a);  // removes b, the middle node
    EXPECT_EQ(walk(), (std::vector<Item *>{&c, &a}));
    EXPECT_EQ(qz_cap_hash_find_item(t_, &b), &a);
    qz_cap_hash_del_item(t_, &a);  // the last node
    qz_cap_hash_del_item(t_, &a);  // nothing left to match
    EXPECT_EQ(walk(), (std::vector<Item *>{&c}));
    EXPECT_EQ(qz_cap_hash_get_current_bucket_num(t_, &a), 1u);
    EXPECT_EQ(qz_cap_hash_get_current_item_num(t_), 1u);
}

TEST_F(HashTable, EmptyBucketIsNeverCompared) {
    Item &held = item(3), &key = item(4);
    ASSERT_EQ(qz_cap_hash_insert_item(t_, &held), 0);
    EXPECT_EQ(qz_cap_hash_find_item(t_, &key), nullptr);
    qz_cap_hash_del_item(t_, &key);
    EXPECT_EQ(g_compares, 0);
    EXPECT_EQ(qz_cap_hash_get_current_item_num(t_), 1u);
}

TEST_F(HashTable, WarningOnEveryInsertionAboveThreshold) {
    qz_cap_hash_set_bucket_warning_size(t_, 2);
    auto same = items({7, 49, 91, 133});  // all in bucket 7
    testing::internal::CaptureStdout();
    for (Item *it : same)
        ASSERT_EQ(qz_cap_hash_insert_item(t_, it), 0);
    ASSERT_EQ(qz_cap_hash_insert_item(t_, &item(8)), 0);
    std::string out = testing::internal::GetCapturedStdout();

    char expected[256];
    snprintf(expected, sizeof expected,
             "hash :%p bucket[7] warning 2 cur:3 \nhash :%p bucket[7] warning 2 cur:4 \n",
             static_cast<void *>(t_), static_cast<void *>(t_));
    EXPECT_EQ(out, expected);
    EXPECT_EQ(qz_cap_hash_get_current_item_num(t_), 5u);
}

TEST_F(HashTable, BucketCountWrapsAt256) {
    Item &nine = item(9);
    for (int i = 0; i < 256; ++i)
        ASSERT_EQ(qz_cap_hash_insert_item(t_, &item(9)), 0);
    EXPECT_EQ(qz_cap_hash_get_current_bucket_num(t_, &nine), 0u);
    EXPECT_EQ(qz_cap_hash_get_current_item_num(t_), 256u);
    ASSERT_EQ(qz_cap_hash_insert_item(t_, &nine), 0);
    EXPECT_EQ(qz_cap_hash_get_current_bucket_num(t_, &nine), 1u);
    EXPECT_EQ(walk().size(), 257u);
}

TEST_F(HashTable, NodeAllocationFailureLeavesTableUnchanged) {
    Item &a = item(1), &b = item(1);
    ASSERT_EQ(qz_cap_hash_insert_item(t_, &a), 0);
    libqz_cap_test_fail_alloc(1);
    EXPECT_EQ(qz_cap_hash_insert_item(t_, &b), -12);
    EXPECT_EQ(qz_cap_hash_get_current_item_num(t_), 1u);
    EXPECT_EQ(qz_cap_hash_get_current_bucket_num(t_, &a), 1u);
    EXPECT_EQ(walk(), (std::vector<Item *>{&a}));
}

TEST_F(HashTable, WalksThatDeleteTheirItemEmptyTheTable) {
    auto all = items({0, 42, 1, 41, 84, 2});
    for (Item *it : all)
        ASSERT_EQ(qz_cap_hash_insert_item(t_, it), 0);

    Visit v{t_, 0, true};
    EXPECT_EQ(qz_cap_hash_each_item_op(t_, visit, &v), 0);
    EXPECT_EQ(v.seen.size(), all.size());
    EXPECT_EQ(qz_cap_hash_get_current_item_num(t_), 0u);
    EXPECT_TRUE(walk().empty());

    for (Item *it : all)
        ASSERT_EQ(qz_cap_hash_insert_item(t_, it), 0);
    Visit part{t_, 0, true};
    EXPECT_EQ(qz_cap_hash_each_item_op_partly(t_, visit, &part, 1, 0), 0);
    EXPECT_EQ(qz_cap_hash_get_current_item_num(t_), 0u);
}

TEST_F(HashTable, WalkStopsAtFirstNonZeroResult) {
    auto four = items({1, 2, 3, 4});
    for (Item *it : four)
        ASSERT_EQ(qz_cap_hash_insert_item(t_, it), 0);
    Visit v{t_, 2};
    EXPECT_EQ(qz_cap_hash_each_item_op(t_, visit, &v), 5);
    EXPECT_EQ(v.seen, (std::vector<Item *>{four[0], four[1]}));

    Visit p{t_, 1};
    EXPECT_EQ(qz_cap_hash_each_item_op_partly(t_, visit, &p, 2, 0), 5);
    EXPECT_EQ(p.seen.size(), 1u);
}

TEST_F(HashTable, SlicesCoverEveryBucketOnce) {
    for (uint32_t i = 0; i < 42; ++i)
        ASSERT_EQ(qz_cap_hash_insert_item(t_, &item(i)), 0);
    const std::pair<uint32_t, uint32_t> expected[] = {{0, 9}, {10, 20}, {21, 30}, {31, 41}};
    std::vector<int> hits(42, 0);
    for (uint32_t part = 0; part < 4; ++part) {
        Visit v{t_};
        ASSERT_EQ(qz_cap_hash_each_item_op_partly(t_, visit, &v, 4, part), 0);
        ASSERT_FALSE(v.seen.empty());
        EXPECT_EQ(v.seen.front()->key, expected[part].first) << "slice " << part;
        EXPECT_EQ(v.seen.back()->key, expected[part].second) << "slice " << part;
        for (Item *it : v.seen)
            ++hits[it->key];
    }
    EXPECT_EQ(hits, std::vector<int>(42, 1));

    Visit all{t_};  // as many slices as buckets: one bucket each
    for (uint32_t part = 0; part < 42; ++part)
        ASSERT_EQ(qz_cap_hash_each_item_op_partly(t_, visit, &all, 42, part), 0);
    EXPECT_EQ(all.seen.size(), 42u);
}

TEST_F(HashTable, InvalidSlicesPrintAndFail) {
    Item &a = item(0);
    ASSERT_EQ(qz_cap_hash_insert_item(t_, &a), 0);
    for (auto [max_part, cur_part] : {std::pair{4u, 4u}, {43u, 0u}, {0u, 0u}, {4u, 9u}}) {
        Visit v{t_};
        testing::internal::CaptureStdout();
        EXPECT_EQ(qz_cap_hash_each_item_op_partly(t_, visit, &v, max_part, cur_part), -1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "cur_part:" + std::to_string(cur_part) + " max_part:" + std::to_string(max_part) +
                      " table_size:42\n");
        EXPECT_TRUE(v.seen.empty());
    }
}

TEST_F(HashTable, NullArgumentsAreHarmless) {
    Item &a = item(1);
    EXPECT_EQ(qz_cap_hash_insert_item(nullptr, &a), -1);
    EXPECT_EQ(qz_cap_hash_find_item(nullptr, &a), nullptr);
    qz_cap_hash_del_item(nullptr, &a);
    qz_cap_hash_set_bucket_warning_size(nullptr, 3);
    EXPECT_EQ(qz_cap_hash_get_current_item_num(nullptr), 0u);
    EXPECT_EQ(qz_cap_hash_get_current_bucket_num(nullptr, &a), 0u);
    Visit v{t_};
    EXPECT_EQ(qz_cap_hash_each_item_op(nullptr, visit, &v), -1);
    EXPECT_EQ(qz_cap_hash_each_item_op_partly(nullptr, visit, &v, 1, 0), -1);
    qz_cap_destroy_hash(nullptr);

    ASSERT_EQ(qz_cap_hash_insert_item(t_, &a), 0);
    EXPECT_EQ(qz_cap_hash_each_item_op(t_, nullptr, nullptr), -1);
    EXPECT_EQ(qz_cap_hash_each_item_op_partly(t_, nullptr, nullptr, 1, 0), -1);
    EXPECT_EQ(qz_cap_hash_get_current_item_num(t_), 1u);
}

}  // namespace
