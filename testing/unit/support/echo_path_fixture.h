// One probe after the other by a path of one family, each taken out of flight at once.
#pragma once

#include <memory>
#include <string>

#include "support/echo_fixture.h"

template <class IpVersion>
class EchoPathFixture : public EchoFixture<IpVersion> {
 protected:
  EchoPathFixture() : test_(this->make_test()) {}

  // Sends one probe to `target`; true when something went out. Its key is in `key_`.
  bool send(const std::string& target = EchoKit<IpVersion>::kTarget) {
    const size_t before = this->network_.sent.size();
    test_->set_target(target);
    test_->send(this->interface_, this->worker_);
    const auto entry = this->probe_to(target);
    EXPECT_TRUE(entry.has_value());
    if (!entry) return false;
    key_ = static_cast<uint32_t>(entry->key);
    this->probes().erase(entry->key);
    return this->network_.sent.size() > before;
  }

  const FakeNetwork::Datagram& sent() { return this->network_.sent.back(); }

  std::unique_ptr<typename EchoKit<IpVersion>::Test> test_;
  uint32_t key_ = 0;
};
