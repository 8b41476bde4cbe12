#include "shared_pool.h"

#include <cassert>

pkx_avl_pool_t* SharedPool::acquire() {
    if (pool == nullptr) {
        pool = pkx_avl_pool_create(name, entry_size, 0, compare, 0);
        if (pool == nullptr) return nullptr;
    }
    users++;
    return pool;
}

void SharedPool::release() {
    // Only a user that acquired the pool releases it.
    assert(users > 0 && pool != nullptr);
    if (--users == 0) {
        pkx_avl_pool_destroy(pool);
        pool = nullptr;
    }
}
