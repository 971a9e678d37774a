// SPDX-License-Identifier: MIT
// meddler.c: preloaded into the daemon, it stands between it and its libraries and spoils single calls.
//
// The environment's MEDDLE holds words "function=how"; a function without a word does what it always does.
//   time=N                    it is N seconds after 1970-01-01
//   fork=fail                 no process can be made
//   select=interrupt          the first wait is interrupted
//   connect=narrow            sockets hold a few messages only until the other side reads
//   get=nothing               there is no connection and no error
//   get=prepared              there is none unless the bus library was prepared for threads before
//   set_watch_functions=fail
//   request_name=gate         /run/gate is made before the name is asked for, and waited for until it is gone
//   register_object_path=N    the N-th fails
//   send=N                    the first N messages cannot be sent
//   fflush=hold               /run/held is made by the first thread but the main one that flushes a stream,
//                             and the stream stays locked by it
#include <dbus/dbus.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

// Where times of 64 bits are an option of the C library, the daemon takes it, and these are the names then.
#ifdef __i386__
#define TIME __time64
#define SELECT __select64
typedef long long seconds;
#else
#define TIME time
#define SELECT select
typedef time_t seconds;
#endif
#define NAME_OF(function) #function
#define REAL(type, function) ((type)dlsym(RTLD_NEXT, NAME_OF(function)))

seconds TIME(seconds* result);
int SELECT(int count, fd_set* readable, fd_set* writable, fd_set* other, struct timeval* timeout);

// What stands behind "function=" in MEDDLE, or null.
static const char* how(const char* function) {
  const char* word = getenv("MEDDLE");
  size_t length = strlen(function);
  for (; word && *word; word += strspn(word, " ")) {
    if (strncmp(word, function, length) == 0 && word[length] == '=') return word + length + 1;
    word += strcspn(word, " ");
  }
  return NULL;
}

static void make(const char* path) {
  close(open(path, O_CREAT | O_WRONLY, 0600));
}

seconds TIME(seconds* result) {
  const char* now = how("time");
  return now ? (seconds)atoll(now) : REAL(seconds (*)(seconds*), TIME)(result);
}

pid_t fork(void) {
  return how("fork") ? -1 : REAL(pid_t (*)(void), fork)();
}

int SELECT(int count, fd_set* readable, fd_set* writable, fd_set* other, struct timeval* timeout) {
  static int interrupted;
  if (how("select") && !interrupted) {
    interrupted = 1;
    errno = EINTR;
    return -1;
  }
  return REAL(int (*)(int, fd_set*, fd_set*, fd_set*, struct timeval*), SELECT)(count, readable, writable, other,
                                                                               timeout);
}

int connect(int socket, const struct sockaddr* address, socklen_t size) {
  int least = 1;
  if (how("connect")) setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
  return REAL(int (*)(int, const struct sockaddr*, socklen_t), connect)(socket, address, size);
}

static int prepared;

dbus_bool_t dbus_threads_init_default(void) {
  prepared = 1;
  return REAL(dbus_bool_t(*)(void), dbus_threads_init_default)();
}

DBusConnection* dbus_bus_get(DBusBusType type, DBusError* error) {
  const char* word = how("get");
  if (word && (*word == 'n' || !prepared)) return NULL;
  return REAL(DBusConnection * (*)(DBusBusType, DBusError*), dbus_bus_get)(type, error);
}

dbus_bool_t dbus_connection_set_watch_functions(DBusConnection* connection, DBusAddWatchFunction add,
                                                DBusRemoveWatchFunction remove, DBusWatchToggledFunction toggled,
                                                void* data, DBusFreeFunction free_data) {
  if (how("set_watch_functions")) return FALSE;
  return REAL(dbus_bool_t(*)(DBusConnection*, DBusAddWatchFunction, DBusRemoveWatchFunction,
                             DBusWatchToggledFunction, void*, DBusFreeFunction),
              dbus_connection_set_watch_functions)(connection, add, remove, toggled, data, free_data);
}

int dbus_bus_request_name(DBusConnection* connection, const char* name, unsigned flags, DBusError* error) {
  if (how("request_name")) {
    make("/run/gate");
    while (access("/run/gate", F_OK) == 0) usleep(1000);
  }
  return REAL(int (*)(DBusConnection*, const char*, unsigned, DBusError*), dbus_bus_request_name)(connection, name,
                                                                                                 flags, error);
}

dbus_bool_t dbus_connection_register_object_path(DBusConnection* connection, const char* path,
                                                 const DBusObjectPathVTable* table, void* data) {
  static int calls;
  const char* failing = how("register_object_path");
  if (failing && ++calls == atoi(failing)) return FALSE;
  return REAL(dbus_bool_t(*)(DBusConnection*, const char*, const DBusObjectPathVTable*, void*),
              dbus_connection_register_object_path)(connection, path, table, data);
}

dbus_bool_t dbus_connection_send(DBusConnection* connection, DBusMessage* message, dbus_uint32_t* serial) {
  static int calls;
  const char* failing = how("send");
  if (failing && ++calls <= atoi(failing)) return FALSE;
  return REAL(dbus_bool_t(*)(DBusConnection*, DBusMessage*, dbus_uint32_t*), dbus_connection_send)(connection, message,
                                                                                                 serial);
}

int fflush(FILE* stream) {
  if (how("fflush") && gettid() != getpid()) {
    make("/run/held");
    for (;;) pause();
  }
  return REAL(int (*)(FILE*), fflush)(stream);
}
