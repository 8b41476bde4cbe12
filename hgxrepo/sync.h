// hgxrepo sync: a host's local repository file kept as a mirror of a
// repository in an etcd cluster, so that kelvo reads a file that always
// holds a state the cluster really had, and never waits on the network.
// Private to hgxrepo: hgxrepo_main runs it for "hgxrepo sync".
#pragma once

#include <string>
#include <vector>

// What hgxrepo sync was told; a plain value, copied by hgxrepo_sync as it
// needs.
struct SyncOptions {
    std::string file;  // the mirror
    std::string url;   // the cluster
    bool once = false;
    std::vector<std::string> services;   // extended regular expressions; none: all
    std::vector<std::string> instances;  // the same, of instance werns
    std::string exec;                    // run after each change of instances
    unsigned mode = 0600;                // permission bits of a file the first copy creates
    std::string host;                    // the host's name in its status; empty: the system's
    std::string metrics;                 // the metrics file; empty: none
    unsigned splay = 0;                  // seconds the command may wait, at random, before it runs
};

// Copies the cluster (the services that `services` match, with all their
// instances, and the instances that `instances` match, with their services'
// own groups; everything where neither is given) into the file in one
// transaction, then (without once) applies each later commit that changes
// what it mirrors in one transaction of its own, reading only what changed,
// until SIGTERM or SIGINT. A user that may read only the instances granted
// to it (hgx_grant) mirrors those that the patterns select. Events go to
// standard error, one line each with a timestamp. Returns the exit status: 0 after
// --once or a signal, 1 when the file is refused (not a repository, or the
// mirror of another cluster or prefix, or a repository that is no mirror) or
// a pattern does not compile, when the cluster turns out to be another
// than the one the file mirrors, and when a copy of the whole cluster fails
// under --once or is cut short by a signal. Without --once, a cluster that
// cannot be reached is reported and tried again with a growing pause,
// never fatal. The file is only ever changed by whole transactions, so a
// reader of it sees the state of one revision of the cluster; a file the
// first copy creates appears whole, with the permission bits mode exactly,
// and an existing file keeps its mode; the file is opened once for writing
// and kept open while the mirror runs.
//
// The command runs through /bin/sh -c after each applied revision that
// changed what kelvo reads of instances (their werns in HGX_CHANGED), after a
// random pause of up to splay seconds, with HGX_REPOSITORY naming the file,
// and without the HGX_ETCD_* variables of the environment but
// HGX_ETCD_CACERT (no secret): it reads the mirror, and needs no credentials
// of the cluster. While it runs (without once) the host's status is kept in
// the cluster on the key of the host's name, under a lease, and removed
// when it stops; the metrics file, when given, is kept in the Prometheus
// text format, replaced whole; systemd, where NOTIFY_SOCKET names it, hears
// READY=1 once the file holds a copy as new as the cluster's (or the
// cluster is away and the file holds an earlier one). Blocks the calling
// thread, and leaves its handlers for SIGTERM and SIGINT installed. Throws
// nothing but std::bad_alloc.
int hgxrepo_sync(const SyncOptions& options);
