// Definitions (`$%define name args {body}`, `$%define name /pattern/ {body}`)
// and invocations (`$%[name args]`, `$%[name:op ...]`, `$%[name]`).
//
// Whitespace between the parts of a definition or an invocation is TAB,
// SPACE, newline, and the comment lines behind a newline. A name enters the
// dictionary at the closing `}` of its definition: there are no forward
// references and no recursion, and an invocation gets its own copy of the
// body at once.

#include <cstdlib>
#include <cstring>

#include "stencil_internal.h"

namespace {

// Adds a copy of [start, end) to a definition's argument names.
int add_argument_name(macro_t* macro, const char* start, const char* end) {
    auto** grown = static_cast<char**>(
        realloc(macro->args, (static_cast<size_t>(macro->num_args) + 1) * sizeof(char*)));
    if (grown == nullptr) return STENCIL_ERROR_NO_MEMORY;
    macro->args = grown;
    char* name = strndup(start, static_cast<size_t>(end - start));
    if (name == nullptr) return STENCIL_ERROR_NO_MEMORY;
    grown[macro->num_args++] = name;
    return 0;
}

}  // namespace

int parse_definition(const char* text, expression_t* container, stencil_t* stencil) {
    // The newlines that the skips cross are counted even when nothing gets
    // defined: the scan that called ends behind the word `$%define`, and a
    // caller in a nested text takes the character there, a newline too, for
    // its closing token without counting it.
    int skip = first_nonwhitespace_char(text, 1, stencil);
    if (skip == 0 || text[skip] == '\0') return 0;
    const char* name_start = text + skip;
    const int name_length = first_whitespace_char(name_start, 1, stencil);
    const char* p = name_start + name_length;
    if (*p == '\0') return 0;
    p += first_nonwhitespace_char(p, 1, stencil);
    if (*p == '\0') return 0;

    char* name = strndup(name_start, static_cast<size_t>(name_length));
    if (name == nullptr) return STENCIL_ERROR_NO_MEMORY;
    if (*p == '/') {
        auto* match = reinterpret_cast<match_t*>(add_child(container, ET_REGEX));
        if (match == nullptr) {
            free(name);
            return STENCIL_ERROR_NO_MEMORY;
        }
        match->name = name;
        const char* pattern = p + 1;
        int r = parse_regex(pattern, &match->expression, stencil);
        if (r < 0) return r;
        return static_cast<int>(pattern + r - text);
    }
    auto* macro = reinterpret_cast<macro_t*>(add_child(container, ET_MACRO));
    if (macro == nullptr) {
        free(name);
        return STENCIL_ERROR_NO_MEMORY;
    }
    macro->name = name;
    int r = parse_macro(p, &macro->expression, stencil);
    if (r < 0) return r;
    return static_cast<int>(p + r - text);
}

int parse_macro(const char* text, expression_t* expression, stencil_t* stencil) {
    auto* macro = reinterpret_cast<macro_t*>(expression);
    macro->expression.type = ET_MACRO;
    macro->args = nullptr;
    macro->arg_expressions = nullptr;
    macro->num_args = 0;

    const char* token = text;
    const char* p = text;
    for (;;) {
        const char c = *p;
        if (c == '\0') return unterminated_at(stencil, text, p);
        if (c == '\\') {
            // Kept in the token as written; the next character is not seen.
            if (p[1] != '\0') {
                if (p[1] == '\n') stencil->line_number++;
                ++p;
            }
            ++p;
            continue;
        }
        if (!is_blank(c) && c != '\n' && c != '{') {
            ++p;
            continue;
        }

        const char* token_end = p;
        const char* next = p + 1;
        if (c == '\n') {
            stencil->line_number++;
            next += consume_comment(next, stencil);
        }
        // A `{` that touches the last name is followed by a skip of
        // whitespace; one that stands alone is not, so `a{ x}` has the body
        // "x" and `a { x}` the body " x".
        if (token_end > token) {
            int r = add_argument_name(macro, token, token_end);
            if (r < 0) return r;
            next += first_nonwhitespace_char(next, 1, stencil);
        }
        if (c == '{') {
            p = next;
            break;
        }
        token = p = next;
    }

    int r = parse_stencil(p, &macro->expression, stencil, nullptr);
    if (r < 0) return r;
    const char* close = p + r;
    if (*close == '\0') return unterminated_at(stencil, text, close);
    support_result_t added = dictionary_add(stencil->dictionary, macro->name, macro);
    if (added == SUPPORT_EXISTS)
        return report_syntax_error(stencil, text, static_cast<size_t>(close - text) + 1, 0,
                                   SE_DUPLICATE_MACRO_NAME);
    if (added != SUPPORT_SUCCESS) return STENCIL_ERROR_NO_MEMORY;
    return static_cast<int>(close + 1 - text);
}

