// SPDX-License-Identifier: MIT
// fakes.cpp: the functions to which the linker redirects the calls that a test can fake.
//
// Without a fake the real function is called, with three exceptions, so that a broken product cannot harm the
// machine that tests it: kill, execvp, and opening or removing files under /var, /run and /dev.
#include "tests/unit/fakes.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

Fakes fakes;

// The product deliberately never frees these blocks. MemoryBook proves that it frees the others.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
  return "leak:log_open\nleak:dm_expand_argv\nleak:proc_method_start\n";
}

// The leak checker must not print its suppressions to the standard error of a death test.
extern "C" const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() {
  return "print_suppressions=0";
}

static void refuse(const char* what) {
  fprintf(stderr, "a test let %s through to the machine\n", what);
  abort();
}

static bool starts_with(const char* text, const char* start) {
  return strncmp(text, start, strlen(start)) == 0;
}

static void refuse_path_of_the_machine(const char* path) {
  const bool is_harmless_device = strcmp(path, "/dev/null") == 0 || strcmp(path, "/dev/full") == 0;
  if (starts_with(path, "/var/") || starts_with(path, "/run/") ||
      (starts_with(path, "/dev/") && !is_harmless_device))
    refuse(path);
}

static FILE* open_unless_faked(const char* path, const char* mode) {
  if (fakes.fopen) return fakes.fopen(path, mode);
  refuse_path_of_the_machine(path);
  return __real_fopen(path, mode);
}

static void* map_unless_faked(void* where, size_t size, int protection, int flags, int fd, off_t offset) {
  return fakes.mmap ? fakes.mmap(size, protection, flags)
                    : __real_mmap64(where, size, protection, flags, fd, offset);
}

static time_t time_unless_faked(time_t* copy) {
  time_t now;
  if (fakes.time) {
    now = fakes.time();
  } else {
    timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    now = precise.tv_sec;
  }
  if (copy) *copy = now;
  return now;
}

#define FAKED(result, name, parameters, arguments)                      \
  result __real_##name parameters;                                      \
  result __wrap_##name parameters;                                      \
  result __wrap_##name parameters {                                     \
    return fakes.name ? fakes.name arguments : __real_##name arguments; \
  }

extern "C" {
FAKED(void*, malloc, (size_t size), (size))
FAKED(char*, strdup, (const char* text), (text))
FAKED(void, free, (void* memory), (memory))

// On 32-bit targets time, fopen and mmap have the names of their 64-bit variants.
time_t __wrap_time(time_t* copy);
time_t __wrap_time(time_t* copy) {
  return time_unless_faked(copy);
}
time_t __wrap___time64(time_t* copy);
time_t __wrap___time64(time_t* copy) {
  return time_unless_faked(copy);
}
FILE* __wrap_fopen(const char* path, const char* mode);
FILE* __wrap_fopen(const char* path, const char* mode) {
  return open_unless_faked(path, mode);
}
FILE* __wrap_fopen64(const char* path, const char* mode);
FILE* __wrap_fopen64(const char* path, const char* mode) {
  return open_unless_faked(path, mode);
}

void* __wrap_mmap(void* where, size_t size, int protection, int flags, int fd, off_t offset);
void* __wrap_mmap(void* where, size_t size, int protection, int flags, int fd, off_t offset) {
  return map_unless_faked(where, size, protection, flags, fd, offset);
}
void* __wrap_mmap64(void* where, size_t size, int protection, int flags, int fd, off_t offset);
void* __wrap_mmap64(void* where, size_t size, int protection, int flags, int fd, off_t offset) {
  return map_unless_faked(where, size, protection, flags, fd, offset);
}

void __real_funlockfile(FILE* stream);
void __wrap_funlockfile(FILE* stream);
void __wrap_funlockfile(FILE* stream) {
  if (fakes.seen_funlockfile) fakes.seen_funlockfile(stream);
  __real_funlockfile(stream);
}

int __wrap_unlink(const char* path);
int __wrap_unlink(const char* path) {
  if (fakes.unlink) return fakes.unlink(path);
  refuse_path_of_the_machine(path);
  return __real_unlink(path);
}

int __wrap_kill(pid_t pid, int sig);
int __wrap_kill(pid_t pid, int sig) {
  if (!fakes.kill) refuse("a signal");
  return fakes.kill(pid, sig);
}

int __wrap_execvp(const char* program, char* const* argv);
int __wrap_execvp(const char* program, char* const* argv) {
  if (!fakes.execvp) refuse("an actor");
  return fakes.execvp(program, argv);
}

FAKED(int, madvise, (void* where, size_t size, int advice), (where, size, advice))
FAKED(unsigned, sleep, (unsigned seconds), (seconds))
FAKED(int, usleep, (useconds_t microseconds), (microseconds))
FAKED(ssize_t, readlink, (const char* path, char* buffer, size_t size), (path, buffer, size))
FAKED(int, chdir, (const char* path), (path))
FAKED(pid_t, fork, (), ())
#ifdef CORVANE_HAS__FORK
pid_t __real__Fork();
pid_t __wrap__Fork();
pid_t __wrap__Fork() {
  return fakes.fork ? fakes.fork() : __real__Fork();
}
#endif
FAKED(pid_t, setsid, (), ())
FAKED(mode_t, umask, (mode_t mask), (mask))
FAKED(int, waitid, (idtype_t type, id_t id, siginfo_t* info, int options), (type, id, info, options))
FAKED(pid_t, waitpid, (pid_t pid, int* status, int options), (pid, status, options))
FAKED(int, pthread_create,
      (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* data),
      (thread, attributes, body, data))
FAKED(int, pthread_cond_signal, (pthread_cond_t * condition), (condition))
FAKED(int, sem_wait, (sem_t * semaphore), (semaphore))

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  if (fakes.seen_lock) fakes.seen_lock(mutex);
  return __real_pthread_mutex_lock(mutex);
}

