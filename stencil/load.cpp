// Loading a stencil: get its text (a mapped file, or standard input read
// into a buffer), parse the defines as a prelude of `$%define`s, then the text
// itself, into one expression tree; and destroying it again.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "stack_guard.h"
#include "stencil_internal.h"

namespace {

// Offsets in the parser are int; no text may be longer than this.
constexpr size_t MAX_TEXT_LENGTH = 0x7FFFFFFF;
constexpr size_t CHUNK = 128;

// The stencil's text, NUL-terminated: either a private mapping of the file or
// a heap buffer. Released at the end of the load whatever happened.
class StencilText {
  public:
    StencilText() = default;
    StencilText(const StencilText&) = delete;
    StencilText& operator=(const StencilText&) = delete;
    ~StencilText() {
        if (mapped_ != nullptr) munmap(mapped_, mapped_length_);
        free(buffer_);
    }

    const char* str() const {
        return mapped_ != nullptr ? static_cast<const char*>(mapped_) : buffer_;
    }

    // Reads descriptor 0 to its end in chunks; the buffer always has room for
    // a whole chunk and the NUL ahead of each read. 0, or -1 with errno.
    int read_stdin() {
        size_t allocated = CHUNK + 1;
        size_t used = 0;
        buffer_ = static_cast<char*>(malloc(allocated));
        if (buffer_ == nullptr) return -1;
        for (;;) {
            if (allocated - used < CHUNK + 1) {
                auto* grown = static_cast<char*>(realloc(buffer_, allocated + CHUNK));
                if (grown == nullptr) return -1;
                buffer_ = grown;
                allocated += CHUNK;
            }
            ssize_t n = read(0, buffer_ + used, CHUNK);
            if (n < 0) {
                if (errno == EINTR) continue;
                return -1;
            }
            if (n == 0) break;
            used += static_cast<size_t>(n);
            if (used > MAX_TEXT_LENGTH) {
                errno = E2BIG;
                return -1;
            }
        }
        buffer_[used] = '\0';
        return 0;
    }

    // Maps the open file with room for the NUL behind its last byte. 0, or
    // -1 with errno.
    int map_file(int fd) {
        struct stat st {};
        if (fstat(fd, &st) != 0) return -1;
        const auto size = static_cast<size_t>(st.st_size);
        const auto page = static_cast<size_t>(getpagesize());
        const size_t length = size - size % page + page;
        if (length > MAX_TEXT_LENGTH) {
            errno = E2BIG;
            return -1;
        }
        // A regular file whose size is an exact multiple of the page (empty
        // included) has no spare byte in its last page, and a mapping past
        // the end of a file cannot be read. Such a file is read into a
        // buffer instead. Anything that is not a regular file goes to mmap,
        // which refuses directories and the like.
        if (S_ISREG(st.st_mode) && size % page == 0) return read_whole(fd, size);
        void* mapped = mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, 0);
        if (mapped == MAP_FAILED) return -1;
        mapped_ = mapped;
        mapped_length_ = length;
        return 0;
    }

  private:
    int read_whole(int fd, size_t size) {
        buffer_ = static_cast<char*>(malloc(size + 1));
        if (buffer_ == nullptr) return -1;
        size_t used = 0;
        while (used < size) {
            ssize_t n = read(fd, buffer_ + used, size - used);
            if (n < 0) {
                if (errno == EINTR) continue;
                return -1;
            }
            if (n == 0) break;  // the file shrank since fstat
            used += static_cast<size_t>(n);
        }
        buffer_[used] = '\0';
        return 0;
    }

    void* mapped_ = nullptr;
    size_t mapped_length_ = 0;
    char* buffer_ = nullptr;
};

class FileDescriptor {
  public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (fd_ >= 0) close(fd_);
    }
    int get() const { return fd_; }

  private:
    int fd_;
};

