#include "core/pid_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "config/log.h"
#include "platform/regular_file.h"

void write_pid_file(const std::string& path) {
  const mode_t previous = umask(0133);
  FILE* file = open_to_rewrite(path);
  if (file == nullptr) {
    LB_ERROR("Can't fopen pid lock file %s, continuing", path.c_str());
  } else {
    fprintf(file, "%d\n", getpid());
    fclose(file);
  }
  umask(previous);
}
