// The cluster store: the repository in an etcd v3 cluster, below a prefix P.
//
// Keys (docs/etcd-store.md draws them):
//
//   P/repository               head: {"schema":1,"epoch":E}; every commit
//                              rewrites it, compared on its mod revision
//   P/e/E/<service>            the generation G that holds the service now
//   P/d/G/s                    the service: its own groups, instance names
//   P/d/G/i/<instance>/        an instance: its own groups, snapshot names
//   P/d/G/i/<instance>/<snap>  a snapshot's groups
//   P/w/W                      a commit under way: the generations it wrote
//   P/gc/W                     what a finished commit left to remove
//
// A generation is written once and never changed: a commit writes every
// service it changes whole under a new generation, invisible to everyone,
// in as many requests as that takes, and then switches to them in one small
// transaction that compares the head's mod revision with the one it read.
// So any commit, whatever its size, becomes visible at one revision or not
// at all, and of two racing commits the later one fails (HGX_ERROR_CONFLICT)
// instead of overwriting the other. A commit that changes few services
// moves their pointers within the epoch; one that changes many writes a
// whole new epoch of pointers and switches the head to it. Old generations
// are removed at the switch or right after it (P/gc records what is left if
// the writer dies); readers pinned to an earlier revision still see them,
// as etcd keeps every revision until it is compacted.
//
// A store reads everything at the revision of its first read (the head), so
// a run sees one state of the cluster. It loads what it is asked for and no
// more: a service's pointer and document when the service is first named, an
// instance with its snapshots when its groups are first wanted. Reading one
// instance therefore costs four requests, whatever the size of the cluster.
//
// Documents are binary (values are any bytes but NUL), see Doc below. Keys
// and values travel base64-encoded in the gateway's JSON.
#include <dlfcn.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <unordered_map>

#include "hgx_etcd_client.h"
#include "hgx_internal.h"

