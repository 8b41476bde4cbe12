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

using property_list = owned<property_list_node_t, property_list_destroy>;

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
    heap_text pattern = alloc_text(size);
    if (!pattern) die(KELVO_SYSERR, gettext("Out of memory\n"));
    snprintf(pattern.get(), size, "%s/defines/*", group);

    property_list list(repository_match_properties(repository, pattern.get(), 0));
    int failed = 0;
    for (const property_list_node_t* node = list.get(); node != nullptr; node = node->next) {
        // Records with other than one value, group records among them, are
        // passed over silently.
        if (node->info->num_values != 1) continue;
        heap_text name_copy(strdup(node->info->wern));
        if (!name_copy) die(KELVO_SYSERR, gettext("Out of memory\n"));
        char* slash = strrchr(name_copy.get(), '/');
        char* name = slash != nullptr ? slash + 1 : name_copy.get();
        if (add_single_define(defines, name, node->info->values[0]) != 0) failed = 1;
    }
    return failed;
}

int walk_configfiles(repository_t* repository, defines_t** defines, configfile_walk& walk) {
    int status = KELVO_SUCCESS;
    walk.failed = 0;
    ssize_t limit = hgx_limit(HGX_LIMIT_WERN_LENGTH);
    if (limit <= 0)
        die(KELVO_QRMERR, gettext("Unable to get properties for %s"),
            repository_get_wern(repository));
    // One buffer for the run: "<group>/" stays in front, and only the
    // property name behind it is rewritten for each read.
    const size_t wern_limit = static_cast<size_t>(limit);
    heap_text buffer = alloc_text(wern_limit + 1);
    if (!buffer) die(KELVO_SYSERR, gettext("Out of memory\n"));
    char* property_path = buffer.get();

    // Ascending order of group names.
    property_list group_list(repository_get_pgs_by_type(repository, "configfile"));
    for (const property_list_node_t* node = group_list.get(); node != nullptr; node = node->next) {
        const char* group = node->info->wern;
        // Strings below are borrowed from the repository view, which outlives
        // the loop. Each read resets its variable, so nothing carries over
        // from an earlier group or from -O and -g.
        configfile_group described{group, nullptr, nullptr, 0, nullptr, nullptr};
        const char* disabled_text = nullptr;
        const char* mode_text = nullptr;
        bool disabled = false;

        // do { } while (false): a failure of the group's description leaves
        // it with `break`, for the common -x test after it.
        do {
            size_t length = strlcpy(property_path, group, wern_limit + 1);
            if (length >= wern_limit) {
                status = KELVO_QRMERR;
                break;
            }
            property_path[length] = '/';
            property_path[length + 1] = '\0';
            size_t name_start = length + 1;
            size_t name_room = wern_limit - length;
            auto read = [&](const char* name, int optional, const char** value) {
                return get_single_property(repository, name, property_path, name_start, name_room,
                                           optional, value);
            };

            if (read("disabled", 1, &disabled_text) != 0) {
                status = KELVO_QRMERR;
                break;
            }
            // Only the exact text "true" disables; a disabled group neither
            // sets nor clears the status.
            disabled = disabled_text != nullptr && strcmp(disabled_text, "true") == 0;
            if (disabled) break;

            if (read("path", 0, &described.output_file) != 0 ||
                read("stencil", 0, &described.input_file) != 0 ||
                read("mode", 0, &mode_text) != 0) {
                status = KELVO_QRMERR;
                break;
            }
            if (!parse_group_mode(described.output_file, mode_text, &described.mode)) {
                status = KELVO_QRMERR;
                break;
            }
            // "user" is read only where "owner" is there but unusable (more
            // than one value, or a name that does not fit): it stands in for
            // a bad owner, not for a missing one. A group with "user" alone
            // therefore gets no owner.
            if (read("owner", 1, &described.owner_name) != 0 &&
                read("user", 1, &described.owner_name) != 0) {
                status = KELVO_QRMERR;
                break;
            }
            if (read("group", 1, &described.group_name) != 0) {
                status = KELVO_QRMERR;
                break;
            }

            if (!walk.with_defines) {
                status = walk.visit(described, *defines, walk.context);
                break;
            }
            // A failed add leaves the table as it is, also for the next group.
            if (add_configfile_defines(*defines, repository, group) != 0) {
                status = KELVO_QRMERR;
                break;
            }
            status = walk.visit(described, *defines, walk.context);
            defines_destroy(*defines);
            *defines = defines_create();
            if (*defines == nullptr) die(KELVO_SYSERR, gettext("Out of memory\n"));
        } while (false);

        if (status != KELVO_SUCCESS && !disabled) ++walk.failed;
        if (status != KELVO_SUCCESS && walk.stop_on_error)
            die(static_cast<kelvo_error_t>(status), gettext("kelvo terminated\n"));
    }
    return status;
}

namespace {

// kelvo's own handling of a group: undo, or generate and deliver.
int apply_group(const configfile_group& group, defines_t* defines, void* context) {
    const auto* run = static_cast<const std::pair<repository_t*, const configfile_run*>*>(context);
    const configfile_run& r = *run->second;
    if (r.undo) return undo_file(group.output_file, r.root_prefix, r.lofs_options != nullptr);
    return apply_stencil(run->first, defines, group.input_file, group.output_file, r.root_prefix,
                         r.stencil_dir, group.mode, group.owner_name, group.group_name,
                         r.lofs_options, r.lofs_options_len, r.create_dirs, r.list_mode);
}

}  // namespace

int run_configfiles(repository_t* repository, defines_t** defines, const configfile_run& run) {
    std::pair<repository_t*, const configfile_run*> context{repository, &run};
    // An undo needs no defines: the group's are not even read.
    configfile_walk walk{!run.undo, run.stop_on_error, apply_group, &context, 0};
    return walk_configfiles(repository, defines, walk);
}
