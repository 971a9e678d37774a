// SPDX-License-Identifier: MIT
// main.cpp: runs the tests, and fails if one of them ends the process.
//
// Some of the product's functions exit with 0. Called by mistake outside a death test, they would end the
// tests early and report success.
//
// The tests start with no signal ignored or blocked and with three open streams, whatever the parent passes
// on. Tests that abort leave no core file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>

static std::atomic<pid_t> runner;  // 0 while no test runs; the children of death tests have other pids

namespace {

class RunningTest : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { runner = getpid(); }
  void OnTestEnd(const testing::TestInfo&) override { runner = 0; }
};

}  // namespace

static void fail_if_a_test_is_running() {
  if (runner != getpid()) return;
  fputs("a test ended the run\n", stderr);
  _exit(3);
}

/** Undoes the parent's settings, which affect the tests: with SIGCHLD ignored, no child can be waited for. */
static void reset_inherited_state() {
  int fd;
  do {
    fd = open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  close(fd);
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action;
    if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) signal(number, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  rlimit largest_file;
  getrlimit(RLIMIT_FSIZE, &largest_file);
  largest_file.rlim_cur = largest_file.rlim_max;
  setrlimit(RLIMIT_FSIZE, &largest_file);
  const rlimit no_core = {};
  setrlimit(RLIMIT_CORE, &no_core);
}

int main(int argc, char** argv) {
  reset_inherited_state();
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new RunningTest);  // which frees it
  atexit(fail_if_a_test_is_running);
  return RUN_ALL_TESTS();
}
