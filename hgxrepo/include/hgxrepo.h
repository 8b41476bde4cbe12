// hgxrepo: the repository's command-line tool, as a library so that tests can
// build repositories without spawning a process.
#pragma once

#include <string>

// The whole program. argv holds argc words as main received them (argv[0]
// the program's name, not read); nothing of them is kept. Writes the
// command's output to standard output and its messages to standard error.
// Returns the exit status: 0 on success, 1 when the command failed (one
// line "hgxrepo: what" on standard error, and a repository the command was
// changing is left as it was), 2 for a bad command line (the usage text on
// standard error, and a line saying why where there is more to say); sync
// returns the status of hgxrepo_sync (sync.h).
// Throws nothing; a command that runs out of memory fails with status 1.
int hgxrepo_main(int argc, char** argv);

// Imports one manifest text into the repository at path (a file, created
// if missing, or a cluster URL) in one transaction, which also takes the
// snapshot "running" of every imported instance unless snapshot is false; a
// transaction that another writer beat to a cluster is run again. Returns
// 0 on success, leaving *error untouched. Returns 1 on failure, with the
// repository as it was and, when error is not null, *error set to the one
// line hgxrepo would print ("hgxrepo: what", no newline). Prints nothing,
// including the warnings that hgxrepo import gives. Throws nothing.
int hgxrepo_import_text(const std::string& path, const std::string& manifest, bool snapshot,
                        std::string* error);
