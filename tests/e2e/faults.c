// SPDX-License-Identifier: MIT
// faults.c: preloaded into the daemon, makes one of its calls fail, wait or crash when a story says so.
//
// A story writes "N" or "N COUNT" into /run/stage/faults/CALL: the N-th CALL from then on fails, and so do
// the COUNT - 1 after it; the file is gone with the last of them. 0 stands for "the next one waits until
// /run/stage/faults/CALL.held is removed", -N for "the N-th one writes through a null pointer". CALL is
//   memory           malloc, calloc and strdup, called by the executable itself and not by a library
//   library_memory   malloc, calloc and realloc, called by a library
//   wait             waitpid or waitid, which then only waits or crashes; failing, they go by their own names
//   NAME             the function NAME below
// While /run/stage/faults/short_pauses exists, sleep(3) takes a few milliseconds. The actors are spared all
// this, and so is what happens before the daemon's first own step: a sanitizer makes its preparations there.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

// Looked up at each call: a look-up that succeeds needs no memory, so the functions below can use it too.
#define NAME_OF(name) #name
#define REAL(name) (__extension__(__typeof__(&name)) dlsym(RTLD_NEXT, NAME_OF(name)))

static uintptr_t executable_begin = UINTPTR_MAX;
static uintptr_t executable_end;

// The executable comes first in the list of what is loaded.
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
  unsetenv("LD_PRELOAD");
  dl_iterate_phdr(measure_executable, NULL);
}

static int is_executable(void* caller) {
  uintptr_t address = (uintptr_t)caller;
  return address >= executable_begin && address < executable_end;
}

static void crash(void) {
  volatile int* volatile nowhere = NULL;
  *nowhere = 1;
}

static int has_begun;
int __libc_start_main(int (*body)(int, char**, char**), int count, char** arguments, void (*first)(void),
                      void (*last)(void), void (*unload)(void), void* stack);

int __libc_start_main(int (*body)(int, char**, char**), int count, char** arguments, void (*first)(void),
                      void (*last)(void), void (*unload)(void), void* stack) {
  has_begun = 1;
  return REAL(__libc_start_main)(body, count, arguments, first, last, unload, stack);
}

static int fails(const char* call) {
  static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  char path[64];
  char held[64];
  char text[32] = "";
  snprintf(path, sizeof path, "/run/stage/faults/%s", call);
  snprintf(held, sizeof held, "/run/stage/faults/%s.held", call);
  if (!has_begun || access(path, F_OK) != 0) return 0;

  pthread_mutex_lock(&mutex);
  long number = -1;
  long count = 1;
  int file = REAL(open)(path, O_RDWR | O_CLOEXEC);
  int is_set = file >= 0 && read(file, text, sizeof text - 1) > 0;
  if (is_set) {
    char* end;
    number = strtol(text, &end, 10);
    if (*end == ' ') count = strtol(end, NULL, 10);
  }
  if (!is_set) {
    number = 2;  // another thread was faster
  } else if (number == 0) {
    REAL(rename)(path, held);
  } else if (number == -1 || (number == 1 && count <= 1)) {
    unlink(path);
  } else {
    long left = number == 1 ? 1 : number < 0 ? number + 1 : number - 1;
    int length = snprintf(text, sizeof text, "%ld %-9ld", left, number == 1 ? count - 1 : count);
    if (pwrite(file, text, (size_t)length, 0) != length || ftruncate(file, length) != 0) abort();
  }
  if (file >= 0) close(file);
  pthread_mutex_unlock(&mutex);

  if (number == -1) crash();
  while (number == 0 && access(held, F_OK) == 0) usleep(1000);
  return number == 1;
}

static int fails_with(const char* call, int error) {
  if (!fails(call)) return 0;
  errno = error;
  return 1;
}

static int no_memory(void* caller) {
  return fails_with(is_executable(caller) ? "memory" : "library_memory", ENOMEM);
}
#define NO_MEMORY() no_memory(__builtin_return_address(0))

// ---- memory ----

void* malloc(size_t size) {
  return NO_MEMORY() ? NULL : REAL(malloc)(size);
}

void* calloc(size_t count, size_t size) {
  return NO_MEMORY() ? NULL : REAL(calloc)(count, size);
}

void* realloc(void* memory, size_t size) {
  return NO_MEMORY() ? NULL : REAL(realloc)(memory, size);
}

char* strdup(const char* text) {
  return is_executable(__builtin_return_address(0)) && NO_MEMORY() ? NULL : REAL(strdup)(text);
}

