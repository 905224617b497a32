// Reading of the configuration file, from the file to the model that the workers get.
#include "core/lb_daemon.h"
#include "support/models.h"
#include "support/scratch.h"
#include "support/subject.h"

namespace {

const Registration kLarge("configuration/100000 lines", [] {
  const std::string path = scratch_path("large.conf");
  write_scratch("large.conf", text_of_lines(100'000));
  return [path] {
    LBDaemon daemon(scratch_path("out"));
    daemon.load_configuration(path);
  };
});

const Registration kHome("configuration/home router", [] {
  const std::string path = scratch_path("home.conf");
  write_scratch("home.conf",
                router_text({.interfaces = 2, .tests = 1, .rules = 1, .members = 2, .targets = 1}));
  return [path] {
    LBDaemon daemon(scratch_path("out"));
    daemon.load_configuration(path);
  };
});

}  // namespace
