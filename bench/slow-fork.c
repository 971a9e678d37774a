// SPDX-License-Identifier: MIT
// slow-fork.c: a preload library that makes every fork of the daemon take 0.1 s, so that the time of a wait
// shows how many forks it waited for.
#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

static pid_t slow_fork(const char* name) {
  const struct timespec tenth = {.tv_sec = 0, .tv_nsec = 100 * 1000 * 1000};
  clock_nanosleep(CLOCK_MONOTONIC, 0, &tenth, NULL);
  pid_t (*const real)(void) = (pid_t(*)(void))dlsym(RTLD_NEXT, name);
  return real();
}

pid_t fork(void) {
  return slow_fork("fork");
}

pid_t _Fork(void) {
  return slow_fork("_Fork");
}
