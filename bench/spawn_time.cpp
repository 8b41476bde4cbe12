// spawn_time: wall time of short commands, measured side by side.
//
//   spawn_time RUNS COMMAND...
//
// Each COMMAND is one argument, a program and its arguments split at blanks
// (no shell, so the shell's start-up does not drown a run of a millisecond),
// after optional NAME=VALUE words that are set in that command's environment
// (as env(1) would, without the cost of running env).
// The commands run in turn, one run of each per round, so that a load that
// comes and goes on the machine falls on all of them alike; five rounds are
// run first untimed. Output, one line per command in the order given:
//   MEDIAN_MS MEAN_MS MIN_MS MEDIAN_CPU_MS MEDIAN_FAULTS
// the command's own processor time (user and system, from wait4), which a
// loaded machine inflates far less than the wall time, and its page faults
// served without reading the disk (mapping the program and its libraries,
// touching fresh memory: much of a short run's cost).
// Standard input, output and error of the commands are /dev/null. A command
// that fails or exits non-zero ends the program with status 1.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

struct Command {
    std::string text;
    std::vector<std::string> words;
    std::vector<std::string> env;  // the environment, with the command's own settings
    std::vector<double> ms;
    std::vector<double> cpu_ms;
    std::vector<double> faults;
};

double now_ms() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

double ms_of(const timeval& t) {
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_usec) / 1e3;
}

double median_of(std::vector<double>& v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// One run of c; returns its wall time in ms, or a negative number on failure,
// its processor time in *cpu_ms and its minor page faults in *faults.
double run_once(const Command& c, const posix_spawn_file_actions_t* io, double* cpu_ms,
                double* faults) {
    std::vector<char*> argv;
    for (const std::string& w : c.words) argv.push_back(const_cast<char*>(w.c_str()));
    argv.push_back(nullptr);
    const double t0 = now_ms();
    std::vector<char*> envp;
    for (const std::string& e : c.env) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], io, nullptr, argv.data(), envp.data()) != 0) return -1;
    int status = 0;
    rusage usage{};
    if (wait4(pid, &status, 0, &usage) != pid) return -1;
    const double t1 = now_ms();
    *cpu_ms = ms_of(usage.ru_utime) + ms_of(usage.ru_stime);
    *faults = static_cast<double>(usage.ru_minflt);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
    return t1 - t0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3 || std::atoi(argv[1]) < 1) {
        std::fprintf(stderr, "usage: spawn_time RUNS COMMAND...\n");
        return 2;
    }
    const int runs = std::atoi(argv[1]);
    std::vector<Command> commands;
    for (int i = 2; i < argc; ++i) {
        Command c;
        c.text = argv[i];
        std::istringstream in(c.text);
        for (std::string w; in >> w;) c.words.push_back(w);
        for (char** e = environ; *e != nullptr; ++e) c.env.emplace_back(*e);
        while (!c.words.empty() && c.words.front().find('=') != std::string::npos) {
            const std::string& set = c.words.front();
            const std::string name = set.substr(0, set.find('=') + 1);
            std::erase_if(c.env, [&](const std::string& e) { return e.rfind(name, 0) == 0; });
            c.env.push_back(set);
            c.words.erase(c.words.begin());
        }
        if (c.words.empty()) {
            std::fprintf(stderr, "spawn_time: empty command\n");
            return 2;
        }
        commands.push_back(std::move(c));
    }

    posix_spawn_file_actions_t io;
    posix_spawn_file_actions_init(&io);
    for (int fd = 0; fd < 3; ++fd)
        posix_spawn_file_actions_addopen(&io, fd, "/dev/null", fd ? O_WRONLY : O_RDONLY, 0);

    int status = 0;
    for (int round = -5; round < runs && status == 0; ++round) {
        for (Command& c : commands) {
            double cpu_ms = 0, faults = 0;
            const double ms = run_once(c, &io, &cpu_ms, &faults);
            if (ms < 0) {
                std::fprintf(stderr, "spawn_time: command failed: %s\n", c.text.c_str());
                status = 1;
                break;
            }
            if (round >= 0) {
                c.ms.push_back(ms);
                c.cpu_ms.push_back(cpu_ms);
                c.faults.push_back(faults);
            }
        }
    }
    posix_spawn_file_actions_destroy(&io);
    if (status != 0) return status;

    for (Command& c : commands) {
        double sum = 0;
        for (double m : c.ms) sum += m;
        const double mean = sum / static_cast<double>(c.ms.size());
        const double median = median_of(c.ms);
        std::printf("%.4f %.4f %.4f %.4f %.0f\n", median, mean, c.ms.front(), median_of(c.cpu_ms),
                    median_of(c.faults));
    }
    return 0;
}
