// Stencil text, loaded and evaluated in both output modes against a small
// repository, then written and compared as kelvo does.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "fuzz_util.h"
#include "stencil.h"

namespace {

// An in-memory file holding data, or -1.
int memory_file(const uint8_t* data, size_t size) {
    int fd = memfd_create("stencil", MFD_CLOEXEC);
    if (fd < 0) return -1;
    size_t done = 0;
    while (done < size) {
        ssize_t n = write(fd, data + done, size - done);
        if (n <= 0) {
            close(fd);
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return fd;
}

void evaluate(stencil_t* stencil, repository_t* repository, stencil_output_mode_t mode, int null_fd,
              int empty_fd) {
    stencil_output_buffer_t* out = nullptr;
    if (stencil_apply(stencil, repository, mode, &out) == STENCIL_SUCCESS) {
        stencil_output_buffer_emit(out, null_fd);
        stencil_error_t error = STENCIL_SUCCESS;
        stencil_output_buffer_cmp(out, empty_fd, &error);
    }
    stencil_output_buffer_destroy(out);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::ensure_repository();
    static const int NULL_FD = open("/dev/null", O_WRONLY | O_CLOEXEC);
    static const int EMPTY_FD = memfd_create("empty", MFD_CLOEXEC);
    int fd = memory_file(data, size);
    if (fd < 0) return 0;
    char path[64];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);

    defines_t* defines = defines_create();
    defines_add(defines, "mode", "fast");
    defines_add(defines, "grp", "config");
    stencil_t* stencil = nullptr;
    stencil_error_t loaded = stencil_load(path, &stencil, defines);
    close(fd);
    if (loaded == STENCIL_SUCCESS) {
        repository_t* repository = nullptr;
        if (repository_create(fuzz::INSTANCE, nullptr, &repository) == REPOSITORY_SUCCESS) {
            evaluate(stencil, repository, STENCIL_OUTPUT_NORMAL, NULL_FD, EMPTY_FD);
            evaluate(stencil, repository, STENCIL_OUTPUT_LIST_PROPERTIES, NULL_FD, EMPTY_FD);
            repository_destroy(repository);
        }
    } else if (loaded == STENCIL_ERROR_SYNTAX && stencil != nullptr) {
        stencil_syntax_error_iter_t* iter = stencil_syntax_error_iterator_create(stencil);
        while (iter != nullptr && stencil_syntax_error_iterator_next(iter) != nullptr) {
        }
        stencil_syntax_error_iterator_destroy(iter);
    }
    stencil_destroy(stencil);
    defines_destroy(defines);
    return 0;
}
