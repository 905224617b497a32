// The things whose cost is measured.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

using Work = std::function<void()>;

struct Subject {
  std::string name;

  // Makes all that the work needs, which does not count. One call of the result is one unit of the
  // cost, and every call does the same.
  std::function<Work()> prepare;
};

// All of the program, by name.
std::vector<Subject> subjects();

// Makes a subject known; a constant of the file that it stands in.
class Registration {
 public:
  Registration(std::string name, std::function<Work()> prepare);
};

// Has the compiler believe that somebody reads the value.
template <class Value>
void keep(const Value& value) {
  benchmark::DoNotOptimize(value);
}
