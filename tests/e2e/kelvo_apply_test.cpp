// kelvo-apply: files checked in a staging directory before kelvo writes them,
// reloads only after a change, and live files left alone on any failure.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "e2e_util.h"

namespace {

const char* const WERN = "wrn:/net/foo:default";

using e2e::whole;
using e2e::Whole;

// A file as the tests compare it: its bytes and its inode.
struct Live {
    std::string content;
    ino_t inode = 0;
    bool operator==(const Live&) const = default;
};

// One configfile group: its name, its file below /etc, its stencil, and
// extra properties (JSON members, each led by ",").
struct Group {
    std::string name, file, stencil, extra;
};

class KelvoApply : public e2e::ProgramTest {
  protected:
    void SetUp() override {
        ProgramTest::SetUp();
        ASSERT_EQ(mkdir(tmp.c_str(), 0755), 0);
        e2e::write_file(stencils + "/t", "fixed\n");
    }
    void instance(const std::string& port, const std::vector<Group>& groups) {
        std::string json = R"({"services": {"net/foo": {"instances": {"default": {"groups": {
            "config": {"properties": {"port": )" +
                           port + "}}";
        for (const Group& g : groups)
            json += ", \"" + g.name + R"(": {"type": "configfile", "properties": {"path": "/etc/)" +
                    g.file + R"(", "stencil": ")" + g.stencil + R"(", "mode": "0640")" + g.extra +
                    "}}";
        e2e::make_repository(repo, json + "}}}}}}");
    }
    // Groups "a" and "b" make a.conf and b.conf from stencil s.
    void instance(const std::string& port, const std::string& a, const std::string& b) {
        instance(port, {{"a", "a.conf", "s", a}, {"b", "b.conf", "s", b}});
    }
    e2e::Result apply(std::vector<std::string> args = {}) {
        args.insert(args.begin(), {"-f", WERN, "-R", root, "-S", stencils});
        e2e::Result r = e2e::program(e2e::kelvo_apply_bin(), repo, args, "", {{"TMPDIR", tmp}});
        EXPECT_TRUE(std::filesystem::is_empty(tmp)) << "the staging directory is left behind";
        return r;
    }
    Live live(const std::string& name) {
        struct stat st {};
        if (stat((root + "/etc/" + name).c_str(), &st) != 0) return {};
        return {e2e::read_file(root + "/etc/" + name), st.st_ino};
    }
    // A JSON member that sets a property to a shell command.
    static std::string prop(const std::string& name, const std::string& command) {
        return ", \"" + name + "\": \"" + command + "\"";
    }
    std::string path(const std::string& name) { return root + "//etc/" + name; }

    // Staged paths with a blank and a quote: a check must get them quoted.
    std::string log = dir / "log", tmp = dir / "st age's";
};

// A passing check lets its file go; each distinct command runs once, in
// group order, after a change of its files only; a disabled group is neither
// checked, written nor reloaded; nothing changed, nothing is said or run.
TEST_F(KelvoApply, ChecksPassAndReloadsFollowTheChangedFilesInGroupOrder) {
    auto groups = [&](const std::string& port) {
        instance(port, {{"a", "a.conf", "s",
                         prop("check", "grep -q port=" + port + " %s") +
                             prop("reload", "echo a >> " + log)},
                        {"b", "b.conf", "t", prop("reload", "echo b >> " + log)},
                        {"c", "c.conf", "s", prop("reload", "echo a >> " + log)},
                        {"d", "d.conf", "s",
                         prop("disabled", "true") + prop("check", "false") +
                             prop("reload", "echo d >> " + log)}});
    };
    groups("1");
    ASSERT_EQ(apply().status, 0);
    EXPECT_EQ(e2e::read_file(log), "a\nb\n");
    groups("2");
    EXPECT_EQ(whole(apply()), (Whole{0,
                                     "changed " + path("a.conf") + "\nchanged " + path("c.conf") +
                                         "\nreload: echo a >> " + log + "\n",
                                     ""}));
    EXPECT_EQ(live("a.conf").content, "port=2\n");
    EXPECT_EQ(live("c.conf").content, "port=2\n");
    EXPECT_EQ(e2e::read_file(log), "a\nb\na\n");
    EXPECT_FALSE(e2e::exists(root + "/etc/d.conf"));
    EXPECT_EQ(whole(apply()), (Whole{0, "", ""}));
    EXPECT_EQ(e2e::read_file(log), "a\nb\na\n");
}

// Neither a failed check nor a dry run changes a live file or reloads.
TEST_F(KelvoApply, AFailedCheckOrADryRunLeavesEveryLiveFileAsItWas) {
    const std::string reload = prop("reload", "echo reloaded >> " + log);
    instance("8080", reload, reload);
    ASSERT_EQ(apply().status, 0);
    const Live a = live("a.conf"), b = live("b.conf");
    const std::string reloads = e2e::read_file(log);

    // Group a's check would pass; b's rejects the new port, so nothing goes.
    const std::string check = "grep -q port=8080 %s || { echo checker rejects; cat %s; exit 1; }";
    for (const std::vector<std::string>& extra : {std::vector<std::string>{}, {"-x"}}) {
        instance("9090", prop("check", "true %s") + reload, prop("check", check) + reload);
        const e2e::Result r = apply(extra);
        EXPECT_EQ(whole(r), (Whole{1, "",
                                   "kelvo-apply: the check of group b failed (status 1): " + check +
                                       "\nchecker rejects\nport=9090\nkelvo-apply: nothing "
                                       "applied\n"}));
        EXPECT_EQ(live("a.conf"), a);
        EXPECT_EQ(live("b.conf"), b);
        EXPECT_EQ(e2e::read_file(log), reloads);
    }

    // A dry run names what would happen, and runs not even the checks.
    const std::string mark = dir / "checked";
    instance("9090", prop("check", "touch " + mark) + prop("reload", "echo r >> " + log), "");
    EXPECT_EQ(
        whole(apply({"--dry-run"})),
        (Whole{0,
               "would check a: touch " + mark + "\nwould change " + path("a.conf") +
                   "\nwould change " + path("b.conf") + "\nwould reload: echo r >> " + log + "\n",
               ""}));
    EXPECT_EQ(live("a.conf"), a);
    EXPECT_EQ(live("b.conf"), b);
    EXPECT_FALSE(e2e::exists(mark));
    EXPECT_EQ(e2e::read_file(log), reloads);
}

TEST_F(KelvoApply, StrictRefusesAReferenceThatNamesNothing) {
    e2e::write_file(stencils + "/u", "port=$%{config/port}\nhost=$%{config/hots}\n");
    instance("8080", {{"a", "a.conf", "s", ""}, {"b", "b.conf", "u", ""}});
    EXPECT_EQ(whole(apply({"--strict"})),
              (Whole{5, "",
                     "kelvo-apply: references that name nothing (--strict); nothing applied:\n" +
                         stencils + "/u:2: config/hots\n"}));
    EXPECT_TRUE(std::filesystem::is_empty(root + "/etc"));
    EXPECT_EQ(apply().status, 0);
    EXPECT_EQ(live("b.conf").content, "port=8080\nhost=\n");
}

// Whatever fails after the checks, the live files end as they began; a
// failed reload comes after the files are in place.
TEST_F(KelvoApply, FailuresAfterTheChecks) {
    instance("8080", "", "");
    ASSERT_EQ(apply().status, 0);
    const Live a = live("a.conf");

    // kelvo -a fails on b for real (its directory is missing below -R; the
    // staging directory had it): a, already rewritten, is put back.
    instance("9090", {{"a", "a.conf", "s", ""}, {"b", "sub/b.conf", "s", ""}});
    e2e::Result r = apply();
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("kelvo-apply: put back " + path("a.conf") + "\n"), std::string::npos)
        << r.err;
    EXPECT_EQ(live("a.conf"), a);

    // A stencil kelvo cannot read stops everything before the checks.
    instance("9090",
             {{"a", "a.conf", "s", prop("check", "touch " + log)}, {"b", "b.conf", "none", ""}});
    r = apply();
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(live("a.conf"), a);
    EXPECT_FALSE(e2e::exists(log));

    instance("9090", prop("reload", "exit 7"), "");
    EXPECT_EQ(whole(apply()), (Whole{4,
                                     "changed " + path("a.conf") + "\nchanged " + path("b.conf") +
                                         "\nreload: exit 7\n",
                                     "kelvo-apply: the reload failed (status 7): exit 7\n"}));
    EXPECT_EQ(live("a.conf").content, "port=9090\n");
}

TEST_F(KelvoApply, RefusesABadCommandLine) {
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"-f", WERN, "extra"}, {"--bogus"}, {}}) {
        const e2e::Result r = e2e::program(e2e::kelvo_apply_bin(), repo, args);
        EXPECT_EQ(r.status, 2);
        EXPECT_NE(r.err.find("Usage: kelvo-apply"), std::string::npos) << r.err;
    }
}

}  // namespace
