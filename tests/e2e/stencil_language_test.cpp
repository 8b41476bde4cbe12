// The stencil language through the real program: substitution in text,
// every property operator on defined, undefined, multi-valued, empty and
// group names, sections (matching, grabs across nested and named sections,
// the transforms of invoked sections, patterns that pull in another service),
// macros, list mode, how the scanner splits a text, syntax errors, and
// reading a stencil whole. Each case pipes a stencil on standard input and
// compares standard output, standard error and the exit status whole.

#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "e2e_util.h"

namespace {

constexpr char MANIFEST[] = R"({"services": {"net/foo": {"instances": {"default": {"groups": {
    "config": {"properties": {"a": ["x", "y"], "one": "solo", "t": true, "f": false,
    "T": {"type": "astring", "values": ["TRUE"]},
    "tf": {"type": "astring", "values": ["true", "false"]}, "ft": {"type": "astring",
    "values": ["false", "true"]}, "blank": "", "empty": [], "port": 8080}},
    "g": {"type": "application"}, "net": {"properties": {"host": "h1", "port": "80"}},
    "pa": {"properties": {"q_s": "Q", "bXa_s": "deep", "aXa_s": "wrong"}}}}}},
    "net/bar": {"instances": {"default": {"groups": {"cfg": {"properties": {"x": "bar-x",
    "y": "bar-y"}}}}}}}})";

constexpr char WERN[] = "wrn:/net/foo:default";

// One stencil fed to kelvo on standard input, and everything it must print.
struct StencilCase {
    const char* name;
    std::string stencil;
    std::string out;
    std::string err = "";
    int status = 0;
};

class Stencil : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        shared_dir.emplace();
        e2e::make_repository(repo(), MANIFEST);
    }
    static void TearDownTestSuite() { shared_dir.reset(); }
    static std::string repo() { return *shared_dir / "repo.db"; }

    // Runs each case as `kelvo -f wern extra...` and checks standard output,
    // standard error and the status as whole texts.
    static void run_cases(const std::vector<StencilCase>& cases,
                          const std::vector<std::string>& extra = {}, const e2e::Env& env = {},
                          const std::string& wern = WERN) {
        for (const StencilCase& c : cases) {
            std::vector<std::string> args = {"-f", wern};
            args.insert(args.end(), extra.begin(), extra.end());
            e2e::Result r = e2e::kelvo(repo(), args, c.stencil, env);
            EXPECT_EQ(r.out, c.out) << c.name << ": stencil [" << c.stencil << "]";
            EXPECT_EQ(r.err, c.err) << c.name;
            EXPECT_EQ(r.status, c.status) << c.name;
        }
    }

    static inline std::optional<e2e::TempDir> shared_dir;
};

TEST_F(Stencil, TextAndNamedForms) {
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
        {"wern", "[$%f]", "[wrn:/net/foo:default]"},
        {"instance and service", "$%i of $%s", "default of net/foo"},
        {"method unset", "$%m", "no method"},
        {"restarter unset", "before $%r after", "",
         "QRM_RESTARTER is not defined in the environment\n", 1},
    });
    run_cases({{"method and restarter set", "$%m by $%r", "refresh by wrn:/system/r:default"}}, {},
              {{"QRM_METHOD", "refresh"}, {"QRM_RESTARTER", "wrn:/system/r:default"}});
    run_cases({{"service wern", "[$%i][$%s]", "[][net/foo]"}}, {}, {}, "wrn:/net/foo");
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
        {"prefix suffix", "$%{config/a:^p/s}|$%{config/a:^*p/s}", "pxspys|pxspys"},
        {"prefix suffix undefined", "[$%{config/nope:^p/s}][$%{config/nope:^*p/s}]", "[][]"},
        {"replace first per value", "$%{config/a:'x/z}", "z y"},
        {"replace with empty", "[$%{config/a:'x}]", "[ y]"},
        {"replace first and all", "$%{config/one:'o/0} $%{config/one:''o/0}", "s0lo s0l0"},
        {"replace anchored", "$%{config/one:'#s/S} $%{config/one:'%o/O}", "Solo solO"},
        {"trailing star takes the rest", "$%{config/one:'o*/_}", "s_"},
        {"replace undefined", "[$%{config/nope:'x/z}]", "[]"},
        {"operands hold forms", "$%{config/a:+$%{config/one:?y/n}}", "n"},
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
            {"final names after transforms",
             "$%define inner /(q)/ {$%{aXa}}$%define outer /(q)/ {$%[inner:'a/b]}"
             "$%[outer:^pa\\//_s]",
             "pa/bXa_s\n"},
            {"no match lists nothing", "$%/nomatch/ {$%{x}}", ""},
        },
        {"-l"});
}

