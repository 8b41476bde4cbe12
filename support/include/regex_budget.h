// Regular expressions with a bounded cost. The C library's compiler copies a
// bounded repetition once per count and a `+` twice, multiplied through every
// level of nesting, and its epsilon closures grow with the square of the
// optional and grouping nodes; so a short pattern can ask for gigabytes and
// minutes, and deep grouping can exhaust the stack inside it. A pattern is
// therefore measured before it is compiled, from its text alone, and refused
// when the measure is beyond what any sensible pattern needs.
#pragma once

#include <regex.h>

// regcomp behind the budget (the measure and its limits are in
// support_internal.h): a null pattern, or one over the budget, is not
// compiled and gives REG_ESPACE, like a compilation that ran out of memory,
// and nothing is left to regfree. Otherwise regcomp's own result.
int regcomp_bounded(regex_t* regex, const char* pattern, int cflags);
