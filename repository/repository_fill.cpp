// Filling the repository view: the records of one service or instance read
// through the client into a tree, and the names of all services and
// instances for queries that pull others in.
//
// Trees sort in descending strcmp order of names (see repository.cpp).

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "hgx_ptr.h"
#include "owned.h"
#include "repository_internal.h"

namespace repository_internal {

constexpr const char SEPARATOR[] = HGX_WERN_PG_SEPARATOR;   // "/:properties/"
constexpr size_t SEPARATOR_LENGTH = sizeof(SEPARATOR) - 1;  // 13

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

int property_table_node_compare(const void* left, const void* right, void* /*priv*/) {
    int c = std::strcmp(static_cast<const property_table_node_t*>(left)->info.wern,
                        static_cast<const property_table_node_t*>(right)->info.wern);
    return c < 0 ? 1 : c > 0 ? -1 : 0;
}

// All trees of all views.
SharedPool view_pool{"repository_pool", sizeof(property_table_node_t), property_table_node_compare};

thread_local hgx_error_t store_failure = HGX_ERROR_NONE;

namespace {

bool is_store_failure(hgx_error_t code) {
    switch (code) {
        case HGX_ERROR_NONE:
        case HGX_ERROR_NOT_FOUND:
        case HGX_ERROR_INVALID_ARGUMENT:
        case HGX_ERROR_CONSTRAINT_VIOLATED:
        case HGX_ERROR_NOT_SET:
        case HGX_ERROR_TYPE_MISMATCH:
        case HGX_ERROR_NO_MEMORY:
            return false;
        default:
            return true;
    }
}

}  // namespace

bool repository_lost() {
    hgx_error_t code = hgx_error();
    if (!is_store_failure(code)) return false;
    store_failure = code;
    return true;
}

namespace {

// A fill step whose call of the client failed.
repository_error_t failed_call() {
    repository_lost();
    return REPOSITORY_QRM_ERROR;
}

// The end of a walk over children: a failed step that lost the repository
// fails the fill; any other failed step ends the walk as its end does.
bool walk_lost(int step) { return step < 0 && repository_lost(); }

}  // namespace

int place_table_node(pkx_avl_t* tree, pkx_avl_pool_t* pool, property_table_node_t* node,
                     pkx_avl_index_t* where) {
    // A view's names mostly come in ascending order (the repository gives
    // each group's properties sorted), which in these descending trees is
    // below every name present.
    if (pkx_avl_find_below_first(tree, node, nullptr, where) != nullptr) return -1;
    pkx_avl_node_init(node, node, pool);
    pkx_avl_insert(tree, node, *where);
    return 0;
}

// A node is one block: the record, then the values array, then its texts
// (name, group type, values, each terminated). One free() releases it all.
void property_table_node_destroy(property_table_node_t* node) {
    if (node == nullptr) return;
    pkx_avl_node_fini(node, node, view_pool.pool);
    std::free(node);
}

void property_tree_destroy(pkx_avl_t* tree) {
    if (tree == nullptr) return;
    void* cookie = nullptr;
    while (auto* node = static_cast<property_table_node_t*>(pkx_avl_teardown(tree, &cookie)))
        std::free(node);
    pkx_avl_destroy(tree);
}

// A node not yet placed, released by its destructor unless handed to a tree.
using NodePtr = Owned<property_table_node_t, property_table_node_destroy>;

// A new node of kind under name, with the group type pg_type (null for none)
// and num_values values, given as texts each followed by a NUL byte.
NodePtr new_node(repository_type_t kind, const char* name, const char* pg_type,
                 std::string_view values = {}, int num_values = 0) {
    const size_t name_size = std::strlen(name) + 1;
    const size_t type_size = pg_type != nullptr ? std::strlen(pg_type) + 1 : 0;
    const size_t array_size = static_cast<size_t>(num_values) * sizeof(char*);
    static_assert(sizeof(property_table_node_t) % alignof(char*) == 0);
    NodePtr node(static_cast<property_table_node_t*>(std::malloc(
        sizeof(property_table_node_t) + array_size + name_size + type_size + values.size())));
    if (node == nullptr) return node;
    std::memset(node.get(), 0, sizeof(property_table_node_t));
    local_property_info_t& info = node->info;
    info.repo_type = kind;
    char* at = reinterpret_cast<char*>(node.get() + 1);
    if (num_values > 0) info.values = reinterpret_cast<char**>(at);
    at += array_size;
    info.wern = static_cast<char*>(std::memcpy(at, name, name_size));
    at += name_size;
    if (pg_type != nullptr) {
        info.pg_type = static_cast<char*>(std::memcpy(at, pg_type, type_size));
        at += type_size;
    }
    if (!values.empty()) std::memcpy(at, values.data(), values.size());
    for (int i = 0; i < num_values; i++) {
        info.values[i] = at;
        at += std::strlen(at) + 1;
    }
    info.num_values = num_values;
    return node;
}

// Hands a finished node to its tree; null (and the node freed) if the name
// is there already.
property_table_node_t* place(pkx_avl_t* tree, pkx_avl_pool_t* pool, NodePtr node) {
    pkx_avl_index_t where = 0;
    if (place_table_node(tree, pool, node.get(), &where) != 0) return nullptr;
    return node.release();
}

property_table_node_t* add_instance(pkx_avl_t* tree, pkx_avl_pool_t* pool, const char* name) {
    NodePtr node = new_node(REPO_TYPE_INSTANCE, name, nullptr);
    if (node == nullptr) return nullptr;
    return place(tree, pool, std::move(node));
}

property_table_node_t* add_pg(pkx_avl_t* tree, pkx_avl_pool_t* pool, const char* name,
                              hgx_propertygroup_t* group) {
    const size_t size = pg_type_buffer_size();
    HeapText type = alloc_text(size);
    if (type == nullptr) return nullptr;
    if (hgx_pg_get_type(group, type.get(), size) < 0) {
        repository_lost();
        return nullptr;
    }
    NodePtr node = new_node(REPO_TYPE_PG, name, type.get());
    if (node == nullptr) return nullptr;
    return place(tree, pool, std::move(node));
}

bool PropertyReader::ready(hgx_handle_t* handle) {
    if (iter == nullptr) iter.reset(hgx_iter_create(handle));
    if (value == nullptr) value.reset(hgx_value_create(handle));
    if (value_text == nullptr) value_text = alloc_text(value_buffer_size());
    if (name == nullptr) name = alloc_text(wern_buffer_size());
    return iter != nullptr && value != nullptr && value_text != nullptr && name != nullptr;
}

property_table_node_t* add_prop(pkx_avl_t* tree, pkx_avl_pool_t* pool, const char* name,
                                hgx_property_t* property, PropertyReader* reader) {
    hgx_type_t type;
    // A wern that names a group has no property type: not defined, no failure.
    if (hgx_property_type(property, &type) != 0 ||
        hgx_iter_property_values(reader->iter.get(), property) != 0) {
        repository_lost();
        return nullptr;
    }
    const size_t size = value_buffer_size();
    std::string& texts = reader->texts;
    texts.clear();
    int count = 0;
    // A failed step ends the values like the end does, unless it lost the
    // repository.
    int step;
    while ((step = hgx_iter_next_value(reader->iter.get(), reader->value.get())) > 0) {
        if (hgx_value_get_as_string(reader->value.get(), reader->value_text.get(), size) < 0) {
            repository_lost();
            return nullptr;
        }
        try {
            texts.append(reader->value_text.get(), std::strlen(reader->value_text.get()) + 1);
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
        count++;
    }
    if (walk_lost(step)) return nullptr;
    NodePtr node = new_node(REPO_TYPE_PROPERTY, name, nullptr, texts, count);
    if (node == nullptr) return nullptr;
    node->info.type = type;
    return place(tree, pool, std::move(node));
}

property_table_node_t* add_prop(pkx_avl_t* tree, pkx_avl_pool_t* pool, const char* name,
                                hgx_property_t* property, hgx_handle_t* handle) {
    PropertyReader reader;
    if (!reader.ready(handle)) return nullptr;
    return add_prop(tree, pool, name, property, &reader);
}

// Puts the relative part of an object's wern (what follows the first
// separator) into buffer + offset. False if the wern has no separator.
bool copy_relative(char* buffer, size_t size, size_t offset, const char* wern) {
    const char* sep = std::strstr(wern, SEPARATOR);
    if (sep == nullptr) return false;
    bounded_copy(buffer + offset, sep + SEPARATOR_LENGTH, size - offset);
    return true;
}

// Clears the name behind the prefix whichever way a fill step ends.
struct PrefixRestore {
    char* buffer;
    size_t offset;
    ~PrefixRestore() { buffer[offset] = '\0'; }
};

// A property's relative name is its group's and "/" and its own name: the
// text behind the separator of the property's wern. group_end is where the
// group's relative name ends in buffer, and room how many bytes of relative
// text the wern of a property of this group can hold in a buffer of size
// bytes (what stands before the separator takes the rest).
repository_error_t process_prop(pkx_avl_t* tree, pkx_avl_pool_t* pool, char* buffer, size_t size,
                                size_t group_end, size_t room, PropertyReader* reader,
                                hgx_property_t* property) {
    PrefixRestore restore{buffer, group_end};
    if (hgx_property_get_name(property, reader->name.get(), wern_buffer_size()) < 0)
        return failed_call();
    const size_t limit = std::min(size, group_end + room + 1);
    bounded_append(buffer, "/", limit);
    bounded_append(buffer, reader->name.get(), limit);
    if (add_prop(tree, pool, buffer, property, reader) == nullptr) return REPOSITORY_NO_MEMORY;
    return REPOSITORY_SUCCESS;
}

// Adds one group, its properties and, recursively, its nested groups. A
// service's nested groups are its own; an instance's come from the composed
// view (of the snapshot, if any).
repository_error_t process_pg(pkx_avl_t* tree, pkx_avl_pool_t* pool, char* buffer, ssize_t size,
                              const size_t offset, hgx_handle_t* handle, hgx_propertygroup_t* group,
                              int is_service, hgx_snapshot_t* snapshot, PropertyReader* reader) {
    PrefixRestore restore{buffer, offset};
    auto usize = static_cast<size_t>(size);
    HgxPtr<hgx_propertygroup_t> nested(hgx_pg_create(handle));
    HgxPtr<hgx_property_t> property(hgx_property_create(handle));
    HgxPtr<hgx_iter_t> iter(hgx_iter_create(handle));
    HeapText wern = alloc_text(usize);
    if (nested == nullptr || property == nullptr || iter == nullptr || wern == nullptr ||
        !reader->ready(handle))
        return REPOSITORY_NO_MEMORY;

    if (hgx_pg_to_wern(group, wern.get(), usize) == -1) return failed_call();
    if (!copy_relative(buffer, usize, offset, wern.get())) return REPOSITORY_QRM_ERROR;
    // The group is on record even when it holds no properties.
    if (add_pg(tree, pool, buffer, group) == nullptr) return REPOSITORY_NO_MEMORY;

    // The wern of a property is cut where the group's wern, with "/" and the
    // name, would not fit the buffer; so is its relative text.
    const size_t relative_start =
        static_cast<size_t>(std::strstr(wern.get(), SEPARATOR) - wern.get()) + SEPARATOR_LENGTH;
    const size_t group_end = std::strlen(buffer);
    const size_t group_length = group_end - offset;
    const size_t wern_room = usize - 1 > relative_start ? usize - 1 - relative_start : 0;
    const size_t room = wern_room > group_length ? wern_room - group_length : 0;

    if (hgx_iter_pg_properties(iter.get(), group) != 0) return failed_call();
    int step;
    while ((step = hgx_iter_next_property(iter.get(), property.get())) > 0) {
        repository_error_t r =
            process_prop(tree, pool, buffer, usize, group_end, room, reader, property.get());
        if (r != REPOSITORY_SUCCESS) return r;
    }
    if (walk_lost(step)) return REPOSITORY_QRM_ERROR;

    int started = is_service ? hgx_iter_pg_pgs(iter.get(), group)
                             : hgx_iter_pg_pgs_composed(iter.get(), group, snapshot);
    if (started != 0) return failed_call();
    while ((step = hgx_iter_next_pg(iter.get(), nested.get())) > 0) {
        repository_error_t r = process_pg(tree, pool, buffer, size, offset, handle, nested.get(),
                                          is_service, snapshot, reader);
        if (r != REPOSITORY_SUCCESS) return r;
    }
    return walk_lost(step) ? REPOSITORY_QRM_ERROR : REPOSITORY_SUCCESS;
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
    HeapText pg_name = alloc_text(size);
    HgxPtr<hgx_service_t> service(hgx_service_create(handle));
    HgxPtr<hgx_instance_t> instance(hgx_instance_create(handle));
    HgxPtr<hgx_snapshot_t> snapshot(hgx_snapshot_create(handle));
    HgxPtr<hgx_propertygroup_t> group(hgx_pg_create(handle));
    HgxPtr<hgx_iter_t> iter(hgx_iter_create(handle));
    HeapText buffer = alloc_text(size);
    PropertyReader reader;
    if (pg_name == nullptr || service == nullptr || instance == nullptr || snapshot == nullptr ||
        group == nullptr || iter == nullptr || buffer == nullptr)
        return REPOSITORY_NO_MEMORY;

    // The bounded copies keep the offset inside the buffer even for a wern
    // too long to leave room for the relative name.
    buffer[0] = '\0';
    if (!relative_names) {
        bounded_copy(buffer.get(), wern, size);
        bounded_append(buffer.get(), SEPARATOR, size);
    }
    size_t offset = std::strlen(buffer.get());
    auto ssize = static_cast<ssize_t>(size);

    if (hgx_handle_decode_wern(handle, wern, nullptr, service.get(), nullptr, nullptr, nullptr,
                               HGX_DECODE_SERVICE_ONLY) == 0) {
        if (hgx_iter_service_pgs(iter.get(), service.get()) != 0) return failed_call();
        int step;
        while ((step = hgx_iter_next_pg(iter.get(), group.get())) > 0) {
            if (hgx_pg_get_name(group.get(), pg_name.get(), size) < 0) return failed_call();
            if (std::strcmp(pg_name.get(), "general") == 0 &&
                hgx_service_get_pg(service.get(), "general", group.get()) != 0)
                return failed_call();
            repository_error_t r = process_pg(tree, pool, buffer.get(), ssize, offset, handle,
                                              group.get(), 1, nullptr, &reader);
            if (r != REPOSITORY_SUCCESS) return r;
            buffer[offset] = '\0';
        }
        return walk_lost(step) ? REPOSITORY_QRM_ERROR : REPOSITORY_SUCCESS;
    }

    // The wern names more than a service: read it as an instance.
    if (hgx_error() != HGX_ERROR_CONSTRAINT_VIOLATED) return failed_call();
    if (hgx_handle_decode_wern(handle, wern, nullptr, service.get(), instance.get(), nullptr,
                               nullptr, HGX_DECODE_INSTANCE_ONLY) != 0)
        return failed_call();

    const char* name = snapshot_name != nullptr ? snapshot_name : "running";
    if (hgx_instance_get_snapshot(instance.get(), name, snapshot.get()) == 0) {
        if (hgx_iter_instance_pgs_composed(iter.get(), instance.get(), snapshot.get()) != 0)
            return failed_call();
    } else if (hgx_error() == HGX_ERROR_NOT_FOUND) {
        snapshot.reset();
        if (hgx_iter_instance_pgs(iter.get(), instance.get()) != 0) return failed_call();
    } else {
        return failed_call();
    }

    int step;
    while ((step = hgx_iter_next_pg(iter.get(), group.get())) > 0) {
        if (hgx_pg_get_name(group.get(), pg_name.get(), size) < 0) return failed_call();
        hgx_snapshot_t* group_snapshot = snapshot.get();
        if (std::strcmp(pg_name.get(), "general") == 0) {
            if (hgx_instance_get_pg_composed(instance.get(), nullptr, "general", group.get()) != 0)
                return failed_call();
            group_snapshot = nullptr;
        }
        repository_error_t r = process_pg(tree, pool, buffer.get(), ssize, offset, handle,
                                          group.get(), 0, group_snapshot, &reader);
        if (r != REPOSITORY_SUCCESS) return r;
        buffer[offset] = '\0';
    }
    return walk_lost(step) ? REPOSITORY_QRM_ERROR : REPOSITORY_SUCCESS;
}

// The three names under which a service or instance can be matched: the
// wern (which a pull starts from), and the wern with the separator, with and
// without its last slash (for patterns that end there; these never pull).
// buffer must have room for the separator behind the wern; it is left
// altered.
int add_instance_permutations(char* buffer, pkx_avl_t* tree) {
    if (add_instance(tree, view_pool.pool, buffer) == nullptr) return -1;
    std::strcat(buffer, SEPARATOR);
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
    repository_lost();
    return hgx_error() == HGX_ERROR_NO_MEMORY ? REPOSITORY_NO_MEMORY : REPOSITORY_QRM_ERROR;
}

int fill_instance_tree(pkx_avl_t* tree, hgx_handle_t* handle) {
    // Room for the longest wern and the separator appended to it.
    size_t size = wern_buffer_size() + SEPARATOR_LENGTH;
    HgxPtr<hgx_scope_t> scope(hgx_scope_create(handle));
    HgxPtr<hgx_service_t> service(hgx_service_create(handle));
    HgxPtr<hgx_instance_t> instance(hgx_instance_create(handle));
    HgxPtr<hgx_iter_t> services(hgx_iter_create(handle));
    HgxPtr<hgx_iter_t> instances(hgx_iter_create(handle));
    HeapText buffer = alloc_text(size);
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

}  // namespace repository_internal
