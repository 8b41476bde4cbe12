// kelvo-lint: references that name nothing, with their lines, and what is
// deliberately not reported.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sstream>
#include <string>
#include <vector>

#include "e2e_util.h"

namespace {

const char* const WERN = "wrn:/net/foo:default";
const char* const MANIFEST = R"({"services": {"net/foo": {"instances": {"default": {"groups": {
    "config": {"properties": {"port": 8080, "on": true, "none": []}},
    "hosts": {"groups": {"a": {"properties": {"addr": "10.0.0.1"}},
                         "b": {"properties": {"addr": "10.0.0.2", "alias": "bee"}}}},
    "one": {"type": "configfile", "properties": {"path": "/etc/one", "stencil": "one",
                                                 "mode": "0644"},
            "groups": {"defines": {"properties": {"g": "config"}}}},
    "two": {"type": "configfile", "properties": {"path": "/etc/two", "stencil": "two",
                                                 "mode": "0644"}},
    "zcut": {"type": "configfile", "properties": {"path": "/etc/z", "stencil": "z", "mode": "0644"},
             "groups": {"defines": {"properties": {"logdir": "${LOGDIR}/echo",
                                                   "escaped": "a\\}b", "form": "$%{config/port}"}}}}
}}}}}})";

using e2e::whole;
using e2e::Whole;

// The guide's examples that show their output, with their lines: the rows of
// its "| Stencil | Output |" tables, and each plain fenced block that a
// paragraph beginning with "gives" follows.
std::vector<std::pair<int, std::string>> guide_examples(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    auto trimmed = [](const std::string& l) {
        return l.substr(std::min(l.find_first_not_of(' '), l.size()));
    };
    std::vector<std::pair<int, std::string>> examples;
    bool table = false;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string line = trimmed(lines[i]);
        table = line.rfind("| Stencil | Output |", 0) == 0 || (table && line.rfind("|", 0) == 0);
        if (table && line.rfind("| `", 0) == 0)
            examples.emplace_back(static_cast<int>(i + 1), line.substr(3, line.find("` |") - 3));
        if (line.rfind("```", 0) != 0) continue;
        const size_t indent = lines[i].size() - line.size();
        std::string block;
        size_t j = i + 1;
        for (; j < lines.size() && trimmed(lines[j]).rfind("```", 0) != 0; ++j)
            block += lines[j].substr(std::min(indent, lines[j].size())) + "\n";
        size_t next = j + 1;
        while (next < lines.size() && trimmed(lines[next]).empty()) ++next;
        if (line == "```" && next < lines.size() && trimmed(lines[next]).rfind("gives", 0) == 0)
            examples.emplace_back(static_cast<int>(i + 1), block);
        i = j;
    }
    return examples;
}

class KelvoLint : public e2e::ProgramTest {
  protected:
    KelvoLint() : ProgramTest(MANIFEST) {}
    e2e::Result lint(const std::vector<std::string>& args) {
        return e2e::program(e2e::kelvo_lint_bin(), repo, args);
    }
    e2e::Result lint_text(const std::string& text, std::vector<std::string> args = {}) {
        e2e::write_file(stencils + "/s", text);
        args.insert(args.end(), {"-f", WERN, "-S", stencils, "-i", "s"});
        return lint(args);
    }
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
        {"a property without values", "$%{config/none}\n", ""},
        {"a group for a property", "$%{config}\n", ":1: config\n"},
        // "The value, or a default": two references side by side.
        {"value or default", "$%{config/maybe}$%{config/maybe:-1}\n", ""},
        {"default or value", "$%{config/maybe:-1}$%{config/maybe}\n", ""},
        {"value or default, no group", "$%{confg/maybe}$%{confg/maybe:-1}\n", ":1: confg/maybe\n"},
        {"a default elsewhere", "$%{config/maybe} $%{config/maybe:-1}\n", ":1: config/maybe\n"},
        // In a macro body, at the invocation that names the property.
        {"macros",
         "$%define or p d {$%{$%p}$%{$%p:-$%d}}$%define show p {$%{$%p}}\n"
         "$%[or config/maybe 1]$%[or confg/maybe 1]\n$%[show config/port]\n"
         "$%[show config/prot]\n",
         ":2: confg/maybe\n:4: config/prot\n"},
        {"a macro's own typo, where it is written", "$%define m {\n$%{config/prot}}$%[m]\n$%[m]\n",
         ":2: config/prot\n"},
        {"through an enclosing macro",
         "$%define show p {$%{$%p/port}}$%define all g {$%[show $%g]}\n"
         "$%[all config]\n$%[all confg]\n",
         ":3: confg/port\n"},
        {"a macro in a section",
         "$%define show p {$%{$%p}}\n"
         "$%/hosts\\/([a-z])\\/addr/ {$%[show hosts/$%1/alias]\n"
         "$%[show hosts/$%1/alais]}\n",
         ":3: hosts/$%1/alais\n"},
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
    e2e::write_file(stencils + "/z", "$%[logdir]$%[escaped]$%[form]\n");
    // Of the defines, only the value whose "}" ends the define early.
    EXPECT_EQ(whole(lint({"-f", WERN, "-S", stencils, "-a"})),
              (Whole{1,
                     stencils + "/one:2: config/prot\n" + stencils + "/two:3: two/nope\n" +
                         "zcut/defines/logdir: \"}\" cuts the value \"${LOGDIR}/echo\" to "
                         "\"${LOGDIR\"; \"/echo}\" lands in front of the file (write \"\\}\")\n",
                     ""}));
}

