// The kelvo command line: option checks and their order, the usage text,
// the error exit's suffixes, stencil load failures and syntax reports.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "e2e_util.h"

namespace {

const char* const WERN = "wrn:/net/foo:default";

const char* const MANIFEST = R"({"services": {"net/foo": {"instances": {"default": {"groups": {
    "config": {"properties": {"port": 8080, "name": "alpha"}}}}}}}})";

// Written out here rather than taken from the program, so that a change of
// the text shows.
const std::string USAGE =
    "Usage: kelvo [-alux] [-D name=value]... [-f wern] [-g group] [-i file]\n"
    "\t[-m mode] [-o file] [-O user] [-R dir [-L opts [-p]]] [-S dir]\n\n"
    "\t-a  process all configfile dependencies for wern\n"
    "\t-D  define name as value\n"
    "\t-f  set instance wern (default is $QRM_WERN)\n"
    "\t-g  set the group any output files are associated with\n"
    "\t-i  set input file (default is stdin)\n"
    "\t-l  list referenced properties from input file\n"
    "\t-L  use lofs <opts> to loopback mount the output file(s)\n"
    "\t-m  set output file mode (default is 644)\n"
    "\t-o  set output file (default is stdout)\n"
    "\t-O  set the owner of any output files\n"
    "\t-p  create intermediate directories\n"
    "\t-R  set root prefix for all output files\n"
    "\t-S  set stencil directory (default is /lib/wrn/stencils)\n"
    "\t-u  unlink output file(s) and undo any lofs mounts\n"
    "\t-x  terminate kelvo on any error\n";

using e2e::whole;
using e2e::Whole;

class KelvoCli : public e2e::ProgramTest {
  protected:
    KelvoCli() : ProgramTest(MANIFEST) {}
    e2e::Result run(const std::vector<std::string>& args, const std::string& input = "",
                    const e2e::Env& env = {}) {
        return e2e::kelvo(repo, args, input, env);
    }
};

TEST_F(KelvoCli, CombinationChecksInOrder) {
    const std::string w = WERN, prog = e2e::kelvo_bin();
    const struct {
        std::vector<std::string> args;
        std::string message;  // before the usage text
    } cases[] = {
        // A stray word is refused before any check of the combination.
        {{"-a", "-D", "x=y", "-f", w, "extra"}, "kelvo: Illegal argument -- extra\n"},
        {{"-f", w, "extra", "-a"}, "kelvo: Illegal argument -- extra\n"},
        // -D is looked at before -i.
        {{"-a", "-D", "x=y", "-i", "f", "-f", w}, "kelvo: Option -a cannot be present with -D\n"},
        {{"-a", "-o", "f", "-f", w}, "kelvo: Option -a cannot be present with -i or -o\n"},
        {{"-a", "-i", "f", "-f", w}, "kelvo: Option -a cannot be present with -i or -o\n"},
        // Without -a, the missing -o is found before the missing -R.
        {{"-L", "ro", "-f", w}, "kelvo: Option -L requires either -a or -o\n"},
        {{"-L", "ro", "-o", "/f", "-f", w}, "kelvo: Option -L requires -R\n"},
        {{"-a", "-L", "ro", "-f", w}, "kelvo: Option -L requires -R\n"},
        {{"-p", "-f", w}, "kelvo: Option -p requires -L\n"},
        {{"-a", "-p", "-f", w}, "kelvo: Option -p requires -L\n"},
        {{"-o", "f"}, "kelvo: No WERN (use -f)\n"},
        // -R takes the next word as its directory, and attached text too; a
        // -R at the very end leaves the prefix unset.
        {{"-L", "ro", "-o", "/f", "-R", "/r", "-p"}, "kelvo: No WERN (use -f)\n"},
        {{"-L", "ro", "-o", "/f", "-R/r", "-p"}, "kelvo: No WERN (use -f)\n"},
        {{"-L", "ro", "-o", "/f", "-p", "-R"}, "kelvo: Option -L requires -R\n"},
        // An undo in a single run needs a file.
        {{"-u", "-f", w}, "kelvo: Option -u requires either -a or -o\n"},
        {{"-u"}, "kelvo: No WERN (use -f)\n"},
        {{"-m", "4755", "-f", w}, "kelvo: Invalid mode: 4755\n"},
        {{"-m", "2644"}, "kelvo: Invalid mode: 2644\n"},
        {{"-m", "644x"}, "kelvo: Invalid mode: 644x\n"},
        {{"-m", "9"}, "kelvo: Invalid mode: 9\n"},
        {{"-m", ""}, "kelvo: Invalid mode: \n"},
        // -m acts when it is read, before later faults.
        {{"-m", "9", "extra"}, "kelvo: Invalid mode: 9\n"},
        // The usage text shows the default stencil directory, whatever -S says.
        {{"-S", "/elsewhere", "-m", "9"}, "kelvo: Invalid mode: 9\n"},
        // getopt's own diagnostic, under the name the program was run by.
        {{"-z", "-f", w}, prog + ": invalid option -- 'z'\n"},
        {{"-f"}, prog + ": option requires an argument -- 'f'\n"},
    };
    for (const auto& c : cases) {
        std::string joined;
        for (const auto& a : c.args) joined += a + " ";
        SCOPED_TRACE(joined);
        // The stencil is never read for a bad command line.
        EXPECT_EQ(whole(run(c.args, "text\n")), Whole(2, "", c.message + USAGE));
    }
}

