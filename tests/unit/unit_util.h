// Helpers shared by the unit tests.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "../common/temp_dir.h"

namespace unit {

using testing_support::TempDir;

inline void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline std::string read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

}  // namespace unit
