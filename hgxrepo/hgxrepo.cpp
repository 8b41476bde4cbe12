// hgxrepo: fills and inspects the repository.
//
// Reading commands (export, list, show) go through the client interface of
// hgx.h, as every other reader does; changing commands go through the
// library's writer, inside one transaction that is committed only when the
// whole command succeeded. A failed command prints one line, "hgxrepo: what",
// and leaves the file as it was.
#include "hgxrepo.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <sstream>
#include <thread>
#include <type_traits>

#include "hgx.h"
#include "hgx_ptr.h"
#include "hgx_write.h"
#include "manifest.h"
#include "sync.h"

namespace {

const char USAGE[] =
    "usage: hgxrepo [-r FILE] import [--no-snapshot] MANIFEST...\n"
    "       hgxrepo [-r FILE] export [WERN]\n"
    "       hgxrepo [-r FILE] snapshot WERN [NAME]\n"
    "       hgxrepo [-r FILE] setprop [--snapshot] WERN [-t TYPE] [VALUE...]\n"
    "       hgxrepo [-r FILE] delprop [--snapshot] WERN\n"
    "       hgxrepo [-r FILE] addpg [--snapshot] WERN TYPE\n"
    "       hgxrepo [-r FILE] delpg [--snapshot] WERN\n"
    "       hgxrepo [-r FILE] delete WERN\n"
    "       hgxrepo [-r FILE] list\n"
    "       hgxrepo [-r FILE] show WERN [SNAPSHOT]\n"
    "       hgxrepo [-r FILE] copy TARGET\n"
    "       hgxrepo [-r FILE] diff WERN\n"
    "       hgxrepo [-r FILE] sync [--once] [--service PATTERN]... [--exec COMMAND] URL\n"
    "       hgxrepo help\n"
    "       hgxrepo --version\n"
    "The repository file is FILE, else $HGX_REPOSITORY, else " HGX_DEFAULT_REPOSITORY
    ".\n"
    "A repository may also be an etcd cluster: etcd[s]://HOST:PORT[,HOST:PORT]...[/PREFIX].\n"
    "A MANIFEST of - is standard input.\n"
    "kelvo reads an instance's snapshot \"running\" (the group general excepted):\n"
    "changes are seen after \"hgxrepo snapshot WERN\", or at once with --snapshot.\n";

// What a well-formed wern looks like, for messages about one that is not.
constexpr const char* WERN_FORMS =
    "a wern looks like wrn:/SERVICE, wrn:/SERVICE:INSTANCE or "
    "wrn:/SERVICE:INSTANCE/:properties/GROUP/PROPERTY";

constexpr const char* PROG = "hgxrepo: ";

// A command's failure: the message, without the program prefix.
struct Failure {
    std::string what;
};

using Writer = hgx_ptr<hgx_writer_t>;
using Handle = hgx_ptr<hgx_handle_t>;
using Service = hgx_ptr<hgx_service_t>;
using Instance = hgx_ptr<hgx_instance_t>;
using Snapshot = hgx_ptr<hgx_snapshot_t>;
using Pg = hgx_ptr<hgx_propertygroup_t>;
using Prop = hgx_ptr<hgx_property_t>;
using Value = hgx_ptr<hgx_value_t>;
using Iter = hgx_ptr<hgx_iter_t>;
using Scope = hgx_ptr<hgx_scope_t>;

std::string repository_path(const std::string& option) {
    if (!option.empty()) return option;
    const char* env = std::getenv("HGX_REPOSITORY");
    return env && *env ? env : HGX_DEFAULT_REPOSITORY;
}

std::string lib_error() { return hgx_strerror(hgx_error()); }

// "cannot WHAT: " and the library's text. Built by appending: GCC 12 at -O3
// takes "literal" + std::string&& for an overlapping copy (-Wrestrict).
std::string failed_to(const char* what) {
    std::string s = "cannot ";
    s += what;
    s += ": ";
    s += lib_error();
    return s;
}

// What to do about a repository file that is not there, for the message
// that names the file.
std::string missing_repository_hint() {
    if (hgx_error() == HGX_ERROR_CLUSTER_NO_REPOSITORY)
        return "; name the cluster and prefix with -r URL or HGX_REPOSITORY, or create it "
               "with hgxrepo import";
    if (hgx_error() != HGX_ERROR_NO_REPOSITORY) return "";
    return "; name the file with -r FILE or HGX_REPOSITORY, or create it with hgxrepo import";
}

// ---- writing -------------------------------------------------------------

Writer open_writer(const std::string& path, bool create) {
    std::string message;
    hgx_writer_t* w = hgx_writer_open(path.c_str(), create, &message);
    if (!w) throw Failure{message + missing_repository_hint()};
    return Writer(w);
}

[[noreturn]] void write_failed(hgx_writer_t* w, const std::string& path) {
    std::string detail = hgx_writer_message(w);
    throw Failure{path + ": cannot write: " + (detail.empty() ? lib_error() : detail)};
}

// A commit that another writer beat to a cluster; the command runs again.
struct Conflict {};

void commit(hgx_writer_t* w, const std::string& path) {
    if (hgx_writer_commit(w) == 0) return;
    if (hgx_error() == HGX_ERROR_CONFLICT) throw Conflict{};
    write_failed(w, path);
}

// Runs a changing command until its commit lands: on a cluster, a writer
// that raced another reads the repository again and redoes its change on
// top of the other's, so that neither update is lost.
template <typename Command>
void until_committed(const std::string& path, Command command) {
    std::minstd_rand jitter(static_cast<unsigned>(getpid()));
    for (int attempt = 1;; ++attempt) {
        try {
            command();
            return;
        } catch (const Conflict&) {
            if (attempt == 50)
                throw Failure{path + ": cannot write: " + lib_error() + ", 50 times over"};
            std::this_thread::sleep_for(std::chrono::milliseconds(jitter() % (10 * attempt) + 1));
        }
    }
}

void write_groups(hgx_writer_t* w, const std::string& path, const hgx_owner& owner,
                  const std::vector<manifest::Group>& groups) {
    for (const manifest::Group& g : groups) {
        hgx_owner pg;
        if (hgx_writer_add_pg(w, owner, g.name, g.type, &pg) < 0) write_failed(w, path);
        for (const manifest::Property& p : g.properties)
            if (hgx_writer_add_property(w, pg, p.name, p.type, p.blob) < 0) write_failed(w, path);
        write_groups(w, path, pg, g.groups);
    }
}

std::vector<std::string> dropped_by_import(const std::string& path,
                                           const std::vector<manifest::Document>& docs);

// Loads checked manifests into the file in one transaction. What the import
// removes without the manifests saying so goes to *dropped, one line each.
void import_documents(const std::string& path, const std::vector<manifest::Document>& docs,
                      bool snapshot, std::vector<std::string>* dropped = nullptr) {
    if (dropped) *dropped = dropped_by_import(path, docs);
    Writer w = open_writer(path, true);
    std::set<std::string> names;
    for (const manifest::Document& doc : docs) {
        for (const manifest::Service& s : doc.services) {
            // A service named again replaces what was stored, also what an
            // earlier manifest of the same run stored.
            hgx_id_t old = hgx_writer_find_service(w.get(), s.name);
            if (old < 0 || (old > 0 && hgx_writer_delete_service(w.get(), old) < 0))
                write_failed(w.get(), path);
            hgx_id_t sid = hgx_writer_add_service(w.get(), s.name);
            if (sid < 0) write_failed(w.get(), path);
            write_groups(w.get(), path, {hgx_owner::SERVICE, sid, sid, 0}, s.groups);
            for (const manifest::Instance& in : s.instances) {
                hgx_id_t iid = hgx_writer_add_instance(w.get(), sid, in.name);
                if (iid < 0) write_failed(w.get(), path);
                write_groups(w.get(), path, {hgx_owner::INSTANCE, iid, sid, iid}, in.groups);
            }
            names.insert(s.name);
        }
    }
    if (snapshot) {
        for (const std::string& name : names) {
            hgx_id_t sid = hgx_writer_find_service(w.get(), name);
            std::vector<hgx_id_t> instances;
            if (sid <= 0 || hgx_writer_instances(w.get(), sid, &instances) < 0)
                write_failed(w.get(), path);
            for (hgx_id_t iid : instances)
                if (hgx_writer_take_snapshot(w.get(), sid, iid, "running") < 0)
                    write_failed(w.get(), path);
        }
    }
    commit(w.get(), path);
}

// The objects a wern names on the write side, where groups are the owner's
// own (nothing is composed).
struct Target {
    hgx_wern_parts parts;
    hgx_id_t service = 0, instance = 0;
    hgx_owner owner;  // the service or the instance
};

Target resolve_owner(hgx_writer_t* w, const std::string& path, const std::string& wern) {
    Target t;
    if (hgx_wern_split(wern.c_str(), &t.parts) < 0)
        throw Failure{"not a valid wern: " + manifest::quote(wern) + "; " + WERN_FORMS};
    if (t.parts.scope_only) throw Failure{wern + ": names no service"};
    if (t.parts.scope != "localhost") throw Failure{wern + ": no such scope"};
    t.service = hgx_writer_find_service(w, t.parts.service);
    if (t.service < 0) write_failed(w, path);
    if (t.service == 0) throw Failure{"no such service: wrn:/" + t.parts.service};
    t.owner = {hgx_owner::SERVICE, t.service, t.service, 0};
    if (t.parts.has_instance) {
        t.instance = hgx_writer_find_instance(w, t.service, t.parts.instance);
        if (t.instance < 0) write_failed(w, path);
        if (t.instance == 0)
            throw Failure{"no such instance: wrn:/" + t.parts.service + ":" + t.parts.instance};
        t.owner = {hgx_owner::INSTANCE, t.instance, t.service, t.instance};
    }
    return t;
}

// Follows the first `count` parts of the path as groups.
hgx_owner walk_groups(hgx_writer_t* w, const std::string& path, const Target& t, size_t count,
                      const std::string& wern) {
    hgx_owner cur = t.owner;
    for (size_t i = 0; i < count; ++i) {
        hgx_owner next;
        int rc = hgx_writer_find_pg(w, cur, t.parts.path[i], &next);
        if (rc < 0) write_failed(w, path);
        if (rc == 0) {
            std::string g;
            for (size_t k = 0; k <= i; ++k) g += (k ? "/" : "") + t.parts.path[k];
            throw Failure{wern + ": no group " + manifest::quote(g)};
        }
        cur = next;
    }
    return cur;
}

hgx_type_t parse_type(const std::string& name) {
    hgx_type_t t = hgx_string_to_type(name.c_str());
    if (t == HGX_TYPE_INVALID) throw Failure{"unknown type " + manifest::quote(name)};
    return t;
}

// Takes the snapshot `name` of the instance, or of every instance of the
// service, that t names.
void take_snapshots(hgx_writer_t* w, const std::string& path, const Target& t,
                    const std::string& name) {
    std::vector<hgx_id_t> instances;
    if (t.instance) {
        instances.push_back(t.instance);
    } else if (hgx_writer_instances(w, t.service, &instances) < 0) {
        write_failed(w, path);
    }
    for (hgx_id_t iid : instances)
        if (hgx_writer_take_snapshot(w, t.service, iid, name) < 0) write_failed(w, path);
}

// Commits an edit of groups or properties. kelvo reads the snapshot
// "running" (the group general excepted), so the edit is invisible to it
// until that snapshot is retaken: with `snapshot` in the same transaction,
// else the user is told how.
void finish_edit(hgx_writer_t* w, const std::string& path, const Target& t, bool snapshot) {
    if (snapshot) take_snapshots(w, path, t, "running");
    commit(w, path);
    if (snapshot || (!t.parts.path.empty() && t.parts.path[0] == "general")) return;
    std::string owner = "wrn:/" + t.parts.service;
    if (t.parts.has_instance) owner += ":" + t.parts.instance;
    std::cerr << PROG << "kelvo sees this change after \"hgxrepo snapshot " << owner
              << "\" (or give --snapshot)\n";
}

// The type of the property of that name in the service's group at the same
// path as the instance's group t names; 0 when the service has none there.
int inherited_type(hgx_writer_t* w, const std::string& path, const Target& t, hgx_type_t* type) {
    hgx_owner cur{hgx_owner::SERVICE, t.service, t.service, 0};
    for (size_t i = 0; i + 1 < t.parts.path.size(); ++i) {
        int rc = hgx_writer_find_pg(w, cur, t.parts.path[i], &cur);
        if (rc < 0) write_failed(w, path);
        if (rc == 0) return 0;
    }
    int rc = hgx_writer_find_property(w, cur, t.parts.path.back(), type);
    if (rc < 0) write_failed(w, path);
    return rc;
}

void cmd_setprop(const std::string& path, const std::string& wern, const std::string* type_name,
                 const std::vector<std::string>& values, bool snapshot) {
    Writer w = open_writer(path, false);
    Target t = resolve_owner(w.get(), path, wern);
    if (t.parts.path.size() < 2) throw Failure{wern + ": names no property"};
    hgx_owner pg = walk_groups(w.get(), path, t, t.parts.path.size() - 1, wern);
    const std::string& name = t.parts.path.back();
    hgx_type_t type = HGX_TYPE_ASTRING;
    if (type_name) {
        type = parse_type(*type_name);
    } else {
        // Without -t a property keeps its type: the instance's own, else the
        // one it inherits from its service.
        hgx_type_t found = HGX_TYPE_ASTRING;
        int rc = hgx_writer_find_property(w.get(), pg, name, &found);
        if (rc == 0 && t.instance) rc = inherited_type(w.get(), path, t, &found);
        if (rc < 0) write_failed(w.get(), path);
        if (rc > 0) type = found;
    }
    for (const std::string& v : values) {
        const char* why = nullptr;
        if (hgx_value_check(type, v, &why) < 0)
            throw Failure{wern + ": value " + manifest::quote(v) + " " + why + " (type " +
                          hgx_type_to_string(type) + ")"};
    }
    if (hgx_writer_set_property(w.get(), pg, name, type, values) < 0) write_failed(w.get(), path);
    finish_edit(w.get(), path, t, snapshot);
}

void cmd_delprop(const std::string& path, const std::string& wern, bool snapshot) {
    Writer w = open_writer(path, false);
    Target t = resolve_owner(w.get(), path, wern);
    if (t.parts.path.size() < 2) throw Failure{wern + ": names no property"};
    hgx_owner pg = walk_groups(w.get(), path, t, t.parts.path.size() - 1, wern);
    if (hgx_writer_delete_property(w.get(), pg, t.parts.path.back()) < 0) {
        if (hgx_error() == HGX_ERROR_NOT_FOUND) throw Failure{"no such property: " + wern};
        write_failed(w.get(), path);
    }
    finish_edit(w.get(), path, t, snapshot);
}

void cmd_addpg(const std::string& path, const std::string& wern, const std::string& type,
               bool snapshot) {
    Writer w = open_writer(path, false);
    Target t = resolve_owner(w.get(), path, wern);
    if (t.parts.path.empty()) throw Failure{wern + ": names no group"};
    if (type.empty() || type.size() > static_cast<size_t>(hgx_limit(HGX_LIMIT_PG_TYPE_LENGTH)))
        throw Failure{"group type must be 1 to 63 bytes: " + manifest::quote(type)};
    hgx_owner parent = walk_groups(w.get(), path, t, t.parts.path.size() - 1, wern);
    int rc = hgx_writer_find_pg(w.get(), parent, t.parts.path.back(), nullptr);
    if (rc < 0) write_failed(w.get(), path);
    if (rc > 0) throw Failure{"group exists already: " + wern};
    if (hgx_writer_add_pg(w.get(), parent, t.parts.path.back(), type, nullptr) < 0)
        write_failed(w.get(), path);
    finish_edit(w.get(), path, t, snapshot);
}

void cmd_delpg(const std::string& path, const std::string& wern, bool snapshot) {
    Writer w = open_writer(path, false);
    Target t = resolve_owner(w.get(), path, wern);
    if (t.parts.path.empty()) throw Failure{wern + ": names no group"};
    hgx_owner pg = walk_groups(w.get(), path, t, t.parts.path.size(), wern);
    if (hgx_writer_delete_pg(w.get(), pg) < 0) write_failed(w.get(), path);
    finish_edit(w.get(), path, t, snapshot);
}

void cmd_delete(const std::string& path, const std::string& wern) {
    Writer w = open_writer(path, false);
    Target t = resolve_owner(w.get(), path, wern);
    if (!t.parts.path.empty())
        throw Failure{wern + ": delete removes a service or an instance; use delpg or delprop"};
    int rc = t.instance ? hgx_writer_delete_instance(w.get(), t.service, t.instance)
                        : hgx_writer_delete_service(w.get(), t.service);
    if (rc < 0) write_failed(w.get(), path);
    commit(w.get(), path);
}

void cmd_snapshot(const std::string& path, const std::string& wern, const std::string& name) {
    if (!hgx_valid_name(name)) throw Failure{"bad snapshot name " + manifest::quote(name)};
    Writer w = open_writer(path, false);
    Target t = resolve_owner(w.get(), path, wern);
    if (!t.parts.path.empty()) throw Failure{wern + ": names no service or instance"};
    take_snapshots(w.get(), path, t, name);
    commit(w.get(), path);
}

// Makes `target` hold exactly what the repository holds, snapshots
// included, in one transaction of the target.
void cmd_copy(const std::string& path, const std::string& target) {
    std::string message;
    Writer from(hgx_reader_open(path.c_str(), &message));
    if (!from) throw Failure{message};
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
            std::string detail = hgx_writer_message(w.get());
            throw Failure{target + ": cannot copy wrn:/" + name + ": " +
                          (detail.empty() ? lib_error() : detail)};
        }
    commit(w.get(), target);
}

