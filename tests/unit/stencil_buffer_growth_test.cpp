// The growable text buffer: exact growth steps, and the edits that must not
// reallocate or touch the text.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "string_buffer.h"

namespace {

struct Buffer {
    string_buffer_t sb{};
    Buffer() { EXPECT_EQ(string_buffer_init(&sb), 0); }
    ~Buffer() { string_buffer_free(&sb); }
};

TEST(StringBufferGrowth, FourteenCharactersFitTheFifteenthDoubles) {
    Buffer b;
    EXPECT_EQ(b.sb.allocated, 16);
    EXPECT_EQ(b.sb.used, 1);
    for (int i = 0; i < 14; i++) {
        ASSERT_EQ(string_buffer_append_char(&b.sb, 'a' + i), i + 1);
    }
    EXPECT_EQ(b.sb.allocated, 16);
    EXPECT_EQ(string_buffer_append_char(&b.sb, 'o'), 15);
    EXPECT_EQ(b.sb.allocated, 32);
    EXPECT_STREQ(string_buffer_get_str(&b.sb), "abcdefghijklmno");
}

TEST(StringBufferGrowth, GrowthSteps) {
    struct Case {
        size_t length;
        ssize_t allocated;
    };
    // One append of `length` characters to a fresh buffer.
    const Case cases[] = {{0, 16}, {14, 16}, {15, 32}, {30, 32}, {31, 64}, {100, 128}, {127, 256}};
    for (const Case& c : cases) {
        Buffer b;
        const std::string text(c.length, 'x');
        EXPECT_EQ(string_buffer_append_string(&b.sb, text.c_str()), static_cast<ssize_t>(c.length));
        EXPECT_EQ(b.sb.allocated, c.allocated) << "length " << c.length;
        EXPECT_EQ(string_buffer_get_str(&b.sb), text);
    }
}

TEST(StringBufferEdits, ClearKeepsTheBlock) {
    Buffer b;
    const std::string long_text(40, 'y');
    string_buffer_append_string(&b.sb, long_text.c_str());
    const char* block = string_buffer_get_str(&b.sb);
    string_buffer_clear(&b.sb);
    EXPECT_EQ(b.sb.allocated, 64);
    EXPECT_EQ(string_buffer_strlen(&b.sb), 0);
    string_buffer_append_string(&b.sb, "short again");
    EXPECT_EQ(string_buffer_get_str(&b.sb), block);  // no reallocation
    EXPECT_STREQ(string_buffer_get_str(&b.sb), "short again");
}

TEST(StringBufferEdits, TrimOnlyShortens) {
    Buffer b;
    string_buffer_append_string(&b.sb, "abcdef");
    string_buffer_trim(&b.sb, 6);
    string_buffer_trim(&b.sb, 60);
    EXPECT_STREQ(string_buffer_get_str(&b.sb), "abcdef");
    string_buffer_trim(&b.sb, 2);
    EXPECT_STREQ(string_buffer_get_str(&b.sb), "ab");
    EXPECT_EQ(b.sb.used, 3);
    EXPECT_EQ(string_buffer_append_char(&b.sb, 'z'), 3);
    EXPECT_STREQ(string_buffer_get_str(&b.sb), "abz");
}

TEST(StringBufferEdits, SubstringBounds) {
    Buffer b;
    const char* text = "hello world";
    EXPECT_EQ(string_buffer_append_substring(&b.sb, text + 5, text + 2), -1);
    EXPECT_STREQ(string_buffer_get_str(&b.sb), "");
    EXPECT_EQ(string_buffer_append_substring(&b.sb, text + 3, text + 3), 0);
    EXPECT_EQ(string_buffer_append_substring(&b.sb, text + 6, text + 11), 5);
    EXPECT_STREQ(string_buffer_get_str(&b.sb), "world");
    EXPECT_EQ(string_buffer_append_substring(&b.sb, nullptr, text), -1);
}

TEST(StringBufferEdits, ReleasedBufferNeedsInit) {
    Buffer b;
    EXPECT_EQ(string_buffer_append_string(&b.sb, nullptr), -1);
    string_buffer_append_string(&b.sb, "owned");
    char* text = string_buffer_take_ownership(&b.sb);
    EXPECT_STREQ(text, "owned");
    std::free(text);
    // A released buffer cannot grow until it is initialised again.
    EXPECT_EQ(string_buffer_get_str(&b.sb), nullptr);
    EXPECT_EQ(string_buffer_append_char(&b.sb, 'a'), -1);
    ASSERT_EQ(string_buffer_init(&b.sb), 0);
    EXPECT_EQ(string_buffer_append_char(&b.sb, 'a'), 1);
}

}  // namespace
