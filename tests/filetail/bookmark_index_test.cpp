#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>

#include "filetail/path_index.h"

namespace {

std::multiset<int32_t> numbers(const path_index &index, uint64_t hash) {
    std::multiset<int32_t> all;
    uint32_t cursor = 0;
    for (int32_t n; (n = path_index_next(&index, hash, &cursor)) >= 0;) all.insert(n);
    return all;
}

TEST(PathIndex, EmptyTableFindsNothing) {
    path_index index = {};
    uint32_t cursor = 0;
    EXPECT_EQ(path_index_next(&index, 1, &cursor), -1);
    EXPECT_FALSE(path_index_remove(&index, 1, 0));
    path_index_close_gap(&index, 0);
    path_index_clear(&index);
    path_index_free(&index);
}

TEST(PathIndex, HashTellsPathsApart) {
    EXPECT_EQ(path_hash("/a/b", 4), path_hash("/a/bc", 4));
    EXPECT_NE(path_hash("/a/b", 4), path_hash("/a/c", 4));
}

// Few hashes and many entries, so that chains collide, wrap around and are closed again.
TEST(PathIndex, BehavesLikeAMultimap) {
    std::mt19937_64 random(20260731);
    path_index index = {};
    std::map<uint64_t, std::multiset<int32_t>> model;
    std::vector<uint64_t> hashes;
    for (int i = 0; i < 40; ++i) hashes.push_back(random());
    for (int step = 0; step < 20000; ++step) {
        const uint64_t hash = hashes[random() % hashes.size()];
        const auto number = static_cast<int32_t>(random() % 50);
        switch (random() % 4) {
            case 0:
            case 1:
                if (index.used < 300) {
                    ASSERT_TRUE(path_index_add(&index, hash, number));
                    model[hash].insert(number);
                }
                break;
            case 2: {
                const auto it = model[hash].find(number);
                ASSERT_EQ(path_index_remove(&index, hash, number), it != model[hash].end());
                if (it != model[hash].end()) model[hash].erase(it);
                break;
            }
            default:
                if (step % 97 == 0) {
                    path_index_close_gap(&index, number);
                    for (auto &[key, all] : model) {
                        std::multiset<int32_t> moved;
                        for (const int32_t n : all) moved.insert(n > number ? n - 1 : n);
                        all = moved;
                    }
                }
        }
        ASSERT_EQ(numbers(index, hash), model[hash]) << step;
    }
    for (const uint64_t hash : hashes) EXPECT_EQ(numbers(index, hash), model[hash]);
    path_index_clear(&index);
    for (const uint64_t hash : hashes) EXPECT_TRUE(numbers(index, hash).empty());
    path_index_free(&index);
    EXPECT_EQ(index.entries, nullptr);
}

TEST(PathIndex, ReserveKeepsEntries) {
    path_index index = {};
    ASSERT_TRUE(path_index_add(&index, 0x1234567800000000u, 7));
    ASSERT_TRUE(path_index_reserve(&index, 100000));
    EXPECT_GE(index.places, 100000u);
    EXPECT_EQ(numbers(index, 0x1234567800000000u), std::multiset<int32_t>{7});
    path_index_free(&index);
}

}  // namespace
