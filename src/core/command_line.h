// The daemon's command line.
#pragma once

#include <string>

struct CommandLine {
  std::string config_path;                                 // -f
  std::string pid_path;                                    // -i, empty: no pid file
  std::string output_directory = "/var/run/load-balance";  // -o
  bool load_only = false;                                  // -t
  bool daemonise = false;                                  // -d
  bool show_usage = false;                                 // -h or an unknown option
};

// Reads the arguments with getopt(3); the last occurrence of an option wins. Reading stops at the
// first option that asks for the usage text.
CommandLine parse_command_line(int argc, char** argv);

// The usage text, for standard output.
extern const char* const kUsage;
