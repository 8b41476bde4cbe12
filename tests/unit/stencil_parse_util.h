// Helpers for the parser tests: load a stencil from a text through a
// temporary file, and render an expression tree as a compact string so that
// a test can state the whole shape it expects.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "stencil_internal.h"
#include "unit_util.h"

namespace parse_test {

struct StencilDeleter {
    void operator()(stencil_t* s) const { stencil_destroy(s); }
};
using StencilPtr = std::unique_ptr<stencil_t, StencilDeleter>;

struct DefinesDeleter {
    void operator()(defines_t* d) const { defines_destroy(d); }
};
using DefinesPtr = std::unique_ptr<defines_t, DefinesDeleter>;

inline DefinesPtr make_defines(const std::vector<std::pair<std::string, std::string>>& pairs) {
    DefinesPtr defines(defines_create());
    for (const auto& [name, value] : pairs)
        EXPECT_EQ(defines_add(defines.get(), name.c_str(), value.c_str()), 0);
    return defines;
}

struct LoadResult {
    stencil_error_t result;
    StencilPtr stencil;
};

inline LoadResult load_text(const std::string& text, defines_t* defines = nullptr) {
    unit::TempDir dir;
    unit::write_file(dir / "stencil", text);
    stencil_t* stencil = nullptr;
    stencil_error_t result = stencil_load((dir / "stencil").c_str(), &stencil, defines);
    return {result, StencilPtr(stencil)};
}

inline std::string quote(const char* s) {
    if (s == nullptr) return "null";
    std::string out = "\"";
    for (const char* p = s; *p; ++p) {
        if (*p == '\n')
            out += "\\n";
        else
            out += *p;
    }
    return out + "\"";
}

inline std::string dump(const expression_t* e);

inline std::string dump_children(const expression_t* e) {
    std::string out;
    for (int i = 0; i < e->num; ++i) {
        if (i) out += ' ';
        out += dump(e->sub_expressions[i]);
    }
    return out;
}

// literal: "text"; property: {name T first / second};
// section: /regex/[body] (def marks a definition, inv an invocation);
// macro: m name(args)[body].
inline std::string dump(const expression_t* e) {
    switch (e->type) {
        case ET_LITERAL:
            return quote(reinterpret_cast<const literal_t*>(e)->str);
        case ET_PROPERTY: {
            auto* p = reinterpret_cast<const property_t*>(e);
            std::string out = "{";
            out += quote(p->property_name);
            if (p->transform != PT_NONE)
                out += " T" + std::to_string(p->transform) + " " +
                       dump_children(&p->first_expression) + " / " +
                       dump_children(&p->second_expression);
            return out + "}";
        }
        case ET_REGEX: {
            auto* m = reinterpret_cast<const match_t*>(e);
            std::string out = "/";
            out.append(quote(m->regex)).append("/");
            if (m->name) out += (m->invocable ? " inv " : " def ") + std::string(m->name);
            if (m->transform != PT_NONE)
                out += " T" + std::to_string(m->transform) + " " +
                       dump_children(&m->first_expression) + " / " +
                       dump_children(&m->second_expression);
            return out + "[" + dump_children(e) + "]";
        }
        case ET_MACRO: {
            auto* m = reinterpret_cast<const macro_t*>(e);
            std::string out = "m " + std::string(m->name) + "(";
            for (int i = 0; i < m->num_args; ++i) {
                if (i) out += ",";
                if (m->args)
                    out += m->args[i];
                else if (m->arg_expressions)
                    out += dump_children(&m->arg_expressions[i]);
            }
            return out + ")[" + dump_children(e) + "]";
        }
        default:
            return "?";
    }
}

}  // namespace parse_test
