// Sections and macros through the real program: matching, grabs across
// nested and named sections, the transforms of invoked sections on patterns
// and names, patterns that pull in another service, and macro arguments.

#include <gtest/gtest.h>

#include <string>

#include "e2e_util.h"

namespace {

constexpr char kManifest[] = R"({
  "services": {
    "net/foo": {
      "instances": {
        "default": {
          "groups": {
            "net": {"properties": {"host": "h1", "port": "80"}},
            "pa": {"properties": {"q_s": "Q", "bXa_s": "deep", "aXa_s": "wrong"}},
            "config": {"properties": {"one": "solo"}}
          }
        }
      }
    },
    "net/bar": {
      "instances": {
        "default": {
          "groups": {"cfg": {"properties": {"x": "bar-x", "y": "bar-y"}}}
        }
      }
    }
  }
})";

constexpr char kWern[] = "wrn:/net/foo:default";

using Case = e2e::StencilCase;

class StencilSections : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir_ = new e2e::TempDir();
        e2e::make_repository(repo(), kManifest);
    }
    static void TearDownTestSuite() {
        delete dir_;
        dir_ = nullptr;
    }
    static std::string repo() { return *dir_ / "repo.db"; }

    // Every case must succeed silently with exactly the given output.
    static void run_cases(const std::vector<Case>& cases, const std::vector<std::string>& extra = {}) {
        e2e::expect_stencil_cases(repo(), kWern, cases, extra);
    }

    static e2e::TempDir* dir_;
};

e2e::TempDir* StencilSections::dir_ = nullptr;

TEST_F(StencilSections, Matching) {
    run_cases({
        {"one body per match", "$%/net/(.*)/ {$%1=$%{net/$%1};}", "host=h1;port=80;"},
        {"plain body repeated", "[$%/net/.*/ {ab}]", "[abab]"},
        {"no match leaves the body unvisited", "[$%/nomatch/ {$%r}]", "[]"},
        {"empty pattern", "[$%//{x}]", "[]"},
        {"pattern matches whole names only", "[$%/ost/ {X}][$%/net.host/ {Y}]", "[][Y]"},
        {"backslash consumed once", "[$%/net\\.host/ {X}][$%/net\\\\.host/ {Y}]", "[X][]"},
        {"anchors bind to the outer branches", "[$%/pa/q|rt/ {+}]", "[++]"},
        {"grabs are gone after the section", "$%/net/(h.*)/ {$%1}$%1", "host$%1"},
        {"unmatched group stays", "$%/net/(h)?(p.*)/ {[$%1][$%2]}", "[$%1][port]"},
    });
}

TEST_F(StencilSections, NestedAndNamed) {
    run_cases({
        {"nested sections number grabs on", "$%/(net)/ {$%/$%1/(.*)/ {[$%1:$%2]}}",
         "[net:host][net:port]"},
        {"a definition gives nothing", "a$%define hosts /net/(.*)/ {<$%1>}b", "ab"},
        {"invoked definition", "$%define hosts /net/(.*)/ {<$%1>}$%[hosts]", "<host><port>"},
        {"named section hides outer grabs",
         "$%define inner /net/(.*)/ {<$%1|$%2>}$%/(config)/ {$%[inner]}",
         "<host|$%2><port|$%2>"},
        {"prefix on pattern and names", "$%define sec /(.*)/ {$%1=$%{$%1};}$%[sec:^net\\//]",
         "host=h1;port=80;"},
        {"operand takes the outer grab",
         "$%define sec /(.*)/ {$%1=$%{$%1};}$%/(net)/ {$%[sec:^$%1\\//]}", "host=h1;port=80;"},
        {"replacement on pattern and names",
         "$%define sec /cfg/(o.*)/ {$%1=$%{cfg/$%1}}$%[sec:'cfg/config]", "one=solo"},
        {"replacement inside a prefix and suffix",
         "$%define inner /(q)/ {$%{aXa}}$%define outer /(q)/ {$%[inner:'a/b]}"
         "$%[outer:^pa\\//_s]",
         "deep"},
    });
}

TEST_F(StencilSections, OtherServices) {
    run_cases({
        {"absolute property", "$%{wrn:/net/bar:default/:properties/cfg/x}", "bar-x"},
        {"absolute pattern pulls the service",
         "$%/wrn:/net/bar:default/:properties/cfg/(.*)/ "
         "{$%1=$%{wrn:/net/bar:default/:properties/cfg/$%1};}",
         "x=bar-x;y=bar-y;"},
        {"transforms leave absolute names alone",
         "$%define sec /(.*)/ {$%{wrn:/net/bar:default/:properties/cfg/y}}$%[sec:^net\\/h/]",
         "bar-y"},
    });
}

TEST_F(StencilSections, Macros) {
    run_cases({
        {"worked example", "$%define greet who {hello $%who}$%[greet world]", "hello world"},
        {"a definition gives nothing", "a$%define m {x}b", "ab"},
        {"no arguments", "$%define m {body}$%[m]$%[m ]", "bodybody"},
        {"two arguments", "$%define m a b {[$%a|$%b]}$%[m 1 2]$%[m x ]", "[1|2][x|]"},
        {"escaped blank in an argument", "$%define m a {[$%a]}$%[m 1\\ 2]", "[1 2]"},
        {"shortest argument name wins", "$%define m ho host {$%host.conf}$%[m A B]", "Ast.conf"},
        {"argument hides a named form", "$%define m f {$%f}$%[m X]", "X"},
        {"nested invocation and restored arguments",
         "$%define in x {<$%x>}$%define out y {$%[in $%y]($%y)}$%[out v]", "<v>(v)"},
        {"arguments hold grabs and references",
         "$%define show k v {$%k -> $%v;}$%/net/(.*)/ {$%[show $%1 $%{net/$%1}]}",
         "host -> h1;port -> 80;"},
        {"body sees the section's grabs", "$%define g {<$%1>}$%/net/(.*)/ {$%[g]}",
         "<host><port>"},
        {"argument forms are evaluated once", "$%define m a {$%a$%a}$%[m $%{config/one}]",
         "solosolo"},
    });
}

TEST_F(StencilSections, ListMode) {
    run_cases(
        {
            {"final names after transforms",
             "$%define inner /(q)/ {$%{aXa}}$%define outer /(q)/ {$%[inner:'a/b]}"
             "$%[outer:^pa\\//_s]",
             "pa/bXa_s\n"},
            {"no match lists nothing", "$%/nomatch/ {$%{x}}", ""},
        },
        {"-l"});
}

}  // namespace
