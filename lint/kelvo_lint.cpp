// The run of kelvo-lint: kelvo's command-line checks and configfile walk,
// the stencil evaluated with an observer instead of delivered.
#include "kelvo_lint.h"

#include <libgen.h>
#include <libintl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "kelvo_tool.h"
#include "owned.h"

void ReferenceFindings::observe(const stencil_reference_t* reference, void* context) {
    auto* self = static_cast<ReferenceFindings*>(context);
    const std::string name = reference->written_name != nullptr ? reference->written_name : "";
    auto it = std::find_if(self->places_.begin(), self->places_.end(), [&](const Place& p) {
        return p.line == reference->line_number && p.name == name;
    });
    if (it == self->places_.end()) {
        self->places_.push_back({reference->line_number, name,
                                 reference->tests_presence != 0 || reference->has_default != 0});
        it = self->places_.end() - 1;
    }
    it->found = it->found || reference->defined != 0 ||
                self->names(reference->final_name, REPO_TYPE_PROPERTY);
    if (it->optional && !it->group_found) {
        // The group is what the name holds before its last "/".
        const char* slash = strrchr(reference->final_name, '/');
        if (slash != nullptr) {
            std::string group(reference->final_name, slash);
            it->group_found = self->names(group.c_str(), REPO_TYPE_PG);
        }
    }
}

bool ReferenceFindings::names(const char* name, repository_type_t type) const {
    const property_info_t* info = repository_get_property(repository_, name);
    return info != nullptr && info->repo_type == type;
}

std::vector<std::string> ReferenceFindings::reported() const {
    std::vector<const Place*> kept;
    for (const Place& p : places_)
        if (!p.found && !(p.optional && p.group_found)) kept.push_back(&p);
    std::stable_sort(kept.begin(), kept.end(),
                     [](const Place* a, const Place* b) { return a->line < b->line; });
    std::vector<std::string> out;
    for (const Place* p : kept) out.push_back(std::to_string(p->line) + ": " + p->name);
    return out;
}

std::string cut_define_warning(const std::string& where, const char* value) {
    const size_t kept = stencil_define_length(value);
    if (value[kept] == '\0') return "";
    return where + ": \"}\" cuts the value \"" + value + "\" to \"" + std::string(value, kept) +
           "\"; \"" + (value + kept + 1) + "}\" lands in front of the file (write \"\\}\")";
}

