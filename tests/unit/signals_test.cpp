// SPDX-License-Identifier: MIT
// signals_test.cpp: what the daemon changes of its signals and gives back to its children.
#include "common/signals.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

class Signals : public testing::Test {
 protected:
  Signals() {
    sigaction(SIGCHLD, nullptr, &child_before_);
    sigaction(SIGPIPE, nullptr, &pipe_before_);
    sigaction(SIGSEGV, nullptr, &crash_before_);
    signal(SIGSEGV, SIG_DFL);
  }
  ~Signals() override {
    sigaction(SIGCHLD, &child_before_, nullptr);
    sigaction(SIGPIPE, &pipe_before_, nullptr);
    sigaction(SIGSEGV, &crash_before_, nullptr);
  }

  static sighandler_t handler_of(int number) {
    struct sigaction action;
    sigaction(number, nullptr, &action);
    return action.sa_handler;
  }

 private:
  struct sigaction child_before_;
  struct sigaction pipe_before_;
  struct sigaction crash_before_;
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
