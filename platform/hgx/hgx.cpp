// The read side of libhgx: handles, objects, decoding, iteration.
//
// Objects are plain records that remember where they came from. A group
// records its mode: OWN (a service's or an instance's own group), COMPOSED
// (a group of an instance's current composed view, made of the instance's
// and the service's group at the same path, either possibly missing) or
// SNAPSHOT (a frozen copy inside a snapshot). Its properties and nested
// groups are then iterated in that same mode, so that a walk that starts in a
// composed view or a snapshot stays there.
//
// An iteration reads all children of its parent at its start and hands them
// out one by one. Since the handle reads inside one read transaction, that
// list cannot go stale, and nested walks never share a live statement.
// Children come in ascending byte order of their names.
#include "hgx.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "hgx_internal.h"

using namespace hgx_detail;

// A bound handle owns its store, opened for reading: one state of the
// repository for the handle's life.
struct hgx_handle {
    std::unique_ptr<Store> bound;
    Store& store() { return *bound; }
};

namespace {

enum PgMode { MODE_OWN, MODE_COMPOSED, MODE_SNAPSHOT };

// Where a group or property lies: its service and instance (instance 0 for a
// service's own objects), the snapshot for frozen copies, and the group path.
struct Ctx {
    int64_t service_id = 0, instance_id = 0, snapshot_id = 0;
    std::string service, instance;
    std::string path;
    PgMode mode = MODE_OWN;

    std::string base() const {
        return instance_id ? instance_wern(service, instance) : service_wern(service);
    }
    std::string pg_wern() const { return base() + HGX_WERN_PG_SEPARATOR + path; }
    Ctx child(const std::string& name) const {
        Ctx c = *this;
        if (!c.path.empty()) c.path += '/';
        c.path += name;
        return c;
    }
};

}  // namespace

struct hgx_object {
    hgx_handle* h;
    bool set = false;
    explicit hgx_object(hgx_handle* handle) : h(handle) {}
};

struct hgx_scope : hgx_object {
    using hgx_object::hgx_object;
};

struct hgx_service : hgx_object {
    using hgx_object::hgx_object;
    int64_t id = 0;
    std::string name;
};

struct hgx_instance : hgx_object {
    using hgx_object::hgx_object;
    int64_t id = 0, service_id = 0;
    std::string service, name;
};

struct hgx_snapshot : hgx_object {
    using hgx_object::hgx_object;
    int64_t id = 0, instance_id = 0, service_id = 0;
    std::string service, instance, name;
};

struct hgx_propertygroup : hgx_object {
    using hgx_object::hgx_object;
    Ctx ctx;          // path includes the group's own name
    int64_t id = 0;   // own or snapshot group; the instance's group when composed
    int64_t svc = 0;  // composed only: the service's group at the same path
    std::string name, type;
};

struct hgx_property : hgx_object {
    using hgx_object::hgx_object;
    Ctx ctx;  // of the group
    int64_t id = 0;
    hgx_type_t type = HGX_TYPE_INVALID;
    std::string name, blob;
};

struct hgx_value : hgx_object {
    using hgx_object::hgx_object;
    std::string text;
};

struct hgx_iter : hgx_object {
    using hgx_object::hgx_object;
    enum Kind { NONE, SERVICES, INSTANCES, PGS, PROPS, VALUES } kind = NONE;
    size_t pos = 0;
    Ctx ctx;  // parent's context: for groups the path of the parent group
    std::vector<Row> rows;
    std::vector<ComposedPg> pgs;
    std::vector<std::string> values;
};

