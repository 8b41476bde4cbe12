// kelvo-lint: references that name nothing, with their lines, and what is
// deliberately not reported.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "e2e_util.h"

namespace {

const char* const WERN = "wrn:/net/foo:default";
const char* const MANIFEST = R"({"services": {"net/foo": {"instances": {"default": {"groups": {
    "config": {"properties": {"port": 8080, "on": true}},
    "hosts": {"groups": {"a": {"properties": {"addr": "10.0.0.1"}},
                         "b": {"properties": {"addr": "10.0.0.2", "alias": "bee"}}}},
    "one": {"type": "configfile", "properties": {"path": "/etc/one", "stencil": "one",
                                                 "mode": "0644"},
            "groups": {"defines": {"properties": {"g": "config"}}}},
    "two": {"type": "configfile", "properties": {"path": "/etc/two", "stencil": "two",
                                                 "mode": "0644"}}}}}}}})";

using e2e::whole;
using e2e::Whole;

class KelvoLint : public ::testing::Test {
  protected:
    void SetUp() override {
        repo = dir / "repo.db";
        stencils = dir / "stencils";
        e2e::make_repository(repo, MANIFEST);
        ASSERT_EQ(mkdir(stencils.c_str(), 0755), 0);
    }
    e2e::Result lint(const std::vector<std::string>& args) {
        return e2e::program(e2e::kelvo_lint_bin(), repo, args);
    }
    e2e::Result lint_text(const std::string& text) {
        e2e::write_file(stencils + "/s", text);
        return lint({"-f", WERN, "-S", stencils, "-i", "s"});
    }
    e2e::TempDir dir;
    std::string repo, stencils;
};

TEST_F(KelvoLint, ReportsWhatNamesNothingWithItsLine) {
    struct Case {
        const char* name;
        std::string stencil;
        std::string out;  // behind the stencil's path
    };
    const std::vector<Case> cases = {
        {"a reference that is fine", "port=$%{config/port}\n", ""},
        {"a typo", "# c\nport=$%{config/port}\nprt=$%{config/prot}\n", ":3: config/prot\n"},
        {"stencil order, each place once", "$%{zz/a} $%{config/nope}\n$%{config/nope}\n$%{zz/a}\n",
         ":1: zz/a\n:1: config/nope\n:2: config/nope\n:3: zz/a\n"},
        {"a default for an optional property", "$%{config/maybe:-1}\n", ""},
        {"a default in a group that does not exist", "$%{confg/maybe:-1}\n", ":1: confg/maybe\n"},
        {"tests of presence", "$%{config/x:+y}$%{config/on:?a/b}$%{cnfig/x:+y}\n", ":1: cnfig/x\n"},
        {"found on some match of a section", "$%/hosts\\/([a-z])\\/addr/ { $%{hosts/$%1/alias} }\n",
         ""},
        {"found on no match of a section", "$%/hosts\\/([a-z])\\/addr/ {\n$%{hosts/$%1/alais}\n}\n",
         ":2: hosts/$%1/alais\n"},
        {"a section without matches", "$%/nothing\\/(.*)/ { $%{x/y} }\n", ""},
    };
    for (const Case& c : cases) {
        e2e::Result r = lint_text(c.stencil);
        std::string expected;
        for (size_t at = 0, end; (end = c.out.find('\n', at)) != std::string::npos; at = end + 1)
            expected += stencils + "/s" + c.out.substr(at, end + 1 - at);
        EXPECT_EQ(whole(r), (Whole{expected.empty() ? 0 : 1, expected, ""})) << c.name;
    }
}

TEST_F(KelvoLint, AllConfigfileStencilsWithTheirDefines) {
    e2e::write_file(stencils + "/one", "$%{$%[g]/port}\n$%{$%[g]/prot}\n");
    e2e::write_file(stencils + "/two", "fine\n$%{two/path}\n$%{two/nope}\n");
    EXPECT_EQ(whole(lint({"-f", WERN, "-S", stencils, "-a"})),
              (Whole{1, stencils + "/one:2: config/prot\n" + stencils + "/two:3: two/nope\n", ""}));
}

// Refused as kelvo refuses, with kelvo's texts, and nothing written.
TEST_F(KelvoLint, BadInput) {
    auto first_line = [](const e2e::Result& r) { return r.err.substr(0, r.err.find('\n')); };
    e2e::Result r = lint({"-i", "s"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(first_line(r), "kelvo-lint: No WERN (use -f)");
    r = lint({"-f", WERN, "-a", "-i", "s"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(first_line(r), "kelvo-lint: Option -a cannot be present with -i or -o");
    r = lint({"-f", WERN});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(first_line(r), "kelvo-lint: Option -i or -a is required");
    EXPECT_EQ(whole(lint({"-f", "wrn:/net/foo:nope", "-i", "s"})),
              (Whole{3, "",
                     "kelvo-lint: Unable to get properties for wrn:/net/foo:nope: "
                     "No such object in the repository\n"}));
    EXPECT_EQ(whole(lint({"-f", WERN, "-S", stencils, "-i", "none"})),
              (Whole{3, "", "Stencil file at " + stencils + "/none does not exist\n"}));
    EXPECT_EQ(lint_text("$%{unterminated\n").status, 3);
}

}  // namespace
