// libhgx: client of the service repository, stored in one SQLite file or in
// an etcd cluster.
//
// The repository is named by HGX_REPOSITORY, else /var/lib/hgx/repository.db:
// a file, or a cluster as etcd://HOST:PORT[,HOST:PORT]...[/PREFIX] (etcds://
// for TLS). A bound handle reads one state of the repository for its whole
// life: a file inside one read transaction, a cluster at the revision of its
// first read, so one handle sees one consistent state while others write.
//
// Children are iterated in ascending byte order of their names (services by
// their whole name). A text copied into a buffer that is too small is cut
// and terminated, and the result is still the whole text's length.
//
// Conventions: operations that return int give 0 on success and -1 on failure;
// the failure's code is then available from hgx_error(). Operations that copy
// text into a caller's buffer return the length of the text (without the
// terminator) or -1. Iterator steps return 1 (object set to the next child),
// 0 (end) or -1 (failure). Every *_destroy accepts null.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

typedef struct hgx_handle hgx_handle_t;
typedef struct hgx_scope hgx_scope_t;
typedef struct hgx_service hgx_service_t;
typedef struct hgx_instance hgx_instance_t;
typedef struct hgx_snapshot hgx_snapshot_t;
typedef struct hgx_propertygroup hgx_propertygroup_t;
typedef struct hgx_property hgx_property_t;
typedef struct hgx_value hgx_value_t;
typedef struct hgx_iter hgx_iter_t;

typedef unsigned long hgx_version_t;
#define HGX_VERSION 1UL

typedef enum hgx_error {
    HGX_ERROR_NONE = 1000,
    HGX_ERROR_NOT_BOUND = 1001,           // handle not bound, or object not set
    HGX_ERROR_NOT_SET = 1002,             // object holds nothing yet
    HGX_ERROR_NOT_FOUND = 1003,           // names nothing in the repository
    HGX_ERROR_TYPE_MISMATCH = 1004,       // object of another kind than asked for
    HGX_ERROR_IN_USE = 1005,              // an iterator is in use by another walk
    HGX_ERROR_CONNECTION_BROKEN = 1006,   // the repository could not be read
    HGX_ERROR_INVALID_ARGUMENT = 1007,    // bad argument, e.g. a malformed wern
    HGX_ERROR_NO_MEMORY = 1008,
    HGX_ERROR_CONSTRAINT_VIOLATED = 1009, // decode flags not met
    HGX_ERROR_EXISTS = 1010,              // object of that name exists already
    HGX_ERROR_HANDLE_MISMATCH = 1011,     // objects of two handles mixed
    HGX_ERROR_VERSION_MISMATCH = 1012,    // hgx_handle_create with another version
    HGX_ERROR_INVALID_VALUE = 1013,       // value does not fit its type, or too long
    HGX_ERROR_PERMISSION_DENIED = 1014,   // write on a read-only handle
    HGX_ERROR_NO_REPOSITORY = 1015,       // repository file does not exist
    HGX_ERROR_REPOSITORY_ACCESS = 1016,   // repository file cannot be opened
    HGX_ERROR_NOT_A_REPOSITORY = 1017,    // file is not an SQLite database
    HGX_ERROR_SCHEMA_MISMATCH = 1018,     // database of another schema or version
    HGX_ERROR_INTERNAL = 1019,            // unexpected failure of the store
    HGX_ERROR_REPOSITORY_LOG = 1020,      // write-ahead log of the file cannot be read
    // A repository in an etcd cluster (etcd:// and etcds:// URLs).
    HGX_ERROR_CLUSTER_UNREACHABLE = 1021,  // no member of the cluster answers
    HGX_ERROR_CLUSTER_TIMEOUT = 1022,      // the cluster did not answer in time
    HGX_ERROR_REVISION_COMPACTED = 1023,   // the revision read has been compacted
    HGX_ERROR_CLUSTER_CREDENTIALS = 1024,  // user or password refused
    HGX_ERROR_CLUSTER_NO_REPOSITORY = 1025,  // nothing below the prefix
    HGX_ERROR_CLUSTER_FOREIGN = 1026,      // the prefix holds something else
    HGX_ERROR_CLUSTER_SCHEMA = 1027,       // a repository of another schema version
    HGX_ERROR_CLUSTER_CLIENT = 1028,       // the client module cannot be loaded
    HGX_ERROR_BAD_URL = 1029,              // malformed etcd URL
    HGX_ERROR_CONFLICT = 1030,             // another writer committed first
    HGX_ERROR_TOO_LARGE = 1031,            // more than one etcd request holds
    HGX_ERROR_CLUSTER_TLS = 1032,          // TLS failed: CA, certificate or key
} hgx_error_t;

