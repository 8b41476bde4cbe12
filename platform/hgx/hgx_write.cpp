// libhgx's write side: the operations hgxrepo builds on, over whichever store
// the repository is kept in.
#include "hgx_write.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <new>
#include <unordered_map>

#include "hgx_internal.h"

using namespace hgx_detail;

// A writer owns its store, opened for writing: one transaction from its
// opening to its commit. source is the store's, kept for hgx_writer_source.
struct hgx_writer {
    std::unique_ptr<Store> store;
    std::string source;
};

namespace {

// A writer for an opened store (null stays null).
hgx_writer_t* make_writer(std::unique_ptr<Store> s) {
    if (!s) return nullptr;
    std::string source = s->source();
    return new hgx_writer{std::move(s), std::move(source)};
}

int owner_kind(const hgx_owner& o) {
    switch (o.kind) {
        case hgx_owner::SERVICE:
            return OWNER_SERVICE;
        case hgx_owner::INSTANCE:
            return OWNER_INSTANCE;
        default:
            return OWNER_PG;
    }
}

}  // namespace

int hgx_values_blob(const std::vector<std::string>& values, std::string* blob) {
    return guarded(-1, [&]() -> int {
        blob->clear();
        for (const std::string& v : values) {
            *blob += v;
            *blob += '\0';
        }
        return 0;
    });
}

hgx_writer_t* hgx_writer_open(const char* path, bool create, std::string* message) {
    return guarded<hgx_writer_t*>(nullptr, [&]() -> hgx_writer_t* {
        return make_writer(
            open_store(path ? path : "", create ? OpenMode::CREATE : OpenMode::WRITE, message));
    });
}

hgx_writer_t* hgx_writer_create(const char* path, unsigned mode, std::string* message) {
    if ((mode & ~0777u) != 0) return fail(HGX_ERROR_INVALID_ARGUMENT), nullptr;
    return guarded<hgx_writer_t*>(nullptr, [&]() -> hgx_writer_t* {
        std::string where = path ? path : "";
        return make_writer(is_cluster_url(where) ? open_store(where, OpenMode::CREATE, message)
                                                 : open_file_store(where, OpenMode::CREATE, message,
                                                                   static_cast<int>(mode)));
    });
}

hgx_writer_t* hgx_reader_open(const char* path, std::string* message) {
    return hgx_reader_open_at(path, 0, message);
}

int hgx_writer_commit(hgx_writer_t* w) {
    if (!w || !w->store) return fail(HGX_ERROR_INVALID_ARGUMENT);
    return guarded(-1, [&]() -> int { return w->store->commit() < 0 ? -1 : 0; });
}

int hgx_writer_begin(hgx_writer_t* w) {
    if (!w || !w->store) return fail(HGX_ERROR_INVALID_ARGUMENT);
    return guarded(-1, [&]() -> int { return w->store->begin(); });
}

int hgx_writer_set_durable(hgx_writer_t* w, bool durable) {
    if (!w || !w->store) return fail(HGX_ERROR_INVALID_ARGUMENT);
    return guarded(-1, [&]() -> int { return w->store->set_durable(durable); });
}

void hgx_writer_close(hgx_writer_t* w) { delete w; }

const char* hgx_writer_message(const hgx_writer_t* w) {
    return w ? w->store->message().c_str() : "";
}

hgx_id_t hgx_writer_find_service(hgx_writer_t* w, std::string_view name) {
    return guarded<hgx_id_t>(-1, [&]() -> hgx_id_t {
        Row r;
        int rc = w->store->service_by_name(name, &r);
        return rc < 0 ? -1 : rc ? r.id : 0;
    });
}

hgx_id_t hgx_writer_add_service(hgx_writer_t* w, std::string_view name) {
    return guarded<hgx_id_t>(-1, [&]() -> hgx_id_t {
        if (!valid_service_name(name) || name.size() + 5 > WERN_LIMIT)
            return fail(HGX_ERROR_INVALID_ARGUMENT);
        return w->store->add_service(name);
    });
}

