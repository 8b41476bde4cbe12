// The kelvo program: command line, run control, delivery of a stencil's
// output to a file, configfile mode, loopback mounts and undo. What the
// companions use of it is declared in kelvo_tool.h; this header is the
// program's own.
//
// Everything but main() lives in the library kelvo_tool so that tests link
// exactly what the program runs. The functions here and in kelvo_tool.h
// report a failure with kelvo's message and return a status; only
// kelvo_main turns a status into the end of the process (die, or its return
// value), and only this module turns the layers' result codes into messages.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdarg>
#include <cstdio>

#include "kelvo_tool.h"

// The program's entry; main() only calls this. Returns the exit status.
int kelvo_main(int argc, char** argv);

// Prints "prog: " and the message on standard error, and, for a format
// without a line end, the text of errno (status KELVO_SYSERR) or of the
// repository library's last error (KELVO_QRMERR). Returns status with
// KELVO_ENDS_RUN.
kelvo_error_t report(kelvo_error_t status, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
// report, then the usage text after a KELVO_USAGE message, then the end of
// the process with status. For kelvo's command line alone. Never returns.
[[noreturn]] void die(kelvo_error_t status, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
void usage(FILE* stream);

// Handles the argument of -D ("name=value"); returns only on success.
void add_optarg_define(defines_t* defines, char* argument);

// One generation as kelvo's command line or a configfile group asks for it.
// The texts are borrowed; lofs_options (null: no mount) is the option
// string lofs_options_create made, with its room.
struct StencilJob {
    const char* input_file;   // null: standard input
    const char* output_file;  // null: standard output
    const char* root_prefix;
    const char* stencil_dir;
    mode_t mode;
    const char* owner_name;  // null: the owner stays
    const char* group_name;  // null: the group stays
    char* lofs_options;
    ssize_t lofs_options_len;
    int create_dirs;
    int list_mode;
};
// Loads the stencil, evaluates it, and delivers the text to standard output
// or to the output file below the root prefix (compare first; a file
// already holding the text is left wholly alone). KELVO_SUCCESS,
// KELVO_SYSERR or KELVO_STENERR after the message, or a status with
// KELVO_ENDS_RUN (evaluate_stencil, deliver_to_file).
kelvo_error_t apply_stencil(repository_t* repository, defines_t* defines, const StencilJob& job);

// Writes output to the job's output file as apply_stencil describes:
// compare first, rewrite in place, then mode, owner and, with lofs_options,
// the mount of the file over the output file. Any failure after the open
// for writing removes the file. KELVO_SUCCESS, or KELVO_SYSERR after the
// message; KELVO_SYSERR | KELVO_ENDS_RUN when create_dirs cannot make the
// directories.
kelvo_error_t deliver_to_file(stencil_output_buffer_t* output, const StencilJob& job);
// Reports a failed write of an output to path (a file, or what stands for
// standard output) by the writer's result.
void report_write_failure(stencil_error_t result, const char* path);

// Configfile mode: one output per property group of type "configfile", in
// ascending order of group names. Returns the run's status (with -x, the
// first failing group's, after "kelvo terminated", with KELVO_ENDS_RUN).
// The run variables named in the configfile convention are overwritten for
// each group; the defines are walk_configfiles' own.
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

// Adds the "<group>/defines/*" properties of a group: 0, 1 if any add
// failed, -1 after "Out of memory".
int add_configfile_defines(defines_t* defines, repository_t* repository, const char* group);

// Loopback mounts: the file `special` is shown at `mount_point`.
// The option string that -L builds; *len receives the size of the buffer,
// which is what mount operations get as the option room. Null: no memory.
char* lofs_options_create(const char* argument, ssize_t* len);
// Mounts special on mount_point (made first, an empty file with mode, where
// nothing is there); source, when given, is what is mounted in special's
// stead, special then only naming it in messages. 0, or -1 after a message.
int file_mount(const char* special, const char* mount_point, const char* options,
               ssize_t options_len, mode_t mode, const char* source = nullptr);
int file_unmount(const char* mount_point);
// Unlinks output_file below root_prefix (resolved inside the root), or
// output_file itself without one, after removing the mount on output_file
// when mount_flag is set. 0 or -1.
int undo_file(const char* output_file, const char* root_prefix, int mount_flag);
