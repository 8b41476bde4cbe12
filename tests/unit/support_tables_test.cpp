// Defines and dictionary tables: duplicates, walk text, and the
// shared pool's life from first table to last.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "defines.h"
#include "dictionary.h"
#include "support_internal.h"

namespace {

std::vector<std::string> walk_all(defines_t* d) {
    std::vector<std::string> out;
    pkx_avl_walk_t* w = defines_walk_start(d);
    EXPECT_NE(w, nullptr);
    while (char* text = defines_walk_next(d, w)) out.emplace_back(text);
    return out;  // the walk ended itself with the null
}

TEST(SupportDefines, DuplicateKeepsTheEarlierValue) {
    defines_t* d = defines_create();
    ASSERT_NE(d, nullptr);
    std::string value = "first";
    EXPECT_EQ(defines_add(d, "a", value.c_str()), 0);
    value = "clobbered";  // the table keeps its own copy
    EXPECT_EQ(defines_add(d, "a", "second"), -1);
    EXPECT_STREQ(defines_find(d, "a"), "first");
    EXPECT_EQ(defines_find(d, "A"), nullptr);  // names are case-sensitive
    EXPECT_EQ(defines_count(d), 1);
    EXPECT_EQ(walk_all(d), std::vector<std::string>{"$%define a {first}"});
    defines_destroy(d);
}

TEST(SupportDefines, PoolLivesFromFirstTableToLast) {
    ASSERT_EQ(defines_live_tables(), 0);
    EXPECT_FALSE(defines_pool_exists());
    defines_t* one = defines_create();
    defines_t* two = defines_create();
    EXPECT_EQ(defines_live_tables(), 2);
    defines_destroy(one);
    EXPECT_TRUE(defines_pool_exists());
    // A walk dropped before its end must not outlive the table.
    ASSERT_EQ(defines_add(two, "k", "v"), 0);
    ASSERT_NE(defines_walk_start(two), nullptr);
    defines_destroy(two);
    EXPECT_EQ(defines_live_tables(), 0);
    EXPECT_FALSE(defines_pool_exists());
    defines_destroy(nullptr);

    defines_t* again = defines_create();
    ASSERT_NE(again, nullptr);
    EXPECT_TRUE(defines_pool_exists());
    EXPECT_EQ(defines_live_tables(), 1);
    EXPECT_EQ(defines_add(again, "k", "v"), 0);
    EXPECT_STREQ(defines_find(again, "k"), "v");
    defines_destroy(again);
}

TEST(SupportDictionary, OneNameSpaceAndPoolLife) {
    ASSERT_EQ(dictionary_live_tables(), 0);
    dictionary_t* d = dictionary_create();
    ASSERT_NE(d, nullptr);
    EXPECT_TRUE(dictionary_pool_exists());
    int section = 0, macro = 0;
    EXPECT_EQ(dictionary_add(d, "name", &section), 0);
    EXPECT_EQ(dictionary_add(d, "name", &macro), -1);
    EXPECT_EQ(dictionary_add(d, "other", &macro), 0);
    EXPECT_EQ(dictionary_find(d, "name"), &section);
    EXPECT_EQ(dictionary_find(d, "other"), &macro);
    EXPECT_EQ(dictionary_find(d, "missing"), nullptr);
    dictionary_destroy(d);
    EXPECT_EQ(dictionary_live_tables(), 0);
    EXPECT_FALSE(dictionary_pool_exists());
    dictionary_destroy(nullptr);
}

}  // namespace
