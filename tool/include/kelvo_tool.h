// What the companion programs (kelvo-diff, kelvo-lint, kelvo-apply) use of
// kelvo: its statuses and messages, the view of an instance, the evaluation
// of a stencil, the delivery plan, the walk of the configfile groups, the
// place output files lie in, and the command line they share. Everything
// here returns a status and leaves the end of the process to the caller;
// messages name the program set_program_name was given.
#pragma once

#include <getopt.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "defines.h"
#include "owned.h"
#include "repository.h"
#include "stencil.h"

// Owners of a define table and of an instance's view.
using DefinesTable = Owned<defines_t, defines_destroy>;
using InstanceView = Owned<repository_t, repository_destroy>;

// kelvo's exit statuses. The underlying type is int because a failed undo
// delivers -1 through the same variable (seen by the parent as 255).
typedef enum kelvo_error : int {
    KELVO_SUCCESS = 0,
    KELVO_SYSERR = 1,
    KELVO_USAGE = 2,
    KELVO_QRMERR = 3,
    KELVO_STENERR = 4,
    // Or'ed into a status by a function that reported a failure after which
    // the run cannot go on (the repository failed under a query, the heap
    // ran out, a directory could not be made): its callers stop at once and
    // hand it up; the program ends with exit_status() of it.
    KELVO_ENDS_RUN = 0x100,
} kelvo_error_t;

// Whether status carries KELVO_ENDS_RUN.
inline bool ends_run(int status) { return status >= KELVO_ENDS_RUN; }
// The exit status a status stands for: without KELVO_ENDS_RUN.
inline int exit_status(int status) { return ends_run(status) ? status & 0xff : status; }

// The stencil directory when -S is not given; also what usage texts show.
inline constexpr const char* KELVO_DEFAULT_STENCIL_DIR = "/lib/wrn/stencils";

// The name messages start with: basename of argv0 (which it may change, and
// which must live to the end of the process). Programs that share this
// library's messages set it first.
void set_program_name(char* argv0);

// The command line every companion shares: -f WERN (default $QRM_WERN), -R
// and -S where the option string has them, its own options through take,
// no words after the options, a wern required. Messages are kelvo's, in
// kelvo's order. The texts point into argv.
struct CompanionCommandLine {
    const char* options;         // getopt's option string, "+" first
    const struct option* longs;  // null: no long options
    // The companion's usage text for prog.
    void (*print_usage)(FILE* stream, const char* prog);
    // An option other than -f, -R, -S with its argument (null: none): false
    // refuses the command line (after a message of the caller's, if any).
    bool (*take)(int option, const char* argument, void* context);
    // The companion's own refusals, asked before the check for a wern
    // (after_wern 0) and after it (1): a message format with one %s for the
    // program name, or null.
    const char* (*refuse)(const void* context, int after_wern);
    void* context;
    // Filled by parse_companion_command_line; stencil_dir keeps the
    // caller's default unless -S is given.
    const char* prog = nullptr;
    const char* wern = nullptr;
    const char* root_prefix = nullptr;
    const char* stencil_dir = nullptr;
};
// Sets the program name and reads argv into line. True when the run may
// go on; false after the refusal and the usage text on standard error (the
// companion then ends with its usage status).
bool parse_companion_command_line(int argc, char** argv, CompanionCommandLine& line);

// The view of the instance wern into *view, owned by the caller.
// KELVO_SUCCESS, or after kelvo's message KELVO_QRMERR (the repository or
// the instance could not be had) or KELVO_SYSERR (no memory), each with
// KELVO_ENDS_RUN; *view then holds nothing.
kelvo_error_t open_instance_view(const char* wern, InstanceView* view);

// Flushes standard output at the end of a run: 0, or -1 after saying on
// standard error that the output could not be written.
int finish_standard_output(const char* prog);

// Adds one define; on failure says why on standard error (the name exists,
// no memory). Returns the result of defines_add unchanged.
support_result_t add_single_define(defines_t* defines, char* name, const char* value);

// Loads input_file (below stencil_dir when both are set; standard input when
// null) and evaluates it; the output tree goes to *text, which the caller
// destroys (null on failure). An observer (normal mode only) sees every
// property reference the evaluation visits. KELVO_SUCCESS, or after the
// message KELVO_SYSERR / KELVO_STENERR, or KELVO_QRMERR | KELVO_ENDS_RUN
// when the repository failed under the evaluation ("Unable to get
// properties for WERN: " and the library's text).
kelvo_error_t evaluate_stencil(repository_t* repository, defines_t* defines, const char* input_file,
                               const char* stencil_dir, int list_mode,
                               stencil_output_buffer_t** text,
                               stencil_reference_fn observer = nullptr, void* context = nullptr);
