// SPDX-License-Identifier: MIT
// signals.cpp: an actor gets its signals as the daemon found them.
//
// An ignored signal stays ignored across exec (execve(2)). So a signal that the daemon or one of its
// libraries ignores would silently change every actor. Exec resets a caught signal; but until then a crash of
// the child would be reported as the daemon's and remove its pid file. SIGTERM is the exception: it must
// end the daemon (--stop) and each actor (Stop). So it is at its default and unblocked in all of them,
// however the daemon was started.
#include "common/signals.h"

#include <csignal>

struct Disposition {
  int signal;
  struct sigaction at_start;
};

static sigset_t actor_mask;  // the mask at the daemon's start, without SIGTERM
static Disposition dispositions[] = {
    {SIGCHLD, {}}, {SIGPIPE, {}}, {SIGSEGV, {}}, {SIGALRM, {}}, {SIGABRT, {}}};

void signals_take_over() {
  for (Disposition& disposition : dispositions) sigaction(disposition.signal, nullptr, &disposition.at_start);
  signal(SIGCHLD, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  sigset_t needed;
  sigemptyset(&needed);
  sigaddset(&needed, SIGSEGV);
  sigaddset(&needed, SIGTERM);
  pthread_sigmask(SIG_UNBLOCK, &needed, &actor_mask);
  sigdelset(&actor_mask, SIGTERM);
}

void signals_give_back() {
  for (const Disposition& disposition : dispositions)
    sigaction(disposition.signal, &disposition.at_start, nullptr);
  pthread_sigmask(SIG_SETMASK, &actor_mask, nullptr);
}
