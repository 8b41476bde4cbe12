// hgxrepo as users run it: import, export and the round trip, the types of
// the property forms, the editing commands, refused input and manifests (one
// line naming the place, status 1, file unchanged), what it tells users, bad
// command lines (usage, status 2).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "e2e_util.h"
#include "etcd_server.h"

namespace {

using e2e::hgxrepo;
using e2e::read_file;
using e2e::TempDir;
using e2e::write_file;

const char MANIFEST[] = R"({"services": {"net/foo": {"groups": {"general": {"type": "framework",
    "properties": {"enabled": true}}, "config": {"properties": {"port": 80, "base": "s"}}},
    "instances": {"default": {"groups": {"config": {"type": "application",
    "properties": {"port": 8080, "hosts": ["a.example", "b.example"],
    "mode": {"type": "astring", "values": ["0644"]}, "empty": []},
    "groups": {"tls": {"properties": {"on": false}}}}}}}}, "other": {}}})";

using e2e::whole;
using e2e::Whole;

// A repository made from a manifest in the test's scratch directory, and
// hgxrepo run on it.
class Hgxrepo : public ::testing::Test {
  protected:
    explicit Hgxrepo(std::string manifest = MANIFEST) : manifest_(std::move(manifest)) {}
    void SetUp() override { e2e::make_repository(repo, manifest_); }
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
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_EQ(r.err.rfind("hgxrepo: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(what), std::string::npos) << r.err;
        EXPECT_TRUE(read_file(repo) == before) << "repository file changed";
        last_err = r.err;
    }
    // kelvo printing config/port of the instance, behind the wrapper.
    e2e::Result kelvo_port(std::vector<std::string> wrapper = {}) {
        return e2e::kelvo(repo, {"-f", "wrn:/net/foo:default"}, "$%{config/port}\n", {},
                          std::move(wrapper));
    }
    std::string last_err;
    TempDir dir;
    std::string repo = dir / "repo.db", manifest_;
};

// Each form of a property gives its type; export, import and export again
// give the same text, and the values that need the object form survive.
TEST_F(Hgxrepo, PropertyFormsGiveTheirTypesAndSurviveTheRoundTrip) {
    const std::string a = dir / "a.db", b = dir / "b.db";
    e2e::make_repository(a, R"({"services": {"s": {
      "groups": {"general": {"type": "framework", "properties": {"enabled": true}}},
      "instances": {"bare": {}, "i": {"groups": {"g": {"properties": {
          "str": "x", "yes": true, "n": 7, "neg": -3, "empty": [],
          "strs": ["b", "a"], "bools": [false, true], "counts": [3, 1], "ints": [2, -1],
          "obj": {"type": "net_address_v6", "values": "::1"},
          "objs": {"type": "integer", "values": ["5", "-5"]},
          "lead": {"type": "count", "values": ["007"]}, "t": {"type": "time", "values": ["1.5"]},
          "novalues": {"type": "count"}, "quote": "a \"b\" \\ \n é"},
        "groups": {"tls": {"properties": {"on": false}, "groups": {"deep": {}}}}}}}}},
      "empty": {}}})");
    e2e::Result first = hgxrepo({"-r", a, "export"});
    ASSERT_EQ(first.status, 0) << first.err;
    ASSERT_EQ(hgxrepo({"-r", b, "import", "-"}, first.out).status, 0);
    EXPECT_EQ(hgxrepo({"-r", b, "export"}).out, first.out);
    for (const std::string& r : {a, b})
        EXPECT_EQ(hgxrepo({"-r", r, "show", "wrn:/s:i"}).out,
                  "g/ application\n"
                  "g/bools boolean \"false\" \"true\"\n"
                  "g/counts count \"3\" \"1\"\n"
                  "g/empty astring\n"
                  "g/ints integer \"2\" \"-1\"\n"
                  "g/lead count \"007\"\n"
                  "g/n count \"7\"\n"
                  "g/neg integer \"-3\"\n"
                  "g/novalues count\n"
                  "g/obj net_address_v6 \"::1\"\n"
                  "g/objs integer \"5\" \"-5\"\n"
                  "g/quote astring \"a \\\"b\\\" \\\\ \\n é\"\n"
                  "g/str astring \"x\"\n"
                  "g/strs astring \"b\" \"a\"\n"
                  "g/t time \"1.5\"\n"
                  "g/yes boolean \"true\"\n"
                  "g/tls/ application\n"
                  "g/tls/on boolean \"false\"\n"
                  "g/tls/deep/ application\n"
                  "general/ framework\n"
                  "general/enabled boolean \"true\"\n")
            << r;
    EXPECT_EQ(hgxrepo({"-r", b, "list"}).out, "wrn:/empty\nwrn:/s\nwrn:/s:bare\nwrn:/s:i\n");

    // One instance alone, and the listing.
    e2e::Result one = run({"export", "wrn:/net/foo:default"});
    ASSERT_EQ(one.status, 0) << one.err;
    EXPECT_EQ(one.out.find("\"general\""), std::string::npos);
    EXPECT_NE(one.out.find("\"default\""), std::string::npos);
    EXPECT_EQ(run({"list"}).out, "wrn:/net/foo\nwrn:/net/foo:default\nwrn:/other\n");
}

