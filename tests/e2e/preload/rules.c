// SPDX-License-Identifier: MIT
// rules.c: reads the rules of the stories and applies them to a call.
#include "rules.h"

#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

// Keeps errno, because free() does.
int exists(const char* path) {
  int error = errno;
  int found = access(path, F_OK) == 0;
  errno = error;
  return found;
}

void append(const char* path, const char* text) {
  int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  ssize_t length = (ssize_t)strlen(text);
  if (file < 0 || write(file, text, (size_t)length) != length) abort();
  close(file);
}

const char* rule(const char* call, char (*text)[32]) {
  char path[80];
  snprintf(path, sizeof path, RULES "%s", call);
  memset(*text, 0, sizeof *text);
  int file = exists(path) ? open(path, O_RDONLY | O_CLOEXEC) : -1;
  if (file >= 0 && read(file, *text, sizeof *text - 1) < 0) abort();
  if (file >= 0) close(file);
  return *text;
}

int says(const char* call, const char* word) {
  char text[32];
  return strcmp(rule(call, &text), word) == 0;
}

void wait_microseconds(unsigned microseconds) {
  int error = errno;
  struct timespec length = {0, (long)microseconds * 1000};
  nanosleep(&length, NULL);
  errno = error;
}

void crash(void) {
  volatile int* volatile nowhere = NULL;
  *nowhere = 1;
}

static int has_begun;
static uintptr_t executable_begin = UINTPTR_MAX;
static uintptr_t executable_end;
static unsigned seed, delays, faults;  // of the storm

// The executable comes first in the list of loaded objects.
static int measure_executable(struct dl_phdr_info* info, size_t size, void* data) {
  (void)size, (void)data;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    if (info->dlpi_phdr[i].p_type != PT_LOAD) continue;
    uintptr_t begin = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr;
    uintptr_t end = begin + info->dlpi_phdr[i].p_memsz;
    if (begin < executable_begin) executable_begin = begin;
    if (end > executable_end) executable_end = end;
  }
  return 1;
}

__attribute__((constructor)) static void begin(void) {
  char text[32];
  unsetenv("LD_PRELOAD");
  dl_iterate_phdr(measure_executable, NULL);
  sscanf(rule("storm", &text), "%u %u %u", &seed, &delays, &faults);
}

int __libc_start_main(int (*body)(int, char**, char**), int count, char** arguments, void (*first)(void),
                      void (*last)(void), void (*unload)(void), void* stack);

int __libc_start_main(int (*body)(int, char**, char**), int count, char** arguments, void (*first)(void),
                      void (*last)(void), void (*unload)(void), void* stack) {
  has_begun = 1;
  return REAL(__libc_start_main)(body, count, arguments, first, last, unload, stack);
}

int fails(const char* call) {
  static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  char path[64];
  char held[64];
  char text[32] = "";
  snprintf(path, sizeof path, RULES "%s", call);
  snprintf(held, sizeof held, RULES "%s.held", call);
  if (!has_begun || !exists(path)) return 0;

  REAL(pthread_mutex_lock)(&mutex);
  long number = 2;  // nothing happens: another thread was faster, or the rule is a word
  int file = open(path, O_RDWR | O_CLOEXEC);
  if (file >= 0 && read(file, text, sizeof text - 1) > 0 && strchr("-0123456789", *text)) {
    char* end;
    number = strtol(text, &end, 10);
    long count = *end == ' ' ? strtol(end, NULL, 10) : 1;
    if (number == 0) {
      REAL(rename)(path, held);
    } else if (number == -1 || (number == 1 && count <= 1)) {
      REAL(unlink)(path);
    } else {
      long left = number == 1 ? 1 : number < 0 ? number + 1 : number - 1;
      int length = snprintf(text, sizeof text, "%ld %-9ld", left, number == 1 ? count - 1 : count);
      if (pwrite(file, text, (size_t)length, 0) != length || ftruncate(file, length) != 0) abort();
    }
  }
  if (file >= 0) close(file);
  pthread_mutex_unlock(&mutex);

  if (number == -1) crash();
  while (number == 0 && exists(held)) wait_microseconds(1000);
  return number == 1;
}

int fails_with(const char* call, int error) {
  if (!fails(call)) return 0;
  errno = error;
  return 1;
}

int is_of_executable(const void* address) {
  return (uintptr_t)address >= executable_begin && (uintptr_t)address < executable_end;
}

int is_storm(void) {
  return seed != 0;
}

// Each thread draws from its own sequence (xorshift), so the timing of other threads does not change it.
static unsigned draw(void) {
  static atomic_uint threads;
  static _Thread_local unsigned state;
  if (state == 0) state = (seed + 0x9e3779b9U * ++threads) | 1;
  state ^= state << 13;
  state ^= state >> 17;
  state ^= state << 5;
  return state;
}

void maybe_late(void) {
  if (delays != 0 && gettid() != getpid() && draw() % 1000 < delays) wait_microseconds(draw() % 2000);
}

int fails_in_storm(const char* call, int error) {
  maybe_late();
  if (faults == 0 || draw() % 1000 >= faults) return fails_with(call, error);
  errno = error;
  return 1;
}
