#include "core/start_up.h"

int main(int argc, char** argv) { return run_daemon(argc, argv); }
