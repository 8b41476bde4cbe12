// The repository on an etcd cluster, where it differs from a file (one
// state per run while others write, racing writers, members that fail,
// TLS, credentials, what a cluster refuses), and hgxrepo sync, a host's
// mirror of a cluster, run in the background as on a host and stopped with
// SIGTERM. Each test starts its own etcd.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <thread>

#include "e2e_util.h"
#include "etcd_gtest.h"

namespace {

using e2e::hgxrepo;
using namespace std::chrono_literals;

const std::string WERN = "wrn:/app/web:default";

// A text and a number, appended (GCC 12 takes "literal" + std::string&& for
// an overlapping copy at -O3).
std::string numbered(std::string text, int n) {
    text += std::to_string(n);
    return text;
}

std::string manifest(const std::string& service, int gen, int count = 3) {
    return e2e::generation_manifest(service, gen, count);
}
std::string generation(int gen, int count = 200) { return manifest("app/web", gen, count); }

// hgxrepo in the background, its standard error appended to log, with env
// set and a limit on the size of the files it writes (as a full disk would
// set one).
class Sync {
  public:
    Sync(const std::vector<std::string>& args, const std::string& log, const e2e::Env& env = {},
         rlim_t file_limit = RLIM_INFINITY) {
        if ((pid_ = fork()) != 0) return;
        for (const auto& [name, value] : env) setenv(name.c_str(), value->c_str(), 1);
        signal(SIGXFSZ, SIG_IGN);                 // a write past the limit fails instead
        rlimit limit{file_limit, RLIM_INFINITY};  // soft: lifted later without privilege
        setrlimit(RLIMIT_FSIZE, &limit);
        dup2(open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644), 2);
        for (int fd : {0, 1}) dup2(open("/dev/null", O_RDWR), fd);
        std::vector<char*> argv = {const_cast<char*>(e2e::hgxrepo_bin())};
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    ~Sync() {
        if (pid_ > 0) stop();
    }
    pid_t pid() const { return pid_; }
    // The exit status after the signal (128 + signal when killed).
    int stop(int signal = SIGTERM) {
        kill(pid_, signal);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

  private:
    pid_t pid_ = -1;
};

// How many times a text says a phrase (a log says each at most once a line).
int lines_with(const std::string& text, const std::string& phrase) {
    int n = 0;
    for (size_t at = 0; (at = text.find(phrase, at)) != std::string::npos; at += phrase.size()) ++n;
    return n;
}

// Waits up to a minute for the condition: a bound against a hang, generous
// for a loaded machine, never a measure of speed (bench/sync.sh measures).
bool eventually(const std::function<bool()>& ok) {
    auto until = std::chrono::steady_clock::now() + 60s;
    while (std::chrono::steady_clock::now() < until) {
        if (ok()) return true;
        std::this_thread::sleep_for(20ms);
    }
    return ok();
}

class EtcdSync : public ::testing::Test {
  protected:
    void SetUp() override {
        ETCD_START_OR_SKIP(server, options);
        url = server.url("fleet");
        if (!seeded) return;
        ASSERT_EQ(cluster({"import", "-"}, manifest("app/web", 0)).status, 0);
        ASSERT_EQ(cluster({"import", "-"}, manifest("app/db", 0)).status, 0);
    }
    e2e::Result cluster(std::vector<std::string> args, const std::string& input = "",
                        const e2e::Env& env = {}) {
        args.insert(args.begin(), {"-r", url});
        return hgxrepo(args, input, env);
    }
    // Runs kelvo `runs` times on the repository's app/web (200 properties)
    // while imports put one generation after another into the cluster: every
    // run sees one whole generation, and the runs see more than one. Returns
    // the last generation imported.
    int expect_one_generation_per_run(const std::string& repository, int runs) {
        std::atomic<bool> done{false};
        std::atomic<int> last{0};
        std::thread writer([&] {
            for (int gen = 1; !done; ++gen)
                if (cluster({"import", "-"}, generation(gen)).status == 0) last = gen;
        });
        const std::string stencil = e2e::generation_stencil(200);
        int failed = 0, mixed = 0;
        std::set<std::string> seen;
        for (int run = 0; run < runs; ++run) {
            e2e::Result r = e2e::kelvo(repository, {"-f", WERN}, stencil);
            if (r.status != 0 && failed++ == 0) ADD_FAILURE() << r.err;
            if (r.status != 0) continue;
            std::string gen = e2e::generation_of(r.out, 200);
            if (gen.empty()) ++mixed;
            seen.insert(gen);
        }
        done = true;
        writer.join();
        EXPECT_EQ(failed, 0);
        EXPECT_EQ(mixed, 0);
        EXPECT_GT(last.load(), 1);
        EXPECT_GT(seen.size(), 1u) << "the runs should have seen the imports land";
        return last;
    }
    // The environment of an etcd user of these tests (password USER-pw);
    // none for "".
    static e2e::Env creds(const std::string& user) {
        if (user.empty()) return {};
        return {{"HGX_ETCD_USER", user}, {"HGX_ETCD_PASSWORD", user + "-pw"}};
    }
    e2e::Result local(std::vector<std::string> args) {
        args.insert(args.begin(), {"-r", mirror});
        return hgxrepo(args);
    }
    std::unique_ptr<Sync> start_sync(std::vector<std::string> extra = {},
                                     const e2e::Env& env = {}) {
        std::vector<std::string> args = {"-r", mirror, "sync"};
        args.insert(args.end(), extra.begin(), extra.end());
        args.push_back(url);
        return std::make_unique<Sync>(args, log, env);
    }
    // kelvo on the mirror, printing config/p0, or its status and error.
    std::string value() {
        e2e::Result r = e2e::kelvo(mirror, {"-f", WERN}, "$%{config/p0}\n");
        return r.status == 0 ? r.out : "status " + std::to_string(r.status) + ": " + r.err;
    }
    bool mirrored() { return local({"export"}).out == cluster({"export"}).out; }
    // kelvo on the cluster, printing config/p0.
    e2e::Whole p0(const e2e::Env& env = {}) {
        return e2e::whole(e2e::kelvo(url, {"-f", WERN}, "$%{config/p0}\n", env));
    }
    // What kelvo and hgxrepo say where the repository fails them.
    e2e::Whole unable(const std::string& text) const {
        return {3, "", "kelvo: Unable to get properties for " + WERN + ": " + text + "\n"};
    }
    e2e::Whole refused(const std::string& text) const {
        return {1, "", "hgxrepo: " + url + ": " + text + "\n"};
    }
    // eventually(), with the mirror's log where it fails.
    ::testing::AssertionResult soon(const std::function<bool()>& ok) {
        if (eventually(ok)) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << e2e::read_file(log);
    }
    // What the command appended to `seen` since the last look, once a run
    // has written it whole (up to its "--" line); removed for the next look.
    std::string told() {
        std::string t;
        EXPECT_TRUE(soon([&] { return (t = e2e::read_file(seen)).ends_with("--\n"); }));
        std::remove(seen.c_str());
        return t;
    }

