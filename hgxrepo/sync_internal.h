// The parts of hgxrepo sync, each in a file of its own: the replica (the
// file brought to a revision of the cluster, sync_apply.cpp), the command
// run after a change (sync_command.cpp), what the mirror tells of itself
// (host status, metrics and systemd, sync_report.cpp), and the loop that
// follows the cluster and drives them (sync.cpp). Private to hgxrepo; they
// may let std::bad_alloc out, which hgxrepo_main catches.
#pragma once

#include <regex.h>
#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "hgx.h"
#include "hgx_ptr.h"
#include "hgx_write.h"
#include "sync.h"

namespace hgxrepo::sync {

// ---- the process ---------------------------------------------------------------

// Whether no SIGTERM or SIGINT has asked the mirror to stop yet.
bool keep_going();
// Sleeps up to `ms` milliseconds, waking early for a stop; false when a
// stop was asked.
bool pause_for(int64_t ms);
// One line on standard error, behind a UTC timestamp.
void log_line(const std::string& text);
// Seconds since the epoch, now.
int64_t now_seconds();

// A failure that lasts (a lost cluster, a file that cannot be written): one
// line when it begins, one when it ends, and between them tries that wait
// 1, 2, 4 ... up to 30 seconds. This is the mirror's one rule of waiting.
class Trouble {
  public:
    // Logs the line unless the trouble has begun already.
    void begin(const std::string& line);
    // Logs the line if the trouble was on; the next one waits 1 s first.
    void end(const std::string& line);
    // Waits the pause of this try (false when a stop came meanwhile), and
    // doubles it for the next.
    bool wait();
    // The next trouble starts with short waits again, this one goes on.
    void forget() { pause_ = 1; }
    bool on() const { return on_; }

  private:
    bool on_ = false;
    int pause_ = 1;
};

// ---- the replica: the file brought to a revision of the cluster ----------------

// A compiled extended regular expression that matches whole names.
class Pattern {
  public:
    explicit Pattern(const std::string& text);
    ~Pattern();
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;
    bool ok() const { return ok_; }
    bool matches(const std::string& s) const;

  private:
    regex_t re_{};
    bool ok_ = false;
};

// A part of the repository: a service's own groups (instance "") or an
// instance with its snapshots; and the versions of parts.
using Part = std::pair<std::string, std::string>;
using Versions = std::map<Part, std::string>;

// How bringing the file to a revision ended.
enum class Outcome {
    APPLIED,  // the file holds the revision (or held all of it already)
    CLUSTER,  // the cluster could not be read
    REFUSED,  // the revision holds what no import would take
    FILE,     // the file could not be written
    FOREIGN,  // the cluster is another than the one the file mirrors
};

struct Applied {
    Outcome outcome = Outcome::APPLIED;
    int64_t revision = 0;                // the revision the file holds now
    bool whole = false;                  // a copy of the whole selection
    std::set<std::string> changed;       // werns whose kelvo view changed
    hgx_error_t error = HGX_ERROR_NONE;  // the library's code where it failed
    std::string why;                     // the line of a failure
};

// The mirror's file and what it holds, and the selection of the cluster it
// mirrors. It keeps one writer of the file from its first write on, and
// starts each later transaction on it.
class Replica {
  public:
    explicit Replica(const SyncOptions& o) : o_(o) {}
    Replica(const Replica&) = delete;
    Replica& operator=(const Replica&) = delete;

    // Checks the options and the file, and reads where the file stands;
    // false (with a line printed) when the file must not be touched.
    bool prepare();
    // Whether the file holds a copy of this selection to resume from.
    bool resumable() const { return resume_ && revision_ > 0; }
    // Reads what the file holds as of its revision from the cluster, to
    // follow on from there: false with *error set where it cannot (a
    // revision compacted away), and then the file is copied afresh.
    bool resume(hgx_error_t* error);
    // Brings the file to the cluster at `revision` (0: the newest): every
    // selected part when whole (or when the file is not the one it wrote
    // last), else the parts that changed. Never stops the process.
    Applied apply(int64_t revision, bool whole);
    int64_t revision() const { return revision_; }
    const std::string& source() const { return source_; }

  private:
    bool wholly(const std::string& service) const;
    bool selected(const std::string& service, const std::string& instance) const;
    bool by_name() const { return limited_ || literal_only_; }
    std::vector<std::string> literal_instances() const;
    bool selection(hgx_writer_t* c, Versions* out, std::string* why);
    bool select_service(hgx_writer_t* c, const std::string& service, Versions* out,
                        std::string* why);
    bool select_named(hgx_writer_t* c, const std::string* service, Versions* out, std::string* why);
    bool changed_parts(hgx_writer_t* c, Versions* next, std::set<Part>* examined, std::string* why);
    // The writer for this revision's transaction: the one kept, or a new
    // one where there is none or it cannot begin another. Null with *why.
    hgx_writer_t* writer(std::string* why);
    bool write_whole(hgx_writer_t* file, hgx_writer_t* c, const Versions& next,
                     std::set<std::string>* changed, Applied* a);
    bool write_parts(hgx_writer_t* file, hgx_writer_t* c, const Versions& next,
                     const std::set<Part>& examined, std::set<std::string>* changed, Applied* a);
    bool write_failed(hgx_writer_t* file, const std::string& what, Applied* a);
    // Whether the file at its path is not the one the kept writer opened.
    bool replaced() const;
    bool copy_failed(hgx_writer_t* file, hgx_writer_t* c, const Part& part, Applied* a);

