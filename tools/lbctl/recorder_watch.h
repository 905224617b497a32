// Waits for the dump files of a running daemon to be written anew.
#pragma once

#include <sys/stat.h>

#include <csignal>

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "lbctl/dumps.h"
#include "platform/file_descriptor.h"

namespace lbctl {

// The files of the interfaces, one per family. Told by the kernel (inotify) when one was written,
// and looked at a few times a second besides, for where it tells nothing: other machines' file
// systems, a directory that is made anew.
class DumpWatch {
 public:
  explicit DumpWatch(const std::string& output_directory);

  // Waits until a file may be new, a quarter of a second at most, or until a signal arrives that
  // the mask `while_waiting` lets through.
  void wait(const sigset_t& while_waiting);

  // The interfaces of a family, if its file was written since they were read last. Nothing for a
  // file that is being written: the end of that will be told.
  std::optional<std::vector<InterfaceDump>> read_new(bool ipv6);

 private:
  struct File {
    std::string path;
    struct stat read {};   // as it was when it was read last
    size_t records = 0;    // a daemon's interfaces stay: fewer may be not all of them yet
    struct stat fewer {};  // as it was when it had fewer
    bool was_told = true;  // written, as the kernel says
  };

  void watch_directory();

  const std::string directory_;
  FileDescriptor inotify_;
  int watched_ = -1;
  std::array<File, 2> files_;
};

}  // namespace lbctl
