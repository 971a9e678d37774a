// SPDX-License-Identifier: MIT
// text.cpp: the one place where a bounded buffer is filled.
//
// The check is ours and explicit, so that it holds in every build type: the compiler's own fortification is
// a second net under it, not the first.
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
