// kelvo-diff: what `kelvo -a` would change for an instance, shown as a
// unified diff per file, found without writing anything.
#pragma once

#include <sys/stat.h>

#include <string>

// Exit statuses.
enum KelvoDiffStatus {
    KELVO_DIFF_SAME = 0,     // nothing would change
    KELVO_DIFF_CHANGES = 1,  // some file would be created or rewritten
    KELVO_DIFF_USAGE = 2,    // bad command line
    KELVO_DIFF_ERROR = 3,    // the repository, a group or its stencil failed
};

// The program's entry; main() only calls this. Returns the exit status.
int kelvo_diff_main(int argc, char** argv);

// The header lines of one file's change, before "---": the mode, owner and
// group it would get where they differ from `current` (null: a new file,
// whose mode is always shown); empty when nothing differs. uid and gid are
// -1 where none is set.
std::string change_header(const struct stat* current, mode_t mode, uid_t uid, gid_t gid);
