// Reading objects on the read side: names, group types, values, property
// types, and the lookups of one group or snapshot by name.
#include <string>

#include "hgx.h"
#include "hgx_objects.h"

using namespace hgx_detail;

namespace {

// A text of a usable object, copied into the caller's buffer.
template <typename T>
ssize_t text_of(const T* o, std::string T::*field, char* buf, size_t size) {
    return guarded<ssize_t>(
        -1, [&]() -> ssize_t { return usable(o) ? copy_out(o->*field, buf, size) : -1; });
}

}  // namespace

ssize_t hgx_service_get_name(const hgx_service_t* service, char* buf, size_t size) {
    return text_of(service, &hgx_service::name, buf, size);
}

ssize_t hgx_instance_get_name(const hgx_instance_t* instance, char* buf, size_t size) {
    return text_of(instance, &hgx_instance::name, buf, size);
}

ssize_t hgx_snapshot_get_name(const hgx_snapshot_t* snapshot, char* buf, size_t size) {
    return text_of(snapshot, &hgx_snapshot::name, buf, size);
}

ssize_t hgx_pg_get_name(const hgx_propertygroup_t* pg, char* buf, size_t size) {
    return text_of(pg, &hgx_propertygroup::name, buf, size);
}

ssize_t hgx_pg_get_type(const hgx_propertygroup_t* pg, char* buf, size_t size) {
    return text_of(pg, &hgx_propertygroup::type, buf, size);
}

ssize_t hgx_property_get_name(const hgx_property_t* property, char* buf, size_t size) {
    return text_of(property, &hgx_property::name, buf, size);
}

ssize_t hgx_value_get_as_string(const hgx_value_t* value, char* buf, size_t size) {
    return text_of(value, &hgx_value::text, buf, size);
}

int hgx_service_get_pg(const hgx_service_t* service, const char* name, hgx_propertygroup_t* pg) {
    return guarded(-1, [&]() -> int {
        if (!name || !usable(service) || !same_handle(service, pg)) return -1;
        Row r;
        int rc = service->h->store().pg_by_name(OWNER_SERVICE, service->id, name, &r);
        if (rc <= 0) return rc < 0 ? -1 : fail(HGX_ERROR_NOT_FOUND);
        set_pg(pg, service_ctx(service), MODE_OWN, r.id, 0, r.name, r.text);
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
    if (!type) return fail(HGX_ERROR_INVALID_ARGUMENT);
    if (!usable(property)) return -1;
    *type = property->type;
    return 0;
}
