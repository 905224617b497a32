// A health test as the model owns it, the reader fills it and the worker and the reports use it,
// whatever its family and type. The classes are in tests/.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct LBInterface;
struct LBWorkerContext;

// Outcome of a test's last probe.
enum TestResult : int32_t { kResultNone = 0, kResultSuccess = 1, kResultFailure = 2 };

// Outcome of a probe as it is handed to record_result.
inline constexpr int32_t kProbeSuccess = 0;
inline constexpr int32_t kProbeFailure = -1;

// What reports show of a test; a copy.
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

// The keywords that give a test a number.
enum class TestKeyword { kResponseTime, kPeriod, kTimeout, kCount, kLoss, kRtt, kJitter };

class HealthTest {
 public:
  virtual ~HealthTest() = default;

  // The settings, before any thread runs: the address or host name to probe, and a keyword's number
  // as it was written (times in milliseconds). A keyword that the test has no field for is ignored.
  virtual void set_target(const std::string& target) = 0;
  virtual void set_number(TestKeyword keyword, uint32_t value) = 0;

  // Binds the test to its interface, before any send. Both workers of the interface's VRF call it;
  // the first call binds.
  virtual void init(LBInterface& interface) = 0;

  // Starts a probe (or runs a burst). The interface's worker only.
  virtual void send(LBInterface& interface, const LBWorkerContext& worker) = 0;

  // Settles the probe in flight, if it was answered or its time is over. The interface's worker
  // only.
  virtual void recv(LBInterface& interface, const LBWorkerContext& worker) = 0;

  // Milliseconds from the start of a probe until the next one can be settled, at most.
  virtual int64_t longest_wait() const { return report().resp_time; }

  virtual const char* type_name() const = 0;

  // All that reports show. Any thread.
  virtual TestReport report() const = 0;

  // "target: ..., resp_time: ...", and the description alone. Not called by the daemon itself,
  // which takes whole reports; for whoever links the library. Any thread.
  virtual std::string describe() const = 0;
  virtual std::string get_description() const = 0;
};

// Makes the tests, so that the reader needs to know none of their classes.
class TestFactory {
 public:
  virtual ~TestFactory() = default;

  // A new test of the type that the configuration names ("ping", ...) for an interface of the
  // family; null for a type that the family does not have.
  virtual std::shared_ptr<HealthTest> create(std::string_view type, bool ipv6) const = 0;
};
