// hgxrepo as users run it: import, export and the round trip, the editing
// commands, refused input (one line, status 1, file unchanged), bad command
// lines (usage, status 2).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include <string>
#include <vector>

#include "e2e_util.h"

namespace {

using e2e::hgxrepo;
using e2e::read_file;
using e2e::TempDir;
using e2e::write_file;

const char MANIFEST[] = R"({
  "services": {
    "net/foo": {
      "groups": {
        "general": { "type": "framework", "properties": { "enabled": true } },
        "config": { "properties": { "port": 80, "base": "s" } }
      },
      "instances": {
        "default": {
          "groups": {
            "config": {
              "type": "application",
              "properties": {
                "port": 8080,
                "hosts": ["a.example", "b.example"],
                "mode": { "type": "astring", "values": ["0644"] },
                "empty": []
              },
              "groups": { "tls": { "properties": { "on": false } } }
            }
          }
        }
      }
    },
    "other": {}
  }
})";

size_t lines(const std::string& s) {
    size_t n = 0;
    for (char c : s) n += c == '\n';
    return n;
}

class Hgxrepo : public ::testing::Test {
  protected:
    void SetUp() override {
        repo = dir / "repo.db";
        e2e::make_repository(repo, MANIFEST);
    }
    e2e::Result run(std::vector<std::string> args, const std::string& input = "") {
        args.insert(args.begin(), {"-r", repo});
        return hgxrepo(args, input);
    }
    // A command that must fail with one line naming `what` and leave the
    // repository file as it was.
    void refused(const std::vector<std::string>& args, const std::string& what,
                 const std::string& input = "") {
        SCOPED_TRACE(args.empty() ? "" : args[0]);
        const std::string before = read_file(repo);
        e2e::Result r = run(args, input);
        EXPECT_EQ(r.status, 1) << r.err;
        EXPECT_EQ(lines(r.err), 1u) << r.err;
        EXPECT_EQ(r.err.rfind("hgxrepo: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(what), std::string::npos) << r.err;
        EXPECT_TRUE(read_file(repo) == before) << "repository file changed";
    }
    TempDir dir;
    std::string repo;
};

TEST_F(Hgxrepo, ExportOfImportedExportIsTheSame) {
    e2e::Result first = run({"export"});
    ASSERT_EQ(first.status, 0) << first.err;
    std::string copy = dir / "copy.db";
    e2e::Result imported = hgxrepo({"-r", copy, "import", "-"}, first.out);
    ASSERT_EQ(imported.status, 0) << imported.err;
    e2e::Result second = hgxrepo({"-r", copy, "export"});
    ASSERT_EQ(second.status, 0) << second.err;
    EXPECT_EQ(first.out, second.out);
    EXPECT_NE(first.out.find("\"hosts\""), std::string::npos);

    // One instance alone, and the listing.
    e2e::Result one = run({"export", "wrn:/net/foo:default"});
    ASSERT_EQ(one.status, 0) << one.err;
    EXPECT_EQ(one.out.find("\"general\""), std::string::npos);
    EXPECT_NE(one.out.find("\"default\""), std::string::npos);
    e2e::Result list = run({"list"});
    EXPECT_EQ(list.out, "wrn:/net/foo\nwrn:/net/foo:default\nwrn:/other\n");
}

TEST_F(Hgxrepo, EditingCommandsAndSnapshots) {
    ASSERT_EQ(run({"setprop", "wrn:/net/foo:default/:properties/config/port", "9090"}).status, 0);
    ASSERT_EQ(
        run({"setprop", "wrn:/net/foo:default/:properties/config/list", "-t", "integer", "-1", "2"})
            .status,
        0);
    ASSERT_EQ(run({"addpg", "wrn:/net/foo:default/:properties/config/cf", "configfile"}).status, 0);
    ASSERT_EQ(run({"setprop", "wrn:/net/foo:default/:properties/config/cf/path"}).status, 0);
    ASSERT_EQ(run({"delprop", "wrn:/net/foo:default/:properties/config/hosts"}).status, 0);
    ASSERT_EQ(run({"delpg", "wrn:/net/foo:default/:properties/config/tls"}).status, 0);

    e2e::Result show = run({"show", "wrn:/net/foo:default"});
    ASSERT_EQ(show.status, 0) << show.err;
    EXPECT_EQ(show.out,
              "config/ application\n"
              "config/base astring \"s\"\n"
              "config/empty astring\n"
              "config/list integer \"-1\" \"2\"\n"
              "config/mode astring \"0644\"\n"
              "config/port count \"9090\"\n"
              "config/cf/ configfile\n"
              "config/cf/path astring\n"
              "general/ framework\n"
              "general/enabled boolean \"true\"\n");
    // The snapshot of the import still holds the old state until retaken.
    e2e::Result snap = run({"show", "wrn:/net/foo:default", "running"});
    EXPECT_NE(snap.out.find("config/port count \"8080\""), std::string::npos) << snap.out;
    EXPECT_NE(snap.out.find("config/tls/on boolean \"false\""), std::string::npos) << snap.out;
    ASSERT_EQ(run({"snapshot", "wrn:/net/foo"}).status, 0);
    snap = run({"show", "wrn:/net/foo:default", "running"});
    EXPECT_EQ(snap.out, show.out);
    ASSERT_EQ(run({"snapshot", "wrn:/net/foo:default", "before"}).status, 0);
    EXPECT_EQ(run({"show", "wrn:/net/foo:default", "before"}).out, show.out);

    ASSERT_EQ(run({"delete", "wrn:/net/foo:default"}).status, 0);
    ASSERT_EQ(run({"delete", "wrn:/other"}).status, 0);
    EXPECT_EQ(run({"list"}).out, "wrn:/net/foo\n");
}

TEST_F(Hgxrepo, RefusedCommandsSayWhatAndWhereAndChangeNothing) {
    const std::string bad = dir / "bad.json";
    write_file(bad,
               "{\"services\": {\n  \"a\": {\"groups\": {\"g\": {\"properties\": {\n"
               "    \"port\": 1.5}}}}}}\n");
    refused({"import", bad}, "bad.json:3:13: ");
    write_file(bad, "{\"services\": {\"a\": {}, \"a\": {}}}");
    refused({"import", bad}, "bad.json:1:24: duplicate key");
    refused({"import", "-"}, "<stdin>:1:2: ", "{\"nope\": 1}");
    // A later manifest's fault undoes nothing of an earlier one: nothing is
    // written at all.
    write_file(dir / "good.json", "{\"services\": {\"new\": {}}}");
    refused({"import", dir / "good.json", bad}, "bad.json:1:24:");
    refused({"import", dir / "missing.json"}, "missing.json");
    refused({"setprop", "wrn:/net/foo:default/:properties/config/port", "x"},
            "wrn:/net/foo:default/:properties/config/port: value \"x\"");
    refused({"setprop", "wrn:/net/foo:default/:properties/nogroup/p", "x"}, "no group");
    refused({"setprop", "wrn:/net/foo:default/:properties/config/p", "-t", "nosuch", "x"},
            "unknown type");
    refused({"setprop", "wrn:/net/foo:nope/:properties/config/p", "x"}, "no such instance");
    refused({"setprop", "wrn:net", "x"}, "not a valid wern");
    refused({"delprop", "wrn:/net/foo:default/:properties/config/nope"}, "no such property");
    refused({"addpg", "wrn:/net/foo:default/:properties/config", "x"}, "exists");
    refused({"delpg", "wrn:/net/foo/:properties/nope"}, "no group");
    refused({"delete", "wrn:/nope"}, "no such service");
    refused({"show", "wrn:/net/foo:default", "nosnap"}, "no snapshot");
    refused({"export", "wrn:/net/foo/:properties/config"}, "names no service or instance");

    // Files that are not repositories are left alone.
    const std::string text = dir / "text";
    write_file(text, "plain text, not a database, long enough to have a header.........\n");
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"list"}, {"delete", "wrn:/a"}, {"import", dir / "good.json"}}) {
        std::vector<std::string> full = {"-r", text};
        full.insert(full.end(), args.begin(), args.end());
        e2e::Result r = hgxrepo(full);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find("not a database"), std::string::npos) << r.err;
    }
    EXPECT_EQ(read_file(text),
              "plain text, not a database, long enough to have a header.........\n");
    e2e::Result missing = hgxrepo({"-r", dir / "none.db", "export"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("none.db: Repository file does not exist"), std::string::npos)
        << missing.err;
    EXPECT_FALSE(e2e::exists(dir / "none.db"));
    e2e::Result failed_new = hgxrepo({"-r", dir / "new.db", "import", bad});
    EXPECT_EQ(failed_new.status, 1);
    EXPECT_FALSE(e2e::exists(dir / "new.db"));
}

