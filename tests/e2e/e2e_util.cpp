#include "e2e_util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace e2e {

namespace {

// Pumps input into the child's stdin while draining its stdout and stderr,
// so that neither side blocks on a full pipe.
void pump(int in_fd, const std::string& input, int out_fd, int err_fd, Result& res) {
    int fds[3] = {in_fd, out_fd, err_fd};
    std::string* sinks[3] = {nullptr, &res.out, &res.err};
    size_t written = 0;
    if (input.empty()) close(std::exchange(fds[0], -1));
    char buf[65536];
    while (fds[1] >= 0 || fds[2] >= 0) {
        pollfd p[3];  // poll passes over the closed ones (-1)
        for (int i = 0; i < 3; ++i) p[i] = {fds[i], static_cast<short>(i ? POLLIN : POLLOUT), 0};
        if (poll(p, 3, -1) < 0) {
            if (errno == EINTR) continue;
            throw std::runtime_error("poll failed");
        }
        for (int i = 0; i < 3; ++i) {
            if (fds[i] < 0 || !p[i].revents) continue;
            ssize_t n = i ? read(fds[i], buf, sizeof buf)
                          : write(fds[0], input.data() + written, input.size() - written);
            if (n > 0 && i) sinks[i]->append(buf, static_cast<size_t>(n));
            if (n > 0 && !i) written += static_cast<size_t>(n);
            if (n <= 0 || (!i && written == input.size())) close(std::exchange(fds[i], -1));
        }
    }
    if (fds[0] >= 0) close(fds[0]);
}

// On the second pass of these tests the repositories live in etcd: the
// fixture that started the cluster wrote its endpoint (or why there is none)
// to the file that KELVO_TEST_ETCD_FILE names.
const std::string& cluster_endpoint() {
    static const std::string ENDPOINT = [] {
        const char* file = getenv("KELVO_TEST_ETCD_FILE");
        if (!file || !*file) return std::string();
        std::string text = read_file(file);
        while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
        return text;
    }();
    return ENDPOINT;
}

// Skips every test of a second pass whose cluster could not be started
// (only outside CI: there the fixture itself fails).
class ClusterPass : public ::testing::Environment {
  public:
    void SetUp() override {
        const std::string& e = cluster_endpoint();
        if (e.rfind("skip:", 0) == 0) GTEST_SKIP() << e;
    }
};
[[maybe_unused]] const auto* const CLUSTER_PASS =
    ::testing::AddGlobalTestEnvironment(new ClusterPass);

}  // namespace

bool on_cluster() {
    const std::string& e = cluster_endpoint();
    return !e.empty() && e.rfind("skip:", 0) != 0;
}

std::string repository_for(const std::string& path) {
    constexpr std::string_view DB_SUFFIX = ".db";
    if (!on_cluster() || path.empty() || path[0] != '/' || path.size() < DB_SUFFIX.size() ||
        path.compare(path.size() - DB_SUFFIX.size(), DB_SUFFIX.size(), DB_SUFFIX) != 0)
        return path;
    // Scratch directories are unique, and so each test's prefix.
    return "etcd://" + cluster_endpoint() + "/t" + path;
}

std::vector<std::string> private_mount_namespace(const std::string& dir) {
    return {"unshare",
            "--mount",
            "--propagation",
            "unchanged",
            "sh",
            "-c",
            "mount --make-rprivate / 2>/dev/null || "
            "mount --make-rprivate \"$(stat -c %m \"$0\")\" || exit 97\n"
            "exec \"$@\"",
            dir};
}

Result run(const Run& given) {
    Run r = given;
    for (size_t i = 1; i < r.args.size(); ++i)
        if (r.args[i - 1] == "-r") r.args[i] = repository_for(r.args[i]);
    if (auto it = r.env.find("HGX_REPOSITORY"); it != r.env.end() && it->second)
        it->second = repository_for(*it->second);
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC))
        throw std::runtime_error("pipe failed");
    signal(SIGPIPE, SIG_IGN);

    std::vector<std::string> argv_s = r.wrapper;
    argv_s.insert(argv_s.end(), r.args.begin(), r.args.end());
    std::vector<char*> argv;
    for (auto& a : argv_s) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        // The harness ignores SIGPIPE for itself; the program under test
        // gets the default, as it would from a shell.
        signal(SIGPIPE, SIG_DFL);
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        for (auto& [k, v] : r.env) {
            if (v)
                setenv(k.c_str(), v->c_str(), 1);
            else
                unsetenv(k.c_str());
        }
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    Result res;
    pump(in[1], r.input, out[0], err[0], res);
    int st = 0;
    while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
    }
    res.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    return res;
}

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

