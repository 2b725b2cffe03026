/* The hosts' clocks: monotonic seconds for rates and deadlines, wall-clock milliseconds for what
 * is compared across processes (a picture's capture time), and a pause. Needs _POSIX_C_SOURCE
 * 200809L or later before the first system header. */
#ifndef CONVOKE_TOOLS_DEMO_CLOCK_H
#define CONVOKE_TOOLS_DEMO_CLOCK_H

#include <time.h>

/* Seconds on the monotonic clock. */
static inline double demo_now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

/* Milliseconds since the epoch on the wall clock. */
static inline unsigned long long demo_wall_ms(void) {
  struct timespec t;
  clock_gettime(CLOCK_REALTIME, &t);
  return (unsigned long long)t.tv_sec * 1000u + (unsigned long long)t.tv_nsec / 1000000u;
}

/* Sleeps `ms` milliseconds (less when a signal arrives). */
static inline void demo_pause_ms(int ms) {
  struct timespec t;
  t.tv_sec = ms / 1000;
  t.tv_nsec = (long)(ms % 1000) * 1000000L;
  nanosleep(&t, NULL);
}

#endif /* CONVOKE_TOOLS_DEMO_CLOCK_H */
