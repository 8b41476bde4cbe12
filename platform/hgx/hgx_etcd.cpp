// The cluster store, its reading half: opening at the head, and loading
// services, instances and snapshots when they are first named. The keys and
// how a commit becomes visible: hgx_etcd_store.h; changes and commits:
// hgx_etcd_commit.cpp.
#include "hgx_etcd_store.h"

namespace hgx_detail::etcd {

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

}  // namespace hgx_detail::etcd

namespace hgx_detail {
std::unique_ptr<Store> open_cluster_store(const std::string& url, OpenMode mode,
                                          std::string* message, int64_t at_revision) {
    using namespace etcd;
    auto refuse = [&](const std::string& detail) -> std::unique_ptr<Store> {
        if (message) *message = url + ": " + failure_text(get_error(), detail);
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
