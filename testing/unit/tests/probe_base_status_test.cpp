// What a test says of itself before it has a result.
#include "support/echo_fixture.h"

using testing::IsEmpty;

namespace {

template <class IpVersion>
class ProbeBaseStatusTest : public EchoFixture<IpVersion> {};

}  // namespace

TYPED_TEST_SUITE(ProbeBaseStatusTest, BothFamilies, FamilyName);

TYPED_TEST(ProbeBaseStatusTest, Defaults) {
  const typename EchoKit<TypeParam>::Test test;
  const TestReport report = test.report();
  EXPECT_EQ(report.target, "");
  EXPECT_EQ(report.description, "");
  EXPECT_EQ(report.result, 0);
  EXPECT_EQ(report.resp_time, 5000);
  EXPECT_FALSE(report.measurement.has_value());
  EXPECT_STREQ(test.type_name(), "ping");
  EXPECT_EQ(test.describe(), "target: , resp_time: 5000");
}

TYPED_TEST(ProbeBaseStatusTest, DescriptionIsTheTypeNameUntilTheFirstSend) {
  const auto test = this->make_test();
  EXPECT_EQ(test->get_description(), "ping");
  EXPECT_EQ(test->report().description, "ping");
}

TYPED_TEST(ProbeBaseStatusTest, SecondInitKeepsTheDescription) {
  this->network_.no_arp = true;
  const auto test = this->make_test();
  test->send(this->interface_, this->worker_);
  const std::string before = test->get_description();
  test->init(this->interface_);
  EXPECT_EQ(test->get_description(), before);
  EXPECT_EQ(before, std::string("ping\tTarget: ") + EchoKit<TypeParam>::kTarget);
  this->probes().erase(this->probe_to(EchoKit<TypeParam>::kTarget)->key);
}

TYPED_TEST(ProbeBaseStatusTest, ResponseTimeIsShownUnsigned) {
  const auto test = this->make_test("there");
  test->set_number(TestKeyword::kResponseTime, 4294967295u);
  EXPECT_EQ(test->describe(), "target: there, resp_time: 4294967295");
  test->set_number(TestKeyword::kResponseTime, 700);
  EXPECT_EQ(test->describe(), "target: there, resp_time: 700");
}

TYPED_TEST(ProbeBaseStatusTest, RecvWithNothingInFlightStartsTheReceiverOnly) {
  const auto test = this->make_test();
  test->recv(this->interface_, this->worker_);
  EXPECT_EQ(call_count("pthread_create"), 1);
  EXPECT_NE(this->sockets()->receiver_state, ReceiverState::kAbsent);
  EXPECT_EQ(test->report().result, 0);
  EXPECT_THAT(this->state().failure_counts, IsEmpty());
  EXPECT_THAT(this->state().success_counts, IsEmpty());
  EXPECT_THAT(log_records(), IsEmpty());
  this->network_.end_threads();
}
