// What the mirror tells of itself, in a thread of its own so that it never
// waits on it: the host's status in the cluster (a key under a lease that
// the thread renews, so that a host that dies disappears from hgxrepo
// hosts), the metrics file for the host's monitoring, and systemd's
// readiness and status lines.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "sync_internal.h"

namespace hgxrepo::sync {

namespace {

using Clock = std::chrono::steady_clock;

// Seconds a host's status outlives its mirror, unless HGX_SYNC_STATUS_TTL
// (for tests) says otherwise.
constexpr int STATUS_TTL = 30;
// The least time between two tellings of the state.
constexpr auto TELL_EVERY = std::chrono::seconds(1);

int status_ttl() {
    const char* text = std::getenv("HGX_SYNC_STATUS_TTL");
    long ttl = text && *text ? std::strtol(text, nullptr, 10) : STATUS_TTL;
    return ttl >= 2 && ttl <= 3600 ? static_cast<int>(ttl) : STATUS_TTL;
}

// A label's value as the exposition format quotes it.
std::string label(const std::string& value) {
    std::string out;
    for (char c : value) {
        if (c == '\\' || c == '"') out += '\\';
        out += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return out;
}

std::string systemd_status(const MirrorState& s, const std::string& url) {
    if (s.applied_time == 0) return "copying " + url;
    if (!s.connected)
        return "the cluster is lost; the mirror holds revision " + std::to_string(s.revision);
    return "following " + url + " at revision " + std::to_string(s.revision);
}

using NotifyFn = decltype(&sd_notify);

// libsystemd, loaded where the mirror runs under systemd alone: linked, it
// would load six more libraries into every hgxrepo command.
NotifyFn load_sd_notify(std::string* why) {
    void* lib = dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        const char* e = dlerror();
        *why = e ? e : "libsystemd.so.0 cannot be loaded";
        return nullptr;
    }
    // The library stays loaded for the process's life.
    auto fn = reinterpret_cast<NotifyFn>(dlsym(lib, "sd_notify"));
    if (!fn) *why = "libsystemd.so.0 has no sd_notify";
    return fn;
}

}  // namespace

bool notify_systemd(const std::string& state) {
    const char* socket = std::getenv("NOTIFY_SOCKET");
    if (!socket || !*socket) return true;
    static std::string why;
    static const NotifyFn FN = load_sd_notify(&why);
    static std::atomic<bool> told{false};
    int rc = FN ? FN(0, state.c_str()) : -1;
    if (rc > 0) return true;
    if (!told.exchange(true))
        log_line("cannot tell systemd (NOTIFY_SOCKET): " +
                 (FN ? std::string(std::strerror(-rc)) : why));
    return false;
}

std::string system_host_name() {
    char name[256] = "";
    if (gethostname(name, sizeof name - 1) != 0) return "";
    return hgx_valid_name(name) ? name : "";
}

std::string metrics_text(const MirrorState& s, const std::string& host) {
    std::string out;
    auto metric = [&](const char* name, const char* type, const char* help, int64_t value,
                      const std::string& labels = "") {
        out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n" +
               name + labels + " " + std::to_string(value) + "\n";
    };
    metric("hgx_mirror_info", "gauge", "The host and version of the mirror.", 1,
           "{host=\"" + label(host) + "\",version=\"" + label(KELVO_VERSION) + "\"}");
    metric("hgx_mirror_revision", "gauge", "The etcd revision the mirror file holds.", s.revision);
    metric("hgx_mirror_revision_timestamp_seconds", "gauge",
           "When the mirror file was brought to its revision.", s.applied_time);
    metric("hgx_mirror_connected", "gauge", "Whether the mirror follows the cluster.",
           s.connected ? 1 : 0);
    metric("hgx_mirror_revisions_applied_total", "counter",
           "Revisions applied to the mirror file since the mirror started.", s.revisions_applied);
    metric("hgx_mirror_copy_timestamp_seconds", "gauge",
           "When the mirror last copied the cluster whole.", s.copy_time);
    metric("hgx_mirror_command_runs_total", "counter", "Runs of the --exec command.",
           s.command_runs);
    metric("hgx_mirror_command_failures_total", "counter",
           "Runs of the --exec command that failed.", s.command_failures);
    return out;
}

int replace_file(const std::string& path, const std::string& text) {
    // Beside the file, so that the rename stays within its file system: a
    // reader finds the old text or the new, whole.
    std::string temp = path + ".tmp." + std::to_string(getpid());
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return -1;
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    int error = done == text.size() ? 0 : errno ? errno : EIO;
    if (close(fd) != 0 && !error) error = errno;
    if (!error && rename(temp.c_str(), path.c_str()) != 0) error = errno;
    if (error) {
        unlink(temp.c_str());
        errno = error;
        return -1;
    }
    return 0;
}

std::string status_record(const MirrorState& s, const std::string& host,
                          const hgx_commit_info& commit) {
    nlohmann::json command = nullptr;
    if (s.command_runs > 0)
        command = {{"revision", s.last_command.revision},
                   {"time", s.last_command.time},
                   {"status", s.last_command.status}};
    return nlohmann::json{{"host", host},
                          {"version", KELVO_VERSION},
                          {"revision", s.revision},
                          {"commit", commit.number},
                          {"applied", s.applied_time},
                          {"connected", s.connected},
                          {"command", command},
                          {"time", now_seconds()}}
        .dump();
}

Reporter::Reporter(const SyncOptions& o, const std::string& host, bool status)
    : o_(o), host_(host), status_(status), ttl_(status_ttl()) {
    if (!status_ && o_.metrics.empty() && !std::getenv("NOTIFY_SOCKET")) return;
    // The thread takes no signal: SIGTERM and SIGINT go to the mirror's own.
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGTERM);
    sigaddset(&block, SIGINT);
    pthread_sigmask(SIG_BLOCK, &block, &old);
    thread_ = std::thread([this] { loop(); });
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

Reporter::~Reporter() {
    if (thread_.joinable()) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }
    // The last state, in this thread now; the key goes with its lease.
    MirrorState last = state_;
    last.connected = false;
    try {
        tell(last, false);
    } catch (const std::bad_alloc&) {
    }
    key_.reset();
}

