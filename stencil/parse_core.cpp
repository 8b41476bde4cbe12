// The scanner that every piece of stencil text goes through, its small
// helpers, and the release of an expression tree.
//
// The scanner never copies the text as a whole: each literal is a copy of the
// stretch between two forms, so the loaded text can go once the parse is done.
// Offsets are int: stencil_load refuses texts whose offsets would not fit.

#include <cstdlib>
#include <cstring>

#include "stack_guard.h"
#include "stencil_internal.h"

namespace {

size_t record_size(expression_type_t kind) {
    switch (kind) {
        case ET_LITERAL:
            return sizeof(literal_t);
        case ET_PROPERTY:
            return sizeof(property_t);
        case ET_REGEX:
            return sizeof(match_t);
        case ET_MACRO:
            return sizeof(macro_t);
        case ET_BASE:
        case ET_PSEUDOBASE:
            break;
    }
    return sizeof(expression_t);
}

// Does a `}` end a scan of this container? Only inside a property operand or
// a body; at the top level and in invocation operands it is text.
bool brace_closes(const expression_t* container) {
    switch (container->type) {
        case ET_PSEUDOBASE:
        case ET_PROPERTY:
        case ET_REGEX:
        case ET_MACRO:
            return true;
        case ET_BASE:
        case ET_LITERAL:
            break;
    }
    return false;
}

}  // namespace

expression_t* add_child(expression_t* container, expression_type_t kind) {
    size_t count = static_cast<size_t>(container->num) + 1;
    auto** grown = static_cast<expression_t**>(
        realloc(container->sub_expressions, count * sizeof(expression_t*)));
    // On a failed realloc the old array is still valid and still owns every
    // child, so it is kept as it was: the children go with the tree.
    if (grown == nullptr) return nullptr;
    container->sub_expressions = grown;
    auto* record = static_cast<expression_t*>(calloc(1, record_size(kind)));
    if (record == nullptr) return nullptr;
    // The type is set at once, so that whatever a parse function stores in
    // the record before it fails is released by destroy_subexpressions.
    record->type = kind;
    grown[container->num++] = record;
    return record;
}

int append_text(char** str, const char* start, const char* end) {
    if (start == end) return 0;
    size_t add = end != nullptr ? strnlen(start, static_cast<size_t>(end - start)) : strlen(start);
    size_t have = *str != nullptr ? strlen(*str) : 0;
    auto* grown = static_cast<char*>(realloc(*str, have + add + 1));
    if (grown == nullptr) return -1;
    memcpy(grown + have, start, add);
    grown[have + add] = '\0';
    *str = grown;
    return 0;
}

int next_substring(const char* text, const char* prefix) {
    return strncmp(text, prefix, strlen(prefix));
}

int fill_in_literal(literal_t* literal, const char* start, const char* end) {
    char* str = strndup(start, static_cast<size_t>(end - start));
    if (str == nullptr) return -1;
    literal->expression.type = ET_LITERAL;
    literal->str = str;
    return 0;
}

int consume_comment(const char* text, stencil_t* stencil) {
    const char* line = text;
    for (;;) {
        const char* p = line;
        while (is_blank(*p)) ++p;
        // The blanks in front of a line that is not a comment stay with it.
        if (*p != ';') return static_cast<int>(line - text);
        const char* newline = strchr(line, '\n');
        if (newline == nullptr) return static_cast<int>(strlen(text));
        stencil->line_number++;
        line = newline + 1;
    }
}

int first_nonwhitespace_char(const char* text, int multi_line, stencil_t* stencil) {
    const char* p = text;
    for (;;) {
        if (is_blank(*p)) {
            ++p;
        } else if (*p == '\n' && multi_line) {
            stencil->line_number++;
            ++p;
            p += consume_comment(p, stencil);
        } else {
            return static_cast<int>(p - text);
        }
    }
}

int first_whitespace_char(const char* text, int multi_line, stencil_t* /*stencil*/) {
    const char* p = text;
    while (*p != '\0' && !is_blank(*p) && !(multi_line && *p == '\n')) ++p;
    return static_cast<int>(p - text);
}

