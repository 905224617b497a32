// A health test as the worker and the output writer see it, whatever its family and type.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "config/lb_config.h"
#include "config/test_settings.h"
#include "config/worker_context.h"

// Outcome of a test's last probe.
enum TestResult : int32_t { kResultNone = 0, kResultSuccess = 1, kResultFailure = 2 };

// Outcome of a probe as it is handed to record_result.
inline constexpr int32_t kProbeSuccess = 0;
inline constexpr int32_t kProbeFailure = -1;

// What reports show of a test; a copy, taken under the test's lock.
struct TestReport {
  // Milliseconds and percent: the last complete burst, then the limits it was judged by.
  struct Measurement {
    int32_t measured_jitter, measured_loss, measured_rtt;
    int32_t jitter, loss, rtt;
  };

  std::string target;       // empty until one was configured or taken from the gateway
  std::string description;  // type name, tab, "Target: ", target
  int32_t result = kResultNone;
  int32_t resp_time = 0;                   // milliseconds
  std::optional<Measurement> measurement;  // extended ping tests with a result only
};

class HealthTest : public TestSettings {
 public:
  // Binds the test to its interface; once, by a worker of the interface's VRF, before any send.
  virtual void init(LBInterface& interface) = 0;

  // Starts a probe (or runs a burst). The interface's worker only.
  virtual void send(LBInterface& interface, const LBWorkerContext& worker) = 0;

  // "target: ..., resp_time: ..."
  virtual std::string describe() const = 0;

  // Settles the probe in flight, if it was answered or its time is over. The interface's worker
  // only.
  virtual void recv(LBInterface& interface, const LBWorkerContext& worker) = 0;

  virtual const char* type_name() const = 0;

  // Any thread.
  virtual std::string get_description() const = 0;
  virtual TestReport report() const = 0;
};
