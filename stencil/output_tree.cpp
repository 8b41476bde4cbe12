// The output tree: nodes of text, each followed by its chained children, and
// the operations that grow, flatten, release and write it.
//
// Only the root handed to callers is a heap record of its own; every other
// node lives by value in its parent's `chained` array, which grow_chain
// extends by one record (moving the array now and then). A pointer to a slot
// is therefore invalid after the next grow_chain on its parent.

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "emit_local.h"
#include "stencil_internal.h"

namespace {

int coalesce_buffer_chain_kernel(const stencil_output_buffer_t* node, string_buffer_t* sb) {
    if (node == nullptr) {
        return 0;
    }
    if (node->buffer != nullptr && string_buffer_append_string(sb, node->buffer) < 0) {
        return STENCIL_ERROR_NO_MEMORY;
    }
    for (int i = 0; i < node->num; i++) {
        if (coalesce_buffer_chain_kernel(&node->chained[i], sb) < 0) {
            return STENCIL_ERROR_NO_MEMORY;
        }
    }
    return 0;
}

// Writes all of text, repeating on EINTR and continuing after a short write
// so that a pipe that takes the text in pieces still gets all of it. A node
// with an empty text still gets its one write call: a descriptor that
// refuses every write (a full device, a closed one) fails there too.
stencil_error_t write_all(int fd, const char* text, size_t length) {
    for (;;) {
        ssize_t n = write(fd, text, length);
        if (n < 0) {
            switch (errno) {
                case EINTR:
                    continue;
                case EFBIG:
                    return STENCIL_ERROR_TOO_BIG;
                case ENOSPC:
                    return STENCIL_ERROR_NO_SPACE;
                default:
                    // EIO, and every failure no caller has a message for:
                    // the walk stops here, as the output is incomplete.
                    return STENCIL_ERROR_IO;
            }
        }
        if (n == 0 && length > 0) {
            // No progress and no error: retrying could go on for ever.
            return STENCIL_ERROR_IO;
        }
        text += n;
        length -= static_cast<size_t>(n);
        if (length == 0) {
            return STENCIL_SUCCESS;
        }
    }
}

}  // namespace

stencil_output_buffer_t* grow_chain(stencil_output_buffer_t* buffer) {
    if (buffer == nullptr) {
        return nullptr;
    }
    // The array holds room for at least FIRST_ROOM records, and else for the
    // next power of two: it grows (doubling) only when num reaches one, so
    // that a section of n matches costs log n reallocations, not n.
    constexpr size_t FIRST_ROOM = 4;
    const auto num = static_cast<size_t>(buffer->num);
    if (num == 0 || (num >= FIRST_ROOM && (num & (num - 1)) == 0)) {
        const size_t room = num == 0 ? FIRST_ROOM : num * 2;
        auto* grown = static_cast<stencil_output_buffer_t*>(
            std::realloc(buffer->chained, sizeof(stencil_output_buffer_t) * room));
        if (grown == nullptr) {
            // The node's chain is given up; releasing it here keeps the
            // failure from leaking the records that the old array still holds.
            free_sub_output_buffer(buffer);
            return nullptr;
        }
        buffer->chained = grown;
    }
    stencil_output_buffer_t* slot = &buffer->chained[buffer->num];
    buffer->num++;
    slot->buffer = nullptr;
    slot->num = 0;
    slot->chained = nullptr;
    return slot;
}

int coalesce_buffer_chain(const stencil_output_buffer_t* buffer, string_buffer_t* sb) {
    if (sb == nullptr) {
        return STENCIL_ERROR_INTERNAL_ERROR;
    }
    return coalesce_buffer_chain_kernel(buffer, sb);
}

void free_sub_output_buffer(stencil_output_buffer_t* buffer) {
    if (buffer == nullptr) {
        return;
    }
    for (int i = 0; i < buffer->num; i++) {
        free_output_buffer(&buffer->chained[i]);
    }
    std::free(buffer->chained);
    buffer->chained = nullptr;
    buffer->num = 0;
}

