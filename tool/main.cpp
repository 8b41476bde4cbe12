// The kelvo program; all of it lives in the library kelvo_tool.
#include "kelvo.h"

int main(int argc, char** argv) { return kelvo_main(argc, argv); }