// ---- reading -------------------------------------------------------------

Handle open_reader(const std::string& path) {
    Handle h(hgx_handle_create(HGX_VERSION));
    if (!h) throw Failure{lib_error()};
    if (hgx_handle_bind_path(h.get(), path.c_str()) < 0) {
        throw Failure{path + ": " + lib_error() + missing_repository_hint()};
    }
    return h;
}

[[noreturn]] void read_failed(const std::string& path) {
    throw Failure{path + ": cannot read: " + lib_error()};
}

// A name or type of an object, none longer than a wern. The object is not
// deduced, so that the owning wrappers convert to it.
template <typename T>
std::string text_of(ssize_t (*get)(const T*, char*, size_t), std::type_identity_t<const T*> o) {
    char buf[1100];
    if (get(o, buf, sizeof buf) < 0) throw Failure{"cannot read: " + lib_error()};
    return buf;
}

std::vector<std::string> values_of(hgx_handle_t* h, const hgx_property_t* p) {
    Iter it(hgx_iter_create(h));
    Value v(hgx_value_create(h));
    if (!it || !v || hgx_iter_property_values(it.get(), p) < 0)
        throw Failure{"cannot read values: " + lib_error()};
    std::vector<std::string> out;
    std::string buf(4097, '\0');
    int rc;
    while ((rc = hgx_iter_next_value(it.get(), v.get())) == 1) {
        ssize_t n = hgx_value_get_as_string(v.get(), buf.data(), buf.size());
        if (n < 0) throw Failure{"cannot read values: " + lib_error()};
        out.emplace_back(buf.data(), static_cast<size_t>(n));
    }
    if (rc < 0) throw Failure{"cannot read values: " + lib_error()};
    return out;
}

