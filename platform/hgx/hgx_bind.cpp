// libhgx's handles and the life of its objects: binding a handle to the
// repository, making and destroying objects, the scope, the limits, the
// thread's error and its texts, and the names of the value types.
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "hgx.h"
#include "hgx_objects.h"

using namespace hgx_detail;

namespace {

template <typename T>
T* create(hgx_handle_t* handle) {
    static_assert(IS_OBJECT<T>);
    if (!handle) {
        set_error(HGX_ERROR_INVALID_ARGUMENT);
        return nullptr;
    }
    T* o = new (std::nothrow) T(handle);
    if (!o) set_error(HGX_ERROR_NO_MEMORY);
    return o;
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

namespace {

int bind(hgx_handle_t* handle, const char* path, OpenMode mode) {
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
        handle->bound = open_store(where, mode, nullptr);
        return handle->bound ? 0 : -1;
    });
}

}  // namespace

int hgx_handle_bind_path(hgx_handle_t* handle, const char* path) {
    return bind(handle, path, OpenMode::READ);
}

int hgx_handle_bind_no_writes(hgx_handle_t* handle, const char* path) {
    return bind(handle, path, OpenMode::READ_NO_WRITES);
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
    const char* particular = last_error_text(code);
    return particular != nullptr ? particular : error_text(code);
}

const char* hgx_detail::error_text(hgx_error_t code) {
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
            return "The etcd client module (hgx-etcd.so, or hgx-etcd-tls.so for etcds://) cannot "
                   "be loaded";
        case HGX_ERROR_BAD_URL:
            return "Malformed etcd URL; the form is etcd[s]://HOST:PORT[,HOST:PORT]...[/PREFIX]";
        case HGX_ERROR_CONFLICT:
            return "Another writer changed the repository at the same time";
        case HGX_ERROR_TOO_LARGE:
            return "Too large for one etcd request";
        case HGX_ERROR_CLUSTER_TLS:
            return "TLS with the etcd cluster failed (HGX_ETCD_CACERT, HGX_ETCD_CERT, "
                   "HGX_ETCD_KEY)";
        case HGX_ERROR_CLUSTER_NOT_PERMITTED:
            return "The etcd user (HGX_ETCD_USER) is not permitted to do this in the repository";
        case HGX_ERROR_CLUSTER_OLD_SCHEMA:
            return "The etcd prefix holds a repository of another schema version; convert it "
                   "with hgxrepo -r URL upgrade";
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
// The table is indexed by hgx_type_t: one name for each type up to the last.
static_assert(TYPE_COUNT == HGX_TYPE_URI + 1);
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
