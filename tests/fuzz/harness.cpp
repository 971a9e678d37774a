// SPDX-License-Identifier: MIT
// harness.cpp: failed expectations, and the sanitizer's options.
#include "tests/fuzz/harness.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

extern "C" {
// The address sanitizer only needs to remember the memory that one input freed.
const char* __asan_default_options();
const char* __asan_default_options() {
  return "quarantine_size_mb=32";
}
}

void expect(bool holds, const char* format, ...) {
  if (holds) return;
  va_list arguments;
  va_start(arguments, format);
  fputs("expected: ", stderr);
  vfprintf(stderr, format, arguments);
  fputs("\n", stderr);
  va_end(arguments);
  abort();
}
