// Records and counters of the support module that its users never see: the
// entries of the define and dictionary trees, the pool counters and the
// exit-time list's slots. The module's sources and its tests include this;
// nothing else does.
#pragma once

#include <cstddef>
#include <cstdint>

#include "atexit_free.h"
#include "defines.h"
#include "dictionary.h"
#include "pkx.h"
#include "regex_budget.h"
#include "stack_guard.h"

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

// SharedPool creates every pool with node offset 0: pkx finds its links at
// the start of each entry, and the compare callbacks read the entry through
// the same pointer.
static_assert(offsetof(defines_entry_t, node) == 0, "tree links must open a define entry");
static_assert(offsetof(dictionary_entry_t, node) == 0, "tree links must open a dictionary entry");

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
void atexit_free_register(void* memory, void** pointer);
// The list itself, for tests of the slot accounting. Read it only while no
// other thread registers.
const free_list_t* atexit_free_list_state(void);

// ---- the regular expression budget ----

// What regex_measure finds in an extended (REG_EXTENDED) pattern. Counts
// saturate instead of overflowing.
typedef struct regex_measure_result {
    uint64_t nodes;       // nodes of the compiled tree, repetitions copied out
    uint64_t epsilon;     // of those, the ones matched without a character
                          // (groups, alternations, optional copies, loops)
    uint64_t anchors;     // of those, the anchors: ^ $ \b \B \< \> \` \'
    size_t depth;         // deepest nesting of parentheses (measuring stops
                          // at the first level beyond REGEX_BUDGET_DEPTH)
    int repeated_anchor;  // 1 when a quantifier applies to an anchor
    int backreferences;   // \1 to \9
} regex_measure_result_t;

// Limits of regex_within_budget. Every pattern of ordinary use stays far
// below them; at the limits the compiler takes well under a second and some
// tens of megabytes. A quantifier on anything that holds an anchor is
// refused at any size (see regex_budget.cpp for why), and so is a
// back-reference (\1 to \9): extended expressions do not define it, and
// matching one can take time exponential in the length of the name.
#define REGEX_BUDGET_NODES 65536
#define REGEX_BUDGET_EPSILON 512
#define REGEX_BUDGET_ANCHORS 16
#define REGEX_BUDGET_DEPTH 128

// Measures the pattern as the compiler would build it. Malformed parts are
// measured as plain characters; the compiler rejects them anyway.
regex_measure_result_t regex_measure(const char* pattern);

// 1 when the pattern is within every limit above, 0 when it is not.
int regex_within_budget(const char* pattern);

// ---- the stack guard ----

// The budget in bytes that the next scope (or base) takes: half of the stack
// the thread may use (the stack size limit for the main thread, at most
// 512 MiB; the thread's own stack otherwise), unless stack_guard_set_budget
// (stack_guard.h) set one.
size_t stack_guard_budget();
