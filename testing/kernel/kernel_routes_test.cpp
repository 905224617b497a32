// Next hops from the default routes of a real kernel.
#include "routing/kernel_routes.h"

#include <gmock/gmock.h>

#include "support/model_builder.h"
#include "support/recorded_log.h"
#include "veth_test.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class KernelKernelRoutes : public VethTest {
 protected:
  void SetUp() override {
    VethTest::SetUp();
    make_second_pair();
    run("ip addr add 192.0.2.10/24 dev " + near());
    run("ip addr add 198.51.100.10/24 dev " + near2());
    run("ip addr add 2001:db8::10/64 nodad dev " + near());
    for (const bool ipv6 : {false, true}) {
      add_interface_via(config_, "wan1", "kernel", ipv6).origin = near();
      add_interface_via(config_, "wan2", "kernel", ipv6).origin = near2();
    }
  }

  std::string gateway(const char* name, bool ipv6 = false) {
    resolve_kernel_nexthops(config_, worker_of(ipv6));
    return config_.interfaces_of(ipv6).at(name).gateway();
  }

  void add_link_local_routes(const std::string& metric, const std::string& metric2) {
    for (const std::string& name : {near(), near2()}) {
      run("ip -6 addr add fe80::10/64 nodad dev " + name);
      run("ip -6 route append default via fe80::1 dev " + name + " proto ra metric " +
          (name == near() ? metric : metric2));
    }
  }

  LBConfig config_;
};

}  // namespace

TEST_F(KernelKernelRoutes, LowestMetricOfTheInterface) {
  run("ip route add default via 192.0.2.1 dev " + near() + " proto dhcp metric 200");
  run("ip route add default via 198.51.100.1 dev " + near2() + " proto dhcp metric 1");
  EXPECT_EQ(gateway("wan1"), "192.0.2.1");
  EXPECT_EQ(gateway("wan2"), "198.51.100.1");
  run("ip route add default via 192.0.2.2 dev " + near() + " metric 100");
  EXPECT_EQ(gateway("wan1"), "192.0.2.2");
  run("ip route del default via 192.0.2.2 dev " + near());
  EXPECT_EQ(gateway("wan1"), "192.0.2.1");
  run("ip route del default via 192.0.2.1 dev " + near());
  EXPECT_EQ(gateway("wan1"), "192.0.2.1") << "the last one stays";
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelKernelRoutes, RoutesOfTheRoutingDaemonAndOfOtherTablesDoNotCount) {
  run("ip route add default proto bird metric 1 nexthop via 192.0.2.9 dev " + near() +
      " nexthop via 198.51.100.9 dev " + near2());
  run("ip route add default via 192.0.2.8 dev " + near() + " table 100");
  run("ip route add unreachable default metric 77");
  run("ip route add 203.0.113.0/24 via 192.0.2.7 dev " + near());
  EXPECT_EQ(gateway("wan1"), "");
  EXPECT_THAT(
      log_records(),
      ElementsAre(
          LoggedWarning("Failed to get default route from the kernel on interface " + near()),
          LoggedWarning("Failed to get default route from the kernel on interface " + near2())));
  run("ip route add default via 192.0.2.1 dev " + near() + " proto dhcp metric 4000");
  EXPECT_EQ(gateway("wan1"), "192.0.2.1");
}

TEST_F(KernelKernelRoutes, NextHopsOfAMultipathRoute) {
  run("ip route add default nexthop via 192.0.2.1 dev " + near() +
      " nexthop via 198.51.100.1 dev " + near2());
  EXPECT_EQ(gateway("wan1"), "192.0.2.1");
  EXPECT_EQ(gateway("wan2"), "198.51.100.1");
  add_link_local_routes("1024", "1024");  // which the kernel makes one of
  EXPECT_EQ(gateway("wan1", true), "fe80::1");
  EXPECT_EQ(gateway("wan2", true), "fe80::1");
}

TEST_F(KernelKernelRoutes, LinkLocalGatewayOnBothInterfaces) {
  add_link_local_routes("1024", "1025");  // two routes
  EXPECT_EQ(gateway("wan1", true), "fe80::1");
  EXPECT_EQ(gateway("wan2", true), "fe80::1");
  run("ip -6 route add default via 2001:db8::1 dev " + near() + " metric 5");
  EXPECT_EQ(gateway("wan1", true), "2001:db8::1");
  EXPECT_EQ(gateway("wan2", true), "fe80::1");
  EXPECT_THAT(log_records(), IsEmpty());
}

TEST_F(KernelKernelRoutes, ManyRoutesAreReadInManyReads) {
  run("for i in $(seq 0 3999); do echo route add 10.$((i / 250)).$((i % 250)).0/24 via 192.0.2.1"
      " metric $i; done | ip -batch -");
  run("ip route add default via 192.0.2.1 dev " + near() + " metric 5000");
  EXPECT_EQ(gateway("wan1"), "192.0.2.1");
  EXPECT_EQ(gateway("wan2"), "");
}
