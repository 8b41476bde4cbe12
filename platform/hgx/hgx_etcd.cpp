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
#include <cstring>
#include <ctime>
#include <map>
#include <set>
#include <unordered_map>

#include "hgx_etcd_internal.h"

namespace hgx_detail {

namespace {

using namespace etcd;

constexpr int CLUSTER_SCHEMA = 1;
constexpr size_t BATCH_OPS = 100;       // etcd allows 128 operations a transaction
constexpr size_t BATCH_BYTES = 700000;  // of 1.5 MiB a request, base64 taking a third more
constexpr size_t DOC_LIMIT = 1000000;   // one document, in one request
constexpr size_t FEW_SERVICES = 40;     // pointers moved within the epoch

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
    if (!decode_doc(value, doc)) {
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
            out->emplace_back(base + "i/" + name + "/" + sname, encode_doc(sdoc));
        }
        out->emplace_back(base + "i/" + name + "/", encode_doc(idoc));
    }
    out->emplace_back(base + "s", encode_doc(doc));
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

}  // namespace hgx_detail
