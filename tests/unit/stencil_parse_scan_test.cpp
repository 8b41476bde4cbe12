// The scanner and the form parsers, seen through the shape of the tree they
// build: container rule, comments, escapes, properties, sections, macros;
// the defines prelude; and where the text comes from (files of awkward
// sizes, standard input in uneven reads).

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "stencil_parse_util.h"

using namespace parse_test;

namespace {

struct ShapeCase {
    const char* text;
    const char* tree;  // dump of base
    int lines;         // line_number after the load
};

void PrintTo(const ShapeCase& c, std::ostream* os) { *os << quote(c.text); }

class ParseShape : public testing::TestWithParam<ShapeCase> {};

TEST_P(ParseShape, BuildsTree) {
    const ShapeCase& c = GetParam();
    auto defines = make_defines({{"v", "w"}, {"e", ""}});
    // The prelude's definitions of v and e come first; cut them off.
    auto loaded = load_text(c.text, defines.get());
    ASSERT_EQ(loaded.result, STENCIL_SUCCESS) << c.text;
    std::string tree = dump_children(&loaded.stencil->base);
    const std::string prelude = "\"\" m e()[\"\"] \"\" \"\" m v()[\"w\"] \"\" ";
    ASSERT_EQ(tree.substr(0, prelude.size()), prelude);
    EXPECT_EQ(tree.substr(prelude.size()), c.tree) << c.text;
    EXPECT_EQ(loaded.stencil->line_number, c.lines) << c.text;
}

INSTANTIATE_TEST_SUITE_P(
    Scanner, ParseShape,
    testing::Values(
        ShapeCase{"", R"("")", 0}, ShapeCase{"}", R"("}")", 0},
        ShapeCase{"a$%{b}c", R"("a" {"b"} "c")", 0}, ShapeCase{"x\\", R"("x\")", 0},
        ShapeCase{"x$", R"("x$")", 0}, ShapeCase{"x$%", R"("x$%")", 0},
        ShapeCase{"$%$%{a}", R"("$%" {"a"} "")", 0}, ShapeCase{"$%date", R"("$%date")", 0},
        ShapeCase{"\\$%{a}", R"("\$%{a}")", 0},
        // Comments split literals; the newline stays with the first half.
        ShapeCase{"a\n;c\nb", R"("a\n" "b")", 2}, ShapeCase{"a\n;c", R"("a\n" "")", 1},
        ShapeCase{";first\nx", R"("x")", 1}, ShapeCase{" \t;first\n  x", R"("  x")", 1},
        ShapeCase{"a\n;1\n\n;2\nb", R"("a\n" "\n" "b")", 4}, ShapeCase{"a;b\n", R"("a;b\n")", 1},
        ShapeCase{"a\\\n;b", R"("a\\n;b")", 1},
        // A `$%define` that defines nothing ends the parse behind the word.
        ShapeCase{"x$%defined y\nz", R"("x$%define")", 0},
        ShapeCase{"x$%define", R"("x$%define")", 0}, ShapeCase{"x$%define m", R"("x$%define")", 0},
        // Properties.
        ShapeCase{"$%{a}", R"("" {"a"} "")", 0}, ShapeCase{"$%{}", R"("" {null} "")", 0},
        ShapeCase{"$%{wrn:/n/f:default/:properties/c/p}",
                  R"("" {"wrn:/n/f:default/:properties/c/p"} "")", 0},
        ShapeCase{"$%{a:,}", R"("" {"a" T1 "" / } "")", 0},
        ShapeCase{"$%{a::,b}", R"("" {"a::,b"} "")", 0},
        ShapeCase{"$%{a:b:,c}", R"("" {"a:b" T1 "c" / } "")", 0},
        ShapeCase{"$%{a:?x/y/z}", R"("" {"a" T4 "x" / "y/z"} "")", 0},
        ShapeCase{"$%{a:?yes}", R"("" {"a" T4 "yes" / } "")", 0},
        ShapeCase{"$%{a:,x/y}", R"("" {"a" T1 "x/y" / } "")", 0},
        ShapeCase{"$%{a:^*p/s}", R"("" {"a" T6 "p" / "s"} "")", 0},
        ShapeCase{"$%{a:''x/y}", R"("" {"a" T8 "x" / "y"} "")", 0},
        ShapeCase{"$%{a:'x/y}", R"("" {"a" T7 "x" / "y"} "")", 0},
        ShapeCase{"$%{a:+$%{b:?c/d}}", R"("" {"a" T3 "" {"b" T4 "c" / "d"} "" / } "")", 0},
        ShapeCase{"$%{a:,one\n;c\ntwo}", R"("" {"a" T1 "one\n" "two" / } "")", 2},
        ShapeCase{"$%{a\\}", R"("" {"a\"} "")", 0}, ShapeCase{"$%{n$%[v]x}", R"("" {"nwx"} "")", 0},
        ShapeCase{"$%{$%[e]}", R"("" {""} "")", 0},
        // Sections.
        ShapeCase{"$%/a(b)c/ {x}", R"("" /"a(b)c"/["x"] "")", 0},
        ShapeCase{"$%/a/b/{x}", R"("" /"a/b"/["x"] "")", 0},
        ShapeCase{"$%/a/\n;c\n{x}", R"("" /"a"/["x"] "")", 2},
        ShapeCase{"$%/a\\/{b/{x}", R"("" /"a\/{b"/["x"] "")", 0},
        ShapeCase{"$%/a$%[v]b/{x}", R"("" /"awb"/["x"] "")", 0},
        ShapeCase{"$%//{x}", R"("" /null/["x"] "")", 0},
        // Definitions and invocations.
        ShapeCase{"$%define m {b}$%[m]", R"("" m m()["b"] "" m m()["b"] "")", 0},
        ShapeCase{"$%define m a b {x}$%[m 1 2]", R"("" m m(a,b)["x"] "" m m("1","2")["x"] "")", 0},
        ShapeCase{"$%define m a b {x}$%[m 1  2]", R"("" m m(a,b)["x"] "" m m("1","2")["x"] "")", 0},
        ShapeCase{"$%define m a{ x}", R"("" m m(a)["x"] "")", 0},
        ShapeCase{"$%define m a { x}", R"("" m m(a)[" x"] "")", 0},
        ShapeCase{"$%define m a\n;c\nb {x}", R"("" m m(a,b)["x"] "")", 2},
        ShapeCase{"$%define m\n{x}", R"("" m m()["x"] "")", 1},
        // An empty body holds an empty literal, in its copy too.
        ShapeCase{"$%define m {}$%[m]", R"("" m m()[""] "" m m()[""] "")", 0},
        ShapeCase{"$%define r //{y}$%[r]", R"("" /null/ def r["y"] "" /null/ inv r["y"] "")", 0},
        ShapeCase{"$%define x y/ {z}", R"("" m x(y/)["z"] "")", 0},
        ShapeCase{"$%define m a b {x}$%[m 1\n;c\n2]", R"("" m m(a,b)["x"] "" m m("1","2")["x"] "")",
                  2},
        ShapeCase{"$%define m a {x}$%[m 1\\ 2]", R"("" m m(a)["x"] "" m m("1\ 2")["x"] "")", 0},
        ShapeCase{"$%define m a b {x}$%[m $%{p:,x y} 2]",
                  R"("" m m(a,b)["x"] "" m m("" {"p" T1 "x y" / } "","2")["x"] "")", 0},
        ShapeCase{"$%define m a {x}$%[m a}b]", R"("" m m(a)["x"] "" m m("a}b")["x"] "")", 0},
        ShapeCase{"$%define m a {x}$%[m\n;c\n1]", R"("" m m(a)["x"] "" m m("1")["x"] "")", 2},
        ShapeCase{"$%define r /p/ {y}$%[r]", R"("" /"p"/ def r["y"] "" /"p"/ inv r["y"] "")", 0},
        ShapeCase{"$%define r /p/ {y}$%[r:]", R"("" /"p"/ def r["y"] "" /"p"/ inv r["y"] "")", 0},
        ShapeCase{"$%define r /p/ {y}$%[r:^p/s]",
                  R"("" /"p"/ def r["y"] "" /"p"/ inv r T5 "p" / "s"["y"] "")", 0},
        ShapeCase{"$%define r /p/ {y}$%[r:^*p]",
                  R"("" /"p"/ def r["y"] "" /"p"/ inv r T5 "*p" / ["y"] "")", 0},
        ShapeCase{"$%define r /p/ {y}$%[r:''x/y]",
                  R"("" /"p"/ def r["y"] "" /"p"/ inv r T8 "x" / "y"["y"] "")", 0},
        ShapeCase{"$%define r /p/ {y}$%[r:'a}b]",
                  R"("" /"p"/ def r["y"] "" /"p"/ inv r T7 "a}b" / ["y"] "")", 0}));

