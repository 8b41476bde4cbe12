// The commands that read the repository (export, list, show, diff). They go
// through the client interface of hgx.h, as every other reader does, and
// write to standard output only.
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "hgxrepo_internal.h"

namespace hgxrepo {

namespace {

using json = nlohmann::ordered_json;

// Calls each() with every service of the scope localhost in svc, in order.
template <typename Each>
void each_service(hgx_handle_t* h, const std::string& path, hgx_service_t* svc, Each each) {
    Scope scope(hgx_scope_create(h));
    Iter it(hgx_iter_create(h));
    if (!scope || !it || hgx_handle_get_scope(h, "localhost", scope.get()) < 0 ||
        hgx_iter_scope_services(it.get(), scope.get()) < 0)
        read_failed(path);
    int rc;
    while ((rc = hgx_iter_next_service(it.get(), svc)) == 1) each();
    if (rc < 0) read_failed(path);
}

// Calls each(group) for every group an iterator that is started gives.
template <typename Each>
void each_pg(hgx_handle_t* h, hgx_iter_t* it, Each each) {
    Pg pg(hgx_pg_create(h));
    if (!pg) throw Failure{lib_error()};
    int rc;
    while ((rc = hgx_iter_next_pg(it, pg.get())) == 1) each(pg.get());
    if (rc < 0) throw Failure{failed_to("read groups")};
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

hgx_type_t type_of(const hgx_property_t* p) {
    hgx_type_t type;
    if (hgx_property_type(p, &type) < 0) throw Failure{failed_to("read")};
    return type;
}

std::vector<std::string> values_of(hgx_handle_t* h, const hgx_property_t* p) {
    Iter it(hgx_iter_create(h));
    Value v(hgx_value_create(h));
    if (!it || !v || hgx_iter_property_values(it.get(), p) < 0)
        throw Failure{failed_to("read values")};
    std::vector<std::string> out;
    std::string buf(4097, '\0');
    int rc;
    while ((rc = hgx_iter_next_value(it.get(), v.get())) == 1) {
        ssize_t n = hgx_value_get_as_string(v.get(), buf.data(), buf.size());
        if (n < 0) throw Failure{failed_to("read values")};
        out.emplace_back(buf.data(), static_cast<size_t>(n));
    }
    if (rc < 0) throw Failure{failed_to("read values")};
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
json property_json(hgx_type_t type, const std::vector<std::string>& values) {
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

json group_json(hgx_handle_t* h, hgx_propertygroup_t* pg);

// Adds a member to an object under a name the store gives once per object
// (names of one group's properties, of one owner's groups, instances,
// services): appended without the ordered object's lookup of the name,
// which would make an export quadratic in a group's size.
void append(json& object, std::string name, json value) {
    object.get_ref<json::object_t&>().emplace_back(std::move(name), std::move(value));
}

// The groups an iterator that is started gives, by name.
json groups_of(hgx_handle_t* h, hgx_iter_t* it) {
    json groups = json::object();
    each_pg(h, it, [&](hgx_propertygroup_t* pg) {
        append(groups, text_of(hgx_pg_get_name, pg), group_json(h, pg));
    });
    return groups;
}

json group_json(hgx_handle_t* h, hgx_propertygroup_t* pg) {
    json g = json::object();
    g["type"] = text_of(hgx_pg_get_type, pg);
    json props = json::object();
    each_property(h, pg, [&](hgx_property_t* p) {
        append(props, text_of(hgx_property_get_name, p),
               property_json(type_of(p), values_of(h, p)));
    });
    if (!props.empty()) g["properties"] = std::move(props);
    Iter it(hgx_iter_create(h));
    if (!it || hgx_iter_pg_pgs(it.get(), pg) < 0) throw Failure{failed_to("read groups")};
    json groups = groups_of(h, it.get());
    if (!groups.empty()) g["groups"] = std::move(groups);
    return g;
}

json instance_json(hgx_handle_t* h, hgx_instance_t* inst) {
    json o = json::object();
    Iter it(hgx_iter_create(h));
    if (!it) throw Failure{lib_error()};
    if (hgx_iter_instance_pgs(it.get(), inst) < 0) throw Failure{failed_to("read groups")};
    json g = groups_of(h, it.get());
    if (!g.empty()) o["groups"] = std::move(g);
    return o;
}

// `only` restricts the service to one instance and leaves its groups out.
json service_json(hgx_handle_t* h, hgx_service_t* svc, hgx_instance_t* only) {
    json o = json::object();
    if (only) {
        o["instances"][text_of(hgx_instance_get_name, only)] = instance_json(h, only);
        return o;
    }
    Iter groups(hgx_iter_create(h));
    if (!groups) throw Failure{lib_error()};
    if (hgx_iter_service_pgs(groups.get(), svc) < 0) throw Failure{failed_to("read groups")};
    json g = groups_of(h, groups.get());
    if (!g.empty()) o["groups"] = std::move(g);
    Iter it(hgx_iter_create(h));
    Instance inst(hgx_instance_create(h));
    if (!it || !inst || hgx_iter_service_instances(it.get(), svc) < 0)
        throw Failure{failed_to("read instances")};
    json instances = json::object();
    int rc;
    while ((rc = hgx_iter_next_instance(it.get(), inst.get())) == 1)
        append(instances, text_of(hgx_instance_get_name, inst.get()), instance_json(h, inst.get()));
    if (rc < 0) throw Failure{failed_to("read instances")};
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

}  // namespace

int cmd_export(const Invocation& inv) {
    arity(inv, 0, 1);
    const std::string& path = inv.path;
    Handle h = open_reader(path);
    json services = json::object();
    Service svc(hgx_service_create(h.get()));
    Instance inst(hgx_instance_create(h.get()));
    if (!svc || !inst) throw Failure{lib_error()};
    if (!inv.words.empty()) {
        bool is_instance = false;
        decode_owner(h.get(), inv.words[0], svc.get(), inst.get(), &is_instance);
        services[text_of(hgx_service_get_name, svc.get())] =
            service_json(h.get(), svc.get(), is_instance ? inst.get() : nullptr);
    } else {
        each_service(h.get(), path, svc.get(), [&] {
            append(services, text_of(hgx_service_get_name, svc.get()),
                   service_json(h.get(), svc.get(), nullptr));
        });
    }
    json doc = json::object();
    doc["services"] = std::move(services);
    std::string text;
    try {
        text = doc.dump(2);
    } catch (const json::type_error&) {
        throw Failure{path + ": a name or value is not valid UTF-8 and cannot be exported"};
    }
    std::cout << text << '\n';
    return 0;
}

int cmd_list(const Invocation& inv) {
    arity(inv, 0, 0);
    const std::string& path = inv.path;
    Handle h = open_reader(path);
    Iter inner(hgx_iter_create(h.get()));
    Service svc(hgx_service_create(h.get()));
    Instance inst(hgx_instance_create(h.get()));
    if (!inner || !svc || !inst) read_failed(path);
    char buf[1100];
    each_service(h.get(), path, svc.get(), [&] {
        if (hgx_service_to_wern(svc.get(), buf, sizeof buf) < 0) read_failed(path);
        std::cout << manifest::escape(buf) << '\n';
        if (hgx_iter_service_instances(inner.get(), svc.get()) < 0) read_failed(path);
        int rc;
        while ((rc = hgx_iter_next_instance(inner.get(), inst.get())) == 1) {
            if (hgx_instance_to_wern(inst.get(), buf, sizeof buf) < 0) read_failed(path);
            std::cout << manifest::escape(buf) << '\n';
        }
        if (rc < 0) read_failed(path);
    });
    return 0;
}

// ---- show and diff ---------------------------------------------------------

namespace {

// Kinds of group walks: own groups, the current composed view, a snapshot.
enum class Walk { OWN, COMPOSED, SNAPSHOT };

// Visits a group and every group below it depth-first, a group before its
// nested groups; `visit` gets the group and its path.
template <typename Visit>
void walk_pg(hgx_handle_t* h, hgx_propertygroup_t* pg, Walk walk, const std::string& path,
             Visit& visit) {
    visit(pg, path);
    Iter it(hgx_iter_create(h));
    if (!it) throw Failure{lib_error()};
    int rc = walk == Walk::OWN ? hgx_iter_pg_pgs(it.get(), pg)
                               : hgx_iter_pg_pgs_composed(it.get(), pg, nullptr);
    if (rc < 0) throw Failure{failed_to("read groups")};
    each_pg(h, it.get(), [&](hgx_propertygroup_t* child) {
        walk_pg(h, child, walk, path + "/" + manifest::escape(text_of(hgx_pg_get_name, child)),
                visit);
    });
}

// Walks a service's or instance's groups.
template <typename Visit>
void walk_top(hgx_handle_t* h, hgx_service_t* svc, hgx_instance_t* inst, hgx_snapshot_t* snap,
              Walk walk, Visit& visit) {
    Iter it(hgx_iter_create(h));
    if (!it) throw Failure{lib_error()};
    int rc = !inst               ? hgx_iter_service_pgs(it.get(), svc)
             : walk == Walk::OWN ? hgx_iter_instance_pgs(it.get(), inst)
                                 : hgx_iter_instance_pgs_composed(it.get(), inst, snap);
    if (rc < 0) throw Failure{failed_to("read groups")};
    each_pg(h, it.get(), [&](hgx_propertygroup_t* pg) {
        walk_pg(h, pg, walk, manifest::escape(text_of(hgx_pg_get_name, pg)), visit);
    });
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

    // Each group ("PATH/", "TYPE") and property ("PATH", "TYPE "V1" ...")
    // of a walk of the instance (the service without one), in walk order,
    // handed to line(key, text), names and types escaped and values quoted,
    // so that each is one line. The snapshot is read with Walk::SNAPSHOT.
    template <typename Line>
    void lines(Walk walk, Line line) {
        auto visit = [&](hgx_propertygroup_t* pg, const std::string& p) {
            line(p + "/", manifest::escape(text_of(hgx_pg_get_type, pg)));
            each_property(h.get(), pg, [&](hgx_property_t* prop) {
                std::string text = hgx_type_to_string(type_of(prop));
                for (const std::string& v : values_of(h.get(), prop)) {
                    text += ' ';
                    text += manifest::quote(v, std::string::npos);
                }
                std::string name = p;
                name += '/';
                name += manifest::escape(text_of(hgx_property_get_name, prop));
                line(name, text);
            });
        };
        walk_top(h.get(), svc.get(), is_instance ? inst.get() : nullptr,
                 walk == Walk::SNAPSHOT ? snap.get() : nullptr, walk, visit);
    }
};

// Lines of the snapshot only as "- ", of the current view only as "+ ",
// changed ones as "~ PATH OLD -> NEW"; in path order.
void print_diff(const std::map<std::string, std::string>& running,
                const std::map<std::string, std::string>& current) {
    auto old_it = running.begin();
    auto new_it = current.begin();
    while (old_it != running.end() || new_it != current.end()) {
        if (new_it == current.end() || (old_it != running.end() && old_it->first < new_it->first)) {
            std::cout << "- " << old_it->first << ' ' << old_it->second << '\n';
            ++old_it;
        } else if (old_it == running.end() || new_it->first < old_it->first) {
            std::cout << "+ " << new_it->first << ' ' << new_it->second << '\n';
            ++new_it;
        } else {
            if (old_it->second != new_it->second)
                std::cout << "~ " << old_it->first << ' ' << old_it->second << " -> "
                          << new_it->second << '\n';
            ++old_it;
            ++new_it;
        }
    }
}

}  // namespace

namespace {

// A group of a walk as show --json gives it: every key always there, every
// property in the object form, nested groups read in the walk's mode.
json group_view(hgx_handle_t* h, hgx_propertygroup_t* pg, Walk walk) {
    json g = json::object();
    append(g, "type", text_of(hgx_pg_get_type, pg));
    json props = json::object();
    each_property(h, pg, [&](hgx_property_t* p) {
        json prop = json::object();
        append(prop, "type", hgx_type_to_string(type_of(p)));
        append(prop, "values", values_of(h, p));
        append(props, text_of(hgx_property_get_name, p), std::move(prop));
    });
    append(g, "properties", std::move(props));
    Iter it(hgx_iter_create(h));
    if (!it) throw Failure{lib_error()};
    int rc = walk == Walk::OWN ? hgx_iter_pg_pgs(it.get(), pg)
                               : hgx_iter_pg_pgs_composed(it.get(), pg, nullptr);
    if (rc < 0) throw Failure{failed_to("read groups")};
    json groups = json::object();
    each_pg(h, it.get(), [&](hgx_propertygroup_t* child) {
        append(groups, text_of(hgx_pg_get_name, child), group_view(h, child, walk));
    });
    append(g, "groups", std::move(groups));
    return g;
}

// The text of a JSON document for standard output; refuses what JSON cannot
// hold (text that is not UTF-8) rather than change it.
std::string json_text(const json& doc, const std::string& path) {
    try {
        return doc.dump(2);
    } catch (const json::type_error&) {
        throw Failure{path + ": a name or value is not valid UTF-8 and cannot be shown as JSON"};
    }
}

}  // namespace

// One line per group ("PATH/ TYPE") and per property ("PATH TYPE "V1" ..."),
// or with --json one JSON document. An instance shows its composed view, or
// the snapshot given.
int cmd_show(const Invocation& inv) {
    Invocation rest = inv;
    const bool as_json = take_flag(rest.words, "--json");
    arity(rest, 1, 2);
    const std::string& wern = rest.words[0];
    const std::string* snapshot = rest.words.size() > 1 ? &rest.words[1] : nullptr;
    OwnerView v(inv.path, wern);
    Walk walk = v.is_instance ? Walk::COMPOSED : Walk::OWN;
    if (snapshot) {
        if (!v.is_instance) throw Failure{wern + ": only an instance has snapshots"};
        if (hgx_instance_get_snapshot(v.inst.get(), snapshot->c_str(), v.snap.get()) < 0)
            throw Failure{wern + ": no snapshot " + manifest::quote(*snapshot)};
        walk = Walk::SNAPSHOT;
    }
    if (!as_json) {
        v.lines(walk, [&](const std::string& key, const std::string& text) {
            std::cout << key << ' ' << text << '\n';
        });
        return 0;
    }
    hgx_handle_t* h = v.h.get();
    Iter it(hgx_iter_create(h));
    if (!it) throw Failure{lib_error()};
    int rc = !v.is_instance      ? hgx_iter_service_pgs(it.get(), v.svc.get())
             : walk == Walk::OWN ? hgx_iter_instance_pgs(it.get(), v.inst.get())
                                 : hgx_iter_instance_pgs_composed(
                                       it.get(), v.inst.get(), snapshot ? v.snap.get() : nullptr);
    if (rc < 0) throw Failure{failed_to("read groups")};
    json groups = json::object();
    each_pg(h, it.get(), [&](hgx_propertygroup_t* pg) {
        append(groups, text_of(hgx_pg_get_name, pg), group_view(h, pg, walk));
    });
    char buf[1100];
    if ((v.is_instance ? hgx_instance_to_wern(v.inst.get(), buf, sizeof buf)
                       : hgx_service_to_wern(v.svc.get(), buf, sizeof buf)) < 0)
        throw Failure{failed_to("read")};
    json doc = json::object();
    append(doc, "wern", buf);
    append(doc, "snapshot", snapshot ? json(*snapshot) : json(nullptr));
    append(doc, "groups", std::move(groups));
    std::cout << json_text(doc, inv.path) << '\n';
    return 0;
}

// The values of one property of the current view (an instance's composed
// one), one a line, escaped; with -0 as they are, each ended by a NUL byte.
int cmd_get(const Invocation& inv) {
    Invocation rest = inv;
    const bool nul = take_flag(rest.words, "-0");
    arity(rest, 1, 1);
    const std::string& wern = rest.words[0];
    hgx_wern_parts parts;
    if (hgx_wern_split(wern.c_str(), &parts) < 0)
        throw Failure{"not a valid wern: " + manifest::quote(wern) + "; " + WERN_FORMS};
    Handle h = open_reader(inv.path);
    Prop p(hgx_property_create(h.get()));
    if (!p) throw Failure{lib_error()};
    if (parts.path.empty() || hgx_handle_decode_wern(h.get(), wern.c_str(), nullptr, nullptr,
                                                     nullptr, nullptr, p.get(), 0) < 0)
        throw Failure{wern + ": " + (parts.path.empty() ? "names no property" : lib_error())};
    hgx_type_t type;
    if (hgx_property_type(p.get(), &type) < 0) throw Failure{wern + ": names no property"};
    for (const std::string& v : values_of(h.get(), p.get())) {
        if (nul)
            std::cout << v << '\0';
        else
            std::cout << manifest::escape(v) << '\n';
    }
    return 0;
}

// What kelvo would see differently once the snapshot "running" is retaken;
// nothing when the snapshot and the current view agree.
int cmd_diff(const Invocation& inv) {
    arity(inv, 1, 1);
    const std::string& wern = inv.words[0];
    OwnerView v(inv.path, wern);
    if (!v.is_instance) throw Failure{wern + ": only an instance has snapshots"};
    if (hgx_instance_get_snapshot(v.inst.get(), "running", v.snap.get()) < 0)
        throw Failure{wern +
                      ": no snapshot \"running\" yet; kelvo reads the current view until "
                      "\"hgxrepo snapshot " +
                      wern + "\" takes one"};
    std::map<std::string, std::string> running, current;
    auto into = [](std::map<std::string, std::string>& m) {
        return [&m](const std::string& key, const std::string& text) { m[key] = text; };
    };
    v.lines(Walk::SNAPSHOT, into(running));
    v.lines(Walk::COMPOSED, into(current));
    print_diff(running, current);
    return 0;
}

}  // namespace hgxrepo
