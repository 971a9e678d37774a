// SPDX-License-Identifier: MIT
// storm.c: preloaded into the daemon, makes its calls late or fail at random, and judges every signal it
// sends.
//
// STORM_SEED starts the random numbers, STORM_DELAYS says how many calls in a thousand come late (by up to 2
// ms) and STORM_FAULTS how many fail. The main thread is never late: it is to meet the others where they are.
// While /run/stage/storm/no-forks exists every fork fails; the thread's next line of the log then comes 50 ms
// late, and /run/stage/storm/failed-forks grows by a byte before.
//
// /run/stage/storm/kills gets one line for each kill(2): pid, signal, and whether the pid was a child that
// had not been reaped ("child") or anybody else ("stranger"), who is spared. The actors know nothing of all
// this.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define REAL(name) (__extension__(__typeof__(&name)) dlsym(RTLD_NEXT, #name))

static unsigned seed = 1;
static unsigned delays;
static unsigned faults;
static _Thread_local int next_line_is_late;

static unsigned number_from(const char* name) {
  const char* text = getenv(name);
  unsigned number = text ? (unsigned)strtoul(text, NULL, 10) : 0;
  unsetenv(name);
  return number;
}

__attribute__((constructor)) static void begin(void) {
  unsetenv("LD_PRELOAD");
  seed = number_from("STORM_SEED");
  delays = number_from("STORM_DELAYS");
  faults = number_from("STORM_FAULTS");
}

// One sequence a thread (xorshift), so that no thread's numbers depend on the others' timing.
static unsigned draw(void) {
  static atomic_uint threads;
  static _Thread_local unsigned state;
  if (state == 0) state = (seed + 0x9e3779b9U * ++threads) | 1;
  state ^= state << 13;
  state ^= state >> 17;
  state ^= state << 5;
  return state;
}

static void wait_microseconds(unsigned microseconds) {
  int error = errno;
  struct timespec length = {0, (long)microseconds * 1000};
  nanosleep(&length, NULL);
  errno = error;
}

static void maybe_late(void) {
  if (gettid() != getpid() && draw() % 1000 < delays) wait_microseconds(draw() % 2000);
}

static int fails(int error) {
  maybe_late();
  if (draw() % 1000 >= faults) return 0;
  errno = error;
  return 1;
}

__attribute__((format(printf, 2, 3))) static void note(const char* path, const char* format, ...) {
  char text[64];
  va_list arguments;
  va_start(arguments, format);
  int length = vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (file < 0 || write(file, text, (size_t)length) != length) abort();
  close(file);
}

int kill(pid_t pid, int sig) {
  siginfo_t death;
  maybe_late();
  int is_child = pid > 0 && REAL(waitid)(P_PID, (id_t)pid, &death, WEXITED | WNOHANG | WNOWAIT) == 0;
  note("/run/stage/storm/kills", "%d %d %s\n", pid, sig, is_child ? "child" : "stranger");
  return is_child ? REAL(kill)(pid, sig) : 0;
}

static pid_t stormy_fork(pid_t (*real)(void)) {
  if (access("/run/stage/storm/no-forks", F_OK) == 0) {
    note("/run/stage/storm/failed-forks", ".");
    next_line_is_late = 1;
    errno = EAGAIN;
    return -1;
  }
  return fails(EAGAIN) ? -1 : real();
}

pid_t fork(void) {
  return stormy_fork(REAL(fork));
}

pid_t _Fork(void) {
  return stormy_fork(REAL(_Fork));
}

// The logger asks for the time at the begin of each line.
time_t time(time_t* result) {
  if (next_line_is_late) wait_microseconds(50000);
  next_line_is_late = 0;
  maybe_late();
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (result) *result = now.tv_sec;
  return now.tv_sec;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* data) {
  return fails(EAGAIN) ? EAGAIN : REAL(pthread_create)(thread, attributes, body, data);
}

int pthread_mutex_lock(pthread_mutex_t* mutex) {
  maybe_late();
  return REAL(pthread_mutex_lock)(mutex);
}

char* strdup(const char* text) {
  return fails(ENOMEM) ? NULL : REAL(strdup)(text);
}

int madvise(void* address, size_t size, int advice) {
  return fails(ENOMEM) ? -1 : REAL(madvise)(address, size, advice);
}

int waitid(idtype_t type, id_t id, siginfo_t* death, int options) {
  maybe_late();
  return REAL(waitid)(type, id, death, options);
}

pid_t waitpid(pid_t pid, int* status, int options) {
  maybe_late();
  return REAL(waitpid)(pid, status, options);
}
