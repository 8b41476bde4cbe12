// Helpers shared by the unit tests.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include "../common/temp_dir.h"

namespace unit {

using testing_support::TempDir;

inline void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

}  // namespace unit
