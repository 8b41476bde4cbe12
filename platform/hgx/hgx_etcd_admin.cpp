// The cluster store's care of the cluster beyond reading and committing:
// removing what commits replaced or writers left behind when they died,
// converting a prefix of the first layout, and etcd roles that let a host's
// user read its own instances and nothing of another host's.
#include <cstdlib>

#include "hgx_etcd_store.h"

namespace hgx_detail::etcd {

// ---- removal -------------------------------------------------------------------------

namespace {

constexpr size_t CHUNK_ENTRIES = 2000;  // keys of one list, some 100 KB

json relative(const std::vector<std::string>& keys, size_t from, size_t to,
              const std::string& prefix) {
    json out = json::array();
    for (size_t i = from; i < to && i < keys.size(); ++i)
        out.push_back(keys[i].substr(prefix.size()));
    return out;
}

}  // namespace

std::string Removal::dump(const std::string& prefix) const {
    return json{{"keys", relative(keys, 0, keys.size(), prefix)},
                {"ranges", relative(ranges, 0, ranges.size(), prefix)}}
        .dump();
}

std::vector<std::string> Removal::chunks(const std::string& prefix) const {
    std::vector<std::string> out;
    for (size_t i = 0; i < keys.size(); i += CHUNK_ENTRIES)
        out.push_back(json{{"keys", relative(keys, i, i + CHUNK_ENTRIES, prefix)}}.dump());
    if (!ranges.empty())
        out.push_back(json{{"ranges", relative(ranges, 0, ranges.size(), prefix)}}.dump());
    return out;
}

bool Removal::load(std::string_view text, const std::string& prefix) {
    json j = json::parse(text.begin(), text.end(), nullptr, false);
    if (!j.is_object()) return false;
    for (const auto& [field, into] : {std::pair{"keys", &keys}, std::pair{"ranges", &ranges}}) {
        auto it = j.find(field);
        if (it == j.end()) continue;
        if (!it->is_array()) return false;
        for (const json& k : *it) {
            // Only the commit's own kinds of keys, never the whole prefix.
            if (!k.is_string() || k.get_ref<const std::string&>().size() < 2) return false;
            into->push_back(prefix + k.get<std::string>());
        }
    }
    return true;
}

int EtcdStore::remove(const Removal& r) {
    std::vector<json> ops;
    for (const std::string& key : r.keys) ops.push_back(delete_op(key));
    for (const std::string& from : r.ranges) ops.push_back(delete_prefix_op(from));
    for (size_t i = 0; i < ops.size(); i += BATCH_OPS) {
        json batch = json::array();
        for (size_t k = i; k < i + BATCH_OPS && k < ops.size(); ++k) batch.push_back(ops[k]);
        bool ok = false;
        if (cluster_->txn(json::array(), batch, &ok, &message_) < 0) return -1;
    }
    return 0;
}

// What the lists of a commit name, and then the lists.
int EtcdStore::collect(const std::string& w, const std::vector<std::string>& lists) {
    Removal r;
    for (const std::string& key : lists) {
        std::vector<Kv> kvs;
        if (cluster_->range(key, "", 0, &kvs, nullptr, &message_) < 0) return -1;
        if (!kvs.empty() && !r.load(kvs[0].value, k_.prefix())) return -1;
    }
    if (remove(r) < 0) return -1;
    Removal own;
    own.ranges.push_back(k_.txn(w) + "/");
    return remove(own);
}

// Every writer first removes what earlier ones left: what a commit that
// switched replaced (its end marker is there), and what a commit whose
// record is gone without an end wrote (its writer died or fell silent, and
// its lease took the record). A commit with its record is under way.
void EtcdStore::housekeeping() {
    std::string saved = message_;
    std::vector<Kv> kvs;
    const std::string from = k_.txns();
    if (range_all(*cluster_, from, range_end(from), 0, &kvs, &message_, true) == 0) {
        struct Leftover {
            bool record = false, done = false;
            std::vector<std::string> written, replaced;
        };
        std::map<std::string, Leftover> commits;
        for (const Kv& kv : kvs) {
            std::string rest = kv.key.substr(from.size());
            size_t slash = rest.find('/');
            Leftover& l = commits[rest.substr(0, slash)];
            std::string part = slash == std::string::npos ? "" : rest.substr(slash + 1);
            if (part.empty())
                l.record = true;
            else if (part == "done")
                l.done = true;
            else if (part[0] == 'n')
                l.written.push_back(kv.key);
            else if (part[0] == 'o')
                l.replaced.push_back(kv.key);
        }
        for (const auto& [w, l] : commits) {
            if (l.done)
                collect(w, l.replaced);
            else if (!l.record)
                collect(w, l.written);
        }
    }
    message_ = saved;
    set_error(HGX_ERROR_NONE);
}

// ---- the first layout ----------------------------------------------------------

// The first layout, read to be converted: P/e/EPOCH/SERVICE names a
// generation G; P/d/G/s holds the service's own groups and its instances'
// names, P/d/G/i/I/ an instance's groups and its snapshots' names, and
// P/d/G/i/I/NAME a snapshot's groups. Everything becomes new here.
int EtcdStore::load_legacy(const json& head) {
    auto epoch = head.find("epoch");
    if (epoch == head.end() || !epoch->is_string()) return fail(HGX_ERROR_CLUSTER_FOREIGN);
    std::string from = k_.prefix() + "e/" + epoch->get<std::string>() + "/";
    std::vector<Kv> pointers;
    if (range_prefix(from, &pointers) < 0) return -1;
    for (const Kv& pointer : pointers) {
        std::string name = pointer.key.substr(from.size());
        std::string base = k_.prefix() + "d/" + pointer.value + "/";
        std::vector<Kv> kvs;
        if (range_prefix(base, &kvs) < 0) return -1;
        Doc own;
        if (!valid_service_name(name)) return broken("a service name is malformed: " + name);
        if (read_doc(kvs, base + "s", &own) < 0) return -1;
        int64_t service = add_service(name);
        if (service < 0) return -1;
        adopt_groups(own.groups, OWNER_SERVICE, service, service, OWNER_SERVICE, service);
        for (const std::string& instance : own.names) {
            Doc doc;
            if (!valid_segment(instance)) return broken("an instance name is malformed");
            if (read_doc(kvs, base + "i/" + instance + "/", &doc) < 0) return -1;
            int64_t id = add_instance(service, instance);
            if (id < 0) return -1;
            adopt_groups(doc.groups, OWNER_INSTANCE, id, service, OWNER_INSTANCE, id);
            for (const std::string& snap : doc.names) {
                Doc groups;
                if (!valid_segment(snap)) return broken("a snapshot name is malformed");
                if (read_doc(kvs, base + "i/" + instance + "/" + snap, &groups) < 0) return -1;
                int64_t sid = add_snapshot(service, id, snap);
                if (sid < 0) return -1;
                adopt_groups(groups.groups, OWNER_SNAPSHOT, sid, service, OWNER_SNAPSHOT, sid);
            }
        }
    }
    return 0;
}

// One commit that writes everything anew and switches the head from the
// first layout to this one; the first layout's keys go with it.
int EtcdStore::upgrade() {
    std::vector<Kv> head;
    if (cluster_->range(k_.head(), "", 0, &head, &revision_, &message_) < 0) return -1;
    if (head.empty()) return fail(HGX_ERROR_CLUSTER_NO_REPOSITORY);
    json h = json::parse(head[0].value, nullptr, false);
    if (!h.is_object() || !h.contains("schema") || !h["schema"].is_number_integer())
        return fail(HGX_ERROR_CLUSTER_FOREIGN);
    int schema = h["schema"].get<int>();
    if (schema == CLUSTER_SCHEMA) return 1;
    if (schema != 1) return fail(HGX_ERROR_CLUSTER_SCHEMA);
    legacy_ = true;
    listed_ = true;
    head_mod_ = head[0].mod_revision;
    if (load_legacy(h) < 0) return -1;
    return commit() < 0 ? -1 : 0;
}

// ---- roles -----------------------------------------------------------------------

namespace {

struct Perm {
    std::string type;  // READ, WRITE, READWRITE
    std::string key, end;
};

json perm_json(const Perm& p) {
    json j = {{"permType", p.type}, {"key", b64(p.key)}};
    if (!p.end.empty()) j["range_end"] = b64(p.end);
    return j;
}

int read_perms(const json& role, std::vector<Perm>* out) {
    out->clear();
    if (!role.contains("perm")) return 0;
    for (const json& p : role["perm"]) {
        Perm perm;
        perm.type = p.value("permType", std::string("READ"));
        if (!unb64(p.value("key", ""), &perm.key) || !unb64(p.value("range_end", ""), &perm.end))
            return fail(HGX_ERROR_CONNECTION_BROKEN);
        out->push_back(std::move(perm));
    }
    return 0;
}

std::string role_name(const std::string& prefix, const std::string& user) {
    return "hgx:" + prefix.substr(0, prefix.size() - 1) + ":" + user;
}

}  // namespace

// The instances the roles of this store's user read, as grant_role gives
// them: the user's own roles are readable by the user itself.
int EtcdStore::granted(std::vector<std::string>* werns) {
    werns->clear();
    const char* user = std::getenv("HGX_ETCD_USER");
    if (!user || !*user) return 0;
    json me;
    if (cluster_->call("/v3/auth/user/get", {{"name", user}}, &me, &message_) < 0) return -1;
    std::set<std::string> found;
    const std::string base = k_.prefix() + "o/";
    for (const json& role : me.value("roles", json::array())) {
        json r;
        std::vector<Perm> perms;
        if (!role.is_string() ||
            cluster_->call("/v3/auth/role/get", {{"role", role}}, &r, &message_) < 0 ||
            read_perms(r, &perms) < 0)
            return -1;
        for (const Perm& p : perms) {
            if (p.type == "WRITE" || p.key.compare(0, base.size(), base) != 0 ||
                p.key.back() != '/' || p.end != range_end(p.key))
                continue;
            std::string owner = p.key.substr(base.size(), p.key.size() - base.size() - 1);
            size_t colon = owner.find(':');
            if (colon == std::string::npos || colon + 1 == owner.size()) continue;
            if (valid_service_name(owner.substr(0, colon)) &&
                valid_segment(owner.substr(colon + 1)))
                found.insert("wrn:/" + owner);
        }
    }
    werns->assign(found.begin(), found.end());
    return 0;
}

int EtcdStore::grant(const std::string& user, const std::string& host,
                     const std::vector<std::string>& werns, std::vector<std::string>* missing) {
    std::vector<Perm> wanted = {{"READ", k_.head(), ""}};
    std::set<std::string> services;
    missing->clear();
    for (const std::string& w : werns) {
        WernParts parts;
        if (split_wern(w, &parts) < 0 || parts.scope_only || !parts.has_instance ||
            !parts.path.empty() || parts.scope != "localhost") {
            message_ = w + ": not the wern of an instance (wrn:/SERVICE:INSTANCE)";
            return fail(HGX_ERROR_INVALID_ARGUMENT);
        }
        std::string version;
        int rc = this->version(parts.service, parts.instance, &version);
        if (rc < 0) return -1;
        if (rc == 0) missing->push_back(w);
        if (services.insert(parts.service).second) {
            std::string own = k_.own(parts.service, "");
            wanted.push_back({"READ", own, range_end(own)});
        }
        std::string inst = k_.own(parts.service, parts.instance);
        wanted.push_back({"READ", inst, range_end(inst)});
    }
    if (!host.empty()) {
        if (!valid_segment(host)) {
            message_ = host + ": not a host name";
            return fail(HGX_ERROR_INVALID_ARGUMENT);
        }
        wanted.push_back({"READWRITE", k_.host(host), ""});
    }
    // Whether the user and its role are there, by the lists (etcd's answer
    // for a missing one reads like a refusal).
    auto listed = [&](const char* path, const char* field, const std::string& name) -> int {
        json list;
        if (cluster_->call(path, json::object(), &list, &message_) < 0) return -1;
        for (const json& n : list.value(field, json::array()))
            if (n.is_string() && n.get<std::string>() == name) return 1;
        return 0;
    };
    json reply;
    int has_user = listed("/v3/auth/user/list", "users", user);
    if (has_user <= 0) {
        if (has_user == 0) {
            message_ = "etcd user " + user + " does not exist; make it first (etcdctl user add " +
                       user + ")";
            set_error(HGX_ERROR_INVALID_ARGUMENT);
        }
        return -1;
    }
    const std::string role = role_name(k_.prefix(), user);
    int has_role = listed("/v3/auth/role/list", "roles", role);
    if (has_role < 0 ||
        (!has_role && cluster_->call("/v3/auth/role/add", {{"name", role}}, &reply, &message_) < 0))
        return -1;
    json current;
    std::vector<Perm> had;
    if (cluster_->call("/v3/auth/role/get", {{"role", role}}, &current, &message_) < 0 ||
        read_perms(current, &had) < 0)
        return -1;
    // The new grants first, then the old ones that are not among them go:
    // the user never loses what it keeps.
    for (const Perm& p : wanted)
        if (cluster_->call("/v3/auth/role/grant", {{"name", role}, {"perm", perm_json(p)}}, &reply,
                           &message_) < 0)
            return -1;
    for (const Perm& p : had) {
        bool kept = std::any_of(wanted.begin(), wanted.end(),
                                [&](const Perm& q) { return q.key == p.key && q.end == p.end; });
        json revoke = {{"role", role}, {"key", b64(p.key)}};
        if (!p.end.empty()) revoke["range_end"] = b64(p.end);
        if (!kept && cluster_->call("/v3/auth/role/revoke", revoke, &reply, &message_) < 0)
            return -1;
    }
    return cluster_->call("/v3/auth/user/grant", {{"user", user}, {"role", role}}, &reply,
                          &message_);
}

}  // namespace hgx_detail::etcd

