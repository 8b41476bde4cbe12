// The stencil language through the real program: substitution in text,
// every property operator on defined, undefined, multi-valued, empty and
// group names, and list mode. Each case pipes a stencil on standard input
// and compares standard output, standard error and the exit status whole.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "e2e_util.h"

namespace {

constexpr char kManifest[] = R"({
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
            "g": {"type": "application"}
          }
        }
      }
    }
  }
})";

constexpr char kWern[] = "wrn:/net/foo:default";

using Case = e2e::StencilCase;

class StencilText : public ::testing::Test {
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

    static void run_cases(const std::vector<Case>& cases, const std::vector<std::string>& extra = {},
                          const std::map<std::string, std::optional<std::string>>& env = {}) {
        e2e::expect_stencil_cases(repo(), kWern, cases, extra, env);
    }

    static e2e::TempDir* dir_;
};

e2e::TempDir* StencilText::dir_ = nullptr;

TEST_F(StencilText, EscapesAndDollars) {
    run_cases({
        {"plain dollar", "price $5", "price $5", "", 0},
        {"double dollar keeps the form", "$$%1", "$$%1", "", 0},
        {"newline escape", "a\\nb", "a\nb", "", 0},
        {"return and tab escapes", "a\\rb\\tc", "a\rb\tc", "", 0},
        {"other escapes drop the backslash", "\\q\\\\\\}", "q\\}", "", 0},
        {"escaped backslash then n", "\\\\n", "\\n", "", 0},
        {"escaped dollar starts no form", "\\$%f", "$%f", "", 0},
        {"trailing backslash", "abc\\", "abc\\", "", 0},
        {"trailing dollar", "abc$", "abc$", "", 0},
        {"trailing form opener", "abc$%", "abc$%", "", 0},
        {"percent", "$%% and $%%1", "% and %1", "", 0},
        {"unknown form", "$%x $%host", "$%x $%host", "", 0},
        {"absent grabs stay", "$%1 $%0 $%-1 $%0x10", "$%1 $%0 $%-1 $%0x10", "", 0},
    });
}

TEST_F(StencilText, NamedForms) {
    run_cases({
        {"wern", "[$%f]", "[wrn:/net/foo:default]", "", 0},
        {"instance and service", "$%i of $%s", "default of net/foo", "", 0},
        {"method unset", "$%m", "no method", "", 0},
        {"restarter unset", "before $%r after", "",
         "QRM_RESTARTER is not defined in the environment\n", 1},
    });
    run_cases({{"method and restarter set", "$%m by $%r", "refresh by wrn:/system/r:default", "", 0}},
              {}, {{"QRM_METHOD", "refresh"}, {"QRM_RESTARTER", "wrn:/system/r:default"}});
}

TEST_F(StencilText, ServiceWernHasNoInstanceName) {
    e2e::Result r = e2e::kelvo(repo(), {"-f", "wrn:/net/foo"}, "[$%i][$%s]");
    EXPECT_EQ(r.out, "[][net/foo]");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.status, 0);
}

TEST_F(StencilText, PropertyOperators) {
    run_cases({
        {"values joined", "$%{config/a}", "x y", "", 0},
        {"undefined", "[$%{config/nope}]", "[]", "", 0},
        {"count value", "$%{config/port}", "8080", "", 0},
        {"delimiter", "$%{config/a:,-}|$%{config/a:,}|$%{config/nope:,-}", "x-y|xy|", "", 0},
        {"delimiter single value", "$%{config/one:,-}", "solo", "", 0},
        {"ifdef", "[$%{config/a:+yes}][$%{config/nope:+yes}]", "[yes][]", "", 0},
        {"ifndef", "[$%{config/a:-no}][$%{config/nope:-no}]", "[][no]", "", 0},
        {"bool", "$%{config/t:?on/off} $%{config/f:?on/off} $%{config/a:?on/off}",
         "on off off", "", 0},
        {"bool undefined and upper case", "$%{config/nope:?on/off} $%{config/T:?on/off}",
         "off off", "", 0},
        {"bool looks at the first value only", "$%{config/tf:?on/off} $%{config/ft:?on/off}",
         "on off", "", 0},
        {"bool without else", "[$%{config/a:?on}]", "[]", "", 0},
        {"bool else may hold slashes", "$%{config/f:?x/y/z}", "y/z", "", 0},
        {"prefix suffix", "$%{config/a:^p/s}|$%{config/a:^*p/s}", "pxspys|pxspys", "", 0},
        {"prefix suffix undefined", "[$%{config/nope:^p/s}][$%{config/nope:^*p/s}]", "[][]", "",
         0},
        {"replace first per value", "$%{config/a:'x/z}", "z y", "", 0},
        {"replace with empty", "[$%{config/a:'x}]", "[ y]", "", 0},
        {"replace first and all", "$%{config/one:'o/0} $%{config/one:''o/0}", "s0lo s0l0", "",
         0},
        {"replace anchored", "$%{config/one:'#s/S} $%{config/one:'%o/O}", "Solo solO", "", 0},
        {"trailing star takes the rest", "$%{config/one:'o*/_}", "s_", "", 0},
        {"replace undefined", "[$%{config/nope:'x/z}]", "[]", "", 0},
        {"operands hold forms", "$%{config/a:+$%{config/one:?y/n}}", "n", "", 0},
        {"operand spans lines", "$%{config/a:,one\ntwo}", "xone\ntwoy", "", 0},
    });
}

TEST_F(StencilText, EmptyValuedAndGroupNames) {
    run_cases({
        {"one empty value is defined", "[$%{config/blank}][$%{config/blank:+yes}]", "[][yes]", "",
         0},
        {"no values is undefined", "[$%{config/empty:+yes}][$%{config/empty:-no}]", "[][no]", "",
         0},
        {"group name is undefined", "[$%{config:-no}][$%{g:+yes}][$%{g}]", "[no][][]", "", 0},
        {"empty name outside a section", "a$%{}b", "", "Out of memory\n", 1},
        {"failure in an untaken branch", "[$%{config/a:-$%r}]", "[]", "", 0},
        {"failure in a delimiter of an undefined name", "[$%{config/nope:,$%r}]", "",
         "QRM_RESTARTER is not defined in the environment\n", 1},
    });
}

TEST_F(StencilText, ListMode) {
    run_cases(
        {
            {"one line per reference in order",
             "a$%{config/one}b$%{config/nope:-x}c$%{config/one}", "config/one\nconfig/nope\nconfig/one\n",
             "", 0},
            {"operands are not listed", "$%{config/a:+$%{config/one}}", "config/a\n", "", 0},
            {"text alone lists nothing", "just text $%f", "", "", 0},
            {"sections list once per match with grabs",
             "$%/config/(o.*)/ {$%{config/$%1}$%{x/$%1}}", "config/one\nx/one\n", "", 0},
            {"macro arguments are values, the body is listed",
             "$%define m v {$%v$%{config/$%v}}$%[m $%{config/one}]", "config/solo\n", "", 0},
        },
        {"-l"});
}

TEST_F(StencilText, StencilFromDirectory) {
    e2e::TempDir stencils;
    e2e::write_file(stencils / "port.st", "port=$%{config/port}\n");
    e2e::Result r = e2e::kelvo(repo(), {"-f", kWern, "-S", stencils.path(), "-i", "port.st"});
    EXPECT_EQ(r.out, "port=8080\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.status, 0);
}

}  // namespace
