// The result codes of the support tables' operations that can fail for more
// than one reason (defines_add, dictionary_add). Operations that can only
// run out of memory give null or -1 instead, as their contracts say.
#pragma once

typedef enum support_result {
    SUPPORT_SUCCESS = 0,
    SUPPORT_EXISTS = -1,     // the name is there already; the table is unchanged
    SUPPORT_NO_MEMORY = -2,  // the heap ran out; the table is unchanged
} support_result_t;
