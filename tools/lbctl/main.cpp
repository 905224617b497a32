#include "lbctl/command.h"

int main(int argc, char** argv) { return lbctl::run_lbctl(argc, argv); }
