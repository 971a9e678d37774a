// SPDX-License-Identifier: MIT
// system.c: the calls into the C library that a story can spoil.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>

#include "rules.h"

// ---- memory ----

static int no_memory(void* caller) {
  while (exists(RULES "heap")) wait_microseconds(1000);
  return fails_with(is_of_executable(caller) ? "memory" : "library_memory", ENOMEM);
}
#define NO_MEMORY() no_memory(__builtin_return_address(0))

void* malloc(size_t size) {
  return NO_MEMORY() ? NULL : REAL(malloc)(size);
}

void* calloc(size_t count, size_t size) {
  return NO_MEMORY() ? NULL : REAL(calloc)(count, size);
}

void* realloc(void* memory, size_t size) {
  return NO_MEMORY() ? NULL : REAL(realloc)(memory, size);
}

// A look-up frees the text of an earlier look-up that failed, which would never end here. That text is lost.
void free(void* memory) {
  static void (*real_free)(void*);
  static volatile int is_in_look_up;  // the compiler assumes that dlsym() does not call back
  if (is_in_look_up) return;
  if (!real_free) {
    is_in_look_up = 1;
    real_free = REAL(free);
    is_in_look_up = 0;
  }
  while (exists(RULES "heap")) wait_microseconds(1000);
  real_free(memory);
}

char* strdup(const char* text) {
  if (!is_of_executable(__builtin_return_address(0))) return REAL(strdup)(text);
  return fails_in_storm("memory", ENOMEM) ? NULL : REAL(strdup)(text);
}

void* mmap64(void* address, size_t size, int access, int flags, int file, off64_t offset) {
  return fails_with("mmap", ENOMEM) ? MAP_FAILED : REAL(mmap64)(address, size, access, flags, file, offset);
}

int madvise(void* address, size_t size, int advice) {
  return fails_in_storm("madvise", ENOMEM) ? -1 : REAL(madvise)(address, size, advice);
}

// ---- threads ----

enum { PAINT = 0xa5, SPARED = 256 };  // SPARED: the bytes of paint_and_run's own frame

struct body {
  void* (*run)(void*);
  void* data;
};

static _Thread_local char* lowest_byte;
static _Thread_local size_t stack_size;

static void note_stack(void) {
  pthread_attr_t attributes;
  void* lowest = NULL;
  char line[100];
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) abort();
  pthread_attr_getstack(&attributes, &lowest, &stack_size);
  pthread_attr_destroy(&attributes);
  snprintf(line, sizeof line, "%d %zu %zu\n", gettid(), (size_t)lowest, stack_size);
  append(STAGE "stacks", line);
  lowest_byte = lowest;
}

// Paints without a call, because the frame of a called function would be painted over.
static void* paint_and_run(void* data) {
  struct body body = *(struct body*)data;
  free(data);
  note_stack();
  char* lowest = lowest_byte;
  for (volatile char* byte = (char*)__builtin_frame_address(0) - SPARED; byte-- > lowest;)
    *byte = (char)PAINT;
  return body.run(body.data);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*), void* data) {
  if (fails_in_storm("pthread_create", EAGAIN)) return EAGAIN;
  if (!exists(RULES "paint")) return REAL(pthread_create)(thread, attributes, run, data);
  struct body* body = REAL(malloc)(sizeof *body);
  if (!body) return EAGAIN;
  *body = (struct body){run, data};
  int rc = REAL(pthread_create)(thread, attributes, paint_and_run, body);
  if (rc != 0) free(body);
  return rc;
}

FAILING(int, pthread_mutex_init, ENOMEM, 0, (pthread_mutex_t * mutex, const pthread_mutexattr_t* how),
        (mutex, how))

int pthread_mutex_lock(pthread_mutex_t* mutex) {
  maybe_late();
  return REAL(pthread_mutex_lock)(mutex);
}

int pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
  fails("pthread_cond_wait");
  return REAL(pthread_cond_wait)(cond, mutex);
}

// ---- processes ----

