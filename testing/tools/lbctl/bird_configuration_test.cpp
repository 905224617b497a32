// Which configuration BIRD was started with, and whether it includes a file.
#include "lbctl/bird_configuration.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/redirected_places.h"

namespace lbctl {
namespace {

TEST(BirdArguments, NameTheConfiguration) {
  EXPECT_EQ(configuration_in({"bird", "-f", "-c", "/etc/bird/red.conf", "-P", "/run/b.pid"}),
            "/etc/bird/red.conf");
  EXPECT_EQ(configuration_in({"bird", "-fc/etc/a.conf"}), "/etc/a.conf");
  EXPECT_EQ(configuration_in({"/usr/sbin/bird", "-P", "-c", "-u", "bird"}), "/etc/bird/bird.conf")
      << "the pid file's name is no option";
  EXPECT_EQ(configuration_in({"bird", "-c", "bird.conf"}), "") << "in an unknown directory";
  EXPECT_EQ(configuration_in({"bird", "-l"}), "");
}

class BirdIncludes : public TemporaryDirectoryTest {
 protected:
  BirdIncludes() { directory_.write("usr/etc/routes.conf", ""); }

  // Of a configuration with these lines; the directory is the root.
  std::optional<bool> includes(const std::string& text) {
    directory_.write("etc/bird.conf", text);
    return bird_includes(directory_.path(), "/etc/bird.conf", "/usr/etc/routes.conf");
  }
};

TEST_F(BirdIncludes, ByItsNameOrAPattern) {
  EXPECT_EQ(includes("router id 1.2.3.4;\ninclude \"/usr/etc/routes.conf\";\n"), true);
  EXPECT_EQ(includes("\t include\"/usr/etc/ro*.con[f]\" ; # routes\n"), true);
  EXPECT_EQ(includes("include \"../usr/etc/routes.conf\";"), true);
  EXPECT_EQ(includes("include \"/usr/etc/other*.conf\";\n"), false);
  EXPECT_EQ(includes("router id 1.2.3.4;\n"), false);
  EXPECT_EQ(includes(""), false);
}

TEST_F(BirdIncludes, ByALink) {
  includes("");  // makes the directory
  ASSERT_EQ(symlink("../usr/etc/routes.conf", directory_.file("etc/link.conf").c_str()), 0);
  EXPECT_EQ(includes("include \"link.conf\";\n"), true);
}

TEST_F(BirdIncludes, NotInACommentOrBehindOtherWords) {
  EXPECT_EQ(includes("# include \"/usr/etc/routes.conf\";\n"), false);
  EXPECT_EQ(includes("/* one\ninclude \"/usr/etc/routes.conf\";\n*/\n"), false);
  EXPECT_EQ(includes("protocol device { } include \"/usr/etc/routes.conf\";\n"), false);
  EXPECT_EQ(includes("includes \"/usr/etc/routes.conf\";\n"), false);
  EXPECT_EQ(includes("/* one\n*/\ninclude \"/usr/etc/routes.conf\";\n"), true);
  EXPECT_EQ(includes("log \"/var/log/*\" all;\n# /*\ninclude \"/usr/etc/routes.conf\";\n"), true);
  EXPECT_EQ(includes("include \"/etc/none/*.conf\";\ninclude \"/usr/etc/routes.conf\";\n"), true);
}

TEST_F(BirdIncludes, InWhatItIncludes) {
  directory_.write("etc/bird.d/routes.conf", "include \"/usr/etc/routes.conf\";\n");
  EXPECT_EQ(includes("include \"bird.d/*.conf\";\n"), true);
  EXPECT_EQ(includes("include \"bird.conf\";\n"), false) << "itself, for ever";
}

TEST_F(BirdIncludes, NotToldWhereAFileCannotBeRead) {
  directory_.write("etc/bird.d/directory.conf/x", "");
  EXPECT_EQ(includes("include \"bird.d/*.conf\";\n"), std::nullopt);
  EXPECT_EQ(includes("include \"bird.d/*.conf\";\ninclude \"/usr/etc/routes.conf\";\n"), true);
  EXPECT_EQ(bird_includes(directory_.path(), "/etc/none.conf", "/usr/etc/routes.conf"),
            std::nullopt);
  EXPECT_EQ(bird_includes(directory_.path(), "/etc/bird.conf", "/usr/etc/none.conf"), std::nullopt);
}

using BirdConfigurationWithout = RedirectedPlacesTest;

TEST_F(BirdConfigurationWithout, AProcessThatIsNotBird) {
  EXPECT_EQ(bird_configuration_without("default", "/etc/passwd"), "") << "without a pid file";
  directory_.write(routing_pid_path("default"), std::to_string(getpid()));
  EXPECT_EQ(bird_configuration_without("default", "/etc/passwd"), "");
}

}  // namespace
}  // namespace lbctl
