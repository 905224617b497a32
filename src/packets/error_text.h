// The text of an errno value.
#pragma once

#include <string>

// What strerror says of `error`, also of values that are no error ("Success", "Unknown error -1").
// Any thread.
std::string error_text(int error);