namespace {

void print_usage(FILE* stream, const char* prog) {
    fprintf(stream,
            gettext("Usage: %s [-D name=value]... [-f wern] [-S dir] (-i file | -a)\n\n"
                    "\t-a  check the stencils of all configfile groups of wern\n"
                    "\t-D  define name as value\n"
                    "\t-f  set instance wern (default is $QRM_WERN)\n"
                    "\t-i  check this stencil\n"
                    "\t-S  set stencil directory (default is %s)\n"),
            prog, KELVO_DEFAULT_STENCIL_DIR);
}

struct LintRun {
    repository_t* repository;
    const char* stencil_dir;
    std::vector<std::string>* findings;
};

// Adds a finding for each define in the table whose value the define syntax
// cuts short; `where` names the table's source in front of the name.
struct DefineCheck {
    LintRun* run;
    std::string where;
};
void check_define(const char* name, const char* value, void* context) {
    auto* check = static_cast<DefineCheck*>(context);
    std::string warning = cut_define_warning(check->where + name, value);
    if (!warning.empty()) check->run->findings->push_back(warning);
}
// KELVO_SUCCESS, or KELVO_SYSERR | KELVO_ENDS_RUN after the message.
int check_defines(LintRun& run, defines_t* defines, std::string where) {
    DefineCheck check{&run, std::move(where)};
    if (defines_for_each(defines, check_define, &check) == 0) return KELVO_SUCCESS;
    fprintf(stderr, gettext("Out of memory\n"));
    return KELVO_SYSERR | KELVO_ENDS_RUN;
}

// Evaluates one stencil and adds "stencil:line: name" per finding.
int lint_stencil(LintRun& run, defines_t* defines, const char* input_file) {
    ReferenceFindings findings(run.repository);
    stencil_output_buffer_t* raw = nullptr;
    kelvo_error_t status = evaluate_stencil(run.repository, defines, input_file, run.stencil_dir, 0,
                                            &raw, ReferenceFindings::observe, &findings);
    Owned<stencil_output_buffer_t, stencil_output_buffer_destroy> output(raw);
    if (status != KELVO_SUCCESS) return status;
    char buffer[1024];
    const char* shown = stencil_path(input_file, run.stencil_dir, buffer);
    for (const std::string& line : findings.reported())
        run.findings->push_back(std::string(shown) + ":" + line);
    return KELVO_SUCCESS;
}

int lint_group(const ConfigfileGroup& group, defines_t* defines, void* context) {
    LintRun& run = *static_cast<LintRun*>(context);
    const int checked = check_defines(run, defines, std::string(group.name) + "/defines/");
    return checked != KELVO_SUCCESS ? checked : lint_stencil(run, defines, group.input_file);
}

// -D as kelvo takes it: "name=value", cut at the first "=", each name once.
// A bad one is a bad command line here (status 1 means findings).
bool add_define(defines_t* defines, const char* prog, const char* argument) {
    std::string name(argument);
    const size_t equals = name.find('=');
    if (equals == std::string::npos) {
        fprintf(stderr, gettext("%s: Invalid -D argument: %s\n"), prog, argument);
        return false;
    }
    name.resize(equals);
    return add_single_define(defines, name.data(), argument + equals + 1) == SUPPORT_SUCCESS;
}

// What the command line asks for beside kelvo's shared options.
struct LintOptions {
    DefinesTable defines{defines_create()};
    const char* input_file = nullptr;
    const char* prog = nullptr;
    int all_configfiles = 0;
};

bool take_option(int option, const char* argument, void* context) {
    auto* o = static_cast<LintOptions*>(context);
    if (option == 'a') o->all_configfiles = 1;
    if (option == 'i') o->input_file = argument;
    return option != 'D' || add_define(o->defines.get(), o->prog, argument);
}

// kelvo's texts where kelvo refuses the same; the order is kelvo's.
const char* refusal(const void* context, int after_wern) {
    const auto* o = static_cast<const LintOptions*>(context);
    if (after_wern) {
        if (!o->all_configfiles && o->input_file == nullptr)
            return gettext("%s: Option -i or -a is required\n");
        return nullptr;
    }
    if (o->all_configfiles && defines_count(o->defines.get()) > 0)
        return gettext("%s: Option -a cannot be present with -D\n");
    if (o->all_configfiles && o->input_file != nullptr)
        return gettext("%s: Option -a cannot be present with -i or -o\n");
    return nullptr;
}

}  // namespace

int lint_configfiles(repository_t* repository, const char* stencil_dir,
                     std::vector<std::string>* findings) {
    LintRun run{repository, stencil_dir, findings};
    ConfigfileWalk walk{1, 0, lint_group, &run, 0};
    if (ends_run(walk_configfiles(repository, walk))) return -1;
    return walk.failed;
}

int kelvo_lint_main(int argc, char** argv) {
    LintOptions o;
    o.prog = basename(argv[0]);
    if (!o.defines) {
        fprintf(stderr, gettext("%s: Out of memory\n"), o.prog);
        return KELVO_LINT_ERROR;
    }
    CompanionCommandLine line{"+aD:f:i:S:", nullptr, print_usage, take_option, refusal, &o};
    line.stencil_dir = KELVO_DEFAULT_STENCIL_DIR;
    if (!parse_companion_command_line(argc, argv, line)) return KELVO_LINT_USAGE;

    InstanceView repository;
    if (open_instance_view(line.wern, &repository) != KELVO_SUCCESS) return KELVO_LINT_ERROR;
    std::vector<std::string> findings;
    int failed = 0;
    if (o.all_configfiles) {
        failed = lint_configfiles(repository.get(), line.stencil_dir, &findings);
    } else {
        LintRun run{repository.get(), line.stencil_dir, &findings};
        int status = check_defines(run, o.defines.get(), "-D ");
        if (status == KELVO_SUCCESS) status = lint_stencil(run, o.defines.get(), o.input_file);
        failed = ends_run(status) ? -1 : status != KELVO_SUCCESS;
    }
    repository.reset();
    // A run that could not go on shows nothing of what it found before.
    if (failed < 0) return KELVO_LINT_ERROR;

    for (const std::string& line_found : findings) printf("%s\n", line_found.c_str());
    if (finish_standard_output(line.prog) != 0) return KELVO_LINT_ERROR;
    if (failed > 0) return KELVO_LINT_ERROR;
    return findings.empty() ? KELVO_LINT_CLEAN : KELVO_LINT_FINDINGS;
}