namespace hgx_detail {

namespace {

// A writer's client of the cluster a URL names, and the store over it; null
// with *message set on failure.
std::unique_ptr<etcd::EtcdStore> admin_store(const std::string& url, std::string* message) {
    using namespace etcd;
    ClusterUrl u;
    std::unique_ptr<Cluster> cluster;
    std::string detail;
    if (connect(url, WRITE_CALL_MS, false, &u, &cluster, &detail) < 0) {
        *message = url + ": " + failure_text(get_error(), detail);
        return nullptr;
    }
    return std::make_unique<EtcdStore>(std::move(cluster), u.prefix, true);
}

std::string failure(const std::string& url, const Store& s) {
    return url + ": " + etcd::failure_text(get_error(), s.message());
}

}  // namespace

int upgrade_cluster(const std::string& url, std::string* message) {
    auto store = admin_store(url, message);
    if (!store) return -1;
    int rc = store->upgrade();
    if (rc < 0) *message = failure(url, *store);
    return rc;
}

int grant_cluster_role(const std::string& url, const std::string& user, const std::string& host,
                       const std::vector<std::string>& werns, std::vector<std::string>* missing,
                       std::string* message) {
    auto store = admin_store(url, message);
    if (!store) return -1;
    if (store->open(false, 0) < 0 || store->grant(user, host, werns, missing) < 0) {
        *message =
            get_error() == HGX_ERROR_INVALID_ARGUMENT ? store->message() : failure(url, *store);
        return -1;
    }
    return 0;
}

}  // namespace hgx_detail
