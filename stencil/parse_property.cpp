// The property form: `$%{name}` and `$%{name:op first[/second]}`.
//
// The name is raw text on one line (no forms, no escapes) with at most one
// define splice `$%[define]`; the operands are stencil text scanned by
// parse_stencil, so they may span lines and hold forms of their own.

#include <cstring>

#include "emit_local.h"
#include "stencil_internal.h"

namespace {

bool is_operator(char c) { return c != '\0' && strchr("'+,-?^", c) != nullptr; }

// Scans one operand into `operand` as a pseudo-base, so that a `}` of this
// level ends it. The type goes back to ET_BASE whatever happens: a finished
// tree holds no pseudo-bases.
int scan_operand(const char* text, expression_t* operand, stencil_t* stencil,
                 const char* delimiters) {
    operand->type = ET_PSEUDOBASE;
    int r = parse_stencil(text, operand, stencil, delimiters);
    operand->type = ET_BASE;
    return r;
}

}  // namespace

int parse_property(const char* text, expression_t* expression, stencil_t* stencil) {
    auto* property = reinterpret_cast<property_t*>(expression);
    property->expression.type = ET_PROPERTY;
    property->transform = PT_NONE;
    property->line_number = stencil->line_number + 1;
    property->first_expression.type = ET_BASE;
    property->second_expression.type = ET_BASE;

    // Once a splice has begun the define name is never cleared: a further
    // `]` extends it by the text since the last one.
    heap_text define_name;
    bool spliced = false;
    const char* piece = text;
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
            if (spliced)
                return report_syntax_error(stencil, text, at + 1, at, SE_ILLEGAL_CHARACTER);
            spliced = true;
            if (_make_str(&property->property_name, piece, p) != 0) return STENCIL_ERROR_NO_MEMORY;
            p += 3;
            piece = p;
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
        if (c == ']' && spliced) {
            int r = splice_define(stencil, text, piece, p, out_text(define_name),
                                  &property->property_name);
            if (r < 0) return r;
            piece = ++p;
            continue;
        }
        if (c == '}') {
            if (_make_str(&property->property_name, piece, p) != 0) return STENCIL_ERROR_NO_MEMORY;
            return static_cast<int>(p + 1 - text);
        }
        ++p;
    }

    // p is at the `:` in front of an operator.
    if (_make_str(&property->property_name, piece, p) != 0) return STENCIL_ERROR_NO_MEMORY;
    ++p;
    const char* delimiters = "/";
    switch (*p++) {
        case ',':
            property->transform = PT_DELIM;
            delimiters = nullptr;
            break;
        case '-':
            property->transform = PT_IFNDEF;
            delimiters = nullptr;
            break;
        case '+':
            property->transform = PT_IFDEF;
            delimiters = nullptr;
            break;
        case '?':
            property->transform = PT_BOOL;
            break;
        case '^':
            property->transform = PT_PREFIX_SUFFIX;
            if (*p == '*') {
                property->transform = PT_PREFIX_SUFFIX_IFDEF;
                ++p;
            }
            break;
        case '\'':
            property->transform = PT_REPLACE_FIRST;
            if (*p == '\'') {
                property->transform = PT_REPLACE_ALL;
                ++p;
            }
            break;
        default:
            // The name scan lets only the six operator characters through.
            return STENCIL_ERROR_INTERNAL_ERROR;
    }

    int r = scan_operand(p, &property->first_expression, stencil, delimiters);
    if (r < 0) return r;
    const char* stop = p + r;
    if (*stop == '\0') return unterminated_at(stencil, text, stop);
    if (*stop != '/') return static_cast<int>(stop + 1 - text);

    const char* second = stop + 1;
    r = scan_operand(second, &property->second_expression, stencil, nullptr);
    if (r < 0) return r;
    stop = second + r;
    if (*stop == '\0') return unterminated_at(stencil, text, stop);
    return static_cast<int>(stop + 1 - text);
}
