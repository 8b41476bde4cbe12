// Configfile mode: the instance itself says what to generate. Each property
// group of type "configfile" names one output file (path), its stencil,
// mode, owner and group, and carries defines under "defines/".
#include <libintl.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "hgx.h"
#include "host.h"
#include "kelvo.h"

namespace {

using PropertyList = Owned<property_list_node_t, property_list_destroy>;

// The mode text of a group: octal with nothing after it. Reports and gives
// false for a bad one.
bool parse_group_mode(const char* output_file, const char* mode_text, mode_t* mode) {
    char* end = nullptr;
    errno = 0;
    unsigned long value = strtoul(mode_text, &end, 8);
    *mode = static_cast<mode_t>(static_cast<uint32_t>(value));
    if (errno != 0 || end == mode_text || *end != '\0') {
        fprintf(stderr, gettext("Invalid mode for file %s: %s\n"), output_file, mode_text);
        return false;
    }
    if ((*mode & 06000) != 0) {
        fprintf(stderr,
                gettext("Invalid mode for file: %s: Cannot have setuid or setgid bits set\n"),
                mode_text);
        return false;
    }
    return true;
}

int out_of_memory() {
    report(KELVO_SYSERR, gettext("Out of memory\n"));
    return -1;
}

}  // namespace

int get_single_property(repository_t* repository, const char* name, char* property_path,
                        size_t name_start, size_t name_room, int optional, const char** value) {
    *value = nullptr;
    if (strlcpy(property_path + name_start, name, name_room) >= name_room) return -1;
    const property_info_t* info = repository_get_property(repository, property_path);
    if (info == nullptr) {
        if (optional == 1) return 0;
        fprintf(stderr, gettext("Required property %s is not defined\n"), property_path);
        return -1;
    }
    // Optional or not, a property that is there must hold exactly one value.
    if (info->num_values != 1 || info->values == nullptr) {
        fprintf(stderr, gettext("Property %s may only have one value\n"), property_path);
        return -1;
    }
    *value = info->values[0];
    return 0;
}

int add_configfile_defines(defines_t* defines, repository_t* repository, const char* group) {
    // An extended regular expression, unanchored: "/*" at the end means any
    // number of slashes, so every record whose name holds "<group>/defines"
    // is taken, also those of other groups whose names end in <group>.
    size_t size = strlen(group) + strlen("defines/*") + 2;
    HeapText pattern = alloc_text(size);
    if (!pattern) return out_of_memory();
    snprintf(pattern.get(), size, "%s/defines/*", group);

    PropertyList list(repository_match_properties(repository, pattern.get(), 0));
    int failed = 0;
    for (const property_list_node_t* node = list.get(); node != nullptr; node = node->next) {
        // Records with other than one value, group records among them, are
        // passed over silently.
        if (node->info->num_values != 1) continue;
        HeapText name_copy(strdup(node->info->wern));
        if (!name_copy) return out_of_memory();
        char* slash = strrchr(name_copy.get(), '/');
        char* name = slash != nullptr ? slash + 1 : name_copy.get();
        if (add_single_define(defines, name, node->info->values[0]) != SUPPORT_SUCCESS) failed = 1;
    }
    return failed;
}

namespace {

// Reads one group's properties. One buffer serves the whole run:
// "<group>/" stays in front, and only the property name behind it is
// rewritten for each read.
class GroupReader {
  public:
    GroupReader(repository_t* repository, char* property_path, size_t wern_limit)
        : repository_(repository), property_path_(property_path), wern_limit_(wern_limit) {}

    // Puts "<group>/" in front. False when the name leaves no room for one.
    bool start(const char* group) {
        size_t length = strlcpy(property_path_, group, wern_limit_ + 1);
        if (length >= wern_limit_) return false;
        property_path_[length] = '/';
        property_path_[length + 1] = '\0';
        name_start_ = length + 1;
        name_room_ = wern_limit_ - length;
        return true;
    }

    // get_single_property on "<group>/<name>".
    int read(const char* name, int optional, const char** value) {
        return get_single_property(repository_, name, property_path_, name_start_, name_room_,
                                   optional, value);
    }

