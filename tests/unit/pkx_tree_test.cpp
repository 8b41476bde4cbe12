// Ordered trees: order under the pool's callback and balance under sorted
// input, find/insert indices, teardown, and walks left unended.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "pkx.h"

namespace {

struct Item {
    pkx_avl_node_t node;
    int key;
};

int ascending(const void* l, const void* r, void*) {
    int a = static_cast<const Item*>(l)->key, b = static_cast<const Item*>(r)->key;
    return a < b ? -1 : a > b ? 1 : 0;
}
int descending(const void* l, const void* r, void* p) { return -ascending(l, r, p); }

struct Tree {
    pkx_avl_pool_t* pool;
    pkx_avl_t* tree;
    explicit Tree(pkx_avl_compare_fn fn) {
        pool = pkx_avl_pool_create("test_pool", sizeof(Item), 0, fn, 0);
        tree = pkx_avl_create(pool, nullptr, 0);
    }
    // Returns false for a duplicate. below_first looks the place up with
    // pkx_avl_find_below_first, which must find what pkx_avl_find finds.
    bool add(int key, bool below_first = false) {
        Item probe{};
        probe.key = key;
        pkx_avl_index_t where = 0;
        void* found = below_first ? pkx_avl_find_below_first(tree, &probe, nullptr, &where)
                                  : pkx_avl_find(tree, &probe, nullptr, &where);
        if (found != nullptr) return false;
        auto* it = static_cast<Item*>(pkx_zalloc(sizeof(Item)));
        it->key = key;
        pkx_avl_node_init(it, it, pool);
        pkx_avl_insert(tree, it, where);
        return true;
    }
    std::vector<int> keys() {
        std::vector<int> out;
        for (void* e = pkx_avl_first(tree); e != nullptr; e = pkx_avl_next(tree, e))
            out.push_back(static_cast<Item*>(e)->key);
        return out;
    }
    ~Tree() {
        void* cookie = nullptr;
        while (void* e = pkx_avl_teardown(tree, &cookie)) {
            pkx_avl_node_fini(e, e, pool);
            std::free(e);
        }
        pkx_avl_destroy(tree);
        pkx_avl_pool_destroy(pool);
    }
};

// Height of the subtree below a node, read from the embedded words; fails the
// test where the AVL height condition does not hold.
int checked_height(const pkx_avl_node_t* n) {
    if (n == nullptr) return 0;
    int l = checked_height(static_cast<const pkx_avl_node_t*>(n->pkx_private[0]));
    int r = checked_height(static_cast<const pkx_avl_node_t*>(n->pkx_private[1]));
    EXPECT_LE(std::abs(l - r), 1);
    return 1 + std::max(l, r);
}

TEST(PkxTree, FindReportsExistingAndRefusesDuplicates) {
    Tree t(ascending);
    for (int k : {10, 20, 30}) ASSERT_TRUE(t.add(k));
    EXPECT_FALSE(t.add(20));
    EXPECT_FALSE(t.add(10, true));
    EXPECT_FALSE(t.add(30, true));
    EXPECT_EQ(pkx_avl_numnodes(t.tree), 3u);
    Item probe{};
    probe.key = 30;
    auto* found = static_cast<Item*>(pkx_avl_find(t.tree, &probe, nullptr, nullptr));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->key, 30);
    probe.key = 25;
    EXPECT_EQ(pkx_avl_find(t.tree, &probe, nullptr, nullptr), nullptr);
}

TEST(PkxTree, OrderedAndBalancedUnderSortedAndRandomInput) {
    std::vector<int> sorted(1000), shuffled(1000), zigzag;
    for (int i = 0; i < 1000; i++) sorted[i] = shuffled[i] = i;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(42));
    for (int i = 0; i < 500; i++) {
        zigzag.push_back(i);
        zigzag.push_back(999 - i);
    }
    for (const auto& input : {sorted, shuffled, zigzag}) {
        for (int variant = 0; variant < 4; variant++) {
            pkx_avl_compare_fn fn = variant % 2 ? descending : ascending;
            Tree t(fn);
            for (int k : input) ASSERT_TRUE(t.add(k, variant >= 2));
            // The root is the node that has no left/right parent: the first
            // entry climbs to it.
            auto* n = static_cast<pkx_avl_node_t*>(pkx_avl_first(t.tree));
            while (reinterpret_cast<uintptr_t>(n->pkx_private[2]) & ~uintptr_t{3})
                n = reinterpret_cast<pkx_avl_node_t*>(
                    reinterpret_cast<uintptr_t>(n->pkx_private[2]) & ~uintptr_t{3});
            int h = checked_height(n);
            EXPECT_LE(h, 15);  // 1.44 log2(1000) bounds an AVL tree's height
            // first/next and a walk both follow the callback's order.
            std::vector<int> expected = sorted;
            if (fn == descending) std::reverse(expected.begin(), expected.end());
            EXPECT_EQ(t.keys(), expected);
            EXPECT_EQ(pkx_avl_numnodes(t.tree), input.size());
            pkx_avl_walk_t* w = pkx_avl_walk_start(t.tree, 1);
            ASSERT_NE(w, nullptr);
            std::vector<int> walked;
            while (void* e = pkx_avl_walk_next(w)) walked.push_back(static_cast<Item*>(e)->key);
            pkx_avl_walk_end(w);
            EXPECT_EQ(walked, expected);
        }
    }
}

TEST(PkxTree, TeardownReturnsEveryEntryOnce) {
    for (int n : {0, 1, 2, 7, 100}) {
        Tree t(ascending);
        for (int k = 0; k < n; k++) t.add(k);
        std::vector<int> seen;
        void* cookie = nullptr;
        while (void* e = pkx_avl_teardown(t.tree, &cookie)) {
            seen.push_back(static_cast<Item*>(e)->key);
            std::free(e);
        }
        std::sort(seen.begin(), seen.end());
        ASSERT_EQ(seen.size(), static_cast<size_t>(n));
        for (int k = 0; k < n; k++) EXPECT_EQ(seen[k], k);
        EXPECT_EQ(pkx_avl_numnodes(t.tree), 0u);
        EXPECT_EQ(pkx_avl_first(t.tree), nullptr);
    }
}

// Under the address sanitizer a leaked or double-freed walk fails this test.
TEST(PkxTree, WalksNeverEndedDieWithTheTree) {
    Tree t(ascending);
    for (int k : {1, 2, 3}) t.add(k);
    pkx_avl_walk_t* dropped = pkx_avl_walk_start(t.tree, 1);
    ASSERT_NE(pkx_avl_walk_next(dropped), nullptr);
    pkx_avl_walk_t* untouched = pkx_avl_walk_start(t.tree, 1);
    ASSERT_NE(untouched, nullptr);
    pkx_avl_walk_t* ended = pkx_avl_walk_start(t.tree, 1);
    pkx_avl_walk_end(ended);
    // ~Tree tears the tree down and destroys it with two live walks.
}

}  // namespace
