// The kelvo-diff program; all of it lives in the library kelvo_diff_lib.
#include "kelvo_diff.h"

int main(int argc, char** argv) { return kelvo_diff_main(argc, argv); }
