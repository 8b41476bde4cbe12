// kelvo-lint: the property references of stencils that name nothing in an
// instance, found by evaluating them as kelvo does and writing nothing.
#pragma once

#include <string>
#include <vector>

#include "repository.h"
#include "stencil.h"

// Exit statuses.
enum KelvoLintStatus {
    KELVO_LINT_CLEAN = 0,     // every reference names something
    KELVO_LINT_FINDINGS = 1,  // some reference names nothing
    KELVO_LINT_USAGE = 2,     // bad command line
    KELVO_LINT_ERROR = 3,     // the repository, a group or a stencil failed
};

// The program's entry; main() only calls this. Returns the exit status.
int kelvo_lint_main(int argc, char** argv);

// Evaluates the stencil of every enabled configfile group of the view as
// kelvo -a would (its defines, its order, stencils below stencil_dir) and
// appends "stencil:line: name" to *findings for each reported reference,
// and a line for each define whose value a "}" cuts short.
// Returns the number of groups that could not be evaluated, each reported
// on standard error with kelvo's message, or -1 when the run cannot go on
// (the repository failed under an evaluation; reported).
int lint_configfiles(repository_t* repository, const char* stencil_dir,
                     std::vector<std::string>* findings);

// The verdict on the references of one evaluation. A reference is one place
// of the stencil (its line and its name as written; inside a macro body as
// the invocation writes it) however often it is visited. It is reported
// when no visit found the property it names (a property with no values is
// found; a group is not). A reference that only tests for a value (:-, :+,
// :?), or a value with a `:-` default beside it, is reported only when,
// besides, no visit found the group its name lies in.
class ReferenceFindings {
  public:
    explicit ReferenceFindings(repository_t* repository) : repository_(repository) {}
    // Fits stencil_reference_fn; context is the ReferenceFindings.
    static void observe(const stencil_reference_t* reference, void* context);
    // "line: name" of each reported reference, by line, in the order of
    // first visit within a line.
    std::vector<std::string> reported() const;

  private:
    struct Place {
        int line;
        std::string name;
        bool optional;  // a missing property is fine where the group is there
        bool found = false;
        bool group_found = false;
    };
    bool names(const char* name, repository_type_t type) const;
    repository_t* repository_;
    std::vector<Place> places_;
};

// The `}` that cuts a define's value short (the define syntax ends the value
// there), as the line kelvo-lint prints for it: "WHERE: ..." naming the
// define's place, what it gives and what lands in front of the file; empty
// when the value is whole.
std::string cut_define_warning(const std::string& where, const char* value);