TEST_F(Hgxrepo, ImportReplacesNamedServicesWhollyAndSnapshotsInstances) {
    const std::string r = dir / "r.db";
    e2e::make_repository(r, R"({"services": {
        "a": {"groups": {"old": {}}, "instances": {"i": {}, "j": {}}},
        "b": {"instances": {"k": {}}}}})",
                         false);
    e2e::make_repository(r, R"({"services": {"a": {"instances": {"i": {"groups": {"g": {}}}}}}})");
    EXPECT_EQ(hgxrepo({"-r", r, "list"}).out, "wrn:/a\nwrn:/a:i\nwrn:/b\nwrn:/b:k\n");
    EXPECT_EQ(hgxrepo({"-r", r, "show", "wrn:/a:i", "running"}).out, "g/ application\n");
    // b was not imported the second time, so it has no snapshot.
    EXPECT_EQ(hgxrepo({"-r", r, "show", "wrn:/b:k", "running"}).status, 1);
}

std::string wrap(const std::string& props) {
    return R"({"services": {"a": {"groups": {"g": {"properties": {)" + props + "}}}}}}";
}

// Each manifest read from standard input; '`' marks the place the message
// must name, what is a part of the message.
TEST_F(Hgxrepo, RefusedManifestsNameTheirPlace) {
    const std::string long_value(4097, 'v'), long_name(1010, 'p');
    const struct {
        const char* name;
        std::string manifest;
        const char* what;
    } cases[] = {
        {"float", wrap(R"("p": `1.5)"), "floating-point"},
        {"exponent", wrap(R"("p": `1e3)"), "floating-point"},
        {"null", wrap(R"("p": `null)"), "null"},
        {"null in array", wrap(R"("p": ["a", `null])"), "null"},
        {"mixed array", wrap(R"("p": [1, `"x"])"), "mixes"},
        {"bool and number", wrap(R"("p": [true, `1])"), "mixes"},
        {"nested array", wrap(R"("p": [`[1]])"), "not a valid value"},
        {"unknown type", wrap(R"("p": {"type": `"nope", "values": []})"), "unknown type"},
        {"object without type", wrap(R"("p": `{"values": []})"), "no \"type\""},
        {"object number value", wrap(R"("p": {"type": "count", "values": [`5]})"), "strings"},
        {"count not a number", wrap(R"("p": {"type": "count", "values": ["1", `"x"]})"),
         "type count"},
        {"negative count", wrap(R"("p": {"type": "count", "values": `"-1"})"), "type count"},
        {"boolean", wrap(R"("p": {"type": "boolean", "values": [`"yes"]})"), "type boolean"},
        {"ipv4", wrap(R"("p": {"type": "net_address_v4", "values": [`"1.2.3"]})"), "IPv4"},
        {"ipv6", wrap(R"("p": {"type": "net_address_v6", "values": [`"1.2.3.4"]})"), "IPv6"},
        {"too big", wrap(R"("p": `18446744073709551616)"), "out of range"},
        {"too small", wrap(R"("p": `-9223372036854775809)"), "out of range"},
        {"long value", wrap(R"("p": `")" + long_value + "\""), "4096"},
        {"nul in value", wrap(R"("p": `"a\u0000b")"), "NUL"},
        {"duplicate property", wrap(R"("p": 1, `"p": 2)"), "duplicate key \"p\""},
        {"duplicate service", R"({"services": {"a": {}, `"a": {}}})", "duplicate key \"a\""},
        {"bad property name", wrap(R"(`"-p": 1)"), "bad property name"},
        {"bad service name", R"({"services": {`"a//b": {}}})", "bad service name"},
        {"bad instance name", R"({"services": {"a": {"instances": {`"x:y": {}}}}})",
         "bad instance name"},
        {"bad group name", R"({"services": {"a": {"groups": {`"g/h": {}}}}})", "bad group name"},
        {"nul in group name", R"({"services": {"a": {"groups": {`"g\u0000h": {}}}}})",
         "bad group name"},
        {"long wern", wrap("`\"" + long_name + "\": 1"), "longer than 1024"},
        {"long group type",
         R"({"services": {"a": {"groups": {"g": {"type": `")" + std::string(64, 't') + "\"}}}}}",
         "group type"},
        {"unknown key", R"({"services": {"a": {"groups": {"g": {`"typo": 1}}}}})",
         "unknown key \"typo\""},
        {"services not object", R"({"services": `[]})", "must be an object"},
        {"not an object", "`[]", "must be an object"},
        {"third line",
         "{\"services\": {\n  \"a\": {\"groups\": {\"g\": {\"properties\": {\n"
         "    \"ok\": \"x\",\n    \"p\": false,\n    `\"p\": 1}}}}}}",
         "duplicate"},
        {"deep nesting", std::string(2048, '[') + "`[" + std::string(2049, ']'),
         "nesting deeper than 2048 levels"},
        {"syntax", "{\"services\": {\"a\": {},`}}", "syntax error"},
        {"empty", "`", "syntax error"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string text = c.manifest;
        size_t mark = text.find('`');
        ASSERT_NE(mark, std::string::npos);
        text.erase(mark, 1);
        const std::string head = text.substr(0, mark);
        const size_t line_start = head.rfind('\n') + 1;  // no line break: npos + 1, 0
        refused({"import", "-"},
                "<stdin>:" + std::to_string(1 + std::count(head.begin(), head.end(), '\n')) + ":" +
                    std::to_string(mark - line_start + 1) + ": ",
                text);
        EXPECT_NE(last_err.find(c.what), std::string::npos) << last_err;
    }
}

