// The entry of the program, its error exit, and the generation of one output.
#include "kelvo.h"

#include <getopt.h>
#include <libgen.h>
#include <libintl.h>
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
HeapText lofs_storage;

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

}  // namespace

void set_program_name(char* argv0) { prog_name = basename(argv0); }

kelvo_error_t open_instance_view(const char* wern, InstanceView* view) {
    repository_t* repository = nullptr;
    int status = repository_create(wern, nullptr, &repository);
    view->reset(repository);
    if (status == REPOSITORY_SUCCESS) return KELVO_SUCCESS;
    view->reset();
    if (status == REPOSITORY_NO_MEMORY) return report(KELVO_SYSERR, gettext("Out of memory\n"));
    return report(KELVO_QRMERR, gettext("Unable to get properties for %s"), wern);
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

namespace {

kelvo_error_t vreport(kelvo_error_t status, const char* format, va_list args) {
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
    return static_cast<kelvo_error_t>(status | KELVO_ENDS_RUN);
}

// A repository that failed under a query after binding (a cluster lost or
// hung, a compacted revision) ends the run as one that could not bind, with
// the view's wern. Nothing of the stencil that met it has been written;
// outputs of earlier configfile groups stay as delivered.
kelvo_error_t report_repository_failure(repository_t* repository) {
    fprintf(stderr, "%s: ", prog_name);
    fprintf(stderr, gettext("Unable to get properties for %s"), repository_get_wern(repository));
    fprintf(stderr, ": %s\n", hgx_strerror(repository_failure(repository)));
    return static_cast<kelvo_error_t>(KELVO_QRMERR | KELVO_ENDS_RUN);
}

}  // namespace

kelvo_error_t report(kelvo_error_t status, const char* format, ...) {
    va_list args;
    va_start(args, format);
    kelvo_error_t reported = vreport(status, format, args);
    va_end(args);
    return reported;
}

void die(kelvo_error_t status, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vreport(status, format, args);
    va_end(args);
    exit(status);
}

support_result_t add_single_define(defines_t* defines, char* name, const char* value) {
    support_result_t result = defines_add(defines, name, value);
    if (result == SUPPORT_NO_MEMORY)
        fprintf(stderr, gettext("Out of memory\n"));
    else if (result == SUPPORT_EXISTS)
        fprintf(stderr, gettext("Invalid define: %s already exists\n"), name);
    return result;
}

void add_optarg_define(defines_t* defines, char* argument) {
    // The copy is cut at the "="; the argument stays whole for the message.
    HeapText copy(strdup(argument));
    if (!copy) die(KELVO_SYSERR, gettext("Out of memory\n"));
    char* equals = strchr(copy.get(), '=');
    // No line end: errno's text follows, whatever errno holds here.
    if (equals == nullptr) die(KELVO_SYSERR, gettext("Invalid -D argument: %s"), argument);
    *equals = '\0';
    if (add_single_define(defines, copy.get(), equals + 1) != SUPPORT_SUCCESS) exit(1);
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
    Owned<stencil_t, stencil_destroy> stencil(raw_stencil);
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
            Owned<stencil_syntax_error_iter_t, stencil_syntax_error_iterator_destroy> iter(
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
            return report(KELVO_SYSERR, gettext("Unhandled error in stencil_load: %d\n"), result);
    }

    stencil_output_buffer_t* raw_output = nullptr;
    result = observer != nullptr
                 ? stencil_apply_observed(stencil.get(), repository, observer, context, &raw_output)
                 : stencil_apply(stencil.get(), repository, output_mode, &raw_output);
    Owned<stencil_output_buffer_t, stencil_output_buffer_destroy> output(raw_output);
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
            return report(KELVO_SYSERR, gettext("stencil_apply: Internal error\n"));
        case STENCIL_ERROR_NO_MEMORY:
            fprintf(stderr, gettext("Out of memory\n"));
            return KELVO_SYSERR;
        case STENCIL_ERROR_REPOSITORY:
            return report_repository_failure(repository);
        default:
            return report(KELVO_SYSERR, gettext("Unhandled error in stencil_apply: %d\n"), result);
    }

    *text = output.release();
    return KELVO_SUCCESS;
}

kelvo_error_t apply_stencil(repository_t* repository, defines_t* defines, const StencilJob& job) {
    stencil_output_buffer_t* raw_output = nullptr;
    kelvo_error_t evaluated = evaluate_stencil(repository, defines, job.input_file, job.stencil_dir,
                                               job.list_mode, &raw_output);
    // Nothing reads the output tree after the delivery; it goes with the call.
    Owned<stencil_output_buffer_t, stencil_output_buffer_destroy> output(raw_output);
    if (evaluated != KELVO_SUCCESS) return evaluated;

    if (job.output_file == nullptr) {
        // Standard output: no compare, no mode, no owner, no close.
        stencil_error_t result = stencil_output_buffer_emit(output.get(), 1);
        if (result != STENCIL_SUCCESS) {
            report_write_failure(result, STDOUT_NAME);
            return KELVO_SYSERR;
        }
        return KELVO_SUCCESS;
    }

    return deliver_to_file(output.get(), job);
}

