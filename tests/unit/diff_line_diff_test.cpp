// The line diff of kelvo-diff: shortest edit scripts and unified hunks.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "line_diff.h"

namespace {

struct HunkCase {
    const char* name;
    std::string old_text;
    std::string new_text;
    std::string hunks;
};

TEST(LineDiff, UnifiedHunks) {
    const std::string ten = "1\n2\n3\n4\n5\n6\n7\n8\n9\n10\n";
    const std::vector<HunkCase> cases = {
        {"equal texts", ten, ten, ""},
        {"both empty", "", "", ""},
        {"new file", "", "a\nb\n", "@@ -0,0 +1,2 @@\n+a\n+b\n"},
        {"emptied file", "a\n", "", "@@ -1 +0,0 @@\n-a\n"},
        {"change in the middle", ten, "1\n2\n3\n4\nfive\n6\n7\n8\n9\n10\n",
         "@@ -2,7 +2,7 @@\n 2\n 3\n 4\n-5\n+five\n 6\n 7\n 8\n"},
        {"insertion at the start", "a\nb\n", "x\na\nb\n", "@@ -1,2 +1,3 @@\n+x\n a\n b\n"},
        {"changes far apart make two hunks", ten, "one\n2\n3\n4\n5\n6\n7\n8\n9\nten\n",
         "@@ -1,4 +1,4 @@\n-1\n+one\n 2\n 3\n 4\n@@ -7,4 +7,4 @@\n 7\n 8\n 9\n-10\n+ten\n"},
        {"changes six apart make one hunk", ten, "1\ntwo\n3\n4\n5\n6\n7\n8\nnine\n10\n",
         "@@ -1,10 +1,10 @@\n 1\n-2\n+two\n 3\n 4\n 5\n 6\n 7\n 8\n-9\n+nine\n 10\n"},
        {"last newline added", "a\nb", "a\nb\n",
         "@@ -1,2 +1,2 @@\n a\n-b\n\\ No newline at end of file\n+b\n"},
    };
    for (const HunkCase& c : cases)
        EXPECT_EQ(line_diff::unified_hunks(c.old_text, c.new_text), c.hunks) << c.name;
}

// Length of a longest common subsequence, by the textbook table.
size_t lcs_length(const std::vector<std::string_view>& a, const std::vector<std::string_view>& b) {
    std::vector<std::vector<size_t>> t(a.size() + 1, std::vector<size_t>(b.size() + 1, 0));
    for (size_t i = 1; i <= a.size(); ++i)
        for (size_t j = 1; j <= b.size(); ++j)
            t[i][j] =
                a[i - 1] == b[j - 1] ? t[i - 1][j - 1] + 1 : std::max(t[i - 1][j], t[i][j - 1]);
    return t[a.size()][b.size()];
}

// Random texts over a small alphabet: the script must rebuild the new text
// from the old one in order, and keep as many lines as a longest common
// subsequence has.
TEST(LineDiff, ScriptIsValidAndShortest) {
    std::mt19937 rng(12);
    const char* alphabet[] = {"a\n", "b\n", "c\n", "d\n"};
    for (int round = 0; round < 300; ++round) {
        std::string old_text, new_text;
        for (size_t n = rng() % 12; n > 0; --n) old_text += alphabet[rng() % 4];
        for (size_t n = rng() % 12; n > 0; --n) new_text += alphabet[rng() % 4];
        auto a = line_diff::split_lines(old_text);
        auto b = line_diff::split_lines(new_text);
        auto edits = line_diff::shortest_edit(a, b);
        size_t i = 0, j = 0, kept = 0;
        for (const line_diff::Edit& e : edits) {
            ASSERT_EQ(e.old_line, i) << old_text << "|" << new_text;
            ASSERT_EQ(e.new_line, j) << old_text << "|" << new_text;
            if (e.kind == line_diff::Edit::KEEP) {
                ASSERT_EQ(a[i], b[j]);
                ++i, ++j, ++kept;
            } else if (e.kind == line_diff::Edit::REMOVE) {
                ++i;
            } else {
                ++j;
            }
        }
        EXPECT_EQ(i, a.size());
        EXPECT_EQ(j, b.size());
        EXPECT_EQ(kept, lcs_length(a, b)) << old_text << "|" << new_text;
    }
}

}  // namespace
