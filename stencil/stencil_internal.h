// Records of a parsed stencil, shared by the front end (parser, duplication,
// syntax errors) and the evaluation. Not part of the public interface.
//
// Every concrete record begins with an expression_t, so a child of any
// container is reached as an expression_t* and told apart by `type`. A
// container owns its children; each child owns its strings and children.
#pragma once

#include <sys/types.h>

#include "defines.h"
#include "dictionary.h"
#include "repository.h"
#include "stencil.h"
#include "string_buffer.h"

typedef enum expression_type {
    ET_BASE = 0,        // plain container of sub-expressions
    ET_PSEUDOBASE = 1,  // container scanned inside a property; parse time only
    ET_LITERAL = 2,
    ET_PROPERTY = 3,
    ET_REGEX = 4,
    ET_MACRO = 5,
} expression_type_t;

typedef enum transform {
    PT_NONE = 0,
    PT_DELIM = 1,
    PT_IFNDEF = 2,
    PT_IFDEF = 3,
    PT_BOOL = 4,
    PT_PREFIX_SUFFIX = 5,
    PT_PREFIX_SUFFIX_IFDEF = 6,
    PT_REPLACE_FIRST = 7,
    PT_REPLACE_ALL = 8,
    PT_INVALID = 9,
} transform_t;

typedef struct expression {
    expression_type_t type;
    int num;
    struct expression** sub_expressions;  // num children in text order; null when num is 0
} expression_t;

typedef struct literal {
    expression_t expression;
    char* str;  // never null in a finished tree; may be empty
} literal_t;

typedef struct property {
    expression_t expression;
    char* property_name;  // null when the name in the text is empty
    transform_t transform;
    expression_t first_expression;   // text after the operator
    expression_t second_expression;  // text after '/'
} property_t;

typedef struct match {
    expression_t expression;  // children are the body
    char* name;               // null for unnamed sections and copies in a body
    transform_t transform;    // set by an invocation
    expression_t first_expression;
    expression_t second_expression;
    char* regex;  // pattern as written, defines spliced in
    int grabs;       // groups the pattern opens
    int grab_start;  // group numbers used by enclosing sections
    struct match* parent;  // enclosing section when made; not owned
    int invocable;   // 0 for a named section's definition
} match_t;

typedef struct macro {
    expression_t expression;  // children are the body
    char* name;
    char** args;  // definition: argument names; invocation: evaluated arguments
    int num_args;
    expression_t* arg_expressions;  // invocation: num_args containers; definition: null
    struct macro* invocation;       // invocation: the definition (not owned)
} macro_t;

typedef struct regex_context {
    property_list_node_t* match;  // the match being visited
    struct regex_context* prev;   // next entry outward
    match_t* regex;
    char* first_transform;
    char* second_transform;
    size_t mark;
} regex_context_t;

struct stencil {
    expression_t base;
    defines_t* defines;        // not owned
    dictionary_t* dictionary;  // owned
    regex_context_t* context;  // innermost active section during evaluation
    macro_t* macro;            // macro invocation under evaluation
    repository_t* repository;  // set during an evaluation
    stencil_output_mode_t mode;
    int line_number;
    stencil_syntax_error_list_t* errors;  // newest first; null when none
};

// ---- front end (parser.cpp, duplicate.cpp, syntax_errors.cpp) ----

void destroy_subexpressions(expression_t* container);
int add_error(stencil_t* stencil, const char* text, size_t length, size_t location,
              syntax_error_t err);

// ---- evaluation (emit*.cpp) ----

typedef struct stencil_output_functions {
    int (*emit_literal)(literal_t*, stencil_output_buffer_t*, stencil_t*);
    int (*emit_property)(property_t*, stencil_output_buffer_t*, stencil_t*);
    int (*emit_regex)(match_t*, stencil_output_buffer_t*, stencil_t*);
    int (*emit_macro)(macro_t*, stencil_output_buffer_t*, stencil_t*);
} stencil_output_functions_t;

stencil_output_buffer_t* grow_chain(stencil_output_buffer_t* buffer);
int coalesce_buffer_chain(const stencil_output_buffer_t* buffer, string_buffer_t* sb);
void free_output_buffer(stencil_output_buffer_t* buffer);
void free_sub_output_buffer(stencil_output_buffer_t* buffer);
int emit_expression(expression_t* expression, stencil_output_buffer_t* buffer, stencil_t* stencil,
                    int regex_pass);
int expression_to_string(expression_t* expression, stencil_t* stencil, char** out);
int string_buffer_append_expression(string_buffer_t* sb, expression_t* expression,
                                    stencil_t* stencil);