// Input without end, or larger than the limit, is refused at once with its
// size, and the repository stays as it was.
TEST_F(Hgxrepo, OversizedManifestIsRefusedAtOnce) {
    const std::string big = dir / "big.json";
    write_file(big, "");
    ASSERT_EQ(truncate(big.c_str(), (64 << 20) + 1), 0);  // sparse: costs no disk
    refused({"import", big}, big + ": 67108865 bytes, more than the limit of 67108864 bytes");
    refused({"import", "/dev/zero"}, "/dev/zero: more than the limit of 67108864 bytes");
    e2e::Run r;
    const std::string zeros = "exec \"$0\" -r \"$1\" import - </dev/zero";
    r.args = {"timeout", "120", "sh", "-c", zeros, e2e::hgxrepo_bin(), e2e::repository_for(repo)};
    EXPECT_EQ(
        e2e::whole(e2e::run(r)),
        e2e::Whole(1, "",
                   "hgxrepo: <stdin>: more than the limit of 67108864 bytes (64 MiB); not read "
                   "further\n"));
}

// A type or value that holds line breaks and control bytes cannot forge a
// record: show, diff and get print them escaped, get -0 and show --json
// give them exactly.
TEST_F(Hgxrepo, TextThatForgesLinesIsEscaped) {
    const std::string pg = "wrn:/net/foo:default/:properties/evil";
    ASSERT_EQ(run({"addpg", pg, "t\nconfig/port count \"1\""}).status, 0);
    ASSERT_EQ(run({"setprop", pg + "/p", "a\nb", "c\\d", "\x01\t"}).status, 0);
    const std::string group = "evil/ t\\nconfig/port count \"1\"\n";
    const std::string prop = "evil/p astring \"a\\nb\" \"c\\\\d\" \"\\x01\\t\"\n";
    e2e::Result show = run({"show", "wrn:/net/foo:default"});
    EXPECT_NE(show.out.find(group + prop), std::string::npos) << show.out;
    EXPECT_EQ(run({"diff", "wrn:/net/foo:default"}).out, "+ " + group + "+ " + prop);
    EXPECT_EQ(whole(run({"get", pg + "/p"})), Whole(0, "a\\nb\nc\\\\d\n\\x01\\t\n", ""));
    EXPECT_EQ(whole(run({"get", "-0", pg + "/p"})),
              Whole(0, std::string("a\nb\0c\\d\0\x01\t\0", 11), ""));
    EXPECT_EQ(whole(run({"get", pg})), Whole(1, "", "hgxrepo: " + pg + ": names no property\n"));

    e2e::Result json = run({"show", "--json", "wrn:/net/foo:default"});
    ASSERT_EQ(json.status, 0) << json.err;
    EXPECT_NE(json.out.find("\"type\": \"t\\nconfig/port count \\\"1\\\"\""), std::string::npos)
        << json.out;
    EXPECT_NE(json.out.find("\"a\\nb\",\n            \"c\\\\d\",\n            \"\\u0001\\t\""),
              std::string::npos)
        << json.out;
    EXPECT_EQ(
        json.out.rfind("{\n  \"wern\": \"wrn:/net/foo:default\",\n  \"snapshot\": null,\n", 0), 0u)
        << json.out;

    // A message that names the text stays one line.
    refused({"show", "wrn:/net/foo:x\ny"}, "wrn:/net/foo:x\\ny");
}

