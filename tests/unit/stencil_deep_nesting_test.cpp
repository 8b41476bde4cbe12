// Nesting deeper than the stack allows ends in STENCIL_ERROR_NO_MEMORY in
// each of the three recursive walks: the parser, the copier of definition
// bodies and the evaluator. The budget is set small so that the depths stay
// cheap and the outcome does not depend on how large the build's frames are.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "common/temp_dir.h"
#include "hgxrepo.h"
#include "stack_guard.h"
#include "stencil_internal.h"

namespace {

constexpr char MANIFEST[] = R"({"services": {"net/foo": {"instances": {"default": {"groups": {
  "net": {"properties": {"host": "h1"}}}}}}}})";
constexpr size_t BUDGET = 64 * 1024;

std::string nested(int depth, const std::string& core = "x") {
    std::string s;
    for (int i = 0; i < depth; ++i) s += "$%{net/host:+";
    s += core;
    return s + std::string(static_cast<size_t>(depth), '}');
}

class DeepNesting : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string error;
        ASSERT_EQ(hgxrepo_import_text(dir_ / "repo.db", MANIFEST, true, &error), 0) << error;
        setenv("HGX_REPOSITORY", (dir_ / "repo.db").c_str(), 1);
        ASSERT_EQ(repository_create("wrn:/net/foo:default", nullptr, &repository_),
                  REPOSITORY_SUCCESS);
    }
    void TearDown() override {
        stack_guard_set_budget(0);
        stencil_destroy(stencil_);
        repository_destroy(repository_);
    }

    stencil_error_t load(const std::string& text) {
        testing_support::write_file(dir_ / "stencil", text);
        stencil_destroy(stencil_);
        stencil_ = nullptr;
        return stencil_load((dir_ / "stencil").c_str(), &stencil_, nullptr);
    }

    // The deepest nesting that loads within the budget.
    int deepest_loadable() {
        int lo = 1;
        int hi = 1 << 16;
        while (lo < hi) {
            int mid = (lo + hi + 1) / 2;
            if (load(nested(mid)) == STENCIL_SUCCESS)
                lo = mid;
            else
                hi = mid - 1;
        }
        return lo;
    }

    testing_support::TempDir dir_;
    repository_t* repository_ = nullptr;
    stencil_t* stencil_ = nullptr;
};

// The parser stops at its budget, and so does the copier of definition
// bodies: a body is copied where it is invoked, and while each of the two
// below loads on its own, the copy inside the nesting goes beyond the budget.
TEST_F(DeepNesting, ParserAndCopierStopAtTheirBudget) {
    stack_guard_set_budget(BUDGET);
    const int deepest = deepest_loadable();
    EXPECT_GT(deepest, 10);
    EXPECT_LT(deepest, 1 << 16);
    EXPECT_EQ(load(nested(deepest + 1)), STENCIL_ERROR_NO_MEMORY);
    const int depth = deepest * 9 / 10;
    const std::string definition = "$%define m {" + nested(depth) + "}";
    ASSERT_EQ(load(definition + "$%[m]"), STENCIL_SUCCESS);
    ASSERT_EQ(load("$%define m {x}" + nested(depth, "$%[m]")), STENCIL_SUCCESS);
    EXPECT_EQ(load(definition + nested(depth, "$%[m]")), STENCIL_ERROR_NO_MEMORY);
    // The default budget takes far more; nothing is lost for shallow texts.
    stack_guard_set_budget(0);
    EXPECT_EQ(load(nested(deepest + 1)), STENCIL_SUCCESS);
}

// The evaluator stops at its budget, also where running out happens in a
// section's operands (which by the rules of sections give no text), and
// evaluates the same stencil again once there is room.
TEST_F(DeepNesting, EvaluatorStopsAtItsBudget) {
    for (const std::string& text :
         {nested(500), "$%define sec /net/(.*)/ {$%1}$%[sec:'" + nested(500) + "/y]"}) {
        ASSERT_EQ(load(text), STENCIL_SUCCESS);
        stencil_output_buffer_t* out = nullptr;
        stack_guard_set_budget(BUDGET / 4);
        EXPECT_EQ(stencil_apply(stencil_, repository_, STENCIL_OUTPUT_NORMAL, &out),
                  STENCIL_ERROR_NO_MEMORY);
        EXPECT_EQ(out, nullptr);
        stack_guard_set_budget(0);
        ASSERT_EQ(stencil_apply(stencil_, repository_, STENCIL_OUTPUT_NORMAL, &out),
                  STENCIL_SUCCESS);
        stencil_output_buffer_destroy(out);
    }
}

}  // namespace
