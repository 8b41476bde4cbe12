// The cluster store's records and class, shared by its reading half
// (hgx_etcd.cpp) and its writing half (hgx_etcd_commit.cpp).
//
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
// Documents are binary (values are any bytes but NUL): hgx_etcd_doc.cpp. Keys
// and values travel base64-encoded in the gateway's JSON.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "hgx_etcd_internal.h"

namespace hgx_detail::etcd {

constexpr int CLUSTER_SCHEMA = 1;
constexpr size_t BATCH_OPS = 100;       // etcd allows 128 operations a transaction
constexpr size_t BATCH_BYTES = 700000;  // of 1.5 MiB a request, base64 taking a third more
constexpr size_t DOC_LIMIT = 1000000;   // one document, in one request
constexpr size_t FEW_SERVICES = 40;     // pointers moved within the epoch

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

    // A commit as planned before anything is written: its id and record,
    // the operations that write its generations (the record first), the
    // generations it writes and replaces, and the new generation of each
    // service it changes ("" for one removed).
    struct CommitPlan {
        std::string w, record;
        std::vector<json> data;
        std::vector<std::string> new_gens, old_gens;
        std::map<std::string, std::string> pointers;
        bool many = false;  // a new epoch of pointers rather than moved ones
        std::string epoch;  // the epoch the head names after the switch
    };
    int plan_services(CommitPlan* c);
    int plan_pointers(CommitPlan* c);
    int switch_head(const CommitPlan& c);
    int abandon(const CommitPlan& c);
    std::string gc_key(const std::string& w) const { return p_ + "gc/" + w; }

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

}  // namespace hgx_detail::etcd
