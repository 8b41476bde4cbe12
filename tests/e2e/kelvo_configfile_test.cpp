// Configfile mode: one output per "configfile" group of the instance, the
// status of a run over several groups, -x, the group's properties and
// defines, and undo.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

#include "e2e_util.h"

namespace {

const char* const WERN = "wrn:/net/foo:default";

using e2e::whole;
using e2e::Whole;

class KelvoConfigfile : public e2e::ProgramTest {
  protected:
    // groups: the JSON members of the instance's "groups" object, beside the
    // group "config" that stencil "s" reads.
    void repository(const std::string& groups) {
        e2e::make_repository(repo, R"({"services": {"net/foo": {"instances": {"default": {
            "groups": {"config": {"properties": {"port": 8080}})" +
                                       (groups.empty() ? "" : "," + groups) + "}}}}}}");
    }
    // A configfile group writing T/<name>.out with stencil and mode; extra
    // holds further JSON members of its "properties", nested for its groups.
    std::string group(const std::string& name, const std::string& stencil = "s",
                      const std::string& mode = "0644", const std::string& extra = "",
                      const std::string& nested = "") const {
        std::string props = R"("path": ")" + out(name) + R"(", "stencil": ")" + stencil +
                            R"(", "mode": ")" + mode + "\"";
        if (!extra.empty()) props += "," + extra;
        std::string g = "\"" + name + R"(": {"type": "configfile", "properties": {)" + props + "}";
        if (!nested.empty()) g += R"(, "groups": {)" + nested + "}";
        return g + "}";
    }
    std::string out(const std::string& name) const { return dir / (name + ".out"); }
    e2e::Result run(std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {"-a", "-f", WERN, "-S", stencils};
        args.insert(args.end(), extra.begin(), extra.end());
        return e2e::kelvo(repo, args);
    }
};

TEST_F(KelvoConfigfile, EachGroupWritesItsFile) {
    repository("");
    EXPECT_EQ(whole(run()), Whole(0, "", ""));

    e2e::write_file(stencils + "/t", "other\n");
    repository(group("a", "s", "0640") + "," + group("b", "t", "0600"));
    // Mode, owner and group of the command line do not apply, not even as
    // a lookup of the names.
    EXPECT_EQ(whole(run({"-m", "644", "-O", "no-such-user-kelvo", "-g", "no-such-group-kelvo"})),
              Whole(0, "", ""));
    for (const auto& [name, text, mode] :
         {std::tuple{"a", "port=8080\n", 0640u}, std::tuple{"b", "other\n", 0600u}}) {
        EXPECT_EQ(e2e::read_file(out(name)), text);
        struct stat st {};
        ASSERT_EQ(stat(out(name).c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, mode) << name;
    }
    // List mode writes the names of the references to each path instead.
    EXPECT_EQ(whole(run({"-l"})), Whole(0, "", ""));
    EXPECT_EQ(e2e::read_file(out("a")), "config/port\n");
}

// Groups a and b: how each one ends decides the run's status, with and
// without -x.
struct StatusCase {
    const char* name;
    const char* a;  // "ok", "fail1" (missing stencil), "fail3" (bad mode), "off"
    const char* b;
    bool stop;
    int status;
    bool b_written;
};

TEST_F(KelvoConfigfile, StatusOverGroups) {
    const std::vector<StatusCase> cases = {
        {"a fails, b succeeds", "fail1", "ok", false, 0, true},
        {"a succeeds, b fails", "ok", "fail3", false, 3, false},
        {"a fails, b disabled", "fail1", "off", false, 1, false},
        {"a disabled, b fails", "off", "fail1", false, 1, false},
        {"both disabled", "off", "off", false, 0, false},
        {"-x, a fails", "fail3", "ok", true, 3, false},
        {"-x, a succeeds, b fails", "ok", "fail1", true, 1, false},
        {"-x, a disabled, b succeeds", "off", "ok", true, 0, true},
    };
    for (const StatusCase& c : cases) {
        SCOPED_TRACE(c.name);
        unlink(out("a").c_str());
        unlink(out("b").c_str());
        std::string expected_err;
        auto make = [&](const std::string& name, const std::string& kind) {
            if (kind == "ok") return group(name);
            if (kind == "off") return group(name, "s", "0644", R"("disabled": "true")");
            if (kind == "fail1") {
                expected_err += "Stencil file at " + stencils + "/nosuch does not exist\n";
                return group(name, "nosuch");
            }
            expected_err += "Invalid mode for file " + out(name) + ": 08\n";
            return group(name, "s", "08");
        };
        const std::string ga = make("a", c.a), err_a = expected_err, gb = make("b", c.b);
        // With -x, a failing a ends the run before b is looked at.
        if (c.stop && c.a[0] == 'f') expected_err = err_a;
        if (c.stop && c.status != 0) expected_err += "kelvo: kelvo terminated\n";
        repository(ga + "," + gb);
        EXPECT_EQ(whole(run(c.stop ? std::vector<std::string>{"-x"} : std::vector<std::string>{})),
                  Whole(c.status, "", expected_err));
        EXPECT_EQ(e2e::exists(out("b")), c.b_written);
        EXPECT_EQ(e2e::exists(out("a")), std::string(c.a) == "ok");
    }
}

TEST_F(KelvoConfigfile, BadGroupDescriptions) {
    struct Case {
        const char* name;
        std::string groups;
        std::string err;
    };
    const std::string missing =
        R"("a": {"type": "configfile", "properties": {"path": "/x", "mode": "0644"}})";
    const std::vector<Case> cases = {
        {"required property missing", missing, "Required property a/stencil is not defined\n"},
        {"two values", group("a", "s", "0644", R"("group": ["x", "y"])"),
         "Property a/group may only have one value\n"},
        {"no value", group("a", "s", "0644", R"("disabled": [])"),
         "Property a/disabled may only have one value\n"},
        {"owner and user", group("a", "s", "0644", R"("owner": ["a", "b"], "user": ["c", "d"])"),
         "Property a/owner may only have one value\nProperty a/user may only have one value\n"},
        {"setuid", group("a", "s", "4755"),
         "Invalid mode for file: 4755: Cannot have setuid or setgid bits set\n"},
        {"setgid", group("a", "s", "2755"),
         "Invalid mode for file: 2755: Cannot have setuid or setgid bits set\n"},
        {"empty mode", group("a", "s", ""), "Invalid mode for file " + out("a") + ": \n"},
        // Only "true" disables; the missing stencil then counts.
        {"disabled false", R"("a": {"type": "configfile", "properties": {"disabled": "True",
            "path": "/x", "mode": "0644"}})",
         "Required property a/stencil is not defined\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        repository(c.groups);
        EXPECT_EQ(whole(run()), Whole(3, "", c.err));
        EXPECT_FALSE(e2e::exists(out("a")));
    }
    // A disabled group needs nothing else.
    repository(R"("a": {"type": "configfile", "properties": {"disabled": "true"}})");
    EXPECT_EQ(whole(run()), Whole(0, "", ""));
}