typedef enum hgx_type {
    HGX_TYPE_INVALID = 0,
    HGX_TYPE_BOOLEAN,
    HGX_TYPE_COUNT,
    HGX_TYPE_INTEGER,
    HGX_TYPE_TIME,
    HGX_TYPE_ASTRING,
    HGX_TYPE_USTRING,
    HGX_TYPE_OPAQUE,
    HGX_TYPE_HOST,
    HGX_TYPE_HOSTNAME,
    HGX_TYPE_NET_ADDRESS,
    HGX_TYPE_NET_ADDRESS_V4,
    HGX_TYPE_NET_ADDRESS_V6,
    HGX_TYPE_WERN,
    HGX_TYPE_URI,
} hgx_type_t;

// Limit codes for hgx_limit; each limit is the longest text less terminator.
#define HGX_LIMIT_VALUE_LENGTH (-2001)
#define HGX_LIMIT_PG_TYPE_LENGTH (-2002)
#define HGX_LIMIT_WERN_LENGTH (-2003)

// Decode flags.
#define HGX_DECODE_INSTANCE_ONLY 4
#define HGX_DECODE_SERVICE_ONLY 8

// The separator between an object's wern and a relative name.
#define HGX_WERN_PG_SEPARATOR "/:properties/"
#define HGX_DEFAULT_REPOSITORY "/var/lib/hgx/repository.db"

hgx_handle_t* hgx_handle_create(hgx_version_t version);
int hgx_handle_bind(hgx_handle_t* handle);
// As hgx_handle_bind, but for the named file; a null or empty path falls back
// to HGX_REPOSITORY and the default. Used by tools that take a file option.
int hgx_handle_bind_path(hgx_handle_t* handle, const char* path);
void hgx_handle_destroy(hgx_handle_t* handle);

hgx_scope_t* hgx_scope_create(hgx_handle_t* handle);
hgx_service_t* hgx_service_create(hgx_handle_t* handle);
hgx_instance_t* hgx_instance_create(hgx_handle_t* handle);
hgx_snapshot_t* hgx_snapshot_create(hgx_handle_t* handle);
hgx_propertygroup_t* hgx_pg_create(hgx_handle_t* handle);
hgx_property_t* hgx_property_create(hgx_handle_t* handle);
hgx_value_t* hgx_value_create(hgx_handle_t* handle);
hgx_iter_t* hgx_iter_create(hgx_handle_t* handle);

void hgx_scope_destroy(hgx_scope_t* scope);
void hgx_service_destroy(hgx_service_t* service);
void hgx_instance_destroy(hgx_instance_t* instance);
void hgx_snapshot_destroy(hgx_snapshot_t* snapshot);
void hgx_pg_destroy(hgx_propertygroup_t* pg);
void hgx_property_destroy(hgx_property_t* property);
void hgx_value_destroy(hgx_value_t* value);
void hgx_iter_destroy(hgx_iter_t* iter);

// The only scope is "localhost".
int hgx_handle_get_scope(hgx_handle_t* handle, const char* name, hgx_scope_t* scope);

// Resolves a wern; each non-null object is set to what the wern names at that
// level, and objects below it are left unset. Behind the separator, the last
// part names a property where the group before it has one of that name, else
// a nested group; an instance's groups are looked up in its current composed
// view. The flags are judged by the wern's form before any lookup. HGX_ERROR_NOT_FOUND for a wern that names nothing,
// HGX_ERROR_INVALID_ARGUMENT for one that is not well-formed,
// HGX_ERROR_CONSTRAINT_VIOLATED where the flags are not met.
int hgx_handle_decode_wern(hgx_handle_t* handle, const char* wern, hgx_scope_t* scope,
                           hgx_service_t* service, hgx_instance_t* instance,
                           hgx_propertygroup_t* pg, hgx_property_t* property, int flags);

