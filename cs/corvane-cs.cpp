// SPDX-License-Identifier: MIT
// corvane-cs.cpp: the control server of a multi-seat machine: set-up, main loop, and the report of a crash.
//
// The main thread sets everything up, step by step, and then serves the bus until the process ends. Only this
// thread uses the connection. Every plugin's handler runs on it and never waits for an actor. There is no
// orderly shutdown: the process ends by a signal, by libdbus when the bus is gone, by abort(3) when a text
// exceeds its fixed buffer, or by a crash, which is reported.
#include <dbus/dbus.h>
#include <execinfo.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>

#include "common/daemon.h"
#include "common/heap.h"
#include "common/logger.h"
#include "common/paths.h"
#include "common/signals.h"
#include "common/stack-pool.h"
#include "cs/bus.h"
#include "cs/options.h"
#include "cs/plugin-registry.h"

static constexpr unsigned max_crash_report_seconds = 2;

static BusState bus = {.connection = nullptr, .watch = nullptr, .fd = -1};

static pid_t daemon_pid;  // set before the handlers are installed

// Set when a crash has removed the pid file. A pid file found afterwards belongs to another daemon.
static std::atomic<bool> is_pid_file_removed{false};

// A child of the daemon has the daemon's handlers until it restores its signals. It must not report a crash
// for the daemon, nor remove the daemon's pid file: it ends as it would without a handler.
static void end_if_child(int sig) {
  if (getpid() == daemon_pid) return;
  signal(sig, SIG_DFL);
  sigset_t raised;
  sigemptyset(&raised);
  sigaddset(&raised, sig);
  pthread_sigmask(SIG_UNBLOCK, &raised, nullptr);
  raise(sig);
}

static void remove_pid_file() {
  if (is_pid_file_removed) return;
  daemon_stop(pid_file_path, 0, plogger);
  is_pid_file_removed = true;
}

// The crash may have left a lock held that the report needs, or the report itself may crash. Ends the process
// anyway, with the pid file removed and status 1.
static void give_up_crash_report(int sig) {
  end_if_child(sig);
  remove_pid_file();
  _exit(1);
}

// If the report hangs, crashes, or is aborted by the heap, give_up_crash_report ends the process.
static void limit_crash_report() {
  signal(SIGALRM, give_up_crash_report);
  signal(SIGABRT, give_up_crash_report);
  sigset_t needed;
  sigemptyset(&needed);
  sigaddset(&needed, SIGSEGV);
  sigaddset(&needed, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &needed, nullptr);

  static std::atomic_flag is_limited;  // threads that crash later share the first one's deadline
  if (!is_limited.test_and_set()) alarm(max_crash_report_seconds);
}

// Reports a crash in the thread that crashed, then ends the process. Deliberately calls stdio and exit in a
// signal handler: the process is lost already, and the report is worth the risk. Not static, so that the
// report can name it.
void segfault_handler(int sig) {
  end_if_child(sig);
  static thread_local bool is_reporting = false;
  if (is_reporting) give_up_crash_report(sig);
  is_reporting = true;
  limit_crash_report();
  log_error("Catch segfault signal.\n");
  log_backtrace(plogger);
  remove_pid_file();
  exit(1);
}

// The first backtrace of a process loads a library, which must not happen during a crash.
static void install_segfault_handler() {
  void* frame = nullptr;
  backtrace(&frame, 1);
  daemon_pid = getpid();
  signal(SIGSEGV, segfault_handler);
}

int main(int argc, char** argv) {
  signals_take_over();
  heap_set_up();
  stack_set_defaults();
  ccs_parse_options(argc, argv);
  pthread_mutex_init(&station_table_mutex, nullptr);
  plogger = log_open(log_file_path);

  log_debug("Initialize DBus connection and Watches ...\n");
  PluginContext context = {};
  log_debug("Initialize segfault signal handler...\n");
  install_segfault_handler();
  dbus_threads_init_default();
  if (!ccs_get_system_conn(&bus)) ccs_fatal_exit();
  log_debug("Succeeded to get System DBus connection ...\n");
  if (!ccs_set_watch_functions(&bus)) ccs_fatal_exit();
  log_debug("Succeeded to set watch functions ...\n");
  if (!ccs_request_service_name(&bus)) ccs_fatal_exit();
  log_debug("Succeeded to request service name ...\n");
  const DBusObjectPathVTable object_functions = {.unregister_function = ccs_object_unregister,
                                                 .message_function = ccs_dbus_message_handler,
                                                 .dbus_internal_pad1 = nullptr,
                                                 .dbus_internal_pad2 = nullptr,
                                                 .dbus_internal_pad3 = nullptr,
                                                 .dbus_internal_pad4 = nullptr};
  if (!ccs_register_objects(bus.connection, &object_functions, &context)) ccs_fatal_exit();
  log_debug("Succeeded to register objects ...\n");
  fd_set readable;
  if (!ccs_build_read_set(&bus, &readable)) ccs_fatal_exit();
  const int descriptors = bus.fd + 1;
  log_debug("Start mainloop ...\n\n");

  ccs_dispatch_and_flush(bus.connection);  // messages from the set-up must not wait for the next one
  for (;;) {
    if (select(descriptors, &readable, nullptr, nullptr, nullptr) < 1) {
      log_debug("{II} Timeout or error occurrs during select() ...\n");
      continue;
    }
    if (ccs_is_ready(&bus, &readable)) ccs_serve_watch(&bus);
  }
}
