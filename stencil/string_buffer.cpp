// The growable text buffer of stencil evaluation.
//
// The block is always at least one byte larger than the text with its NUL
// (used < allocated after every append). Growth doubles the block until that
// strict inequality holds, so a fresh 16-byte buffer takes 14 characters and
// the 15th moves it to 32. Callers rely on this rule only for cost, but the
// tests pin it down.

#include "string_buffer.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr ssize_t INITIAL_SIZE = 16;

// Makes room for `extra` more bytes; returns the block size or -1. A failed
// realloc leaves text, used and allocated untouched.
ssize_t reallocate(string_buffer_t* sb, size_t extra) {
    // A released buffer (allocated 0) cannot double; it must be initialised
    // again first.
    if (sb->buf == nullptr || sb->allocated <= 0) {
        return -1;
    }
    const size_t need = static_cast<size_t>(sb->used) + extra;
    size_t size = static_cast<size_t>(sb->allocated);
    if (need < size) {
        return sb->allocated;
    }
    do {
        if (size > SIZE_MAX / 2) {
            return -1;
        }
        size *= 2;
    } while (need >= size);
    char* grown = static_cast<char*>(std::realloc(sb->buf, size));
    if (grown == nullptr) {
        return -1;
    }
    sb->buf = grown;
    sb->allocated = static_cast<ssize_t>(size);
    return sb->allocated;
}

// Appends n bytes (no NUL among them) and terminates the text.
ssize_t append_bytes(string_buffer_t* sb, const char* bytes, size_t n) {
    if (n == 0) {
        return sb->used - 1;
    }
    if (reallocate(sb, n) < 0) {
        return -1;
    }
    std::memcpy(sb->buf + sb->used - 1, bytes, n);
    sb->used += static_cast<ssize_t>(n);
    sb->buf[sb->used - 1] = '\0';
    return sb->used - 1;
}

}  // namespace

int string_buffer_init(string_buffer_t* sb) {
    if (sb == nullptr) {
        return -1;
    }
    sb->buf = static_cast<char*>(std::malloc(INITIAL_SIZE));
    if (sb->buf == nullptr) {
        sb->used = 0;
        sb->allocated = 0;
        return -1;
    }
    sb->buf[0] = '\0';
    sb->used = 1;
    sb->allocated = INITIAL_SIZE;
    return 0;
}

ssize_t string_buffer_append_char(string_buffer_t* sb, char c) {
    return sb == nullptr ? -1 : append_bytes(sb, &c, 1);
}

ssize_t string_buffer_append_string(string_buffer_t* sb, const char* text) {
    if (sb == nullptr || text == nullptr) {
        return -1;
    }
    return append_bytes(sb, text, std::strlen(text));
}

ssize_t string_buffer_append_substring(string_buffer_t* sb, const char* start, const char* end) {
    if (sb == nullptr || start == nullptr || end == nullptr || start > end) {
        return -1;
    }
    return append_bytes(sb, start, static_cast<size_t>(end - start));
}

ssize_t string_buffer_strlen(const string_buffer_t* sb) {
    return sb == nullptr ? -1 : sb->used - 1;
}

const char* string_buffer_get_str(const string_buffer_t* sb) {
    return sb == nullptr ? nullptr : sb->buf;
}

char* string_buffer_take_ownership(string_buffer_t* sb) {
    if (sb == nullptr) {
        return nullptr;
    }
    char* text = sb->buf;
    sb->buf = nullptr;
    sb->used = 0;
    sb->allocated = 0;
    return text;
}

void string_buffer_clear(string_buffer_t* sb) {
    if (sb == nullptr || sb->buf == nullptr) {
        return;
    }
    sb->buf[0] = '\0';
    sb->used = 1;
}

void string_buffer_trim(string_buffer_t* sb, size_t length) {
    if (sb == nullptr || sb->buf == nullptr) {
        return;
    }
    if (length < static_cast<size_t>(sb->used - 1)) {
        sb->buf[length] = '\0';
        sb->used = static_cast<ssize_t>(length) + 1;
    }
}

void string_buffer_free(string_buffer_t* sb) { std::free(string_buffer_take_ownership(sb)); }