static pid_t fork_by_rule(pid_t (*real)(void)) {
  int child_crashes = says("fork", "crash");
  if (fails_in_storm("fork", EAGAIN)) return -1;
  pid_t child = real();
  if (child == 0 && child_crashes) crash();
  return child;
}

pid_t fork(void) {
  return fork_by_rule(REAL(fork));
}

pid_t _Fork(void) {
  return fork_by_rule(REAL(_Fork));
}

// Looked up before any fork, because another thread may hold the lock of the dynamic linker at the fork.
static void (*real_exit)(int);

__attribute__((constructor)) static void look_up_exit(void) {
  real_exit = REAL(_exit);
}

void _exit(int status) {
  if (lowest_byte) {
    const char* used = lowest_byte;
    while (*used == (char)PAINT) ++used;
    char line[100];  // a child has no heap
    snprintf(line, sizeof line, "%d %zu %zu %zu\n", gettid(), (size_t)lowest_byte, stack_size,
             (size_t)(lowest_byte + stack_size - used));
    append(STAGE "stacks-of-children", line);
  }
  real_exit(status);
  __builtin_unreachable();
}

pid_t waitpid(pid_t pid, int* status, int options) {
  maybe_late();
  fails("wait");
  return fails_with("waitpid", EINTR) ? -1 : REAL(waitpid)(pid, status, options);
}

int waitid(idtype_t type, id_t id, siginfo_t* death, int options) {
  maybe_late();
  fails("wait");
  return fails_with("waitid", EINTR) ? -1 : REAL(waitid)(type, id, death, options);
}

int kill(pid_t pid, int number) {
  siginfo_t death;
  char line[64];
  maybe_late();
  if (!is_storm()) return fails_with("kill", EPERM) ? -1 : REAL(kill)(pid, number);
  int is_child = pid > 0 && REAL(waitid)(P_PID, (id_t)pid, &death, WEXITED | WNOHANG | WNOWAIT) == 0;
  snprintf(line, sizeof line, "%d %d %s\n", pid, number, is_child ? "child" : "stranger");
  append(STAGE "kills", line);
  return is_child ? REAL(kill)(pid, number) : 0;
}

__attribute__((destructor)) static void at_exit(void) {
  fails("exit");
}

// ---- time ----

// Where the C library offers 64-bit times as an option, the daemon uses them, and the function has this name.
#ifdef __i386__
#define TIME __time64
typedef long long seconds;
#else
#define TIME time
typedef time_t seconds;
#endif
seconds TIME(seconds* result);

// The logger asks for the time at the beginning of each line.
seconds TIME(seconds* result) {
  char text[32];
  maybe_late();
  return *rule("time", &text) ? (seconds)atoll(text) : REAL(TIME)(result);
}

unsigned sleep(unsigned length) {
  fails("sleep");
  if (!exists(RULES "short_pauses")) return REAL(sleep)(length);
  wait_microseconds(5000);
  return 0;
}

int usleep(useconds_t length) {
  return REAL(usleep)(exists(RULES "short_pauses") ? 1 : length);
}

// ---- files ----

FAILING(FILE*, fopen, NULL, EMFILE, (const char* path, const char* how), (path, how))
FAILING(int, fflush, EOF, ENOSPC, (FILE * stream), (stream))
FAILING(int, rename, -1, EACCES, (const char* from, const char* to), (from, to))
FAILING(int, unlink, -1, EACCES, (const char* path), (path))
FAILING(ssize_t, readlink, -1, EACCES, (const char* path, char* target, size_t size), (path, target, size))

FILE* fopen64(const char* path, const char* how) {
  return fails_with("fopen", EMFILE) ? NULL : REAL(fopen64)(path, how);
}

int connect(int socket, const struct sockaddr* address, socklen_t size) {
  int least = 1;
  if (exists(RULES "connect")) setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
  return REAL(connect)(socket, address, size);
}

void backtrace_symbols_fd(void* const* frames, int count, int file) {
  if (says("backtrace_symbols_fd", "abort")) abort();
  if (!fails("backtrace_symbols_fd")) REAL(backtrace_symbols_fd)(frames, count, file);
}
