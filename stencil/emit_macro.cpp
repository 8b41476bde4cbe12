// Macro invocations at run time.
//
// The parser has already copied the definition's body into the invocation,
// so an invocation is an expression with children. Its arguments are
// evaluated to strings once per visit, before the body and in normal mode,
// while the enclosing invocation is still current (so `$%name` in an
// argument means the caller's argument). The driver then makes the
// invocation current for its body and restores the previous one afterwards,
// which makes nested invocations a stack without a record of their own.

#include <cstdlib>
#include <cstring>
#include <string>

#include "emit_local.h"
#include "stencil_internal.h"

namespace {

bool is_definition(const macro_t* macro) {
    return macro->invocation == nullptr || macro->invocation == macro;
}

// Values of the previous visit; a macro in a section is visited per match.
void release_arguments(macro_t* macro) {
    if (macro->args == nullptr) {
        return;
    }
    for (int i = 0; i < macro->num_args; i++) {
        std::free(macro->args[i]);
    }
    std::free(macro->args);
    macro->args = nullptr;
}

}  // namespace

int emit_macro_arguments(macro_t* macro, stencil_t* stencil) {
    if (is_definition(macro)) {
        return 0;
    }
    release_arguments(macro);
    if (macro->num_args > 0) {
        if (macro->arg_expressions == nullptr) {
            return STENCIL_ERROR_INTERNAL_ERROR;
        }
        macro->args = static_cast<char**>(std::calloc(macro->num_args, sizeof(char*)));
        if (macro->args == nullptr) {
            return STENCIL_ERROR_NO_MEMORY;
        }
        for (int i = 0; i < macro->num_args; i++) {
            // Values made so far stay in args; the stencil's destruction or
            // the next visit releases them.
            int r = expression_to_string(&macro->arg_expressions[i], stencil, &macro->args[i]);
            if (r < 0) {
                return r;
            }
        }
    }
    macro->caller = stencil->macro;
    stencil->macro = macro;
    return 1;
}

namespace {

// The argument of macro that the text behind a "$%" names, by the rule of
// get_macro_expansion; -1 for none. *length receives the name's length.
int argument_named(const char* text, const macro_t* macro, size_t* length) {
    if (macro->invocation == nullptr || macro->invocation->args == nullptr) return -1;
    int best = -1;
    for (int i = 0; i < macro->num_args; i++) {
        const char* name = macro->invocation->args[i];
        if (name == nullptr || *name == '\0') continue;
        const size_t n = std::strlen(name);
        if ((best < 0 || n < *length) && std::strncmp(text, name, n) == 0) {
            best = i;
            *length = n;
        }
    }
    return best;
}

}  // namespace

void shown_text(const char* text, const macro_t* macro, std::string* out, int* line) {
    const char* p = text;
    while (*p != '\0') {
        if (*p == '\\' || (*p == '$' && p[1] != '%')) {
            // Both characters as written; the second one is not looked at.
            out->append(p, p[1] != '\0' ? 2 : 1);
            p += p[1] != '\0' ? 2 : 1;
            continue;
        }
        if (*p != '$') {
            out->push_back(*p++);
            continue;
        }
        const char* form = p + 2;
        char* number_end = nullptr;
        std::strtol(form, &number_end, 0);
        size_t length = 0;
        const int argument =
            number_end == form && macro != nullptr ? argument_named(form, macro, &length) : -1;
        if (argument < 0) {
            // A grab, a named form or no form: as written.
            const char* end = number_end != form ? number_end : form + (*form != '\0' ? 1 : 0);
            out->append(p, end);
            p = end;
            continue;
        }
        int used = 0;
        if (macro->arg_texts != nullptr && macro->arg_texts[argument] != nullptr)
            shown_text(macro->arg_texts[argument], macro->caller, out, &used);
        if (*line == 0) *line = used != 0 ? used : macro->line_number;
        p = form + length;
    }
}

int emit_normal_macro(macro_t* macro, stencil_output_buffer_t* buffer, stencil_t*) {
    if (is_definition(macro)) {
        return 0;
    }
    return stencil_eval::flatten_output_chain(buffer);
}