namespace {

// Checks that an object is usable as a parent or source: not null, of a bound
// handle, set.
bool usable(const hgx_object* o) {
    if (!o) return fail(HGX_ERROR_INVALID_ARGUMENT), false;
    if (!o->h || !o->h->bound) return fail(HGX_ERROR_NOT_BOUND), false;
    if (!o->set) return fail(HGX_ERROR_NOT_SET), false;
    return true;
}

// Checks that an output object exists and belongs to the given handle.
bool same_handle(const hgx_object* a, const hgx_object* b) {
    if (!b) return fail(HGX_ERROR_INVALID_ARGUMENT), false;
    if (a->h != b->h) return fail(HGX_ERROR_HANDLE_MISMATCH), false;
    return true;
}

ssize_t copy_out(const std::string& s, char* buf, size_t size) {
    if (!buf && size) return fail(HGX_ERROR_INVALID_ARGUMENT);
    if (size) {
        size_t n = s.size() < size - 1 ? s.size() : size - 1;
        std::memcpy(buf, s.data(), n);
        buf[n] = '\0';
    }
    return static_cast<ssize_t>(s.size());
}

template <typename T>
T* create(hgx_handle_t* handle) {
    if (!handle) {
        set_error(HGX_ERROR_INVALID_ARGUMENT);
        return nullptr;
    }
    T* o = new (std::nothrow) T(handle);
    if (!o) set_error(HGX_ERROR_NO_MEMORY);
    return o;
}

void set_pg(hgx_propertygroup* pg, const Ctx& parent, PgMode mode, int64_t id, int64_t svc,
            const std::string& name, const std::string& type) {
    pg->ctx = parent.child(name);
    pg->ctx.mode = mode;
    pg->id = id;
    pg->svc = svc;
    pg->name = name;
    pg->type = type;
    pg->set = true;
}

void set_prop(hgx_property* p, const Ctx& pg_ctx, Row&& r) {
    p->ctx = pg_ctx;
    p->id = r.id;
    p->type = static_cast<hgx_type_t>(r.type);
    p->name = std::move(r.name);
    p->blob = std::move(r.text);
    p->set = true;
}

Ctx instance_ctx(const hgx_instance* inst, PgMode mode) {
    Ctx c;
    c.service_id = inst->service_id;
    c.instance_id = inst->id;
    c.service = inst->service;
    c.instance = inst->name;
    c.mode = mode;
    return c;
}

Ctx snapshot_ctx(const hgx_snapshot* snap) {
    Ctx c;
    c.service_id = snap->service_id;
    c.instance_id = snap->instance_id;
    c.snapshot_id = snap->id;
    c.service = snap->service;
    c.instance = snap->instance;
    c.mode = MODE_SNAPSHOT;
    return c;
}

std::vector<std::string> split_path(const std::string& path) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (true) {
        size_t slash = path.find('/', start);
        parts.push_back(path.substr(start, slash == std::string::npos ? slash : slash - start));
        if (slash == std::string::npos) return parts;
        start = slash + 1;
    }
}

// Follows a group path from a top-level owner through nested groups; 1 with
// *id set, 0 where some part is missing, -1 on failure.
int walk_path(Store& s, int kind, int64_t owner, const std::vector<std::string>& parts,
              int64_t* id) {
    Row r;
    for (const std::string& part : parts) {
        int rc = s.pg_by_name(kind, owner, part, &r);
        if (rc <= 0) return rc;
        kind = OWNER_PG;
        owner = r.id;
    }
    *id = owner;
    return 1;
}

void start(hgx_iter* it, hgx_iter::Kind kind, const Ctx& ctx) {
    it->kind = kind;
    it->pos = 0;
    it->ctx = ctx;
    it->rows.clear();
    it->pgs.clear();
    it->values.clear();
}

// Own groups (of an owner row or a group) as iteration entries.
std::vector<ComposedPg> as_pgs(const std::vector<Row>& rows) {
    std::vector<ComposedPg> out;
    out.reserve(rows.size());
    for (const Row& r : rows) out.push_back({r.id, 0, r.name, r.text});
    return out;
}

int start_pgs_of(hgx_iter* it, const Ctx& parent, int kind, int64_t owner) {
    std::vector<Row> rows;
    if (it->h->store().pgs(kind, owner, &rows) < 0) return -1;
    start(it, hgx_iter::PGS, parent);
    it->pgs = as_pgs(rows);
    return 0;
}

}  // namespace

hgx_handle_t* hgx_handle_create(hgx_version_t version) {
    if (version != HGX_VERSION) {
        set_error(HGX_ERROR_VERSION_MISMATCH);
        return nullptr;
    }
    hgx_handle* h = new (std::nothrow) hgx_handle;
    if (!h) set_error(HGX_ERROR_NO_MEMORY);
    return h;
}

int hgx_handle_bind(hgx_handle_t* handle) { return hgx_handle_bind_path(handle, nullptr); }

int hgx_handle_bind_path(hgx_handle_t* handle, const char* path) {
    return guarded(-1, [&]() -> int {
        if (!handle) return fail(HGX_ERROR_INVALID_ARGUMENT);
        if (handle->bound) return fail(HGX_ERROR_IN_USE);
        std::string where;
        if (path && *path) {
            where = path;
        } else {
            const char* env = std::getenv("HGX_REPOSITORY");
            where = env && *env ? env : HGX_DEFAULT_REPOSITORY;
        }
        handle->bound = open_store(where, OpenMode::READ, nullptr);
        return handle->bound ? 0 : -1;
    });
}

void hgx_handle_destroy(hgx_handle_t* handle) { delete handle; }

hgx_scope_t* hgx_scope_create(hgx_handle_t* h) { return create<hgx_scope>(h); }
hgx_service_t* hgx_service_create(hgx_handle_t* h) { return create<hgx_service>(h); }
hgx_instance_t* hgx_instance_create(hgx_handle_t* h) { return create<hgx_instance>(h); }
hgx_snapshot_t* hgx_snapshot_create(hgx_handle_t* h) { return create<hgx_snapshot>(h); }
hgx_propertygroup_t* hgx_pg_create(hgx_handle_t* h) { return create<hgx_propertygroup>(h); }
hgx_property_t* hgx_property_create(hgx_handle_t* h) { return create<hgx_property>(h); }
hgx_value_t* hgx_value_create(hgx_handle_t* h) { return create<hgx_value>(h); }
hgx_iter_t* hgx_iter_create(hgx_handle_t* h) { return create<hgx_iter>(h); }

