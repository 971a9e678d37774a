// SPDX-License-Identifier: MIT
// signals.cpp: an actor finds its signals as the daemon found them.
//
// An ignored signal stays ignored across exec (execve(2)), so what the daemon or a library of it ignores
// would silently change every actor. A caught signal is reset by exec, but until then a crash of the child
// would be reported as the daemon's, and take away its pid file. SIGTERM is the exception: a stop is a
// SIGTERM, so every actor gets it at its default and unblocked, however the daemon was started.
#include "common/signals.h"

#include <csignal>

struct Disposition {
  int signal;
  struct sigaction at_start;
};

static sigset_t actor_mask;  // that of the start, without SIGTERM
static Disposition dispositions[] = {
    {SIGCHLD, {}}, {SIGPIPE, {}}, {SIGSEGV, {}}, {SIGALRM, {}}, {SIGABRT, {}}};

// A stop may come before its child has the signal at its default. An ignored signal is lost then, unless it
// is blocked: the kernel keeps it until the child unblocks it. The daemon goes on ignoring it either way.
static void keep_stop_for_child() {
  struct sigaction at_start;
  sigaction(SIGTERM, nullptr, &at_start);
  if (at_start.sa_handler != SIG_IGN) return;
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
}

void signals_take_over() {
  for (Disposition& disposition : dispositions) sigaction(disposition.signal, nullptr, &disposition.at_start);
  signal(SIGCHLD, SIG_DFL);
  sigset_t crash;
  sigemptyset(&crash);
  sigaddset(&crash, SIGSEGV);
  pthread_sigmask(SIG_UNBLOCK, &crash, &actor_mask);
  sigdelset(&actor_mask, SIGTERM);
  keep_stop_for_child();
}

void signals_give_back() {
  for (const Disposition& disposition : dispositions)
    sigaction(disposition.signal, &disposition.at_start, nullptr);
  signal(SIGTERM, SIG_DFL);
  pthread_sigmask(SIG_SETMASK, &actor_mask, nullptr);
}
