// What this machine can be asked to explain a state. A contract: tests put answers of their own in
// its place.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lbctl/check_machine.h"
#include "lbctl/kernel_table.h"
#include "lbctl/routes_bird.h"

namespace lbctl {

struct DeviceState {
  bool exists = false;
  bool is_up = false;
  bool has_carrier = false;
  bool resolves = false;  // link-layer addresses, by ARP or neighbour solicitations
};

struct FileLook {
  std::string fault;  // why it cannot be read; empty: `text` is what it holds
  bool is_absent = false;
  std::string text;
};

class Router {
 public:
  virtual ~Router() = default;

  // Why the VRF cannot be looked into; empty where it can.
  virtual std::string vrf_refusal(const std::string& vrf) const = 0;
  virtual bool has_vrf(const std::string& vrf) const = 0;

  // No value where the machine did not say.
  virtual std::optional<DeviceState> device(const std::string& vrf,
                                            const std::string& name) const = 0;

  // The state (NUD_*) of the kernel's neighbour entry, 0 without one; no value where it did not
  // say.
  virtual std::optional<uint16_t> neighbor(const std::string& vrf, bool ipv6,
                                           const std::string& device,
                                           const std::string& address) const = 0;

  // dropped_replies() of reverse_path.h.
  virtual std::optional<std::string> dropped_replies(const std::string& vrf,
                                                     const std::string& device,
                                                     const std::string& source,
                                                     const std::string& target) const = 0;
  virtual std::optional<std::vector<KernelRoute>> kernel_routes(const std::string& vrf,
                                                                bool ipv6) const = 0;

  // A file that another program writes: routes or a lease.
  virtual FileLook file(const std::string& path) const = 0;

  // Why the VRF's routing daemon cannot be there; empty where it seems to run.
  virtual std::string routing_daemon_fault(const std::string& vrf) const = 0;
  // That of bird_configuration.h.
  virtual std::string bird_configuration_without(const std::string& vrf,
                                                 const std::string& path) const = 0;
  virtual BirdVerdict bird(const std::string& text, const std::string& name) const = 0;
};

// The one that lbctl runs on. Files, tables and the routing daemon are asked once: many
// destinations are explained by the same answers.
class ThisRouter : public Router {
 public:
  std::string vrf_refusal(const std::string& vrf) const override;
  bool has_vrf(const std::string& vrf) const override;
  std::optional<DeviceState> device(const std::string& vrf, const std::string& name) const override;
  std::optional<uint16_t> neighbor(const std::string& vrf, bool ipv6, const std::string& device,
                                   const std::string& address) const override;
  std::optional<std::string> dropped_replies(const std::string& vrf, const std::string& device,
                                             const std::string& source,
                                             const std::string& target) const override;
  std::optional<std::vector<KernelRoute>> kernel_routes(const std::string& vrf,
                                                        bool ipv6) const override;
  FileLook file(const std::string& path) const override;
  std::string routing_daemon_fault(const std::string& vrf) const override;
  std::string bird_configuration_without(const std::string& vrf,
                                         const std::string& path) const override;
  BirdVerdict bird(const std::string& text, const std::string& name) const override;

 private:
  using Table = std::optional<std::vector<KernelRoute>>;
  const std::unique_ptr<Machine> machine_ = this_machine();
  mutable std::map<std::string, FileLook> files_;
  mutable std::map<std::pair<std::string, bool>, Table> tables_;
  mutable std::map<std::string, BirdVerdict> verdicts_;  // by the file's name
};

}  // namespace lbctl