int hgx_writer_delete_service(hgx_writer_t* w, hgx_id_t service) {
    return guarded(-1, [&]() -> int { return w->store->delete_service(service); });
}

int hgx_writer_instances(hgx_writer_t* w, hgx_id_t service, std::vector<hgx_id_t>* out) {
    return guarded(-1, [&]() -> int {
        std::vector<Row> rows;
        if (w->store->instances(service, &rows) < 0) return -1;
        out->clear();
        for (const Row& r : rows) out->push_back(r.id);
        return 0;
    });
}

hgx_id_t hgx_writer_find_instance(hgx_writer_t* w, hgx_id_t service, std::string_view name) {
    return guarded<hgx_id_t>(-1, [&]() -> hgx_id_t {
        Row r;
        int rc = w->store->instance_by_name(service, name, &r);
        return rc < 0 ? -1 : rc ? r.id : 0;
    });
}

hgx_id_t hgx_writer_add_instance(hgx_writer_t* w, hgx_id_t service, std::string_view name) {
    return guarded<hgx_id_t>(-1, [&]() -> hgx_id_t {
        if (!valid_segment(name)) return fail(HGX_ERROR_INVALID_ARGUMENT);
        return w->store->add_instance(service, name);
    });
}

int hgx_writer_delete_instance(hgx_writer_t* w, hgx_id_t service, hgx_id_t instance) {
    return guarded(-1, [&]() -> int { return w->store->delete_instance(service, instance); });
}

int hgx_writer_find_pg(hgx_writer_t* w, const hgx_owner& owner, std::string_view name,
                       hgx_owner* pg) {
    return guarded(-1, [&]() -> int {
        Row r;
        int rc = w->store->pg_by_name(owner_kind(owner), owner.id, name, &r);
        if (rc > 0 && pg) *pg = {hgx_owner::PG, r.id, owner.service, owner.instance};
        return rc;
    });
}

