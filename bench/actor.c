// SPDX-License-Identifier: MIT
// actor.c: an actor whose first instruction is timed.
//
// It starts at the entry point, without a C library, reads the clock, and writes the time to the pipe below;
// see struct Started in load.h. Then it waits for a signal.
#include <stdint.h>
#include <sys/syscall.h>

#define PIPE "/run/stage/bench-started"
#define O_WRONLY 1
#define CLOCK_MONOTONIC 1

struct Started {
  int64_t nanoseconds;
  int32_t pid;
  char display[20];
};

#ifdef __x86_64__
static long call(long number, long a, long b, long c) {
  long result;
  __asm__ volatile("syscall" : "=a"(result) : "0"(number), "D"(a), "S"(b), "d"(c) : "rcx", "r11", "memory");
  return result;
}
__asm__(".globl _start\n_start: xor %ebp, %ebp\n mov %rsp, %rdi\n and $-16, %rsp\n call begin\n");
#else
static long call(long number, long a, long b, long c) {
  long result;
  __asm__ volatile("int $0x80" : "=a"(result) : "0"(number), "b"(a), "c"(b), "d"(c) : "memory");
  return result;
}
__asm__(
    ".globl _start\n_start: xor %ebp, %ebp\n mov %esp, %eax\n and $-16, %esp\n sub $12, %esp\n push %eax\n "
    "call begin\n");
#endif

// `stack` holds the number of arguments, and then the arguments.
__attribute__((used)) void begin(const long* stack) {
  long now[2];
  call(SYS_clock_gettime, CLOCK_MONOTONIC, (long)now, 0);

  struct Started started = {now[0] * INT64_C(1000000000) + now[1], (int32_t)call(SYS_getpid, 0, 0, 0), {0}};
  const char* display = stack[0] > 1 ? (const char*)stack[2] : "";
  for (int i = 0; display[i] && i < 19; ++i) started.display[i] = display[i];
  const long pipe = call(SYS_open, (long)PIPE, O_WRONLY, 0);
  call(SYS_write, pipe, (long)&started, sizeof started);
  call(SYS_close, pipe, 0, 0);
  for (;;) call(SYS_pause, 0, 0, 0);
}