// The snapshot of the import holds the old state until it is taken again,
// for the service's instances or under a name of its own.
TEST_F(Hgxrepo, EditingCommandsAndSnapshots) {
    const std::string w = "wrn:/net/foo:default", c = w + "/:properties/config";
    for (const std::vector<std::string>& edit :
         {std::vector<std::string>{"setprop", c + "/list", "-t", "integer", "-1", "2"},
          {"addpg", c + "/cf", "configfile"},
          {"setprop", c + "/cf/path"},
          {"delprop", c + "/hosts"}})
        ASSERT_EQ(run(edit).status, 0) << edit[1];
    EXPECT_EQ(whole(run({"diff", w})), Whole(0,
                                             "+ config/cf/ configfile\n"
                                             "+ config/cf/path astring\n"
                                             "- config/hosts astring \"a.example\" \"b.example\"\n"
                                             "+ config/list integer \"-1\" \"2\"\n",
                                             ""));
    ASSERT_EQ(run({"snapshot", "wrn:/net/foo"}).status, 0);
    EXPECT_EQ(whole(run({"diff", w})), Whole(0, "", ""));
    ASSERT_EQ(run({"snapshot", w, "before"}).status, 0);
    EXPECT_EQ(run({"show", w, "before"}).out, run({"show", w}).out);

    ASSERT_EQ(run({"delete", w}).status, 0);
    ASSERT_EQ(run({"delete", "wrn:/other"}).status, 0);
    EXPECT_EQ(run({"list"}).out, "wrn:/net/foo\n");
}

