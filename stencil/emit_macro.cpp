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
    stencil->macro = macro;
    return 1;
}

int emit_normal_macro(macro_t* macro, stencil_output_buffer_t* buffer, stencil_t*) {
    if (is_definition(macro)) {
        return 0;
    }
    return stencil_eval::flatten_output_chain(buffer);
}
