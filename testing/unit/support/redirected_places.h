// The files of other programs in a directory of a test's own: replaces platform/places.h.
//
// A test asks the contract for a path, as the daemon does; the names below the directory are no
// device's. Every test starts with a directory that does not exist.
#pragma once

#include <string>

#include "platform/places.h"
#include "support/temporary_directory.h"

// Moves all places below the directory `root`, which the caller keeps. No thread may ask meanwhile.
void redirect_places(const std::string& root);

class RedirectedPlacesTest : public TemporaryDirectoryTest {
 protected:
  RedirectedPlacesTest() { redirect_places(directory_.path()); }
};
