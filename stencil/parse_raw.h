// What the property form and the section form share in their scans: the
// define splice inside their raw one-line text (a property's name, a
// section's pattern), and the `first[/second]` operands behind an operator.
#pragma once

#include "owned.h"
#include "stencil_internal.h"

// At most one define splice `$%[define]` in a raw text. The text before the
// opener and each define's value go to the caller's target in order; the
// define name is never cleared once the splice has begun, so a further `]`
// extends it by the text since the last one.
class DefineSplice {
  public:
    explicit DefineSplice(const char* text) : text_(text), piece_(text) {}

    // p is at the `$` of `$%[`: keeps the text before it in *target and moves
    // p past the opener. 0, or a negative stencil_error_t (a second splice
    // is SE_ILLEGAL_CHARACTER, reported against the `$`).
    int open(stencil_t* stencil, const char*& p, char** target);
    // p is at a `]`: whether it ends a splice that open began.
    bool closes_at(const char* p) const { return begun_ && *p == ']'; }
    // p is at that `]`: appends the define's value to *target and moves p
    // past it. 0, or a negative stencil_error_t (SE_MACRO_NOT_FOUND).
    int close(stencil_t* stencil, const char*& p, char** target);
    // The raw text ends before end: keeps what is left of it in *target.
    // 0, or STENCIL_ERROR_NO_MEMORY.
    int finish(const char* end, char** target);

  private:
    const char* text_;   // the start of the form, for error locations
    const char* piece_;  // the start of the text not yet kept
    HeapText name_;
    bool begun_ = false;
};

// Scans the operands `first[/second]` that start at p inside the form that
// starts at text: first up to one of first_stops, then, only when a `/`
// ended it, second up to one of second_stops (null: up to the form's end).
// Operands scanned as pseudo-bases end at a `}` of their own level, and
// their types go back to ET_BASE whatever happens. The address of the
// character that ended the last operand, or null with *error set to a
// negative stencil_error_t (an unterminated form is reported).
const char* scan_operands(const char* text, const char* p, expression_t* first,
                          const char* first_stops, expression_t* second, const char* second_stops,
                          bool pseudo_bases, stencil_t* stencil, int* error);