// The defines reach the tree in byte order of their names, whatever order
// they were added in; a value may hold forms.
TEST(ParsePrelude, DefinesInNameOrderAheadOfText) {
    auto defines = make_defines({{"b", "2"}, {"a", "1\n"}, {"B", "<$%{p}>"}});
    auto loaded = load_text("t", defines.get());
    ASSERT_EQ(loaded.result, STENCIL_SUCCESS);
    EXPECT_EQ(dump_children(&loaded.stencil->base),
              R"("" m B()["<" {"p"} ">"] "" "" m a()["1\n"] "" "" m b()["2"] "" "t")");
    // The prelude's newline counts too.
    EXPECT_EQ(loaded.stencil->line_number, 1);
}

TEST(ParsePrelude, UnbalancedBraceInValueLeavesPreludeLiteral) {
    auto defines = make_defines({{"a", "x}y"}});
    auto loaded = load_text("t", defines.get());
    ASSERT_EQ(loaded.result, STENCIL_SUCCESS);
    EXPECT_EQ(dump_children(&loaded.stencil->base), R"("" m a()["x"] "y}" "t")");
}

TEST(ParsePrelude, DefineClashingWithStencilDefinition) {
    auto defines = make_defines({{"m", "x"}});
    auto loaded = load_text("$%define m {y}", defines.get());
    EXPECT_EQ(loaded.result, STENCIL_ERROR_SYNTAX);
}

