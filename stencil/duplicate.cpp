// Deep copies of definition bodies, made at parse time for each invocation,
// so that evaluation walks its own records and looks no name up.
//
// A copy owns its strings and children. It shares nothing but a macro's
// `invocation` pointer (the definition, which lives in the tree until the
// stencil goes) and reads argument names through it. Copied sections have no
// name; a definition met inside a body being copied becomes an invocation in
// the copy, and so is evaluated where the copy stands.

#include <cstdlib>
#include <cstring>

#include "stack_guard.h"
#include "stencil_internal.h"

thread_local match_t* duplicate_parent = nullptr;

namespace {

int copy_string(char** target, const char* source) {
    if (source == nullptr) return 0;
    *target = strdup(source);
    return *target != nullptr ? 0 : -1;
}

}  // namespace

int duplicate_subexpressions(expression_t* target, expression_t* source, stencil_t* stencil) {
    // A body is copied where it is invoked, possibly deep in other forms:
    // the copy can go deeper than its definition's parse did.
    if (stack_exhausted()) return -1;
    target->type = source->type;
    for (int i = 0; i < source->num; ++i) {
        expression_t* child = source->sub_expressions[i];
        // Only the four kinds of record are copied; a container is never the
        // child of a finished tree and would be passed over.
        if (child == nullptr || child->type == ET_BASE || child->type == ET_PSEUDOBASE) continue;
        expression_t* copy = add_child(target, child->type);
        if (copy == nullptr) return -1;
        int r;
        switch (child->type) {
            case ET_LITERAL:
                r = duplicate_literal(reinterpret_cast<literal_t*>(copy),
                                      reinterpret_cast<literal_t*>(child), stencil);
                break;
            case ET_PROPERTY:
                r = duplicate_property(reinterpret_cast<property_t*>(copy),
                                       reinterpret_cast<property_t*>(child), stencil);
                break;
            case ET_REGEX:
                r = duplicate_regex(reinterpret_cast<match_t*>(copy),
                                    reinterpret_cast<match_t*>(child), stencil);
                break;
            case ET_MACRO:
                r = duplicate_macro(reinterpret_cast<macro_t*>(copy),
                                    reinterpret_cast<macro_t*>(child), stencil);
                break;
            case ET_BASE:
            case ET_PSEUDOBASE:
            default:
                r = 0;  // passed over above
                break;
        }
        if (r != 0) return r;
    }
    return 0;
}

int duplicate_literal(literal_t* target, literal_t* source, stencil_t* stencil) {
    if (copy_string(&target->str, source->str) != 0) return -1;
    return duplicate_subexpressions(&target->expression, &source->expression, stencil);
}

int duplicate_property(property_t* target, property_t* source, stencil_t* stencil) {
    if (copy_string(&target->property_name, source->property_name) != 0) return -1;
    target->transform = source->transform;
    target->line_number = source->line_number;
    target->has_default = source->has_default;
    int r = duplicate_subexpressions(&target->first_expression, &source->first_expression, stencil);
    if (r == 0)
        r = duplicate_subexpressions(&target->second_expression, &source->second_expression,
                                     stencil);
    if (r == 0) r = duplicate_subexpressions(&target->expression, &source->expression, stencil);
    return r;
}

int duplicate_regex(match_t* target, match_t* source, stencil_t* stencil) {
    target->parent = duplicate_parent;
    target->invocable = 1;
    target->expression.type = ET_REGEX;
    if (source->name == nullptr) {
        // An unnamed section in a copied body numbers its groups on from
        // the copy that encloses it.
        target->grab_start =
            target->parent != nullptr ? target->parent->grabs + target->parent->grab_start : 0;
    } else {
        auto* found =
            static_cast<expression_t*>(dictionary_find(stencil->dictionary, source->name));
        if (found == nullptr || found->type != ET_REGEX) return -2;
        auto* definition = reinterpret_cast<match_t*>(found);
        if (definition != source) {
            // An invocation inside a body: its operator and operands belong
            // to this place, the pattern and body to the definition.
            target->transform = source->transform;
            int r = duplicate_subexpressions(&target->first_expression, &source->first_expression,
                                             stencil);
            if (r == 0)
                r = duplicate_subexpressions(&target->second_expression, &source->second_expression,
                                             stencil);
            if (r != 0) return r;
            source = definition;
        }
        // A named invocation starts its group numbers afresh.
        target->grab_start = 0;
    }
    target->grabs = source->grabs;
    // An empty pattern is held as null; the copy keeps it null too.
    if (copy_string(&target->regex, source->regex) != 0) return -1;

    duplicate_parent = target;
    int r = duplicate_subexpressions(&target->expression, &source->expression, stencil);
    duplicate_parent = target->parent;
    return r;
}

int duplicate_macro(macro_t* target, macro_t* source, stencil_t* stencil) {
    if (source->invocation == nullptr) {
        // A definition lying in a body being copied: it finds itself in the
        // dictionary, and from now on points at itself.
        auto* found =
            static_cast<expression_t*>(dictionary_find(stencil->dictionary, source->name));
        if (found == nullptr || found->type != ET_MACRO) return -2;
        source->invocation = reinterpret_cast<macro_t*>(found);
    }
    if (target != source) {
        target->expression.type = ET_MACRO;
        target->invocation = source->invocation;
        target->line_number = source->line_number;
        if (copy_string(&target->name, source->name) != 0) return -1;
        if (source->num_args > 0) {
            // A copied definition gets empty arguments: it is evaluated
            // where it stands with each argument empty.
            target->arg_expressions = static_cast<expression_t*>(
                calloc(static_cast<size_t>(source->num_args), sizeof(expression_t)));
            if (target->arg_expressions == nullptr) return -1;
            target->num_args = source->num_args;
            if (source->arg_expressions != nullptr) {
                for (int i = 0; i < source->num_args; ++i) {
                    int r = duplicate_subexpressions(&target->arg_expressions[i],
                                                     &source->arg_expressions[i], stencil);
                    if (r != 0) return r;
                }
            }
            if (source->arg_texts != nullptr) {
                target->arg_texts = static_cast<char**>(
                    calloc(static_cast<size_t>(source->num_args), sizeof(char*)));
                if (target->arg_texts == nullptr) return -1;
                for (int i = 0; i < source->num_args; ++i)
                    if (copy_string(&target->arg_texts[i], source->arg_texts[i]) != 0) return -1;
            }
        }
    }
    // The body always comes from the definition, not from the copy that the
    // source holds.
    return duplicate_subexpressions(&target->expression, &source->invocation->expression, stencil);
}
