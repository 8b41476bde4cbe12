// Shared set-up of the fuzz targets: one small repository file in a scratch
// directory, made once per process and named by HGX_REPOSITORY.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace fuzz {

// The instance the stencil target evaluates for.
constexpr char INSTANCE[] = "wrn:/demo/web:default";

// Imports the fixed manifest into a new scratch repository (once) and points
// HGX_REPOSITORY at it. Aborts when that fails: no run would mean anything.
void ensure_repository();

// A scratch directory for the process (on a tmpfs where there is one),
// made on first use; its path.
const std::string& scratch_dir();

// An in-memory file holding size bytes of data, at offset 0, or -1.
int memory_file(const void* data, size_t size);

// What an in-memory file holds, from its start.
std::string contents(int fd);

// Runs hgxrepo with args (the program's name not among them), what it writes
// to std::cout captured: the exit status, and the output in *out.
int hgxrepo(const std::vector<std::string>& args, std::string* out);

// Reports what a target found, with detail, and ends the run as a crash
// (libFuzzer keeps the input).
[[noreturn]] inline void finding(const char* what, const std::string& detail = "") {
    std::fprintf(stderr, "finding: %s\n%s\n", what, detail.c_str());
    __builtin_trap();
}

}  // namespace fuzz
