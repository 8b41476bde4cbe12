// The tool's in-memory view of the service repository.
//
// At creation every group and property of one instance (or service) is read
// into instance_props under relative names ("group/property"). other_props and
// instance_names start empty and are filled on demand by queries that name
// other services through absolute werns. Records never leave a tree before
// repository_destroy, so a property_info_t* stays valid for the view's life.
#pragma once

#include <regex.h>
#include <sys/types.h>

#include "hgx.h"
#include "pkx.h"

typedef enum repository_type {
    REPO_TYPE_PROPERTY = 0,
    REPO_TYPE_PG = 1,
    REPO_TYPE_INSTANCE = 2,
} repository_type_t;

typedef enum repository_error {
    REPOSITORY_SUCCESS = 0,
    REPOSITORY_NO_MEMORY = -1,
    REPOSITORY_QRM_ERROR = -2,
    REPOSITORY_INVALID_ARGUMENT = -3,
} repository_error_t;

// What callers see; read-only to them.
typedef struct property_info {
    const char* wern;  // relative or absolute name; the tree's key
    const repository_type_t repo_type;
    const char* pg_type;    // group's type text; null for other kinds
    const hgx_type_t type;  // property's value type; 0 for other kinds
    const int num_values;
    const char** values;  // null when there are none
} property_info_t;

// A view; its layout is the module's own.
typedef struct repository repository_t;

// One query result. matches holds grabs + 2 regmatch_t (null in the lists of
// repository_get_pgs_by_type); info is borrowed from the view.
typedef struct property_list_node {
    struct property_list_node* next;
    const regmatch_t* matches;
    const property_info_t* info;
} property_list_node_t;

// Binds a client handle to the repository the environment names and reads
// every group and property of the service or instance wern names into a new
// view; an instance is read from the snapshot named snapshot (null:
// "running") when it has one. Stores the view in *repository and returns
// REPOSITORY_SUCCESS; otherwise stores null there and returns
// REPOSITORY_NO_MEMORY or REPOSITORY_QRM_ERROR (binding or reading failed),
// and nothing of the view remains. The caller destroys the view with
// repository_destroy; wern and snapshot are copied or only read.
repository_error_t repository_create(const char* wern, const char* snapshot,
                                     repository_t** repository);
// Releases the view, every record it handed out and its client handle;
// lists from its queries must be destroyed first. Null is ignored.
void repository_destroy(repository_t* repository);

// HGX_ERROR_NONE, or the failure of the repository itself (a cluster away
// or hung, a compacted revision: any client failure other than a name that
// names nothing or is not well-formed, or an exhausted heap) that a query
// met while it read another service or instance. Such a query gives null as
// any failing one does; this tells the two apart. It stays set for the
// view's life, and from then on queries of absolute names give null without
// asking the repository again.
hgx_error_t repository_failure(const repository_t* repository);

// The record of name: relative names come from the view's own service or
// instance; an absolute wern is read once, straight from the repository
// (never a snapshot), and then served from the view. Null when there is no
// such record or it cannot be read. The record belongs to the view and
// lives as long as it.
const property_info_t* repository_get_property(repository_t* repository, const char* name);
// The records whose names the extended regular expression pattern matches,
// in ascending name order, each with the offsets of the whole match and of
// grabs groups. A pattern naming other services or instances absolutely
// first pulls those its instance part selects into the view. Null for no
// match, a pattern that does not compile or that regcomp_bounded
// (regex_budget.h) refuses as too costly, or a failure (no partial list:
// that would silently skip records). The caller releases the list with
// property_list_destroy; the records in it belong to the view.
property_list_node_t* repository_match_properties(repository_t* repository, const char* pattern,
                                                  int grabs);
// The view's own groups whose type is type, in ascending name order; null
// for none or on exhausted memory. Owned as repository_match_properties'.
property_list_node_t* repository_get_pgs_by_type(repository_t* repository, const char* type);
// Releases a query's list (not the records it points to). Null is ignored.
void property_list_destroy(property_list_node_t* list);

// The view's wern as given to repository_create, and its parts: the
// instance name (null for a service) and the service name. Owned by the view.
const char* repository_get_wern(repository_t* repository);
const char* repository_get_instance_name(repository_t* repository);
const char* repository_get_service_name(repository_t* repository);
// QRM_METHOD and QRM_RESTARTER from the environment when the view was made,
// not copied: the method is "no method" when unset, the restarter null.
const char* repository_get_qrm_method(repository_t* repository);
const char* repository_get_restarter(repository_t* repository);
