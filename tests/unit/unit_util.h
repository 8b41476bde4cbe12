// Helpers shared by the unit tests.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace unit {

// A scratch directory, removed with its contents when the object goes.
struct TempDir {
    std::string path;
    TempDir() {
        char tmpl[] = "/tmp/kelvo-unit-XXXXXX";
        path = mkdtemp(tmpl);
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string operator/(const std::string& rel) const { return path + "/" + rel; }
};

inline void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

}  // namespace unit