void hgx_scope_destroy(hgx_scope_t* o) { delete o; }
void hgx_service_destroy(hgx_service_t* o) { delete o; }
void hgx_instance_destroy(hgx_instance_t* o) { delete o; }
void hgx_snapshot_destroy(hgx_snapshot_t* o) { delete o; }
void hgx_pg_destroy(hgx_propertygroup_t* o) { delete o; }
void hgx_property_destroy(hgx_property_t* o) { delete o; }
void hgx_value_destroy(hgx_value_t* o) { delete o; }
void hgx_iter_destroy(hgx_iter_t* o) { delete o; }

int hgx_handle_get_scope(hgx_handle_t* handle, const char* name, hgx_scope_t* scope) {
    if (!handle || !name || !scope) return fail(HGX_ERROR_INVALID_ARGUMENT);
    if (!handle->bound) return fail(HGX_ERROR_NOT_BOUND);
    if (scope->h != handle) return fail(HGX_ERROR_HANDLE_MISMATCH);
    if (std::strcmp(name, "localhost") != 0) return fail(HGX_ERROR_NOT_FOUND);
    scope->set = true;
    return 0;
}

int hgx_handle_decode_wern(hgx_handle_t* handle, const char* wern, hgx_scope_t* scope,
                           hgx_service_t* service, hgx_instance_t* instance,
                           hgx_propertygroup_t* pg, hgx_property_t* property, int flags) {
    return guarded(-1, [&]() -> int {
        if (!handle || !wern) return fail(HGX_ERROR_INVALID_ARGUMENT);
        if (!handle->bound) return fail(HGX_ERROR_NOT_BOUND);
        for (hgx_object* o :
             std::initializer_list<hgx_object*>{scope, service, instance, pg, property})
            if (o && o->h != handle) return fail(HGX_ERROR_HANDLE_MISMATCH);
        WernParts w;
        if (split_wern(wern, &w) < 0) return -1;
        // The flags are judged by the wern's shape, before anything is looked
        // up: a wern of the wrong kind is refused even if it names nothing.
        bool names_service = !w.scope_only && !w.has_instance && w.path.empty();
        bool names_instance = !w.scope_only && w.has_instance && w.path.empty();
        if ((flags & HGX_DECODE_SERVICE_ONLY) && !names_service)
            return fail(HGX_ERROR_CONSTRAINT_VIOLATED);
        if ((flags & HGX_DECODE_INSTANCE_ONLY) && !names_instance)
            return fail(HGX_ERROR_CONSTRAINT_VIOLATED);
        if (w.scope != "localhost") return fail(HGX_ERROR_NOT_FOUND);

        Store& s = handle->store();
        Row svc, inst;
        Ctx ctx;
        if (!w.scope_only) {
            int rc = s.service_by_name(w.service, &svc);
            if (rc <= 0) return rc < 0 ? -1 : fail(HGX_ERROR_NOT_FOUND);
            ctx.service_id = svc.id;
            ctx.service = svc.name;
            if (w.has_instance) {
                rc = s.instance_by_name(svc.id, w.instance, &inst);
                if (rc <= 0) return rc < 0 ? -1 : fail(HGX_ERROR_NOT_FOUND);
                ctx.instance_id = inst.id;
                ctx.instance = inst.name;
            }
        }
        // Behind the separator: an instance's groups are looked up in its
        // current composed view, a service's among its own.
        ctx.mode = w.has_instance ? MODE_COMPOSED : MODE_OWN;
        int64_t gi = 0, gs = 0;  // instance's and service's group (own: gi only)
        std::string gname, gtype;
        Row prow;
        bool is_prop = false;
        for (size_t i = 0; i < w.path.size(); ++i) {
            const std::string& part = w.path[i];
            bool last = i + 1 == w.path.size();
            if (last && i > 0) {
                int r1 = gi ? s.prop_by_name(gi, part, &prow) : 0;
                if (r1 < 0) return -1;
                if (r1 == 0 && gs) {
                    r1 = s.prop_by_name(gs, part, &prow);
                    if (r1 < 0) return -1;
                }
                if (r1 == 1) {
                    is_prop = true;
                    break;
                }
            }
            Row a, b;
            int ra = 0, rb = 0;
            if (w.has_instance) {
                if (i == 0 || gi)
                    ra = s.pg_by_name(i ? OWNER_PG : OWNER_INSTANCE, i ? gi : inst.id, part, &a);
                if (i == 0 || gs)
                    rb = s.pg_by_name(i ? OWNER_PG : OWNER_SERVICE, i ? gs : svc.id, part, &b);
            } else {
                ra = s.pg_by_name(i ? OWNER_PG : OWNER_SERVICE, i ? gi : svc.id, part, &a);
            }
            if (ra < 0 || rb < 0) return -1;
            if (!ra && !rb) return fail(HGX_ERROR_NOT_FOUND);
            gi = ra ? a.id : 0;
            gs = rb ? b.id : 0;
            gname = part;
            gtype = ra ? a.text : b.text;
            ctx = ctx.child(part);
        }

        if (scope) scope->set = true;
        if (service) {
            service->set = !w.scope_only;
            service->id = svc.id;
            service->name = svc.name;
        }
        if (instance) {
            instance->set = w.has_instance;
            instance->id = inst.id;
            instance->service_id = svc.id;
            instance->service = svc.name;
            instance->name = inst.name;
        }
        // ctx now holds the path of the last group named (the property's
        // group where the wern names a property).
        if (pg) {
            pg->set = false;
            if (!w.path.empty()) {
                pg->ctx = ctx;
                pg->id = gi;
                pg->svc = gs;
                pg->name = gname;
                pg->type = gtype;
                pg->set = true;
            }
        }
        if (property) {
            property->set = false;
            if (is_prop) set_prop(property, ctx, std::move(prow));
        }
        return 0;
    });
}

