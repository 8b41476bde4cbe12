// Syntax errors: which one a text raises, the record it leaves (the piece of
// text, the index of the offending character, the line count), and the
// report printed for it.

#include <gtest/gtest.h>

#include "stencil_parse_util.h"

using namespace parse_test;

namespace {

struct ErrorCase {
    const char* text;
    syntax_error_t err;
    const char* error_line;
    size_t location;
    int line;
};

void PrintTo(const ErrorCase& c, std::ostream* os) { *os << quote(c.text); }

class ParseError : public testing::TestWithParam<ErrorCase> {};

TEST_P(ParseError, RecordsOneError) {
    const ErrorCase& c = GetParam();
    auto defines = make_defines({{"b", "x"}});
    auto loaded = load_text(c.text, defines.get());
    ASSERT_EQ(loaded.result, STENCIL_ERROR_SYNTAX);
    ASSERT_NE(loaded.stencil, nullptr);

    stencil_syntax_error_iter_t* iter = stencil_syntax_error_iterator_create(loaded.stencil.get());
    const stencil_syntax_error_t* e = stencil_syntax_error_iterator_next(iter);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->err, c.err);
    EXPECT_STREQ(e->error_line, c.error_line);
    EXPECT_EQ(e->error_location, c.location);
    EXPECT_EQ(e->line_number, c.line);
    // The first error ends the parse: there is never a second one.
    EXPECT_EQ(stencil_syntax_error_iterator_next(iter), nullptr);
    stencil_syntax_error_iterator_destroy(iter);
}

