// Syntax errors: the list kept on a stencil (newest first; a failed load has
// exactly one), the iterator callers read it with, and the report line.

#include <libintl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "stencil_internal.h"

namespace {

// Indexed by syntax_error_t. Format strings; codes 6 and 8 take the offending
// character before the text.
const char* const MESSAGES[] = {
    "Regular expression \"%s\" does not close all submatches\n",
    "Regular expression \"%s\" does not terminate with a ')' character\n",
    "Expression \"%s\" does not terminate with a '}' character\n",
    "\"%s\" is an invalid name for a regular expression\n",
    "Referenced regular expression \"%s\" is not defined\n",
    "Name regular expression \"%s\" is already defined\n",
    "Character '%c' in expression \"%s\" is invalid\n",
    ("Expression \"%s\" cannot be transformed: Transforms are not allowed for fully qualified "
     "WERNs\n"),
    "Character '%c' in expression \"%s\" is illegal except in literal expressions\n",
    "Macro \"%s\" is already defined\n",
    "Macro \"%s\" has too many arguments\n",
    "Macro \"%s\" has too few arguments\n",
    "Macro \"%s\" is undefined\n",
    "Expression \"%s\" is invalid: macros must have names\n",
    "Attempted to invoke unknown entity \"%s\"\n",
    "\"%s\" is a regular expression, but was invoked as a macro\n",
    "\"%s\" is a macro, but was invoked as a regular expression\n",
};
constexpr unsigned MESSAGE_COUNT = sizeof(MESSAGES) / sizeof(MESSAGES[0]);

}  // namespace

int add_error(stencil_t* stencil, const char* text, size_t length, size_t location,
              syntax_error_t err) {
    auto* node =
        static_cast<stencil_syntax_error_list_t*>(calloc(1, sizeof(stencil_syntax_error_list_t)));
    auto* line = static_cast<char*>(malloc(length + 1));
    if (node == nullptr || line == nullptr) {
        free(node);
        free(line);
        return -1;
    }
    size_t copied = strnlen(text, length);
    memcpy(line, text, copied);
    line[copied] = '\0';

    node->syntax_error.err = err;
    node->syntax_error.error_line = line;
    node->syntax_error.error_location = location;
    node->syntax_error.line_number = stencil->line_number;
    node->next = stencil->errors;
    stencil->errors = node;
    return 0;
}

int report_syntax_error(stencil_t* stencil, const char* text, size_t length, size_t location,
                        syntax_error_t err) {
    return add_error(stencil, text, length, location, err) == 0 ? STENCIL_ERROR_SYNTAX
                                                                : STENCIL_ERROR_NO_MEMORY;
}

int unterminated_at(stencil_t* stencil, const char* text, const char* at) {
    const size_t offset = static_cast<size_t>(at - text);
    return report_syntax_error(stencil, text, offset, offset, SE_UNTERMINATED_SECTION);
}

stencil_syntax_error_iter_t* stencil_syntax_error_iterator_create(stencil_t* stencil) {
    if (stencil == nullptr) return nullptr;
    auto* iter =
        static_cast<stencil_syntax_error_iter_t*>(malloc(sizeof(stencil_syntax_error_iter_t)));
    if (iter == nullptr) return nullptr;
    iter->list = stencil->errors;
    return iter;
}

const stencil_syntax_error_t* stencil_syntax_error_iterator_next(
    stencil_syntax_error_iter_t* iter) {
    if (iter == nullptr || iter->list == nullptr) return nullptr;
    const stencil_syntax_error_t* error = &iter->list->syntax_error;
    iter->list = iter->list->next;
    return error;
}

void stencil_syntax_error_iterator_destroy(stencil_syntax_error_iter_t* iter) { free(iter); }

void display_syntax_error(const stencil_syntax_error_t* error) {
    if (error == nullptr) return;
    fprintf(stderr, "  Line %d:  ", error->line_number);
    const unsigned code = static_cast<unsigned>(error->err);
    if (code >= MESSAGE_COUNT) {
        fprintf(stderr, "Unhandled error: %d \"%s\"\n", static_cast<int>(error->err),
                error->error_line);
        return;
    }
    const char* format = gettext(MESSAGES[code]);
    if (error->err == SE_BAD_TRANSFORM || error->err == SE_ILLEGAL_CHARACTER)
        fprintf(stderr, format, error->error_line[error->error_location], error->error_line);
    else
        fprintf(stderr, format, error->error_line);
}
