// The defines table: name=value pairs handed to a stencil as "$%define"
// texts, one tree per table over one pool shared by all live tables.

#include "defines.h"

#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "shared_pool.h"
#include "support_internal.h"

namespace {

int defines_entry_compare(const void* left, const void* right, void* /*priv*/) {
    return std::strcmp(static_cast<const defines_entry_t*>(left)->name,
                       static_cast<const defines_entry_t*>(right)->name);
}

SharedPool pool{"defines_pool", sizeof(defines_entry_t), defines_entry_compare};

void free_entry(defines_entry_t* entry) {
    std::free(const_cast<char*>(entry->name));
    std::free(const_cast<char*>(entry->value));
    std::free(entry->macro);
    std::free(entry);
}

}  // namespace

defines_t* defines_create(void) {
    auto* defines = static_cast<defines_t*>(pkx_zalloc(sizeof(defines_t)));
    if (defines == nullptr) return nullptr;
    if (pool.acquire() == nullptr) {
        std::free(defines);
        return nullptr;
    }
    defines->entries = pkx_avl_create(pool.pool, nullptr, 0);
    if (defines->entries == nullptr) {
        pool.release();
        std::free(defines);
        return nullptr;
    }
    return defines;
}

void defines_destroy(defines_t* defines) {
    if (defines == nullptr) return;
    void* cookie = nullptr;
    while (auto* entry =
               static_cast<defines_entry_t*>(pkx_avl_teardown(defines->entries, &cookie))) {
        pkx_avl_node_fini(entry, entry, pool.pool);
        free_entry(entry);
    }
    // Teardown hands out every entry before it reports the tree empty.
    assert(pkx_avl_numnodes(defines->entries) == 0);
    pkx_avl_destroy(defines->entries);
    pool.release();
    std::free(defines);
}

support_result_t defines_add(defines_t* defines, const char* name, const char* value) {
    defines_entry_t key{};
    key.name = name;
    pkx_avl_index_t where = 0;
    if (pkx_avl_find(defines->entries, &key, nullptr, &where) != nullptr) return SUPPORT_EXISTS;

    // "$%define " + name + " {" + value + "}" + NUL
    size_t size = std::strlen(name) + std::strlen(value) + 13;
    auto* entry = static_cast<defines_entry_t*>(pkx_zalloc(sizeof(defines_entry_t)));
    if (entry == nullptr) return SUPPORT_NO_MEMORY;
    entry->name = strdup(name);
    entry->value = strdup(value);
    entry->macro = static_cast<char*>(std::malloc(size));
    if (entry->name == nullptr || entry->value == nullptr || entry->macro == nullptr ||
        std::snprintf(entry->macro, size, "$%%define %s {%s}", name, value) < 0) {
        free_entry(entry);
        return SUPPORT_NO_MEMORY;
    }
    pkx_avl_node_init(entry, entry, pool.pool);
    pkx_avl_insert(defines->entries, entry, where);
    return SUPPORT_SUCCESS;
}

int defines_count(defines_t* defines) {
    return static_cast<int>(pkx_avl_numnodes(defines->entries));
}

const char* defines_find(defines_t* defines, const char* name) {
    defines_entry_t key{};
    key.name = name;
    auto* entry =
        static_cast<defines_entry_t*>(pkx_avl_find(defines->entries, &key, nullptr, nullptr));
    return entry == nullptr ? nullptr : entry->value;
}

pkx_avl_walk_t* defines_walk_start(defines_t* defines) {
    return pkx_avl_walk_start(defines->entries, 1);
}

// Ends the walk itself when it runs out, so a caller that reads to the end
// has nothing left to release.
char* defines_walk_next(defines_t* /*defines*/, pkx_avl_walk_t* walk) {
    auto* entry = static_cast<defines_entry_t*>(pkx_avl_walk_next(walk));
    if (entry == nullptr) {
        pkx_avl_walk_end(walk);
        return nullptr;
    }
    return entry->macro;
}

int defines_for_each(defines_t* defines, defines_visit_fn visit, void* context) {
    pkx_avl_walk_t* walk = pkx_avl_walk_start(defines->entries, 1);
    if (walk == nullptr) return -1;
    while (auto* entry = static_cast<defines_entry_t*>(pkx_avl_walk_next(walk)))
        visit(entry->name, entry->value, context);
    pkx_avl_walk_end(walk);
    return 0;
}

int defines_live_tables(void) { return pool.users; }
int defines_pool_exists(void) { return pool.pool != nullptr; }
