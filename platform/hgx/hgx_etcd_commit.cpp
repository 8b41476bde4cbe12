// The cluster store, its writing half: changes in memory, marked on the
// documents they fall in, and the commit that writes those documents anew
// and moves the pointers that name them (hgx_etcd_store.h tells how).
#include <algorithm>
#include <chrono>
#include <ctime>
#include <optional>

#include "hgx_etcd_store.h"

namespace hgx_detail::etcd {

// ---- changes -------------------------------------------------------------------------

// A document about to be written anew, and its service marked for the commit.
int EtcdStore::mark(int doc_kind, int64_t doc_owner) {
    int64_t instance = 0;
    switch (doc_kind) {
        case OWNER_SERVICE: {
            ServiceEntry& s = services_.at(doc_owner);
            s.own_dirty = true;
            touched_.insert(s.name);
            return 0;
        }
        case OWNER_INSTANCE:
            instance = doc_owner;
            instances_.at(instance).own_dirty = true;
            break;
        default:
            instance = snapshot_instance_.at(doc_owner);
            instances_.at(instance).dirty_snaps.insert(snapshot_names_.at(doc_owner));
            break;
    }
    InstanceEntry& in = instances_.at(instance);
    ServiceEntry& s = services_.at(in.service);
    s.changed.insert(in.name);
    touched_.insert(s.name);
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
    s.loaded = s.listed = s.bulk = true;
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

void EtcdStore::forget_instance(int64_t instance) {
    for (const auto& [name, sid] : instances_.at(instance).snapshots) {
        forget_pgs(OWNER_SNAPSHOT, sid);
        snapshot_instance_.erase(sid);
        snapshot_names_.erase(sid);
    }
    forget_pgs(OWNER_INSTANCE, instance);
    instances_.erase(instance);
}

// A service goes whole, so nothing of it needs to be read first; what it
// held is found at the commit.
int EtcdStore::delete_service(int64_t service) {
    if (!writable_) return fail(HGX_ERROR_PERMISSION_DENIED);
    auto it = services_.find(service);
    if (it == services_.end()) return fail(HGX_ERROR_NOT_FOUND);
    ServiceEntry& s = it->second;
    if (s.stored) gone_.emplace(s.name, s.ptr);
    for (const auto& [name, id] : s.instances) forget_instance(id);
    forget_pgs(OWNER_SERVICE, service);
    touched_.insert(s.name);
    service_ids_.erase(s.name);
    services_.erase(it);
    return 0;
}

int64_t EtcdStore::add_instance(int64_t service, std::string_view name) {
    if (!writable_) return fail(HGX_ERROR_PERMISSION_DENIED);
    Row r;
    int rc = instance_by_name(service, name, &r);
    if (rc < 0) return -1;
    if (rc) return fail(HGX_ERROR_EXISTS);
    ServiceEntry& s = services_.at(service);
    std::string n(name);
    int64_t id = new_id();
    InstanceEntry& in = instances_[id];
    in.service = service;
    in.name = n;
    in.loaded = true;
    s.instances[n] = id;
    s.absent.erase(n);
    s.changed.insert(n);
    touched_.insert(s.name);
    return id;
}

int EtcdStore::delete_instance(int64_t service, int64_t instance) {
    if (!writable_) return fail(HGX_ERROR_PERMISSION_DENIED);
    auto it = instances_.find(instance);
    if (it == instances_.end()) return 0;
    ServiceEntry& s = services_.at(service);
    const std::string name = it->second.name;
    if (it->second.stored) s.gone.emplace(name, it->second.ptr);
    s.instances.erase(name);
    s.changed.insert(name);
    touched_.insert(s.name);
    forget_instance(instance);
    return 0;
}

int64_t EtcdStore::add_snapshot(int64_t, int64_t instance, std::string_view name) {
    if (!writable_) return fail(HGX_ERROR_PERMISSION_DENIED);
    if (load_instance(instance) < 0) return -1;
    InstanceEntry& in = instances_.at(instance);
    std::string n(name);
    if (in.snapshots.count(n)) return fail(HGX_ERROR_EXISTS);
    int64_t id = new_id();
    snapshot_instance_[id] = instance;
    snapshot_names_[id] = n;
    in.snapshots[n] = id;
    return mark(OWNER_SNAPSHOT, id) < 0 ? -1 : id;
}

int EtcdStore::delete_snapshot(int64_t, int64_t instance, int64_t snapshot) {
    if (!writable_) return fail(HGX_ERROR_PERMISSION_DENIED);
    if (load_instance(instance) < 0) return -1;
    InstanceEntry& in = instances_.at(instance);
    const std::string name = snapshot_names_.at(snapshot);
    forget_pgs(OWNER_SNAPSHOT, snapshot);
    in.snapshots.erase(name);
    in.dirty_snaps.erase(name);
    snapshot_instance_.erase(snapshot);
    snapshot_names_.erase(snapshot);
    ServiceEntry& s = services_.at(in.service);
    s.changed.insert(in.name);
    touched_.insert(s.name);
    return 0;
}

int64_t EtcdStore::add_pg(const PgPlace& place, std::string_view name, std::string_view type) {
    if (!writable_) return fail(HGX_ERROR_PERMISSION_DENIED);
    int doc_kind = place.kind;
    int64_t doc_owner = place.owner;
    if (place.kind == OWNER_PG) {
        auto parent = pgs_.find(place.owner);
        if (parent == pgs_.end()) return fail(HGX_ERROR_NOT_FOUND);
        doc_kind = parent->second.doc_kind;
        doc_owner = parent->second.doc_owner;
    } else if (loaded_owner(place.kind, place.owner) < 0) {
        return -1;
    }
    Children& c = pg_children(place.kind, place.owner);
    std::string n(name);
    if (c.count(n)) return fail(HGX_ERROR_EXISTS);
    int64_t id = new_id();
    pgs_[id] = {n, std::string(type), place.kind, place.owner, place.service, doc_kind, doc_owner};
    c[n] = id;
    return mark(doc_kind, doc_owner) < 0 ? -1 : id;
}

int EtcdStore::delete_pg(int64_t pg) {
    if (!writable_) return fail(HGX_ERROR_PERMISSION_DENIED);
    auto it = pgs_.find(pg);
    if (it == pgs_.end()) return fail(HGX_ERROR_NOT_FOUND);
    const PgEntry g = it->second;
    pg_children(g.kind, g.owner).erase(g.name);
    forget_pgs(OWNER_PG, pg);
    props_.erase(pg);
    pgs_.erase(pg);
    return mark(g.doc_kind, g.doc_owner);
}

int EtcdStore::put_prop(int64_t pg, std::string_view name, int type, std::string_view blob,
                        bool replace) {
    if (!writable_) return fail(HGX_ERROR_PERMISSION_DENIED);
    auto it = pgs_.find(pg);
    if (it == pgs_.end()) return fail(HGX_ERROR_NOT_FOUND);
    auto& m = props_[pg];
    std::string n(name);
    auto p = m.find(n);
    if (p != m.end() && !replace) return fail(HGX_ERROR_EXISTS);
    int64_t id = p != m.end() ? p->second.id : new_id();
    m[n] = {id, type, std::string(blob)};
    return mark(it->second.doc_kind, it->second.doc_owner);
}

int EtcdStore::delete_prop(int64_t pg, std::string_view name) {
    if (!writable_) return fail(HGX_ERROR_PERMISSION_DENIED);
    auto it = pgs_.find(pg);
    if (it == pgs_.end()) return fail(HGX_ERROR_NOT_FOUND);
    if (!props_[pg].erase(std::string(name))) return 0;
    return mark(it->second.doc_kind, it->second.doc_owner) < 0 ? -1 : 1;
}

// ---- planning a commit ------------------------------------------------------------

// Everything a commit will write and remove, worked out before anything is
// written: the documents (and the keys of new epochs), the pointer moves of
// its switch, and what it replaces.
struct EtcdStore::Plan {
    std::string w;  // the commit's id, also the stem of its documents' ids
    int docs = 0;
    std::vector<json> writes;          // puts written before the switch (or with it)
    std::vector<std::string> written;  // their keys
    std::vector<json> moves;           // what the switch changes besides head and changes
    Removal garbage;                   // what the commit replaces
    std::vector<ServiceChange> services;
    std::string er;  // the epoch the head names after the switch
    bool new_er = false;
    json changes;
};

// One service's part of a commit.
struct EtcdStore::ServiceChange {
    std::string name;
    std::optional<ServicePointer> before, after;  // none: no such service then
    bool new_es = false;  // every instance pointer written anew under after->es
    bool own = false;     // its own groups changed
    bool whole = false;   // anything of it may have changed
    // Instance pointers that change: the new one, none for one removed.
    std::map<std::string, std::optional<InstancePointer>> moved;
};

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

// A document of an owner written under a new id of this commit. A document
// too large for one request fails the commit before anything is written.
int EtcdStore::new_doc(Plan* p, const std::string& service, const std::string& instance, int kind,
                       int64_t owner, std::string* id) {
    Doc d;
    doc_groups(kind, owner, &d.groups);
    std::string value = encode_doc(d);
    if (value.size() > DOC_LIMIT) {
        std::string what = "wrn:/" + service + (instance.empty() ? "" : ":" + instance);
        if (kind == OWNER_SNAPSHOT) what += " (snapshot " + snapshot_names_.at(owner) + ")";
        message_ = std::string(hgx_strerror(HGX_ERROR_TOO_LARGE)) + ": " + what + " would take " +
                   std::to_string(value.size()) + " bytes, of at most " + std::to_string(DOC_LIMIT);
        return fail(HGX_ERROR_TOO_LARGE);
    }
    *id = p->w + "." + std::to_string(p->docs++);
    std::string key = k_.doc(service, instance, *id);
    p->writes.push_back(put_op(key, value));
    p->written.push_back(std::move(key));
    return 0;
}

// Every instance pointer of a service under an epoch, as read.
int EtcdStore::instance_pointers(const std::string& service, const std::string& es,
                                 std::map<std::string, InstancePointer>* out) {
    std::string from = k_.instances(es);
    std::vector<Kv> kvs;
    if (range_prefix(from, &kvs) < 0) return -1;
    out->clear();
    for (const Kv& kv : kvs)
        if (!decode_pointer(kv.value, &(*out)[kv.key.substr(from.size())]))
            return broken("the index of service " + service + " is malformed");
    return 0;
}

namespace {

void add_doc_ids(const InstancePointer& p, std::set<std::string>* ids) {
    ids->insert(p.doc);
    for (const auto& [name, id] : p.snaps) ids->insert(id);
}

}  // namespace

// The documents and pointers of one changed service. A service removed or
// made anew goes whole (everything it held is garbage, everything it holds
// is written under a new epoch of its instances); one that stays writes the
// documents that changed and moves the pointers of its changed instances.
int EtcdStore::plan_service(const std::string& name, Plan* p, ServiceChange* sc) {
    sc->name = name;
    auto it = service_ids_.find(name);
    auto gone = gone_.find(name);
    ServiceEntry* s = it == service_ids_.end() ? nullptr : &services_.at(it->second);
    if (gone != gone_.end())
        sc->before = gone->second;
    else if (s && s->stored)
        sc->before = s->ptr;
    auto doc_garbage = [&](const std::string& instance, const std::set<std::string>& ids) {
        for (const std::string& id : ids) p->garbage.keys.push_back(k_.doc(name, instance, id));
    };
    if (gone != gone_.end()) {
        // What the service held: its own groups, its instances and their index.
        const ServicePointer& old = gone->second;
        std::map<std::string, InstancePointer> held;
        if (instance_pointers(name, old.es, &held) < 0) return -1;
        doc_garbage("", {old.doc});
        for (const auto& [instance, ptr] : held) {
            std::set<std::string> ids;
            add_doc_ids(ptr, &ids);
            doc_garbage(instance, ids);
            p->garbage.keys.push_back(k_.pointer(name, instance, old.es));
        }
        p->garbage.ranges.push_back(k_.instances(old.es));
    }
    if (!s) {
        sc->whole = true;
        return 0;
    }
    ServicePointer ptr = s->ptr;
    bool fresh = gone != gone_.end() || !s->stored;
    if (fresh) {
        sc->whole = sc->new_es = true;
        ptr.es = fresh_id();
    }
    if (fresh || s->own_dirty) {
        if (!fresh) doc_garbage("", {s->ptr.doc});
        sc->own = true;
        if (new_doc(p, name, "", OWNER_SERVICE, it->second, &ptr.doc) < 0) return -1;
    }
    sc->after = ptr;
    std::set<std::string> names = s->changed;
    if (fresh)
        for (const auto& [instance, id] : s->instances) names.insert(instance);
    for (const std::string& instance : names) {
        std::optional<InstancePointer> before;
        auto g = s->gone.find(instance);
        auto found = s->instances.find(instance);
        if (!fresh) {
            if (g != s->gone.end())
                before = g->second;
            else if (found != s->instances.end() && instances_.at(found->second).stored)
                before = instances_.at(found->second).ptr;
        }
        std::optional<InstancePointer> after;
        if (found != s->instances.end()) {
            const InstanceEntry& in = instances_.at(found->second);
            bool anew = fresh || !in.stored;
            if (!anew && !in.loaded) continue;  // only read, never changed
            InstancePointer ip;
            if (anew || in.own_dirty) {
                if (new_doc(p, name, instance, OWNER_INSTANCE, found->second, &ip.doc) < 0)
                    return -1;
            } else {
                ip.doc = in.ptr.doc;
            }
            for (const auto& [snap, sid] : in.snapshots) {
                if (anew || in.dirty_snaps.count(snap)) {
                    if (new_doc(p, name, instance, OWNER_SNAPSHOT, sid, &ip.snaps[snap]) < 0)
                        return -1;
                } else {
                    ip.snaps[snap] = in.ptr.snaps.at(snap);
                }
            }
            after = std::move(ip);
        }
        if (before) {
            std::set<std::string> old_ids, new_ids;
            add_doc_ids(*before, &old_ids);
            if (after) add_doc_ids(*after, &new_ids);
            std::set<std::string> replaced;
            std::set_difference(old_ids.begin(), old_ids.end(), new_ids.begin(), new_ids.end(),
                                std::inserter(replaced, replaced.end()));
            doc_garbage(instance, replaced);
            if (after && *after == *before) continue;
        } else if (!after) {
            continue;  // made and removed again here
        }
        sc->moved[instance] = std::move(after);
    }
    return 0;
}

// A large commit's switch must stay one small transaction: a service with
// many instance moves writes all its instance pointers under a new epoch
// instead (and moves one service pointer), and where even the service
// pointers are too many, every service pointer goes under a new epoch of
// the head.
void EtcdStore::choose_epochs(Plan* p) {
    auto switch_ops = [&] {
        size_t ops = 4;  // head, changes, the commit's record and its end
        for (const ServiceChange& sc : p->services) {
            if (!p->new_er && !(sc.before && sc.after && sc.before->es == sc.after->es &&
                                sc.before->doc == sc.after->doc))
                ops += 2;
            if (!sc.new_es) ops += 2 * sc.moved.size();
        }
        return ops;
    };
    while (switch_ops() > SWITCH_OPS) {
        ServiceChange* most = nullptr;
        for (ServiceChange& sc : p->services)
            if (!sc.new_es && !sc.moved.empty() && (!most || sc.moved.size() > most->moved.size()))
                most = &sc;
        if (!most) {
            p->new_er = true;
            p->er = fresh_id();
            return;
        }
        most->new_es = true;
        most->after->es = fresh_id();
    }
}

// The pointer keys of the plan, once the epochs are chosen: moves for the
// switch, or every pointer written anew under a new epoch (what the old
// epoch held becoming garbage).
int EtcdStore::finish_plan(Plan* p) {
    std::map<std::string, std::optional<ServicePointer>> service_moves;
    json changed = json::object();
    for (ServiceChange& sc : p->services) {
        const std::string& name = sc.name;
        if (sc.after && sc.new_es) {
            std::map<std::string, InstancePointer> all;
            if (sc.before && !sc.whole) {
                if (instance_pointers(name, sc.before->es, &all) < 0) return -1;
                for (const auto& [instance, ptr] : all)
                    p->garbage.keys.push_back(k_.pointer(name, instance, sc.before->es));
                p->garbage.ranges.push_back(k_.instances(sc.before->es));
            }
            for (const auto& [instance, ptr] : sc.moved) {
                if (ptr)
                    all[instance] = *ptr;
                else
                    all.erase(instance);
            }
            for (const auto& [instance, ptr] : all) {
                std::string value = encode_pointer(ptr);
                for (std::string key : {k_.pointer(name, instance, sc.after->es),
                                        k_.instances(sc.after->es) + instance}) {
                    p->writes.push_back(put_op(key, value));
                    p->written.push_back(std::move(key));
                }
            }
        } else if (sc.after) {
            for (const auto& [instance, ptr] : sc.moved) {
                for (const std::string& key : {k_.pointer(name, instance, sc.after->es),
                                               k_.instances(sc.after->es) + instance})
                    p->moves.push_back(ptr ? put_op(key, encode_pointer(*ptr)) : delete_op(key));
            }
        }
        bool same = sc.before && sc.after && sc.before->es == sc.after->es &&
                    sc.before->doc == sc.after->doc;
        if (!same && (sc.before || sc.after)) service_moves[name] = sc.after;
        // What a mirror is told.
        if (sc.whole || sc.moved.size() > CHANGES_LIMIT) {
            changed[name] = "*";
        } else if (sc.own || !sc.moved.empty()) {
            json list = json::array();
            if (sc.own) list.push_back("");
            for (const auto& [instance, ptr] : sc.moved) list.push_back(instance);
            changed[name] = list;
        }
    }
    p->changes = {{"commit", p->w}};
    if (legacy_ || changed.size() > CHANGES_LIMIT)
        p->changes["all"] = true;
    else
        p->changes["changed"] = changed;
    if (!p->new_er) {
        for (const auto& [name, ptr] : service_moves)
            for (const std::string& key : {k_.pointer(name, "", p->er), k_.services(p->er) + name})
                p->moves.push_back(ptr ? put_op(key, encode_pointer(*ptr)) : delete_op(key));
        return 0;
    }
    // A new epoch of the head: every service pointer, changed or not.
    std::map<std::string, ServicePointer> all;
    if (exists_) {
        std::string from = k_.services(epoch_);
        std::vector<Kv> kvs;
        if (range_prefix(from, &kvs) < 0) return -1;
        for (const Kv& kv : kvs) {
            std::string name = kv.key.substr(from.size());
            if (!decode_pointer(kv.value, &all[name]))
                return broken("the index entry of service " + name + " is malformed");
            p->garbage.keys.push_back(k_.pointer(name, "", epoch_));
        }
        p->garbage.ranges.push_back(from);
    }
    for (const auto& [name, ptr] : service_moves) {
        if (ptr)
            all[name] = *ptr;
        else
            all.erase(name);
    }
    for (const auto& [name, ptr] : all) {
        std::string value = encode_pointer(ptr);
        for (std::string key : {k_.pointer(name, "", p->er), k_.services(p->er) + name}) {
            p->writes.push_back(put_op(key, value));
            p->written.push_back(std::move(key));
        }
    }
    return 0;
}

int EtcdStore::plan(Plan* p) {
    p->w = fresh_id();
    p->new_er = !exists_;
    p->er = exists_ ? epoch_ : fresh_id();
    for (const std::string& name : touched_) {
        p->services.emplace_back();
        if (plan_service(name, p, &p->services.back()) < 0) return -1;
    }
    if (legacy_)
        for (const char* old : {"e/", "d/", "w/", "gc/"})
            p->garbage.ranges.push_back(k_.prefix() + old);
    return 0;
}

// ---- committing ---------------------------------------------------------------------

json EtcdStore::head_compare() const {
    if (exists_ || legacy_)
        return {{"target", "MOD"},
                {"key", b64(k_.head())},
                {"result", "EQUAL"},
                {"mod_revision", std::to_string(head_mod_)}};
    return {{"target", "VERSION"}, {"key", b64(k_.head())}, {"result", "EQUAL"}, {"version", "0"}};
}

namespace {

// The head names the commit and when it was made, by the writer's clock:
// how long a host has been behind is counted from it (hgx_commit_after).
json head_value(const std::string& er, const std::string& w) {
    return {{"schema", CLUSTER_SCHEMA},
            {"epoch", er},
            {"commit", w},
            {"time", static_cast<int64_t>(std::time(nullptr))}};
}

size_t ops_bytes(const std::vector<json>& ops) {
    size_t n = 0;
    for (const json& op : ops) n += op.dump().size();
    return n;
}

}  // namespace

// A commit that fits in one transaction: everything at once, compared on
// the head.
int EtcdStore::commit_one(const Plan& p) {
    json ops = json::array(
        {put_op(k_.head(), head_value(p.er, p.w).dump()), put_op(k_.changes(), p.changes.dump())});
    for (const json& op : p.writes) ops.push_back(op);
    for (const json& op : p.moves) ops.push_back(op);
    for (const std::string& key : p.garbage.keys) ops.push_back(delete_op(key));
    for (const std::string& from : p.garbage.ranges) ops.push_back(delete_prefix_op(from));
    bool ok = false;
    if (cluster_->txn(json::array({head_compare()}), ops, &ok, &message_) < 0) return -1;
    if (!ok) {
        message_ = "another writer changed the repository first";
        return fail(HGX_ERROR_CONFLICT);
    }
    return 0;
}

// The writer's record lives as long as its lease: a writer that dies (or
// falls silent for WRITER_TTL seconds) loses it, and the next writer then
// removes what it had written. A writer whose record is gone fails.
int EtcdStore::keep_alive(int64_t lease) {
    json reply;
    if (cluster_->call("/v3/lease/keepalive", {{"ID", std::to_string(lease)}}, &reply, &message_) <
        0)
        return -1;
    const json& r = reply.contains("result") ? reply["result"] : reply;
    if (as_int(r.value("TTL", json())) > 0) return 0;
    message_ = "this writer was silent for too long and its commit was given up";
    return fail(HGX_ERROR_CONFLICT);
}

// Writes puts in transactions of bounded size, each with a list of the keys
// it wrote (keys[i] for ops[i], "" for none), the first one also with the
// commit's record, which holds the lease.
int EtcdStore::write_batches(const std::vector<json>& ops, const std::vector<std::string>& keys,
                             const std::string& w, int64_t lease) {
    json batch = json::array();
    Removal listed;
    size_t bytes = 0;
    int n = 0;
    auto alive = std::chrono::steady_clock::now();
    auto flush = [&]() -> int {
        if (batch.empty() && n > 0) return 0;
        if (n == 0) {
            json record = put_op(k_.txn(w), "{}");
            record["request_put"]["lease"] = std::to_string(lease);
            batch.push_back(record);
        }
        batch.push_back(put_op(k_.txn(w) + "/n" + std::to_string(n), listed.dump(k_.prefix())));
        if (std::chrono::steady_clock::now() - alive > std::chrono::seconds(WRITER_TTL / 4)) {
            if (keep_alive(lease) < 0) return -1;
            alive = std::chrono::steady_clock::now();
        }
        bool ok = false;
        if (cluster_->txn(json::array(), batch, &ok, &message_) < 0) return -1;
        ++n;
        batch = json::array();
        listed = Removal();
        bytes = 0;
        return 0;
    };
    for (size_t i = 0; i < ops.size(); ++i) {
        size_t size = ops[i].dump().size() + keys[i].size();
        if (batch.size() + 3 > BATCH_OPS || bytes + size > BATCH_BYTES * 4 / 3) {
            if (flush() < 0) return -1;
        }
        batch.push_back(ops[i]);
        if (!keys[i].empty()) listed.keys.push_back(keys[i]);
        bytes += size;
    }
    return flush();
}

// After a switch that failed, or whose fate is unknown: removes the
// commit's record unless the switch happened, so that it never can later,
// and then what the commit wrote. 1 where it switched after all, 0 where it
// never will, -1 where that cannot be told now (the next writer will tell,
// and clean up); the commit's failure is kept unless it switched.
int EtcdStore::give_up(const Plan& p, int64_t lease) {
    std::string saved = message_;
    hgx_error_t code = get_error();
    json untouched = json::array({{{"target", "VERSION"},
                                   {"key", b64(k_.txn(p.w) + "/done")},
                                   {"result", "EQUAL"},
                                   {"version", "0"}}});
    bool ok = false;
    int fate = -1;
    if (cluster_->txn(untouched, json::array({delete_op(k_.txn(p.w))}), &ok, &message_) == 0) {
        fate = ok ? 0 : 1;
        Removal written;
        written.keys = p.written;
        if (fate == 0 && remove(written) == 0) {
            Removal lists;
            lists.ranges.push_back(k_.txn(p.w) + "/");
            remove(lists);
        }
    }
    json reply;
    cluster_->call("/v3/lease/revoke", {{"ID", std::to_string(lease)}}, &reply, &message_);
    message_ = saved;
    set_error(fate == 1 ? HGX_ERROR_NONE : code);
    return fate;
}

// A commit too large for one transaction: its documents and new epochs first,
// in transactions of bounded size, with the list of what it replaces; then
// the switch; then what it replaced goes.
int EtcdStore::commit_large(Plan& p) {
    json reply;
    if (cluster_->call("/v3/lease/grant", {{"TTL", std::to_string(WRITER_TTL)}}, &reply,
                       &message_) < 0)
        return -1;
    int64_t lease = as_int(reply.value("ID", json()));
    if (!lease) return broken("the cluster granted no lease");
    std::vector<json> ops = p.writes;
    std::vector<std::string> keys = p.written;
    for (const std::string& chunk : p.garbage.chunks(k_.prefix())) {
        ops.push_back(put_op(k_.txn(p.w) + "/o" + std::to_string(ops.size()), chunk));
        keys.emplace_back();
    }
    if (write_batches(ops, keys, p.w, lease) < 0) {
        give_up(p, lease);
        return -1;
    }
    json compare = json::array({head_compare(),
                                {{"target", "VERSION"},
                                 {"key", b64(k_.txn(p.w))},
                                 {"result", "GREATER"},
                                 {"version", "0"}}});
    json switch_ops = json::array({put_op(k_.head(), head_value(p.er, p.w).dump()),
                                   put_op(k_.changes(), p.changes.dump()),
                                   put_op(k_.txn(p.w) + "/done", "{}"), delete_op(k_.txn(p.w))});
    for (const json& op : p.moves) switch_ops.push_back(op);
    bool ok = false;
    int rc = cluster_->txn(compare, switch_ops, &ok, &message_);
    if (rc == 0 && !ok) {
        message_ = "another writer changed the repository first";
        set_error(HGX_ERROR_CONFLICT);
    }
    if ((rc < 0 || !ok) && give_up(p, lease) != 1) return -1;
    // Switched: whatever fails from here is left for the next writer.
    std::string saved = message_;
    if (remove(p.garbage) == 0) {
        Removal lists;
        lists.ranges.push_back(k_.txn(p.w) + "/");
        remove(lists);
    }
    cluster_->call("/v3/lease/revoke", {{"ID", std::to_string(lease)}}, &reply, &message_);
    message_ = saved;
    set_error(HGX_ERROR_NONE);
    return 0;
}

int EtcdStore::commit() {
    if (!writable_) return fail(HGX_ERROR_PERMISSION_DENIED);
    if (touched_.empty() && exists_ && !legacy_) return 0;
    Plan p;
    if (plan(&p) < 0) return -1;
    // First as one transaction, where it fits (its pointers can only add to
    // what the documents and removals take).
    auto ops = [](const Plan& q) {
        return 2 + q.writes.size() + q.moves.size() + q.garbage.keys.size() +
               q.garbage.ranges.size();
    };
    if (ops(p) <= BATCH_OPS) {
        Plan one = p;
        if (finish_plan(&one) < 0) return -1;
        // Deletions take a key each, well within 200 bytes.
        if (ops(one) <= BATCH_OPS &&
            ops_bytes(one.writes) + ops_bytes(one.moves) + 200 * ops(one) < BATCH_BYTES * 4 / 3)
            return commit_one(one);
    }
    choose_epochs(&p);
    if (finish_plan(&p) < 0) return -1;
    return commit_large(p);
}

}  // namespace hgx_detail::etcd
