// SPDX-License-Identifier: MIT
// corvane-cs.cpp: the control server of a multi-seat machine, from its command line to its main loop.
//
// The main thread sets everything up, step by step, and then serves the bus for ever: it alone touches the
// connection, and every plugin's handler runs on it and never waits for an actor. There is no orderly end:
// the process is ended by a signal, by the bus library when the bus is gone, by abort(3) at a limit of the
// system, or by a crash, which is reported.
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
#include "plugins/display-manager/display-manager.h"

static BusState bus = {.connection = nullptr, .watch = nullptr, .fd = -1};

static constexpr unsigned most_seconds_of_a_crash_report = 2;

static pid_t daemon_pid;  // set before the handlers are installed

// By a crash: a pid file that is there afterwards is another daemon's.
static std::atomic<bool> is_pid_file_removed{false};

// A child has the daemon's handlers until it gives the signals back. It is not the daemon, and what it shares
// with it is not its own to remove: it ends as it would without a handler.
static void end_a_child(int sig) {
  if (getpid() == daemon_pid) return;
  signal(sig, SIG_DFL);
  sigset_t own;
  sigemptyset(&own);
  sigaddset(&own, sig);
  pthread_sigmask(SIG_UNBLOCK, &own, nullptr);
  raise(sig);
}

static void remove_pid_file() {
  if (is_pid_file_removed) return;
  daemon_stop(pid_file_path, 0, plogger);
  is_pid_file_removed = true;
}

// A crash may have left locks behind that its own report needs, or the report may crash. The process must end
// all the same, as if it had been reported.
static void give_up_crash_report(int sig) {
  end_a_child(sig);
  remove_pid_file();
  _exit(1);
}

// Lets a hung report, a crash of the report, and a heap that aborts it end in give_up_crash_report.
static void limit_crash_report() {
  signal(SIGALRM, give_up_crash_report);
  signal(SIGABRT, give_up_crash_report);
  sigset_t needed;
  sigemptyset(&needed);
  sigaddset(&needed, SIGSEGV);
  sigaddset(&needed, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &needed, nullptr);

  static std::atomic_flag is_limited;  // threads that crash one after the other have the time of the first
  if (!is_limited.test_and_set()) alarm(most_seconds_of_a_crash_report);
}

// Reports a crash of the daemon in whichever thread it happened, then ends the process. Calls stdio and exit
// from a signal handler, knowingly: the process is lost already, and what it leaves behind is worth the try.
// Not static, so that the report can name it.
void segfault_handler(int sig) {
  end_a_child(sig);
  static thread_local bool is_reporting = false;
  if (is_reporting) give_up_crash_report(sig);
  is_reporting = true;
  limit_crash_report();
  log_error("Catch segfault signal.\n");
  log_backtrace(plogger);
  remove_pid_file();
  exit(1);
}

// The first backtrace of a process loads a library; that must not happen inside a crash.
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
  ccs_get_system_conn(&bus);
  log_debug("Succeeded to get System DBus connection ...\n");
  ccs_set_watch_functions(&bus);
  log_debug("Succeeded to set watch functions ...\n");
  ccs_request_service_name(&bus);
  log_debug("Succeeded to request service name ...\n");
  const DBusObjectPathVTable object_functions = {.unregister_function = ccs_object_unregister,
                                                 .message_function = ccs_dbus_message_handler,
                                                 .dbus_internal_pad1 = nullptr,
                                                 .dbus_internal_pad2 = nullptr,
                                                 .dbus_internal_pad3 = nullptr,
                                                 .dbus_internal_pad4 = nullptr};
  ccs_register_objects(bus.connection, &object_functions, &context);
  log_debug("Succeeded to register objects ...\n");
  fd_set readable;
  ccs_build_read_set(&bus, &readable);
  const int descriptors = bus.fd + 1;
  log_debug("Start mainloop ...\n\n");

  ccs_dispatch_and_flush(bus.connection);  // what came during set-up must not wait for the next message
  for (;;) {
    if (select(descriptors, &readable, nullptr, nullptr, nullptr) < 1) {
      log_debug("{II} Timeout or error occurrs during select() ...\n");
      continue;
    }
    if (ccs_is_ready(&bus, &readable)) ccs_serve_watch(&bus);
  }
}