    etcd_testing::EtcdServer server;
    e2e::TempDir dir;
    std::string url, mirror = dir / "mirror.db", log = dir / "sync.log", seen = dir / "changed";
    etcd_testing::Options options;
    bool seeded = true;  // the services app/web and app/db, generation 0
};

// The cluster alone, which the tests fill themselves.
class EtcdCluster : public EtcdSync {
  protected:
    EtcdCluster() { seeded = false; }
};

// A cluster of three; the mirror's URL names member 0 first, and its watch
// starts there.
class EtcdSyncThree : public EtcdSync {
  protected:
    EtcdSyncThree() { options.members = 3; }
};

class EtcdClusterTls : public EtcdCluster {
  protected:
    EtcdClusterTls() { options.tls = true; }
};

TEST_F(EtcdCluster, EveryRunSeesOneGenerationWhileImportsRewriteTheInstance) {
    ASSERT_EQ(cluster({"import", "-"}, generation(0)).status, 0);
    expect_one_generation_per_run(url, 500);
}

// A cluster that hangs or is gone ends a run with status 3 and a write with
// status 1, also once a run has bound and read its instance: kelvo reads
// its stencil from standard input only then, so the test fails the cluster
// once kelvo has taken the first byte and hands over the rest, whose
// reference to another service must now be pulled. Nothing is changed.
TEST_F(EtcdCluster, AFailingClusterEndsTheRunWithStatusThreeAndChangesNothing) {
    ASSERT_EQ(cluster({"import", "-"}, generation(0, 2)).status, 0);
    ASSERT_EQ(p0(), e2e::Whole(0, "g0\n", ""));
    // Frozen: connections are accepted and never answered. A run or a write
    // ends by its own time budget, with the text and nothing of the
    // client's; a hang would meet the test's timeout instead.
    const std::vector<std::string> set = {"setprop", WERN + "/:properties/config/p0", "x"};
    server.freeze(true);
    const e2e::Whole hung = p0(), silent = e2e::whole(cluster(set));
    server.freeze(false);
    EXPECT_EQ(hung, unable("The etcd cluster did not answer in time"));
    EXPECT_EQ(silent, refused("The etcd cluster did not answer in time"));
    server.kill_member(0);
    EXPECT_EQ(p0(), unable("No member of the etcd cluster answers"));
    EXPECT_EQ(e2e::whole(cluster(set)), refused("No member of the etcd cluster answers: " +
                                                server.endpoints(true) + ": Connection refused"));
    server.restart_member(0);

    ASSERT_EQ(cluster({"import", "-"}, R"({"services": {
        "a/x": {"instances": {"default": {"groups": {"c": {"properties": {"v": "old"}}}}}},
        "a/y": {"instances": {"default": {"groups": {"c": {"properties": {"v": "why"}}}}}}}})")
                  .status,
              0);
    const std::string wern = "wrn:/a/x:default";
    const std::string out = dir / "out.conf", err_log = dir / "stderr";
    // kelvo -f wern -o out on the stencil, the cluster failed by `fault` once
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
            execl(e2e::kelvo_bin(), "kelvo", "-f", wern.c_str(), "-o", out.c_str(), nullptr);
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
                          "kelvo: Unable to get properties for " + wern + ": " + text + "\n");
    };
    // A new revision, then a compaction up to it: the run's revision is gone.
    auto compact = [&] {
        ASSERT_EQ(
            cluster({"setprop", "--snapshot", "wrn:/a/y:default/:properties/c/v", "new"}).status,
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
TEST_F(EtcdSyncThree, RunsGoOnThroughTheOtherMembersWhenOneHangsOrTheLeaderDies) {
    ASSERT_EQ(cluster({"import", "-"}, generation(0, 2)).status, 0);
    // The URL names the hung member first.
    server.freeze(true, 0);
    EXPECT_EQ(
        e2e::whole(cluster({"setprop", "--snapshot", WERN + "/:properties/config/p0", "hung"})),
        e2e::Whole(0, "", ""));
    EXPECT_EQ(p0(), e2e::Whole(0, "hung\n", ""));
    server.freeze(false, 0);

    int leader = server.leader();
    ASSERT_GE(leader, 0);
    server.kill_member(leader);
    // The URL still names the dead member, and names it first where it led.
    e2e::Result set = cluster({"setprop", WERN + "/:properties/config/p0", "after"});
    EXPECT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(cluster({"snapshot", WERN}).status, 0);
    EXPECT_EQ(p0(), e2e::Whole(0, "after\n", ""));
}

TEST_F(EtcdClusterTls, TlsWithClientCertificates) {
    auto certs_of = [](const etcd_testing::EtcdServer& s) {
        return e2e::Env{{"HGX_ETCD_CACERT", s.ca()},
                        {"HGX_ETCD_CERT", s.client_cert()},
                        {"HGX_ETCD_KEY", s.client_key()}};
    };
    const e2e::Env certs = certs_of(server);
    e2e::Result r = cluster({"import", "-"}, generation(7, 2), certs);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(p0(certs), e2e::Whole(0, "g7\n", ""));

    // Each failure gives the text, then what failed: the file, the
    // verification or the host name.
    const std::string text =
        "TLS with the etcd cluster failed (HGX_ETCD_CACERT, HGX_ETCD_CERT, HGX_ETCD_KEY): ";
    const std::string member = "127.0.0.1:" + std::to_string(server.client_port(0));
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
        EXPECT_EQ(e2e::whole(cluster({"list"}, "", env)), refused(text + c.says));
        EXPECT_EQ(p0(env), unable(text + c.says));
    }

    // A member whose certificate names another host.
    etcd_testing::EtcdServer elsewhere;
    etcd_testing::Options tls = options;
    tls.tls_names = "DNS:elsewhere.invalid";
    ETCD_START_OR_SKIP(elsewhere, tls);
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
    ASSERT_EQ(cluster({"import", "-"}, generation(3, 2)).status, 0);
    auto etcdctl = [&](std::vector<std::string> args) {
        e2e::Result r = e2e::etcdctl(server.endpoints(), args);
        EXPECT_EQ(r.status, 0) << r.err;
    };
    etcdctl({"role", "add", "reader"});
    etcdctl({"role", "grant-permission", "reader", "read", "fleet/", "--prefix=true"});
    etcdctl({"role", "add", "stranger"});
    etcdctl({"role", "grant-permission", "stranger", "readwrite", "other/", "--prefix=true"});
    for (const std::string user : {"reader", "stranger"}) {
        etcdctl({"user", "add", user + ":" + user + "-pw"});
        etcdctl({"user", "grant-role", user, user});
    }
    ASSERT_TRUE(server.enable_auth("root-pw"));

    const std::string text =
        "The etcd user (HGX_ETCD_USER) is not permitted to do this in the repository";
    auto setprop = [&](const char* user) {
        return e2e::whole(
            cluster({"setprop", WERN + "/:properties/config/p0", "x"}, "", creds(user)));
    };
    EXPECT_EQ(p0(creds("reader")), e2e::Whole(0, "g3\n", ""));
    EXPECT_EQ(setprop("reader"), refused("cannot write: " + text));
    EXPECT_EQ(p0(creds("stranger")), unable(text));
    EXPECT_EQ(setprop("stranger"), refused(text));
    e2e::Result r = cluster({"import", "-"}, generation(4, 2), creds("root"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(p0(creds("root")), e2e::Whole(0, "g4\n", ""));
    const char* wrong =
        "The etcd cluster refused the credentials (HGX_ETCD_USER, HGX_ETCD_PASSWORD)";
    EXPECT_EQ(p0({{"HGX_ETCD_USER", "root"}, {"HGX_ETCD_PASSWORD", "wrong"}}), unable(wrong));
    EXPECT_EQ(p0(), unable(wrong));
}

TEST_F(EtcdCluster, BadInputIsRefusedAndAWholeRepositoryIsCopiedToAFileAndBack) {
    ASSERT_EQ(cluster({"import", "-"}, generation(1, 2)).status, 0);
    const std::string before = cluster({"export"}).out;
    const std::string other = "etcd://" + server.endpoints() + "/other";
    const char* const not_a_repository = "holds something other than a repository";
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
        {"a prefix that holds something else", other, not_a_repository},
    };
    server.put("other/config", "x");
    for (const Case& c : cases) {
        e2e::Result r = hgxrepo({"-r", c.where, "list"});
        EXPECT_EQ(r.status, 1) << c.name;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << c.name << ": " << r.err;
        EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << c.name << ": one line";
    }

    // Such a prefix is not written either.
    e2e::Result r = hgxrepo({"-r", other, "import", "-"}, generation(2, 2));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(not_a_repository), std::string::npos) << r.err;
    EXPECT_EQ(server.count("other/"), 1);

    // An instance too large for one etcd request.
    // 300 values of 4,000 bytes each: 1.2 MB in one instance.
    std::string big = std::regex_replace(generation(1, 300), std::regex("\"g1\""),
                                         "\"" + std::string(4000, 'x') + "\"");
    r = cluster({"import", "-"}, big);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("Too large for one etcd request"), std::string::npos) << r.err;
    EXPECT_EQ(cluster({"export"}).out, before);

    // A whole repository copied to the cluster and back to a file.
    const std::string file = dir / "a.db", back = dir / "b.db";
    ASSERT_EQ(hgxrepo({"-r", file, "import", e2e::source_dir() + "/examples/services.json"}).status,
              0);
    ASSERT_EQ(hgxrepo({"-r", file, "copy", url}).status, 0);
    ASSERT_EQ(cluster({"copy", back}).status, 0);
    EXPECT_EQ(hgxrepo({"-r", back, "export"}).out, hgxrepo({"-r", file, "export"}).out);
    for (const char* w : {"wrn:/network/http:default", "wrn:/system/timesync:default"})
        EXPECT_EQ(hgxrepo({"-r", back, "show", w, "running"}).out,
                  hgxrepo({"-r", file, "show", w, "running"}).out)
            << w;
    // A copy replaces what the target held.
    ASSERT_EQ(cluster({"import", "-"}, generation(0, 1)).status, 0);
    ASSERT_EQ(hgxrepo({"-r", file, "copy", url}).status, 0);
    EXPECT_EQ(cluster({"list"}).out, hgxrepo({"-r", file, "list"}).out);
}

