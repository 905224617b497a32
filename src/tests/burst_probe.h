// The "ping_ext" test, "ping extended": bursts of echo requests, judged on loss, round-trip time
// and jitter. IPv4 only.
//
// A burst runs on the worker and blocks it while replies are outstanding. It reads the replies
// itself, from a socket of its own, so that the receiver of the interface's "ping" tests takes none
// of them.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "tests/burst_judge.h"
#include "tests/io/reply_source.h"
#include "tests/io/socket_address.h"
#include "tests/probe_base.h"

class LBTestPING : public LBTest {
 public:
  LBTestPING() : LBTest(kIpv4) {}

  void set_number(TestKeyword keyword, uint32_t value) override;
  void send(LBInterface& interface, const LBWorkerContext& worker) override;
  void recv(LBInterface& interface, const LBWorkerContext& worker) override;
  int64_t longest_wait() const override;
  const char* type_name() const override { return "ping extended"; }

 protected:
  void add_measurement(TestReport& report) const override LB_REQUIRES(status_mutex_);

 private:
  // How a burst ended. `error` is the errno value of a path or a request that failed, else 0.
  struct Ending {
    bool acceptable = false;
    int error = 0;
  };

  Ending run_raw_burst(const LBInterface& interface, const std::string& target, int32_t key,
                       const LBWorkerContext& worker);
  Ending run_frame_burst(const LBInterface& interface, const Destination& destination, int32_t key,
                         const LBWorkerContext& worker);

  // Sends `count_` requests with `send_request(sequence)` (bytes sent, or -1 with errno) and waits
  // for each reply in turn; replies count from `destination` only.
  template <class SendRequest>
  Ending run_burst(SendRequest send_request, const InterfaceSockets& sockets,
                   const SocketAddress& destination, int32_t key);

  // The round-trip time in milliseconds of the reply that `socket` of `source` gets, or nothing
  // when the wait was over first.
  std::optional<int64_t> await_reply(const ReplySource& source, int socket,
                                     const SocketAddress& destination, uint16_t sequence,
                                     int32_t key) const;

  // Settings; fixed once the threads run.
  ReplyWait wait_;
  BurstLimits limits_;
  int32_t period_ = 240;  // seconds between the starts of two bursts
  int32_t count_ = 10;    // requests of a burst

  timespec last_run_{};  // start of the last burst, monotonic; the worker's own
  BurstMeasurement measured_ LB_GUARDED_BY(status_mutex_);
};
