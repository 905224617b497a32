#include "platform/linux/log_flags.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/temporary_directory.h"
#include "support/wrapped_calls.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

class LogFlagsTest : public TemporaryDirectoryTest {
 protected:
  // Looks at the file when half a second more has passed.
  std::vector<std::string> refresh() {
    now_.tv_nsec += 500'000'000;
    if (now_.tv_nsec >= 1'000'000'000) now_ = {now_.tv_sec + 1, now_.tv_nsec - 1'000'000'000};
    return flags_.refresh(now_);
  }
  std::vector<std::string> refresh(const std::string& content) {
    directory_.write("log-flags", content);
    return refresh();
  }

  timespec now_{100, 0};
  LogFlags flags_{directory_.file("log-flags")};
};

}  // namespace

TEST_F(LogFlagsTest, ErrorsAndWarningsAreOnWithoutAFile) {
  EXPECT_THAT(refresh(), IsEmpty());
  EXPECT_TRUE(flags_.wanted(34, 0));
  EXPECT_TRUE(flags_.wanted(34, 2));
  EXPECT_FALSE(flags_.wanted(34, 3));
  EXPECT_TRUE(flags_.wanted(1, 2));
  EXPECT_FALSE(flags_.all_repeats());
}

TEST_F(LogFlagsTest, FileSetsTheHighestLevelOfAFacility) {
  EXPECT_THAT(refresh("34 3\n35 0 # quiet\n\n# 36 0\n"), IsEmpty());
  EXPECT_TRUE(flags_.wanted(34, 3));
  EXPECT_TRUE(flags_.wanted(35, 0));
  EXPECT_FALSE(flags_.wanted(35, 1));
  EXPECT_TRUE(flags_.wanted(36, 2));
  EXPECT_FALSE(flags_.wanted(36, 3));
}

TEST_F(LogFlagsTest, FileMayLetAllRepeatsPass) {
  EXPECT_THAT(refresh("  repeats \t all  \n"), IsEmpty());
  EXPECT_TRUE(flags_.all_repeats());
}

TEST_F(LogFlagsTest, ChangesAreSeen) {
  refresh("34 3\nrepeats all\n");
  refresh("34 1\n");
  EXPECT_FALSE(flags_.wanted(34, 2));
  EXPECT_FALSE(flags_.all_repeats());
  std::filesystem::remove(directory_.file("log-flags"));
  refresh();
  EXPECT_TRUE(flags_.wanted(34, 2));
  EXPECT_FALSE(flags_.wanted(34, 3));
}

TEST_F(LogFlagsTest, FileOfTheSameSizeIsSeenToo) {
  refresh("34 3\n");
  directory_.write("new", "34 0\n");
  std::filesystem::rename(directory_.file("new"), directory_.file("log-flags"));
  refresh();
  EXPECT_FALSE(flags_.wanted(34, 1));
}

TEST_F(LogFlagsTest, LooksAFewTimesASecondAtMost) {
  flags_.refresh({100, 0});
  const int before = call_count("stat");
  flags_.refresh({100, 0});
  flags_.refresh({100, 200'000'000});
  EXPECT_EQ(call_count("stat"), before);
  flags_.refresh({100, 250'000'000});
  EXPECT_EQ(call_count("stat"), before + 1);
  flags_.refresh({101, 0});
  EXPECT_EQ(call_count("stat"), before + 2);
}

TEST_F(LogFlagsTest, UnchangedFileIsNotReadAgain) {
  refresh("34 3\nbad\n");
  const int before = call_count("fopen");
  EXPECT_THAT(refresh(), IsEmpty());  // nor complained about again
  EXPECT_EQ(call_count("fopen"), before);
  EXPECT_TRUE(flags_.wanted(34, 3));
}