TEST_F(KelvoCli, AcceptedModesAndCombinations) {
    for (const char* mode : {"644", "0644", "1644"}) {
        EXPECT_EQ(whole(run({"-m", mode, "-S", stencils, "-i", "s", "-f", WERN})),
                  Whole(0, "port=8080\n", ""))
            << mode;
    }
    // -x in a single run changes nothing; the stencil may come from stdin.
    // Without an output file, mode, owner and group have no effect, not
    // even a lookup of the names.
    EXPECT_EQ(whole(run({"-x", "-f", WERN, "-m", "600", "-O", "no-such-user-kelvo", "-g",
                         "no-such-group-kelvo"},
                        "name=$%{config/name}\n")),
              Whole(0, "name=alpha\n", ""));
}

TEST_F(KelvoCli, WernFromEnvironmentAndOption) {
    e2e::make_repository(repo, R"({"services": {"net/bar": {"instances": {"default": {"groups": {
        "config": {"properties": {"name": "beta"}}}}}}}})");
    const std::string stencil = "$%{config/name}\n";
    EXPECT_EQ(whole(run({}, stencil, {{"QRM_WERN", WERN}})), Whole(0, "alpha\n", ""));
    EXPECT_EQ(whole(run({"-f", "wrn:/net/bar:default"}, stencil, {{"QRM_WERN", WERN}})),
              Whole(0, "beta\n", ""));
}

TEST_F(KelvoCli, DefinesFromCommandLine) {
    EXPECT_EQ(whole(run({"-f", WERN, "-D", "a=b=c", "-D", "e="}, "[$%[a]][$%[e]]\n")),
              Whole(0, "[b=c][]\n", ""));

    // A duplicate name: the define's own message, no program name, no usage.
    EXPECT_EQ(whole(run({"-f", WERN, "-D", "a=1", "-D", "a=2"}, "x\n")),
              Whole(1, "", "Invalid define: a already exists\n"));

    // No "=": status 1 with the errno suffix, not the usage text. errno
    // holds whatever it holds at that moment: any "text (number)".
    e2e::Result r = run({"-f", WERN, "-D", "a"}, "x\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_TRUE(
        std::regex_match(r.err, std::regex("kelvo: Invalid -D argument: a: [^\n]* \\([0-9]+\\)\n")))
        << r.err;
}

TEST_F(KelvoCli, RepositoryFailureCarriesLibraryText) {
    EXPECT_EQ(whole(run({"-f", "wrn:/net/none:default"}, "x\n")),
              Whole(3, "",
                    "kelvo: Unable to get properties for wrn:/net/none:default: "
                    "No such object in the repository\n"));
    // The library's text names the file it looked for, and shows what a
    // wern looks like.
    EXPECT_EQ(whole(e2e::kelvo(dir / "missing.db", {"-f", WERN}, "x\n")),
              Whole(3, "",
                    std::string("kelvo: Unable to get properties for wrn:/net/foo:default: ") +
                        e2e::missing_repository_text() +
                        (e2e::on_cluster() ? "" : ": " + dir / "missing.db") + "\n"));
    EXPECT_EQ(whole(run({"-f", "net/foo:default"}, "x\n")),
              Whole(3, "",
                    "kelvo: Unable to get properties for net/foo:default: Malformed wern; a wern "
                    "looks like wrn:/SERVICE, wrn:/SERVICE:INSTANCE or "
                    "wrn:/SERVICE:INSTANCE/:properties/GROUP/PROPERTY\n"));
}

