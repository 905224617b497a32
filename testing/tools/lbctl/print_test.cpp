// Words, times and texts that are safe to show.
#include "lbctl/print.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <nlohmann/json.hpp>

namespace lbctl {
namespace {

TEST(PrintTest, DocumentsBeginWithTheirSchema) {
  Json result = document("status");
  result["a"] = 1;
  EXPECT_EQ(result.dump(), R"({"schema":"wan_lb/status/1","a":1})");
}

TEST(PrintTest, DocumentsAreUtf8WhateverIsInThem) {
  Json result = document("x");
  result["name"] = "w\xFFn";
  testing::internal::CaptureStdout();
  print_document(result);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "{\n  \"schema\": \"wan_lb/x/1\",\n  \"name\": \"w\xEF\xBF\xBDn\"\n}\n");
}

TEST(PrintTest, ControlCharactersDoNotReachTheTerminal) {
  EXPECT_EQ(printable("a\033[31mb\tc\x7F\n"), "a?[31mb?c??");
  EXPECT_EQ(printable("a\x9B[2J"), "a?[2J") << "the second set as one byte";
  EXPECT_EQ(printable("a\xC2\x9B[2J"), "a??[2J") << "the same in UTF-8";
  EXPECT_EQ(printable("B\xC3\xBCro \xE2\x82\xAC \xF0\x9F\x98\x80"),
            "B\xC3\xBCro \xE2\x82\xAC \xF0\x9F\x98\x80");
  testing::internal::CaptureStderr();
  complain("no\nway");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "lbctl: no?way\n");
}

TEST(PrintTest, ColourOnlyWhereWanted) {
  EXPECT_EQ(coloured("x", Colour::kRed, false), "x");
  EXPECT_EQ(coloured("x", Colour::kRed, true), "\033[31mx\033[0m");
  testing::internal::CaptureStdout();  // a file
  EXPECT_FALSE(wants_colour());
  testing::internal::GetCapturedStdout();
}

TEST(PrintTest, Times) {
  EXPECT_EQ(rfc3339(0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(rfc3339(951782400), "2000-02-29T00:00:00Z");
}

TEST(PrintTest, Spans) {
  EXPECT_EQ(span(0), "0 s");
  EXPECT_EQ(span(59), "59 s");
  EXPECT_EQ(span(60), "1 min");
  EXPECT_EQ(span(3599), "59 min 59 s");
  EXPECT_EQ(span(3600), "1 h");
  EXPECT_EQ(span(12059), "3 h 20 min");
  EXPECT_EQ(span(86400), "1 d");
  EXPECT_EQ(span(2 * 86400 + 3 * 3600 + 59), "2 d 3 h");
}

TEST(PrintTest, LabelsOfInterfaces) {
  EXPECT_EQ(interface_label("wan1", false), "wan1");
  EXPECT_EQ(interface_label("wan1", true), "wan1/6");
  std::string name;
  bool ipv6 = true;
  EXPECT_TRUE(parse_interface_label("wan1", name, ipv6));
  EXPECT_EQ(name, "wan1");
  EXPECT_FALSE(ipv6);
  EXPECT_TRUE(parse_interface_label("wan1/6", name, ipv6));
  EXPECT_EQ(name, "wan1");
  EXPECT_TRUE(ipv6);
  EXPECT_FALSE(parse_interface_label("", name, ipv6));
  EXPECT_FALSE(parse_interface_label("/6", name, ipv6));
}

}  // namespace
}  // namespace lbctl
