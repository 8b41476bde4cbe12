// The cost limit on regular expressions: ordinary patterns pass, the shapes
// that make the compiler or the matcher explode are refused before anything
// is compiled.

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>

#include "common/temp_dir.h"
#include "regex_budget.h"
#include "support_internal.h"

namespace {

std::string repeat(const std::string& s, int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += s;
    return out;
}

// Patterns as sections anchor them, of the sizes people write, pass and
// compile as they always did; a malformed one still fails in the compiler.
TEST(RegexBudget, OrdinaryPatternsPassAndCompileAsBefore) {
    const char* patterns[] = {
        "^net/(.*)$",
        "^wrn:/demo/([^:]*):default/:properties/net/port$",
        "^config/server_([^/]*)$",
        "^[a-z]{1,255}$",
        "^([a-z0-9_-]{1,63}\\.){1,4}[a-z]{2,63}$",
        "^(alpha|beta|gamma|delta)/(x|y)?/[0-9]+$",
        "^(^|/)name$",
        "^.*\\b(host|port)\\b.*$",
    };
    for (const char* p : patterns) EXPECT_EQ(regex_within_budget(p), 1) << p;
    std::string long_list = "^(";
    for (int i = 0; i < 300; ++i) long_list += (i ? "|service" : "service") + std::to_string(i);
    EXPECT_EQ(regex_within_budget((long_list + ")/.*$").c_str()), 1);
    regex_t regex;
    ASSERT_EQ(regcomp_bounded(&regex, "^net/(h.*)$", REG_EXTENDED), 0);
    regmatch_t m[2];
    ASSERT_EQ(regexec(&regex, "net/host", 2, m, 0), 0);
    EXPECT_EQ(m[1].rm_so, 4);
    regfree(&regex);
    EXPECT_NE(regcomp_bounded(&regex, "a(b", REG_EXTENDED), 0);
    EXPECT_NE(regcomp_bounded(&regex, "a{2,1}", REG_EXTENDED), 0);
}

// Every section pattern written in the examples and the end-to-end tests.
TEST(RegexBudget, EveryPatternOfTheExamplesAndTestsPasses) {
    const std::regex section(R"(\$%/([^\n]*?)/\s*\{)");
    int seen = 0;
    for (const char* dir : {"/examples", "/tests/e2e", "/docs"}) {
        for (const auto& entry :
             std::filesystem::recursive_directory_iterator(std::string(SOURCE_DIR) + dir)) {
            if (!entry.is_regular_file()) continue;
            const std::string s = testing_support::read_file(entry.path());
            for (auto it = std::sregex_iterator(s.begin(), s.end(), section);
                 it != std::sregex_iterator(); ++it) {
                const std::string pattern = std::string("^").append((*it)[1].str()).append("$");
                EXPECT_EQ(regex_within_budget(pattern.c_str()), 1)
                    << entry.path() << ": " << pattern;
                ++seen;
            }
        }
    }
    EXPECT_GT(seen, 30);
}

TEST(RegexBudget, CostlyShapesAreRefusedUncompiled) {
    const std::string patterns[] = {
        std::string("config/a").append(repeat("{1,9}", 8)),  // tens of gigabytes
        repeat("(", 20) + "a" + repeat(")+", 20),            // gigabytes, seconds
        std::string("a").append(repeat("+", 30)),            // 2^30 copies
        "a{0,32767}",                                        // square of the copies
        repeat("a?", 4000),                                  // a long optional chain
        repeat("(", 100000) + "a" + repeat(")", 100000),     // the compiler's stack
        "(\\b|\\B|^|$)*",                                    // minutes for 12 bytes
        "(^|$){2}",
        repeat("(^|$)", 9),
        "(a*)\\1b",  // exponential matching
        repeat("a", REGEX_BUDGET_NODES + 1),
    };
    for (const std::string& p : patterns) {
        EXPECT_EQ(regex_within_budget(p.c_str()), 0) << p.substr(0, 60);
        regex_t regex;
        EXPECT_EQ(regcomp_bounded(&regex, p.c_str(), REG_EXTENDED), REG_ESPACE);
    }
    regex_t regex;
    EXPECT_EQ(regcomp_bounded(&regex, nullptr, REG_EXTENDED), REG_ESPACE);
}

}  // namespace
