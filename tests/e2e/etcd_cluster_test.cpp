// The repository on an etcd cluster, where it differs from a file: one state
// per run while others write, racing writers, members that fail, TLS,
// credentials, and what a cluster refuses. Each test starts its own etcd.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <regex>
#include <set>
#include <thread>

#include "e2e_util.h"
#include "etcd_gtest.h"

namespace {

using e2e::hgxrepo;

const std::string WERN = "wrn:/app/web:default";

// A text and a number, appended (GCC 12 takes "literal" + std::string&& for
// an overlapping copy at -O3).
std::string numbered(std::string text, int n) {
    text += std::to_string(n);
    return text;
}

std::string generation(int gen, int count = 200) {
    return e2e::generation_manifest("app/web", gen, count);
}

class EtcdCluster : public ::testing::Test {
  protected:
    // Starts the test's cluster; false where the test must end (skipped
    // or failed: both only return from here).
    bool start(etcd_testing::Options options = {}) {
        [&] { ETCD_START_OR_SKIP(server, options); }();
        url = server.url("kelvo");
        return !IsSkipped() && !HasFatalFailure();
    }
    e2e::Result repo(std::vector<std::string> args, const std::string& input = "",
                     const e2e::Env& env = {}) {
        args.insert(args.begin(), {"-r", url});
        return hgxrepo(args, input, env);
    }
    e2e::Result kelvo(const std::string& stencil, e2e::Env env = {}) {
        return e2e::kelvo(url, {"-f", WERN}, stencil, std::move(env));
    }
    e2e::Whole p0(const e2e::Env& env = {}) { return e2e::whole(kelvo("$%{config/p0}\n", env)); }
    // What kelvo and hgxrepo say where the repository fails them.
    e2e::Whole unable(const std::string& text) const {
        return {3, "", "kelvo: Unable to get properties for " + WERN + ": " + text + "\n"};
    }
    e2e::Whole refused(const std::string& text) const {
        return {1, "", "hgxrepo: " + url + ": " + text + "\n"};
    }

