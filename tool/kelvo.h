// The kelvo program: command line, run control, delivery of a stencil's
// output to a file, configfile mode, loopback mounts and undo.
//
// Everything but main() lives in the library kelvo_tool so that tests link
// exactly what the program runs. Only this module turns result codes into
// messages and an exit status; the layers below return codes.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdarg>
#include <cstdio>

#include "defines.h"
#include "owned.h"
#include "repository.h"
#include "stencil.h"

// Owners of a define table and of an instance's view.
using DefinesTable = Owned<defines_t, defines_destroy>;
using InstanceView = Owned<repository_t, repository_destroy>;

// Exit statuses. The underlying type is int because a failed undo delivers -1
// through the same variable (seen by the parent as 255).
typedef enum kelvo_error : int {
    KELVO_SUCCESS = 0,
    KELVO_SYSERR = 1,
    KELVO_USAGE = 2,
    KELVO_QRMERR = 3,
    KELVO_STENERR = 4,
} kelvo_error_t;

// The stencil directory when -S is not given; also what usage() shows.
inline constexpr const char* KELVO_DEFAULT_STENCIL_DIR = "/lib/wrn/stencils";

// The program's entry; main() only calls this. Returns the exit status.
int kelvo_main(int argc, char** argv);

// The name messages start with: basename of argv0 (which it may change, and
// which must live to the end of the process). Programs that share this
// library's messages set it first.
void set_program_name(char* argv0);

// Common error exit. Prints "prog: " and the message on standard error, then
// the usage text (status 2), or, for a format without a line end, the text of
// errno (status 1) or of the repository library's last error (status 3).
// Never returns.
[[noreturn]] void die(kelvo_error_t status, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
[[noreturn]] void vdie(kelvo_error_t status, const char* format, va_list args)
    __attribute__((format(printf, 2, 0)));
void usage(FILE* stream);
// Ends a run whose repository failed under a query after binding (a cluster
// lost or hung, a compacted revision) as one that could not bind: status 3,
// "Unable to get properties for WERN: " and the library's text, with the
// view's wern. Nothing of the stencil that met it has been written; outputs
// of earlier configfile groups stay as delivered.
[[noreturn]] void die_repository_failure(repository_t* repository);

// Adds one define, reporting -1 (name exists) and -2 (no memory) on standard
// error; returns the result of defines_add unchanged.
int add_single_define(defines_t* defines, char* name, const char* value);
// Handles the argument of -D ("name=value"); returns only on success.
void add_optarg_define(defines_t* defines, char* argument);

// One whole generation: load the stencil, evaluate it, deliver the text to
// standard output or to output_file below root_prefix (compare first; a file
// already holding the text is left wholly alone). KELVO_SUCCESS, KELVO_SYSERR
// or KELVO_STENERR.
kelvo_error_t apply_stencil(repository_t* repository, defines_t* defines, const char* input_file,
                            const char* output_file, const char* root_prefix,
                            const char* stencil_dir, mode_t mode, const char* owner_name,
                            const char* group_name, char* lofs_options, ssize_t lofs_options_len,
                            int create_dirs, int list_mode);

// The view of the instance `wern`, for every program that reads it as kelvo
// does, owned by the caller; ends the process with kelvo's messages when it
// cannot be had.
InstanceView open_instance_view(const char* wern);

// Flushes standard output at the end of a run: 0, or -1 after saying on
// standard error that the output could not be written.
int finish_standard_output(const char* prog);

// Loads input_file (below stencil_dir when both are set; standard input when
// null) and evaluates it; the output tree goes to *text, which the caller
// destroys. An observer (normal mode only) sees every property reference the
// evaluation visits. KELVO_SUCCESS, or KELVO_SYSERR / KELVO_STENERR after the
// message; a repository that fails under the evaluation ends the process
// (die_repository_failure).
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
// Writes output to output_file below root_prefix (null: none) as
// apply_stencil describes: compare first, rewrite in place, then mode, owner
// and, with lofs_options, the mount of the file over output_file. Any
// failure after the open for writing removes the file. KELVO_SUCCESS, or
// KELVO_SYSERR after the message; dies when create_dirs cannot make the
// directories.
kelvo_error_t deliver_to_file(stencil_output_buffer_t* output, const char* output_file,
                              const char* root_prefix, mode_t mode, const char* owner_name,
                              const char* group_name, char* lofs_options, ssize_t lofs_options_len,
                              int create_dirs);
// Reports a failed write of an output to path (a file, or what stands for
// standard output) by the writer's result.
void report_write_failure(stencil_error_t result, const char* path);
// Looks up owner and group names (either may be null: -1 is left for it),
// the user first. KELVO_SUCCESS, or KELVO_SYSERR after the message.
kelvo_error_t resolve_owner(const char* owner_name, const char* group_name, uid_t* uid, gid_t* gid);

// Configfile mode: one output per property group of type "configfile", in
// ascending order of group names. Returns the run's status. The run variables
// named in the configfile convention are overwritten for each group; the
// defines are walk_configfiles' own.
struct ConfigfileRun {
    const char* root_prefix;
    const char* stencil_dir;
    char* lofs_options;
    ssize_t lofs_options_len;
    int create_dirs;
    int list_mode;
    int undo;
    int stop_on_error;
};
int run_configfiles(repository_t* repository, const ConfigfileRun& run);

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
// The walk under run_configfiles, for every program that handles the groups
// as kelvo does: groups in ascending name order, a bad description reported
// with kelvo's messages (status KELVO_QRMERR), with_defines adds the group's
// defines to the walk's table before the visit and starts a fresh table
// after it (a group whose defines fail leaves the table as it is). With
// stop_on_error, the first failing group ends the process. Returns the
// status of the last group that set one; `failed` receives the number of
// groups that ended with another status than KELVO_SUCCESS.
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
// Adds the "<group>/defines/*" properties of a group; 0, or 1 if any add failed.
int add_configfile_defines(defines_t* defines, repository_t* repository, const char* group);

// Loopback mounts: the file `special` is shown at `mount_point`.
// The option string that -L builds; *len receives the size of the buffer,
// which is what mount operations get as the option room. Null: no memory.
char* lofs_options_create(const char* argument, ssize_t* len);
int file_mount(const char* special, const char* mount_point, const char* options,
               ssize_t options_len, mode_t mode);
int file_unmount(const char* mount_point);
// Unlinks <root_prefix>/<output_file> (or output_file), after removing the
// mount on output_file when mount_flag is set. 0 or -1.
int undo_file(const char* output_file, const char* root_prefix, int mount_flag);