TEST_F(KelvoConfigfile, GroupDefines) {
    e2e::write_file(stencils + "/d", "x=$%[x] y=$%[y]\n");
    // "ba" is searched too: the defines search is not anchored. A define
    // record with two values is passed over.
    repository(
        group("a", "d", "0644", "", R"("defines": {"properties": {"x": "1", "z": ["p", "q"]}})") +
        R"(, "ba": {"properties": {"unused": "u"}, "groups": {"defines": {"properties": {"y": "2"}}}})");
    EXPECT_EQ(whole(run()), Whole(0, "", ""));
    EXPECT_EQ(e2e::read_file(out("a")), "x=1 y=2\n");
}

TEST_F(KelvoConfigfile, DuplicateDefineStaysForNextGroup) {
    e2e::write_file(stencils + "/d", "x=$%[x]\n");
    // a/defines/sub/x and a/defines/x end in the same name; the first in name
    // order is added, the second fails the group. The table is not rebuilt
    // after the failure, so b (with no defines) still sees that x.
    repository(
        group(
            "a", "d", "0644", "",
            R"("defines": {"properties": {"x": "1"}, "groups": {"sub": {"properties": {"x": "2"}}}})") +
        "," + group("b", "d"));
    EXPECT_EQ(whole(run()), Whole(0, "", "Invalid define: x already exists\n"));
    EXPECT_FALSE(e2e::exists(out("a")));
    EXPECT_EQ(e2e::read_file(out("b")), "x=2\n");
}

TEST_F(KelvoConfigfile, OwnerAndUser) {
    if (geteuid() != 0) GTEST_SKIP() << "changing a file's owner needs root";
    struct Case {
        const char* name;
        std::string extra;
        std::string err;
        uid_t uid;
    };
    const std::vector<Case> cases = {
        {"owner", R"("owner": "nobody", "group": "nogroup")", "", 65534},
        // user does not stand in for a missing owner ...
        {"user alone", R"("user": "nobody")", "", 0},
        // ... only for an owner that cannot be used.
        {"bad owner, user", R"("owner": ["a", "b"], "user": "nobody")",
         "Property a/owner may only have one value\n", 65534},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        unlink(out("a").c_str());
        repository(group("a", "s", "0644", c.extra));
        EXPECT_EQ(whole(run()), Whole(0, "", c.err));
        struct stat st {};
        ASSERT_EQ(stat(out("a").c_str(), &st), 0);
        EXPECT_EQ(st.st_uid, c.uid);
    }
}

TEST_F(KelvoConfigfile, Undo) {
    // The stencil need not exist for an undo, though it must be named.
    repository(group("a", "nosuch") + "," + group("b", "nosuch"));
    e2e::write_file(out("b"), "x\n");
    // a is missing (-1), b is removed: the last group decides.
    EXPECT_EQ(whole(run({"-u"})), Whole(0, "", ""));
    EXPECT_FALSE(e2e::exists(out("b")));

    e2e::write_file(out("b"), "x\n");
    EXPECT_EQ(whole(run({"-u", "-x"})), Whole(255, "", "kelvo: kelvo terminated\n"));
    EXPECT_TRUE(e2e::exists(out("b")));
}

}  // namespace
