// Regular expression sections: `$%/pattern/ {body}`, the named form that
// parse_definition hands over, and `$%[name:op first/second]` invocations.

#include <cstring>

#include "parse_raw.h"
#include "stencil_internal.h"

match_t* parse_parent = nullptr;

namespace {

// Puts parse_parent back to the enclosing section on every way out of
// parse_regex, so a later load in the same process starts with it null.
struct RestoreParseParent {
    match_t* saved;
    ~RestoreParseParent() { parse_parent = saved; }
};

// Scans the pattern of the section at text up to the `/` whose next
// non-blank is `{`, splicing defines into match->regex and counting its
// groups. Sets *brace_out to that `{`. Negative on failure, after the report
// of a syntax error.
int scan_pattern(const char* text, match_t* match, stencil_t* stencil, int* grabs,
                 const char** brace_out) {
    DefineSplice splice(text);
    *grabs = 0;
    const char* p = text;
    const char* brace = nullptr;
    while (brace == nullptr) {
        const char c = *p;
        const size_t at = static_cast<size_t>(p - text);
        switch (c) {
            case '\0':
                return unterminated_at(stencil, text, p);
            case '\n':
                stencil->line_number++;
                return report_syntax_error(stencil, text, at + 1, at, SE_UNTERMINATED_SECTION);
            case '$':
                if (p[1] == '%' && p[2] == '[') {
                    if (int r = splice.open(stencil, p, &match->regex); r < 0) return r;
                    continue;
                }
                break;
            case '(':
                ++*grabs;
                break;
            case '/': {
                // Only a `/` whose next non-blank (across lines and comment
                // lines) is `{` ends the pattern. Otherwise the look-ahead
                // did not cross anything and its newlines are left uncounted.
                const int saved_line = stencil->line_number;
                int skip = first_nonwhitespace_char(p + 1, 1, stencil);
                if (p[1 + skip] == '{') {
                    brace = p + 1 + skip;
                    continue;
                }
                stencil->line_number = saved_line;
                break;
            }
            case '\\':
                if (p[1] != '\0') {
                    if (p[1] == '\n') stencil->line_number++;
                    ++p;
                }
                break;
            case ']':
                if (splice.closes_at(p)) {
                    if (int r = splice.close(stencil, p, &match->regex); r < 0) return r;
                    continue;
                }
                break;
            default:
                break;
        }
        ++p;
    }

    // p is at the `/` that closes the pattern.
    *brace_out = brace;
    return splice.finish(p, &match->regex);
}

}  // namespace

int parse_regex(const char* text, expression_t* expression, stencil_t* stencil) {
    auto* match = reinterpret_cast<match_t*>(expression);
    match->expression.type = ET_REGEX;
    match->transform = PT_NONE;
    match->first_expression.type = ET_BASE;
    match->second_expression.type = ET_BASE;
    match->parent = parse_parent;
    RestoreParseParent restore{match->parent};
    parse_parent = match;
    // A named section is a definition: it stands for its name only.
    match->invocable = match->name == nullptr ? 1 : 0;
    // Group numbers run on from the enclosing sections; the parent's grabs
    // are known since they are stored before its body is scanned.
    match->grab_start =
        match->parent != nullptr ? match->parent->grabs + match->parent->grab_start : 0;

    int grabs = 0;
    const char* brace = nullptr;
    if (int r = scan_pattern(text, match, stencil, &grabs, &brace); r < 0) return r;
    if (match->name != nullptr && dictionary_find(stencil->dictionary, match->name) != nullptr) {
        size_t at = static_cast<size_t>(brace - text);
        return report_syntax_error(stencil, text, at + 1, at, SE_DUPLICATE_REGEX_NAME);
    }
    match->grabs = grabs;

    const char* body = brace + 1;
    int r = parse_stencil(body, &match->expression, stencil, nullptr);
    if (r < 0) return r;
    const char* close = body + r;
    if (*close == '\0') return unterminated_at(stencil, text, close);
    parse_parent = match->parent;

    // The name comes into being at the closing `}`: unknown in its own body.
    if (match->name != nullptr) {
        support_result_t added = dictionary_add(stencil->dictionary, match->name, match);
        if (added == SUPPORT_EXISTS)
            return report_syntax_error(stencil, text, static_cast<size_t>(close - text) + 1, 0,
                                       SE_DUPLICATE_REGEX_NAME);
        if (added != SUPPORT_SUCCESS) return STENCIL_ERROR_NO_MEMORY;
    }
    return static_cast<int>(close + 1 - text);
}

int parse_regex_invocation(const char* text, match_t* match, stencil_t* stencil) {
    match->expression.type = ET_REGEX;
    match->invocable = 1;

    const char* p = text;
    const char* end = nullptr;  // the closing `]`
    switch (*p) {
        case '\0':
            // Nothing at all behind the `:`.
            return report_syntax_error(stencil, text, 0, 0, SE_UNTERMINATED_SECTION);
        case ']':
            match->transform = PT_NONE;
            end = p;
            break;
        case '\'':
            if (p[1] == '\'') {
                match->transform = PT_REPLACE_ALL;
                p += 2;
            } else {
                match->transform = PT_REPLACE_FIRST;
                p += 1;
            }
            break;
        case '^':
            // No `^*` here: a `*` begins the first operand.
            match->transform = PT_PREFIX_SUFFIX;
            p += 1;
            break;
        default:
            return report_syntax_error(stencil, text, 1, 0, SE_BAD_TRANSFORM);
    }

    if (end == nullptr) {
        // Operands come before the name is looked up, so their errors win.
        int error = 0;
        end = scan_operands(text, p, &match->first_expression, "/]", &match->second_expression, "]",
                            false, stencil, &error);
        if (end == nullptr) return error;
    }

    auto* definition =
        static_cast<expression_t*>(dictionary_find(stencil->dictionary, match->name));
    const size_t name_length = strlen(match->name);
    if (definition == nullptr)
        return report_syntax_error(stencil, match->name, name_length, 0, SE_REGEX_NOT_FOUND);
    if (definition->type != ET_REGEX)
        return report_syntax_error(stencil, match->name, name_length, 0, SE_REGEX_IS_MACRO);

    int r = duplicate_regex(match, reinterpret_cast<match_t*>(definition), stencil);
    if (r != 0) return r;
    return static_cast<int>(end + 1 - text);
}
