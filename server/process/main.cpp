// The korvane program: everything happens in korv_main.
#include "server/process/korv.h"

int main(int argc, char** argv) { return korv::korv_main(argc, argv); }
