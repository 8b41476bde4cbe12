// The repository view's records and the parts shared by its two halves:
// filling the trees (repository_fill.cpp) and querying them
// (repository.cpp). For the module and its tests only.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>

#include "hgx_ptr.h"
#include "owned.h"
#include "repository.h"
#include "shared_pool.h"

// A record as the view keeps it; callers see its leading fields through
// property_info_t.
typedef struct local_property_info {
    char* wern;
    repository_type_t repo_type;
    char* pg_type;
    hgx_type_t type;
    int num_values;
    char** values;
    int inst_have_pulled_properties;  // REPO_TYPE_INSTANCE records only
} local_property_info_t;

// A tree entry is one heap block: this record, then the values array, then
// the texts that wern, pg_type and the values point to. free() of the node
// releases all of it.
typedef struct property_table_node {
    pkx_avl_node_t node;
    local_property_info_t info;
} property_table_node_t;

struct repository {
    hgx_handle_t* handle;
    pkx_avl_t* instance_props;
    pkx_avl_t* other_props;
    pkx_avl_t* instance_names;
    char* wern;
    const char* instance_name;  // inside inst_wrn_mem; null if none
    const char* service_name;   // inside inst_wrn_mem
    char* qrm_method;           // from the environment, not owned
    char* restarter;            // from the environment, not owned; may be null
    char* inst_wrn_mem;
    // 0, or the hgx_error_t of the failure of the repository itself that a
    // pull met; from then on nothing more is asked of the repository.
    int failure;
};

// The caller-visible record is this one's leading fields with const added.
static_assert(offsetof(property_info_t, wern) == offsetof(local_property_info_t, wern));
static_assert(offsetof(property_info_t, repo_type) == offsetof(local_property_info_t, repo_type));
static_assert(offsetof(property_info_t, pg_type) == offsetof(local_property_info_t, pg_type));
static_assert(offsetof(property_info_t, type) == offsetof(local_property_info_t, type));
static_assert(offsetof(property_info_t, num_values) == offsetof(local_property_info_t, num_values));
static_assert(offsetof(property_info_t, values) == offsetof(local_property_info_t, values));
static_assert(sizeof(property_info_t) <= sizeof(local_property_info_t));

// Module state, visible to tests: views alive, and whether their pool exists.
int repository_live_views(void);
int repository_pool_exists(void);

namespace repository_internal {

// The one pool of all trees of all views: the first view made creates it,
// the last one destroyed releases it.
extern SharedPool view_pool;

inline bool is_absolute(const char* name) { return std::strncmp(name, "wrn:", 4) == 0; }

// The record of node as callers see it; null for null.
inline property_info_t* public_info(property_table_node_t* node) {
    return node == nullptr ? nullptr : reinterpret_cast<property_info_t*>(&node->info);
}

// Whether the client's last failure is one of the repository itself (a
// cluster away or hung, a compacted revision, a file that cannot be read),
// as opposed to a name that names nothing or is not well-formed, or an
// exhausted heap; such a failure is kept in store_failure.
bool repository_lost();
// The last failure of the repository itself that a fill of this thread met,
// kept by the fills; a query clears it before a pull and reads it after.
extern thread_local hgx_error_t store_failure;

// Frees every record of the tree and the tree itself; null is ignored.
void property_tree_destroy(pkx_avl_t* tree);

// What reading properties needs, made once for a whole fill: an iterator
// and a value object of the handle, and buffers for a value and a name.
struct PropertyReader {
    HgxPtr<hgx_iter_t> iter;
    HgxPtr<hgx_value_t> value;
    HeapText value_text;
    HeapText name;
    std::string texts;  // the values of one property, each followed by a NUL

    // Makes what is missing; false when the handle or memory fails.
    bool ready(hgx_handle_t* handle);
};

// Adds the property under name with all its values. The new record, or null
// when memory or the client failed or the name is taken (nothing added).
// The second form reads through a ready reader.
property_table_node_t* add_prop(pkx_avl_t* tree, pkx_avl_pool_t* pool, const char* name,
                                hgx_property_t* property, hgx_handle_t* handle);
property_table_node_t* add_prop(pkx_avl_t* tree, pkx_avl_pool_t* pool, const char* name,
                                hgx_property_t* property, PropertyReader* reader);

// Adds every group and property of the service or instance that wern names,
// under relative names (relative_names != 0) or absolute ones. A snapshot
// (null: "running") is read when an instance has one. What was added before
// a failure stays in the tree.
repository_error_t fill_tree(pkx_avl_t* tree, pkx_avl_pool_t* pool, const char* wern,
                             const char* snapshot_name, hgx_handle_t* handle, int relative_names);

// Adds the names of every service and instance of the scope "localhost".
// REPOSITORY_SUCCESS, REPOSITORY_NO_MEMORY or REPOSITORY_QRM_ERROR.
int fill_instance_tree(pkx_avl_t* tree, hgx_handle_t* handle);

}  // namespace repository_internal
