// The stencil language through the real program: substitution in text,
// every property operator on defined, undefined, multi-valued, empty and
// group names, sections (matching, grabs across nested and named sections,
// the transforms of invoked sections, patterns that pull in another service),
// macros, and list mode. Each case pipes a stencil on standard input and
// compares standard output, standard error and the exit status whole.

#include <gtest/gtest.h>

#include <string>

#include "e2e_util.h"

namespace {

constexpr char MANIFEST[] = R"({
  "services": {
    "net/foo": {
      "instances": {
        "default": {
          "groups": {
            "config": {
              "properties": {
                "a": ["x", "y"],
                "one": "solo",
                "t": true,
                "f": false,
                "T": {"type": "astring", "values": ["TRUE"]},
                "tf": {"type": "astring", "values": ["true", "false"]},
                "ft": {"type": "astring", "values": ["false", "true"]},
                "blank": "",
                "empty": [],
                "port": 8080
              }
            },
            "g": {"type": "application"},
            "net": {"properties": {"host": "h1", "port": "80"}},
            "pa": {"properties": {"q_s": "Q", "bXa_s": "deep", "aXa_s": "wrong"}}
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

constexpr char WERN[] = "wrn:/net/foo:default";

class Stencil : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        shared_dir = new e2e::TempDir();
        e2e::make_repository(repo(), MANIFEST);
    }
    static void TearDownTestSuite() {
        delete shared_dir;
        shared_dir = nullptr;
    }
    static std::string repo() { return *shared_dir / "repo.db"; }

    static void run_cases(const std::vector<e2e::StencilCase>& cases,
                          const std::vector<std::string>& extra = {},
                          const std::map<std::string, std::optional<std::string>>& env = {}) {
        e2e::expect_stencil_cases(repo(), WERN, cases, extra, env);
    }

    static e2e::TempDir* shared_dir;
};

e2e::TempDir* Stencil::shared_dir = nullptr;

TEST_F(Stencil, EscapesAndDollars) {
    run_cases({
        {"plain dollar", "price $5", "price $5"},
        {"double dollar keeps the form", "$$%1", "$$%1"},
        {"newline escape", "a\\nb", "a\nb"},
        {"return and tab escapes", "a\\rb\\tc", "a\rb\tc"},
        {"other escapes drop the backslash", "\\q\\\\\\}", "q\\}"},
        {"escaped backslash then n", "\\\\n", "\\n"},
        {"escaped dollar starts no form", "\\$%f", "$%f"},
        {"trailing backslash", "abc\\", "abc\\"},
        {"trailing dollar", "abc$", "abc$"},
        {"trailing form opener", "abc$%", "abc$%"},
        {"percent", "$%% and $%%1", "% and %1"},
        {"unknown form", "$%x $%host", "$%x $%host"},
        {"absent grabs stay", "$%1 $%0 $%-1 $%0x10", "$%1 $%0 $%-1 $%0x10"},
    });
}

TEST_F(Stencil, NamedForms) {
    run_cases({
        {"wern", "[$%f]", "[wrn:/net/foo:default]"},
        {"instance and service", "$%i of $%s", "default of net/foo"},
        {"method unset", "$%m", "no method"},
        {"restarter unset", "before $%r after", "",
         "QRM_RESTARTER is not defined in the environment\n", 1},
    });
    run_cases({{"method and restarter set", "$%m by $%r", "refresh by wrn:/system/r:default"}}, {},
              {{"QRM_METHOD", "refresh"}, {"QRM_RESTARTER", "wrn:/system/r:default"}});
}

TEST_F(Stencil, ServiceWernHasNoInstanceName) {
    e2e::expect_stencil_cases(repo(), "wrn:/net/foo",
                              {{"service wern", "[$%i][$%s]", "[][net/foo]"}});
}

TEST_F(Stencil, PropertyOperators) {
    run_cases({
        {"values joined", "$%{config/a}", "x y"},
        {"undefined", "[$%{config/nope}]", "[]"},
        {"count value", "$%{config/port}", "8080"},
        {"delimiter", "$%{config/a:,-}|$%{config/a:,}|$%{config/nope:,-}", "x-y|xy|"},
        {"delimiter single value", "$%{config/one:,-}", "solo"},
        {"ifdef", "[$%{config/a:+yes}][$%{config/nope:+yes}]", "[yes][]"},
        {"ifndef", "[$%{config/a:-no}][$%{config/nope:-no}]", "[][no]"},
        {"bool", "$%{config/t:?on/off} $%{config/f:?on/off} $%{config/a:?on/off}", "on off off"},
        {"bool undefined and upper case", "$%{config/nope:?on/off} $%{config/T:?on/off}",
         "off off"},
        {"bool looks at the first value only", "$%{config/tf:?on/off} $%{config/ft:?on/off}",
         "on off"},
        {"bool without else", "[$%{config/a:?on}]", "[]"},
        {"bool else may hold slashes", "$%{config/f:?x/y/z}", "y/z"},
        {"prefix suffix", "$%{config/a:^p/s}|$%{config/a:^*p/s}", "pxspys|pxspys"},
        {"prefix suffix undefined", "[$%{config/nope:^p/s}][$%{config/nope:^*p/s}]", "[][]"},
        {"replace first per value", "$%{config/a:'x/z}", "z y"},
        {"replace with empty", "[$%{config/a:'x}]", "[ y]"},
        {"replace first and all", "$%{config/one:'o/0} $%{config/one:''o/0}", "s0lo s0l0"},
        {"replace anchored", "$%{config/one:'#s/S} $%{config/one:'%o/O}", "Solo solO"},
        {"trailing star takes the rest", "$%{config/one:'o*/_}", "s_"},
        {"replace undefined", "[$%{config/nope:'x/z}]", "[]"},
        {"operands hold forms", "$%{config/a:+$%{config/one:?y/n}}", "n"},
        {"operand spans lines", "$%{config/a:,one\ntwo}", "xone\ntwoy"},
    });
}

TEST_F(Stencil, EmptyValuedAndGroupNames) {
    run_cases({
        {"one empty value is defined", "[$%{config/blank}][$%{config/blank:+yes}]", "[][yes]"},
        {"no values is undefined", "[$%{config/empty:+yes}][$%{config/empty:-no}]", "[][no]"},
        {"group name is undefined", "[$%{config:-no}][$%{g:+yes}][$%{g}]", "[no][][]"},
        {"empty name outside a section", "a$%{}b", "", "Out of memory\n", 1},
        {"failure in an untaken branch", "[$%{config/a:-$%r}]", "[]"},
        {"failure in a delimiter of an undefined name", "[$%{config/nope:,$%r}]", "",
         "QRM_RESTARTER is not defined in the environment\n", 1},
    });
}

TEST_F(Stencil, ListMode) {
    run_cases(
        {
            {"one line per reference in order", "a$%{config/one}b$%{config/nope:-x}c$%{config/one}",
             "config/one\nconfig/nope\nconfig/one\n"},
            {"operands are not listed", "$%{config/a:+$%{config/one}}", "config/a\n"},
            {"text alone lists nothing", "just text $%f", ""},
            {"sections list once per match with grabs",
             "$%/config/(o.*)/ {$%{config/$%1}$%{x/$%1}}", "config/one\nx/one\n"},
            {"macro arguments are values, the body is listed",
             "$%define m v {$%v$%{config/$%v}}$%[m $%{config/one}]", "config/solo\n"},
        },
        {"-l"});
}

TEST_F(Stencil, Matching) {
    run_cases({
        {"one body per match", "$%/net/(.*)/ {$%1=$%{net/$%1};}", "host=h1;port=80;"},
        {"plain body repeated", "[$%/net/.*/ {ab}]", "[abab]"},
        {"no match leaves the body unvisited", "[$%/nomatch/ {$%r}]", "[]"},
        {"empty pattern", "[$%//{x}]", "[]"},
        {"pattern matches whole names only", "[$%/ost/ {X}][$%/net.host/ {Y}]", "[][Y]"},
        {"backslash consumed once", "[$%/net\\.host/ {X}][$%/net\\\\.host/ {Y}]", "[X][]"},
        {"anchors bind to the outer branches", "[$%/pa/q|rt/ {+}]", "[+++]"},
        {"grabs are gone after the section", "$%/net/(h.*)/ {$%1}$%1", "host$%1"},
        {"unmatched group stays", "$%/net/(h)?(p.*)/ {[$%1][$%2]}", "[$%1][port]"},
        {"grab numbers", "$%/net/(h.*)/ {$%01|$%0x1|$%1abc|$%12|$%0|$$%1}",
         "host|host|hostabc|$%12|$%0|$$%1"},
    });
}

TEST_F(Stencil, NestedAndNamed) {
    run_cases({
        {"nested sections number grabs on", "$%/(net)/ {$%/$%1/(.*)/ {[$%1:$%2]}}",
         "[net:host][net:port]"},
        {"inner grab numbers", "$%/(net)/ {$%/$%1/(h.*)/ {[$%01:$%02:$%3]}}", "[net:host:$%3]"},
        {"a definition gives nothing", "a$%define hosts /net/(.*)/ {<$%1>}b", "ab"},
        {"invoked definition", "$%define hosts /net/(.*)/ {<$%1>}$%[hosts]", "<host><port>"},
        {"named section hides outer grabs",
         "$%define inner /net/(.*)/ {<$%1|$%2>}$%/(config)/ {$%[inner]}", "<host|$%2><port|$%2>"},
        {"prefix on pattern and names", "$%define sec /(.*)/ {$%1=$%{$%1};}$%[sec:^net\\//]",
         "host=h1;port=80;"},
        {"operand takes the outer grab",
         "$%define sec /(.*)/ {$%1=$%{$%1};}$%/(net)/ {$%[sec:^$%1\\//]}", "host=h1;port=80;"},
        {"replacement on pattern and names",
         "$%define sec /cfg/(o.*)/ {$%1=$%{cfg/$%1}}$%[sec:'cfg/config]", "one=solo"},
        {"a section in a macro body ignores the invocation's grabs",
         "$%define m {$%/net/(.*)/ {<$%1|$%2>}}$%/(net)/ {$%[m]}", "<host|$%2><port|$%2>"},
        {"a copy numbers its grabs afresh, its body builds on them",
         "$%define s /net/(p.*)/ {[$%1]}$%define r /(n)(e)t/ {$%/$%1$%2t/(h.*)/ {$%1$%3}$%[s]}"
         "$%/(c)(o)nfig/ {$%[r]}",
         "nhost[port]"},
        {"definitions in a macro body are invocable after it ran",
         "$%define o {$%define i a {I$%a}$%define r /net/(h.*)/ {R$%1}}$%[o]|$%[i 2]|$%[r]",
         "IRhost|I2|Rhost"},
        {"an invoked section in a macro body keeps its transform",
         "$%define r /(.*)/ {$%1;}$%define m {$%[r:^net\\//]}$%[m]$%[m]", "host;port;host;port;"},
        {"replacement inside a prefix and suffix",
         "$%define inner /(q)/ {$%{aXa}}$%define outer /(q)/ {$%[inner:'a/b]}"
         "$%[outer:^pa\\//_s]",
         "deep"},
    });
}

TEST_F(Stencil, OtherServices) {
    run_cases({
        {"absolute property", "$%{wrn:/net/bar:default/:properties/cfg/x}", "bar-x"},
        {"absolute pattern pulls the service",
         "$%/wrn:/net/bar:default/:properties/cfg/(.*)/ "
         "{$%1=$%{wrn:/net/bar:default/:properties/cfg/$%1};}",
         "x=bar-x;y=bar-y;"},
        {"transforms leave absolute names alone",
         "$%define sec /(.*)/ {$%{wrn:/net/bar:default/:properties/cfg/y}}$%[sec:^net\\/h/]",
         "bar-y"},
        // Names that name nothing give empty text, on every store.
        {"no such service, instance, group or property",
         "[$%{wrn:/net/none:default/:properties/cfg/x}|$%{wrn:/net/bar:none/:properties/cfg/x}|"
         "$%{wrn:/net/bar:default/:properties/none/x}|$%{wrn:/net/bar:default/:properties/cfg/"
         "none}]",
         "[|||]"},
        {"a pattern that selects no service", "[$%/wrn:/none/.*:default/:properties/(.*)/ {$%1}]",
         "[]"},
    });
}

TEST_F(Stencil, Macros) {
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
        {"body sees the section's grabs", "$%define g {<$%1>}$%/net/(.*)/ {$%[g]}", "<host><port>"},
        {"argument forms are evaluated once", "$%define m a {$%a$%a}$%[m $%{config/one}]",
         "solosolo"},
    });
}

TEST_F(Stencil, SectionListMode) {
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
