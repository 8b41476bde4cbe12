// The table of name=value defines handed to a stencil (from -D, or from a
// configfile group's defines). Names are unique and compared byte for byte;
// a walk yields each define as stencil text "$%define name {value}" in
// ascending name order.
#pragma once

#include "pkx.h"
#include "support_result.h"

// A table; its layout is the module's own. Every function below but
// defines_create and defines_destroy requires a live table from
// defines_create; the table is not safe for concurrent use.
typedef struct defines defines_t;

// A new empty table, or null on exhausted memory. The caller destroys it
// with defines_destroy.
defines_t* defines_create(void);
// Releases the table and every text it handed out. Null is ignored.
void defines_destroy(defines_t* defines);
// Copies name and value in: SUPPORT_SUCCESS, SUPPORT_EXISTS or
// SUPPORT_NO_MEMORY (the table unchanged in both).
support_result_t defines_add(defines_t* defines, const char* name, const char* value);
// The number of defines in the table.
int defines_count(defines_t* defines);
// The value of name, owned by the table; null when it is not there.
const char* defines_find(defines_t* defines, const char* name);
// Starts a walk in ascending name order; null on exhausted memory. The
// table must not change while the walk lasts.
pkx_avl_walk_t* defines_walk_start(defines_t* defines);
// The next define's macro text, owned by the table; null at the end, when
// the walk is ended and released (a walk left before its end is ended with
// pkx_avl_walk_end).
char* defines_walk_next(defines_t* defines, pkx_avl_walk_t* walk);
// Calls visit with each define's name and value (owned by the table), in
// ascending name order; visit must not change the table. 0, or -1 when the
// walk could not be started (exhausted memory).
typedef void (*defines_visit_fn)(const char* name, const char* value, void* context);
int defines_for_each(defines_t* defines, defines_visit_fn visit, void* context);