// Kinds of group walks: own groups, the current composed view, a snapshot.
enum class Walk { OWN, COMPOSED, SNAPSHOT };

// Visits every group below a parent depth-first, a group before its nested
// groups; `visit` gets the group and its path.
template <typename Visit>
void walk_pg(hgx_handle_t* h, hgx_propertygroup_t* pg, Walk walk, const std::string& path,
             Visit& visit) {
    visit(pg, path);
    Iter it(hgx_iter_create(h));
    Pg child(hgx_pg_create(h));
    if (!it || !child) throw Failure{lib_error()};
    int rc = walk == Walk::OWN ? hgx_iter_pg_pgs(it.get(), pg)
                               : hgx_iter_pg_pgs_composed(it.get(), pg, nullptr);
    if (rc < 0) throw Failure{"cannot read groups: " + lib_error()};
    while ((rc = hgx_iter_next_pg(it.get(), child.get())) == 1)
        walk_pg(h, child.get(), walk, path + "/" + text_of(hgx_pg_get_name, child.get()), visit);
    if (rc < 0) throw Failure{"cannot read groups: " + lib_error()};
}

// Starts a walk of a service's or instance's groups.
template <typename Visit>
void walk_top(hgx_handle_t* h, hgx_service_t* svc, hgx_instance_t* inst, hgx_snapshot_t* snap,
              Walk walk, Visit& visit) {
    Iter it(hgx_iter_create(h));
    Pg pg(hgx_pg_create(h));
    if (!it || !pg) throw Failure{lib_error()};
    int rc = !inst               ? hgx_iter_service_pgs(it.get(), svc)
             : walk == Walk::OWN ? hgx_iter_instance_pgs(it.get(), inst)
                                 : hgx_iter_instance_pgs_composed(it.get(), inst, snap);
    if (rc < 0) throw Failure{"cannot read groups: " + lib_error()};
    while ((rc = hgx_iter_next_pg(it.get(), pg.get())) == 1)
        walk_pg(h, pg.get(), walk, text_of(hgx_pg_get_name, pg.get()), visit);
    if (rc < 0) throw Failure{"cannot read groups: " + lib_error()};
}

