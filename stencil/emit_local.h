// Small helpers private to the stencil sources: frame-owned texts for the
// parser and the evaluation, and the evaluation's scratch and sum rules.
#pragma once

#include <climits>
#include <cstdlib>

#include "owned.h"
#include "stencil.h"
#include "string_buffer.h"

namespace stencil_eval {

// A string_buffer_t on the evaluating function's frame. The text is released
// on every path out unless it has been handed on with take().
struct LocalBuffer {
    string_buffer_t sb{};

    LocalBuffer() = default;
    LocalBuffer(const LocalBuffer&) = delete;
    LocalBuffer& operator=(const LocalBuffer&) = delete;
    ~LocalBuffer() { string_buffer_free(&sb); }

    // 0, or -1 when the first block cannot be had.
    int init() { return string_buffer_init(&sb); }
    string_buffer_t* get() { return &sb; }
    const char* str() const { return string_buffer_get_str(&sb); }
    char* take() { return string_buffer_take_ownership(&sb); }
};

// A scratch buffer of one thread (a scratch result lasts until that
// function's next call on the same thread): the same owner as a frame's
// buffer, declared thread_local. The thread owns its text: it is freed when
// the thread ends, and for the main thread when the process exits, once,
// whatever other threads used a buffer of the same name.
using ThreadScratch = LocalBuffer;

// Sets up a thread's scratch buffer on its first use. 0, or -1 when it
// cannot be created.
inline int scratch_ready(ThreadScratch* scratch) {
    return scratch->str() != nullptr || scratch->init() == 0 ? 0 : -1;
}

// Results are summed only for their sign; keep the sum from overflowing.
inline int add_clamped(int sum, int r) { return r > INT_MAX - sum ? INT_MAX : sum + r; }

inline int clamp_length(ssize_t n) { return n > INT_MAX ? INT_MAX : static_cast<int>(n); }

// Joins the text of a section's or an invocation's chain into the node's own
// text and releases the chain, so the tree stays one level deep whatever the
// nesting. The chain is released on failure too. 0 or negative.
int flatten_output_chain(stencil_output_buffer_t* buffer);

}  // namespace stencil_eval
