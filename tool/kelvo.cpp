// The entry of the program, its error exit, and the generation of one output.
#include "kelvo.h"

#include <fcntl.h>
#include <getopt.h>
#include <grp.h>
#include <libgen.h>
#include <libintl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "hgx.h"
#include "host.h"
#include "stencil.h"

namespace {

// basename(argv[0]) from the start of kelvo_main to the end of the process.
// Until then (a die from a test harness, say) the messages say "kelvo".
const char* prog_name = "kelvo";

// What stands for the path in messages about standard input and output, where
// there is no path to print.
constexpr const char* STDIN_NAME = "(standard input)";
constexpr const char* STDOUT_NAME = "(standard output)";

// The -m text: octal, nothing after the digits, no setuid or setgid bit.
// Only those two bits are refused; the sticky bit and higher bits pass.
mode_t parse_mode_option(const char* text) {
    char* end = nullptr;
    errno = 0;
    unsigned long value = strtoul(text, &end, 8);
    mode_t mode = static_cast<mode_t>(static_cast<uint32_t>(value));
    if (errno != 0 || end == text || (mode & 06000) != 0 || *end != '\0')
        die(KELVO_USAGE, gettext("Invalid mode: %s\n"), text);
    return mode;
}

// The mount option string of -L. It lives until the process ends, and is
// handed to every mount of the run; the last -L decides its text.
heap_text lofs_storage;

// -L: the privileges first, so that a process without them ends here even
// when the rest of the command line is bad.
void take_lofs_options(const char* argument, char** options, ssize_t* len) {
    if (host_privilege_acquire(HOST_PRIV_SYS_MOUNT) < 0)
        die(KELVO_SYSERR, gettext("Unable to acquire sys_mount privileges"));
    if (host_privilege_acquire(HOST_PRIV_FILE_DAC_WRITE) < 0)
        die(KELVO_SYSERR, gettext("Unable to acquire file_dac_write privileges"));
    ssize_t new_len = 0;
    char* new_options = lofs_options_create(argument, &new_len);
    if (new_options == nullptr) die(KELVO_SYSERR, gettext("Out of memory\n"));
    lofs_storage.reset(new_options);
    *options = new_options;
    *len = new_len;
}

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

// Delivery of an evaluated stencil to a file. The file is rewritten in place
// (no temporary and rename): its inode, and so a mount or a daemon's open
// descriptor, stays the same. Once the open for writing succeeded, every
// failure removes the file, so that no half-made file is left behind.
class file_delivery {
  public:
    file_delivery(const char* output_file, const char* root_prefix)
        : output_file_(output_file), root_prefix_(root_prefix) {}
    ~file_delivery() {
        if (fd_ >= 0) close(fd_);
        if (written_ && !succeeded_) unlink(output_path_);
    }
    file_delivery(const file_delivery&) = delete;
    file_delivery& operator=(const file_delivery&) = delete;