TEST_F(KelvoCli, StencilLoadFailures) {
    ASSERT_EQ(mkdir((stencils + "/adir").c_str(), 0755), 0);
    EXPECT_EQ(whole(run({"-f", WERN, "-S", stencils, "-i", "nosuch"})),
              Whole(1, "", "Stencil file at " + stencils + "/nosuch does not exist\n"));

    // An absolute -i still lies below the stencil directory.
    EXPECT_EQ(whole(run({"-f", WERN, "-S", stencils, "-i", "/nosuch"})),
              Whole(1, "", "Stencil file at " + stencils + "//nosuch does not exist\n"));

    // A directory, or a file taken for one, has no message of its own: the
    // stencil layer names the failed call, and the run stops with the code.
    const std::string tail = "kelvo: Unhandled error in stencil_load: -10\n";
    e2e::Result r = run({"-f", WERN, "-S", stencils, "-i", "adir"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("mmap: ", 0), 0u) << r.err;
    ASSERT_GE(r.err.size(), tail.size()) << r.err;
    EXPECT_EQ(r.err.substr(r.err.size() - tail.size()), tail);
    e2e::write_file(stencils + "/file", "x\n");
    EXPECT_EQ(
        whole(run({"-f", WERN, "-S", stencils, "-i", "file/below"})),
        Whole(1, "", "mmap: " + std::to_string(ENOTDIR) + " " + strerror(ENOTDIR) + "\n" + tail));

    // Over 1023 bytes the path is cut, and the cut path is what is tried.
    std::string long_name(1100, 'n');
    std::string cut = (stencils + "/" + long_name).substr(0, 1023);
    EXPECT_EQ(whole(run({"-f", WERN, "-S", stencils, "-i", long_name})),
              Whole(1, "", "Stencil filename " + cut + " is too long\n"));
}

TEST_F(KelvoCli, SyntaxErrorReport) {
    e2e::write_file(stencils + "/bad", "one\ntwo\n$%[nosuch]\nthree\n");
    EXPECT_EQ(whole(run({"-f", WERN, "-S", stencils, "-i", "bad"})),
              Whole(4, "",
                    "Stencil at " + stencils +
                        "/bad has syntax errors:\n"
                        "  Line 2:  Attempted to invoke unknown entity \"nosuch\"\n"));
}

// Without any capabilities, so that root loses its overrides: a stencil
// without read permission is refused, and -L fails on the privileges before
// anything else of the command line is looked at.
TEST_F(KelvoCli, WithoutCapabilities) {
    std::vector<std::string> drop;
    if (geteuid() == 0) drop = {"setpriv", "--inh-caps=-all", "--bounding-set=-all", "--"};
    auto run_without_capabilities = [&](const std::vector<std::string>& args) {
        return e2e::kelvo(repo, args, "", {}, drop);
    };
    e2e::write_file(stencils + "/secret", "x\n");
    ASSERT_EQ(chmod((stencils + "/secret").c_str(), 0), 0);
    e2e::Result r = run_without_capabilities({"-f", WERN, "-S", stencils, "-i", "secret"});
    if (r.status == 127 || r.err.find("setpriv:") != std::string::npos)
        GTEST_SKIP() << "cannot drop capabilities here: " << r.err;
    EXPECT_EQ(whole(r),
              Whole(1, "", "Insufficient permissions to access " + stencils + "/secret\n"));
    EXPECT_EQ(whole(run_without_capabilities({"-L", "ro", "extra"})),
              Whole(1, "",
                    std::string("kelvo: Unable to acquire sys_mount privileges: ") +
                        strerror(EPERM) + " (" + std::to_string(EPERM) + ")\n"));
}

}  // namespace
