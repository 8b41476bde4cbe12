// The cluster store's records and class, shared by its reading half
// (hgx_etcd.cpp), its writing half (hgx_etcd_commit.cpp) and its care of the
// cluster (hgx_etcd_admin.cpp: leftovers of writers, upgrade, grants).
//
// The cluster store: the repository in an etcd v3 cluster, below a prefix P.
// docs/etcd-store.md draws the keys; in short:
//
//   P/repository                  head: {"schema":2,"epoch":ER,"commit":W}; every
//                                 commit rewrites it, compared on its mod revision
//   P/changes                     what the commit that wrote the head changed
//   P/o/S:/p/ER                   service S: {"es":ES,"doc":D}, under the head's epoch
//   P/o/S:/d/D                    its own groups
//   P/o/S:I/p/ES                  instance I of S: {"doc":D,"snaps":{NAME:D,...}},
//                                 under the service's epoch
//   P/o/S:I/d/D                   its own groups, and each snapshot's groups
//   P/l/ER/S                      index of the services, as their pointers
//   P/x/ES/I                      index of a service's instances, as their pointers
//   P/t/W, P/t/W/...              a large commit under way and its lists
//   P/hosts/NAME                  a host's status (kept by its mirror)
//
// Everything of one service lies below P/o/S: and everything of one
// instance below P/o/S:I/ (':' and '/' cannot be part of a name, so no
// service's or instance's range holds another's), so that etcd's role-based
// access can let a host read its service's own groups and its instance and
// nothing of another host's.
//
// A document is written once under a fresh id and never changed; pointers
// name the documents. A commit writes the documents it changed and moves
// the pointers of what it changed, so a change of one instance writes a few
// keys whatever the size of its service. A commit that fits in one etcd
// transaction is that transaction, compared on the head's mod revision. A
// larger one writes its documents first, invisible to everyone, and then
// switches in one small transaction: it moves the few pointers it changed,
// and where it changed many instances of a service (or many services) it
// has written every pointer of that service (or every service's) anew
// under a fresh epoch, which the switch names instead. Either way a commit
// becomes visible at one revision or not at all, and of two racing commits
// the later fails (HGX_ERROR_CONFLICT) instead of overwriting the other.
//
// A store reads everything at the revision of its first read (the head).
// A run reads three ranges: the head, its service's P/o/S:/ and its
// instance's P/o/S:I/ (pointer and documents in one answer each).
//
// Documents are binary (values are any bytes but NUL): hgx_etcd_doc.cpp. Keys
// and values travel base64-encoded in the gateway's JSON.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "hgx_etcd_internal.h"

namespace hgx_detail::etcd {

constexpr int CLUSTER_SCHEMA = 2;
constexpr size_t BATCH_OPS = 100;       // etcd allows 128 operations a transaction
constexpr size_t BATCH_BYTES = 700000;  // of 1.5 MiB a request, base64 taking a third more
constexpr size_t DOC_LIMIT = 1000000;   // one document, in one request
constexpr size_t SWITCH_OPS = 90;       // the switch of a large commit, within BATCH_OPS
constexpr size_t PAGE_KEYS = 500;       // keys per answer of a long range
constexpr size_t CHANGES_LIMIT = 1000;  // names in P/changes before it says "everything"
constexpr int64_t WRITER_TTL = 20;      // seconds a silent writer's record outlives it
constexpr int BULK_AFTER = 8;           // single instance loads before a service's bulk load

// A service's pointer: the epoch of its instances' pointers and its own
// document. An instance's: its document and each snapshot's.
struct ServicePointer {
    std::string es, doc;
};
struct InstancePointer {
    std::string doc;
    std::map<std::string, std::string> snaps;
    bool operator==(const InstancePointer&) const = default;
};
std::string encode_pointer(const ServicePointer& p);
std::string encode_pointer(const InstancePointer& p);
// false for a value that is not such a pointer.
bool decode_pointer(std::string_view value, ServicePointer* p);
bool decode_pointer(std::string_view value, InstancePointer* p);

// Where everything lies below a prefix (with its '/').
class Layout {
  public:
    explicit Layout(std::string p) : p_(std::move(p)) {}
    const std::string& prefix() const { return p_; }
    std::string head() const { return p_ + "repository"; }
    std::string changes() const { return p_ + "changes"; }
    // The range of a service's own keys (instance "") or of an instance's.
    std::string own(std::string_view service, std::string_view instance) const {
        return p_ + "o/" + std::string(service) + ":" + std::string(instance) + "/";
    }
    // Every key of a service, its instances' included.
    std::string whole_service(std::string_view service) const {
        return p_ + "o/" + std::string(service) + ":";
    }
    std::string pointer(std::string_view service, std::string_view instance,
                        std::string_view epoch) const {
        return own(service, instance) + "p/" + std::string(epoch);
    }
    std::string doc(std::string_view service, std::string_view instance,
                    std::string_view id) const {
        return own(service, instance) + "d/" + std::string(id);
    }
    std::string services(std::string_view er) const { return p_ + "l/" + std::string(er) + "/"; }
    std::string instances(std::string_view es) const { return p_ + "x/" + std::string(es) + "/"; }
    std::string txns() const { return p_ + "t/"; }
    std::string txn(std::string_view w) const { return txns() + std::string(w); }
    std::string host(std::string_view name) const { return p_ + "hosts/" + std::string(name); }