    kelvo_error_t deliver(stencil_output_buffer_t* output, mode_t mode, const char* owner_name,
                          const char* group_name, char* lofs_options, ssize_t lofs_options_len,
                          int create_dirs) {
        // Compare first: a file that already holds the text gets no write, no
        // mode, no owner and no mount, and keeps its times.
        delivery_plan plan;
        kelvo_error_t planned = plan_delivery(output, output_file_, root_prefix_, &plan);
        memcpy(output_path_, plan.output_path, sizeof output_path_);
        if (planned != KELVO_SUCCESS) return planned;
        if (plan.action == DELIVERY_UNCHANGED) return succeed();

        if (create_dirs) make_directories();

        fd_ = open(output_path_, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
        if (fd_ < 0) {
            report_open_failure(errno, output_path_, true);
            return KELVO_SYSERR;
        }
        written_ = true;

        stencil_error_t result = stencil_output_buffer_emit(output, fd_);
        if (result != STENCIL_SUCCESS) {
            report_write_failure(result, output_path_);
            return KELVO_SYSERR;
        }
        int rc;
        while ((rc = fchmod(fd_, mode)) != 0 && errno == EINTR) {
        }
        if (rc != 0) {
            fprintf(stderr, gettext("Could not chmod output file: %s\n"), strerror(errno));
            return KELVO_SYSERR;
        }

        uid_t uid = static_cast<uid_t>(-1);
        gid_t gid = static_cast<gid_t>(-1);
        if (resolve_owner(owner_name, group_name, &uid, &gid) != KELVO_SUCCESS) return KELVO_SYSERR;
        if (uid != static_cast<uid_t>(-1) || gid != static_cast<gid_t>(-1)) {
            while ((rc = fchown(fd_, uid, gid)) != 0 && errno == EINTR) {
            }
            if (rc != 0) {
                fprintf(stderr, gettext("Could now chown output file: %s\n"), strerror(errno));
                return KELVO_SYSERR;
            }
        }
        close(fd_);
        fd_ = -1;

        // The file below the prefix is shown at the path without it. A mount
        // left by an earlier run goes first; no mount is tried after a
        // failed unmount.
        if (lofs_options != nullptr) {
            if (file_unmount(output_file_) != 0) return KELVO_SYSERR;
            if (file_mount(output_path_, output_file_, lofs_options, lofs_options_len, mode) != 0)
                return KELVO_SYSERR;
        }
        return succeed();
    }

  private:
    kelvo_error_t succeed() {
        succeeded_ = true;
        return KELVO_SUCCESS;
    }

    // dirname may change its argument, so it gets a copy. The directory that
    // exists already (EEXIST) is the common case, not a failure.
    void make_directories() {
        char copy[sizeof output_path_];
        memcpy(copy, output_path_, sizeof copy);
        const char* directory = dirname(copy);
        if (mkdirp(directory, 0755) != 0 && errno != EEXIST)
            die(KELVO_SYSERR, gettext("Failed to create intermediate directories at %s: %s\n"),
                directory, strerror(errno));
    }

    const char* output_file_;
    const char* root_prefix_;
    char output_path_[1024];
    int fd_ = -1;
    bool written_ = false;    // the open for writing succeeded
    bool succeeded_ = false;  // the call ends with KELVO_SUCCESS
};

}  // namespace

void set_program_name(char* argv0) { prog_name = basename(argv0); }

repository_t* open_instance_view(const char* wern) {
    repository_t* repository = nullptr;
    int status = repository_create(wern, nullptr, &repository);
    if (status == REPOSITORY_NO_MEMORY) die(KELVO_SYSERR, gettext("Out of memory\n"));
    if (status != REPOSITORY_SUCCESS)
        die(KELVO_QRMERR, gettext("Unable to get properties for %s"), wern);
    return repository;
}

int finish_standard_output(const char* prog) {
    if (fflush(stdout) == 0) return 0;
    fprintf(stderr, gettext("%s: Could not write %s: %s\n"), prog, STDOUT_NAME, strerror(errno));
    return -1;
}

const char* stencil_path(const char* input_file, const char* stencil_dir, char (&buffer)[1024]) {
    if (input_file == nullptr) return STDIN_NAME;
    if (stencil_dir == nullptr) return input_file;
    // The "/" always stands between, so an absolute input_file still lies
    // below the stencil directory. A path over 1023 bytes is cut and tried
    // as cut.
    snprintf(buffer, sizeof buffer, "%s/%s", stencil_dir, input_file);
    return buffer;
}

kelvo_error_t plan_delivery(stencil_output_buffer_t* output, const char* output_file,
                            const char* root_prefix, delivery_plan* plan) {
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

    int fd = open(output_path, O_RDONLY | O_CLOEXEC);
    // Linux opens a directory read-only without complaint; the compare
    // would only fail on it later, with a less telling message.
    if (fd >= 0 && fstat(fd, &plan->current) == 0 && S_ISDIR(plan->current.st_mode)) {
        close(fd);
        fd = -1;
        errno = EISDIR;
    }
    if (fd < 0) {
        if (errno == ENOENT) return KELVO_SUCCESS;
        report_open_failure(errno, output_path, false);
        return KELVO_SYSERR;
    }
    stencil_error_t error = STENCIL_SUCCESS;
    int differs = stencil_output_buffer_cmp(output, fd, &error);
    close(fd);
    // A comparison that could not read the file proves nothing; the file is
    // rewritten rather than trusted.
    plan->action = differs == 0 && error == STENCIL_SUCCESS ? DELIVERY_UNCHANGED : DELIVERY_REWRITE;
    return KELVO_SUCCESS;
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

void usage(FILE* stream) {
    fprintf(stream, gettext("Usage: %s "), prog_name);
    fputs(gettext("[-alux] [-D name=value]... [-f wern] [-g group] [-i file]\n"
                  "\t[-m mode] [-o file] [-O user] [-R dir [-L opts [-p]]] [-S dir]\n\n"),
          stream);
    fprintf(stream,
            gettext("\t-a  process all configfile dependencies for wern\n"
                    "\t-D  define name as value\n"
                    "\t-f  set instance wern (default is $QRM_WERN)\n"
                    "\t-g  set the group any output files are associated with\n"
                    "\t-i  set input file (default is stdin)\n"
                    "\t-l  list referenced properties from input file\n"
                    "\t-L  use lofs <opts> to loopback mount the output file(s)\n"
                    "\t-m  set output file mode (default is %o)\n"
                    "\t-o  set output file (default is stdout)\n"
                    "\t-O  set the owner of any output files\n"
                    "\t-p  create intermediate directories\n"
                    "\t-R  set root prefix for all output files\n"
                    "\t-S  set stencil directory (default is %s)\n"
                    "\t-u  unlink output file(s) and undo any lofs mounts\n"
                    "\t-x  terminate kelvo on any error\n"),
            0644u, KELVO_DEFAULT_STENCIL_DIR);
}

void vdie(kelvo_error_t status, const char* format, va_list args) {
    // Printing may change both; the suffix must tell the failure's cause.
    int saved_errno = errno;
    hgx_error_t saved_hgx = hgx_error();
    fprintf(stderr, "%s: ", prog_name);
    vfprintf(stderr, format, args);
    if (status == KELVO_USAGE) {
        usage(stderr);
    } else if (strchr(format, '\n') == nullptr) {
        if (status == KELVO_SYSERR)
            fprintf(stderr, ": %s (%d)\n", strerror(saved_errno), saved_errno);
        else if (status == KELVO_QRMERR)
            fprintf(stderr, ": %s\n", hgx_strerror(saved_hgx));
        else
            fputs("\n", stderr);
    }
    exit(status);
}

void die(kelvo_error_t status, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vdie(status, format, args);
}

int add_single_define(defines_t* defines, char* name, const char* value) {
    int result = defines_add(defines, name, value);
    if (result == -2)
        fprintf(stderr, gettext("Out of memory\n"));
    else if (result == -1)
        fprintf(stderr, gettext("Invalid define: %s already exists\n"), name);
    return result;
}

void add_optarg_define(defines_t* defines, char* argument) {
    // The copy is cut at the "="; the argument stays whole for the message.
    heap_text copy(strdup(argument));
    if (!copy) die(KELVO_SYSERR, gettext("Out of memory\n"));
    char* equals = strchr(copy.get(), '=');
    // No line end: errno's text follows, whatever errno holds here.
    if (equals == nullptr) die(KELVO_SYSERR, gettext("Invalid -D argument: %s"), argument);
    *equals = '\0';
    if (add_single_define(defines, copy.get(), equals + 1) != 0) exit(1);
}

kelvo_error_t evaluate_stencil(repository_t* repository, defines_t* defines, const char* input_file,
                               const char* stencil_dir, int list_mode,
                               stencil_output_buffer_t** text, stencil_reference_fn observer,
                               void* context) {
    *text = nullptr;
    stencil_output_mode_t output_mode =
        list_mode == 1 ? STENCIL_OUTPUT_LIST_PROPERTIES : STENCIL_OUTPUT_NORMAL;

    char buffer[1024];
    const char* shown_path = stencil_path(input_file, stencil_dir, buffer);
    const char* path = input_file != nullptr ? shown_path : nullptr;

    stencil_t* raw_stencil = nullptr;
    stencil_error_t result = stencil_load(path, &raw_stencil, defines);
    owned<stencil_t, stencil_destroy> stencil(raw_stencil);
    switch (result) {
        case STENCIL_SUCCESS:
            break;
        case STENCIL_ERROR_LONG_FILENAME:
            fprintf(stderr, gettext("Stencil filename %s is too long\n"), shown_path);
            return KELVO_SYSERR;
        case STENCIL_ERROR_NO_RESOURCES:
            fprintf(stderr, gettext("Ran out of file descriptors\n"));
            return KELVO_SYSERR;
        case STENCIL_ERROR_PERMISSIONS:
            fprintf(stderr, gettext("Insufficient permissions to access %s\n"), shown_path);
            return KELVO_SYSERR;
        case STENCIL_ERROR_NO_SUCH_FILE:
            fprintf(stderr, gettext("Stencil file at %s does not exist\n"), shown_path);
            return KELVO_SYSERR;
        case STENCIL_ERROR_SYNTAX: {
            fprintf(stderr, gettext("Stencil at %s has syntax errors:\n"), shown_path);
            owned<stencil_syntax_error_iter_t, stencil_syntax_error_iterator_destroy> iter(
                stencil_syntax_error_iterator_create(stencil.get()));
            if (iter) {
                while (const stencil_syntax_error_t* error =
                           stencil_syntax_error_iterator_next(iter.get()))
                    display_syntax_error(error);
            }
            return KELVO_STENERR;
        }
        case STENCIL_ERROR_NO_MEMORY:
            fprintf(stderr, gettext("Out of memory\n"));
            return KELVO_SYSERR;
        default:
            die(KELVO_SYSERR, gettext("Unhandled error in stencil_load: %d\n"), result);
    }

    stencil_output_buffer_t* raw_output = nullptr;
    result = observer != nullptr
                 ? stencil_apply_observed(stencil.get(), repository, observer, context, &raw_output)
                 : stencil_apply(stencil.get(), repository, output_mode, &raw_output);
    owned<stencil_output_buffer_t, stencil_output_buffer_destroy> output(raw_output);
    switch (result) {
        case STENCIL_SUCCESS:
            break;
        case STENCIL_ERROR_NO_RESTARTER:
            fprintf(stderr, gettext("QRM_RESTARTER is not defined in the environment\n"));
            return KELVO_SYSERR;
        case STENCIL_ERROR_NO_METHOD:
            fprintf(stderr, gettext("QRM_METHOD is not defined in the environment\n"));
            return KELVO_SYSERR;
        case STENCIL_ERROR_INTERNAL_ERROR:
            die(KELVO_SYSERR, gettext("stencil_apply: Internal error\n"));
        case STENCIL_ERROR_NO_MEMORY:
            fprintf(stderr, gettext("Out of memory\n"));
            return KELVO_SYSERR;
        default:
            die(KELVO_SYSERR, gettext("Unhandled error in stencil_apply: %d\n"), result);
    }

    *text = output.release();
    return KELVO_SUCCESS;
}

kelvo_error_t apply_stencil(repository_t* repository, defines_t* defines, const char* input_file,
                            const char* output_file, const char* root_prefix,
                            const char* stencil_dir, mode_t mode, const char* owner_name,
                            const char* group_name, char* lofs_options, ssize_t lofs_options_len,
                            int create_dirs, int list_mode) {
    stencil_output_buffer_t* raw_output = nullptr;
    kelvo_error_t evaluated =
        evaluate_stencil(repository, defines, input_file, stencil_dir, list_mode, &raw_output);
    // Nothing reads the output tree after the delivery; it goes with the call.
    owned<stencil_output_buffer_t, stencil_output_buffer_destroy> output(raw_output);
    if (evaluated != KELVO_SUCCESS) return evaluated;

    if (output_file == nullptr) {
        // Standard output: no compare, no mode, no owner, no close.
        stencil_error_t result = stencil_output_buffer_emit(output.get(), 1);
        if (result != STENCIL_SUCCESS) {
            report_write_failure(result, STDOUT_NAME);
            return KELVO_SYSERR;
        }
        return KELVO_SUCCESS;
    }

    file_delivery delivery(output_file, root_prefix);
    return delivery.deliver(output.get(), mode, owner_name, group_name, lofs_options,
                            lofs_options_len, create_dirs);
}

int kelvo_main(int argc, char** argv) {
    const char* instance_wern = getenv("QRM_WERN");
    const char* input_file = nullptr;
    const char* output_file = nullptr;
    const char* owner_name = nullptr;
    const char* group_name = nullptr;
    const char* root_prefix = nullptr;
    const char* stencil_dir = KELVO_DEFAULT_STENCIL_DIR;
    mode_t output_mode = 0644;
    char* lofs_options = nullptr;  // owned by lofs_storage
    ssize_t lofs_options_len = 0;
    int all_configfiles = 0;
    int create_dirs = 0;
    int list_mode = 0;
    int undo = 0;
    int stop_on_error = 0;

    set_program_name(argv[0]);

    defines_t* defines = defines_create();
    if (defines == nullptr) die(KELVO_SYSERR, gettext("Out of memory\n"));

    // "+": options end at the first word that is none, so a stray word stays
    // where it is and is refused below instead of being moved past the
    // options. getopt's own diagnostics stay on.
    //
    // "R::" makes the directory an optional argument, which getopt takes only
    // when attached ("-Rdir"). The usage shows "-R dir", so a detached -R
    // takes the next word as its directory, whatever that word looks like,
    // as any option with a required argument would. -R as the last word
    // leaves the root prefix unset.
    int c;
    while ((c = getopt(argc, argv, "+aD:f:g:i:lL:m:o:O:pR::S:ux")) != -1) {
        switch (c) {
            case 'a':
                all_configfiles = 1;
                break;
            case 'D':
                add_optarg_define(defines, optarg);
                break;
            case 'f':
                instance_wern = optarg;
                break;
            case 'g':
                group_name = optarg;
                break;
            case 'i':
                input_file = optarg;
                break;
            case 'l':
                list_mode = 1;
                break;
            case 'L':
                take_lofs_options(optarg, &lofs_options, &lofs_options_len);
                break;
            case 'm':
                output_mode = parse_mode_option(optarg);
                break;
            case 'o':
                output_file = optarg;
                break;
            case 'O':
                owner_name = optarg;
                break;
            case 'p':
                create_dirs = 1;
                break;
            case 'R':
                if (optarg != nullptr)
                    root_prefix = optarg;
                else if (optind < argc)
                    root_prefix = argv[optind++];
                break;
            case 'S':
                stencil_dir = optarg;
                break;
            case 'u':
                undo = 1;
                break;
            case 'x':
                stop_on_error = 1;
                break;
            default:
                defines_destroy(defines);
                usage(stderr);
                return KELVO_USAGE;
        }
    }
    if (optind < argc) die(KELVO_USAGE, gettext("Illegal argument -- %s\n"), argv[optind]);

    // The first check that holds ends the run; their order decides which
    // message a command line with several faults gets.
    if (all_configfiles && defines_count(defines) > 0)
        die(KELVO_USAGE, gettext("Option -a cannot be present with -D\n"));
    if (all_configfiles && (output_file != nullptr || input_file != nullptr))
        die(KELVO_USAGE, gettext("Option -a cannot be present with -i or -o\n"));
    if (!all_configfiles && lofs_options != nullptr && output_file == nullptr)
        die(KELVO_USAGE, gettext("Option -L requires either -a or -o\n"));
    if (lofs_options != nullptr && root_prefix == nullptr)
        die(KELVO_USAGE, gettext("Option -L requires -R\n"));
    if (lofs_options == nullptr && create_dirs)
        die(KELVO_USAGE, gettext("Option -p requires -L\n"));
    if (instance_wern == nullptr) die(KELVO_USAGE, gettext("No WERN (use -f)\n"));
    // An undo in a single run needs the file to remove. Refused last, so
    // every other fault of the command line keeps its own message.
    if (undo && !all_configfiles && output_file == nullptr)
        die(KELVO_USAGE, gettext("Option -u requires either -a or -o\n"));

    repository_t* repository = open_instance_view(instance_wern);
    int status = KELVO_SUCCESS;

    // Whatever the run creates has no permission bits until it is given
    // them; nothing resets the mask.
    umask(0777);

    if (all_configfiles) {
        configfile_run run{root_prefix, stencil_dir, lofs_options, lofs_options_len,
                           create_dirs, list_mode,   undo,         stop_on_error};
        status = run_configfiles(repository, &defines, run);
    } else if (undo) {
        status = undo_file(output_file, root_prefix, lofs_options != nullptr);
    } else {
        status = apply_stencil(repository, defines, input_file, output_file, root_prefix,
                               stencil_dir, output_mode, owner_name, group_name, lofs_options,
                               lofs_options_len, create_dirs, list_mode);
    }

    repository_destroy(repository);
    defines_destroy(defines);
    return status;
}
