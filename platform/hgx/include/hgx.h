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
    HGX_ERROR_NOT_BOUND = 1001,          // handle not bound, or object not set
    HGX_ERROR_NOT_SET = 1002,            // object holds nothing yet
    HGX_ERROR_NOT_FOUND = 1003,          // names nothing in the repository
    HGX_ERROR_TYPE_MISMATCH = 1004,      // object of another kind than asked for
    HGX_ERROR_IN_USE = 1005,             // an iterator is in use by another walk
    HGX_ERROR_CONNECTION_BROKEN = 1006,  // the repository could not be read
    HGX_ERROR_INVALID_ARGUMENT = 1007,   // bad argument, e.g. a malformed wern
    HGX_ERROR_NO_MEMORY = 1008,
    HGX_ERROR_CONSTRAINT_VIOLATED = 1009,  // decode flags not met
    HGX_ERROR_EXISTS = 1010,               // object of that name exists already
    HGX_ERROR_HANDLE_MISMATCH = 1011,      // objects of two handles mixed
    HGX_ERROR_VERSION_MISMATCH = 1012,     // hgx_handle_create with another version
    HGX_ERROR_INVALID_VALUE = 1013,        // value does not fit its type, or too long
    HGX_ERROR_PERMISSION_DENIED = 1014,    // write on a read-only handle
    HGX_ERROR_NO_REPOSITORY = 1015,        // repository file does not exist
    HGX_ERROR_REPOSITORY_ACCESS = 1016,    // repository file cannot be opened
    HGX_ERROR_NOT_A_REPOSITORY = 1017,     // file is not an SQLite database
    HGX_ERROR_SCHEMA_MISMATCH = 1018,      // database of another schema or version
    HGX_ERROR_INTERNAL = 1019,             // unexpected failure of the store
    HGX_ERROR_REPOSITORY_LOG = 1020,       // write-ahead log of the file cannot be read
    // A repository in an etcd cluster (etcd:// and etcds:// URLs).
    HGX_ERROR_CLUSTER_UNREACHABLE = 1021,    // no member of the cluster answers
    HGX_ERROR_CLUSTER_TIMEOUT = 1022,        // the cluster did not answer in time
    HGX_ERROR_REVISION_COMPACTED = 1023,     // the revision read has been compacted
    HGX_ERROR_CLUSTER_CREDENTIALS = 1024,    // user or password refused
    HGX_ERROR_CLUSTER_NO_REPOSITORY = 1025,  // nothing below the prefix
    HGX_ERROR_CLUSTER_FOREIGN = 1026,        // the prefix holds something else
    HGX_ERROR_CLUSTER_SCHEMA = 1027,         // a repository of another schema version
    HGX_ERROR_CLUSTER_CLIENT = 1028,         // the client module cannot be loaded
    HGX_ERROR_BAD_URL = 1029,                // malformed etcd URL
    HGX_ERROR_CONFLICT = 1030,               // another writer committed first
    HGX_ERROR_TOO_LARGE = 1031,              // more than one etcd request holds
    HGX_ERROR_CLUSTER_TLS = 1032,            // TLS failed: CA, certificate, key or host name
    HGX_ERROR_CLUSTER_NOT_PERMITTED = 1033,  // the etcd user's roles do not allow it
    HGX_ERROR_CLUSTER_OLD_SCHEMA = 1034,     // a repository of an older schema: upgrade it
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

// ---- handles -----------------------------------------------------------------

// Returns a new, unbound handle. Returns null on failure, with
// HGX_ERROR_VERSION_MISMATCH where version is not HGX_VERSION (the caller was
// built against another interface) or HGX_ERROR_NO_MEMORY. The caller owns
// the handle and releases it with hgx_handle_destroy (or an HgxPtr).
hgx_handle_t* hgx_handle_create(hgx_version_t version);

// Binds the handle to the repository that HGX_REPOSITORY names, else to
// HGX_DEFAULT_REPOSITORY, and fixes the state it reads (see above). Returns
// 0, or -1 with the error set: HGX_ERROR_INVALID_ARGUMENT for a null handle,
// HGX_ERROR_IN_USE for one bound already, else why the repository could not
// be opened (HGX_ERROR_NO_REPOSITORY, HGX_ERROR_CLUSTER_UNREACHABLE, ...).
// A handle that fails to bind stays unbound and may be bound again.
int hgx_handle_bind(hgx_handle_t* handle);
// As hgx_handle_bind, but for the named file or cluster URL; a null or empty
// path falls back to HGX_REPOSITORY and the default, so that a tool can pass
// its option through whether or not it was given.
int hgx_handle_bind_path(hgx_handle_t* handle, const char* path);
// As hgx_handle_bind_path, for a program that only reads: a repository file
// is then read without a single write to it or beside it (its WAL index is
// mapped read-only), so that reading costs no write and also works on a
// read-only file system. Within one process a writer of the same file cannot
// be opened while such a handle of it is bound: SQLite keeps one index
// mapping per file and process. A cluster is read as hgx_handle_bind_path
// reads it.
int hgx_handle_bind_no_writes(hgx_handle_t* handle, const char* path);
// Releases the handle and its hold on the repository; accepts null. Objects
// made for the handle must not be used afterwards, though they may still be
// destroyed: destroy the objects first, or hold them in owners declared after
// the handle's.
void hgx_handle_destroy(hgx_handle_t* handle);

