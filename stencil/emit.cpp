// The core of stencil evaluation: the entry, the driver that walks the
// expression tree into an output tree, the dispatch by output mode, the
// literal path, and sub-expressions evaluated to strings.
//
// Every expression gets one node (slot) of the output tree. Children are
// evaluated into new slots of their parent's node, one slot at a time: a
// slot lives by value in its parent's `chained` array, so a pointer to it is
// invalid after the parent's next grow_chain, and the driver finishes a slot
// completely before it asks for the next one.

#include <cstdlib>

#include "emit_local.h"
#include "pkx.h"
#include "stack_guard.h"
#include "stencil_internal.h"

using stencil_eval::add_clamped;
using stencil_eval::clamp_length;
using stencil_eval::LocalBuffer;

namespace {

// Rows indexed by stencil_output_mode_t. Sections and macros evaluate alike
// in both modes; only the leaves differ.
const stencil_output_functions_t OUTPUT_FUNCTIONS[] = {
    {emit_normal_literal, emit_normal_property, emit_normal_regex, emit_normal_macro},
    {emit_list_properties_literal, emit_list_properties_property, emit_normal_regex,
     emit_normal_macro},
};

const stencil_output_functions_t* row_for(const stencil_t* stencil) {
    if (stencil->mode != STENCIL_OUTPUT_NORMAL && stencil->mode != STENCIL_OUTPUT_LIST_PROPERTIES) {
        return nullptr;
    }
    return &OUTPUT_FUNCTIONS[stencil->mode];
}

}  // namespace

// ---- evaluation entry and driver ----

stencil_error_t stencil_apply(stencil_t* stencil, repository_t* repository,
                              stencil_output_mode_t mode, stencil_output_buffer_t** out) {
    if (stencil == nullptr || stencil->errors != nullptr || out == nullptr) {
        return STENCIL_ERROR_INVALID_ARGUMENT;
    }
    auto* root = static_cast<stencil_output_buffer_t*>(pkx_zalloc(sizeof(stencil_output_buffer_t)));
    if (root == nullptr) {
        return STENCIL_ERROR_NO_MEMORY;
    }
    StackGuardScope stack_scope;
    stencil->repository = repository;
    stencil->mode = mode;
    stencil->context = nullptr;
    stencil->line_number = 0;

    int r = emit_expression(&stencil->base, root, stencil, 0);
    // Some callers on the way pass a failure over (a section whose operands
    // fail gives no text); running out of stack is reported all the same.
    if (r >= 0 && stack_guard_tripped()) {
        r = STENCIL_ERROR_NO_MEMORY;
    }
    // Whatever passed a failure over on the way, a text made while the
    // repository failed under a query is not the repository's.
    if (repository_lost(stencil)) {
        r = STENCIL_ERROR_REPOSITORY;
    }
    stencil_error_t result = STENCIL_SUCCESS;
    if (r < 0) {
        stencil_output_buffer_destroy(root);
        root = nullptr;
        result = static_cast<stencil_error_t>(r);
    }

    stencil->repository = nullptr;
    stencil->mode = STENCIL_OUTPUT_INVALID;
    stencil->context = nullptr;
    stencil->line_number = 0;
    *out = root;
    return result;
}

stencil_error_t stencil_apply_observed(stencil_t* stencil, repository_t* repository,
                                       stencil_reference_fn observer, void* context,
                                       stencil_output_buffer_t** out) {
    if (stencil == nullptr) return STENCIL_ERROR_INVALID_ARGUMENT;
    stencil->observer = observer;
    stencil->observer_context = context;
    stencil_error_t result = stencil_apply(stencil, repository, STENCIL_OUTPUT_NORMAL, out);
    stencil->observer = nullptr;
    stencil->observer_context = nullptr;
    return result;
}

