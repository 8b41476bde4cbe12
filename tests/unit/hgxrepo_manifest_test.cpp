// Manifests in-process: every refused form names its place and leaves the
// repository file as it was; accepted forms store the types and values the
// format promises; export then import gives the same export.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "hgx.h"
#include "hgxrepo.h"

namespace {

namespace fs = std::filesystem;

struct TempDir {
    std::string path;
    TempDir() {
        char tmpl[] = "/tmp/hgxrepo_test.XXXXXX";
        path = mkdtemp(tmpl);
    }
    ~TempDir() { fs::remove_all(path); }
};

std::string slurp(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::ostringstream s;
    s << f.rdbuf();
    return s.str();
}

// Runs hgxrepo in-process, with standard output captured.
int hgxrepo(std::vector<std::string> args, std::string* out = nullptr) {
    args.insert(args.begin(), "hgxrepo");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::ostringstream captured;
    std::streambuf* old = std::cout.rdbuf(captured.rdbuf());
    int rc = hgxrepo_main(static_cast<int>(args.size()), argv.data());
    std::cout.rdbuf(old);
    if (out) *out = captured.str();
    return rc;
}

const char BASE[] = R"({"services": {"keep": {"groups": {"g": {"properties": {"p": 1}}}}}})";

struct Refused {
    const char* name;
    std::string manifest;  // '`' marks the place the message must name
    const char* what;      // a part of the message
};

std::string wrap(const std::string& props) {
    return R"({"services": {"a": {"groups": {"g": {"properties": {)" + props + "}}}}}}";
}

TEST(Manifest, RefusedFormsNameTheirPlaceAndChangeNothing) {
    const std::string long_value(4097, 'v');
    const std::string long_name(1010, 'p');
    const std::vector<Refused> cases = {
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
        {"long wern", wrap("`\"" + long_name + "\": 1"), "longer than 1024"},
        {"long group type",
         R"({"services": {"a": {"groups": {"g": {"type": `")" + std::string(64, 't') + "\"}}}}}",
         "group type"},
        {"unknown key", R"({"services": {"a": {"groups": {"g": {`"typo": 1}}}}})",
         "unknown key \"typo\""},
        {"services not object", R"({"services": `[]})", "must be an object"},
        {"not an object", "`[]", "must be an object"},
        {"second line",
         "{\"services\": {\n  \"a\": {\"groups\": {\"g\": {\"properties\": {\n"
         "    \"ok\": \"x\",\n    \"p\": false,\n    `\"p\": 1}}}}}}",
         "duplicate"},
        {"syntax", "{\"services\": {\"a\": {},`}}", "syntax error"},
        {"empty", "`", "syntax error"},
    };
    TempDir dir;
    std::string repo = dir.path + "/repo.db", error;
    ASSERT_EQ(hgxrepo_import_text(repo, BASE, true, &error), 0) << error;
    const std::string before = slurp(repo);
    for (const Refused& c : cases) {
        SCOPED_TRACE(c.name);
        size_t mark = c.manifest.find('`');
        ASSERT_NE(mark, std::string::npos);
        std::string text = c.manifest;
        text.erase(mark, 1);
        size_t line = 1, col = 1;
        for (size_t i = 0; i < mark; ++i) {
            if (text[i] == '\n') {
                ++line;
                col = 1;
            } else {
                ++col;
            }
        }
        std::string place = "manifest:" + std::to_string(line) + ":" + std::to_string(col) + ":";
        error.clear();
        EXPECT_EQ(hgxrepo_import_text(repo, text, true, &error), 1);
        EXPECT_NE(error.find(place), std::string::npos) << error << " / wanted " << place;
        EXPECT_NE(error.find(c.what), std::string::npos) << error;
        EXPECT_EQ(error.find('\n'), std::string::npos);
        EXPECT_TRUE(slurp(repo) == before) << "repository file changed";
        // Into a file that did not exist: nothing is left behind.
        std::string fresh = dir.path + "/fresh.db";
        EXPECT_EQ(hgxrepo_import_text(fresh, text, true, &error), 1);
        EXPECT_FALSE(fs::exists(fresh));
    }
}

