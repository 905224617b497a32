// What lbctl check says about a configuration file: findings, their codes, and how they are
// printed.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "lbctl/print.h"

namespace lbctl {

// A place in a file; both numbers count from 1. Columns are bytes.
struct Place {
  int line = 1;
  int column = 1;

  bool operator==(const Place&) const = default;
  bool operator<(const Place& other) const {
    return line != other.line ? line < other.line : column < other.column;
  }
};

enum class Severity { kError, kWarning };

// A code is stable, documented in docs/lbctl/check.md, and always of the same severity.
struct CodeEntry {
  std::string_view code;
  Severity severity;
};

// All of them.
std::span<const CodeEntry> check_codes();

// Of a known code.
Severity severity_of(std::string_view code);

struct Finding {
  Place place;
  std::string_view code;
  std::string text;  // what the daemon does with it
  std::string hint;  // how to mend it
};

class Findings {
 public:
  void add(Place place, std::string_view code, std::string text, std::string hint);

  // True when something was said with the code.
  bool has(std::string_view code) const;

  // In the order of the file; of one place in the order of their coming.
  void sort();
  const std::vector<Finding>& all() const { return findings_; }
  bool empty() const { return findings_.empty(); }

 private:
  std::vector<Finding> findings_;
};

// The findings of one file, for people and for programs. Nothing in them can steer a terminal.
std::string findings_text(const std::string& path, const Findings& findings, bool colour);
void append_findings(const std::string& path, const Findings& findings, Json& array);

// 0: nothing was found, 1: warnings only, 2: errors; strict: warnings are errors. A file that is
// none counts as unreadable: 3.
int check_status(const Findings& findings, bool strict);

}  // namespace lbctl