// Every kind of commit, from one property to a new epoch of every
// service, leaves the cluster holding what the same commands leave in a
// file; racing commits all land.
TEST_F(EtcdCluster, CommitsOfEverySizeGiveWhatTheyGiveAFileAndRacingWritersAllLand) {
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
        e2e::Result c = cluster(step.args, step.input);
        std::vector<std::string> args = step.args;
        args.insert(args.begin(), {"-r", file});
        e2e::Result f = hgxrepo(args, step.input);
        ASSERT_EQ(e2e::whole(c), e2e::whole(f)) << step.what;
        ASSERT_EQ(cluster({"export"}).out, hgxrepo({"-r", file, "export"}).out) << step.what;
        for (const char* w : {"wrn:/fleet/web:host00007", "wrn:/fleet/web:host00100"})
            for (const char* snap : {"running", "before"})
                EXPECT_EQ(cluster({"show", w, snap}).out,
                          hgxrepo({"-r", file, "show", w, snap}).out)
                    << step.what << ": " << w << " " << snap;
    }

    // Writers race on one instance, then a large commit (every snapshot of
    // a service anew) races small ones on single instances: every one
    // lands, none undoes another.
    ASSERT_EQ(cluster({"import", "-"}, generation(0, 2)).status, 0);
    ASSERT_EQ(cluster({"import", "-"}, e2e::fleet_manifest("fleet/web", 300, 5, 0)).status, 0);
    // Runs the commands at once; how many failed.
    auto race = [&](const std::vector<std::vector<std::string>>& commands) {
        std::atomic<int> failed{0};
        std::vector<std::thread> writers;
        for (const auto& c : commands)
            writers.emplace_back([&, c] { failed += cluster(c).status != 0; });
        for (auto& t : writers) t.join();
        return failed.load();
    };
    std::vector<std::vector<std::string>> one, all = {{"snapshot", "wrn:/fleet/web", "later"}};
    for (int i = 0; i < 8; ++i) {
        const std::string n = std::to_string(i), host = numbered("wrn:/fleet/web:host0000", i);
        one.push_back({"setprop", WERN + "/:properties/config/w" + n, "v" + n});
        all.push_back({"setprop", host + "/:properties/config/w", "v" + n});
    }
    EXPECT_EQ(race(one), 0);
    std::string shown = cluster({"show", WERN}).out;
    for (int i = 0; i < 8; ++i)
        EXPECT_NE(shown.find(numbered("config/w", i) + numbered(" astring \"v", i)),
                  std::string::npos)
            << shown;
    EXPECT_EQ(race(all), 0);
    for (int i = 0; i < 8; ++i) {
        std::string host = numbered("wrn:/fleet/web:host0000", i);
        EXPECT_NE(cluster({"show", host}).out.find(numbered("config/w astring \"v", i)),
                  std::string::npos)
            << host;
        EXPECT_NE(cluster({"show", host, "later"}).out.find("config/p0"), std::string::npos)
            << host;
    }
}

