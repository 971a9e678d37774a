// SPDX-License-Identifier: MIT
// rules.h: the library that is preloaded into the daemon, to make its calls fail, wait or crash.
//
// A story writes a rule into the file /run/stage/preload/CALL, before the daemon starts or while it runs:
//   "N" or "N COUNT"  the N-th CALL from then on fails, and so do the COUNT - 1 calls after it; the last
//                     failure removes the file
//   "0"               the next CALL renames the file to CALL.held and waits until CALL.held is removed
//   "-N"              the N-th CALL writes through a null pointer
// CALL is the name of a function in bus.c or system.c that calls fails(), "exit" for the handlers of an
// orderly exit, or one of
//   memory            malloc, calloc and strdup, called by the executable itself
//   library_memory    malloc, calloc and realloc, called by a library
//   mmap              mmap64
//   wait              waitpid or waitid
// By wait, exit, dbus_bus_get, pthread_cond_wait and sleep a call can only wait or crash.
// Without a rule, dbus_bus_get returns null before dbus_threads_init_default.
// Other rules are a word in the file of the call. Where no word is named, the file only has to exist.
//   backtrace_symbols_fd "abort"
//     The function that writes the frames of a crash report aborts.
//   connect
//     A new connection sends only a few bytes at a time.
//   dbus_connection_register_object_path "note" or "refused"
//     Each call appends its table to /run/stage/functions and calls the function for unregistering; or fails.
//   dbus_connection_set_watch_functions "none" or "refused"
//     The functions are accepted, and no watch is ever added; or the call fails.
//   fork "crash"
//     Each child writes through a null pointer before its first step.
//   heap
//     A thread that touches the heap waits while the file exists.
//   paint
//     The stack of each new thread is filled with PAINT before its body runs. /run/stage/stacks gets a line
//     with the id of the thread, the lowest address of its stack and the size. A child that ends without exec
//     appends such a line, and the depth that it used, to /run/stage/stacks-of-children.
//   select "nothing", "other" or "late"
//     The first wait ends with nothing ready, or for a descriptor that was not asked for; or one more
//     connection adds a readable watch after it. /run/stage/waits gets a line for each of the first three
//     waits, and for each later wait that differs from the one before. /run/stage/handled exists once a watch
//     was handled.
//   short_pauses
//     sleep and usleep return almost at once.
//   storm "SEED DELAYS FAULTS"
//     Read once, when the daemon starts. DELAYS of a thousand calls are up to 2 ms late, except on the main
//     thread, and FAULTS of a thousand fail. /run/stage/kills gets a line for each kill(2): the pid, the
//     signal, and "child" if the pid was a child not yet reaped. Other processes do not get the signal.
//   time "SECONDS"
//     The clock stands at this time.
// The library leaves out the actors, and everything before main, where a sanitizer prepares itself.
#pragma once

#include <dlfcn.h>
#include <unistd.h>

#define STAGE "/run/stage/"
#define RULES STAGE "preload/"

// Looked up at each call. A successful look-up needs no memory, so the memory functions can use it too.
#define NAME_OF(name) #name
#define REAL(name) (__extension__(__typeof__(&name)) dlsym(RTLD_NEXT, NAME_OF(name)))

#pragma GCC visibility push(hidden)

int exists(const char* path);
void append(const char* path, const char* text);
void wait_microseconds(unsigned microseconds);
void crash(void);

// Reads the rule of a call, which is empty if there is none.
const char* rule(const char* call, char (*text)[32]);
int says(const char* call, const char* word);

// Apply the rule of a call, or the storm; return whether the call has to fail.
int fails(const char* call);
int fails_with(const char* call, int error);
int fails_in_storm(const char* call, int error);

int is_storm(void);
void maybe_late(void);

int is_of_executable(const void* address);

#pragma GCC visibility pop

// A call that the rule of its own name makes fail.
#define FAILING(type, name, failure, error, parameters, arguments)    \
  type name parameters {                                              \
    return fails_with(#name, error) ? failure : REAL(name) arguments; \
  }
