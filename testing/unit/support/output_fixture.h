// A model with an interface of each family, two rules, and a writer in a directory of its own.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "output/dump_format.h"
#include "output/lb_output.h"
#include "platform/clock.h"
#include "support/blank_test.h"
#include "support/model_builder.h"
#include "support/temporary_directory.h"

inline constexpr int32_t kNow = 1'700'000'000;  // the virtual wall clock

class ReportedTest : public BlankTest {
 public:
  explicit ReportedTest(TestReport report) : report_(std::move(report)) {}
  TestReport report() const override { return report_; }

 private:
  TestReport report_;
};

inline TestReport make_report(const std::string& target, int32_t result) {
  TestReport report;
  report.target = target;
  report.description = "ping\tTarget: " + target;
  report.result = result;
  report.resp_time = 5000;
  return report;
}

// The records of a dump file; a rest that is no whole record is a failure.
template <typename Record>
std::vector<Record> records_of(const std::string& bytes) {
  EXPECT_EQ(bytes.size() % sizeof(Record), 0u);
  std::vector<Record> records(bytes.size() / sizeof(Record));
  if (!records.empty()) {
    memcpy(records.data(), bytes.data(), records.size() * sizeof(Record));
  }
  return records;
}

class OutputFixture : public TemporaryDirectoryTest {
 protected:
  OutputFixture() {
    LBInterface& interface = add_active_interface(config_, "eth0", "192.0.2.1");
    interface.tests[1] = std::make_shared<ReportedTest>(make_report("192.0.2.50", kResultSuccess));
    edit_state(interface, [](InterfaceState& state) {
      state.last_success = kNow - 4;
      state.success_counts["192.0.2.50"] = 3;
    });
    add_interface(config_, "eth1").vrf = "red";
    LBInterface& interface6 = add_interface(config_, "eth6", true);
    interface6.tests[1] =
        std::make_shared<ReportedTest>(make_report("2001:db8::50", kResultFailure));

    LBRule& rule = config_.rules["1_ipv4"];
    rule.failover = 1;
    rule.members["eth0"] = {.ipv6 = false, .weight = 2};
    rule.targets["0.0.0.0/0"].metric = 10;
    rule.targets["10.0.0.0/8"];
    LBRule& rule6 = config_.rules["2_ipv6"];
    rule6.vrf = "red";
    rule6.targets["::/0"];
    set_nexthop("1_ipv4", "0.0.0.0/0", "192.0.2.1");
  }

  void set_nexthop(const std::string& rule, const std::string& prefix, const std::string& address) {
    MutexLock lock(config_.written_mutex);
    config_.written.failover_nexthops[rule][prefix] = address;
  }
  void write(bool ipv6 = false) { output_.write(config_, worker_of(ipv6)); }
  std::string path(const std::string& name) const { return directory_.file("out/" + name); }
  std::string dump_path(const std::string& name) const { return path("wlb_dump/" + name); }
  std::string status(bool ipv6 = false) const {
    return directory_.read(ipv6 ? "out/wlb_ipv6.out" : "out/wlb_ipv4.out");
  }
  std::vector<DumpOutbound> outbounds(bool ipv6 = false) const {
    return records_of<DumpOutbound>(directory_.read(ipv6 ? "out/wlb_dump/wlb_ipv6_outbounds.bin"
                                                         : "out/wlb_dump/wlb_ipv4_outbounds.bin"));
  }
  std::vector<DumpRule> rules() const {
    return records_of<DumpRule>(directory_.read("out/wlb_dump/wlb_rules.bin"));
  }
  std::vector<DumpRoute> routes() const {
    return records_of<DumpRoute>(directory_.read("out/wlb_dump/wlb_routes.bin"));
  }
  bool make_dump_directory() { return std::filesystem::create_directories(path("wlb_dump")); }
  // In place of a file that the writer wants to open.
  void block(const std::string& file_path) const { std::filesystem::create_directories(file_path); }

  LBConfig config_;
  const bool made_ = std::filesystem::create_directories(directory_.file("out"));
  // Behind a pointer, since its destructor may end the thread by an unwinding.
  const std::unique_ptr<LBOutput> owner_ = std::make_unique<LBOutput>(directory_.file("out"));
  LBOutput& output_ = *owner_;
};
