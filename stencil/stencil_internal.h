// Records of a parsed stencil, shared by the front end (parser, duplication,
// syntax errors) and the evaluation. Not part of the public interface.
//
// Every concrete record begins with an expression_t, so a child of any
// container is reached as an expression_t* and told apart by `type`. A
// container owns its children; each child owns its strings and children.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "defines.h"
#include "dictionary.h"
#include "repository.h"
#include "stencil.h"
#include "string_buffer.h"

// One node of the output tree: its own text, then its chained children, depth
// first. The root returned by stencil_apply is a heap record; every other node
// lives by value in its parent's `chained` array.
struct stencil_output_buffer {
    char* buffer;  // owned; null for a node without text of its own
    int num;
    struct stencil_output_buffer* chained;  // num children, owned
};

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
    int line_number;                 // line of the stencil text the reference starts on, from 1
    int has_default;                 // a `:-` of the same name stands right beside it
    expression_t first_expression;   // text after the operator
    expression_t second_expression;  // text after '/'
} property_t;

typedef struct match {
    expression_t expression;  // children are the body
    char* name;               // null for unnamed sections and copies in a body
    transform_t transform;    // set by an invocation
    expression_t first_expression;
    expression_t second_expression;
    char* regex;           // pattern as written, defines spliced in
    int grabs;             // groups the pattern opens
    int grab_start;        // group numbers used by enclosing sections
    struct match* parent;  // enclosing section when made; not owned
    int invocable;         // 0 for a named section's definition
} match_t;

typedef struct macro {
    expression_t expression;  // children are the body
    char* name;
    char** args;  // definition: argument names; invocation: evaluated arguments
    int num_args;
    expression_t* arg_expressions;  // invocation: num_args containers; definition: null
    struct macro* invocation;       // invocation: the definition (not owned)
    // For observers only: where an invocation stands and what it writes.
    int line_number;       // line of the `$%[`, from 1
    char** arg_texts;      // invocation: each argument as written; null for a copied definition
    struct macro* caller;  // the invocation around this one while its body runs; not owned
} macro_t;

// A child is created as its concrete record (add_child), linked as an
// expression_t* and cast back by `type`: the common header must open every
// concrete record.
static_assert(offsetof(literal_t, expression) == 0, "a literal must open with its expression");
static_assert(offsetof(property_t, expression) == 0, "a property must open with its expression");
static_assert(offsetof(match_t, expression) == 0, "a section must open with its expression");
static_assert(offsetof(macro_t, expression) == 0, "a macro must open with its expression");

typedef struct regex_context {
    property_list_node_t* match;  // the match being visited
    struct regex_context* prev;   // next entry outward
    match_t* regex;
    char* first_transform;
    char* second_transform;
    size_t mark;
} regex_context_t;

// A failed load's syntax errors, newest first.
typedef struct stencil_syntax_error_list {
    struct stencil_syntax_error_list* next;
    stencil_syntax_error_t syntax_error;
} stencil_syntax_error_list_t;

struct stencil_syntax_error_iter {
    stencil_syntax_error_list_t* list;  // the next error to hand out; borrowed
};

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
    stencil_reference_fn observer;        // set during stencil_apply_observed only
    void* observer_context;
};

// Whether the evaluation's repository failed under a query (a cluster lost
// after binding): the evaluation then ends with STENCIL_ERROR_REPOSITORY.
inline bool repository_lost(const stencil_t* stencil) {
    return stencil->repository != nullptr &&
           repository_failure(stencil->repository) != HGX_ERROR_NONE;
}

// ---- front end (load.cpp, parse_*.cpp, duplicate.cpp, syntax_error.cpp) ----

void destroy_subexpressions(expression_t* container);
int add_error(stencil_t* stencil, const char* text, size_t length, size_t location,
              syntax_error_t err);
// add_error wrapped for a parse function: STENCIL_ERROR_SYNTAX once the error
// is recorded, STENCIL_ERROR_NO_MEMORY when it could not be.
int report_syntax_error(stencil_t* stencil, const char* text, size_t length, size_t location,
                        syntax_error_t err);
// SE_UNTERMINATED_SECTION for the form that begins at text, recorded against
// [text, at) with `at` as the offending character.
int unterminated_at(stencil_t* stencil, const char* text, const char* at);

// The section whose pattern and body are being parsed (one per process, null
// between loads), and the copy of the section whose body is being duplicated.
extern match_t* parse_parent;
extern thread_local match_t* duplicate_parent;

// Parse functions return the bytes used (closing token included) or a
// negative stencil_error_t; parse_definition may also return 0.
int parse_stencil(const char* text, expression_t* container, stencil_t* stencil,
                  const char* delimiters);
int parse_property(const char* text, expression_t* expression, stencil_t* stencil);
int parse_regex(const char* text, expression_t* expression, stencil_t* stencil);
int parse_regex_invocation(const char* text, match_t* match, stencil_t* stencil);
int parse_definition(const char* text, expression_t* container, stencil_t* stencil);
int parse_macro(const char* text, expression_t* expression, stencil_t* stencil);
int parse_invocation(const char* text, expression_t* container, stencil_t* stencil);
int parse_macro_invocation(const char* text, expression_t* expression, stencil_t* stencil);

