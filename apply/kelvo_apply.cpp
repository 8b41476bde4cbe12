// The run of kelvo-apply: the instance's configfile groups read as kelvo
// walks them, kelvo itself run twice (into a staging directory, then for
// real), and the groups' check and reload commands around those runs.
//
// What holds at the end: either every live file holds the text its check
// passed (and the reloads of the changed ones ran), or every live file is as
// it was before the run. kelvo-apply never writes a live file itself except
// to put one back.
#include "kelvo_apply.h"

#include <fcntl.h>
#include <getopt.h>
#include <libgen.h>
#include <libintl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo_lint.h"
#include "kelvo_tool.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

struct Options {
    std::string kelvo;  // the program that makes the files
    const char* prog = nullptr;
    const char* wern = nullptr;
    const char* root_prefix = nullptr;
    const char* stencil_dir = nullptr;  // null: kelvo's own default
    bool stop_on_error = false;
    bool dry_run = false;
    bool strict = false;
};

void print_usage(FILE* stream, const char* prog) {
    fprintf(stream,
            gettext("Usage: %s [-x] [-f wern] [-R dir] [-S dir] [--dry-run] [--strict]\n\n"
                    "\t-f  set instance wern (default is $QRM_WERN)\n"
                    "\t-R  set root prefix for all output files\n"
                    "\t-S  set stencil directory (default is %s)\n"
                    "\t-x  stop at the first failing group or check\n"
                    "\t--dry-run  show what would change, be checked and reloaded\n"
                    "\t--strict   refuse stencils that refer to properties naming nothing\n"),
            prog, KELVO_DEFAULT_STENCIL_DIR);
}

// ---- the groups ---------------------------------------------------------------

// A configfile group as kelvo -a handles it, with the two properties that
// only kelvo-apply reads (empty: none).
struct Group {
    std::string name;
    std::string output_file;
    std::string check;
    std::string reload;
};

struct Collect {
    const Options* options;
    repository_t* repository;
    std::vector<Group>* groups;
};

// "<group>/<name>" read as kelvo reads a group's optional properties: a
// missing one gives "", one with other than one value fails after kelvo's
// message.
bool read_optional(repository_t* repository, const std::string& group, const char* name,
                   std::string* value) {
    std::string path = group + "/";
    const size_t name_start = path.size();
    const size_t name_room = strlen(name) + 1;
    path.resize(name_start + name_room);
    const char* found = nullptr;
    if (get_single_property(repository, name, path.data(), name_start, name_room, 1, &found) != 0)
        return false;
    *value = found != nullptr ? found : "";
    return true;
}

int collect_group(const ConfigfileGroup& group, defines_t*, void* context) {
    const auto* collect = static_cast<Collect*>(context);
    Group g{group.name, group.output_file, "", ""};
    if (!read_optional(collect->repository, g.name, "check", &g.check) ||
        !read_optional(collect->repository, g.name, "reload", &g.reload))
        return KELVO_QRMERR;
    // A ".." would lead the staged file out of the staging directory.
    for (const fs::path& part : fs::path(g.output_file)) {
        if (part == "..") {
            fprintf(stderr, gettext("%s: the path %s of group %s goes up with \"..\"\n"),
                    collect->options->prog, g.output_file.c_str(), g.name.c_str());
            return KELVO_QRMERR;
        }
    }
    collect->groups->push_back(std::move(g));
    return KELVO_SUCCESS;
}

// ---- commands -----------------------------------------------------------------

std::string ending(int wait_status) {
    if (WIFSIGNALED(wait_status)) return "signal " + std::to_string(WTERMSIG(wait_status));
    return "status " + std::to_string(WEXITSTATUS(wait_status));
}

