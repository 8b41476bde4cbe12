// Replacement patterns: anchors, wildcards, sets, and the one pattern that
// matches without taking a character.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "stencil_internal.h"

namespace {

struct Case {
    const char* source;
    const char* pattern;
    const char* replacement;
    int all;
    const char* result;
};

const Case CASES[] = {
    {"foobar", "o", "0", 0, "f0obar"},
    {"foobar", "o", "0", 1, "f00bar"},
    {"foobar", "#f", "X", 0, "Xoobar"},
    {"foobar", "#o", "X", 0, "foobar"},
    {"foobar", "%r", "X", 0, "foobaX"},
    {"foobar", "%o", "X", 0, "foobar"},
    {"foobar", "%#foobar", "X", 1, "X"},
    {"foobar", "#%foobar", "X", 0, "X"},
    {"foobar", "%#foo", "X", 0, "foobar"},
    {"foobar", "f*b", "X", 0, "Xar"},
    {"abcabc", "a*c", "X", 1, "XX"},
    {"abcabc", "a*", "X", 1, "X"},
    {"abcabc", "b?", "X", 1, "aXaX"},
    {"a1b2", "[0-9]", "_", 1, "a_b_"},
    {"a1b2", "[!0-9]", "_", 1, "_1_2"},
    {"foo", "%*o", "X", 0, "foX"},
    {"foo", "foo*", "X", 0, "X"},
    {"a-b", "[a-]", "X", 1, "XXb"},
    {"a]b", "[]]", "X", 1, "aXb"},
    {"abz", "[z-a]", "X", 1, "XbX"},
    {"abc", "[a", "X", 0, "abc"},
    {"a*b", "\\*", "X", 0, "aXb"},
    {"abc", "abc\\", "X", 0, "abc"},
    {"abc", "", "X", 0, "Xabc"},
    {"abc", "#", "X", 0, "Xabc"},
    {"abc", "%", "X", 0, "abc"},
    {"", "*", "X", 0, ""},
    // An empty pattern accepts one match at the first position, also with
    // all set (otherwise the walk would never move on).
    {"abc", "", "X", 1, "Xabc"},
    {"abc", "#", "X", 1, "Xabc"},
    {"abc", "%", "X", 1, "abc"},
    // Further shapes around the same rules.
    {"aaa", "#a", "X", 1, "Xaa"},       // a start anchor accepts at most once
    {"aXaYa", "%a", "Z", 1, "aXaYZ"},   // an end anchor only the last
    {"abab", "ab", "", 1, ""},          // empty replacement
    {"abc", "x", "X", 1, "abc"},        // no match at all
    {"a.b", "[\\.]", "-", 1, "a-b"},    // a quoted member
    {"a-c", "[x\\-]", "+", 1, "a+c"},   // quoted '-' is a member, no range
    {"b-d", "[a-c-e]", "X", 1, "X-X"},  // chained range: a-c, then c-e
    {"ab", "[!a]", "X", 0, "aX"},
    {"abc", "a**c", "X", 0, "X"},  // stars in a row count as one
    {"aXbc", "?b", "-", 0, "a-c"},
};

TEST(ReplaceString, Patterns) {
    for (const Case& c : CASES) {
        const char* result = replace_string(c.source, c.pattern, c.replacement, c.all);
        EXPECT_STREQ(result, c.result)
            << "source '" << c.source << "' pattern '" << c.pattern << "' all " << c.all;
    }
}

TEST(MatchGlob, EndOfMatch) {
    struct GlobCase {
        const char* source;
        const char* pattern;
        int end;  // offset of the result in source, or -1 for no match
    };
    const GlobCase cases[] = {
        {"abcabc", "a*c", 3}, {"abcabc", "a*", 6}, {"abc", "", 0},      {"", "*", 0},
        {"", "?", -1},        {"", "[a]", -1},     {"abc", "ab\\", -1}, {"ab", "a*z", -1},
        {"a", "a*b", -1},     {"xyz", "x?z", 3},   {"q", "[!]]", 1},    {"]", "[!]]", -1},
    };
    for (const GlobCase& c : cases) {
        const char* r = match_glob(c.source, c.pattern);
        const int end = r == nullptr ? -1 : static_cast<int>(r - c.source);
        EXPECT_EQ(end, c.end) << "'" << c.source << "' '" << c.pattern << "'";
    }
    EXPECT_EQ(match_glob("abc", nullptr), nullptr);
    const char* r = match_glob(nullptr, "");
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(*r, '\0');
}

// The first-success recursion the matcher has to agree with: each star tries
// its takes shortest first and recurses on the rest of the pattern. Only
// fit for the short texts below (exponential in the number of stars).
const char* reference_glob(const char* s, const char* p) {
    for (;;) {
        switch (*p) {
            case '\0':
                return s;
            case '*':
                while (*p == '*') p++;
                if (*p == '\0') return s + strlen(s);
                for (; *s != '\0'; s++)
                    if (const char* end = reference_glob(s, p)) return end;
                return nullptr;
            case '?':
                if (*s == '\0') return nullptr;
                break;
            case '\\':
                if (p[1] == '\0' || *s != p[1]) return nullptr;
                p++;
                break;
            default:
                if (*s != *p) return nullptr;
                break;
        }
        s++;
        p++;
    }
}

// Every text of the alphabet up to max_length characters.
std::vector<std::string> all_texts(const std::string& alphabet, size_t max_length) {
    std::vector<std::string> out{""};
    for (size_t i = 0; i < out.size(); ++i)
        if (out[i].size() < max_length)
            for (char c : alphabet) out.push_back(out[i] + c);
    return out;
}

TEST(MatchGlob, AgreesWithFirstSuccessRecursion) {
    const std::vector<std::string> sources = all_texts("ab", 6);
    for (const std::string& pattern : all_texts("ab*?\\", 5)) {
        for (const std::string& source : sources) {
            const char* expected = reference_glob(source.c_str(), pattern.c_str());
            const char* got = match_glob(source.c_str(), pattern.c_str());
            ASSERT_EQ(got, expected) << "'" << source << "' '" << pattern << "'";
        }
    }
}

// Each thread's scratch result is its own and is released once: two
// threads in turn (the second may get the first one's thread-local storage
// back) and then the exit of the process.
TEST(ReplaceString, ScratchOfThreadsReleasedOnce) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        for (int round = 0; round < 2; ++round) {
            std::thread([] {
                const char* r = replace_string("foobar", "o", "0", 1);
                if (r == nullptr || std::strcmp(r, "f00bar") != 0) _exit(3);
            }).join();
        }
        if (std::strcmp(replace_string("ab", "b", "c", 0), "ac") != 0) _exit(4);
        std::exit(0);  // exit handlers run: a second free of a block would abort here
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

}  // namespace
