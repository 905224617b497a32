// The rules of lbctl check about the machine that it runs on: devices, VRFs and their settings.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lbctl/check_view.h"
#include "lbctl/kernel_table.h"

namespace lbctl {

struct DeviceFacts {
  bool present = false;
  bool no_arp = false;  // without link-layer addresses
  int rp_filter = 0;    // in force: 0 off, 1 strict, 2 loose
};

// What is asked of a machine. No value where it cannot be told, for lack of rights for example.
class Machine {
 public:
  virtual ~Machine() = default;

  virtual bool has_vrf(const std::string& vrf) const = 0;
  virtual std::optional<DeviceFacts> device(const std::string& vrf,
                                            const std::string& name) const = 0;

  // The device by which the kernel would send from the source (empty: the device's own first
  // address) to the target: the way that it holds a reply's arrival against. Empty: no way at all.
  virtual std::optional<std::string> way_back(const std::string& vrf, const std::string& device,
                                              const std::string& source,
                                              const std::string& target) const = 0;

  // That of bird_configuration.h.
  virtual std::string bird_configuration_without(const std::string& vrf,
                                                 const std::string& path) const = 0;

  virtual std::optional<std::vector<KernelRoute>> routes(const std::string& vrf,
                                                         bool ipv6) const = 0;
};

// The machine that the program runs on.
std::unique_ptr<Machine> this_machine();

void check_machine(const View& view, const Machine& machine, Findings& findings);

}  // namespace lbctl