// Runs args[0] (looked up in PATH when it names no directory) with standard input from /dev/null;
// with capture, its standard output and error are collected there, else they are this process's.
// Returns the wait status, or -1 with errno set when it could not be started.
int run_program(const std::vector<std::string>& args, std::string* capture) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    int fds[2] = {-1, -1};
    if (capture != nullptr && pipe2(fds, O_CLOEXEC) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    if (capture != nullptr) {
        posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
        posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
    }
    fflush(nullptr);
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (capture != nullptr) {
        close(fds[1]);
        char buffer[4096];
        for (ssize_t n = 1; error == 0 && n != 0;) {
            n = read(fds[0], buffer, sizeof buffer);
            if (n > 0) capture->append(buffer, static_cast<size_t>(n));
            if (n < 0 && errno != EINTR) break;
        }
        close(fds[0]);
    }
    if (error != 0) {
        errno = error;
        return -1;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return -1;
    return status;
}

int run_shell(const std::string& command, std::string* capture) {
    return run_program({"/bin/sh", "-c", command}, capture);
}

std::string shell_quoted(std::string_view text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// The check's command line: each "%s" becomes the staged file's path, quoted
// for the shell, and "%%" a "%".
std::string check_command(const std::string& command, const std::string& path) {
    std::string out;
    for (size_t i = 0; i < command.size(); ++i) {
        if (command[i] == '%' && i + 1 < command.size() && command[i + 1] == 's') {
            out += shell_quoted(path);
            ++i;
        } else if (command[i] == '%' && i + 1 < command.size() && command[i + 1] == '%') {
            out += '%';
            ++i;
        } else {
            out += command[i];
        }
    }
    return out;
}

// kelvo beside this program (/usr/bin in the installed layout, the build
// tree's tool directory there), found through /proc or, where that is not
// mounted, through the program's own name; a bare name is looked up in PATH.
std::string kelvo_beside_program(const char* argv0) {
    char exe[4096];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::string self = n > 0 ? std::string(exe, static_cast<size_t>(n)) : std::string(argv0);
    const size_t slash = self.rfind('/');
    return slash == std::string::npos ? "kelvo" : self.substr(0, slash + 1) + "kelvo";
}

std::vector<std::string> kelvo_command(const Options& o, const char* root_prefix) {
    std::vector<std::string> args{o.kelvo, "-a", "-f", o.wern};
    if (root_prefix != nullptr) args.insert(args.end(), {"-R", root_prefix});
    if (o.stencil_dir != nullptr) args.insert(args.end(), {"-S", o.stencil_dir});
    if (o.stop_on_error) args.push_back("-x");
    return args;
}

// ---- files --------------------------------------------------------------------

// kelvo's join of a root prefix and a group's path, unnormalised, so that
// messages name the file as kelvo's do.
std::string below(const char* root_prefix, const std::string& output_file) {
    return root_prefix != nullptr ? std::string(root_prefix) + "/" + output_file : output_file;
}

// What a path holds, as far as kelvo -a changes it.
struct FileState {
    bool exists = false;
    struct stat st {};
    std::string content;
};

// Reads path into *state (a missing file is a state too). False after a
// message when it cannot be read or is no regular file.
bool read_state(const char* prog, const std::string& path, FileState* state) {
    *state = FileState{};
    FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (file.get() < 0 && errno == ENOENT) return true;
    if (file.get() < 0 || fstat(file.get(), &state->st) != 0) {
        fprintf(stderr, gettext("%s: cannot read %s: %s\n"), prog, path.c_str(), strerror(errno));
        return false;
    }
    if (!S_ISREG(state->st.st_mode)) {
        fprintf(stderr, gettext("%s: %s is not a regular file\n"), prog, path.c_str());
        return false;
    }
    char buffer[8192];
    ssize_t n;
    while ((n = read(file.get(), buffer, sizeof buffer)) != 0) {
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            fprintf(stderr, gettext("%s: cannot read %s: %s\n"), prog, path.c_str(),
                    strerror(errno));
            return false;
        }
        state->content.append(buffer, static_cast<size_t>(n));
    }
    state->exists = true;
    return true;
}

bool changed(const FileState& before, const FileState& after) {
    if (before.exists != after.exists) return true;
    if (!before.exists) return false;
    return before.content != after.content ||
           (before.st.st_mode & 07777) != (after.st.st_mode & 07777) ||
           before.st.st_uid != after.st.st_uid || before.st.st_gid != after.st.st_gid;
}

// Puts back what path held: its text, written in place (the file keeps its
// inode unless kelvo removed it), its owner and mode; a file that was not
// there is removed. False after a message.
bool put_back(const char* prog, const std::string& path, const FileState& before) {
    bool ok = true;
    if (!before.exists) {
        ok = unlink(path.c_str()) == 0 || errno == ENOENT;
    } else {
        FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        ok = file.get() >= 0;
        for (size_t done = 0; ok && done < before.content.size();) {
            const ssize_t n =
                write(file.get(), before.content.data() + done, before.content.size() - done);
            if (n > 0) done += static_cast<size_t>(n);
            ok = n > 0 || (n < 0 && errno == EINTR);
        }
        struct stat now {};
        ok = ok && fstat(file.get(), &now) == 0;
        if (ok && (now.st_uid != before.st.st_uid || now.st_gid != before.st.st_gid))
            ok = fchown(file.get(), before.st.st_uid, before.st.st_gid) == 0;
        ok = ok && fchmod(file.get(), before.st.st_mode & 07777) == 0;
    }
    if (!ok)
        fprintf(stderr, gettext("%s: could not put back %s: %s\n"), prog, path.c_str(),
                strerror(errno));
    return ok;
}

// A directory of its own below $TMPDIR (or /tmp), removed with what it holds.
class StagingDirectory {
  public:
    StagingDirectory() {
        const char* tmp = getenv("TMPDIR");
        std::string name =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/kelvo-apply.XXXXXX";
        if (mkdtemp(name.data()) != nullptr) path_ = name;
    }
    ~StagingDirectory() {
        std::error_code ignored;
        if (!path_.empty()) fs::remove_all(path_, ignored);
    }
    StagingDirectory(const StagingDirectory&) = delete;
    StagingDirectory& operator=(const StagingDirectory&) = delete;
    // Empty when the directory could not be made (errno says why).
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// ---- the steps ----------------------------------------------------------------

// kelvo -a into the staging directory. True when every group's file is
// there and nothing else is: a file too many or too few means the instance
// changed since it was read.
bool stage_files(const Options& o, const std::string& stage, const std::vector<Group>& groups) {
    std::set<fs::path> expected;
    for (const Group& g : groups) {
        const fs::path staged = fs::path(below(stage.c_str(), g.output_file)).lexically_normal();
        // kelvo -a makes no directories; the live ones exist, the staged ones
        // are made here.
        if (mkdirp(staged.parent_path().c_str(), 0700) != 0 && errno != EEXIST) {
            fprintf(stderr, gettext("%s: cannot make %s: %s\n"), o.prog,
                    staged.parent_path().c_str(), strerror(errno));
            return false;
        }
        expected.insert(staged);
    }
    const int status = run_program(kelvo_command(o, stage.c_str()), nullptr);
    if (status < 0) {
        fprintf(stderr, gettext("%s: cannot run %s: %s\n"), o.prog, o.kelvo.c_str(),
                strerror(errno));
        return false;
    }
    if (status != 0) {
        fprintf(stderr, gettext("%s: kelvo could not make the files of %s (%s); nothing applied\n"),
                o.prog, o.wern, ending(status).c_str());
        return false;
    }
    std::set<fs::path> made;
    std::error_code error;
    for (fs::recursive_directory_iterator it(stage, error), end; !error && it != end;
         it.increment(error))
        if (it->is_regular_file(error)) made.insert(it->path().lexically_normal());
    if (error || made != expected) {
        fprintf(stderr,
                gettext("%s: the configfile groups of %s changed during the run; nothing "
                        "applied\n"),
                o.prog, o.wern);
        return false;
    }
    return true;
}

// Runs each group's check on its staged file, all of them unless -x stops
// at the first failure. A dry run only names them.
int run_checks(const Options& o, const std::string& stage, const std::vector<Group>& groups) {
    int status = KELVO_APPLY_DONE;
    for (const Group& g : groups) {
        if (g.check.empty()) continue;
        if (o.dry_run) {
            printf(gettext("would check %s: %s\n"), g.name.c_str(), g.check.c_str());
            continue;
        }
        std::string output;
        const int result =
            run_shell(check_command(g.check, below(stage.c_str(), g.output_file)), &output);
        if (result == 0) continue;
        if (!output.empty() && output.back() != '\n') output += '\n';
        fprintf(stderr, gettext("%s: the check of group %s failed (%s): %s\n%s"), o.prog,
                g.name.c_str(), result < 0 ? strerror(errno) : ending(result).c_str(),
                g.check.c_str(), output.c_str());
        status = KELVO_APPLY_CHECK_FAILED;
        if (o.stop_on_error) break;
    }
    if (status != KELVO_APPLY_DONE) fprintf(stderr, gettext("%s: nothing applied\n"), o.prog);
    return status;
}

// The live files, each once, in the order of their first group.
struct LiveFile {
    std::string path;
    std::string staged;  // of the last group with this path: the text kelvo leaves there
    FileState before;
};

std::vector<LiveFile> live_files(const Options& o, const std::string& stage,
                                 const std::vector<Group>& groups) {
    std::vector<LiveFile> files;
    for (const Group& g : groups) {
        const std::string path = below(o.root_prefix, g.output_file);
        const std::string staged = below(stage.c_str(), g.output_file);
        bool seen = false;
        for (LiveFile& f : files) {
            if (f.path != path) continue;
            f.staged = staged;
            seen = true;
        }
        if (!seen) files.push_back({path, staged, {}});
    }
    return files;
}

// The reload commands of the groups whose files changed, each text once,
// in group order.
std::vector<std::string> reloads_of(const Options& o, const std::vector<Group>& groups,
                                    const std::set<std::string>& changed_paths) {
    std::vector<std::string> commands;
    for (const Group& g : groups) {
        if (g.reload.empty() || !changed_paths.count(below(o.root_prefix, g.output_file))) continue;
        bool seen = false;
        for (const std::string& c : commands) seen = seen || c == g.reload;
        if (!seen) commands.push_back(g.reload);
    }
    return commands;
}

// What a dry run shows after the staging: the files kelvo -a would write
// (the text differs or the file is missing; a file that holds the text keeps
// its mode and owner, as kelvo leaves it) and the reloads that would follow.
int show_plan(const Options& o, const std::vector<Group>& groups, std::vector<LiveFile>& files) {
    std::set<std::string> changed_paths;
    for (LiveFile& f : files) {
        FileState staged;
        if (!read_state(o.prog, f.path, &f.before) || !read_state(o.prog, f.staged, &staged))
            return KELVO_APPLY_KELVO_FAILED;
        if (f.before.exists && f.before.content == staged.content) continue;
        printf(gettext("would change %s\n"), f.path.c_str());
        changed_paths.insert(f.path);
    }
    for (const std::string& command : reloads_of(o, groups, changed_paths))
        printf(gettext("would reload: %s\n"), command.c_str());
    return KELVO_APPLY_DONE;
}

// kelvo -a for real, then proof that every live file holds the text that was
// checked; anything else puts back every file that changed.
int apply_live(const Options& o, const std::vector<Group>& groups, std::vector<LiveFile>& files) {
    for (LiveFile& f : files)
        if (!read_state(o.prog, f.path, &f.before)) return KELVO_APPLY_KELVO_FAILED;

    const int status = run_program(kelvo_command(o, o.root_prefix), nullptr);
    bool good = status == 0;
    if (status < 0)
        fprintf(stderr, gettext("%s: cannot run %s: %s\n"), o.prog, o.kelvo.c_str(),
                strerror(errno));
    else if (status != 0)
        fprintf(stderr, gettext("%s: kelvo -a failed (%s)\n"), o.prog, ending(status).c_str());
    std::set<std::string> changed_paths;
    for (const LiveFile& f : files) {
        FileState after, staged;
        const bool readable =
            read_state(o.prog, f.path, &after) && read_state(o.prog, f.staged, &staged);
        const bool moved = readable && changed(f.before, after);
        if (!readable || moved) changed_paths.insert(f.path);
        // A file kelvo rewrote gets the group's mode; one it left alone keeps
        // its own.
        if (good && (!readable || after.content != staged.content ||
                     (moved && (after.st.st_mode & 07777) != (staged.st.st_mode & 07777)))) {
            fprintf(stderr, gettext("%s: %s does not hold what was checked\n"), o.prog,
                    f.path.c_str());
            good = false;
        }
    }
    if (!good) {
        for (const LiveFile& f : files)
            if (changed_paths.count(f.path) && put_back(o.prog, f.path, f.before))
                fprintf(stderr, gettext("%s: put back %s\n"), o.prog, f.path.c_str());
        return KELVO_APPLY_KELVO_FAILED;
    }

    for (const LiveFile& f : files)
        if (changed_paths.count(f.path)) printf(gettext("changed %s\n"), f.path.c_str());
    int result = KELVO_APPLY_DONE;
    for (const std::string& command : reloads_of(o, groups, changed_paths)) {
        printf(gettext("reload: %s\n"), command.c_str());
        const int reload = run_shell(command, nullptr);
        if (reload == 0) continue;
        fprintf(stderr, gettext("%s: the reload failed (%s): %s\n"), o.prog,
                reload < 0 ? strerror(errno) : ending(reload).c_str(), command.c_str());
        result = KELVO_APPLY_RELOAD_FAILED;
    }
    return result;
}

int apply_groups(const Options& o, const std::vector<Group>& groups) {
    StagingDirectory stage;
    if (stage.path().empty()) {
        fprintf(stderr, gettext("%s: cannot make a staging directory: %s\n"), o.prog,
                strerror(errno));
        return KELVO_APPLY_KELVO_FAILED;
    }
    if (!stage_files(o, stage.path(), groups)) return KELVO_APPLY_KELVO_FAILED;
    const int checked = run_checks(o, stage.path(), groups);
    if (checked != KELVO_APPLY_DONE) return checked;
    std::vector<LiveFile> files = live_files(o, stage.path(), groups);
    return o.dry_run ? show_plan(o, groups, files) : apply_live(o, groups, files);
}

// kelvo-lint's verdict on every group's stencil. KELVO_APPLY_DONE when
// every reference names something.
int strict_check(const Options& o, repository_t* repository) {
    std::vector<std::string> findings;
    const int failed = lint_configfiles(
        repository, o.stencil_dir != nullptr ? o.stencil_dir : KELVO_DEFAULT_STENCIL_DIR,
        &findings);
    if (failed < 0) return KELVO_APPLY_KELVO_FAILED;  // reported; the run cannot go on
    if (failed > 0) {
        fprintf(stderr, gettext("%s: the stencils of %s could not be evaluated; nothing applied\n"),
                o.prog, o.wern);
        return KELVO_APPLY_KELVO_FAILED;
    }
    if (findings.empty()) return KELVO_APPLY_DONE;
    fprintf(stderr, gettext("%s: references that name nothing (--strict); nothing applied:\n"),
            o.prog);
    for (const std::string& line : findings) fprintf(stderr, "%s\n", line.c_str());
    return KELVO_APPLY_STRICT;
}

enum { DRY_RUN = 256, STRICT };

bool take_option(int option, const char*, void* context) {
    auto* o = static_cast<Options*>(context);
    if (option == 'x') o->stop_on_error = true;
    if (option == DRY_RUN) o->dry_run = true;
    if (option == STRICT) o->strict = true;
    return true;
}

}  // namespace

int kelvo_apply_main(int argc, char** argv) {
    Options o;
    o.kelvo = kelvo_beside_program(argv[0]);
    static const struct option LONG_OPTIONS[] = {{"dry-run", no_argument, nullptr, DRY_RUN},
                                                 {"strict", no_argument, nullptr, STRICT},
                                                 {nullptr, 0, nullptr, 0}};
    CompanionCommandLine line{"+f:R:S:x", LONG_OPTIONS, print_usage, take_option, nullptr, &o};
    if (!parse_companion_command_line(argc, argv, line)) return KELVO_APPLY_USAGE;
    o.prog = line.prog;
    o.wern = line.wern;
    o.root_prefix = line.root_prefix;
    o.stencil_dir = line.stencil_dir;

    InstanceView repository;
    if (open_instance_view(o.wern, &repository) != KELVO_SUCCESS) return KELVO_APPLY_KELVO_FAILED;
    std::vector<Group> groups;
    Collect collect{&o, repository.get(), &groups};
    ConfigfileWalk walk{0, 0, collect_group, &collect, 0};
    if (ends_run(walk_configfiles(repository.get(), walk))) return KELVO_APPLY_KELVO_FAILED;
    int status = KELVO_APPLY_DONE;
    if (walk.failed > 0) {
        fprintf(stderr,
                gettext("%s: the configfile groups of %s are not usable; nothing applied\n"),
                o.prog, o.wern);
        status = KELVO_APPLY_KELVO_FAILED;
    }
    if (status == KELVO_APPLY_DONE && o.strict) status = strict_check(o, repository.get());
    repository.reset();
    if (status == KELVO_APPLY_DONE && !groups.empty()) status = apply_groups(o, groups);
    if (finish_standard_output(o.prog) != 0 && status == KELVO_APPLY_DONE)
        status = KELVO_APPLY_KELVO_FAILED;
    return status;
}
