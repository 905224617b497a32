/* Loaded ahead of the C library: moves the wall clock of one program, and no other clock.
 *
 * The file named by LAB_WALL_CLOCK holds the seconds to add, a 64-bit number in host order that may change at any
 * time. LAB_WALL_CLOCK_SPEED makes a second that many seconds from the start of the program on, and after each look at
 * the clock LAB_WALL_CLOCK_PAUSE milliseconds pass, as they may on a busy machine. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static const volatile int64_t* offset;
static int64_t speed = 1;
static int64_t pause_milliseconds;
static struct timespec start;

static int64_t number_of(const char* name, int64_t otherwise) {
  const char* text = getenv(name);
  return text ? atoll(text) : otherwise;
}

__attribute__((constructor)) static void attach(void) {
  speed = number_of("LAB_WALL_CLOCK_SPEED", 1);
  pause_milliseconds = number_of("LAB_WALL_CLOCK_PAUSE", 0);
  syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &start);
  const char* path = getenv("LAB_WALL_CLOCK");
  int fd = path ? open(path, O_RDONLY | O_CLOEXEC) : -1;
  if (fd < 0) return;
  void* mapped = mmap(NULL, sizeof(*offset), PROT_READ, MAP_SHARED, fd, 0);
  close(fd);
  if (mapped != MAP_FAILED) offset = mapped;
}

/* How far the clock has run ahead of the others. */
static int64_t gained_seconds(void) {
  struct timespec now;
  syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
  int64_t passed = (now.tv_sec - start.tv_sec) * 1000000 + (now.tv_nsec - start.tv_nsec) / 1000;
  return passed * (speed - 1) / 1000000;
}

static void make_a_pause(void) {
  const struct timespec length = {0, pause_milliseconds * 1000000};
  syscall(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &length, NULL);
}

/* The system call itself: a sanitizer's own clock_gettime would come back here. */
int clock_gettime(clockid_t clock, struct timespec* now) {
  int result = (int)syscall(SYS_clock_gettime, clock, now);
  if (result != 0 || clock != CLOCK_REALTIME) return result;
  if (offset) now->tv_sec += *offset;
  if (speed != 1) now->tv_sec += gained_seconds();
  if (pause_milliseconds != 0) make_a_pause();
  return result;
}

int gettimeofday(struct timeval* now, void* zone) {
  struct timespec precise;
  (void)zone;
  int result = clock_gettime(CLOCK_REALTIME, &precise);
  now->tv_sec = precise.tv_sec;
  now->tv_usec = precise.tv_nsec / 1000;
  return result;
}

time_t time(time_t* result) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (result) *result = now.tv_sec;
  return now.tv_sec;
}
