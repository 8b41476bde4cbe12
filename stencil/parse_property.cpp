// The property form: `$%{name}` and `$%{name:op first[/second]}`.
//
// The name is raw text on one line (no forms, no escapes) with at most one
// define splice `$%[define]`; the operands are stencil text scanned by
// parse_stencil, so they may span lines and hold forms of their own.

#include <cstring>

#include "parse_raw.h"
#include "stencil_internal.h"

namespace {

bool is_operator(char c) { return c != '\0' && strchr("'+,-?^", c) != nullptr; }

// The operator behind the `:` at *p - 1: sets the property's transform and
// the delimiters its operands end at (null: the first operand takes all),
// and moves *p past the operator.
int read_operator(const char** p, property_t* property, const char** delimiters) {
    *delimiters = "/";
    switch (*(*p)++) {
        case ',':
            property->transform = PT_DELIM;
            *delimiters = nullptr;
            break;
        case '-':
            property->transform = PT_IFNDEF;
            *delimiters = nullptr;
            break;
        case '+':
            property->transform = PT_IFDEF;
            *delimiters = nullptr;
            break;
        case '?':
            property->transform = PT_BOOL;
            break;
        case '^':
            property->transform = PT_PREFIX_SUFFIX;
            if (**p == '*') {
                property->transform = PT_PREFIX_SUFFIX_IFDEF;
                ++*p;
            }
            break;
        case '\'':
            property->transform = PT_REPLACE_FIRST;
            if (**p == '\'') {
                property->transform = PT_REPLACE_ALL;
                ++*p;
            }
            break;
        default:
            // The name scan lets only the six operator characters through.
            return STENCIL_ERROR_INTERNAL_ERROR;
    }
    return 0;
}

}  // namespace

int parse_property(const char* text, expression_t* expression, stencil_t* stencil) {
    auto* property = reinterpret_cast<property_t*>(expression);
    property->expression.type = ET_PROPERTY;
    property->transform = PT_NONE;
    property->line_number = stencil->line_number + 1;
    property->first_expression.type = ET_BASE;
    property->second_expression.type = ET_BASE;

    DefineSplice splice(text);
    const char* p = text;
    for (;;) {
        const char c = *p;
        const size_t at = static_cast<size_t>(p - text);
        if (c == '\0') return unterminated_at(stencil, text, p);
        if (c == '\n') {
            stencil->line_number++;
            return report_syntax_error(stencil, text, at + 1, at, SE_UNTERMINATED_SECTION);
        }
        if (c == '$' && p[1] == '%' && p[2] == '[') {
            if (int r = splice.open(stencil, p, &property->property_name); r < 0) return r;
            continue;
        }
        if (c == ':') {
            if (is_operator(p[1])) break;
            // `:` before the end of the line is a name character; otherwise
            // it takes the next character into the name unseen, so `:}`
            // does not close the form.
            p += (p[1] == '\0' || p[1] == '\n') ? 1 : 2;
            continue;
        }
        if (splice.closes_at(p)) {
            if (int r = splice.close(stencil, p, &property->property_name); r < 0) return r;
            continue;
        }
        if (c == '}') {
            if (int r = splice.finish(p, &property->property_name); r < 0) return r;
            return static_cast<int>(p + 1 - text);
        }
        ++p;
    }

    // p is at the `:` in front of an operator.
    if (int r = splice.finish(p, &property->property_name); r < 0) return r;
    ++p;
    const char* delimiters = nullptr;
    if (int r = read_operator(&p, property, &delimiters); r < 0) return r;

    // As pseudo-bases the operands end at the form's `}`.
    int error = 0;
    const char* stop = scan_operands(text, p, &property->first_expression, delimiters,
                                     &property->second_expression, nullptr, true, stencil, &error);
    if (stop == nullptr) return error;
    return static_cast<int>(stop + 1 - text);
}
