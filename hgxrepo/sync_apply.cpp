// The mirror's file brought to a revision of the cluster. Its file records,
// in the library's records beside the repository, where it comes from (the
// cluster's id and prefix), what it copies (its patterns), and the last
// revision applied, all written in the same transaction as the data they
// describe.
//
// What the mirror holds is a set of parts: a service's own groups, and
// instances with their snapshots, each with the version the cluster gives
// it. A commit of the cluster is found through its head; what it changed,
// through the record the commit leaves (or, where the mirror's user may not
// read that, through the versions of what the mirror holds). Only the parts
// whose version changed are read and replaced in the file; the instances
// named changed are those whose kelvo view differs before and after.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "hgxrepo_internal.h"
#include "manifest.h"
#include "sync_internal.h"

namespace hgxrepo::sync {

namespace {

bool any_matches(const std::vector<std::unique_ptr<Pattern>>& ps, const std::string& s) {
    for (const auto& p : ps)
        if (p->matches(s)) return true;
    return false;
}

// Changed instances of a wholly mirrored service beyond which it is copied
// whole rather than instance by instance.
constexpr size_t WHOLE_AFTER = 64;

std::string service_wern(const std::string& service) { return "wrn:/" + service; }
std::string wern_of(const Part& p) { return service_wern(p.first) + ":" + p.second; }

// Every part of a service in a set of versions.
Versions::iterator first_of(Versions& v, const std::string& service) {
    return v.lower_bound({service, ""});
}
bool of_service(Versions::const_iterator it, const Versions& v, const std::string& service) {
    return it != v.end() && it->first.first == service;
}

// The kelvo views of a service's instances: all of them, or those of the
// parts named. 0 or -1.
int texts(hgx_writer_t* file, const std::string& service, bool all,
          const std::set<std::string>& parts, std::map<std::string, std::string>* out) {
    if (all) return hgx_writer_instance_texts(file, service, out);
    for (const std::string& instance : parts) {
        std::string text;
        int rc = hgx_writer_instance_text(file, service, instance, &text);
        if (rc < 0) return -1;
        if (rc) (*out)[instance] = std::move(text);
    }
    return 0;
}

// The instances of a service whose view differs between two readings.
void differences(const std::string& service, const std::map<std::string, std::string>& before,
                 const std::map<std::string, std::string>& after, std::set<std::string>* changed) {
    for (const auto& [inst, text] : after) {
        auto b = before.find(inst);
        if (b == before.end() || b->second != text) changed->insert(wern_of({service, inst}));
    }
    for (const auto& [inst, text] : before)
        if (!after.count(inst)) changed->insert(wern_of({service, inst}));
}

}  // namespace

Pattern::Pattern(const std::string& text) {
    // A name matches when the whole of it does.
    ok_ = regcomp(&re_, ("^(" + text + ")$").c_str(), REG_EXTENDED | REG_NOSUB) == 0;
}

Pattern::~Pattern() {
    if (ok_) regfree(&re_);
}

bool Pattern::matches(const std::string& s) const {
    return regexec(&re_, s.c_str(), 0, nullptr, 0) == 0;
}

// A service whose every instance is mirrored; an instance that is.
bool Replica::wholly(const std::string& service) const {
    if (services_.empty() && instances_.empty()) return true;
    return any_matches(services_, service);
}

bool Replica::selected(const std::string& service, const std::string& instance) const {
    return wholly(service) || any_matches(instances_, "wrn:/" + service + ":" + instance);
}

bool Replica::prepare() {
    auto compile = [](const std::vector<std::string>& texts, const char* option,
                      std::vector<std::unique_ptr<Pattern>>* out, std::string* recorded) {
        for (const std::string& p : texts) {
            out->push_back(std::make_unique<Pattern>(p));
            if (!out->back()->ok()) {
                std::fprintf(stderr, "hgxrepo: %s %s: not an extended regular expression\n", option,
                             manifest::escape(p, false).c_str());
                return false;
            }
            *recorded += p + "\n";
        }
        return true;
    };
    if (!compile(o_.services, "--service", &services_, &services_text_) ||
        !compile(o_.instances, "--instance", &instances_, &instances_text_))
        return false;
    literal_only_ =
        services_.empty() && !instances_.empty() && literal_instances().size() == instances_.size();
    if (!hgx_is_cluster_url(o_.url)) {
        std::fprintf(stderr, "hgxrepo: sync follows an etcd cluster: %s is no etcd URL\n",
                     manifest::escape(o_.url, false).c_str());
        return false;
    }
    if (hgx_is_cluster_url(o_.file)) {
        std::fprintf(stderr, "hgxrepo: %s: a mirror is a file, not a cluster\n", o_.file.c_str());
        return false;
    }
    if (access(o_.file.c_str(), F_OK) != 0) return true;  // made by the first copy
    std::string message;
    Writer file(hgx_reader_open(o_.file.c_str(), &message));
    // A file that holds nothing yet (a first copy killed by an earlier
    // version) is made by the first copy too.
    if (!file && hgx_error() == HGX_ERROR_NO_REPOSITORY) return true;
    if (!file) {
        std::fprintf(stderr, "hgxrepo: %s\n", manifest::escape(message, false).c_str());
        return false;
    }
    std::string source, revision, services, instances;
    int has = hgx_writer_meta_get(file.get(), "source", &source);
    if (has < 0 || hgx_writer_meta_get(file.get(), "revision", &revision) < 0 ||
        hgx_writer_meta_get(file.get(), "services", &services) < 0 ||
        hgx_writer_meta_get(file.get(), "instances", &instances) < 0) {
        std::fprintf(stderr, "hgxrepo: %s: cannot read: %s\n", o_.file.c_str(),
                     lib_error().c_str());
        return false;
    }
    if (has == 0) {
        std::vector<std::string> names;
        if (hgx_writer_services(file.get(), &names) < 0 || !names.empty()) {
            std::fprintf(stderr,
                         "hgxrepo: %s: a repository that is no mirror; it is left as it is "
                         "(remove it, or name another file with -r)\n",
                         o_.file.c_str());
            return false;
        }
        return true;
    }
    source_ = source;
    // A mirror of other parts starts afresh; one of the same resumes.
    resume_ = services == services_text_ && instances == instances_text_;
    revision_ = resume_ ? std::strtoll(revision.c_str(), nullptr, 10) : 0;
    return true;
}

bool Replica::select_service(hgx_writer_t* c, const std::string& service, Versions* out,
                             std::string* why) {
    std::string own;
    int rc = hgx_writer_version(c, service, "", &own);
    std::vector<std::pair<std::string, std::string>> all;
    if (rc > 0) rc = hgx_writer_instance_versions(c, service, &all);
    if (rc < 0) {
        *why = "cannot read wrn:/" + service + ": " + lib_error();
        return false;
    }
    bool any = false;
    for (auto& [instance, version] : all)
        if (selected(service, instance)) {
            (*out)[{service, instance}] = std::move(version);
            any = true;
        }
    if (rc > 0 && (any || wholly(service))) (*out)[{service, ""}] = own;
    return true;
}

// Instance patterns that name one instance outright (a wern that matches
// itself) are read as such: a host's mirror of its instance never lists the
// fleet, and an instance its user may not read is refused, not left out.
std::vector<std::string> Replica::literal_instances() const {
    std::vector<std::string> out;
    for (const std::string& text : o_.instances) {
        hgx_wern_parts parts;
        Pattern self(text);
        if (hgx_wern_split(text.c_str(), &parts) == 0 && parts.has_instance && parts.path.empty() &&
            self.ok() && self.matches(text))
            out.push_back(text);
    }
    return out;
}

bool Replica::select_named(hgx_writer_t* c, const std::string* service, Versions* out,
                           std::string* why) {
    if (!named_known_) {
        named_.clear();
        if (limited_ && hgx_writer_granted(c, &named_) < 0) {
            *why = "cannot read the grants of HGX_ETCD_USER: " + lib_error();
            return false;
        }
        for (std::string& w : literal_instances()) named_.push_back(std::move(w));
        named_known_ = true;
    }
    for (const std::string& w : named_) {
        hgx_wern_parts parts;
        if (hgx_wern_split(w.c_str(), &parts) < 0 || !parts.has_instance ||
            (service && parts.service != *service) || !selected(parts.service, parts.instance))
            continue;
        std::string own, version;
        int rc = hgx_writer_version(c, parts.service, "", &own);
        if (rc > 0) rc = hgx_writer_version(c, parts.service, parts.instance, &version);
        if (rc < 0) {
            *why = "cannot read " + w + ": " + lib_error();
            return false;
        }
        if (rc == 0) continue;
        (*out)[{parts.service, ""}] = own;
        (*out)[{parts.service, parts.instance}] = version;
    }
    return true;
}

bool Replica::selection(hgx_writer_t* c, Versions* out, std::string* why) {
    out->clear();
    if (by_name()) return select_named(c, nullptr, out, why);
    std::vector<std::string> names;
    if (hgx_writer_services(c, &names) < 0) {
        if (hgx_error() != HGX_ERROR_CLUSTER_NOT_PERMITTED) {
            *why = "cannot read the cluster: " + lib_error();
            return false;
        }
        limited_ = true;
        named_known_ = false;
        return select_named(c, nullptr, out, why);
    }
    for (const std::string& name : names)
        if ((wholly(name) || !instances_.empty()) && !select_service(c, name, out, why))
            return false;
    return true;
}

bool Replica::changed_parts(hgx_writer_t* c, Versions* next, std::set<Part>* examined,
                            std::string* why) {
    std::vector<std::pair<std::string, std::string>> changes;
    bool all = true;
    if (!limited_ && hgx_writer_changes(c, &changes, &all) < 0) {
        if (hgx_error() != HGX_ERROR_CLUSTER_NOT_PERMITTED) {
            *why = "cannot read what the commit changed: " + lib_error();
            return false;
        }
        limited_ = all = true;
        named_known_ = false;
    }
    *next = versions_;
    // After a refused revision, what it changed is found by comparing all.
    if (all || recheck_) {
        if (!selection(c, next, why)) return false;
        for (const auto& [part, v] : versions_) examined->insert(part);
        for (const auto& [part, v] : *next) examined->insert(part);
        return true;
    }
    std::map<std::string, std::vector<std::string>> by_service;
    for (auto& [service, instance] : changes) by_service[service].push_back(instance);
    for (const auto& [service, instances] : by_service) {
        bool everything = false;
        for (const std::string& i : instances) everything = everything || i == "*";
        if (everything) {
            for (auto it = first_of(*next, service); of_service(it, *next, service);) {
                examined->insert(it->first);
                it = next->erase(it);
            }
            Versions now;
            if (by_name() ? !select_named(c, &service, &now, why)
                          : (wholly(service) || !instances_.empty()) &&
                                !select_service(c, service, &now, why))
                return false;
            for (auto& [part, v] : now) {
                examined->insert(part);
                (*next)[part] = std::move(v);
            }
            continue;
        }
        for (const std::string& instance : instances) {
            // Own groups matter where the mirror holds the service; an
            // instance where it is selected.
            Part part{service, instance};
            if (instance.empty() ? !next->count(part) : !selected(service, instance)) continue;
            std::string version;
            int rc = hgx_writer_version(c, service, instance, &version);
            if (rc < 0) {
                *why = "cannot read " + wern_of(part) + ": " + lib_error();
                return false;
            }
            examined->insert(part);
            if (rc)
                (*next)[part] = version;
            else
                next->erase(part);
        }
        // A service's own groups are held while it is wholly mirrored or any
        // of its instances is.
        Part own{service, ""};
        auto it = first_of(*next, service);
        bool has_own = of_service(it, *next, service) && it->first.second.empty();
        if (has_own) ++it;
        bool any = of_service(it, *next, service);
        if (any && !has_own) {
            std::string version;
            int rc = hgx_writer_version(c, service, "", &version);
            if (rc < 0) {
                *why = "cannot read wrn:/" + service + ": " + lib_error();
                return false;
            }
            if (rc) (*next)[own] = version;
            examined->insert(own);
        } else if (!any && has_own && !wholly(service)) {
            next->erase(own);
            examined->insert(own);
        }
    }
    return true;
}

// A copy reads the cluster as it writes the file: its failure is the
// cluster's where the cluster's store has words for it or the cluster
// failed, a refusal where the cluster holds what no import would take (the
// part is then named by the message alone), else the file's.
bool Replica::copy_failed(hgx_writer_t* file, hgx_writer_t* c, const Part& part, Applied* a) {
    hgx_error_t e = hgx_error();
    bool refused = e == HGX_ERROR_INVALID_ARGUMENT || e == HGX_ERROR_INVALID_VALUE;
    a->outcome = refused                                                        ? Outcome::REFUSED
                 : *hgx_writer_message(c) || e >= HGX_ERROR_CLUSTER_UNREACHABLE ? Outcome::CLUSTER
                                                                                : Outcome::FILE;
    a->error = e;
    std::string what = "cannot copy";
    if (hgx_valid_service_name(part.first) &&
        (part.second.empty() || hgx_valid_name(part.second))) {
        what += ' ';
        what += part.second.empty() ? service_wern(part.first) : wern_of(part);
    }
    a->why = what + ": " + writer_error(file);
    return false;
}

bool Replica::write_failed(hgx_writer_t* file, const std::string& what, Applied* a) {
    a->outcome = Outcome::FILE;
    a->error = hgx_error();
    a->why = what + ": " + writer_error(file);
    return false;
}

// The whole selection anew: services the file holds and the selection lacks
// go, wholly mirrored services are copied whole, others part by part.
bool Replica::write_whole(hgx_writer_t* file, hgx_writer_t* c, const Versions& next,
                          std::set<std::string>* changed, Applied* a) {
    auto failed = [&](const std::string& what) { return write_failed(file, what, a); };
    std::set<std::string> names;
    for (const auto& [part, v] : next) names.insert(part.first);
    std::vector<std::string> held;
    if (hgx_writer_services(file, &held) < 0) return failed("cannot read " + o_.file);
    for (const std::string& name : held) names.insert(name);
    for (const std::string& name : names) {
        std::map<std::string, std::string> before, after;
        if (hgx_writer_instance_texts(file, name, &before) < 0)
            return failed("cannot read " + o_.file);
        hgx_id_t old = hgx_writer_find_service(file, name);
        bool wanted = next.count({name, ""}) > 0;
        if (old < 0) return failed("cannot read " + o_.file);
        if (!wanted || (wholly(name) && !limited_)) {
            if (old > 0 && hgx_writer_delete_service(file, old) < 0)
                return failed("cannot write " + o_.file);
            if (wanted && hgx_writer_copy_service(file, c, name) < 0)
                return copy_failed(file, c, {name, ""}, a);
        } else {
            if (hgx_writer_copy_own(file, c, name) < 0) return copy_failed(file, c, {name, ""}, a);
            for (const auto& [instance, text] : before)
                if (!next.count({name, instance}) &&
                    hgx_writer_copy_instance(file, nullptr, name, instance) < 0)
                    return failed("cannot write " + o_.file);
            for (auto it = next.upper_bound({name, ""}); of_service(it, next, name); ++it)
                if (hgx_writer_copy_instance(file, c, name, it->first.second) < 0)
                    return copy_failed(file, c, it->first, a);
        }
        if (hgx_writer_instance_texts(file, name, &after) < 0)
            return failed("cannot read " + o_.file);
        differences(name, before, after, changed);
    }
    return true;
}

// The parts whose version changed, each replaced or removed; a service's
// own groups first, since its instances' composed views read them.
bool Replica::write_parts(hgx_writer_t* file, hgx_writer_t* c, const Versions& next,
                          const std::set<Part>& examined, std::set<std::string>* changed,
                          Applied* a) {
    auto failed = [&](const std::string& what) { return write_failed(file, what, a); };
    auto version = [](const Versions& v, const Part& p) -> const std::string* {
        auto it = v.find(p);
        return it == v.end() ? nullptr : &it->second;
    };
    std::map<std::string, std::set<std::string>> touched;  // service -> instances, "" own
    for (const Part& part : examined) {
        const std::string* a = version(versions_, part);
        const std::string* b = version(next, part);
        if ((a == nullptr) != (b == nullptr) || (a && *a != *b))
            touched[part.first].insert(part.second);
    }
    for (const auto& [service, parts] : touched) {
        bool own = parts.count("") > 0;
        std::map<std::string, std::string> before, after;
        // Where the own groups change, every instance's view may.
        bool all = own || parts.size() > WHOLE_AFTER;
        if (texts(file, service, all, parts, &before) < 0) return failed("cannot read " + o_.file);
        bool gone = own && !next.count({service, ""});
        // Most of a large service changed: copied whole, in one reading.
        bool whole = !gone && wholly(service) && !by_name() && parts.size() > WHOLE_AFTER;
        if (gone || whole) {
            hgx_id_t old = hgx_writer_find_service(file, service);
            if (old < 0 || (old > 0 && hgx_writer_delete_service(file, old) < 0))
                return failed("cannot write " + o_.file);
            if (whole && hgx_writer_copy_service(file, c, service) < 0)
                return copy_failed(file, c, {service, ""}, a);
        } else {
            if (own && hgx_writer_copy_own(file, c, service) < 0)
                return copy_failed(file, c, {service, ""}, a);
            for (const std::string& instance : parts) {
                if (instance.empty()) continue;
                bool wanted = next.count({service, instance}) > 0;
                if (hgx_writer_copy_instance(file, wanted ? c : nullptr, service, instance) < 0)
                    return copy_failed(file, c, {service, instance}, a);
            }
        }
        if (texts(file, service, all, parts, &after) < 0) return failed("cannot read " + o_.file);
        differences(service, before, after, changed);
    }
    return true;
}

bool Replica::resume(hgx_error_t* error) {
    std::string message, why;
    Writer at(hgx_reader_open_at(o_.url.c_str(), revision_, &message));
    if (at && selection(at.get(), &versions_, &why)) {
        log_line("resuming at revision " + std::to_string(revision_));
        bytes_ = hgx_cluster_bytes_read();
        return true;
    }
    *error = hgx_error();
    versions_.clear();
    return false;
}

hgx_writer_t* Replica::writer(std::string* why) {
    if (file_ && hgx_writer_begin(file_.get()) == 0) return file_.get();
    std::string message;
    file_.reset(hgx_writer_create(o_.file.c_str(), o_.mode, &message));
    file_dev_ = 0;
    file_ino_ = 0;
    if (!file_) {
        *why = message;
        return nullptr;
    }
    // The cluster keeps every revision: one that a power loss takes back
    // from the file is applied again, and the file stays whole either way,
    // with the revision it records.
    if (hgx_writer_set_durable(file_.get(), false) < 0) {
        *why = o_.file + ": " + lib_error();
        file_.reset();
    }
    return file_.get();
}

bool Replica::replaced() const {
    struct stat st;
    return stat(o_.file.c_str(), &st) != 0 || st.st_dev != file_dev_ || st.st_ino != file_ino_;
}

Applied Replica::apply(int64_t revision, bool whole) {
    Applied a;
    a.revision = revision_;
    auto failed = [&](Outcome outcome, const std::string& why) {
        a.outcome = outcome;
        a.error = hgx_error();
        a.why = why;
        if (outcome == Outcome::REFUSED) recheck_ = true;
        return a;
    };
    std::string message, why;
    Writer cluster(hgx_reader_open_at(o_.url.c_str(), revision, &message));
    if (!cluster) return failed(Outcome::CLUSTER, message);
    std::string source = hgx_writer_source(cluster.get());
    if (!source_.empty() && source != source_) {
        a.outcome = Outcome::FOREIGN;
        a.why = o_.file + " mirrors " + source_ + ", not " + source;
        return a;
    }
    // A file that is not the one written last (removed, or put back from
    // elsewhere) holds nothing this mirror knows: it is copied whole.
    if (file_ && replaced()) {
        file_.reset();
        whole = true;
    }
    int64_t at = hgx_writer_revision(cluster.get());
    if (whole) named_known_ = false;
    Versions next;
    std::set<Part> examined;
    if (whole ? !selection(cluster.get(), &next, &why)
              : !changed_parts(cluster.get(), &next, &examined, &why))
        return failed(Outcome::CLUSTER, why);
    if (!whole && next == versions_) {
        revision_ = a.revision = at;
        recheck_ = false;
        return a;
    }
    hgx_writer_t* file = writer(&why);
    if (!file) return failed(Outcome::FILE, why);
    std::set<std::string> changed;
    bool ok = whole ? write_whole(file, cluster.get(), next, &changed, &a)
                    : write_parts(file, cluster.get(), next, examined, &changed, &a);
    if (ok && (hgx_writer_meta_set(file, "source", source) < 0 ||
               hgx_writer_meta_set(file, "url", o_.url) < 0 ||
               hgx_writer_meta_set(file, "services", services_text_) < 0 ||
               hgx_writer_meta_set(file, "instances", instances_text_) < 0 ||
               hgx_writer_meta_set(file, "revision", std::to_string(at)) < 0 ||
               hgx_writer_commit(file) < 0))
        ok = write_failed(file, "cannot write " + o_.file, &a);
    if (!ok) {
        // Rolled back with the writer; the next revision opens another.
        file_.reset();
        if (a.outcome == Outcome::REFUSED) recheck_ = true;
        return a;
    }
    struct stat st;
    if (stat(o_.file.c_str(), &st) == 0) {
        file_dev_ = st.st_dev;
        file_ino_ = st.st_ino;
    }
    source_ = source;
    revision_ = a.revision = at;
    versions_ = std::move(next);
    recheck_ = false;
    a.whole = whole;
    a.changed = std::move(changed);
    if (whole) {
        std::set<std::string> services;
        for (const auto& [part, v] : versions_) services.insert(part.first);
        log_line("copied " + std::to_string(services.size()) + " services of " + source +
                 " at revision " + std::to_string(at) + " into " + o_.file);
    }
    // How much reading a revision cost, for measuring.
    if (const char* debug = std::getenv("HGX_SYNC_DEBUG"); debug && *debug) {
        int64_t bytes = hgx_cluster_bytes_read();
        log_line("applied revision " + std::to_string(at) + ": " + std::to_string(bytes - bytes_) +
                 " bytes read from the cluster");
        bytes_ = bytes;
    }
    return a;
}

}  // namespace hgxrepo::sync
