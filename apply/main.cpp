// The kelvo-apply program; all of it lives in the library kelvo_apply_lib.
#include "kelvo_apply.h"

int main(int argc, char** argv) { return kelvo_apply_main(argc, argv); }
