/* Loaded ahead of the C library: moves the wall clock of one program, and no other clock.
 *
 * The file named by LAB_WALL_CLOCK holds the seconds to add, a 64-bit number in host order that may change at any
 * time. */
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

__attribute__((constructor)) static void attach(void) {
  const char* path = getenv("LAB_WALL_CLOCK");
  int fd = path ? open(path, O_RDONLY | O_CLOEXEC) : -1;
  if (fd < 0) return;
  void* mapped = mmap(NULL, sizeof(*offset), PROT_READ, MAP_SHARED, fd, 0);
  close(fd);
  if (mapped != MAP_FAILED) offset = mapped;
}

/* The system call itself: a sanitizer's own clock_gettime would come back here. */
int clock_gettime(clockid_t clock, struct timespec* now) {
  int result = (int)syscall(SYS_clock_gettime, clock, now);
  if (result == 0 && clock == CLOCK_REALTIME && offset) now->tv_sec += *offset;
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
