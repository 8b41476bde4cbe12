// kelvo-apply: kelvo -a with a gate and a follow-up. The files of an
// instance's configfile groups are made by kelvo in a staging directory and
// checked there with each group's `check` command; only when every check
// passed does kelvo -a write the live files, and only the `reload` commands
// of the groups whose files changed are run after it.
#pragma once

// Exit statuses.
enum KelvoApplyStatus {
    KELVO_APPLY_DONE = 0,           // applied (and reloaded), or nothing to do
    KELVO_APPLY_CHECK_FAILED = 1,   // a check failed; no live file was touched
    KELVO_APPLY_USAGE = 2,          // bad command line
    KELVO_APPLY_KELVO_FAILED = 3,   // the instance, a group or a run of kelvo failed;
                                    // live files are as they were before the run
    KELVO_APPLY_RELOAD_FAILED = 4,  // files applied, but a reload command failed
    KELVO_APPLY_STRICT = 5,         // --strict: a stencil refers to a property that
                                    // names nothing; no live file was touched
};

// The program's entry; main() only calls this. Returns the exit status.
int kelvo_apply_main(int argc, char** argv);
