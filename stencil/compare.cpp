// Compares an output tree with the file open on a descriptor, so that a file
// that already holds the text is left alone. The file is mapped and the tree
// walked against the mapping in place; nothing is copied.
//
// The mapping is rounded up to the page above the file size, a whole page
// above where the size is a page multiple. Bytes of the last page behind the
// end of the file read as 0, but a page wholly past the end must not be
// touched (it faults), so no byte at or past file_size is ever read: such a
// byte is taken to be the 0 it would read as.

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "stencil_internal.h"

namespace {

// Unmaps on every path out.
struct Mapping {
    void* address = MAP_FAILED;
    size_t length = 0;

    Mapping() = default;
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    ~Mapping() {
        if (address != MAP_FAILED) {
            munmap(address, length);
        }
    }
};

}  // namespace

int stencil_output_buffer_cmp_kernel(stencil_output_buffer_t* buffer, const char* map,
                                     size_t* position, size_t file_size) {
    if (buffer == nullptr) {
        return 0;
    }
    // Once the file is used up any further node differs, even an empty one.
    if (file_size <= *position) {
        return -1;
    }
    if (buffer->buffer != nullptr) {
        const size_t length = std::strlen(buffer->buffer);
        const size_t available = file_size - *position;
        // A text running past the end differs there (it holds no 0 byte),
        // so only the bytes inside the file need comparing.
        const size_t compared = length < available ? length : available;
        int r = std::memcmp(buffer->buffer, map + *position, compared);
        *position += length;
        if (r != 0) {
            return r;
        }
        if (length > available) {
            return 1;
        }
    }
    for (int i = 0; i < buffer->num; i++) {
        int r = stencil_output_buffer_cmp_kernel(&buffer->chained[i], map, position, file_size);
        if (r != 0) {
            return r;
        }
    }
    return 0;
}

int stencil_output_buffer_cmp(stencil_output_buffer_t* buffer, int fd, stencil_error_t* error) {
    const size_t page = static_cast<size_t>(getpagesize());
    *error = STENCIL_SUCCESS;
    if (fd == -1) {
        return 0;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        *error = STENCIL_ERROR_IO;
        return 0;
    }
    // Directories, FIFOs and devices differ without a byte being read; an
    // empty file differs even from an empty text, so the caller writes it.
    if (!S_ISREG(st.st_mode) || st.st_size == 0) {
        return -1;
    }
    const size_t file_size = static_cast<size_t>(st.st_size);
    Mapping mapping;
    mapping.length = file_size + page - file_size % page;
    mapping.address = mmap(nullptr, mapping.length, PROT_READ, MAP_PRIVATE, fd, 0);
    if (mapping.address == MAP_FAILED) {
        *error = STENCIL_ERROR_NO_MEMORY;
        return 0;
    }
    const char* map = static_cast<const char*>(mapping.address);
    size_t position = 0;
    int result = stencil_output_buffer_cmp_kernel(buffer, map, &position, file_size);
    // The file must end with the text; a 0 byte right behind it counts as
    // the end. At position == file_size that byte is the 0 behind the file.
    if (result == 0 && position < file_size) {
        const auto next = static_cast<signed char>(map[position]);
        if (next != 0) {
            result = next;
        }
    }
    return result;
}