  private:
    std::string p_;
};

// Keys and prefixes to remove, and their lists as a commit keeps them in
// the cluster (keys relative to the prefix).
struct Removal {
    std::vector<std::string> keys, ranges;
    std::string dump(const std::string& prefix) const;
    // The same, cut into texts of bounded size.
    std::vector<std::string> chunks(const std::string& prefix) const;
    // Adds what a text lists; false for one that is not such a list.
    bool load(std::string_view text, const std::string& prefix);
};

// A range read whole, page by page (each page one request of at most
// PAGE_KEYS keys, which a silent member passes to the next like any read),
// at a revision; keys_only leaves the values empty.
int range_all(Cluster& c, const std::string& key, const std::string& end, int64_t at,
              std::vector<Kv>* out, std::string* message, bool keys_only = false);

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
    int doc_kind = 0;  // the document it lies in: a service, an instance, a snapshot
    int64_t doc_owner = 0;
};

struct InstanceEntry {
    int64_t service = 0;
    std::string name;
    bool stored = false;  // the cluster held it at the revision read: ptr is as read
    InstancePointer ptr;
    bool loaded = false;  // its documents are in memory
    std::map<std::string, int64_t> snapshots;
    bool own_dirty = false;             // its own groups are written anew
    std::set<std::string> dirty_snaps;  // snapshots written anew
};

struct ServiceEntry {
    std::string name;
    bool stored = false;  // the cluster held it at the revision read: ptr is as read
    ServicePointer ptr;
    bool loaded = false;  // its own groups are in memory
    bool listed = false;  // every instance is known
    bool bulk = false;    // every instance's documents have been read
    bool walked = false;  // its instances were asked for, to be read one after another
    int single_loads = 0;
    bool own_dirty = false;
    std::map<std::string, int64_t> instances;  // known ones
    std::set<std::string> absent;              // names known to have no instance
    // Instances removed here, as read; a name may have a new instance too.
    std::map<std::string, InstancePointer> gone;
    std::set<std::string> changed;  // instances whose pointer may change
};

class EtcdStore final : public Store {
  public:
    EtcdStore(std::unique_ptr<Cluster> cluster, std::string prefix, bool writable)
        : cluster_(std::move(cluster)), k_(std::move(prefix) + "/"), writable_(writable) {}