TEST_F(LogFlagsTest, BadLinesAreToldWithFileLineAndReason) {
  const std::string path = directory_.file("log-flags");
  EXPECT_THAT(
      refresh(
          "34 3\nfoo 1\n34\n34 4\n34 x\n34 -1\n34 1 2\nrepeats\nrepeats some\n-1 2\n9999999 1\n"),
      ElementsAre(path + ":2: 'foo' is neither a facility number nor 'repeats'",
                  path + ":3: the level (0 to 3) is missing", path + ":4: '4' is no level (0 to 3)",
                  path + ":5: 'x' is no level (0 to 3)", path + ":6: '-1' is no level (0 to 3)",
                  path + ":7: '2' is too much", path + ":8: 'repeats' must be followed by 'all'",
                  path + ":9: 'repeats' must be followed by 'all'",
                  path + ":10: '-1' is neither a facility number nor 'repeats'",
                  path + ":11: '9999999' is neither a facility number nor 'repeats'"));
  EXPECT_TRUE(flags_.wanted(34, 3));  // the good line still counts
}

TEST_F(LogFlagsTest, LongLineIsBadAndTheNextOneCounts) {
  EXPECT_THAT(refresh("34 0" + std::string(1000, ' ') + "\n34 3\n"),
              ElementsAre(EndsWith(":1: the line is too long")));
  EXPECT_TRUE(flags_.wanted(34, 3));
}

// Found by fuzzing: such a line took the next one with it.
TEST_F(LogFlagsTest, LineWithANulByteIsBadAndTheNextOneCounts) {
  using namespace std::string_literals;
  EXPECT_THAT(refresh("34 0\0\n34 3\n35 0 # \0"s),
              ElementsAre(EndsWith(":1: the line has a NUL byte"),
                          EndsWith(":3: the line has a NUL byte")));
  EXPECT_TRUE(flags_.wanted(34, 3));
  EXPECT_TRUE(flags_.wanted(35, 2));
}

TEST_F(LogFlagsTest, LineOf254CharactersIsNotTooLong) {
  const std::string line = "34 3" + std::string(250, ' ');
  EXPECT_THAT(refresh(line + "\n" + line), IsEmpty());
  EXPECT_THAT(
      refresh(line + " \n" + line + " "),
      ElementsAre(EndsWith(":1: the line is too long"), EndsWith(":2: the line is too long")));
}

TEST_F(LogFlagsTest, LastLineNeedsNoNewline) {
  EXPECT_THAT(refresh("34 3"), IsEmpty());
  EXPECT_TRUE(flags_.wanted(34, 3));
}

TEST_F(LogFlagsTest, NumberOfComplaintsIsBounded) {
  std::string content;
  for (int i = 0; i < 5000; ++i) content += "bad\n";
  EXPECT_THAT(refresh(content), SizeIs(20));
}

TEST_F(LogFlagsTest, FileThatCannotBeOpenedIsTold) {
  directory_.write("log-flags", "34 3\n");
  Fault fault("open", EACCES);
  EXPECT_THAT(refresh(),
              ElementsAre(directory_.file("log-flags") + ": cannot be opened: Permission denied"));
  EXPECT_TRUE(flags_.wanted(34, 2));
  EXPECT_FALSE(flags_.wanted(34, 3));
}

// As when the process is short of descriptors for a while.
TEST_F(LogFlagsTest, FileThatCannotBeOpenedIsTriedAgain) {
  directory_.write("log-flags", "34 3\n");
  {
    Fault fault("open", EMFILE);
    EXPECT_THAT(refresh(), SizeIs(1));
    EXPECT_THAT(refresh(), IsEmpty());  // told once
  }
  EXPECT_THAT(refresh(), IsEmpty());
  EXPECT_TRUE(flags_.wanted(34, 3));
}

TEST_F(LogFlagsTest, EnormousLineIsNotReadToItsEnd) {
  std::string content(300000, 'x');
  EXPECT_THAT(refresh(content + "\n34 3\n"), SizeIs(1));
  EXPECT_FALSE(flags_.wanted(34, 3));
  content.resize(200000);
  EXPECT_THAT(refresh(content + "\n34 3\n"), SizeIs(1));
  EXPECT_TRUE(flags_.wanted(34, 3));
}

TEST_F(LogFlagsTest, OnlyARegularFileIsRead) {
  ASSERT_EQ(mkfifo(directory_.file("log-flags").c_str(), 0600), 0);
  EXPECT_THAT(refresh(), ElementsAre(directory_.file("log-flags") + ": is no regular file"));
  EXPECT_THAT(refresh(), IsEmpty());
  EXPECT_TRUE(flags_.wanted(34, 2));
}
