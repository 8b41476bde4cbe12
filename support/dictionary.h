// Named regular expression sections and macros of one stencil, in one name
// space. Entries borrow the definition records, which the expression tree owns.
#pragma once

#include "pkx.h"

typedef struct dictionary {
    pkx_avl_t* entries;
} dictionary_t;

typedef struct dictionary_entry {
    pkx_avl_node_t node;
    const char* name;  // owned copy; the key
    void* entry;       // match_t or macro_t, borrowed
} dictionary_entry_t;

// A new empty dictionary, or null on exhausted memory. The caller destroys
// it with dictionary_destroy.
dictionary_t* dictionary_create(void);
// Releases the dictionary and its name copies, not the definitions. Null is
// ignored.
void dictionary_destroy(dictionary_t* dictionary);
// Copies name in and keeps entry borrowed; the entry must outlive the
// dictionary. 0 added; -1 the name exists already; -2 out of memory (the
// dictionary unchanged in both).
int dictionary_add(dictionary_t* dictionary, const char* name, void* entry);
// The definition named name (borrowed), or null when there is none.
void* dictionary_find(dictionary_t* dictionary, const char* name);

// Module state, visible to tests: live dictionaries, and whether their pool
// exists.
int dictionary_live_tables(void);
int dictionary_pool_exists(void);