int stencil_eval::flatten_output_chain(stencil_output_buffer_t* buffer) {
    stencil_eval::LocalBuffer text;
    if (text.init() != 0) {
        free_sub_output_buffer(buffer);
        return STENCIL_ERROR_NO_MEMORY;
    }
    // A head that shares the chain but not the node's own text field, which
    // is about to receive the joined text.
    const stencil_output_buffer_t head{nullptr, buffer->num, buffer->chained};
    int r = coalesce_buffer_chain(&head, text.get());
    if (r >= 0) {
        std::free(buffer->buffer);
        buffer->buffer = text.take();
    }
    free_sub_output_buffer(buffer);
    return r;
}

void free_output_buffer(stencil_output_buffer_t* buffer) {
    if (buffer == nullptr) {
        return;
    }
    free_sub_output_buffer(buffer);
    std::free(buffer->buffer);
    buffer->buffer = nullptr;
}

void stencil_output_buffer_destroy(stencil_output_buffer_t* buffer) {
    if (buffer == nullptr) {
        return;
    }
    free_output_buffer(buffer);
    std::free(buffer);
}

namespace {

// Node by node, one write each: the way when the joined text cannot be had.
stencil_error_t emit_by_node(const stencil_output_buffer_t* buffer, int fd) {
    if (buffer->buffer != nullptr) {
        stencil_error_t rc = write_all(fd, buffer->buffer, std::strlen(buffer->buffer));
        if (rc != STENCIL_SUCCESS) return rc;
    }
    for (int i = 0; i < buffer->num; i++) {
        stencil_error_t rc = emit_by_node(&buffer->chained[i], fd);
        if (rc != STENCIL_SUCCESS) return rc;
    }
    return STENCIL_SUCCESS;
}

// The length of the tree's text, and whether any node holds text at all
// (an empty text counts).
void measure_text(const stencil_output_buffer_t* buffer, size_t* length, bool* any) {
    if (buffer->buffer != nullptr) {
        *length += std::strlen(buffer->buffer);
        *any = true;
    }
    for (int i = 0; i < buffer->num; i++) measure_text(&buffer->chained[i], length, any);
}

char* copy_text(const stencil_output_buffer_t* buffer, char* at) {
    if (buffer->buffer != nullptr) {
        const size_t n = std::strlen(buffer->buffer);
        std::memcpy(at, buffer->buffer, n);
        at += n;
    }
    for (int i = 0; i < buffer->num; i++) at = copy_text(&buffer->chained[i], at);
    return at;
}

}  // namespace

stencil_error_t stencil_output_buffer_emit(stencil_output_buffer_t* buffer, int fd) {
    if (buffer == nullptr) return STENCIL_SUCCESS;
    // The whole text in one write: a file is then made in one step however
    // many pieces the evaluation left. A tree with text, even an empty one,
    // still gets its write call, so that a descriptor that refuses every
    // write fails here too; a tree of no text at all gets none.
    size_t length = 0;
    bool any = false;
    measure_text(buffer, &length, &any);
    if (!any) return STENCIL_SUCCESS;
    if (buffer->num == 0) return write_all(fd, buffer->buffer, length);
    HeapText joined(alloc_text(length + 1));
    if (joined == nullptr) return emit_by_node(buffer, fd);
    copy_text(buffer, joined.get());
    return write_all(fd, joined.get(), length);
}

char* stencil_output_buffer_text(const stencil_output_buffer_t* buffer) {
    // Joined as emit joins it: measured first, then copied into one block.
    size_t length = 0;
    bool any = false;
    if (buffer != nullptr) measure_text(buffer, &length, &any);
    HeapText text(alloc_text(length + 1));
    if (text == nullptr) return nullptr;
    *(buffer != nullptr ? copy_text(buffer, text.get()) : text.get()) = '\0';
    return text.release();
}