// ---- objects -------------------------------------------------------------------

// One contract for every *_create below: returns a new object for the handle
// that holds nothing yet (HGX_ERROR_NOT_SET until an operation sets it), or
// null with HGX_ERROR_INVALID_ARGUMENT for a null handle or
// HGX_ERROR_NO_MEMORY. The handle need not be bound yet. The caller owns the
// object and releases it with the matching *_destroy, which accepts null.
// An object is set by the operations that name it as an out-parameter and
// may be set again any number of times; it keeps what it holds when the
// objects it came from change or go, as it copies what it needs.
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

// Sets *scope to the scope `name` of a bound handle and returns 0. The only
// scope is "localhost": a repository holds the services of one host. Returns
// -1 with HGX_ERROR_INVALID_ARGUMENT (a null argument), HGX_ERROR_NOT_BOUND,
// HGX_ERROR_HANDLE_MISMATCH (scope made for another handle) or
// HGX_ERROR_NOT_FOUND (another name); scope is then left as it was.
int hgx_handle_get_scope(hgx_handle_t* handle, const char* name, hgx_scope_t* scope);

// ---- werns ---------------------------------------------------------------------

// Resolves a wern; each non-null object is set to what the wern names at that
// level, and objects below it are left unset. Behind the separator, the last
// part names a property where the group before it has one of that name, else
// a nested group; an instance's groups are looked up in its current composed
// view. The flags are judged by the wern's form before any lookup, so that
// whether a wern is of the wanted kind never depends on what the repository
// holds. Returns 0, or -1 with HGX_ERROR_NOT_FOUND for a wern that names
// nothing, HGX_ERROR_INVALID_ARGUMENT for one that is not well-formed (or a
// null handle or wern), HGX_ERROR_CONSTRAINT_VIOLATED where the flags are not
// met, HGX_ERROR_NOT_BOUND, HGX_ERROR_HANDLE_MISMATCH for an object of another
// handle, or the store's failure. On failure the objects are left as they
// were: they are filled only once the whole wern has resolved.
int hgx_handle_decode_wern(hgx_handle_t* handle, const char* wern, hgx_scope_t* scope,
                           hgx_service_t* service, hgx_instance_t* instance,
                           hgx_propertygroup_t* pg, hgx_property_t* property, int flags);

// Cuts a writable wern in place; each non-null out-parameter receives a
// pointer into the caller's wern, or null where that part is absent, and
// those pointers live as long as the caller's buffer. Without the
// repository a nested group cannot be told from a property: of the parts
// behind the separator, the last is the property when there are two or more,
// the rest the group path. scope_path and snapshot are always null. Returns
// 0, or -1 with HGX_ERROR_INVALID_ARGUMENT for a null or malformed wern; then
// every out-parameter is null and the wern is not changed.
int hgx_parse_wern(char* wern, const char** scope, const char** scope_path, const char** service,
                   const char** instance, const char** pg, const char** property,
                   const char** snapshot);

// ---- iteration -----------------------------------------------------------------

// One contract for every hgx_iter_<parent>_<children> below: starts the
// iterator over the children of a set parent of the same bound handle, read
// now in full, so that the parent may change or go while the walk goes on.
// A group's children are read in the group's own mode: own, composed or in
// a snapshot. Returns 0, or -1 with HGX_ERROR_INVALID_ARGUMENT (a null
// argument), HGX_ERROR_NOT_BOUND, HGX_ERROR_NOT_SET (parent holds nothing),
// HGX_ERROR_HANDLE_MISMATCH or the store's failure; the iterator is then left
// as it was; on success any earlier walk of the iterator ends.
int hgx_iter_scope_services(hgx_iter_t* iter, const hgx_scope_t* scope);
int hgx_iter_service_instances(hgx_iter_t* iter, const hgx_service_t* service);
int hgx_iter_service_pgs(hgx_iter_t* iter, const hgx_service_t* service);
int hgx_iter_instance_pgs(hgx_iter_t* iter, const hgx_instance_t* instance);
// The composed view's groups: the instance's current view, or the groups of
// the snapshot where one is given (HGX_ERROR_INVALID_ARGUMENT for a snapshot
// of another instance).
int hgx_iter_instance_pgs_composed(hgx_iter_t* iter, const hgx_instance_t* instance,
                                   const hgx_snapshot_t* snapshot);