// The blanks of stencil text; a newline is handled apart wherever it counts.
inline bool is_blank(char c) { return c == ' ' || c == '\t'; }
int consume_comment(const char* text, stencil_t* stencil);
int first_nonwhitespace_char(const char* text, int multi_line, stencil_t* stencil);
int first_whitespace_char(const char* text, int multi_line, stencil_t* stencil);
int fill_in_literal(literal_t* literal, const char* start, const char* end);
// Appends a zero-filled record of `kind` (its type set) to the container.
expression_t* add_child(expression_t* container, expression_type_t kind);
int append_text(char** str, const char* start, const char* end);
int next_substring(const char* text, const char* prefix);
// The `]` that ends a define splice in a property name or a pattern: extends
// the define name by [piece, close), looks it up and appends its value to
// *target. 0, or a negative stencil_error_t (SE_MACRO_NOT_FOUND reported
// against [text, close]).
int splice_define(stencil_t* stencil, const char* text, const char* piece, const char* close,
                  char** define_name, char** target);

// Deep copies for invocations: 0, -1 out of memory, -2 a name is missing from
// the dictionary.
int duplicate_subexpressions(expression_t* target, expression_t* source, stencil_t* stencil);
int duplicate_literal(literal_t* target, literal_t* source, stencil_t* stencil);
int duplicate_property(property_t* target, property_t* source, stencil_t* stencil);
int duplicate_regex(match_t* target, match_t* source, stencil_t* stencil);
int duplicate_macro(macro_t* target, macro_t* source, stencil_t* stencil);

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

// Dispatchers: each calls the operation of its name in the row of the
// output-function table for the stencil's mode. emit_property first settles
// the final property name.
int emit_literal(literal_t* literal, stencil_output_buffer_t* buffer, stencil_t* stencil);
int emit_property(property_t* property, stencil_output_buffer_t* buffer, stencil_t* stencil);
int emit_regex(match_t* match, stencil_output_buffer_t* buffer, stencil_t* stencil);
int emit_macro(macro_t* macro, stencil_output_buffer_t* buffer, stencil_t* stencil);
// The mode's emit_property operation, without the name step.
int emit_property_by_mode(property_t* property, stencil_output_buffer_t* buffer,
                          stencil_t* stencil);

int emit_normal_literal(literal_t* literal, stencil_output_buffer_t* buffer, stencil_t* stencil);
int emit_list_properties_literal(literal_t* literal, stencil_output_buffer_t* buffer,
                                 stencil_t* stencil);
int emit_normal_property(property_t* property, stencil_output_buffer_t* buffer, stencil_t* stencil);
int emit_list_properties_property(property_t* property, stencil_output_buffer_t* buffer,
                                  stencil_t* stencil);
int emit_normal_regex(match_t* match, stencil_output_buffer_t* buffer, stencil_t* stencil);
int emit_normal_macro(macro_t* macro, stencil_output_buffer_t* buffer, stencil_t* stencil);

// The first visit of a section (emit_expression with regex_pass 0): matches
// the pattern, evaluates the body once per match, flattens the result.
int emit_regex_first_pass(match_t* match, stencil_output_buffer_t* buffer, stencil_t* stencil);
// The pre-step of a macro record: 0 for a definition (nothing to emit), 1 for
// an invocation whose arguments are now evaluated and which is now the
// stencil's current macro, or a negative stencil_error_t.
int emit_macro_arguments(macro_t* macro, stencil_t* stencil);
// Text of a macro body as its invocations write it: each `$%name` of an
// argument of macro (null: none) replaced by that argument's text at the
// invocation, resolved in turn through the invocations around it; grabs,
// escapes and other forms stay as written. Appends to *out. Unless *line is
// set already, it receives the line of the invocation whose text stood in
// for the first argument replaced; it stays 0 when none was.
void shown_text(const char* text, const macro_t* macro, std::string* out, int* line);

// Text substitution at evaluation time: escapes, grabs, macro arguments and
// the named $% forms. Appends to sb; 0 or a negative stencil_error_t.
int translate_grabs(const char* text, string_buffer_t* sb, regex_context_t* context,
                    stencil_t* stencil);
// Text of a grab (valid until the next call), "" when absent, null on no memory.
const char* get_grab(int grab, const regex_context_t* context);
const char* get_macro_expansion(const char** text, macro_t* macro);

// Glob replacement; the result is valid until the next call, null on no memory.
const char* replace_string(const char* source, const char* pattern, const char* replacement,
                           int all);
const char* match_glob(const char* source, const char* pattern);

regex_context_t* match_regex(match_t* match, stencil_t* stencil);
// Applies the transforms of the active sections to a name (regex 0) or to a
// pattern (regex 1, anchored). Valid until the next call; null on failure.
const char* transform_wern(const char* wern, regex_context_t* context, int regex);
int is_absolute_wern(const char* wern);
const char* transform_wern_pass_one(regex_context_t* context, string_buffer_t* sb);
const char* transform_wern_pass_two(regex_context_t* context, string_buffer_t* sb);

int stencil_output_buffer_cmp_kernel(stencil_output_buffer_t* buffer, const char* map,
                                     size_t* position, size_t file_size);
