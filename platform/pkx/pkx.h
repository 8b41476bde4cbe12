// libpkx: ordered trees whose entries are the caller's own records.
//
// Every entry embeds a pkx_avl_node_t as its first field; the tree only links
// entries, the caller allocates and frees them. A tree runs from the lowest to
// the highest entry under the pool's compare callback, so a callback that
// negates its comparison yields a tree that pkx_avl_first/pkx_avl_next walk in
// descending order.
#pragma once

#include <cstddef>
#include <cstdint>

// Three pointer-sized words, embedded at offset 0 of every entry.
typedef struct pkx_avl_node {
    void* pkx_private[3];
} pkx_avl_node_t;

typedef struct pkx_avl_pool pkx_avl_pool_t;
typedef struct pkx_avl pkx_avl_t;
typedef struct pkx_avl_walk pkx_avl_walk_t;

// Position of a missing entry, as reported by pkx_avl_find and consumed by the
// pkx_avl_insert that follows it (with no change to the tree in between).
typedef uintptr_t pkx_avl_index_t;

// Gets two entries (either may be a key record with only its key set) and the
// private pointer given to pkx_avl_find (null in this program).
typedef int (*pkx_avl_compare_fn)(const void* left, const void* right, void* priv);

pkx_avl_pool_t* pkx_avl_pool_create(const char* name, size_t entry_size, size_t node_offset,
                                    pkx_avl_compare_fn compare, uint32_t flags);
// Only when no tree of the pool lives any more.
void pkx_avl_pool_destroy(pkx_avl_pool_t* pool);

pkx_avl_t* pkx_avl_create(pkx_avl_pool_t* pool, void* priv, uint32_t flags);
// The tree must have been emptied (pkx_avl_teardown until null). Walks of the
// tree that were never ended are released here.
void pkx_avl_destroy(pkx_avl_t* tree);

void pkx_avl_node_init(void* entry, void* node, pkx_avl_pool_t* pool);
// Harmless on a zero-filled entry that was never initialised.
void pkx_avl_node_fini(void* entry, void* node, pkx_avl_pool_t* pool);

// The entry equal to key, or null with *where set to the place of key.
void* pkx_avl_find(pkx_avl_t* tree, const void* key, void* priv, pkx_avl_index_t* where);
void pkx_avl_insert(pkx_avl_t* tree, void* entry, pkx_avl_index_t where);

void* pkx_avl_first(pkx_avl_t* tree);
void* pkx_avl_next(pkx_avl_t* tree, void* entry);
size_t pkx_avl_numnodes(pkx_avl_t* tree);

// Takes one entry out per call, in any order; null when the tree is empty.
// *cookie starts null and is owned by the tree between calls.
void* pkx_avl_teardown(pkx_avl_t* tree, void** cookie);

// Walks from the first entry to the last; flags 1. Null on failure.
pkx_avl_walk_t* pkx_avl_walk_start(pkx_avl_t* tree, uint32_t flags);
void* pkx_avl_walk_next(pkx_avl_walk_t* walk);
void pkx_avl_walk_end(pkx_avl_walk_t* walk);

// Zero-filled memory, released with free(); null on failure.
void* pkx_zalloc(size_t size);