int hgx_parse_wern(char* wern, const char** scope, const char** scope_path, const char** service,
                   const char** instance, const char** pg, const char** property,
                   const char** snapshot) {
    const char** outs[] = {scope, scope_path, service, instance, pg, property, snapshot};
    for (const char** o : outs)
        if (o) *o = nullptr;
    if (!wern) return fail(HGX_ERROR_INVALID_ARGUMENT);
    WernParts w;
    if (guarded(-1, [&] { return split_wern(wern, &w); }) < 0) return -1;
    char* p = wern + 4;
    if (w.has_scope) {
        char* name = p + 2;
        char* slash = std::strchr(name, '/');
        if (slash) *slash = '\0';
        if (scope) *scope = name;
        if (w.scope_only) return 0;
        p = slash;  // now the cut; the service begins behind it
    }
    char* svc = p + 1;
    char* sep = std::strstr(svc, "/:");
    char* rel = nullptr;
    if (sep) {
        *sep = '\0';
        rel = sep + std::strlen(HGX_WERN_PG_SEPARATOR);
    }
    if (char* colon = std::strchr(svc, ':')) {
        *colon = '\0';
        if (instance) *instance = colon + 1;
    }
    if (service) *service = svc;
    // Without the repository a nested group cannot be told from a property:
    // one part is a group, and of more parts the last is taken as a property.
    if (rel) {
        if (pg) *pg = rel;
        if (char* last = std::strrchr(rel, '/')) {
            *last = '\0';
            if (property) *property = last + 1;
        }
    }
    return 0;
}

int hgx_iter_scope_services(hgx_iter_t* iter, const hgx_scope_t* scope) {
    return guarded(-1, [&]() -> int {
        if (!iter || !usable(scope) || !same_handle(scope, iter)) return -1;
        std::vector<Row> rows;
        if (iter->h->store().services(&rows) < 0) return -1;
        start(iter, hgx_iter::SERVICES, Ctx{});
        iter->rows = std::move(rows);
        return 0;
    });
}

int hgx_iter_service_instances(hgx_iter_t* iter, const hgx_service_t* service) {
    return guarded(-1, [&]() -> int {
        if (!iter || !usable(service) || !same_handle(service, iter)) return -1;
        std::vector<Row> rows;
        if (iter->h->store().instances(service->id, &rows) < 0) return -1;
        Ctx c;
        c.service_id = service->id;
        c.service = service->name;
        start(iter, hgx_iter::INSTANCES, c);
        iter->rows = std::move(rows);
        return 0;
    });
}

int hgx_iter_service_pgs(hgx_iter_t* iter, const hgx_service_t* service) {
    return guarded(-1, [&]() -> int {
        if (!iter || !usable(service) || !same_handle(service, iter)) return -1;
        Ctx c;
        c.service_id = service->id;
        c.service = service->name;
        return start_pgs_of(iter, c, OWNER_SERVICE, service->id);
    });
}

int hgx_iter_instance_pgs(hgx_iter_t* iter, const hgx_instance_t* instance) {
    return guarded(-1, [&]() -> int {
        if (!iter || !usable(instance) || !same_handle(instance, iter)) return -1;
        return start_pgs_of(iter, instance_ctx(instance, MODE_OWN), OWNER_INSTANCE, instance->id);
    });
}

