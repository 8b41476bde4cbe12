// Exit-time release: slot accounting and what the handler frees.
//
// The list is process-wide and never shrinks, so each scenario runs in a
// forked child that starts from the parent's (empty) state.

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "support_internal.h"

namespace {

// Runs body in a child; the child's exit status is body's result.
int in_child(int (*body)()) {
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

TEST(SupportAtexit, SlotAccounting) {
    EXPECT_EQ(in_child([]() -> int {
                  const free_list_t* list = atexit_free_list_state();
                  if (list->nodes_used != 0) return 1;
                  static void* vars[FREE_LIST_SLOTS + 1];
                  for (int i = 0; i < FREE_LIST_SLOTS - 1; i++) atexit_free_at(&vars[i]);
                  // A block given by address takes the 256th, last, slot.
                  void* block = std::malloc(8);
                  atexit_free_register(block, nullptr);
                  if (list->nodes_used != FREE_LIST_SLOTS) return 2;
                  const free_node_t& last = list->nodes[FREE_LIST_SLOTS - 1];
                  if (last.type != VOID_PTR || last.pointer.void_ptr != block) return 3;
                  // The 257th only counts.
                  atexit_free_at(&vars[FREE_LIST_SLOTS]);
                  if (list->nodes_used != FREE_LIST_SLOTS + 1) return 4;
                  if (last.pointer.void_ptr != block) return 5;
                  const free_node_t& first = list->nodes[0];
                  if (first.type != VOID_PTR_PTR || first.pointer.void_ptr_ptr != &vars[0])
                      return 6;
                  return 0;
              }),
              0);
}

#if defined(__SANITIZE_ADDRESS__)
#define KELVO_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KELVO_TEST_ASAN 1
#endif
#endif

size_t mapped_bytes() {
#ifdef KELVO_TEST_ASAN
    return 0;  // the sanitizer's allocator keeps no such statistics
#else
    return mallinfo2().hblkhd;
#endif
}

size_t mapped_at_start;

// Installed before the list's handler, so it runs after it (handlers run in
// reverse order): by then the large block must have been unmapped.
void check_released() { _exit(mapped_bytes() > mapped_at_start ? 7 : 0); }

// The handler frees what the registered variables hold at exit: a block
// reallocated after registration is freed in its current form, a variable
// reset to null is harmless.
TEST(SupportAtexit, ExitFreesCurrentContents) {
    EXPECT_EQ(in_child([]() -> int {
                  std::atexit(check_released);
                  mapped_at_start = mapped_bytes();
                  static void* grown = std::malloc(4);
                  static void* emptied = std::malloc(4);
                  atexit_free_at(&grown);
                  atexit_free_at(&emptied);
                  grown = std::realloc(grown, 8 << 20);  // large enough to be mapped
                  std::free(emptied);
                  emptied = nullptr;
                  std::exit(0);
              }),
              0);
}

}  // namespace
