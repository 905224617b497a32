// The pid file.
#pragma once

#include <string>

// Writes the process's id and a newline to `path`, readable by all and writable by its owner only.
// A file that cannot be opened is logged, nothing else. Single-threaded use: the file-creation mask
// is changed meanwhile.
void write_pid_file(const std::string& path);
