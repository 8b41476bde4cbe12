// Hosts in a cluster: the status key that a host's mirror keeps under an
// etcd lease (P/hosts/NAME), and what is read of every host and of the
// repository's commits to tell how far each is behind.
//
// The commits are told apart by the head: its etcd version counts the
// commits the repository has had, its mod revision is the revision of the
// last one, and its value says when that was made. The head's history (etcd
// keeps every revision until it is compacted) gives the same of any earlier
// revision, and so the first commit after one.
#include <cstdlib>

#include "hgx_etcd_store.h"
#include "hgx_write.h"

namespace hgx_detail::etcd {

namespace {

const json& field(const json& j, const char* name) {
    static const json NONE;
    auto it = j.is_object() ? j.find(name) : j.end();
    return j.is_object() && it != j.end() ? *it : NONE;
}

// The repository's last commit as of revision at (0: now): 1 with *out set,
// 0 where there was no repository then, -1 with the error set and *message
// the line. *revision (if given) receives the revision the answer was read at.
int read_commit(Cluster& c, const Layout& k, int64_t at, hgx_commit_info* out, int64_t* revision,
                std::string* message) {
    json request = {{"key", b64(k.head())}};
    if (at) request["revision"] = std::to_string(at);
    json reply;
    if (c.call("/v3/kv/range", request, &reply, message, true) < 0) return -1;
    if (revision) *revision = as_int(field(field(reply, "header"), "revision"));
    const json& kvs = field(reply, "kvs");
    if (!kvs.is_array() || kvs.empty()) return 0;
    const json& kv = kvs[0];
    std::string value;
    if (!unb64(field(kv, "value").is_string() ? field(kv, "value").get<std::string>() : "", &value))
        return fail_with(HGX_ERROR_CONNECTION_BROKEN, "the head is not base64", message);
    json head = json::parse(value, nullptr, false);
    *out = {as_int(field(kv, "mod_revision")), as_int(field(kv, "version")),
            as_int(field(head, "time"))};
    return 1;
}

// A client for the cluster a URL names, its layout and a line on failure.
struct Client {
    std::unique_ptr<Cluster> cluster;
    std::unique_ptr<Layout> layout;
};

int open_client(const std::string& url, bool budget, Client* out, std::string* message) {
    ClusterUrl u;
    std::string detail;
    if (connect(url, WRITE_CALL_MS, budget, &u, &out->cluster, &detail) < 0) {
        *message = url + ": " + failure_text(get_error(), detail);
        return -1;
    }
    out->layout = std::make_unique<Layout>(u.prefix + "/");
    return 0;
}

}  // namespace

}  // namespace hgx_detail::etcd

using namespace hgx_detail;
using namespace hgx_detail::etcd;

// A host's key: its client, the lease that holds it (0: none yet or lost)
// and the record last written, to be written again under a new lease.
struct hgx_status_key {
    Client client;
    std::string key;
    int ttl = 0;
    int64_t lease = 0;
    std::string record;
    bool written = false;
    std::string message;
};

namespace {

int grant_lease(hgx_status_key* k) {
    json reply;
    if (k->client.cluster->call("/v3/lease/grant", {{"TTL", std::to_string(k->ttl)}}, &reply,
                                &k->message) < 0)
        return -1;
    k->lease = as_int(field(reply, "ID"));
    if (k->lease) return 0;
    k->message = "the cluster granted no lease";
    return fail(HGX_ERROR_CONNECTION_BROKEN);
}

int put_record(hgx_status_key* k) {
    if (!k->lease && grant_lease(k) < 0) return -1;
    json request = {
        {"key", b64(k->key)}, {"value", b64(k->record)}, {"lease", std::to_string(k->lease)}};
    json reply;
    if (k->client.cluster->call("/v3/kv/put", request, &reply, &k->message) == 0) {
        k->written = true;
        return 0;
    }
    // A lease the cluster let lapse (the host was cut off longer than its
    // time): a new one, once.
    if (k->message.find("lease not found") == std::string::npos) return -1;
    k->lease = 0;
    if (grant_lease(k) < 0) return -1;
    request["lease"] = std::to_string(k->lease);
    if (k->client.cluster->call("/v3/kv/put", request, &reply, &k->message) < 0) return -1;
    k->written = true;
    return 0;
}

}  // namespace