template <typename Each>
void each_property(hgx_handle_t* h, hgx_propertygroup_t* pg, Each each) {
    Iter it(hgx_iter_create(h));
    Prop p(hgx_property_create(h));
    if (!it || !p || hgx_iter_pg_properties(it.get(), pg) < 0)
        throw Failure{failed_to("read properties")};
    int rc;
    while ((rc = hgx_iter_next_property(it.get(), p.get())) == 1) each(p.get());
    if (rc < 0) throw Failure{failed_to("read properties")};
}

// ---- import warnings --------------------------------------------------------

// Groups of an iteration that `kept` (a manifest's groups at the same place)
// no longer has, nested groups included, as lines for *out.
void dropped_groups(hgx_handle_t* h, hgx_iter_t* it, const std::vector<manifest::Group>& kept,
                    const std::string& owner, const std::string& prefix,
                    std::vector<std::string>* out) {
    Pg pg(hgx_pg_create(h));
    if (!pg) throw Failure{lib_error()};
    int rc;
    while ((rc = hgx_iter_next_pg(it, pg.get())) == 1) {
        const std::string name = text_of(hgx_pg_get_name, pg.get());
        auto found = std::find_if(kept.begin(), kept.end(),
                                  [&](const manifest::Group& g) { return g.name == name; });
        if (found == kept.end()) {
            out->push_back(owner + ": group " + manifest::quote(prefix + name) +
                           " is not in the manifest; the import removes it");
            continue;
        }
        Iter inner(hgx_iter_create(h));
        if (!inner || hgx_iter_pg_pgs(inner.get(), pg.get()) < 0)
            throw Failure{"cannot read groups: " + lib_error()};
        dropped_groups(h, inner.get(), found->groups, owner, prefix + name + "/", out);
    }
    if (rc < 0) throw Failure{"cannot read groups: " + lib_error()};
}