// The path a stencil is read from, as messages show it: input_file below
// stencil_dir (a path over 1023 bytes is cut), input_file alone without a
// directory, "(standard input)" without a file. Points into buffer or at
// input_file.
const char* stencil_path(const char* input_file, const char* stencil_dir, char (&buffer)[1024]);

// What delivering a text to a file would do, found by reading alone: the
// file is created, rewritten, or left wholly alone because it holds the
// text already. Only a rewritten or created file gets mode and owner.
enum DeliveryAction { DELIVERY_UNCHANGED, DELIVERY_CREATE, DELIVERY_REWRITE };
struct DeliveryPlan {
    char output_path[1024];  // "<root_prefix>/<output_file>", or output_file
    DeliveryAction action;
    struct stat current;  // the file as found; set unless action is DELIVERY_CREATE
};
// Fills *plan for output_file below root_prefix (null: none). KELVO_SUCCESS,
// or KELVO_SYSERR after the message (path too long, file unreadable).
kelvo_error_t plan_delivery(stencil_output_buffer_t* output, const char* output_file,
                            const char* root_prefix, DeliveryPlan* plan);
// Looks up owner and group names (either may be null: -1 is left for it),
// the user first. KELVO_SUCCESS, or KELVO_SYSERR after the message.
kelvo_error_t resolve_owner(const char* owner_name, const char* group_name, uid_t* uid, gid_t* gid);

// One configfile group as read from the instance; strings are borrowed from
// the repository view.
struct ConfigfileGroup {
    const char* name;
    const char* output_file;  // "path"
    const char* input_file;   // "stencil"
    mode_t mode;
    const char* owner_name;  // null when the group names none
    const char* group_name;
};
// What is done with each group that is enabled and well described: returns
// the group's status. `defines` holds the group's defines unless the walk
// leaves them out; the walk owns it.
typedef int (*ConfigfileVisit)(const ConfigfileGroup& group, defines_t* defines, void* context);
// The walk of the configfile groups, for every program that handles them as
// kelvo -a does: groups in ascending name order, a bad description reported
// with kelvo's messages (status KELVO_QRMERR), with_defines adds the group's
// defines to the walk's table before the visit and starts a fresh table
// after it (a group whose defines fail leaves the table as it is). The walk
// stops at a status with KELVO_ENDS_RUN (a visit's, or its own after its
// message) and returns it; with stop_on_error it stops at the first failing
// group. Otherwise returns the status of the last group that set one.
// `failed` receives the number of groups that ended with another status
// than KELVO_SUCCESS.
struct ConfigfileWalk {
    int with_defines;
    int stop_on_error;
    ConfigfileVisit visit;
    void* context;
    int failed;
};
int walk_configfiles(repository_t* repository, ConfigfileWalk& walk);

// Reads the single-valued property `name` of the group whose name, plus "/",
// stands at the start of property_path. 0 (value or null when optional and
// missing) or -1 after a message.
int get_single_property(repository_t* repository, const char* name, char* property_path,
                        size_t name_start, size_t name_room, int optional, const char** value);

// Creates every missing directory of path with mode (under the process
// umask). 0 when it made the last one; otherwise -1 with errno set, which is
// EEXIST when the whole path already existed as a directory.
int mkdirp(const char* path, mode_t mode);

// The owner of a file descriptor: closes it when it goes (-1: none), keeping
// errno as it was, so that a failure's errno survives the clean-up on the
// way out. Move-only.
class FileDescriptor {
  public:
    explicit FileDescriptor(int fd = -1) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = other.fd_;
            other.fd_ = -1;
        }
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }
    int get() const { return fd_; }

  private:
    void reset() {
        if (fd_ >= 0) {
            const int saved = errno;
            close(fd_);
            errno = saved;
        }
        fd_ = -1;
    }
    int fd_;
};

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
    OutputRoot(const OutputRoot&) = delete;
    OutputRoot& operator=(const OutputRoot&) = delete;

    bool below_root() const { return fd_.get() >= 0 || error_ != 0; }
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
    FileDescriptor fd_;
    int error_ = 0;  // errno of the root's open
};
