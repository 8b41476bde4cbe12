// Memory released at process exit: a fixed list of 256 slots, guarded by one
// mutex. Registrations past the last slot are dropped silently; that memory
// then simply stays allocated until the process ends.
#pragma once

#include <pthread.h>

typedef enum free_type {
    VOID_PTR = 0,      // the slot holds the address of the memory
    VOID_PTR_PTR = 1,  // the slot holds the address of a pointer variable
} free_type_t;

typedef struct free_node {
    free_type_t type;
    union {
        void* void_ptr;
        void** void_ptr_ptr;
    } pointer;
} free_node_t;

#define FREE_LIST_SLOTS 256

typedef struct free_list {
    int nodes_used;
    free_node_t nodes[FREE_LIST_SLOTS];
} free_list_t;

// At exit, free whatever *pointer holds then.
void atexit_free_at(void** pointer);

// Module internals, exposed for tests of the slot accounting.
void _atexit_free(void* memory, void** pointer);
const free_list_t* atexit_free_list_state(void);
