// The cluster store, its reading half: opening at the head, and loading
// services, instances and snapshots when they are first named. The keys and
// how a commit becomes visible: hgx_etcd_store.h; changes and commits:
// hgx_etcd_commit.cpp.
#include <algorithm>

#include "hgx_etcd_store.h"

namespace hgx_detail::etcd {

// ---- pointers and long ranges ---------------------------------------------------

std::string encode_pointer(const ServicePointer& p) {
    return json{{"es", p.es}, {"doc", p.doc}}.dump();
}

std::string encode_pointer(const InstancePointer& p) {
    json snaps = json::object();
    for (const auto& [name, id] : p.snaps) snaps[name] = id;
    return json{{"doc", p.doc}, {"snaps", snaps}}.dump();
}

namespace {

bool text_field(const json& j, const char* name, std::string* out) {
    auto it = j.find(name);
    if (it == j.end() || !it->is_string() || it->get_ref<const std::string&>().empty())
        return false;
    *out = it->get<std::string>();
    return true;
}

}  // namespace

bool decode_pointer(std::string_view value, ServicePointer* p) {
    json j = json::parse(value.begin(), value.end(), nullptr, false);
    return j.is_object() && text_field(j, "es", &p->es) && text_field(j, "doc", &p->doc);
}

bool decode_pointer(std::string_view value, InstancePointer* p) {
    json j = json::parse(value.begin(), value.end(), nullptr, false);
    if (!j.is_object() || !text_field(j, "doc", &p->doc)) return false;
    p->snaps.clear();
    auto snaps = j.find("snaps");
    if (snaps == j.end()) return true;
    if (!snaps->is_object()) return false;
    for (const auto& [name, id] : snaps->items()) {
        if (!id.is_string() || !valid_segment(name)) return false;
        p->snaps[name] = id.get<std::string>();
    }
    return true;
}

int range_all(Cluster& c, const std::string& key, const std::string& end, int64_t at,
              std::vector<Kv>* out, std::string* message, bool keys_only) {
    out->clear();
    std::string from = key;
    for (;;) {
        json req = {{"key", b64(from)}, {"range_end", b64(end)}, {"limit", PAGE_KEYS}};
        if (at) req["revision"] = std::to_string(at);
        if (keys_only) req["keys_only"] = true;
        json reply;
        if (c.call("/v3/kv/range", req, &reply, message, true) < 0) return -1;
        // Every page reads the revision the first one did.
        if (!at && reply.contains("header") && reply["header"].contains("revision"))
            at = as_int(reply["header"]["revision"]);
        size_t before = out->size();
        if (append_kvs(reply, out) < 0) return -1;
        if (!reply.value("more", false) || out->size() == before) return 0;
        from = out->back().key;
        from += '\0';
    }
}

// ---- opening -----------------------------------------------------------------------

int EtcdStore::broken(const std::string& what) {
    message_ = what;
    return fail(HGX_ERROR_CONNECTION_BROKEN);
}

int EtcdStore::open(bool create, int64_t at) {
    std::vector<Kv> head;
    if (cluster_->range(k_.head(), "", at, &head, &revision_, &message_) < 0) return -1;
    if (at) revision_ = at;
    if (head.empty()) {
        // Nothing below the prefix but hosts' status (a mirror may start
        // before the first import): room for a new repository.
        int64_t count = 0, hosts = 0;
        const std::string& p = k_.prefix();
        const std::string h = k_.host("");
        if (cluster_->range(p, range_end(p), revision_, nullptr, nullptr, &message_, true, &count) <
                0 ||
            (count && cluster_->range(h, range_end(h), revision_, nullptr, nullptr, &message_, true,
                                      &hosts) < 0))
            return -1;
        if (count > hosts) return fail(HGX_ERROR_CLUSTER_FOREIGN);
        if (!create) return fail(HGX_ERROR_CLUSTER_NO_REPOSITORY);
        epoch_ = fresh_id();
        listed_ = true;
        return 0;
    }
    json h = json::parse(head[0].value, nullptr, false);
    if (!h.is_object() || !h.contains("schema") || !h["schema"].is_number_integer())
        return fail(HGX_ERROR_CLUSTER_FOREIGN);
    if (h["schema"].get<int>() == 1) return fail(HGX_ERROR_CLUSTER_OLD_SCHEMA);
    if (h["schema"].get<int>() != CLUSTER_SCHEMA || !text_field(h, "epoch", &epoch_))
        return fail(HGX_ERROR_CLUSTER_SCHEMA);
    exists_ = true;
    head_mod_ = head[0].mod_revision;
    if (writable_) housekeeping();
    return 0;
}

// ---- services ----------------------------------------------------------------------

int64_t EtcdStore::service_stub(const std::string& name, const ServicePointer& ptr) {
    int64_t id = new_id();
    ServiceEntry& s = services_[id];
    s.name = name;
    s.stored = true;
    s.ptr = ptr;
    service_ids_[name] = id;
    return id;
}

// A service's own range: its pointer under the head's epoch and its own
// groups, in one answer. 1 with *id set, 0 where there is no such service.
int EtcdStore::read_service(const std::string& name, int64_t* id) {
    std::string base = k_.own(name, "");
    std::vector<Kv> kvs;
    if (range(base, range_end(base), &kvs) < 0) return -1;
    const std::string key = k_.pointer(name, "", epoch_);
    for (const Kv& kv : kvs) {
        if (kv.key != key) continue;
        ServicePointer ptr;
        if (!decode_pointer(kv.value, &ptr))
            return broken("the pointer of service " + name + " is malformed");
        *id = service_stub(name, ptr);
        return adopt_own(*id, kvs) < 0 ? -1 : 1;
    }
    return 0;
}

int EtcdStore::services(std::vector<Row>* out) {
    if (!listed_) {
        std::string from = k_.services(epoch_);
        std::vector<Kv> kvs;
        if (range_prefix(from, &kvs) < 0) return -1;
        for (const Kv& kv : kvs) {
            std::string name = kv.key.substr(from.size());
            if (service_ids_.count(name) || gone_.count(name)) continue;
            ServicePointer ptr;
            if (!decode_pointer(kv.value, &ptr))
                return broken("the index entry of service " + name + " is malformed");
            service_stub(name, ptr);
        }
        listed_ = true;
    }
    out->clear();
    for (const auto& [name, id] : service_ids_) out->push_back({id, name, "", 0});
    return 0;
}

int EtcdStore::service_by_name(std::string_view name, Row* out) {
    std::string n(name);
    auto it = service_ids_.find(n);
    if (it == service_ids_.end()) {
        if (listed_ || absent_.count(n) || gone_.count(n)) return 0;
        int64_t id = 0;
        int rc = read_service(n, &id);
        if (rc == 0) absent_.insert(n);
        if (rc <= 0) return rc;
        it = service_ids_.find(n);
    }
    *out = {it->second, it->first, "", 0};
    return 1;
}

int EtcdStore::read_doc(const std::vector<Kv>& kvs, const std::string& key, Doc* doc) {
    for (const Kv& kv : kvs)
        if (kv.key == key) {
            if (!decode_doc(kv.value, doc))
                return broken("a document of the repository is malformed: " + key);
            return 0;
        }
    return broken("a document of the repository is missing: " + key);
}

void EtcdStore::adopt_groups(const std::vector<DocGroup>& groups, int kind, int64_t owner,
                             int64_t service, int doc_kind, int64_t doc_owner) {
    Children& children = pg_children(kind, owner);
    for (const DocGroup& g : groups) {
        int64_t id = new_id();
        pgs_[id] = {g.name, g.type, kind, owner, service, doc_kind, doc_owner};
        children[g.name] = id;
        auto& props = props_[id];
        for (const DocProp& p : g.props) props[p.name] = {new_id(), p.type, p.blob};
        adopt_groups(g.groups, OWNER_PG, id, service, doc_kind, doc_owner);
    }
}

int EtcdStore::adopt_own(int64_t service, const std::vector<Kv>& kvs) {
    ServiceEntry& s = services_.at(service);
    Doc doc;
    if (read_doc(kvs, k_.doc(s.name, "", s.ptr.doc), &doc) < 0) return -1;
    adopt_groups(doc.groups, OWNER_SERVICE, service, service, OWNER_SERVICE, service);
    s.loaded = true;
    return 0;
}

int EtcdStore::load_service(int64_t service) {
    ServiceEntry& s = services_.at(service);
    if (s.loaded) return 0;
    std::vector<Kv> kvs;
    if (range(k_.doc(s.name, "", s.ptr.doc), "", &kvs) < 0) return -1;
    return adopt_own(service, kvs);
}

// ---- instances ---------------------------------------------------------------------

int64_t EtcdStore::instance_stub(int64_t service, const std::string& name,
                                 const InstancePointer& ptr) {
    int64_t id = new_id();
    InstanceEntry& in = instances_[id];
    in.service = service;
    in.name = name;
    in.stored = true;
    in.ptr = ptr;
    services_.at(service).instances[name] = id;
    return id;
}

// Every instance of a service, as its index names them: pointers only.
int EtcdStore::list_instances(int64_t service) {
    ServiceEntry& s = services_.at(service);
    if (s.listed) return 0;
    std::string from = k_.instances(s.ptr.es);
    std::vector<Kv> kvs;
    if (range_prefix(from, &kvs) < 0) return -1;
    for (const Kv& kv : kvs) {
        std::string name = kv.key.substr(from.size());
        if (s.instances.count(name) || s.gone.count(name)) continue;
        InstancePointer ptr;
        if (!decode_pointer(kv.value, &ptr))
            return broken("the index entry of instance " + name + " of " + s.name +
                          " is malformed");
        instance_stub(service, name, ptr);
    }
    s.listed = true;
    s.absent.clear();
    return 0;
}

// Takes in an instance's documents from the keys of its range.
int EtcdStore::adopt_instance(int64_t instance, const std::vector<Kv>& kvs) {
    InstanceEntry& in = instances_.at(instance);
    const std::string& service = services_.at(in.service).name;
    Doc doc;
    if (read_doc(kvs, k_.doc(service, in.name, in.ptr.doc), &doc) < 0) return -1;
    adopt_groups(doc.groups, OWNER_INSTANCE, instance, in.service, OWNER_INSTANCE, instance);
    for (const auto& [name, id] : in.ptr.snaps) {
        Doc snap;
        if (read_doc(kvs, k_.doc(service, in.name, id), &snap) < 0) return -1;
        int64_t sid = new_id();
        snapshot_instance_[sid] = instance;
        snapshot_names_[sid] = name;
        in.snapshots[name] = sid;
        adopt_groups(snap.groups, OWNER_SNAPSHOT, sid, in.service, OWNER_SNAPSHOT, sid);
    }
    in.loaded = true;
    return 0;
}

// One instance's range, unless so many of a service whose instances are
// walked are read one by one that reading the whole service at once costs
// less.
int EtcdStore::load_instance(int64_t instance) {
    InstanceEntry& in = instances_.at(instance);
    if (in.loaded) return 0;
    ServiceEntry& s = services_.at(in.service);
    if (s.walked && !s.bulk && ++s.single_loads > BULK_AFTER) return load_bulk(in.service);
    std::string base = k_.own(s.name, in.name);
    std::vector<Kv> kvs;
    if (range(base, range_end(base), &kvs) < 0) return -1;
    return adopt_instance(instance, kvs);
}

// Every key of a service, page by page, and every instance taken in.
int EtcdStore::load_bulk(int64_t service) {
    if (list_instances(service) < 0) return -1;
    ServiceEntry& s = services_.at(service);
    std::string base = k_.whole_service(s.name);
    std::vector<Kv> kvs;
    if (range_prefix(base, &kvs) < 0) return -1;
    std::map<std::string, std::vector<Kv>> by_owner;  // "" the service's own keys
    for (Kv& kv : kvs) {
        std::string rest = kv.key.substr(base.size());
        by_owner[rest.substr(0, rest.find('/'))].push_back(std::move(kv));
    }
    if (!s.loaded && adopt_own(service, by_owner[""]) < 0) return -1;
    for (const auto& [name, id] : s.instances) {
        InstanceEntry& in = instances_.at(id);
        if (in.stored && !in.loaded && adopt_instance(id, by_owner[name]) < 0) return -1;
    }
    s.bulk = true;
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
    if (list_instances(service) < 0) return -1;
    services_.at(service).walked = true;
    return rows_of(services_.at(service).instances, out);
}

// An instance not known yet: its own range, pointer and documents in one
// answer; the other instances are never read.
int EtcdStore::instance_by_name(int64_t service, std::string_view name, Row* out) {
    ServiceEntry& s = services_.at(service);
    std::string n(name);
    if (!s.instances.count(n)) {
        if (s.listed || s.absent.count(n) || s.gone.count(n)) return 0;
        std::string base = k_.own(s.name, n);
        std::vector<Kv> kvs;
        if (range(base, range_end(base), &kvs) < 0) return -1;
        const std::string key = k_.pointer(s.name, n, s.ptr.es);
        InstancePointer ptr;
        auto it = std::find_if(kvs.begin(), kvs.end(), [&](const Kv& kv) { return kv.key == key; });
        if (it == kvs.end()) {
            s.absent.insert(n);
            return 0;
        }
        if (!decode_pointer(it->value, &ptr))
            return broken("the pointer of instance " + n + " of " + s.name + " is malformed");
        if (adopt_instance(instance_stub(service, n, ptr), kvs) < 0) return -1;
    }
    return row_of(s.instances, name, out);
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

// ---- what a mirror follows ------------------------------------------------------

// P/changes is written by every switch, so it tells this revision's commit
// when its mod revision is the head's.
int EtcdStore::changes(std::vector<std::pair<std::string, std::string>>* out, bool* all) {
    out->clear();
    *all = true;
    if (!exists_) return 0;
    std::vector<Kv> kvs;
    if (range(k_.changes(), "", &kvs) < 0) return -1;
    if (kvs.empty() || kvs[0].mod_revision != head_mod_) return 0;
    json c = json::parse(kvs[0].value, nullptr, false);
    if (!c.is_object() || c.value("all", false) || !c.contains("changed") ||
        !c["changed"].is_object())
        return 0;
    for (const auto& [service, what] : c["changed"].items()) {
        if (what.is_string() && what.get<std::string>() == "*") {
            out->emplace_back(service, "*");
            continue;
        }
        if (!what.is_array()) return 0;
        for (const json& instance : what)
            if (instance.is_string()) out->emplace_back(service, instance.get<std::string>());
    }
    *all = false;
    return 0;
}

// The pointers are the versions: a document never changes under its id.
int EtcdStore::version(std::string_view service, std::string_view instance, std::string* out) {
    Row r;
    int rc = service_by_name(service, &r);
    if (rc <= 0) return rc;
    ServiceEntry& s = services_.at(r.id);
    if (instance.empty()) {
        *out = s.ptr.doc;
        return 1;
    }
    std::string n(instance);
    if (!s.instances.count(n)) {
        if (s.listed || s.absent.count(n)) return 0;
        // The pointer alone: the documents are read only when they changed.
        std::string from = k_.own(s.name, n) + "p/";
        std::vector<Kv> kvs;
        if (range(from, range_end(from), &kvs) < 0) return -1;
        const std::string key = k_.pointer(s.name, n, s.ptr.es);
        auto it = std::find_if(kvs.begin(), kvs.end(), [&](const Kv& kv) { return kv.key == key; });
        if (it == kvs.end()) {
            s.absent.insert(n);
            return 0;
        }
        InstancePointer ptr;
        if (!decode_pointer(it->value, &ptr))
            return broken("the pointer of instance " + n + " of " + s.name + " is malformed");
        instance_stub(r.id, n, ptr);
    }
    *out = encode_pointer(instances_.at(s.instances.at(n)).ptr);
    return 1;
}

int EtcdStore::instance_versions(std::string_view service,
                                 std::vector<std::pair<std::string, std::string>>* out) {
    Row r;
    int rc = service_by_name(service, &r);
    if (rc <= 0) return rc;
    if (list_instances(r.id) < 0) return -1;
    out->clear();
    for (const auto& [name, id] : services_.at(r.id).instances)
        out->emplace_back(name, encode_pointer(instances_.at(id).ptr));
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
    bool reading = mode == OpenMode::READ || mode == OpenMode::COPY;
    // A run's reads share one short budget; a copy's each have a call's.
    bool budget = mode == OpenMode::READ;
    ClusterUrl u;
    std::unique_ptr<Cluster> cluster;
    std::string detail;
    if (connect(url, budget ? READ_BUDGET_MS : WRITE_CALL_MS, budget, &u, &cluster, &detail) < 0)
        return refuse(detail);
    auto store = std::make_unique<EtcdStore>(std::move(cluster), u.prefix, !reading);
    if (store->open(mode == OpenMode::CREATE, at_revision) < 0) return refuse(store->message());
    return store;
}

}  // namespace hgx_detail
