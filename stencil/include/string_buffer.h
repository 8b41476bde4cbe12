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
} string_buffer_t;

// Gives the record a fresh 16-byte block holding the empty text; whatever
// it held before is not freed (release it first). 0, or -1 for a null sb or
// exhausted memory (the record is then a buffer that does not exist: buf
// null, used and allocated 0). The holder releases the text with
// string_buffer_free or takes it with string_buffer_take_ownership.
int string_buffer_init(string_buffer_t* sb);
// Appends one character, a NUL-terminated text, or the bytes [start, end)
// (none of them NUL). Each returns the new length of the text, or -1 for a
// null argument, start > end, a buffer that does not exist, or exhausted
// memory; on -1 the text is as it was. Appending nothing to a buffer that
// exists succeeds.
ssize_t string_buffer_append_char(string_buffer_t* sb, char c);
ssize_t string_buffer_append_string(string_buffer_t* sb, const char* text);
ssize_t string_buffer_append_substring(string_buffer_t* sb, const char* start, const char* end);
// The length of the text without its NUL; -1 for a null sb, and for a buffer
// that does not exist.
ssize_t string_buffer_strlen(const string_buffer_t* sb);
// The text, owned by the buffer and valid until it next changes; null for a
// null sb or a buffer that does not exist.
const char* string_buffer_get_str(const string_buffer_t* sb);
// Hands the text to the caller (who frees it); the record is left as after
// string_buffer_free. Null for a null sb or a buffer that does not exist.
char* string_buffer_take_ownership(string_buffer_t* sb);
// Empties the text, keeping the block. Does nothing to a null sb or a
// buffer that does not exist.
void string_buffer_clear(string_buffer_t* sb);
// Cuts the text to its first length bytes; a longer length changes nothing.
// Keeps the block; does nothing to a null sb or a buffer that does not exist.
void string_buffer_trim(string_buffer_t* sb, size_t length);
// Frees the text and leaves a buffer that does not exist (buf null), to be
// initialised again before use. Null and freed buffers are ignored.
void string_buffer_free(string_buffer_t* sb);