TEST_F(Stencil, SectionsAndMacros) {
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
        // Patterns and names of another service.
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
        // Macros.
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

// How the scanner splits a text: comments, forms that end the text, operands
// holding forms, comments and escapes, patterns, definitions and arguments.
TEST_F(Stencil, Scanner) {
    const std::pair<const char*, const char*> normal[] = {
        {"}", "}"},
        {"$%$%{net/host}", "$%h1"},
        {"a\n;c\nb", "a\nb"},
        {"a\n;c", "a\n"},
        {";first\nx", "x"},
        {" \t;first\n  x", "  x"},
        {"a\n;1\n\n;2\nb", "a\n\nb"},
        {"a;b\n", "a;b\n"},
        {"a\\\n;b", "a\n;b"},
        {"x$%defined y\nz", "x$%define"},
        {"x$%define", "x$%define"},
        {"x$%define m", "x$%define"},
        {"$%{config/a:,}", "xy"},
        {"$%{config/t:?x/y/z}", "x"},
        {"$%{config/f:?x/y/z}", "y/z"},
        {"$%{config/a:,one\n;c\ntwo}", "xone\ntwoy"},
        {"$%{net/h$%[e]ost}", "h1"},
        {"$%{net/host:+$%{config/t:?c/d}}", "c"},
        {"$%/net/host/{x}", "x"},
        {"$%/net/(.*)/\n;c\n{[$%1]}", "[host][port]"},
        {"$%/net\\/(h.*)/{$%1}", "host"},
        {"$%/net/h$%[e]ost/{x}", "x"},
        {"$%//{x}", ""},
        {"$%define m a b {[$%a|$%b]}$%[m 1  2]", "[1|2]"},
        {"$%define m a{ x}$%[m 1]", "x"},
        {"$%define m a { x}$%[m 1]", " x"},
        {"$%define m a\n;c\nb {[$%a|$%b]}$%[m 1 2]", "[1|2]"},
        {"$%define m\n{x}$%[m]", "x"},
        {"$%define m {}[$%[m]]", "[]"},
        {"$%define r //{y}[$%[r]]", "[]"},
        {"$%define x y/ {z}$%[x 1]", "z"},
        {"$%define m a b {[$%a|$%b]}$%[m 1\n;c\n2]", "[1|2]"},
        {"$%define m a b {[$%a|$%b]}$%[m $%{config/a:,x y} 2]", "[xx yy|2]"},
        {"$%define m a {[$%a]}$%[m a}b]", "[a}b]"},
        {"$%define m a {[$%a]}$%[m\n;c\n1]", "[1]"},
        {"$%define r /net/(.*)/ {$%1;}$%[r]|$%[r:]", "host;port;|host;port;"},
    };
    // The names that list mode shows are the names as parsed.
    const std::pair<const char*, const char*> listed[] = {
        {"a$%{b}c", "b\n"},      {"$%{a:,}", "a\n"},           {"$%{a::,b}", "a::,b\n"},
        {"$%{a:b:,c}", "a:b\n"}, {"$%{a\\}", "a\\\n"},         {"$%{n$%[v]x}", "nwx\n"},
        {"$%{$%[e]}", "\n"},     {"$%{a:+$%{b:?c/d}}", "a\n"},
    };
    std::vector<StencilCase> cases, list_cases;
    for (const auto& [text, out] : normal) cases.push_back({"scanner", text, out});
    for (const auto& [text, out] : listed) list_cases.push_back({"listed", text, out});
    run_cases(cases, {"-D", "v=w", "-D", "e="});
    run_cases(list_cases, {"-l", "-D", "v=w", "-D", "e="});
    // Defines come first in byte order of their names; a value may hold
    // forms, and a brace in it closes the definition early.
    run_cases({{"defines", "$%[a]$%[b]$%[B]", "1\n2<solo>"}},
              {"-D", "b=2", "-D", "a=1\n", "-D", "B=<$%{config/one}>"});
    run_cases({{"brace in a define", "t$%[a]", "y}tx"}}, {"-D", "a=x}y"});
}

// The first syntax error ends the parse and is reported with its line.
TEST_F(Stencil, SyntaxErrors) {
    const std::pair<const char*, const char*> errors[] = {
        {"$%{a", "  Line 0:  Expression \"a\" does not terminate with a '}' character\n"},
        {"$%{a\nb}", "  Line 1:  Expression \"a\n\" does not terminate with a '}' character\n"},
        {"x\n$%{a}\n\n$%{b",
         "  Line 3:  Expression \"b\" does not terminate with a '}' character\n"},
        {"a\\\n$%{b", "  Line 1:  Expression \"b\" does not terminate with a '}' character\n"},
        {"$%{a:}\n", "  Line 1:  Expression \"a:}\n\" does not terminate with a '}' character\n"},
        {"$%{a$%[b]c$%[d]}",
         "  Line 0:  Character '$' in expression \"a$%[b]c$\" is illegal except in literal "
         "expressions\n"},
        {"$%{n$%[zz]x}", "  Line 0:  Macro \"n$%[zz]\" is undefined\n"},
        {"$%{a:,x\ny",
         "  Line 1:  Expression \"a:,x\ny\" does not terminate with a '}' character\n"},
        {"$%{a:?x/y", "  Line 0:  Expression \"a:?x/y\" does not terminate with a '}' character\n"},
        {"$%/a", "  Line 0:  Expression \"a\" does not terminate with a '}' character\n"},
        {"$%/a\n{x}", "  Line 1:  Expression \"a\n\" does not terminate with a '}' character\n"},
        {"$%/a/\nb/{x}",
         "  Line 1:  Expression \"a/\n\" does not terminate with a '}' character\n"},
        {"$%/a/{x", "  Line 0:  Expression \"a/{x\" does not terminate with a '}' character\n"},
        {"$%/a$%[b]c$%[d]/{x}",
         "  Line 0:  Character '$' in expression \"a$%[b]c$\" is illegal except in literal "
         "expressions\n"},
        {"$%/a$%[q]/{x}", "  Line 0:  Macro \"a$%[q]\" is undefined\n"},
        {"$%define r /p/{x}$%define r /q/{y}",
         "  Line 0:  Name regular expression \"q/{\" is already defined\n"},
        {"$%define m {a}$%define m /p/ {b}",
         "  Line 0:  Name regular expression \"p/ {\" is already defined\n"},
        {"$%[x:,a]", "  Line 0:  Character ',' in expression \",\" is invalid\n"},
        {"$%define r /p/{y}$%[r:?x]", "  Line 0:  Character '?' in expression \"?\" is invalid\n"},
        {"$%[r:", "  Line 0:  Expression \"\" does not terminate with a '}' character\n"},
        {"$%[r:^a", "  Line 0:  Expression \"^a\" does not terminate with a '}' character\n"},
        {"$%[r:^a/b", "  Line 0:  Expression \"^a/b\" does not terminate with a '}' character\n"},
        {"$%[zz:^a]", "  Line 0:  Referenced regular expression \"zz\" is not defined\n"},
        {"$%define m {a}$%[m:]",
         "  Line 0:  \"m\" is a macro, but was invoked as a regular expression\n"},
        {"$%define m {a}\n$%define m {b}", "  Line 1:  Macro \"{b}\" is already defined\n"},
        {"$%define r /p/{a}$%define r {b}", "  Line 0:  Macro \"{b}\" is already defined\n"},
        {"$%define b {y}", "  Line 0:  Macro \"{y}\" is already defined\n"},
        {"$%define m a b",
         "  Line 0:  Expression \"a b\" does not terminate with a '}' character\n"},
        {"$%define m {x", "  Line 0:  Expression \"{x\" does not terminate with a '}' character\n"},
        {"$%[]", "  Line 0:  Attempted to invoke unknown entity \"\"\n"},
        {"$%[ a]", "  Line 0:  Attempted to invoke unknown entity \"\"\n"},
        {"$%[:^a]", "  Line 0:  Attempted to invoke unknown entity \"\"\n"},
        {"$%[zz]", "  Line 0:  Attempted to invoke unknown entity \"zz\"\n"},
        {"$%[m]$%define m {a}", "  Line 0:  Attempted to invoke unknown entity \"m\"\n"},
        {"$%define m {$%[m]}", "  Line 0:  Attempted to invoke unknown entity \"m\"\n"},
        {"$%[zz 1]", "  Line 0:  Macro \"zz\" is undefined\n"},
        {"$%define r /p/{a}$%[r 1]",
         "  Line 0:  \"r\" is a regular expression, but was invoked as a macro\n"},
        {"$%define m {a}$%[m  ]", "  Line 0:  Macro \"m\" has too many arguments\n"},
        {"$%define m a b {x}$%[m 1 2 ]", "  Line 0:  Macro \"m\" has too many arguments\n"},
        {"$%define m a b {x}$%[m 1]", "  Line 0:  Macro \"m\" has too few arguments\n"},
        {"$%[m", "  Line 0:  Expression \"m\" does not terminate with a '}' character\n"},
        {"$%[m 1", "  Line 0:  Expression \"1\" does not terminate with a '}' character\n"},
        {"$%[m\n1\n", "  Line 2:  Expression \"1\n\" does not terminate with a '}' character\n"},
        // A `$%define` that defines nothing still counts the newline it
        // crossed; arguments are parsed before the name is looked up.
        {"$%{a:,$%define\n$%{b",
         "  Line 1:  Expression \"b\" does not terminate with a '}' character\n"},
        {"$%[zz $%{a]", "  Line 0:  Expression \"a]\" does not terminate with a '}' character\n"},
    };
    std::vector<StencilCase> cases;
    for (const auto& [text, report] : errors)
        cases.push_back({"syntax error", text, "",
                         std::string("Stencil at (standard input) has syntax errors:\n") + report,
                         4});
    run_cases(cases, {"-D", "b=x"});
    run_cases({{"define clashes with a definition", "$%define m {y}", "",
                "Stencil at (standard input) has syntax errors:\n"
                "  Line 0:  Macro \"{y}\" is already defined\n",
                4}},
              {"-D", "m=x"});
}

// A stencil file of any size around a page, and standard input that
// arrives in pieces, are read whole.
TEST_F(Stencil, ReadWhole) {
    const size_t page = static_cast<size_t>(getpagesize());
    for (size_t size : {size_t{1}, page - 1, page, page + 1, 2 * page}) {
        std::string text(size, 'x');
        text[size - 1] = 'y';
        e2e::write_file(*shared_dir / "s", text);
        EXPECT_EQ(e2e::whole(e2e::kelvo(repo(), {"-f", WERN, "-S", shared_dir->path(), "-i", "s"})),
                  e2e::Whole(0, text, ""))
            << size;
    }
    std::string text, expected;
    for (int i = 0; i < 60; ++i) {
        text += "line " + std::to_string(i) + " $%{net/host}\n";
        expected += "line " + std::to_string(i) + " h1\n";
    }
    e2e::Run r;
    // Pieces of 1, 127, 128, 129 and 300 bytes, each a read of its own.
    r.args = {"sh", "-c",
              "i=0; for n in 1 127 128 129 300 1 127 128 129 300; do dd bs=$n count=1 "
              "skip=$i iflag=skip_bytes status=none if=\"$1\"; i=$((i+n)); sleep 0.01; done | "
              "\"$0\" -f " +
                  std::string(WERN),
              e2e::kelvo_bin(), *shared_dir / "in"};
    e2e::write_file(*shared_dir / "in", text);
    r.env = {{"HGX_REPOSITORY", repo()}};
    EXPECT_EQ(e2e::whole(e2e::run(r)), e2e::Whole(0, expected, ""));
}

}  // namespace