namespace {

// What a walk of groups hands each group and property to. group() gets the
// sink's token for the parent group (0 at the top) and gives one for the
// group, or -1 to end the walk with the error set; end() closes a group.
class GroupSink {
  public:
    virtual ~GroupSink() = default;
    virtual int64_t group(int64_t parent, const ComposedPg& g) = 0;
    virtual int property(int64_t group, const Row& p) = 0;
    virtual void end(int64_t) {}
};

// Walks groups depth first, each group's properties before its nested
// groups, in name order: a composed view, or (own_pgs) an owner's own.
int walk_groups(Store& s, const std::vector<ComposedPg>& pgs, GroupSink& sink, int64_t parent) {
    for (const ComposedPg& g : pgs) {
        int64_t token = sink.group(parent, g);
        if (token < 0) return -1;
        std::vector<Row> props;
        if (composed_props(s, g.inst, g.svc, &props) < 0) return -1;
        for (const Row& p : props)
            if (sink.property(token, p) < 0) return -1;
        std::vector<ComposedPg> children;
        if (composed_children(s, g.inst, g.svc, &children) < 0 ||
            walk_groups(s, children, sink, token) < 0)
            return -1;
        sink.end(token);
    }
    return 0;
}

// A name as a message shows it: quoted, with what could break a line or a
// shell command escaped, and cut short.
std::string quoted(std::string_view s) {
    std::string out = "\"";
    for (size_t i = 0; i < s.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (i == 100) {
            out += "...";
            break;
        }
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20 || c == 0x7f) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

// The checks of what one store hands another: a store written by anyone
// with access to it (an etcd cluster) may hold names, types and values that
// no writer of ours would take. They are those an import makes. Each gives
// 0, or -1 with the error set and the destination's message saying what.
class CopyCheck {
  public:
    explicit CopyCheck(Store& to) : to_(to) {}

    int service(std::string_view name) {
        if (!valid_service_name(name)) return refuse("bad service name " + quoted(name));
        return length(service_wern(name));
    }
    int instance(std::string_view service, std::string_view name) {
        if (!valid_segment(name))
            return refuse(service_wern(service) + ": bad instance name " + quoted(name));
        return length(instance_wern(service, name));
    }
    int snapshot(std::string_view instance_wern, std::string_view name) {
        if (!valid_segment(name))
            return refuse(std::string(instance_wern) + ": bad snapshot name " + quoted(name));
        return 0;
    }
    // A group below an owner's wern or a group's; *wern receives its own.
    int group(const std::string& above, const ComposedPg& g, std::string* wern) {
        if (!valid_segment(g.name)) return refuse(above + ": bad group name " + quoted(g.name));
        *wern =
            above +
            (above.find(HGX_WERN_PG_SEPARATOR) == std::string::npos ? HGX_WERN_PG_SEPARATOR : "/") +
            g.name;
        if (g.type.empty() || g.type.size() > PG_TYPE_LIMIT ||
            g.type.find('\0') != std::string::npos)
            return refuse(*wern + ": bad group type " + quoted(g.type));
        return length(*wern);
    }
    int property(const std::string& group_wern, const Row& p) {
        if (!valid_segment(p.name))
            return refuse(group_wern + ": bad property name " + quoted(p.name));
        std::string wern = group_wern + "/" + p.name;
        if (length(wern) < 0) return -1;
        // Checked as a number first: no other value may be held as a type.
        if (p.type <= HGX_TYPE_INVALID || p.type > HGX_TYPE_URI ||
            !hgx_type_to_string(static_cast<hgx_type_t>(p.type)))
            return refuse(wern + ": unknown type " + std::to_string(p.type));
        hgx_type_t type = static_cast<hgx_type_t>(p.type);
        if (!p.text.empty() && p.text.back() != '\0')
            return refuse(wern + ": values not as stored");
        for (size_t at = 0; at < p.text.size();) {
            size_t end = p.text.find('\0', at);
            std::string_view v = std::string_view(p.text).substr(at, end - at);
            const char* why = nullptr;
            if (hgx_value_check(type, v, &why) < 0) {
                to_.set_message(wern + ": value " + quoted(v) + " " + why);
                return -1;
            }
            at = end + 1;
        }
        return 0;
    }

  private:
    int refuse(std::string text) {
        to_.set_message(std::move(text));
        return fail(HGX_ERROR_INVALID_ARGUMENT);
    }
    int length(const std::string& wern) {
        if (wern.size() <= WERN_LIMIT) return 0;
        return refuse("wern longer than " + std::to_string(WERN_LIMIT) + " bytes: " + quoted(wern));
    }
    Store& to_;
};

// Adds the groups and properties a walk hands it to a store, the top ones
// at a place, the others below the group they were in. A store's ids are
// never 0, so 0 stands for the top. With a check (a copy from another
// store), each name, type and value passes it first; the wern of the place
// names them in its messages.
class CopySink final : public GroupSink {
  public:
    CopySink(Store& to, const PgPlace& top, CopyCheck* check = nullptr, std::string wern = "")
        : to_(to), top_(top), check_(check) {
        werns_[0] = std::move(wern);
    }
    int64_t group(int64_t parent, const ComposedPg& g) override {
        std::string wern;
        if (check_ && check_->group(werns_[parent], g, &wern) < 0) return -1;
        PgPlace place = top_;
        if (parent) {
            place.kind = OWNER_PG;
            place.owner = parent;
        }
        int64_t id = to_.add_pg(place, g.name, g.type);
        if (check_ && id > 0) werns_[id] = std::move(wern);
        return id;
    }
    int property(int64_t group, const Row& p) override {
        if (check_ && check_->property(werns_[group], p) < 0) return -1;
        return to_.put_prop(group, p.name, p.type, p.text, false);
    }

  private:
    Store& to_;
    PgPlace top_;
    CopyCheck* check_;
    std::unordered_map<int64_t, std::string> werns_;  // of the groups added, when checked
};

// Copies the own groups of an owner of one store (wern: the owner's) below
// a place of another store, checking them on the way.
int copy_pgs(Store& from, int kind, int64_t owner, Store& to, const PgPlace& place,
             const std::string& wern) {
    std::vector<ComposedPg> top;
    CopyCheck check(to);
    CopySink sink(to, place, &check, wern);
    return own_pgs(from, kind, owner, &top) < 0 ? -1 : walk_groups(from, top, sink, 0);
}

// Adds an instance of one store, with its groups and snapshots, to a
// service (named service_name) of another, checking them on the way; the
// new instance's id, or -1.
int64_t copy_instance(Store& from, int64_t instance, Store& to, int64_t service,
                      std::string_view service_name, std::string_view name) {
    CopyCheck check(to);
    if (check.instance(service_name, name) < 0) return -1;
    const std::string iwern = instance_wern(service_name, name);
    int64_t iid = to.add_instance(service, name);
    if (iid < 0 || copy_pgs(from, OWNER_INSTANCE, instance, to,
                            {OWNER_INSTANCE, iid, service, iid, 0}, iwern) < 0)
        return -1;
    std::vector<Row> snaps;
    if (from.snapshots(instance, &snaps) < 0) return -1;
    for (const Row& sn : snaps) {
        if (check.snapshot(iwern, sn.name) < 0) return -1;
        int64_t nid = to.add_snapshot(service, iid, sn.name);
        if (nid < 0 || copy_pgs(from, OWNER_SNAPSHOT, sn.id, to,
                                {OWNER_SNAPSHOT, nid, service, iid, nid}, iwern) < 0)
            return -1;
    }
    return iid;
}

}  // namespace

int hgx_writer_add_pg(hgx_writer_t* w, const hgx_owner& owner, std::string_view name,
                      std::string_view type, hgx_owner* pg) {
    return guarded(-1, [&]() -> int {
        if (!valid_segment(name) || type.size() > PG_TYPE_LIMIT ||
            type.find('\0') != std::string_view::npos)
            return fail(HGX_ERROR_INVALID_ARGUMENT);
        hgx_id_t id = w->store->add_pg(
            {owner_kind(owner), owner.id, owner.service, owner.instance, 0}, name, type);
        if (id < 0) return -1;
        if (pg) *pg = {hgx_owner::PG, id, owner.service, owner.instance};
        return 0;
    });
}

int hgx_writer_delete_pg(hgx_writer_t* w, const hgx_owner& pg) {
    return guarded(-1, [&]() -> int { return w->store->delete_pg(pg.id); });
}

int hgx_writer_find_property(hgx_writer_t* w, const hgx_owner& pg, std::string_view name,
                             hgx_type_t* type) {
    return guarded(-1, [&]() -> int {
        Row r;
        int rc = w->store->prop_by_name(pg.id, name, &r);
        if (rc > 0 && type) *type = static_cast<hgx_type_t>(r.type);
        return rc;
    });
}

int hgx_writer_add_property(hgx_writer_t* w, const hgx_owner& pg, std::string_view name,
                            hgx_type_t type, std::string_view blob) {
    return guarded(-1, [&]() -> int { return w->store->put_prop(pg.id, name, type, blob, false); });
}

int hgx_writer_set_property(hgx_writer_t* w, const hgx_owner& pg, std::string_view name,
                            hgx_type_t type, const std::vector<std::string>& values) {
    return guarded(-1, [&]() -> int {
        if (!valid_segment(name) || !hgx_type_to_string(type))
            return fail(HGX_ERROR_INVALID_ARGUMENT);
        for (const std::string& v : values)
            if (hgx_value_check(type, v) < 0) return -1;
        std::string blob;
        if (hgx_values_blob(values, &blob) < 0) return -1;
        return w->store->put_prop(pg.id, name, type, blob, true);
    });
}

int hgx_writer_delete_property(hgx_writer_t* w, const hgx_owner& pg, std::string_view name) {
    return guarded(-1, [&]() -> int {
        int rc = w->store->delete_prop(pg.id, name);
        return rc < 0 ? -1 : rc ? 0 : fail(HGX_ERROR_NOT_FOUND);
    });
}

int hgx_writer_take_snapshot(hgx_writer_t* w, hgx_id_t service, hgx_id_t instance,
                             std::string_view name) {
    return guarded(-1, [&]() -> int {
        if (!valid_segment(name)) return fail(HGX_ERROR_INVALID_ARGUMENT);
        Store& s = *w->store;
        Row old;
        int rc = s.snapshot_by_name(instance, name, &old);
        if (rc < 0 || (rc && s.delete_snapshot(service, instance, old.id) < 0)) return -1;
        hgx_id_t snap = s.add_snapshot(service, instance, name);
        if (snap < 0) return -1;
        std::vector<ComposedPg> top;
        CopySink sink(s, {OWNER_SNAPSHOT, snap, service, instance, snap});
        return composed_top(s, service, instance, &top) < 0 ? -1 : walk_groups(s, top, sink, 0);
    });
}

int hgx_writer_copy_service(hgx_writer_t* to, hgx_writer_t* from, std::string_view name) {
    return guarded(-1, [&]() -> int {
        Store& src = *from->store;
        Store& dst = *to->store;
        CopyCheck check(dst);
        Row svc;
        int rc = src.service_by_name(name, &svc);
        if (rc <= 0) return rc < 0 ? -1 : fail(HGX_ERROR_NOT_FOUND);
        if (check.service(name) < 0) return -1;
        const std::string swern = service_wern(name);
        Row old;
        rc = dst.service_by_name(name, &old);
        if (rc < 0 || (rc && dst.delete_service(old.id) < 0)) return -1;
        int64_t sid = dst.add_service(name);
        if (sid < 0 ||
            copy_pgs(src, OWNER_SERVICE, svc.id, dst, {OWNER_SERVICE, sid, sid, 0, 0}, swern) < 0)
            return -1;
        std::vector<Row> instances;
        if (src.instances(svc.id, &instances) < 0) return -1;
        for (const Row& in : instances)
            if (copy_instance(src, in.id, dst, sid, name, in.name) < 0) return -1;
        return 0;
    });
}

int hgx_writer_services(hgx_writer_t* w, std::vector<std::string>* out) {
    return guarded(-1, [&]() -> int {
        std::vector<Row> rows;
        if (w->store->services(&rows) < 0) return -1;
        out->clear();
        for (Row& r : rows) out->push_back(std::move(r.name));
        return 0;
    });
}

hgx_writer_t* hgx_reader_open_at(const char* url, int64_t revision, std::string* message) {
    return guarded<hgx_writer_t*>(nullptr, [&]() -> hgx_writer_t* {
        return make_writer(open_store(url ? url : "", OpenMode::COPY, message, revision));
    });
}

const char* hgx_writer_source(const hgx_writer_t* w) { return w->source.c_str(); }
int64_t hgx_writer_revision(const hgx_writer_t* w) { return w->store->revision(); }

int hgx_writer_changes(hgx_writer_t* w, std::vector<std::pair<std::string, std::string>>* out,
                       bool* all) {
    return guarded(-1, [&]() -> int { return w->store->changes(out, all); });
}

int hgx_writer_version(hgx_writer_t* w, std::string_view service, std::string_view instance,
                       std::string* version) {
    return guarded(-1, [&]() -> int { return w->store->version(service, instance, version); });
}

int hgx_writer_instance_versions(hgx_writer_t* w, std::string_view service,
                                 std::vector<std::pair<std::string, std::string>>* out) {
    return guarded(-1, [&]() -> int { return w->store->instance_versions(service, out); });
}

int hgx_writer_granted(hgx_writer_t* w, std::vector<std::string>* werns) {
    return guarded(-1, [&]() -> int { return w->store->granted(werns); });
}

int hgx_writer_copy_own(hgx_writer_t* to, hgx_writer_t* from, std::string_view service) {
    return guarded(-1, [&]() -> int {
        Store& src = *from->store;
        Store& dst = *to->store;
        Row svc, old;
        int has = src.service_by_name(service, &svc);
        int held = has < 0 ? -1 : dst.service_by_name(service, &old);
        if (held < 0) return -1;
        if (!has) return held ? dst.delete_service(old.id) : 0;
        CopyCheck check(dst);
        if (check.service(service) < 0) return -1;
        int64_t sid = held ? old.id : dst.add_service(service);
        if (sid < 0) return -1;
        std::vector<Row> groups;
        if (held && dst.pgs(OWNER_SERVICE, sid, &groups) < 0) return -1;
        for (const Row& g : groups)
            if (dst.delete_pg(g.id) < 0) return -1;
        return copy_pgs(src, OWNER_SERVICE, svc.id, dst, {OWNER_SERVICE, sid, sid, 0, 0},
                        service_wern(service));
    });
}

int hgx_writer_copy_instance(hgx_writer_t* to, hgx_writer_t* from, std::string_view service,
                             std::string_view instance) {
    return guarded(-1, [&]() -> int {
        Store& dst = *to->store;
        Row dsvc, old, ssvc, in;
        int rc = dst.service_by_name(service, &dsvc);
        if (rc <= 0) return rc < 0 ? -1 : fail(HGX_ERROR_NOT_FOUND);
        rc = dst.instance_by_name(dsvc.id, instance, &old);
        if (rc < 0 || (rc && dst.delete_instance(dsvc.id, old.id) < 0)) return -1;
        if (!from) return 0;
        Store& src = *from->store;
        rc = src.service_by_name(service, &ssvc);
        if (rc > 0) rc = src.instance_by_name(ssvc.id, instance, &in);
        if (rc <= 0) return rc;
        return copy_instance(src, in.id, dst, dsvc.id, service, instance) < 0 ? -1 : 0;
    });
}

int64_t hgx_cluster_bytes_read() { return cluster_bytes_read(); }

int hgx_upgrade(const char* url, std::string* message) {
    return guarded(-1, [&]() -> int {
        std::string where = url ? url : "";
        if (cluster_only(where, "upgrade converts a repository in an etcd cluster, not a file",
                         message) < 0)
            return -1;
        return upgrade_cluster(where, message);
    });
}

int hgx_grant(const char* url, const std::string& user, const std::string& host,
              const std::vector<std::string>& werns, std::vector<std::string>* missing,
              std::string* message) {
    return guarded(-1, [&]() -> int {
        std::string where = url ? url : "";
        if (cluster_only(where, "grant gives an etcd user access to a cluster, not to a file",
                         message) < 0)
            return -1;
        return grant_cluster_role(where, user, host, werns, missing, message);
    });
}

int hgx_writer_meta_get(hgx_writer_t* w, std::string_view key, std::string* value) {
    return guarded(-1, [&]() -> int { return w->store->meta_get(key, value); });
}

int hgx_writer_meta_set(hgx_writer_t* w, std::string_view key, std::string_view value) {
    return guarded(-1, [&]() -> int { return w->store->meta_set(key, value); });
}

namespace {

// Appends a text so that no two sequences of texts give the same result.
void add_text(std::string* out, std::string_view s) {
    *out += std::to_string(s.size());
    *out += ':';
    *out += s;
}

// Writes what a walk hands it as text: '(' name type, 'p' name type values
// for each property, ')' at a group's end; texts with their lengths, so that
// two different walks never give the same text.
class TextSink final : public GroupSink {
  public:
    explicit TextSink(std::string* out) : out_(out) {}
    int64_t group(int64_t, const ComposedPg& g) override {
        *out_ += '(';
        add_text(out_, g.name);
        add_text(out_, g.type);
        return 1;
    }
    int property(int64_t, const Row& p) override {
        *out_ += 'p';
        add_text(out_, p.name);
        add_text(out_, std::to_string(p.type));
        add_text(out_, p.text);
        return 0;
    }
    void end(int64_t) override { *out_ += ')'; }