// Writers killed in the middle of large commits leave keys behind; the next
// writer removes them once their leases have lapsed, leaving the prefix as
// one clean commit leaves it.
TEST_F(EtcdCluster, KeysOfWritersThatDiedAreRemovedByTheNextWriter) {
    ASSERT_EQ(cluster({"import", "-"}, e2e::fleet_manifest("fleet/web", 1000, 5, 0)).status, 0);
    const long clean = server.count("fleet/");
    const std::string manifest = dir / "fleet.json";
    int caught = 0;
    for (int gen = 1; gen <= 20; ++gen) {
        e2e::write_file(manifest, e2e::fleet_manifest("fleet/web", 1000, 5, gen));
        pid_t pid = etcd_testing::spawn({e2e::hgxrepo_bin(), "-r", url, "import", manifest});
        // Killed as soon as it has written something of its commit.
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (server.count("fleet/t/") == 0 && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        caught += server.count("fleet/t/") > 0;
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    const long left = server.count("fleet/");
    // The next writer comes along, again and again, until the leases lapse.
    EXPECT_TRUE(eventually([&] {
        const std::string p0 = "wrn:/fleet/web:host00001/:properties/config/p0";
        EXPECT_EQ(cluster({"setprop", p0, "x"}).status, 0);
        return server.count("fleet/t/") == 0;
    }));
    const long after = server.count("fleet/");
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

// systemd (Type=notify) hears READY=1 once the mirror holds a copy. The
// command reads the mirror, and hears of the instances whose view (what
// kelvo reads) changed.
TEST_F(EtcdSync, FollowsTheClusterTellsSystemdAndRunsTheCommandWithTheChangedInstances) {
    const std::string notify = dir / "notify";
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    ASSERT_LT(notify.size(), sizeof addr.sun_path);
    std::strcpy(addr.sun_path, notify.c_str());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    timeval wait{30, 0};  // a bound against a hang
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    auto sync = start_sync({"--splay", "1", "--exec",
                            "printf '%s %s--\\n' \"$HGX_REPOSITORY\" \"$HGX_CHANGED\" >> " + seen},
                           {{"NOTIFY_SOCKET", notify}});
    std::string messages;
    char buf[4096];
    while (messages.find("READY=1") == std::string::npos) {
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        ASSERT_GT(n, 0) << messages << e2e::read_file(log);
        messages.append(buf, static_cast<size_t>(n)).push_back('|');
    }
    EXPECT_EQ(value(), "g0\n");
    const std::string prefix = mirror + " ";
    EXPECT_EQ(told(), prefix + "wrn:/app/db:default\nwrn:/app/web:default\n--\n");
    ASSERT_EQ(cluster({"import", "-"}, manifest("app/web", 1)).status, 0);
    ASSERT_TRUE(soon([&] { return value() == "g1\n"; }));
    EXPECT_EQ(told(), prefix + WERN + "\n--\n");
    // What kelvo does not read of the instance: the live groups beside its
    // snapshot, a group general that the snapshot does not have.
    const std::string pg = WERN + "/:properties/";
    ASSERT_EQ(cluster({"setprop", pg + "config/p0", "live"}).status, 0);
    ASSERT_EQ(cluster({"addpg", pg + "general", "framework"}).status, 0);
    // What it reads: a new snapshot, and the group general always live.
    ASSERT_EQ(cluster({"snapshot", WERN}).status, 0);
    EXPECT_EQ(told(), prefix + WERN + "\n--\n");
    ASSERT_EQ(cluster({"setprop", pg + "general/enabled", "-t", "boolean", "false"}).status, 0);
    EXPECT_EQ(told(), prefix + WERN + "\n--\n");
    // A mirror file removed under the mirror is copied whole at the next revision.
    for (const char* suffix : {"", "-wal", "-shm"}) std::remove((mirror + suffix).c_str());
    ASSERT_EQ(cluster({"import", "-"}, manifest("app/web", 2)).status, 0);
    ASSERT_TRUE(soon([&] { return value() == "g2\n"; }));
    EXPECT_TRUE(mirrored());
    EXPECT_EQ(sync->stop(), 0);
    for (ssize_t n; (n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0;)
        messages.append(buf, static_cast<size_t>(n));
    close(fd);
    EXPECT_NE(messages.find("STATUS=following " + url), std::string::npos) << messages;
    EXPECT_NE(messages.find("STOPPING=1"), std::string::npos) << messages;

    // A failing command is reported and the mirror goes on. A cluster
    // restarted under the mirror is caught up with nothing lost or twice:
    // the command runs once a commit.
    const std::string runs = dir / "runs";
    auto failing = start_sync({"--exec", "echo x >> " + runs + "; exit 3"});
    ASSERT_TRUE(
        eventually([&] { return e2e::read_file(log).find("resuming") != std::string::npos; }));
    server.kill_member(0);
    ASSERT_TRUE(
        soon([&] { return e2e::read_file(log).find("lost the cluster") != std::string::npos; }));
    server.restart_member(0);
    for (int gen = 3; gen <= 7; ++gen)
        ASSERT_EQ(cluster({"import", "-"}, manifest("app/web", gen)).status, 0);
    ASSERT_TRUE(soon([&] { return value() == "g7\n"; }));
    EXPECT_TRUE(mirrored());
    EXPECT_EQ(failing->stop(), 0);
    EXPECT_EQ(e2e::read_file(runs), "x\nx\nx\nx\nx\n");
    const std::string l = e2e::read_file(log);
    for (const char* said : {"the command failed (status 3)", "connected again"})
        EXPECT_NE(l.find(said), std::string::npos) << said << " in " << l;
}

// While the mirror makes its first copy, kelvo on its file finds no
// repository, or the finished copy: never a file half made. After that,
// every run sees one generation while commits land.
TEST_F(EtcdSync, EveryRunOnTheMirrorSeesNoRepositoryOrOneWholeGeneration) {
    const std::string db = "wrn:/app/db:default";  // large: a first copy that takes a while
    ASSERT_EQ(cluster({"import", "-"}, generation(0)).status, 0);
    ASSERT_EQ(cluster({"import", "-"}, manifest("app/db", 1, 20000)).status, 0);
    auto sync = start_sync();
    const e2e::Whole none(3, "",
                          "kelvo: Unable to get properties for " + db +
                              ": Repository file does not exist: " + mirror + "\n");
    int before = 0, other = 0;
    auto until = std::chrono::steady_clock::now() + 60s;
    bool copied = false;
    while (!copied && other <= 3 && std::chrono::steady_clock::now() < until) {
        e2e::Whole seen = e2e::whole(e2e::kelvo(mirror, {"-f", db}, "$%{config/p19999}\n"));
        copied = seen == e2e::Whole(0, "g1\n", "");
        if (seen == none)
            ++before;
        else if (!copied)
            ADD_FAILURE() << ++other << ": " << std::get<2>(seen);
    }
    ASSERT_TRUE(copied) << "no whole copy within a minute: " << e2e::read_file(log);
    std::printf("kelvo runs before the first copy landed: %d\n", before);
    const int last = expect_one_generation_per_run(mirror, 1000);
    EXPECT_TRUE(eventually([&] { return value() == numbered("g", last) + "\n"; })) << value();
    EXPECT_EQ(sync->stop(), 0);
}

// A mirror resumes where it stopped. A revision it cannot write (its files
// may not grow, as on a full disk) is reported once and tried again, and
// goes in once there is room. Past a compaction, it copies afresh.
TEST_F(EtcdSync, ResumesTriesAgainWhatItCannotWriteAndCopiesAfreshPastACompaction) {
    ASSERT_EQ(hgxrepo({"-r", mirror, "sync", "--once", url}).status, 0);
    // A revision far larger than the room the mirror will have.
    ASSERT_EQ(cluster({"import", "-"}, manifest("app/web", 1, 3000)).status, 0);
    auto sync = std::make_unique<Sync>(std::vector<std::string>{"-r", mirror, "sync", url}, log,
                                       e2e::Env{}, 256 * 1024);
    const std::string stays = "revision not applied, the mirror stays at";
    ASSERT_TRUE(soon([&] { return lines_with(e2e::read_file(log), stays) == 1; }));
    EXPECT_NE(e2e::read_file(log).find("resuming at revision"), std::string::npos);
    // Tries go by, a second and then two later, unlogged.
    std::this_thread::sleep_for(3500ms);
    EXPECT_EQ(lines_with(e2e::read_file(log), stays), 1) << e2e::read_file(log);
    EXPECT_EQ(value(), "g0\n") << "the mirror must stay whole at its revision";
    // Room again: the same revision goes in on a later try.
    rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};  // the soft limit, up to the hard one
    ASSERT_EQ(prlimit(sync->pid(), RLIMIT_FSIZE, &unlimited, nullptr), 0);
    EXPECT_TRUE(soon([&] { return value() == "g1\n"; }));
    EXPECT_EQ(sync->stop(), 0);
    EXPECT_TRUE(mirrored());
    EXPECT_EQ(lines_with(e2e::read_file(log), stays), 1) << e2e::read_file(log);
    EXPECT_EQ(lines_with(e2e::read_file(log), "the mirror follows again"), 1);

    for (int gen = 2; gen <= 4; ++gen)
        ASSERT_EQ(cluster({"import", "-"}, manifest("app/web", gen)).status, 0);
    server.compact();
    sync = start_sync();
    ASSERT_TRUE(soon([&] { return value() == "g4\n"; }));
    EXPECT_EQ(sync->stop(), 0);
    EXPECT_NE(e2e::read_file(log).find("compacted away: copying afresh"), std::string::npos)
        << e2e::read_file(log);
    EXPECT_TRUE(mirrored());
}

TEST_F(EtcdSync, ANameNoImportWouldTakeIsRefusedAndTheMirrorStaysPut) {
    auto sync = start_sync({"--exec", "printf '%s--\\n' \"$HGX_CHANGED\" >> " + seen});
    ASSERT_TRUE(eventually([&] { return mirrored() && e2e::read_file(seen).ends_with("--\n"); }));
    const std::string before = local({"export"}).out, told = e2e::read_file(seen);

    // A service planted by hand under a name that would add a line to
    // HGX_CHANGED (app/web's keys under that name), with a head and a record
    // of the commit that name it, as a writer's commit would.
    const std::string all = e2e::etcdctl(server.endpoints(), {"get", "--prefix", "fleet/"}).out;
    const std::string bad = "x$(touch " + (dir / "P") + ")\nwrn:/injected/line:default";
    const std::string web = "fleet/o/app/web:/";
    nlohmann::json txn = {{"success", nlohmann::json::array()}};
    auto put = [&](const std::string& key, const std::string& v) {
        txn["success"].push_back(
            {{"request_put", {{"key", etcd_testing::b64(key)}, {"value", etcd_testing::b64(v)}}}});
    };
    std::vector<std::string> planted;  // etcdctl gives a key, then its value, a line each
    for (size_t at = 0, nl, end; (nl = all.find('\n', at)) != std::string::npos &&
                                 (end = all.find('\n', nl + 1)) != std::string::npos;
         at = end + 1) {
        std::string key = all.substr(at, nl - at), value = all.substr(nl + 1, end - nl - 1);
        if (key.starts_with(web))
            planted.push_back("fleet/o/" + bad + ":/" + key.substr(web.size()));
        else if (key.starts_with("fleet/l/") && key.ends_with("/app/web"))
            planted.push_back(key.substr(0, key.size() - 7) + bad);
        else if (key != "fleet/repository")
            continue;
        put(key == "fleet/repository" ? key : planted.back(), value);
    }
    ASSERT_EQ(planted.size(), 3u) << all;
    put("fleet/changes", nlohmann::json{{"commit", "planted"}, {"changed", {{bad, "*"}}}}.dump());
    ASSERT_NE(server.post(0, "/v3/kv/txn", txn.dump()).find("\"succeeded\":true"),
              std::string::npos);
    ASSERT_TRUE(soon([&] {
        return e2e::read_file(log).find("refused, the mirror stays at") != std::string::npos;
    }));
    // While it is there, a commit that changes another service is refused too.
    ASSERT_EQ(cluster({"import", "-"}, manifest("app/db", 1)).status, 0);
    ASSERT_TRUE(soon([&] { return lines_with(e2e::read_file(log), "refused") == 2; }));
    EXPECT_EQ(local({"export"}).out, before);
    EXPECT_EQ(e2e::read_file(seen), told) << "no command for a refused revision";
    EXPECT_EQ(e2e::read_file(log).find("\nwrn:/injected"), std::string::npos) << "one line";
    EXPECT_FALSE(e2e::exists(dir / "P"));

    // A copy into a file refuses it as well, and makes no file.
    e2e::Result copy = hgxrepo({"-r", url, "copy", dir / "copy.db"});
    EXPECT_EQ(copy.status, 1);
    EXPECT_NE(copy.err.find("bad service name \"x$(touch"), std::string::npos) << copy.err;
    EXPECT_EQ(copy.err.find('\n'), copy.err.size() - 1) << copy.err;
    EXPECT_FALSE(e2e::exists(dir / "copy.db"));

    // Without it, the next commit brings everything since the last one applied.
    for (const auto& key : planted)
        ASSERT_EQ(e2e::etcdctl(server.endpoints(), {"del", key}).status, 0);
    ASSERT_EQ(cluster({"import", "-"}, manifest("app/web", 2)).status, 0);
    EXPECT_TRUE(soon([&] { return mirrored() && value() == "g2\n"; }));
    EXPECT_EQ(sync->stop(), 0);
}

// The watch leaves a member that is gone or hangs for the next; a change
// reaches the mirror (how soon is bench/failover.sh's to measure: seconds)
// and the mirror never thinks the cluster lost. Without a majority, it says
// so once, tries again unlogged, and catches up.
TEST_F(EtcdSyncThree, FollowsThroughAMemberKilledOrHungAndCatchesUpWithoutAMajority) {
    // A mirror whose watch follows the cluster.
    auto following = [&] {
        std::remove(log.c_str());
        auto sync = start_sync();
        EXPECT_TRUE(soon([&] { return value() == "g0\n"; }));
        EXPECT_EQ(cluster({"import", "-"}, manifest("app/web", 1)).status, 0);
        EXPECT_TRUE(soon([&] { return value() == "g1\n"; }));
        return sync;
    };
    for (bool hung : {false, true}) {
        SCOPED_TRACE(hung ? "hung" : "killed");
        auto sync = following();
        hung ? server.freeze(true, 0) : server.kill_member(0);
        ASSERT_EQ(cluster({"import", "-"}, manifest("app/web", 2)).status, 0);
        EXPECT_TRUE(soon([&] { return value() == "g2\n"; }));
        EXPECT_EQ(sync->stop(), 0);
        EXPECT_EQ(e2e::read_file(log).find("lost the cluster"), std::string::npos)
            << e2e::read_file(log);
        hung ? server.freeze(false, 0) : server.restart_member(0);
        ASSERT_EQ(cluster({"import", "-"}, manifest("app/web", 0)).status, 0);
    }

    auto sync = following();
    server.kill_member(1);
    server.kill_member(2);
    const std::string lost = "lost the cluster", back = "connected again";
    ASSERT_TRUE(soon([&] { return lines_with(e2e::read_file(log), lost) == 1; }));
    std::this_thread::sleep_for(4000ms);  // tries go by, unlogged
    EXPECT_EQ(lines_with(e2e::read_file(log), lost), 1) << e2e::read_file(log);
    server.restart_member(1);
    server.restart_member(2);
    // The cluster elects a leader before it takes a write.
    EXPECT_TRUE(eventually([&] {
        return cluster({"import", "-"}, manifest("app/web", 2)).status == 0;
    }));
    EXPECT_TRUE(soon([&] { return value() == "g2\n"; }));
    EXPECT_EQ(sync->stop(), 0);
    const std::string l = e2e::read_file(log);
    EXPECT_EQ(lines_with(l, lost), 1) << l;
    EXPECT_EQ(lines_with(l, back), 1) << l;
}

// A copy once is the cluster, or the services named; its file and logs are
// its owner's alone (a password protects what it holds) unless --mode says
// otherwise, and an existing file keeps its mode. Sync alone writes a
// mirror; copied to a cluster it replaces all there, whole and with --force
// only. A file that is not the mirror of this prefix is left alone.
TEST_F(EtcdSync, OnceCopiesTheClusterOrTheServicesNamedAndOnlySyncWritesAMirror) {
    const std::string wide = dir / "wide.db", part = dir / "part.db", other = dir / "other.db";
    auto mode_of = [](const std::string& path) {
        return static_cast<unsigned>(std::filesystem::status(path).permissions()) & 07777u;
    };
    ASSERT_EQ(hgxrepo({"-r", mirror, "sync", "--once", url}).status, 0);
    EXPECT_EQ(local({"export"}).out, cluster({"export"}).out);
    EXPECT_EQ(local({"show", WERN, "running"}).out, cluster({"show", WERN, "running"}).out);
    EXPECT_EQ(value(), "g0\n");
    ASSERT_EQ(hgxrepo({"-r", part, "sync", "--once", "--service", "app/w.*", url}).status, 0);
    EXPECT_EQ(hgxrepo({"-r", part, "list"}).out, "wrn:/app/web\nwrn:/app/web:default\n");
    ASSERT_EQ(hgxrepo({"-r", wide, "sync", "--once", "--mode", "0640", url}).status, 0);
    for (const char* suffix : {"", "-wal", "-shm"}) {
        EXPECT_EQ(mode_of(mirror + suffix), 0600u) << suffix;
        EXPECT_EQ(mode_of(wide + suffix), 0640u) << suffix;
    }
    for (const char* bad : {"0644x", "1777", "-1", ""})
        EXPECT_EQ(hgxrepo({"-r", wide, "sync", "--mode", bad, url}).status, 2) << bad;

    const std::string before = e2e::read_file(mirror), prop = WERN + "/:properties/config/p0";
    e2e::make_repository(other, manifest("x/y", 0));
    const std::vector<std::vector<std::string>> writes = {
        {"-r", mirror, "import", "-"},
        {"-r", mirror, "setprop", "--snapshot", prop, "x"},
        {"-r", mirror, "delete", WERN},
        {"-r", other, "copy", mirror},
    };
    const e2e::Whole refused(
        1, "", "hgxrepo: " + mirror + " is the mirror of " + url + "; change the cluster\n");
    for (const auto& c : writes) {
        EXPECT_EQ(e2e::whole(hgxrepo(c, manifest("app/web", 7))), refused) << c[2];
        EXPECT_TRUE(e2e::read_file(mirror) == before) << c[2] << " changed the mirror";
    }

    const std::string target = server.url("target");
    ASSERT_EQ(hgxrepo({"-r", target, "import", "-"}, manifest("keep/me", 0)).status, 0);
    const std::string kept = hgxrepo({"-r", target, "list"}).out;
    struct Case {
        std::string from;
        bool force;
        const char* says;
    } cases[] = {
        {mirror, false, "at revision"},
        {part, false, "a mirror of part of"},
        {part, true, "a mirror of part of"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"-r", c.from, "copy", target};
        if (c.force) args.insert(args.begin() + 3, "--force");
        e2e::Result r = hgxrepo(args);
        EXPECT_EQ(r.status, 1) << c.from;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_EQ(hgxrepo({"-r", target, "list"}).out, kept);
    }
    EXPECT_EQ(local({"copy", "--force", target}).status, 0);
    EXPECT_EQ(hgxrepo({"-r", target, "export"}).out, local({"export"}).out);
    EXPECT_EQ(local({"copy", dir / "backup.db"}).status, 0);

    ASSERT_EQ(chmod(mirror.c_str(), 0640), 0);
    ASSERT_EQ(cluster({"import", "-"}, manifest("app/web", 1)).status, 0);
    ASSERT_EQ(hgxrepo({"-r", mirror, "sync", "--once", url}).status, 0);
    EXPECT_EQ(value(), "g1\n");
    EXPECT_EQ(mode_of(mirror), 0640u);

    // Not a repository; a repository of its own; the mirror of another prefix.
    const std::string text = dir / "text.db", other_mirror = dir / "target.db";
    e2e::write_file(text, "some text\n");
    EXPECT_EQ(hgxrepo({"-r", text, "sync", "--once", url}).status, 1);
    EXPECT_EQ(e2e::read_file(text), "some text\n");
    e2e::Result r = hgxrepo({"-r", other, "sync", "--once", url});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("a repository that is no mirror"), std::string::npos) << r.err;
    EXPECT_EQ(hgxrepo({"-r", other, "list"}).out, "wrn:/x/y\nwrn:/x/y:default\n");
    ASSERT_EQ(hgxrepo({"-r", other_mirror, "sync", "--once", target}).status, 0);
    const std::string held = hgxrepo({"-r", other_mirror, "export"}).out;
    r = hgxrepo({"-r", other_mirror, "sync", "--once", url});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("prefix target, not"), std::string::npos) << r.err;
    EXPECT_EQ(hgxrepo({"-r", other_mirror, "export"}).out, held);
}

// ---- a fleet: one service, an instance per host ---------------------------------

const std::string FLEET = "wrn:/network/http";
const std::string SERVER_NAME = "$%{sites/www/server_name} $%{config/user}\n";

class EtcdFleet : public EtcdCluster {
  protected:
    e2e::Result as(const std::string& user, std::vector<std::string> args,
                   const std::string& input = "") {
        return cluster(args, input, creds(user));
    }
    std::string kelvo(const std::string& repository, const std::string& wern,
                      const std::string& user = "") {
        e2e::Result r = e2e::kelvo(repository, {"-f", wern}, SERVER_NAME, creds(user));
        return r.status == 0 ? r.out : "status " + std::to_string(r.status) + ": " + r.err;
    }
    // A mirror as the user whose command tells what changed.
    std::unique_ptr<Sync> following(std::vector<std::string> options, const std::string& user) {
        options.insert(options.begin(), {"--exec", "printf '%s--\\n' \"$HGX_CHANGED\" >> " + seen});
        return start_sync(options, creds(user));
    }
    // The fleet of examples/fleet.json with etcd's authentication on, and
    // the users web01 and web02, each granted its own instance and status key.
    void with_host_users() {
        for (const std::string user : {"web01", "web02"})
            e2e::etcdctl(server.endpoints(), {"user", "add", user + ":" + user + "-pw"});
        ASSERT_TRUE(server.enable_auth("root-pw"));
        const std::string fleet = e2e::read_file(e2e::source_dir() + "/examples/fleet.json");
        ASSERT_EQ(as("root", {"import", "-"}, fleet).status, 0);
        for (const std::string user : {"web01", "web02"}) {
            e2e::Result g = as("root", {"grant", user, "--host", user, FLEET + ":" + user});
            ASSERT_EQ(g.status, 0) << g.err;
        }
    }
    void set(const std::string& user, const std::string& what, const std::string& value) {
        ASSERT_EQ(as(user, {"setprop", "--snapshot", what, value}).status, 0) << what;
    }
};

TEST_F(EtcdFleet, AHostUserReadsItsOwnInstanceAndNothingOfAnotherHost) {
    ASSERT_NO_FATAL_FAILURE(with_host_users());

    // A's mirror follows its instance, and kelvo reads it there and in the cluster.
    auto sync = following({}, "web01");
    ASSERT_TRUE(soon([&] { return local({"list"}).out == FLEET + "\n" + FLEET + ":web01\n"; }));
    EXPECT_EQ(kelvo(mirror, FLEET + ":web01"), "web01.example.org www-data\n");
    EXPECT_EQ(kelvo(url, FLEET + ":web01", "web01"), "web01.example.org www-data\n");
    EXPECT_EQ(told(), FLEET + ":web01\n--\n");
    // Another host's change is none of its business; its own and the fleet's are.
    ASSERT_NO_FATAL_FAILURE(set("root", FLEET + ":web02/:properties/sites/www/server_name", "b"));
    ASSERT_NO_FATAL_FAILURE(set("root", FLEET + "/:properties/config/user", "nobody"));
    ASSERT_TRUE(
        soon([&] { return kelvo(mirror, FLEET + ":web01") == "web01.example.org nobody\n"; }));
    EXPECT_EQ(told(), FLEET + ":web01\n--\n");

    // A reads nothing of B's: not through hgxrepo, kelvo, etcdctl or a mirror.
    const std::string refused =
        "The etcd user (HGX_ETCD_USER) is not permitted to do this in the repository";
    e2e::Result show = as("web01", {"show", FLEET + ":web02"});
    EXPECT_EQ(show.status, 1);
    EXPECT_NE(show.err.find(refused), std::string::npos) << show.err;
    EXPECT_EQ(
        kelvo(url, FLEET + ":web02", "web01"),
        "status 3: kelvo: Unable to get properties for " + FLEET + ":web02: " + refused + "\n");
    auto etcdctl = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {"--user", "web01:web01-pw"});
        return e2e::etcdctl(server.endpoints(), args);
    };
    e2e::Result get = etcdctl({"get", "--prefix", "fleet/o/network/http:web02/"});
    EXPECT_NE(get.status, 0);
    EXPECT_NE(get.err.find("permission denied"), std::string::npos) << get.err;
    EXPECT_EQ(get.out, "");
    e2e::Result other =
        hgxrepo({"-r", dir / "other.db", "sync", "--once", "--instance", FLEET + ":web02", url}, "",
                creds("web01"));
    EXPECT_EQ(other.status, 1);
    EXPECT_NE(other.err.find(refused), std::string::npos) << other.err;
    // Its own host's status key is A's to write, not another's.
    EXPECT_EQ(etcdctl({"put", "fleet/hosts/web01", "up"}).status, 0);
    EXPECT_NE(etcdctl({"put", "fleet/hosts/web02", "up"}).status, 0);

    // Granted again, the role holds the new grants alone.
    ASSERT_EQ(as("root", {"grant", "web01", FLEET + ":web03"}).status, 0);
    EXPECT_EQ(as("web01", {"show", FLEET + ":web03"}).status, 0);
    EXPECT_NE(as("web01", {"show", FLEET + ":web01"}).err.find(refused), std::string::npos);
    EXPECT_NE(etcdctl({"put", "fleet/hosts/web01", "up"}).status, 0);
    EXPECT_EQ(sync->stop(), 0);
}

