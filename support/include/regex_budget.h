// Regular expressions with a bounded cost. The C library's compiler copies a
// bounded repetition once per count and a `+` twice, multiplied through every
// level of nesting, and its epsilon closures grow with the square of the
// optional and grouping nodes; so a short pattern can ask for gigabytes and
// minutes, and deep grouping can exhaust the stack inside it. A pattern is
// therefore measured before it is compiled, from its text alone, and refused
// when the measure is beyond what any sensible pattern needs.
#pragma once

#include <regex.h>

#include <cstddef>
#include <cstdint>

// What regex_measure finds in an extended (REG_EXTENDED) pattern. Counts
// saturate instead of overflowing.
typedef struct regex_measure_result {
    uint64_t nodes;       // nodes of the compiled tree, repetitions copied out
    uint64_t epsilon;     // of those, the ones matched without a character
                          // (groups, alternations, optional copies, loops)
    uint64_t anchors;     // of those, the anchors: ^ $ \b \B \< \> \` \'
    size_t depth;         // deepest nesting of parentheses (measuring stops
                          // at the first level beyond REGEX_BUDGET_DEPTH)
    int repeated_anchor;  // 1 when a quantifier applies to an anchor
    int backreferences;   // \1 to \9
} regex_measure_result_t;

// Limits of regex_within_budget. Every pattern of ordinary use stays far
// below them; at the limits the compiler takes well under a second and some
// tens of megabytes. A quantifier on anything that holds an anchor is
// refused at any size (see regex_budget.cpp for why), and so is a
// back-reference (\1 to \9): extended expressions do not define it, and
// matching one can take time exponential in the length of the name.
#define REGEX_BUDGET_NODES 65536
#define REGEX_BUDGET_EPSILON 512
#define REGEX_BUDGET_ANCHORS 16
#define REGEX_BUDGET_DEPTH 128

// Measures the pattern as the compiler would build it. Malformed parts are
// measured as plain characters; the compiler rejects them anyway.
regex_measure_result_t regex_measure(const char* pattern);

// 1 when the pattern is within every limit above, 0 when it is not.
int regex_within_budget(const char* pattern);

// regcomp behind regex_within_budget: a pattern over the budget is not
// compiled and gives REG_ESPACE, like a compilation that ran out of memory,
// and nothing is left to regfree. Otherwise regcomp's own result.
int regcomp_bounded(regex_t* regex, const char* pattern, int cflags);