void* mmap64(void* address, size_t size, int access, int flags, int file, off64_t offset) {
  return fails_with("mmap", ENOMEM) ? MAP_FAILED : REAL(mmap64)(address, size, access, flags, file, offset);
}

int madvise(void* address, size_t size, int advice) {
  return fails_with("madvise", ENOMEM) ? -1 : REAL(madvise)(address, size, advice);
}

// ---- processes and threads ----

pid_t fork(void) {
  return fails_with("fork", EAGAIN) ? -1 : REAL(fork)();
}

pid_t _Fork(void) {
  return fails_with("fork", EAGAIN) ? -1 : REAL(_Fork)();
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* data) {
  return fails("pthread_create") ? EAGAIN : REAL(pthread_create)(thread, attributes, body, data);
}

int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
  return fails("pthread_mutex_init") ? ENOMEM : REAL(pthread_mutex_init)(mutex, attributes);
}

int pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
  fails("pthread_cond_wait");
  return REAL(pthread_cond_wait)(cond, mutex);
}

pid_t waitpid(pid_t pid, int* status, int options) {
  fails("wait");
  return fails_with("waitpid", EINTR) ? -1 : REAL(waitpid)(pid, status, options);
}

int waitid(idtype_t type, id_t id, siginfo_t* death, int options) {
  fails("wait");
  return fails_with("waitid", EINTR) ? -1 : REAL(waitid)(type, id, death, options);
}

int kill(pid_t pid, int number) {
  return fails_with("kill", EPERM) ? -1 : REAL(kill)(pid, number);
}

unsigned sleep(unsigned seconds) {
  fails("sleep");
  if (access("/run/stage/faults/short_pauses", F_OK) != 0) return REAL(sleep)(seconds);
  usleep(5000);
  return 0;
}

// ---- files ----

static mode_t mode_behind(int flags, va_list arguments) {
  return flags & O_CREAT ? (mode_t)va_arg(arguments, int) : 0;
}

#define OPEN(name)                                                          \
  int name(const char* path, int flags, ...) {                              \
    va_list arguments;                                                      \
    va_start(arguments, flags);                                             \
    mode_t mode = mode_behind(flags, arguments);                            \
    va_end(arguments);                                                      \
    return fails_with("open", EMFILE) ? -1 : REAL(name)(path, flags, mode); \
  }                                                                         \
  FILE* f##name(const char* path, const char* how) {                        \
    return fails_with("fopen", EMFILE) ? NULL : REAL(f##name)(path, how);   \
  }
OPEN(open)
OPEN(open64)

int fflush(FILE* stream) {
  return fails_with("fflush", ENOSPC) ? EOF : REAL(fflush)(stream);
}

int rename(const char* from, const char* to) {
  return fails_with("rename", EACCES) ? -1 : REAL(rename)(from, to);
}

ssize_t write(int file, const void* data, size_t size) {
  return fails_with("write", ENOSPC) ? -1 : REAL(write)(file, data, size);
}

ssize_t readlink(const char* path, char* target, size_t size) {
  return fails_with("readlink", EACCES) ? -1 : REAL(readlink)(path, target, size);
}

// Where times of 64 bits are an option of the C library, the daemon takes it, and this is the name then.
#ifdef __i386__
#define SELECT __select64
int SELECT(int count, fd_set* readable, fd_set* writable, fd_set* other, struct timeval* timeout);
#else
#define SELECT select
#endif
int SELECT(int count, fd_set* readable, fd_set* writable, fd_set* other, struct timeval* timeout) {
  return fails_with("select", ENOMEM) ? -1 : REAL(SELECT)(count, readable, writable, other, timeout);
}

// ---- the bus library, declared here because nothing else of it is needed ----

void* dbus_message_new_method_return(void* call);
unsigned dbus_message_append_args(void* message, int type, ...);
unsigned dbus_message_append_args_valist(void* message, int type, va_list arguments);
unsigned dbus_connection_send(void* connection, void* message, unsigned* serial);

void* dbus_message_new_method_return(void* call) {
  return fails("dbus_message_new_method_return") ? NULL : REAL(dbus_message_new_method_return)(call);
}

unsigned dbus_message_append_args(void* message, int type, ...) {
  if (fails("dbus_message_append_args")) return 0;
  va_list arguments;
  va_start(arguments, type);
  unsigned done = REAL(dbus_message_append_args_valist)(message, type, arguments);
  va_end(arguments);
  return done;
}

unsigned dbus_connection_send(void* connection, void* message, unsigned* serial) {
  return fails("dbus_connection_send") ? 0 : REAL(dbus_connection_send)(connection, message, serial);
}
