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

repository_error_t repository_create(const char* wern, const char* snapshot,
                                     repository_t** repository);
void repository_destroy(repository_t* repository);

const property_info_t* repository_get_property(repository_t* repository, const char* name);
property_list_node_t* repository_match_properties(repository_t* repository, const char* pattern,
                                                  int grabs);
property_list_node_t* repository_get_pgs_by_type(repository_t* repository, const char* type);
void property_list_destroy(property_list_node_t* list);

const char* repository_get_wern(repository_t* repository);
const char* repository_get_instance_name(repository_t* repository);
const char* repository_get_service_name(repository_t* repository);
const char* repository_get_qrm_method(repository_t* repository);
const char* repository_get_restarter(repository_t* repository);
