#include "lbctl/configuration.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "config/config_reader.h"
#include "lbctl/command.h"
#include "platform/file_descriptor.h"
#include "platform/regular_file.h"
#include "tests/burst_judge.h"

namespace lbctl {

namespace {

std::map<TestKeyword, int32_t> defaults_of(std::string_view type) {
  if (type == "ping") return {{TestKeyword::kResponseTime, 5000}};
  const BurstLimits limits;
  return {{TestKeyword::kResponseTime, 5000},   {TestKeyword::kPeriod, 240},
          {TestKeyword::kTimeout, 1000},        {TestKeyword::kCount, 10},
          {TestKeyword::kLoss, limits.loss},    {TestKeyword::kRtt, limits.rtt},
          {TestKeyword::kJitter, limits.jitter}};
}

std::unique_ptr<Configuration> read_by_daemons_reader(const std::string& path,
                                                      const std::string& name) {
  auto configuration = std::make_unique<Configuration>();
  configuration->path = name;
  take_log_messages();
  const ConfiguredTestFactory factory;
  ConfigReader reader(configuration->model, configuration->namespaces, factory);
  configuration->complete = reader.read_config(path);
  configuration->messages = take_log_messages();
  return configuration;
}

}  // namespace

ConfiguredTest::ConfiguredTest(std::string_view type, bool /*ipv6*/)
    : type_(type), numbers_(defaults_of(type)) {}

int32_t ConfiguredTest::number(TestKeyword keyword) const {
  const auto found = numbers_.find(keyword);
  return found == numbers_.end() ? 0 : found->second;
}

void ConfiguredTest::set_number(TestKeyword keyword, uint32_t value) {
  const auto found = numbers_.find(keyword);
  if (found != numbers_.end()) found->second = static_cast<int32_t>(value);
}

TestReport ConfiguredTest::report() const {
  TestReport report;
  report.target = target_;
  report.resp_time = number(TestKeyword::kResponseTime);
  return report;
}

std::shared_ptr<HealthTest> ConfiguredTestFactory::create(std::string_view type, bool ipv6) const {
  if (type == "ping" || (type == "ping_ext" && !ipv6))
    return std::make_shared<ConfiguredTest>(type, ipv6);
  return nullptr;
}

std::unique_ptr<Configuration> load_configuration(const std::string& path) {
  const FileDescriptor file = open_to_read(path);
  if (!file.valid()) throw unreadable(fmt::format("{}: {}", path, std::strerror(errno)));
  if (!is_regular_file(file)) throw unreadable(path + ": not a regular file");
  return read_by_daemons_reader(path, path);
}

std::unique_ptr<Configuration> load_configuration_text(const std::string& text,
                                                       const std::string& name) {
  const FileDescriptor file(memfd_create("configuration", MFD_CLOEXEC));
  if (!file.valid()) throw unreadable(fmt::format("memory for {}: {}", name, std::strerror(errno)));
  for (size_t written = 0; written < text.size();) {
    const ssize_t count = write(file.get(), text.data() + written, text.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) throw unreadable(fmt::format("memory for {}: {}", name, std::strerror(errno)));
    written += static_cast<size_t>(count);
  }
  return read_by_daemons_reader(fmt::format("/proc/self/fd/{}", file.get()), name);
}

}  // namespace lbctl
