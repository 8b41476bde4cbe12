// Memory released at process exit: a fixed list of 256 slots, guarded by one
// mutex. Registrations past the last slot are dropped silently; that memory
// then simply stays allocated until the process ends.
#pragma once

// At exit, frees whatever *pointer holds then (null is fine). pointer itself
// must stay valid until the process exits: a static or thread-local
// variable, never one on a frame. The list takes no ownership of the memory
// before exit; the caller may replace or free what *pointer holds at any
// time as long as it leaves a pointer free() accepts. Never fails; safe from
// any thread.
void atexit_free_at(void** pointer);
