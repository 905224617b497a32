// Ping tests of one family that send by the raw path, unless a test says otherwise. What they leave
// in flight ends with them.
#pragma once

#include <string>
#include <vector>

#include "support/echo_fixture.h"

template <class IpVersion>
class EchoSendFixture : public EchoFixture<IpVersion> {
 protected:
  EchoSendFixture() { this->network_.no_arp = true; }

  ~EchoSendFixture() override {
    for (const std::string& target : targets_) {
      while (const auto left = this->probe_to(target)) this->probes().erase(left->key);
    }
  }

  void send(typename EchoKit<IpVersion>::Test& test) {
    test.send(this->interface_, this->worker_);
    targets_.push_back(test.report().target);
  }

 private:
  std::vector<std::string> targets_;
};