TEST_F(KelvoLint, DefinesAsKelvoTakesThem) {
    EXPECT_EQ(whole(lint_text("$%{$%[g]/port}\n$%{$%[g]/prot}\n", {"-D", "g=config"})),
              (Whole{1, stencils + "/s:2: config/prot\n", ""}));
    EXPECT_EQ(whole(lint_text("$%[g]$%{config/$%[h]}\n", {"-D", "g=con}fig", "-D", "h=a=b"})),
              (Whole{1,
                     "-D g: \"}\" cuts the value \"con}fig\" to \"con\"; \"fig}\" lands in front "
                     "of the file (write \"\\}\")\n" +
                         stencils + "/s:1: config/a=b\n",
                     ""}));
}

// Quiet on what the project ships: the demo's stencils with its repository,
// and every example of the language guide that shows its output.
TEST(KelvoLintShipped, DemoAndGuideAreClean) {
    e2e::TempDir dir;
    const std::string src = e2e::source_dir();
    const std::string demo = dir / "demo.db", guide = dir / "guide.db";
    ASSERT_EQ(e2e::hgxrepo({"-r", demo, "import", src + "/examples/services.json"}).status, 0);
    ASSERT_EQ(e2e::hgxrepo({"-r", guide, "import", src + "/examples/guide.json"}).status, 0);
    // Every instance's stencils; one alone, with the define its group gives;
    // and the disabled group's.
    const std::string stencils = src + "/examples/stencils";
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"-f", "wrn:/network/http:default", "-S", stencils, "-a"},
          {"-f", "wrn:/system/timesync:default", "-S", stencils, "-a"},
          {"-f", "wrn:/network/resolver:default", "-S", stencils, "-a"},
          {"-f", "wrn:/system/timesync:default", "-S", stencils, "-D", "keyfile=/etc/k", "-i",
           "timesync.conf.stencil"},
          {"-f", "wrn:/network/http:default", "-S", stencils, "-i", "robots.txt.stencil"}})
        EXPECT_EQ(whole(e2e::program(e2e::kelvo_lint_bin(), demo, args)), (Whole{0, "", ""}))
            << args[1] << " " << args.back();

    const std::vector<std::pair<int, std::string>> examples =
        guide_examples(e2e::read_file(src + "/docs/stencil-language.md"));
    EXPECT_GE(examples.size(), 30u);
    for (const auto& [line, stencil] : examples) {
        e2e::write_file(dir / "s", stencil);
        EXPECT_EQ(whole(e2e::program(e2e::kelvo_lint_bin(), guide,
                                     {"-f", "wrn:/demo/app:default", "-S", dir.path(), "-i", "s"})),
                  (Whole{0, "", ""}))
            << "docs/stencil-language.md:" << line << ":\n"
            << stencil;
    }
}

// Refused as kelvo refuses, with kelvo's texts, and nothing written.
TEST_F(KelvoLint, BadInput) {
    const std::pair<std::vector<std::string>, const char*> usage_errors[] = {
        {{"-i", "s"}, "kelvo-lint: No WERN (use -f)"},
        {{"-f", WERN, "-a", "-D", "a=b"}, "kelvo-lint: Option -a cannot be present with -D"},
        {{"-f", WERN, "-D", "a", "-i", "s"}, "kelvo-lint: Invalid -D argument: a"},
        {{"-f", WERN, "-D", "a=1", "-D", "a=2", "-i", "s"}, "Invalid define: a already exists"},
        {{"-f", WERN, "-a", "-i", "s"}, "kelvo-lint: Option -a cannot be present with -i or -o"},
        {{"-f", WERN}, "kelvo-lint: Option -i or -a is required"},
    };
    for (const auto& [args, says] : usage_errors) {
        e2e::Result r = lint(args);
        EXPECT_EQ(r.status, 2) << says;
        EXPECT_EQ(r.err.substr(0, r.err.find('\n')), says);
    }
    EXPECT_EQ(whole(lint({"-f", "wrn:/net/foo:nope", "-i", "s"})),
              (Whole{3, "",
                     "kelvo-lint: Unable to get properties for wrn:/net/foo:nope: "
                     "No such object in the repository\n"}));
    EXPECT_EQ(whole(lint({"-f", WERN, "-S", stencils, "-i", "none"})),
              (Whole{3, "", "Stencil file at " + stencils + "/none does not exist\n"}));
    EXPECT_EQ(lint_text("$%{unterminated\n").status, 3);
}

}  // namespace