stencil_error_t error_from_errno(int err) {
    switch (err) {
        case ENOMEM:
            return STENCIL_ERROR_NO_MEMORY;
        case EPERM:
        case EACCES:
            return STENCIL_ERROR_PERMISSIONS;
        case ENOENT:
        case ENOSYS:
            return STENCIL_ERROR_NO_SUCH_FILE;
        case ENFILE:
        case EMFILE:
            return STENCIL_ERROR_NO_RESOURCES;
        case ENAMETOOLONG:
            return STENCIL_ERROR_LONG_FILENAME;
        default:
            // Not a user-facing message of its own: no catalogue lookup.
            fprintf(stderr, "mmap: %d %s\n", err, strerror(err));
            return STENCIL_ERROR_INTERNAL_ERROR;
    }
}

// The prelude and the main text, into stencil->base.
stencil_error_t parse_all(stencil_t* stencil, const char* text) {
    if (stencil->defines != nullptr) {
        pkx_avl_walk_t* walk = defines_walk_start(stencil->defines);
        if (walk == nullptr) return STENCIL_ERROR_INTERNAL_ERROR;
        // Each define arrives as "$%define name {value}", in name order.
        while (const char* define = defines_walk_next(stencil->defines, walk)) {
            int r = parse_stencil(define, &stencil->base, stencil, nullptr);
            if (r < 0) {
                // defines_walk_next ends the walk only when it runs out.
                pkx_avl_walk_end(walk);
                return static_cast<stencil_error_t>(r);
            }
        }
    }
    text += consume_comment(text, stencil);
    int r = parse_stencil(text, &stencil->base, stencil, nullptr);
    return r < 0 ? static_cast<stencil_error_t>(r) : STENCIL_SUCCESS;
}

void free_errors(stencil_t* stencil) {
    stencil_syntax_error_list_t* node = stencil->errors;
    while (node != nullptr) {
        stencil_syntax_error_list_t* next = node->next;
        free(const_cast<char*>(node->syntax_error.error_line));
        free(node);
        node = next;
    }
    stencil->errors = nullptr;
}

}  // namespace

stencil_error_t stencil_load(const char* file_name, stencil_t** out, defines_t* defines) {
    *out = nullptr;
    StencilText text;
    // Standard input (fd -1 here) stays open; a named file is closed on the
    // way out.
    FileDescriptor fd(file_name != nullptr ? open(file_name, O_RDONLY | O_CLOEXEC) : -1);
    if (file_name != nullptr) {
        if (fd.get() < 0 || text.map_file(fd.get()) != 0) return error_from_errno(errno);
    } else if (text.read_stdin() != 0) {
        return error_from_errno(errno);
    }

    auto* stencil = static_cast<stencil_t*>(pkx_zalloc(sizeof(stencil_t)));
    if (stencil == nullptr) return STENCIL_ERROR_NO_MEMORY;
    stencil->defines = defines;
    stencil->base.type = ET_BASE;
    stencil->dictionary = dictionary_create();
    if (stencil->dictionary == nullptr) {
        // Only an allocation can make a new table fail.
        stencil_destroy(stencil);
        return STENCIL_ERROR_NO_MEMORY;
    }

    StackGuardScope stack_scope;
    stencil_error_t result = parse_all(stencil, text.str());
    if (result == STENCIL_SUCCESS && stack_guard_tripped()) result = STENCIL_ERROR_NO_MEMORY;
    // A stencil that failed to parse still goes out, for its errors.
    *out = stencil;
    return result;
}

void stencil_destroy(stencil_t* stencil) {
    if (stencil == nullptr) return;
    destroy_subexpressions(&stencil->base);
    dictionary_destroy(stencil->dictionary);
    free_errors(stencil);
    free(stencil);
}

size_t stencil_define_length(const char* value) {
    const size_t whole = strlen(value);
    // The define's text is "$%define name {value}": its body is scanned
    // from the value's first byte on, by the scanner of every macro body.
    auto* stencil = static_cast<stencil_t*>(pkx_zalloc(sizeof(stencil_t)));
    if (stencil == nullptr) return whole;
    stencil->base.type = ET_BASE;
    stencil->dictionary = dictionary_create();
    expression_t* body = add_child(&stencil->base, ET_MACRO);
    int r = -1;
    if (stencil->dictionary != nullptr && body != nullptr) {
        StackGuardScope stack_scope;
        r = parse_stencil(value, body, stencil, nullptr);
    }
    stencil_destroy(stencil);
    return r >= 0 && value[r] == '}' ? static_cast<size_t>(r) : whole;
}
