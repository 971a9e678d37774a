// SPDX-License-Identifier: MIT
// signals_test.cpp: the signal settings that the daemon changes, and those it restores for its children.
#include "common/signals.h"

#include <gtest/gtest.h>

#include <csignal>
#include <set>

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

  static std::set<int> blocked() {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    std::set<int> numbers;
    for (int number = 1; number <= SIGRTMAX; ++number) {
      if (sigismember(&mask, number) == 1) numbers.insert(number);
    }
    return numbers;
  }

 private:
  struct Before {
    int number;
    struct sigaction action;
  };
  Before before_[6] = {{SIGCHLD, {}}, {SIGPIPE, {}}, {SIGSEGV, {}},
                       {SIGALRM, {}}, {SIGABRT, {}}, {SIGTERM, {}}};
};

void handle(int) {}

}  // namespace

TEST_F(Signals, a_daemon_started_with_sigchld_ignored_can_wait_for_children) {
  signal(SIGCHLD, SIG_IGN);
  signals_take_over();
  EXPECT_EQ(handler_of(SIGCHLD), SIG_DFL);
}

TEST_F(Signals, sigpipe_is_left_to_libdbus) {
  signal(SIGPIPE, handle);
  signals_take_over();
  EXPECT_EQ(handler_of(SIGPIPE), handle);
}

TEST_F(Signals, children_get_sigchld_and_sigpipe_as_they_were_at_the_start) {
  for (const sighandler_t at_start : {SIG_IGN, SIG_DFL}) {
    signal(SIGCHLD, at_start);
    signal(SIGPIPE, at_start);
    signals_take_over();
    signal(SIGPIPE, at_start == SIG_IGN ? SIG_DFL : SIG_IGN);
    signals_give_back();
    EXPECT_EQ(handler_of(SIGCHLD), at_start);
    EXPECT_EQ(handler_of(SIGPIPE), at_start);
  }
}

TEST_F(Signals, a_child_does_not_get_the_handler_of_a_crash) {
  signals_take_over();
  signal(SIGSEGV, handle);
  signals_give_back();
  EXPECT_EQ(handler_of(SIGSEGV), SIG_DFL);
}

TEST_F(Signals, a_child_does_not_get_the_handlers_that_end_a_crash_report) {
  for (const int number : {SIGALRM, SIGABRT}) {
    for (const sighandler_t at_start : {SIG_DFL, SIG_IGN}) {
      signal(number, at_start);
      signals_take_over();
      EXPECT_EQ(handler_of(number), at_start) << "still unchanged";
      signal(number, handle);
      signals_give_back();
      EXPECT_EQ(handler_of(number), at_start) << number;
    }
  }
}

TEST_F(Signals, sigterm_ends_the_daemon_and_its_children_even_if_it_was_ignored_at_the_start) {
  signal(SIGTERM, SIG_IGN);
  signals_take_over();
  EXPECT_EQ(handler_of(SIGTERM), SIG_DFL);
  signals_give_back();
  EXPECT_EQ(handler_of(SIGTERM), SIG_DFL);
}

TEST_F(Signals, only_sigsegv_and_sigterm_are_unblocked_and_children_get_the_original_mask_without_sigterm) {
  sigset_t before;
  sigset_t none;
  sigset_t usual;
  sigset_t all;
  sigemptyset(&none);
  sigemptyset(&usual);
  sigaddset(&usual, SIGSEGV);
  sigaddset(&usual, SIGUSR1);
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  for (const sigset_t& mask : {none, usual, all}) {
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    const std::set<int> at_start = blocked();
    std::set<int> expected = at_start;
    expected.erase(SIGSEGV);
    expected.erase(SIGTERM);
    signals_take_over();
    const std::set<int> taken_over = blocked();
    sigset_t more;
    sigemptyset(&more);
    sigaddset(&more, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &more, nullptr);
    signals_give_back();
    const std::set<int> given_back = blocked();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(taken_over, expected);
    std::set<int> for_actors = at_start;
    for_actors.erase(SIGTERM);
    EXPECT_EQ(given_back, for_actors);
  }
}
