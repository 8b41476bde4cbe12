// The repository view: three trees of property records over one client
// handle, and the queries on them.
//
// All trees of all views share one pool. Trees sort in descending strcmp
// order of names, so lists built by prepending while walking a tree from its
// first entry come out ascending.

#include "repository.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "hgx_ptr.h"
#include "owned.h"
#include "shared_pool.h"

namespace {

constexpr const char kSeparator[] = HGX_WERN_PG_SEPARATOR;   // "/:properties/"
constexpr size_t kSeparatorLength = sizeof(kSeparator) - 1;  // 13
constexpr const char kScheme[] = "wrn:";
constexpr size_t kSchemeLength = sizeof(kScheme) - 1;

// Buffer sizes: a wern or group name, a value, a group type, each with its
// terminator.
size_t wern_buffer_size() { return static_cast<size_t>(hgx_limit(HGX_LIMIT_WERN_LENGTH)) + 1; }
size_t value_buffer_size() { return static_cast<size_t>(hgx_limit(HGX_LIMIT_VALUE_LENGTH)) + 1; }
size_t pg_type_buffer_size() {
    return static_cast<size_t>(hgx_limit(HGX_LIMIT_PG_TYPE_LENGTH)) + 1;
}

// Copies src into dst of size bytes, truncating, always terminated (size > 0).
void bounded_copy(char* dst, const char* src, size_t size) {
    if (size == 0) return;
    size_t n = std::strlen(src);
    if (n >= size) n = size - 1;
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

// Appends src to the text in dst of size bytes, truncating.
void bounded_append(char* dst, const char* src, size_t size) {
    size_t used = strnlen(dst, size);
    if (used < size) bounded_copy(dst + used, src, size - used);
}

bool is_absolute(const char* name) { return std::strncmp(name, kScheme, kSchemeLength) == 0; }

property_info_t* public_info(property_table_node_t* node) {
    // property_info_t is local_property_info_t's leading fields with const
    // added; callers see the record through it.
    return node == nullptr ? nullptr : reinterpret_cast<property_info_t*>(&node->info);
}

int property_table_node_compare(const void* left, const void* right, void* /*priv*/) {
    int c = std::strcmp(static_cast<const property_table_node_t*>(left)->info.wern,
                        static_cast<const property_table_node_t*>(right)->info.wern);
    return c < 0 ? 1 : c > 0 ? -1 : 0;
}

// All trees of all views.
shared_pool view_pool{"repository_pool", sizeof(property_table_node_t),
                      property_table_node_compare};

int place_table_node(pkx_avl_t* tree, pkx_avl_pool_t* pool, property_table_node_t* node,
                     pkx_avl_index_t* where) {
    if (pkx_avl_find(tree, node, nullptr, where) != nullptr) return -1;
    pkx_avl_node_init(node, node, pool);
    pkx_avl_insert(tree, node, *where);
    return 0;
}

void free_node_contents(property_table_node_t* node) {
    local_property_info_t& info = node->info;
    if (info.values != nullptr) {
        for (int i = 0; i < info.num_values; i++) std::free(info.values[i]);
    }
    std::free(info.values);
    std::free(info.wern);
    std::free(info.pg_type);
}

// For a node in no tree, also one that place_table_node turned away.
void property_table_node_destroy(property_table_node_t* node) {
    if (node == nullptr) return;
    free_node_contents(node);
    pkx_avl_node_fini(node, node, view_pool.pool);
    std::free(node);
}

void property_tree_destroy(pkx_avl_t* tree) {
    if (tree == nullptr) return;
    void* cookie = nullptr;
    while (auto* node = static_cast<property_table_node_t*>(pkx_avl_teardown(tree, &cookie))) {
        free_node_contents(node);
        std::free(node);
    }
    pkx_avl_destroy(tree);
}

// A node not yet placed, released by its destructor unless handed to a tree.
using node_ptr = owned<property_table_node_t, property_table_node_destroy>;

node_ptr new_node(repository_type_t kind, const char* name) {
    node_ptr node(static_cast<property_table_node_t*>(pkx_zalloc(sizeof(property_table_node_t))));
    if (node == nullptr) return node;
    node->info.repo_type = kind;
    node->info.wern = strdup(name);
    if (node->info.wern == nullptr) node.reset();
    return node;
}

// Hands a finished node to its tree; null (and the node freed) if the name
// is there already.
property_table_node_t* place(pkx_avl_t* tree, pkx_avl_pool_t* pool, node_ptr node) {
    pkx_avl_index_t where = 0;
    if (place_table_node(tree, pool, node.get(), &where) != 0) return nullptr;
    return node.release();
}

property_table_node_t* add_instance(pkx_avl_t* tree, pkx_avl_pool_t* pool, const char* name) {
    node_ptr node = new_node(REPO_TYPE_INSTANCE, name);
    if (node == nullptr) return nullptr;
    return place(tree, pool, std::move(node));
}

property_table_node_t* add_pg(pkx_avl_t* tree, pkx_avl_pool_t* pool, const char* name,
                              hgx_propertygroup_t* group) {
    node_ptr node = new_node(REPO_TYPE_PG, name);
    if (node == nullptr) return nullptr;
    size_t size = pg_type_buffer_size();
    node->info.pg_type = static_cast<char*>(std::malloc(size));
    if (node->info.pg_type == nullptr || hgx_pg_get_type(group, node->info.pg_type, size) < 0)
        return nullptr;
    return place(tree, pool, std::move(node));
}

property_table_node_t* add_prop(pkx_avl_t* tree, pkx_avl_pool_t* pool, const char* name,
                                hgx_property_t* property, hgx_handle_t* handle) {
    node_ptr node = new_node(REPO_TYPE_PROPERTY, name);
    size_t size = value_buffer_size();
    heap_text value_text = alloc_text(size);
    if (node == nullptr || value_text == nullptr) return nullptr;
    local_property_info_t& info = node->info;
    if (hgx_property_type(property, &info.type) != 0) return nullptr;

    hgx_ptr<hgx_iter_t> iter(hgx_iter_create(handle));
    hgx_ptr<hgx_value_t> value(hgx_value_create(handle));
    if (iter == nullptr || value == nullptr || hgx_iter_property_values(iter.get(), property) != 0)
        return nullptr;
    // A failed step ends the values like the end does.
    while (hgx_iter_next_value(iter.get(), value.get()) > 0) {
        if (hgx_value_get_as_string(value.get(), value_text.get(), size) < 0) return nullptr;
        auto* grown = static_cast<char**>(
            std::realloc(info.values, (static_cast<size_t>(info.num_values) + 1) * sizeof(char*)));
        if (grown == nullptr) return nullptr;
        info.values = grown;
        char* copy = strdup(value_text.get());
        if (copy == nullptr) return nullptr;
        info.values[info.num_values++] = copy;
    }
    return place(tree, pool, std::move(node));
}

// Puts the relative part of an object's wern (what follows the first
// separator) into buffer + offset. False if the wern has no separator.
bool copy_relative(char* buffer, size_t size, size_t offset, const char* wern) {
    const char* sep = std::strstr(wern, kSeparator);
    if (sep == nullptr) return false;
    bounded_copy(buffer + offset, sep + kSeparatorLength, size - offset);
    return true;
}

// Clears the name behind the prefix whichever way a fill step ends.
struct PrefixRestore {
    char* buffer;
    size_t offset;
    ~PrefixRestore() { buffer[offset] = '\0'; }
};

repository_error_t process_prop(pkx_avl_t* tree, pkx_avl_pool_t* pool, char* buffer, ssize_t size,
                                const size_t offset, hgx_handle_t* handle,
                                hgx_property_t* property) {
    PrefixRestore restore{buffer, offset};
    auto usize = static_cast<size_t>(size);
    heap_text wern = alloc_text(usize);
    if (wern == nullptr) return REPOSITORY_NO_MEMORY;
    if (hgx_property_to_wern(property, wern.get(), usize) == -1) return REPOSITORY_QRM_ERROR;
    // The client always writes a property's wern with the separator; one
    // without it is a client fault.
    if (!copy_relative(buffer, usize, offset, wern.get())) return REPOSITORY_QRM_ERROR;
    if (add_prop(tree, pool, buffer, property, handle) == nullptr) return REPOSITORY_NO_MEMORY;
    return REPOSITORY_SUCCESS;
}

// Adds one group, its properties and, recursively, its nested groups. A
// service's nested groups are its own; an instance's come from the composed
// view (of the snapshot, if any).
repository_error_t process_pg(pkx_avl_t* tree, pkx_avl_pool_t* pool, char* buffer, ssize_t size,
                              const size_t offset, hgx_handle_t* handle, hgx_propertygroup_t* group,
                              int is_service, hgx_snapshot_t* snapshot) {
    PrefixRestore restore{buffer, offset};
    auto usize = static_cast<size_t>(size);
    hgx_ptr<hgx_propertygroup_t> nested(hgx_pg_create(handle));
    hgx_ptr<hgx_property_t> property(hgx_property_create(handle));
    hgx_ptr<hgx_iter_t> iter(hgx_iter_create(handle));
    heap_text wern = alloc_text(usize);
    if (nested == nullptr || property == nullptr || iter == nullptr || wern == nullptr)
        return REPOSITORY_NO_MEMORY;

    if (hgx_pg_to_wern(group, wern.get(), usize) == -1) return REPOSITORY_QRM_ERROR;
    if (!copy_relative(buffer, usize, offset, wern.get())) return REPOSITORY_QRM_ERROR;
    // The group is on record even when it holds no properties.
    if (add_pg(tree, pool, buffer, group) == nullptr) return REPOSITORY_NO_MEMORY;

    if (hgx_iter_pg_properties(iter.get(), group) != 0) return REPOSITORY_QRM_ERROR;
    while (hgx_iter_next_property(iter.get(), property.get()) > 0) {
        repository_error_t r =
            process_prop(tree, pool, buffer, size, offset, handle, property.get());
        if (r != REPOSITORY_SUCCESS) return r;
    }

    int started = is_service ? hgx_iter_pg_pgs(iter.get(), group)
                             : hgx_iter_pg_pgs_composed(iter.get(), group, snapshot);
    if (started != 0) return REPOSITORY_QRM_ERROR;
    while (hgx_iter_next_pg(iter.get(), nested.get()) > 0) {
        repository_error_t r = process_pg(tree, pool, buffer, size, offset, handle, nested.get(),
                                          is_service, snapshot);
        if (r != REPOSITORY_SUCCESS) return r;
    }
    return REPOSITORY_SUCCESS;
}

// Adds every group of the service or instance that wern names, under
// relative names, or under absolute ones made of wern, separator and the
// relative name. An instance is read from the named snapshot ("running" by
// default) when it has one, else directly; its group "general" is always
// read outside the snapshot, with current values.
repository_error_t fill_tree(pkx_avl_t* tree, pkx_avl_pool_t* pool, const char* wern,
                             const char* snapshot_name, hgx_handle_t* handle,
                             const int relative_names) {
    size_t size = wern_buffer_size();
    heap_text pg_name = alloc_text(size);
    hgx_ptr<hgx_service_t> service(hgx_service_create(handle));
    hgx_ptr<hgx_instance_t> instance(hgx_instance_create(handle));
    hgx_ptr<hgx_snapshot_t> snapshot(hgx_snapshot_create(handle));
    hgx_ptr<hgx_propertygroup_t> group(hgx_pg_create(handle));
    hgx_ptr<hgx_iter_t> iter(hgx_iter_create(handle));
    heap_text buffer = alloc_text(size);
    if (pg_name == nullptr || service == nullptr || instance == nullptr || snapshot == nullptr ||
        group == nullptr || iter == nullptr || buffer == nullptr)
        return REPOSITORY_NO_MEMORY;

    // The bounded copies keep the offset inside the buffer even for a wern
    // too long to leave room for the relative name.
    buffer[0] = '\0';
    if (!relative_names) {
        bounded_copy(buffer.get(), wern, size);
        bounded_append(buffer.get(), kSeparator, size);
    }
    size_t offset = std::strlen(buffer.get());
    auto ssize = static_cast<ssize_t>(size);

    if (hgx_handle_decode_wern(handle, wern, nullptr, service.get(), nullptr, nullptr, nullptr,
                               HGX_DECODE_SERVICE_ONLY) == 0) {
        if (hgx_iter_service_pgs(iter.get(), service.get()) != 0) return REPOSITORY_QRM_ERROR;
        while (hgx_iter_next_pg(iter.get(), group.get()) > 0) {
            if (hgx_pg_get_name(group.get(), pg_name.get(), size) < 0) return REPOSITORY_QRM_ERROR;
            if (std::strcmp(pg_name.get(), "general") == 0 &&
                hgx_service_get_pg(service.get(), "general", group.get()) != 0)
                return REPOSITORY_QRM_ERROR;
            repository_error_t r = process_pg(tree, pool, buffer.get(), ssize, offset, handle,
                                              group.get(), 1, nullptr);
            if (r != REPOSITORY_SUCCESS) return r;
            buffer[offset] = '\0';
        }
        return REPOSITORY_SUCCESS;
    }

    // The wern names more than a service: read it as an instance.
    if (hgx_error() != HGX_ERROR_CONSTRAINT_VIOLATED) return REPOSITORY_QRM_ERROR;
    if (hgx_handle_decode_wern(handle, wern, nullptr, service.get(), instance.get(), nullptr,
                               nullptr, HGX_DECODE_INSTANCE_ONLY) != 0)
        return REPOSITORY_QRM_ERROR;

    const char* name = snapshot_name != nullptr ? snapshot_name : "running";
    if (hgx_instance_get_snapshot(instance.get(), name, snapshot.get()) == 0) {
        if (hgx_iter_instance_pgs_composed(iter.get(), instance.get(), snapshot.get()) != 0)
            return REPOSITORY_QRM_ERROR;
    } else if (hgx_error() == HGX_ERROR_NOT_FOUND) {
        snapshot.reset();
        if (hgx_iter_instance_pgs(iter.get(), instance.get()) != 0) return REPOSITORY_QRM_ERROR;
    } else {
        return REPOSITORY_QRM_ERROR;
    }

    while (hgx_iter_next_pg(iter.get(), group.get()) > 0) {
        if (hgx_pg_get_name(group.get(), pg_name.get(), size) < 0) return REPOSITORY_QRM_ERROR;
        hgx_snapshot_t* group_snapshot = snapshot.get();
        if (std::strcmp(pg_name.get(), "general") == 0) {
            if (hgx_instance_get_pg_composed(instance.get(), nullptr, "general", group.get()) != 0)
                return REPOSITORY_QRM_ERROR;
            group_snapshot = nullptr;
        }
        repository_error_t r = process_pg(tree, pool, buffer.get(), ssize, offset, handle,
                                          group.get(), 0, group_snapshot);
        if (r != REPOSITORY_SUCCESS) return r;
        buffer[offset] = '\0';
    }
    return REPOSITORY_SUCCESS;
}

property_table_node_t* find_property(pkx_avl_t* tree, const char* name) {
    property_table_node_t key{};
    key.info.wern = const_cast<char*>(name);
    return static_cast<property_table_node_t*>(pkx_avl_find(tree, &key, nullptr, nullptr));
}

property_list_node_t* prepend_property_list_node(local_property_info_t* info,
                                                 property_list_node_t* next) {
    auto* node = static_cast<property_list_node_t*>(pkx_zalloc(sizeof(property_list_node_t)));
    if (node == nullptr) return nullptr;
    node->info = reinterpret_cast<const property_info_t*>(info);
    node->next = next;
    return node;
}

// Adds the records of tree whose names match to the head of list. count is
// grabs + 1; each match array holds one element more. On exhausted memory
// the whole list, including what came in, is released and null returned.
property_list_node_t* match_properties(pkx_avl_t* tree, regex_t* regex, int count,
                                       property_list_node_t* list) {
    auto n = static_cast<size_t>(count) + 1;
    regmatch_t* spare = nullptr;  // reused until a match takes it
    for (auto* node = static_cast<property_table_node_t*>(pkx_avl_first(tree)); node != nullptr;
         node = static_cast<property_table_node_t*>(pkx_avl_next(tree, node))) {
        if (spare == nullptr) {
            spare = static_cast<regmatch_t*>(std::malloc(n * sizeof(regmatch_t)));
            if (spare == nullptr) {
                property_list_destroy(list);
                return nullptr;
            }
        }
        if (regexec(regex, node->info.wern, n, spare, 0) != 0) continue;
        property_list_node_t* head = prepend_property_list_node(&node->info, list);
        if (head == nullptr) {
            std::free(spare);
            property_list_destroy(list);
            return nullptr;
        }
        head->matches = spare;
        spare = nullptr;
        list = head;
    }
    std::free(spare);
    return list;
}

// The three names under which a service or instance can be matched: the
// wern (which a pull starts from), and the wern with the separator, with and
// without its last slash (for patterns that end there; these never pull).
// buffer must have room for the separator behind the wern; it is left
// altered.
int add_instance_permutations(char* buffer, pkx_avl_t* tree) {
    if (add_instance(tree, view_pool.pool, buffer) == nullptr) return -1;
    std::strcat(buffer, kSeparator);
    property_table_node_t* node = add_instance(tree, view_pool.pool, buffer);
    if (node == nullptr) return -1;
    node->info.inst_have_pulled_properties = 1;
    buffer[std::strlen(buffer) - 1] = '\0';
    node = add_instance(tree, view_pool.pool, buffer);
    if (node == nullptr) return -1;
    node->info.inst_have_pulled_properties = 1;
    return 0;
}

int client_failure() {
    return hgx_error() == HGX_ERROR_NO_MEMORY ? REPOSITORY_NO_MEMORY : REPOSITORY_QRM_ERROR;
}

int fill_instance_tree(pkx_avl_t* tree, hgx_handle_t* handle) {
    // Room for the longest wern and the separator appended to it.
    size_t size = wern_buffer_size() + kSeparatorLength;
    hgx_ptr<hgx_scope_t> scope(hgx_scope_create(handle));
    hgx_ptr<hgx_service_t> service(hgx_service_create(handle));
    hgx_ptr<hgx_instance_t> instance(hgx_instance_create(handle));
    hgx_ptr<hgx_iter_t> services(hgx_iter_create(handle));
    hgx_ptr<hgx_iter_t> instances(hgx_iter_create(handle));
    heap_text buffer = alloc_text(size);
    if (buffer == nullptr) return REPOSITORY_NO_MEMORY;
    if (scope == nullptr || service == nullptr || instance == nullptr || services == nullptr ||
        instances == nullptr)
        return client_failure();

    if (hgx_handle_get_scope(handle, "localhost", scope.get()) != 0 ||
        hgx_iter_scope_services(services.get(), scope.get()) != 0)
        return client_failure();

    // Unlike the group loops of a fill, these tell a failed step from the end.
    int step;
    while ((step = hgx_iter_next_service(services.get(), service.get())) == 1) {
        if (hgx_service_to_wern(service.get(), buffer.get(), size) < 0) return client_failure();
        if (int r = add_instance_permutations(buffer.get(), tree); r != 0) return r;
        if (hgx_iter_service_instances(instances.get(), service.get()) != 0)
            return client_failure();
        int inner;
        while ((inner = hgx_iter_next_instance(instances.get(), instance.get())) == 1) {
            if (hgx_instance_to_wern(instance.get(), buffer.get(), size) < 0)
                return client_failure();
            if (int r = add_instance_permutations(buffer.get(), tree); r != 0) return r;
        }
        if (inner == -1) return client_failure();
    }
    if (step == -1) return client_failure();
    return REPOSITORY_SUCCESS;
}

// Frees a compiled expression on the caller's frame (the object itself is
// not freed, only what regcomp allocated for it).
using compiled_regex = owned<regex_t, regfree>;

// Pulls into other_props every service or instance whose wern the pattern
// selects, unless it was pulled before. A pattern that does not compile
// pulls nothing and is no failure here.
int match_instances(repository_t* repository, const char* pattern) {
    regex_t regex;
    if (regcomp(&regex, pattern, REG_EXTENDED | REG_NOSUB) != 0) return 0;
    compiled_regex release(&regex);
    pkx_avl_t* names = repository->instance_names;
    for (auto* node = static_cast<property_table_node_t*>(pkx_avl_first(names)); node != nullptr;
         node = static_cast<property_table_node_t*>(pkx_avl_next(names, node))) {
        if (regexec(&regex, node->info.wern, 0, nullptr, 0) != 0 ||
            node->info.inst_have_pulled_properties != 0)
            continue;
        repository_error_t r = fill_tree(repository->other_props, view_pool.pool, node->info.wern,
                                         nullptr, repository->handle, 0);
        if (r != REPOSITORY_SUCCESS) return r;
        node->info.inst_have_pulled_properties = 1;
    }
    return 0;
}

}  // namespace

repository_error_t repository_create(const char* wern, const char* snapshot,
                                     repository_t** repository) {
    *repository = nullptr;
    hgx_ptr<hgx_handle_t> handle(hgx_handle_create(HGX_VERSION));
    if (handle == nullptr || hgx_handle_bind(handle.get()) != 0) return REPOSITORY_QRM_ERROR;

    auto* repo = static_cast<repository_t*>(pkx_zalloc(sizeof(repository_t)));
    if (repo == nullptr) return REPOSITORY_NO_MEMORY;
    repo->handle = handle.release();

    // Every failure from here on takes the whole view down again, and the
    // pool with it when no other view uses it.
    bool counted = false;
    auto fail = [repo, &counted](repository_error_t error) {
        hgx_handle_destroy(repo->handle);
        repo->handle = nullptr;
        property_tree_destroy(repo->instance_props);
        property_tree_destroy(repo->other_props);
        property_tree_destroy(repo->instance_names);
        std::free(repo->wern);
        std::free(repo->inst_wrn_mem);
        std::free(repo);
        if (counted) view_pool.release();
        return error;
    };

    if (view_pool.acquire() == nullptr) return fail(REPOSITORY_NO_MEMORY);
    counted = true;
    repo->instance_props = pkx_avl_create(view_pool.pool, nullptr, 0);
    repo->other_props = pkx_avl_create(view_pool.pool, nullptr, 0);
    repo->instance_names = pkx_avl_create(view_pool.pool, nullptr, 0);
    if (repo->instance_props == nullptr || repo->other_props == nullptr ||
        repo->instance_names == nullptr)
        return fail(REPOSITORY_NO_MEMORY);

    repository_error_t r =
        fill_tree(repo->instance_props, view_pool.pool, wern, snapshot, repo->handle, 1);
    if (r != REPOSITORY_SUCCESS) return fail(r);

    repo->wern = strdup(wern);
    if (repo->wern == nullptr) return fail(REPOSITORY_NO_MEMORY);

    // The environment's own strings, neither copied nor freed.
    repo->restarter = std::getenv("QRM_RESTARTER");
    repo->qrm_method = std::getenv("QRM_METHOD");
    if (repo->qrm_method == nullptr) repo->qrm_method = const_cast<char*>("no method");

    repo->inst_wrn_mem = strdup(wern);
    if (repo->inst_wrn_mem == nullptr) return fail(REPOSITORY_NO_MEMORY);
    (void)hgx_parse_wern(repo->inst_wrn_mem, nullptr, nullptr, &repo->service_name,
                         &repo->instance_name, nullptr, nullptr, nullptr);

    *repository = repo;
    return REPOSITORY_SUCCESS;
}

void repository_destroy(repository_t* repository) {
    if (repository == nullptr) return;
    property_tree_destroy(repository->instance_props);
    property_tree_destroy(repository->other_props);
    property_tree_destroy(repository->instance_names);
    hgx_handle_destroy(repository->handle);
    std::free(repository->wern);
    std::free(repository->inst_wrn_mem);
    std::free(repository);
    view_pool.release();
}

const property_info_t* repository_get_property(repository_t* repository, const char* name) {
    if (repository == nullptr || name == nullptr) return nullptr;
    if (!is_absolute(name)) return public_info(find_property(repository->instance_props, name));
    if (property_table_node_t* node = find_property(repository->other_props, name))
        return public_info(node);

    // Straight from the repository, no snapshot; stored under the name as
    // written so that the next query of it is served from the tree.
    hgx_handle_t* handle = repository->handle;
    hgx_ptr<hgx_scope_t> scope(hgx_scope_create(handle));
    hgx_ptr<hgx_service_t> service(hgx_service_create(handle));
    hgx_ptr<hgx_instance_t> instance(hgx_instance_create(handle));
    hgx_ptr<hgx_propertygroup_t> group(hgx_pg_create(handle));
    hgx_ptr<hgx_property_t> property(hgx_property_create(handle));
    if (scope == nullptr || service == nullptr || instance == nullptr || group == nullptr ||
        property == nullptr ||
        hgx_handle_decode_wern(handle, name, scope.get(), service.get(), instance.get(),
                               group.get(), property.get(), 0) != 0)
        return nullptr;
    return public_info(
        add_prop(repository->other_props, view_pool.pool, name, property.get(), handle));
}

property_list_node_t* repository_match_properties(repository_t* repository, const char* pattern,
                                                  int grabs) {
    if (repository == nullptr || pattern == nullptr) return nullptr;
    regex_t regex;
    if (regcomp(&regex, pattern, REG_EXTENDED) != 0) return nullptr;
    compiled_regex release(&regex);
    int count = grabs + 1;

    const char* start = pattern;
    if (*start == '^') start++;
    while (*start == '(') start++;
    if (!is_absolute(start))
        return match_properties(repository->instance_props, &regex, count, nullptr);
    // The separator without its slash, so that a pattern ending there counts.
    const char* boundary = std::strstr(start, "/:properties");
    if (boundary == nullptr)
        return match_properties(repository->instance_props, &regex, count, nullptr);

    // The instance part is what stands between start and the boundary. It is
    // widened backward over the opening parentheses that start stepped over
    // until its parentheses balance; what then stands there (without the
    // anchors) decides which services and instances are pulled first.
    heap_text copy(strdup(pattern));
    if (copy == nullptr) return nullptr;
    char* first = copy.get();
    char* position = first + (start - pattern);
    first[boundary - pattern] = '\0';
    int balance = 0;
    for (const char* p = position; *p != '\0'; p++) {
        if (*p == '(') balance++;
        if (*p == ')') balance--;
    }
    while (position > first) {
        if (*position == '(') balance++;
        if (balance == 0) break;
        position--;
    }
    if (balance != 0) return nullptr;

    if (pkx_avl_numnodes(repository->instance_names) == 0 &&
        fill_instance_tree(repository->instance_names, repository->handle) != 0)
        return nullptr;
    if (match_instances(repository, position) != 0) return nullptr;
    copy.reset();

    property_list_node_t* list =
        match_properties(repository->instance_names, &regex, count, nullptr);
    return match_properties(repository->other_props, &regex, count, list);
}

// A null from an allocation releases the partial list and gives null: the
// caller cannot tell that from "no such group", and a partial list would
// silently skip groups.
property_list_node_t* repository_get_pgs_by_type(repository_t* repository, const char* type) {
    if (repository == nullptr || type == nullptr) return nullptr;
    pkx_avl_t* tree = repository->instance_props;
    property_list_node_t* list = nullptr;
    for (auto* node = static_cast<property_table_node_t*>(pkx_avl_first(tree)); node != nullptr;
         node = static_cast<property_table_node_t*>(pkx_avl_next(tree, node))) {
        local_property_info_t& info = node->info;
        if (info.repo_type != REPO_TYPE_PG || std::strcmp(info.pg_type, type) != 0) continue;
        property_list_node_t* head = prepend_property_list_node(&info, list);
        if (head == nullptr) {
            property_list_destroy(list);
            return nullptr;
        }
        list = head;
    }
    return list;
}

void property_list_destroy(property_list_node_t* list) {
    while (list != nullptr) {
        property_list_node_t* next = list->next;
        std::free(const_cast<regmatch_t*>(list->matches));
        std::free(list);
        list = next;
    }
}

const char* repository_get_wern(repository_t* repository) { return repository->wern; }
const char* repository_get_instance_name(repository_t* repository) {
    return repository->instance_name;
}
const char* repository_get_service_name(repository_t* repository) {
    return repository->service_name;
}
const char* repository_get_qrm_method(repository_t* repository) { return repository->qrm_method; }
const char* repository_get_restarter(repository_t* repository) { return repository->restarter; }

int repository_live_views(void) { return view_pool.users; }
int repository_pool_exists(void) { return view_pool.pool != nullptr; }