TEST_F(Hgxrepo, RefusedCommandsSayWhatAndWhereAndChangeNothing) {
    const std::string bad = dir / "bad.json";
    // A file's name stands for the place.
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
    refused({"setprop", "wrn:net", "x"},
            "not a valid wern: \"wrn:net\"; a wern looks like wrn:/SERVICE, wrn:/SERVICE:INSTANCE "
            "or wrn:/SERVICE:INSTANCE/:properties/GROUP/PROPERTY\n");
    refused({"delprop", "wrn:/net/foo:default/:properties/config/nope"}, "no such property");
    refused({"addpg", "wrn:/net/foo:default/:properties/config", "x"}, "exists");
    refused({"delpg", "wrn:/net/foo/:properties/nope"}, "no group");
    refused({"delete", "wrn:/nope"}, "no such service");
    refused({"show", "wrn:/net/foo:default", "nosnap"}, "no snapshot");
    refused({"export", "wrn:/net/foo/:properties/config"}, "names no service or instance");

    // Files that are not repositories are left alone.
    const std::string text = dir / "text";
    write_file(text, "plain text, not a database, long enough to have a header.........\n");
    for (const std::vector<std::string>& args : {std::vector<std::string>{"-r", text, "list"},
                                                 {"-r", text, "delete", "wrn:/a"},
                                                 {"-r", text, "import", dir / "good.json"}}) {
        e2e::Result r = hgxrepo(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find("not a database"), std::string::npos) << r.err;
    }
    EXPECT_EQ(read_file(text),
              "plain text, not a database, long enough to have a header.........\n");
    e2e::Result failed_new = hgxrepo({"-r", dir / "new.db", "import", bad});
    EXPECT_EQ(failed_new.status, 1);
    EXPECT_FALSE(e2e::exists(dir / "new.db"));
    // An edit of a repository that is not there says how to name or make one.
    e2e::Result r =
        hgxrepo({"-r", dir / "none.db", "delprop", "wrn:/net/foo:default/:properties/config/port"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(std::string("none.db: ") + e2e::missing_repository_text() +
                         (e2e::on_cluster() ? "; name the cluster and prefix with -r URL"
                                            : "; name the file with -r FILE") +
                         " or HGX_REPOSITORY, or create it with hgxrepo import\n"),
              std::string::npos)
        << r.err;
    EXPECT_FALSE(e2e::exists(dir / "none.db"));
}

// kelvo reads without writing: the repository and the files beside it keep
// their times, and a repository on a read-only file system reads as any
// other. Root is held back by no permission bit, so root reads it through a
// read-only bind mount in a private mount namespace; another user, from a
// directory and files without write permission. Such a user reads what root
// wrote through the -wal and -shm files the writer leaves behind, or, where
// those are gone and the log held nothing, from the file alone; a log that
// cannot be read is said so.
TEST_F(Hgxrepo, KelvoReadsWithoutWritingAlsoFromAReadOnlyFileSystem) {
    if (e2e::on_cluster()) GTEST_SKIP() << "file systems: a cluster has none";
    auto times = [&] {
        std::string out;
        for (const char* suffix : {"", "-wal", "-shm"}) {
            struct stat st {};
            if (stat((repo + suffix).c_str(), &st) != 0) return std::string("missing ") + suffix;
            for (long v : {static_cast<long>(st.st_size), st.st_mtim.tv_sec, st.st_mtim.tv_nsec,
                           st.st_ctim.tv_sec, st.st_ctim.tv_nsec})
                out += std::to_string(v) + " ";
        }
        return out;
    };
    ASSERT_EQ(kelvo_port().out, "8080\n");  // the -shm index as any first reader leaves it
    const std::string before = times();
    EXPECT_EQ(whole(kelvo_port()), Whole(0, "8080\n", ""));
    EXPECT_EQ(times(), before);

    if (geteuid() == 0) {
        // Status 97: no read-only mount could be made (or it took writes).
        std::vector<std::string> wrapper = e2e::private_mount_namespace(dir.path());
        wrapper.insert(wrapper.end(),
                       {"sh", "-c",
                        "{ mount --bind \"$0\" \"$0\" && mount -o remount,bind,ro \"$0\" && "
                        "! touch \"$0/x\" 2>/dev/null; } || exit 97; exec \"$@\"",
                        dir.path()});
        e2e::Result r = kelvo_port(wrapper);
        if (r.status == 97 || (r.status != 0 && r.out.empty() && r.err.find("kelvo") != 0)) {
            if (!etcd_testing::may_skip("no read-only mount"))
                FAIL() << "cannot make a read-only bind mount here: " << r.err;
            GTEST_SKIP() << "cannot make a read-only bind mount here (status " << r.status
                         << "): " << r.err;
        }
        EXPECT_EQ(whole(r), Whole(0, "8080\n", ""));
    } else {
        for (const char* suffix : {"", "-wal", "-shm"})
            ASSERT_EQ(chmod((repo + suffix).c_str(), 0444), 0);
        ASSERT_EQ(chmod(dir.path().c_str(), 0555), 0);
        e2e::Result r = kelvo_port();
        ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
        EXPECT_EQ(whole(r), Whole(0, "8080\n", ""));
    }
    EXPECT_EQ(times(), before);

    if (geteuid() != 0 || access("/usr/bin/setpriv", X_OK) != 0)
        GTEST_SKIP() << "needs root and setpriv to run kelvo as another user";
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(repo.c_str(), 0644), 0);
    const std::vector<std::string> nobody = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534",
                                             "--clear-groups"};
    EXPECT_EQ(whole(kelvo_port(nobody)), Whole(0, "8080\n", ""));
    std::remove((repo + "-wal").c_str());
    std::remove((repo + "-shm").c_str());
    EXPECT_EQ(whole(kelvo_port(nobody)), Whole(0, "8080\n", ""));
    write_file(repo + "-wal", "a log whose index is gone");
    e2e::Result r = kelvo_port(nobody);
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("write-ahead log cannot be read"), std::string::npos) << r.err;
}

