// SPDX-License-Identifier: MIT
// text.cpp: the one place where a bounded buffer is filled.
//
// The check is explicit, so that every build type has it. The compiler's fortification is only a second
// check.
#include "common/text.h"

#include <cstdarg>
#include <cstdio>

void text_format(char* buffer, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  if (length < 0 || static_cast<size_t>(length) >= size) abort();
}