    etcd_testing::EtcdServer server;
    std::string url;
};

TEST_F(EtcdCluster, EveryRunSeesOneGenerationWhileImportsRewriteTheInstance) {
    if (!start()) return;
    ASSERT_EQ(repo({"import", "-"}, generation(0)).status, 0);
    std::atomic<bool> done{false};
    std::atomic<int> imports{0};
    std::thread writer([&] {
        for (int gen = 1; !done; ++gen) {
            if (repo({"import", "-"}, generation(gen)).status == 0) ++imports;
        }
    });
    const std::string stencil = e2e::generation_stencil(200);
    int failures = 0, mixed = 0;
    std::set<std::string> seen;
    for (int run = 0; run < 500; ++run) {
        e2e::Result r = kelvo(stencil);
        if (r.status != 0) {
            ++failures;
            ADD_FAILURE() << r.err;
            continue;
        }
        std::string gen = e2e::generation_of(r.out, 200);
        if (gen.empty()) ++mixed;
        seen.insert(gen);
    }
    done = true;
    writer.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(mixed, 0);
    EXPECT_GT(imports.load(), 1);
    EXPECT_GT(seen.size(), 1u) << "the runs should have seen the imports land";
}

TEST_F(EtcdCluster, AStoppedOrHangingClusterEndsTheRunWithStatusThree) {
    if (!start()) return;
    ASSERT_EQ(repo({"import", "-"}, generation(0, 2)).status, 0);
    ASSERT_EQ(p0(), e2e::Whole(0, "g0\n", ""));
    // Frozen: connections are accepted and never answered. The run ends by
    // its own time budget (the message says so); a hang would meet the
    // test's timeout instead. A write gives up as well, with the text and
    // nothing of the client's.
    server.freeze(true);
    const e2e::Whole hung = p0(),
                     silent = e2e::whole(repo({"setprop", WERN + "/:properties/config/p0", "x"}));
    server.freeze(false);
    EXPECT_EQ(hung, unable("The etcd cluster did not answer in time"));
    EXPECT_EQ(silent, refused("The etcd cluster did not answer in time"));
    server.kill_member(0);
    EXPECT_EQ(p0(), unable("No member of the etcd cluster answers"));
    EXPECT_EQ(e2e::whole(repo({"setprop", WERN + "/:properties/config/p0", "x"})),
              refused("No member of the etcd cluster answers: " + server.endpoints(true) +
                      ": Connection refused"));
}

// The cluster fails after a run has bound and read its instance. kelvo reads
// its stencil from standard input only then: the test puts the first byte
// in the pipe, waits until kelvo has taken it, fails the cluster, and hands
// over the rest, whose reference to another service must now be pulled.
// The run ends as a repository failure, status 3, and changes nothing.
TEST_F(EtcdCluster, LostAfterBindingEndsTheRunWithStatusThreeAndChangesNothing) {
    if (!start()) return;
    ASSERT_EQ(repo({"import", "-"}, R"({"services": {
        "a/x": {"instances": {"default": {"groups": {"c": {"properties": {"v": "old"}}}}}},
        "a/y": {"instances": {"default": {"groups": {"c": {"properties": {"v": "why"}}}}}}}})")
                  .status,
              0);
    const std::string X = "wrn:/a/x:default";
    e2e::TempDir dir;
    const std::string out = dir / "out.conf", err_log = dir / "stderr";
    // kelvo -f X -o out on the stencil, the cluster failed by `fault` once
    // kelvo has bound.
    auto run = [&](const std::function<void()>& fault, const std::string& stencil) {
        int in[2];
        if (pipe(in) != 0) return e2e::Whole();
        pid_t pid = fork();
        if (pid == 0) {
            dup2(in[0], 0);
            close(in[1]);
            dup2(open(err_log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
            setenv("HGX_REPOSITORY", url.c_str(), 1);
            execl(e2e::kelvo_bin(), "kelvo", "-f", X.c_str(), "-o", out.c_str(), nullptr);
            _exit(127);
        }
        close(in[0]);
        EXPECT_EQ(write(in[1], stencil.data(), 1), 1);
        int queued = 1, status = 0;
        pid_t ended = 0;
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (queued > 0 && ended == 0 && std::chrono::steady_clock::now() < until) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            ioctl(in[1], FIONREAD, &queued);
            ended = waitpid(pid, &status, WNOHANG);
        }
        EXPECT_EQ(queued, 0) << "kelvo never read its stencil";
        if (queued == 0) fault();
        ssize_t rest = static_cast<ssize_t>(stencil.size()) - 1;
        EXPECT_EQ(write(in[1], stencil.data() + 1, static_cast<size_t>(rest)), rest);
        close(in[1]);
        if (ended == 0) waitpid(pid, &status, 0);
        return e2e::Whole(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                          e2e::read_file(out), e2e::read_file(err_log));
    };
    auto lost = [&](const char* text) {
        return e2e::Whole(3, "as it was\n",
                          "kelvo: Unable to get properties for " + X + ": " + text + "\n");
    };
    // A new revision, then a compaction up to it: the run's revision is gone.
    auto compact = [&] {
        ASSERT_EQ(repo({"setprop", "--snapshot", "wrn:/a/y:default/:properties/c/v", "new"}).status,
                  0);
        server.compact();
    };
    const std::string reference = "x=$%{c/v} y=$%{wrn:/a/y:default/:properties/c/v}\n";
    const std::string section = "x=$%{c/v} $%/wrn:/a/.*:default/:properties/c/(v)/ {y=$%1}\n";
    const char* compacted =
        "The etcd cluster has compacted away the revision being read; try again";
    struct Case {
        const char* name;
        std::function<void()> fault;
        std::string stencil;
        e2e::Whole expected;  // the status, what out holds, standard error
    } cases[] = {
        {"none", [] {}, reference, e2e::Whole(0, "x=old y=why\n", "")},
        {"compacted, a reference", compact, reference, lost(compacted)},
        {"compacted, a section", compact, section, lost(compacted)},
        {"hung (SIGSTOP)", [&] { server.freeze(true); }, reference,
         lost("The etcd cluster did not answer in time")},
        {"killed", [&] { server.kill_member(0); }, reference,
         lost("No member of the etcd cluster answers")},
        // Back up: a reference that names nothing keeps its empty text.
        {"a name that names nothing", [] {},
         "x=$%{c/v} y=$%{wrn:/a/none:default/:properties/c/v}\n", e2e::Whole(0, "x=old y=\n", "")},
    };
    for (const Case& c : cases) {
        e2e::write_file(out, "as it was\n");
        EXPECT_EQ(run(c.fault, c.stencil), c.expected) << c.name;
        server.freeze(false);
        if (server.pid(0) < 0) server.restart_member(0);
    }
}

