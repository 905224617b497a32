// A configuration read from a text, with recorders in the place of health tests.
#pragma once

#include <set>
#include <string>
#include <string_view>

#include "config/config_reader.h"
#include "config/lb_config.h"
#include "support/fake_test_factory.h"
#include "support/temporary_directory.h"

class ConfigTest : public TemporaryDirectoryTest {
 protected:
  // Reads `text` as a whole file into the model; the reader's result.
  bool read(std::string_view text) {
    return ConfigReader(config_, namespaces_, factory_)
        .read_config(directory_.write("lb.conf", text));
  }

  // Reads `lines` inside the block of the IPv4 interface eth0 (the IPv6 interface eth1).
  bool read_interface(const std::string& lines) {
    return read("health {\n interface eth0 {\n" + lines + "\n }\n}\n");
  }
  bool read_interface6(const std::string& lines) {
    return read("health {\n interface6 eth1 {\n" + lines + "\n }\n}\n");
  }

  // Reads `lines` inside a rule block.
  bool read_rule(const std::string& lines) { return read("rule 1_ipv4 {\n" + lines + "\n}\n"); }

  LBInterface& eth0() { return config_.interfaces.at("eth0"); }
  LBInterface& eth1() { return config_.interfaces6.at("eth1"); }
  LBRule& rule() { return config_.rules.at("1_ipv4"); }

  // The recorder of a test, by its index.
  static RecordedTest& test(LBInterface& interface, int index) {
    return dynamic_cast<RecordedTest&>(*interface.tests.at(index));
  }

  LBConfig config_;
  std::set<std::string> namespaces_;
  FakeTestFactory factory_;
};
