// hgxrepo: the repository's command-line tool, as a library so that tests can
// build repositories without spawning a process.
#pragma once

#include <string>

// The whole program: argv as given to main; returns the exit status
// (0 success, 1 failed command, 2 bad command line).
int hgxrepo_main(int argc, char** argv);

// Imports one manifest text into the repository file at path (created if
// missing) in one transaction, then snapshots "running" of every imported
// instance unless snapshot is false. Returns 0, or 1 with *error set to the
// one-line message hgxrepo would print.
int hgxrepo_import_text(const std::string& path, const std::string& manifest, bool snapshot,
                        std::string* error);
