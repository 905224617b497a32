// Files that other programs read at any moment.
#pragma once

#include <string>

// How a replacement ended. `error` is an errno value, 0 when the new text is there.
struct FileReplacement {
  bool opened = false;  // false: nothing at all could be written to
  int error = 0;
};

// Replaces the content of the file at `path`, so that whoever reads it finds the old text or the
// new one. The text is written beside the file and renamed over it, with the owner and the mode of
// the old one; a symbolic link stays one. Where that cannot be done (no permission for the
// directory, a mount point in the file's place, no room) the file is overwritten without being
// emptied first and then cut to its length, after the room for it was reserved. A FIFO, a socket or
// a device is left alone (EINVAL). Any thread; one writer per path.
FileReplacement replace_file(const std::string& path, const std::string& text);
