// Lines of a trace: what they say, and what is refused.
#include "lbctl/trace_line.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "lbctl/command.h"
#include "lbctl/line_reader.h"

using namespace lbctl;

namespace {

TraceLine parsed(std::string_view text) {
  TraceLine line;
  const char* const fault = parse_trace_line(text, line);
  EXPECT_EQ(fault, nullptr) << text << ": " << fault;
  return line;
}

std::string fault_of(std::string_view text) {
  TraceLine line;
  const char* const fault = parse_trace_line(text, line);
  return fault == nullptr ? "" : fault;
}

TEST(TraceLine, Probe) {
  const TraceLine line = parsed("12.25 probe wan1/6 2001:db8::7 fail");
  EXPECT_EQ(line.kind, TraceKind::kProbe);
  EXPECT_EQ(line.time, 12'250'000'000);
  EXPECT_EQ(line.interface, "wan1/6");
  EXPECT_EQ(line.target, "2001:db8::7");
  EXPECT_FALSE(line.is_good);
  EXPECT_TRUE(parsed("0 probe a b ok").is_good);
}

TEST(TraceLine, Burst) {
  const TraceLine line = parsed("\t30 burst wan2 198.51.100.8 20 150 0 # late");
  EXPECT_EQ(line.kind, TraceKind::kBurst);
  EXPECT_EQ(line.loss, 20);
  EXPECT_EQ(line.rtt, 150);
  EXPECT_EQ(line.jitter, 0);
}

TEST(TraceLine, Nexthop) {
  EXPECT_EQ(parsed("1 nexthop wan1 192.0.2.1").address, "192.0.2.1");
  EXPECT_EQ(parsed("1 nexthop wan1 -").address, "");
}

TEST(TraceLine, CommentsAndEmptyLinesAreNothing) {
  for (const char* text : {"", "   ", "# 1 probe", "  #", "\t"})
    EXPECT_EQ(parsed(text).kind, TraceKind::kNothing) << text;
}

TEST(TraceLine, AWordWithBlanksStandsInQuotes) {
  for (const char* name : {"my uplink", "wan1", "#1", "\"odd", "", "a#b"}) {
    const std::string word = trace_word(name);
    if (word.empty()) continue;
    const std::string text = "1 probe " + word + " 192.0.2.1 ok";
    EXPECT_EQ(parsed(text).interface, name) << text;
  }
  EXPECT_EQ(trace_word("my uplink"), "\"my uplink\"");
  EXPECT_EQ(trace_word("my \"own\" uplink"), "");
  EXPECT_EQ(trace_word("two\nlines"), "");
}

TEST(TraceLine, TheSubjectTellsInterfaceAndTargetApart) {
  EXPECT_NE(parsed("1 probe a bc ok").subject, parsed("1 probe ab c ok").subject);
  EXPECT_EQ(parsed("1 probe a b ok").subject, parsed("2.5 probe a b fail").subject);
}

TEST(TraceLine, Times) {
  int64_t time = 0;
  EXPECT_TRUE(parse_trace_time("1.0000000019", time));
  EXPECT_EQ(time, 1'000'000'001);
  EXPECT_TRUE(parse_trace_time("9000000000", time));
  for (const char* text : {"", "-1", "+1", ".5", "1.", "1.5.", "1e3", "9000000001", "x", "1 ",
                           "0x1", "99999999999999999999", "1.-5"})
    EXPECT_FALSE(parse_trace_time(text, time)) << text;
}

TEST(TraceLine, BadLinesAreRefusedWithTheirReason) {
  const std::vector<std::pair<const char*, const char*>> bad = {
      {"x probe wan1 t ok", "time"},
      {"1", "event is missing"},
      {"1 ping wan1 t ok", "none of"},
      {"1 probe", "interface is missing"},
      {"1 probe wan1", "target is missing"},
      {"1 probe wan1 t", "outcome is missing"},
      {"1 probe wan1 t good", "neither ok nor fail"},
      {"1 probe wan1 t ok 5", "more words"},
      {"1 burst wan1 t 1 2", "figure is missing"},
      {"1 burst wan1 t 1 2 3ms", "whole number"},
      {"1 burst wan1 t 1.5 2 3", "whole number"},
      {"1 burst wan1 t 101 2 3", "0 to 100"},
      {"1 burst wan1 t 1 -2 3", "negative"},
      {"1 burst wan1 t 1 2 -3", "negative"},
      {"1 burst wan1 t 1 2 99999999999", "whole number"},
      {"1 nexthop wan1", "next hop is missing"},
  };
  for (const auto& [text, reason] : bad)
    EXPECT_NE(fault_of(text).find(reason), std::string::npos) << text << ": " << fault_of(text);
}

class TraceFile : public testing::Test {
 protected:
  void SetUp() override {
    const int file = mkstemp(path_.data());
    ASSERT_GE(file, 0);
    close(file);
  }
  void TearDown() override { unlink(path_.c_str()); }
  void write(const std::string& text) { std::ofstream(path_, std::ios::binary) << text; }
  std::string path_ = testing::TempDir() + "lbctl_trace_XXXXXX";
};

TEST_F(TraceFile, LinesOfAnyKindOfEnd) {
  write("one\r\n\n" + std::string(LineReader::kLongestLine, 'x') + "\n" +
        std::string(LineReader::kLongestLine + 1, 'y') + "\n" + std::string(3'000'000, 'z') +
        "\nlast");
  LineReader reader(path_);
  std::string_view line;
  ASSERT_EQ(reader.next(line), LineReader::Found::kLine);
  EXPECT_EQ(line, "one");
  ASSERT_EQ(reader.next(line), LineReader::Found::kLine);
  EXPECT_EQ(line, "");
  ASSERT_EQ(reader.next(line), LineReader::Found::kLine);
  EXPECT_EQ(line.size(), LineReader::kLongestLine);
  ASSERT_EQ(reader.next(line), LineReader::Found::kTooLong);
  ASSERT_EQ(reader.next(line), LineReader::Found::kTooLong);
  EXPECT_EQ(reader.number(), 5U);
  ASSERT_EQ(reader.next(line), LineReader::Found::kLine);
  EXPECT_EQ(line, "last");
  EXPECT_EQ(reader.number(), 6U);
  EXPECT_EQ(reader.next(line), LineReader::Found::kEnd);
}

TEST_F(TraceFile, LinesAcrossTheBuffersEnd) {
  std::string text;
  for (int at = 0; at < 400'000; ++at) text += std::to_string(at) + "\n";
  write(text);
  LineReader reader(path_);
  std::string_view line;
  for (int at = 0; at < 400'000; ++at) {
    ASSERT_EQ(reader.next(line), LineReader::Found::kLine);
    ASSERT_EQ(line, std::to_string(at));
  }
  EXPECT_EQ(reader.next(line), LineReader::Found::kEnd);
}

TEST_F(TraceFile, WhatCannotBeOpenedIsNamed) {
  for (const std::string& path : {std::string("/nonexistent/trace"), testing::TempDir()}) {
    try {
      LineReader reader(path);
      FAIL() << path;
    } catch (const Failure& failure) {
      EXPECT_EQ(failure.exit_status(), kExitUnreadable);
      EXPECT_NE(std::string(failure.what()).find(path), std::string::npos) << failure.what();
    }
  }
}

}  // namespace