int hgx_iter_pg_properties(hgx_iter_t* iter, const hgx_propertygroup_t* pg);
int hgx_iter_pg_pgs(hgx_iter_t* iter, const hgx_propertygroup_t* pg);
// Nested groups in the composed view, or in the snapshot where one is given:
// there, the snapshot's group at the same path, whose nested groups are none
// where the snapshot has no such group.
int hgx_iter_pg_pgs_composed(hgx_iter_t* iter, const hgx_propertygroup_t* pg,
                             const hgx_snapshot_t* snapshot);
int hgx_iter_property_values(hgx_iter_t* iter, const hgx_property_t* property);

// One contract for every hgx_iter_next_* below: returns 1 with *out set to
// the next child, 0 at the end (out left as it was), or -1 with
// HGX_ERROR_INVALID_ARGUMENT (a null argument), HGX_ERROR_HANDLE_MISMATCH,
// HGX_ERROR_NOT_BOUND, HGX_ERROR_NOT_SET (the iterator was never started) or
// HGX_ERROR_TYPE_MISMATCH (it walks children of another kind); out is then
// left as it was.
int hgx_iter_next_service(hgx_iter_t* iter, hgx_service_t* out);
int hgx_iter_next_instance(hgx_iter_t* iter, hgx_instance_t* out);
int hgx_iter_next_pg(hgx_iter_t* iter, hgx_propertygroup_t* out);
int hgx_iter_next_property(hgx_iter_t* iter, hgx_property_t* out);
int hgx_iter_next_value(hgx_iter_t* iter, hgx_value_t* out);

// ---- texts of objects ----------------------------------------------------------

// One contract for the werns and names below: copies the text into buf as
// the conventions above say (cut and terminated where size is too small;
// size 0 writes nothing, to learn the length) and returns the whole text's
// length. Returns -1 with HGX_ERROR_INVALID_ARGUMENT (a null object, or a
// null buf with a size), HGX_ERROR_NOT_BOUND or HGX_ERROR_NOT_SET; buf is
// then not written.
//
// Short form werns: wrn:/service, wrn:/service:instance, and for groups and
// properties the owner's wern, "/:properties/", group path and property name.
// A group or property reached through a snapshot has its instance's wern, as
// a wern cannot name a snapshot.
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
// A value's text as stored, whatever the property's type.
ssize_t hgx_value_get_as_string(const hgx_value_t* value, char* buf, size_t size);

// ---- lookups by name -----------------------------------------------------------

// One contract for the lookups below: sets the out-object to the child
// `name` of a set parent and returns 0, or returns -1 with
// HGX_ERROR_NOT_FOUND (no such child), HGX_ERROR_INVALID_ARGUMENT (a null
// argument), HGX_ERROR_NOT_BOUND, HGX_ERROR_NOT_SET,
// HGX_ERROR_HANDLE_MISMATCH or the store's failure; the out-object is then
// left as it was.
//
// A service's or an instance's own group, outside any composed view.
int hgx_service_get_pg(const hgx_service_t* service, const char* name, hgx_propertygroup_t* pg);
int hgx_instance_get_pg(const hgx_instance_t* instance, const char* name, hgx_propertygroup_t* pg);
// Group of the composed view, from the snapshot if one is given
// (HGX_ERROR_INVALID_ARGUMENT for a snapshot of another instance).
int hgx_instance_get_pg_composed(const hgx_instance_t* instance, const hgx_snapshot_t* snapshot,
                                 const char* name, hgx_propertygroup_t* pg);
int hgx_instance_get_snapshot(const hgx_instance_t* instance, const char* name,
                              hgx_snapshot_t* snapshot);
// Sets *type to the property's type and returns 0; -1 with
// HGX_ERROR_INVALID_ARGUMENT (a null argument), HGX_ERROR_NOT_BOUND or
// HGX_ERROR_NOT_SET, *type then left as it was.
int hgx_property_type(const hgx_property_t* property, hgx_type_t* type);

// ---- limits, errors, type names ------------------------------------------------

// The limit an HGX_LIMIT_* code names, or -1 with HGX_ERROR_INVALID_ARGUMENT
// for another code.
ssize_t hgx_limit(int code);
// The code of the calling thread's last failure; HGX_ERROR_NONE where none
// has failed. A success does not reset it: read it only after a failure.
hgx_error_t hgx_error(void);
// A text for the code, never null ("Unknown error" for a code of no
// meaning); not to be freed. Some texts name the environment variables or
// files to look at, as they are what a user sees of a failure. For the code
// of the calling thread's last failure the text may say more of that
// failure (the repository file that does not exist, what a wern looks like);
// such a text lasts until the thread's next failure, the others for good.
const char* hgx_strerror(hgx_error_t code);

// Name of a type ("astring", ...) and back; null / HGX_TYPE_INVALID if
// unknown. Names are static, not to be freed.
const char* hgx_type_to_string(hgx_type_t type);
hgx_type_t hgx_string_to_type(const char* name);
