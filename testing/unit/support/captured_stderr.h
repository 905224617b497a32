// What is printed on standard error while it lives.
#pragma once

#include <gtest/gtest.h>

#include <string>

class CapturedStderr {
 public:
  CapturedStderr() { testing::internal::CaptureStderr(); }
  ~CapturedStderr() {
    if (!taken_) testing::internal::GetCapturedStderr();
  }
  std::string text() {
    taken_ = true;
    return testing::internal::GetCapturedStderr();
  }

 private:
  bool taken_ = false;
};
