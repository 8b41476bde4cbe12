// Small host services the tool needs and the C library here lacks, plus the
// Linux stand-ins for process privileges and for telling a mount point.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "owned.h"

// BSD-style bounded copy and append: the result is always terminated (when
// size > 0) and the return value is the length the whole text would have,
// so a result >= size means the text was cut. C linkage and these exact
// parameter types keep the declarations compatible with a C library that
// provides them.
extern "C" size_t strlcpy(char* dst, const char* src, size_t size);
extern "C" size_t strlcat(char* dst, const char* src, size_t size);

// Creates every missing directory of path with mode (under the process
// umask). 0 when it made the last one; otherwise -1 with errno set, which is
// EEXIST when the whole path already existed as a directory.
int mkdirp(const char* path, mode_t mode);

// The privileges that -L needs.
enum HostPrivilege {
    HOST_PRIV_SYS_MOUNT,       // mount and unmount
    HOST_PRIV_FILE_DAC_WRITE,  // write files regardless of their permission bits
};
// Raises the capability behind the privilege into the effective set. 0, or
// -1 with errno set (EPERM when the permitted set does not hold it).
int host_privilege_acquire(HostPrivilege privilege);

// Decodes the octal escapes (\040 and the like) of a /proc/self/mountinfo
// path field.
std::string mountinfo_unescape(std::string_view field);
// Whether path is, verbatim, the mount point of some entry of mountinfo_text
// (the contents of a mountinfo file).
bool mountinfo_has_mount_point(std::string_view mountinfo_text, std::string_view path);
// Whether path is a mount point of this process's mount namespace: an exact
// match in /proc/self/mountinfo, trying also the path with symbolic links
// and dot segments resolved. -1 with errno set when mountinfo is unreadable.
int host_is_mount_point(const char* path);

// The place output files lie in: below a root prefix, where every path is
// resolved inside the root as though the root were "/" (".." stops at it; a
// symbolic link, absolute or relative, is followed within it), or, without
// one, the paths as they are. Paths given to the operations are the output
// file's name as the command line or the group gives it (below the root) or
// the whole path (without one). A root that cannot be opened as a directory
// makes every operation fail with the errno of that open.
class OutputRoot {
  public:
    // Null: no root prefix. An empty prefix is "/".
    explicit OutputRoot(const char* root_prefix);
    ~OutputRoot();
    OutputRoot(const OutputRoot&) = delete;
    OutputRoot& operator=(const OutputRoot&) = delete;

    bool below_root() const { return fd_ >= 0 || error_ != 0; }
    // open(2) of path: a descriptor the caller closes, or -1 with errno. The
    // last component is followed (within the root) unless flags hold
    // O_NOFOLLOW.
    int open_file(const char* path, int flags, mode_t mode = 0) const;
    // mkdirp of path: 0 when it made the last directory, else -1 with errno
    // (EEXIST when the last one was there already).
    int make_directories(const char* path, mode_t mode) const;
    // unlink(2) of path; a link at its end is removed itself, never what it
    // points to. 0, or -1 with errno.
    int unlink_file(const char* path) const;

  private:
    // True, with errno set, when the root could not be opened.
    bool unusable() const;
    int fd_ = -1;
    int error_ = 0;  // errno of the root's open
};
// For tests: resolve below a root by walking it one component at a time, as
// on a kernel without openat2, also where openat2 is there.
void output_root_force_walk(bool on);
