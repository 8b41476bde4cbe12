// The one tree pool that all live tables of a module share: the first table
// made creates it, the last one gone releases it, so that no pool outlives
// its last user and no test sees a pool left behind.
#pragma once

#include <cstddef>

#include "pkx.h"

struct SharedPool {
    const char* name;  // the pool's name, for pkx
    size_t entry_size;
    pkx_avl_compare_fn compare;
    pkx_avl_pool_t* pool = nullptr;
    int users = 0;

    // Counts one more user, creating the pool for the first. The pool, or
    // null (and nothing counted) when it cannot be created.
    pkx_avl_pool_t* acquire();
    // Counts one user less, releasing the pool with the last. Every tree of
    // the pool that user made must be gone.
    void release();
};