TEST(Manifest, PropertyFormsGiveTheirTypes) {
    TempDir dir;
    std::string repo = dir.path + "/repo.db", error;
    const char* text = R"({"services": {"s": {"instances": {"i": {"groups": {"g": {
        "properties": {
          "str": "x", "yes": true, "n": 7, "neg": -3, "empty": [],
          "strs": ["b", "a"], "bools": [false, true], "counts": [3, 1], "ints": [2, -1],
          "obj": {"type": "net_address_v6", "values": "::1"},
          "objs": {"type": "integer", "values": ["5", "-5"]},
          "novalues": {"type": "count"}
        }}}}}}}})";
    ASSERT_EQ(hgxrepo_import_text(repo, text, true, &error), 0) << error;
    std::string out;
    ASSERT_EQ(hgxrepo({"-r", repo, "show", "wrn:/s:i"}, &out), 0);
    EXPECT_EQ(out,
              "g/ application\n"
              "g/bools boolean \"false\" \"true\"\n"
              "g/counts count \"3\" \"1\"\n"
              "g/empty astring\n"
              "g/ints integer \"2\" \"-1\"\n"
              "g/n count \"7\"\n"
              "g/neg integer \"-3\"\n"
              "g/novalues count\n"
              "g/obj net_address_v6 \"::1\"\n"
              "g/objs integer \"5\" \"-5\"\n"
              "g/str astring \"x\"\n"
              "g/strs astring \"b\" \"a\"\n"
              "g/yes boolean \"true\"\n");
}

TEST(Manifest, ExportThenImportGivesTheSameExport) {
    TempDir dir;
    std::string a = dir.path + "/a.db", b = dir.path + "/b.db", error;
    const char* text = R"({"services": {
      "net/foo": {
        "groups": {"general": {"type": "framework", "properties": {"enabled": true}}},
        "instances": {
          "default": {"groups": {"config": {"type": "application", "properties": {
              "port": 8080, "hosts": ["a.example", "b.example"], "empty": [],
              "mode": {"type": "astring", "values": ["0644"]},
              "lead": {"type": "count", "values": ["007"]},
              "posint": {"type": "integer", "values": ["5"]},
              "noflags": {"type": "boolean"},
              "t": {"type": "time", "values": ["1.5"]},
              "quote": "a \"b\" \\ \n é"},
            "groups": {"tls": {"properties": {"on": false}, "groups": {"deep": {}}}}}}},
          "bare": {}
        }
      },
      "empty": {}
    }})";
    ASSERT_EQ(hgxrepo_import_text(a, text, true, &error), 0) << error;
    std::string first, second;
    ASSERT_EQ(hgxrepo({"-r", a, "export"}, &first), 0);
    std::ofstream(dir.path + "/export.json") << first;
    ASSERT_EQ(hgxrepo({"-r", b, "import", dir.path + "/export.json"}), 0);
    ASSERT_EQ(hgxrepo({"-r", b, "export"}, &second), 0);
    EXPECT_EQ(first, second);
    // The values that need the object form survive the trip.
    std::string shown;
    ASSERT_EQ(hgxrepo({"-r", b, "show", "wrn:/net/foo:default"}, &shown), 0);
    for (const char* line : {"config/lead count \"007\"", "config/posint integer \"5\"",
                             "config/noflags boolean\n", "config/tls/deep/ application"})
        EXPECT_NE(shown.find(line), std::string::npos) << line << "\n" << shown;
}

TEST(Manifest, ImportReplacesNamedServicesWhollyAndSnapshotsInstances) {
    TempDir dir;
    std::string repo = dir.path + "/repo.db", error, out;
    ASSERT_EQ(hgxrepo_import_text(repo, R"({"services": {
        "a": {"groups": {"old": {}}, "instances": {"i": {}, "j": {}}},
        "b": {"instances": {"k": {}}}}})",
                                  false, &error),
              0)
        << error;
    ASSERT_EQ(hgxrepo_import_text(
                  repo, R"({"services": {"a": {"instances": {"i": {"groups": {"g": {}}}}}}})", true,
                  &error),
              0)
        << error;
    ASSERT_EQ(hgxrepo({"-r", repo, "list"}, &out), 0);
    EXPECT_EQ(out, "wrn:/a\nwrn:/a:i\nwrn:/b\nwrn:/b:k\n");
    ASSERT_EQ(hgxrepo({"-r", repo, "show", "wrn:/a:i", "running"}, &out), 0);
    EXPECT_EQ(out, "g/ application\n");
    // b was not imported the second time, so it has no snapshot.
    EXPECT_EQ(hgxrepo({"-r", repo, "show", "wrn:/b:k", "running"}), 1);
}

}  // namespace
