// Regular expression sections at run time.
//
// A section visit has two levels. The first visit (regex_pass 0) prepares
// the section (operands, pattern, matches), pushes its context and visits
// the same record once per match (regex_pass 1), each into a slot of its
// own; every match's slot is flattened as soon as it is done, and the
// section's node when the section is done, so only final text stays.
//
// A section is also a scope: the transforms it was invoked with (prefix and
// suffix, or a replacement) act on its own pattern and on every relative
// name in its body, composed across nested sections by transform_wern.

#include <cstdlib>
#include <cstring>

#include "emit_local.h"
#include "stencil_internal.h"

using stencil_eval::LocalBuffer;

namespace {

// Holds the result of the last transform_wern call.
thread_local string_buffer_t transform_scratch;

constexpr char SEPARATOR[] = "/:properties/";

bool append(string_buffer_t* sb, const char* text) {
    return string_buffer_append_string(sb, text != nullptr ? text : "") >= 0;
}

// Releases a context made by match_regex: its operand texts, its match list
// and the record itself.
void destroy_context(regex_context_t* context, property_list_node_t* head) {
    std::free(context->first_transform);
    std::free(context->second_transform);
    property_list_destroy(head);
    std::free(context);
}

}  // namespace

int is_absolute_wern(const char* wern) {
    return wern != nullptr && std::strstr(wern, SEPARATOR) != nullptr ? 1 : 0;
}

// Inward, outermost entry first: each prefix goes in, and every entry marks
// where its own part of the text ends.
const char* transform_wern_pass_one(regex_context_t* context, string_buffer_t* sb) {
    if (context == nullptr) {
        return string_buffer_get_str(sb);
    }
    if (transform_wern_pass_one(context->prev, sb) == nullptr) {
        return nullptr;
    }
    if (context->regex != nullptr && context->regex->transform == PT_PREFIX_SUFFIX &&
        !append(sb, context->first_transform)) {
        return nullptr;
    }
    context->mark = static_cast<size_t>(string_buffer_strlen(sb));
    return string_buffer_get_str(sb);
}

// Outward, innermost entry first: suffixes close in reverse order, and a
// replacement acts on what the entries inside it built, never on an outer
// prefix (which lies before its mark).
const char* transform_wern_pass_two(regex_context_t* context, string_buffer_t* sb) {
    if (context == nullptr) {
        return string_buffer_get_str(sb);
    }
    const transform_t transform = context->regex != nullptr ? context->regex->transform : PT_NONE;
    if (transform == PT_PREFIX_SUFFIX) {
        if (!append(sb, context->second_transform)) {
            return nullptr;
        }
    } else if (transform == PT_REPLACE_FIRST || transform == PT_REPLACE_ALL) {
        const char* tail = string_buffer_get_str(sb) + context->mark;
        const char* replaced = replace_string(
            tail, context->first_transform != nullptr ? context->first_transform : "",
            context->second_transform != nullptr ? context->second_transform : "",
            transform == PT_REPLACE_ALL ? 1 : 0);
        if (replaced == nullptr) {
            return nullptr;
        }
        // replace_string's result lives in a buffer of its own, so the tail
        // can be cut before the result is appended.
        string_buffer_trim(sb, context->mark);
        if (!append(sb, replaced)) {
            return nullptr;
        }
    }
    return transform_wern_pass_two(context->prev, sb);
}

const char* transform_wern(const char* wern, regex_context_t* context, int regex) {
    if (stencil_eval::scratch_ready(&transform_scratch) != 0) {
        return nullptr;
    }
    string_buffer_t* sb = &transform_scratch;
    string_buffer_clear(sb);
    if (regex != 0 && !append(sb, "^")) {
        return nullptr;
    }
    // An absolute name is taken as written; the test looks at the text as
    // parsed, before any substitution.
    if (is_absolute_wern(wern)) {
        if (!append(sb, wern)) {
            return nullptr;
        }
    } else {
        if (transform_wern_pass_one(context, sb) == nullptr || !append(sb, wern) ||
            transform_wern_pass_two(context, sb) == nullptr) {
            return nullptr;
        }
    }
    // Plain anchors, not grouped: with a top-level '|' they bind to the
    // first and the last branch.
    if (regex != 0 && !append(sb, "$")) {
        return nullptr;
    }
    return string_buffer_get_str(sb);
}

regex_context_t* match_regex(match_t* match, stencil_t* stencil) {
    LocalBuffer pattern;
    if (pattern.init() != 0) {
        return nullptr;
    }
    // Operands see the sections around this one: the stencil's context is
    // still theirs.
    HeapText first;
    HeapText second;
    if (expression_to_string(&match->first_expression, stencil, OutText(first)) < 0 ||
        expression_to_string(&match->second_expression, stencil, OutText(second)) < 0) {
        return nullptr;
    }
    regex_context_t own{};
    own.regex = match;
    own.prev = stencil->context;
    own.first_transform = first.get();
    own.second_transform = second.get();
    const char* transformed = transform_wern(match->regex, &own, 1);
    if (transformed == nullptr) {
        return nullptr;
    }
    // The section's own grabs do not exist yet; only the outer ones apply.
    if (translate_grabs(transformed, pattern.get(), stencil->context, stencil) != 0) {
        return nullptr;
    }
    auto* context = static_cast<regex_context_t*>(std::calloc(1, sizeof(regex_context_t)));
    if (context == nullptr) {
        return nullptr;
    }
    // No match, or a pattern that does not compile (too costly a pattern
    // included), is an empty list.
    context->match = repository_match_properties(stencil->repository, pattern.str(), match->grabs);
    context->regex = match;
    context->prev = stencil->context;
    context->first_transform = first.release();
    context->second_transform = second.release();
    return context;
}

int emit_regex_first_pass(match_t* match, stencil_output_buffer_t* buffer, stencil_t* stencil) {
    // A named section's definition only stands for its name.
    if (match->invocable == 0) {
        return 0;
    }
    // A section that cannot be prepared gives no text and is no failure.
    regex_context_t* context = match_regex(match, stencil);
    if (context == nullptr) {
        return 0;
    }
    property_list_node_t* const head = context->match;
    if (head == nullptr && repository_lost(stencil)) {
        destroy_context(context, head);
        return STENCIL_ERROR_REPOSITORY;
    }
    stencil->context = context;

    int result = 0;
    for (; context->match != nullptr; context->match = context->match->next) {
        stencil_output_buffer_t* slot = grow_chain(buffer);
        if (slot == nullptr) {
            result = STENCIL_ERROR_NO_MEMORY;
            break;
        }
        int r = emit_expression(&match->expression, slot, stencil, 1);
        if (r < 0) {
            result = r;
            break;
        }
    }
    stencil->context = context->prev;
    destroy_context(context, head);
    if (result < 0) {
        return result;
    }
    // Also without a match: the node then holds an empty text, not null.
    return emit_regex(match, buffer, stencil);
}

int emit_normal_regex(match_t*, stencil_output_buffer_t* buffer, stencil_t*) {
    return stencil_eval::flatten_output_chain(buffer);
}
