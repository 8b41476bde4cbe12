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
#include <string_view>

#include "hgx_ptr.h"
#include "owned.h"
#include "regex_budget.h"
#include "repository_internal.h"

using namespace repository_internal;

namespace {

property_table_node_t* find_property(pkx_avl_t* tree, const char* name) {
    property_table_node_t key{};
    key.info.wern = const_cast<char*>(name);
    return static_cast<property_table_node_t*>(pkx_avl_find(tree, &key, nullptr, nullptr));
}

// A list node and its match offsets (count of them, 0 for none) in one
// block, so that one free() releases both.
property_list_node_t* prepend_property_list_node(local_property_info_t* info,
                                                 property_list_node_t* next, size_t count = 0) {
    auto* node = static_cast<property_list_node_t*>(
        pkx_zalloc(sizeof(property_list_node_t) + count * sizeof(regmatch_t)));
    if (node == nullptr) return nullptr;
    node->info = reinterpret_cast<const property_info_t*>(info);
    node->next = next;
    if (count > 0) node->matches = reinterpret_cast<regmatch_t*>(node + 1);
    return node;
}
static_assert(sizeof(property_list_node_t) % alignof(regmatch_t) == 0);

// What the text of a section's pattern tells before any name is tried: the
// literal text that every match begins with, and whether the pattern has the
// form ^P(X)S$ with P and S literal, X free of groups and escapes: then a
// match's one group is all that lies between P and S, and the C library
// need not work the groups out.
struct PatternShape {
    std::string_view prefix = "";  // never null: strncmp reads it
    bool one_group = false;
    size_t suffix = 0;  // length of S
};

bool is_literal(char c) { return std::strchr(".[]()*+?{}|^$\\", c) == nullptr; }
bool is_quantifier(char c) { return c == '*' || c == '+' || c == '?' || c == '{'; }

PatternShape shape_of(const char* pattern, int grabs) {
    PatternShape shape;
    // A branch anywhere may match what the first one's prefix does not.
    if (pattern[0] != '^' || std::strchr(pattern, '|') != nullptr) return shape;
    const char* p = pattern + 1;
    while (is_literal(*p)) p++;
    // A quantified last character is not sure to be there.
    const char* prefix_end = p > pattern + 1 && is_quantifier(*p) ? p - 1 : p;
    shape.prefix = std::string_view(pattern + 1, static_cast<size_t>(prefix_end - pattern - 1));
    if (grabs != 1 || *p != '(') return shape;
    const char* x = p + 1;
    while (*x != '\0' && *x != ')' && *x != '(' && *x != '\\') x++;
    if (*x != ')') return shape;
    const char* s = x + 1;
    while (is_literal(*s)) s++;
    if (s[0] != '$' || s[1] != '\0') return shape;
    shape.one_group = true;
    shape.suffix = static_cast<size_t>(s - x - 1);
    return shape;
}

// Adds the records of tree whose names match to the head of list, each with
// count + 1 match offsets (count is grabs + 1). On exhausted memory the whole
// list, including what came in, is released and null returned.
property_list_node_t* match_properties(pkx_avl_t* tree, regex_t* regex, const PatternShape& shape,
                                       int count, property_list_node_t* list) {
    const auto n = static_cast<size_t>(count) + 1;
    std::unique_ptr<regmatch_t[], FreeDeleter> found(
        static_cast<regmatch_t*>(std::malloc(n * sizeof(regmatch_t))));
    if (found == nullptr) {
        property_list_destroy(list);
        return nullptr;
    }
    for (size_t i = 0; i < n; i++) found[i] = {-1, -1};
    for (auto* node = static_cast<property_table_node_t*>(pkx_avl_first(tree)); node != nullptr;
         node = static_cast<property_table_node_t*>(pkx_avl_next(tree, node))) {
        const char* name = node->info.wern;
        if (std::strncmp(name, shape.prefix.data(), shape.prefix.size()) != 0) continue;
        if (shape.one_group) {
            // Only whether it matches: where the group lies follows from the
            // form. Offsets past the groups stay -1, as regexec leaves them.
            if (regexec(regex, name, 0, nullptr, 0) != 0) continue;
            const auto length = static_cast<regoff_t>(std::strlen(name));
            found[0] = {0, length};
            found[1] = {static_cast<regoff_t>(shape.prefix.size()),
                        length - static_cast<regoff_t>(shape.suffix)};
        } else if (regexec(regex, name, n, found.get(), 0) != 0) {
            continue;
        }
        property_list_node_t* head = prepend_property_list_node(&node->info, list, n);
        if (head == nullptr) {
            property_list_destroy(list);
            return nullptr;
        }
        std::memcpy(const_cast<regmatch_t*>(head->matches), found.get(), n * sizeof(regmatch_t));
        list = head;
    }
    return list;
}

// Runs a read of other services or instances: keeps in the view a failure
// of the repository itself that the read met. pull gives 0 for success.
template <typename Pull>
auto pull_into(repository_t* repository, Pull pull) {
    store_failure = HGX_ERROR_NONE;
    auto result = pull();
    if (store_failure != HGX_ERROR_NONE && repository->failure == 0)
        repository->failure = store_failure;
    return result;
}

// Frees a compiled expression on the caller's frame (the object itself is
// not freed, only what regcomp allocated for it).
using CompiledRegex = Owned<regex_t, regfree>;

// Pulls into other_props every service or instance whose wern the pattern
// selects, unless it was pulled before. A pattern that does not compile
// (or that regcomp_bounded refuses as too costly) pulls nothing and is no
// failure here.
int match_instances(repository_t* repository, const char* pattern) {
    regex_t regex;
    if (regcomp_bounded(&regex, pattern, REG_EXTENDED | REG_NOSUB) != 0) return 0;
    CompiledRegex release(&regex);
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
    HgxPtr<hgx_handle_t> handle(hgx_handle_create(HGX_VERSION));
    // The view only reads: a run that changes nothing writes nothing.
    if (handle == nullptr || hgx_handle_bind_no_writes(handle.get(), nullptr) != 0)
        return REPOSITORY_QRM_ERROR;

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
    if (repository->failure != 0) return nullptr;

    // Straight from the repository, no snapshot; stored under the name as
    // written so that the next query of it is served from the tree.
    hgx_handle_t* handle = repository->handle;
    HgxPtr<hgx_scope_t> scope(hgx_scope_create(handle));
    HgxPtr<hgx_service_t> service(hgx_service_create(handle));
    HgxPtr<hgx_instance_t> instance(hgx_instance_create(handle));
    HgxPtr<hgx_propertygroup_t> group(hgx_pg_create(handle));
    HgxPtr<hgx_property_t> property(hgx_property_create(handle));
    if (scope == nullptr || service == nullptr || instance == nullptr || group == nullptr ||
        property == nullptr)
        return nullptr;
    return public_info(pull_into(repository, [&]() -> property_table_node_t* {
        if (hgx_handle_decode_wern(handle, name, scope.get(), service.get(), instance.get(),
                                   group.get(), property.get(), 0) != 0) {
            repository_lost();
            return nullptr;
        }
        return add_prop(repository->other_props, view_pool.pool, name, property.get(), handle);
    }));
}

property_list_node_t* repository_match_properties(repository_t* repository, const char* pattern,
                                                  int grabs) {
    if (repository == nullptr || pattern == nullptr) return nullptr;
    regex_t regex;
    if (regcomp_bounded(&regex, pattern, REG_EXTENDED) != 0) return nullptr;
    CompiledRegex release(&regex);
    int count = grabs + 1;
    const PatternShape shape = shape_of(pattern, grabs);

    const char* start = pattern;
    if (*start == '^') start++;
    while (*start == '(') start++;
    if (!is_absolute(start))
        return match_properties(repository->instance_props, &regex, shape, count, nullptr);
    // The separator without its slash, so that a pattern ending there counts.
    const char* boundary = std::strstr(start, "/:properties");
    if (boundary == nullptr)
        return match_properties(repository->instance_props, &regex, shape, count, nullptr);

    // The instance part is what stands between start and the boundary. It is
    // widened backward over the opening parentheses that start stepped over
    // until its parentheses balance; what then stands there (without the
    // anchors) decides which services and instances are pulled first.
    HeapText copy(strdup(pattern));
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

    if (repository->failure != 0) return nullptr;
    int pulled = pull_into(repository, [&] {
        if (pkx_avl_numnodes(repository->instance_names) == 0) {
            if (int r = fill_instance_tree(repository->instance_names, repository->handle))
                return r;
        }
        return match_instances(repository, position);
    });
    if (pulled != 0) return nullptr;
    copy.reset();

    property_list_node_t* list =
        match_properties(repository->instance_names, &regex, shape, count, nullptr);
    return match_properties(repository->other_props, &regex, shape, count, list);
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
        std::free(list);  // its match offsets with it
        list = next;
    }
}

hgx_error_t repository_failure(const repository_t* repository) {
    return repository->failure != 0 ? static_cast<hgx_error_t>(repository->failure)
                                    : HGX_ERROR_NONE;
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
