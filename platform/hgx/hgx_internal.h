// Internals of libhgx shared by the read side (hgx.cpp) and the library's own
// write side (hgx_write.cpp): the schema, the cached statements, row readers,
// and the thread's last error.
//
// Schema (version HGX_SCHEMA_VERSION in PRAGMA user_version, and
// HGX_APPLICATION_ID in PRAGMA application_id):
//
//   services (id, name UNIQUE)
//   instances(id, service_id, name, UNIQUE(service_id, name))
//   snapshots(id, instance_id, name, UNIQUE(instance_id, name))
//   pgs      (id, owner_kind, owner_id, name, type, service_id, instance_id,
//             snapshot_id, UNIQUE(owner_kind, owner_id, name))
//   props    (id, pg_id, name, type, vals, UNIQUE(pg_id, name))
//
// A group is owned by a service, an instance, a snapshot or another group
// (owner_kind), and also carries the ids of the service, instance (0 when the
// service owns it) and snapshot (0 for live groups) it lies below, so that a
// service, an instance or a snapshot can be removed with a few indexed deletes
// instead of a walk. A property's values are stored in one blob, each value
// followed by a NUL byte: values cannot hold NUL, the number of values is the
// number of NUL bytes, and no values is the empty blob. Every lookup the read
// side makes is served by one of the UNIQUE indexes, and ORDER BY name walks
// those indexes in byte order (BINARY collation), which is the iteration
// order the library documents.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "hgx.h"

namespace hgx_detail {

constexpr int HGX_SCHEMA_VERSION = 1;
constexpr int HGX_APPLICATION_ID = 0x68677831;  // "hgx1"

enum OwnerKind : int {
    OWNER_SERVICE = 0,
    OWNER_INSTANCE = 1,
    OWNER_SNAPSHOT = 2,
    OWNER_PG = 3,
};

constexpr size_t WERN_LIMIT = 1024;
constexpr size_t PG_TYPE_LIMIT = 63;
constexpr size_t VALUE_LIMIT = 4096;

// The schema as one script, run inside the creating transaction.
extern const char* const SCHEMA_SQL;

void set_error(hgx_error_t code);
hgx_error_t get_error();

// Sets the thread's error and gives the failure value of int operations.
inline int fail(hgx_error_t code) {
    set_error(code);
    return -1;
}

// Runs the body of an API call. The store's C++ containers may throw
// std::bad_alloc; nothing may cross the C interface, so an exhausted heap
// becomes HGX_ERROR_NO_MEMORY and the call's failure value.
template <typename R, typename F>
R guarded(R failure, F&& body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        set_error(HGX_ERROR_NO_MEMORY);
        return failure;
    }
}

struct Row {
    int64_t id = 0;
    std::string name;
    std::string text;  // group type, or the values blob of a property
    int type = 0;      // property type
};

// Finalizes the statements it prepared when it goes.
class Store {
  public:
    explicit Store(sqlite3* db = nullptr) : db_(db) {}
    ~Store() { clear(); }
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    void attach(sqlite3* db) {
        clear();
        db_ = db;
    }
    sqlite3* db() const { return db_; }
    void clear();

    // A statement for the given SQL text, prepared once and reset for reuse.
    // The text must be a string literal: its address is the cache key.
    sqlite3_stmt* stmt(const char* sql);

    // Runs a statement with bound parameters to its end, collecting rows of
    // the shape (id, name[, text][, type]) from the first columns. Returns 0,
    // or -1 with the error set.
    int rows(sqlite3_stmt* st, std::vector<Row>* out, int text_col = -1, int type_col = -1);
    // First row only; 1 found, 0 none, -1 failure.
    int row(sqlite3_stmt* st, Row* out, int text_col = -1, int type_col = -1);

    int services(std::vector<Row>* out);
    int service_by_name(std::string_view name, Row* out);
    int instances(int64_t service, std::vector<Row>* out);
    int instance_by_name(int64_t service, std::string_view name, Row* out);
    int snapshot_by_name(int64_t instance, std::string_view name, Row* out);
    // Groups: text is the type.
    int pgs(int kind, int64_t owner, std::vector<Row>* out);
    int pg_by_name(int kind, int64_t owner, std::string_view name, Row* out);
    // Properties: text is the values blob, type the hgx_type_t.
    int props(int64_t pg, std::vector<Row>* out);
    int prop_by_name(int64_t pg, std::string_view name, Row* out);

    // Error code for a failed SQLite call on the read side.
    hgx_error_t fail_code() const;

  private:
    sqlite3* db_;
    std::unordered_map<const char*, sqlite3_stmt*> cache_;
};

// A group of the composed view of an instance: the instance's group and the
// service's group at the same path, either of which may be missing (0).
struct ComposedPg {
    int64_t inst = 0;
    int64_t svc = 0;
    std::string name;
    std::string type;
};

// Composed children of a composed group (inst/svc pair; either may be 0), and
// the top level of an instance's composed view.
int composed_children(Store& s, int64_t inst_pg, int64_t svc_pg, std::vector<ComposedPg>* out);
int composed_top(Store& s, int64_t service, int64_t instance, std::vector<ComposedPg>* out);
int composed_props(Store& s, int64_t inst_pg, int64_t svc_pg, std::vector<Row>* out);

// Binds a text parameter; SQLite keeps its own copy.
void bind_text(sqlite3_stmt* st, int i, std::string_view s);

// Reads the integer a PRAGMA query gives: 0 with *out set, else the
// connection's extended error code.
int pragma_int(sqlite3* db, const char* sql, int* out);

// Syntax of names and werns.
bool valid_segment(std::string_view s);
bool valid_service_name(std::string_view s);

struct WernParts {
    bool has_scope = false;
    std::string scope;  // "localhost" unless written out otherwise
    bool scope_only = false;
    std::string service;
    bool has_instance = false;
    std::string instance;
    std::vector<std::string> path;  // parts behind the separator
};
// 0, or -1 for a wern that is not well-formed (error INVALID_ARGUMENT set).
int split_wern(std::string_view wern, WernParts* out);

std::string service_wern(std::string_view service);
std::string instance_wern(std::string_view service, std::string_view instance);

}  // namespace hgx_detail
