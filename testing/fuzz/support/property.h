// What a fuzz target states about the code under test.
#pragma once

#include <cstdio>
#include <cstdlib>

// Ends the run with the text of a property that does not hold. Also in release builds.
#define HOLDS(property)                                                                  \
  do {                                                                                   \
    if (!(property)) {                                                                   \
      std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #property); \
      std::abort();                                                                      \
    }                                                                                    \
  } while (false)
