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
// appends "stencil:line: name" to *findings for each reported reference.
// Returns the number of groups that could not be evaluated, each reported
// on standard error with kelvo's message.
int lint_configfiles(repository_t* repository, const char* stencil_dir,
                     std::vector<std::string>* findings);

// The verdict on the references of one evaluation. A reference is one place
// of the stencil (its line and its name as written) however often it is
// visited. It is reported when no visit found a value; a reference that only
// tests for a value (:-, :+, :?) is reported only when, besides, no visit
// found the group its name lies in.
class ReferenceFindings {
  public:
    // Fits stencil_reference_fn; context is the ReferenceFindings.
    static void observe(const stencil_reference_t* reference, void* context);
    // "line: name" of each reported reference, by line, in the order of
    // first visit within a line.
    std::vector<std::string> reported() const;

    // Answers whether a group of that name exists; set before the evaluation.
    bool (*group_exists)(const char* name, void* context) = nullptr;
    void* group_context = nullptr;

  private:
    struct Place {
        int line;
        std::string name;
        bool tests_presence;
        bool defined = false;
        bool group_found = false;
    };
    std::vector<Place> places_;
};
