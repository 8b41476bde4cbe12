// A growable NUL-terminated text. The record is embedded by its users; only
// the text is on the heap. `used` counts the terminator, so an empty text has
// used 1; after every successful append used < allocated. Growth doubles from
// 16 bytes. A zeroed record (buf null) is a buffer that does not exist yet.
#pragma once

#include <sys/types.h>

#include <cstddef>

typedef struct string_buffer {
    char* buf;
    ssize_t used;
    ssize_t allocated;
    int free_atexit;
} string_buffer_t;

int string_buffer_init(string_buffer_t* sb);
ssize_t string_buffer_append_char(string_buffer_t* sb, char c);
ssize_t string_buffer_append_string(string_buffer_t* sb, const char* text);
ssize_t string_buffer_append_substring(string_buffer_t* sb, const char* start, const char* end);
ssize_t string_buffer_strlen(const string_buffer_t* sb);
const char* string_buffer_get_str(const string_buffer_t* sb);
// Hands the text to the caller (who frees it); the record is left as after
// string_buffer_free.
char* string_buffer_take_ownership(string_buffer_t* sb);
void string_buffer_clear(string_buffer_t* sb);
void string_buffer_trim(string_buffer_t* sb, size_t length);
void string_buffer_free(string_buffer_t* sb);
// Registers the buffer's text with the exit-time list, once.
void string_buffer_atexit_free(string_buffer_t* sb);
