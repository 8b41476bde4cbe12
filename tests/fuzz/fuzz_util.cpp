#include "fuzz_util.h"

#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "hgxrepo.h"

namespace fuzz {

namespace {

// Two services, an instance with groups of every kind a stencil reads, a
// nested group and a configfile group with defines: small enough that the
// sections of a fuzzed stencil stay cheap.
constexpr char MANIFEST[] = R"({"services": {
  "demo/web": {
    "groups": {"config": {"properties": {"user": "www", "workers": 4, "tls": true}}},
    "instances": {"default": {"groups": {
      "config": {"properties": {"log_dir": "/var/log/web", "name": "aaaaaaaaaaaaaaaaaaaa",
                                "list": ["a", "b", "c"]}},
      "sites": {"groups": {"main": {"properties": {"listen": 80, "root": "/srv"}}}},
      "net": {"properties": {"host": "h1", "port": {"type": "count", "values": ["80"]},
                             "addr": {"type": "net_address_v4", "values": ["10.0.0.1"]}}},
      "file": {"type": "configfile", "properties": {"path": "/etc/web.conf"},
               "groups": {"defines": {"properties": {"mode": "fast"}}}}}},
                  "other": {}}},
  "demo/db": {"instances": {"default": {"groups": {
      "config": {"properties": {"port": 5432}}}}}}}})";

}  // namespace

const std::string& scratch_dir() {
    // The name lives in storage that no destructor ends, so that the exit
    // handler below can still read it.
    static char made[64];
    static const std::string SCRATCH = [] {
        std::snprintf(made, sizeof made, "/dev/shm/kelvo-fuzz-XXXXXX");
        if (mkdtemp(made) == nullptr) {
            std::snprintf(made, sizeof made, "/tmp/kelvo-fuzz-XXXXXX");
            if (mkdtemp(made) == nullptr) abort();
        }
        // Gone with the process when it ends by exit (a crash leaves it, with
        // the repositories of the input that crashed).
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(made, ec);
        });
        return std::string(made);
    }();
    return SCRATCH;
}

int memory_file(const void* data, size_t size) {
    int fd = memfd_create("fuzz", MFD_CLOEXEC);
    if (fd >= 0 && pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) {
        close(fd);
        return -1;
    }
    return fd;
}

std::string contents(int fd) {
    std::string text;
    char buf[65536];
    ssize_t n;
    for (off_t at = 0; (n = pread(fd, buf, sizeof buf, at)) > 0; at += n)
        text.append(buf, static_cast<size_t>(n));
    return text;
}

int hgxrepo(const std::vector<std::string>& args, std::string* out) {
    std::vector<std::string> words{"hgxrepo"};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    std::ostringstream captured;
    std::streambuf* saved = std::cout.rdbuf(captured.rdbuf());
    int status = hgxrepo_main(static_cast<int>(words.size()), argv.data());
    std::cout.rdbuf(saved);
    *out = captured.str();
    return status;
}

void ensure_repository() {
    static bool ready = false;
    if (ready) return;
    std::string path = scratch_dir() + "/repo.db";
    std::string error;
    if (hgxrepo_import_text(path, MANIFEST, true, &error) != 0)
        finding("the repository cannot be made", error);
    setenv("HGX_REPOSITORY", path.c_str(), 1);
    unsetenv("QRM_METHOD");
    unsetenv("QRM_RESTARTER");
    ready = true;
}

}  // namespace fuzz
