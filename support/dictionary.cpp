// The dictionary of one stencil: named sections and macros in one name
// space. The table owns its name copies; the definitions belong to the
// stencil's expression tree.

#include "dictionary.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

#include "shared_pool.h"
#include "support_internal.h"

namespace {

int dictionary_entry_compare(const void* left, const void* right, void* /*priv*/) {
    return std::strcmp(static_cast<const dictionary_entry_t*>(left)->name,
                       static_cast<const dictionary_entry_t*>(right)->name);
}

SharedPool pool{"dictionary_pool", sizeof(dictionary_entry_t), dictionary_entry_compare};

}  // namespace

dictionary_t* dictionary_create(void) {
    auto* dictionary = static_cast<dictionary_t*>(pkx_zalloc(sizeof(dictionary_t)));
    if (dictionary == nullptr) return nullptr;
    if (pool.acquire() == nullptr) {
        std::free(dictionary);
        return nullptr;
    }
    dictionary->entries = pkx_avl_create(pool.pool, nullptr, 0);
    if (dictionary->entries == nullptr) {
        pool.release();
        std::free(dictionary);
        return nullptr;
    }
    return dictionary;
}

void dictionary_destroy(dictionary_t* dictionary) {
    if (dictionary == nullptr) return;
    void* cookie = nullptr;
    while (auto* entry =
               static_cast<dictionary_entry_t*>(pkx_avl_teardown(dictionary->entries, &cookie))) {
        pkx_avl_node_fini(entry, entry, pool.pool);
        std::free(const_cast<char*>(entry->name));
        std::free(entry);
    }
    // Teardown hands out every entry before it reports the tree empty.
    assert(pkx_avl_numnodes(dictionary->entries) == 0);
    pkx_avl_destroy(dictionary->entries);
    pool.release();
    std::free(dictionary);
}

support_result_t dictionary_add(dictionary_t* dictionary, const char* name, void* entry) {
    dictionary_entry_t key{};
    key.name = name;
    pkx_avl_index_t where = 0;
    if (pkx_avl_find(dictionary->entries, &key, nullptr, &where) != nullptr) return SUPPORT_EXISTS;
    auto* node = static_cast<dictionary_entry_t*>(pkx_zalloc(sizeof(dictionary_entry_t)));
    if (node == nullptr) return SUPPORT_NO_MEMORY;
    node->name = strdup(name);
    node->entry = entry;
    if (node->name == nullptr) {
        std::free(node);
        return SUPPORT_NO_MEMORY;
    }
    pkx_avl_node_init(node, node, pool.pool);
    pkx_avl_insert(dictionary->entries, node, where);
    return SUPPORT_SUCCESS;
}

void* dictionary_find(dictionary_t* dictionary, const char* name) {
    dictionary_entry_t key{};
    key.name = name;
    auto* node =
        static_cast<dictionary_entry_t*>(pkx_avl_find(dictionary->entries, &key, nullptr, nullptr));
    return node == nullptr ? nullptr : node->entry;
}

int dictionary_live_tables(void) { return pool.users; }
int dictionary_pool_exists(void) { return pool.pool != nullptr; }
