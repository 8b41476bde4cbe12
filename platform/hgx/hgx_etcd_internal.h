// What the parts of the etcd store share: URLs, the wire (base64, requests
// and their errors, the client module), and the documents the store keeps.
// The store itself is hgx_etcd.cpp; the wire hgx_etcd_wire.cpp; the
// documents hgx_etcd_doc.cpp.
#pragma once

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "hgx_etcd_client.h"
#include "hgx_etcd_doc.h"
#include "hgx_internal.h"

namespace hgx_detail::etcd {

using json = nlohmann::json;

constexpr long READ_BUDGET_MS = 5000;  // all the requests of one reading store
// A writer gives up once the cluster has left its requests unanswered for
// this long in all since it last answered: a silent cluster costs a command
// this much, however many requests it had left to send.
constexpr long WRITE_CALL_MS = 5000;
// A watch silent for this long has its member asked whether it still
// answers, and is moved to the next member when it does not within as long.
constexpr long WATCH_IDLE_MS = 1500;

struct ClusterUrl {
    bool tls = false;
    std::string endpoints;  // "host:port,host:port"
    std::string prefix;     // without a trailing '/'
};

std::string b64(std::string_view in);
// false for text that is not base64.
bool unb64(std::string_view in, std::string* out);
// The end of the range of every key that starts with the prefix.
std::string range_end(std::string prefix);
// A random name for a generation or a commit: 16 hex digits, so that two
// writers never pick the same one.
std::string fresh_id();

// ---- requests ----------------------------------------------------------------

struct Kv {
    std::string key, value;
    int64_t mod_revision = 0;
};

// A number of an answer: etcd's gateway writes 64-bit numbers as strings.
// 0 for anything that is neither.
int64_t as_int(const json& j);

// Appends the keys of a range's answer to *out. 0, or -1 with
// HGX_ERROR_CONNECTION_BROKEN set where a key or value is not base64.
int append_kvs(const json& reply, std::vector<Kv>* out);

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
    // -1 with the error set and *message the line for the user: the error's
    // text, and after it what failed where there is more to say. A request
    // that only reads (`read`) may be asked of several members at once.
    int call(const char* path, const json& request, json* reply, std::string* message,
             bool read = false);

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
    long silent_ms_ = 0;  // a writer's time waited without an answer
};

hgx_error_t client_error(int status);
// The line for the user on a failure of the cluster: the error's text, and
// the detail after it where there is one.
std::string failure_text(hgx_error_t code, const std::string& detail);
// Fails with the code, *message set to failure_text; a TLS failure's line
// becomes the thread's text of the error (hgx_strerror), so that kelvo's
// message names what failed too. Returns -1.
int fail_with(hgx_error_t code, const std::string& detail, std::string* message);
json put_op(const std::string& key, std::string_view value);
json delete_op(const std::string& key);
json delete_prefix_op(const std::string& prefix);

// A client of the cluster a URL names: 0 with *out and *u set, else -1 with
// the error set and *detail saying more where there is more.
int connect(const std::string& url, long call_ms, bool budget, ClusterUrl* u,
            std::unique_ptr<Cluster>* out, std::string* detail);

}  // namespace hgx_detail::etcd
