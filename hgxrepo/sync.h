// hgxrepo sync: a host's local repository file kept as a mirror of a
// repository in an etcd cluster, so that kelvo reads a file that always
// holds a state the cluster really had, and never waits on the network.
#pragma once

#include <string>
#include <vector>

struct SyncOptions {
    std::string file;  // the mirror
    std::string url;   // the cluster
    bool once = false;
    std::vector<std::string> services;  // extended regular expressions; none: all
    std::string exec;                   // run after each change of instances
};

// Copies the cluster into the file in one transaction, then (without once)
// applies each later commit that changes a mirrored service in one
// transaction of its own, until SIGTERM or SIGINT. Events go to standard
// error, one line each with a timestamp. Returns the exit status: 0 after
// --once or a signal, 1 when the file is refused (not a repository, or the
// mirror of another cluster or prefix, or a repository that is no mirror) or
// a pattern does not compile.
int hgxrepo_sync(const SyncOptions& options);
