// hgxrepo telling users what they need: kept types, what an import removes,
// when kelvo sees an edit, the diff of the running snapshot, and messages
// that say what to do.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e_util.h"

namespace {

using e2e::hgxrepo;
using e2e::whole;
using e2e::Whole;

const char MANIFEST[] = R"({"services": {"net/foo": {
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

class HgxrepoGuidance : public e2e::RepositoryTest {
  protected:
    HgxrepoGuidance() : RepositoryTest(MANIFEST) {}
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
    e2e::Result kelvo = e2e::kelvo(repo, {"-f", WERN}, "$%{config/port}\n");
    EXPECT_EQ(kelvo.out, "8080\n");

    EXPECT_EQ(whole(run({"setprop", "--snapshot", CONFIG + "/port", "1"})), (Whole{0, "", ""}));
    EXPECT_EQ(whole(run({"diff", WERN})), (Whole{0, "", ""}));
    kelvo = e2e::kelvo(repo, {"-f", WERN}, "$%{config/port}\n");
    EXPECT_EQ(kelvo.out, "1\n");
    EXPECT_EQ(whole(run({"delpg", "--snapshot", WERN + "/:properties/extra"})), (Whole{0, "", ""}));
    EXPECT_EQ(whole(run({"diff", WERN})), (Whole{0, "", ""}));

    EXPECT_EQ(run({"diff", "wrn:/net/foo"}).status, 1);
    e2e::make_repository(dir / "bare.db", MANIFEST, false);
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

TEST_F(HgxrepoGuidance, MessagesSayWhatToDo) {
    e2e::Result r = hgxrepo({"-r", dir / "none.db", "delprop", CONFIG + "/port"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(std::string("none.db: ") + e2e::missing_repository_text() +
                         (e2e::on_cluster() ? "; name the cluster and prefix with -r URL"
                                            : "; name the file with -r FILE") +
                         " or HGX_REPOSITORY, or create it with hgxrepo import"),
              std::string::npos)
        << r.err;
    EXPECT_FALSE(e2e::exists(dir / "none.db"));
    r = run({"show", "net/foo"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("a wern looks like wrn:/SERVICE, wrn:/SERVICE:INSTANCE or "
                         "wrn:/SERVICE:INSTANCE/:properties/GROUP/PROPERTY"),
              std::string::npos)
        << r.err;
}

}  // namespace
