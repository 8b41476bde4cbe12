// Stencils that once took the host's memory, hung or ended in a signal: each
// now ends promptly with its text or with "Out of memory" and status 1. Runs
// are capped at 2 GiB of address space (not under the sanitizers, which
// reserve far more), so a regression fails instead of taking the machine.

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "e2e_util.h"

namespace {

constexpr char MANIFEST[] = R"({"services": {"demo": {"instances": {"default": {"groups": {
  "config": {"properties": {"aaaa": "x",
    "name": "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"}}}}}}}})";

std::string repeat(const std::string& s, int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += s;
    return out;
}

std::string nested(int depth) {
    return repeat("$%{config/name:+", depth) + "x" + std::string(static_cast<size_t>(depth), '}');
}

class Resources : public ::testing::Test {
  protected:
    void SetUp() override { e2e::make_repository(repo_, MANIFEST); }

    // kelvo on the stencil, its stack limited to stack_bytes when not 0. The
    // stencil is read from a file: standard input grows its buffer in small
    // steps, which the sanitizers' realloc makes quadratic for megabytes.
    e2e::Whole run(const std::string& stencil, long stack_bytes = 0) {
        e2e::write_file(dir_ / "s.stencil", stencil);
        return run_file("s.stencil", stack_bytes);
    }
    e2e::Whole run_file(const std::string& name, long stack_bytes = 0) {
        std::vector<std::string> limits = {"/usr/bin/prlimit"};
#ifndef KELVO_SANITIZED
        limits.push_back("--as=" + std::to_string(2L << 30));
#endif
        if (stack_bytes != 0) limits.push_back("--stack=" + std::to_string(stack_bytes));
        limits.push_back("--");
        return e2e::whole(e2e::kelvo(repo_,
                                     {"-f", "wrn:/demo:default", "-S", dir_.path(), "-i", name}, "",
                                     {}, std::move(limits)));
    }

    e2e::TempDir dir_;
    std::string repo_ = dir_ / "repo.db";
};

TEST_F(Resources, CostlyPatternsFailAsPatternsThatDoNotCompile) {
    const e2e::Whole nothing{0, "", ""};
    EXPECT_EQ(run("$%/config/a" + repeat("{1,9}", 8) + "/ {x}"), nothing);
    EXPECT_EQ(run("$%/config/" + repeat("(", 20) + "a" + repeat(")+", 20) + "/ {x}"), nothing);
    EXPECT_EQ(run("$%/config/a" + repeat("+", 30) + "/ {x}"), nothing);
    EXPECT_EQ(run("$%/wrn:/demo:default/:properties/config/a" + repeat("+", 30) + "/ {x}"),
              nothing);
    // The same shapes at ordinary sizes match as they always did.
    EXPECT_EQ(run("$%/config/(a{1,9}){1,9}/ {[$%1]}"), (e2e::Whole{0, "[aaaa]", ""}));
    EXPECT_EQ(run("$%/config/((a)+)+/ {[$%1]}"), (e2e::Whole{0, "[aaaa]", ""}));
    // A replacement pattern with many stars ends promptly too.
    EXPECT_EQ(run("$%{config/name:'*a*a*a*a*a*a*a*a*a*a*b/X}"),
              (e2e::Whole{0, std::string(60, 'a'), ""}));
    EXPECT_EQ(run("$%{config/name:''*a*a*a*a*a*a*a*a*a*a/X}"), (e2e::Whole{0, "XXXXXX", ""}));
}

TEST_F(Resources, DeepNestingEndsInOutOfMemory) {
    const e2e::Whole out_of_memory{1, "", "Out of memory\n"};
    // 15,000 levels once overflowed the stack; with a small one they still
    // would, and are reported instead.
    EXPECT_EQ(run(nested(15000), 1 << 20), out_of_memory);
    EXPECT_EQ(run(nested(900000)), out_of_memory);  // just below the size limit
    EXPECT_EQ(run("$%define m {" + nested(15000) + "}$%[m]", 1 << 20), out_of_memory);
    EXPECT_EQ(run("$%/config/(n.*)/ {" + nested(15000) + "}", 1 << 20), out_of_memory);
    EXPECT_EQ(run(nested(100)), (e2e::Whole{0, "x", ""}));
}

// A stencil larger than any written by hand, or input without end, ends
// the run at once with its size, on the failure path of an unreadable
// stencil (status 1).
TEST_F(Resources, OversizedStencilIsRefusedAtOnce) {
    const std::string big = dir_ / "big.stencil";
    e2e::write_file(big, "");
    ASSERT_EQ(truncate(big.c_str(), (16 << 20) + 1), 0);  // sparse: costs no disk
    const std::string unhandled = "kelvo: Unhandled error in stencil_load: -10\n";
    EXPECT_EQ(run_file("big.stencil"),
              (e2e::Whole{1, "",
                          "Stencil " + big +
                              " is 16777217 bytes, larger than the limit of 16777216 bytes\n" +
                              unhandled}));
    e2e::Run r;
    r.args = {"timeout",       "120", "sh", "-c", "exec \"$0\" -f wrn:/demo:default </dev/zero",
              e2e::kelvo_bin()};
    r.env = {{"HGX_REPOSITORY", repo_}};
    EXPECT_EQ(e2e::whole(e2e::run(r)),
              (e2e::Whole{1, "",
                          "Stencil on standard input is larger than the limit of 16777216 bytes\n" +
                              unhandled}));
}

}  // namespace