int splice_define(stencil_t* stencil, const char* text, const char* piece, const char* close,
                  char** define_name, char** target) {
    if (append_text(define_name, piece, close) != 0) return STENCIL_ERROR_NO_MEMORY;
    const char* value = nullptr;
    if (stencil->defines != nullptr)
        value = defines_find(stencil->defines, *define_name != nullptr ? *define_name : "");
    if (value == nullptr) {
        size_t at = static_cast<size_t>(close - text);
        return report_syntax_error(stencil, text, at + 1, at, SE_MACRO_NOT_FOUND);
    }
    // A null end appends the whole value, so an empty value still turns a
    // null target into an empty string.
    if (append_text(target, value, nullptr) != 0) return STENCIL_ERROR_NO_MEMORY;
    return 0;
}

namespace {

// The literal being scanned runs from start to the cursor. A form or a
// comment cuts it: it is closed there and a fresh one follows.
struct OpenLiteral {
    literal_t* literal;
    const char* start;
};

// Opens the next literal of container at start. 0, or STENCIL_ERROR_NO_MEMORY.
int open_next_literal(OpenLiteral* open, expression_t* container, const char* start) {
    open->literal = reinterpret_cast<literal_t*>(add_child(container, ET_LITERAL));
    if (open->literal == nullptr) return STENCIL_ERROR_NO_MEMORY;
    open->start = start;
    return 0;
}

// The newline at *p: counted, and the comment lines behind it passed over.
int scan_newline(const char** p, OpenLiteral* open, expression_t* container, stencil_t* stencil) {
    stencil->line_number++;
    ++*p;
    int comment = consume_comment(*p, stencil);
    if (comment <= 0) return 0;
    // Comment lines split the literal; the newline in front of them stays
    // with the first half.
    if (fill_in_literal(open->literal, open->start, *p) != 0) return STENCIL_ERROR_NO_MEMORY;
    *p += comment;
    return open_next_literal(open, container, *p);
}

// Parses the form whose letter is at form into container; *args is where
// its operands start, or null when the letter opens no form.
int parse_form(const char* form, expression_t* container, stencil_t* stencil, const char** args) {
    *args = nullptr;
    if (*form == '/') {
        *args = form + 1;
        expression_t* match = add_child(container, ET_REGEX);
        return match != nullptr ? parse_regex(*args, match, stencil) : STENCIL_ERROR_NO_MEMORY;
    }
    if (*form == '[') {
        *args = form + 1;
        return parse_invocation(*args, container, stencil);
    }
    if (*form == '{') {
        *args = form + 1;
        expression_t* property = add_child(container, ET_PROPERTY);
        return property != nullptr ? parse_property(*args, property, stencil)
                                   : STENCIL_ERROR_NO_MEMORY;
    }
    if (*form == 'd' && next_substring(form + 1, "efine") == 0) {
        *args = form + 6;
        return parse_definition(*args, container, stencil);
    }
    return 0;
}

// "The value, or a default" is written as two references side by side,
// `$%{name}$%{name:-default}` (either way round): the first then only gives
// a value when there is one, which observers need to know. Called when a
// property has just become the container's last child.
void mark_value_or_default(expression_t* container) {
    const int n = container->num;
    if (n < 3) return;
    expression_t** child = container->sub_expressions;
    if (child[n - 2]->type != ET_LITERAL || child[n - 3]->type != ET_PROPERTY) return;
    const char* between = reinterpret_cast<literal_t*>(child[n - 2])->str;
    if (between == nullptr || *between != '\0') return;
    auto* earlier = reinterpret_cast<property_t*>(child[n - 3]);
    auto* later = reinterpret_cast<property_t*>(child[n - 1]);
    if (earlier->property_name == nullptr || later->property_name == nullptr ||
        strcmp(earlier->property_name, later->property_name) != 0)
        return;
    if (later->transform == PT_IFNDEF) earlier->has_default = 1;
    if (earlier->transform == PT_IFNDEF) later->has_default = 1;
}

// The "$%" at *p and the form it opens; moves *p behind the form. *stop is
// set where the scan ends early.
int scan_form(const char** p, OpenLiteral* open, expression_t* container, stencil_t* stencil,
              const char** stop) {
    const char* form = *p + 2;
    const char* args = nullptr;
    int r = parse_form(form, container, stencil, &args);
    if (args == nullptr) {
        // No form: `$%` stays in the literal, and the character behind it is
        // looked at like any other.
        *p = form;
        return 0;
    }
    if (fill_in_literal(open->literal, open->start, *p) != 0) return STENCIL_ERROR_NO_MEMORY;
    if (r < 0) return r;
    if (r == 0) {
        // A `$%define` that defines nothing ends the scan behind the word,
        // which then stands in the literal.
        free(open->literal->str);
        open->literal->str = nullptr;
        if (fill_in_literal(open->literal, open->start, args) != 0) return STENCIL_ERROR_NO_MEMORY;
        *stop = args;
        return 0;
    }
    *p = args + r;
    if (*form == '{') mark_value_or_default(container);
    return open_next_literal(open, container, *p);
}

}  // namespace

