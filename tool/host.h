// Small host services the tool needs and the C library here lacks, plus the
// Linux stand-ins for process privileges and for telling a mount point.
// mkdirp and OutputRoot, which the companions use too, are declared in
// kelvo_tool.h.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "kelvo_tool.h"
#include "owned.h"

// BSD-style bounded copy and append: the result is always terminated (when
// size > 0) and the return value is the length the whole text would have,
// so a result >= size means the text was cut. C linkage and these exact
// parameter types keep the declarations compatible with a C library that
// provides them.
extern "C" size_t strlcpy(char* dst, const char* src, size_t size);
extern "C" size_t strlcat(char* dst, const char* src, size_t size);

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

// For tests: resolve below a root by walking it one component at a time, as
// on a kernel without openat2, also where openat2 is there.
void output_root_force_walk(bool on);
