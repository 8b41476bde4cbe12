// hgxrepo sync: the loop that follows the cluster. It copies the cluster
// whole when it must (at the start, after a compaction), then applies each
// commit as the watch hands it on, and after each applied revision tells
// the reporter and runs the command; lost clusters and files that cannot
// be written are waited out by one rule (Trouble).
#include "sync.h"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>
#include <thread>

#include "manifest.h"
#include "sync_internal.h"

namespace hgxrepo::sync {

namespace {

volatile std::sig_atomic_t stop_requested = 0;

void request_stop(int) { stop_requested = 1; }

}  // namespace

bool keep_going() { return !stop_requested; }

bool pause_for(int64_t ms) {
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (keep_going() && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(std::min<int64_t>(ms, 100)));
    return keep_going();
}

// Control bytes in what a line tells (names and messages from the cluster)
// are escaped, so that a line is always one record of the log.
void log_line(const std::string& text) {
    char when[32];
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&now, &tm);
    std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &tm);
    std::fprintf(stderr, "%s hgxrepo sync: %s\n", when, manifest::escape(text, false).c_str());
    std::fflush(stderr);
}

int64_t now_seconds() { return static_cast<int64_t>(std::time(nullptr)); }

void Trouble::begin(const std::string& line) {
    if (!on_) log_line(line);
    on_ = true;
}

void Trouble::end(const std::string& line) {
    if (on_) log_line(line);
    on_ = false;
    pause_ = 1;
}

bool Trouble::wait() {
    bool going = pause_for(int64_t{pause_} * 1000);
    pause_ = pause_ < 30 ? pause_ * 2 : 30;
    return going;
}

namespace {

class Mirror {
  public:
    explicit Mirror(const SyncOptions& o) : o_(o), replica_(o) {}
    bool prepare() { return replica_.prepare(); }
    int run();

  private:
    // Copies the whole selection: true once the file holds it.
    bool copy(Trouble* stuck, int* status);
    // Follows the cluster from the revision the file holds until the watch
    // ends; the outcome of a revision that could not be applied, if any.
    Applied follow(Trouble* stuck, std::string* broken);
    // After a revision the file now holds: the state told, the command run.
    void applied(const Applied& a);
    // systemd hears READY=1 once: the file holds a state as new as the
    // cluster's, or the cluster is away and the file holds an earlier one.
    void ready(const std::string& why);
    void tell() {
        if (reporter_) reporter_->update(state_);
    }

