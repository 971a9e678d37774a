// SPDX-License-Identifier: MIT
// harness.cpp: failed expectations, and the two ways by which the product ends a process.
//
// The linker sends abort and exit here (ld(1), --wrap), those of the fuzzer and the sanitizers included:
// outside ending_of they are passed on.
#include "tests/fuzz/harness.h"

#include <csetjmp>
#include <cstdarg>
#include <cstdio>

static thread_local bool inside;  // the fuzzer has threads of its own
static jmp_buf way_out;
static std::string way_taken;

extern "C" {
[[noreturn]] void __real_abort();
[[noreturn]] void __real_exit(int status);
[[noreturn]] void __wrap_abort();
[[noreturn]] void __wrap_exit(int status);

// What the address sanitizer keeps of freed memory is enough for one input.
const char* __asan_default_options();
const char* __asan_default_options() {
  return "quarantine_size_mb=32";
}
}

[[noreturn]] static void leave(const std::string& way) {
  way_taken = way;
  longjmp(way_out, 1);
}

void __wrap_abort() {
  if (inside) leave("abort");
  __real_abort();
}

void __wrap_exit(int status) {
  if (inside) leave("exit " + std::to_string(status));
  __real_exit(status);
}

std::string ending_of(const std::function<void()>& call) {
  way_taken = "return";
  inside = true;
  if (setjmp(way_out) == 0) call();
  inside = false;
  return way_taken;
}

void expect(bool holds, const char* format, ...) {
  if (holds) return;
  va_list arguments;
  va_start(arguments, format);
  fputs("expected: ", stderr);
  vfprintf(stderr, format, arguments);
  fputs("\n", stderr);
  va_end(arguments);
  __real_abort();
}