// A run on a member that hangs asks the next one too (the figures are in
// bench/failover.sh); one whose member is gone goes on through the others.
TEST_F(EtcdCluster, RunsGoOnThroughTheOtherMembersWhenOneHangsOrTheLeaderDies) {
    etcd_testing::Options three;
    three.members = 3;
    if (!start(three)) return;
    ASSERT_EQ(repo({"import", "-"}, generation(0, 2)).status, 0);
    // The URL names the hung member first.
    server.freeze(true, 0);
    EXPECT_EQ(e2e::whole(repo({"setprop", "--snapshot", WERN + "/:properties/config/p0", "hung"})),
              e2e::Whole(0, "", ""));
    EXPECT_EQ(p0(), e2e::Whole(0, "hung\n", ""));
    server.freeze(false, 0);

    int leader = server.leader();
    ASSERT_GE(leader, 0);
    server.kill_member(leader);
    // The URL still names the dead member, and names it first where it led.
    e2e::Result set = repo({"setprop", WERN + "/:properties/config/p0", "after"});
    EXPECT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(repo({"snapshot", WERN}).status, 0);
    EXPECT_EQ(p0(), e2e::Whole(0, "after\n", ""));
}

TEST_F(EtcdCluster, TlsWithClientCertificates) {
    etcd_testing::Options tls;
    tls.tls = true;
    if (!start(tls)) return;
    auto certs_of = [](const etcd_testing::EtcdServer& s) {
        return e2e::Env{{"HGX_ETCD_CACERT", s.ca()},
                        {"HGX_ETCD_CERT", s.client_cert()},
                        {"HGX_ETCD_KEY", s.client_key()}};
    };
    const e2e::Env certs = certs_of(server);
    e2e::Result r = repo({"import", "-"}, generation(7, 2), certs);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(p0(certs), e2e::Whole(0, "g7\n", ""));

    // Each failure gives the text, then what failed: the file, the
    // verification or the host name.
    const std::string text =
        "TLS with the etcd cluster failed (HGX_ETCD_CACERT, HGX_ETCD_CERT, HGX_ETCD_KEY): ";
    const std::string member = "127.0.0.1:" + std::to_string(server.client_port(0));
    e2e::TempDir dir;
    struct Case {
        const char* name;
        e2e::Env env;
        std::string says;
    } cases[] = {
        {"unreadable CA file",
         {{"HGX_ETCD_CACERT", dir / "none.pem"}},
         "HGX_ETCD_CACERT " + (dir / "none.pem") + ": No such file or directory"},
        {"another CA",
         {{"HGX_ETCD_CACERT", server.client_cert()}},
         member + ": the member's certificate was not verified with HGX_ETCD_CACERT " +
             server.client_cert() + ": unable to get local issuer certificate"},
        {"no client certificate",
         {{"HGX_ETCD_CERT", std::nullopt}, {"HGX_ETCD_KEY", std::nullopt}},
         member + ": the member refused the client certificate (none is named by HGX_ETCD_CERT)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto env = certs;
        for (const auto& [k, v] : c.env) env[k] = v;
        EXPECT_EQ(e2e::whole(repo({"list"}, "", env)), refused(text + c.says));
        EXPECT_EQ(p0(env), unable(text + c.says));
    }

    // A member whose certificate names another host.
    etcd_testing::EtcdServer elsewhere;
    tls.tls_names = "DNS:elsewhere.invalid";
    [&] { ETCD_START_OR_SKIP(elsewhere, tls); }();
    if (IsSkipped() || HasFatalFailure()) return;
    const std::string there = "127.0.0.1:" + std::to_string(elsewhere.client_port(0));
    EXPECT_EQ(e2e::whole(hgxrepo({"-r", elsewhere.url("kelvo"), "list"}, "", certs_of(elsewhere))),
              e2e::Whole(1, "",
                         "hgxrepo: " + elsewhere.url("kelvo") + ": " + text + there +
                             ": the member's certificate does not name the host 127.0.0.1\n"));
}

// Wrong or no credentials are refused. A user whose password is right but
// whose roles do not reach the prefix, or reach it for reading only, is
// told so, apart from refused credentials.
TEST_F(EtcdCluster, CredentialsAreCheckedAndWhatAUserMayNotDoIsToldSo) {
    if (!start()) return;
    ASSERT_EQ(repo({"import", "-"}, generation(3, 2)).status, 0);
    auto etcdctl = [&](std::vector<std::string> args) {
        e2e::Result r = e2e::etcdctl(server.endpoints(), args);
        EXPECT_EQ(r.status, 0) << r.err;
    };
    etcdctl({"role", "add", "reader"});
    etcdctl({"role", "grant-permission", "reader", "read", "kelvo/", "--prefix=true"});
    etcdctl({"role", "add", "stranger"});
    etcdctl({"role", "grant-permission", "stranger", "readwrite", "other/", "--prefix=true"});
    for (const char* user : {"reader", "stranger"}) {
        etcdctl({"user", "add", std::string(user) + ":pw" + user});
        etcdctl({"user", "grant-role", user, user});
    }
    ASSERT_TRUE(server.enable_auth("pwroot"));

    const std::string text =
        "The etcd user (HGX_ETCD_USER) is not permitted to do this in the repository";
    auto as = [](const char* user, const char* password = nullptr) {
        return e2e::Env{{"HGX_ETCD_USER", user},
                        {"HGX_ETCD_PASSWORD", password ? password : std::string("pw") + user}};
    };
    auto setprop = [&](const char* user) {
        return e2e::whole(repo({"setprop", WERN + "/:properties/config/p0", "x"}, "", as(user)));
    };
    EXPECT_EQ(p0(as("reader")), e2e::Whole(0, "g3\n", ""));
    EXPECT_EQ(setprop("reader"), refused("cannot write: " + text));
    EXPECT_EQ(p0(as("stranger")), unable(text));
    EXPECT_EQ(setprop("stranger"), refused(text));
    e2e::Result r = repo({"import", "-"}, generation(4, 2), as("root"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(p0(as("root")), e2e::Whole(0, "g4\n", ""));
    const char* wrong =
        "The etcd cluster refused the credentials (HGX_ETCD_USER, HGX_ETCD_PASSWORD)";
    EXPECT_EQ(p0(as("root", "wrong")), unable(wrong));
    EXPECT_EQ(p0(), unable(wrong));
}

TEST_F(EtcdCluster, BadInputIsRefusedAndAWholeRepositoryIsCopiedToAFileAndBack) {
    if (!start()) return;
    ASSERT_EQ(repo({"import", "-"}, generation(1, 2)).status, 0);
    const std::string before = repo({"export"}).out;

    struct Case {
        const char* name;
        std::string where;
        std::string says;
    } cases[] = {
        {"malformed URL", "etcd://127.0.0.1/kelvo", "Malformed etcd URL"},
        {"no port", "etcd://127.0.0.1:/x", "Malformed etcd URL"},
        {"bad port", "etcd://127.0.0.1:99999/x", "Malformed etcd URL"},
        {"empty prefix", "etcd://" + server.endpoints() + "/empty",
         "No repository below this etcd prefix"},
        // Anything but etcd:// and etcds:// names a file.
        {"unknown scheme", "http://" + server.endpoints() + "/kelvo",
         "Repository file does not exist"},
    };
    for (const Case& c : cases) {
        e2e::Result r = hgxrepo({"-r", c.where, "list"});
        EXPECT_EQ(r.status, 1) << c.name;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << c.name << ": " << r.err;
        EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << c.name << ": one line";
    }

    // A prefix that holds something else is neither read nor written.
    server.put("other/config", "x");
    for (const char* cmd : {"list", "import"}) {
        std::vector<std::string> args = {"-r", "etcd://" + server.endpoints() + "/other", cmd};
        if (std::string(cmd) == "import") args.push_back("-");
        e2e::Result r = hgxrepo(args, generation(2, 2));
        EXPECT_EQ(r.status, 1) << cmd;
        EXPECT_NE(r.err.find("holds something other than a repository"), std::string::npos)
            << r.err;
    }

    // An instance too large for one etcd request.
    // 300 values of 4,000 bytes each: 1.2 MB in one instance.
    std::string big = std::regex_replace(generation(1, 300), std::regex("\"g1\""),
                                         "\"" + std::string(4000, 'x') + "\"");
    e2e::Result r = repo({"import", "-"}, big);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("Too large for one etcd request"), std::string::npos) << r.err;
    EXPECT_EQ(repo({"export"}).out, before);

    // A whole repository copied to the cluster and back to a file.
    e2e::TempDir dir;
    const std::string file = dir / "a.db", back = dir / "b.db";
    const std::string manifest = e2e::read_file(e2e::source_dir() + "/examples/services.json");
    ASSERT_EQ(hgxrepo({"-r", file, "import", "-"}, manifest).status, 0);
    ASSERT_EQ(hgxrepo({"-r", file, "copy", url}).status, 0);
    ASSERT_EQ(repo({"copy", back}).status, 0);
    EXPECT_EQ(hgxrepo({"-r", back, "export"}).out, hgxrepo({"-r", file, "export"}).out);
    for (const char* w : {"wrn:/network/http:default", "wrn:/system/timesync:default"})
        EXPECT_EQ(hgxrepo({"-r", back, "show", w, "running"}).out,
                  hgxrepo({"-r", file, "show", w, "running"}).out)
            << w;
    // A copy replaces what the target held.
    ASSERT_EQ(repo({"import", "-"}, generation(0, 1)).status, 0);
    ASSERT_EQ(hgxrepo({"-r", file, "copy", url}).status, 0);
    EXPECT_EQ(repo({"list"}).out, hgxrepo({"-r", file, "list"}).out);
}

// Every kind of commit, from one property to a new epoch of every
// service, leaves the cluster holding what the same commands leave in a
// file.
TEST_F(EtcdCluster, CommitsOfEverySizeGiveWhatTheyGiveAFile) {
    if (!start()) return;
    e2e::TempDir dir;
    const std::string file = dir / "same.db";
    // 60 services at once: more pointers than one switch moves.
    std::string many = "{\"services\": {";
    for (int i = 0; i < 60; ++i) {
        std::string one = e2e::generation_manifest(numbered("many/s", i), i, 2);
        if (i) many += ',';
        many += one.substr(14, one.size() - 16);
    }
    many += "}}";
    struct Step {
        const char* what;
        std::vector<std::string> args;
        std::string input;
    } steps[] = {
        {"a fleet", {"import", "-"}, e2e::fleet_manifest("fleet/web", 300, 5, 0)},
        {"one property",
         {"setprop", "--snapshot", "wrn:/fleet/web:host00007/:properties/config/p1", "x"},
         ""},
        {"one instance removed", {"delete", "wrn:/fleet/web:host00008"}, ""},
        {"every snapshot of the fleet", {"snapshot", "wrn:/fleet/web", "before"}, ""},
        {"the fleet's defaults",
         {"setprop", "--snapshot", "wrn:/fleet/web/:properties/config/d0", "y"},
         ""},
        {"many services", {"import", "-"}, many},
        {"the fleet anew", {"import", "-"}, e2e::fleet_manifest("fleet/web", 120, 5, 1)},
        {"a service removed", {"delete", "wrn:/many/s3"}, ""},
    };
    for (const Step& step : steps) {
        e2e::Result c = repo(step.args, step.input);
        std::vector<std::string> args = step.args;
        args.insert(args.begin(), {"-r", file});
        e2e::Result f = hgxrepo(args, step.input);
        ASSERT_EQ(e2e::whole(c), e2e::whole(f)) << step.what;
        ASSERT_EQ(repo({"export"}).out, hgxrepo({"-r", file, "export"}).out) << step.what;
        for (const char* w : {"wrn:/fleet/web:host00007", "wrn:/fleet/web:host00100"})
            for (const char* snap : {"running", "before"})
                EXPECT_EQ(repo({"show", w, snap}).out, hgxrepo({"-r", file, "show", w, snap}).out)
                    << step.what << ": " << w << " " << snap;
    }
}

// Writers race on one instance, then a large commit (every snapshot of a
// service anew) races small ones on single instances: every one lands,
// none undoes another.
TEST_F(EtcdCluster, RacingWritersAllLand) {
    if (!start()) return;
    ASSERT_EQ(repo({"import", "-"}, generation(0, 2)).status, 0);
    ASSERT_EQ(repo({"import", "-"}, e2e::fleet_manifest("fleet/web", 300, 5, 0)).status, 0);
    // Runs the commands at once; how many failed.
    auto race = [&](const std::vector<std::vector<std::string>>& commands) {
        std::atomic<int> failed{0};
        std::vector<std::thread> writers;
        for (const auto& c : commands)
            writers.emplace_back([&, c] { failed += repo(c).status != 0; });
        for (auto& t : writers) t.join();
        return failed.load();
    };
    std::vector<std::vector<std::string>> one, many = {{"snapshot", "wrn:/fleet/web", "later"}};
    for (int i = 0; i < 8; ++i) {
        const std::string n = std::to_string(i), host = numbered("wrn:/fleet/web:host0000", i);
        one.push_back({"setprop", WERN + "/:properties/config/w" + n, "v" + n});
        many.push_back({"setprop", host + "/:properties/config/w", "v" + n});
    }
    EXPECT_EQ(race(one), 0);
    std::string shown = repo({"show", WERN}).out;
    for (int i = 0; i < 8; ++i)
        EXPECT_NE(shown.find(numbered("config/w", i) + numbered(" astring \"v", i)),
                  std::string::npos)
            << shown;
    EXPECT_EQ(race(many), 0);
    for (int i = 0; i < 8; ++i) {
        std::string host = numbered("wrn:/fleet/web:host0000", i);
        EXPECT_NE(repo({"show", host}).out.find(numbered("config/w astring \"v", i)),
                  std::string::npos)
            << host;
        EXPECT_NE(repo({"show", host, "later"}).out.find("config/p0"), std::string::npos) << host;
    }
}

// Writers killed in the middle of large commits leave keys behind; the next
// writer removes them once their leases have lapsed, leaving the prefix as
// one clean commit leaves it.
TEST_F(EtcdCluster, KeysOfWritersThatDiedAreRemovedByTheNextWriter) {
    if (!start()) return;
    ASSERT_EQ(repo({"import", "-"}, e2e::fleet_manifest("fleet/web", 1000, 5, 0)).status, 0);
    auto count = [&](const char* prefix) { return server.count(prefix); };
    const long clean = count("kelvo/");
    e2e::TempDir dir;
    const std::string manifest = dir / "fleet.json";
    int caught = 0;
    for (int gen = 1; gen <= 20; ++gen) {
        e2e::write_file(manifest, e2e::fleet_manifest("fleet/web", 1000, 5, gen));
        pid_t pid = etcd_testing::spawn({e2e::hgxrepo_bin(), "-r", url, "import", manifest});
        // Killed as soon as it has written something of its commit.
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (count("kelvo/t/") == 0 && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        caught += count("kelvo/t/") > 0;
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    const long left = count("kelvo/");
    // The next writer comes along, again and again, until the leases lapse.
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    do {
        ASSERT_EQ(repo({"setprop", "wrn:/fleet/web:host00001/:properties/config/p0", "x"}).status,
                  0);
        if (count("kelvo/t/") == 0) break;
        std::this_thread::sleep_for(std::chrono::seconds(1));
    } while (std::chrono::steady_clock::now() < until);
    const long after = count("kelvo/");
    std::printf(
        "keys: %ld after a clean import, %ld after 20 killed imports (%d caught writing), "
        "%ld after the next writer\n",
        clean, left, caught, after);
    EXPECT_GT(caught, 10);
    EXPECT_GT(left, clean);
    EXPECT_EQ(after, clean);
}

// A run on a file must not pay for the cluster's client, nor one on a plain
// cluster for libcurl and TLS: the dynamic linker is asked to list every
// object it loads.
TEST(EtcdClient, IsLoadedOnlyForAClusterUrlAndLibcurlOnlyForTls) {
    e2e::TempDir dir;
    const std::string file = dir / "a.db";
    e2e::make_repository(file, generation(0, 1));
    e2e::Result r = e2e::kelvo(file, {"-f", WERN}, "$%{config/p0}\n", {{"LD_DEBUG", "files"}});
    EXPECT_EQ(r.out, "g0\n");
    EXPECT_EQ(r.err.find("hgx-etcd"), std::string::npos);
    EXPECT_EQ(r.err.find("libcurl"), std::string::npos);
    // A module is loaded through the descriptor it was checked by
    // (/proc/self/fd/N); what it brings shows by name.
    r = e2e::kelvo("etcd://127.0.0.1:1/x", {"-f", WERN}, "", {{"LD_DEBUG", "files"}});
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("file=/proc/self/fd/"), std::string::npos);
    EXPECT_EQ(r.err.find("libcurl"), std::string::npos);
    r = e2e::kelvo("etcds://127.0.0.1:1/x", {"-f", WERN}, "", {{"LD_DEBUG", "files"}});
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("libcurl"), std::string::npos);
}

}  // namespace