// What importing docs removes from the services it replaces without the
// manifests naming it: their groups and instances that are stored but no
// longer described. Read before the write; a file that cannot be read yet
// has nothing to lose (the write then says what is wrong with it).
std::vector<std::string> dropped_by_import(const std::string& path,
                                           const std::vector<manifest::Document>& docs) {
    std::vector<std::string> out;
    Handle h(hgx_handle_create(HGX_VERSION));
    if (!h || hgx_handle_bind_path(h.get(), path.c_str()) < 0) return out;
    // The last description of a service in the run is the one that stays.
    std::map<std::string, const manifest::Service*> last;
    for (const manifest::Document& doc : docs)
        for (const manifest::Service& s : doc.services) last[s.name] = &s;
    for (const auto& [name, described] : last) {
        const std::string wern = "wrn:/" + name;
        Service svc(hgx_service_create(h.get()));
        Instance inst(hgx_instance_create(h.get()));
        Iter groups(hgx_iter_create(h.get()));
        Iter instances(hgx_iter_create(h.get()));
        if (!svc || !inst || !groups || !instances) throw Failure{lib_error()};
        if (hgx_handle_decode_wern(h.get(), wern.c_str(), nullptr, svc.get(), nullptr, nullptr,
                                   nullptr, 0) < 0)
            continue;  // a new service
        if (hgx_iter_service_pgs(groups.get(), svc.get()) < 0 ||
            hgx_iter_service_instances(instances.get(), svc.get()) < 0)
            read_failed(path);
        dropped_groups(h.get(), groups.get(), described->groups, wern, "", &out);
        int rc;
        while ((rc = hgx_iter_next_instance(instances.get(), inst.get())) == 1) {
            const std::string instance = text_of(hgx_instance_get_name, inst.get());
            const std::string owner = wern + ":" + instance;
            auto found = std::find_if(
                described->instances.begin(), described->instances.end(),
                [&](const manifest::Instance& i) { return i.name == instance; });
            if (found == described->instances.end()) {
                out.push_back(owner + ": instance is not in the manifest; the import removes it");
                continue;
            }
            Iter own(hgx_iter_create(h.get()));
            if (!own || hgx_iter_instance_pgs(own.get(), inst.get()) < 0) read_failed(path);
            dropped_groups(h.get(), own.get(), found->groups, owner, "", &out);
        }
        if (rc < 0) read_failed(path);
    }
    return out;
}

// ---- export ----------------------------------------------------------------

bool canonical_unsigned(const std::string& v) {
    if (v.empty() || v.size() > 20 || (v.size() > 1 && v[0] == '0')) return false;
    for (char c : v)
        if (c < '0' || c > '9') return false;
    return hgx_value_check(HGX_TYPE_COUNT, v) == 0;
}

bool canonical_negative(const std::string& v) {
    return v.size() > 1 && v[0] == '-' && canonical_unsigned(v.substr(1)) && v != "-0" &&
           hgx_value_check(HGX_TYPE_INTEGER, v) == 0;
}

// The shortest manifest form that reads back as the same type and values.
nlohmann::ordered_json property_json(hgx_type_t type, const std::vector<std::string>& values) {
    using json = nlohmann::ordered_json;
    auto one_or_array = [&](auto convert) {
        if (values.size() == 1) return json(convert(values[0]));
        json a = json::array();
        for (const std::string& v : values) a.push_back(convert(v));
        return a;
    };
    bool all = !values.empty();
    switch (type) {
        case HGX_TYPE_ASTRING:
            return one_or_array([](const std::string& v) { return v; });
        case HGX_TYPE_BOOLEAN:
            if (!all) break;
            return one_or_array([](const std::string& v) { return v == "true"; });
        case HGX_TYPE_COUNT:
            for (const std::string& v : values) all = all && canonical_unsigned(v);
            if (!all) break;
            return one_or_array([](const std::string& v) { return std::stoull(v); });
        case HGX_TYPE_INTEGER: {
            // Numbers read back as integers only where one of them is
            // negative; the rest must be written as the reader would.
            bool neg = false;
            for (const std::string& v : values) {
                neg = neg || canonical_negative(v);
                all = all && (canonical_negative(v) || canonical_unsigned(v));
            }
            if (!all || !neg) break;
            return one_or_array([](const std::string& v) -> json {
                if (v[0] == '-') return json(std::stoll(v));
                return json(std::stoull(v));
            });
        }
        default:
            break;
    }
    json o = json::object();
    o["type"] = hgx_type_to_string(type);
    o["values"] = values;
    return o;
}

nlohmann::ordered_json group_json(hgx_handle_t* h, hgx_propertygroup_t* pg) {
    using json = nlohmann::ordered_json;
    json g = json::object();
    g["type"] = text_of(hgx_pg_get_type, pg);
    json props = json::object();
    each_property(h, pg, [&](hgx_property_t* p) {
        hgx_type_t type;
        if (hgx_property_type(p, &type) < 0) throw Failure{"cannot read: " + lib_error()};
        props[text_of(hgx_property_get_name, p)] = property_json(type, values_of(h, p));
    });
    if (!props.empty()) g["properties"] = std::move(props);
    Iter it(hgx_iter_create(h));
    Pg child(hgx_pg_create(h));
    if (!it || !child || hgx_iter_pg_pgs(it.get(), pg) < 0)
        throw Failure{"cannot read groups: " + lib_error()};
    json groups = json::object();
    int rc;
    while ((rc = hgx_iter_next_pg(it.get(), child.get())) == 1)
        groups[text_of(hgx_pg_get_name, child.get())] = group_json(h, child.get());
    if (rc < 0) throw Failure{"cannot read groups: " + lib_error()};
    if (!groups.empty()) g["groups"] = std::move(groups);
    return g;
}

nlohmann::ordered_json groups_json(hgx_handle_t* h, hgx_service_t* svc, hgx_instance_t* inst) {
    using json = nlohmann::ordered_json;
    Iter it(hgx_iter_create(h));
    Pg pg(hgx_pg_create(h));
    if (!it || !pg) throw Failure{lib_error()};
    int rc = inst ? hgx_iter_instance_pgs(it.get(), inst) : hgx_iter_service_pgs(it.get(), svc);
    if (rc < 0) throw Failure{"cannot read groups: " + lib_error()};
    json groups = json::object();
    while ((rc = hgx_iter_next_pg(it.get(), pg.get())) == 1)
        groups[text_of(hgx_pg_get_name, pg.get())] = group_json(h, pg.get());
    if (rc < 0) throw Failure{"cannot read groups: " + lib_error()};
    return groups;
}