int parse_invocation(const char* text, expression_t* container, stencil_t* stencil) {
    const int line_number = stencil->line_number + 1;
    const char* p = text;
    const char* rest = nullptr;  // where the callee starts
    bool as_macro = false;
    while (rest == nullptr) {
        switch (*p) {
            case '\0':
                return unterminated_at(stencil, text, p);
            case ' ':
            case '\t':
                as_macro = true;
                rest = p + 1;
                break;
            case '\n':
                stencil->line_number++;
                as_macro = true;
                rest = p + 1;
                rest += consume_comment(rest, stencil);
                break;
            case ':':
                rest = p + 1;
                break;
            case ']':
                // The kind of `$%[name]` comes from the dictionary, after
                // the check for an empty name below.
                rest = p;
                break;
            default:
                ++p;
                break;
        }
    }

    const size_t name_length = static_cast<size_t>(p - text);
    // An empty name has no entry whatever the form; this is refused before
    // any argument is parsed.
    if (name_length == 0) return report_syntax_error(stencil, text, 0, 0, SE_UNKNOWN_NAME);
    if (*p == ']') {
        char* name = strndup(text, name_length);
        if (name == nullptr) return STENCIL_ERROR_NO_MEMORY;
        auto* found = static_cast<expression_t*>(dictionary_find(stencil->dictionary, name));
        free(name);
        if (found == nullptr)
            return report_syntax_error(stencil, text, name_length, name_length - 1,
                                       SE_UNKNOWN_NAME);
        if (found->type == ET_MACRO)
            as_macro = true;
        else if (found->type != ET_REGEX)
            return STENCIL_ERROR_INTERNAL_ERROR;
    }

    expression_t* record = add_child(container, as_macro ? ET_MACRO : ET_REGEX);
    if (record == nullptr) return STENCIL_ERROR_NO_MEMORY;
    char* name = strndup(text, name_length);
    if (name == nullptr) return STENCIL_ERROR_NO_MEMORY;
    int r;
    if (as_macro) {
        reinterpret_cast<macro_t*>(record)->name = name;
        reinterpret_cast<macro_t*>(record)->line_number = line_number;
        r = parse_macro_invocation(rest, record, stencil);
    } else {
        reinterpret_cast<match_t*>(record)->name = name;
        r = parse_regex_invocation(rest, reinterpret_cast<match_t*>(record), stencil);
    }
    if (r < 0) return r;
    return static_cast<int>(rest - text) + r;
}

int parse_macro_invocation(const char* text, expression_t* expression, stencil_t* stencil) {
    auto* macro = reinterpret_cast<macro_t*>(expression);
    macro->expression.type = ET_MACRO;

    // The list level: every separator here opens a new argument, which
    // parse_stencil then scans up to the next blank, newline or `]`.
    const char* p = text;
    while (*p != ']') {
        const char* start;
        switch (*p) {
            case '\0':
                return unterminated_at(stencil, text, p);
            case '\\':
                // Dropped: it belongs to no argument.
                if (p[1] != '\0') {
                    if (p[1] == '\n') stencil->line_number++;
                    ++p;
                }
                ++p;
                continue;
            case ' ':
            case '\t':
                start = p + 1;
                break;
            case '\n':
                stencil->line_number++;
                start = p + 1;
                start += consume_comment(start, stencil);
                break;
            default:
                start = p;
                break;
        }

        const size_t count = static_cast<size_t>(macro->num_args) + 1;
        // Both arrays hold num_args entries whenever the record is released.
        auto** texts = static_cast<char**>(realloc(macro->arg_texts, count * sizeof(char*)));
        if (texts == nullptr) return STENCIL_ERROR_NO_MEMORY;
        macro->arg_texts = texts;
        texts[count - 1] = nullptr;
        auto* grown = static_cast<expression_t*>(
            realloc(macro->arg_expressions, count * sizeof(expression_t)));
        if (grown == nullptr) return STENCIL_ERROR_NO_MEMORY;
        macro->arg_expressions = grown;
        expression_t* argument = &grown[macro->num_args++];
        *argument = expression_t{ET_BASE, 0, nullptr};
        start += first_nonwhitespace_char(start, 1, stencil);
        int r = parse_stencil(start, argument, stencil, " \t\n]");
        if (r < 0) return r;
        texts[count - 1] = strndup(start, static_cast<size_t>(r));
        if (texts[count - 1] == nullptr) return STENCIL_ERROR_NO_MEMORY;
        p = start + r;
    }

    // Arguments come before the name is looked up, so their errors win.
    auto* definition =
        static_cast<expression_t*>(dictionary_find(stencil->dictionary, macro->name));
    const size_t name_length = strlen(macro->name);
    if (definition == nullptr)
        return report_syntax_error(stencil, macro->name, name_length, 0, SE_MACRO_NOT_FOUND);
    if (definition->type != ET_MACRO)
        return report_syntax_error(stencil, macro->name, name_length, 0, SE_MACRO_IS_REGEX);
    auto* def = reinterpret_cast<macro_t*>(definition);
    if (def->num_args > macro->num_args)
        return report_syntax_error(stencil, macro->name, name_length, 0, SE_TOO_FEW_ARGUMENTS);
    if (def->num_args < macro->num_args)
        return report_syntax_error(stencil, macro->name, name_length, 0, SE_TOO_MANY_ARGUMENTS);

    macro->invocation = def;
    int r = duplicate_macro(macro, macro, stencil);
    if (r != 0) return r;
    return static_cast<int>(p + 1 - text);
}
