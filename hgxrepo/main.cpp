#include "hgxrepo.h"

int main(int argc, char** argv) { return hgxrepo_main(argc, argv); }
