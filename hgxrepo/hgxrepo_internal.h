// What hgxrepo's command files share: how a command fails, how it opens the
// repository for writing or reading, and the record a command is run with.
// Private to hgxrepo; the program's interface is hgxrepo.h.
//
// Commands report failure by throwing Failure (printed as one line,
// "hgxrepo: what", status 1) or Usage (the usage text, status 2); these
// never leave hgxrepo_main or hgxrepo_import_text.
#pragma once

#include <unistd.h>

#include <chrono>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

#include "hgx.h"
#include "hgx_ptr.h"
#include "hgx_write.h"
#include "manifest.h"

namespace hgxrepo {

constexpr const char* PROG = "hgxrepo: ";

// What a well-formed wern looks like, for messages about one that is not.
constexpr const char* WERN_FORMS =
    "a wern looks like wrn:/SERVICE, wrn:/SERVICE:INSTANCE or "
    "wrn:/SERVICE:INSTANCE/:properties/GROUP/PROPERTY";

// A command's failure: the message, without the program prefix.
struct Failure {
    std::string what;
};

// A bad command line; `what` says what is wrong, ahead of the usage.
struct Usage {
    std::string what;
};

// A commit that another writer beat to a cluster; the command runs again.
struct Conflict {};

// One command as the command line gave it.
struct Invocation {
    std::string command;             // the command's word
    std::string path;                // the repository: -r, else $HGX_REPOSITORY, else default
    std::vector<std::string> words;  // the words after the command's name and --snapshot
    bool snapshot = false;           // --snapshot stood in front of them
};

// Throws Usage unless the command has from min to max words, naming the
// first word missing (as the command's usage line calls it) or the first
// one too many.
void arity(const Invocation& inv, size_t min, size_t max);

// Whether words starts with flag (an option a command takes in front of its
// words); if so the flag is taken out of words.
bool take_flag(std::vector<std::string>& words, std::string_view flag);

// s with its control bytes escaped (manifest::escape, backslashes left as
// they are: the texts a message quotes are escaped already), so that a
// message stays one line whatever a name or value held.
std::string one_line(std::string s);

using Writer = HgxPtr<hgx_writer_t>;
using Handle = HgxPtr<hgx_handle_t>;
using Service = HgxPtr<hgx_service_t>;
using Instance = HgxPtr<hgx_instance_t>;
using Snapshot = HgxPtr<hgx_snapshot_t>;
using Pg = HgxPtr<hgx_propertygroup_t>;
using Prop = HgxPtr<hgx_property_t>;
using Value = HgxPtr<hgx_value_t>;
using Iter = HgxPtr<hgx_iter_t>;
using Scope = HgxPtr<hgx_scope_t>;

// The library's text for its last error.
std::string lib_error();
// The writer's own text for its last failure (a store's words, such as the
// cluster's), else lib_error().
std::string writer_error(hgx_writer_t* w);

// "cannot WHAT: " and the library's text.
std::string failed_to(const char* what);

// Opens the repository at path for one transaction, creating it if create
// says so; throws Failure with the library's line and a hint where the
// repository is missing, and for a host's mirror of a cluster, which only
// hgxrepo sync writes ("PATH is the mirror of URL; change the cluster"),
// leaving it as it was. The caller owns the writer.
Writer open_writer(const std::string& path, bool create);

// What a file records of the cluster it mirrors: nothing (source empty) for
// a file that is no mirror, and for a cluster.
struct MirrorRecord {
    std::string source;    // the cluster's id and prefix
    std::string url;       // as hgxrepo sync was given it; empty in older mirrors
    std::string revision;  // the last revision applied
    bool partial = false;  // limited by patterns (--service, --instance): not the whole cluster
    // The cluster as the user named it, or else as it names itself.
    const std::string& origin() const { return url.empty() ? source : url; }
};
// Reads the record from w, opened on path; throws Failure when it cannot.
MirrorRecord mirror_record(hgx_writer_t* w, const std::string& path);

// Throws Failure "PATH: cannot write: ..." with what the writer knows, else
// the library's text.
[[noreturn]] void write_failed(hgx_writer_t* w, const std::string& path);

// Commits w; throws Conflict when another writer committed first on a
// cluster, else Failure as write_failed.
void commit(hgx_writer_t* w, const std::string& path);

// Opens the repository at path for the client interface; throws Failure on
// failure. The caller owns the handle, which must outlive what is made for it.
Handle open_reader(const std::string& path);

// Throws Failure "PATH: cannot read: " and the library's text.
[[noreturn]] void read_failed(const std::string& path);

// Runs a changing command until its commit lands: on a cluster, a writer
// that raced another reads the repository again and redoes its change on
// top of the other's, so that neither update is lost. After 50 conflicts
// throws Failure; every other exception of the command passes through.
template <typename Command>
void until_committed(const std::string& path, Command command) {
    std::minstd_rand jitter(static_cast<unsigned>(getpid()));
    for (int attempt = 1;; ++attempt) {
        try {
            command();
            return;
        } catch (const Conflict&) {
            if (attempt == 50)
                throw Failure{path + ": cannot write: " + lib_error() + ", 50 times over"};
            std::this_thread::sleep_for(std::chrono::milliseconds(jitter() % (10 * attempt) + 1));
        }
    }
}

// A name or type of an object, none longer than a wern; throws Failure when
// it cannot be read. The object is not deduced, so that the owning wrappers
// convert to it.
template <typename T>
std::string text_of(ssize_t (*get)(const T*, char*, size_t), std::type_identity_t<const T*> o) {
    char buf[1100];
    if (get(o, buf, sizeof buf) < 0) throw Failure{failed_to("read")};
    return buf;
}

// Loads checked manifests into the repository at path in one transaction
// (throws Conflict or Failure, and then nothing is changed), taking the
// snapshot "running" of every imported instance when snapshot says so. What
// the import removes without the manifests saying so goes to *dropped, one
// line each, when dropped is not null.
void import_documents(const std::string& path, const std::vector<manifest::Document>& docs,
                      bool snapshot, std::vector<std::string>* dropped = nullptr);

// A command: checks its own words (throwing Usage), does its work (throwing
// Failure) and returns the exit status.
using CommandFn = int(const Invocation& inv);

// The commands that change the repository, each in one transaction run
// until_committed: import (with a warning for each thing it drops), setprop
// (keeping the type when -t is not given), delprop, addpg, delpg, delete (a
// service or an instance), snapshot (of every instance of a service) and
// copy (the target ends up holding what the repository holds; a host's
// mirror goes to a cluster only whole, with --force).
CommandFn cmd_import, cmd_setprop, cmd_delprop, cmd_addpg, cmd_delpg, cmd_delete, cmd_snapshot,
    cmd_copy;

// The commands that care for a repository in an etcd cluster: grant (an
// etcd user's role that reads some instances and nothing else), upgrade
// (a prefix of an older layout converted in one switch) and hosts (where
// every host's mirror stands; status 1 where one is at fault by its
// options).
CommandFn cmd_grant, cmd_upgrade, cmd_hosts;

// The commands that read it, to standard output: export (as a manifest),
// list (every service and instance), show (a line per group and property,
// or one JSON document), get (one property's values) and diff (what
// retaking the snapshot "running" would change). Names, types and values
// they print are escaped (manifest::escape) or quoted: a line is a record.
CommandFn cmd_export, cmd_list, cmd_show, cmd_get, cmd_diff;

}  // namespace hgxrepo