// A user who cannot write the repository's directory still reads the
// repository that root wrote: through the -wal and -shm files the writer
// leaves behind, or, where those are gone and the log held nothing, from the
// file alone. A log that cannot be read is said so.
TEST_F(Hgxrepo, UserWhoCannotWriteTheDirectoryReadsTheRepository) {
    if (geteuid() != 0 || access("/usr/bin/setpriv", X_OK) != 0)
        GTEST_SKIP() << "needs root and setpriv to run kelvo as another user";
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(repo.c_str(), 0644), 0);
    auto kelvo_as_nobody = [&] {
        e2e::Run r;
        r.args = {e2e::kelvo_bin(), "-f", "wrn:/net/foo:default"};
        r.input = "$%{config/port}\n";
        r.env = {{"HGX_REPOSITORY", repo}};
        r.wrapper = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
        return e2e::run(r);
    };
    e2e::Result r = kelvo_as_nobody();
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "8080\n");

    std::remove((repo + "-wal").c_str());
    std::remove((repo + "-shm").c_str());
    r = kelvo_as_nobody();
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "8080\n");

    write_file(repo + "-wal", "a log whose index is gone");
    r = kelvo_as_nobody();
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("write-ahead log cannot be read"), std::string::npos) << r.err;
}

TEST(HgxrepoCommandLine, BadCommandLinesGiveUsage) {
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"-r"},
        {"-x", "list"},
        {"bogus"},
        {"import"},
        {"import", "--no-snapshot"},
        {"export", "a", "b"},
        {"list", "extra"},
        {"show"},
        {"addpg", "wrn:/a/:properties/g"},
        {"setprop", "wrn:/a/:properties/g/p", "-t"},
        {"setprop", "-t", "count", "wrn:/a/:properties/g/p", "1"},
        {"snapshot"},
    };
    for (const auto& args : cases) {
        e2e::Result r = hgxrepo(args);
        EXPECT_EQ(r.status, 2) << (args.empty() ? "" : args[0]);
        EXPECT_EQ(r.err.rfind("usage: hgxrepo", 0), 0u) << r.err;
    }
    e2e::Result help = hgxrepo({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("usage: hgxrepo", 0), 0u);
}

}  // namespace
