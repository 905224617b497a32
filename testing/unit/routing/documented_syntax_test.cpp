#include "routing/documented_syntax.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "routing/static_routes.h"

using testing::IsEmpty;
using testing::SizeIs;

namespace {

const DocumentedSyntax kSyntax;

class DocumentedSyntaxLineTest : public testing::TestWithParam<const char*> {};
class DocumentedSyntaxForeignTest : public testing::TestWithParam<const char*> {};

}  // namespace

TEST_P(DocumentedSyntaxLineTest, IsReadBack) {
  const auto route = kSyntax.parse(GetParam(), false);
  ASSERT_TRUE(route);
  EXPECT_EQ(kSyntax.line(*route), std::string(GetParam()) + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    Lines, DocumentedSyntaxLineTest,
    testing::Values("route 0.0.0.0/0 via 192.0.2.1 weight 1;",
                    "route 0.0.0.0/0 via 192.0.2.1 weight 1 metric 10 via 192.0.2.2 weight 2;",
                    "route ::/0 via fe80::1 weight 1 metric 0;",
                    "route anything via any weight 2147483647 metric -2;"));

TEST_P(DocumentedSyntaxForeignTest, IsNoneOfOurs) {
  EXPECT_FALSE(kSyntax.parse(GetParam(), false));
}

INSTANTIATE_TEST_SUITE_P(
    Lines, DocumentedSyntaxForeignTest,
    testing::Values("", "route 0.0.0.0/0;", "protocol static {", "};",
                    "route 0.0.0.0/0 via 192.0.2.1;", "route 0.0.0.0/0 via 192.0.2.1 weight 1",
                    "route 0.0.0.0/0 via 192.0.2.1 weight x;",
                    "route 0.0.0.0/0 via 192.0.2.1 weight 01;",
                    "route 0.0.0.0/0 via 192.0.2.1 weight 1 via 192.0.2.2 weight 2 metric 1;",
                    "route 0.0.0.0/0 via 192.0.2.1%'eth0' onlink weight 1;",
                    "route 0.0.0.0/0 via 192.0.2.1 weight 1; # by hand"));

TEST(DocumentedSyntaxTest, FileIsReadLineByLine) {
  const std::string body =
      "route 0.0.0.0/0 via 192.0.2.1 weight 1;\nroute 10.0.0.0/8 via 192.0.2.1 weight 1;\n";
  const auto routes = read_static_routes(protocol_static_text(body, false), false, kSyntax);
  ASSERT_THAT(routes, SizeIs(2));
  EXPECT_EQ(kSyntax.line(routes[0]) + kSyntax.line(routes[1]), body);
  EXPECT_THAT(read_static_routes("", false, kSyntax), IsEmpty());
}