int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  if (fakes.seen_unlock) fakes.seen_unlock(mutex);
  return __real_pthread_mutex_unlock(mutex);
}

FAKED(DBusConnection*, dbus_bus_get, (DBusBusType type, DBusError* error), (type, error))
FAKED(int, dbus_bus_request_name,
      (DBusConnection * connection, const char* name, unsigned flags, DBusError* error),
      (connection, name, flags, error))
FAKED(dbus_bool_t, dbus_connection_set_watch_functions,
      (DBusConnection * connection, DBusAddWatchFunction add, DBusRemoveWatchFunction remove,
       DBusWatchToggledFunction toggled, void* data, DBusFreeFunction free_data),
      (connection, add, remove, toggled, data, free_data))
FAKED(DBusMessage*, dbus_connection_borrow_message, (DBusConnection * connection), (connection))
FAKED(void, dbus_connection_return_message, (DBusConnection * connection, DBusMessage* message),
      (connection, message))
FAKED(DBusDispatchStatus, dbus_connection_dispatch, (DBusConnection * connection), (connection))
FAKED(DBusConnection*, dbus_connection_ref, (DBusConnection * connection), (connection))
FAKED(void, dbus_connection_unref, (DBusConnection * connection), (connection))
FAKED(dbus_bool_t, dbus_connection_register_object_path,
      (DBusConnection * connection, const char* path, const DBusObjectPathVTable* functions, void* data),
      (connection, path, functions, data))
FAKED(unsigned, dbus_watch_get_flags, (DBusWatch * watch), (watch))
FAKED(int, dbus_watch_get_socket, (DBusWatch * watch), (watch))
FAKED(dbus_bool_t, dbus_watch_handle, (DBusWatch * watch, unsigned flags), (watch, flags))
FAKED(dbus_bool_t, dbus_connection_send,
      (DBusConnection * connection, DBusMessage* message, dbus_uint32_t* serial),
      (connection, message, serial))
FAKED(void, dbus_connection_flush, (DBusConnection * connection), (connection))
FAKED(DBusDispatchStatus, dbus_connection_get_dispatch_status, (DBusConnection * connection), (connection))
FAKED(void, dbus_connection_set_max_message_unix_fds, (DBusConnection * connection, long most),
      (connection, most))
FAKED(void, dbus_connection_set_max_received_unix_fds, (DBusConnection * connection, long most),
      (connection, most))
FAKED(DBusMessage*, dbus_message_new_method_return, (DBusMessage * call), (call))
FAKED(void, dbus_error_free, (DBusError * error), (error))

dbus_bool_t __wrap_dbus_message_append_args(DBusMessage* message, int first, ...);
dbus_bool_t __wrap_dbus_message_append_args(DBusMessage* message, int first, ...) {
  if (fakes.dbus_message_append_args_fails && fakes.dbus_message_append_args_fails()) return FALSE;
  va_list arguments;
  va_start(arguments, first);
  const dbus_bool_t appended = dbus_message_append_args_valist(message, first, arguments);
  va_end(arguments);
  return appended;
}
}

MemoryBook::MemoryBook() {
  fakes.malloc = [this](size_t size) -> void* {
    const std::lock_guard hold(mutex_);
    sizes_taken_.push_back(size);
    if (malloc_to_fail_ > 0 && --malloc_to_fail_ == 0) return nullptr;
    return book(__real_malloc(size), size, nullptr);
  };
  fakes.strdup = [this](const char* text) -> char* {
    const std::lock_guard hold(mutex_);
    if (strdup_to_fail_ > 0 && --strdup_to_fail_ == 0) return nullptr;
    return static_cast<char*>(book(__real_strdup(text), strlen(text) + 1, text));
  };
  fakes.free = [this](void* memory) {
    {
      const std::lock_guard hold(mutex_);
      const auto block = blocks_.find(memory);
      if (block != blocks_.end()) {
        memset(memory, 0xdd, block->second.size);  // so that a later read is noticed
        blocks_.erase(block);
      }
    }
    __real_free(memory);
  };
}

MemoryBook::~MemoryBook() {
  fakes.malloc = nullptr;
  fakes.strdup = nullptr;
  fakes.free = nullptr;
  for (const auto& [memory, block] : blocks_) __real_free(memory);
}

void* MemoryBook::book(void* memory, size_t size, const char* text) {
  blocks_[memory] = {size, text ? text : "", text != nullptr};
  return memory;
}

size_t MemoryBook::blocks_left() const {
  const std::lock_guard hold(mutex_);
  return blocks_.size();
}

std::vector<std::string> MemoryBook::texts_left() const {
  const std::lock_guard hold(mutex_);
  std::vector<std::string> texts;
  for (const auto& [memory, block] : blocks_) {
    if (block.is_text) texts.push_back(block.text);
  }
  return texts;
}

std::vector<size_t> MemoryBook::sizes_left() const {
  const std::lock_guard hold(mutex_);
  std::vector<size_t> sizes;
  for (const auto& [memory, block] : blocks_) {
    if (!block.is_text) sizes.push_back(block.size);
  }
  return sizes;
}
