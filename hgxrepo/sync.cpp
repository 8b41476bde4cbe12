// The mirror. Its file records, in the library's records beside the
// repository, where it comes from (the cluster's id and prefix), what it
// copies (its patterns), and the last revision applied, all written in the
// same transaction as the data they describe.
//
// What the mirror holds is a set of parts: a service's own groups, and
// instances with their snapshots, each with the version the cluster gives
// it. A commit of the cluster is found through its head; what it changed,
// through the record the commit leaves (or, where the mirror's user may not
// read that, through the versions of what the mirror holds). Only the parts
// whose version changed are read and replaced in the file.
#include "sync.h"

#include <regex.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <thread>
#include <vector>

#include "hgx.h"
#include "hgx_ptr.h"
#include "hgx_write.h"
#include "manifest.h"

extern char** environ;

namespace {

volatile std::sig_atomic_t stop_requested = 0;

void request_stop(int) { stop_requested = 1; }

bool keep_going() { return !stop_requested; }

// One line on standard error, behind a UTC timestamp: control bytes in
// what it tells (names and messages from the cluster) are escaped, so that
// a line is always one record of the log.
void log_line(const std::string& text) {
    char when[32];
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&now, &tm);
    std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &tm);
    std::fprintf(stderr, "%s hgxrepo sync: %s\n", when, manifest::escape(text, false).c_str());
    std::fflush(stderr);
}

std::string lib_error() { return hgx_strerror(hgx_error()); }

using Writer = HgxPtr<hgx_writer_t>;

// A compiled pattern, freed with it.
struct Pattern {
    regex_t re;
    bool ok = false;
    explicit Pattern(const std::string& text) {
        // A name matches when the whole of it does.
        ok = regcomp(&re, ("^(" + text + ")$").c_str(), REG_EXTENDED | REG_NOSUB) == 0;
    }
    ~Pattern() {
        if (ok) regfree(&re);
    }
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;
    bool matches(const std::string& s) const { return regexec(&re, s.c_str(), 0, nullptr, 0) == 0; }
};

// The command's environment: this process's with HGX_CHANGED set, and
// without the HGX_ETCD_* variables but the CA's. The command reads the
// mirror; the cluster's credentials (user, password, client key and
// certificate, and whatever may come) are not its business.
std::vector<std::string> command_environment(const std::string& changed) {
    std::vector<std::string> out;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string_view entry = *e;
        std::string_view name = entry.substr(0, entry.find('='));
        if ((name.rfind("HGX_ETCD_", 0) == 0 && name != "HGX_ETCD_CACERT") || name == "HGX_CHANGED")
            continue;
        out.emplace_back(entry);
    }
    out.push_back("HGX_CHANGED=" + changed);
    return out;
}

using Patterns = std::vector<std::unique_ptr<Pattern>>;

bool any_matches(const Patterns& ps, const std::string& s) {
    for (const auto& p : ps)
        if (p->matches(s)) return true;
    return false;
}