// What hgxrepo tells its users: kept types, what an import removes, when
// kelvo sees an edit, and the diff of the running snapshot.
const char GUIDANCE_MANIFEST[] = R"({"services": {"net/foo": {
  "groups": {"config": {"properties": {"limit": 5, "port": 80}}, "old": {}},
  "instances": {
    "default": {"groups": {"config": {"properties": {"port": 8080}, "groups": {"tls": {}}},
                           "general": {}}},
    "spare": {}}}}})";

const std::string WERN = "wrn:/net/foo:default";
const std::string CONFIG = WERN + "/:properties/config";
const std::string HINT =
    "hgxrepo: kelvo sees this change after \"hgxrepo snapshot wrn:/net/foo:default\" "
    "(or give --snapshot)\n";

class HgxrepoGuidance : public Hgxrepo {
  protected:
    HgxrepoGuidance() : Hgxrepo(GUIDANCE_MANIFEST) {}
};

TEST_F(HgxrepoGuidance, SetpropKeepsTheInheritedType) {
    EXPECT_EQ(whole(run({"setprop", CONFIG + "/limit", "7"})), (Whole{0, "", HINT}));
    EXPECT_EQ(run({"show", WERN}).out.find("config/limit count \"7\"") != std::string::npos, true);
    // A value the inherited type refuses is refused; -t still decides.
    EXPECT_EQ(run({"setprop", CONFIG + "/port", "x"}).status, 1);
    EXPECT_EQ(run({"setprop", CONFIG + "/limit", "-t", "astring", "x"}).status, 0);
    EXPECT_NE(run({"show", WERN}).out.find("config/limit astring \"x\""), std::string::npos);
    // Without a service property of that name the type is astring.
    EXPECT_EQ(run({"setprop", CONFIG + "/fresh", "1"}).status, 0);
    EXPECT_NE(run({"show", WERN}).out.find("config/fresh astring \"1\""), std::string::npos);
}

