// The commands that change the repository's groups, properties, services,
// instances and snapshots. Each runs in one transaction of the library's
// writer, committed only when the whole command succeeded, and again from
// the start when another writer committed first.
#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "hgxrepo_internal.h"

namespace hgxrepo {

namespace {

// A change to what a wern names, in a transaction of its own: the wern's
// service or instance, where groups are the owner's own (nothing is
// composed). Throws Failure when the wern names no stored service or
// instance.
struct Edit {
    const std::string& path;
    const std::string& wern;
    Writer w;
    hgx_wern_parts parts;
    hgx_id_t service = 0, instance = 0;
    hgx_owner owner;  // the service or the instance

    Edit(const std::string& at, const std::string& name)
        : path(at), wern(name), w(open_writer(at, false)) {
        if (hgx_wern_split(wern.c_str(), &parts) < 0)
            throw Failure{"not a valid wern: " + manifest::quote(wern) + "; " + WERN_FORMS};
        if (parts.scope_only) throw Failure{wern + ": names no service"};
        if (parts.scope != "localhost") throw Failure{wern + ": no such scope"};
        service = hgx_writer_find_service(w.get(), parts.service);
        if (service < 0) failed();
        if (service == 0) throw Failure{"no such service: wrn:/" + parts.service};
        owner = {hgx_owner::SERVICE, service, service, 0};
        if (!parts.has_instance) return;
        instance = hgx_writer_find_instance(w.get(), service, parts.instance);
        if (instance < 0) failed();
        if (instance == 0)
            throw Failure{"no such instance: wrn:/" + parts.service + ":" + parts.instance};
        owner = {hgx_owner::INSTANCE, instance, service, instance};
    }

    [[noreturn]] void failed() const { write_failed(w.get(), path); }

    // Refuses a wern of fewer than `count` groups and properties: it names
    // no `what`.
    void need(size_t count, const char* what) const {
        if (parts.path.size() < count) throw Failure{wern + ": names no " + what};
    }

    // The last part of the wern's path: the property or group it names.
    const std::string& last() const { return parts.path.back(); }

    // Follows the first `count` parts of the path as groups.
    hgx_owner groups(size_t count) const {
        hgx_owner cur = owner;
        for (size_t i = 0; i < count; ++i) {
            hgx_owner next;
            int rc = hgx_writer_find_pg(w.get(), cur, parts.path[i], &next);
            if (rc < 0) failed();
            if (rc == 0) {
                std::string g;
                for (size_t k = 0; k <= i; ++k) g += (k ? "/" : "") + parts.path[k];
                throw Failure{wern + ": no group " + manifest::quote(g)};
            }
            cur = next;
        }
        return cur;
    }

    // The group that holds what the wern's last part names.
    hgx_owner parent() const { return groups(parts.path.size() - 1); }

    // Takes the snapshot `name` of the instance, or of every instance of the
    // service.
    void take_snapshots(const std::string& name) const {
        std::vector<hgx_id_t> instances;
        if (instance) {
            instances.push_back(instance);
        } else if (hgx_writer_instances(w.get(), service, &instances) < 0) {
            failed();
        }
        for (hgx_id_t iid : instances)
            if (hgx_writer_take_snapshot(w.get(), service, iid, name) < 0) failed();
    }

    // Commits an edit of groups or properties. kelvo reads the snapshot
    // "running" (the group general excepted), so the edit is invisible to it
    // until that snapshot is retaken: with `snapshot` in the same
    // transaction, else the user is told how.
    void finish(bool snapshot) const {
        if (snapshot) take_snapshots("running");
        commit(w.get(), path);
        if (snapshot || (!parts.path.empty() && parts.path[0] == "general")) return;
        std::string name = "wrn:/" + parts.service;
        if (parts.has_instance) name += ":" + parts.instance;
        std::cerr << PROG << "kelvo sees this change after \"hgxrepo snapshot " << name
                  << "\" (or give --snapshot)\n";
    }