int hgx_iter_instance_pgs_composed(hgx_iter_t* iter, const hgx_instance_t* instance,
                                   const hgx_snapshot_t* snapshot) {
    return guarded(-1, [&]() -> int {
        if (!iter || !usable(instance) || !same_handle(instance, iter)) return -1;
        if (snapshot) {
            if (!usable(snapshot) || !same_handle(snapshot, iter)) return -1;
            if (snapshot->instance_id != instance->id) return fail(HGX_ERROR_INVALID_ARGUMENT);
            return start_pgs_of(iter, snapshot_ctx(snapshot), OWNER_SNAPSHOT, snapshot->id);
        }
        std::vector<ComposedPg> pgs;
        if (composed_top(iter->h->store(), instance->service_id, instance->id, &pgs) < 0) return -1;
        start(iter, hgx_iter::PGS, instance_ctx(instance, MODE_COMPOSED));
        iter->pgs = std::move(pgs);
        return 0;
    });
}

int hgx_iter_pg_properties(hgx_iter_t* iter, const hgx_propertygroup_t* pg) {
    return guarded(-1, [&]() -> int {
        if (!iter || !usable(pg) || !same_handle(pg, iter)) return -1;
        std::vector<Row> rows;
        Store& s = iter->h->store();
        if (pg->ctx.mode == MODE_COMPOSED ? composed_props(s, pg->id, pg->svc, &rows)
                                          : s.props(pg->id, &rows))
            return -1;
        start(iter, hgx_iter::PROPS, pg->ctx);
        iter->rows = std::move(rows);
        return 0;
    });
}

int hgx_iter_pg_pgs(hgx_iter_t* iter, const hgx_propertygroup_t* pg) {
    return guarded(-1, [&]() -> int {
        if (!iter || !usable(pg) || !same_handle(pg, iter)) return -1;
        if (pg->ctx.mode != MODE_COMPOSED) return start_pgs_of(iter, pg->ctx, OWNER_PG, pg->id);
        std::vector<ComposedPg> pgs;
        if (composed_children(iter->h->store(), pg->id, pg->svc, &pgs) < 0) return -1;
        start(iter, hgx_iter::PGS, pg->ctx);
        iter->pgs = std::move(pgs);
        return 0;
    });
}

int hgx_iter_pg_pgs_composed(hgx_iter_t* iter, const hgx_propertygroup_t* pg,
                             const hgx_snapshot_t* snapshot) {
    return guarded(-1, [&]() -> int {
        if (!iter || !usable(pg) || !same_handle(pg, iter)) return -1;
        Store& s = iter->h->store();
        if (snapshot) {
            if (!usable(snapshot) || !same_handle(snapshot, iter)) return -1;
            Ctx c = snapshot_ctx(snapshot);
            c.path = pg->ctx.path;
            if (pg->ctx.mode == MODE_SNAPSHOT && pg->ctx.snapshot_id == snapshot->id)
                return start_pgs_of(iter, c, OWNER_PG, pg->id);
            // A group from elsewhere: its counterpart at the same path in the
            // snapshot, whose nested groups are none if it has none.
            int64_t id = 0;
            int rc = walk_path(s, OWNER_SNAPSHOT, snapshot->id, split_path(pg->ctx.path), &id);
            if (rc < 0) return -1;
            if (rc == 0) {
                start(iter, hgx_iter::PGS, c);
                return 0;
            }
            return start_pgs_of(iter, c, OWNER_PG, id);
        }
        if (pg->ctx.mode == MODE_SNAPSHOT || (pg->ctx.mode == MODE_OWN && !pg->ctx.instance_id))
            return start_pgs_of(iter, pg->ctx, OWNER_PG, pg->id);
        int64_t inst_pg = pg->id, svc_pg = pg->svc;
        if (pg->ctx.mode == MODE_OWN) {
            // An instance's own group joins the composed view here: find the
            // service's group at the same path.
            int rc =
                walk_path(s, OWNER_SERVICE, pg->ctx.service_id, split_path(pg->ctx.path), &svc_pg);
            if (rc < 0) return -1;
            if (rc == 0) svc_pg = 0;
        }
        std::vector<ComposedPg> pgs;
        if (composed_children(s, inst_pg, svc_pg, &pgs) < 0) return -1;
        Ctx c = pg->ctx;
        c.mode = MODE_COMPOSED;
        start(iter, hgx_iter::PGS, c);
        iter->pgs = std::move(pgs);
        return 0;
    });
}

int hgx_iter_property_values(hgx_iter_t* iter, const hgx_property_t* property) {
    return guarded(-1, [&]() -> int {
        if (!iter || !usable(property) || !same_handle(property, iter)) return -1;
        start(iter, hgx_iter::VALUES, Ctx{});
        const std::string& b = property->blob;
        size_t pos = 0;
        while (pos < b.size()) {
            size_t nul = b.find('\0', pos);
            if (nul == std::string::npos) nul = b.size();  // tolerate a missing last NUL
            iter->values.push_back(b.substr(pos, nul - pos));
            pos = nul + 1;
        }
        return 0;
    });
}

