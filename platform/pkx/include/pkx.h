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

// A pool describes the entries of its trees: their size, the offset of the
// embedded node and their order. Returns the new pool, or null for a null
// compare, a node that does not fit inside entry_size at node_offset, or
// exhausted memory. name and flags are accepted and ignored. The caller
// releases it with pkx_avl_pool_destroy, only when no tree of the pool lives
// any more (null is ignored).
pkx_avl_pool_t* pkx_avl_pool_create(const char* name, size_t entry_size, size_t node_offset,
                                    pkx_avl_compare_fn compare, uint32_t flags);
void pkx_avl_pool_destroy(pkx_avl_pool_t* pool);

// A new empty tree over pool, or null for a null pool or exhausted memory;
// priv is kept for the lookups that pkx_avl_insert makes itself, flags are
// ignored. The pool must outlive the tree. The caller empties it
// (pkx_avl_teardown until null) and then releases it with pkx_avl_destroy,
// which also releases walks of the tree that were never ended (null is
// ignored). The entries are never the tree's: it links them, the caller
// allocates and frees them.
pkx_avl_t* pkx_avl_create(pkx_avl_pool_t* pool, void* priv, uint32_t flags);
void pkx_avl_destroy(pkx_avl_t* tree);

// Prepares the node embedded in entry before its first insertion, and
// clears it after its entry left its tree. fini is harmless on a
// zero-filled entry that was never initialised, and ignores a null node.
void pkx_avl_node_init(void* entry, void* node, pkx_avl_pool_t* pool);
void pkx_avl_node_fini(void* entry, void* node, pkx_avl_pool_t* pool);

// The entry equal to key (borrowed from the tree), or null with *where (when
// where is not null) set to the place of key, valid for one pkx_avl_insert
// with no change to the tree in between.
void* pkx_avl_find(pkx_avl_t* tree, const void* key, void* priv, pkx_avl_index_t* where);
// pkx_avl_find with the same results, for keys that mostly come below every
// entry of the tree (entries added in descending order, such as names read in
// the opposite order to the tree's): such a key costs one comparison, with
// the first entry, instead of a descent.
void* pkx_avl_find_below_first(pkx_avl_t* tree, const void* key, void* priv,
                               pkx_avl_index_t* where);
// Links entry (which must not be in any tree) at where. A where of 0 on a
// tree that is not empty makes the tree look the place up itself; an equal
// entry already there is then kept and entry is not linked (the caller still
// owns it either way). Never fails.
void pkx_avl_insert(pkx_avl_t* tree, void* entry, pkx_avl_index_t where);

// In-order reading: the lowest entry, the entry after entry (null after the
// last, and for a null entry), and the number of entries. All borrowed; the
// tree must not change between first and the last next.
void* pkx_avl_first(pkx_avl_t* tree);
void* pkx_avl_next(pkx_avl_t* tree, void* entry);
size_t pkx_avl_numnodes(pkx_avl_t* tree);

// Takes one entry out per call, in any order, and hands it back to the
// caller to free; null when the tree is empty. *cookie starts null and
// belongs to the tree between calls; nothing else may change the tree
// meanwhile.
void* pkx_avl_teardown(pkx_avl_t* tree, void** cookie);

// A walk from the first entry to the last (flags ignored; callers pass 1).
// start returns the new walk, or null for a null tree or exhausted memory;
// next returns the following entry (borrowed), null at the end; end
// releases the walk (null is ignored), and must be called for every walk
// before its tree is destroyed unless pkx_avl_destroy is left to release
// it. The tree must not change while a walk lasts.
pkx_avl_walk_t* pkx_avl_walk_start(pkx_avl_t* tree, uint32_t flags);
void* pkx_avl_walk_next(pkx_avl_walk_t* walk);
void pkx_avl_walk_end(pkx_avl_walk_t* walk);

// size bytes of zero-filled memory, released with free(); null on failure.
void* pkx_zalloc(size_t size);
