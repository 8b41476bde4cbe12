// The wire of the etcd store: URLs, the client module, base64, requests and
// their errors, and the watch a mirror follows.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "hgx_etcd_internal.h"

namespace hgx_detail::etcd {

namespace {

// ---- the client module ---------------------------------------------------------

// The client modules: plain HTTP over sockets, and HTTPS through libcurl,
// which a process loads only for a cluster named by etcds://.
constexpr const char* MODULE = "hgx-etcd.so";
constexpr const char* TLS_MODULE = "hgx-etcd-tls.so";

std::string module_path_beside_program(const char* name) {
    char exe[4096];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return "";
    std::string dir(exe, static_cast<size_t>(n));
    dir.resize(dir.rfind('/'));
    return dir + "/../lib/kelvo/" + name;
}

// Loads the module at path when its owner and mode can be trusted with
// this process: owned by root or by the user the process runs as, and
// writable by nobody else; a process that holds more than its user's
// rights (set-id, file capabilities) takes root's modules only. The file
// checked is the file loaded: it is opened once, looked at through the
// descriptor and loaded through it. Null with *why set (empty when there
// is no such file).
void* load_trusted(const std::string& path, int flags, std::string* why) {
    why->clear();
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat st;
    char by_fd[64];
    snprintf(by_fd, sizeof by_fd, "/proc/self/fd/%d", fd);
    const bool raised = getauxval(AT_SECURE) != 0;
    void* so = nullptr;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        *why = path + ": not a regular file";
    } else if (st.st_uid != 0 && (raised || st.st_uid != geteuid())) {
        *why = path + ": not loaded: owned by uid " + std::to_string(st.st_uid) +
               (raised ? ", not root" : ", neither root nor this user");
    } else if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        *why = path + ": not loaded: writable by group or others";
    } else if (access(by_fd, F_OK) == 0) {
        so = dlopen(by_fd, flags);
    } else if (!raised) {
        // No /proc (a bare chroot): by its name, checked a moment ago.
        so = dlopen(path.c_str(), flags);
    } else {
        *why = path + ": not loaded: /proc is needed to load it safely";
    }
    if (so == nullptr && why->empty()) {
        const char* error = dlerror();
        *why = path + ": " + (error != nullptr ? error : "cannot be loaded");
    }
    close(fd);
    return so;
}

// The client interface of hgx-etcd.so, or with tls of hgx-etcd-tls.so,
// loaded on first use and kept for the life of the process (libcurl's
// global state is not torn down, connections are kept for reuse). Looked
// for in $HGX_ETCD_MODULE (the TLS module beside the file it names; ignored
// by a process with raised privileges), beside the program (../lib/kelvo/),
// then where it is installed.
const hgx_etcd_client_api* client_module(bool tls, std::string* why) {
    static const hgx_etcd_client_api* apis[2] = {nullptr, nullptr};
    const hgx_etcd_client_api*& api = apis[tls];
    const char* name = tls ? TLS_MODULE : MODULE;
    std::string failure;
    if (api) return api;
    std::vector<std::string> candidates;
    if (const char* env = secure_getenv("HGX_ETCD_MODULE"); env && *env) {
        std::string named = env;
        if (tls) named = named.substr(0, named.rfind('/') + 1) + name;
        candidates.push_back(named);
    }
    candidates.push_back(module_path_beside_program(name));
#ifdef HGX_MODULE_DIR
    candidates.push_back(std::string(HGX_MODULE_DIR "/") + name);
#endif
    for (const std::string& path : candidates) {
        if (path.empty()) continue;
        // Lazy: a function of the TLS module's dependency tree (libcurl's)
        // is bound when first called, not all of them at load (libraries
        // linked to bind at once still do).
        std::string refused;
        void* so = load_trusted(path, RTLD_LAZY | RTLD_LOCAL, &refused);
        if (!so) {
            if (!refused.empty()) failure = refused;
            continue;
        }
        auto get =
            reinterpret_cast<const hgx_etcd_client_api* (*)()>(dlsym(so, HGX_ETCD_CLIENT_SYMBOL));
        const hgx_etcd_client_api* found = get ? get() : nullptr;
        if (found && found->abi == HGX_ETCD_CLIENT_ABI) return api = found;
        failure = path + ": not a client of this version";
        dlclose(so);
    }
    *why = failure.empty() ? std::string(name) + " not found" : failure;
    return nullptr;
}

