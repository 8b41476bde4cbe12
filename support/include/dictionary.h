// Named regular expression sections and macros of one stencil, in one name
// space. Entries borrow the definition records, which the expression tree owns.
#pragma once

#include "support_result.h"

// A dictionary; its layout is the module's own. dictionary_add and
// dictionary_find require a live dictionary from dictionary_create.
typedef struct dictionary dictionary_t;

// A new empty dictionary, or null on exhausted memory. The caller destroys
// it with dictionary_destroy.
dictionary_t* dictionary_create(void);
// Releases the dictionary and its name copies, not the definitions. Null is
// ignored.
void dictionary_destroy(dictionary_t* dictionary);
// Copies name in and keeps entry borrowed; the entry must outlive the
// dictionary. SUPPORT_SUCCESS, SUPPORT_EXISTS or SUPPORT_NO_MEMORY (the
// dictionary unchanged in both).
support_result_t dictionary_add(dictionary_t* dictionary, const char* name, void* entry);
// The definition named name (borrowed), or null when there is none.
void* dictionary_find(dictionary_t* dictionary, const char* name);