nlohmann::ordered_json instance_json(hgx_handle_t* h, hgx_instance_t* inst) {
    nlohmann::ordered_json o = nlohmann::ordered_json::object();
    nlohmann::ordered_json g = groups_json(h, nullptr, inst);
    if (!g.empty()) o["groups"] = std::move(g);
    return o;
}

// `only` restricts the service to one instance and leaves its groups out.
nlohmann::ordered_json service_json(hgx_handle_t* h, hgx_service_t* svc, hgx_instance_t* only) {
    using json = nlohmann::ordered_json;
    json o = json::object();
    if (only) {
        o["instances"][text_of(hgx_instance_get_name, only)] = instance_json(h, only);
        return o;
    }
    json g = groups_json(h, svc, nullptr);
    if (!g.empty()) o["groups"] = std::move(g);
    Iter it(hgx_iter_create(h));
    Instance inst(hgx_instance_create(h));
    if (!it || !inst || hgx_iter_service_instances(it.get(), svc) < 0)
        throw Failure{"cannot read instances: " + lib_error()};
    json instances = json::object();
    int rc;
    while ((rc = hgx_iter_next_instance(it.get(), inst.get())) == 1)
        instances[text_of(hgx_instance_get_name, inst.get())] = instance_json(h, inst.get());
    if (rc < 0) throw Failure{"cannot read instances: " + lib_error()};
    if (!instances.empty()) o["instances"] = std::move(instances);
    return o;
}

// Decodes a wern that must name a service or an instance.
void decode_owner(hgx_handle_t* h, const std::string& wern, hgx_service_t* svc,
                  hgx_instance_t* inst, bool* is_instance) {
    hgx_wern_parts parts;
    if (hgx_wern_split(wern.c_str(), &parts) < 0)
        throw Failure{"not a valid wern: " + manifest::quote(wern) + "; " + WERN_FORMS};
    if (parts.scope_only || !parts.path.empty())
        throw Failure{wern + ": names no service or instance"};
    if (hgx_handle_decode_wern(h, wern.c_str(), nullptr, svc, inst, nullptr, nullptr, 0) < 0)
        throw Failure{wern + ": " + lib_error()};
    *is_instance = parts.has_instance;
}

void cmd_export(const std::string& path, const std::string* wern, std::ostream& out) {
    using json = nlohmann::ordered_json;
    Handle h = open_reader(path);
    json services = json::object();
    Service svc(hgx_service_create(h.get()));
    Instance inst(hgx_instance_create(h.get()));
    if (!svc || !inst) throw Failure{lib_error()};
    if (wern) {
        bool is_instance = false;
        decode_owner(h.get(), *wern, svc.get(), inst.get(), &is_instance);
        services[text_of(hgx_service_get_name, svc.get())] =
            service_json(h.get(), svc.get(), is_instance ? inst.get() : nullptr);
    } else {
        Scope scope(hgx_scope_create(h.get()));
        Iter it(hgx_iter_create(h.get()));
        if (!scope || !it || hgx_handle_get_scope(h.get(), "localhost", scope.get()) < 0 ||
            hgx_iter_scope_services(it.get(), scope.get()) < 0)
            read_failed(path);
        int rc;
        while ((rc = hgx_iter_next_service(it.get(), svc.get())) == 1)
            services[text_of(hgx_service_get_name, svc.get())] =
                service_json(h.get(), svc.get(), nullptr);
        if (rc < 0) read_failed(path);
    }
    json doc = json::object();
    doc["services"] = std::move(services);
    std::string text;
    try {
        text = doc.dump(2);
    } catch (const json::type_error&) {
        throw Failure{path + ": a name or value is not valid UTF-8 and cannot be exported"};
    }
    out << text << '\n';
}

void cmd_list(const std::string& path, std::ostream& out) {
    Handle h = open_reader(path);
    Scope scope(hgx_scope_create(h.get()));
    Iter it(hgx_iter_create(h.get()));
    Iter inner(hgx_iter_create(h.get()));
    Service svc(hgx_service_create(h.get()));
    Instance inst(hgx_instance_create(h.get()));
    if (!scope || !it || !inner || !svc || !inst ||
        hgx_handle_get_scope(h.get(), "localhost", scope.get()) < 0 ||
        hgx_iter_scope_services(it.get(), scope.get()) < 0)
        read_failed(path);
    char buf[1100];
    int rc;
    while ((rc = hgx_iter_next_service(it.get(), svc.get())) == 1) {
        if (hgx_service_to_wern(svc.get(), buf, sizeof buf) < 0) read_failed(path);
        out << buf << '\n';
        if (hgx_iter_service_instances(inner.get(), svc.get()) < 0) read_failed(path);
        int ri;
        while ((ri = hgx_iter_next_instance(inner.get(), inst.get())) == 1) {
            if (hgx_instance_to_wern(inst.get(), buf, sizeof buf) < 0) read_failed(path);
            out << buf << '\n';
        }
        if (ri < 0) read_failed(path);
    }
    if (rc < 0) read_failed(path);
}

// A service or instance that a wern names, opened for reading, with a
// snapshot object for the caller to fill.
struct OwnerView {
    Handle h;
    Service svc;
    Instance inst;
    Snapshot snap;
    bool is_instance = false;

    OwnerView(const std::string& path, const std::string& wern)
        : h(open_reader(path)),
          svc(hgx_service_create(h.get())),
          inst(hgx_instance_create(h.get())),
          snap(hgx_snapshot_create(h.get())) {
        if (!svc || !inst || !snap) throw Failure{lib_error()};
        decode_owner(h.get(), wern, svc.get(), inst.get(), &is_instance);
    }
};

