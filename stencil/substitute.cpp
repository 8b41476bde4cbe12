// Text substitution at evaluation time.
//
// Literals, property names and section patterns keep their escapes and the
// `$%` forms that are no syntax of their own (grabs, macro arguments, the
// named forms). They are translated each time they are evaluated, so one
// literal gives another text for each match of a section and each
// invocation of a macro. A substituted value is never scanned again.

#include <cstdlib>
#include <cstring>

#include "emit_local.h"
#include "stencil_internal.h"

namespace {

// Holds the text of the last grab; reused by every call.
thread_local string_buffer_t grab_scratch;

// The value of an absent grab: distinct from the scratch buffer, read-only.
const char NO_GRAB[] = "";

bool append(string_buffer_t* sb, const char* text) {
    return string_buffer_append_string(sb, text) >= 0;
}

bool append_char(string_buffer_t* sb, char c) { return string_buffer_append_char(sb, c) >= 0; }

// The value of a named form, or null when the view has none.
const char* named_value(char form, repository_t* repository) {
    if (repository == nullptr) {
        return nullptr;
    }
    switch (form) {
        case 'f':
            return repository_get_wern(repository);
        case 'i':
            return repository_get_instance_name(repository);
        case 's':
            return repository_get_service_name(repository);
        case 'm':
            return repository_get_qrm_method(repository);
        case 'r':
            return repository_get_restarter(repository);
        default:
            return nullptr;
    }
}

}  // namespace

const char* get_grab(int grab, const regex_context_t* context) {
    if (stencil_eval::scratch_ready(&grab_scratch) != 0) {
        return nullptr;
    }
    // Grab numbers run across nested sections: the innermost section whose
    // numbering starts below the wanted number owns it. A named section's
    // copy starts at 0 again and so hides the sections around it.
    const regex_context_t* owner = context;
    while (owner != nullptr && (owner->regex == nullptr || owner->regex->grab_start >= grab)) {
        owner = owner->prev;
    }
    if (owner == nullptr) {
        return NO_GRAB;
    }
    const int local = grab - owner->regex->grab_start;
    if (local > owner->regex->grabs) {
        return NO_GRAB;
    }
    const property_list_node_t* node = owner->match;
    if (node == nullptr || node->matches == nullptr || node->info == nullptr ||
        node->info->wern == nullptr) {
        return NO_GRAB;
    }
    const regmatch_t& m = node->matches[local];
    // A group that took no part in the match has -1 offsets.
    if (m.rm_so < 0 || m.rm_eo < m.rm_so) {
        return NO_GRAB;
    }
    string_buffer_clear(&grab_scratch);
    const char* wern = node->info->wern;
    if (string_buffer_append_substring(&grab_scratch, wern + m.rm_so, wern + m.rm_eo) < 0) {
        return nullptr;
    }
    return string_buffer_get_str(&grab_scratch);
}

const char* get_macro_expansion(const char** text, macro_t* macro) {
    if (macro == nullptr || text == nullptr || *text == nullptr || macro->invocation == nullptr ||
        macro->invocation->args == nullptr || macro->args == nullptr) {
        return nullptr;
    }
    // The shortest argument name that is a prefix of the text wins, and of
    // names of equal length the first: a longer name sharing that prefix can
    // never be reached. This is what a character-by-character elimination
    // of candidates gives, without needing storage for the candidates.
    char** const names = macro->invocation->args;
    int best = -1;
    size_t best_length = 0;
    for (int i = 0; i < macro->num_args; i++) {
        const char* name = names[i];
        if (name == nullptr || *name == '\0') {
            continue;
        }
        const size_t length = std::strlen(name);
        if ((best < 0 || length < best_length) && std::strncmp(*text, name, length) == 0) {
            best = i;
            best_length = length;
        }
    }
    if (best < 0) {
        return nullptr;
    }
    *text += best_length;
    return macro->args[best] != nullptr ? macro->args[best] : NO_GRAB;
}

