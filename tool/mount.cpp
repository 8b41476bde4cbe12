// Loopback mounts and undo. A "lofs" mount is a Linux bind mount of one file
// over another path; the option words a bind mount can carry are applied by
// a second, remounting call, since the first bind ignores them.
#include <fcntl.h>
#include <libintl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "host.h"
#include "kelvo.h"

namespace {

// The words Linux can apply on a bind mount; anything else (xatrr, or what a
// user adds that belongs to other file systems) is ignored.
struct MountWord {
    const char* word;
    unsigned long set;
    unsigned long clear;
};
constexpr unsigned long ATIME_FLAGS = MS_NOATIME | MS_RELATIME | MS_STRICTATIME;
constexpr MountWord MOUNT_WORDS[] = {
    {"ro", MS_RDONLY, 0},
    {"rw", 0, MS_RDONLY},
    {"nosuid", MS_NOSUID, 0},
    {"suid", 0, MS_NOSUID},
    {"nodev", MS_NODEV, 0},
    {"dev", 0, MS_NODEV},
    {"noexec", MS_NOEXEC, 0},
    {"exec", 0, MS_NOEXEC},
    {"noatime", MS_NOATIME, ATIME_FLAGS},
    {"relatime", MS_RELATIME, ATIME_FLAGS},
    {"strictatime", MS_STRICTATIME, ATIME_FLAGS},
    {"atime", 0, MS_NOATIME},
    {"nodiratime", MS_NODIRATIME, 0},
    {"diratime", 0, MS_NODIRATIME},
};

// Flags of the new bind mount as it stands: a remount replaces the per-mount
// flags wholly, so those inherited from the source (a nodev /tmp, say) are
// kept unless a word asks otherwise. Some of them cannot be dropped without
// privileges the tool need not have.
unsigned long current_flags(const char* path) {
    struct statvfs sv;
    if (statvfs(path, &sv) != 0) return 0;
    unsigned long flags = 0;
    if (sv.f_flag & ST_RDONLY) flags |= MS_RDONLY;
    if (sv.f_flag & ST_NOSUID) flags |= MS_NOSUID;
    if (sv.f_flag & ST_NODEV) flags |= MS_NODEV;
    if (sv.f_flag & ST_NOEXEC) flags |= MS_NOEXEC;
    if (sv.f_flag & ST_NOATIME) flags |= MS_NOATIME;
    if (sv.f_flag & ST_NODIRATIME) flags |= MS_NODIRATIME;
    if (sv.f_flag & ST_RELATIME) flags |= MS_RELATIME;
    return flags;
}

unsigned long apply_words(unsigned long flags, std::string_view options) {
    while (!options.empty()) {
        size_t comma = options.find(',');
        std::string_view word = options.substr(0, comma);
        options = comma == std::string_view::npos ? std::string_view() : options.substr(comma + 1);
        for (const MountWord& w : MOUNT_WORDS) {
            if (word == w.word) {
                flags = (flags & ~w.clear) | w.set;
                break;
            }
        }
    }
    return flags;
}

void report_mount_failure(const char* options, const char* special, const char* mount_point) {
    fprintf(stderr, gettext("mount -F %s -O -o %s %s %s failed: %s\n"), "lofs", options, special,
            mount_point, strerror(errno));
}

}  // namespace

char* lofs_options_create(const char* argument, ssize_t* len) {
    // The room counts a "rstchown," that the string does not hold: the buffer
    // is larger than its text by 9 bytes, and mount gets the whole size.
    // Deliberate: the size is the option buffer's length as mount is told it,
    // the room a "rstchown," would take is kept free behind the text, and
    // file_mount reads the text only up to its terminator, so the spare bytes
    // are never taken for options.
    size_t size = strlen(argument) + strlen("xatrr,nosuid") + strlen("rstchown,") + 2;
    char* options = static_cast<char*>(malloc(size));
    if (options == nullptr) return nullptr;
    snprintf(options, size, "xatrr,nosuid,%s", argument);
    *len = static_cast<ssize_t>(size);
    return options;
}

int file_mount(const char* special, const char* mount_point, const char* options,
               ssize_t options_len, mode_t mode, const char* source) {
    if (access(mount_point, F_OK) != 0) {
        int fd = creat(mount_point, mode);
        if (fd < 0) {
            fprintf(stderr, gettext("Failed to create mount point %s\n"), mount_point);
            return -1;
        }
        close(fd);
    }
    if (mount(source != nullptr ? source : special, mount_point, nullptr, MS_BIND, nullptr) != 0) {
        report_mount_failure(options, special, mount_point);
        return -1;
    }
    // The option text lies within its room; never read past it.
    std::string_view words(options, strnlen(options, static_cast<size_t>(options_len)));
    unsigned long flags = apply_words(current_flags(mount_point), words);
    if (mount(nullptr, mount_point, nullptr, MS_REMOUNT | MS_BIND | flags, nullptr) != 0) {
        report_mount_failure(options, special, mount_point);
        // A mount without its options (a writable one where "ro" was asked)
        // must not stay behind.
        int saved = errno;
        umount2(mount_point, MNT_DETACH);
        errno = saved;
        return -1;
    }
    return 0;
}

int file_unmount(const char* mount_point) {
    if (mount_point[0] != '/') {
        fprintf(stderr, gettext("Mount point is not an absolute path: %s\n"), mount_point);
        return -1;
    }
    struct stat st;
    if (stat(mount_point, &st) != 0) {
        if (errno == ENOENT) return 0;
        fprintf(stderr, gettext("Failed to stat lofs mount point %s: %s\n"), mount_point,
                strerror(errno));
        return -1;
    }
    // The tool mounts only files; a directory that is a mount point belongs
    // to some other file system and is left alone.
    if (S_ISDIR(st.st_mode)) return 0;
    // A path that is no mount point is left alone. An unreadable mount table
    // counts as "not a mount": the unmount would have nothing to go by.
    if (host_is_mount_point(mount_point) != 1) return 0;
    if (umount2(mount_point, 0) == 0) return 0;
    // A daemon holding the old file open keeps it busy; detach it, so that
    // new opens see the new file while the old one lives on for its readers.
    if (errno == EBUSY && umount2(mount_point, MNT_DETACH) == 0) return 0;
    if (errno == EINVAL) return 0;
    fprintf(stderr, gettext("Failed to unmount %s\n"), mount_point);
    return -1;
}

int undo_file(const char* output_file, const char* root_prefix, int mount_flag) {
    if (mount_flag != 0) {
        int result = file_unmount(output_file);
        if (result != 0) return result;
    }
    // No length limit applies: the name is resolved below the root as it is.
    return OutputRoot(root_prefix).unlink_file(output_file) == 0 ? 0 : -1;
}
