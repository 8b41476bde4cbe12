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
    STENCIL_ERROR_REPOSITORY = -15,
} stencil_error_t;

typedef enum stencil_output_mode {
    STENCIL_OUTPUT_NORMAL = 0,
    STENCIL_OUTPUT_LIST_PROPERTIES = 1,
    STENCIL_OUTPUT_INVALID = 2,
} stencil_output_mode_t;

// The text an evaluation produced, as a tree that the functions below write,
// compare, join or release; its layout is the module's own.
typedef struct stencil_output_buffer stencil_output_buffer_t;

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

// One syntax error of a failed load. The record and error_line belong to the
// stencil and live as long as it.
typedef struct stencil_syntax_error {
    const char* error_line;  // the text the error is about; owned by the stencil
    size_t error_location;   // index of the offending character in error_line
    int line_number;         // stencil line, from 1
    syntax_error_t err;
} stencil_syntax_error_t;

// A walk over a stencil's syntax errors; its layout is the module's own.
typedef struct stencil_syntax_error_iter stencil_syntax_error_iter_t;

// A parsed stencil; its layout is the module's own.
typedef struct stencil stencil_t;

// Reads file_name (null: standard input, which is left open) and parses it.
// Returns STENCIL_SUCCESS with the stencil in *stencil. When the text does
// not parse, the stencil is still stored in *stencil (so that its errors can
// be walked) and STENCIL_ERROR_SYNTAX, or STENCIL_ERROR_NO_MEMORY when the
// heap or the stack ran out, is returned. When the file cannot be read or
// the stencil record not made, stores null in *stencil and returns the
// STENCIL_ERROR_* its errno maps to (NO_SUCH_FILE, PERMISSIONS,
// NO_RESOURCES, LONG_FILENAME, NO_MEMORY; INTERNAL_ERROR, with a line on
// standard error, for any other, a stencil over STENCIL_SIZE_LIMIT among
// them: refused with its size, or for standard input as soon as that much
// has been read). Whatever it stores, the
// caller destroys it with stencil_destroy. defines is borrowed, may be
// null, and must outlive the stencil: defines are spliced in at load and
// read again by every evaluation.
stencil_error_t stencil_load(const char* file_name, stencil_t** stencil, defines_t* defines);
// The largest stencil text stencil_load takes: 16 MiB, thousands of times
// any stencil written by hand, so that a runaway input (a device, a file
// written without end) ends the run at once instead of filling memory.
inline constexpr size_t STENCIL_SIZE_LIMIT = size_t{16} << 20;
// Releases the stencil, its expression tree and its syntax errors (so
// records from stencil_syntax_error_iterator_next die with it); not its
// defines. Output trees it produced are independent of it. Null is ignored.
void stencil_destroy(stencil_t* stencil);

// Evaluates the stencil against repository (borrowed for the call only). On success stores
// the root of a new output tree in *out and returns STENCIL_SUCCESS; the
// caller releases the tree with stencil_output_buffer_destroy. On failure
// stores null in *out (unless out itself is null) and returns a negative
// stencil_error_t: STENCIL_ERROR_INVALID_ARGUMENT for a null stencil or out,
// or a stencil with syntax errors; STENCIL_ERROR_NO_MEMORY when the heap or
// the stack ran out; STENCIL_ERROR_REPOSITORY when a reading of another
// service or instance failed because of the repository itself
// (repository_failure says why): the text would be wrong, so there is none.
// A name that names nothing is no failure: it gives empty text. The stencil
// may be applied again, to the same or
// another repository, but by one thread at a time.
stencil_error_t stencil_apply(stencil_t* stencil, repository_t* repository,
                              stencil_output_mode_t mode, stencil_output_buffer_t** out);

// One visit of a property reference by an evaluation. Inside a macro body a
// reference whose name uses an argument belongs to the invocation: its line
// is the invocation's, and its name has the argument's text as the
// invocation writes it.
typedef struct stencil_reference {
    int line_number;           // stencil line the reference starts on, from 1
    const char* written_name;  // as the stencil writes it, defines spliced in; may be null
    const char* final_name;    // as looked up, after sections' transforms and grabs
    int tests_presence;        // the reference only asks whether there is a value (:- :+ :?)
    int defined;               // the name gave a value
    int has_default;           // `$%{name}$%{name:-text}`: a `:-` of the same name stands beside it
} stencil_reference_t;
typedef void (*stencil_reference_fn)(const stencil_reference_t* reference, void* context);
// As stencil_apply in normal mode (same results, same ownership of *out),
// calling observer for every property reference each time the evaluation
// visits it. A reference the evaluation
// never reaches (an untaken branch, the body of a section without matches)
// is not visited. The reference record and its texts are valid only during
// the call; observer must not use the stencil. STENCIL_ERROR_INVALID_ARGUMENT
// for a null stencil (*out then untouched).
stencil_error_t stencil_apply_observed(stencil_t* stencil, repository_t* repository,
                                       stencil_reference_fn observer, void* context,
                                       stencil_output_buffer_t** out);

// How much of a define's value the stencil takes as the define's text: all
// of it (strlen(value)), or the offset of the `}` that ends the define early,
// the rest of the value then landing in front of the stencil's own text. A
// value that does not parse on its own counts as whole: its load reports it.
size_t stencil_define_length(const char* value);

// Writes the tree's text to fd in order, joined into one write call (more
// only where fd takes it in pieces, or where memory for the joined text is
// short), retrying short writes. Returns STENCIL_SUCCESS, or the failing
// write's STENCIL_ERROR_TOO_BIG, STENCIL_ERROR_NO_SPACE or STENCIL_ERROR_IO
// (any other failure), with part of the text perhaps written. The tree is
// only read; null, or a tree with no text in any node, writes nothing.
stencil_error_t stencil_output_buffer_emit(stencil_output_buffer_t* buffer, int fd);
// 0: the file open on fd holds exactly the tree's text (fd -1 counts as
// equal); anything else: it does not. A file that is not regular, or is
// empty, differs whatever the text, so that the caller writes it anyway.
// *error (required) is set to STENCIL_SUCCESS, or to the failure of reading
// the file (then the result is 0, and means nothing). The file offset is
// not moved.
int stencil_output_buffer_cmp(stencil_output_buffer_t* buffer, int fd, stencil_error_t* error);
// Releases a root from stencil_apply and the whole tree under it. Null is
// ignored.
void stencil_output_buffer_destroy(stencil_output_buffer_t* buffer);
// The tree's whole text as one heap string, freed by the caller; null when
// out of memory. For readers that look at the text instead of writing it.
char* stencil_output_buffer_text(const stencil_output_buffer_t* buffer);

// Walks the syntax errors of a stencil whose load failed: create returns a
// new walk (null for a null stencil or when out of memory) that the caller
// releases with stencil_syntax_error_iterator_destroy (null is ignored);
// next returns the following error, newest first, or null at the end. The
// stencil must outlive the walk; the records belong to the stencil.
stencil_syntax_error_iter_t* stencil_syntax_error_iterator_create(stencil_t* stencil);
const stencil_syntax_error_t* stencil_syntax_error_iterator_next(stencil_syntax_error_iter_t* iter);
void stencil_syntax_error_iterator_destroy(stencil_syntax_error_iter_t* iter);
// Prints one error as the user reads it ("  Line n:  " and the message of
// its kind, in the locale's language) to standard error. Null is ignored.
void display_syntax_error(const stencil_syntax_error_t* error);