int parse_stencil(const char* text, expression_t* container, stencil_t* stencil,
                  const char* delimiters) {
    // Every nested form comes back here: the one place to stop a nesting
    // deeper than the stack allows.
    if (stack_exhausted()) return STENCIL_ERROR_NO_MEMORY;
    OpenLiteral open{};
    if (open_next_literal(&open, container, text) != 0) return STENCIL_ERROR_NO_MEMORY;
    const bool newline_stops = delimiters != nullptr && strchr(delimiters, '\n') != nullptr;
    const bool brace_stops = brace_closes(container);

    const char* p = text;
    for (;;) {
        const char c = *p;
        if (c == '\0') break;
        if (c == '\n') {
            // A newline delimiter is left uncounted: the caller crosses it.
            if (newline_stops) break;
            if (scan_newline(&p, &open, container, stencil) != 0) return STENCIL_ERROR_NO_MEMORY;
            continue;
        }
        if (c == '$' && p[1] == '%') {
            const char* stop = nullptr;
            int r = scan_form(&p, &open, container, stencil, &stop);
            if (r < 0) return r;
            if (stop != nullptr) return static_cast<int>(stop - text);
            continue;
        }
        if (c == '\\') {
            // The escaped character is not looked at, but a newline so
            // passed is still a line.
            if (p[1] == '\0') {
                ++p;
            } else {
                if (p[1] == '\n') stencil->line_number++;
                p += 2;
            }
            continue;
        }
        if (c == '}') {
            if (brace_stops) break;
            ++p;
            continue;
        }
        if (c != '$' && delimiters != nullptr && strchr(delimiters, c) != nullptr) break;
        ++p;
    }
    if (fill_in_literal(open.literal, open.start, p) != 0) return STENCIL_ERROR_NO_MEMORY;
    return static_cast<int>(p - text);
}

void destroy_subexpressions(expression_t* container) {
    if (container == nullptr) return;
    for (int i = 0; i < container->num; ++i) {
        expression_t* child = container->sub_expressions[i];
        if (child == nullptr) continue;
        switch (child->type) {
            case ET_LITERAL:
                free(reinterpret_cast<literal_t*>(child)->str);
                break;
            case ET_PROPERTY: {
                auto* property = reinterpret_cast<property_t*>(child);
                free(property->property_name);
                destroy_subexpressions(&property->first_expression);
                destroy_subexpressions(&property->second_expression);
                break;
            }
            case ET_REGEX: {
                auto* match = reinterpret_cast<match_t*>(child);
                free(match->name);
                free(match->regex);
                destroy_subexpressions(&match->first_expression);
                destroy_subexpressions(&match->second_expression);
                break;
            }
            case ET_MACRO: {
                auto* macro = reinterpret_cast<macro_t*>(child);
                free(macro->name);
                for (int a = 0; a < macro->num_args; ++a) {
                    if (macro->args != nullptr) free(macro->args[a]);
                    if (macro->arg_expressions != nullptr)
                        destroy_subexpressions(&macro->arg_expressions[a]);
                }
                free(macro->args);
                free(macro->arg_expressions);
                if (macro->arg_texts != nullptr)
                    for (int a = 0; a < macro->num_args; ++a) free(macro->arg_texts[a]);
                free(macro->arg_texts);
                macro->invocation = nullptr;
                break;
            }
            case ET_BASE:
            case ET_PSEUDOBASE:
                break;
        }
        destroy_subexpressions(child);
        free(child);
        container->sub_expressions[i] = nullptr;
    }
    free(container->sub_expressions);
    container->sub_expressions = nullptr;
    container->num = 0;
}
