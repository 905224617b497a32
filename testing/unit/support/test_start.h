// Work that is due before every test: putting the support code's global state back.
#pragma once

// A static object of this class makes `reset` run before each test.
class AtTestStart {
 public:
  explicit AtTestStart(void (*reset)());
};