    const SyncOptions& o_;
    Replica replica_;
    std::unique_ptr<Reporter> reporter_;
    MirrorState state_;
    int64_t catch_up_ = 0;  // the revision of the cluster's last commit at the start
    bool ready_ = false;
};

void Mirror::ready(const std::string& why) {
    if (ready_ || o_.once) return;
    ready_ = true;
    notify_systemd("READY=1\nSTATUS=" + why);
}

void Mirror::applied(const Applied& a) {
    if (a.revision != state_.revision || a.whole) {
        state_.revision = a.revision;
        state_.applied_time = now_seconds();
        ++state_.revisions_applied;
    }
    if (a.whole) state_.copy_time = state_.applied_time;
    state_.connected = true;
    tell();
    if (a.revision >= catch_up_) ready("following " + o_.url);
    if (a.changed.empty() || o_.exec.empty()) return;
    CommandRun run;
    if (!run_command(o_, a.changed, a.revision, &run)) return;
    ++state_.command_runs;
    if (run.status != 0) ++state_.command_failures;
    state_.last_command = run;
    tell();
}

bool Mirror::copy(Trouble* stuck, int* status) {
    Applied a = replica_.apply(0, true);
    if (a.outcome == Outcome::APPLIED) {
        applied(a);
        return true;
    }
    if (a.outcome == Outcome::FOREIGN || o_.once || !keep_going()) {
        log_line(a.why);
        *status = 1;
        return false;
    }
    // A file that holds an earlier copy serves the host meanwhile.
    if (replica_.revision() > 0) ready("the cluster is away; the mirror holds an earlier copy");
    stuck->begin("copying failed: " + a.why + "; trying again");
    stuck->wait();
    return false;
}

Applied Mirror::follow(Trouble* stuck, std::string* broken) {
    Applied failed;
    failed.outcome = Outcome::APPLIED;
    auto on_commit = [&](int64_t revision) {
        if (revision <= replica_.revision()) return true;
        Applied a = replica_.apply(revision, false);
        switch (a.outcome) {
            case Outcome::APPLIED:
                stuck->end("applied revision " + std::to_string(a.revision) +
                           ": the mirror follows again");
                applied(a);
                return keep_going();
            case Outcome::REFUSED:
                // The next revision is compared whole with the one the
                // mirror holds, so it brings whatever this one changed,
                // once it is acceptable.
                log_line("revision " + std::to_string(revision) + " refused, the mirror stays at " +
                         std::to_string(replica_.revision()) + ": " + a.why);
                return keep_going();
            default:
                failed = a;
                return false;
        }
    };
    std::string message;
    if (hgx_follow(o_.url.c_str(), replica_.revision(), on_commit, keep_going, &message) < 0 &&
        failed.outcome == Outcome::APPLIED) {
        failed.outcome = Outcome::CLUSTER;
        failed.error = hgx_error();
        failed.why = message.empty() ? hgx_strerror(hgx_error()) : message;
    }
    *broken = failed.why;
    return failed;
}

int Mirror::run() {
    bool whole = !replica_.resumable() || o_.once;
    std::string host = o_.host.empty() ? system_host_name() : o_.host;
    if (!o_.once && host.empty())
        log_line(
            "the system's host name is no valid name (give --host NAME): "
            "no status of this host is kept in the cluster");
    reporter_ = std::make_unique<Reporter>(o_, host, !o_.once && !host.empty());
    if (!whole) {
        hgx_error_t e = HGX_ERROR_NONE;
        whole = !replica_.resume(&e);
        if (e == HGX_ERROR_REVISION_COMPACTED)
            log_line("revision " + std::to_string(replica_.revision()) +
                     " has been compacted away: copying afresh");
        state_.revision = replica_.revision();
        // Ready once caught up with the cluster as it is now.
        hgx_commit_info last;
        std::string message;
        int rc = hgx_last_commit(o_.url.c_str(), &last, &message);
        if (rc < 0) ready("the cluster is away; the mirror holds an earlier copy");
        catch_up_ = rc > 0 ? last.revision : 0;
    }
    Trouble lost, stuck;  // the cluster; the file
    int status = 0;
    while (keep_going()) {
        if (whole) {
            if (!copy(&stuck, &status)) {
                if (status != 0) return status;
                continue;
            }
            // The line of the copy tells that the trouble is over.
            stuck = Trouble();
            lost = Trouble();
            whole = false;
            ready("following " + o_.url);
            if (o_.once) return 0;
        }
        lost.end("connected again at revision " + std::to_string(replica_.revision()));
        if (!state_.connected) {
            state_.connected = true;
            tell();
        }
        if (replica_.revision() >= catch_up_) ready("following " + o_.url);
        std::string cause;
        auto began = std::chrono::steady_clock::now();
        Applied failed = follow(&stuck, &cause);
        if (!keep_going()) break;
        // A watch that held for a while was sound: a new trouble starts
        // with short waits again.
        if (std::chrono::steady_clock::now() - began > std::chrono::seconds(30)) {
            lost.forget();
            stuck.forget();
        }
        if (failed.outcome == Outcome::FOREIGN) {
            log_line(failed.why);
            return 1;
        }
        if (failed.outcome == Outcome::FILE) {
            stuck.begin("revision not applied, the mirror stays at " +
                        std::to_string(replica_.revision()) + ": " + cause + "; trying again");
            stuck.wait();
            continue;
        }
        if (failed.error == HGX_ERROR_REVISION_COMPACTED) {
            log_line("revision " + std::to_string(replica_.revision() + 1) +
                     " has been compacted away: copying afresh");
            whole = true;
            continue;
        }
        lost.begin("lost the cluster: " + cause);
        state_.connected = false;
        tell();
        ready("the cluster is away; the mirror holds revision " +
              std::to_string(replica_.revision()));
        // Back until the cluster answers again, then follow from where the
        // mirror stands; nothing in between is lost, etcd keeps it.
        while (lost.wait()) {
            std::string m;
            HgxPtr<hgx_writer_t> probe(hgx_reader_open_at(o_.url.c_str(), 0, &m));
            if (probe) break;
        }
    }
    notify_systemd("STOPPING=1");
    log_line("stopped at revision " + std::to_string(replica_.revision()));
    return 0;
}

}  // namespace

}  // namespace hgxrepo::sync

int hgxrepo_sync(const SyncOptions& options) {
    using namespace hgxrepo::sync;
    struct sigaction sa {};
    sa.sa_handler = request_stop;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    Mirror m(options);
    if (!m.prepare()) return 1;
    return m.run();
}
