// SPDX-License-Identifier: MIT
// options.cpp: one table of options, each with the function that carries it out.
//
// Each option acts when it is parsed, so the order matters: options before --pid or --stop have already
// acted, and options after it are never parsed. The daemon's log is not open yet, so each option that
// controls the daemon opens a new logger on standard error. These loggers are never freed.
#include "cs/options.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/daemon.h"
#include "common/logger.h"
#include "common/paths.h"
#include "common/verbose.h"

namespace {

struct Option {
  const char* name;
  void (*act)();
};

constexpr char usage[] =
    "\n"
    "corvane-cs: Corvane Control Server\n"
    "\n"
    "Available options:\n"
    "\t--start\tstart corvane-cs in daemon mode\n"
    "\t--stop\tstop corvane-cs daemon\n"
    "\t--pid\treturn pid of corvane-cs daemon\n"
    "\t--enable\tenable the corvane-cs daemon\n"
    "\t--disable\tdisable the corvane-cs daemon\n"
    "\t--purge\tpurge the files assicated with the corvane-cs daemon\n"
    "\t--verbose\tprint a lot of debugging info\n"
    "\n";

void set_verbose() {
  verbose = 1;
}

void start_daemon() {
  daemon_start(pid_file_path, log_open("stderr"));
}

[[noreturn]] void print_pid() {
  printf("%i\n", daemon_get_pid(pid_file_path, log_open("stderr")));
  exit(0);
}

[[noreturn]] void stop_daemon() {
  daemon_stop(pid_file_path, SIGTERM, log_open("stderr"));
  exit(0);
}

void do_nothing() {}

constexpr Option options[] = {
    {"--verbose", set_verbose}, {"-v", set_verbose},      {"--start", start_daemon}, {"--pid", print_pid},
    {"--stop", stop_daemon},    {"--enable", do_nothing}, {"--disable", do_nothing}, {"--purge", do_nothing},
};

void act_on(const char* argument) {
  for (const Option& option : options) {
    if (strcmp(argument, option.name) == 0) {
      option.act();
      return;
    }
  }
  fprintf(stderr, "corvane-cs: unknown command line option: %s\n", argument);
  ccs_print_usage();
  exit(1);
}

}  // namespace

void ccs_print_usage() {
  fwrite(usage, 1, sizeof usage - 1, stderr);
}

void ccs_parse_options(int argc, char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    if (argv[i][0] != '-') {
      ccs_print_usage();
      exit(1);
    }
    act_on(argv[i]);
  }
}
