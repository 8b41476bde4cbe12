// The records behind the opaque types of hgx.h, and the small helpers that
// the parts of libhgx's read side share: binding (hgx_bind.cpp), werns
// (hgx_wern.cpp), iteration (hgx_iter.cpp) and values (hgx_values.cpp).
//
// Objects are plain records that remember where they came from. A group
// records its mode: OWN (a service's or an instance's own group), COMPOSED
// (a group of an instance's current composed view, made of the instance's
// and the service's group at the same path, either possibly missing) or
// SNAPSHOT (a frozen copy inside a snapshot). Its properties and nested
// groups are then iterated in that same mode, so that a walk that starts in a
// composed view or a snapshot stays there.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "hgx.h"
#include "hgx_internal.h"

// A bound handle owns its store, opened for reading: one state of the
// repository for the handle's life.
struct hgx_handle {
    std::unique_ptr<hgx_detail::Store> bound;
    hgx_detail::Store& store() { return *bound; }
};

namespace hgx_detail {

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

}  // namespace hgx_detail

// What every object has: the handle it was made for, and whether it holds
// anything yet. The checks below read every kind of object through it.
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
    hgx_detail::Ctx ctx;  // path includes the group's own name
    int64_t id = 0;       // own or snapshot group; the instance's group when composed
    int64_t svc = 0;      // composed only: the service's group at the same path
    std::string name, type;
};

struct hgx_property : hgx_object {
    using hgx_object::hgx_object;
    hgx_detail::Ctx ctx;  // of the group
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
    hgx_detail::Ctx ctx;  // parent's context: for groups the path of the parent group
    std::vector<hgx_detail::Row> rows;
    std::vector<hgx_detail::ComposedPg> pgs;
    std::vector<std::string> values;
};

namespace hgx_detail {

// Every object is checked and compared through its hgx_object part, and is
// made and destroyed as its own type; a record outside that family would be
// read through a layout it does not have.
template <typename T>
constexpr bool IS_OBJECT = std::is_base_of_v<hgx_object, T> && !std::is_polymorphic_v<T>;
static_assert(IS_OBJECT<hgx_scope> && IS_OBJECT<hgx_service> && IS_OBJECT<hgx_instance> &&
              IS_OBJECT<hgx_snapshot> && IS_OBJECT<hgx_propertygroup> && IS_OBJECT<hgx_property> &&
              IS_OBJECT<hgx_value> && IS_OBJECT<hgx_iter>);

// Checks that an object is usable as a parent or source: not null, of a bound
// handle, set.
inline bool usable(const hgx_object* o) {
    if (!o) return fail(HGX_ERROR_INVALID_ARGUMENT), false;
    if (!o->h || !o->h->bound) return fail(HGX_ERROR_NOT_BOUND), false;
    if (!o->set) return fail(HGX_ERROR_NOT_SET), false;
    return true;
}

// Checks that an output object exists and belongs to the given handle.
inline bool same_handle(const hgx_object* a, const hgx_object* b) {
    if (!b) return fail(HGX_ERROR_INVALID_ARGUMENT), false;
    if (a->h != b->h) return fail(HGX_ERROR_HANDLE_MISMATCH), false;
    return true;
}

// Copies a text into a caller's buffer, cut and terminated where it does not
// fit; the whole text's length, or -1 for a null buffer of some size.
inline ssize_t copy_out(const std::string& s, char* buf, size_t size) {
    if (!buf && size) return fail(HGX_ERROR_INVALID_ARGUMENT);
    if (size) {
        size_t n = s.size() < size - 1 ? s.size() : size - 1;
        std::memcpy(buf, s.data(), n);
        buf[n] = '\0';
    }
    return static_cast<ssize_t>(s.size());
}

inline void set_pg(hgx_propertygroup* pg, const Ctx& parent, PgMode mode, int64_t id, int64_t svc,
                   const std::string& name, const std::string& type) {
    pg->ctx = parent.child(name);
    pg->ctx.mode = mode;
    pg->id = id;
    pg->svc = svc;
    pg->name = name;
    pg->type = type;
    pg->set = true;
}

inline void set_prop(hgx_property* p, const Ctx& pg_ctx, Row&& r) {
    p->ctx = pg_ctx;
    p->id = r.id;
    p->type = static_cast<hgx_type_t>(r.type);
    p->name = std::move(r.name);
    p->blob = std::move(r.text);
    p->set = true;
}

inline Ctx owner_ctx(int64_t service_id, int64_t instance_id, const std::string& service,
                     const std::string& instance, PgMode mode) {
    Ctx c;
    c.service_id = service_id;
    c.instance_id = instance_id;
    c.service = service;
    c.instance = instance;
    c.mode = mode;
    return c;
}

inline Ctx instance_ctx(const hgx_instance* inst, PgMode mode) {
    return owner_ctx(inst->service_id, inst->id, inst->service, inst->name, mode);
}

inline Ctx service_ctx(const hgx_service* svc) {
    return owner_ctx(svc->id, 0, svc->name, std::string(), MODE_OWN);
}

inline Ctx snapshot_ctx(const hgx_snapshot* snap) {
    Ctx c = owner_ctx(snap->service_id, snap->instance_id, snap->service, snap->instance,
                      MODE_SNAPSHOT);
    c.snapshot_id = snap->id;
    return c;
}

}  // namespace hgx_detail