  private:
    repository_t* repository_;
    char* property_path_;
    size_t wern_limit_;
    size_t name_start_ = 0;
    size_t name_room_ = 0;
};

// The output a group describes: path, stencil, mode, owner and group.
// KELVO_SUCCESS, or KELVO_QRMERR after the message.
int describe_group(GroupReader& reader, ConfigfileGroup* described) {
    const char* mode_text = nullptr;
    if (reader.read("path", 0, &described->output_file) != 0 ||
        reader.read("stencil", 0, &described->input_file) != 0 ||
        reader.read("mode", 0, &mode_text) != 0)
        return KELVO_QRMERR;
    if (!parse_group_mode(described->output_file, mode_text, &described->mode)) return KELVO_QRMERR;
    // "user" is read only where "owner" is there but unusable (more than one
    // value, or a name that does not fit): it stands in for a bad owner, not
    // for a missing one, so a group with "user" alone gets no owner. This is
    // deliberate: a group that names no usable "owner" keeps the owner its
    // files have always had, and letting "user" fill a missing "owner" too
    // would change the owner of files that groups already generate.
    if (reader.read("owner", 1, &described->owner_name) != 0 &&
        reader.read("user", 1, &described->owner_name) != 0)
        return KELVO_QRMERR;
    if (reader.read("group", 1, &described->group_name) != 0) return KELVO_QRMERR;
    return KELVO_SUCCESS;
}

// One group of the walk: read its description, then visit it, with its
// defines when the walk asks for them. Returns the walk's status after the
// group; a disabled group (*disabled) returns status_before unchanged.
int walk_group(repository_t* repository, DefinesTable& defines, const ConfigfileWalk& walk,
               const char* group, GroupReader& reader, int status_before, bool* disabled) {
    // Strings below are borrowed from the repository view, which outlives
    // the walk. Each read resets its variable, so nothing carries over from
    // an earlier group or from -O and -g.
    ConfigfileGroup described{group, nullptr, nullptr, 0, nullptr, nullptr};
    const char* disabled_text = nullptr;
    *disabled = false;
    if (!reader.start(group)) return KELVO_QRMERR;
    if (reader.read("disabled", 1, &disabled_text) != 0) return KELVO_QRMERR;
    // Only the exact text "true" disables; a disabled group neither sets nor
    // clears the status.
    *disabled = disabled_text != nullptr && strcmp(disabled_text, "true") == 0;
    if (*disabled) return status_before;

    if (describe_group(reader, &described) != KELVO_SUCCESS) return KELVO_QRMERR;
    if (!walk.with_defines) return walk.visit(described, defines.get(), walk.context);
    // A failed add leaves the table as it is, also for the next group.
    const int added = add_configfile_defines(defines.get(), repository, group);
    if (added < 0) return KELVO_SYSERR | KELVO_ENDS_RUN;
    if (added != 0) return KELVO_QRMERR;
    int status = walk.visit(described, defines.get(), walk.context);
    defines.reset(defines_create());
    if (!defines && !ends_run(status)) return report(KELVO_SYSERR, gettext("Out of memory\n"));
    return status;
}

}  // namespace

int walk_configfiles(repository_t* repository, ConfigfileWalk& walk) {
    int status = KELVO_SUCCESS;
    walk.failed = 0;
    ssize_t limit = hgx_limit(HGX_LIMIT_WERN_LENGTH);
    if (limit <= 0)
        return report(KELVO_QRMERR, gettext("Unable to get properties for %s"),
                      repository_get_wern(repository));
    const size_t wern_limit = static_cast<size_t>(limit);
    HeapText buffer = alloc_text(wern_limit + 1);
    DefinesTable defines(defines_create());
    if (!buffer || !defines) return report(KELVO_SYSERR, gettext("Out of memory\n"));
    GroupReader reader(repository, buffer.get(), wern_limit);

    // Ascending order of group names.
    PropertyList group_list(repository_get_pgs_by_type(repository, "configfile"));
    for (const property_list_node_t* node = group_list.get(); node != nullptr; node = node->next) {
        bool disabled = false;
        status = walk_group(repository, defines, walk, node->info->wern, reader, status, &disabled);
        if (status != KELVO_SUCCESS && !disabled) ++walk.failed;
        if (ends_run(status) || (status != KELVO_SUCCESS && walk.stop_on_error)) return status;
    }
    return status;
}

namespace {

// kelvo's own handling of a group: undo, or generate and deliver.
int apply_group(const ConfigfileGroup& group, defines_t* defines, void* context) {
    const auto* run = static_cast<const std::pair<repository_t*, const ConfigfileRun*>*>(context);
    const ConfigfileRun& r = *run->second;
    if (r.undo) return undo_file(group.output_file, r.root_prefix, r.lofs_options != nullptr);
    const StencilJob job{group.input_file,   group.output_file, r.root_prefix,    r.stencil_dir,
                         group.mode,         group.owner_name,  group.group_name, r.lofs_options,
                         r.lofs_options_len, r.create_dirs,     r.list_mode};
    return apply_stencil(run->first, defines, job);
}

}  // namespace

int run_configfiles(repository_t* repository, const ConfigfileRun& run) {
    std::pair<repository_t*, const ConfigfileRun*> context{repository, &run};
    // An undo needs no defines: the group's are not even read.
    ConfigfileWalk walk{!run.undo, run.stop_on_error, apply_group, &context, 0};
    const int status = walk_configfiles(repository, walk);
    // -x: the first failing group ends the run, after the group's message.
    if (run.stop_on_error && status != KELVO_SUCCESS && !ends_run(status))
        return report(static_cast<kelvo_error_t>(status), gettext("kelvo terminated\n"));
    return status;
}