TEST_F(HgxrepoGuidance, EditsHintOrSnapshotAndDiffShowsWhatKelvoWouldSee) {
    EXPECT_EQ(whole(run({"diff", WERN})), (Whole{0, "", ""}));
    for (const std::vector<std::string>& edit :
         {std::vector<std::string>{"setprop", CONFIG + "/port", "9090"},
          {"addpg", WERN + "/:properties/extra", "application"},
          {"delpg", CONFIG + "/tls"},
          {"setprop", CONFIG + "/added", "a b"},
          {"delprop", CONFIG + "/added"}})
        EXPECT_EQ(whole(run(edit)), (Whole{0, "", HINT})) << edit[0];
    // kelvo reads the group general from the current view: no hint.
    EXPECT_EQ(whole(run({"setprop", WERN + "/:properties/general/on", "true"})),
              (Whole{0, "", ""}));
    EXPECT_EQ(whole(run({"diff", WERN})), (Whole{0,
                                                 "~ config/port count \"8080\" -> count \"9090\"\n"
                                                 "- config/tls/ application\n"
                                                 "+ extra/ application\n"
                                                 "+ general/on astring \"true\"\n",
                                                 ""}));
    EXPECT_EQ(whole(kelvo_port()), Whole(0, "8080\n", ""));

    EXPECT_EQ(whole(run({"setprop", "--snapshot", CONFIG + "/port", "1"})), (Whole{0, "", ""}));
    EXPECT_EQ(whole(run({"diff", WERN})), (Whole{0, "", ""}));
    EXPECT_EQ(whole(kelvo_port()), Whole(0, "1\n", ""));
    EXPECT_EQ(whole(run({"delpg", "--snapshot", WERN + "/:properties/extra"})), (Whole{0, "", ""}));
    EXPECT_EQ(whole(run({"diff", WERN})), (Whole{0, "", ""}));

    EXPECT_EQ(run({"diff", "wrn:/net/foo"}).status, 1);
    e2e::make_repository(dir / "bare.db", GUIDANCE_MANIFEST, false);
    e2e::Result bare = hgxrepo({"-r", dir / "bare.db", "diff", WERN});
    EXPECT_EQ(bare.status, 1);
    EXPECT_NE(bare.err.find("no snapshot \"running\" yet"), std::string::npos) << bare.err;
}

TEST_F(HgxrepoGuidance, ImportWarnsAboutWhatTheManifestNoLongerHas) {
    const char* smaller = R"({"services": {"net/foo": {
      "groups": {"config": {}},
      "instances": {"default": {"groups": {"config": {}}}}}}})";
    EXPECT_EQ(whole(run({"import", "-"}, smaller)),
              (Whole{0, "",
                     "hgxrepo: wrn:/net/foo: group \"old\" is not in the manifest; the import "
                     "removes it\n"
                     "hgxrepo: wrn:/net/foo:default: group \"config/tls\" is not in the "
                     "manifest; the import removes it\n"
                     "hgxrepo: wrn:/net/foo:default: group \"general\" is not in the manifest; "
                     "the import removes it\n"
                     "hgxrepo: wrn:/net/foo:spare: instance is not in the manifest; the import "
                     "removes it\n"}));
    EXPECT_EQ(run({"list"}).out, "wrn:/net/foo\nwrn:/net/foo:default\n");
    // The same manifest again loses nothing more.
    EXPECT_EQ(whole(run({"import", "-"}, smaller)), (Whole{0, "", ""}));
}

