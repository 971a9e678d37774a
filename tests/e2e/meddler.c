// SPDX-License-Identifier: MIT
// meddler.c: preloaded into the daemon, it stands between it and its libraries and spoils single calls.
//
// The environment's MEDDLE holds words "function=how"; a function without a word does what it always does.
//   time=N                    it is N seconds after 1970-01-01
//   fork=fail                 no process can be made
//   fork=crash                each child writes through a null pointer before its first step
//   select=interrupt          the first wait is interrupted
//   select=nothing            the first wait ends with nothing ready
//   select=other              the first wait ends with something ready that was not asked for
//   select=late               when the first wait is over, there is one more readable watch, of a
//                             connection of its own
//                             With any of them each new kind of wait is written into /run/stage/waits,
//                             /run/stage/wait.N is made at the N-th wait, up to the third, and
//                             /run/stage/handled when a watch is handled.
//   get=gate                  /run/stage/gate is made before, and waited for until it is gone
//   set_watch_functions=fail
//   set_watch_functions=none  they are taken, and no watch is ever added
//   request_name=gate         the same before the name is asked for
//   register_object_path=N    the N-th fails
//   register_object_path=try  the functions given are written into /run/stage/functions, and that for the end
//                             is called
//   send=N                    the first N messages cannot be sent
//   fflush=hold               /run/stage/held is made by the first thread but the main one that flushes a
//                             stream, and the stream stays locked by it
//   usleep=short              short pauses take no time to speak of
//   unlink=gate               /run/stage/gate is made before a file is removed, and waited for until it is
//                             gone
//   symbols=abort             what writes the frames of a crash report aborts
//   symbols=crash             it writes through a null pointer
//   symbols=hang              it never comes back
//   exit=told                 /run/stage/exit is made when the handlers of an orderly exit run
//   exit=hang                 and they never come back
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

static void gate(void) {
  make("/run/stage/gate");
  while (access("/run/stage/gate", F_OK) == 0) usleep(1000);
}

static void append(const char* path, const char* text) {
  int file = open(path, O_CREAT | O_WRONLY | O_APPEND, 0600);
  if (write(file, text, strlen(text)) < 0) abort();
  close(file);
}

seconds TIME(seconds* result) {
  const char* now = how("time");
  return now ? (seconds)atoll(now) : REAL(seconds(*)(seconds*), TIME)(result);
}

static pid_t meddled_fork(pid_t (*real)(void)) {
  const char* word = how("fork");
  volatile int* volatile nowhere = NULL;
  if (word && *word == 'f') return -1;
  pid_t child = real();
  if (word && child == 0) *nowhere = 1;
  return child;
}

pid_t fork(void) {
  return meddled_fork(REAL(pid_t(*)(void), fork));
}

pid_t _Fork(void) {
  return meddled_fork(REAL(pid_t(*)(void), _Fork));
}

static DBusAddWatchFunction add_watch;
static void* watch_data;

static void add_late_watch(void) {
  DBusConnection* connection = dbus_connection_open_private(getenv("DBUS_SESSION_BUS_ADDRESS"), NULL);
  if (!connection ||
      !dbus_connection_set_watch_functions(connection, add_watch, NULL, NULL, watch_data, NULL))
    abort();
}

static void tell_wait(int count, const fd_set* readable, int others, int nth) {
  static char told[256];
  char text[256];
  int length = snprintf(text, sizeof text, "count %d, %d other arguments, bits", count, others);
  for (int bit = 0; bit < FD_SETSIZE && length < 200; ++bit) {
    if (FD_ISSET(bit, readable)) length += snprintf(text + length, sizeof text - (size_t)length, " %d", bit);
  }
  snprintf(text + length, sizeof text - (size_t)length, "\n");
  if (strcmp(text, told) != 0) append("/run/stage/waits", strcpy(told, text));
  char path[32];
  snprintf(path, sizeof path, "/run/stage/wait.%d", nth);
  if (nth <= 3) make(path);
}

