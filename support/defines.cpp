// The defines table: name=value pairs handed to a stencil as "$%define"
// texts, one tree per table over one pool shared by all live tables.

#include "defines.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

pkx_avl_pool_t* global_pool = nullptr;
int existing_defines = 0;

int defines_entry_compare(const void* left, const void* right, void* /*priv*/) {
    return std::strcmp(static_cast<const defines_entry_t*>(left)->name,
                       static_cast<const defines_entry_t*>(right)->name);
}

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
    if (global_pool == nullptr) {
        global_pool = pkx_avl_pool_create("defines_pool", sizeof(defines_entry_t), 0,
                                          defines_entry_compare, 0);
        if (global_pool == nullptr) {
            std::free(defines);
            return nullptr;
        }
    }
    defines->entries = pkx_avl_create(global_pool, nullptr, 0);
    if (defines->entries == nullptr) {
        // The pool stays while another table still uses it.
        if (existing_defines == 0) {
            pkx_avl_pool_destroy(global_pool);
            global_pool = nullptr;
        }
        std::free(defines);
        return nullptr;
    }
    existing_defines++;
    return defines;
}

void defines_destroy(defines_t* defines) {
    if (defines == nullptr) return;
    void* cookie = nullptr;
    while (auto* entry = static_cast<defines_entry_t*>(pkx_avl_teardown(defines->entries, &cookie))) {
        pkx_avl_node_fini(entry, entry, global_pool);
        free_entry(entry);
    }
    pkx_avl_destroy(defines->entries);
    if (--existing_defines == 0) {
        pkx_avl_pool_destroy(global_pool);
        global_pool = nullptr;
    }
    std::free(defines);
}

int defines_add(defines_t* defines, const char* name, const char* value) {
    defines_entry_t key{};
    key.name = name;
    pkx_avl_index_t where = 0;
    if (pkx_avl_find(defines->entries, &key, nullptr, &where) != nullptr) return -1;

    // "$%define " + name + " {" + value + "}" + NUL
    size_t size = std::strlen(name) + std::strlen(value) + 13;
    auto* entry = static_cast<defines_entry_t*>(pkx_zalloc(sizeof(defines_entry_t)));
    if (entry == nullptr) return -2;
    entry->name = strdup(name);
    entry->value = strdup(value);
    entry->macro = static_cast<char*>(std::malloc(size));
    if (entry->name == nullptr || entry->value == nullptr || entry->macro == nullptr ||
        std::snprintf(entry->macro, size, "$%%define %s {%s}", name, value) < 0) {
        free_entry(entry);
        return -2;
    }
    pkx_avl_node_init(entry, entry, global_pool);
    pkx_avl_insert(defines->entries, entry, where);
    return 0;
}

int defines_count(defines_t* defines) {
    return static_cast<int>(pkx_avl_numnodes(defines->entries));
}

const char* defines_find(defines_t* defines, const char* name) {
    defines_entry_t key{};
    key.name = name;
    auto* entry = static_cast<defines_entry_t*>(pkx_avl_find(defines->entries, &key, nullptr, nullptr));
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

int defines_live_tables(void) { return existing_defines; }
int defines_pool_exists(void) { return global_pool != nullptr; }
