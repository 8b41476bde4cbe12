// Records and counters of the support module that its users never see: the
// entries of the define and dictionary trees, the pool counters and the
// exit-time list's slots. The module's sources and its tests include this;
// nothing else does.
#pragma once

#include <cstddef>

#include "atexit_free.h"
#include "defines.h"
#include "dictionary.h"
#include "pkx.h"

struct defines {
    pkx_avl_t* entries;  // defines_entry_t, by name
};

typedef struct defines_entry {
    pkx_avl_node_t node;
    const char* name;   // owned copy; the key
    const char* value;  // owned copy
    char* macro;        // owned: the define as stencil text
} defines_entry_t;

struct dictionary {
    pkx_avl_t* entries;  // dictionary_entry_t, by name
};

typedef struct dictionary_entry {
    pkx_avl_node_t node;
    const char* name;  // owned copy; the key
    void* entry;       // match_t or macro_t, borrowed
} dictionary_entry_t;

// shared_pool creates every pool with node offset 0: pkx finds its links at
// the start of each entry, and the compare callbacks read the entry through
// the same pointer.
static_assert(offsetof(defines_entry_t, node) == 0, "tree links must open a define entry");
static_assert(offsetof(dictionary_entry_t, node) == 0,
              "tree links must open a dictionary entry");

// Pool counters, for tests of the shared pool lifecycle: the number of live
// tables, and 1 while the module's pool exists (0 otherwise).
int defines_live_tables(void);
int defines_pool_exists(void);
int dictionary_live_tables(void);
int dictionary_pool_exists(void);

// ---- the exit-time list ----

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
    int nodes_used;  // registrations so far, dropped ones included
    free_node_t nodes[FREE_LIST_SLOTS];
} free_list_t;

// Registers memory (freed as it is) when it is not null, otherwise pointer
// (whatever *pointer holds at exit is freed). Counted even past the last
// slot, where it is dropped.
void _atexit_free(void* memory, void** pointer);
// The list itself, for tests of the slot accounting. Read it only while no
// other thread registers.
const free_list_t* atexit_free_list_state(void);
