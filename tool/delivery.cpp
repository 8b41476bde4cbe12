// Delivery of an evaluated stencil to a file: the plan found by reading
// alone, the rewrite in place, mode, owner and the mount over the path.
#include <fcntl.h>
#include <grp.h>
#include <libgen.h>
#include <libintl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "host.h"
#include "kelvo.h"
#include "stencil.h"

namespace {

// Reports a failed open of the output file by errno; for_writing selects the
// column of the open for writing, where ENOENT, EISDIR and ENAMETOOLONG are
// no special case and EROFS is.
void report_open_failure(int err, const char* path, bool for_writing) {
    if (err == ENOMEM) {
        fprintf(stderr, gettext("Out of memory\n"));
    } else if (err == EACCES) {
        fprintf(stderr, gettext("Insufficient permissions to access %s\n"), path);
    } else if (err == EISDIR && !for_writing) {
        fprintf(stderr, gettext("%s exists and is a directory\n"), path);
    } else if (err == EMFILE) {
        fprintf(stderr, "%s", gettext("Ran out of file descriptors"));
    } else if (err == ENAMETOOLONG && !for_writing) {
        fprintf(stderr, gettext("Output filename %s is too long\n"), path);
    } else if (err == EROFS && for_writing) {
        fprintf(stderr, gettext("Could not write %s: filesystem is mounted read-only\n"), path);
    } else {
        fprintf(stderr, gettext("Could not open output file at %s: %s\n"), path, strerror(err));
    }
}

// A device, a FIFO or a socket where the output should be: kelvo writes
// regular files only, and leaves anything else exactly as it found it.
void report_not_regular(const char* path) {
    fprintf(stderr, gettext("%s exists and is not a regular file\n"), path);
}

enum class Existing { NONE, REGULAR, DIRECTORY, OTHER, FAILED };

// Opens the output as it exists for reading. Nothing but a regular file is
// opened for real: the first look goes through an O_PATH descriptor, which
// runs no driver's open (a device's open may act on the device) and does not
// wait for a FIFO's writer. REGULAR with *fd and *st set; FAILED with errno
// set; NONE when there is no file yet.
Existing open_existing(const OutputRoot& root, const char* path, FileDescriptor* fd,
                       struct stat* st) {
    FileDescriptor probe(root.open_file(path, O_PATH | O_CLOEXEC));
    if (probe.get() < 0) return errno == ENOENT ? Existing::NONE : Existing::FAILED;
    if (fstat(probe.get(), st) != 0) return Existing::FAILED;
    if (S_ISDIR(st->st_mode)) return Existing::DIRECTORY;
    if (!S_ISREG(st->st_mode)) return Existing::OTHER;
    // Opened again by its path; what stands there now is looked at again.
    FileDescriptor opened(root.open_file(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (opened.get() < 0) return errno == ENOENT ? Existing::NONE : Existing::FAILED;
    if (fstat(opened.get(), st) != 0) return Existing::FAILED;
    if (!S_ISREG(st->st_mode)) return S_ISDIR(st->st_mode) ? Existing::DIRECTORY : Existing::OTHER;
    *fd = std::move(opened);
    return Existing::REGULAR;
}

// The name an operation below the root is given: the output file's own
// name below a root prefix, the whole path without one.
const char* place_of(const OutputRoot& root, const char* output_file, const char* output_path) {
    return root.below_root() ? output_file : output_path;
}

kelvo_error_t plan_in(const OutputRoot& root, stencil_output_buffer_t* output,
                      const char* output_file, const char* root_prefix, DeliveryPlan* plan);

// Delivery of an evaluated stencil to a file. The file is rewritten in place
// (no temporary and rename): its inode, and so a mount or a daemon's open
// descriptor, stays the same. Once the open for writing succeeded, every
// failure removes the file, so that no half-made file is left behind.
class FileDelivery {
  public:
    FileDelivery(const char* output_file, const char* root_prefix)
        : output_file_(output_file), root_prefix_(root_prefix), root_(root_prefix) {}
    ~FileDelivery() {
        if (written_ && !succeeded_) root_.unlink_file(place());
    }
    FileDelivery(const FileDelivery&) = delete;
    FileDelivery& operator=(const FileDelivery&) = delete;

    kelvo_error_t deliver(stencil_output_buffer_t* output, const StencilJob& job) {
        // Compare first: a file that already holds the text gets no write, no
        // mode, no owner and no mount, and keeps its times.
        DeliveryPlan plan;
        kelvo_error_t planned = plan_in(root_, output, output_file_, root_prefix_, &plan);
        memcpy(output_path_, plan.output_path, sizeof output_path_);
        if (planned != KELVO_SUCCESS) return planned;
        if (plan.action == DELIVERY_UNCHANGED) return succeed();

        if (job.create_dirs && !make_directories())
            return report(KELVO_SYSERR,
                          gettext("Failed to create intermediate directories at %s: %s\n"),
                          directory_of_output(), strerror(errno));
        if (!write_text(output, job.mode)) return KELVO_SYSERR;
        if (!set_mode_and_owner(job.mode, job.owner_name, job.group_name)) return KELVO_SYSERR;
        fd_ = FileDescriptor();

        // The file below the prefix is shown at the path without it. A mount
        // left by an earlier run goes first; no mount is tried after a
        // failed unmount.
        if (job.lofs_options != nullptr) {
            if (file_unmount(output_file_) != 0) return KELVO_SYSERR;
            if (mount_written(job.lofs_options, job.lofs_options_len, job.mode) != 0)
                return KELVO_SYSERR;
        }
        return succeed();
    }

  private:
    const char* place() const { return place_of(root_, output_file_, output_path_); }

    // Below a root prefix the file mounted is the one the root resolves the
    // name to, reached through its descriptor, not whatever a link in the
    // joined path would lead mount(2) to. Messages name the path as ever.
    int mount_written(const char* options, ssize_t options_len, mode_t mode) {
        if (!root_.below_root())
            return file_mount(output_path_, output_file_, options, options_len, mode);
        FileDescriptor fd(root_.open_file(place(), O_PATH | O_CLOEXEC));
        char source[64];
        snprintf(source, sizeof source, "/proc/self/fd/%d", fd.get());
        // Without /proc (a bare chroot) the path is all there is to mount.
        const char* from = fd.get() >= 0 && access(source, F_OK) == 0 ? source : nullptr;
        return file_mount(output_path_, output_file_, options, options_len, mode, from);
    }

    kelvo_error_t succeed() {
        succeeded_ = true;
        return KELVO_SUCCESS;
    }

    // Opens the file for writing (from here on a failure removes it) and
    // writes the text. False after the message.
    bool write_text(stencil_output_buffer_t* output, mode_t mode) {
        // O_NONBLOCK: a FIFO put in the file's place since the compare makes
        // the open fail rather than wait for a reader.
        fd_ = FileDescriptor(root_.open_file(
            place(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, mode));
        if (fd_.get() < 0 && errno == ENXIO) {
            report_not_regular(output_path_);
            return false;
        }
        if (fd_.get() < 0) {
            report_open_failure(errno, output_path_, true);
            return false;
        }
        struct stat st;
        if (fstat(fd_.get(), &st) == 0 && !S_ISREG(st.st_mode)) {
            report_not_regular(output_path_);
            return false;  // not made here: left in place, unchanged
        }
        written_ = true;

        stencil_error_t result = stencil_output_buffer_emit(output, fd_.get());
        if (result != STENCIL_SUCCESS) {
            report_write_failure(result, output_path_);
            return false;
        }
        return true;
    }

    // The mode always; the owner only when -u or -g named one. False after
    // the message.
    bool set_mode_and_owner(mode_t mode, const char* owner_name, const char* group_name) {
        int rc;
        while ((rc = fchmod(fd_.get(), mode)) != 0 && errno == EINTR) {
        }
        if (rc != 0) {
            fprintf(stderr, gettext("Could not chmod output file: %s\n"), strerror(errno));
            return false;
        }

        uid_t uid = static_cast<uid_t>(-1);
        gid_t gid = static_cast<gid_t>(-1);
        if (resolve_owner(owner_name, group_name, &uid, &gid) != KELVO_SUCCESS) return false;
        if (uid == static_cast<uid_t>(-1) && gid == static_cast<gid_t>(-1)) return true;
        while ((rc = fchown(fd_.get(), uid, gid)) != 0 && errno == EINTR) {
        }
        if (rc != 0) {
            // "Could now" is kept letter for letter, slip included: the
            // messages are part of what the program promises, and what
            // watches its output matches on the text as it always was.
            fprintf(stderr, gettext("Could now chown output file: %s\n"), strerror(errno));
            return false;
        }
        return true;
    }
    // dirname may change its argument, so it gets a copy. The directory that
    // exists already (EEXIST) is the common case, not a failure. False with
    // errno set.
    bool make_directories() const {
        char below[sizeof output_path_];
        strlcpy(below, place(), sizeof below);
        return root_.make_directories(dirname(below), 0755) == 0 || errno == EEXIST;
    }
    // The directory of the output path, as the message of a failed
    // make_directories names it; errno is kept.
    const char* directory_of_output() {
        const int saved = errno;
        memcpy(directory_, output_path_, sizeof directory_);
        const char* directory = dirname(directory_);
        errno = saved;
        return directory;
    }

    const char* output_file_;
    const char* root_prefix_;
    OutputRoot root_;
    char output_path_[1024];
    char directory_[1024];
    FileDescriptor fd_;
    bool written_ = false;    // the open for writing succeeded
    bool succeeded_ = false;  // the call ends with KELVO_SUCCESS
};

}  // namespace

void report_write_failure(stencil_error_t result, const char* path) {
    switch (result) {
        case STENCIL_ERROR_TOO_BIG:
            fprintf(stderr, gettext("Could not write %s: File size exceeds process limit\n"), path);
            break;
        case STENCIL_ERROR_NO_SPACE:
            fprintf(stderr, gettext("Could not write %s: filesystem full\n"), path);
            break;
        default:  // STENCIL_ERROR_IO, and any failure the writer does not name
            fprintf(stderr, gettext("Could not write %s: IO error\n"), path);
            break;
    }
}

namespace {

kelvo_error_t plan_in(const OutputRoot& root, stencil_output_buffer_t* output,
                      const char* output_file, const char* root_prefix, DeliveryPlan* plan) {
    // An absolute output_file still lies below the prefix: "/r" and "/a"
    // give "/r//a". Neither part is normalised.
    char* output_path = plan->output_path;
    const size_t room = sizeof plan->output_path;
    output_path[0] = '\0';
    plan->action = DELIVERY_CREATE;
    if (root_prefix != nullptr) snprintf(output_path, room, "%s/", root_prefix);
    if (strlcat(output_path, output_file, room) >= room) {
        fprintf(stderr, gettext("Output filename %s is too long\n"), output_path);
        return KELVO_SYSERR;
    }

    FileDescriptor fd;
    switch (open_existing(root, place_of(root, output_file, output_path), &fd, &plan->current)) {
        case Existing::NONE:
            return KELVO_SUCCESS;
        case Existing::REGULAR:
            break;
        case Existing::DIRECTORY:
            report_open_failure(EISDIR, output_path, false);
            return KELVO_SYSERR;
        case Existing::OTHER:
            report_not_regular(output_path);
            return KELVO_SYSERR;
        case Existing::FAILED:
            report_open_failure(errno, output_path, false);
            return KELVO_SYSERR;
    }
    stencil_error_t error = STENCIL_SUCCESS;
    int differs = stencil_output_buffer_cmp(output, fd.get(), &error);
    // A comparison that could not read the file proves nothing; the file is
    // rewritten rather than trusted.
    plan->action = differs == 0 && error == STENCIL_SUCCESS ? DELIVERY_UNCHANGED : DELIVERY_REWRITE;
    return KELVO_SUCCESS;
}

}  // namespace

kelvo_error_t plan_delivery(stencil_output_buffer_t* output, const char* output_file,
                            const char* root_prefix, DeliveryPlan* plan) {
    OutputRoot root(root_prefix);
    return plan_in(root, output, output_file, root_prefix, plan);
}

kelvo_error_t resolve_owner(const char* owner_name, const char* group_name, uid_t* uid,
                            gid_t* gid) {
    // User first; a group is looked up only once the user is known.
    *uid = static_cast<uid_t>(-1);
    *gid = static_cast<gid_t>(-1);
    if (owner_name != nullptr) {
        struct passwd* pw = getpwnam(owner_name);
        if (pw == nullptr) {
            fprintf(stderr, gettext("User %s does not exist\n"), owner_name);
            return KELVO_SYSERR;
        }
        *uid = pw->pw_uid;
    }
    if (group_name != nullptr) {
        struct group* gr = getgrnam(group_name);
        if (gr == nullptr) {
            fprintf(stderr, gettext("Group %s does not exist\n"), group_name);
            return KELVO_SYSERR;
        }
        *gid = gr->gr_gid;
    }
    return KELVO_SUCCESS;
}
kelvo_error_t deliver_to_file(stencil_output_buffer_t* output, const StencilJob& job) {
    FileDelivery delivery(job.output_file, job.root_prefix);
    return delivery.deliver(output, job);
}