// Time limits bound how long a member may stay silent, not how long a copy
// takes: a large first copy completes on a host that is busy. A mirror of
// some instances holds them, with their service's own groups.
TEST_F(EtcdFleet, ABigServiceIsCopiedOnABusyHostAndAMirrorOfSomeInstancesHoldsThem) {
    const int hosts = 2000;
    ASSERT_EQ(cluster({"import", "-"}, e2e::fleet_manifest("fleet/web", hosts, 20, 0)).status, 0);
    std::vector<pid_t> busy;
    for (int i = 0; i < 2; ++i)
        busy.push_back(etcd_testing::spawn({"sh", "-c", "while :; do :; done"}));
    e2e::Run copy;
    copy.wrapper = {"nice", "-n", "10"};
    copy.args = {e2e::hgxrepo_bin(), "-r", dir / "all.db", "sync", "--once", url};
    e2e::Result r = e2e::run(copy);
    for (pid_t pid : busy) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    ASSERT_EQ(r.status, 0) << r.err;
    std::string listed = hgxrepo({"-r", dir / "all.db", "list"}).out;
    EXPECT_EQ(std::count(listed.begin(), listed.end(), '\n'), hosts + 1);

    ASSERT_EQ(
        cluster({"import", "-"}, e2e::read_file(e2e::source_dir() + "/examples/fleet.json")).status,
        0);
    auto sync = following({"--instance", FLEET + ":web0[12]"}, "");
    const std::string both = FLEET + ":web01\n" + FLEET + ":web02\n";
    ASSERT_TRUE(soon([&] { return local({"list"}).out == FLEET + "\n" + both; }));
    EXPECT_EQ(kelvo(mirror, FLEET + ":web02"), "web02.example.org www-data\n");
    EXPECT_EQ(told(), both + "--\n");

    // Each change names what it changed among what the mirror holds: an
    // instance it does not hold, none; the service's own groups, all it holds.
    set("", FLEET + ":web03/:properties/sites/www/server_name", "c.example");
    set("", FLEET + ":web02/:properties/sites/www/server_name", "b.example");
    EXPECT_EQ(told(), FLEET + ":web02\n--\n");
    set("", FLEET + "/:properties/config/user", "nobody");
    EXPECT_EQ(told(), both + "--\n");
    EXPECT_EQ(kelvo(mirror, FLEET + ":web01"), "web01.example.org nobody\n");
    // An instance removed from the cluster leaves the mirror.
    ASSERT_EQ(cluster({"delete", FLEET + ":web01"}).status, 0);
    ASSERT_TRUE(soon([&] { return local({"list"}).out == FLEET + "\n" + FLEET + ":web02\n"; }));
    EXPECT_EQ(told(), FLEET + ":web01\n--\n");
    EXPECT_EQ(sync->stop(), 0);
    EXPECT_EQ(hgxrepo({"-r", mirror, "show", FLEET + ":web02", "running"}).out,
              cluster({"show", FLEET + ":web02", "running"}).out);
}

