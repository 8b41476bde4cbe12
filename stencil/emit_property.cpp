// Property references: the final name, the value text in normal mode, the
// listed name in list mode.

#include <cstdlib>
#include <cstring>
#include <string>

#include "emit_local.h"
#include "stencil_internal.h"

using stencil_eval::LocalBuffer;

namespace {

// Appends the values of a defined property, joined by delim.
bool append_joined(string_buffer_t* sb, const property_info_t* info, const char* delim) {
    for (int i = 0; i < info->num_values; i++) {
        if (i > 0 && string_buffer_append_string(sb, delim) < 0) {
            return false;
        }
        if (string_buffer_append_string(sb, info->values[i]) < 0) {
            return false;
        }
    }
    return true;
}

// A group, an instance and a property without values are not defined.
bool is_defined(const property_info_t* info) {
    return info != nullptr && info->num_values != 0 && info->values != nullptr;
}

void observe(const property_t* property, const char* written_name, stencil_t* stencil) {
    const transform_t t = property->transform;
    // Inside a macro body the reference belongs where its name is written
    // whole: at the invocation that supplies an argument of it.
    std::string shown;
    int line = 0;
    if (stencil->macro != nullptr && written_name != nullptr)
        shown_text(written_name, stencil->macro, &shown, &line);
    const bool substituted = line != 0;
    stencil_reference_t reference{
        substituted ? line : property->line_number,
        substituted ? shown.c_str() : written_name,
        property->property_name,
        t == PT_IFNDEF || t == PT_IFDEF || t == PT_BOOL,
        is_defined(repository_get_property(stencil->repository, property->property_name)),
        property->has_default};
    stencil->observer(&reference, stencil->observer_context);
}

// Each value between prefix and suffix.
int append_with_prefix_suffix(const property_info_t* info, const char* prefix, const char* suffix,
                              string_buffer_t* sb) {
    for (int i = 0; i < info->num_values; i++) {
        if (string_buffer_append_string(sb, prefix) < 0 ||
            string_buffer_append_string(sb, info->values[i]) < 0 ||
            string_buffer_append_string(sb, suffix) < 0) {
            return STENCIL_ERROR_NO_MEMORY;
        }
    }
    return 0;
}

// The values joined by blanks, each with pattern replaced (all: every match).
int append_replaced(const property_info_t* info, const char* pattern, const char* replacement,
                    int all, string_buffer_t* sb) {
    for (int i = 0; i < info->num_values; i++) {
        // "first" is per value: each value gets its own first match.
        const char* replaced = replace_string(info->values[i], pattern, replacement, all);
        if (replaced == nullptr) {
            return STENCIL_ERROR_NO_MEMORY;
        }
        if ((i > 0 && string_buffer_append_char(sb, ' ') < 0) ||
            string_buffer_append_string(sb, replaced) < 0) {
            return STENCIL_ERROR_NO_MEMORY;
        }
    }
    return 0;
}

// The forms with two operands: prefix/suffix and replace. Nothing for an
// undefined property, whose operands are then not evaluated; otherwise the
// first operand is evaluated before the second.
int append_with_operands(property_t* property, const property_info_t* info, bool defined,
                         string_buffer_t* sb, stencil_t* stencil) {
    if (!defined) {
        return 0;
    }
    HeapText first;
    HeapText second;
    int r = expression_to_string(&property->first_expression, stencil, OutText(first));
    if (r < 0) {
        return r;
    }
    r = expression_to_string(&property->second_expression, stencil, OutText(second));
    if (r < 0) {
        return r;
    }
    const transform_t t = property->transform;
    if (t == PT_PREFIX_SUFFIX || t == PT_PREFIX_SUFFIX_IFDEF) {
        return append_with_prefix_suffix(info, first.get(), second.get(), sb);
    }
    return append_replaced(info, first.get(), second.get(), t == PT_REPLACE_ALL ? 1 : 0, sb);
}

int build_text(property_t* property, string_buffer_t* sb, stencil_t* stencil) {
    const property_info_t* info =
        repository_get_property(stencil->repository, property->property_name);
    if (info == nullptr && repository_lost(stencil)) {
        return STENCIL_ERROR_REPOSITORY;
    }
    const bool defined = is_defined(info);

    switch (property->transform) {
        case PT_NONE:
            if (defined && !append_joined(sb, info, " ")) {
                return STENCIL_ERROR_NO_MEMORY;
            }
            return 0;
        case PT_DELIM: {
            // The delimiter is evaluated even for an undefined property, so a
            // failure inside it is always reported.
            HeapText delim;
            int r = expression_to_string(&property->first_expression, stencil, OutText(delim));
            if (r < 0) {
                return r;
            }
            if (defined && !append_joined(sb, info, delim.get())) {
                return STENCIL_ERROR_NO_MEMORY;
            }
            return 0;
        }
        case PT_IFNDEF:
            return defined
                       ? 0
                       : string_buffer_append_expression(sb, &property->first_expression, stencil);
        case PT_IFDEF:
            return defined
                       ? string_buffer_append_expression(sb, &property->first_expression, stencil)
                       : 0;
        case PT_BOOL: {
            // Only the exact first value "true" counts; only the branch
            // taken is evaluated.
            const bool truth = defined && std::strcmp(info->values[0], "true") == 0;
            return string_buffer_append_expression(
                sb, truth ? &property->first_expression : &property->second_expression, stencil);
        }
        case PT_PREFIX_SUFFIX:
        case PT_PREFIX_SUFFIX_IFDEF:
        case PT_REPLACE_FIRST:
        case PT_REPLACE_ALL:
            return append_with_operands(property, info, defined, sb, stencil);
        default:
            return STENCIL_ERROR_INTERNAL_ERROR;
    }
}

}  // namespace

