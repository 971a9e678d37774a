// SPDX-License-Identifier: MIT
// coverage-flush.cpp: what a program has reached is on disk whenever its log is.
//
// Tests end the daemon with signal 9, and counters that are only written at exit would be lost. It flushes
// its stream after each line of the log, so that is where they are written. Linked into the daemon of the
// coverage preset only.
#include <cstdio>

extern "C" {
void __gcov_dump();
void __gcov_reset();
int __real_fflush(FILE* stream);

int __wrap_fflush(FILE* stream) {
  const int result = __real_fflush(stream);
  __gcov_dump();
  __gcov_reset();
  return result;
}
}