TEST_F(EtcdFleet, APrefixOfTheFirstLayoutIsNamedAndUpgradedWithAMirrorFollowing) {
    // The keys a writer of the first layout left (tests/e2e/fixtures): the
    // manifests examples/fleet.json and examples/guide.json imported, the
    // snapshot "before" of web02 taken, and web03's config/log_level set to
    // "debug" without a snapshot. Values are in base64 already.
    url = server.url("legacy");
    const auto keys = nlohmann::json::parse(
        std::ifstream(e2e::source_dir() + "/tests/e2e/fixtures/schema1-keys.json"));
    ASSERT_GT(keys.size(), 10u);
    for (const auto& kv : keys)
        server.post(0, "/v3/kv/put",
                    "{\"key\":\"" + etcd_testing::b64("legacy/" + kv[0].get<std::string>()) +
                        "\",\"value\":\"" + kv[1].get<std::string>() + "\"}");
    const std::string text =
        "The etcd prefix holds a repository of another schema version; convert it with hgxrepo "
        "-r URL upgrade";
    EXPECT_EQ(kelvo(url, FLEET + ":web01"),
              "status 3: kelvo: Unable to get properties for " + FLEET + ":web01: " + text + "\n");
    e2e::Result listed = cluster({"list"});
    EXPECT_EQ(listed.status, 1);
    EXPECT_NE(listed.err.find(text), std::string::npos) << listed.err;

    auto sync = following({}, "");
    ASSERT_TRUE(eventually([&] { return e2e::read_file(log).find(text) != std::string::npos; }));
    EXPECT_EQ(e2e::whole(cluster({"upgrade"})),
              e2e::Whole(0, url + ": converted to the current layout\n", ""));
    // The mirror copies afresh, and both hold what the same commands give a file.
    auto file = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {"-r", dir / "file.db"});
        return hgxrepo(args);
    };
    const std::string examples = e2e::source_dir() + "/examples/";
    file({"import", examples + "fleet.json", examples + "guide.json"});
    file({"snapshot", FLEET + ":web02", "before"});
    file({"setprop", FLEET + ":web03/:properties/config/log_level", "debug"});
    const std::string exported = file({"export"}).out;
    EXPECT_EQ(cluster({"export"}).out, exported);
    ASSERT_TRUE(soon([&] { return local({"export"}).out == exported; }));
    for (const char* snapshot : {"running", "before"})
        EXPECT_EQ(cluster({"show", FLEET + ":web02", snapshot}).out,
                  file({"show", FLEET + ":web02", snapshot}).out)
            << snapshot;
    EXPECT_EQ(kelvo(mirror, FLEET + ":web03"), "web03.example.org www-data\n");
    EXPECT_EQ(sync->stop(), 0);
    // Nothing of the first layout is left, and a second upgrade has nothing to do.
    for (const char* part : {"legacy/d/", "legacy/e/"}) EXPECT_EQ(server.count(part), 0) << part;
    EXPECT_EQ(cluster({"upgrade"}).out, url + ": already in the current layout\n");
}

