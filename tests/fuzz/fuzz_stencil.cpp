// Stencil text as kelvo, kelvo-diff and kelvo-lint take it: loaded from a
// file and from standard input (which must agree), its syntax errors
// reported, evaluated in both output modes and in the observed evaluation
// behind kelvo-diff and kelvo-lint, then written and compared with files
// that hold its own text, more than it, and other text.

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "fuzz_util.h"
#include "stencil.h"

namespace {

// The syntax report as kelvo prints it; the lines go nowhere (the report's
// own stream is swapped, so the sanitizers' reports still show).
void report(stencil_t* stencil) {
    static FILE* nowhere = std::fopen("/dev/null", "w");
    stencil_syntax_error_iter_t* iter = stencil_syntax_error_iterator_create(stencil);
    FILE* saved = stderr;
    stderr = nowhere;
    while (const stencil_syntax_error_t* error =
               iter != nullptr ? stencil_syntax_error_iterator_next(iter) : nullptr)
        display_syntax_error(error);
    stderr = saved;
    stencil_syntax_error_iterator_destroy(iter);
}

// Reads what an observer is handed, as kelvo-lint does.
void observe(const stencil_reference_t* reference, void* context) {
    size_t* seen = static_cast<size_t*>(context);
    *seen += static_cast<size_t>(reference->line_number) + reference->tests_presence +
             reference->defined;
    if (reference->written_name != nullptr) *seen += std::strlen(reference->written_name);
    if (reference->final_name != nullptr) *seen += std::strlen(reference->final_name);
}

// Compares the tree with a file holding `file`. Judging a file unchanged
// that does not hold the text (or the text and a NUL byte, which counts as
// its end) would leave a stale file in place: a finding. The other way
// round is allowed (a tree ending in an empty node differs from its own
// text, and the file is merely written again).
void compare(stencil_output_buffer_t* out, const std::string& file, const std::string& text) {
    int fd = fuzz::memory_file(file.data(), file.size());
    if (fd < 0) return;
    stencil_error_t error = STENCIL_SUCCESS;
    const bool same = stencil_output_buffer_cmp(out, fd, &error) == 0 && error == STENCIL_SUCCESS;
    close(fd);
    const bool holds =
        file == text || (file.size() > text.size() && file.compare(0, text.size(), text) == 0 &&
                         file[text.size()] == '\0');
    if (same && !holds) fuzz::finding("a file that does not hold the text compares equal");
}

void deliver(stencil_output_buffer_t* out, const std::string& input) {
    char* text = stencil_output_buffer_text(out);
    if (text == nullptr) return;
    const std::string whole = text;
    free(text);
    // Written as kelvo writes a file, and read back.
    int fd = fuzz::memory_file("", 0);
    if (fd < 0) return;
    if (stencil_output_buffer_emit(out, fd) != STENCIL_SUCCESS) fuzz::finding("a write failed");
    if (fuzz::contents(fd) != whole) fuzz::finding("the file written is not the text");
    close(fd);
    compare(out, whole, whole);
    compare(out, whole + "x", whole);
    compare(out, whole + std::string(1, '\0') + "x", whole);
    if (!whole.empty()) {
        compare(out, whole.substr(0, whole.size() - 1), whole);
        std::string changed = whole;
        changed[changed.size() / 2] ^= 1;
        compare(out, changed, whole);
    }
    compare(out, input, whole);
}

void evaluate(stencil_t* stencil, repository_t* repository, const std::string& input) {
    for (stencil_output_mode_t mode : {STENCIL_OUTPUT_NORMAL, STENCIL_OUTPUT_LIST_PROPERTIES}) {
        stencil_output_buffer_t* out = nullptr;
        if (stencil_apply(stencil, repository, mode, &out) == STENCIL_SUCCESS) deliver(out, input);
        stencil_output_buffer_destroy(out);
    }
    size_t seen = 0;
    stencil_output_buffer_t* out = nullptr;
    if (stencil_apply_observed(stencil, repository, observe, &seen, &out) == STENCIL_SUCCESS)
        deliver(out, input);
    stencil_output_buffer_destroy(out);
}

// Loads the text through standard input: descriptor 0 is the file for the
// call.
stencil_error_t load_stdin(int fd, stencil_t** stencil, defines_t* defines) {
    int saved = dup(0);
    lseek(fd, 0, SEEK_SET);
    dup2(fd, 0);
    stencil_error_t result = stencil_load(nullptr, stencil, defines);
    dup2(saved, 0);
    close(saved);
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::ensure_repository();
    const std::string input(reinterpret_cast<const char*>(data), size);
    int fd = fuzz::memory_file(data, size);
    if (fd < 0) return 0;
    char path[64];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);

    defines_t* defines = defines_create();
    defines_add(defines, "mode", "fast");
    defines_add(defines, "grp", "config");
    stencil_t* stencil = nullptr;
    stencil_error_t loaded = stencil_load(path, &stencil, defines);
    stencil_t* from_stdin = nullptr;
    if (load_stdin(fd, &from_stdin, defines) != loaded)
        fuzz::finding("a file and standard input load differently");
    stencil_destroy(from_stdin);
    close(fd);
    // One view for the whole run, as configfile mode keeps one for all its
    // groups (services pulled in by one stencil stay for the next).
    static repository_t* repository = [] {
        repository_t* view = nullptr;
        if (repository_create(fuzz::INSTANCE, nullptr, &view) != REPOSITORY_SUCCESS)
            fuzz::finding("the repository view cannot be made");
        return view;
    }();
    // Sections nested n deep cost the matches to the power n (kelvo(1),
    // RESOURCE LIMITS): a stencil with many is loaded and reported, but
    // evaluating it would only time the documented cost out.
    size_t sections = 0;
    for (size_t at = input.find("$%/"); at != std::string::npos; at = input.find("$%/", at + 3))
        ++sections;
    if (loaded == STENCIL_SUCCESS && sections <= 3) {
        evaluate(stencil, repository, input);
    } else if (loaded == STENCIL_ERROR_SYNTAX && stencil != nullptr) {
        report(stencil);
    }
    stencil_destroy(stencil);
    defines_destroy(defines);
    return 0;
}
