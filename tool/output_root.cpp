// Paths below the root prefix. Everything kelvo opens, creates or removes
// below -R is resolved inside the root as though the root were "/", so that
// a symbolic link planted below it (absolute or relative, at the file or at
// one of its directories) cannot lead a write, a chmod, a chown, a mount or
// an unlink out of it.
//
// Linux resolves such paths itself with openat2 and RESOLVE_IN_ROOT. Where
// the kernel lacks it, and for creating directories and removing files,
// the path is walked one component at a time from the root: each component
// is opened with O_NOFOLLOW, a symbolic link is read and its target walked
// in its place (an absolute one from the root again), and ".." never climbs
// above the root. A component swapped for a link between two steps makes the
// next O_NOFOLLOW open fail; it is never followed.
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "host.h"

namespace {

// As the kernel counts them for one path.
constexpr int MAX_LINKS = 40;

bool walk_only = false;  // openat2 is missing here, or a test asked for the walk

void split_into(std::string_view path, std::deque<std::string>* out, bool at_front) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string_view::npos) slash = path.size();
        std::string_view part = path.substr(start, slash - start);
        if (!part.empty() && part != ".") parts.emplace_back(part);
        start = slash + 1;
    }
    if (at_front)
        out->insert(out->begin(), parts.begin(), parts.end());
    else
        out->insert(out->end(), parts.begin(), parts.end());
}

// Where a walk ended: the directory that holds the last component, and that
// component's name; an empty name when the path names a directory itself
// ("/", "a/..", or a path that ends in "/").
struct WalkEnd {
    FileDescriptor dir;
    std::string last;
};

// Walks path from root_fd. Links among the directories are always
// followed; a link at the last component only when follow_last is set.
// With create, directories that are missing on the way are made with mode.
// 0, or -1 with errno.
int walk(int root_fd, std::string_view path, bool follow_last, bool create, mode_t mode,
         WalkEnd* end) {
    std::vector<FileDescriptor> dirs;
    dirs.emplace_back(openat(root_fd, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (dirs.back().get() < 0) return -1;
    std::deque<std::string> pending;
    split_into(path, &pending, false);
    const bool names_directory = !path.empty() && path.back() == '/';
    int links = 0;
    while (!pending.empty()) {
        std::string name = std::move(pending.front());
        pending.pop_front();
        if (name == "..") {
            if (dirs.size() > 1) dirs.pop_back();
            continue;
        }
        const bool last = pending.empty() && !names_directory;
        if (last && !follow_last) {
            end->dir = std::move(dirs.back());
            end->last = std::move(name);
            return 0;
        }
        FileDescriptor fd(openat(dirs.back().get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (fd.get() < 0 && errno == ENOENT && !last && create) {
            if (mkdirat(dirs.back().get(), name.c_str(), mode) != 0 && errno != EEXIST) return -1;
            fd = FileDescriptor(
                openat(dirs.back().get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        }
        if (fd.get() < 0) {
            if (errno != ENOENT || !last) return -1;
            end->dir = std::move(dirs.back());  // a file still to be made
            end->last = std::move(name);
            return 0;
        }
        struct stat st;
        if (fstat(fd.get(), &st) != 0) return -1;
        if (S_ISLNK(st.st_mode)) {
            if (++links > MAX_LINKS) {
                errno = ELOOP;
                return -1;
            }
            std::string target(static_cast<size_t>(st.st_size) + 1, '\0');
            ssize_t n = readlinkat(fd.get(), "", target.data(), target.size());
            if (n < 0) return -1;
            if (static_cast<size_t>(n) >= target.size()) {
                errno = ENAMETOOLONG;  // the link grew since fstat
                return -1;
            }
            target.resize(static_cast<size_t>(n));
            if (!target.empty() && target[0] == '/') dirs.resize(1);
            split_into(target, &pending, true);
            continue;
        }
        if (last) {
            end->dir = std::move(dirs.back());
            end->last = std::move(name);
            return 0;
        }
        if (!S_ISDIR(st.st_mode)) {
            errno = ENOTDIR;
            return -1;
        }
        dirs.push_back(std::move(fd));
    }
    end->dir = std::move(dirs.back());
    end->last.clear();
    return 0;
}

int open_by_walk(int root_fd, const char* path, int flags, mode_t mode) {
    WalkEnd end;
    if (walk(root_fd, path, (flags & O_NOFOLLOW) == 0, false, 0, &end) != 0) return -1;
    if (end.last.empty()) return openat(end.dir.get(), ".", flags, mode);
    return openat(end.dir.get(), end.last.c_str(), flags | O_NOFOLLOW, mode);
}

int open_in_root(int root_fd, const char* path, int flags, mode_t mode) {
    if (!walk_only) {
        struct open_how how {};
        how.flags = static_cast<uint64_t>(flags);
        how.mode = (flags & O_CREAT) != 0 ? mode : 0;
        how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
        for (int attempt = 0; attempt < 8; ++attempt) {
            long fd = syscall(SYS_openat2, root_fd, path, &how, sizeof how);
            if (fd >= 0) return static_cast<int>(fd);
            // EAGAIN: a rename or mount raced the lookup; it may be tried again.
            if (errno != EAGAIN) break;
        }
        if (errno != ENOSYS) return -1;
        walk_only = true;
    }
    return open_by_walk(root_fd, path, flags, mode);
}

}  // namespace

void output_root_force_walk(bool on) { walk_only = on; }

OutputRoot::OutputRoot(const char* root_prefix) {
    if (root_prefix == nullptr) return;
    // An empty prefix puts the file at "/" + name, as the path shown says.
    fd_ = FileDescriptor(
        open(*root_prefix != '\0' ? root_prefix : "/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (fd_.get() < 0) error_ = errno;
}

bool OutputRoot::unusable() const {
    if (error_ == 0) return false;
    errno = error_;
    return true;
}

int OutputRoot::open_file(const char* path, int flags, mode_t mode) const {
    if (!below_root()) return open(path, flags, mode);
    if (unusable()) return -1;
    // An empty name below the root is the root itself, as "<root>/" says.
    return open_in_root(fd_.get(), *path != '\0' ? path : ".", flags, mode);
}

int OutputRoot::make_directories(const char* path, mode_t mode) const {
    if (!below_root()) return mkdirp(path, mode);
    if (unusable()) return -1;
    WalkEnd end;
    if (walk(fd_.get(), path, true, true, mode, &end) != 0) return -1;
    if (end.last.empty()) {
        errno = EEXIST;
        return -1;
    }
    return mkdirat(end.dir.get(), end.last.c_str(), mode) == 0 ? 0 : -1;
}

int OutputRoot::unlink_file(const char* path) const {
    if (!below_root()) return unlink(path);
    if (unusable()) return -1;
    WalkEnd end;
    if (walk(fd_.get(), path, false, false, 0, &end) != 0) return -1;
    if (end.last.empty()) {
        errno = EISDIR;
        return -1;
    }
    return unlinkat(end.dir.get(), end.last.c_str(), 0);
}