// The mirror's file's own record of the revision it holds.
std::string revision_of(const std::string& mirror) {
    e2e::Run r;
    r.args = {"sqlite3", mirror, "select value from mirror where key = 'revision'"};
    std::string out = e2e::run(r).out;
    return out.substr(0, out.find('\n'));
}

// The value of a metric in a metrics file's text, "" where it is missing.
std::string metric(const std::string& text, const std::string& name) {
    std::smatch m;
    return std::regex_search(text, m, std::regex("\n" + name + " ([0-9]+)\n")) ? m[1].str() : "";
}

TEST_F(EtcdFleet, HostsTellWhereEveryMirrorStandsAndADeadOneGoes) {
    ASSERT_NO_FATAL_FAILURE(with_host_users());
    // Host 1's command waits for the test; host 2's fails. Each writes its
    // own status key with its own user, under a short lease. A command reads
    // the mirror: it gets none of the cluster's credentials, only the CA (no
    // secret).
    const std::string release = dir / "release", metrics = dir / "web01.prom", env = dir / "env";
    e2e::Env env1 = creds("web01"), env2 = creds("web02");
    for (e2e::Env* e : {&env1, &env2}) e->emplace("HGX_SYNC_STATUS_TTL", "3");
    env2.insert({{"HGX_ETCD_CERT", log},
                 {"HGX_ETCD_KEY", log},
                 {"HGX_ETCD_CACERT", "/etc/ca.pem"},
                 {"HGX_ETCD_TOKEN", "t"}});
    const std::string one = dir / "web01.db", two = dir / "web02.db";
    Sync first({"-r", one, "sync", "--host", "web01", "--metrics", metrics, "--exec",
                "until [ -e " + release + " ]; do sleep 0.05; done", url},
               log, env1);
    Sync second({"-r", two, "sync", "--host", "web02", "--exec", "env > " + env + "; exit 4", url},
                log, env2);
    auto hosts = [&](std::vector<std::string> args = {}) {
        args.insert(args.begin(), "hosts");
        return as("root", args);
    };
    auto row = [](const std::string& name, const std::string& out) {
        std::smatch m;
        std::regex line("(^|\n)" + name +
                        " +([0-9-]+) +([0-9-]+) +([0-9-]+) +([0-9-]+) +[0-9-]+\n");
        return std::regex_search(out, m, line) ? m[2].str() + " " + m[3].str() + " " + m[5].str()
                                               : "";
    };
    // Both copied; the second's command failed.
    ASSERT_TRUE(eventually([&] {
        return row("web02", hosts().out).find(" 4") != std::string::npos;
    })) << hosts().out
        << e2e::read_file(log);
    ASSERT_TRUE(eventually([&] { return !row("web01", hosts().out).empty(); }));
    std::string out = hosts().out;
    EXPECT_EQ(row("web01", out), revision_of(one) + " 0 -");
    EXPECT_EQ(row("web02", out), revision_of(two) + " 0 4");
    e2e::Result failed = hosts({"--failed"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.err, "hgxrepo: web02: the command failed (status 4) for revision " +
                              revision_of(two) + "\n");
    EXPECT_EQ(hosts({"--behind", "0"}).status, 0) << hosts({"--behind", "0"}).err;
    const std::string told_env = e2e::read_file(env);
    EXPECT_NE(told_env.find("HGX_CHANGED=" + FLEET + ":web02"), std::string::npos) << told_env;
    EXPECT_NE(told_env.find("\nHGX_ETCD_CACERT=/etc/ca.pem\n"), std::string::npos) << told_env;
    for (const char* name : {"USER", "PASSWORD", "CERT=", "KEY", "TOKEN"})
        EXPECT_EQ(told_env.find(std::string("HGX_ETCD_") + name), std::string::npos) << name;

    // A change reaches the second host; the first is held by its command.
    ASSERT_NO_FATAL_FAILURE(set("root", FLEET + "/:properties/config/user", "nobody"));
    ASSERT_TRUE(
        eventually([&] { return kelvo(two, FLEET + ":web02") == "web02.example.org nobody\n"; }));
    std::this_thread::sleep_for(1100ms);
    e2e::Result behind = hosts({"--behind", "0", "--json"});
    EXPECT_EQ(behind.status, 1);
    EXPECT_NE(behind.err.find("hgxrepo: web01: 1 revisions and "), std::string::npos) << behind.err;
    EXPECT_EQ(behind.err.find("web02"), std::string::npos) << behind.err;
    EXPECT_NE(behind.out.find("\"revisions\":1"), std::string::npos) << behind.out;
    EXPECT_EQ(hosts({"--behind", "3600"}).status, 0);
    e2e::write_file(release, "");
    ASSERT_TRUE(eventually([&] { return hosts({"--behind", "0"}).status == 0; })) << hosts().out;

    // The metrics file is in the exposition format, at the mirror's revision.
    ASSERT_TRUE(eventually([&] {
        return metric(e2e::read_file(metrics), "hgx_mirror_command_runs_total") == "2";
    })) << e2e::read_file(metrics);
    e2e::Run check;
    check.args = {"promtool", "check", "metrics"};
    check.input = e2e::read_file(metrics);
    e2e::Result promtool = e2e::run(check);
    EXPECT_EQ(promtool.status, 0) << promtool.out << promtool.err;
    EXPECT_EQ(metric(check.input, "hgx_mirror_revision"), revision_of(one));
    EXPECT_EQ(metric(check.input, "hgx_mirror_connected"), "1");

    // A name written by hand is shown on one line, escaped.
    e2e::Result put = e2e::etcdctl(server.endpoints(),
                                   {"--user", "root:root-pw", "put", "fleet/hosts/x\ny", "{}"});
    ASSERT_EQ(put.status, 0) << put.err;
    EXPECT_NE(hosts().out.find("\nx\\ny "), std::string::npos) << hosts().out;

    // A mirror killed outright leaves with its lease; one stopped leaves at once.
    EXPECT_EQ(first.stop(SIGKILL), 128 + SIGKILL);
    EXPECT_FALSE(row("web01", hosts().out).empty());
    ASSERT_TRUE(eventually([&] { return row("web01", hosts().out).empty(); })) << hosts().out;
    EXPECT_EQ(second.stop(), 0);
    EXPECT_TRUE(row("web02", hosts().out).empty()) << hosts().out;
}

}  // namespace
