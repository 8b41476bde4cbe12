// kelvo-diff: what kelvo -a would change, shown and never written.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "e2e_util.h"

namespace {

const char* const WERN = "wrn:/net/foo:default";

std::string manifest(const std::string& port, const std::string& mode) {
    return R"({"services": {"net/foo": {"instances": {"default": {"groups": {
        "config": {"properties": {"port": )" +
           port + R"(}},
        "conf": {"type": "configfile", "properties": {
            "path": "/etc/foo.conf", "stencil": "foo", "mode": ")" +
           mode + R"("}}}}}}}})";
}

using e2e::whole;
using e2e::Whole;

// Every path below a directory with its mode and size: what "nothing was
// touched" is checked against.
std::string tree_of(const std::string& dir) {
    std::string out;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir)) {
        struct stat st {};
        lstat(entry.path().c_str(), &st);
        out += entry.path().string() + " " + std::to_string(st.st_mode) + " " +
               std::to_string(st.st_size) + " " + std::to_string(st.st_mtim.tv_nsec) + "\n";
    }
    return out;
}

class KelvoDiff : public e2e::ProgramTest {
  protected:
    KelvoDiff() : ProgramTest(manifest("8080", "0640")) {}
    void SetUp() override {
        ProgramTest::SetUp();
        e2e::write_file(stencils + "/foo", "# foo\nport=$%{config/port}\nend\n");
    }
    e2e::Result diff(const std::vector<std::string>& args) {
        return e2e::program(e2e::kelvo_diff_bin(), repo, args);
    }
    e2e::Result diff() { return diff({"-f", WERN, "-R", root, "-S", stencils}); }
    e2e::Result kelvo() { return e2e::kelvo(repo, {"-a", "-f", WERN, "-R", root, "-S", stencils}); }
    const std::string path = root + "//etc/foo.conf";  // as the diff names it
};

TEST_F(KelvoDiff, NewFileShowsModeAndContentAndWritesNothing) {
    const std::string before = tree_of(root);
    EXPECT_EQ(whole(diff()), (Whole{1,
                                    "kelvo-diff " + path +
                                        "\nnew file mode 0640\n"
                                        "--- /dev/null\n+++ " +
                                        path +
                                        "\n"
                                        "@@ -0,0 +1,3 @@\n+# foo\n+port=8080\n+end\n",
                                    ""}));
    EXPECT_EQ(tree_of(root), before);
}

// A link below the root resolves inside it: the file outside is neither
// shown nor taken for the old text.
TEST_F(KelvoDiff, LinkBelowTheRootShowsNothingOutside) {
    e2e::write_file(dir / "secret", "# foo\nsecret\n");
    ASSERT_EQ(system(("mkdir -p " + root + dir.path()).c_str()), 0);
    e2e::write_file(root + dir.path() + "/secret", "# foo\nport=1\nend\n");
    ASSERT_EQ(symlink((dir / "secret").c_str(), (root + "/etc/foo.conf").c_str()), 0);
    e2e::Result r = diff();
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out.find("secret"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("-port=1\n+port=8080\n"), std::string::npos) << r.out;
}

// Up to date, nothing is shown or touched; a changed property shows its line.
TEST_F(KelvoDiff, ChangedPropertyShowsTheLine) {
    ASSERT_EQ(kelvo().status, 0);
    const std::string before = tree_of(root);
    EXPECT_EQ(whole(diff()), (Whole{0, "", ""}));
    EXPECT_EQ(tree_of(root), before);
    e2e::make_repository(repo, manifest("9090", "0640"));
    EXPECT_EQ(whole(diff()), (Whole{1,
                                    "kelvo-diff " + path + "\n--- " + path + "\n+++ " + path +
                                        "\n@@ -1,3 +1,3 @@\n # foo\n-port=8080\n+port=9090\n end\n",
                                    ""}));
    // What kelvo-diff showed is what kelvo then does.
    ASSERT_EQ(kelvo().status, 0);
    EXPECT_EQ(e2e::read_file(root + "/etc/foo.conf"), "# foo\nport=9090\nend\n");
    EXPECT_EQ(diff().status, 0);
}

// A changed mode alone is not applied by kelvo (the file already holds the
// text); with a changed text it is, and shown.
TEST_F(KelvoDiff, ChangedModeCountsOnlyWithAChangedText) {
    ASSERT_EQ(kelvo().status, 0);
    e2e::make_repository(repo, manifest("8080", "0600"));
    EXPECT_EQ(whole(diff()), (Whole{0, "", ""}));

    e2e::make_repository(repo, manifest("1", "0600"));
    EXPECT_EQ(whole(diff()),
              (Whole{1,
                     "kelvo-diff " + path + "\nold mode 0640\nnew mode 0600\n--- " + path +
                         "\n+++ " + path + "\n@@ -1,3 +1,3 @@\n # foo\n-port=8080\n+port=1\n end\n",
                     ""}));
}

// Refused as kelvo refuses, with kelvo's texts, and nothing written.
TEST_F(KelvoDiff, BadInput) {
    const std::string before = tree_of(root);

    e2e::Result r = diff({"-R", root});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err.substr(0, r.err.find('\n')), "kelvo-diff: No WERN (use -f)");
    r = diff({"-f", WERN, "stray"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err.substr(0, r.err.find('\n')), "kelvo-diff: Illegal argument -- stray");
    EXPECT_EQ(diff({"-f", WERN, "-q"}).status, 2);

    EXPECT_EQ(whole(diff({"-f", "wrn:/net/foo:nope"})),
              (Whole{3, "",
                     "kelvo-diff: Unable to get properties for wrn:/net/foo:nope: "
                     "No such object in the repository\n"}));
    EXPECT_EQ(whole(diff({"-f", WERN, "-R", root, "-S", dir / "none"})),
              (Whole{3, "", "Stencil file at " + dir / "none/foo" + " does not exist\n"}));

    e2e::make_repository(repo, manifest("8080", "0640x"));
    EXPECT_EQ(whole(diff()), (Whole{3, "", "Invalid mode for file /etc/foo.conf: 0640x\n"}));
    EXPECT_EQ(tree_of(root), before);
}

}  // namespace
