// The run of kelvo-diff: kelvo's own command-line checks, configfile walk,
// evaluation and delivery plan, with the write replaced by a diff.
#include "kelvo_diff.h"

#include <fcntl.h>
#include <grp.h>
#include <libgen.h>
#include <libintl.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "kelvo_tool.h"
#include "line_diff.h"
#include "owned.h"

namespace {

void print_usage(FILE* stream, const char* prog) {
    fprintf(stream,
            gettext("Usage: %s [-f wern] [-R dir] [-S dir]\n\n"
                    "\t-f  set instance wern (default is $QRM_WERN)\n"
                    "\t-R  set root prefix for all output files\n"
                    "\t-S  set stencil directory (default is %s)\n"),
            prog, KELVO_DEFAULT_STENCIL_DIR);
}

struct DiffRun {
    repository_t* repository;
    const char* root_prefix;
    const char* stencil_dir;
    const char* prog;
    int changes = 0;
};

std::string user_name(uid_t uid) {
    const struct passwd* pw = getpwuid(uid);
    return pw != nullptr ? pw->pw_name : std::to_string(uid);
}

std::string group_name_of(gid_t gid) {
    const struct group* gr = getgrgid(gid);
    return gr != nullptr ? gr->gr_name : std::to_string(gid);
}

// The file as kelvo would find it: below the root prefix, resolved inside
// the root, so that a link there shows nothing from outside it.
bool read_whole(const char* root_prefix, const char* output_file, const char* path,
                std::string* text) {
    OutputRoot root(root_prefix);
    FileDescriptor fd(root.open_file(root.below_root() ? output_file : path,
                                     O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (fd.get() < 0) return false;
    char buf[65536];
    ssize_t n;
    while ((n = read(fd.get(), buf, sizeof buf)) != 0) {
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) break;
        text->append(buf, static_cast<size_t>(n));
    }
    return n == 0;
}

// Names the missing directory that would make kelvo's open for writing fail:
// kelvo -a makes directories only with -L and -p.
void warn_missing_directory(const DiffRun& run, const char* path) {
    std::string copy = path;
    const char* directory = dirname(copy.data());
    struct stat st;
    if (stat(directory, &st) != 0)
        fprintf(stderr, gettext("%s: %s does not exist; kelvo -a creates it only with -L and -p\n"),
                run.prog, directory);
}

int show_group(const ConfigfileGroup& group, defines_t* defines, void* context) {
    auto* run = static_cast<DiffRun*>(context);
    stencil_output_buffer_t* raw = nullptr;
    kelvo_error_t status =
        evaluate_stencil(run->repository, defines, group.input_file, run->stencil_dir, 0, &raw);
    Owned<stencil_output_buffer_t, stencil_output_buffer_destroy> output(raw);
    if (status != KELVO_SUCCESS) return status;

    DeliveryPlan plan;
    status = plan_delivery(output.get(), group.output_file, run->root_prefix, &plan);
    if (status != KELVO_SUCCESS) return status;
    if (plan.action == DELIVERY_UNCHANGED) return KELVO_SUCCESS;
    // kelvo looks the names up after the write, and a failure there removes
    // the file: a change that cannot succeed is an error here.
    uid_t uid;
    gid_t gid;
    status = resolve_owner(group.owner_name, group.group_name, &uid, &gid);
    if (status != KELVO_SUCCESS) return status;

    HeapText text(stencil_output_buffer_text(output.get()));
    if (!text) {
        fprintf(stderr, gettext("%s: Out of memory\n"), run->prog);
        return KELVO_SYSERR | KELVO_ENDS_RUN;
    }
    std::string old_text;
    const bool created = plan.action == DELIVERY_CREATE;
    if (!created && !read_whole(run->root_prefix, group.output_file, plan.output_path, &old_text)) {
        fprintf(stderr, gettext("Could not read %s: %s\n"), plan.output_path, strerror(errno));
        return KELVO_SYSERR;
    }
    const std::string header =
        change_header(created ? nullptr : &plan.current, group.mode, uid, gid);
    const std::string hunks = line_diff::unified_hunks(old_text, text.get());
    // A rewrite of the same text with the same mode and owner (the compare
    // failed to read) changes nothing that can be shown.
    if (!created && hunks.empty() && header.empty()) return KELVO_SUCCESS;
    std::string shown = std::string("kelvo-diff ") + plan.output_path + "\n" + header;
    if (!hunks.empty() || created) {
        shown += std::string("--- ") + (created ? "/dev/null" : plan.output_path) + "\n";
        shown += std::string("+++ ") + plan.output_path + "\n" + hunks;
    }
    fputs(shown.c_str(), stdout);
    if (created) warn_missing_directory(*run, plan.output_path);
    ++run->changes;
    return KELVO_SUCCESS;
}

}  // namespace

std::string change_header(const struct stat* current, mode_t mode, uid_t uid, gid_t gid) {
    char line[64];
    std::string out;
    const mode_t bits = mode & 07777;
    if (current == nullptr) {
        snprintf(line, sizeof line, "new file mode %04o\n", static_cast<unsigned>(bits));
        out += line;
        if (uid != static_cast<uid_t>(-1)) out += "new owner " + user_name(uid) + "\n";
        if (gid != static_cast<gid_t>(-1)) out += "new group " + group_name_of(gid) + "\n";
        return out;
    }
    if ((current->st_mode & 07777) != bits) {
        snprintf(line, sizeof line, "old mode %04o\nnew mode %04o\n",
                 static_cast<unsigned>(current->st_mode & 07777), static_cast<unsigned>(bits));
        out += line;
    }
    if (uid != static_cast<uid_t>(-1) && uid != current->st_uid)
        out += "old owner " + user_name(current->st_uid) + "\nnew owner " + user_name(uid) + "\n";
    if (gid != static_cast<gid_t>(-1) && gid != current->st_gid)
        out += "old group " + group_name_of(current->st_gid) + "\nnew group " + group_name_of(gid) +
               "\n";
    return out;
}

int kelvo_diff_main(int argc, char** argv) {
    CompanionCommandLine line{"+f:R:S:", nullptr, print_usage, nullptr, nullptr, nullptr};
    line.stencil_dir = KELVO_DEFAULT_STENCIL_DIR;
    if (!parse_companion_command_line(argc, argv, line)) return KELVO_DIFF_USAGE;

    InstanceView repository;
    if (open_instance_view(line.wern, &repository) != KELVO_SUCCESS) return KELVO_DIFF_ERROR;
    DiffRun run{repository.get(), line.root_prefix, line.stencil_dir, line.prog};
    ConfigfileWalk walk{1, 0, show_group, &run, 0};
    const int status = walk_configfiles(repository.get(), walk);
    repository.reset();

    if (finish_standard_output(line.prog) != 0) return KELVO_DIFF_ERROR;
    if (walk.failed > 0 || ends_run(status)) return KELVO_DIFF_ERROR;
    return run.changes > 0 ? KELVO_DIFF_CHANGES : KELVO_DIFF_SAME;
}
