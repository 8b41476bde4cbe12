// Owners of what the project's C-style interfaces hand out, so that every
// module frees them the same way: heap text and records from malloc, and
// any object with a create/destroy pair. (libhgx's objects have their own
// owners in hgx_ptr.h, beside the library's interface.)
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

// Frees with free(): what malloc, calloc, realloc or strdup gave.
struct FreeDeleter {
    void operator()(void* p) const noexcept { std::free(p); }
};

// Text on the heap, owned by its holder and freed with it; null for none.
using HeapText = std::unique_ptr<char[], FreeDeleter>;

// size bytes of uninitialised text, owned by the returned holder; an empty
// holder when the heap is exhausted.
inline HeapText alloc_text(size_t size) { return HeapText(static_cast<char*>(std::malloc(size))); }

// Calls Destroy, the destroy function of a create/destroy pair.
template <typename T, void (*Destroy)(T*)>
struct Destroyer {
    void operator()(T* p) const noexcept { Destroy(p); }
};

// The owner of an object made by a create function: Owned<stencil_t,
// stencil_destroy> destroys it when it goes (or on reset); release() hands
// it back to the caller, who must then destroy it. Destroy must accept null or
// never see it; unique_ptr does not call it for null.
template <typename T, void (*Destroy)(T*)>
using Owned = std::unique_ptr<T, Destroyer<T, Destroy>>;

// Lets a function that takes heap text through a char** parameter (to fill,
// grow or replace it) work on a HeapText: f(..., OutText(text)). The
// function sees what text held; whatever it leaves there, on success or
// failure, is owned by text again once the call's full expression ends.
// text must outlive that expression, and nothing else may touch it before
// the expression ends.
class OutText {
  public:
    explicit OutText(HeapText& owner) : owner_(owner), raw_(owner.release()) {}
    OutText(const OutText&) = delete;
    OutText& operator=(const OutText&) = delete;
    ~OutText() { owner_.reset(raw_); }
    operator char**() noexcept { return &raw_; }

  private:
    HeapText& owner_;
    char* raw_;
};