  private:
    std::string* out_;
};

}  // namespace

namespace {

// The text of what kelvo reads of one instance of a service, as
// hgx_writer_instance_texts tells: the walk kelvo's view makes of it,
// group by group.
int instance_text(Store& s, int64_t service, const Row& in, std::string* text) {
    text->clear();
    TextSink sink(text);
    Row running;
    int snapshot = s.snapshot_by_name(in.id, "running", &running);
    std::vector<ComposedPg> top, live;
    if (snapshot < 0 || own_pgs(s, snapshot ? OWNER_SNAPSHOT : OWNER_INSTANCE,
                                snapshot ? running.id : in.id, &top) < 0)
        return -1;
    *text += snapshot ? 'S' : 'L';
    for (const ComposedPg& g : top) {
        if (g.name == "general") {
            if (live.empty() && composed_top(s, service, in.id, &live) < 0) return -1;
            auto it = std::find_if(live.begin(), live.end(),
                                   [](const ComposedPg& c) { return c.name == "general"; });
            if (it == live.end()) {
                *text += '!';  // kelvo cannot read it
                continue;
            }
            if (walk_groups(s, {*it}, sink, 0) < 0) return -1;
            continue;
        }
        // A snapshot's groups are its own all the way down.
        if (snapshot) {
            if (walk_groups(s, {g}, sink, 0) < 0) return -1;
            continue;
        }
        // An instance's own group: its own properties, and its nested
        // groups composed with those of the service's group at its place.
        int64_t token = sink.group(0, g);
        std::vector<Row> props;
        if (s.props(g.inst, &props) < 0) return -1;
        for (const Row& p : props) sink.property(token, p);
        Row at;
        int found = s.pg_by_name(OWNER_SERVICE, service, g.name, &at);
        std::vector<ComposedPg> children;
        if (found < 0 || composed_children(s, g.inst, found ? at.id : 0, &children) < 0 ||
            walk_groups(s, children, sink, token) < 0)
            return -1;
        sink.end(token);
    }
    return 0;
}

}  // namespace

int hgx_writer_instance_texts(hgx_writer_t* w, std::string_view service,
                              std::map<std::string, std::string>* out) {
    return guarded(-1, [&]() -> int {
        Store& s = *w->store;
        out->clear();
        Row svc;
        int rc = s.service_by_name(service, &svc);
        if (rc <= 0) return rc;
        std::vector<Row> instances;
        if (s.instances(svc.id, &instances) < 0) return -1;
        for (const Row& in : instances)
            if (instance_text(s, svc.id, in, &(*out)[in.name]) < 0) return -1;
        return 0;
    });
}

int hgx_writer_instance_text(hgx_writer_t* w, std::string_view service, std::string_view instance,
                             std::string* text) {
    return guarded(-1, [&]() -> int {
        Store& s = *w->store;
        Row svc, in;
        int rc = s.service_by_name(service, &svc);
        if (rc > 0) rc = s.instance_by_name(svc.id, instance, &in);
        if (rc <= 0) return rc;
        return instance_text(s, svc.id, in, text) < 0 ? -1 : 1;
    });
}

int hgx_follow(const char* url, int64_t after, const std::function<bool(int64_t)>& on_commit,
               const std::function<bool()>& keep_going, std::string* message) {
    return guarded(-1, [&]() -> int {
        return follow_cluster(url ? url : "", after, on_commit, keep_going, message);
    });
}
