// The define splice and the operand scan that the property and section
// forms share.

#include "parse_raw.h"

int DefineSplice::open(stencil_t* stencil, const char*& p, char** target) {
    const size_t at = static_cast<size_t>(p - text_);
    if (begun_) return report_syntax_error(stencil, text_, at + 1, at, SE_ILLEGAL_CHARACTER);
    begun_ = true;
    if (append_text(target, piece_, p) != 0) return STENCIL_ERROR_NO_MEMORY;
    p += 3;
    piece_ = p;
    return 0;
}

int DefineSplice::close(stencil_t* stencil, const char*& p, char** target) {
    int r = splice_define(stencil, text_, piece_, p, OutText(name_), target);
    if (r < 0) return r;
    piece_ = ++p;
    return 0;
}

int DefineSplice::finish(const char* end, char** target) {
    return append_text(target, piece_, end) != 0 ? STENCIL_ERROR_NO_MEMORY : 0;
}

namespace {

// One operand; a pseudo-base's type goes back to ET_BASE whatever happens:
// a finished tree holds no pseudo-bases.
int scan_operand(const char* p, expression_t* operand, const char* stops, bool pseudo_base,
                 stencil_t* stencil) {
    if (pseudo_base) operand->type = ET_PSEUDOBASE;
    int r = parse_stencil(p, operand, stencil, stops);
    if (pseudo_base) operand->type = ET_BASE;
    return r;
}

}  // namespace

const char* scan_operands(const char* text, const char* p, expression_t* first,
                          const char* first_stops, expression_t* second, const char* second_stops,
                          bool pseudo_bases, stencil_t* stencil, int* error) {
    int r = scan_operand(p, first, first_stops, pseudo_bases, stencil);
    if (r < 0) {
        *error = r;
        return nullptr;
    }
    const char* stop = p + r;
    if (*stop == '/') {
        const char* start = stop + 1;
        r = scan_operand(start, second, second_stops, pseudo_bases, stencil);
        if (r < 0) {
            *error = r;
            return nullptr;
        }
        stop = start + r;
    }
    if (*stop == '\0') {
        *error = unterminated_at(stencil, text, stop);
        return nullptr;
    }
    return stop;
}