// Each group ("PATH/", "TYPE") and property ("PATH", "TYPE "V1" ...") of a
// walk, in walk order, handed to line(key, text).
template <typename Line>
void view_lines(hgx_handle_t* h, hgx_service_t* svc, hgx_instance_t* inst, hgx_snapshot_t* snap,
                Walk walk, Line line) {
    auto visit = [&](hgx_propertygroup_t* pg, const std::string& p) {
        line(p + "/", text_of(hgx_pg_get_type, pg));
        each_property(h, pg, [&](hgx_property_t* prop) {
            hgx_type_t type;
            if (hgx_property_type(prop, &type) < 0) throw Failure{"cannot read: " + lib_error()};
            std::string text = hgx_type_to_string(type);
            for (const std::string& v : values_of(h, prop)) {
                text += ' ';
                text += manifest::quote(v, std::string::npos);
            }
            std::string name = p;
            name += '/';
            name += text_of(hgx_property_get_name, prop);
            line(name, text);
        });
    };
    walk_top(h, svc, inst, snap, walk, visit);
}

// One line per group ("PATH/ TYPE") and per property ("PATH TYPE "V1" ...").
// An instance shows its composed view, or the snapshot given.
void cmd_show(const std::string& path, const std::string& wern, const std::string* snapshot,
              std::ostream& out) {
    OwnerView v(path, wern);
    hgx_service_t* svc = v.svc.get();
    hgx_instance_t* inst = v.inst.get();
    hgx_snapshot_t* snap = v.snap.get();
    const bool is_instance = v.is_instance;
    Walk walk = is_instance ? Walk::COMPOSED : Walk::OWN;
    if (snapshot) {
        if (!is_instance) throw Failure{wern + ": only an instance has snapshots"};
        if (hgx_instance_get_snapshot(inst, snapshot->c_str(), snap) < 0)
            throw Failure{wern + ": no snapshot " + manifest::quote(*snapshot)};
        walk = Walk::SNAPSHOT;
    }
    view_lines(v.h.get(), svc, is_instance ? inst : nullptr, snapshot ? snap : nullptr, walk,
               [&](const std::string& key, const std::string& text) {
                   out << key << ' ' << text << '\n';
               });
}

// What kelvo would see differently once the snapshot "running" is retaken:
// "- " a line of the snapshot only, "+ " one of the current view only,
// "~ PATH OLD -> NEW" a changed one; in path order, nothing when they agree.
void cmd_diff(const std::string& path, const std::string& wern, std::ostream& out) {
    OwnerView v(path, wern);
    hgx_service_t* svc = v.svc.get();
    hgx_instance_t* inst = v.inst.get();
    hgx_snapshot_t* snap = v.snap.get();
    const bool is_instance = v.is_instance;
    if (!is_instance) throw Failure{wern + ": only an instance has snapshots"};
    if (hgx_instance_get_snapshot(inst, "running", snap) < 0)
        throw Failure{wern + ": no snapshot \"running\" yet; kelvo reads the current view until "
                             "\"hgxrepo snapshot " + wern + "\" takes one"};
    std::map<std::string, std::string> running, current;
    auto into = [](std::map<std::string, std::string>& m) {
        return [&m](const std::string& key, const std::string& text) { m[key] = text; };
    };
    view_lines(v.h.get(), svc, inst, snap, Walk::SNAPSHOT, into(running));
    view_lines(v.h.get(), svc, inst, nullptr, Walk::COMPOSED, into(current));
    auto old_it = running.begin();
    auto new_it = current.begin();
    while (old_it != running.end() || new_it != current.end()) {
        if (new_it == current.end() || (old_it != running.end() && old_it->first < new_it->first)) {
            out << "- " << old_it->first << ' ' << old_it->second << '\n';
            ++old_it;
        } else if (old_it == running.end() || new_it->first < old_it->first) {
            out << "+ " << new_it->first << ' ' << new_it->second << '\n';
            ++new_it;
        } else {
            if (old_it->second != new_it->second)
                out << "~ " << old_it->first << ' ' << old_it->second << " -> " << new_it->second
                    << '\n';
            ++old_it;
            ++new_it;
        }
    }
}

// ---- command line ----------------------------------------------------------

std::string read_input(const std::string& name) {
    std::ostringstream s;
    if (name == "-") {
        s << std::cin.rdbuf();
        if (std::cin.bad()) throw Failure{"<stdin>: cannot read"};
        return s.str();
    }
    std::ifstream f(name, std::ios::binary);
    if (!f) throw Failure{name + ": cannot read: " + std::strerror(errno)};
    s << f.rdbuf();
    if (f.bad()) throw Failure{name + ": cannot read"};
    return s.str();
}

// Keeps a message to one line whatever a name or value held.
std::string one_line(std::string s) {
    for (char& c : s)
        if (c == '\n' || c == '\r') c = ' ';
    return s;
}

// A bad command line; `what` (if any) is said after the usage.
struct Usage {
    std::string what;
};

// Takes "--snapshot" where it may stand, in front of the wern.
bool take_snapshot_option(std::vector<std::string>& rest) {
    if (rest.empty() || rest[0] != "--snapshot") return false;
    rest.erase(rest.begin());
    return true;
}

