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

dictionary_t* dictionary_create(void);
void dictionary_destroy(dictionary_t* dictionary);
// 0 added; -1 the name exists already; -2 out of memory.
int dictionary_add(dictionary_t* dictionary, const char* name, void* entry);
void* dictionary_find(dictionary_t* dictionary, const char* name);

int dictionary_live_tables(void);
int dictionary_pool_exists(void);
