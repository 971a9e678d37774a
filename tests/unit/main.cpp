// SPDX-License-Identifier: MIT
// main.cpp: runs the tests, and counts it as a failure when one of them ends the run.
//
// Some of the product's functions end the process, and with status 0: called by mistake outside a death test,
// they would end the tests in the middle with the status of success.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

static std::atomic<pid_t> runner;  // 0 while no test runs; the children of death tests have other pids

namespace {

class RunningTest : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { runner = getpid(); }
  void OnTestEnd(const testing::TestInfo&) override { runner = 0; }
};

}  // namespace

static void refuse_to_end_within_a_test() {
  if (runner != getpid()) return;
  fputs("a test ended the run\n", stderr);
  _exit(3);
}

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new RunningTest);  // which frees it
  atexit(refuse_to_end_within_a_test);
  return RUN_ALL_TESTS();
}