namespace {
Result command(std::vector<std::string> head, const std::vector<std::string>& args,
               const std::string& input, Env env, std::vector<std::string> wrapper = {}) {
    Run r;
    r.args = std::move(head);
    r.args.insert(r.args.end(), args.begin(), args.end());
    r.input = input;
    r.env = std::move(env);
    r.wrapper = std::move(wrapper);
    return run(r);
}
}  // namespace

Result etcdctl(const std::string& endpoints, const std::vector<std::string>& args,
               const std::string& input) {
    return command({"etcdctl", "--endpoints=" + endpoints}, args, input, {{"ETCDCTL_API", "3"}});
}

void make_repository(const std::string& path, const std::string& manifest_json, bool snapshot) {
    std::vector<std::string> args = {"-r", path, "import", "-"};
    if (!snapshot) args.insert(args.end() - 1, "--no-snapshot");
    Result res = hgxrepo(args, manifest_json);
    if (res.status != 0)
        ADD_FAILURE() << "hgxrepo import failed (" << res.status << "): " << res.err;
}

Result kelvo(const std::string& repository, const std::vector<std::string>& args,
             const std::string& input, const Env& env, std::vector<std::string> wrapper) {
    return program(kelvo_bin(), repository, args, input, env, std::move(wrapper));
}

Result program(const char* bin, const std::string& repository, const std::vector<std::string>& args,
               const std::string& input, const Env& env, std::vector<std::string> wrapper) {
    Env full = {{"HGX_REPOSITORY", repository},
                {"QRM_WERN", std::nullopt},
                {"QRM_METHOD", std::nullopt},
                {"QRM_RESTARTER", std::nullopt}};
    for (auto& [k, v] : env) full[k] = v;
    return command({bin}, args, input, std::move(full), std::move(wrapper));
}

Result hgxrepo(const std::vector<std::string>& args, const std::string& input, const Env& env) {
    return command({hgxrepo_bin()}, args, input, env);
}

// Written to a stream: GCC 12 at -O3 takes "literal" + std::string&& for an
// overlapping copy (-Wrestrict).
std::string generation_manifest(const std::string& service, int gen, int count) {
    std::ostringstream m;
    m << "{\"services\": {\"" << service
      << "\": {\"instances\": {\"default\": {\"groups\": {\"config\": {\"properties\": {";
    for (int i = 0; i < count; ++i) m << (i ? ",\"p" : "\"p") << i << "\": \"g" << gen << '"';
    m << "}}}}}}}}";
    return m.str();
}

std::string fleet_manifest(const std::string& service, int instances, int count, int gen) {
    std::ostringstream m;
    m << "{\"services\": {\"" << service << "\": {\"groups\": {\"config\": {\"properties\": {";
    for (int i = 0; i < count; ++i) m << (i ? ", \"d" : "\"d") << i << "\": \"default\"";
    m << "}}}, \"instances\": {";
    for (int k = 0; k < instances; ++k) {
        char host[16];
        std::snprintf(host, sizeof host, "host%05d", k);
        m << (k ? ", \"" : "\"") << host << "\": {\"groups\": {\"config\": {\"properties\": {";
        for (int i = 0; i < count; ++i)
            m << (i ? ", \"p" : "\"p") << i << "\": \"g" << gen << '-' << host << '-' << i << '"';
        m << "}}}}";
    }
    m << "}}}}";
    return m.str();
}

std::string generation_stencil(int count) {
    std::string s;
    for (int i = 0; i < count; ++i) {
        s += "$%{config/p";
        s += std::to_string(i);
        s += "} ";
    }
    return s + "\n";
}

std::string generation_of(const std::string& out, int count) {
    std::string first = out.substr(0, out.find(' '));
    std::string expected;
    for (int i = 0; i < count; ++i) {
        expected += first;
        expected += ' ';
    }
    return out == expected + "\n" ? first : "";
}

}  // namespace e2e
