// SPDX-License-Identifier: MIT
// signals_test.cpp: what the daemon changes of its signals and gives back to its children.
#include "common/signals.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

class Signals : public testing::Test {
 protected:
  Signals() {
    for (Before& before : before_) sigaction(before.number, nullptr, &before.action);
    signal(SIGSEGV, SIG_DFL);
  }
  ~Signals() override {
    for (const Before& before : before_) sigaction(before.number, &before.action, nullptr);
  }

  static sighandler_t handler_of(int number) {
    struct sigaction action;
    sigaction(number, nullptr, &action);
    return action.sa_handler;
  }

 private:
  struct Before {
    int number;
    struct sigaction action;
  };
  Before before_[4] = {{SIGCHLD, {}}, {SIGPIPE, {}}, {SIGSEGV, {}}, {SIGALRM, {}}};
};

void handle(int) {}

}  // namespace

TEST_F(Signals, a_daemon_started_with_sigchld_ignored_can_wait_for_children) {
  signal(SIGCHLD, SIG_IGN);
  signals_take_over();
  EXPECT_EQ(handler_of(SIGCHLD), SIG_DFL);
}

TEST_F(Signals, sigpipe_is_left_to_the_bus_library) {
  signal(SIGPIPE, handle);
  signals_take_over();
  EXPECT_EQ(handler_of(SIGPIPE), handle);
}

TEST_F(Signals, what_was_ignored_at_the_start_is_ignored_in_children) {
  signal(SIGCHLD, SIG_IGN);
  signal(SIGPIPE, SIG_IGN);
  signals_take_over();
  signal(SIGPIPE, SIG_DFL);
  signals_give_back();
  EXPECT_EQ(handler_of(SIGCHLD), SIG_IGN);
  EXPECT_EQ(handler_of(SIGPIPE), SIG_IGN);
}

TEST_F(Signals, what_the_bus_library_ignores_is_not_ignored_in_children) {
  signal(SIGCHLD, SIG_DFL);
  signal(SIGPIPE, SIG_DFL);
  signals_take_over();
  signal(SIGPIPE, SIG_IGN);
  signals_give_back();
  EXPECT_EQ(handler_of(SIGCHLD), SIG_DFL);
  EXPECT_EQ(handler_of(SIGPIPE), SIG_DFL);
}

TEST_F(Signals, a_crash_of_a_child_is_not_reported_as_the_daemons) {
  signals_take_over();
  signal(SIGSEGV, handle);
  signals_give_back();
  EXPECT_EQ(handler_of(SIGSEGV), SIG_DFL);
}

TEST_F(Signals, the_time_limit_of_a_crash_report_is_not_the_childrens) {
  for (const sighandler_t at_start : {SIG_DFL, SIG_IGN}) {
    signal(SIGALRM, at_start);
    signals_take_over();
    EXPECT_EQ(handler_of(SIGALRM), at_start) << "nothing is changed yet";
    signal(SIGALRM, handle);
    signals_give_back();
    EXPECT_EQ(handler_of(SIGALRM), at_start);
  }
}

TEST_F(Signals, a_crash_is_reported_although_its_signal_was_blocked_at_the_start) {
  sigset_t blocked;
  sigset_t before;
  sigset_t now;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGSEGV);
  sigaddset(&blocked, SIGUSR1);
  pthread_sigmask(SIG_SETMASK, &blocked, &before);
  signals_take_over();
  pthread_sigmask(SIG_SETMASK, nullptr, &now);
  EXPECT_EQ(sigismember(&now, SIGSEGV), 0);
  EXPECT_EQ(sigismember(&now, SIGUSR1), 1) << "the others stay as they are";
  signals_give_back();
  pthread_sigmask(SIG_SETMASK, nullptr, &now);
  EXPECT_EQ(sigismember(&now, SIGSEGV), 1) << "an actor gets the mask that the daemon got";
  EXPECT_EQ(sigismember(&now, SIGUSR1), 1);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}
