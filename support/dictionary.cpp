// The dictionary of one stencil: named sections and macros in one name
// space. The table owns its name copies; the definitions belong to the
// stencil's expression tree.

#include "dictionary.h"

#include <cstdlib>
#include <cstring>

namespace {

pkx_avl_pool_t* global_pool = nullptr;
int existing_dictionaries = 0;

int dictionary_entry_compare(const void* left, const void* right, void* /*priv*/) {
    return std::strcmp(static_cast<const dictionary_entry_t*>(left)->name,
                       static_cast<const dictionary_entry_t*>(right)->name);
}

}  // namespace

dictionary_t* dictionary_create(void) {
    auto* dictionary = static_cast<dictionary_t*>(pkx_zalloc(sizeof(dictionary_t)));
    if (dictionary == nullptr) return nullptr;
    if (global_pool == nullptr) {
        global_pool = pkx_avl_pool_create("dictionary_pool", sizeof(dictionary_entry_t), 0,
                                          dictionary_entry_compare, 0);
        if (global_pool == nullptr) {
            std::free(dictionary);
            return nullptr;
        }
    }
    dictionary->entries = pkx_avl_create(global_pool, nullptr, 0);
    if (dictionary->entries == nullptr) {
        if (existing_dictionaries == 0) {
            pkx_avl_pool_destroy(global_pool);
            global_pool = nullptr;
        }
        std::free(dictionary);
        return nullptr;
    }
    existing_dictionaries++;
    return dictionary;
}

void dictionary_destroy(dictionary_t* dictionary) {
    if (dictionary == nullptr) return;
    void* cookie = nullptr;
    while (auto* entry =
               static_cast<dictionary_entry_t*>(pkx_avl_teardown(dictionary->entries, &cookie))) {
        pkx_avl_node_fini(entry, entry, global_pool);
        std::free(const_cast<char*>(entry->name));
        std::free(entry);
    }
    pkx_avl_destroy(dictionary->entries);
    if (--existing_dictionaries == 0) {
        pkx_avl_pool_destroy(global_pool);
        global_pool = nullptr;
    }
    std::free(dictionary);
}

int dictionary_add(dictionary_t* dictionary, const char* name, void* entry) {
    dictionary_entry_t key{};
    key.name = name;
    pkx_avl_index_t where = 0;
    if (pkx_avl_find(dictionary->entries, &key, nullptr, &where) != nullptr) return -1;
    auto* node = static_cast<dictionary_entry_t*>(pkx_zalloc(sizeof(dictionary_entry_t)));
    if (node == nullptr) return -2;
    node->name = strdup(name);
    node->entry = entry;
    if (node->name == nullptr) {
        std::free(node);
        return -2;
    }
    pkx_avl_node_init(node, node, global_pool);
    pkx_avl_insert(dictionary->entries, node, where);
    return 0;
}

void* dictionary_find(dictionary_t* dictionary, const char* name) {
    dictionary_entry_t key{};
    key.name = name;
    auto* node = static_cast<dictionary_entry_t*>(
        pkx_avl_find(dictionary->entries, &key, nullptr, nullptr));
    return node == nullptr ? nullptr : node->entry;
}

int dictionary_live_tables(void) { return existing_dictionaries; }
int dictionary_pool_exists(void) { return global_pool != nullptr; }