namespace {

// Common front of the iterator steps: -1 on failure, 0 at the end, 1 when
// the iterator has an entry at pos for the object.
int step(hgx_iter* it, hgx_iter::Kind kind, hgx_object* out, size_t count) {
    if (!it || !out) return fail(HGX_ERROR_INVALID_ARGUMENT);
    if (it->h != out->h) return fail(HGX_ERROR_HANDLE_MISMATCH);
    if (!it->h->bound) return fail(HGX_ERROR_NOT_BOUND);
    if (it->kind == hgx_iter::NONE) return fail(HGX_ERROR_NOT_SET);
    if (it->kind != kind) return fail(HGX_ERROR_TYPE_MISMATCH);
    return it->pos < count ? 1 : 0;
}

}  // namespace

int hgx_iter_next_service(hgx_iter_t* iter, hgx_service_t* out) {
    return guarded(-1, [&]() -> int {
        int rc = step(iter, hgx_iter::SERVICES, out, iter ? iter->rows.size() : 0);
        if (rc <= 0) return rc;
        const Row& r = iter->rows[iter->pos++];
        out->id = r.id;
        out->name = r.name;
        out->set = true;
        return 1;
    });
}

int hgx_iter_next_instance(hgx_iter_t* iter, hgx_instance_t* out) {
    return guarded(-1, [&]() -> int {
        int rc = step(iter, hgx_iter::INSTANCES, out, iter ? iter->rows.size() : 0);
        if (rc <= 0) return rc;
        const Row& r = iter->rows[iter->pos++];
        out->id = r.id;
        out->name = r.name;
        out->service_id = iter->ctx.service_id;
        out->service = iter->ctx.service;
        out->set = true;
        return 1;
    });
}

int hgx_iter_next_pg(hgx_iter_t* iter, hgx_propertygroup_t* out) {
    return guarded(-1, [&]() -> int {
        int rc = step(iter, hgx_iter::PGS, out, iter ? iter->pgs.size() : 0);
        if (rc <= 0) return rc;
        const ComposedPg& g = iter->pgs[iter->pos++];
        set_pg(out, iter->ctx, iter->ctx.mode, g.inst, g.svc, g.name, g.type);
        return 1;
    });
}

int hgx_iter_next_property(hgx_iter_t* iter, hgx_property_t* out) {
    return guarded(-1, [&]() -> int {
        int rc = step(iter, hgx_iter::PROPS, out, iter ? iter->rows.size() : 0);
        if (rc <= 0) return rc;
        set_prop(out, iter->ctx, Row(iter->rows[iter->pos++]));
        return 1;
    });
}

int hgx_iter_next_value(hgx_iter_t* iter, hgx_value_t* out) {
    return guarded(-1, [&]() -> int {
        int rc = step(iter, hgx_iter::VALUES, out, iter ? iter->values.size() : 0);
        if (rc <= 0) return rc;
        out->text = iter->values[iter->pos++];
        out->set = true;
        return 1;
    });
}

ssize_t hgx_service_to_wern(const hgx_service_t* service, char* buf, size_t size) {
    return guarded<ssize_t>(-1, [&]() -> ssize_t {
        if (!usable(service)) return -1;
        return copy_out(service_wern(service->name), buf, size);
    });
}

ssize_t hgx_instance_to_wern(const hgx_instance_t* instance, char* buf, size_t size) {
    return guarded<ssize_t>(-1, [&]() -> ssize_t {
        if (!usable(instance)) return -1;
        return copy_out(instance_wern(instance->service, instance->name), buf, size);
    });
}

ssize_t hgx_pg_to_wern(const hgx_propertygroup_t* pg, char* buf, size_t size) {
    return guarded<ssize_t>(-1, [&]() -> ssize_t {
        if (!usable(pg)) return -1;
        return copy_out(pg->ctx.pg_wern(), buf, size);
    });
}

ssize_t hgx_property_to_wern(const hgx_property_t* property, char* buf, size_t size) {
    return guarded<ssize_t>(-1, [&]() -> ssize_t {
        if (!usable(property)) return -1;
        return copy_out(property->ctx.pg_wern() + "/" + property->name, buf, size);
    });
}

ssize_t hgx_service_get_name(const hgx_service_t* service, char* buf, size_t size) {
    return guarded<ssize_t>(
        -1, [&]() -> ssize_t { return usable(service) ? copy_out(service->name, buf, size) : -1; });
}

ssize_t hgx_instance_get_name(const hgx_instance_t* instance, char* buf, size_t size) {
    return guarded<ssize_t>(-1, [&]() -> ssize_t {
        return usable(instance) ? copy_out(instance->name, buf, size) : -1;
    });
}

ssize_t hgx_snapshot_get_name(const hgx_snapshot_t* snapshot, char* buf, size_t size) {
    return guarded<ssize_t>(-1, [&]() -> ssize_t {
        return usable(snapshot) ? copy_out(snapshot->name, buf, size) : -1;
    });
}