namespace hgx_detail {

namespace {

using json = nlohmann::json;

constexpr int CLUSTER_SCHEMA = 1;
constexpr long READ_BUDGET_MS = 5000;   // all the requests of one reading store
constexpr long WRITE_CALL_MS = 10000;   // one request of a writer
constexpr size_t BATCH_OPS = 100;       // etcd allows 128 operations a transaction
constexpr size_t BATCH_BYTES = 700000;  // of 1.5 MiB a request, base64 taking a third more
constexpr size_t DOC_LIMIT = 1000000;   // one document, in one request
constexpr size_t FEW_SERVICES = 40;     // pointers moved within the epoch

// ---- the client module ---------------------------------------------------------

std::string module_path_beside_program() {
    char exe[4096];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return "";
    std::string dir(exe, static_cast<size_t>(n));
    dir.resize(dir.rfind('/'));
    return dir + "/../lib/kelvo/hgx-etcd.so";
}

// The client interface of hgx-etcd.so, loaded on first use and kept for the
// life of the process (libcurl's global state is not torn down). Looked for
// in $HGX_ETCD_MODULE, beside the program (../lib/kelvo/), then where it is
// installed.
const hgx_etcd_client_api* client_module(std::string* why) {
    static const hgx_etcd_client_api* api = nullptr;
    static std::string failure;
    if (api) return api;
    std::vector<std::string> candidates;
    if (const char* env = std::getenv("HGX_ETCD_MODULE"); env && *env) candidates.push_back(env);
    candidates.push_back(module_path_beside_program());
#ifdef HGX_MODULE_DIR
    candidates.push_back(HGX_MODULE_DIR "/hgx-etcd.so");
#endif
    failure.clear();
    for (const std::string& path : candidates) {
        if (path.empty() || access(path.c_str(), R_OK) != 0) continue;
        void* so = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!so) {
            failure = dlerror();
            continue;
        }
        auto get =
            reinterpret_cast<const hgx_etcd_client_api* (*)()>(dlsym(so, HGX_ETCD_CLIENT_SYMBOL));
        const hgx_etcd_client_api* found = get ? get() : nullptr;
        if (found && found->abi == HGX_ETCD_CLIENT_ABI) return api = found;
        failure = path + ": not a client of this version";
        dlclose(so);
    }
    *why = failure.empty() ? "hgx-etcd.so not found" : failure;
    return nullptr;
}

// ---- URLs ------------------------------------------------------------------------

struct ClusterUrl {
    bool tls = false;
    std::string endpoints;  // "host:port,host:port"
    std::string prefix;     // without a trailing '/'
};

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

// ---- base64 ------------------------------------------------------------------------

constexpr char B64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

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

// false for text that is not base64.
bool unb64(std::string_view in, std::string* out) {
    out->clear();
    uint32_t acc = 0;
    int bits = 0;
    for (char c : in) {
        if (c == '=') break;
        const char* p = std::strchr(B64, c);
        if (!p || !c) return false;
        acc = acc << 6 | static_cast<uint32_t>(p - B64);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            *out += static_cast<char>((acc >> bits) & 0xff);
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

// ---- documents ---------------------------------------------------------------------

// A group as a document holds it.
struct DocProp {
    std::string name;
    int type = 0;
    std::string blob;
};
struct DocGroup {
    std::string name, type;
    std::vector<DocProp> props;
    std::vector<DocGroup> groups;
};
// A document: the groups of one owner and the names of what lies below it
// (a service's instances, an instance's snapshots; none for a snapshot).
struct Doc {
    std::vector<DocGroup> groups;
    std::vector<std::string> names;
};

// The encoding: "hgx1", then groups and names; a group is name, type,
// properties (name, type, blob) and nested groups; every count and length
// an unsigned LEB128 number, every text its length and its bytes.
class DocWriter {
  public:
    std::string take(const Doc& d) {
        out_ = "hgx1";
        groups(d.groups);
        number(d.names.size());
        for (const std::string& n : d.names) text(n);
        return std::move(out_);
    }

  private:
    void number(uint64_t v) {
        do {
            uint8_t b = v & 0x7f;
            v >>= 7;
            out_ += static_cast<char>(v ? b | 0x80 : b);
        } while (v);
    }
    void text(std::string_view s) {
        number(s.size());
        out_ += s;
    }
    void groups(const std::vector<DocGroup>& gs) {
        number(gs.size());
        for (const DocGroup& g : gs) {
            text(g.name);
            text(g.type);
            number(g.props.size());
            for (const DocProp& p : g.props) {
                text(p.name);
                number(static_cast<uint64_t>(p.type));
                text(p.blob);
            }
            groups(g.groups);
        }
    }
    std::string out_;
};

// Reads a document, refusing anything malformed (false), never reading past
// its end, and nesting no deeper than a wern could name.
class DocReader {
  public:
    bool read(std::string_view in, Doc* d) {
        in_ = in;
        if (in_.substr(0, 4) != "hgx1") return false;
        in_.remove_prefix(4);
        uint64_t n = 0;
        if (!groups(&d->groups, 0) || !number(&n)) return false;
        for (uint64_t i = 0; i < n; ++i) {
            d->names.emplace_back();
            if (!text(&d->names.back())) return false;
        }
        return in_.empty();
    }

  private:
    bool number(uint64_t* v) {
        *v = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            if (in_.empty()) return false;
            uint8_t b = static_cast<uint8_t>(in_[0]);
            in_.remove_prefix(1);
            *v |= static_cast<uint64_t>(b & 0x7f) << shift;
            if (!(b & 0x80)) return true;
        }
        return false;
    }
    bool text(std::string* s) {
        uint64_t n;
        if (!number(&n) || n > in_.size()) return false;
        s->assign(in_.substr(0, n));
        in_.remove_prefix(n);
        return true;
    }
    bool groups(std::vector<DocGroup>* gs, int depth) {
        uint64_t n;
        if (depth > static_cast<int>(WERN_LIMIT) || !number(&n) || n > in_.size()) return false;
        for (uint64_t i = 0; i < n; ++i) {
            gs->emplace_back();
            DocGroup& g = gs->back();
            uint64_t np;
            if (!text(&g.name) || !text(&g.type) || !number(&np) || np > in_.size()) return false;
            for (uint64_t k = 0; k < np; ++k) {
                g.props.emplace_back();
                uint64_t type;
                if (!text(&g.props.back().name) || !number(&type) || !text(&g.props.back().blob))
                    return false;
                g.props.back().type = static_cast<int>(type);
            }
            if (!groups(&g.groups, depth + 1)) return false;
        }
        return true;
    }
    std::string_view in_;
};

// ---- requests --------------------------------------------------------------------

struct Kv {
    std::string key, value;
    int64_t mod_revision = 0;
};

int64_t as_int(const json& j) {
    if (j.is_string()) return std::strtoll(j.get<std::string>().c_str(), nullptr, 10);
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

// A connection to the cluster: the client object and the error mapping.
class Cluster {
  public:
    Cluster(const hgx_etcd_client_api* api, void* client, long call_ms, bool budget)
        : api_(api), client_(client), call_ms_(call_ms), budget_(budget) {
        deadline_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(READ_BUDGET_MS);
    }
    ~Cluster() { api_->close(client_); }
    Cluster(const Cluster&) = delete;
    Cluster& operator=(const Cluster&) = delete;

    // POSTs a request; 0 with *reply set to a response of status 200, else
    // -1 with the error set and message filled.
    int call(const char* path, const json& request, json* reply, std::string* message);

    // Keys of a range at a revision (0: the newest); *revision receives the
    // revision the answer was read at.
    int range(const std::string& key, const std::string& end, int64_t at, std::vector<Kv>* out,
              int64_t* revision, std::string* message, bool count_only = false,
              int64_t* count = nullptr);
    // A transaction; *ok receives whether its comparisons held.
    int txn(const json& compare, const json& success, bool* ok, std::string* message);

    // The id of the cluster that answered last.
    const std::string& cluster_id() const { return cluster_id_; }
    const hgx_etcd_client_api* api() const { return api_; }
    void* client() const { return client_; }

  private:
    std::string cluster_id_;
    const hgx_etcd_client_api* api_;
    void* client_;
    long call_ms_;
    bool budget_;  // a reading store's requests share one budget
    std::chrono::steady_clock::time_point deadline_;
};

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

int Cluster::call(const char* path, const json& request, json* reply, std::string* message) {
    long ms = call_ms_;
    if (budget_) {
        ms = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                   deadline_ - std::chrono::steady_clock::now())
                                   .count());
        if (ms <= 0) return fail(HGX_ERROR_CLUSTER_TIMEOUT);
    }
    std::string body = request.dump();
    hgx_etcd_reply r{0, nullptr, 0};
    char why[512] = "";
    int s = api_->post(client_, path, body.data(), body.size(), ms, &r, why, sizeof why);
    if (s != HGX_ETCD_OK) {
        *message = why;
        return fail(client_error(s));
    }
    std::string text(r.body, r.size);
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
    *message = error;
    if (error.find("compacted") != std::string::npos) return fail(HGX_ERROR_REVISION_COMPACTED);
    if (error.find("request is too large") != std::string::npos ||
        error.find("too many operations") != std::string::npos)
        return fail(HGX_ERROR_TOO_LARGE);
    if (error.find("auth") != std::string::npos ||
        error.find("permission denied") != std::string::npos ||
        error.find("user name") != std::string::npos)
        return fail(HGX_ERROR_CLUSTER_CREDENTIALS);
    return fail(HGX_ERROR_CONNECTION_BROKEN);
}

int Cluster::range(const std::string& key, const std::string& end, int64_t at, std::vector<Kv>* out,
                   int64_t* revision, std::string* message, bool count_only, int64_t* count) {
    json req = {{"key", b64(key)}};
    if (!end.empty()) req["range_end"] = b64(end);
    if (at) req["revision"] = std::to_string(at);
    if (count_only) req["count_only"] = true;
    json reply;
    if (call("/v3/kv/range", req, &reply, message) < 0) return -1;
    if (revision) *revision = as_int(reply["header"]["revision"]);
    if (count) *count = reply.contains("count") ? as_int(reply["count"]) : 0;
    if (out) {
        out->clear();
        if (reply.contains("kvs"))
            for (const json& kv : reply["kvs"]) {
                Kv k;
                if (!unb64(kv.value("key", ""), &k.key) || !unb64(kv.value("value", ""), &k.value))
                    return fail(HGX_ERROR_CONNECTION_BROKEN);
                k.mod_revision = kv.contains("mod_revision") ? as_int(kv["mod_revision"]) : 0;
                out->push_back(std::move(k));
            }
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

// ---- the store ---------------------------------------------------------------------

struct PropEntry {
    int64_t id = 0;
    int type = 0;
    std::string blob;
};

struct PgEntry {
    std::string name, type;
    int kind = 0;  // of its owner
    int64_t owner = 0;
    int64_t service = 0;
};

struct InstanceEntry {
    int64_t service = 0;
    std::string name;
    bool loaded = false;  // its document and its snapshots are in memory
    std::map<std::string, int64_t> snapshots;
};

struct ServiceEntry {
    std::string name;
    std::string gen;      // the generation read; empty for a service added here
    bool loaded = false;  // its document is in memory
    bool full = false;    // and every instance with it
    std::map<std::string, int64_t> instances;
};

class EtcdStore final : public Store {
  public:
    EtcdStore(std::unique_ptr<Cluster> cluster, std::string prefix, bool writable)
        : cluster_(std::move(cluster)), p_(std::move(prefix) + "/"), writable_(writable) {}

    // Reads the head, at `at` or (0) the newest revision; 0, or -1 with the
    // error set.
    int open(bool create, int64_t at);

    int services(std::vector<Row>* out) override;
    int service_by_name(std::string_view name, Row* out) override;
    int instances(int64_t service, std::vector<Row>* out) override;
    int instance_by_name(int64_t service, std::string_view name, Row* out) override;
    int snapshots(int64_t instance, std::vector<Row>* out) override;
    int snapshot_by_name(int64_t instance, std::string_view name, Row* out) override;
    int pgs(int kind, int64_t owner, std::vector<Row>* out) override;
    int pg_by_name(int kind, int64_t owner, std::string_view name, Row* out) override;
    int props(int64_t pg, std::vector<Row>* out) override;
    int prop_by_name(int64_t pg, std::string_view name, Row* out) override;

    int64_t add_service(std::string_view name) override;
    int delete_service(int64_t service) override;
    int64_t add_instance(int64_t service, std::string_view name) override;
    int delete_instance(int64_t service, int64_t instance) override;
    int64_t add_snapshot(int64_t service, int64_t instance, std::string_view name) override;
    int delete_snapshot(int64_t service, int64_t instance, int64_t snapshot) override;
    int64_t add_pg(const PgPlace& place, std::string_view name, std::string_view type) override;
    int delete_pg(int64_t pg) override;
    int put_prop(int64_t pg, std::string_view name, int type, std::string_view blob,
                 bool replace) override;
    int delete_prop(int64_t pg, std::string_view name) override;
    int commit() override;

    int meta_get(std::string_view, std::string*) override {
        return fail(HGX_ERROR_INVALID_ARGUMENT);
    }
    int meta_set(std::string_view, std::string_view) override {
        return fail(HGX_ERROR_INVALID_ARGUMENT);
    }
    std::string source() const override {
        return "etcd cluster " + cluster_->cluster_id() + ", prefix " + p_.substr(0, p_.size() - 1);
    }
    int64_t revision() const override { return revision_; }
    // A service's generation is its version: written once, never changed.
    int service_versions(std::vector<std::pair<std::string, std::string>>* out) override;

  private:
    using Children = std::map<std::string, int64_t>;

    std::string head_key() const { return p_ + "repository"; }
    std::string pointer_key(const std::string& epoch, std::string_view service) const {
        return p_ + "e/" + epoch + "/" + std::string(service);
    }
    std::string gen_prefix(const std::string& gen) const { return p_ + "d/" + gen + "/"; }

    int range(const std::string& key, const std::string& end, std::vector<Kv>* out) {
        return cluster_->range(key, end, revision_, out, nullptr, &message_);
    }
    int64_t new_id() { return ++last_id_; }
    Children& pg_children(int kind, int64_t owner) { return pgs_by_owner_[{kind, owner}]; }

    // Loading, each at most once.
    int64_t service_stub(const std::string& name, const std::string& gen);
    int load_service(int64_t service);
    int load_instance(int64_t instance);
    int load_full(int64_t service);
    int adopt_instance(int64_t service, int64_t instance, const std::vector<Kv>& kvs);
    int read_doc(const std::string& value, Doc* doc);
    void adopt_groups(const std::vector<DocGroup>& groups, int kind, int64_t owner,
                      int64_t service);
    // Whose groups these are: the service an owner lies below, loaded.
    int loaded_owner(int kind, int64_t owner);

    // Changes.
    int writable_service(int64_t service);
    void forget_pgs(int kind, int64_t owner);
    void doc_groups(int kind, int64_t owner, std::vector<DocGroup>* out) const;
    void service_docs(int64_t service, const std::string& gen,
                      std::vector<std::pair<std::string, std::string>>* out) const;
    int write_batches(const std::vector<json>& ops);
    void collect_garbage(const std::string& record, const std::vector<std::string>& gens,
                         const std::string& epoch);
    void housekeeping();

    std::unique_ptr<Cluster> cluster_;
    std::string p_;  // the prefix, with its '/'
    bool writable_;
    bool exists_ = false;  // the head was there
    int64_t revision_ = 0;
    int64_t head_mod_ = 0;
    std::string epoch_;

    int64_t last_id_ = 0;
    bool listed_ = false;
    std::map<std::string, int64_t> service_ids_;   // known services by name
    std::set<std::string> absent_;                 // names known to have no service
    std::map<std::string, std::string> read_gen_;  // generation each name had when read
    std::set<std::string> touched_;                // names of services changed
    std::unordered_map<int64_t, ServiceEntry> services_;
    std::unordered_map<int64_t, InstanceEntry> instances_;
    std::unordered_map<int64_t, int64_t> snapshot_instance_;
    std::unordered_map<int64_t, std::string> snapshot_names_;
    std::unordered_map<int64_t, PgEntry> pgs_;
    std::map<std::pair<int, int64_t>, Children> pgs_by_owner_;
    std::unordered_map<int64_t, std::map<std::string, PropEntry>> props_;
};

int EtcdStore::open(bool create, int64_t at) {
    std::vector<Kv> head;
    if (cluster_->range(head_key(), "", at, &head, &revision_, &message_) < 0) return -1;
    if (at) revision_ = at;
    if (head.empty()) {
        // Nothing at all below the prefix: room for a new repository.
        int64_t count = 0;
        if (cluster_->range(p_, range_end(p_), revision_, nullptr, nullptr, &message_, true,
                            &count) < 0)
            return -1;
        if (count) return fail(HGX_ERROR_CLUSTER_FOREIGN);
        if (!create) return fail(HGX_ERROR_CLUSTER_NO_REPOSITORY);
        epoch_ = fresh_id();
        listed_ = true;
        return 0;
    }
    json h = json::parse(head[0].value, nullptr, false);
    if (!h.is_object() || !h.contains("schema") || !h["schema"].is_number_integer())
        return fail(HGX_ERROR_CLUSTER_FOREIGN);
    if (h["schema"].get<int>() != CLUSTER_SCHEMA || !h.contains("epoch") || !h["epoch"].is_string())
        return fail(HGX_ERROR_CLUSTER_SCHEMA);
    exists_ = true;
    head_mod_ = head[0].mod_revision;
    epoch_ = h["epoch"].get<std::string>();
    if (writable_) housekeeping();
    return 0;
}

int64_t EtcdStore::service_stub(const std::string& name, const std::string& gen) {
    int64_t id = new_id();
    ServiceEntry& s = services_[id];
    s.name = name;
    s.gen = gen;
    service_ids_[name] = id;
    read_gen_.emplace(name, gen);
    return id;
}

int EtcdStore::services(std::vector<Row>* out) {
    if (!listed_) {
        std::string from = pointer_key(epoch_, "");
        std::vector<Kv> kvs;
        if (range(from, range_end(from), &kvs) < 0) return -1;
        for (const Kv& kv : kvs) {
            std::string name = kv.key.substr(from.size());
            if (!service_ids_.count(name) && !touched_.count(name)) service_stub(name, kv.value);
        }
        listed_ = true;
    }
    out->clear();
    for (const auto& [name, id] : service_ids_) out->push_back({id, name, "", 0});
    return 0;
}

int EtcdStore::service_versions(std::vector<std::pair<std::string, std::string>>* out) {
    out->clear();
    if (!exists_) return 0;
    std::string from = pointer_key(epoch_, "");
    std::vector<Kv> kvs;
    if (range(from, range_end(from), &kvs) < 0) return -1;
    for (Kv& kv : kvs) out->emplace_back(kv.key.substr(from.size()), std::move(kv.value));
    return 0;
}

int EtcdStore::service_by_name(std::string_view name, Row* out) {
    std::string n(name);
    auto it = service_ids_.find(n);
    if (it == service_ids_.end()) {
        if (listed_ || absent_.count(n) || touched_.count(n)) return 0;
        std::vector<Kv> kvs;
        if (range(pointer_key(epoch_, n), "", &kvs) < 0) return -1;
        if (kvs.empty()) {
            absent_.insert(n);
            return 0;
        }
        service_stub(n, kvs[0].value);
        it = service_ids_.find(n);
    }
    *out = {it->second, it->first, "", 0};
    return 1;
}

int EtcdStore::read_doc(const std::string& value, Doc* doc) {
    if (!DocReader().read(value, doc)) {
        message_ = "a document of the repository is malformed";
        return fail(HGX_ERROR_CONNECTION_BROKEN);
    }
    return 0;
}

void EtcdStore::adopt_groups(const std::vector<DocGroup>& groups, int kind, int64_t owner,
                             int64_t service) {
    Children& children = pg_children(kind, owner);
    for (const DocGroup& g : groups) {
        int64_t id = new_id();
        pgs_[id] = {g.name, g.type, kind, owner, service};
        children[g.name] = id;
        auto& props = props_[id];
        for (const DocProp& p : g.props) props[p.name] = {new_id(), p.type, p.blob};
        adopt_groups(g.groups, OWNER_PG, id, service);
    }
}

int EtcdStore::load_service(int64_t service) {
    ServiceEntry& s = services_.at(service);
    if (s.loaded) return 0;
    std::vector<Kv> kvs;
    if (range(gen_prefix(s.gen) + "s", "", &kvs) < 0) return -1;
    Doc doc;
    if (kvs.empty()) {
        message_ = "service " + s.name + " has lost its document";
        return fail(HGX_ERROR_CONNECTION_BROKEN);
    }
    if (read_doc(kvs[0].value, &doc) < 0) return -1;
    adopt_groups(doc.groups, OWNER_SERVICE, service, service);
    for (const std::string& name : doc.names) {
        int64_t id = new_id();
        instances_[id] = {service, name, false, {}};
        s.instances[name] = id;
    }
    s.loaded = true;
    return 0;
}

// Takes in an instance's document and its snapshots, as the keys below
// P/d/G/i/<instance>/ give them.
int EtcdStore::adopt_instance(int64_t service, int64_t instance, const std::vector<Kv>& kvs) {
    InstanceEntry& in = instances_.at(instance);
    std::string base = gen_prefix(services_.at(service).gen) + "i/" + in.name + "/";
    std::map<std::string, const Kv*> snaps;
    const Kv* own = nullptr;
    for (const Kv& kv : kvs) {
        if (kv.key == base)
            own = &kv;
        else
            snaps[kv.key.substr(base.size())] = &kv;
    }
    Doc doc;
    if (!own) {
        message_ = "instance " + in.name + " has lost its document";
        return fail(HGX_ERROR_CONNECTION_BROKEN);
    }
    if (read_doc(own->value, &doc) < 0) return -1;
    adopt_groups(doc.groups, OWNER_INSTANCE, instance, service);
    for (const std::string& name : doc.names) {
        auto it = snaps.find(name);
        Doc snap;
        if (it == snaps.end() || read_doc(it->second->value, &snap) < 0) {
            message_ = "snapshot " + name + " of " + in.name + " is missing or malformed";
            return fail(HGX_ERROR_CONNECTION_BROKEN);
        }
        int64_t id = new_id();
        snapshot_instance_[id] = instance;
        snapshot_names_[id] = name;
        in.snapshots[name] = id;
        adopt_groups(snap.groups, OWNER_SNAPSHOT, id, service);
    }
    in.loaded = true;
    return 0;
}

int EtcdStore::load_instance(int64_t instance) {
    InstanceEntry& in = instances_.at(instance);
    if (in.loaded) return 0;
    std::string base = gen_prefix(services_.at(in.service).gen) + "i/" + in.name + "/";
    std::vector<Kv> kvs;
    if (range(base, range_end(base), &kvs) < 0) return -1;
    return adopt_instance(in.service, instance, kvs);
}

// Every instance of a service at once, before its first change.
int EtcdStore::load_full(int64_t service) {
    ServiceEntry& s = services_.at(service);
    if (s.full) return 0;
    if (load_service(service) < 0) return -1;
    std::string base = gen_prefix(s.gen) + "i/";
    std::vector<Kv> kvs;
    if (range(base, range_end(base), &kvs) < 0) return -1;
    std::map<std::string, std::vector<Kv>> by_instance;
    for (Kv& kv : kvs) {
        std::string rest = kv.key.substr(base.size());
        by_instance[rest.substr(0, rest.find('/'))].push_back(std::move(kv));
    }
    for (auto& [name, id] : s.instances)
        if (!instances_.at(id).loaded && adopt_instance(service, id, by_instance[name]) < 0)
            return -1;
    s.full = true;
    return 0;
}

namespace {

// Children of one parent as rows, in name order.
int rows_of(const std::map<std::string, int64_t>& children, std::vector<Row>* out) {
    out->clear();
    for (const auto& [name, id] : children) out->push_back({id, name, "", 0});
    return 0;
}

// One child by name: 1 with *out set, 0 none.
int row_of(const std::map<std::string, int64_t>& children, std::string_view name, Row* out) {
    auto it = children.find(std::string(name));
    if (it == children.end()) return 0;
    *out = {it->second, it->first, "", 0};
    return 1;
}

}  // namespace

int EtcdStore::instances(int64_t service, std::vector<Row>* out) {
    if (load_service(service) < 0) return -1;
    return rows_of(services_.at(service).instances, out);
}

int EtcdStore::instance_by_name(int64_t service, std::string_view name, Row* out) {
    if (load_service(service) < 0) return -1;
    return row_of(services_.at(service).instances, name, out);
}

int EtcdStore::snapshots(int64_t instance, std::vector<Row>* out) {
    if (load_instance(instance) < 0) return -1;
    return rows_of(instances_.at(instance).snapshots, out);
}

int EtcdStore::snapshot_by_name(int64_t instance, std::string_view name, Row* out) {
    if (load_instance(instance) < 0) return -1;
    return row_of(instances_.at(instance).snapshots, name, out);
}

int EtcdStore::loaded_owner(int kind, int64_t owner) {
    switch (kind) {
        case OWNER_SERVICE:
            return load_service(owner);
        case OWNER_INSTANCE:
            return load_instance(owner);
        case OWNER_SNAPSHOT:
            return load_instance(snapshot_instance_.at(owner));
        default:
            return 0;  // a group is in memory once its id was handed out
    }
}

int EtcdStore::pgs(int kind, int64_t owner, std::vector<Row>* out) {
    if (loaded_owner(kind, owner) < 0) return -1;
    rows_of(pg_children(kind, owner), out);
    for (Row& r : *out) r.text = pgs_.at(r.id).type;
    return 0;
}

int EtcdStore::pg_by_name(int kind, int64_t owner, std::string_view name, Row* out) {
    if (loaded_owner(kind, owner) < 0) return -1;
    int rc = row_of(pg_children(kind, owner), name, out);
    if (rc == 1) out->text = pgs_.at(out->id).type;
    return rc;
}

int EtcdStore::props(int64_t pg, std::vector<Row>* out) {
    out->clear();
    for (const auto& [name, p] : props_[pg]) out->push_back({p.id, name, p.blob, p.type});
    return 0;
}

int EtcdStore::prop_by_name(int64_t pg, std::string_view name, Row* out) {
    auto& m = props_[pg];
    auto it = m.find(std::string(name));
    if (it == m.end()) return 0;
    *out = {it->second.id, it->first, it->second.blob, it->second.type};
    return 1;
}

// ---- changes -------------------------------------------------------------------------

// A service about to change: wholly in memory, and marked for the commit.
int EtcdStore::writable_service(int64_t service) {
    if (!writable_) return fail(HGX_ERROR_PERMISSION_DENIED);
    auto it = services_.find(service);
    if (it == services_.end()) return fail(HGX_ERROR_NOT_FOUND);
    if (!it->second.gen.empty() && load_full(service) < 0) return -1;
    touched_.insert(it->second.name);
    return 0;
}

int64_t EtcdStore::add_service(std::string_view name) {
    if (!writable_) return fail(HGX_ERROR_PERMISSION_DENIED);
    Row r;
    int rc = service_by_name(name, &r);
    if (rc < 0) return -1;
    if (rc) return fail(HGX_ERROR_EXISTS);
    std::string n(name);
    int64_t id = new_id();
    ServiceEntry& s = services_[id];
    s.name = n;
    s.loaded = s.full = true;
    service_ids_[n] = id;
    absent_.erase(n);
    touched_.insert(n);
    return id;
}

void EtcdStore::forget_pgs(int kind, int64_t owner) {
    auto it = pgs_by_owner_.find({kind, owner});
    if (it == pgs_by_owner_.end()) return;
    Children children = std::move(it->second);
    pgs_by_owner_.erase(it);
    for (const auto& [name, id] : children) {
        forget_pgs(OWNER_PG, id);
        props_.erase(id);
        pgs_.erase(id);
    }
}

// A service goes whole, so nothing of it needs to be read first.
int EtcdStore::delete_service(int64_t service) {
    if (!writable_) return fail(HGX_ERROR_PERMISSION_DENIED);
    auto it = services_.find(service);
    if (it == services_.end()) return fail(HGX_ERROR_NOT_FOUND);
    ServiceEntry& s = it->second;
    std::vector<int64_t> ids;
    for (const auto& [name, id] : s.instances) ids.push_back(id);
    for (int64_t id : ids) {
        InstanceEntry& in = instances_.at(id);
        for (const auto& [name, sid] : in.snapshots) {
            forget_pgs(OWNER_SNAPSHOT, sid);
            snapshot_instance_.erase(sid);
            snapshot_names_.erase(sid);
        }
        forget_pgs(OWNER_INSTANCE, id);
        instances_.erase(id);
    }
    forget_pgs(OWNER_SERVICE, service);
    touched_.insert(s.name);
    service_ids_.erase(s.name);
    services_.erase(it);
    return 0;
}

int64_t EtcdStore::add_instance(int64_t service, std::string_view name) {
    if (writable_service(service) < 0) return -1;
    ServiceEntry& s = services_.at(service);
    std::string n(name);
    if (s.instances.count(n)) return fail(HGX_ERROR_EXISTS);
    int64_t id = new_id();
    instances_[id] = {service, n, true, {}};
    s.instances[n] = id;
    return id;
}

int EtcdStore::delete_instance(int64_t service, int64_t instance) {
    if (writable_service(service) < 0) return -1;
    auto it = instances_.find(instance);
    if (it == instances_.end()) return 0;
    for (const auto& [name, id] : it->second.snapshots) {
        forget_pgs(OWNER_SNAPSHOT, id);
        snapshot_instance_.erase(id);
        snapshot_names_.erase(id);
    }
    forget_pgs(OWNER_INSTANCE, instance);
    services_.at(service).instances.erase(it->second.name);
    instances_.erase(it);
    return 0;
}

int64_t EtcdStore::add_snapshot(int64_t service, int64_t instance, std::string_view name) {
    if (writable_service(service) < 0) return -1;
    InstanceEntry& in = instances_.at(instance);
    std::string n(name);
    if (in.snapshots.count(n)) return fail(HGX_ERROR_EXISTS);
    int64_t id = new_id();
    snapshot_instance_[id] = instance;
    snapshot_names_[id] = n;
    in.snapshots[n] = id;
    return id;
}

int EtcdStore::delete_snapshot(int64_t service, int64_t instance, int64_t snapshot) {
    if (writable_service(service) < 0) return -1;
    forget_pgs(OWNER_SNAPSHOT, snapshot);
    instances_.at(instance).snapshots.erase(snapshot_names_[snapshot]);
    snapshot_instance_.erase(snapshot);
    snapshot_names_.erase(snapshot);
    return 0;
}

int64_t EtcdStore::add_pg(const PgPlace& place, std::string_view name, std::string_view type) {
    if (writable_service(place.service) < 0) return -1;
    Children& c = pg_children(place.kind, place.owner);
    std::string n(name);
    if (c.count(n)) return fail(HGX_ERROR_EXISTS);
    int64_t id = new_id();
    pgs_[id] = {n, std::string(type), place.kind, place.owner, place.service};
    c[n] = id;
    return id;
}

int EtcdStore::delete_pg(int64_t pg) {
    auto it = pgs_.find(pg);
    if (it == pgs_.end()) return fail(HGX_ERROR_NOT_FOUND);
    if (writable_service(it->second.service) < 0) return -1;
    pg_children(it->second.kind, it->second.owner).erase(it->second.name);
    forget_pgs(OWNER_PG, pg);
    props_.erase(pg);
    pgs_.erase(pg);
    return 0;
}

int EtcdStore::put_prop(int64_t pg, std::string_view name, int type, std::string_view blob,
                        bool replace) {
    auto it = pgs_.find(pg);
    if (it == pgs_.end()) return fail(HGX_ERROR_NOT_FOUND);
    if (writable_service(it->second.service) < 0) return -1;
    auto& m = props_[pg];
    std::string n(name);
    auto p = m.find(n);
    if (p != m.end() && !replace) return fail(HGX_ERROR_EXISTS);
    int64_t id = p != m.end() ? p->second.id : new_id();
    m[n] = {id, type, std::string(blob)};
    return 0;
}

int EtcdStore::delete_prop(int64_t pg, std::string_view name) {
    auto it = pgs_.find(pg);
    if (it == pgs_.end()) return fail(HGX_ERROR_NOT_FOUND);
    if (writable_service(it->second.service) < 0) return -1;
    return props_[pg].erase(std::string(name)) ? 1 : 0;
}

// ---- commit ------------------------------------------------------------------------

void EtcdStore::doc_groups(int kind, int64_t owner, std::vector<DocGroup>* out) const {
    auto it = pgs_by_owner_.find({kind, owner});
    if (it == pgs_by_owner_.end()) return;
    for (const auto& [name, id] : it->second) {
        const PgEntry& g = pgs_.at(id);
        out->push_back({g.name, g.type, {}, {}});
        DocGroup& d = out->back();
        auto props = props_.find(id);
        if (props != props_.end())
            for (const auto& [pname, p] : props->second) d.props.push_back({pname, p.type, p.blob});
        doc_groups(OWNER_PG, id, &d.groups);
    }
}

// The keys and values of a service written whole under a generation.
void EtcdStore::service_docs(int64_t service, const std::string& gen,
                             std::vector<std::pair<std::string, std::string>>* out) const {
    const ServiceEntry& s = services_.at(service);
    std::string base = gen_prefix(gen);
    Doc doc;
    doc_groups(OWNER_SERVICE, service, &doc.groups);
    for (const auto& [name, id] : s.instances) {
        doc.names.push_back(name);
        const InstanceEntry& in = instances_.at(id);
        Doc idoc;
        doc_groups(OWNER_INSTANCE, id, &idoc.groups);
        for (const auto& [sname, sid] : in.snapshots) {
            idoc.names.push_back(sname);
            Doc sdoc;
            doc_groups(OWNER_SNAPSHOT, sid, &sdoc.groups);
            out->emplace_back(base + "i/" + name + "/" + sname, DocWriter().take(sdoc));
        }
        out->emplace_back(base + "i/" + name + "/", DocWriter().take(idoc));
    }
    out->emplace_back(base + "s", DocWriter().take(doc));
}

// Sends operations that need no comparison in transactions of bounded size.
int EtcdStore::write_batches(const std::vector<json>& ops) {
    json batch = json::array();
    size_t bytes = 0;
    auto flush = [&]() -> int {
        if (batch.empty()) return 0;
        bool ok = false;
        if (cluster_->txn(json::array(), batch, &ok, &message_) < 0) return -1;
        batch = json::array();
        bytes = 0;
        return 0;
    };
    for (const json& op : ops) {
        size_t size = op.dump().size();
        if (batch.size() >= BATCH_OPS || bytes + size > BATCH_BYTES * 4 / 3) {
            if (flush() < 0) return -1;
        }
        batch.push_back(op);
        bytes += size;
    }
    return flush();
}

// Removes what a finished commit replaced, then its record. A failure leaves
// the record for the next writer.
void EtcdStore::collect_garbage(const std::string& record, const std::vector<std::string>& gens,
                                const std::string& epoch) {
    std::vector<json> ops;
    for (const std::string& g : gens) ops.push_back(delete_prefix_op(gen_prefix(g)));
    if (!epoch.empty()) ops.push_back(delete_prefix_op(p_ + "e/" + epoch + "/"));
    if (write_batches(ops) == 0) write_batches({delete_op(record)});
}

// Removes what earlier writers left: garbage of finished commits, and the
// generations of commits that were abandoned (records older than an hour:
// a commit takes seconds, and one that comes back after its record is gone
// fails its comparison).
void EtcdStore::housekeeping() {
    std::string saved = message_;
    for (const char* kind : {"gc/", "w/"}) {
        std::string from = p_ + kind;
        std::vector<Kv> kvs;
        if (cluster_->range(from, range_end(from), 0, &kvs, nullptr, &message_) < 0) break;
        for (const Kv& kv : kvs) {
            json r = json::parse(kv.value, nullptr, false);
            if (!r.is_object()) continue;
            if (std::strcmp(kind, "w/") == 0 &&
                std::time(nullptr) - r.value("t", int64_t{0}) < 3600)
                continue;
            std::vector<std::string> gens;
            if (r.contains("gens") && r["gens"].is_array())
                for (const json& g : r["gens"])
                    if (g.is_string()) gens.push_back(g.get<std::string>());
            collect_garbage(kv.key, gens, r.value("epoch", std::string()));
        }
    }
    message_ = saved;
    set_error(HGX_ERROR_NONE);
}

int EtcdStore::commit() {
    if (!writable_) return fail(HGX_ERROR_PERMISSION_DENIED);
    if (touched_.empty() && exists_) return 0;
    const std::string w = fresh_id();
    const std::string record = p_ + "w/" + w;
    std::vector<json> data;
    std::vector<std::string> new_gens, old_gens;
    std::map<std::string, std::string> pointers;  // name -> new generation, "" removed
    for (const std::string& name : touched_) {
        auto it = service_ids_.find(name);
        std::string gen;
        if (it != service_ids_.end()) {
            gen = w + "-" + std::to_string(new_gens.size());
            std::vector<std::pair<std::string, std::string>> docs;
            service_docs(it->second, gen, &docs);
            for (auto& [key, value] : docs) {
                if (value.size() > DOC_LIMIT) {
                    message_ = std::string(hgx_strerror(HGX_ERROR_TOO_LARGE)) + ": wrn:/" + name +
                               ": " + key.substr(gen_prefix(gen).size()) + " would take " +
                               std::to_string(value.size()) + " bytes, of at most " +
                               std::to_string(DOC_LIMIT);
                    return fail(HGX_ERROR_TOO_LARGE);
                }
                data.push_back(put_op(key, value));
            }
            new_gens.push_back(gen);
        }
        pointers[name] = gen;
        auto old = read_gen_.find(name);
        if (old != read_gen_.end() && !old->second.empty()) old_gens.push_back(old->second);
    }
    bool many = pointers.size() > FEW_SERVICES || !exists_;
    std::string epoch = many ? fresh_id() : epoch_;
    json rec = {{"t", static_cast<int64_t>(std::time(nullptr))},
                {"gens", new_gens},
                {"epoch", many ? epoch : std::string()}};
    data.insert(data.begin(), put_op(record, rec.dump()));
    if (many) {
        // A new epoch: every pointer, changed or not, under the new epoch.
        std::map<std::string, std::string> all;
        if (exists_) {
            std::string from = pointer_key(epoch_, "");
            std::vector<Kv> kvs;
            if (range(from, range_end(from), &kvs) < 0) return -1;
            for (Kv& kv : kvs) all[kv.key.substr(from.size())] = std::move(kv.value);
        }
        for (const auto& [name, gen] : pointers) {
            if (gen.empty())
                all.erase(name);
            else
                all[name] = gen;
        }
        for (const auto& [name, gen] : all) data.push_back(put_op(pointer_key(epoch, name), gen));
    }
    auto abandon = [&]() {
        std::string saved = message_;
        hgx_error_t code = get_error();
        collect_garbage(record, new_gens, many ? epoch : std::string());
        message_ = saved;
        set_error(code);
        return -1;
    };
    if (write_batches(data) < 0) return abandon();

    // The switch: one transaction that holds only if nobody committed since
    // this store read the head, and this commit's record is still there.
    json compare = json::array();
    if (exists_)
        compare.push_back({{"target", "MOD"},
                           {"key", b64(head_key())},
                           {"result", "EQUAL"},
                           {"mod_revision", std::to_string(head_mod_)}});
    else
        compare.push_back({{"target", "VERSION"},
                           {"key", b64(head_key())},
                           {"result", "EQUAL"},
                           {"version", "0"}});
    compare.push_back(
        {{"target", "VERSION"}, {"key", b64(record)}, {"result", "GREATER"}, {"version", "0"}});
    json head = {{"schema", CLUSTER_SCHEMA}, {"epoch", epoch}, {"commit", w}};
    json ops = json::array({put_op(head_key(), head.dump()), delete_op(record)});
    std::string gc_key = p_ + "gc/" + w;
    if (many) {
        json gc = {{"gens", old_gens}, {"epoch", exists_ ? epoch_ : std::string()}};
        ops.push_back(put_op(gc_key, gc.dump()));
    } else {
        for (const auto& [name, gen] : pointers)
            ops.push_back(gen.empty() ? delete_op(pointer_key(epoch, name))
                                      : put_op(pointer_key(epoch, name), gen));
        for (const std::string& g : old_gens) ops.push_back(delete_prefix_op(gen_prefix(g)));
    }
    bool ok = false;
    if (cluster_->txn(compare, ops, &ok, &message_) < 0) return abandon();
    if (!ok) {
        message_ = "another writer changed the repository first";
        fail(HGX_ERROR_CONFLICT);
        return abandon();
    }
    if (many) collect_garbage(gc_key, old_gens, exists_ ? epoch_ : std::string());
    return 0;
}

}  // namespace

namespace {

// A client of the cluster a URL names: 0 with *out and *u set, else -1 with
// the error set and *detail saying more where there is more.
int connect(const std::string& url, long call_ms, bool budget, ClusterUrl* u,
            std::unique_ptr<Cluster>* out, std::string* detail) {
    if (parse_url(url, u) < 0) return fail(HGX_ERROR_BAD_URL);
    const hgx_etcd_client_api* api = client_module(detail);
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
    if (!client) {
        *detail = error;
        return fail(client_error(status));
    }
    *out = std::make_unique<Cluster>(api, client, call_ms, budget);
    return 0;
}

// The lines of a watch stream, taken apart as they arrive.
struct Follower {
    const std::function<bool(int64_t)>* on_commit;
    const std::function<bool()>* keep_going;
    std::string pending;
    hgx_error_t error = HGX_ERROR_NONE;
    std::string message;

    bool line(const std::string& text) {
        json j = json::parse(text, nullptr, false);
        if (!j.is_object()) return true;
        const json& r = j.contains("result") ? j["result"] : j;
        if (j.contains("error")) {
            error = HGX_ERROR_CONNECTION_BROKEN;
            message = j["error"].dump();
            return false;
        }
        if (r.value("canceled", false)) {
            error = r.contains("compact_revision") ? HGX_ERROR_REVISION_COMPACTED
                                                   : HGX_ERROR_CONNECTION_BROKEN;
            message = "the watch was cancelled: " + r.value("cancel_reason", std::string());
            return false;
        }
        if (r.contains("events"))
            for (const json& e : r["events"]) {
                int64_t revision =
                    e.contains("kv") ? as_int(e["kv"].value("mod_revision", json())) : 0;
                if (revision && !(*on_commit)(revision)) return false;
            }
        return true;
    }
};

int follow_data(void* p, const char* data, size_t size) {
    Follower* f = static_cast<Follower*>(p);
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

}  // namespace

std::unique_ptr<Store> open_cluster_store(const std::string& url, OpenMode mode,
                                          std::string* message, int64_t at_revision) {
    auto refuse = [&](const std::string& detail) -> std::unique_ptr<Store> {
        if (message) {
            *message = url + ": " + hgx_strerror(get_error());
            if (!detail.empty()) *message += " (" + detail + ")";
        }
        return nullptr;
    };
    bool reading = mode == OpenMode::READ;
    ClusterUrl u;
    std::unique_ptr<Cluster> cluster;
    std::string detail;
    if (connect(url, reading ? READ_BUDGET_MS : WRITE_CALL_MS, reading, &u, &cluster, &detail) < 0)
        return refuse(detail);
    auto store = std::make_unique<EtcdStore>(std::move(cluster), u.prefix, !reading);
    if (store->open(mode == OpenMode::CREATE, at_revision) < 0) return refuse(store->message());
    return store;
}

int follow_cluster(const std::string& url, int64_t after,
                   const std::function<bool(int64_t)>& on_commit,
                   const std::function<bool()>& keep_going, std::string* message) {
    ClusterUrl u;
    std::unique_ptr<Cluster> cluster;
    std::string detail;
    if (connect(url, WRITE_CALL_MS, false, &u, &cluster, &detail) < 0) {
        *message = detail;
        return -1;
    }
    json request = {
        {"create_request",
         {{"key", b64(u.prefix + "/repository")}, {"start_revision", std::to_string(after + 1)}}}};
    std::string body = request.dump();
    Follower f{&on_commit, &keep_going, {}, HGX_ERROR_NONE, {}};
    char error[512] = "";
    int status = cluster->api()->stream(cluster->client(), "/v3/watch", body.data(), body.size(),
                                        follow_data, follow_keep_going, &f, error, sizeof error);
    if (f.error != HGX_ERROR_NONE) {
        *message = f.message;
        return fail(f.error);
    }
    if (status == HGX_ETCD_STOPPED) return 0;
    if (status == HGX_ETCD_OK) {
        *message = "the cluster ended the watch";
        return fail(HGX_ERROR_CONNECTION_BROKEN);
    }
    *message = error;
    return fail(client_error(status));
}

}  // namespace hgx_detail
