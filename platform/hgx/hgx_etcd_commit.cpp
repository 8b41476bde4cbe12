// The cluster store, its writing half: changes in memory, and the commit
// that writes every changed service whole under a new generation and then
// switches to them in one transaction (hgx_etcd_store.h tells how).
#include <cstring>
#include <ctime>

#include "hgx_etcd_store.h"

namespace hgx_detail::etcd {

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

// Every changed service written whole under a new generation of this
// commit, and the pointer each name gets. A document too large for one
// request fails the commit before anything is written.
int EtcdStore::plan_services(CommitPlan* c) {
    for (const std::string& name : touched_) {
        auto it = service_ids_.find(name);
        std::string gen;
        if (it != service_ids_.end()) {
            gen = c->w + "-" + std::to_string(c->new_gens.size());
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
                c->data.push_back(put_op(key, value));
            }
            c->new_gens.push_back(gen);
        }
        c->pointers[name] = gen;
        auto old = read_gen_.find(name);
        if (old != read_gen_.end() && !old->second.empty()) c->old_gens.push_back(old->second);
    }
    return 0;
}

// The commit's record goes first, so that whatever the commit writes can be
// found and removed should it get no further. Where many services change
// (or the repository is new), every pointer is written under a new epoch.
int EtcdStore::plan_pointers(CommitPlan* c) {
    c->many = c->pointers.size() > FEW_SERVICES || !exists_;
    c->epoch = c->many ? fresh_id() : epoch_;
    json rec = {{"t", static_cast<int64_t>(std::time(nullptr))},
                {"gens", c->new_gens},
                {"epoch", c->many ? c->epoch : std::string()}};
    c->data.insert(c->data.begin(), put_op(c->record, rec.dump()));
    if (!c->many) return 0;
    // A new epoch: every pointer, changed or not, under the new epoch.
    std::map<std::string, std::string> all;
    if (exists_) {
        std::string from = pointer_key(epoch_, "");
        std::vector<Kv> kvs;
        if (range(from, range_end(from), &kvs) < 0) return -1;
        for (Kv& kv : kvs) all[kv.key.substr(from.size())] = std::move(kv.value);
    }
    for (const auto& [name, gen] : c->pointers) {
        if (gen.empty())
            all.erase(name);
        else
            all[name] = gen;
    }
    for (const auto& [name, gen] : all) c->data.push_back(put_op(pointer_key(c->epoch, name), gen));
    return 0;
}

// The switch: one transaction that holds only if nobody committed since
// this store read the head, and this commit's record is still there. With a
// new epoch it leaves a record of what the old one held for collection; else
// it moves the pointers and removes the replaced generations itself.
int EtcdStore::switch_head(const CommitPlan& c) {
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
        {{"target", "VERSION"}, {"key", b64(c.record)}, {"result", "GREATER"}, {"version", "0"}});
    json head = {{"schema", CLUSTER_SCHEMA}, {"epoch", c.epoch}, {"commit", c.w}};
    json ops = json::array({put_op(head_key(), head.dump()), delete_op(c.record)});
    if (c.many) {
        json gc = {{"gens", c.old_gens}, {"epoch", exists_ ? epoch_ : std::string()}};
        ops.push_back(put_op(gc_key(c.w), gc.dump()));
    } else {
        for (const auto& [name, gen] : c.pointers)
            ops.push_back(gen.empty() ? delete_op(pointer_key(c.epoch, name))
                                      : put_op(pointer_key(c.epoch, name), gen));
        for (const std::string& g : c.old_gens) ops.push_back(delete_prefix_op(gen_prefix(g)));
    }
    bool ok = false;
    if (cluster_->txn(compare, ops, &ok, &message_) < 0) return -1;
    if (!ok) {
        message_ = "another writer changed the repository first";
        return fail(HGX_ERROR_CONFLICT);
    }
    return 0;
}

// Removes what a commit that got no further wrote, keeping its failure.
int EtcdStore::abandon(const CommitPlan& c) {
    std::string saved = message_;
    hgx_error_t code = get_error();
    collect_garbage(c.record, c.new_gens, c.many ? c.epoch : std::string());
    message_ = saved;
    set_error(code);
    return -1;
}

int EtcdStore::commit() {
    if (!writable_) return fail(HGX_ERROR_PERMISSION_DENIED);
    if (touched_.empty() && exists_) return 0;
    CommitPlan c;
    c.w = fresh_id();
    c.record = p_ + "w/" + c.w;
    if (plan_services(&c) < 0 || plan_pointers(&c) < 0) return -1;
    if (write_batches(c.data) < 0 || switch_head(c) < 0) return abandon(c);
    if (c.many) collect_garbage(gc_key(c.w), c.old_gens, exists_ ? epoch_ : std::string());
    return 0;
}

}  // namespace hgx_detail::etcd