int run(const std::vector<std::string>& args) {
    std::string file_option;
    size_t i = 0;
    while (i < args.size() && args[i].size() > 1 && args[i][0] == '-') {
        if (args[i] == "-r") {
            if (i + 1 >= args.size()) throw Usage{};
            file_option = args[i + 1];
            if (file_option.empty()) throw Usage{};
            i += 2;
        } else if (args[i].rfind("-r", 0) == 0) {
            file_option = args[i].substr(2);
            ++i;
        } else if (args[i] == "-h" || args[i] == "--help") {
            std::cout << USAGE;
            return 0;
        } else if (args[i] == "--version") {
            std::cout << "hgxrepo " KELVO_VERSION "\n";
            return 0;
        } else {
            throw Usage{};
        }
    }
    if (i >= args.size()) throw Usage{};
    const std::string cmd = args[i++];
    if (cmd == "help") {
        std::cout << USAGE;
        return 0;
    }
    std::vector<std::string> rest(args.begin() + static_cast<std::ptrdiff_t>(i), args.end());
    const std::string path = repository_path(file_option);
    const bool snapshot = take_snapshot_option(rest);
    auto arity = [&](size_t min, size_t max) {
        if (rest.size() < min || rest.size() > max) throw Usage{};
    };

    if (snapshot && cmd != "setprop" && cmd != "delprop" && cmd != "addpg" && cmd != "delpg")
        throw Usage{"--snapshot goes with setprop, delprop, addpg and delpg"};
    if (cmd == "import") {
        bool take = true;
        if (!rest.empty() && rest[0] == "--no-snapshot") {
            take = false;
            rest.erase(rest.begin());
        }
        if (rest.empty()) throw Usage{};
        std::vector<manifest::Document> docs(rest.size());
        for (size_t k = 0; k < rest.size(); ++k) {
            std::string error;
            std::string name = rest[k] == "-" ? "<stdin>" : rest[k];
            if (manifest::parse(read_input(rest[k]), name, &docs[k], &error) < 0)
                throw Failure{error};
        }
        std::vector<std::string> dropped;
        until_committed(path, [&] {
            dropped.clear();
            import_documents(path, docs, take, &dropped);
        });
        for (const std::string& line : dropped) std::cerr << PROG << one_line(line) << '\n';
    } else if (cmd == "export") {
        arity(0, 1);
        cmd_export(path, rest.empty() ? nullptr : &rest[0], std::cout);
    } else if (cmd == "snapshot") {
        arity(1, 2);
        until_committed(path,
                        [&] { cmd_snapshot(path, rest[0], rest.size() > 1 ? rest[1] : "running"); });
    } else if (cmd == "setprop") {
        arity(1, SIZE_MAX);
        // The type option stands behind the wern; in front of it, it would
        // be taken for the wern.
        if (rest[0] == "-t") throw Usage{};
        std::string type;
        size_t first = 1;
        bool typed = false;
        if (rest.size() > 1 && rest[1] == "-t") {
            if (rest.size() < 3) throw Usage{};
            type = rest[2];
            typed = true;
            first = 3;
            if (rest.size() > 3 && rest[3] == "--") first = 4;
        } else if (rest.size() > 1 && rest[1] == "--") {
            first = 2;
        }
        std::vector<std::string> values(rest.begin() + static_cast<std::ptrdiff_t>(first),
                                        rest.end());
        until_committed(
            path, [&] { cmd_setprop(path, rest[0], typed ? &type : nullptr, values, snapshot); });
    } else if (cmd == "delprop") {
        arity(1, 1);
        until_committed(path, [&] { cmd_delprop(path, rest[0], snapshot); });
    } else if (cmd == "addpg") {
        arity(2, 2);
        until_committed(path, [&] { cmd_addpg(path, rest[0], rest[1], snapshot); });
    } else if (cmd == "delpg") {
        arity(1, 1);
        until_committed(path, [&] { cmd_delpg(path, rest[0], snapshot); });
    } else if (cmd == "delete") {
        arity(1, 1);
        until_committed(path, [&] { cmd_delete(path, rest[0]); });
    } else if (cmd == "list") {
        arity(0, 0);
        cmd_list(path, std::cout);
    } else if (cmd == "show") {
        arity(1, 2);
        cmd_show(path, rest[0], rest.size() > 1 ? &rest[1] : nullptr, std::cout);
    } else if (cmd == "copy") {
        arity(1, 1);
        until_committed(rest[0], [&] { cmd_copy(path, rest[0]); });
    } else if (cmd == "diff") {
        arity(1, 1);
        cmd_diff(path, rest[0], std::cout);
    } else if (cmd == "sync") {
        SyncOptions o;
        o.file = path;
        size_t k = 0;
        for (; k < rest.size() && rest[k].rfind("--", 0) == 0; ++k) {
            if (rest[k] == "--once") {
                o.once = true;
            } else if ((rest[k] == "--service" || rest[k] == "--exec") && k + 1 < rest.size()) {
                (rest[k] == "--exec" ? o.exec : o.services.emplace_back()) = rest[k + 1];
                ++k;
            } else {
                throw Usage{"unknown option " + manifest::quote(rest[k])};
            }
        }
        if (k + 1 != rest.size()) throw Usage{"sync takes one URL"};
        o.url = rest[k];
        return hgxrepo_sync(o);
    } else {
        throw Usage{"unknown command " + manifest::quote(cmd)};
    }
    std::cout.flush();
    if (!std::cout) throw Failure{"cannot write standard output"};
    return 0;
}

}  // namespace

int hgxrepo_main(int argc, char** argv) {
    std::vector<std::string> args;
    for (int k = 1; k < argc; ++k) args.emplace_back(argv[k]);
    try {
        return run(args);
    } catch (const Usage& u) {
        std::cerr << USAGE;
        if (!u.what.empty()) std::cerr << PROG << one_line(u.what) << '\n';
        return 2;
    } catch (const Failure& f) {
        std::cout.flush();
        std::cerr << PROG << one_line(f.what) << '\n';
        return 1;
    } catch (const std::bad_alloc&) {
        std::cerr << PROG << "out of memory\n";
        return 1;
    }
}

int hgxrepo_import_text(const std::string& path, const std::string& text, bool snapshot,
                        std::string* error) {
    try {
        manifest::Document doc;
        std::string message;
        if (manifest::parse(text, "manifest", &doc, &message) < 0) throw Failure{message};
        until_committed(path, [&] { import_documents(path, {doc}, snapshot); });
        return 0;
    } catch (const Failure& f) {
        if (error) *error = PROG + one_line(f.what);
        return 1;
    } catch (const std::bad_alloc&) {
        if (error) *error = std::string(PROG) + "out of memory";
        return 1;
    }
}