void Reporter::update(const MirrorState& state) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        state_ = state;
        changed_ = true;
    }
    wake_.notify_one();
}

void Reporter::loop() {
    // Nothing may leave a thread: a heap exhausted here ends the telling,
    // not the mirror.
    try {
        std::unique_lock<std::mutex> lock(mutex_);
        Clock::time_point tell_at = Clock::now();
        Clock::time_point renew_at = Clock::now() + std::chrono::seconds(ttl_) / 3;
        while (!stop_) {
            if (changed_ && Clock::now() >= tell_at) {
                MirrorState s = state_;
                changed_ = false;
                lock.unlock();
                tell(s, status_);
                lock.lock();
                tell_at = Clock::now() + TELL_EVERY;
                continue;
            }
            if (status_ && Clock::now() >= renew_at) {
                lock.unlock();
                if (key_ && hgx_status_key_renew(key_.get()) < 0)
                    key_trouble_.begin("cannot keep the host's status in the cluster: " +
                                       std::string(hgx_status_key_message(key_.get())));
                lock.lock();
                renew_at = Clock::now() + std::chrono::seconds(ttl_) / 3;
                continue;
            }
            // Woken by an update or a stop too, and then the next time is
            // reckoned again.
            // An hour stands for never: the largest time point overflows
            // some waits.
            Clock::time_point until = status_ ? renew_at : Clock::now() + std::chrono::hours(1);
            if (changed_ && tell_at < until) until = tell_at;
            wake_.wait_until(lock, until);
        }
    } catch (const std::bad_alloc&) {
        log_line("out of memory: the mirror's state is no longer told");
    }
}

void Reporter::tell(const MirrorState& s, bool status) {
    if (!o_.metrics.empty()) {
        if (replace_file(o_.metrics, metrics_text(s, host_)) == 0)
            metrics_trouble_.end("the metrics file " + o_.metrics + " is written again");
        else
            metrics_trouble_.begin("cannot write the metrics file " + o_.metrics + ": " +
                                   std::strerror(errno));
    }
    notify_systemd("STATUS=" + systemd_status(s, o_.url));
    if (!status) return;
    // The key's client comes with the first state told, which follows the
    // mirror's own first reading of the cluster: the client module is
    // loaded by then, and this thread never loads it beside the other.
    std::string message;
    if (!key_) key_.reset(hgx_status_key_open(o_.url.c_str(), host_, ttl_, &message));
    if (!key_) {
        key_trouble_.begin("cannot keep the host's status in the cluster: " + message);
        return;
    }
    // The commit count of a revision is read once; where it cannot be (a
    // revision compacted away meanwhile), the record says none.
    if (s.revision != commit_for_) {
        hgx_commit_info c;
        commit_ = s.revision > 0 && hgx_status_key_commit(key_.get(), s.revision, &c) > 0
                      ? c
                      : hgx_commit_info{};
        commit_for_ = s.revision;
    }
    if (hgx_status_key_put(key_.get(), status_record(s, host_, commit_)) < 0)
        key_trouble_.begin("cannot keep the host's status in the cluster: " +
                           std::string(hgx_status_key_message(key_.get())));
    else
        key_trouble_.end("the host's status is kept in the cluster again");
}

}  // namespace hgxrepo::sync
