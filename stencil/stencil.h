// The stencil interface: load a stencil (parse it into an expression tree),
// evaluate it against a repository view into a tree of output text, and write
// or compare that text. Syntax errors of a failed load are read through an
// iterator.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "defines.h"
#include "repository.h"

typedef enum stencil_error {
    STENCIL_SUCCESS = 0,
    STENCIL_ERROR_NO_MEMORY = -1,
    STENCIL_ERROR_SYNTAX = -2,
    STENCIL_ERROR_NO_SUCH_FILE = -3,
    STENCIL_ERROR_PERMISSIONS = -4,
    STENCIL_ERROR_NO_RESOURCES = -5,
    STENCIL_ERROR_LONG_FILENAME = -6,
    STENCIL_ERROR_NO_SPACE = -7,
    STENCIL_ERROR_TOO_BIG = -8,
    STENCIL_ERROR_IO = -9,
    STENCIL_ERROR_INTERNAL_ERROR = -10,
    STENCIL_ERROR_NO_METHOD = -11,
    STENCIL_ERROR_NO_RESTARTER = -12,
    STENCIL_ERROR_INVALID_ARGUMENT = -13,
    STENCIL_ERROR_NOT_REGULAR_FILE = -14,
} stencil_error_t;

typedef enum stencil_output_mode {
    STENCIL_OUTPUT_NORMAL = 0,
    STENCIL_OUTPUT_LIST_PROPERTIES = 1,
    STENCIL_OUTPUT_INVALID = 2,
} stencil_output_mode_t;

// One node of the output tree: its own text, then its chained children, depth
// first. The root returned by stencil_apply is a heap record; every other node
// lives by value in its parent's `chained` array.
typedef struct stencil_output_buffer {
    char* buffer;
    int num;
    struct stencil_output_buffer* chained;
} stencil_output_buffer_t;

typedef enum syntax_error {
    SE_UNTERMINATED_GRAB = 0,
    SE_UNTERMINATED_REGEX = 1,
    SE_UNTERMINATED_SECTION = 2,
    SE_BAD_REGEX_NAME = 3,
    SE_REGEX_NOT_FOUND = 4,
    SE_DUPLICATE_REGEX_NAME = 5,
    SE_BAD_TRANSFORM = 6,
    SE_CANNOT_TRANSFORM = 7,
    SE_ILLEGAL_CHARACTER = 8,
    SE_DUPLICATE_MACRO_NAME = 9,
    SE_TOO_MANY_ARGUMENTS = 10,
    SE_TOO_FEW_ARGUMENTS = 11,
    SE_MACRO_NOT_FOUND = 12,
    SE_MACRO_UNNAMED = 13,
    SE_UNKNOWN_NAME = 14,
    SE_MACRO_IS_REGEX = 15,
    SE_REGEX_IS_MACRO = 16,
} syntax_error_t;

typedef struct stencil_syntax_error {
    const char* error_line;  // the text the error is about; owned by the list
    size_t error_location;   // index of the offending character
    int line_number;
    syntax_error_t err;
} stencil_syntax_error_t;

typedef struct stencil_syntax_error_list {
    struct stencil_syntax_error_list* next;
    stencil_syntax_error_t syntax_error;
} stencil_syntax_error_list_t;

typedef struct stencil_syntax_error_iter {
    stencil_syntax_error_list_t* list;
} stencil_syntax_error_iter_t;

typedef struct stencil stencil_t;

// A null file name reads standard input. A stencil that failed to parse is
// still handed out (so its errors can be listed); the caller destroys it.
stencil_error_t stencil_load(const char* file_name, stencil_t** stencil, defines_t* defines);
void stencil_destroy(stencil_t* stencil);

stencil_error_t stencil_apply(stencil_t* stencil, repository_t* repository,
                              stencil_output_mode_t mode, stencil_output_buffer_t** out);

// One visit of a property reference by an evaluation.
typedef struct stencil_reference {
    int line_number;           // stencil line the reference starts on, from 1
    const char* written_name;  // as the stencil writes it, defines spliced in; may be null
    const char* final_name;    // as looked up, after sections' transforms and grabs
    int tests_presence;  // the reference only asks whether there is a value (:- :+ :?)
    int defined;         // the name gave a value
} stencil_reference_t;
typedef void (*stencil_reference_fn)(const stencil_reference_t* reference, void* context);
// As stencil_apply in normal mode, calling observer for every property
// reference each time the evaluation visits it. A reference the evaluation
// never reaches (an untaken branch, the body of a section without matches)
// is not visited.
stencil_error_t stencil_apply_observed(stencil_t* stencil, repository_t* repository,
                                       stencil_reference_fn observer, void* context,
                                       stencil_output_buffer_t** out);
stencil_error_t stencil_output_buffer_emit(stencil_output_buffer_t* buffer, int fd);
// 0: the file open on fd holds exactly the tree's text; anything else: it
// does not. *error reports a failure (then the result is 0).
int stencil_output_buffer_cmp(stencil_output_buffer_t* buffer, int fd, stencil_error_t* error);
void stencil_output_buffer_destroy(stencil_output_buffer_t* buffer);
// The tree's whole text as one heap string, freed by the caller; null when
// out of memory. For readers that look at the text instead of writing it.
char* stencil_output_buffer_text(const stencil_output_buffer_t* buffer);

stencil_syntax_error_iter_t* stencil_syntax_error_iterator_create(stencil_t* stencil);
const stencil_syntax_error_t* stencil_syntax_error_iterator_next(stencil_syntax_error_iter_t* iter);
void stencil_syntax_error_iterator_destroy(stencil_syntax_error_iter_t* iter);
void display_syntax_error(const stencil_syntax_error_t* error);
