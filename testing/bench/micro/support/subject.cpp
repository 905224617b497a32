#include "support/subject.h"

#include <algorithm>

namespace {

std::vector<Subject>& registered() {
  static std::vector<Subject> all;
  return all;
}

}  // namespace

std::vector<Subject> subjects() {
  std::vector<Subject> sorted = registered();
  std::sort(sorted.begin(), sorted.end(),
            [](const Subject& a, const Subject& b) { return a.name < b.name; });
  return sorted;
}

Registration::Registration(std::string name, std::function<Work()> prepare) {
  registered().push_back({std::move(name), std::move(prepare)});
}