hgx_status_key_t* hgx_status_key_open(const char* url, std::string_view name, int ttl,
                                      std::string* message) {
    return guarded<hgx_status_key_t*>(nullptr, [&]() -> hgx_status_key_t* {
        std::string where = url ? url : "";
        if (cluster_only(where, "a host's status is kept in a cluster", message) < 0)
            return nullptr;
        if (!valid_segment(name) || ttl < 2) {
            *message = ttl < 2 ? "a status key's lease lasts 2 seconds or more"
                               : std::string(name) + ": not a host name";
            fail(HGX_ERROR_INVALID_ARGUMENT);
            return nullptr;
        }
        auto k = std::make_unique<hgx_status_key>();
        if (open_client(where, false, &k->client, message) < 0) return nullptr;
        k->key = k->client.layout->host(name);
        k->ttl = ttl;
        return k.release();
    });
}

int hgx_status_key_put(hgx_status_key_t* k, std::string_view record) {
    return guarded(-1, [&]() -> int {
        k->record = record;
        return put_record(k);
    });
}

int hgx_status_key_renew(hgx_status_key_t* k) {
    return guarded(-1, [&]() -> int {
        if (!k->lease) return k->written ? put_record(k) : 0;
        json reply;
        if (k->client.cluster->call("/v3/lease/keepalive", {{"ID", std::to_string(k->lease)}},
                                    &reply, &k->message) < 0)
            return -1;
        const json& r = reply.contains("result") ? reply["result"] : reply;
        if (as_int(field(r, "TTL")) > 0) return 0;
        k->lease = 0;
        return put_record(k);
    });
}

int hgx_status_key_commit(hgx_status_key_t* k, int64_t revision, hgx_commit_info* commit) {
    return guarded(-1, [&]() -> int {
        return read_commit(*k->client.cluster, *k->client.layout, revision, commit, nullptr,
                           &k->message);
    });
}

const char* hgx_status_key_message(const hgx_status_key_t* k) {
    return k ? k->message.c_str() : "";
}

void hgx_status_key_close(hgx_status_key_t* k) {
    if (k && k->lease) {
        guarded(0, [&]() -> int {
            json reply;
            return k->client.cluster->call("/v3/lease/revoke", {{"ID", std::to_string(k->lease)}},
                                           &reply, &k->message);
        });
    }
    delete k;
}

int hgx_hosts_read(const char* url, std::map<std::string, std::string>* records,
                   hgx_commit_info* head, std::string* message) {
    return guarded(-1, [&]() -> int {
        std::string where = url ? url : "";
        if (cluster_only(where, "hosts keep their status in a cluster, not in a file", message) < 0)
            return -1;
        Client c;
        if (open_client(where, true, &c, message) < 0) return -1;
        int64_t at = 0;
        hgx_commit_info last;
        std::vector<Kv> kvs;
        const std::string from = c.layout->host("");
        int rc = read_commit(*c.cluster, *c.layout, 0, &last, &at, message);
        if (rc < 0 || range_all(*c.cluster, from, range_end(from), at, &kvs, message) < 0) {
            *message = where + ": " + *message;
            return -1;
        }
        records->clear();
        for (Kv& kv : kvs) (*records)[kv.key.substr(from.size())] = std::move(kv.value);
        *head = rc ? last : hgx_commit_info{};
        return 0;
    });
}

int hgx_last_commit(const char* url, hgx_commit_info* last, std::string* message) {
    return guarded(-1, [&]() -> int {
        std::string where = url ? url : "";
        Client c;
        if (open_client(where, true, &c, message) < 0) return -1;
        int rc = read_commit(*c.cluster, *c.layout, 0, last, nullptr, message);
        if (rc < 0) *message = where + ": " + *message;
        return rc;
    });
}

int hgx_commit_after(const char* url, int64_t after, hgx_commit_info* next, std::string* message) {
    return guarded(-1, [&]() -> int {
        std::string where = url ? url : "";
        Client c;
        if (open_client(where, true, &c, message) < 0) return -1;
        auto failed = [&]() {
            *message = where + ": " + *message;
            return -1;
        };
        hgx_commit_info found;
        int rc = read_commit(*c.cluster, *c.layout, 0, &found, nullptr, message);
        if (rc < 0) return failed();
        if (rc == 0 || found.revision <= after) return 0;
        // The first commit after `after` lies in (low, found.revision]: the
        // commit as of a revision between them either is after `after` (and
        // then no later than the one found so far) or is not (and then the
        // first one comes after that revision). A revision compacted away
        // counts as one with no commit after `after`.
        int64_t low = after;
        while (found.revision - low > 1) {
            int64_t middle = low + (found.revision - low) / 2;
            hgx_commit_info at;
            rc = read_commit(*c.cluster, *c.layout, middle, &at, nullptr, message);
            if (rc < 0 && get_error() != HGX_ERROR_REVISION_COMPACTED) return failed();
            if (rc > 0 && at.revision > after)
                found = at;
            else
                low = middle;
        }
        set_error(HGX_ERROR_NONE);
        *next = found;
        return 1;
    });
}
