// The state in the text format of Prometheus
// (https://prometheus.io/docs/instrumenting/exposition_formats/).
#pragma once

#include <ctime>

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "lbctl/dumps.h"

namespace lbctl {

// When the interfaces' ages were true: each family's file is written at a time of its own.
struct WrittenTimes {
  std::time_t ipv4 = 0;
  std::time_t ipv6 = 0;
  std::time_t of(bool is_ipv6) const { return is_ipv6 ? ipv6 : ipv4; }
};

// What an earlier text said: the value of each series, by the series as it was written.
using Samples = std::map<std::string, double, std::less<>>;

// Lines that are none of the format are passed over.
Samples read_samples(std::string_view text);

// All metrics. With `earlier` also the counter of state changes, which goes on from there: what can
// be told from two looks is counted, so that a state that was left and come back to between them
// counts as two changes, whatever happened besides.
std::string metrics_text(const Dumps& dumps, const WrittenTimes& written,
                         const std::optional<Samples>& earlier);

}  // namespace lbctl
