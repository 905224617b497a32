// Prints the dump files of the WAN load balancer, see wlb_dump(5).
//
//   g++ -std=c++17 $(pkg-config --cflags wan-lb) -o read_dumps read_dumps.cpp
//   read_dumps [DIRECTORY]       the daemon's output directory, by default /var/run/load-balance
#include <sys/stat.h>
#include <wan-lb/dump_format.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

// All of a file; false when there is none. `steady`: nobody wrote it meanwhile.
bool read_file(const std::string& path, std::string& bytes, bool& steady) {
  FILE* const file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  struct stat before {};
  struct stat after {};
  fstat(fileno(file), &before);
  bytes.clear();
  char buffer[65536];
  for (size_t got = 0; (got = std::fread(buffer, 1, sizeof(buffer), file)) > 0;) {
    bytes.append(buffer, got);
  }
  fstat(fileno(file), &after);
  std::fclose(file);
  steady = before.st_size == after.st_size && before.st_mtim.tv_sec == after.st_mtim.tv_sec &&
           before.st_mtim.tv_nsec == after.st_mtim.tv_nsec;
  return true;
}

// The daemon empties a file and writes it anew in place, once a second. One that is empty, has a
// part of a record at its end, or was written while it was read, is read again for a while; it may
// also be empty for good.
template <class Record>
std::vector<Record> read_records(const std::string& path) {
  std::string bytes;
  for (int attempt = 0; attempt < 50; ++attempt) {
    bool steady = false;
    if (!read_file(path, bytes, steady)) return {};
    if (!bytes.empty() && bytes.size() % sizeof(Record) == 0 && steady) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (bytes.size() % sizeof(Record) != 0) {
    std::fprintf(stderr, "%s: not whole records: %zu bytes\n", path.c_str(), bytes.size());
    std::exit(1);
  }
  // The records are packed: they are copied as a whole, and their numbers one by one when used.
  std::vector<Record> records(bytes.size() / sizeof(Record));
  if (!bytes.empty()) std::memcpy(records.data(), bytes.data(), bytes.size());
  return records;
}

const char* or_dash(const char* text) { return *text == '\0' ? "-" : text; }

void print_interfaces(const std::string& path, int family) {
  static const char* const results[] = {"none", "success", "failure"};
  for (const DumpOutbound& found : read_records<DumpOutbound>(path)) {
    std::printf("interface %s ipv%d vrf %s %s for %d nexthop %s\n", found.name, family, found.vrf,
                found.active != 0 ? "active" : "failed", found.change_age, or_dash(found.nexthop));
    for (int at = 0; at < found.test_count; ++at) {
      const DumpTest& test = found.tests[at];
      std::printf("test %s %s good %d/%d bad %d/%d", test.target, results[test.result],
                  test.success_count, found.success_ct, test.failure_count, found.failure_ct);
      if (test.has_measurement != 0) {
        std::printf(" loss %d/%d rtt %d/%d jitter %d/%d", test.measured_loss, test.loss,
                    test.measured_rtt, test.rtt, test.measured_jitter, test.jitter);
      }
      std::printf("\n");
    }
  }
}

void print_rules(const std::string& path) {
  for (const DumpRule& rule : read_records<DumpRule>(path)) {
    std::printf("rule %d ipv%d vrf %s %s", rule.number, rule.ipv6 != 0 ? 6 : 4, rule.vrf,
                rule.failover != 0 ? "failover" : "weights");
    for (int at = 0; at < rule.member_count; ++at) {
      std::printf(" %s:%d", rule.members[at].name, rule.members[at].weight);
    }
    std::printf("\n");
  }
}

void print_routes(const std::string& path) {
  for (const DumpRoute& route : read_records<DumpRoute>(path)) {
    std::printf("route %d.%d ipv%d %s metric %d via %s\n", route.rule_number, route.index,
                route.ipv6 != 0 ? 6 : 4, route.destination, route.metric, or_dash(route.nexthop));
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder =
      std::string(argc > 1 ? argv[1] : "/var/run/load-balance") + "/wlb_dump/";
  print_interfaces(folder + "wlb_ipv4_outbounds.bin", 4);
  print_interfaces(folder + "wlb_ipv6_outbounds.bin", 6);
  print_rules(folder + "wlb_rules.bin");
  print_routes(folder + "wlb_routes.bin");
}
