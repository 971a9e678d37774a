// SPDX-License-Identifier: MIT
// signals_test.cpp: what the daemon changes of its signals and gives back to its children.
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

TEST_F(Signals, what_ends_a_crash_report_is_not_the_childrens) {
  for (const int number : {SIGALRM, SIGABRT}) {
    for (const sighandler_t at_start : {SIG_DFL, SIG_IGN}) {
      signal(number, at_start);
      signals_take_over();
      EXPECT_EQ(handler_of(number), at_start) << "nothing is changed yet";
      signal(number, handle);
      signals_give_back();
      EXPECT_EQ(handler_of(number), at_start) << number;
    }
  }
}

TEST_F(Signals, sigterm_ends_a_daemon_and_its_children_although_it_was_started_with_it_ignored) {
  signal(SIGTERM, SIG_IGN);
  signals_take_over();
  EXPECT_EQ(handler_of(SIGTERM), SIG_DFL);
  signals_give_back();
  EXPECT_EQ(handler_of(SIGTERM), SIG_DFL);
}

TEST_F(Signals, sigsegv_and_sigterm_are_unblocked_and_no_other_signal_is_touched) {
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
    EXPECT_EQ(given_back, for_actors) << "an actor gets the mask that the daemon got, without SIGTERM";
  }
}