namespace {

// A backslash and the character behind it: \n, \r and \t give their control
// characters, any other character stands for itself. A backslash that ends
// the text stays, and leaves *p on the terminator.
int translate_escape(const char** p, string_buffer_t* sb) {
    const char* at = *p;
    if (at[1] == '\0') {
        *p = at + 1;
        return append_char(sb, '\\') ? 0 : STENCIL_ERROR_NO_MEMORY;
    }
    char c = at[1];
    switch (c) {
        case 'n':
            c = '\n';
            break;
        case 'r':
            c = '\r';
            break;
        case 't':
            c = '\t';
            break;
        default:
            break;  // the character itself, not examined further
    }
    *p = at + 2;
    return append_char(sb, c) ? 0 : STENCIL_ERROR_NO_MEMORY;
}

// "$%<number>", the number read as strtol reads it (sign, blanks, 0x,
// octal). Sets *handled and moves *p past the number when form starts one.
int translate_grab(const char** p, const char* form, string_buffer_t* sb, regex_context_t* context,
                   bool* handled) {
    char* number_end = nullptr;
    const long number = std::strtol(form, &number_end, 0);
    *handled = number_end != form;
    if (!*handled) {
        return 0;
    }
    const char* grab = get_grab(static_cast<int>(number), context);
    if (grab == nullptr) {
        return STENCIL_ERROR_NO_MEMORY;
    }
    // An absent or empty grab leaves the form standing, so that a later
    // translation (a section operand's second one) may fill it.
    const ssize_t r = *grab != '\0' ? string_buffer_append_string(sb, grab)
                                    : string_buffer_append_substring(sb, *p, number_end);
    *p = number_end;
    return r < 0 ? STENCIL_ERROR_NO_MEMORY : 0;
}

// "$%" and one character that is neither a number nor a macro argument: a
// named form, "%%", or no form at all. A "$%" that ends the text stays, and
// leaves *p on the terminator.
int translate_named_form(const char** p, const char* form, string_buffer_t* sb,
                         stencil_t* stencil) {
    repository_t* repository = stencil != nullptr ? stencil->repository : nullptr;
    *p = *form == '\0' ? form : form + 1;
    switch (*form) {
        case '\0':
            return append(sb, "$%") ? 0 : STENCIL_ERROR_NO_MEMORY;
        case '%':
            return append_char(sb, '%') ? 0 : STENCIL_ERROR_NO_MEMORY;
        case 'f':
        case 'i':
        case 's':
        case 'm':
        case 'r': {
            const char* value = named_value(*form, repository);
            if (value != nullptr) {
                return append(sb, value) ? 0 : STENCIL_ERROR_NO_MEMORY;
            }
            // A wern or name the view lacks gives nothing; a missing method
            // or restarter is an error of its own.
            if (*form == 'm') {
                return STENCIL_ERROR_NO_METHOD;
            }
            return *form == 'r' ? STENCIL_ERROR_NO_RESTARTER : 0;
        }
        default:
            // No form: both characters stay, with the one behind them.
            return string_buffer_append_substring(sb, form - 2, form + 1) < 0
                       ? STENCIL_ERROR_NO_MEMORY
                       : 0;
    }
}

// Everything that starts with a dollar; moves *p past what it translated.
int translate_dollar(const char** p, string_buffer_t* sb, regex_context_t* context,
                     stencil_t* stencil) {
    const char* at = *p;
    if (at[1] != '%') {
        // A lone dollar, or a dollar and a character that is passed over
        // unexamined (so in "$$%1" the second dollar opens nothing).
        *p = at[1] == '\0' ? at + 1 : at + 2;
        return string_buffer_append_substring(sb, at, *p) < 0 ? STENCIL_ERROR_NO_MEMORY : 0;
    }
    const char* form = at + 2;
    bool handled = false;
    int result = translate_grab(p, form, sb, context, &handled);
    if (handled) {
        return result;
    }
    // A macro argument hides a named form of the same letter.
    if (stencil != nullptr && stencil->macro != nullptr) {
        const char* after = form;
        const char* value = get_macro_expansion(&after, stencil->macro);
        if (value != nullptr) {
            *p = after;
            return append(sb, value) ? 0 : STENCIL_ERROR_NO_MEMORY;
        }
    }
    return translate_named_form(p, form, sb, stencil);
}

}  // namespace

int translate_grabs(const char* text, string_buffer_t* sb, regex_context_t* context,
                    stencil_t* stencil) {
    if (sb == nullptr) {
        return STENCIL_ERROR_INTERNAL_ERROR;
    }
    if (text == nullptr) {
        return 0;
    }
    const char* p = text;
    while (*p != '\0') {
        int result = 0;
        if (*p == '\\') {
            result = translate_escape(&p, sb);
        } else if (*p == '$') {
            result = translate_dollar(&p, sb, context, stencil);
        } else {
            result = append_char(sb, *p) ? 0 : STENCIL_ERROR_NO_MEMORY;
            p++;
        }
        if (result != 0) {
            return result;
        }
    }
    return 0;
}
