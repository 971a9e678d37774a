// SPDX-License-Identifier: MIT
// fork-stress.cpp: forks on stacks of the pool while another thread's creations fail in the kernel.
//
// usage: fork-stress FORKS
//
// When the creation of a thread fails, the C library undoes it. A child that is forked at that moment finds
// the lists of the C library half changed, and still has to exit normally. A system call filter lets
// creations fail on one thread only.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "common/signals.h"
#include "common/stack-pool.h"

namespace {

constexpr int forking_threads = 2;

std::atomic<int> forks_left;
std::atomic<int> crashed{0};
std::atomic<long> refused{0};
std::atomic<bool> done{false};

[[noreturn]] void fail(const char* what) {
  perror(what);
  _exit(2);
}

int make_thread(pthread_t* thread, void* stack, void* (*body)(void*), void* data) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstack(&attributes, stack, pool_stack_size);
  const int rc = pthread_create(thread, &attributes, body, data);
  pthread_attr_destroy(&attributes);
  return rc;
}

void* fork_on(void* stack) {
  while (--forks_left >= 0) {
    const pid_t child = stack_fork(stack);
    if (child == 0) {
      signals_give_back();
      _exit(0);
    }
    int status = -1;
    if (child < 0 || waitpid(child, &status, 0) != child) fail("no child");
    if (status != 0) ++crashed;
  }
  return nullptr;
}

// After this, the calling thread can create processes, but no threads.
void refuse_threads() {
  sock_filter rules[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone3, 0, 1),
      BPF_STMT(BPF_RET | BPF_K,
               SECCOMP_RET_ERRNO | ENOSYS),  // a filter cannot read its flags, so clone comes next
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, CLONE_THREAD, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program = {.len = sizeof rules / sizeof *rules, .filter = rules};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
    fail("no filter");
}

void* fail_to_make_threads(void*) {
  refuse_threads();
  while (!done) {
    pthread_t thread;
    void* stack = stack_take();
    if (!stack || make_thread(&thread, stack, fork_on, nullptr) != EAGAIN) fail("a thread was made");
    stack_return(stack);
    ++refused;
  }
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  const int wanted = argc == 2 ? atoi(argv[1]) : 0;
  if (wanted <= 0) return fputs("usage: fork-stress FORKS\n", stderr), 2;
  signals_take_over();
  forks_left = wanted;
  pthread_t failing;
  pthread_t forking[forking_threads];
  if (pthread_create(&failing, nullptr, fail_to_make_threads, nullptr) != 0) fail("no thread");
  for (pthread_t& thread : forking) {
    void* stack = stack_take();
    if (!stack || make_thread(&thread, stack, fork_on, stack) != 0) fail("no thread");
  }
  for (const pthread_t thread : forking) pthread_join(thread, nullptr);
  done = true;
  pthread_join(failing, nullptr);
  printf("forks %d crashed %d refused %ld\n", wanted, crashed.load(), refused.load());
  return crashed == 0 && refused > 0 ? 0 : 1;
}
