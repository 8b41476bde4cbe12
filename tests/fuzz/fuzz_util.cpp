#include "fuzz_util.h"

#include <stdlib.h>

#include <cstdio>

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

void ensure_repository() {
    static bool ready = false;
    if (ready) return;
    char dir[] = "/tmp/kelvo-fuzz-XXXXXX";
    if (mkdtemp(dir) == nullptr) abort();
    std::string path = std::string(dir) + "/repo.db";
    std::string error;
    if (hgxrepo_import_text(path, MANIFEST, true, &error) != 0) {
        std::fprintf(stderr, "fuzz: cannot make the repository: %s\n", error.c_str());
        abort();
    }
    setenv("HGX_REPOSITORY", path.c_str(), 1);
    unsetenv("QRM_METHOD");
    unsetenv("QRM_RESTARTER");
    ready = true;
}

}  // namespace fuzz
