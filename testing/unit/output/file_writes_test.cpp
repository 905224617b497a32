// How often the files of a cycle are written to: a reader finds the old file, for a moment an empty
// one, then the whole new one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <map>

#include "support/output_fixture.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;
using testing::Pair;

namespace {

// The files are opened as streams whose writes are counted; nothing is stored.
class FileWritesTest : public OutputFixture {
 protected:
  std::map<std::string, int> writes_;  // by file name

 private:
  static ssize_t count(void* writes, const char* /*bytes*/, size_t size) {
    ++*static_cast<int*>(writes);
    return static_cast<ssize_t>(size);
  }

  CallHook<FILE*(const char*, const char*)> fopen_hook_{
      wrapped::fopen, [this](const char* path, const char* /*mode*/) {
        int& writes = writes_[std::filesystem::path(path).filename()];
        return fopencookie(&writes, "w", {.read = {}, .write = count, .seek = {}, .close = {}});
      }};
};

}  // namespace

TEST_F(FileWritesTest, OneForEachFile) {
  for (int i = 0; i < 200; ++i) add_interface(config_, "wan" + std::to_string(i));
  for (int i = 0; i < 60; ++i)
    config_.rules["1_ipv4"].targets["10.0." + std::to_string(i) + ".0/24"];
  write();
  EXPECT_THAT(writes_, ElementsAre(Pair("wlb_ipv4.out", 1), Pair("wlb_ipv4_outbounds.bin", 1),
                                   Pair("wlb_routes.bin", 1), Pair("wlb_rules.bin", 1)));
}

TEST_F(FileWritesTest, NoneWhereThereIsNothingToTell) {
  config_.interfaces.clear();
  config_.rules.clear();
  write();
  EXPECT_THAT(writes_, ElementsAre(Pair("wlb_ipv4.out", 0), Pair("wlb_ipv4_outbounds.bin", 0),
                                   Pair("wlb_routes.bin", 0), Pair("wlb_rules.bin", 0)));
}
