// The kelvo-lint program; all of it lives in the library kelvo_lint_lib.
#include "kelvo_lint.h"

int main(int argc, char** argv) { return kelvo_lint_main(argc, argv); }