    const SyncOptions& o_;
    std::vector<std::unique_ptr<Pattern>> services_, instances_;
    std::string services_text_, instances_text_;  // as recorded in the file
    std::string source_;                          // the cluster's, once known
    int64_t revision_ = 0;                        // last applied
    Versions versions_;                           // of what the file holds, at revision_
    bool limited_ = false;            // the user may read only the instances granted to it
    bool literal_only_ = false;       // every pattern names one instance outright
    std::vector<std::string> named_;  // what select_named reads, once a copy from the start
    bool named_known_ = false;
    bool resume_ = false;
    bool recheck_ = false;       // a revision was refused since the last one applied
    int64_t bytes_ = 0;          // read from the cluster when the last revision was applied
    HgxPtr<hgx_writer_t> file_;  // the writer kept between transactions
    dev_t file_dev_ = 0;         // and the file it writes
    ino_t file_ino_ = 0;
};

// ---- the command -------------------------------------------------------------

// How the command's last run ended.
struct CommandRun {
    int64_t revision = 0;  // of the change it ran for
    int64_t time = 0;      // when it ended
    int status = 0;        // its exit status, 128 + a signal's number, or 127 (not run)
};

// Runs the --exec command for a set of changed instances, after a random
// pause of up to splay seconds, and waits for it: runs never overlap. A
// stop during the pause leaves the command unrun (false); otherwise *run
// tells how it ended, and a failure is logged.
bool run_command(const SyncOptions& o, const std::set<std::string>& changed, int64_t revision,
                 CommandRun* run);

// ---- what the mirror tells of itself --------------------------------------------

// The mirror as its host status, its metrics and systemd tell it.
struct MirrorState {
    int64_t revision = 0;           // applied
    int64_t applied_time = 0;       // when revision was applied (0: nothing yet)
    int64_t revisions_applied = 0;  // by this process
    int64_t copy_time = 0;          // when the last whole copy was made (0: none yet)
    bool connected = false;
    int64_t command_runs = 0, command_failures = 0;
    CommandRun last_command;  // meaningful once command_runs > 0
};

// Tells the mirror's state to whoever listens: the host's status key in the
// cluster (held by a lease that a thread of its own renews), the metrics
// file, and systemd's STATUS= line. Updates are taken at once and told at
// most once a second, in that thread, so that the mirror never waits on
// them. Failures are logged once, until they end.
class Reporter {
  public:
    // status: keep the host's status key (host is its name); metrics: the
    // file to keep, or empty.
    Reporter(const SyncOptions& o, const std::string& host, bool status);
    // Tells the last state, revokes the status key's lease (the key goes)
    // and ends the thread.
    ~Reporter();
    Reporter(const Reporter&) = delete;
    Reporter& operator=(const Reporter&) = delete;

    // Takes the state to tell.
    void update(const MirrorState& state);

  private:
    void loop();
    void tell(const MirrorState& state, bool status);

    const SyncOptions& o_;
    std::string host_;
    bool status_;
    int ttl_;
    std::mutex mutex_;
    std::condition_variable wake_;
    MirrorState state_;
    bool changed_ = false, stop_ = false;
    std::thread thread_;
    // Used by the thread alone.
    HgxPtr<hgx_status_key_t> key_;
    hgx_commit_info commit_;   // the last commit as of the revision last told
    int64_t commit_for_ = -1;  // that revision
    Trouble key_trouble_, metrics_trouble_;
};

// The metrics file's text for a state (Prometheus text exposition format).
std::string metrics_text(const MirrorState& s, const std::string& host);
// Replaces the file with text whole (a temporary file beside it renamed
// over it): 0, or -1 with errno set.
int replace_file(const std::string& path, const std::string& text);

// The host's status record for a state (JSON, docs/etcd-store.md).
std::string status_record(const MirrorState& s, const std::string& host,
                          const hgx_commit_info& commit);

// Sends a state line to systemd where NOTIFY_SOCKET names its socket
// (sd_notify of libsystemd, loaded on first use): true when sent or not
// asked for, false (logged once) when it cannot be.
bool notify_systemd(const std::string& state);

// The system's host name, or "" where it is no valid name.
std::string system_host_name();

}  // namespace hgxrepo::sync