// The reason comes first, then the usage: of the command where one was
// named, else of all of them. "CMD --help" is that usage, on standard output.
TEST(HgxrepoCommandLine, BadCommandLinesSayWhyThenGiveUsage) {
    static const std::string ALL = "import [--no-snapshot] MANIFEST...";
    const struct {
        std::vector<std::string> args;
        std::string reason, usage;  // usage: its first line behind "usage: hgxrepo [-r FILE] "
    } cases[] = {
        {{}, "no command given", ALL},
        {{"-r"}, "-r needs a FILE", ALL},
        {{"-x", "list"}, "unknown option \"-x\"", ALL},
        {{"bogus", "x"}, "unknown command \"bogus\"", ALL},
        {{"import"}, "import: missing MANIFEST", ALL},
        {{"import", "--no-snapshot"}, "import: missing MANIFEST", ALL},
        {{"export", "a", "b"}, "export: unexpected argument \"b\"", "export [WERN]"},
        {{"list", "extra"}, "list: unexpected argument \"extra\"", "list"},
        {{"list", "--snapshot"}, "--snapshot goes with setprop, delprop, addpg and delpg", "list"},
        {{"show"}, "show: missing WERN", "show [--json] WERN [SNAPSHOT]"},
        {{"copy"}, "copy: missing TARGET", "copy [--force] TARGET"},
        {{"copy", "--force"}, "copy: missing TARGET", "copy [--force] TARGET"},
        {{"addpg", "wrn:/a/:properties/g"}, "addpg: missing TYPE", "addpg [--snapshot] WERN TYPE"},
        {{"addpg", "--snapshot"}, "addpg: missing WERN", "addpg [--snapshot] WERN TYPE"},
        {{"setprop", "wrn:/a/:properties/g/p", "-t"},
         "setprop: -t needs a TYPE",
         "setprop [--snapshot] WERN [-t TYPE] [VALUE...]"},
        {{"setprop", "-t", "count", "wrn:/a/:properties/g/p", "1"},
         "setprop: -t goes behind the WERN",
         "setprop [--snapshot] WERN [-t TYPE] [VALUE...]"},
        {{"snapshot"}, "snapshot: missing WERN", "snapshot WERN [NAME]"},
        {{"delete"}, "delete: missing WERN", "delete WERN"},
    };
    for (const auto& c : cases) {
        e2e::Result r = hgxrepo(c.args);
        const std::string name = c.args.empty() ? "" : c.args[0];
        EXPECT_EQ(r.status, 2) << name;
        EXPECT_EQ(r.out, "") << name;
        EXPECT_EQ(r.err.substr(0, r.err.find('\n') + 1), "hgxrepo: " + c.reason + "\n") << r.err;
        EXPECT_EQ(r.err.find("usage: hgxrepo [-r FILE] " + c.usage + "\n"), r.err.find('\n') + 1)
            << r.err;
    }
    for (const char* command : {"import", "show", "sync", "copy"}) {
        e2e::Result r = hgxrepo({command, "--help"});
        EXPECT_EQ(r.status, 0) << command;
        EXPECT_EQ(r.out.rfind(std::string("usage: hgxrepo [-r FILE] ") + command + " ", 0), 0u)
            << r.out;
        EXPECT_EQ(r.err, "") << command;
    }
    EXPECT_EQ(hgxrepo({"help", "copy"}).out, "usage: hgxrepo [-r FILE] copy [--force] TARGET\n");
    for (const char* word : {"help", "--help"}) {
        e2e::Result help = hgxrepo({word});
        EXPECT_EQ(help.status, 0) << word;
        EXPECT_EQ(help.out.rfind("usage: hgxrepo [-r FILE] " + ALL + "\n", 0), 0u) << word;
        EXPECT_NE(help.out.find("hgxrepo [-r FILE] diff WERN\n"), std::string::npos) << word;
        EXPECT_EQ(help.err, "") << word;
    }
    EXPECT_EQ(whole(hgxrepo({"--version"})), Whole(0, "hgxrepo " KELVO_VERSION "\n", ""));
}

}  // namespace
