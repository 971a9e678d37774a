// SPDX-License-Identifier: MIT
// coverage-flush.cpp: writes the coverage counters to disk with each line of the log.
//
// Tests end the daemon with SIGKILL, which loses counters that are written at exit only. The daemon flushes
// its stream after each line of the log, and this file wraps the flush. Only the daemon of the coverage
// preset links it.
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