ssize_t hgx_pg_get_name(const hgx_propertygroup_t* pg, char* buf, size_t size) {
    return guarded<ssize_t>(
        -1, [&]() -> ssize_t { return usable(pg) ? copy_out(pg->name, buf, size) : -1; });
}

ssize_t hgx_pg_get_type(const hgx_propertygroup_t* pg, char* buf, size_t size) {
    return guarded<ssize_t>(
        -1, [&]() -> ssize_t { return usable(pg) ? copy_out(pg->type, buf, size) : -1; });
}

ssize_t hgx_property_get_name(const hgx_property_t* property, char* buf, size_t size) {
    return guarded<ssize_t>(-1, [&]() -> ssize_t {
        return usable(property) ? copy_out(property->name, buf, size) : -1;
    });
}

ssize_t hgx_value_get_as_string(const hgx_value_t* value, char* buf, size_t size) {
    return guarded<ssize_t>(
        -1, [&]() -> ssize_t { return usable(value) ? copy_out(value->text, buf, size) : -1; });
}

int hgx_service_get_pg(const hgx_service_t* service, const char* name, hgx_propertygroup_t* pg) {
    return guarded(-1, [&]() -> int {
        if (!name || !usable(service) || !same_handle(service, pg)) return -1;
        Row r;
        int rc = service->h->store().pg_by_name(OWNER_SERVICE, service->id, name, &r);
        if (rc <= 0) return rc < 0 ? -1 : fail(HGX_ERROR_NOT_FOUND);
        Ctx c;
        c.service_id = service->id;
        c.service = service->name;
        set_pg(pg, c, MODE_OWN, r.id, 0, r.name, r.text);
        return 0;
    });
}

int hgx_instance_get_pg(const hgx_instance_t* instance, const char* name, hgx_propertygroup_t* pg) {
    return guarded(-1, [&]() -> int {
        if (!name || !usable(instance) || !same_handle(instance, pg)) return -1;
        Row r;
        int rc = instance->h->store().pg_by_name(OWNER_INSTANCE, instance->id, name, &r);
        if (rc <= 0) return rc < 0 ? -1 : fail(HGX_ERROR_NOT_FOUND);
        set_pg(pg, instance_ctx(instance, MODE_OWN), MODE_OWN, r.id, 0, r.name, r.text);
        return 0;
    });
}

int hgx_instance_get_pg_composed(const hgx_instance_t* instance, const hgx_snapshot_t* snapshot,
                                 const char* name, hgx_propertygroup_t* pg) {
    return guarded(-1, [&]() -> int {
        if (!name || !usable(instance) || !same_handle(instance, pg)) return -1;
        Store& s = instance->h->store();
        Row a, b;
        if (snapshot) {
            if (!usable(snapshot) || !same_handle(instance, snapshot)) return -1;
            if (snapshot->instance_id != instance->id) return fail(HGX_ERROR_INVALID_ARGUMENT);
            int rc = s.pg_by_name(OWNER_SNAPSHOT, snapshot->id, name, &a);
            if (rc <= 0) return rc < 0 ? -1 : fail(HGX_ERROR_NOT_FOUND);
            set_pg(pg, snapshot_ctx(snapshot), MODE_SNAPSHOT, a.id, 0, a.name, a.text);
            return 0;
        }
        int ra = s.pg_by_name(OWNER_INSTANCE, instance->id, name, &a);
        int rb = ra < 0 ? -1 : s.pg_by_name(OWNER_SERVICE, instance->service_id, name, &b);
        if (ra < 0 || rb < 0) return -1;
        if (!ra && !rb) return fail(HGX_ERROR_NOT_FOUND);
        set_pg(pg, instance_ctx(instance, MODE_COMPOSED), MODE_COMPOSED, ra ? a.id : 0,
               rb ? b.id : 0, name, ra ? a.text : b.text);
        return 0;
    });
}

int hgx_instance_get_snapshot(const hgx_instance_t* instance, const char* name,
                              hgx_snapshot_t* snapshot) {
    return guarded(-1, [&]() -> int {
        if (!name || !usable(instance) || !same_handle(instance, snapshot)) return -1;
        Row r;
        int rc = instance->h->store().snapshot_by_name(instance->id, name, &r);
        if (rc <= 0) return rc < 0 ? -1 : fail(HGX_ERROR_NOT_FOUND);
        snapshot->id = r.id;
        snapshot->instance_id = instance->id;
        snapshot->service_id = instance->service_id;
        snapshot->service = instance->service;
        snapshot->instance = instance->name;
        snapshot->name = r.name;
        snapshot->set = true;
        return 0;
    });
}

int hgx_property_type(const hgx_property_t* property, hgx_type_t* type) {
    if (!type || !usable(property)) return -1;
    *type = property->type;
    return 0;
}

ssize_t hgx_limit(int code) {
    switch (code) {
        case HGX_LIMIT_VALUE_LENGTH:
            return VALUE_LIMIT;
        case HGX_LIMIT_PG_TYPE_LENGTH:
            return PG_TYPE_LIMIT;
        case HGX_LIMIT_WERN_LENGTH:
            return WERN_LIMIT;
        default:
            return fail(HGX_ERROR_INVALID_ARGUMENT);
    }
}

