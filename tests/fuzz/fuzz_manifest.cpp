// Manifest text, read as hgxrepo import reads it.

#include <cstddef>
#include <cstdint>
#include <string>

#include "manifest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    manifest::Document document;
    std::string error;
    if (manifest::parse(text, "<fuzz>", &document, &error) != 0 && error.empty()) __builtin_trap();
    manifest::quote(text);
    return 0;
}
