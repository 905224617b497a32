/* Prints the state of each interface, from the dump files of the WAN load balancer; see wlb_dump(5).
 *
 *   cc -o read_states read_states.c
 *   read_states [DIRECTORY]      the daemon's output directory, by default /var/run/load-balance
 *
 * dump_format.h is for C++. In C a record is a block of bytes, and the offsets are those of the manual page. */
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

enum { kRecord = 4312, kName = 0, kVrf = 64, kNexthop = 96, kChangeAge = 4297, kActive = 4311, kMost = 4096 };

static unsigned char bytes[kMost * kRecord + 1];

/* The number of bytes of the file, -1 when there is none. */
static long read_file(const char* path) {
  FILE* const file = fopen(path, "rb");
  size_t size;
  if (file == NULL) return -1;
  size = fread(bytes, 1, sizeof(bytes), file);
  fclose(file);
  return (long)size;
}

/* 0, or 1 when the file is no whole number of records. */
static int print_interfaces(const char* folder, int family) {
  const struct timespec pause = {0, 20000000};
  char path[4096];
  long size = 0, at;
  int attempt;
  snprintf(path, sizeof(path), "%s/wlb_dump/wlb_ipv%d_outbounds.bin", folder, family);
  /* The file is emptied and written anew once a second: it may be met empty or half written. */
  for (attempt = 0; attempt < 50; ++attempt) {
    size = read_file(path);
    if (size < 0 || (size > 0 && size % kRecord == 0)) break;
    nanosleep(&pause, NULL);
  }
  if (size > 0 && size % kRecord != 0) {
    fprintf(stderr, "%s: not whole records: %ld bytes\n", path, size);
    return 1;
  }
  for (at = 0; at + kRecord <= size; at += kRecord) {
    const unsigned char* const record = bytes + at;
    const char* const nexthop = (const char*)record + kNexthop;
    int32_t age;
    memcpy(&age, record + kChangeAge, sizeof(age)); /* at an odd address */
    printf("interface %s ipv%d vrf %s %s for %d nexthop %s\n", (const char*)record + kName, family,
           (const char*)record + kVrf, record[kActive] ? "active" : "failed", (int)age, *nexthop ? nexthop : "-");
  }
  return 0;
}

int main(int argc, char** argv) {
  const char* const folder = argc > 1 ? argv[1] : "/var/run/load-balance";
  return print_interfaces(folder, 4) | print_interfaces(folder, 6);
}