hgx_error_t hgx_error(void) { return get_error(); }

const char* hgx_strerror(hgx_error_t code) {
    switch (code) {
        case HGX_ERROR_NONE:
            return "No error";
        case HGX_ERROR_NOT_BOUND:
            return "Repository handle is not bound";
        case HGX_ERROR_NOT_SET:
            return "Object is not set";
        case HGX_ERROR_NOT_FOUND:
            return "No such object in the repository";
        case HGX_ERROR_TYPE_MISMATCH:
            return "Object is of another kind than asked for";
        case HGX_ERROR_IN_USE:
            return "Object is in use";
        case HGX_ERROR_CONNECTION_BROKEN:
            return "Repository could not be read";
        case HGX_ERROR_INVALID_ARGUMENT:
            return "Invalid argument";
        case HGX_ERROR_NO_MEMORY:
            return "Out of memory";
        case HGX_ERROR_CONSTRAINT_VIOLATED:
            return "Wern does not name an object of the required kind";
        case HGX_ERROR_EXISTS:
            return "Object exists already";
        case HGX_ERROR_HANDLE_MISMATCH:
            return "Objects of different handles mixed";
        case HGX_ERROR_VERSION_MISMATCH:
            return "Library version mismatch";
        case HGX_ERROR_INVALID_VALUE:
            return "Value does not fit its type or is too long";
        case HGX_ERROR_PERMISSION_DENIED:
            return "Permission denied";
        case HGX_ERROR_NO_REPOSITORY:
            return "Repository file does not exist";
        case HGX_ERROR_REPOSITORY_ACCESS:
            return "Repository file cannot be opened";
        case HGX_ERROR_NOT_A_REPOSITORY:
            return "Repository file is not a database";
        case HGX_ERROR_SCHEMA_MISMATCH:
            return "Repository file is a database of another schema or version";
        case HGX_ERROR_INTERNAL:
            return "Internal error of the repository store";
        case HGX_ERROR_REPOSITORY_LOG:
            return "Repository file's write-ahead log cannot be read: its -shm file is missing "
                   "or unreadable, and this user cannot create it in that directory";
        case HGX_ERROR_CLUSTER_UNREACHABLE:
            return "No member of the etcd cluster answers";
        case HGX_ERROR_CLUSTER_TIMEOUT:
            return "The etcd cluster did not answer in time";
        case HGX_ERROR_REVISION_COMPACTED:
            return "The etcd cluster has compacted away the revision being read; try again";
        case HGX_ERROR_CLUSTER_CREDENTIALS:
            return "The etcd cluster refused the credentials (HGX_ETCD_USER, HGX_ETCD_PASSWORD)";
        case HGX_ERROR_CLUSTER_NO_REPOSITORY:
            return "No repository below this etcd prefix";
        case HGX_ERROR_CLUSTER_FOREIGN:
            return "The etcd prefix holds something other than a repository";
        case HGX_ERROR_CLUSTER_SCHEMA:
            return "The etcd prefix holds a repository of another schema version";
        case HGX_ERROR_CLUSTER_CLIENT:
            return "The etcd client module hgx-etcd.so cannot be loaded";
        case HGX_ERROR_BAD_URL:
            return "Malformed etcd URL; the form is etcd[s]://HOST:PORT[,HOST:PORT]...[/PREFIX]";
        case HGX_ERROR_CONFLICT:
            return "Another writer changed the repository at the same time";
        case HGX_ERROR_TOO_LARGE:
            return "Too large for one etcd request";
        case HGX_ERROR_CLUSTER_TLS:
            return "TLS with the etcd cluster failed (HGX_ETCD_CACERT, HGX_ETCD_CERT, HGX_ETCD_KEY)";
    }
    return "Unknown error";
}

namespace {
constexpr const char* TYPE_NAMES[] = {
    nullptr,       "boolean",        "count",          "integer", "time",
    "astring",     "ustring",        "opaque",         "host",    "hostname",
    "net_address", "net_address_v4", "net_address_v6", "wern",    "uri",
};
constexpr int TYPE_COUNT = sizeof TYPE_NAMES / sizeof TYPE_NAMES[0];
}  // namespace

const char* hgx_type_to_string(hgx_type_t type) {
    int t = static_cast<int>(type);
    return t > 0 && t < TYPE_COUNT ? TYPE_NAMES[t] : nullptr;
}

hgx_type_t hgx_string_to_type(const char* name) {
    if (!name) return HGX_TYPE_INVALID;
    for (int t = 1; t < TYPE_COUNT; ++t)
        if (std::strcmp(TYPE_NAMES[t], name) == 0) return static_cast<hgx_type_t>(t);
    return HGX_TYPE_INVALID;
}