    // Reads the head, at `at` or (0) the newest revision; 0, or -1 with the
    // error set.
    int open(bool create, int64_t at);
    // Converts a prefix of the first layout in one switch: 0 converted, 1
    // there was nothing to convert, -1 with the error set.
    int upgrade();
    // The etcd user's role of its own, as grant_cluster_role (hgx_internal.h)
    // tells; on an opened store. 0, or -1 with the error set.
    int grant(const std::string& user, const std::string& host,
              const std::vector<std::string>& werns, std::vector<std::string>* missing);

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
        const std::string& p = k_.prefix();
        return "etcd cluster " + cluster_->cluster_id() + ", prefix " + p.substr(0, p.size() - 1);
    }
    int64_t revision() const override { return revision_; }
    int changes(std::vector<std::pair<std::string, std::string>>* out, bool* all) override;
    int version(std::string_view service, std::string_view instance, std::string* out) override;
    int instance_versions(std::string_view service,
                          std::vector<std::pair<std::string, std::string>>* out) override;
    int granted(std::vector<std::string>* werns) override;

  private:
    using Children = std::map<std::string, int64_t>;

    int range(const std::string& key, const std::string& end, std::vector<Kv>* out) {
        return cluster_->range(key, end, revision_, out, nullptr, &message_);
    }
    // Every key below prefix at the store's revision, read page by page.
    int range_prefix(const std::string& prefix, std::vector<Kv>* out) {
        return range_all(*cluster_, prefix, range_end(prefix), revision_, out, &message_);
    }
    int64_t new_id() { return ++last_id_; }
    Children& pg_children(int kind, int64_t owner) { return pgs_by_owner_[{kind, owner}]; }
    int broken(const std::string& what);

    // Loading, each at most once.
    int64_t service_stub(const std::string& name, const ServicePointer& ptr);
    int64_t instance_stub(int64_t service, const std::string& name, const InstancePointer& ptr);
    int read_service(const std::string& name, int64_t* id);
    int load_service(int64_t service);
    int list_instances(int64_t service);
    int load_instance(int64_t instance);
    int load_bulk(int64_t service);
    int adopt_own(int64_t service, const std::vector<Kv>& kvs);
    int adopt_instance(int64_t instance, const std::vector<Kv>& kvs);
    int read_doc(const std::vector<Kv>& kvs, const std::string& key, Doc* doc);
    void adopt_groups(const std::vector<DocGroup>& groups, int kind, int64_t owner, int64_t service,
                      int doc_kind, int64_t doc_owner);
    // Whose groups these are: the owner, loaded.
    int loaded_owner(int kind, int64_t owner);

    // Changes.
    int mark(int doc_kind, int64_t doc_owner);
    void forget_pgs(int kind, int64_t owner);
    void forget_instance(int64_t instance);
    void doc_groups(int kind, int64_t owner, std::vector<DocGroup>* out) const;

    // A commit as planned before anything is written (hgx_etcd_commit.cpp).
    struct Plan;
    struct ServiceChange;
    int plan(Plan* p);
    int plan_service(const std::string& name, Plan* p, ServiceChange* sc);
    int new_doc(Plan* p, const std::string& service, const std::string& instance, int kind,
                int64_t owner, std::string* id);
    int instance_pointers(const std::string& service, const std::string& es,
                          std::map<std::string, InstancePointer>* out);
    void choose_epochs(Plan* p);
    int finish_plan(Plan* p);
    json head_compare() const;
    int commit_one(const Plan& p);
    int commit_large(Plan& p);
    int write_batches(const std::vector<json>& ops, const std::vector<std::string>& keys,
                      const std::string& w, int64_t lease);
    int keep_alive(int64_t lease);
    int give_up(const Plan& p, int64_t lease);

    // Removal and the leftovers of writers that died (hgx_etcd_admin.cpp).
    int remove(const Removal& r);
    void housekeeping();
    int collect(const std::string& w, const std::vector<std::string>& lists);
    int load_legacy(const json& head);

    std::unique_ptr<Cluster> cluster_;
    Layout k_;
    bool writable_;
    bool exists_ = false;  // the head was there
    int64_t revision_ = 0;
    int64_t head_mod_ = 0;
    std::string epoch_;
    bool legacy_ = false;  // converting the first layout: its keys go at the switch

    int64_t last_id_ = 0;
    bool listed_ = false;
    std::map<std::string, int64_t> service_ids_;  // known services by name
    std::set<std::string> absent_;                // names known to have no service
    std::map<std::string, ServicePointer> gone_;  // services removed here, as read
    std::set<std::string> touched_;               // names of services changed
    std::unordered_map<int64_t, ServiceEntry> services_;
    std::unordered_map<int64_t, InstanceEntry> instances_;
    std::unordered_map<int64_t, int64_t> snapshot_instance_;
    std::unordered_map<int64_t, std::string> snapshot_names_;
    std::unordered_map<int64_t, PgEntry> pgs_;
    std::map<std::pair<int, int64_t>, Children> pgs_by_owner_;
    std::unordered_map<int64_t, std::map<std::string, PropEntry>> props_;
};

}  // namespace hgx_detail::etcd
