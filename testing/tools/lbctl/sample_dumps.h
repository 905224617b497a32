// Dump files as a daemon leaves them, byte by byte from the documented offsets, and as values.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <span>
#include <string>
#include <utility>

#include "lbctl/dumps.h"
#include "support/temporary_directory.h"

namespace lbctl {

// The bytes of one record.
class Record {
 public:
  explicit Record(size_t size) : bytes_(size, '\0') {}

  Record& text(size_t at, const std::string& text) {
    bytes_.replace(at, text.size(), text);
    return *this;
  }
  Record& byte(size_t at, int value) {
    bytes_.at(at) = static_cast<char>(value);
    return *this;
  }
  Record& number(size_t at, int32_t value) {
    std::memcpy(&bytes_.at(at), &value, sizeof(value));
    return *this;
  }
  Record& swapped(size_t at, int32_t value) {
    return number(at, static_cast<int32_t>(__builtin_bswap32(static_cast<uint32_t>(value))));
  }
  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

inline std::span<const uint8_t> span_of(const std::string& bytes) {
  return {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()};
}

// wan1, active for 3 hours and 20 minutes, one test that succeeded.
inline Record outbound_record() {
  return Record(4312)
      .text(0, "wan1")
      .text(64, "default")
      .text(96, "192.0.2.1")
      .text(142, "192.0.2.10")
      .text(188, "198.51.100.7")  // first test: target
      .number(188 + 46, 3)        // successes in a row
      .number(188 + 50, 0)
      .byte(188 + 54, 1)  // result
      .byte(4288, 1)      // one test
      .number(4289, 1)
      .number(4293, 12005)
      .number(4297, 12000)  // since the last change
      .number(4301, 3)      // thresholds
      .number(4305, 2)
      .byte(4311, 1);  // active
}

// Rule 7 of IPv4: wan1 with weight 1 and wan2 with weight 2.
inline Record rule_record() {
  return Record(3343)
      .text(0, "wan1")
      .byte(64, 1)
      .text(66, "wan2")
      .byte(66 + 64, 2)
      .byte(3300, 2)  // two members
      .text(3301, "default")
      .number(3337, 7);
}

// Its first route.
inline Record route_record() {
  return Record(109).text(0, "0.0.0.0/0").number(96, -1).number(100, 1).number(104, 7);
}

// An output directory.
class OutputDirectory : public TemporaryDirectory {
 public:
  void put(const std::string& name, const std::string& bytes) const {
    write("wlb_dump/" + name, bytes);
  }
  void put_all() const {
    put("wlb_ipv4_outbounds.bin", outbound_record().bytes());
    put("wlb_rules.bin", rule_record().bytes());
    put("wlb_routes.bin", route_record().bytes());
  }
  // Makes the file look as if it was written at that time.
  void date(const std::string& name, std::time_t time) const {
    const timespec times[2] = {{.tv_sec = time, .tv_nsec = 0}, {.tv_sec = time, .tv_nsec = 0}};
    EXPECT_EQ(utimensat(AT_FDCWD, file("wlb_dump/" + name).c_str(), times, 0), 0);
  }
};

// Values for what is made from them.
inline InterfaceDump interface_dump(const std::string& name, bool active,
                                    const std::string& nexthop, bool ipv6 = false) {
  InterfaceDump interface;
  interface.name = name;
  interface.ipv6 = ipv6;
  interface.vrf = "default";
  interface.nexthop = nexthop;
  interface.active = active;
  interface.change_age = 12000;
  interface.success_age = 1;
  interface.success_ct = 3;
  interface.failure_ct = 2;
  return interface;
}

inline TestDump test_dump(const std::string& target, int32_t result) {
  TestDump test;
  test.target = target;
  test.result = result;
  test.success_count = result == 1 ? 3 : 0;
  test.failure_count = result == 2 ? 2 : 0;
  return test;
}

inline RuleDump rule_dump(int32_t number, bool failover,
                          std::initializer_list<std::pair<const char*, uint8_t>> members,
                          std::initializer_list<std::pair<const char*, const char*>> routes,
                          bool ipv6 = false) {
  RuleDump rule;
  rule.number = number;
  rule.ipv6 = ipv6;
  rule.vrf = "default";
  rule.failover = failover;
  for (const auto& [device, weight] : members) rule.members.push_back({device, weight, ipv6});
  for (const auto& [destination, nexthop] : routes)
    rule.routes.push_back({destination, nexthop, -1, static_cast<int32_t>(rule.routes.size()) + 1});
  return rule;
}

}  // namespace lbctl
