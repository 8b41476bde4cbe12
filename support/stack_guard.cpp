#include "stack_guard.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>

#include "support_internal.h"

namespace {

constexpr size_t LARGEST_STACK = size_t{512} << 20;

thread_local uintptr_t base = 0;  // 0: none yet
thread_local size_t budget = 0;
thread_local int scopes = 0;
thread_local size_t budget_override = 0;
thread_local bool tripped = false;

// The frame address is on the real stack even where a sanitizer moves the
// locals to a heap-allocated frame.
inline uintptr_t here() { return reinterpret_cast<uintptr_t>(__builtin_frame_address(0)); }

void set_base(uintptr_t frame) {
    base = frame;
    budget = stack_guard_budget();
}

}  // namespace

size_t stack_guard_budget() {
    if (budget_override != 0) return budget_override;
    size_t usable = LARGEST_STACK;
    if (getpid() == gettid()) {
        struct rlimit limit {};
        if (getrlimit(RLIMIT_STACK, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
            limit.rlim_cur < usable)
            usable = static_cast<size_t>(limit.rlim_cur);
    } else {
        // A thread's stack is fixed: what is left below the caller.
        pthread_attr_t attr;
        if (pthread_getattr_np(pthread_self(), &attr) == 0) {
            void* low = nullptr;
            size_t size = 0;
            if (pthread_attr_getstack(&attr, &low, &size) == 0 &&
                here() > reinterpret_cast<uintptr_t>(low))
                usable = here() - reinterpret_cast<uintptr_t>(low);
            pthread_attr_destroy(&attr);
        }
    }
    return usable / 2;
}

void stack_guard_set_budget(size_t bytes) { budget_override = bytes; }

StackGuardScope::StackGuardScope() {
    if (scopes++ == 0) {
        set_base(here());
        tripped = false;
    }
}

StackGuardScope::~StackGuardScope() {
    if (--scopes == 0) base = 0;
}

bool stack_exhausted() {
    const uintptr_t frame = here();
    if (base == 0) set_base(frame);
    const bool over = base > frame && base - frame > budget;
    if (over) tripped = true;
    return over;
}

bool stack_guard_tripped() { return tripped; }
