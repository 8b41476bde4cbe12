// Iteration on the read side. An iteration reads all children of its parent
// at its start and hands them out one by one. Since the handle reads one
// state of the repository, that list cannot go stale, and nested walks never
// share a live statement. Children come in ascending byte order of their
// names. A walk keeps the mode of the group it starts from (hgx_objects.h).
#include <cassert>
#include <string>
#include <vector>

#include "hgx.h"
#include "hgx_objects.h"

using namespace hgx_detail;

namespace {

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

int start_pgs_of(hgx_iter* it, const Ctx& parent, int kind, int64_t owner) {
    std::vector<ComposedPg> pgs;
    if (own_pgs(it->h->store(), kind, owner, &pgs) < 0) return -1;
    start(it, hgx_iter::PGS, parent);
    it->pgs = std::move(pgs);
    return 0;
}

}  // namespace

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
        start(iter, hgx_iter::INSTANCES, service_ctx(service));
        iter->rows = std::move(rows);
        return 0;
    });
}

int hgx_iter_service_pgs(hgx_iter_t* iter, const hgx_service_t* service) {
    return guarded(-1, [&]() -> int {
        if (!iter || !usable(service) || !same_handle(service, iter)) return -1;
        return start_pgs_of(iter, service_ctx(service), OWNER_SERVICE, service->id);
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
        // Own groups have their id; a composed one has a group on one side at least.
        assert(g.inst || g.svc);
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
