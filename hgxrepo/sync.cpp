// The mirror. Its file records, in the library's records beside the
// repository, where it comes from (the cluster's id and prefix), the
// services it copies, and the last revision applied, all written in the
// same transaction as the data they describe.
//
// A commit of the cluster is found through its head; which services it
// changed, through their versions (a service's generation changes whenever
// the service does). Each changed service is replaced whole in the file.
#include "sync.h"

#include <regex.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
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

extern char** environ;

namespace {

volatile std::sig_atomic_t stop_requested = 0;

void request_stop(int) { stop_requested = 1; }

bool keep_going() { return !stop_requested; }

// One line on standard error, behind a UTC timestamp.
void log_line(const std::string& text) {
    char when[32];
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&now, &tm);
    std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &tm);
    std::fprintf(stderr, "%s hgxrepo sync: %s\n", when, text.c_str());
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

class Mirror {
  public:
    explicit Mirror(const SyncOptions& o) : o_(o) {}

    // Checks the options and the file; false (with a line printed) when the
    // file must not be touched.
    bool prepare();
    int run();

  private:
    bool selected(const std::string& name) const {
        if (patterns_.empty()) return true;
        for (const auto& p : patterns_)
            if (regexec(&p->re, name.c_str(), 0, nullptr, 0) == 0) return true;
        return false;
    }
    // The versions of the selected services at a reading of the cluster.
    bool selected_versions(hgx_writer_t* r, std::map<std::string, std::string>* out,
                           std::string* why);
    // Brings the file to the cluster at `revision` (0: the newest): every
    // selected service when whole, else those whose version changed. True
    // when applied (or nothing to apply); false with *why.
    bool apply(int64_t revision, bool whole, std::string* why);
    void run_command(const std::set<std::string>& changed);

    const SyncOptions& o_;
    std::vector<std::unique_ptr<Pattern>> patterns_;
    std::string patterns_text_;                    // as recorded in the file
    std::string source_;                           // the cluster's, once known
    int64_t revision_ = 0;                         // last applied
    std::map<std::string, std::string> versions_;  // at revision_
    bool resume_ = false;
    Failed failed_ = Failed::FILE;  // why the last apply() failed
};

bool Mirror::prepare() {
    for (const std::string& p : o_.services) {
        patterns_.push_back(std::make_unique<Pattern>(p));
        if (!patterns_.back()->ok) {
            std::fprintf(stderr, "hgxrepo: --service %s: not an extended regular expression\n",
                         p.c_str());
            return false;
        }
        patterns_text_ += p + "\n";
    }
    if (o_.url.rfind("etcd://", 0) != 0 && o_.url.rfind("etcds://", 0) != 0) {
        std::fprintf(stderr, "hgxrepo: sync follows an etcd cluster: %s is no etcd URL\n",
                     o_.url.c_str());
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
        std::fprintf(stderr, "hgxrepo: %s\n", message.c_str());
        return false;
    }
    std::string source, revision, patterns;
    int has = hgx_writer_meta_get(file.get(), "source", &source);
    if (has < 0 || hgx_writer_meta_get(file.get(), "revision", &revision) < 0 ||
        hgx_writer_meta_get(file.get(), "services", &patterns) < 0) {
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
    // A mirror of other services starts afresh; one of the same resumes.
    resume_ = patterns == patterns_text_;
    revision_ = resume_ ? std::strtoll(revision.c_str(), nullptr, 10) : 0;
    return true;
}

bool Mirror::selected_versions(hgx_writer_t* r, std::map<std::string, std::string>* out,
                               std::string* why) {
    std::vector<std::pair<std::string, std::string>> all;
    if (hgx_writer_service_versions(r, &all) < 0) {
        *why = lib_error();
        return false;
    }
    out->clear();
    for (auto& [name, version] : all)
        if (selected(name)) (*out)[name] = version;
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
    std::map<std::string, std::string> versions;
    if (!selected_versions(cluster.get(), &versions, why)) return false;
    std::set<std::string> names;
    for (const auto& [name, version] : versions)
        if (whole || versions_.count(name) == 0 || versions_[name] != version) names.insert(name);
    for (const auto& [name, version] : versions_)
        if (!versions.count(name)) names.insert(name);
    int64_t at = hgx_writer_revision(cluster.get());
    if (names.empty() && !whole) {
        revision_ = at;
        return true;
    }

    failed_ = Failed::FILE;
    Writer file(hgx_writer_create(o_.file.c_str(), o_.mode, &message));
    if (!file) {
        *why = message;
        return false;
    }
    auto failed = [&](const std::string& what) {
        std::string detail = hgx_writer_message(file.get());
        *why = what + ": " + (detail.empty() ? lib_error() : detail);
        return false;
    };
    if (whole) {
        // Services the file holds that the cluster no longer has (or that
        // are no longer selected) go too.
        std::vector<std::string> held;
        if (hgx_writer_services(file.get(), &held) < 0) return failed("cannot read " + o_.file);
        for (const std::string& name : held)
            if (!versions.count(name)) names.insert(name);
    }
    std::set<std::string> changed;
    for (const std::string& name : names) {
        std::map<std::string, std::string> before, after;
        if (hgx_writer_instance_texts(file.get(), name, &before) < 0)
            return failed("cannot read " + o_.file);
        hgx_id_t old = hgx_writer_find_service(file.get(), name);
        if (old < 0 || (old > 0 && hgx_writer_delete_service(file.get(), old) < 0))
            return failed("cannot write " + o_.file);
        if (versions.count(name) && hgx_writer_copy_service(file.get(), cluster.get(), name) < 0) {
            // The copy reads the cluster as it writes the file: a failure
            // is the cluster's where the cluster's store has words for it.
            hgx_error_t e = hgx_error();
            failed_ = e == HGX_ERROR_INVALID_ARGUMENT || e == HGX_ERROR_INVALID_VALUE
                          ? Failed::REFUSED
                      : *hgx_writer_message(cluster.get()) ? Failed::CLUSTER
                                                           : Failed::FILE;
            // A name the copy refuses is named by its message alone.
            return failed(hgx_valid_service_name(name) ? "cannot copy wrn:/" + name
                                                       : std::string("cannot copy"));
        }
        if (hgx_writer_instance_texts(file.get(), name, &after) < 0)
            return failed("cannot read " + o_.file);
        for (const auto& [inst, text] : after) {
            auto b = before.find(inst);
            if (b == before.end() || b->second != text) changed.insert("wrn:/" + name + ":" + inst);
        }
        for (const auto& [inst, text] : before)
            if (!after.count(inst)) changed.insert("wrn:/" + name + ":" + inst);
    }
    if (hgx_writer_meta_set(file.get(), "source", source) < 0 ||
        hgx_writer_meta_set(file.get(), "url", o_.url) < 0 ||
        hgx_writer_meta_set(file.get(), "services", patterns_text_) < 0 ||
        hgx_writer_meta_set(file.get(), "revision", std::to_string(at)) < 0)
        return failed("cannot write " + o_.file);
    if (hgx_writer_commit(file.get()) < 0) return failed("cannot write " + o_.file);
    source_ = source;
    revision_ = at;
    versions_ = std::move(versions);
    if (whole)
        log_line("copied " + std::to_string(versions_.size()) + " services of " + source +
                 " at revision " + std::to_string(at) + " into " + o_.file);
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
        if (at && selected_versions(at.get(), &versions_, &why)) {
            log_line("resuming at revision " + std::to_string(revision_));
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
            // The next revision is compared with the one the mirror holds,
            // so it brings whatever this one changed, once it is acceptable.
            if (cause == Failed::REFUSED) {
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