// ---- URLs ------------------------------------------------------------------------

bool valid_port(std::string_view p) {
    if (p.empty() || p.size() > 5) return false;
    for (char c : p)
        if (c < '0' || c > '9') return false;
    int n = std::atoi(std::string(p).c_str());
    return n > 0 && n < 65536;
}

bool valid_endpoint(std::string_view e) {
    size_t colon = e.rfind(':');
    if (colon == std::string_view::npos || colon == 0) return false;
    std::string_view host = e.substr(0, colon);
    if (host.front() == '[') {
        if (host.back() != ']' || host.size() < 3) return false;
    } else {
        for (char c : host)
            if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-'))
                return false;
    }
    return valid_port(e.substr(colon + 1));
}

// 0 with *out set, or -1 for a URL that is not of the documented form.
int parse_url(std::string_view url, ClusterUrl* out) {
    std::string_view rest;
    if (url.substr(0, 7) == "etcd://") {
        rest = url.substr(7);
    } else if (url.substr(0, 8) == "etcds://") {
        out->tls = true;
        rest = url.substr(8);
    } else {
        return -1;
    }
    size_t slash = rest.find('/');
    std::string_view hosts = rest.substr(0, slash);
    std::string_view prefix = slash == std::string_view::npos ? "" : rest.substr(slash + 1);
    if (hosts.empty()) return -1;
    size_t start = 0;
    while (true) {
        size_t comma = hosts.find(',', start);
        if (!valid_endpoint(
                hosts.substr(start, comma == std::string_view::npos ? comma : comma - start)))
            return -1;
        if (comma == std::string_view::npos) break;
        start = comma + 1;
    }
    while (!prefix.empty() && prefix.back() == '/') prefix.remove_suffix(1);
    for (char c : prefix)
        if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f || c == '?' || c == '#') return -1;
    out->endpoints = hosts;
    out->prefix = prefix.empty() ? "hgx" : std::string(prefix);
    return 0;
}

}  // namespace

// ---- base64 ------------------------------------------------------------------------

