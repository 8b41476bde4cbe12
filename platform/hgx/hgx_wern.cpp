// Werns on the read side: resolving one to the objects it names against the
// handle's state of the repository, cutting one by syntax alone, and the
// werns of objects.
#include <cassert>
#include <cstring>
#include <initializer_list>
#include <string>

#include "hgx.h"
#include "hgx_objects.h"

using namespace hgx_detail;

namespace {

// How far a decode got: the service and instance named, the context of the
// last group named (the property's group where the wern names a property),
// that group's ids and, where the last part is a property, its row.
struct Decoded {
    Row svc, inst;
    Ctx ctx;
    int64_t gi = 0, gs = 0;  // instance's and service's group (own: gi only)
    std::string gname, gtype;
    bool is_prop = false;
    Row prop;
};

// The flags are judged by the wern's shape, before anything is looked up: a
// wern of the wrong kind is refused even if it names nothing.
int check_shape(const WernParts& w, int flags) {
    bool names_service = !w.scope_only && !w.has_instance && w.path.empty();
    bool names_instance = !w.scope_only && w.has_instance && w.path.empty();
    if ((flags & HGX_DECODE_SERVICE_ONLY) && !names_service)
        return fail(HGX_ERROR_CONSTRAINT_VIOLATED);
    if ((flags & HGX_DECODE_INSTANCE_ONLY) && !names_instance)
        return fail(HGX_ERROR_CONSTRAINT_VIOLATED);
    if (w.scope != "localhost") return fail(HGX_ERROR_NOT_FOUND);
    return 0;
}

// The service and instance the wern names, where it names them.
int resolve_owner(Store& s, const WernParts& w, Decoded* d) {
    // Behind the separator: an instance's groups are looked up in its
    // current composed view, a service's among its own.
    d->ctx.mode = w.has_instance ? MODE_COMPOSED : MODE_OWN;
    if (w.scope_only) return 0;
    int rc = s.service_by_name(w.service, &d->svc);
    if (rc <= 0) return rc < 0 ? -1 : fail(HGX_ERROR_NOT_FOUND);
    d->ctx.service_id = d->svc.id;
    d->ctx.service = d->svc.name;
    if (!w.has_instance) return 0;
    rc = s.instance_by_name(d->svc.id, w.instance, &d->inst);
    if (rc <= 0) return rc < 0 ? -1 : fail(HGX_ERROR_NOT_FOUND);
    d->ctx.instance_id = d->inst.id;
    d->ctx.instance = d->inst.name;
    return 0;
}

// The property `name` of the group reached so far, the instance's before
// the service's: 1 with d->prop set, 0 none, -1 failure.
int find_prop(Store& s, const std::string& name, Decoded* d) {
    int rc = d->gi ? s.prop_by_name(d->gi, name, &d->prop) : 0;
    if (rc != 0 || !d->gs) return rc;
    return s.prop_by_name(d->gs, name, &d->prop);
}

// One step down, to the group `name` at depth `depth` below what d reached;
// in a composed view on both sides, either of which may be missing.
int step_group(Store& s, const WernParts& w, size_t depth, const std::string& name, Decoded* d) {
    Row a, b;
    int ra = 0, rb = 0;
    if (w.has_instance) {
        if (depth == 0 || d->gi)
            ra = s.pg_by_name(depth ? OWNER_PG : OWNER_INSTANCE, depth ? d->gi : d->inst.id, name,
                              &a);
        if (depth == 0 || d->gs)
            rb =
                s.pg_by_name(depth ? OWNER_PG : OWNER_SERVICE, depth ? d->gs : d->svc.id, name, &b);
    } else {
        ra = s.pg_by_name(depth ? OWNER_PG : OWNER_SERVICE, depth ? d->gi : d->svc.id, name, &a);
    }
    if (ra < 0 || rb < 0) return -1;
    if (!ra && !rb) return fail(HGX_ERROR_NOT_FOUND);
    d->gi = ra ? a.id : 0;
    d->gs = rb ? b.id : 0;
    d->gname = name;
    d->gtype = ra ? a.text : b.text;
    d->ctx = d->ctx.child(name);
    return 0;
}

// The parts behind the separator: groups, and a last part of two or more
// that is a property where the group before it has one of that name.
int walk_parts(Store& s, const WernParts& w, Decoded* d) {
    for (size_t i = 0; i < w.path.size(); ++i) {
        if (i > 0 && i + 1 == w.path.size()) {
            int rc = find_prop(s, w.path[i], d);
            if (rc < 0) return -1;
            if (rc == 1) {
                d->is_prop = true;
                return 0;
            }
        }
        if (step_group(s, w, i, w.path[i], d) < 0) return -1;
    }
    return 0;
}

// Each non-null object is set to what the wern names at its level; objects
// below that level are left unset.
void fill_owners(const WernParts& w, const Decoded& d, hgx_scope_t* scope, hgx_service_t* service,
                 hgx_instance_t* instance) {
    if (scope) scope->set = true;
    if (service) {
        service->set = !w.scope_only;
        service->id = d.svc.id;
        service->name = d.svc.name;
    }
    if (instance) {
        instance->set = w.has_instance;
        instance->id = d.inst.id;
        instance->service_id = d.svc.id;
        instance->service = d.svc.name;
        instance->name = d.inst.name;
    }
}

void fill_path(const WernParts& w, Decoded&& d, hgx_propertygroup_t* pg, hgx_property_t* property) {
    if (pg) {
        pg->set = false;
        if (!w.path.empty()) {
            pg->ctx = d.ctx;
            pg->id = d.gi;
            pg->svc = d.gs;
            pg->name = d.gname;
            pg->type = d.gtype;
            pg->set = true;
        }
    }
    if (property) {
        property->set = false;
        if (d.is_prop) set_prop(property, d.ctx, std::move(d.prop));
    }
}

}  // namespace

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
        if (split_wern(wern, &w) < 0 || check_shape(w, flags) < 0) return -1;
        Decoded d;
        if (resolve_owner(handle->store(), w, &d) < 0 || walk_parts(handle->store(), w, &d) < 0)
            return -1;
        fill_owners(w, d, scope, service, instance);
        fill_path(w, std::move(d), pg, property);
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
        // split_wern takes a scope for the scope alone unless a '/' follows.
        assert(slash);
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
