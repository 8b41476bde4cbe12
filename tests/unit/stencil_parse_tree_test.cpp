// Tree facts that the output cannot show: group numbering (grab_start) of
// sections and of the copies made for invocations, invocable, parent links,
// macro invocation links, the dictionary, and definitions nested in bodies
// that become invocations in a copy.

#include <gtest/gtest.h>

#include "stencil_parse_util.h"

using namespace parse_test;

namespace {

expression_t* child(expression_t* e, int i) {
    EXPECT_LT(i, e->num);
    return e->sub_expressions[i];
}
match_t* as_match(expression_t* e) {
    EXPECT_EQ(e->type, ET_REGEX);
    return reinterpret_cast<match_t*>(e);
}
macro_t* as_macro(expression_t* e) {
    EXPECT_EQ(e->type, ET_MACRO);
    return reinterpret_cast<macro_t*>(e);
}

TEST(ParseTree, NestedSectionsNumberGroupsOutward) {
    auto loaded = load_text("$%/(a)(b)(c)/{$%/(d)(e)/{$%/f/{x}}}");
    ASSERT_EQ(loaded.result, STENCIL_SUCCESS);
    match_t* outer = as_match(child(&loaded.stencil->base, 1));
    match_t* middle = as_match(child(&outer->expression, 1));
    match_t* inner = as_match(child(&middle->expression, 1));
    EXPECT_EQ(outer->grabs, 3);
    EXPECT_EQ(outer->grab_start, 0);
    EXPECT_EQ(outer->parent, nullptr);
    EXPECT_EQ(middle->grab_start, 3);
    EXPECT_EQ(middle->parent, outer);
    EXPECT_EQ(inner->grab_start, 5);
    EXPECT_EQ(inner->parent, middle);
    EXPECT_EQ(inner->invocable, 1);
    // Only `(` is counted, escaped ones not, bracket expressions not known.
    auto counted = load_text("$%/a\\(b[(]/{x}");
    EXPECT_EQ(as_match(child(&counted.stencil->base, 1))->grabs, 1);
    // The parser leaves the process-wide current section null behind it.
    EXPECT_EQ(parse_parent, nullptr);
}

TEST(ParseTree, ParseParentRestoredAfterFailure) {
    auto failed = load_text("$%/(a)/{$%/b/{");
    EXPECT_EQ(failed.result, STENCIL_ERROR_SYNTAX);
    EXPECT_EQ(parse_parent, nullptr);
    auto next = load_text("$%/c/{x}");
    EXPECT_EQ(as_match(child(&next.stencil->base, 1))->parent, nullptr);
}

TEST(ParseTree, NamedSectionCopiesNumberAfresh) {
    // The invocation stands inside a section with two groups; its copy
    // starts at 1 again, and the unnamed section of its body builds on the
    // copy's own two groups. A named invocation inside a copy starts at 0.
    auto loaded = load_text(
        "$%define s /(p)/{y}"
        "$%define r /(a)(b)/{$%/c/{x}$%[s]}"
        "$%/(o)(u)(t)/{$%[r:^1/2]}");
    ASSERT_EQ(loaded.result, STENCIL_SUCCESS);
    expression_t* base = &loaded.stencil->base;
    match_t* s_def = as_match(child(base, 1));
    match_t* r_def = as_match(child(base, 3));
    EXPECT_EQ(s_def->invocable, 0);
    EXPECT_EQ(r_def->invocable, 0);
    EXPECT_EQ(dictionary_find(loaded.stencil->dictionary, "r"), r_def);
    EXPECT_EQ(dictionary_find(loaded.stencil->dictionary, "s"), s_def);

    match_t* outer = as_match(child(base, 5));
    match_t* copy = as_match(child(&outer->expression, 1));
    EXPECT_STREQ(copy->name, "r");
    EXPECT_EQ(copy->invocable, 1);
    EXPECT_EQ(copy->grab_start, 0);
    EXPECT_EQ(copy->grabs, 2);
    EXPECT_EQ(copy->parent, nullptr);  // the enclosing section is not seen
    EXPECT_EQ(copy->transform, PT_PREFIX_SUFFIX);
    EXPECT_STREQ(copy->regex, "(a)(b)");
    EXPECT_NE(copy->regex, r_def->regex);

    match_t* unnamed = as_match(child(&copy->expression, 1));
    EXPECT_EQ(unnamed->name, nullptr);
    EXPECT_EQ(unnamed->parent, copy);
    EXPECT_EQ(unnamed->grab_start, 2);
    match_t* s_copy = as_match(child(&copy->expression, 3));
    EXPECT_EQ(s_copy->name, nullptr);  // copies in a body have no name
    EXPECT_EQ(s_copy->grab_start, 0);
    EXPECT_EQ(s_copy->parent, copy);
    EXPECT_STREQ(s_copy->regex, "(p)");
}

TEST(ParseTree, MacroCopiesAreSeparateAndPointAtDefinition) {
    auto loaded = load_text("$%define m a {<$%{p}>}$%[m 1]$%[m 2]");
    ASSERT_EQ(loaded.result, STENCIL_SUCCESS);
    expression_t* base = &loaded.stencil->base;
    macro_t* def = as_macro(child(base, 1));
    macro_t* first = as_macro(child(base, 3));
    macro_t* second = as_macro(child(base, 5));
    EXPECT_EQ(def->invocation, nullptr);
    EXPECT_EQ(def->arg_expressions, nullptr);
    EXPECT_EQ(first->invocation, def);
    EXPECT_EQ(second->invocation, def);
    EXPECT_EQ(first->args, nullptr);
    EXPECT_EQ(dump(&first->expression), R"(m m("1")["<" {"p"} ">"])");
    EXPECT_EQ(dump(&second->expression), R"(m m("2")["<" {"p"} ">"])");
    // Deep copies: no record or string is shared between the copies.
    EXPECT_NE(child(&first->expression, 1), child(&second->expression, 1));
    auto* p1 = reinterpret_cast<property_t*>(child(&first->expression, 1));
    auto* p2 = reinterpret_cast<property_t*>(child(&second->expression, 1));
    EXPECT_NE(p1->property_name, p2->property_name);
}

TEST(ParseTree, InvocationInBodyCopiesFromEarlierDefinition) {
    auto loaded = load_text("$%define a x {[$%x]}$%define b {$%[a q]}$%[b]");
    ASSERT_EQ(loaded.result, STENCIL_SUCCESS);
    expression_t* base = &loaded.stencil->base;
    macro_t* a_def = as_macro(child(base, 1));
    macro_t* b_def = as_macro(child(base, 3));
    macro_t* b_inv = as_macro(child(base, 5));
    macro_t* inner = as_macro(child(&b_inv->expression, 1));
    EXPECT_EQ(inner->invocation, a_def);
    EXPECT_NE(inner, as_macro(child(&b_def->expression, 1)));
    EXPECT_EQ(dump(&b_inv->expression), R"(m b()["" m a("q")["[$%x]"] ""])");
}

TEST(ParseTree, NestedDefinitionsBecomeInvocationsInCopy) {
    auto loaded = load_text("$%define o {$%define i a {I}$%define r /(x)/{R}}$%[o]");
    ASSERT_EQ(loaded.result, STENCIL_SUCCESS);
    expression_t* base = &loaded.stencil->base;
    macro_t* o_def = as_macro(child(base, 1));
    macro_t* i_def = as_macro(child(&o_def->expression, 1));
    match_t* r_def = as_match(child(&o_def->expression, 3));
    EXPECT_EQ(r_def->invocable, 0);
    // Nested definitions are in the dictionary like any other.
    EXPECT_EQ(dictionary_find(loaded.stencil->dictionary, "i"), i_def);
    EXPECT_EQ(dictionary_find(loaded.stencil->dictionary, "r"), r_def);
    // Copying the body made the nested definition point at itself.
    EXPECT_EQ(i_def->invocation, i_def);

    macro_t* o_inv = as_macro(child(base, 3));
    macro_t* i_copy = as_macro(child(&o_inv->expression, 1));
    EXPECT_EQ(i_copy->invocation, i_def);
    ASSERT_EQ(i_copy->num_args, 1);
    ASSERT_NE(i_copy->arg_expressions, nullptr);
    EXPECT_EQ(i_copy->arg_expressions[0].num, 0);  // evaluated with an empty argument
    match_t* r_copy = as_match(child(&o_inv->expression, 3));
    EXPECT_EQ(r_copy->invocable, 1);
    EXPECT_EQ(r_copy->name, nullptr);
    EXPECT_EQ(r_copy->grab_start, 0);
    EXPECT_EQ(r_copy->grabs, 1);
}

TEST(ParseTree, SectionInvocationInMacroBodyKeepsItsTransform) {
    auto loaded = load_text("$%define r /p/{y}$%define m {$%[r:^a/b]}$%[m]$%[m]");
    ASSERT_EQ(loaded.result, STENCIL_SUCCESS);
    expression_t* base = &loaded.stencil->base;
    for (int i : {5, 7}) {
        match_t* copy = as_match(child(&as_macro(child(base, i))->expression, 1));
        EXPECT_EQ(dump(&copy->expression), R"(/"p"/ T5 "a" / "b"["y"])");
        EXPECT_EQ(copy->invocable, 1);
    }
}

TEST(ParseTree, UnnamedSectionInMacroBodyIgnoresInvocationSite) {
    auto loaded = load_text("$%define m {$%/(q)/{z}}$%/(a)(b)/{$%[m]}");
    ASSERT_EQ(loaded.result, STENCIL_SUCCESS);
    match_t* outer = as_match(child(&loaded.stencil->base, 3));
    macro_t* inv = as_macro(child(&outer->expression, 1));
    match_t* copy = as_match(child(&inv->expression, 1));
    EXPECT_EQ(copy->parent, nullptr);
    EXPECT_EQ(copy->grab_start, 0);
    EXPECT_EQ(duplicate_parent, nullptr);
}

}  // namespace