int emit_property(property_t* property, stencil_output_buffer_t* buffer, stencil_t* stencil) {
    char* const parsed_name = property->property_name;
    LocalBuffer name;
    if (name.init() != 0) {
        return STENCIL_ERROR_NO_MEMORY;
    }
    // Inside sections their prefixes, suffixes and replacements act on the
    // name first; the name of "$%{}" outside any section stays null, which
    // ends the evaluation like a failed transform.
    const char* raw = stencil->context != nullptr ? transform_wern(parsed_name, stencil->context, 0)
                                                  : parsed_name;
    if (raw == nullptr) {
        return STENCIL_ERROR_NO_MEMORY;
    }
    int r = translate_grabs(raw, name.get(), stencil->context, stencil);
    if (r != 0) {
        return r;
    }
    // The mode's operation reads the final name from the record; the parsed
    // name is put back afterwards so that each visit starts from it again.
    HeapText final_name(name.take());
    property->property_name = final_name.get();
    if (stencil->observer != nullptr && final_name.get() != nullptr)
        observe(property, parsed_name, stencil);
    r = emit_property_by_mode(property, buffer, stencil);
    property->property_name = parsed_name;
    return r;
}

int emit_normal_property(property_t* property, stencil_output_buffer_t* buffer,
                         stencil_t* stencil) {
    LocalBuffer text;
    if (text.init() != 0) {
        return STENCIL_ERROR_NO_MEMORY;
    }
    int r = build_text(property, text.get(), stencil);
    if (r < 0) {
        return r;
    }
    std::free(buffer->buffer);
    buffer->buffer = text.take();
    return 0;
}

int emit_list_properties_property(property_t* property, stencil_output_buffer_t* buffer,
                                  stencil_t*) {
    const char* name = property->property_name != nullptr ? property->property_name : "";
    const size_t length = std::strlen(name);
    char* line = static_cast<char*>(std::malloc(length + 2));
    if (line == nullptr) {
        return STENCIL_ERROR_NO_MEMORY;
    }
    std::memcpy(line, name, length);
    line[length] = '\n';
    line[length + 1] = '\0';
    std::free(buffer->buffer);
    buffer->buffer = line;
    return stencil_eval::clamp_length(static_cast<ssize_t>(length + 1));
}
