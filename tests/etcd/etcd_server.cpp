#include "etcd_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include "../common/temp_dir.h"

namespace etcd_testing {

namespace {

int free_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    close(fd);
    return port;
}

// A connection to a port of 127.0.0.1 that gives up reading after 5 s; -1
// when none is made.
int connect_to(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    timeval tv{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) return fd;
    close(fd);
    return -1;
}

}  // namespace

pid_t spawn(const std::vector<std::string>& argv) {
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_RDWR);
        for (int fd : {0, 1, 2}) dup2(null, fd);
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    return pid;
}

namespace {

int run_quietly(const std::vector<std::string>& argv) {
    int status = 0;
    pid_t pid = spawn(argv);
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

bool may_skip(const std::string& why) {
    const char* ci = std::getenv("CI");
    return !(ci && *ci && std::strcmp(ci, "false") != 0) && !why.empty();
}

std::string b64(const std::string& in) {
    static const char T[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    unsigned bits = 0;
    int held = 0;  // bits not yet written out
    for (unsigned char c : in)
        for (bits = bits << 8 | c, held += 8; held >= 6; held -= 6)
            out += T[(bits >> (held - 6)) & 63];
    if (held > 0) out += T[(bits << (6 - held)) & 63];
    while (out.size() % 4 != 0) out += '=';
    return out;
}

EtcdServer::~EtcdServer() { stop(); }

bool EtcdServer::make_certificates(std::string* why) {
    const std::string& d = dir_;
    std::ofstream(d + "/san.cnf") << "subjectAltName=" << options_.tls_names << "\n";
    std::vector<std::vector<std::string>> steps = {
        {"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
         "/CN=test-ca", "-keyout", d + "/ca.key", "-out", d + "/ca.pem"},
    };
    for (const char* who : {"server", "client"}) {
        std::string w = who;
        steps.push_back({"openssl", "req", "-newkey", "rsa:2048", "-nodes", "-subj",
                         "/CN=" + (w == "server" ? std::string("localhost") : std::string("root")),
                         "-keyout", d + "/" + w + ".key", "-out", d + "/" + w + ".csr"});
        steps.push_back({"openssl", "x509", "-req", "-in", d + "/" + w + ".csr", "-CA",
                         d + "/ca.pem", "-CAkey", d + "/ca.key", "-CAcreateserial", "-days", "2",
                         "-extfile", d + "/san.cnf", "-out", d + "/" + w + ".pem"});
    }
    for (const auto& s : steps)
        if (run_quietly(s) != 0) {
            *why = "openssl could not make the test certificates";
            return false;
        }
    return true;
}

bool EtcdServer::launch(int m, bool existing) {
    Member& me = members_[m];
    std::string scheme = options_.tls ? "https://" : "http://";
    std::string client = scheme + "127.0.0.1:" + std::to_string(me.client_port);
    std::string cluster;
    for (const Member& o : members_)
        cluster += (cluster.empty() ? "" : ",") + o.name +
                   "=http://127.0.0.1:" + std::to_string(o.peer_port);
    std::vector<std::string> argv = {
        "etcd",
        "--name=" + me.name,
        "--data-dir=" + dir_ + "/" + me.name,
        "--listen-client-urls=" + client,
        "--advertise-client-urls=" + client,
        "--listen-peer-urls=http://127.0.0.1:" + std::to_string(me.peer_port),
        "--initial-advertise-peer-urls=http://127.0.0.1:" + std::to_string(me.peer_port),
        "--initial-cluster=" + cluster,
        "--initial-cluster-state=" + std::string(existing ? "existing" : "new"),
        "--initial-cluster-token=kelvo-test",
        "--heartbeat-interval=50",
        "--election-timeout=500",
        "--logger=zap",
        "--log-outputs=" + dir_ + "/" + me.name + ".log",
    };
    if (options_.tls)
        argv.insert(argv.end(),
                    {"--cert-file=" + dir_ + "/server.pem", "--key-file=" + dir_ + "/server.key",
                     "--trusted-ca-file=" + dir_ + "/ca.pem", "--client-cert-auth"});
    me.pid = spawn(argv);
    return me.pid > 0;
}

bool EtcdServer::start(const Options& options, std::string* why) {
    options_ = options;
    if (run_quietly({"sh", "-c", "command -v etcd"}) != 0) {
        *why = "etcd is not installed (Debian package etcd-server)";
        return false;
    }
    own_dir_ = options.dir.empty();
    dir_ = own_dir_ ? testing_support::make_temp_dir("kelvo-etcd") : options.dir;
    if (dir_.empty()) {
        *why = "cannot make a temporary directory";
        return false;
    }
    std::filesystem::create_directories(dir_);
    if (options.tls && !make_certificates(why)) return false;
    members_.resize(static_cast<size_t>(options.members));
    for (int m = 0; m < options.members; ++m) {
        members_[m].name = std::string("m").append(std::to_string(m));
        members_[m].client_port = free_port();
        members_[m].peer_port = free_port();
    }
    for (int m = 0; m < options.members; ++m)
        if (!launch(m, false)) {
            *why = "cannot start etcd";
            return false;
        }
    return wait_ready(why);
}

bool EtcdServer::wait_ready(std::string* why) const {
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < until) {
        bool all = true;
        for (size_t m = 0; m < members_.size() && all; ++m) {
            if (members_[m].pid < 0) continue;
            if (options_.tls) {  // no gateway to ask without TLS: a connection must do
                int fd = connect_to(members_[m].client_port);
                all = fd >= 0;
                if (fd >= 0) close(fd);
            } else {
                all = post(static_cast<int>(m), "/v3/kv/range", "{\"key\":\"AA==\"}")
                          .find("\"header\"") != std::string::npos;
            }
        }
        if (all) {
            if (options_.tls) std::this_thread::sleep_for(std::chrono::milliseconds(500));
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    *why = "etcd did not come up; see the logs in " + dir_;
    return false;
}

void EtcdServer::kill_member(int m) {
    Member& me = members_[m];
    if (me.pid < 0) return;
    kill(me.pid, SIGCONT);
    kill(me.pid, SIGKILL);
    waitpid(me.pid, nullptr, 0);
    me.pid = -1;
}

void EtcdServer::restart_member(int m) {
    std::string why;
    if (launch(m, true)) wait_ready(&why);
}

void EtcdServer::freeze(bool frozen, int member) {
    for (size_t m = 0; m < members_.size(); ++m) {
        pid_t pid = members_[m].pid;
        if (pid < 0 || (member >= 0 && static_cast<int>(m) != member)) continue;
        // A signal is delivered some time after kill() returns: a test that
        // went on at once could still be answered by the member it meant to
        // hang. /proc's state T says it is stopped.
        kill(pid, frozen ? SIGSTOP : SIGCONT);
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        for (;;) {
            std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
            std::string line;
            std::getline(stat, line);
            size_t end = line.rfind(')');
            bool stopped =
                end != std::string::npos && end + 2 < line.size() && line[end + 2] == 'T';
            if (stopped == frozen || std::chrono::steady_clock::now() >= until) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

void EtcdServer::detach() {
    members_.clear();
    own_dir_ = false;
}

void EtcdServer::stop() {
    for (size_t m = 0; m < members_.size(); ++m) kill_member(static_cast<int>(m));
    members_.clear();
    if (own_dir_ && !dir_.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    dir_.clear();
}

std::string EtcdServer::endpoints(bool with_stopped) const {
    std::string out;
    for (const Member& me : members_)
        if (with_stopped || me.pid > 0) {
            // Appended piece by piece: GCC 12 at -O3 takes "literal" +
            // std::string&& for an overlapping copy (-Wrestrict).
            if (!out.empty()) out += ',';
            out += "127.0.0.1:";
            out += std::to_string(me.client_port);
        }
    return out;
}

std::string EtcdServer::url(const std::string& prefix) const {
    return (options_.tls ? "etcds://" : "etcd://") + endpoints(true) + "/" + prefix;
}

std::string EtcdServer::post(int m, const std::string& path, const std::string& body) const {
    int fd = connect_to(members_[m].client_port);
    if (fd < 0) return "";
    std::string req = "POST " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\nContent-Length: " +
                      std::to_string(body.size()) + "\r\nContent-Type: application/json\r\n";
    req += "\r\n" + body;
    std::string resp;
    char buf[4096];
    if (write(fd, req.data(), req.size()) == static_cast<ssize_t>(req.size()))
        for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
            resp.append(buf, static_cast<size_t>(n));
    close(fd);
    size_t at = resp.find("\r\n\r\n");
    return at == std::string::npos ? "" : resp.substr(at + 4);
}

int EtcdServer::leader() const {
    static const std::regex LEAD("\"leader\":\"([0-9]+)\""), ME("\"member_id\":\"([0-9]+)\"");
    for (size_t m = 0; m < members_.size(); ++m) {
        if (members_[m].pid < 0) continue;
        std::string s = post(static_cast<int>(m), "/v3/maintenance/status", "{}");
        std::smatch l, i;
        if (std::regex_search(s, l, LEAD) && std::regex_search(s, i, ME) && l[1] == i[1])
            return static_cast<int>(m);
    }
    return -1;
}

void EtcdServer::put(const std::string& key, const std::string& value) const {
    post(0, "/v3/kv/put", "{\"key\":\"" + b64(key) + "\",\"value\":\"" + b64(value) + "\"}");
}

void EtcdServer::compact() const {
    std::string status = post(0, "/v3/kv/range", "{\"key\":\"AA==\"}");
    size_t at = status.find("\"revision\":\"") + 12;
    post(0, "/v3/kv/compaction",
         "{\"revision\":\"" + status.substr(at, status.find('"', at) - at) +
             "\",\"physical\":true}");
}

long EtcdServer::count(const std::string& prefix) const {
    std::string end = prefix;
    end.back() = static_cast<char>(end.back() + 1);
    std::string r = post(
        0, "/v3/kv/range",
        "{\"key\":\"" + b64(prefix) + "\",\"range_end\":\"" + b64(end) + "\",\"count_only\":true}");
    size_t at = r.find("\"count\":\"");
    return at == std::string::npos ? 0 : std::stol(r.substr(at + 9));
}

bool EtcdServer::enable_auth(const std::string& password) {
    post(0, "/v3/auth/role/add", "{\"name\":\"root\"}");
    post(0, "/v3/auth/user/add", "{\"name\":\"root\",\"password\":\"" + password + "\"}");
    post(0, "/v3/auth/user/grant", "{\"user\":\"root\",\"role\":\"root\"}");
    return post(0, "/v3/auth/enable", "{}").find("\"header\"") != std::string::npos;
}

}  // namespace etcd_testing
