// Lines of a text of any size, read in large pieces: a year's trace has 250 million of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file_descriptor.h"

namespace lbctl {

class LineReader {
 public:
  static constexpr size_t kLongestLine = 65536;

  // Reads `path`, "-" for standard input; a FIFO too, as a shell makes it of a command. A Failure
  // (kExitUnreadable) that names the file when it cannot be opened or is a directory.
  explicit LineReader(const std::string& path);

  // The name for messages.
  const std::string& name() const { return name_; }

  enum class Found { kLine, kTooLong, kEnd };

  // The next line without its end ("\n" or "\r\n"); it stays until the next call. The last one may
  // have no end. Of a line that is too long there is no text, and it is read over. A Failure when
  // reading fails.
  Found next(std::string_view& line);

  // The number of the line that next() gave last, from 1.
  uint64_t number() const { return number_; }

 private:
  // Moves what is left to the front and reads on; false at the end.
  bool fill();
  void skip_line();

  std::string name_;
  FileDescriptor file_;
  std::vector<char> buffer_;
  size_t begin_ = 0;  // what was read and not given yet
  size_t end_ = 0;
  uint64_t number_ = 0;
};

}  // namespace lbctl