namespace {
constexpr char B64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string b64(std::string_view in) {
    std::string out;
    out.reserve((in.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < in.size(); i += 3) {
        uint32_t v = static_cast<uint8_t>(in[i]) << 16 | static_cast<uint8_t>(in[i + 1]) << 8 |
                     static_cast<uint8_t>(in[i + 2]);
        for (int k = 18; k >= 0; k -= 6) out += B64[(v >> k) & 63];
    }
    if (i < in.size()) {
        uint32_t v = static_cast<uint8_t>(in[i]) << 16;
        if (i + 1 < in.size()) v |= static_cast<uint8_t>(in[i + 1]) << 8;
        out += B64[(v >> 18) & 63];
        out += B64[(v >> 12) & 63];
        out += i + 1 < in.size() ? B64[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

namespace {
// The value of each base64 digit, 64 for any other byte: every document a
// run reads comes through here, a lookup per byte.
constexpr std::array<uint8_t, 256> B64_VALUES = [] {
    std::array<uint8_t, 256> v{};
    v.fill(64);
    for (uint8_t i = 0; i < 64; ++i) v[static_cast<uint8_t>(B64[i])] = i;
    return v;
}();
}  // namespace

// false for text that is not base64.
bool unb64(std::string_view in, std::string* out) {
    out->clear();
    out->reserve(in.size() / 4 * 3 + 3);
    uint32_t acc = 0;
    int bits = 0;
    for (char c : in) {
        if (c == '=') break;
        uint8_t value = B64_VALUES[static_cast<uint8_t>(c)];
        if (value == 64) return false;
        acc = acc << 6 | value;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out->push_back(static_cast<char>((acc >> bits) & 0xff));
        }
    }
    return true;
}

// The end of the range of every key that starts with the prefix.
std::string range_end(std::string prefix) {
    while (!prefix.empty()) {
        unsigned char last = static_cast<unsigned char>(prefix.back());
        if (last < 0xff) {
            prefix.back() = static_cast<char>(last + 1);
            return prefix;
        }
        prefix.pop_back();
    }
    return std::string(1, '\0');  // every key
}

// ---- requests --------------------------------------------------------------------

int64_t as_int(const json& j) {
    if (j.is_string()) return std::strtoll(j.get_ref<const std::string&>().c_str(), nullptr, 10);
    if (j.is_number_integer()) return j.get<int64_t>();
    return 0;
}

// A random name for a generation or a commit: 16 hex digits, so that two
// writers never pick the same one.
std::string fresh_id() {
    static std::mt19937_64 rng(
        std::random_device{}() ^
        static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
        static_cast<uint64_t>(getpid()));
    char buf[17];
    std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(rng()));
    return buf;
}

namespace {
std::atomic<int64_t> bytes_read{0};  // answers and watch streams, for hgx_cluster_bytes_read
}  // namespace

hgx_error_t client_error(int status) {
    switch (status) {
        case HGX_ETCD_TIMEOUT:
            return HGX_ERROR_CLUSTER_TIMEOUT;
        case HGX_ETCD_CREDENTIALS:
            return HGX_ERROR_CLUSTER_CREDENTIALS;
        case HGX_ETCD_TLS:
            return HGX_ERROR_CLUSTER_TLS;
        case HGX_ETCD_NO_MEMORY:
            return HGX_ERROR_NO_MEMORY;
        default:
            return HGX_ERROR_CLUSTER_UNREACHABLE;
    }
}

std::string failure_text(hgx_error_t code, const std::string& detail) {
    std::string text = error_text(code);
    if (detail.empty() || detail.compare(0, text.size(), text) == 0)
        return detail.empty() ? text : detail;
    return text + ": " + detail;
}

int fail_with(hgx_error_t code, const std::string& detail, std::string* message) {
    *message = failure_text(code, detail);
    // What failed in TLS is the user's to mend (a file, a CA, a host name):
    // every program's text of the failure names it.
    if (code == HGX_ERROR_CLUSTER_TLS && *message != error_text(code)) {
        set_error_text(code, *message);
        return -1;
    }
    return fail(code);
}

namespace {

// The error of a request that etcd answered with a failure, by etcd's text.
hgx_error_t answer_error(const std::string& error) {
    if (error.find("compacted") != std::string::npos) return HGX_ERROR_REVISION_COMPACTED;
    if (error.find("request is too large") != std::string::npos ||
        error.find("too many operations") != std::string::npos)
        return HGX_ERROR_TOO_LARGE;
    // The user is known, but its roles do not reach what was asked.
    if (error.find("permission denied") != std::string::npos)
        return HGX_ERROR_CLUSTER_NOT_PERMITTED;
    if (error.find("auth") != std::string::npos || error.find("user name") != std::string::npos)
        return HGX_ERROR_CLUSTER_CREDENTIALS;
    return HGX_ERROR_CONNECTION_BROKEN;
}

}  // namespace

int Cluster::call(const char* path, const json& request, json* reply, std::string* message,
                  bool read) {
    using std::chrono::steady_clock;
    auto failed = [&](hgx_error_t code, const std::string& detail) {
        return fail_with(code, detail, message);
    };
    long ms = budget_ ? static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                              deadline_ - steady_clock::now())
                                              .count())
                      : call_ms_ - silent_ms_;
    if (ms <= 0) return failed(HGX_ERROR_CLUSTER_TIMEOUT, "");
    std::string body = request.dump();
    hgx_etcd_reply r{0, nullptr, 0};
    char why[512] = "";
    steady_clock::time_point began = steady_clock::now();
    int s = api_->post(client_, path, body.data(), body.size(), ms, read ? HGX_ETCD_READ : 0, &r,
                       why, sizeof why);
    if (s != HGX_ETCD_OK) {
        silent_ms_ += static_cast<long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - began)
                .count());
        return failed(client_error(s), why);
    }
    silent_ms_ = 0;
    std::string text(r.body, r.size);
    bytes_read += static_cast<int64_t>(r.size);
    long status = r.http_status;
    api_->release(&r);
    json j = json::parse(text, nullptr, false);
    if (status == 200 && !j.is_discarded()) {
        if (j.contains("header") && j["header"].contains("cluster_id"))
            cluster_id_ = j["header"]["cluster_id"].is_string()
                              ? j["header"]["cluster_id"].get<std::string>()
                              : j["header"]["cluster_id"].dump();
        *reply = std::move(j);
        return 0;
    }
    std::string error = j.is_object() && j.contains("error") && j["error"].is_string()
                            ? j["error"].get<std::string>()
                            : text;
    hgx_error_t code = answer_error(error);
    // etcd's words add nothing to the texts of the errors it is mapped to.
    return failed(code, code == HGX_ERROR_CONNECTION_BROKEN || code == HGX_ERROR_TOO_LARGE
                            ? error
                            : std::string());
}