int SELECT(int count, fd_set* readable, fd_set* writable, fd_set* other, struct timeval* timeout) {
  static int calls;
  static fd_set first;
  const char* word = how("select");
  if (!word) word = "";
  if (++calls == 1) first = *readable;
  if (calls == 2 && *word == 'o') *readable = first;  // or it would wait for ever
  if (*word) tell_wait(count, readable, !!writable + !!other + !!timeout, calls);
  if (calls == 1 && *word == 'i') {
    errno = EINTR;
    return -1;
  }
  if (calls == 1 && *word == 'n') return 0;
  if (calls == 1 && *word == 'o') {
    FD_ZERO(readable);
    return 1;
  }
  int result = REAL(int (*)(int, fd_set*, fd_set*, fd_set*, struct timeval*), SELECT)(
      count, readable, writable, other, timeout);
  if (calls == 1 && *word == 'l') add_late_watch();
  return result;
}

dbus_bool_t dbus_watch_handle(DBusWatch* watch, unsigned flags) {
  if (how("select")) make("/run/stage/handled");
  return REAL(dbus_bool_t(*)(DBusWatch*, unsigned), dbus_watch_handle)(watch, flags);
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
  if (word && *word == 'g') gate();
  if (word && (*word == 'n' || !prepared)) return NULL;
  return REAL(DBusConnection * (*)(DBusBusType, DBusError*), dbus_bus_get)(type, error);
}

dbus_bool_t dbus_connection_set_watch_functions(DBusConnection* connection, DBusAddWatchFunction add,
                                                DBusRemoveWatchFunction remove,
                                                DBusWatchToggledFunction toggled, void* data,
                                                DBusFreeFunction free_data) {
  const char* word = how("set_watch_functions");
  if (word) return *word == 'n';
  add_watch = add;
  watch_data = data;
  return REAL(dbus_bool_t(*)(DBusConnection*, DBusAddWatchFunction, DBusRemoveWatchFunction,
                             DBusWatchToggledFunction, void*, DBusFreeFunction),
              dbus_connection_set_watch_functions)(connection, add, remove, toggled, data, free_data);
}

int dbus_bus_request_name(DBusConnection* connection, const char* name, unsigned flags, DBusError* error) {
  if (how("request_name")) gate();
  return REAL(int (*)(DBusConnection*, const char*, unsigned, DBusError*), dbus_bus_request_name)(
      connection, name, flags, error);
}

dbus_bool_t dbus_connection_register_object_path(DBusConnection* connection, const char* path,
                                                 const DBusObjectPathVTable* table, void* data) {
  static int calls;
  const char* word = how("register_object_path");
  if (word && *word == 't') {
    char text[128];
    snprintf(text, sizeof text, "%p: %d %d, %d\n", (const void*)table, table->unregister_function != NULL,
             table->message_function != NULL,
             table->dbus_internal_pad1 || table->dbus_internal_pad2 || table->dbus_internal_pad3 ||
                 table->dbus_internal_pad4);
    append("/run/stage/functions", text);
    table->unregister_function(connection, data);
  }
  if (word && ++calls == atoi(word)) return FALSE;
  return REAL(dbus_bool_t(*)(DBusConnection*, const char*, const DBusObjectPathVTable*, void*),
              dbus_connection_register_object_path)(connection, path, table, data);
}

dbus_bool_t dbus_connection_send(DBusConnection* connection, DBusMessage* message, dbus_uint32_t* serial) {
  static int calls;
  const char* failing = how("send");
  if (failing && ++calls <= atoi(failing)) return FALSE;
  return REAL(dbus_bool_t(*)(DBusConnection*, DBusMessage*, dbus_uint32_t*), dbus_connection_send)(
      connection, message, serial);
}

int fflush(FILE* stream) {
  if (how("fflush") && gettid() != getpid()) {
    make("/run/stage/held");
    for (;;) pause();
  }
  return REAL(int (*)(FILE*), fflush)(stream);
}

int usleep(useconds_t time) {
  return REAL(int (*)(useconds_t), usleep)(how("usleep") ? 1 : time);
}

int unlink(const char* path) {
  if (how("unlink")) gate();
  return REAL(int (*)(const char*), unlink)(path);
}

void backtrace_symbols_fd(void* const* frames, int count, int file) {
  const char* word = how("symbols");
  volatile int* volatile nowhere = NULL;
  if (word && *word == 'c') *nowhere = 1;
  if (word && *word == 'a') abort();
  while (word && *word == 'h') pause();
  REAL(void (*)(void* const*, int, int), backtrace_symbols_fd)(frames, count, file);
}

__attribute__((destructor)) static void at_exit(void) {
  const char* word = how("exit");
  if (word) make("/run/stage/exit");
  while (word && *word == 'h') pause();
}
