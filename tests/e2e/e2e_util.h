// Helpers for the end-to-end tests: run the real binaries in a scratch
// directory and capture everything they print.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "../common/temp_dir.h"

namespace e2e {

struct Result {
    int status = -1;  // exit status (0..255), or 128 + signal number
    std::string out;
    std::string err;
};

// Environment changes on top of the test's own environment: a value sets the
// variable, std::nullopt removes it.
using Env = std::map<std::string, std::optional<std::string>>;

struct Run {
    std::vector<std::string> args;  // argv, argv[0] included
    std::string input;              // fed to standard input
    Env env;
    // Prefix of the command (e.g. {"setpriv", "--inh-caps=-all", ...}).
    std::vector<std::string> wrapper;
};

// A command line's prefix that runs the command in a mount namespace of its
// own whose mounts propagate nowhere: all of them private or, in a chroot
// where "/" may be no mount point to make private, at least the mount that
// holds dir, below which the command is to mount. Exits 97 when neither can
// be made private.
std::vector<std::string> private_mount_namespace(const std::string& dir);

// Runs a program. On the pass of the tests against etcd, a repository file
// named by -r or HGX_REPOSITORY is replaced by a prefix of its own in the
// cluster.
Result run(const Run& r);

// Whether this pass keeps its repositories in etcd, and what a repository
// path (an absolute one ending in .db) becomes there; other paths stay.
bool on_cluster();
std::string repository_for(const std::string& path);
// The library's text for a repository that is not there, in this pass.
inline const char* missing_repository_text() {
    return on_cluster() ? "No repository below this etcd prefix" : "Repository file does not exist";
}

// A run as one value: status, standard output and standard error are
// compared whole and shown together when they differ.
using Whole = std::tuple<int, std::string, std::string>;
inline Whole whole(const Result& r) { return {r.status, r.out, r.err}; }

// A scratch directory, removed with its contents when the object goes.
using testing_support::TempDir;

using testing_support::read_file;
using testing_support::write_file;
bool exists(const std::string& path);

inline const char* kelvo_bin() { return KELVO_BIN; }
inline const char* hgxrepo_bin() { return HGXREPO_BIN; }
inline const char* kelvo_diff_bin() { return KELVO_DIFF_BIN; }
inline const char* kelvo_lint_bin() { return KELVO_LINT_BIN; }
inline const char* kelvo_apply_bin() { return KELVO_APPLY_BIN; }
inline std::string source_dir() { return SOURCE_DIR; }

// Imports the manifest text into a new repository file at path with
// hgxrepo; fails the current test (ADD_FAILURE) when the import fails.
void make_repository(const std::string& path, const std::string& manifest_json,
                     bool snapshot = true);

// Runs kelvo with the given arguments (argv[0] added) against a repository
// file; HGX_REPOSITORY is set, QRM_WERN, QRM_METHOD and QRM_RESTARTER are
// unset unless env says otherwise; wrapper as in Run.
Result kelvo(const std::string& repository, const std::vector<std::string>& args,
             const std::string& input = "", const Env& env = {},
             std::vector<std::string> wrapper = {});

// As kelvo(), for another program that reads the repository as kelvo does.
Result program(const char* bin, const std::string& repository, const std::vector<std::string>& args,
               const std::string& input = "", const Env& env = {},
               std::vector<std::string> wrapper = {});

// hgxrepo with the arguments (argv[0] added), env as in Run.
Result hgxrepo(const std::vector<std::string>& args, const std::string& input = "",
               const Env& env = {});

// etcd's own command-line client on the members at endpoints ("host:port,...").
Result etcdctl(const std::string& endpoints, const std::vector<std::string>& args,
               const std::string& input = "");

// A scratch directory holding the paths a run of the programs uses: the
// repository (made from manifest, or by the test when that is empty), a
// stencil directory with a stencil "s" that prints config/port, and a root
// prefix with its etc/.
class ProgramTest : public ::testing::Test {
  protected:
    explicit ProgramTest(std::string manifest = "") : manifest_(std::move(manifest)) {}
    void SetUp() override {
        for (const std::string& d : {stencils, root, root + "/etc"})
            ASSERT_EQ(mkdir(d.c_str(), 0755), 0) << d;
        write_file(stencils + "/s", "port=$%{config/port}\n");
        if (!manifest_.empty()) make_repository(repo, manifest_);
    }
    TempDir dir;
    std::string repo = dir / "repo.db", stencils = dir / "stencils", root = dir / "root";

  private:
    std::string manifest_;
};

// A manifest of one service whose instance "default" has a group "config"
// of `count` properties p0, p1, ... all of the value "g<gen>": one
// generation of the instance.
std::string generation_manifest(const std::string& service, int gen, int count);
// A service of a fleet: own groups "config" (d0, d1, ... "default") and
// `instances` instances host00000, host00001, ... each with a group "config"
// of `count` properties p0, p1, ... of the value "g<gen>-<host>-<i>".
std::string fleet_manifest(const std::string& service, int instances, int count, int gen);
// A stencil that prints the `count` properties of such a group on one line,
// and the generation ("g<gen>") that its output shows: "" for an output
// that mixes generations or is no such line.
std::string generation_stencil(int count);
std::string generation_of(const std::string& out, int count);

}  // namespace e2e
