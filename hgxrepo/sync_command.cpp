// The command of hgxrepo sync --exec: what it is given (the changed
// instances, the mirror's file, none of the cluster's secrets), when it runs
// (after a random pause, so that a fleet does not act at one instant), and
// how it ended.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string_view>

#include "sync_internal.h"

extern char** environ;

namespace hgxrepo::sync {

namespace {

// The command's environment: this process's with HGX_CHANGED and
// HGX_REPOSITORY set, and without the HGX_ETCD_* variables but the CA's.
// The command reads the mirror; the cluster's credentials (user, password,
// client key and certificate, and whatever may come) are not its business,
// and systemd's socket is the mirror's own.
std::vector<std::string> command_environment(const std::string& changed, const std::string& file) {
    std::vector<std::string> out;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string_view entry = *e;
        std::string_view name = entry.substr(0, entry.find('='));
        if ((name.rfind("HGX_ETCD_", 0) == 0 && name != "HGX_ETCD_CACERT") ||
            name == "HGX_CHANGED" || name == "HGX_REPOSITORY" || name == "NOTIFY_SOCKET")
            continue;
        out.emplace_back(entry);
    }
    out.push_back("HGX_CHANGED=" + changed);
    // Absolute, so that a command that changes its directory finds it too.
    std::error_code ec;
    std::filesystem::path path = std::filesystem::absolute(file, ec);
    out.push_back("HGX_REPOSITORY=" + (ec ? file : path.string()));
    return out;
}

}  // namespace

bool run_command(const SyncOptions& o, const std::set<std::string>& changed, int64_t revision,
                 CommandRun* run) {
    if (o.splay > 0) {
        std::random_device entropy;
        std::uniform_int_distribution<int64_t> pick(0, int64_t{o.splay} * 1000);
        if (!pause_for(pick(entropy))) {
            log_line("stopped before the command ran for revision " + std::to_string(revision));
            return false;
        }
    }
    std::string list;
    for (const std::string& w : changed) list += w + "\n";
    // Made before the fork: the child only calls what is safe there.
    std::vector<std::string> environment = command_environment(list, o.file);
    std::vector<char*> envp;
    for (std::string& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);
    const char* argv[] = {"sh", "-c", o.exec.c_str(), nullptr};
    std::fflush(nullptr);
    run->revision = revision;
    pid_t pid = fork();
    if (pid < 0) {
        log_line("cannot run the command: " + std::string(std::strerror(errno)));
        run->status = 127;
        run->time = now_seconds();
        return true;
    }
    if (pid == 0) {
        signal(SIGTERM, SIG_DFL);
        signal(SIGINT, SIG_DFL);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execve("/bin/sh", const_cast<char* const*>(argv), envp.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    run->time = now_seconds();
    run->status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (run->status != 0)
        log_line("the command failed (" +
                 (WIFEXITED(status) ? "status " + std::to_string(WEXITSTATUS(status))
                                    : "signal " + std::to_string(WTERMSIG(status))) +
                 ") for revision " + std::to_string(revision));
    return true;
}

}  // namespace hgxrepo::sync
