#include "core/command_line.h"

#include <getopt.h>

const char* const kUsage =
    "lb -ftviodh\n"
    "  -f [file] configuration file\n"
    "  -t load configuration file only and exit\n"
    "  -i specify location of pid directory\n"
    "  -o specify location of output directory\n"
    "  -d run as daemon\n"
    "  -h help\n";

CommandLine parse_command_line(int argc, char** argv) {
  CommandLine line;
  int option;
  while ((option = getopt(argc, argv, "f:hti:o:dv")) != -1) {
    switch (option) {
      case 'f':
        line.config_path = optarg;
        break;
      case 't':
        line.load_only = true;
        break;
      case 'i':
        line.pid_path = optarg;
        break;
      case 'o':
        line.output_directory = optarg;
        break;
      case 'd':
        line.daemonise = true;
        break;
      case 'v':  // accepted for callers that still pass it
        break;
      default:
        line.show_usage = true;
        return line;
    }
  }
  return line;
}
