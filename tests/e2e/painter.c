// SPDX-License-Identifier: MIT
// painter.c: preloaded into the daemon, paints the stack of each thread before its body runs, so that a story
// can see how deep the thread has been.
//
// /run/stage/stacks gets one line for each thread: its id, the lowest address of its stack, and its size in
// bytes. What the thread has never used still has the paint (PAINT in each byte). A child that ends without
// having become an actor writes the same line, and after it how deep it has been, into
// /run/stage/stacks-of-children.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

enum { PAINT = 0xa5, SPARED = 256 };  // bytes of the painter's own frame

struct body {
  void* (*run)(void*);
  void* data;
};

__attribute__((constructor)) static void begin(void) {
  unsetenv("LD_PRELOAD");
}

static __thread char* lowest_byte;
static __thread size_t stack_size;

static void note_stack(void) {
  pthread_attr_t attributes;
  void* lowest = NULL;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) abort();
  pthread_attr_getstack(&attributes, &lowest, &stack_size);
  pthread_attr_destroy(&attributes);
  FILE* file = fopen("/run/stage/stacks", "a");
  if (!file) abort();
  fprintf(file, "%d %zu %zu\n", gettid(), (size_t)lowest, stack_size);
  fclose(file);
  lowest_byte = lowest;
}

// Without a call: a function's frame would be painted under it.
static void* paint_and_run(void* data) {
  struct body body = *(struct body*)data;
  free(data);
  note_stack();
  char* lowest = lowest_byte;
  for (volatile char* byte = (char*)__builtin_frame_address(0) - SPARED; byte-- > lowest;)
    *byte = (char)PAINT;
  return body.run(body.data);
}

void _exit(int status) {
  const char* used = lowest_byte;
  while (used && *used == (char)PAINT) ++used;
  char line[100];  // a child has no heap
  int length = snprintf(line, sizeof line, "%d %zu %zu %zu\n", gettid(), (size_t)lowest_byte, stack_size,
                        (size_t)(lowest_byte + stack_size - used));
  int file = used ? open("/run/stage/stacks-of-children", O_WRONLY | O_CREAT | O_APPEND, 0600) : -1;
  if (used && write(file, line, (size_t)length) != length) status = 1;
  syscall(SYS_exit_group, status);
  __builtin_unreachable();
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*), void* data) {
  struct body* body = malloc(sizeof *body);
  int (*real)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) =
      (int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*))dlsym(RTLD_NEXT, "pthread_create");
  if (!body) return 12;
  body->run = run;
  body->data = data;
  int rc = real(thread, attributes, paint_and_run, body);
  if (rc != 0) free(body);
  return rc;
}
