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