int emit_expression(expression_t* expression, stencil_output_buffer_t* buffer, stencil_t* stencil,
                    int regex_pass) {
    if (expression == nullptr || buffer == nullptr || stencil == nullptr) {
        return STENCIL_ERROR_INTERNAL_ERROR;
    }
    if (stack_exhausted()) {
        return STENCIL_ERROR_NO_MEMORY;
    }
    macro_t* const saved_macro = stencil->macro;

    switch (expression->type) {
        case ET_REGEX:
            if (regex_pass == 0) {
                // The whole first visit of a section: match, one second
                // pass per match, flatten, release the context.
                return emit_regex_first_pass(reinterpret_cast<match_t*>(expression), buffer,
                                             stencil);
            }
            break;
        case ET_MACRO: {
            int r = emit_macro_arguments(reinterpret_cast<macro_t*>(expression), stencil);
            if (r <= 0) {
                return r;  // a definition gives nothing; or a failed argument
            }
            break;
        }
        default:
            break;
    }

    int sum = 0;
    for (int i = 0; i < expression->num; i++) {
        stencil_output_buffer_t* slot = grow_chain(buffer);
        if (slot == nullptr) {
            stencil->macro = saved_macro;
            return STENCIL_ERROR_NO_MEMORY;
        }
        int r = emit_expression(expression->sub_expressions[i], slot, stencil, 0);
        if (r < 0) {
            stencil->macro = saved_macro;
            return r;
        }
        sum = add_clamped(sum, r);
    }

    int own;
    switch (expression->type) {
        case ET_BASE:
            own = 0;
            break;
        case ET_LITERAL:
            own = emit_literal(reinterpret_cast<literal_t*>(expression), buffer, stencil);
            break;
        case ET_PROPERTY:
            own = emit_property(reinterpret_cast<property_t*>(expression), buffer, stencil);
            break;
        case ET_REGEX:
            own = emit_regex(reinterpret_cast<match_t*>(expression), buffer, stencil);
            break;
        case ET_MACRO:
            own = emit_macro(reinterpret_cast<macro_t*>(expression), buffer, stencil);
            break;
        default:
            own = STENCIL_ERROR_INTERNAL_ERROR;
            break;
    }
    // An invocation's arguments are out of scope once its body is done; on
    // every other path this is a no-op.
    stencil->macro = saved_macro;
    if (own < 0) {
        return own;
    }
    return add_clamped(sum, own);
}

// ---- dispatchers ----

int emit_literal(literal_t* literal, stencil_output_buffer_t* buffer, stencil_t* stencil) {
    const stencil_output_functions_t* row = row_for(stencil);
    return row == nullptr ? STENCIL_ERROR_INTERNAL_ERROR
                          : row->emit_literal(literal, buffer, stencil);
}

int emit_regex(match_t* match, stencil_output_buffer_t* buffer, stencil_t* stencil) {
    const stencil_output_functions_t* row = row_for(stencil);
    return row == nullptr ? STENCIL_ERROR_INTERNAL_ERROR : row->emit_regex(match, buffer, stencil);
}

int emit_macro(macro_t* macro, stencil_output_buffer_t* buffer, stencil_t* stencil) {
    const stencil_output_functions_t* row = row_for(stencil);
    return row == nullptr ? STENCIL_ERROR_INTERNAL_ERROR : row->emit_macro(macro, buffer, stencil);
}

// Called by emit_property once the final name is in the record.
int emit_property_by_mode(property_t* property, stencil_output_buffer_t* buffer,
                          stencil_t* stencil) {
    const stencil_output_functions_t* row = row_for(stencil);
    return row == nullptr ? STENCIL_ERROR_INTERNAL_ERROR
                          : row->emit_property(property, buffer, stencil);
}

// ---- literals ----

int emit_normal_literal(literal_t* literal, stencil_output_buffer_t* buffer, stencil_t* stencil) {
    LocalBuffer text;
    if (text.init() != 0) {
        return STENCIL_ERROR_NO_MEMORY;
    }
    if (literal->str != nullptr) {
        int r = translate_grabs(literal->str, text.get(), stencil->context, stencil);
        if (r != 0) {
            return r;
        }
    }
    ssize_t length = string_buffer_strlen(text.get());
    std::free(buffer->buffer);
    buffer->buffer = text.take();
    return clamp_length(length);
}

int emit_list_properties_literal(literal_t*, stencil_output_buffer_t*, stencil_t*) { return 0; }

// ---- sub-expressions as strings ----

int expression_to_string(expression_t* expression, stencil_t* stencil, char** out) {
    LocalBuffer text;
    if (text.init() != 0) {
        return STENCIL_ERROR_NO_MEMORY;
    }
    // Operands are always evaluated for their text, also while listing.
    const stencil_output_mode_t saved_mode = stencil->mode;
    stencil->mode = STENCIL_OUTPUT_NORMAL;
    stencil_output_buffer_t head{};
    int r = emit_expression(expression, &head, stencil, 0);
    stencil->mode = saved_mode;
    if (r >= 0) {
        r = coalesce_buffer_chain(&head, text.get());
    }
    free_output_buffer(&head);
    if (r < 0) {
        return r;
    }
    *out = text.take();
    return 0;
}

int string_buffer_append_expression(string_buffer_t* sb, expression_t* expression,
                                    stencil_t* stencil) {
    HeapText text;
    int r = expression_to_string(expression, stencil, OutText(text));
    if (r < 0) {
        return r;
    }
    return string_buffer_append_string(sb, text.get()) < 0 ? STENCIL_ERROR_NO_MEMORY : 0;
}