int Cluster::range(const std::string& key, const std::string& end, int64_t at, std::vector<Kv>* out,
                   int64_t* revision, std::string* message, bool count_only, int64_t* count) {
    json req = {{"key", b64(key)}};
    if (!end.empty()) req["range_end"] = b64(end);
    if (at) req["revision"] = std::to_string(at);
    if (count_only) req["count_only"] = true;
    json reply;
    if (call("/v3/kv/range", req, &reply, message, true) < 0) return -1;
    if (revision) *revision = as_int(reply["header"]["revision"]);
    if (count) *count = reply.contains("count") ? as_int(reply["count"]) : 0;
    if (out) {
        out->clear();
        return append_kvs(reply, out);
    }
    return 0;
}

int append_kvs(const json& reply, std::vector<Kv>* out) {
    if (!reply.contains("kvs")) return 0;
    for (const json& kv : reply["kvs"]) {
        Kv k;
        if (!unb64(kv.value("key", ""), &k.key) || !unb64(kv.value("value", ""), &k.value))
            return fail(HGX_ERROR_CONNECTION_BROKEN);
        k.mod_revision = kv.contains("mod_revision") ? as_int(kv["mod_revision"]) : 0;
        out->push_back(std::move(k));
    }
    return 0;
}

int Cluster::txn(const json& compare, const json& success, bool* ok, std::string* message) {
    json reply;
    if (call("/v3/kv/txn", {{"compare", compare}, {"success", success}, {"failure", json::array()}},
             &reply, message) < 0)
        return -1;
    *ok = reply.value("succeeded", false);
    return 0;
}

json put_op(const std::string& key, std::string_view value) {
    return {{"request_put", {{"key", b64(key)}, {"value", b64(value)}}}};
}
json delete_op(const std::string& key) { return {{"request_delete_range", {{"key", b64(key)}}}}; }
json delete_prefix_op(const std::string& prefix) {
    return {
        {"request_delete_range", {{"key", b64(prefix)}, {"range_end", b64(range_end(prefix))}}}};
}

// A client of the cluster a URL names: 0 with *out and *u set, else -1 with
// the error set and *detail saying more where there is more.
int connect(const std::string& url, long call_ms, bool budget, ClusterUrl* u,
            std::unique_ptr<Cluster>* out, std::string* detail) {
    if (parse_url(url, u) < 0) return fail(HGX_ERROR_BAD_URL);
    const hgx_etcd_client_api* api = client_module(u->tls, detail);
    if (!api) return fail(HGX_ERROR_CLUSTER_CLIENT);
    auto env = [](const char* name) -> const char* {
        const char* v = std::getenv(name);
        return v && *v ? v : nullptr;
    };
    hgx_etcd_options o{u->endpoints.c_str(),    u->tls,
                       env("HGX_ETCD_CACERT"),  env("HGX_ETCD_CERT"),
                       env("HGX_ETCD_KEY"),     env("HGX_ETCD_USER"),
                       env("HGX_ETCD_PASSWORD")};
    int status = HGX_ETCD_OK;
    char error[512] = "";
    void* client = api->open(&o, &status, error, sizeof error);
    if (!client) return fail_with(client_error(status), error, detail);
    *out = std::make_unique<Cluster>(api, client, call_ms, budget);
    return 0;
}

namespace {

// The lines of a watch stream, taken apart as they arrive.
struct Follower {
    const std::function<bool(int64_t)>* on_commit = nullptr;
    const std::function<bool()>* keep_going = nullptr;
    int64_t next = 0;    // the revision the watch starts at when made again
    bool heard = false;  // a commit came, or the member answered a probe
    std::string pending;
    hgx_error_t error = HGX_ERROR_NONE;
    std::string message;

