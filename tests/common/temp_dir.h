// The tests' scratch directories and files: one helper for the unit tests,
// the end-to-end tests and the test etcd.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace testing_support {

// Makes a new empty directory under $TMPDIR (or /tmp) whose name starts with
// prefix; returns its path, or an empty string when it cannot be made. The
// caller removes it.
inline std::string make_temp_dir(const std::string& prefix) {
    const char* base = getenv("TMPDIR");
    std::string name = base != nullptr && *base != '\0' ? base : "/tmp";
    name.append("/").append(prefix).append("-XXXXXX");
    return mkdtemp(name.data()) != nullptr ? name : std::string();
}

// A scratch directory, removed with its contents when the object goes.
// Throws when no directory can be made: a test cannot go on without one.
class TempDir {
  public:
    TempDir() : path_(make_temp_dir("kelvo-test")) {
        if (path_.empty()) throw std::runtime_error("mkdtemp failed");
    }
    ~TempDir() {
        std::error_code ec;
        // Tests may leave files without permission bits; make them removable.
        // A link is passed over: chmod would reach what it points to, which
        // may lie anywhere.
        for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
             !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
            if (it->is_symlink(ec)) continue;
            std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ec);
        }
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const {
        std::string joined = path_;
        return joined.append("/").append(rel);
    }

  private:
    std::string path_;
};

// Makes the file at path hold text, and nothing else; throws when it
// cannot, so that a test never goes on with set-up it did not get.
inline void write_file(const std::string& path, const std::string& text) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    if (!(f << text)) throw std::runtime_error("cannot write " + path);
}

// What the file at path holds, whole.
inline std::string read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

}  // namespace testing_support