// Cuts a writable wern in place; each non-null out-parameter receives a
// pointer into the copy, or null where that part is absent. Without the
// repository a nested group cannot be told from a property: of the parts
// behind the separator, the last is the property when there are two or more,
// the rest the group path. scope_path and snapshot are always null.
int hgx_parse_wern(char* wern, const char** scope, const char** scope_path,
                   const char** service, const char** instance, const char** pg,
                   const char** property, const char** snapshot);

int hgx_iter_scope_services(hgx_iter_t* iter, const hgx_scope_t* scope);
int hgx_iter_service_instances(hgx_iter_t* iter, const hgx_service_t* service);
int hgx_iter_service_pgs(hgx_iter_t* iter, const hgx_service_t* service);
int hgx_iter_instance_pgs(hgx_iter_t* iter, const hgx_instance_t* instance);
int hgx_iter_instance_pgs_composed(hgx_iter_t* iter, const hgx_instance_t* instance,
                                   const hgx_snapshot_t* snapshot);
int hgx_iter_pg_properties(hgx_iter_t* iter, const hgx_propertygroup_t* pg);
int hgx_iter_pg_pgs(hgx_iter_t* iter, const hgx_propertygroup_t* pg);
int hgx_iter_pg_pgs_composed(hgx_iter_t* iter, const hgx_propertygroup_t* pg,
                             const hgx_snapshot_t* snapshot);
int hgx_iter_property_values(hgx_iter_t* iter, const hgx_property_t* property);

int hgx_iter_next_service(hgx_iter_t* iter, hgx_service_t* out);
int hgx_iter_next_instance(hgx_iter_t* iter, hgx_instance_t* out);
int hgx_iter_next_pg(hgx_iter_t* iter, hgx_propertygroup_t* out);
int hgx_iter_next_property(hgx_iter_t* iter, hgx_property_t* out);
int hgx_iter_next_value(hgx_iter_t* iter, hgx_value_t* out);

// Short form werns: wrn:/service, wrn:/service:instance, and for groups and
// properties the owner's wern, "/:properties/", group path and property name.
ssize_t hgx_service_to_wern(const hgx_service_t* service, char* buf, size_t size);
ssize_t hgx_instance_to_wern(const hgx_instance_t* instance, char* buf, size_t size);
ssize_t hgx_pg_to_wern(const hgx_propertygroup_t* pg, char* buf, size_t size);
ssize_t hgx_property_to_wern(const hgx_property_t* property, char* buf, size_t size);

ssize_t hgx_service_get_name(const hgx_service_t* service, char* buf, size_t size);
ssize_t hgx_instance_get_name(const hgx_instance_t* instance, char* buf, size_t size);
ssize_t hgx_snapshot_get_name(const hgx_snapshot_t* snapshot, char* buf, size_t size);
ssize_t hgx_pg_get_name(const hgx_propertygroup_t* pg, char* buf, size_t size);
ssize_t hgx_pg_get_type(const hgx_propertygroup_t* pg, char* buf, size_t size);
ssize_t hgx_property_get_name(const hgx_property_t* property, char* buf, size_t size);
ssize_t hgx_value_get_as_string(const hgx_value_t* value, char* buf, size_t size);

int hgx_service_get_pg(const hgx_service_t* service, const char* name, hgx_propertygroup_t* pg);
int hgx_instance_get_pg(const hgx_instance_t* instance, const char* name, hgx_propertygroup_t* pg);
// Group of the composed view, from the snapshot if one is given.
int hgx_instance_get_pg_composed(const hgx_instance_t* instance, const hgx_snapshot_t* snapshot,
                                 const char* name, hgx_propertygroup_t* pg);
int hgx_instance_get_snapshot(const hgx_instance_t* instance, const char* name,
                              hgx_snapshot_t* snapshot);
int hgx_property_type(const hgx_property_t* property, hgx_type_t* type);

ssize_t hgx_limit(int code);
hgx_error_t hgx_error(void);
const char* hgx_strerror(hgx_error_t code);

// Name of a type ("astring", ...) and back; null / HGX_TYPE_INVALID if unknown.
const char* hgx_type_to_string(hgx_type_t type);
hgx_type_t hgx_string_to_type(const char* name);