    bool line(const std::string& text) {
        json j = json::parse(text, nullptr, false);
        if (!j.is_object()) return true;
        const json& r = j.contains("result") ? j["result"] : j;
        if (j.contains("error")) {
            std::string e = j["error"].is_object() ? j["error"].value("message", std::string())
                                                   : j["error"].dump();
            error = answer_error(e);
            message = failure_text(error, error == HGX_ERROR_CONNECTION_BROKEN ? e : "");
            return false;
        }
        if (r.value("canceled", false)) {
            std::string reason = r.value("cancel_reason", std::string());
            error = r.contains("compact_revision") ? HGX_ERROR_REVISION_COMPACTED
                                                   : answer_error(reason);
            message = failure_text(error, error == HGX_ERROR_CONNECTION_BROKEN
                                              ? "the watch was cancelled: " + reason
                                              : std::string());
            return false;
        }
        if (r.contains("events"))
            for (const json& e : r["events"]) {
                int64_t revision =
                    e.contains("kv") ? as_int(e["kv"].value("mod_revision", json())) : 0;
                if (!revision) continue;
                heard = true;
                if (!(*on_commit)(revision)) return false;
                next = revision + 1;
            }
        return true;
    }
};

int follow_data(void* p, const char* data, size_t size) {
    Follower* f = static_cast<Follower*>(p);
    bytes_read += static_cast<int64_t>(size);
    try {
        f->pending.append(data, size);
        size_t nl;
        while ((nl = f->pending.find('\n')) != std::string::npos) {
            std::string text = f->pending.substr(0, nl);
            f->pending.erase(0, nl + 1);
            if (!f->line(text)) return 0;
        }
        return 1;
    } catch (const std::bad_alloc&) {
        f->error = HGX_ERROR_NO_MEMORY;
        return 0;
    }
}

int follow_keep_going(void* p) { return (*static_cast<Follower*>(p)->keep_going)() ? 1 : 0; }
void follow_alive(void* p) { static_cast<Follower*>(p)->heard = true; }

}  // namespace

}  // namespace hgx_detail::etcd

namespace hgx_detail {

using namespace etcd;

int64_t cluster_bytes_read() { return bytes_read; }

// The watch moves from member to member as each fails, starting again after
// the last commit it handed on; the cluster is lost when every member in
// turn has failed without a commit or an answer in between.
int follow_cluster(const std::string& url, int64_t after,
                   const std::function<bool(int64_t)>& on_commit,
                   const std::function<bool()>& keep_going, std::string* message) {
    ClusterUrl u;
    std::unique_ptr<Cluster> cluster;
    if (connect(url, WRITE_CALL_MS, false, &u, &cluster, message) < 0) return -1;
    size_t members =
        1 + static_cast<size_t>(std::count(u.endpoints.begin(), u.endpoints.end(), ','));
    std::string head = b64(u.prefix + "/repository");
    std::string probe = json({{"key", head}, {"count_only", true}}).dump();
    Follower f;
    f.on_commit = &on_commit;
    f.keep_going = &keep_going;
    f.next = after + 1;
    size_t failures = 0;
    while (true) {
        std::string body =
            json({{"create_request", {{"key", head}, {"start_revision", std::to_string(f.next)}}}})
                .dump();
        hgx_etcd_stream s{"/v3/watch",
                          body.data(),
                          body.size(),
                          "/v3/kv/range",
                          probe.data(),
                          probe.size(),
                          WATCH_IDLE_MS,
                          follow_data,
                          follow_keep_going,
                          follow_alive,
                          &f};
        f.heard = false;
        f.pending.clear();
        char error[512] = "";
        int status = cluster->api()->stream(cluster->client(), &s, error, sizeof error);
        if (f.error != HGX_ERROR_NONE) {
            *message = f.message.empty() ? failure_text(f.error, "") : f.message;
            return fail(f.error);
        }
        if (status == HGX_ETCD_STOPPED) return 0;
        if (status == HGX_ETCD_OK) status = HGX_ETCD_UNREACHABLE;  // the member left
        failures = f.heard ? 1 : failures + 1;
        if (failures >= members || status == HGX_ETCD_TLS || status == HGX_ETCD_NO_MEMORY)
            return fail_with(client_error(status), error, message);
    }
}

}  // namespace hgx_detail
