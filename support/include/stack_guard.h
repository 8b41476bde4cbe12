// Deep recursion that ends in a message instead of a signal. The stencil
// parser, the copier of definition bodies and the evaluator recurse once per
// level of nesting, and nesting is limited by nothing but the stack; each of
// them asks stack_exhausted() before it goes one level deeper and, when the
// answer is yes, fails as if memory were exhausted.
//
// Use is measured in bytes of stack from a base frame, so that it holds
// whatever the frames weigh (sanitizers make them several times larger). The
// budget is half of what the thread's stack may grow to, which leaves the
// other half to whatever the recursion calls at its deepest point.
#pragma once

#include <cstddef>

// Makes the frame of its owner the base from which use is measured, for as
// long as it lives, and reads the budget afresh. An inner scope while one is
// active changes nothing. Per thread.
struct StackGuardScope {
    StackGuardScope();
    ~StackGuardScope();
    StackGuardScope(const StackGuardScope&) = delete;
    StackGuardScope& operator=(const StackGuardScope&) = delete;
};

// True once the calling thread is more than its budget below the base.
// Without an active scope the first caller's frame becomes the base.
bool stack_exhausted();

// True when stack_exhausted() answered yes since the outermost active scope
// began, so that a failure some caller passed over as harmless is still
// reported at the end.
bool stack_guard_tripped();

// For tests of the layers that recurse: the budget in bytes that the next
// scope (or base) takes instead of half of the thread's stack; 0 restores
// that default. Per thread.
void stack_guard_set_budget(size_t bytes);