namespace {

// What the command line asks for. The texts point into argv, which outlives
// the run; lofs_options is owned by lofs_storage.
struct CommandLine {
    const char* instance_wern = getenv("QRM_WERN");
    const char* input_file = nullptr;
    const char* output_file = nullptr;
    const char* owner_name = nullptr;
    const char* group_name = nullptr;
    const char* root_prefix = nullptr;
    const char* stencil_dir = KELVO_DEFAULT_STENCIL_DIR;
    mode_t output_mode = 0644;
    char* lofs_options = nullptr;
    ssize_t lofs_options_len = 0;
    int all_configfiles = 0;
    int create_dirs = 0;
    int list_mode = 0;
    int undo = 0;
    int stop_on_error = 0;
};

// Reads the options into *cl and the -D defines into defines. False on an
// option getopt refused (it has said why); dies on a bad option argument.
bool parse_options(int argc, char** argv, defines_t* defines, CommandLine* cl) {
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
                cl->all_configfiles = 1;
                break;
            case 'D':
                add_optarg_define(defines, optarg);
                break;
            case 'f':
                cl->instance_wern = optarg;
                break;
            case 'g':
                cl->group_name = optarg;
                break;
            case 'i':
                cl->input_file = optarg;
                break;
            case 'l':
                cl->list_mode = 1;
                break;
            case 'L':
                take_lofs_options(optarg, &cl->lofs_options, &cl->lofs_options_len);
                break;
            case 'm':
                cl->output_mode = parse_mode_option(optarg);
                break;
            case 'o':
                cl->output_file = optarg;
                break;
            case 'O':
                cl->owner_name = optarg;
                break;
            case 'p':
                cl->create_dirs = 1;
                break;
            case 'R':
                if (optarg != nullptr)
                    cl->root_prefix = optarg;
                else if (optind < argc)
                    cl->root_prefix = argv[optind++];
                break;
            case 'S':
                cl->stencil_dir = optarg;
                break;
            case 'u':
                cl->undo = 1;
                break;
            case 'x':
                cl->stop_on_error = 1;
                break;
            default:
                return false;
        }
    }
    return true;
}

// Refuses a command line whose options do not go together.
void check_options(const CommandLine& cl, defines_t* defines) {
    // The first check that holds ends the run; their order decides which
    // message a command line with several faults gets.
    if (cl.all_configfiles && defines_count(defines) > 0)
        die(KELVO_USAGE, gettext("Option -a cannot be present with -D\n"));
    if (cl.all_configfiles && (cl.output_file != nullptr || cl.input_file != nullptr))
        die(KELVO_USAGE, gettext("Option -a cannot be present with -i or -o\n"));
    if (!cl.all_configfiles && cl.lofs_options != nullptr && cl.output_file == nullptr)
        die(KELVO_USAGE, gettext("Option -L requires either -a or -o\n"));
    if (cl.lofs_options != nullptr && cl.root_prefix == nullptr)
        die(KELVO_USAGE, gettext("Option -L requires -R\n"));
    if (cl.lofs_options == nullptr && cl.create_dirs)
        die(KELVO_USAGE, gettext("Option -p requires -L\n"));
    if (cl.instance_wern == nullptr) die(KELVO_USAGE, gettext("No WERN (use -f)\n"));
    // An undo in a single run needs the file to remove. Refused last, so
    // every other fault of the command line keeps its own message.
    if (cl.undo && !cl.all_configfiles && cl.output_file == nullptr)
        die(KELVO_USAGE, gettext("Option -u requires either -a or -o\n"));
}

// Runs what cl asks for on the instance's view; returns the exit status.
int run_command(const CommandLine& cl, repository_t* repository, defines_t* defines) {
    // Whatever the run creates has no permission bits until it is given
    // them; nothing resets the mask.
    umask(0777);

    if (cl.all_configfiles) {
        ConfigfileRun run{cl.root_prefix, cl.stencil_dir, cl.lofs_options, cl.lofs_options_len,
                          cl.create_dirs, cl.list_mode,   cl.undo,         cl.stop_on_error};
        return run_configfiles(repository, run);
    }
    if (cl.undo) return undo_file(cl.output_file, cl.root_prefix, cl.lofs_options != nullptr);
    const StencilJob job{cl.input_file,       cl.output_file, cl.root_prefix, cl.stencil_dir,
                         cl.output_mode,      cl.owner_name,  cl.group_name,  cl.lofs_options,
                         cl.lofs_options_len, cl.create_dirs, cl.list_mode};
    return apply_stencil(repository, defines, job);
}

}  // namespace

int kelvo_main(int argc, char** argv) {
    CommandLine cl;
    set_program_name(argv[0]);

    DefinesTable defines(defines_create());
    if (!defines) die(KELVO_SYSERR, gettext("Out of memory\n"));
    if (!parse_options(argc, argv, defines.get(), &cl)) {
        usage(stderr);
        return KELVO_USAGE;
    }
    if (optind < argc) die(KELVO_USAGE, gettext("Illegal argument -- %s\n"), argv[optind]);
    check_options(cl, defines.get());

    InstanceView repository;
    const kelvo_error_t opened = open_instance_view(cl.instance_wern, &repository);
    if (opened != KELVO_SUCCESS) return exit_status(opened);
    return exit_status(run_command(cl, repository.get(), defines.get()));
}
