// lbctl as it is run: the words of its command line, and what comes of them.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lbctl/command.h"

namespace lbctl {

struct Outcome {
  int status;
  std::string output;
  std::string complaint;  // on standard error
};

// `words` come behind the program's name.
inline Outcome run_command(const std::vector<std::string>& words) {
  std::vector<const char*> arguments{"lbctl"};
  for (const std::string& word : words) arguments.push_back(word.c_str());
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int status = run_lbctl(static_cast<int>(arguments.size()), arguments.data());
  return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

}  // namespace lbctl
