// Memory released at process exit.
//
// The list is a fixed array, so registering never allocates and can never
// fail; the 257th and later registrations are counted but dropped. The
// handler is installed with the first registration only, so a run that never
// registers anything leaves exit untouched.

#include <pthread.h>

#include <cstdlib>

#include "support_internal.h"

namespace {

free_list_t to_free;
pthread_mutex_t to_free_mutex = PTHREAD_MUTEX_INITIALIZER;
int atexit_registered = 0;

}  // namespace

// Runs at exit, when no other thread may still register; it takes no lock and
// leaves the list as it is.
static void free_list(void) {
    int used = to_free.nodes_used < FREE_LIST_SLOTS ? to_free.nodes_used : FREE_LIST_SLOTS;
    for (int i = 0; i < used; i++) {
        free_node_t& node = to_free.nodes[i];
        if (node.type == VOID_PTR)
            std::free(node.pointer.void_ptr);
        else if (node.pointer.void_ptr_ptr != nullptr)
            std::free(*node.pointer.void_ptr_ptr);
    }
}

void atexit_free_register(void* memory, void** pointer) {
    pthread_mutex_lock(&to_free_mutex);
    if (atexit_registered == 0) {
        (void)std::atexit(free_list);
        atexit_registered = 1;
    }
    int index = to_free.nodes_used++;
    if (index < FREE_LIST_SLOTS) {
        free_node_t& node = to_free.nodes[index];
        if (memory != nullptr) {
            node.type = VOID_PTR;
            node.pointer.void_ptr = memory;
        } else if (pointer != nullptr) {
            node.type = VOID_PTR_PTR;
            node.pointer.void_ptr_ptr = pointer;
        }
    }
    pthread_mutex_unlock(&to_free_mutex);
}

void atexit_free_at(void** pointer) { atexit_free_register(nullptr, pointer); }

const free_list_t* atexit_free_list_state(void) { return &to_free; }