INSTANTIATE_TEST_SUITE_P(
    Stencil, ParseError,
    testing::Values(
        ErrorCase{"$%{a", SE_UNTERMINATED_SECTION, "a", 1, 0},
        ErrorCase{"$%{a\nb}", SE_UNTERMINATED_SECTION, "a\n", 1, 1},
        ErrorCase{"x\n$%{a}\n\n$%{b", SE_UNTERMINATED_SECTION, "b", 1, 3},
        ErrorCase{"a\\\n$%{b", SE_UNTERMINATED_SECTION, "b", 1, 1},
        ErrorCase{"$%{a:}\n", SE_UNTERMINATED_SECTION, "a:}\n", 3, 1},
        ErrorCase{"$%{a$%[b]c$%[d]}", SE_ILLEGAL_CHARACTER, "a$%[b]c$", 7, 0},
        ErrorCase{"$%{n$%[zz]x}", SE_MACRO_NOT_FOUND, "n$%[zz]", 6, 0},
        ErrorCase{"$%{a:,x\ny", SE_UNTERMINATED_SECTION, "a:,x\ny", 6, 1},
        ErrorCase{"$%{a:?x/y", SE_UNTERMINATED_SECTION, "a:?x/y", 6, 0},
        // Sections.
        ErrorCase{"$%/a", SE_UNTERMINATED_SECTION, "a", 1, 0},
        ErrorCase{"$%/a\n{x}", SE_UNTERMINATED_SECTION, "a\n", 1, 1},
        // The look-ahead behind a `/` crosses the newline, finds
        // no `{`, and leaves the newline to the pattern scan.
        ErrorCase{"$%/a/\nb/{x}", SE_UNTERMINATED_SECTION, "a/\n", 2, 1},
        ErrorCase{"$%/a/{x", SE_UNTERMINATED_SECTION, "a/{x", 4, 0},
        ErrorCase{"$%/a$%[b]c$%[d]/{x}", SE_ILLEGAL_CHARACTER, "a$%[b]c$", 7, 0},
        ErrorCase{"$%/a$%[q]/{x}", SE_MACRO_NOT_FOUND, "a$%[q]", 5, 0},
        ErrorCase{"$%define r /p/{x}$%define r /q/{y}", SE_DUPLICATE_REGEX_NAME, "q/{", 2, 0},
        ErrorCase{"$%define m {a}$%define m /p/ {b}", SE_DUPLICATE_REGEX_NAME, "p/ {", 3, 0},
        ErrorCase{"$%[x:,a]", SE_BAD_TRANSFORM, ",", 0, 0},
        ErrorCase{"$%define r /p/{y}$%[r:?x]", SE_BAD_TRANSFORM, "?", 0, 0},
        ErrorCase{"$%[r:", SE_UNTERMINATED_SECTION, "", 0, 0},
        ErrorCase{"$%[r:^a", SE_UNTERMINATED_SECTION, "^a", 2, 0},
        ErrorCase{"$%[r:^a/b", SE_UNTERMINATED_SECTION, "^a/b", 4, 0},
        ErrorCase{"$%[zz:^a]", SE_REGEX_NOT_FOUND, "zz", 0, 0},
        ErrorCase{"$%define m {a}$%[m:]", SE_REGEX_IS_MACRO, "m", 0, 0},
        // Definitions and invocations.
        ErrorCase{"$%define m {a}\n$%define m {b}", SE_DUPLICATE_MACRO_NAME, "{b}", 0, 1},
        ErrorCase{"$%define r /p/{a}$%define r {b}", SE_DUPLICATE_MACRO_NAME, "{b}", 0, 0},
        ErrorCase{"$%define b {y}", SE_DUPLICATE_MACRO_NAME, "{y}", 0, 0},
        ErrorCase{"$%define m a b", SE_UNTERMINATED_SECTION, "a b", 3, 0},
        ErrorCase{"$%define m {x", SE_UNTERMINATED_SECTION, "{x", 2, 0},
        ErrorCase{"$%[]", SE_UNKNOWN_NAME, "", 0, 0},
        ErrorCase{"$%[ a]", SE_UNKNOWN_NAME, "", 0, 0},
        ErrorCase{"$%[:^a]", SE_UNKNOWN_NAME, "", 0, 0},
        ErrorCase{"$%[zz]", SE_UNKNOWN_NAME, "zz", 1, 0},
        ErrorCase{"$%[m]$%define m {a}", SE_UNKNOWN_NAME, "m", 0, 0},
        ErrorCase{"$%define m {$%[m]}", SE_UNKNOWN_NAME, "m", 0, 0},
        ErrorCase{"$%[zz 1]", SE_MACRO_NOT_FOUND, "zz", 0, 0},
        ErrorCase{"$%define r /p/{a}$%[r 1]", SE_MACRO_IS_REGEX, "r", 0, 0},
        ErrorCase{"$%define m {a}$%[m  ]", SE_TOO_MANY_ARGUMENTS, "m", 0, 0},
        ErrorCase{"$%define m a b {x}$%[m 1 2 ]", SE_TOO_MANY_ARGUMENTS, "m", 0, 0},
        ErrorCase{"$%define m a b {x}$%[m 1]", SE_TOO_FEW_ARGUMENTS, "m", 0, 0},
        ErrorCase{"$%[m", SE_UNTERMINATED_SECTION, "m", 1, 0},
        ErrorCase{"$%[m 1", SE_UNTERMINATED_SECTION, "1", 1, 0},
        ErrorCase{"$%[m\n1\n", SE_UNTERMINATED_SECTION, "1\n", 2, 2},
        // A `$%define` that defines nothing still counts the newline its
        // whitespace skip crossed; the operand takes that newline for its
        // closing token, and the scan goes on behind it.
        ErrorCase{"$%{a:,$%define\n$%{b", SE_UNTERMINATED_SECTION, "b", 1, 1},
        // Arguments are parsed before the name is looked up.
        ErrorCase{"$%[zz $%{a]", SE_UNTERMINATED_SECTION, "a]", 2, 0}));

TEST(ParseErrorReport, Messages) {
    struct ReportCase {
        const char* text;
        const char* printed;
    };
    const ReportCase cases[] = {
        {"$%{a\n", "  Line 1:  Expression \"a\n\" does not terminate with a '}' character\n"},
        {"$%[x:,a]", "  Line 0:  Character ',' in expression \",\" is invalid\n"},
        {"$%{a$%[b]c$%[d]}",
         "  Line 0:  Character '$' in expression \"a$%[b]c$\" is illegal except in literal "
         "expressions\n"},
        {"$%[]", "  Line 0:  Attempted to invoke unknown entity \"\"\n"},
    };
    auto defines = make_defines({{"b", "x"}});
    for (const auto& c : cases) {
        auto loaded = load_text(c.text, defines.get());
        ASSERT_NE(loaded.stencil->errors, nullptr) << c.text;
        testing::internal::CaptureStderr();
        display_syntax_error(&loaded.stencil->errors->syntax_error);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.printed);
    }
}

}  // namespace