    // The type of the property of that name in the service's group at the
    // same path as the instance's group the wern names; 0 when the service
    // has none there.
    int inherited_type(hgx_type_t* type) const {
        hgx_owner cur{hgx_owner::SERVICE, service, service, 0};
        for (size_t i = 0; i + 1 < parts.path.size(); ++i) {
            int rc = hgx_writer_find_pg(w.get(), cur, parts.path[i], &cur);
            if (rc < 0) failed();
            if (rc == 0) return 0;
        }
        int rc = hgx_writer_find_property(w.get(), cur, last(), type);
        if (rc < 0) failed();
        return rc;
    }
};

// Runs a changing command until it commits; the exit status.
template <typename Change>
int committed(const std::string& path, Change change) {
    until_committed(path, change);
    return 0;
}

hgx_type_t parse_type(const std::string& name) {
    hgx_type_t t = hgx_string_to_type(name.c_str());
    if (t == HGX_TYPE_INVALID) throw Failure{"unknown type " + manifest::quote(name)};
    return t;
}

// The type a property is set with: the one named, else the type it has,
// the instance's own or else the one it inherits from its service; else
// astring.
hgx_type_t type_to_set(const Edit& e, const hgx_owner& pg, const std::string* type_name) {
    if (type_name) return parse_type(*type_name);
    hgx_type_t found = HGX_TYPE_ASTRING;
    int rc = hgx_writer_find_property(e.w.get(), pg, e.last(), &found);
    if (rc == 0 && e.instance) rc = e.inherited_type(&found);
    if (rc < 0) e.failed();
    return rc > 0 ? found : HGX_TYPE_ASTRING;
}

void set_property(const Invocation& inv, const std::string* type_name,
                  const std::vector<std::string>& values) {
    Edit e(inv.path, inv.words[0]);
    e.need(2, "property");
    hgx_owner pg = e.parent();
    hgx_type_t type = type_to_set(e, pg, type_name);
    for (const std::string& v : values) {
        const char* why = nullptr;
        if (hgx_value_check(type, v, &why) < 0)
            throw Failure{e.wern + ": value " + manifest::quote(v) + " " + why + " (type " +
                          hgx_type_to_string(type) + ")"};
    }
    if (hgx_writer_set_property(e.w.get(), pg, e.last(), type, values) < 0) e.failed();
    e.finish(inv.snapshot);
}

}  // namespace

int cmd_setprop(const Invocation& inv) {
    arity(inv, 1, SIZE_MAX);
    const std::vector<std::string>& words = inv.words;
    // The type option stands behind the wern; in front of it, it would be
    // taken for the wern.
    if (words[0] == "-t") throw Usage{"setprop: -t goes behind the WERN"};
    std::string type;
    size_t first = 1;
    bool typed = false;
    if (words.size() > 1 && words[1] == "-t") {
        if (words.size() < 3) throw Usage{"setprop: -t needs a TYPE"};
        type = words[2];
        typed = true;
        first = 3;
        if (words.size() > 3 && words[3] == "--") first = 4;
    } else if (words.size() > 1 && words[1] == "--") {
        first = 2;
    }
    std::vector<std::string> values(words.begin() + static_cast<std::ptrdiff_t>(first),
                                    words.end());
    return committed(inv.path, [&] { set_property(inv, typed ? &type : nullptr, values); });
}

int cmd_delprop(const Invocation& inv) {
    arity(inv, 1, 1);
    return committed(inv.path, [&] {
        Edit e(inv.path, inv.words[0]);
        e.need(2, "property");
        if (hgx_writer_delete_property(e.w.get(), e.parent(), e.last()) < 0) {
            if (hgx_error() == HGX_ERROR_NOT_FOUND) throw Failure{"no such property: " + e.wern};
            e.failed();
        }
        e.finish(inv.snapshot);
    });
}

int cmd_addpg(const Invocation& inv) {
    arity(inv, 2, 2);
    const std::string& type = inv.words[1];
    return committed(inv.path, [&] {
        Edit e(inv.path, inv.words[0]);
        e.need(1, "group");
        if (type.empty() || type.size() > static_cast<size_t>(hgx_limit(HGX_LIMIT_PG_TYPE_LENGTH)))
            throw Failure{"group type must be 1 to 63 bytes: " + manifest::quote(type)};
        hgx_owner parent = e.parent();
        int rc = hgx_writer_find_pg(e.w.get(), parent, e.last(), nullptr);
        if (rc < 0) e.failed();
        if (rc > 0) throw Failure{"group exists already: " + e.wern};
        if (hgx_writer_add_pg(e.w.get(), parent, e.last(), type, nullptr) < 0) e.failed();
        e.finish(inv.snapshot);
    });
}

int cmd_delpg(const Invocation& inv) {
    arity(inv, 1, 1);
    return committed(inv.path, [&] {
        Edit e(inv.path, inv.words[0]);
        e.need(1, "group");
        if (hgx_writer_delete_pg(e.w.get(), e.groups(e.parts.path.size())) < 0) e.failed();
        e.finish(inv.snapshot);
    });
}

int cmd_delete(const Invocation& inv) {
    arity(inv, 1, 1);
    return committed(inv.path, [&] {
        Edit e(inv.path, inv.words[0]);
        if (!e.parts.path.empty())
            throw Failure{e.wern +
                          ": delete removes a service or an instance; use delpg or delprop"};
        int rc = e.instance ? hgx_writer_delete_instance(e.w.get(), e.service, e.instance)
                            : hgx_writer_delete_service(e.w.get(), e.service);
        if (rc < 0) e.failed();
        commit(e.w.get(), e.path);
    });
}

int cmd_snapshot(const Invocation& inv) {
    arity(inv, 1, 2);
    const std::string name = inv.words.size() > 1 ? inv.words[1] : "running";
    return committed(inv.path, [&] {
        if (!hgx_valid_name(name)) throw Failure{"bad snapshot name " + manifest::quote(name)};
        Edit e(inv.path, inv.words[0]);
        if (!e.parts.path.empty()) throw Failure{e.wern + ": names no service or instance"};
        e.take_snapshots(name);
        commit(e.w.get(), e.path);
    });
}

namespace {

// A host's mirror copied to a cluster replaces everything there with what
// the mirror holds: refused for a mirror of some services only (the others
// would be removed), and for a whole one unless forced.
void check_copy_of_mirror(hgx_writer_t* from, const std::string& path, const std::string& target,
                          bool force) {
    if (!hgx_is_cluster_url(target)) return;
    MirrorRecord mirror = mirror_record(from, path);
    if (mirror.source.empty()) return;
    if (mirror.partial)
        throw Failure{path + " is a mirror of part of " + mirror.origin() +
                      " (sync --service or --instance): a copy would remove everything else from " +
                      target + "; refused"};
    if (!force)
        throw Failure{path + " is the mirror of " + mirror.origin() + " at revision " +
                      mirror.revision + ": a copy replaces all of " + target +
                      " with that state; give --force to do so"};
}

// Makes `target` hold exactly what the repository holds, snapshots
// included, in one transaction of the target.
void copy_repository(const std::string& path, const std::string& target, bool force) {
    std::string message;
    Writer from(hgx_reader_open(path.c_str(), &message));
    if (!from) throw Failure{message};
    check_copy_of_mirror(from.get(), path, target, force);
    std::vector<std::string> names, old;
    if (hgx_writer_services(from.get(), &names) < 0) write_failed(from.get(), path);
    Writer w = open_writer(target, true);
    if (hgx_writer_services(w.get(), &old) < 0) write_failed(w.get(), target);
    for (const std::string& name : old) {
        if (std::binary_search(names.begin(), names.end(), name)) continue;
        hgx_id_t id = hgx_writer_find_service(w.get(), name);
        if (id <= 0 || hgx_writer_delete_service(w.get(), id) < 0) write_failed(w.get(), target);
    }
    for (const std::string& name : names)
        if (hgx_writer_copy_service(w.get(), from.get(), name) < 0) {
            // A name the copy refuses is named by its message alone.
            std::string what = hgx_valid_service_name(name) ? " wrn:/" + name : "";
            throw Failure{target + ": cannot copy" + what + ": " + writer_error(w.get())};
        }
    commit(w.get(), target);
}

}  // namespace

int cmd_copy(const Invocation& inv) {
    Invocation rest = inv;
    const bool force = take_flag(rest.words, "--force");
    arity(rest, 1, 1);
    const std::string& target = rest.words[0];
    return committed(target, [&] { copy_repository(inv.path, target, force); });
}

}  // namespace hgxrepo