std::string only_literal(const stencil_t* stencil) {
    EXPECT_EQ(stencil->base.num, 1);
    return reinterpret_cast<const literal_t*>(stencil->base.sub_expressions[0])->str;
}

TEST(StencilLoad, FileSizesAroundPageBoundaries) {
    const size_t page = static_cast<size_t>(getpagesize());
    for (size_t size : {size_t{0}, size_t{1}, page - 1, page, page + 1, 2 * page}) {
        std::string text(size, 'x');
        if (size > 0) text[size - 1] = 'y';
        auto loaded = load_text(text);
        ASSERT_EQ(loaded.result, STENCIL_SUCCESS) << size;
        EXPECT_EQ(only_literal(loaded.stencil.get()), text) << size;
    }
}

// Feeds the text to descriptor 0 through a pipe, in the given chunk sizes,
// and loads from standard input.
LoadResult load_stdin(const std::string& text, const std::vector<size_t>& chunks) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    int saved = dup(0);
    dup2(fds[0], 0);
    close(fds[0]);
    std::thread writer([&] {
        size_t at = 0;
        for (size_t i = 0; at < text.size(); ++i) {
            size_t n = std::min(chunks[i % chunks.size()], text.size() - at);
            EXPECT_EQ(write(fds[1], text.data() + at, n), static_cast<ssize_t>(n));
            at += n;
            usleep(1000);  // let each piece arrive as a read of its own
        }
        close(fds[1]);
    });
    stencil_t* stencil = nullptr;
    stencil_error_t result = stencil_load(nullptr, &stencil, nullptr);
    writer.join();
    dup2(saved, 0);
    close(saved);
    return {result, StencilPtr(stencil)};
}

TEST(StencilLoad, StandardInputInUnevenReads) {
    std::string text;
    for (int i = 0; i < 60; ++i)
        text += "line " + std::to_string(i) + " $%{p" + std::to_string(i) + "}\n";
    auto whole = load_text(text);
    auto piecewise = load_stdin(text, {1, 127, 128, 129, 3, 300});
    ASSERT_EQ(piecewise.result, STENCIL_SUCCESS);
    EXPECT_EQ(dump_children(&piecewise.stencil->base), dump_children(&whole.stencil->base));
    EXPECT_EQ(piecewise.stencil->line_number, 60);

    auto empty = load_stdin("", {1});
    ASSERT_EQ(empty.result, STENCIL_SUCCESS);
    EXPECT_EQ(only_literal(empty.stencil.get()), "");
}

}  // namespace