// Sleeps up to `seconds`, waking early for a stop.
void pause_for(int seconds) {
    for (int i = 0; i < seconds * 10 && keep_going(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

// A failure that lasts (a lost cluster, a file that cannot be written):
// one line when it begins, one when it ends, and between them tries that
// wait longer and longer, up to 30 seconds apart.
class Trouble {
  public:
    void begin(const std::string& line) {
        if (!on_) log_line(line);
        on_ = true;
    }
    void end(const std::string& line) {
        if (on_) log_line(line);
        on_ = false;
        pause_ = 1;
    }
    void wait() {
        pause_for(pause_);
        pause_ = pause_ < 30 ? pause_ * 2 : 30;
    }
    // The next trouble starts with short waits again.
    void forget() { pause_ = 1; }

  private:
    bool on_ = false;
    int pause_ = 1;
};

// Why a revision was not applied.
enum class Failed {
    CLUSTER,  // the cluster could not be read
    REFUSED,  // it holds what no import would take
    FILE,     // the mirror could not be written
};

// Changed instances of a wholly mirrored service beyond which it is copied
// whole rather than instance by instance.
constexpr size_t WHOLE_AFTER = 64;

// A part of the repository: a service's own groups (instance "") or an
// instance with its snapshots; and the versions of parts.
using Part = std::pair<std::string, std::string>;
using Versions = std::map<Part, std::string>;

std::string wern_of(const Part& p) { return "wrn:/" + p.first + ":" + p.second; }

// Every part of a service in a set of versions.
Versions::iterator first_of(Versions& v, const std::string& service) {
    return v.lower_bound({service, ""});
}
bool of_service(Versions::const_iterator it, const Versions& v, const std::string& service) {
    return it != v.end() && it->first.first == service;
}

class Mirror {
  public:
    explicit Mirror(const SyncOptions& o) : o_(o) {}

    // Checks the options and the file; false (with a line printed) when the
    // file must not be touched.
    bool prepare();
    int run();

  private:
    // A service whose every instance is mirrored; an instance that is.
    bool wholly(const std::string& service) const {
        if (services_.empty() && instances_.empty()) return true;
        return any_matches(services_, service);
    }
    bool selected(const std::string& service, const std::string& instance) const {
        return wholly(service) || any_matches(instances_, "wrn:/" + service + ":" + instance);
    }
    // The selected parts of the cluster with their versions, all of them or
    // those of one service. False with *why.
    bool selection(hgx_writer_t* c, Versions* out, std::string* why);
    bool select_service(hgx_writer_t* c, const std::string& service, Versions* out,
                        std::string* why);
    // Where the user may read only what it was granted (those instances) or
    // the patterns name instances outright (those): each read by its name.
    bool select_named(hgx_writer_t* c, const std::string* service, Versions* out, std::string* why);
    std::vector<std::string> literal_instances() const;
    // Whether the selection is a list of instances read one by one rather
    // than found by listing the cluster.
    bool by_name() const { return limited_ || literal_only_; }
    // What this revision's commit changed among what the mirror holds or
    // would hold: the parts examined and their versions now.
    bool changed_parts(hgx_writer_t* c, Versions* next, std::set<Part>* examined, std::string* why);
    // Brings the file to the cluster at `revision` (0: the newest): every
    // selected part when whole, else the parts that changed. True when
    // applied (or nothing to apply); false with *why.
    bool apply(int64_t revision, bool whole, std::string* why);
    bool write_whole(hgx_writer_t* file, hgx_writer_t* c, const Versions& next,
                     std::set<std::string>* changed, std::string* why);
    bool write_parts(hgx_writer_t* file, hgx_writer_t* c, const Versions& next,
                     const std::set<Part>& examined, std::set<std::string>* changed,
                     std::string* why);
    bool copy_failed(hgx_writer_t* file, hgx_writer_t* c, const Part& part, std::string* why);
    void run_command(const std::set<std::string>& changed);

    const SyncOptions& o_;
    Patterns services_, instances_;
    std::string services_text_, instances_text_;  // as recorded in the file
    std::string source_;                          // the cluster's, once known
    int64_t revision_ = 0;                        // last applied
    Versions versions_;                           // of what the file holds, at revision_
    bool limited_ = false;            // the user may read only the instances granted to it
    bool literal_only_ = false;       // every pattern names one instance outright
    std::vector<std::string> named_;  // what select_named reads, once a copy from the start
    bool named_known_ = false;
    bool resume_ = false;
    int64_t bytes_ = 0;             // read from the cluster when the last revision was applied
    Failed failed_ = Failed::FILE;  // why the last apply() failed
    bool recheck_ = false;          // a revision was refused since the last one applied
};

bool Mirror::prepare() {
    auto compile = [](const std::vector<std::string>& texts, const char* option, Patterns* out,
                      std::string* recorded) {
        for (const std::string& p : texts) {
            out->push_back(std::make_unique<Pattern>(p));
            if (!out->back()->ok) {
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
    if (o_.url.rfind("etcd://", 0) != 0 && o_.url.rfind("etcds://", 0) != 0) {
        std::fprintf(stderr, "hgxrepo: sync follows an etcd cluster: %s is no etcd URL\n",
                     manifest::escape(o_.url, false).c_str());
        return false;
    }
    if (o_.file.rfind("etcd://", 0) == 0 || o_.file.rfind("etcds://", 0) == 0) {
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

bool Mirror::select_service(hgx_writer_t* c, const std::string& service, Versions* out,
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
std::vector<std::string> Mirror::literal_instances() const {
    std::vector<std::string> out;
    for (const std::string& text : o_.instances) {
        hgx_wern_parts parts;
        Pattern self(text);
        if (hgx_wern_split(text.c_str(), &parts) == 0 && parts.has_instance && parts.path.empty() &&
            self.ok && self.matches(text))
            out.push_back(text);
    }
    return out;
}

bool Mirror::select_named(hgx_writer_t* c, const std::string* service, Versions* out,
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

bool Mirror::selection(hgx_writer_t* c, Versions* out, std::string* why) {
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

bool Mirror::changed_parts(hgx_writer_t* c, Versions* next, std::set<Part>* examined,
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
bool Mirror::copy_failed(hgx_writer_t* file, hgx_writer_t* c, const Part& part, std::string* why) {
    hgx_error_t e = hgx_error();
    bool refused = e == HGX_ERROR_INVALID_ARGUMENT || e == HGX_ERROR_INVALID_VALUE;
    failed_ = refused                                                        ? Failed::REFUSED
              : *hgx_writer_message(c) || e >= HGX_ERROR_CLUSTER_UNREACHABLE ? Failed::CLUSTER
                                                                             : Failed::FILE;
    std::string what = "cannot copy";
    if (hgx_valid_service_name(part.first) && (part.second.empty() || hgx_valid_name(part.second)))
        what += part.second.empty() ? " wrn:/" + part.first : " " + wern_of(part);
    std::string detail = hgx_writer_message(file);
    *why = what + ": " + (detail.empty() ? lib_error() : detail);
    return false;
}

// The whole selection anew: services the file holds and the selection lacks
// go, wholly mirrored services are copied whole, others part by part.
bool Mirror::write_whole(hgx_writer_t* file, hgx_writer_t* c, const Versions& next,
                         std::set<std::string>* changed, std::string* why) {
    auto failed = [&](const std::string& what) {
        std::string detail = hgx_writer_message(file);
        *why = what + ": " + (detail.empty() ? lib_error() : detail);
        return false;
    };
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
                return copy_failed(file, c, {name, ""}, why);
        } else {
            if (hgx_writer_copy_own(file, c, name) < 0)
                return copy_failed(file, c, {name, ""}, why);
            for (const auto& [instance, text] : before)
                if (!next.count({name, instance}) &&
                    hgx_writer_copy_instance(file, nullptr, name, instance) < 0)
                    return failed("cannot write " + o_.file);
            for (auto it = next.upper_bound({name, ""}); of_service(it, next, name); ++it)
                if (hgx_writer_copy_instance(file, c, name, it->first.second) < 0)
                    return copy_failed(file, c, it->first, why);
        }
        if (hgx_writer_instance_texts(file, name, &after) < 0)
            return failed("cannot read " + o_.file);
        for (const auto& [inst, text] : after) {
            auto b = before.find(inst);
            if (b == before.end() || b->second != text) changed->insert(wern_of({name, inst}));
        }
        for (const auto& [inst, text] : before)
            if (!after.count(inst)) changed->insert(wern_of({name, inst}));
    }
    return true;
}

// The parts whose version changed, each replaced or removed; a service's
// own groups first, since its instances' composed views read them.
bool Mirror::write_parts(hgx_writer_t* file, hgx_writer_t* c, const Versions& next,
                         const std::set<Part>& examined, std::set<std::string>* changed,
                         std::string* why) {
    auto failed = [&](const std::string& what) {
        std::string detail = hgx_writer_message(file);
        *why = what + ": " + (detail.empty() ? lib_error() : detail);
        return false;
    };
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
        if (own || parts.size() > WHOLE_AFTER) {
            if (hgx_writer_instance_texts(file, service, &before) < 0)
                return failed("cannot read " + o_.file);
        } else {
            for (const std::string& instance : parts) {
                std::string text;
                int rc = hgx_writer_instance_text(file, service, instance, &text);
                if (rc < 0) return failed("cannot read " + o_.file);
                if (rc) before[instance] = text;
            }
        }
        bool gone = own && !next.count({service, ""});
        // Most of a large service changed: copied whole, in one reading.
        bool whole = !gone && wholly(service) && !by_name() && parts.size() > WHOLE_AFTER;
        if (gone || whole) {
            hgx_id_t old = hgx_writer_find_service(file, service);
            if (old < 0 || (old > 0 && hgx_writer_delete_service(file, old) < 0))
                return failed("cannot write " + o_.file);
            if (whole && hgx_writer_copy_service(file, c, service) < 0)
                return copy_failed(file, c, {service, ""}, why);
        } else {
            if (own && hgx_writer_copy_own(file, c, service) < 0)
                return copy_failed(file, c, {service, ""}, why);
            for (const std::string& instance : parts) {
                if (instance.empty()) continue;
                bool wanted = next.count({service, instance}) > 0;
                if (hgx_writer_copy_instance(file, wanted ? c : nullptr, service, instance) < 0)
                    return copy_failed(file, c, {service, instance}, why);
            }
        }
        if (own || parts.size() > WHOLE_AFTER) {
            if (hgx_writer_instance_texts(file, service, &after) < 0)
                return failed("cannot read " + o_.file);
        } else {
            for (const std::string& instance : parts) {
                std::string text;
                int rc = hgx_writer_instance_text(file, service, instance, &text);
                if (rc < 0) return failed("cannot read " + o_.file);
                if (rc) after[instance] = text;
            }
        }
        for (const auto& [inst, text] : after) {
            auto b = before.find(inst);
            if (b == before.end() || b->second != text) changed->insert(wern_of({service, inst}));
        }
        for (const auto& [inst, text] : before)
            if (!after.count(inst)) changed->insert(wern_of({service, inst}));
    }
    return true;
}

bool Mirror::apply(int64_t revision, bool whole, std::string* why) {
    std::string message;
    failed_ = Failed::CLUSTER;
    Writer cluster(hgx_reader_open_at(o_.url.c_str(), revision, &message));
    if (!cluster) {
        *why = message;
        return false;
    }
    std::string source = hgx_writer_source(cluster.get());
    if (!source_.empty() && source != source_) {
        *why = o_.file + " mirrors " + source_ + ", not " + source;
        stop_requested = 1;
        return false;
    }
    int64_t at = hgx_writer_revision(cluster.get());
    if (whole) named_known_ = false;
    Versions next;
    std::set<Part> examined;
    if (whole ? !selection(cluster.get(), &next, why)
              : !changed_parts(cluster.get(), &next, &examined, why))
        return false;
    if (!whole && next == versions_) {
        revision_ = at;
        recheck_ = false;
        return true;
    }
    failed_ = Failed::FILE;
    Writer file(hgx_writer_create(o_.file.c_str(), o_.mode, &message));
    if (!file) {
        *why = message;
        return false;
    }
    std::set<std::string> changed;
    if (whole ? !write_whole(file.get(), cluster.get(), next, &changed, why)
              : !write_parts(file.get(), cluster.get(), next, examined, &changed, why))
        return false;
    if (hgx_writer_meta_set(file.get(), "source", source) < 0 ||
        hgx_writer_meta_set(file.get(), "url", o_.url) < 0 ||
        hgx_writer_meta_set(file.get(), "services", services_text_) < 0 ||
        hgx_writer_meta_set(file.get(), "instances", instances_text_) < 0 ||
        hgx_writer_meta_set(file.get(), "revision", std::to_string(at)) < 0 ||
        hgx_writer_commit(file.get()) < 0) {
        std::string detail = hgx_writer_message(file.get());
        *why = "cannot write " + o_.file + ": " + (detail.empty() ? lib_error() : detail);
        return false;
    }
    source_ = source;
    revision_ = at;
    versions_ = std::move(next);
    recheck_ = false;
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
    if (!changed.empty()) run_command(changed);
    return true;
}

// Runs the command with the changed instances, and waits for it: runs never
// overlap, and the next revision waits until this one's command is done.
void Mirror::run_command(const std::set<std::string>& changed) {
    if (o_.exec.empty()) return;
    std::string list;
    for (const std::string& w : changed) list += w + "\n";
    // Made before the fork: the child only calls what is safe there.
    std::vector<std::string> environment = command_environment(list);
    std::vector<char*> envp;
    for (std::string& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);
    const char* argv[] = {"sh", "-c", o_.exec.c_str(), nullptr};
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        log_line("cannot run the command: " + std::string(std::strerror(errno)));
        return;
    }
    if (pid == 0) {
        signal(SIGTERM, SIG_DFL);
        signal(SIGINT, SIG_DFL);
        execve("/bin/sh", const_cast<char* const*>(argv), envp.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
    log_line("the command failed (" +
             (WIFEXITED(status) ? "status " + std::to_string(WEXITSTATUS(status))
                                : "signal " + std::to_string(WTERMSIG(status))) +
             ") for revision " + std::to_string(revision_));
}

int Mirror::run() {
    std::string why;
    // A restarted mirror resumes where it stopped, knowing what it holds.
    bool whole = !resume_ || revision_ == 0 || o_.once;
    if (!whole) {
        std::string message;
        Writer at(hgx_reader_open_at(o_.url.c_str(), revision_, &message));
        if (at && selection(at.get(), &versions_, &why)) {
            log_line("resuming at revision " + std::to_string(revision_));
            bytes_ = hgx_cluster_bytes_read();
        } else {
            whole = true;
            if (hgx_error() == HGX_ERROR_REVISION_COMPACTED)
                log_line("revision " + std::to_string(revision_) +
                         " has been compacted away: copying afresh");
        }
    }
    Trouble lost, stuck;  // the cluster; the file
    while (keep_going()) {
        if (whole) {
            if (!apply(0, true, &why)) {
                if (!keep_going() || o_.once) {
                    log_line(why);
                    return 1;
                }
                stuck.begin("copying failed: " + why + "; trying again");
                stuck.wait();
                continue;
            }
            // The line of the copy tells that the trouble is over.
            stuck = Trouble();
            lost = Trouble();
            whole = false;
            if (o_.once) return 0;
        }
        lost.end("connected again at revision " + std::to_string(revision_));
        std::string failure;
        bool failed = false;
        Failed cause = Failed::CLUSTER;
        hgx_error_t code = HGX_ERROR_NONE;
        auto on_commit = [&](int64_t revision) {
            if (revision <= revision_) return true;
            if (apply(revision, false, &failure)) {
                stuck.end("applied revision " + std::to_string(revision_) +
                          ": the mirror follows again");
                return keep_going();
            }
            code = hgx_error();
            cause = failed_;
            // The next revision is compared whole with the one the mirror
            // holds, so it brings whatever this one changed, once it is
            // acceptable.
            if (cause == Failed::REFUSED) {
                recheck_ = true;
                log_line("revision " + std::to_string(revision) + " refused, the mirror stays at " +
                         std::to_string(revision_) + ": " + failure);
                return keep_going();
            }
            failed = true;
            return false;
        };
        std::string message;
        auto began = std::chrono::steady_clock::now();
        int rc = hgx_follow(o_.url.c_str(), revision_, on_commit, keep_going, &message);
        if (!keep_going()) break;
        // A watch that held for a while was sound: a new trouble starts
        // with short waits again.
        if (std::chrono::steady_clock::now() - began > std::chrono::seconds(30)) {
            lost.forget();
            stuck.forget();
        }
        if (failed && cause == Failed::FILE) {
            stuck.begin("revision not applied, the mirror stays at " + std::to_string(revision_) +
                        ": " + failure + "; trying again");
            stuck.wait();
            continue;
        }
        if (failed ? code == HGX_ERROR_REVISION_COMPACTED
                   : rc < 0 && hgx_error() == HGX_ERROR_REVISION_COMPACTED) {
            log_line("revision " + std::to_string(revision_ + 1) +
                     " has been compacted away: copying afresh");
            whole = true;
            continue;
        }
        std::string cause_text = failed ? failure : message.empty() ? lib_error() : message;
        lost.begin("lost the cluster: " + cause_text);
        // Back until the cluster answers again, then follow from where the
        // mirror stands; nothing in between is lost, etcd keeps it.
        while (keep_going()) {
            lost.wait();
            std::string m;
            Writer probe(hgx_reader_open_at(o_.url.c_str(), 0, &m));
            if (probe) break;
        }
    }
    log_line("stopped at revision " + std::to_string(revision_));
    return 0;
}

}  // namespace

int hgxrepo_sync(const SyncOptions& options) {
    struct sigaction sa {};
    sa.sa_handler = request_stop;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    Mirror m(options);
    if (!m.prepare()) return 1;
    return m.run();
}
