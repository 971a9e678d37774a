// SPDX-License-Identifier: MIT
// fakes: calls of the product into libc and libdbus that a test can fake.
//
// The linker redirects each call listed in CMakeLists.txt to fakes.cpp (ld(1), --wrap). Without a fake the
// real function is called, except where that could harm the machine that runs the tests: see fakes.cpp.
#pragma once

#include <dbus/dbus.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

struct Fakes {
  std::function<void*(size_t)> malloc;
  std::function<char*(const char*)> strdup;
  std::function<void(void*)> free;

  std::function<void*(size_t, int, int)> mmap;  // size, protection, flags
  std::function<int(void*, size_t, int)> madvise;

  std::function<time_t()> time;
  std::function<unsigned(unsigned)> sleep;
  std::function<int(useconds_t)> usleep;

  std::function<FILE*(const char*, const char*)> fopen;
  std::function<int(const char*)> unlink;
  std::function<ssize_t(const char*, char*, size_t)> readlink;
  std::function<int(const char*)> chdir;

  std::function<pid_t()> fork;  // also for _Fork
  std::function<pid_t()> setsid;
  std::function<mode_t(mode_t)> umask;
  std::function<int(const char*, char* const*)> execvp;
  std::function<int(idtype_t, id_t, siginfo_t*, int)> waitid;
  std::function<pid_t(pid_t, int*, int)> waitpid;
  std::function<int(pid_t, int)> kill;

  std::function<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> pthread_create;
  // Called before the real function.
  std::function<void(pthread_mutex_t*)> seen_lock, seen_unlock;
  std::function<void(FILE*)> seen_funlockfile;
  std::function<int(pthread_cond_t*)> pthread_cond_signal;
  std::function<int(sem_t*)> sem_wait;

  std::function<DBusConnection*(DBusBusType, DBusError*)> dbus_bus_get;
  std::function<int(DBusConnection*, const char*, unsigned, DBusError*)> dbus_bus_request_name;
  std::function<dbus_bool_t(DBusConnection*, DBusAddWatchFunction, DBusRemoveWatchFunction,
                            DBusWatchToggledFunction, void*, DBusFreeFunction)>
      dbus_connection_set_watch_functions;
  std::function<DBusMessage*(DBusConnection*)> dbus_connection_borrow_message;
  std::function<void(DBusConnection*, DBusMessage*)> dbus_connection_return_message;
  std::function<DBusDispatchStatus(DBusConnection*)> dbus_connection_dispatch;
  std::function<DBusConnection*(DBusConnection*)> dbus_connection_ref;
  std::function<void(DBusConnection*)> dbus_connection_unref;
  std::function<dbus_bool_t(DBusConnection*, const char*, const DBusObjectPathVTable*, void*)>
      dbus_connection_register_object_path;
  std::function<unsigned(DBusWatch*)> dbus_watch_get_flags;
  std::function<int(DBusWatch*)> dbus_watch_get_socket;
  std::function<dbus_bool_t(DBusWatch*, unsigned)> dbus_watch_handle;
  std::function<dbus_bool_t(DBusConnection*, DBusMessage*, dbus_uint32_t*)> dbus_connection_send;
  std::function<void(DBusConnection*)> dbus_connection_flush;
  std::function<DBusDispatchStatus(DBusConnection*)> dbus_connection_get_dispatch_status;
  std::function<void(DBusConnection*, long)> dbus_connection_set_max_message_unix_fds;
  std::function<void(DBusConnection*, long)> dbus_connection_set_max_received_unix_fds;
  std::function<DBusMessage*(DBusMessage*)> dbus_message_new_method_return;
  std::function<bool()> dbus_message_append_args_fails;
  std::function<void(DBusError*)> dbus_error_free;
};

/** The current fakes. Set before a test's threads start, cleared at its end. */
extern Fakes fakes;

/** A test whose fakes end with its body, so that they may use its variables. */
class FakedTest : public testing::Test {
 protected:
  void TearDown() override { fakes = {}; }
};

// The real functions, for fakes that call them.
extern "C" {
void* __real_malloc(size_t size);
char* __real_strdup(const char* text);
void __real_free(void* memory);
void* __real_mmap64(void* where, size_t size, int protection, int flags, int fd, off_t offset);
int __real_madvise(void* where, size_t size, int advice);
pid_t __real_fork();
int __real_kill(pid_t pid, int sig);
pid_t __real_waitpid(pid_t pid, int* status, int options);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* data);
int __real_sem_wait(sem_t* semaphore);
FILE* __real_fopen(const char* path, const char* mode);
int __real_unlink(const char* path);
void __real_dbus_error_free(DBusError* error);
}

/**
 * Records every block that malloc or strdup returns to product or test, until it is freed. The destructor
 * frees the remaining blocks. Tests use this to prove which blocks the product deliberately keeps, and that
 * it frees the others.
 */
class MemoryBook {
 public:
  MemoryBook();
  ~MemoryBook();
  MemoryBook(const MemoryBook&) = delete;
  MemoryBook& operator=(const MemoryBook&) = delete;

  /** Makes the n-th call from now on fail; the next call is 1. */
  void fail_malloc(int nth) { malloc_to_fail_ = nth; }
  void fail_strdup(int nth) { strdup_to_fail_ = nth; }

  size_t blocks_left() const;
  std::vector<std::string> texts_left() const;                      // from strdup
  std::vector<size_t> sizes_left() const;                           // from malloc
  std::vector<size_t> sizes_taken() const { return sizes_taken_; }  // from malloc

 private:
  struct Block {
    size_t size;
    std::string text;
    bool is_text;
  };
  void* book(void* memory, size_t size, const char* text);

  mutable std::mutex mutex_;
  std::map<void*, Block> blocks_;
  std::vector<size_t> sizes_taken_;
  int malloc_to_fail_ = 0;
  int strdup_to_fail_ = 0;
};
